#include "platform/foundation/property_list_serialization.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// Compares leaf by leaf and kind by kind: value equality treats 1, 1.0 and true alike, and a
// codec that changes kinds must still fail.
void expectSameValue(const ZRBValue& a, const ZRBValue& b) {
  ASSERT_EQ(a.kind(), b.kind()) << a.description() << " vs " << b.description();
  ASSERT_EQ(a.count(), b.count()) << a.description();
  if (a.isArray()) {
    for (std::size_t i = 0; i < a.count(); ++i) expectSameValue(a[i], b[i]);
  } else if (a.isDictionary()) {
    for (std::size_t i = 0; i < a.count(); ++i) {
      EXPECT_EQ(a.entries()[i].first, b.entries()[i].first) << "key order";
      expectSameValue(a.entries()[i].second, b.entries()[i].second);
    }
  } else if (a.isBool()) {
    EXPECT_EQ(a.boolValue(), b.boolValue());
  } else {
    EXPECT_EQ(a, b);
  }
}

ZRBValue parse(const Bytes& data, ZRBErrorPtr* error = nullptr, ZRBPropertyListFormat* format = nullptr) {
  return ZRBPropertyListSerialization::propertyListWithData(data, ZRBPropertyListImmutable, format, error);
}

void expectReadError(const Bytes& data, const std::string& label) {
  ZRBErrorPtr error;
  ZRBValue value = parse(data, &error);
  EXPECT_TRUE(value.isAbsent()) << label;
  ASSERT_TRUE(error) << label;
  EXPECT_EQ(error->domain(), ZRBCocoaErrorDomain) << label;
  EXPECT_EQ(error->code(), ZRBPropertyListReadCorruptError) << label;
}

