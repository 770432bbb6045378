// ZRBRQ_NetworkUtils: JSON validation against class-tag validators, the two URL extractors and the
// consequences of their expressions, MD5 strings and the assertion's exact text, the response
// encoding, resume-data validation, the do-not-back-up marker and the application version.
#include "request/network_utils.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/assert.h"
#include "platform/bundle.h"
#include "platform/json_serialization.h"
#include "platform/property_list_serialization.h"
#include "request/network_config.h"
#include "settings/app_sdk_log_manager.h"

namespace {

namespace fs = std::filesystem;
using Utils = ZRBRQ_NetworkUtils;

const ZRBValue kString = ZRBValue::classTag(ZRBValueClass::String);
const ZRBValue kNumber = ZRBValue::classTag(ZRBValueClass::Number);
const ZRBValue kBool = ZRBValue::classTag(ZRBValueClass::Bool);
const ZRBValue kNull = ZRBValue::classTag(ZRBValueClass::Null);
const ZRBValue kArray = ZRBValue::classTag(ZRBValueClass::Array);
const ZRBValue kDictionary = ZRBValue::classTag(ZRBValueClass::Dictionary);

ZRBValue json(std::string_view text) {
  ZRBValue value = ZRBJSONSerialization::JSONObjectWithData(text);
  EXPECT_FALSE(value.isAbsent()) << text;
  return value;
}

// ---- validateJSON ----

TEST(NetworkUtilsValidateJSON, MapsScalarsNullsAndArrays) {
  EXPECT_TRUE(Utils::validateJSON(json(R"({"a":1})"), ZRBValue::dictionary({{"a", kNumber}})));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"a":1})"), ZRBValue::dictionary({{"a", kString}})));
  // The null object passes any leaf.
  EXPECT_TRUE(Utils::validateJSON(json(R"({"a":null})"), ZRBValue::dictionary({{"a", kNumber}})));
  EXPECT_TRUE(Utils::validateJSON(json(R"({"a":null})"), ZRBValue::dictionary({{"a", kString}})));
  // An empty array validator accepts any array.
  EXPECT_TRUE(Utils::validateJSON(json(R"(["x", 1, null, {}])"), ZRBValue::array({})));
  EXPECT_TRUE(Utils::validateJSON(json("[]"), ZRBValue::array({})));
  // [string] rejects ["x", 1].
  EXPECT_FALSE(Utils::validateJSON(json(R"(["x", 1])"), ZRBValue::array({kString})));
  EXPECT_TRUE(Utils::validateJSON(json(R"(["x", "y"])"), ZRBValue::array({kString})));
  // An empty json array is valid against any element validator.
  EXPECT_TRUE(Utils::validateJSON(json("[]"), ZRBValue::array({kString})));
}

TEST(NetworkUtilsValidateJSON, MissingKeysFailExtraKeysAreIgnored) {
  const ZRBValue validator = ZRBValue::dictionary({{"id", kNumber}, {"name", kString}});
  EXPECT_TRUE(Utils::validateJSON(json(R"({"id":1,"name":"n","extra":[1,2]})"), validator));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"id":1})"), validator));
  EXPECT_FALSE(Utils::validateJSON(json(R"({})"), validator));
  // An empty dictionary validator accepts any dictionary.
  EXPECT_TRUE(Utils::validateJSON(json(R"({"anything":true})"), ZRBValue::dictionary({})));
  // Only the kinds decide: an empty dictionary validator does not accept an array.
  EXPECT_FALSE(Utils::validateJSON(json("[1]"), ZRBValue::dictionary({})));
}

TEST(NetworkUtilsValidateJSON, NestedContainers) {
  const ZRBValue validator = ZRBValue::dictionary(
      {{"data",
        ZRBValue::dictionary({{"list", ZRBValue::array({ZRBValue::dictionary({{"id", kNumber}})})}})}});
  EXPECT_TRUE(Utils::validateJSON(json(R"({"data":{"list":[{"id":1},{"id":2.5,"x":"y"}]}})"), validator));
  EXPECT_TRUE(Utils::validateJSON(json(R"({"data":{"list":[]}})"), validator));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"data":{"list":[{"id":1},{"id":"2"}]}})"), validator));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"data":{"list":[{"id":1},{}]}})"), validator));
  // A container value where the validator expects a scalar class.
  EXPECT_FALSE(Utils::validateJSON(json(R"({"data":{"list":{"id":1}}})"), validator));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"data":"text"})"), validator));
  // A null where a container is described passes, like any null value.
  EXPECT_TRUE(Utils::validateJSON(json(R"({"data":null})"), validator));
}

