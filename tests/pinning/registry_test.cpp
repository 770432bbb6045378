// The domain registry's host handling, trie search and assertion reporting.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "pinning/registry/registry_tables.h"

namespace {

struct Report {
  std::string file;
  int line;
  std::string expression;
};
std::vector<Report> g_reports;

class RegistryTest : public testing::Test {
 protected:
  void SetUp() override { ZRB_InitializeDomainRegistry(); }
};

// A host of exactly `size` bytes ending in ".com".
std::string hostOfLength(size_t size) {
  std::string host;
  while (host.size() + 4 < size) host += host.size() + 6 <= size ? "a." : "a";
  return host + ".com";
}

TEST_F(RegistryTest, SuffixLengthsOfHosts) {
  // clang-format off
  const std::pair<const char*, size_t> strict[] = {
      {"example.com", 3}, {"www.example.co.uk", 5}, {"example.notatld", 0}, {"notatld", 0},
      // A bare suffix is answered like any other host: its own length.
      {"com", 3}, {"co.uk", 5},
      // One trailing dot is forgiven; a second one is an empty rightmost label.
      {"example.com.", 3}, {"www.example.co.uk.", 5}, {"com.", 3}, {"example.com..", 0},
      {"", 0}, {".", 0}, {"...", 0}, {"foo..ck", 0},
      // An empty label further left ends the walk; the suffix found to its right stands.
      {".example.com", 3}, {"..com", 3}, {"x..co.uk", 5},
      // Letters are folded, non-ASCII is refused; internationalised rules match their ASCII form (公司.cn).
      {"WWW.Example.CO.UK", 5}, {"EXAMPLE.COM.", 3}, {"ex\xc3\xa4mple.com", 0}, {"example.com\x80", 0},
      {"shop.xn--55qx5d.cn", 13},
      // "*.ck" with "!www.ck" ("ck" alone is no rule); "*.kawasaki.jp" with "!city.kawasaki.jp".
      {"foo.ck", 6}, {"www.foo.ck", 6}, {"www.ck", 2}, {"a.www.ck", 2}, {"ck", 0},
      {"a.b.kawasaki.jp", 13}, {"www.city.kawasaki.jp", 11},
      // A host cannot use the list's own syntax to reach a wildcard or an exception.
      {"*.ck", 0}, {"!www.ck", 0}, {"x.*.com", 3},
  };
  const std::pair<const char*, size_t> allowUnknown[] = {
      {"printer.lan", 3}, {"printer.LAN.", 3}, {"example.co.uk", 5},
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

// Tables built here: a root run and a leaf run of every length from 1 to 6, probed below the
// first label, at and between every label, and above the last.
TEST(RegistryBisectionTest, RunsOfEveryLengthFindExactlyTheirLabels) {
  const std::string string_table("b\0d\0f\0h\0j\0l\0p\0", 14);
  const uint16_t leaves[] = {0, 2, 4, 6, 8, 10};
  for (unsigned count = 1; count <= 6; ++count) {
    std::vector<ZRB_TrieNode> nodes;
    for (unsigned k = 0; k < count; ++k) nodes.push_back({2 * k, 0, 0, 1});
    nodes.push_back({12, 0, count, 0});  // "p", whose children are the first `count` leaves
    size_t leafOffset = nodes.size();
    nodes.back().first_child_offset = static_cast<unsigned>(leafOffset);
    ZRB_SetRegistryTables(string_table.data(), nodes.data(), count, leaves, leafOffset);
    const ZRB_TrieNode* parent = &nodes.back();
    for (char probe = 'a'; probe <= 'm'; ++probe) {
      const char label[] = {probe, '\0'};
      int index = (probe - 'b') / 2;
      bool present = probe % 2 == 0 && index < static_cast<int>(count);
      EXPECT_EQ(ZRB_FindRegistryNode(label, nullptr), present ? &nodes[index] : nullptr)
          << count << " " << probe;
      EXPECT_EQ(ZRB_FindRegistryLeafNode(label, parent), present ? string_table.data() + 2 * index : nullptr)
          << count << " " << probe;
    }
  }
  ZRB_InitializeDomainRegistry();
}

TEST(RegistryNodeTest, FieldsPackIntoOneLittleEndian48BitValue) {
  ZRB_TrieNode node{0x1ABCDE, 0x2345, 0xABC, 1};
  unsigned char bytes[sizeof node];
  std::memcpy(bytes, &node, sizeof node);
  uint64_t value = 0;
  for (size_t i = 0; i < sizeof bytes; ++i) value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
  EXPECT_EQ(value, 0x1ABCDEull | 0x2345ull << 21 | 0xABCull << 35 | 1ull << 47);
}

class RegistryAssertTest : public testing::Test {
 protected:
  void SetUp() override {
    g_reports.clear();
    ZRB_SetDomainRegistryAssertHandler([](const char* file, int line, const char* expression) {
      g_reports.push_back({file, line, expression});
    });
  }
  void TearDown() override {
    ZRB_SetDomainRegistryAssertHandler(nullptr);
    ZRB_InitializeDomainRegistry();
  }
  std::vector<std::string> expressions() const {
    std::vector<std::string> out;
    for (const auto& report : g_reports) out.push_back(report.expression);
    return out;
  }
};

TEST_F(RegistryAssertTest, SearchingWithoutTablesReportsTheMissingTable) {
  ZRB_SetRegistryTables(nullptr, nullptr, 0, nullptr, 0);
  EXPECT_EQ(ZRB_GetRegistryLength("example.com"), 0u);
  ASSERT_EQ(g_reports.size(), 1u);
  EXPECT_EQ(g_reports[0].file, "registry/trie_search");
  EXPECT_GT(g_reports[0].line, 0);
  EXPECT_EQ(g_reports[0].expression, "g_string_table != NULL");

  const char strings[] = "com";
  ZRB_TrieNode node{0, 0, 0, 1};
  ZRB_SetRegistryTables(strings, &node, 1, nullptr, 1);
  EXPECT_EQ(ZRB_FindRegistryNode("com", nullptr), nullptr);
  EXPECT_EQ(expressions().back(), "g_leaf_node_table != NULL");
  ZRB_SetRegistryTables(strings, nullptr, 1, nullptr, 1);
  EXPECT_EQ(ZRB_FindRegistryNode("com", nullptr), nullptr);
  EXPECT_EQ(expressions().back(), "g_node_table != NULL");
}

TEST_F(RegistryAssertTest, PrimitivesReportMisuse) {
  ZRB_InitializeDomainRegistry();
  const ZRB_TrieNode* jp = ZRB_FindRegistryNode("jp", nullptr);
  const ZRB_TrieNode* kawasaki = ZRB_FindRegistryNode("kawasaki", jp);
  ASSERT_NE(kawasaki, nullptr);
  ASSERT_TRUE(ZRB_HasLeafChildren(kawasaki));
  ASSERT_FALSE(ZRB_HasLeafChildren(jp));

  EXPECT_EQ(ZRB_FindRegistryNode(nullptr, jp), nullptr);
  EXPECT_EQ(ZRB_FindRegistryNode("x", kawasaki), nullptr);  // leaves are not nodes
  EXPECT_EQ(ZRB_FindRegistryLeafNode("x", nullptr), nullptr);
  EXPECT_EQ(ZRB_FindRegistryLeafNode("x", jp), nullptr);
  EXPECT_EQ(expressions(), (std::vector<std::string>{"component != NULL", "0", "parent != NULL",
                                                     "ZRB_HasLeafChildren(parent) != 0"}));
  for (const auto& report : g_reports) EXPECT_EQ(report.file, "registry/trie_search");
  // Correct use reports nothing.
  g_reports.clear();
  EXPECT_STREQ(ZRB_FindRegistryLeafNode("city", kawasaki), "!city");
  EXPECT_STREQ(ZRB_FindRegistryLeafNode("other", kawasaki), "*");
  EXPECT_TRUE(g_reports.empty());
}

// An exception rule with nothing to its right would put the registry past the host's end; only a
// broken table can say that, and the search reports it instead of answering.
TEST_F(RegistryAssertTest, ARegistryPastTheHostsEndIsReported) {
  const char strings[] = "!foo\0*";
  const ZRB_TrieNode nodes[] = {{0, 0, 0, 1}, {5, 0, 0, 1}};
  const uint16_t noLeaves[] = {0};
  ZRB_SetRegistryTables(strings, nodes, 2, noLeaves, 2);
  EXPECT_EQ(ZRB_GetRegistryLength("bar"), 3u);  // the wildcard alone is fine
  EXPECT_TRUE(g_reports.empty());
  EXPECT_EQ(ZRB_GetRegistryLength("foo"), 0u);
  ASSERT_EQ(g_reports.size(), 1u);
  EXPECT_EQ(g_reports[0].file, "registry/registry_search");
  EXPECT_EQ(g_reports[0].expression, "registry < value_end");
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

TEST(OrvelSuffixTest, PrintsLengthAndRegistrableDomainPerHost) {
  std::string command = std::string(ORVEL_PROGRAM_PATH) +
                        " suffix WWW.Example.CO.uk com. printer.lan bucket.amazonaws.com a.b.foo.ck x..co.uk";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[256];
  while (size_t n = fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
  EXPECT_EQ(pclose(pipe), 0);
  EXPECT_EQ(output,
            "WWW.Example.CO.uk 5 example.co.uk\n"
            "com. 3 -\n"
            "printer.lan 0 -\n"
            "bucket.amazonaws.com 0 -\n"
            "a.b.foo.ck 6 b.foo.ck\n"
            "x..co.uk 5 -\n");
}

}  // namespace