void appendBigEndian(Bytes& out, std::uint64_t value, int size) {
  for (int i = size - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// A binary container object with fewer than 15 items: type and count, then 4-byte object references.
Bytes container(std::uint8_t type, const std::vector<std::uint64_t>& refs) {
  Bytes out{static_cast<std::uint8_t>(type | refs.size())};
  for (std::uint64_t r : refs) appendBigEndian(out, r, 4);
  return out;
}

// Assembles a binary property list from raw objects, with the trailer fields open to tampering.
struct BinaryPlist {
  std::vector<Bytes> objects;
  int offsetSize = 4;
  std::uint64_t top = 0;
  std::optional<std::uint64_t> objectCount = {}, tableOffset = {};

  Bytes build() const {
    Bytes out = bytesOf("bplist00");
    std::vector<std::uint64_t> offsets;
    for (const Bytes& object : objects) {
      offsets.push_back(out.size());
      out.insert(out.end(), object.begin(), object.end());
    }
    const std::uint64_t table = out.size();
    for (std::uint64_t offset : offsets) appendBigEndian(out, offset, offsetSize);
    out.insert(out.end(), 6, 0);
    out.push_back(static_cast<std::uint8_t>(offsetSize));
    out.push_back(4);  // reference size
    appendBigEndian(out, objectCount.value_or(objects.size()), 8);
    appendBigEndian(out, top, 8);
    appendBigEndian(out, tableOffset.value_or(table), 8);
    return out;
  }
};

// An array of arrays `depth` levels deep: object i holds object i + 1.
std::vector<Bytes> nestedArrays(std::size_t depth) {
  std::vector<Bytes> objects;
  for (std::size_t i = 0; i + 1 < depth; ++i) objects.push_back(container(0xA0, {i + 1}));
  objects.push_back(container(0xA0, {}));
  return objects;
}

Bytes nestedXML(std::size_t depth) {
  std::string text = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  for (std::size_t i = 0; i < depth; ++i) text += "<array>";
  for (std::size_t i = 0; i < depth; ++i) text += "</array>";
  return bytesOf(text + "</plist>");
}

const ZRBPropertyListFormat kFormats[] = {ZRBPropertyListXMLFormat_v1_0, ZRBPropertyListBinaryFormat_v1_0};

TEST(PropertyListSerializationTest, RoundTripsEveryKindInBothFormats) {
  const ZRBValue plist = ZRBValue::dictionary({
      {"zulu first", ZRBValue("insertion order is kept")},
      {"unicode", ZRBValue("h\u00e9llo w\u00f6rld \u2713 \u65e5\u672c \U0001F389")},
      {"empty", ZRBValue("")},
      {"escapes", ZRBValue("<tag> & \"quotes\" ]]>")},
      {"\u00fcmlaut key", ZRBValue(true)},
      {"false", ZRBValue(false)},
      {"ints", ZRBValue::array({ZRBValue(0), ZRBValue(-1), ZRBValue(42),
                                ZRBValue(std::numeric_limits<long long>::min()),
                                ZRBValue(std::numeric_limits<long long>::max())})},
      {"big unsigned", ZRBValue::array({ZRBValue(std::numeric_limits<unsigned long long>::max()),
                                        ZRBValue(9223372036854775808ULL)})},
      {"doubles", ZRBValue::array({ZRBValue(0.1), ZRBValue(2.0), ZRBValue(-1e300), ZRBValue(5e-324)})},
      {"date", ZRBValue(ZRBDate::fromReferenceDate(700000000))},
      {"old date", ZRBValue(ZRBDate{631152000})},  // 1990, before the reference date
      {"data", ZRBValue::data(std::string_view("\0\x01\xff binary", 10))},
      {"no data", ZRBValue::data(Bytes{})},
      {"nested",
       ZRBValue::array({ZRBValue::array({}), ZRBValue::dictionary({}),
                        ZRBValue::dictionary({{"inner", ZRBValue::array({ZRBValue(1), ZRBValue("two")})}})})},
  });
  for (ZRBPropertyListFormat format : kFormats) {
    SCOPED_TRACE(format);
    ZRBErrorPtr error;
    auto data = ZRBPropertyListSerialization::dataWithPropertyList(plist, format, 0, &error);
    ASSERT_TRUE(data) << error->description();
    ZRBPropertyListFormat found = ZRBPropertyListOpenStepFormat;
    ZRBValue back = parse(*data, &error, &found);
    EXPECT_EQ(found, format);
    expectSameValue(back, plist);
  }
}

TEST(PropertyListSerializationTest, ScalarRootsAndFractionalDates) {
  for (ZRBPropertyListFormat format : kFormats) {
    for (const ZRBValue& root : {ZRBValue("just a string"), ZRBValue(-7), ZRBValue(1.5)}) {
      auto data = ZRBPropertyListSerialization::dataWithPropertyList(root, format);
      ASSERT_TRUE(data);
      expectSameValue(parse(*data), root);
    }
  }
  // Binary keeps sub-second precision (to the microsecond); XML stores whole seconds.
  auto readBack = [](ZRBPropertyListFormat format) {
    auto data =
        ZRBPropertyListSerialization::dataWithPropertyList(ZRBDate::fromReferenceDate(712345678.25), format);
    return data ? parse(*data).dateValue().secondsSinceReferenceDate() : -1;
  };
  EXPECT_NEAR(readBack(ZRBPropertyListBinaryFormat_v1_0), 712345678.25, 1e-6);
  EXPECT_EQ(readBack(ZRBPropertyListXMLFormat_v1_0), 712345678.0);
}

TEST(PropertyListSerializationTest, RefusesValuesThatAreNotPropertyLists) {
  ZRBValue deep = ZRBValue::array({});
  for (int i = 0; i < ZRBPropertyListSerialization::kMaximumNestingDepth; ++i) deep = ZRBValue::array({deep});
  const std::pair<const char*, ZRBValue> cases[] = {
      {"null", ZRBValue::null()},
      {"absent", ZRBValue()},
      {"set", ZRBValue::set({ZRBValue(1)})},
      {"object", ZRBValue(std::make_shared<ZRBObject>())},
      {"null inside array", ZRBValue::array({ZRBValue(1), ZRBValue::null()})},
      {"set deep inside", ZRBValue::dictionary({{"a", ZRBValue::array({ZRBValue::set({})})}})},
      {"NUL in string", ZRBValue(std::string_view("a\0b", 3))},
      {"NUL in key", ZRBValue::dictionary({{std::string_view("k\0", 2), ZRBValue(1)}})},
      {"invalid UTF-8", ZRBValue(std::string_view("\xc3\x28"))},
      {"date past 2069", ZRBValue(ZRBDate::fromReferenceDate(3e9))},
      {"too deep", deep},
  };
  for (const auto& [label, value] : cases) {
    for (ZRBPropertyListFormat format : kFormats) {
      ZRBErrorPtr error;
      EXPECT_FALSE(ZRBPropertyListSerialization::dataWithPropertyList(value, format, 0, &error)) << label;
      ASSERT_TRUE(error) << label;
      EXPECT_EQ(error->code(), ZRBPropertyListWriteInvalidError) << label;
      EXPECT_FALSE(ZRBPropertyListSerialization::propertyList(value, format)) << label;
    }
  }
  ZRBErrorPtr error;
  EXPECT_FALSE(ZRBPropertyListSerialization::dataWithPropertyList(ZRBValue("x"),
                                                                  ZRBPropertyListOpenStepFormat, 0, &error));
  EXPECT_EQ(error->code(), ZRBPropertyListWriteInvalidError);
  EXPECT_TRUE(ZRBPropertyListSerialization::propertyList(ZRBValue::array({ZRBValue("x")}),
                                                         ZRBPropertyListOpenStepFormat));
  EXPECT_FALSE(ZRBPropertyListSerialization::propertyList(ZRBValue(1), ZRBPropertyListOpenStepFormat));
}

TEST(PropertyListSerializationTest, MalformedInputGivesErrorRecords) {
  // Each level refers to the next one twice: tiny on disk, 2^40 nodes once expanded.
  std::vector<Bytes> amplification;
  for (std::uint64_t i = 0; i < 40; ++i) amplification.push_back(container(0xA0, {i + 1, i + 1}));
  amplification.push_back(Bytes{0x09});
  const std::size_t limit = ZRBPropertyListSerialization::kMaximumNestingDepth;

  const std::pair<const char*, Bytes> cases[] = {
      {"garbage", bytesOf("\x01\x02garbage\xff")},
      {"old-style text", bytesOf("{ key = value; }")},
      {"unknown binary version", bytesOf("bplist15" + std::string(40, '\0'))},
      {"array contains itself", BinaryPlist{{container(0xA0, {0})}}.build()},
      {"reference out of range", BinaryPlist{{container(0xA0, {7})}}.build()},
      {"number as dictionary key", BinaryPlist{{container(0xD0, {1, 1}), {0x10, 0x05}}}.build()},
      // The parser aborts on such keys unless they are refused first.
      {"NUL in binary key", BinaryPlist{{container(0xD0, {1, 2}), {0x52, 'a', 0x00}, {0x10, 0x01}}}.build()},
      {"NUL in XML key", bytesOf(std::string_view("<plist><dict><key>a\0</key><true/></dict></plist>", 48))},
      {"offset table out of range", BinaryPlist{.objects = nestedArrays(2), .tableOffset = 100000}.build()},
      {"object count beyond table", BinaryPlist{.objects = nestedArrays(2), .objectCount = 1000}.build()},
      {"top object out of range", BinaryPlist{.objects = nestedArrays(2), .top = 2}.build()},
      {"zero offset size", BinaryPlist{.objects = nestedArrays(2), .offsetSize = 0}.build()},
      {"string longer than file",
       BinaryPlist{{Bytes{0x5F, 0x13, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 'a'}}}.build()},
      {"shared-reference amplification", BinaryPlist{amplification}.build()},
      {"unclosed XML", bytesOf("<plist><array><string>x</string>")},
      {"mismatched XML", bytesOf("<plist><array></dict></plist>")},
      {"invalid UTF-8 in XML", bytesOf("<plist><string>\xc3\x28</string></plist>")},
      {"binary deeper than limit", BinaryPlist{nestedArrays(limit + 1)}.build()},
      {"XML deeper than limit", nestedXML(limit + 1)},
      {"binary 100000 deep", BinaryPlist{nestedArrays(100000)}.build()},
      {"XML 100000 deep", nestedXML(100000)},
  };
  for (const auto& [label, data] : cases) expectReadError(data, label);

  // Exactly at the limit is still accepted.
  for (const Bytes& data : {BinaryPlist{nestedArrays(limit)}.build(), nestedXML(limit)}) {
    ZRBErrorPtr error;
    EXPECT_TRUE(parse(data, &error).isArray()) << (error ? error->description() : "");
  }
}

TEST(PropertyListSerializationTest, TruncatedAndCorruptedCopiesNeverCrash) {
  const ZRBValue plist = ZRBValue::dictionary(
      {{"list", ZRBValue::array({ZRBValue(1), ZRBValue("two \u00e9"), ZRBValue(3.5), ZRBValue::data("abc")})},
       {"nested", ZRBValue::dictionary(
                      {{"flag", ZRBValue(true)}, {"when", ZRBValue(ZRBDate::fromReferenceDate(1e8))}})}});
  for (ZRBPropertyListFormat format : kFormats) {
    const Bytes data = *ZRBPropertyListSerialization::dataWithPropertyList(plist, format);
    const std::string text(data.begin(), data.end());
    // Every proper prefix misses at least the closing element or the trailer.
    const std::size_t complete =
        format == ZRBPropertyListXMLFormat_v1_0 ? text.rfind("</plist>") + 8 : data.size();
    for (std::size_t length = 0; length < complete; ++length) {
      expectReadError(Bytes(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(length)),
                      "prefix of " + std::to_string(length));
    }
    // Flipped bytes may still parse; they must never crash, and failures must be records.
    for (std::size_t i = 0; i < data.size(); ++i) {
      Bytes corrupt = data;
      corrupt[i] ^= 0xA5;
      ZRBErrorPtr error;
      ZRBValue value = parse(corrupt, &error);
      if (value.isAbsent()) {
        ASSERT_TRUE(error) << i;
        EXPECT_EQ(error->code(), ZRBPropertyListReadCorruptError);
      }
    }
  }
}

}  // namespace
