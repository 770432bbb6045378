// The XML and property-list serializers, and the compound serializer's choice among serializers.
#include "http/compound_response_serializer.h"

#include <gtest/gtest.h>

#include <string>

#include "http/image_response_serializer.h"
#include "http/json_response_serializer.h"
#include "http/property_list_response_serializer.h"
#include "http/xml_parser_response_serializer.h"
#include "serializer_checks.h"
#include "support/test_images.h"

namespace {

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
  EXPECT_EQ(errorChain(error), "-1016");
}

TEST(PropertyListResponseSerializer, ReadsEitherFormatAndChainsItsErrors) {
  auto serializer = ZRBHS_PropertyListResponseSerializer::serializer();
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
    EXPECT_EQ(errorChain(error), c.errors);
  }
}

TEST(CompoundResponseSerializer, TheFirstSerializerThatDecodesWins) {
  auto compound = ZRBHS_CompoundResponseSerializer::compoundSerializerWithResponseSerializers(
      {nullptr, ZRBHS_JSONResponseSerializer::serializer(), ZRBHS_XMLParserResponseSerializer::serializer(),
       ZRBHS_PropertyListResponseSerializer::serializer(), ZRBHS_ImageResponseSerializer::serializer()});
  EXPECT_FALSE(compound->acceptableContentTypes()) << "the compound itself accepts any type";
  const auto gifBytes = test_images::gif(2, 2, {{0, 0, 2, 2, 1}});
  const std::string gif(gifBytes.begin(), gifBytes.end());
  struct Case {
    const char* name;
    long status;
    const char* type;
    std::string body;
    const char* result;  // "json", "xml", "plist", "image" or "raw"
    std::string errors;
  } cases[] = {
      {"JSON", 200, "application/json", "[1]", "json", "none"},
      // The JSON serializer's content-type error is not passed on.
      {"XML after JSON refused it", 200, "text/xml", "<a/>", "xml", "none"},
      {"property list", 200, "application/x-plist", kPlist, "plist", "none"},
      {"image", 200, "image/gif", gif, "image", "none"},
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
                         : object.objectAs<ZRBImage>()   ? "image"
                         : object.isArray()              ? "json"
                         : object.isDictionary()         ? "plist"
                         : object == body                ? "raw"
                                                         : object.description();
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(errorChain(error), c.errors);
  }

  // The copy shares the serializers; the archive holds their kinds.
  auto both = copiedAndDecoded(*compound);
  ASSERT_TRUE(both[0] && both[1]);
  EXPECT_EQ(both[0]->responseSerializers(), compound->responseSerializers());
  std::vector<std::string> kinds;
  for (const auto& serializer : both[1]->responseSerializers()) kinds.push_back(serializer->className());
  EXPECT_EQ(kinds, (std::vector<std::string>{
                       "ZRBHS_JSONResponseSerializer", "ZRBHS_XMLParserResponseSerializer",
                       "ZRBHS_PropertyListResponseSerializer", "ZRBHS_ImageResponseSerializer"}));
}

}  // namespace
