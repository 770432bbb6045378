#include "platform/foundation/json_serialization.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

using Limits = std::numeric_limits<long long>;
using ULimits = std::numeric_limits<unsigned long long>;

std::string write(const ZRBValue& v, ZRBJSONWritingOptions options = {}) {
  ZRBErrorPtr error;
  auto text = ZRBJSONSerialization::stringWithJSONObject(v, options, &error);
  EXPECT_TRUE(text.has_value()) << (error ? error->description() : "");
  return text.value_or("");
}

ZRBValue read(std::string_view text, ZRBJSONReadingOptions options = ZRBJSONReadingFragmentsAllowed) {
  ZRBErrorPtr error;
  ZRBValue v = ZRBJSONSerialization::JSONObjectWithData(text, options, &error);
  EXPECT_FALSE(v.isAbsent()) << text << ": " << (error ? error->description() : "");
  EXPECT_EQ(error, nullptr);
  return v;
}

// Value equality treats 1, 1.0 and 1u alike: the kind must match too.
void expectSameKindAndValue(const ZRBValue& got, const ZRBValue& expected, std::string_view label) {
  EXPECT_EQ(got.kind(), expected.kind()) << label;
  EXPECT_EQ(got, expected) << label;
}

// Reads text that must be refused; returns the debug description of the error.
std::string refusal(std::string_view text, ZRBJSONReadingOptions options = ZRBJSONReadingFragmentsAllowed) {
  ZRBErrorPtr error;
  ZRBValue v = ZRBJSONSerialization::JSONObjectWithData(text, options, &error);
  EXPECT_TRUE(v.isAbsent()) << "accepted: " << text;
  if (!error) {
    ADD_FAILURE() << "no error for: " << text;
    return "";
  }
  EXPECT_EQ(error->domain(), ZRBCocoaErrorDomain);
  EXPECT_EQ(error->code(), ZRBPropertyListReadCorruptError);
  EXPECT_EQ(error->localizedDescription(),
            "The data couldn’t be read because it isn’t in the correct format.");
  return error->userInfo()[ZRBDebugDescriptionErrorKey].string();
}

TEST(JSONSerializationTest, ScalarsRoundTripExactly) {
  const ZRBValue numbers[] = {Limits::min(), Limits::max(), ULimits::max(), 9223372036854775808ULL,
                              0.1,           1e300,         -2.5e-308,      5e-324,
                              true,          false};
  const ZRBValue others[] = {ZRBValue::null(),
                             "plain",
                             "a string longer than fourteen bytes",
                             "quote \" backslash \\ slash / tab \t newline \n nul \x01 \x1f",
                             "é ü 入口 👶 \u2028",
                             ""};
  auto roundTrip = [](const ZRBValue& v) {
    expectSameKindAndValue(read(write(ZRBValue::array({v})))[0], v, v.description());
  };
  for (const ZRBValue& v : numbers) roundTrip(v);
  for (const ZRBValue& v : others) roundTrip(v);
}

// The 64-bit limits themselves are covered by the round trip above; integers beyond them are read
// as doubles, not refused.
TEST(JSONSerializationTest, NumbersReadWithTheirKinds) {
  const std::pair<const char*, ZRBValue> cases[] = {{"0", 0},
                                                    {"-0", 0},
                                                    {"18446744073709551616", 18446744073709551616.0},
                                                    {"-9223372036854775809", -9223372036854775809.0},
                                                    {"123456789012345678901234567890", 1.2345678901234568e29},
                                                    {"2.0", 2.0},
                                                    {"1E5", 100000.0},
                                                    {"1e-400", 0.0}};
  for (const auto& [text, value] : cases) expectSameKindAndValue(read(text), value, text);
  // A document that needs the exact reader for one number still reads completely.
  ZRBValue mixed = read(R"({"big":100000000000000000000,"s":"x\u00e9\/","a":[1,{"b":null}]})");
  EXPECT_EQ(mixed["big"].doubleValue(), 1e20);
  EXPECT_EQ(mixed["s"].string(), "xé/");
  EXPECT_TRUE(mixed["a"][1]["b"].isNull());
}

