// The XML and property-list serializers, and the compound serializer's choice among serializers.
#include "http/compound_response_serializer.h"

#include <gtest/gtest.h>

#include <string>

#include "http/json_response_serializer.h"
#include "http/property_list_response_serializer.h"
#include "http/xml_parser_response_serializer.h"

namespace {

ZRBHTTPURLResponsePtr httpResponse(long status, std::string_view contentType) {
  return ZRBHTTPURLResponse::make(ZRBURL::URLWithString("http://h/p"), status, "HTTP/1.1",
                                  ZRBValue::dictionary({{"Content-Type", ZRBValue(contentType)}}));
}

std::string chain(const ZRBErrorPtr& error) {
  std::string out;
  for (ZRBErrorPtr e = error; e; e = e->underlyingError())
    out += (out.empty() ? "" : "<") + std::to_string(e->code());
  return out.empty() ? "none" : out;
}

const char* kPlist =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict><key>n</key><integer>3</integer>"
    "</dict></plist>";

TEST(XMLParserResponseSerializer, HandsBackAParserThatHasNotRun) {
  auto serializer = ZRBHS_XMLParserResponseSerializer::serializer();
  ZRBErrorPtr error;
  ZRBValue object =
      serializer->responseObjectForResponse(httpResponse(200, "text/xml"), ZRBValue::data("<a>"), &error);
  auto parser = object.objectAs<ZRBXMLParser>();
  ASSERT_TRUE(parser);
  EXPECT_FALSE(error);
  EXPECT_FALSE(parser->parserError()) << "not run yet";
  EXPECT_FALSE(parser->parse());
  EXPECT_TRUE(parser->parserError());

  EXPECT_TRUE(
      serializer
          ->responseObjectForResponse(httpResponse(200, "application/json"), ZRBValue::data("<a/>"), &error)
          .isAbsent());
  EXPECT_EQ(chain(error), "-1016");
}

TEST(PropertyListResponseSerializer, ReadsEitherFormatAndChainsItsErrors) {
  auto serializer = ZRBHS_PropertyListResponseSerializer::serializer();
  EXPECT_EQ(serializer->format(), ZRBPropertyListXMLFormat_v1_0);
  ZRBValue expected = ZRBValue::dictionary({{"n", 3}});
  auto binary =
      ZRBPropertyListSerialization::dataWithPropertyList(expected, ZRBPropertyListBinaryFormat_v1_0);
  ASSERT_TRUE(binary);
  struct Case {
    const char* name;
    long status;
    ZRBValue body;
    bool decoded;
    std::string errors;
  } cases[] = {
      {"XML", 200, ZRBValue::data(kPlist), true, "none"},
      {"binary", 200, ZRBValue::data(*binary), true, "none"},
      {"bad status", 500, ZRBValue::data(kPlist), true, "-1011"},
      {"no body", 200, ZRBValue(), false, "none"},
      {"not a plist", 200, ZRBValue::data("{"), false, "3840"},
      {"not a plist, bad status", 404, ZRBValue::data("{"), false, "3840<-1011"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ZRBErrorPtr error;
    ZRBValue object =
        serializer->responseObjectForResponse(httpResponse(c.status, "application/x-plist"), c.body, &error);
    EXPECT_EQ(object, c.decoded ? expected : ZRBValue());
    EXPECT_EQ(chain(error), c.errors);
  }

  auto configured = ZRBHS_PropertyListResponseSerializer::serializerWithFormat(
      ZRBPropertyListBinaryFormat_v1_0, ZRBPropertyListMutableContainers);
  auto data = ZRBKeyedArchiver::archivedDataWithRootObject(*configured, true);
  ASSERT_TRUE(data);
  auto decoded = ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBHS_PropertyListResponseSerializer>(*data);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->format(), ZRBPropertyListBinaryFormat_v1_0);
  EXPECT_EQ(decoded->readOptions(), ZRBPropertyListMutableContainers);
  auto copied = std::dynamic_pointer_cast<ZRBHS_PropertyListResponseSerializer>(configured->copy());
  ASSERT_TRUE(copied);
  EXPECT_EQ(copied->format(), ZRBPropertyListBinaryFormat_v1_0);
}

TEST(CompoundResponseSerializer, TheFirstSerializerThatDecodesWins) {
  auto compound = ZRBHS_CompoundResponseSerializer::compoundSerializerWithResponseSerializers(
      {nullptr, ZRBHS_JSONResponseSerializer::serializer(), ZRBHS_XMLParserResponseSerializer::serializer(),
       ZRBHS_PropertyListResponseSerializer::serializer()});
  EXPECT_FALSE(compound->acceptableContentTypes()) << "the compound itself accepts any type";
  struct Case {
    const char* name;
    long status;
    const char* type;
    std::string body;
    const char* result;  // "json", "xml", "plist" or "raw"
    std::string errors;
  } cases[] = {
      {"JSON", 200, "application/json", "[1]", "json", "none"},
      // The JSON serializer's content-type error is not passed on.
      {"XML after JSON refused it", 200, "text/xml", "<a/>", "xml", "none"},
      {"property list", 200, "application/x-plist", kPlist, "plist", "none"},
      {"decoded despite the status", 500, "application/json", "[1]", "json", "-1011"},
      {"nobody's type", 200, "text/plain", "hello", "raw", "none"},
      {"nobody's type, bad status", 500, "text/plain", "hello", "raw", "-1011"},
      {"JSON that does not parse", 200, "application/json", "[", "raw", "none"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ZRBErrorPtr error;
    ZRBValue body = ZRBValue::data(c.body);
    ZRBValue object = compound->responseObjectForResponse(httpResponse(c.status, c.type), body, &error);
    std::string result = object.objectAs<ZRBXMLParser>() ? "xml"
                         : object.isArray()              ? "json"
                         : object.isDictionary()         ? "plist"
                         : object == body                ? "raw"
                                                         : object.description();
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(chain(error), c.errors);
  }

  auto data = ZRBKeyedArchiver::archivedDataWithRootObject(*compound, true);
  ASSERT_TRUE(data);
  auto decoded = ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBHS_CompoundResponseSerializer>(*data);
  ASSERT_TRUE(decoded);
  auto serializers = decoded->responseSerializers();
  ASSERT_EQ(serializers.size(), 3u);
  EXPECT_EQ(serializers[0]->className(), "ZRBHS_JSONResponseSerializer");
  EXPECT_EQ(serializers[1]->className(), "ZRBHS_XMLParserResponseSerializer");
  EXPECT_EQ(serializers[2]->className(), "ZRBHS_PropertyListResponseSerializer");
  auto copied = std::dynamic_pointer_cast<ZRBHS_CompoundResponseSerializer>(compound->copy());
  ASSERT_TRUE(copied);
  EXPECT_EQ(copied->responseSerializers(), compound->responseSerializers());
}

}  // namespace
