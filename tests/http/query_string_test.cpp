// Query strings: naming of nested values, ordering, null leaves, the top-level array quirk, and
// percent escaping with its batch boundaries.
#include "http/query_string.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Byte-by-byte escaping with no batching at all: what the batched escaper must always agree with.
std::string referenceEscape(std::string_view text) {
  static constexpr std::string_view kKept = "-._~/?";
  std::string out;
  for (unsigned char c : text) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
        kKept.find(static_cast<char>(c)) != std::string_view::npos) {
      out.push_back(static_cast<char>(c));
    } else {
      char buffer[4];
      std::snprintf(buffer, sizeof buffer, "%%%02X", c);
      out += buffer;
    }
  }
  return out;
}

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

TEST(QueryString, NestedMapsArraysAndNullsFollowTheNamingRules) {
  ZRBValue parameters = ZRBValue::dictionary({
      {"b", ZRBValue::array({1, 2})},
      {"a", ZRBValue::dictionary({{"y", "1 2"}, {"x", ZRBValue::null()}})},
  });
  EXPECT_EQ(ZRBHS_QueryStringFromParameters(parameters), "a%5Bx%5D&a%5By%5D=1%202&b%5B%5D=1&b%5B%5D=2");

  ZRBValue deep = ZRBValue::dictionary({
      {"m",
       ZRBValue::dictionary({{"n", ZRBValue::dictionary({{"o", "v"}})}, {"l", ZRBValue::array({"z", "y"})}})},
      {"n", 1.5},
      {"t", true},
  });
  auto pairs = ZRBHS_QueryStringPairsFromDictionary(deep);
  std::vector<std::string> fields;
  for (const auto& pair : pairs) fields.push_back(pair.field().description());
  EXPECT_EQ(fields, (std::vector<std::string>{"m[l][]", "m[l][]", "m[n][o]", "n", "t"}));
  // Array elements keep their order even where keys are sorted.
  EXPECT_EQ(pairs[0].value().string(), "z");
  EXPECT_EQ(pairs[1].value().string(), "y");
  EXPECT_EQ(ZRBHS_QueryStringFromParameters(deep),
            "m%5Bl%5D%5B%5D=z&m%5Bl%5D%5B%5D=y&m%5Bn%5D%5Bo%5D=v&n=1.5&t=1");

  // A leaf that is absent or the null object has no "=".
  EXPECT_EQ(ZRBHS_QueryStringPair("k", ZRBValue()).URLEncodedStringValue(), "k");
  EXPECT_EQ(ZRBHS_QueryStringPair("k", ZRBValue::null()).URLEncodedStringValue(), "k");
  EXPECT_EQ(ZRBHS_QueryStringPair("k v", "").URLEncodedStringValue(), "k%20v=");
  EXPECT_EQ(ZRBHS_QueryStringFromParameters(ZRBValue::dictionary({})), "");
}

TEST(QueryString, KeysAndSetElementsAreSortedLiterallyInUTF16Order) {
  ZRBValue parameters = ZRBValue::dictionary({{"b", 1}, {"a", 2}, {"B", 3}, {"10", 4}, {"9", 5}, {"_", 6}});
  EXPECT_EQ(ZRBHS_QueryStringFromParameters(parameters), "10=4&9=5&B=3&_=6&a=2&b=1");

  // In UTF-16 a character outside the BMP (a surrogate pair) sorts before U+FF21, although its
  // UTF-8 bytes are larger.
  ZRBValue wide = ZRBValue::dictionary({{kFullwidthA, 1}, {kEmoji, 2}, {"z", 3}});
  auto pairs = ZRBHS_QueryStringPairsFromDictionary(wide);
  ASSERT_EQ(pairs.size(), 3u);
  EXPECT_EQ(pairs[0].field().string(), "z");
  EXPECT_EQ(pairs[1].field().string(), kEmoji);
  EXPECT_EQ(pairs[2].field().string(), kFullwidthA);

  // Set elements share the key, without brackets, sorted by description (so "10" before "9").
  ZRBValue withSet = ZRBValue::dictionary({{"s", ZRBValue::set({9, "a", 10, "B"})}});
  EXPECT_EQ(ZRBHS_QueryStringFromParameters(withSet), "s=10&s=9&s=B&s=a");
  ZRBValue nestedSet = ZRBValue::dictionary({{"m", ZRBValue::dictionary({{"s", ZRBValue::set({2, 1})}})}});
  EXPECT_EQ(ZRBHS_QueryStringFromParameters(nestedSet), "m%5Bs%5D=1&m%5Bs%5D=2");
}