TEST(JSONSerializationTest, ReadsStructureEscapesAndEncodings) {
  ZRBValue v = read(" \r\n\t{\"a\":[1,true,null],\"b\":{},\"a\":2} ");
  // A repeated key keeps its first position and takes the later value.
  ASSERT_TRUE(v.isDictionary());
  ASSERT_EQ(v.count(), 2u);
  EXPECT_EQ(v.entries()[0].first.string(), "a");
  EXPECT_EQ(v["a"], ZRBValue(2));
  EXPECT_TRUE(v["b"].isDictionary());
  EXPECT_EQ(read("[\"\\u00e9\\ud83d\\ude00\\n\\/\"]")[0].string(), "é😀\n/");

  // A byte-order mark is skipped; UTF-16 and UTF-32 are recognised with or without one.
  EXPECT_EQ(read("\xEF\xBB\xBF[1]"), ZRBValue::array({1}));
  auto encode = [](const auto& units, bool bigEndian) {
    std::string out;
    for (auto unit : units) {
      for (std::size_t i = 0; i < sizeof unit; ++i)
        out += static_cast<char>(unit >> 8 * (bigEndian ? sizeof unit - 1 - i : i));
    }
    return out;
  };
  const std::u16string utf16 = u"[\"é😀\"]";
  for (const std::string& text : {encode(utf16, false), "\xFF\xFE" + encode(utf16, false),
                                  encode(utf16, true), encode(std::u32string(U"[\"é😀\"]"), false)}) {
    EXPECT_EQ(read(text), ZRBValue::array({"é😀"})) << testing::PrintToString(text);
  }
}

// Siblings at every depth, small and indexed objects, repeated keys at depth: each container must
// take exactly its own children however the reader gathers them.
TEST(JSONSerializationTest, NestedContainersKeepTheirOwnChildren) {
  std::string text = "[";
  std::vector<ZRBValue> expected;
  for (int i = 0; i < 60; ++i) {
    const int keys = i % 2 ? 12 : 3;
    std::vector<ZRBDictionaryEntry> entries;
    text += i ? ",{" : "{";
    for (int k = 0; k < keys; ++k) {
      const std::string key = "key number " + std::to_string(k);
      text += (k ? ",\"" : "\"") + key + "\":[" + std::to_string(i) + ",{\"x\":" + std::to_string(k) + "}]";
      entries.emplace_back(ZRBValue(key), ZRBValue::array({i, ZRBValue::dictionary({{"x", k}})}));
    }
    text += ",\"key number 1\":\"last\"}";
    entries.emplace_back(ZRBValue("key number 1"), ZRBValue("last"));
    expected.push_back(ZRBValue::dictionary(std::move(entries)));
  }
  text += "]";
  const ZRBValue want = ZRBValue::array(std::move(expected));
  for (int round = 0; round < 2; ++round) {
    const ZRBValue v = read(text);
    ASSERT_EQ(v, want);
    EXPECT_EQ(v[1].count(), 12u);
    EXPECT_EQ(v[1]["key number 1"], ZRBValue("last"));
    EXPECT_EQ(v[1].entries()[1].first.string(), "key number 1");
  }
}

TEST(JSONSerializationTest, FragmentsNeedTheOption) {
  for (const char* text : {"1", "\"s\"", " null "}) {
    EXPECT_NE(refusal(text, {}).find("option to allow fragments not set"), std::string::npos) << text;
    read(text);
  }
  ZRBErrorPtr error;
  EXPECT_FALSE(ZRBJSONSerialization::dataWithJSONObject(ZRBValue(1), {}, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), ZRBPropertyListWriteInvalidError);
  EXPECT_EQ(write(ZRBValue("a/b"), ZRBJSONWritingFragmentsAllowed), "\"a\\/b\"");
}

