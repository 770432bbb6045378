// The compiled registry tables against the public suffix list itself, read here independently of
// the generator, and against libpsl loading the same list file.
//
// Where our answers deliberately differ from libpsl:
// - Unknown top-level labels: libpsl applies the list's implicit "*" rule and calls the last
//   label a public suffix; ZRB_GetRegistryLength answers 0 (the pinning configuration rejects
//   such domains), and only the allow-unknown variant counts the label.
// - Names that lie on the way to longer rules without being rules themselves (the list has
//   "s3.amazonaws.com"-style rules but no "amazonaws.com", and "co.za" but no "za"): the walk
//   clears what it had found when it passes such a name, so hosts whose walk ends there give 0
//   where libpsl falls back to the shorter rule ("com") or to the implicit "*" rule ("za").
// Everything else, both sections of the list included, must agree to the byte.
#include <gtest/gtest.h>
#include <libpsl.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "pinning/registry/registry_tables.h"

namespace {

// RFC 3492 encoding of one label, the form the list's internationalised rules take in hosts.
std::string punycode(const std::u32string& input) {
  constexpr uint32_t kBase = 36, kTMin = 1, kTMax = 26, kSkew = 38, kDamp = 700;
  auto digit = [](uint32_t d) { return static_cast<char>(d < 26 ? 'a' + d : '0' + d - 26); };
  std::string out;
  for (char32_t c : input) {
    if (c < 0x80) out += static_cast<char>(c);
  }
  uint32_t basic = static_cast<uint32_t>(out.size()), handled = basic, n = 0x80, delta = 0, bias = 72;
  if (basic > 0) out += '-';
  while (handled < input.size()) {
    uint32_t m = UINT32_MAX;
    for (char32_t c : input) m = c >= n && c < m ? c : m;
    delta += (m - n) * (handled + 1);
    n = m;
    for (char32_t c : input) {
      if (c < n) ++delta;
      if (c != n) continue;
      uint32_t q = delta;
      for (uint32_t k = kBase;; k += kBase) {
        uint32_t t = k <= bias ? kTMin : k >= bias + kTMax ? kTMax : k - bias;
        if (q < t) break;
        out += digit(t + (q - t) % (kBase - t));
        q = (q - t) / (kBase - t);
      }
      out += digit(q);
      // Bias adaptation.
      delta = handled == basic ? delta / kDamp : delta / 2;
      delta += delta / (handled + 1);
      for (bias = 0; delta > ((kBase - kTMin) * kTMax) / 2; bias += kBase) delta /= kBase - kTMin;
      bias += (kBase - kTMin + 1) * delta / (delta + kSkew);
      delta = 0;
      ++handled;
    }
    ++delta;
    ++n;
  }
  return out;
}

// A label of the list in the form hosts use: lower case, "xn--" + punycode when not ASCII.
std::string asciiLabel(std::string label) {
  bool ascii = true;
  for (char& c : label) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  }
  if (ascii) return label;
  std::u32string decoded;  // UTF-8
  for (size_t i = 0; i < label.size();) {
    auto byte = static_cast<unsigned char>(label[i]);
    int extra = byte < 0x80 ? 0 : byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
    char32_t c = extra == 0 ? byte : byte & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) c = (c << 6) | (static_cast<unsigned char>(label[i + k]) & 0x3F);
    decoded += c;
    i += extra + 1;
  }
  return "xn--" + punycode(decoded);
}

// Every rule of the list, both sections, internationalised labels in their ASCII form.
std::set<std::string> readRules() {
  std::ifstream in(ORVELKIT_PUBLIC_SUFFIX_LIST);
  std::set<std::string> rules;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string rule;
    if (!(words >> rule) || rule.rfind("//", 0) == 0) continue;
    std::string ascii;
    std::istringstream labels(rule);
    for (std::string label; std::getline(labels, label, '.');)
      ascii += (ascii.empty() ? "" : ".") + asciiLabel(label);
    rules.insert(ascii);
  }
  return rules;
}

// The rules the tables encode, rebuilt by walking them; also checks that every run of siblings is
// sorted strictly ascending, which bisection relies on.
void collectRules(const ZRB_TrieNode* first, size_t count, const std::string& suffix,
                  std::set<std::string>& out) {
  const char* previous = nullptr;
  for (const ZRB_TrieNode* node = first; node != first + count; ++node) {
    const char* label = ZRB_GetHostnamePart(node->string_table_offset);
    EXPECT_TRUE(previous == nullptr || std::strcmp(previous, label) < 0) << label << "." << suffix;
    previous = label;
    std::string name = suffix.empty() ? label : std::string(label) + "." + suffix;
    if (node->is_terminal) out.insert(name);
    if (node->num_children == 0) continue;
    if (ZRB_HasLeafChildren(node)) {
      const uint16_t* leaves = g_leaf_node_table + (node->first_child_offset - g_leaf_node_table_offset);
      for (size_t i = 0; i < node->num_children; ++i) {
        const char* leaf = ZRB_GetHostnamePart(leaves[i]);
        EXPECT_TRUE(i == 0 || std::strcmp(ZRB_GetHostnamePart(leaves[i - 1]), leaf) < 0)
            << leaf << "." << name;
        out.insert(std::string(leaf) + "." + name);
      }
    } else {
      collectRules(g_node_table + node->first_child_offset, node->num_children, name, out);
    }
  }
}

class RegistryAgainstListTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    rules_ = new std::set<std::string>(readRules());
    psl_ = psl_load_file(ORVELKIT_PUBLIC_SUFFIX_LIST);
  }
  static void TearDownTestSuite() {
    psl_free(psl_);
    delete rules_;
  }
  void SetUp() override {
    ASSERT_NE(psl_, nullptr);
    ASSERT_GT(rules_->size(), 5000u);
    ZRB_InitializeDomainRegistry();
  }

  static size_t pslLength(const std::string& host) {
    const char* suffix = psl_unregistrable_domain(psl_, host.c_str());
    return suffix != nullptr ? std::strlen(suffix) : 0;
  }

  // A name that rules run through without being a rule itself.
  static bool isPassage(const std::string& name) { return passages().count(name) != 0; }
  static const std::set<std::string>& passages() {
    static const std::set<std::string> names = [] {
      std::set<std::string> out;
      for (const std::string& rule : *rules_) {
        for (size_t dot = rule.find('.'); dot != std::string::npos; dot = rule.find('.', dot + 1)) {
          std::string parent = rule.substr(dot + 1);
          if (rules_->count(parent) == 0) out.insert(parent);
        }
      }
      return out;
    }();
    return names;
  }

  // Compares one host with libpsl; a difference must be the passage case described above.
  void expectAgreement(const std::string& host, size_t& passageDifferences) {
    size_t ours = ZRB_GetRegistryLength(host.c_str());
    size_t theirs = pslLength(host);
    if (ours == theirs) return;
    bool throughPassage = false;
    for (size_t start = 0; !throughPassage;) {
      std::string suffix = host.substr(start);
      throughPassage = suffix.size() >= theirs && isPassage(suffix);
      size_t dot = host.find('.', start);
      if (dot == std::string::npos) break;
      start = dot + 1;
    }
    EXPECT_TRUE(ours == 0 && throughPassage) << host << ": ours " << ours << ", libpsl " << theirs;
    ++passageDifferences;
  }

  static std::set<std::string>* rules_;
  static psl_ctx_t* psl_;
};

std::set<std::string>* RegistryAgainstListTest::rules_ = nullptr;
psl_ctx_t* RegistryAgainstListTest::psl_ = nullptr;

TEST_F(RegistryAgainstListTest, TablesHoldExactlyTheListsRulesInSortedRuns) {
  std::set<std::string> compiled;
  collectRules(g_node_table, g_num_root_children, "", compiled);
  std::vector<std::string> missing, extra;
  std::set_difference(rules_->begin(), rules_->end(), compiled.begin(), compiled.end(),
                      std::back_inserter(missing));
  std::set_difference(compiled.begin(), compiled.end(), rules_->begin(), rules_->end(),
                      std::back_inserter(extra));
  EXPECT_TRUE(missing.empty()) << missing.size() << " rules missing, first " << missing.front();
  EXPECT_TRUE(extra.empty()) << extra.size() << " rules invented, first " << extra.front();
  // Both sections are compiled in: an ICANN rule, a private one and an internationalised one.
  EXPECT_EQ(compiled.count("co.uk"), 1u);
  EXPECT_EQ(compiled.count("blogspot.com"), 1u);
  EXPECT_EQ(compiled.count("xn--55qx5d.cn"), 1u);  // 公司.cn
}

TEST_F(RegistryAgainstListTest, EveryRuleAndHostsBelowItAgreeWithLibpsl) {
  std::mt19937 random(20240501);
  auto randomLabel = [&] {
    std::string label(1 + random() % 12, 'a');
    for (char& c : label) c = "abcdefghijklmnopqrstuvwxyz0123456789-"[random() % 36];
    if (label.front() == '-') label.front() = 'q';
    return label;
  };
  size_t checked = 0, passageDifferences = 0;
  for (const std::string& rule : *rules_) {
    // Under a wildcard, any label fills the "*"; below an exception, the registry is its parent.
    bool wildcard = rule[0] == '*';
    std::string name = wildcard ? randomLabel() + rule.substr(1) : rule[0] == '!' ? rule.substr(1) : rule;
    std::vector<std::string> hosts = {name, randomLabel() + "." + name};
    if (!wildcard) hosts.push_back(randomLabel() + "." + randomLabel() + "." + name);
    for (const auto& host : hosts) {
      expectAgreement(host, passageDifferences);
      ++checked;
    }
  }
  // Hosts under a rule reach a rule, so only the names in passage may differ.
  EXPECT_EQ(passageDifferences, 0u);
  EXPECT_GT(checked, 25000u);
  for (const std::string& passage : passages()) {
    expectAgreement(randomLabel() + "." + passage, passageDifferences);
    expectAgreement(randomLabel() + "." + randomLabel() + "." + passage, passageDifferences);
  }
  EXPECT_GT(passageDifferences, 0u);
  // The typical passage: libpsl says "com", the walk found nothing after leaving "amazonaws".
  EXPECT_EQ(pslLength("bucket.amazonaws.com"), 3u);
  EXPECT_EQ(ZRB_GetRegistryLength("bucket.amazonaws.com"), 0u);
}

TEST_F(RegistryAgainstListTest, UnknownTopLevelLabelsDifferFromLibpslOnlyInTheStrictVariant) {
  std::mt19937 random(7);
  for (int i = 0; i < 2000; ++i) {
    std::string tld = "zz" + std::to_string(random() % 100000);
    std::string host = "www.example." + tld;
    ASSERT_EQ(rules_->count(tld), 0u);
    EXPECT_EQ(ZRB_GetRegistryLength(host.c_str()), 0u) << host;
    EXPECT_EQ(ZRB_GetRegistryLengthAllowUnknownRegistries(host.c_str()), pslLength(host)) << host;
  }
}

}  // namespace
