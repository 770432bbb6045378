#include "platform/json_serialization.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

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
  const ZRBValue values[] = {
      ZRBValue(std::numeric_limits<long long>::min()),
      ZRBValue(std::numeric_limits<long long>::max()),
      ZRBValue(std::numeric_limits<unsigned long long>::max()),
      ZRBValue(9223372036854775808ULL),
      ZRBValue(0.1),
      ZRBValue(1e300),
      ZRBValue(-2.5e-308),
      ZRBValue(5e-324),
      ZRBValue(true),
      ZRBValue(false),
      ZRBValue::null(),
      ZRBValue("plain"),
      ZRBValue("a string longer than fourteen bytes"),
      ZRBValue("quote \" backslash \\ slash / tab \t newline \n nul \x01 \x1f"),
      ZRBValue("é ü 入口 👶 \u2028"),
      ZRBValue(""),
  };
  for (const ZRBValue& v : values) {
    ZRBValue back = read(write(ZRBValue::array({v})))[0];
    EXPECT_EQ(back.kind(), v.kind()) << v.description();
    EXPECT_EQ(back, v) << v.description();
  }
}

TEST(JSONSerializationTest, NumbersReadWithTheirKinds) {
  struct Case {
    const char* text;
    ZRBValueKind kind;
    ZRBValue value;
  } cases[] = {
      {"0", ZRBValueKind::Int, ZRBValue(0)},
      {"-0", ZRBValueKind::Int, ZRBValue(0)},
      {"-9223372036854775808", ZRBValueKind::Int, ZRBValue(std::numeric_limits<long long>::min())},
      {"9223372036854775807", ZRBValueKind::Int, ZRBValue(std::numeric_limits<long long>::max())},
      {"9223372036854775808", ZRBValueKind::UInt, ZRBValue(9223372036854775808ULL)},
      {"18446744073709551615", ZRBValueKind::UInt, ZRBValue(18446744073709551615ULL)},
      // Beyond 64 bits: doubles, not errors.
      {"18446744073709551616", ZRBValueKind::Double, ZRBValue(18446744073709551616.0)},
      {"-9223372036854775809", ZRBValueKind::Double, ZRBValue(-9223372036854775809.0)},
      {"123456789012345678901234567890", ZRBValueKind::Double, ZRBValue(1.2345678901234568e29)},
      {"2.0", ZRBValueKind::Double, ZRBValue(2.0)},
      {"1E5", ZRBValueKind::Double, ZRBValue(100000.0)},
      {"1e-400", ZRBValueKind::Double, ZRBValue(0.0)},
      {"0.1", ZRBValueKind::Double, ZRBValue(0.1)},
  };
  for (const Case& c : cases) {
    ZRBValue v = read(c.text);
    EXPECT_EQ(v.kind(), c.kind) << c.text;
    EXPECT_EQ(v, c.value) << c.text;
  }
  // A document that needs the exact reader for one number still reads completely.
  ZRBValue mixed = read(R"({"big":100000000000000000000,"s":"x\u00e9\/","a":[1,{"b":null}]})");
  EXPECT_EQ(mixed["big"].doubleValue(), 1e20);
  EXPECT_EQ(mixed["s"].string(), "xé/");
  EXPECT_TRUE(mixed["a"][1]["b"].isNull());
}

TEST(JSONSerializationTest, ReadsStructureEscapesAndEncodings) {
  ZRBValue v = read(" \r\n\t{\"a\":[1,true,null,\"\\u00e9\\ud83d\\ude00\\n\"],\"b\":{},\"a\":2} ");
  ASSERT_TRUE(v.isDictionary());
  // A repeated key keeps its first position and takes the later value.
  ASSERT_EQ(v.count(), 2u);
  EXPECT_EQ(v.entries()[0].first.string(), "a");
  EXPECT_EQ(v["a"], ZRBValue(2));
  EXPECT_TRUE(v["b"].isDictionary());
  EXPECT_EQ(read("[\"\\u00e9\\ud83d\\ude00\\n\\/\"]")[0].string(), "é😀\n/");

  // A byte-order mark is skipped; UTF-16 and UTF-32 are recognised with or without one.
  EXPECT_EQ(read("\xEF\xBB\xBF[1]"), ZRBValue::array({1}));
  std::u16string utf16 = u"{\"k\":\"é😀\"}";
  std::string le, be, le32;
  for (char16_t c : utf16) {
    le += static_cast<char>(c & 0xFF), le += static_cast<char>(c >> 8);
    be += static_cast<char>(c >> 8), be += static_cast<char>(c & 0xFF);
  }
  for (char32_t c : std::u32string(U"[\"é😀\"]")) {
    for (int i = 0; i < 4; ++i) le32 += static_cast<char>((c >> (8 * i)) & 0xFF);
  }
  EXPECT_EQ(read(le)["k"].string(), "é😀");
  EXPECT_EQ(read("\xFF\xFE" + le)["k"].string(), "é😀");
  EXPECT_EQ(read(be)["k"].string(), "é😀");
  EXPECT_EQ(read(le32)[0].string(), "é😀");
}

TEST(JSONSerializationTest, FragmentsNeedTheOption) {
  for (const char* text : {"1", "\"s\"", "true", "null", " 2.5 "}) {
    EXPECT_NE(refusal(text, {}).find("option to allow fragments not set"), std::string::npos) << text;
    EXPECT_FALSE(read(text).isAbsent());
  }
  ZRBErrorPtr error;
  EXPECT_FALSE(ZRBJSONSerialization::dataWithJSONObject(ZRBValue(1), {}, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), ZRBPropertyListWriteInvalidError);
  EXPECT_EQ(write(ZRBValue(1), ZRBJSONWritingFragmentsAllowed), "1");
  EXPECT_EQ(write(ZRBValue("a/b"), ZRBJSONWritingFragmentsAllowed), "\"a\\/b\"");
}