TEST(NetworkUtilsValidateJSON, ContainerValuesAgainstClassTags) {
  // A dictionary or array value is validated recursively; against a class tag that is the class test.
  EXPECT_TRUE(Utils::validateJSON(json(R"({"a":{"b":1}})"), ZRBValue::dictionary({{"a", kDictionary}})));
  EXPECT_TRUE(Utils::validateJSON(json(R"({"a":[1]})"), ZRBValue::dictionary({{"a", kArray}})));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"a":[1]})"), ZRBValue::dictionary({{"a", kDictionary}})));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"a":{"b":1}})"), ZRBValue::dictionary({{"a", kString}})));
  EXPECT_TRUE(Utils::validateJSON(json(R"([[1],[2,3]])"), ZRBValue::array({kArray})));
  EXPECT_TRUE(Utils::validateJSON(json(R"([[1],[2,3]])"), ZRBValue::array({ZRBValue::array({kNumber})})));
  EXPECT_FALSE(Utils::validateJSON(json(R"([[1],[2,"3"]])"), ZRBValue::array({ZRBValue::array({kNumber})})));
}

TEST(NetworkUtilsValidateJSON, LeavesAndTopLevel) {
  // Number covers booleans, as the platform's number class does; Bool covers booleans only.
  EXPECT_TRUE(Utils::validateJSON(json(R"({"b":true})"), ZRBValue::dictionary({{"b", kNumber}})));
  EXPECT_TRUE(Utils::validateJSON(json(R"({"b":false})"), ZRBValue::dictionary({{"b", kBool}})));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"b":1})"), ZRBValue::dictionary({{"b", kBool}})));
  EXPECT_TRUE(Utils::validateJSON(json(R"({"d":1.5})"), ZRBValue::dictionary({{"d", kNumber}})));
  // The null class accepts the null object only.
  EXPECT_FALSE(Utils::validateJSON(json(R"({"n":"x"})"), ZRBValue::dictionary({{"n", kNull}})));
  EXPECT_TRUE(Utils::validateJSON(ZRBValue::null(), kNull));
  // Top level, not two containers of the same kind: the class test.
  EXPECT_TRUE(Utils::validateJSON(ZRBValue("s"), kString));
  EXPECT_FALSE(Utils::validateJSON(ZRBValue(1), kString));
  EXPECT_TRUE(Utils::validateJSON(json(R"({"a":1})"), kDictionary));
  EXPECT_TRUE(Utils::validateJSON(json("[1]"), kArray));
  EXPECT_FALSE(Utils::validateJSON(json("[1]"), ZRBValue::dictionary({{"a", kNumber}})));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"a":1})"), ZRBValue::array({kNumber})));
  // Absent is no instance of anything, and the null object is no string.
  EXPECT_FALSE(Utils::validateJSON(ZRBValue(), kString));
  EXPECT_FALSE(Utils::validateJSON(ZRBValue::null(), kString));
  // A leaf that is not a class tag names no class.
  EXPECT_FALSE(Utils::validateJSON(ZRBValue("s"), ZRBValue("string")));
  EXPECT_FALSE(Utils::validateJSON(json(R"({"a":"s"})"), ZRBValue::dictionary({{"a", ZRBValue("string")}})));
  EXPECT_FALSE(Utils::validateJSON(ZRBValue("s"), ZRBValue()));
}

// ---- filterUrlHost ----

TEST(NetworkUtilsFilterUrlHost, ConsequencesOfTheExpression) {
  EXPECT_EQ(Utils::filterUrlHost("http://aa.example.com/p"), "aa.example.com");
  // The look-behind knows only "http://": for https the first dot decides.
  EXPECT_EQ(Utils::filterUrlHost("https://aa.example.com/p"), "example.com");
  // Two labels are preferred, and the first top-level word after them wins.
  EXPECT_EQ(Utils::filterUrlHost("http://aa.example.com.cn/"), "aa.example.com");
  // The top-level word need not end a label.
  EXPECT_EQ(Utils::filterUrlHost("http://aa.combo.io/p"), "aa.com");
  // Numeric addresses and a bare host of one label and a suffix give nothing.
  EXPECT_EQ(Utils::filterUrlHost("http://10.0.0.1/x"), std::nullopt);
  EXPECT_EQ(Utils::filterUrlHost("example.com"), std::nullopt);
  EXPECT_EQ(Utils::filterUrlHost(""), std::nullopt);
}

