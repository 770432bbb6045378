// ZRBRQ_NetworkUtils: JSON validation against class-tag validators, the two URL extractors, MD5 and
// its assertion, the response encoding, and resume-data validation.
#include "request/network_utils.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/foundation/assert.h"
#include "platform/foundation/json_serialization.h"
#include "platform/foundation/property_list_serialization.h"

namespace {

using Utils = ZRBRQ_NetworkUtils;
using V = ZRBValue;

const V kString = V::classTag(ZRBValueClass::String);
const V kNumber = V::classTag(ZRBValueClass::Number);

V json(std::string_view text) {
  V value = ZRBJSONSerialization::JSONObjectWithData(text);
  EXPECT_FALSE(value.isAbsent()) << text;
  return value;
}
V dict(const char* key, V validator) { return V::dictionary({{key, std::move(validator)}}); }

TEST(NetworkUtils, ValidateJSON) {
  const V nested = dict("data", dict("list", V::array({dict("id", kNumber)})));
  const std::tuple<V, V, bool> cases[] = {
      {json(R"({"a":1,"extra":[1]})"), dict("a", kNumber), true},  // keys it does not name are ignored
      {json(R"({"a":1})"), dict("a", kString), false},
      {json(R"({"b":2})"), dict("a", kNumber), false},    // a missing key fails
      {json(R"({"a":null})"), dict("a", kString), true},  // null passes any leaf
      {json(R"({"data":null})"), nested, true},           // ... and any container
      {json("[1]"), V::dictionary({}), false},            // kinds decide, not emptiness
      {json(R"(["x", 1, {}])"), V::array({}), true},
      {json(R"(["x", 1])"), V::array({kString}), false},
      {json(R"({"data":{"list":[{"id":1},{"id":2.5,"x":"y"}]}})"), nested, true},
      {json(R"({"data":{"list":[{"id":1},{"id":"2"}]}})"), nested, false},
      {json(R"({"a":{"b":1}})"), dict("a", kString), false},  // a container where a scalar is expected
      // Outside a dictionary value, absent and null are no string.
      {V(), kString, false},
      {V::null(), kString, false},
      {V("s"), V("string"), false},  // a leaf that is not a class tag names no class
  };
  for (const auto& [value, validator, valid] : cases)
    EXPECT_EQ(Utils::validateJSON(value, validator), valid) << value.description();
}

TEST(NetworkUtils, FilterUrlHostAndFilterUrl) {
  using Expected = std::optional<std::string>;
  const std::pair<const char*, Expected> hosts[] = {
      {"http://aa.example.com/p", "aa.example.com"},
      {"https://aa.example.com/p", "example.com"},      // the look-behind knows only "http://"
      {"http://aa.example.com.cn/", "aa.example.com"},  // two labels, then the first top-level word
      {"http://aa.combo.io/p", "aa.com"},               // which need not end a label
      {"http://AA.EXAMPLE.COM/", std::nullopt},         // case matters
      {"http://10.0.0.1/x", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [url, host] : hosts) EXPECT_EQ(Utils::filterUrlHost(url), host) << url;
  const std::pair<const char*, Expected> prefixes[] = {
      {"https://aa.example.net:8443/p", "https://aa.example.net:8443"},
      {"aa.example.com:80/p", "aa.example.com:80"},
      {"/path/x", ""},           // the empty match, not nothing
      {"ftp://host/x", "ftp:"},  // only the two schemes are optional prefixes
  };
  for (const auto& [url, prefix] : prefixes) EXPECT_EQ(Utils::filterUrl(url), prefix) << url;
}

TEST(NetworkUtils, MD5OfTheUTF8BytesAndTheAssertionForNoString) {
  EXPECT_EQ(Utils::md5StringFromString(std::string("\xc3\xa9")), "66ddcd97cfdeabb2f6fb8a999b4bc76f");
  for (const auto& input : {std::optional<std::string>(), std::optional<std::string>("")}) {
    try {
      Utils::md5StringFromString(input);
      ADD_FAILURE() << "no assertion";
    } catch (const ZRBAssertionFailure& failure) {
      EXPECT_STREQ(failure.what(), "Invalid parameter not satisfying: string != nil && [string length] > 0");
      EXPECT_EQ(failure.file(), "ZRBRQ_NetworkPrivate");
    }
  }
}

TEST(NetworkUtils, StringEncodingFromTheCharsetElseUTF8) {
  // The charset as the response parsed it out of Content-Type.
  auto withCharset = [](std::optional<std::string> charset) {
    return std::make_shared<const ZRBURLResponse>(ZRBURL::URLWithString("http://aa.example.com/"),
                                                  "text/plain", -1, std::move(charset));
  };
  EXPECT_EQ(Utils::stringEncodingWithResponse(withCharset("ISO-8859-1")), ZRBISOLatin1StringEncoding);
  EXPECT_EQ(Utils::stringEncodingWithResponse(withCharset("no-such-charset")), ZRBUTF8StringEncoding);
  EXPECT_EQ(Utils::stringEncodingWithResponse(withCharset(std::nullopt)), ZRBUTF8StringEncoding);
  EXPECT_EQ(Utils::stringEncodingWithResponse(nullptr), ZRBUTF8StringEncoding);
}

TEST(NetworkUtils, ResumeDataMustBePropertyListData) {
  EXPECT_FALSE(Utils::validateResumeData(V()));
  EXPECT_FALSE(Utils::validateResumeData(std::span<const std::uint8_t>()));
  EXPECT_FALSE(Utils::validateResumeData(V::data(std::string_view("not a property list"))));
  auto bytes = ZRBPropertyListSerialization::dataWithPropertyList(
      V::dictionary({{"URL", "http://aa.example.com/f"}, {"received", 10}}), ZRBPropertyListXMLFormat_v1_0);
  ASSERT_TRUE(bytes.has_value());
  EXPECT_TRUE(Utils::validateResumeData(V::data(*bytes)));
  EXPECT_FALSE(Utils::validateResumeData(V::data(bytes->data(), bytes->size() / 2)));
  // A string holding the same bytes is no data.
  EXPECT_FALSE(Utils::validateResumeData(V(std::string(bytes->begin(), bytes->end()))));
}

}  // namespace
