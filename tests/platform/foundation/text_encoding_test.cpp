#include "platform/foundation/text_encoding.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }

// The canonical names of the encodings below are covered by the next test's round trip.
TEST(TextEncodingTest, IANANamesAndAliasesMapToThePlatformCodes) {
  const std::pair<unsigned long, std::vector<const char*>> cases[] = {
      {5, {"ISO_8859-1", "Latin1"}},
      {4, {"UTF8", " utf-8\t"}},
      {0x80000A01, {"Shift_JIS", "x-sjis"}},
      {8, {"windows-31j"}},
      {21, {"iso-2022-jp"}},
      {0x94000100, {"UTF-16LE"}},
      {0x98000100, {"utf-32be"}},
      {0x80000421, {"gbk", "CP936"}},
      {0, {"", "klingon", "utf-9", "utf-8-but-a-very-long-name-indeed-yes"}},
  };
  for (const auto& [code, names] : cases) {
    for (const char* name : names) EXPECT_EQ(ZRBStringEncodingFromIANACharsetName(name), code) << name;
  }
}

TEST(TextEncodingTest, EveryNamedEncodingRoundTripsThroughItsNameAndConverts) {
  const ZRBStringEncoding codes[] = {ZRBASCIIStringEncoding,
                                     ZRBUTF8StringEncoding,
                                     ZRBISOLatin1StringEncoding,
                                     ZRBShiftJISStringEncoding,
                                     ZRBJapaneseEUCStringEncoding,
                                     ZRBUTF16StringEncoding,
                                     ZRBUTF32LittleEndianStringEncoding,
                                     ZRBMacOSRomanStringEncoding,
                                     ZRBEUCCNStringEncoding,
                                     ZRBJapaneseShiftJISStringEncoding,
                                     ZRBBig5HKSCSStringEncoding,
                                     ZRBUTF7StringEncoding};
  for (ZRBStringEncoding code : codes) {
    auto name = ZRBIANACharsetNameFromStringEncoding(code);
    ASSERT_TRUE(name) << code;
    EXPECT_EQ(ZRBStringEncodingFromIANACharsetName(*name), code) << *name;
    EXPECT_TRUE(ZRBStringEncodingIsSupported(code)) << *name;
    auto bytes = ZRBBytesFromString("plain text", code);
    ASSERT_TRUE(bytes) << *name;
    EXPECT_EQ(ZRBStringFromBytes(*bytes, code), "plain text") << *name;
  }
  for (auto code : {ZRBNonLossyASCIIStringEncoding, ZRBStringEncoding{12345}}) {
    EXPECT_FALSE(ZRBIANACharsetNameFromStringEncoding(code)) << code;
  }
  for (ZRBStringEncoding code : {ZRBStringEncoding{0}, ZRBStringEncoding{999}, ZRBNEXTSTEPStringEncoding}) {
    EXPECT_FALSE(ZRBStringFromBytes(std::string_view("abc"), code)) << code;
    EXPECT_FALSE(ZRBBytesFromString("abc", code, true)) << code;
    EXPECT_FALSE(ZRBStringEncodingIsSupported(code));
  }
  EXPECT_EQ(ZRBLocalizedNameOfStringEncoding(ZRBUTF8StringEncoding), "Unicode (UTF-8)");
  EXPECT_EQ(ZRBLocalizedNameOfStringEncoding(ZRBStringEncoding{12345}), "");
}