TEST(JSONSerializationTest, MalformedInputIsRefusedWithAPlace) {
  const std::pair<std::string, const char*> cases[] = {
      // input, expected start of the debug description
      {"", "Unable to parse empty data."},
      {"   ", "Unexpected end of file"},
      {"[1,2", "Unexpected end of file"},
      {"{\"a\":", "Unexpected end of file"},
      {"[1,]", "Invalid value around line 1, column 3."},
      {"[1 2]", "Badly formed array around line 1, column 3."},
      {"{\"a\" 1}", "No ':' after key in object around line 1, column 5."},
      {"{1:2}", "No string key for value in object around line 1, column 1."},
      {"{\"a\":1,}", "No string key for value in object"},
      {"[1]\n x", "Garbage at end around line 2, column 1."},
      {std::string("[1]\0", 4), "Garbage at end"},
      {"[01]", "Leading zeros"},
      {"[1.]", "Invalid number"},
      {"[.5]", "Invalid value"},
      {"[1e400]", "Number out of range"},
      {"[nul]", "Invalid value"},
      {"[\"a\tb\"]", "Unescaped control character"},
      {"[\"\\x\"]", "Invalid escape sequence"},
      {"[\"\\ud800\"]", "Invalid unicode surrogate"},
      {"[\"\\ud800\\u0041\"]", "Invalid unicode surrogate"},
      {"[\"\xff\"]", "Unable to convert data to string around line 1, column 2."},
      {"[\"\xc0\x80\"]", "Unable to convert data to string"},  // overlong
      {"[\"é\", \xe9]", "Invalid value around line 1, column 6."},
      {"[1,\n 2,\n  ?]", "Invalid value around line 3, column 2."},
      {"\xFF\xFE[", "Unable to convert data to string"},  // odd UTF-16 length
  };
  for (const auto& [text, expected] : cases) {
    std::string debug = refusal(text);
    EXPECT_EQ(debug.rfind(expected, 0), 0u) << "input: " << text << "\ngot: " << debug;
  }
  // Without an error out-parameter a refusal is just an absent value.
  EXPECT_TRUE(ZRBJSONSerialization::JSONObjectWithData(std::string_view("[1,"), {}).isAbsent());
}

TEST(JSONSerializationTest, NestingIsCapped) {
  const std::size_t limit = ZRBJSONSerialization::kMaximumNestingDepth;
  auto nested = [](std::size_t depth, const char* inner) {
    std::string s;
    for (std::size_t i = 0; i < depth; ++i) s += i % 2 ? "{\"k\":" : "[";
    s += inner;
    for (std::size_t i = depth; i-- > 0;) s += i % 2 ? "}" : "]";
    return s;
  };
  EXPECT_TRUE(read(nested(limit, "1")).isArray());
  // Just beyond the cap, and far beyond it (without exhausting the stack, in either reader).
  for (const std::string& text :
       {nested(limit + 1, "1"), std::string(100000, '['), nested(100000, "1e999999")}) {
    EXPECT_NE(refusal(text).find("Too many nested"), std::string::npos) << text.size();
  }
  // The writer refuses what the reader could not read back.
  ZRBValue v = ZRBValue(1);
  for (std::size_t i = 0; i < limit; ++i) v = ZRBValue::array({v});
  EXPECT_TRUE(ZRBJSONSerialization::isValidJSONObject(v));
  EXPECT_EQ(read(write(v)), v);
  v = ZRBValue::array({v});
  EXPECT_FALSE(ZRBJSONSerialization::isValidJSONObject(v));
  EXPECT_FALSE(ZRBJSONSerialization::dataWithJSONObject(v));
}