TEST(JSONSerializationTest, MalformedInputIsRefusedWithAPlace) {
  struct Case {
    std::string text;
    const char* debug;  // expected start of the debug description
  } cases[] = {
      {"", "Unable to parse empty data."},
      {"   ", "Unexpected end of file"},
      {"[1,2", "Unexpected end of file"},
      {"{\"a\":", "Unexpected end of file"},
      {"[\"abc", "Unexpected end of file"},
      {"[tru", "Unexpected end of file"},
      {"[1,]", "Invalid value around line 1, column 3."},
      {"[1 2]", "Badly formed array around line 1, column 3."},
      {"{\"a\" 1}", "No ':' after key in object around line 1, column 5."},
      {"{1:2}", "No string key for value in object around line 1, column 1."},
      {"{\"a\":1,}", "No string key for value in object"},
      {"[1]\n x", "Garbage at end around line 2, column 1."},
      {std::string("[1]\0", 4), "Garbage at end"},
      {"[01]", "Leading zeros"},
      {"[1.]", "Invalid number"},
      {"[-]", "Invalid number"},
      {"[.5]", "Invalid value"},
      {"[1e400]", "Number out of range"},
      {"[-123456789e400]", "Number out of range"},
      {"[nul]", "Invalid value"},
      {"[NaN]", "Invalid value"},
      {"[\"a\tb\"]", "Unescaped control character"},
      {"[\"\\x\"]", "Invalid escape sequence"},
      {"[\"\\u12G4\"]", "Invalid escape sequence"},
      {"[\"\\ud800\"]", "Invalid unicode surrogate"},
      {"[\"\\ud800\\u0041\"]", "Invalid unicode surrogate"},
      {"[\"\\udc00\"]", "Invalid unicode surrogate"},
      {"[\"\xff\"]", "Unable to convert data to string around line 1, column 2."},
      {"[\"\xc0\x80\"]", "Unable to convert data to string"},          // overlong
      {"[\"\xed\xa0\x80\"]", "Unable to convert data to string"},      // encoded surrogate
      {"[\"\xf4\x90\x80\x80\"]", "Unable to convert data to string"},  // beyond U+10FFFF
      {"[\"é\", \xe9]", "Invalid value around line 1, column 6."},
      {"[1,\n 2,\n  ?]", "Invalid value around line 3, column 2."},
      {"\xFF\xFE[", "Unable to convert data to string"},  // odd UTF-16 length
  };
  for (const Case& c : cases) {
    std::string debug = refusal(c.text);
    EXPECT_EQ(debug.rfind(c.debug, 0), 0u) << "input: " << c.text << "\ngot: " << debug;
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
  ZRBValue deepest = read(nested(limit, "1"));
  EXPECT_TRUE(deepest.isArray());
  EXPECT_NE(refusal(nested(limit + 1, "1")).find("Too many nested"), std::string::npos);
  // Far beyond the cap: refused without exhausting the stack, in either reader.
  EXPECT_NE(refusal(std::string(100000, '[')).find("Too many nested"), std::string::npos);
  EXPECT_NE(refusal(nested(100000, "1e999999")).find("Too many nested"), std::string::npos);

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
      {"a", ZRBValue("x/y")},
      {"é", ZRBValue::dictionary({{"z", ZRBValue(true)}, {"y", ZRBValue::array({})}})},
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
  EXPECT_EQ(write(ZRBValue::dictionary({{"a", ZRBValue(1)}}), ZRBJSONWritingPrettyPrinted),
            "{\n  \"a\" : 1\n}");
  EXPECT_EQ(write(ZRBValue::array({"\x01\x1f\b\f\r"})), R"(["\u0001\u001f\b\f\r"])");

  auto bytes = ZRBJSONSerialization::dataWithJSONObject(ZRBValue::array({"é"}));
  ASSERT_TRUE(bytes);
  EXPECT_EQ(std::string(bytes->begin(), bytes->end()), "[\"é\"]");
  EXPECT_EQ(ZRBJSONSerialization::JSONObjectWithData(*bytes), ZRBValue::array({"é"}));
}

TEST(JSONSerializationTest, InvalidObjectsAreRefusedForWriting) {
  const ZRBValue invalid[] = {
      ZRBValue(ZRBDate{0}),
      ZRBValue::data("abc"),
      ZRBValue::set({1}),
      ZRBValue(std::numeric_limits<double>::quiet_NaN()),
      ZRBValue(std::numeric_limits<double>::infinity()),
      ZRBValue(),
      ZRBValue(std::string_view("\xff\xfe")),
      ZRBValue::classTag(ZRBValueClass::String),
      ZRBValue(ZRBError::make(ZRBCocoaErrorDomain, 1)),
  };
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
    records.add(ZRBValue::dictionary({{"id", ZRBValue(i)},
                                      {"name", ZRBValue("device number " + std::to_string(i))},
                                      {"ratio", ZRBValue(i / 7.0)},
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
          ZRBValue::dictionary({{"thread", ZRBValue(t)}, {"items", ZRBValue::array({t, "x", t * 0.5})}});
      std::string text = ZRBJSONSerialization::stringWithJSONObject(expected).value_or("");
      for (int i = 0; i < 300; ++i) {
        if (ZRBJSONSerialization::JSONObjectWithData(text) != expected) ++mismatches[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

}  // namespace