TEST(NetworkUtilsFilterUrlHost, MoreShapes) {
  EXPECT_EQ(Utils::filterUrlHost("http://example.com"), "example.com");
  // Two labels are preferred even where one label and a top-level word would already match.
  EXPECT_EQ(Utils::filterUrlHost("http://img.cnn.com/"), "img.cnn.com");
  EXPECT_EQ(Utils::filterUrlHost("http://a.b.c.example.org/x"), "c.example.org");
  EXPECT_EQ(Utils::filterUrlHost("http://api.example.net:8080/v1"), "api.example.net");
  // A bare host with two labels: the match starts after the first dot.
  EXPECT_EQ(Utils::filterUrlHost("www.example.com"), "example.com");
  // No options: case matters.
  EXPECT_EQ(Utils::filterUrlHost("http://AA.EXAMPLE.COM/"), std::nullopt);
  // Labels are anything but dots, so a path may become part of the match.
  EXPECT_EQ(Utils::filterUrlHost("http://host/a.com"), "host/a.com");
  // Bytes that are not UTF-8 do not stop the search.
  EXPECT_EQ(Utils::filterUrlHost("http://\xff\xfe.example.com/"), "\xff\xfe.example.com");
}

// ---- filterUrl ----

TEST(NetworkUtilsFilterUrl, SchemeAndEverythingUpToTheFirstSlash) {
  EXPECT_EQ(Utils::filterUrl("https://aa.example.net:8443/p"), "https://aa.example.net:8443");
  EXPECT_EQ(Utils::filterUrl("http://aa.example.com/p/q"), "http://aa.example.com");
  EXPECT_EQ(Utils::filterUrl("aa.example.com:80/p"), "aa.example.com:80");
  EXPECT_EQ(Utils::filterUrl("http://aa.example.com"), "http://aa.example.com");
  // A string that begins with "/" gives the empty string, not nothing.
  EXPECT_EQ(Utils::filterUrl("/path/x"), std::optional<std::string>(""));
  EXPECT_EQ(Utils::filterUrl(""), std::optional<std::string>(""));
  // Only the two schemes are optional prefixes; another scheme stops at its "//".
  EXPECT_EQ(Utils::filterUrl("ftp://host/x"), "ftp:");
}

// ---- md5StringFromString ----

TEST(NetworkUtilsMD5, StandardTestValues) {
  EXPECT_EQ(Utils::md5StringFromString(std::string("abc")), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Utils::md5StringFromString(std::string("The quick brown fox jumps over the lazy dog")),
            "9e107d9d372bb6826bd81d3542a419d6");
  // UTF-8 bytes of the text, without a terminator.
  EXPECT_EQ(Utils::md5StringFromString(std::string("\xc3\xa9")), "66ddcd97cfdeabb2f6fb8a999b4bc76f");
}

TEST(NetworkUtilsMD5, NullOrEmptyStringIsAnAssertionWithTheExactText) {
  for (const std::optional<std::string>& input :
       {std::optional<std::string>(), std::optional<std::string>("")}) {
    try {
      Utils::md5StringFromString(input);
      FAIL() << "no assertion";
    } catch (const ZRBAssertionFailure& failure) {
      EXPECT_STREQ(failure.what(), "Invalid parameter not satisfying: string != nil && [string length] > 0");
      EXPECT_EQ(failure.file(), "ZRBRQ_NetworkPrivate");
    }
  }
}

// ---- stringEncodingWithResponse ----

ZRBURLResponsePtr responseWithContentType(std::optional<std::string> contentType) {
  ZRBValue headers = contentType ? ZRBValue::dictionary({{"Content-Type", ZRBValue(*contentType)}})
                                 : ZRBValue::dictionary({});
  return ZRBHTTPURLResponse::make(ZRBURL::URLWithString("http://aa.example.com/p"), 200, std::nullopt,
                                  headers);
}