TEST(JSONSerializationTest, WritesCompactSortedAndPrettyText) {
  ZRBValue v = ZRBValue::dictionary({
      {"b", ZRBValue::array({1, 2.0, 0.5, ZRBValue::null()})},
      {"a", "x/y"},
      {"é", ZRBValue::dictionary({{"z", true}, {"y", ZRBValue::array({})}})},
      {"B", ZRBValue::dictionary({})},
  });
  EXPECT_EQ(write(v), R"({"b":[1,2,0.5,null],"a":"x\/y","é":{"z":true,"y":[]},"B":{}})");
  EXPECT_EQ(write(v, ZRBJSONWritingWithoutEscapingSlashes),
            R"({"b":[1,2,0.5,null],"a":"x/y","é":{"z":true,"y":[]},"B":{}})");
  EXPECT_EQ(write(v, ZRBJSONWritingSortedKeys),
            R"({"B":{},"a":"x\/y","b":[1,2,0.5,null],"é":{"y":[],"z":true}})");
  EXPECT_EQ(write(v, ZRBJSONWritingPrettyPrinted | ZRBJSONWritingSortedKeys),
            "{\n"
            "  \"B\" : {\n\n  },\n"
            "  \"a\" : \"x\\/y\",\n"
            "  \"b\" : [\n"
            "    1,\n"
            "    2,\n"
            "    0.5,\n"
            "    null\n"
            "  ],\n"
            "  \"é\" : {\n"
            "    \"y\" : [\n\n    ],\n"
            "    \"z\" : true\n"
            "  }\n"
            "}");
  EXPECT_EQ(write(ZRBValue::array({"\x01\x1f\b\f\r"})), R"(["\u0001\u001f\b\f\r"])");
  // The byte form carries the same text and reads back.
  auto bytes = ZRBJSONSerialization::dataWithJSONObject(ZRBValue::array({"é"}));
  ASSERT_TRUE(bytes);
  EXPECT_EQ(std::string(bytes->begin(), bytes->end()), "[\"é\"]");
  EXPECT_EQ(ZRBJSONSerialization::JSONObjectWithData(*bytes), ZRBValue::array({"é"}));
}

TEST(JSONSerializationTest, InvalidObjectsAreRefusedForWriting) {
  const ZRBValue invalid[] = {ZRBDate{0},
                              ZRBValue::data("abc"),
                              ZRBValue::set({1}),
                              std::numeric_limits<double>::quiet_NaN(),
                              std::numeric_limits<double>::infinity(),
                              ZRBValue(),
                              std::string_view("\xff\xfe"),
                              ZRBValue::classTag(ZRBValueClass::String),
                              ZRBError::make(ZRBCocoaErrorDomain, 1)};
  for (const ZRBValue& item : invalid) {
    for (ZRBValue container : {ZRBValue::array({item}), ZRBValue::dictionary({{"k", item}})}) {
      EXPECT_FALSE(ZRBJSONSerialization::isValidJSONObject(container)) << container.description();
      ZRBErrorPtr error;
      EXPECT_FALSE(ZRBJSONSerialization::dataWithJSONObject(container, ZRBJSONWritingPrettyPrinted, &error));
      ASSERT_NE(error, nullptr);
      EXPECT_EQ(error->domain(), ZRBCocoaErrorDomain);
      EXPECT_EQ(error->code(), ZRBPropertyListWriteInvalidError);
      EXPECT_FALSE(error->userInfo()[ZRBDebugDescriptionErrorKey].string().empty());
    }
  }
  EXPECT_FALSE(ZRBJSONSerialization::isValidJSONObject(ZRBValue("top-level string")));
  EXPECT_TRUE(
      ZRBJSONSerialization::isValidJSONObject(ZRBValue::dictionary({{"k", ZRBValue::array({1, "s"})}})));
}

TEST(JSONSerializationTest, LargeDocumentsRoundTripRepeatedly) {
  // Larger than the parser keeps between documents, read twice so the released parser is rebuilt.
  ZRBArrayBuilder records;
  for (int i = 0; i < 60000; ++i) {
    records.add(ZRBValue::dictionary({{"id", i},
                                      {"name", "device number " + std::to_string(i)},
                                      {"ratio", i / 7.0},
                                      {"tags", ZRBValue::array({"a/b", ZRBValue::null()})}}));
  }
  ZRBValue v = records.build();
  std::string text = write(v);
  ASSERT_GT(text.size(), std::size_t{4} << 20);
  for (int round = 0; round < 2; ++round) EXPECT_EQ(read(text), v);
  EXPECT_EQ(read("[1]"), ZRBValue::array({1}));
}

TEST(JSONSerializationTest, ThreadsReadIndependently) {
  // Each thread keeps its own parser; documents read at the same time must not mix.
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &mismatches] {
      ZRBValue expected =
          ZRBValue::dictionary({{"thread", t}, {"items", ZRBValue::array({t, "x", t * 0.5})}});
      std::string text = ZRBJSONSerialization::stringWithJSONObject(expected).value_or("");
      for (int i = 0; i < 300; ++i)
        mismatches[t] += ZRBJSONSerialization::JSONObjectWithData(text) != expected;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

}  // namespace
