// Query strings: naming of nested values, ordering, null leaves, the top-level array quirk, and
// percent escaping with its batch boundaries.
#include "http/query_string.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// The batches the escaper walks through, as byte lengths.
std::vector<std::size_t> batchLengths(std::string_view text) {
  std::vector<std::size_t> lengths;
  while (!text.empty()) {
    std::size_t length = ZRBHS_PercentEscapingBatchLength(text);
    if (length == 0) break;
    lengths.push_back(length);
    text.remove_prefix(length);
  }
  return lengths;
}

const std::string kEmoji = "\xF0\x9F\x98\x80";   // U+1F600, a surrogate pair in UTF-16
const std::string kAcute = "\xCC\x81";           // U+0301 COMBINING ACUTE ACCENT
const std::string kFullwidthA = "\xEF\xBC\xA1";  // U+FF21, above the surrogates in UTF-16

TEST(QueryString, NamingOrderingAndNullLeaves) {
  using D = ZRBValue;
  struct Case {
    ZRBValue parameters;
    std::string query;
  } cases[] = {
      // Nested names, array elements in their order, the null object without "=".
      {D::dictionary({{"b", D::array({1, 2})}, {"a", D::dictionary({{"y", "1 2"}, {"x", D::null()}})}}),
       "a%5Bx%5D&a%5By%5D=1%202&b%5B%5D=1&b%5B%5D=2"},
      {D::dictionary({{"m", D::dictionary({{"n", D::dictionary({{"o", "v"}})}, {"l", D::array({"z", "y"})}})},
                      {"n", 1.5},
                      {"t", true}}),
       "m%5Bl%5D%5B%5D=z&m%5Bl%5D%5B%5D=y&m%5Bn%5D%5Bo%5D=v&n=1.5&t=1"},
      {D::dictionary({{"k v", ""}}), "k%20v="},
      {D::dictionary({}), ""},
      // Keys sort literally and case-sensitively ("10" before "9", "B" before "a").
      {D::dictionary({{"b", 1}, {"a", 2}, {"B", 3}, {"10", 4}, {"9", 5}, {"_", 6}}),
       "10=4&9=5&B=3&_=6&a=2&b=1"},
      // In UTF-16 a surrogate pair sorts before U+FF21, although its UTF-8 bytes are larger.
      {D::dictionary({{kFullwidthA, 1}, {kEmoji, 2}, {"z", 3}}), "z=3&%F0%9F%98%80=2&%EF%BC%A1=1"},
      // Set elements repeat the key without brackets, sorted by description.
      {D::dictionary({{"s", D::set({9, "a", 10, "B"})}}), "s=10&s=9&s=B&s=a"},
      {D::dictionary({{"m", D::dictionary({{"s", D::set({2, 1})}})}}), "m%5Bs%5D=1&m%5Bs%5D=2"},
      // A top-level array has no key, which prints as "(null)".
      {D::array({"x", D::dictionary({{"k", "v"}})}), "%28null%29%5B%5D=x&%28null%29%5B%5D%5Bk%5D=v"},
  };
  for (const auto& c : cases) EXPECT_EQ(ZRBHS_QueryStringFromParameters(c.parameters), c.query);
}

TEST(PercentEscaping, KeepsOnlyUnreservedCharactersSlashAndQuestionMark) {
  EXPECT_EQ(ZRBHS_PercentEscapedStringFromString("azAZ09-._~/?"), "azAZ09-._~/?");
  EXPECT_EQ(ZRBHS_PercentEscapedStringFromString(":#[]@!$&'()*+,;="),
            "%3A%23%5B%5D%40%21%24%26%27%28%29%2A%2B%2C%3B%3D");
  EXPECT_EQ(ZRBHS_PercentEscapedStringFromString(" %\"<>\\^`{|}\n"), "%20%25%22%3C%3E%5C%5E%60%7B%7C%7D%0A");
  EXPECT_EQ(ZRBHS_PercentEscapedStringFromString("caf\xC3\xA9 " + kEmoji), "caf%C3%A9%20%F0%9F%98%80");
  // Bytes that are not UTF-8 are escaped one by one.
  EXPECT_EQ(ZRBHS_PercentEscapedStringFromString("\xFF\xC3"), "%FF%C3");
  std::string out = "x=";
  ZRBHS_AppendPercentEscapedString(out, "a b");
  EXPECT_EQ(out, "x=a%20b");
}

TEST(PercentEscaping, BatchesNeverSplitASurrogatePairOrCombiningMarks) {
  std::string accents;
  for (int i = 0; i < 60; ++i) accents += "\xC3\xA9";
  struct Case {
    std::string text;
    std::vector<std::size_t> batches;
  } cases[] = {
      // A pair at code units 50 and 51 is taken whole: one batch of 51 units.
      {std::string(49, 'a') + kEmoji, {53}},
      {std::string(49, 'a') + kEmoji + "bc", {53, 2}},
      {std::string(51, 'a'), {50, 1}},
      {std::string(50, 'a') + kEmoji, {50, 4}},
      // A base character at unit 50 keeps every combining mark that follows, from any block.
      {std::string(49, 'a') + "e" + kAcute + kAcute + "x", {54, 1}},
      {std::string(50, 'a') + "\xE2\x83\x97" + "\xEF\xB8\xA0", {56}},
      // Two-byte characters are one unit each.
      {std::string(50, 'x') + "\xC3\xA9", {50, 2}},
      {accents, {100, 20}},
  };
  for (const auto& c : cases) EXPECT_EQ(batchLengths(c.text), c.batches) << c.text;

  // Whatever the boundaries, the output is the escape of the text taken one byte at a time.
  std::string mixed;
  for (int i = 0; i < 40; ++i)
    mixed += (i % 3 == 0 ? kEmoji : i % 3 == 1 ? "e" + kAcute : std::string("a &"));
  for (std::size_t length = 0; length <= mixed.size(); length += 7) {
    std::string_view prefix(mixed.data(), length);
    std::string bytewise;
    for (char byte : prefix) bytewise += ZRBHS_PercentEscapedStringFromString(std::string_view(&byte, 1));
    EXPECT_EQ(ZRBHS_PercentEscapedStringFromString(prefix), bytewise) << length;
  }
}

}  // namespace