TEST(QueryString, TopLevelArraysAndScalarsPrintTheMissingKey) {
  auto pairs = ZRBHS_QueryStringPairsFromDictionary(ZRBValue::array({1, ZRBValue::dictionary({{"k", "v"}})}));
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].field().description(), "(null)[]");
  EXPECT_EQ(pairs[1].field().description(), "(null)[][k]");
  EXPECT_EQ(ZRBHS_QueryStringFromParameters(ZRBValue::array({"x", "y"})),
            "%28null%29%5B%5D=x&%28null%29%5B%5D=y");

  // A scalar with no key is one pair whose field is absent.
  auto scalar = ZRBHS_QueryStringPairsFromKeyAndValue(ZRBValue(), "v");
  ASSERT_EQ(scalar.size(), 1u);
  EXPECT_TRUE(scalar[0].field().isAbsent());
  EXPECT_EQ(scalar[0].URLEncodedStringValue(), "%28null%29=v");
  // A key given explicitly prefixes every name.
  auto keyed = ZRBHS_QueryStringPairsFromKeyAndValue("p", ZRBValue::dictionary({{"q", 1}}));
  ASSERT_EQ(keyed.size(), 1u);
  EXPECT_EQ(keyed[0].field().string(), "p[q]");
}

TEST(PercentEscaping, KeepsOnlyUnreservedCharactersSlashAndQuestionMark) {
  EXPECT_EQ(ZRBHS_PercentEscapedStringFromString(""), "");
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
  // 49 ASCII characters and then a pair at code units 50 and 51: one batch of 51 units.
  std::string pairAtEnd = std::string(49, 'a') + kEmoji;
  EXPECT_EQ(batchLengths(pairAtEnd), (std::vector<std::size_t>{53}));
  std::string pairThenMore = pairAtEnd + "bc";
  EXPECT_EQ(batchLengths(pairThenMore), (std::vector<std::size_t>{53, 2}));

  // Exactly 50 units end the batch; 51 ASCII characters take two.
  EXPECT_EQ(batchLengths(std::string(51, 'a')), (std::vector<std::size_t>{50, 1}));
  EXPECT_EQ(batchLengths(std::string(50, 'a') + kEmoji), (std::vector<std::size_t>{50, 4}));

  // A base character at unit 50 keeps every combining mark that follows it.
  std::string marks = std::string(49, 'a') + "e" + kAcute + kAcute + "x";
  EXPECT_EQ(batchLengths(marks), (std::vector<std::size_t>{54, 1}));
  // Marks from the other blocks count too (U+20D7, U+FE20).
  std::string otherMarks = std::string(50, 'a') + "\xE2\x83\x97" + "\xEF\xB8\xA0";
  EXPECT_EQ(batchLengths(otherMarks), (std::vector<std::size_t>{56}));
  // Two-byte and three-byte characters are one unit each.
  EXPECT_EQ(batchLengths(std::string(50, 'x') + "\xC3\xA9"), (std::vector<std::size_t>{50, 2}));
  std::string accents;
  for (int i = 0; i < 60; ++i) accents += "\xC3\xA9";
  EXPECT_EQ(batchLengths(accents), (std::vector<std::size_t>{100, 20}));

  // Whatever the boundaries, the output is the byte-wise escape of the whole text.
  std::string mixed;
  for (int i = 0; i < 40; ++i)
    mixed += (i % 3 == 0 ? kEmoji : i % 3 == 1 ? "e" + kAcute : std::string("a &"));
  for (std::size_t length = 0; length <= mixed.size(); length += 7) {
    std::string_view prefix(mixed.data(), length);
    EXPECT_EQ(ZRBHS_PercentEscapedStringFromString(prefix), referenceEscape(prefix)) << length;
  }
}

}  // namespace