TEST(NetworkUtilsStringEncoding, CharsetOfTheResponse) {
  EXPECT_EQ(Utils::stringEncodingWithResponse(responseWithContentType("text/plain; charset=iso-8859-1")),
            ZRBISOLatin1StringEncoding);
  EXPECT_EQ(Utils::stringEncodingWithResponse(responseWithContentType("text/html; charset=\"ISO-8859-1\"")),
            ZRBISOLatin1StringEncoding);
  EXPECT_EQ(Utils::stringEncodingWithResponse(responseWithContentType("text/plain; charset=shift_jis")),
            ZRBJapaneseShiftJISStringEncoding);
  // No charset, no Content-Type, no response, an unknown charset: UTF-8.
  EXPECT_EQ(Utils::stringEncodingWithResponse(responseWithContentType("application/json")),
            ZRBUTF8StringEncoding);
  EXPECT_EQ(Utils::stringEncodingWithResponse(responseWithContentType(std::nullopt)), ZRBUTF8StringEncoding);
  EXPECT_EQ(Utils::stringEncodingWithResponse(nullptr), ZRBUTF8StringEncoding);
  EXPECT_EQ(Utils::stringEncodingWithResponse(responseWithContentType("text/plain; charset=no-such-charset")),
            ZRBUTF8StringEncoding);
  // A plain URL response carrying its encoding name directly.
  auto plain = std::make_shared<const ZRBURLResponse>(ZRBURL::URLWithString("http://aa.example.com/"),
                                                      "text/plain", -1, std::string("iso-8859-1"));
  EXPECT_EQ(Utils::stringEncodingWithResponse(plain), ZRBISOLatin1StringEncoding);
}

// ---- validateResumeData ----

TEST(NetworkUtilsResumeData, PropertyListsOnly) {
  EXPECT_FALSE(Utils::validateResumeData(ZRBValue()));
  EXPECT_FALSE(Utils::validateResumeData(ZRBValue::data(std::vector<std::uint8_t>())));
  EXPECT_FALSE(Utils::validateResumeData(std::span<const std::uint8_t>()));
  EXPECT_FALSE(Utils::validateResumeData(ZRBValue::data(std::string_view("not a property list"))));
  // Only data counts, even when a string would hold the same bytes.
  const ZRBValue plist = ZRBValue::dictionary({{"URL", "http://aa.example.com/f"}, {"received", 10}});
  for (auto format : {ZRBPropertyListXMLFormat_v1_0, ZRBPropertyListBinaryFormat_v1_0}) {
    auto bytes = ZRBPropertyListSerialization::dataWithPropertyList(plist, format);
    ASSERT_TRUE(bytes.has_value());
    EXPECT_TRUE(Utils::validateResumeData(ZRBValue::data(*bytes)));
    EXPECT_TRUE(Utils::validateResumeData(std::span<const std::uint8_t>(*bytes)));
    // Cut short: corrupt.
    std::vector<std::uint8_t> truncated(bytes->begin(),
                                        bytes->begin() + static_cast<long>(bytes->size() / 2));
    EXPECT_FALSE(Utils::validateResumeData(ZRBValue::data(truncated)));
    if (format == ZRBPropertyListXMLFormat_v1_0) {
      std::string text(bytes->begin(), bytes->end());
      EXPECT_FALSE(Utils::validateResumeData(ZRBValue(text)));
    }
  }
}

// ---- addDoNotBackupAttribute ----

class NetworkUtilsDoNotBackup : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("orvelkit-request-backup-" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    auto manager = ZRBAppSdkLogManager::sharedInstance();
    manager->setCollector(
        [this](long, const std::string&, const std::string& message) { logged_.push_back(message); });
    manager->setCollectAppSdkLogEnable(true);
  }
  void TearDown() override {
    ZRBAppSdkLogManager::sharedInstance()->setCollectAppSdkLogEnable(false);
    ZRBAppSdkLogManager::sharedInstance()->setCollector(nullptr);
    fs::remove_all(dir_);
  }

  fs::path dir_;
  std::vector<std::string> logged_;
};

TEST_F(NetworkUtilsDoNotBackup, FailureIsLoggedAndReturns) {
  const fs::path missing = dir_ / "missing" / "file";
  Utils::addDoNotBackupAttribute(missing.string());
  ASSERT_EQ(logged_.size(), 1u);
  const std::string prefix = "error to set do not backup attribute, error = ";
  EXPECT_EQ(logged_[0].rfind(prefix, 0), 0u) << logged_[0];
  EXPECT_GT(logged_[0].size(), prefix.size());
  EXPECT_EQ(logged_[0].find("(null)"), std::string::npos);
  EXPECT_FALSE(fs::exists(dir_ / "missing"));
}

// ---- appVersionString ----

TEST(NetworkUtilsAppVersion, ShortVersionOfTheMainBundle) {
  auto bundle = ZRBBundle::mainBundle();
  bundle->setInfoDictionary(
      ZRBValue::dictionary({{"CFBundleShortVersionString", "2.3.1"}, {"CFBundleVersion", "99"}}));
  EXPECT_EQ(Utils::appVersionString(), "2.3.1");
  bundle->setInfoDictionary(ZRBValue::dictionary({{"CFBundleVersion", "99"}}));
  EXPECT_EQ(Utils::appVersionString(), std::nullopt);
  bundle->resetInfoDictionary();
}

}  // namespace
