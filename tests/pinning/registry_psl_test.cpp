// The compiled registry tables against libpsl loading the same public suffix list.
//
// Where our answers deliberately differ from libpsl:
// - Unknown top-level labels: libpsl applies the list's implicit "*" rule; ZRB_GetRegistryLength
//   answers 0 (the pinning configuration rejects such domains), only the allow-unknown variant
//   counts the label.
// - Passages, names on the way to longer rules without being rules themselves ("amazonaws.com",
//   "za"): a walk that ends below one gives 0 where libpsl falls back to a shorter rule ("com") or
//   to the implicit "*" ("za").
// Everything else, ICANN and private rules and internationalised ones alike, must agree.
#include <gtest/gtest.h>
#include <libpsl.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "pinning/registry/registry_tables.h"

namespace {

// The rules the tables encode, rebuilt by walking them. (Runs of siblings out of order would show
// as rules the search misses.)
void collectRules(const ZRB_TrieNode* first, size_t count, const std::string& suffix,
                  std::set<std::string>& out) {
  for (const ZRB_TrieNode* node = first; node != first + count; ++node) {
    const char* label = ZRB_GetHostnamePart(node->string_table_offset);
    std::string name = suffix.empty() ? label : std::string(label) + "." + suffix;
    if (node->is_terminal) out.insert(name);
    if (node->num_children == 0) continue;
    if (ZRB_HasLeafChildren(node)) {
      const uint16_t* leaves = g_leaf_node_table + (node->first_child_offset - g_leaf_node_table_offset);
      for (size_t i = 0; i < node->num_children; ++i) {
        out.insert(std::string(ZRB_GetHostnamePart(leaves[i])) + "." + name);
      }
    } else {
      collectRules(g_node_table + node->first_child_offset, node->num_children, name, out);
    }
  }
}

TEST(RegistryAgainstLibpslTest, EveryRuleAndHostsBelowItAgreeWithLibpsl) {
  std::unique_ptr<psl_ctx_t, decltype(&psl_free)> psl(psl_load_file(ORVELKIT_PUBLIC_SUFFIX_LIST), psl_free);
  ASSERT_NE(psl, nullptr);
  auto pslLength = [&psl](const std::string& host) {
    const char* suffix = psl_unregistrable_domain(psl.get(), host.c_str());
    return suffix != nullptr ? std::strlen(suffix) : 0;
  };
  ZRB_InitializeDomainRegistry();
  std::set<std::string> rules;
  collectRules(g_node_table, g_num_root_children, "", rules);

  // Together with the agreement below, which rules out invented or misplaced rules, an equal count
  // rules out dropped ones.
  std::ifstream in(ORVELKIT_PUBLIC_SUFFIX_LIST);
  std::set<std::string> listed;
  for (std::string line, rule; std::getline(in, line);) {
    if (std::istringstream(line) >> rule && !rule.starts_with("//")) listed.insert(rule);
  }
  EXPECT_GT(listed.size(), 5000u);
  EXPECT_EQ(rules.size(), listed.size());
  // Private rules are compiled in, and internationalised ones in their "xn--" form (公司.cn).
  EXPECT_EQ(rules.count("blogspot.com") + rules.count("xn--55qx5d.cn"), 2u);

  std::mt19937 random(20240501);
  auto randomLabel = [&] {
    std::string label(1 + random() % 12, 'a');
    for (char& c : label) c = "abcdefghijklmnopqrstuvwxyz0123456789-"[random() % 36];
    if (label.front() == '-') label.front() = 'q';
    return label;
  };
  std::set<std::string> passages;  // names that rules run through without being rules themselves
  for (const std::string& rule : rules) {
    for (size_t dot = rule.find('.'); dot != std::string::npos; dot = rule.find('.', dot + 1)) {
      if (rules.count(rule.substr(dot + 1)) == 0) passages.insert(rule.substr(dot + 1));
    }
    // Under a wildcard, any label fills the "*"; below an exception, the registry is its parent.
    bool wildcard = rule[0] == '*';
    std::string name = wildcard ? randomLabel() + rule.substr(1) : rule[0] == '!' ? rule.substr(1) : rule;
    std::vector<std::string> hosts = {name, randomLabel() + "." + name};
    if (!wildcard) hosts.push_back(randomLabel() + "." + randomLabel() + "." + name);
    for (const auto& host : hosts) EXPECT_EQ(ZRB_GetRegistryLength(host.c_str()), pslLength(host)) << host;
  }
  // Below a passage, the walk may end with nothing where libpsl falls back to a shorter rule.
  size_t differences = 0;
  for (const std::string& passage : passages) {
    for (const std::string& host :
         {randomLabel() + "." + passage, randomLabel() + "." + randomLabel() + "." + passage}) {
      size_t ours = ZRB_GetRegistryLength(host.c_str()), theirs = pslLength(host);
      if (ours == theirs) continue;
      EXPECT_TRUE(ours == 0 && theirs <= passage.size())
          << host << ": ours " << ours << ", libpsl " << theirs;
      ++differences;
    }
  }
  EXPECT_GT(differences, 0u);
  // Unknown top-level labels: only the allow-unknown variant counts them, as libpsl does.
  EXPECT_EQ(ZRB_GetRegistryLength("www.example.zz"), 0u);
  EXPECT_EQ(ZRB_GetRegistryLengthAllowUnknownRegistries("www.example.zz"), pslLength("www.example.zz"));
}

}  // namespace
