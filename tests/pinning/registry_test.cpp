// The domain registry's host handling, trie search and assertion reporting.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "pinning/registry/registry_tables.h"

namespace {

// A host of exactly `size` bytes ending in ".com".
std::string hostOfLength(size_t size) {
  std::string host;
  while (host.size() + 4 < size) host += host.size() + 6 <= size ? "a." : "a";
  return host + ".com";
}

TEST(RegistryTest, SuffixLengthsOfHosts) {
  ZRB_InitializeDomainRegistry();
  // clang-format off
  const std::pair<const char*, size_t> strict[] = {
      {"example.notatld", 0}, {"notatld", 0},
      // One trailing dot is forgiven; a second one is an empty rightmost label.
      {"example.com.", 3}, {"com.", 3}, {"example.com..", 0},
      {"", 0}, {".", 0}, {"...", 0}, {"foo..ck", 0},
      // An empty label further left ends the walk; the suffix found to its right stands.
      {".example.com", 3}, {"..com", 3}, {"x..co.uk", 5},
      // Letters are folded, non-ASCII is refused.
      {"WWW.Example.CO.UK", 5}, {"EXAMPLE.COM.", 3}, {"ex\xc3\xa4mple.com", 0}, {"example.com\x80", 0},
      // A host cannot use the list's own syntax to reach a wildcard ("*.ck") or an exception ("!www.ck").
      {"*.ck", 0}, {"!www.ck", 0}, {"x.*.com", 3},
  };
  const std::pair<const char*, size_t> allowUnknown[] = {
      {"printer.LAN.", 3}, {"example.co.uk", 5},
      // A known top-level label is never "unknown", even when the walk below it found nothing.
      {"bucket.amazonaws.com", 0},
      {"", 0}, {"...", 0}, {"x.*", 0}, {"lan..", 0}, {"\x80.lan", 0},
  };
  // clang-format on
  for (auto [host, length] : strict) EXPECT_EQ(ZRB_GetRegistryLength(host), length) << host;
  for (auto [host, length] : allowUnknown)
    EXPECT_EQ(ZRB_GetRegistryLengthAllowUnknownRegistries(host), length) << host;
  EXPECT_EQ(ZRB_GetRegistryLength(nullptr), 0u);

  // Hosts of up to 255 bytes are searched; the limit counts a trailing dot.
  std::string longest = hostOfLength(255), tooLong = hostOfLength(256);
  ASSERT_EQ(longest.size(), 255u);
  ASSERT_EQ(tooLong.size(), 256u);
  EXPECT_EQ(ZRB_GetRegistryLength(longest.c_str()), 3u);
  EXPECT_EQ(ZRB_GetRegistryLength(tooLong.c_str()), 0u);
  EXPECT_EQ(ZRB_GetRegistryLengthAllowUnknownRegistries(tooLong.c_str()), 0u);
  EXPECT_EQ(ZRB_GetRegistryLength((longest + ".").c_str()), 0u);
  EXPECT_EQ(ZRB_GetRegistryLength((hostOfLength(254) + ".").c_str()), 3u);
}

// Each failed check as "file:expression"; the line must be a real one.
std::vector<std::string> g_reports;

class RegistryAssertTest : public testing::Test {
 protected:
  void SetUp() override {
    g_reports.clear();
    ZRB_SetDomainRegistryAssertHandler([](const char* file, int line, const char* expression) {
      g_reports.push_back(std::string(file) + (line > 0 ? ":" : ":?:") + expression);
    });
  }
  void TearDown() override {
    ZRB_SetDomainRegistryAssertHandler(nullptr);
    ZRB_InitializeDomainRegistry();
  }
};

// Missing tables are reported one at a time, then misuse and a broken table.
TEST_F(RegistryAssertTest, MissingTablesMisuseAndBrokenTablesAreReported) {
  const char strings[] = "com";
  ZRB_TrieNode node{0, 0, 0, 1};
  ZRB_SetRegistryTables(nullptr, nullptr, 0, nullptr, 0);
  EXPECT_EQ(ZRB_GetRegistryLength("example.com"), 0u);
  ZRB_SetRegistryTables(strings, nullptr, 1, nullptr, 1);
  EXPECT_EQ(ZRB_FindRegistryNode("com", nullptr), nullptr);
  ZRB_SetRegistryTables(strings, &node, 1, nullptr, 1);
  EXPECT_EQ(ZRB_FindRegistryNode("com", nullptr), nullptr);
  EXPECT_EQ(g_reports, (std::vector<std::string>{"registry/trie_search:g_string_table != NULL",
                                                 "registry/trie_search:g_node_table != NULL",
                                                 "registry/trie_search:g_leaf_node_table != NULL"}));

  g_reports.clear();
  ZRB_InitializeDomainRegistry();
  const ZRB_TrieNode* jp = ZRB_FindRegistryNode("jp", nullptr);
  const ZRB_TrieNode* kawasaki = ZRB_FindRegistryNode("kawasaki", jp);
  ASSERT_TRUE(kawasaki && ZRB_HasLeafChildren(kawasaki) && !ZRB_HasLeafChildren(jp));
  // Correct use reports nothing; an exception beats the wildcard beside it.
  EXPECT_STREQ(ZRB_FindRegistryLeafNode("city", kawasaki), "!city");
  EXPECT_STREQ(ZRB_FindRegistryLeafNode("other", kawasaki), "*");
  EXPECT_TRUE(g_reports.empty());

  EXPECT_EQ(ZRB_FindRegistryNode(nullptr, jp), nullptr);
  EXPECT_EQ(ZRB_FindRegistryNode("x", kawasaki), nullptr);  // leaves are not nodes
  EXPECT_EQ(ZRB_FindRegistryLeafNode("x", nullptr), nullptr);
  EXPECT_EQ(ZRB_FindRegistryLeafNode("x", jp), nullptr);
  EXPECT_EQ(g_reports,
            (std::vector<std::string>{"registry/trie_search:component != NULL", "registry/trie_search:0",
                                      "registry/trie_search:parent != NULL",
                                      "registry/trie_search:ZRB_HasLeafChildren(parent) != 0"}));

  // An exception rule with nothing to its right would put the registry past the host's end; only
  // a broken table says that, and the search reports it instead of answering.
  g_reports.clear();
  const char broken[] = "!foo\0*";
  const ZRB_TrieNode nodes[] = {{0, 0, 0, 1}, {5, 0, 0, 1}};
  const uint16_t noLeaves[] = {0};
  ZRB_SetRegistryTables(broken, nodes, 2, noLeaves, 2);
  EXPECT_EQ(ZRB_GetRegistryLength("bar"), 3u);  // the wildcard alone is fine
  EXPECT_EQ(ZRB_GetRegistryLength("foo"), 0u);
  EXPECT_EQ(g_reports, std::vector<std::string>{"registry/registry_search:registry < value_end"});
}

TEST(RegistryAssertDeathTest, DefaultHandlerPrintsTheCheckAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        ZRB_SetDomainRegistryAssertHandler(nullptr);
        ZRB_SetRegistryTables(nullptr, nullptr, 0, nullptr, 0);
        ZRB_GetRegistryLength("example.com");
      },
      "registry/trie_search:[0-9]+\\. CHECK failed: g_string_table != NULL\n");
}

}  // namespace