TEST(TextEncodingTest, SingleByteAndUTF8DecodingAcceptsOnlyValidBytes) {
  ZRBStringEncoding latin1 = ZRBStringEncodingFromIANACharsetName("iso-8859-1");
  EXPECT_EQ(ZRBStringFromBytes(Bytes{'c', 'a', 'f', 0xE9}, latin1), "caf\xC3\xA9");
  EXPECT_EQ(ZRBStringFromBytes(Bytes{0x80, 0xFF}, latin1), "\xC2\x80\xC3\xBF");
  EXPECT_EQ(ZRBStringFromBytes(Bytes{0x80}, ZRBWindowsCP1252StringEncoding), "\xE2\x82\xAC");  // euro sign

  EXPECT_EQ(ZRBStringFromBytes(std::string_view("abc\x7F"), ZRBASCIIStringEncoding), "abc\x7F");
  EXPECT_FALSE(ZRBStringFromBytes(std::string_view("caf\xE9"), ZRBASCIIStringEncoding));
  EXPECT_FALSE(ZRBStringFromBytes(Bytes{0x80}, ZRBASCIIStringEncoding));

  const std::pair<std::string_view, bool> utf8[] = {
      {"\xE2\x82\xAC", true},      // U+20AC
      {"\xF0\x9F\x98\x80", true},  // U+1F600
      {"\xF4\x8F\xBF\xBF", true},  // U+10FFFF
      {"ascii run then \xC3\xA9", true},
      {"\xC0\xAF", false},          // overlong '/'
      {"\xE0\x80\xAF", false},      // overlong, three bytes
      {"\xED\xA0\x80", false},      // surrogate
      {"\xF4\x90\x80\x80", false},  // past U+10FFFF
      {"\xE2\x82", false},          // truncated
      {"abcdefghij\x80", false},    // stray continuation after an ASCII run
      {"\xFF", false},
  };
  for (auto [text, valid] : utf8) {
    EXPECT_EQ(ZRBStringFromBytes(text, ZRBUTF8StringEncoding).has_value(), valid)
        << testing::PrintToString(text);
    EXPECT_EQ(ZRBBytesFromString(text, ZRBUTF16StringEncoding).has_value(), valid);
  }
  EXPECT_EQ(ZRBStringFromBytes(std::string_view("\xEF\xBB\xBFhi"), ZRBUTF8StringEncoding), "hi");
}

TEST(TextEncodingTest, UTF16AndUTF32HonourByteOrderMarksAndDefaultToBigEndian) {
  struct Case {
    Bytes bytes;
    ZRBStringEncoding encoding;
    std::optional<std::string> text;
  };
  const Case cases[] = {
      {{0xFE, 0xFF, 0x00, 'h', 0x00, 0xE9}, ZRBUTF16StringEncoding, "h\xC3\xA9"},
      {{0xFF, 0xFE, 'h', 0x00, 0xE9, 0x00}, ZRBUTF16StringEncoding, "h\xC3\xA9"},
      {{0x00, 'h', 0x00, 0xE9}, ZRBUTF16StringEncoding, "h\xC3\xA9"},
      {{'h', 0x00, 0xE9, 0x00}, ZRBUTF16LittleEndianStringEncoding, "h\xC3\xA9"},
      {{0xFE, 0xFF, 0x00, 'h'}, ZRBUTF16BigEndianStringEncoding, "\xEF\xBB\xBFh"},  // explicit order keeps it
      {{0xD8, 0x3D, 0xDE, 0x00}, ZRBUTF16StringEncoding, "\xF0\x9F\x98\x80"},
      {{0xD8, 0x3D, 0x00, 'h'}, ZRBUTF16StringEncoding, std::nullopt},  // unpaired high surrogate
      {{0xDE, 0x00}, ZRBUTF16StringEncoding, std::nullopt},             // lone low surrogate
      {{0x00, 'h', 0x00}, ZRBUTF16StringEncoding, std::nullopt},        // odd length
      {{0xFF, 0xFE, 0x00, 0x00, 'h', 0, 0, 0}, ZRBUTF32StringEncoding, "h"},
      {{0, 0, 0, 'h'}, ZRBUTF32StringEncoding, "h"},
      {{0, 0x11, 0, 0}, ZRBUTF32BigEndianStringEncoding, std::nullopt},  // past U+10FFFF
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ZRBStringFromBytes(c.bytes, c.encoding), c.text) << testing::PrintToString(c.bytes);
  }

  // Without explicit order the output carries a mark and reads back; with it, none.
  std::string text = "h\xC3\xA9\xF0\x9F\x98\x80";
  for (ZRBStringEncoding encoding : {ZRBUTF16StringEncoding, ZRBUTF32StringEncoding}) {
    auto bytes = ZRBBytesFromString(text, encoding);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(ZRBStringFromBytes(*bytes, encoding), text);
  }
  EXPECT_EQ(ZRBBytesFromString(text, ZRBUTF16BigEndianStringEncoding),
            (Bytes{0x00, 'h', 0x00, 0xE9, 0xD8, 0x3D, 0xDE, 0x00}));
  EXPECT_EQ(ZRBBytesFromString("h", ZRBUTF32LittleEndianStringEncoding), (Bytes{'h', 0, 0, 0}));
}

TEST(TextEncodingTest, JapaneseEncodingsRoundTripAndKeepCodePage932Distinct) {
  const std::string text = "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E abc";  // "日本語 abc"
  auto sjis = ZRBBytesFromString(text, ZRBStringEncodingFromIANACharsetName("shift_jis"));
  ASSERT_TRUE(sjis);
  EXPECT_EQ(*sjis, (Bytes{0x93, 0xFA, 0x96, 0x7B, 0x8C, 0xEA, ' ', 'a', 'b', 'c'}));
  EXPECT_EQ(ZRBStringFromBytes(*sjis, ZRBJapaneseShiftJISStringEncoding), text);
  EXPECT_EQ(ZRBStringFromBytes(*sjis, ZRBShiftJISStringEncoding), text);

  // The circled digit one exists in code page 932 only.
  EXPECT_EQ(ZRBBytesFromString("\xE2\x91\xA0", ZRBShiftJISStringEncoding), (Bytes{0x87, 0x40}));
  EXPECT_FALSE(ZRBBytesFromString("\xE2\x91\xA0", ZRBJapaneseShiftJISStringEncoding));

  for (ZRBStringEncoding encoding : {ZRBJapaneseEUCStringEncoding, ZRBISO2022JPStringEncoding}) {
    auto bytes = ZRBBytesFromString(text, encoding);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(ZRBStringFromBytes(*bytes, encoding), text);
  }
  // A stateful encoding must switch back to ASCII at the end.
  EXPECT_EQ(ZRBBytesFromString("a\xE3\x81\x82", ZRBISO2022JPStringEncoding),
            (Bytes{'a', 0x1B, '$', 'B', '$', '"', 0x1B, '(', 'B'}));

  EXPECT_FALSE(ZRBStringFromBytes(Bytes{'a', 0x93}, ZRBJapaneseShiftJISStringEncoding));  // truncated
  EXPECT_FALSE(ZRBStringFromBytes(Bytes{0xA4}, ZRBJapaneseEUCStringEncoding));
}

TEST(TextEncodingTest, UnrepresentableCharactersFailUnlessLossy) {
  struct Case {
    std::string text;
    ZRBStringEncoding encoding;
    Bytes lossy;
  };
  const Case cases[] = {
      {"na\xC3\xAFve \xE2\x82\xAC", ZRBASCIIStringEncoding, bytesOf("na?ve ?")},
      {"\xE2\x82\xAC\xC3\xA9", ZRBISOLatin1StringEncoding, {'?', 0xE9}},
      {"\xE6\x97\xA5\xE2\x82\xAC", ZRBWindowsCP1252StringEncoding, {'?', 0x80}},
      {"\xE6\x97\xA5\xF0\x9F\x98\x80!", ZRBJapaneseEUCStringEncoding, {0xC6, 0xFC, '?', '!'}},
      {"\xE6\x97\xA5\xF0\x9F\x98\x80\xE6\x97\xA5",
       ZRBISO2022JPStringEncoding,
       {0x1B, '$', 'B', 'F', '|', 0x1B, '(', 'B', '?', 0x1B, '$', 'B', 'F', '|', 0x1B, '(', 'B'}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_FALSE(ZRBBytesFromString(c.text, c.encoding));
    EXPECT_EQ(ZRBBytesFromString(c.text, c.encoding, true), c.lossy);
  }
  EXPECT_FALSE(ZRBBytesFromString("\xC3", ZRBISOLatin1StringEncoding, true));  // not UTF-8 at all
}

TEST(TextEncodingTest, NonLossyASCIIEscapesEverythingOutsideASCII) {
  const std::string text = "a\\\xC3\xA9\xF0\x9F\x98\x80\xE2\x82\xAC";  // a\é😀€
  auto bytes = ZRBBytesFromString(text, ZRBNonLossyASCIIStringEncoding);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(std::string(bytes->begin(), bytes->end()), "a\\\\\\351\\ud83d\\ude00\\u20ac");
  EXPECT_EQ(ZRBStringFromBytes(*bytes, ZRBNonLossyASCIIStringEncoding), text);
  EXPECT_FALSE(ZRBStringFromBytes(std::string_view("\\ud83d"), ZRBNonLossyASCIIStringEncoding));
}

TEST(TextEncodingTest, ConversionsOnManyThreadsDoNotInterfere) {
  // Stateful encodings would mix up their shift state if a descriptor were shared.
  const std::string text = "a\xE6\x97\xA5\xE6\x9C\xAC b";
  const auto expected = ZRBBytesFromString(text, ZRBISO2022JPStringEncoding);
  ASSERT_TRUE(expected);
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        auto bytes = ZRBBytesFromString(text, ZRBISO2022JPStringEncoding);
        if (bytes != expected || ZRBStringFromBytes(*bytes, ZRBISO2022JPStringEncoding) != text) ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
