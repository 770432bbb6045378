// Response serializers: validation and its errors, the guard of the decoding serializers, error
// chaining, JSON decoding with null removal, and what copies and archives of every kind keep.
#include "http/response_serializer.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "http/image_response_serializer.h"
#include "http/json_response_serializer.h"
#include "http/property_list_response_serializer.h"
#include "serializer_checks.h"

namespace {

ZRBValue body(std::optional<std::string_view> text) { return text ? ZRBValue::data(*text) : ZRBValue(); }

ZRBErrorPtr error(long code, ZRBErrorPtr underlying = nullptr) {
  ZRBValue info = underlying ? ZRBValue::dictionary({{ZRBUnderlyingErrorKey, ZRBValue(underlying)}})
                             : ZRBValue::dictionary({});
  return ZRBError::make("d", code, info);
}

TEST(ResponseSerializerChaining, AddsTheUnderlyingErrorOnlyWhereThereIsRoom) {
  ZRBErrorPtr a = error(1), b = error(2), withUnder = error(3, error(4));
  EXPECT_EQ(KVHSErrorWithUnderlyingError(nullptr, b), b);
  EXPECT_EQ(KVHSErrorWithUnderlyingError(a, nullptr), a);
  EXPECT_EQ(KVHSErrorWithUnderlyingError(nullptr, nullptr), nullptr);
  EXPECT_EQ(KVHSErrorWithUnderlyingError(withUnder, b), withUnder) << "an existing underlying error stays";

  ZRBErrorPtr chained = KVHSErrorWithUnderlyingError(
      ZRBError::make("d", 1, ZRBValue::dictionary({{ZRBLocalizedDescriptionKey, "text"}})), b);
  EXPECT_EQ(errorChain(chained), "1<2");
  EXPECT_EQ(chained->localizedDescription(), "text") << "the user info is kept";

  ZRBErrorPtr deep = error(1, error(2, ZRBError::make("other", 3)));
  EXPECT_TRUE(KVHSErrorOrUnderlyingErrorHasCodeInDomain(deep, 3, "other"));
  EXPECT_TRUE(KVHSErrorOrUnderlyingErrorHasCodeInDomain(deep, 1, "d"));
  EXPECT_FALSE(KVHSErrorOrUnderlyingErrorHasCodeInDomain(deep, 3, "d")) << "code and domain must meet";
  EXPECT_FALSE(KVHSErrorOrUnderlyingErrorHasCodeInDomain(nullptr, 3, "d"));
}

// Every way a response can fail validation, through the base and the JSON serializer.
TEST(ResponseSerializer, ValidationAndTheGuardFollowTheFailureTable) {
  struct Case {
    const char* name;
    long status;
    std::optional<std::string> mimeType;
    std::optional<std::string_view> body;
    std::string baseErrors;  // the base serializer's error chain (same acceptable types)
    std::string jsonErrors;  // the JSON serializer's error chain
    const char* json;        // the JSON serializer's value, as JSON text; nullptr for absent
  } cases[] = {
      {"fine", 200, "application/json", R"({"a":1})", "none", "none", R"({"a":1})"},
      {"no content", 204, std::nullopt, "", "none", "none", nullptr},
      {"no body at all", 204, std::nullopt, std::nullopt, "none", "none", nullptr},
      {"wrong type", 200, "text/html", "<p>", "-1016", "-1016", nullptr},
      {"wrong type, empty body", 200, "text/html", "", "none", "none", nullptr},
      {"no type, a body", 200, std::nullopt, "{}", "-1016", "-1016", nullptr},
      {"bad status", 500, "application/json", R"([1])", "-1011", "-1011", "[1]"},
      {"bad status and type", 500, "text/html", "<p>", "-1011<-1016", "-1011<-1016", nullptr},
      {"one space", 200, "application/json", " ", "none", "none", nullptr},
      {"one space, bad status", 503, "application/json", " ", "-1011", "-1011", nullptr},
      {"two spaces", 200, "application/json", "  ", "none", "3840", nullptr},
      {"not JSON, bad status", 404, "text/json", "nope", "-1011", "3840<-1011", nullptr},
  };
  auto base = ZRBHS_HTTPResponseSerializer::serializer();
  base->setAcceptableContentTypes(ZRBHS_JSONResponseSerializer::serializer()->acceptableContentTypes());
  auto json = ZRBHS_JSONResponseSerializer::serializer();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto response = httpResponse(c.status, c.mimeType);
    ZRBErrorPtr baseError, jsonError;
    ZRBValue raw = base->responseObjectForResponse(response, body(c.body), &baseError);
    EXPECT_EQ(raw, body(c.body)) << "the base hands the body back whatever validation says";
    EXPECT_EQ(errorChain(baseError), c.baseErrors);

    ZRBValue object = json->responseObjectForResponse(response, body(c.body), &jsonError);
    EXPECT_EQ(errorChain(jsonError), c.jsonErrors);
    if (c.json) {
      EXPECT_EQ(object, ZRBJSONSerialization::JSONObjectWithData(std::string_view(c.json)));
    } else {
      EXPECT_TRUE(object.isAbsent()) << object.description();
    }
  }
}

TEST(ResponseSerializer, TheGuardDecodesNothingForACallerWithoutAnErrorSlot) {
  auto json = ZRBHS_JSONResponseSerializer::serializer();
  auto failing = httpResponse(500, "application/json");
  EXPECT_TRUE(json->responseObjectForResponse(failing, body("[1]")).isAbsent());
  ZRBErrorPtr slot;
  EXPECT_FALSE(json->responseObjectForResponse(failing, body("[1]"), &slot).isAbsent());
  EXPECT_FALSE(json->responseObjectForResponse(httpResponse(200, "text/json"), body("[1]")).isAbsent());
}

TEST(ResponseSerializer, OnlyHTTPResponsesWithAURLAreJudged) {
  auto json = ZRBHS_JSONResponseSerializer::serializer();
  // Not HTTP: nothing to check.
  auto plain = std::make_shared<const ZRBURLResponse>(ZRBURL::URLWithString("file:///x"), "text/html", 3,
                                                      std::nullopt);
  ZRBErrorPtr error;
  EXPECT_TRUE(json->validateResponse(plain, body("[1]"), &error));
  EXPECT_EQ(json->responseObjectForResponse(plain, body("[1]"), &error), ZRBValue::array({1}));
  EXPECT_TRUE(json->validateResponse(nullptr, body("x"), &error));

  // Without a URL a response is invalid but no error is made, so decoding goes on.
  auto noURL = httpResponse(500, "text/html", "");
  error = ZRBError::make("stale", 1);
  EXPECT_FALSE(json->validateResponse(noURL, body("[1]"), &error));
  EXPECT_EQ(error, nullptr) << "an invalid response always sets the slot, here to nothing";
  EXPECT_EQ(json->responseObjectForResponse(noURL, body("[1]"), &error), ZRBValue::array({1}));
  EXPECT_EQ(error, nullptr);

  // Absent sets accept everything.
  auto open = ZRBHS_HTTPResponseSerializer::serializer();
  open->setAcceptableStatusCodes(std::nullopt);
  EXPECT_TRUE(open->validateResponse(httpResponse(999, "x/y"), body("z")));
}

TEST(ResponseSerializer, ErrorsCarryTheirTextsTheResponseAndTheBody) {
  auto json = ZRBHS_JSONResponseSerializer::serializer();
  auto response = httpResponse(404, "text/plain");
  ZRBErrorPtr error;
  json->validateResponse(response, body("gone"), &error);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZRBHS_ResponseSerializationErrorDomain);
  EXPECT_EQ(error->localizedDescription(), "Request failed: not found (404)");
  EXPECT_EQ(error->userInfo()[ZRBURLErrorFailingURLErrorKey].objectAs<ZRBURL>()->absoluteString(),
            "http://h/p");
  EXPECT_EQ(error->userInfo()[ZRBHS_ResponseSerializationResponseKey].object().get(), response.get());
  EXPECT_EQ(error->userInfo()[ZRBHS_ResponseSerializationDataKey], body("gone"));
  ZRBErrorPtr contentType = error->underlyingError();
  ASSERT_TRUE(contentType);
  EXPECT_EQ(contentType->localizedDescription(), "Request failed: unacceptable content-type: text/plain");

  // An empty body is still a body; no body at all leaves the key out.
  json->validateResponse(httpResponse(500, "text/json"), ZRBValue::data(""), &error);
  EXPECT_TRUE(error->userInfo().contains(ZRBHS_ResponseSerializationDataKey));
  json->validateResponse(httpResponse(500, "text/json"), ZRBValue(), &error);
  EXPECT_FALSE(error->userInfo().contains(ZRBHS_ResponseSerializationDataKey));
}

TEST(JSONResponseSerializer, RemovesKeysWithNullValuesButKeepsArrayLengths) {
  auto parse = [](std::string_view text) {
    return ZRBJSONSerialization::JSONObjectWithData(text, ZRBJSONReadingFragmentsAllowed);
  };
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {R"({"a":null,"b":[null,{"c":null}]})", R"({"b":[null,{}]})"},
      {R"([{"a":null,"b":{"c":null,"d":[{"e":null,"f":0}]}},null])", R"([{"b":{"d":[{"f":0}]}},null])"},
      {R"({"s":"null","n":0,"f":false,"e":{}})", R"({"s":"null","n":0,"f":false,"e":{}})"},
      {"null", "null"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(KVHSJSONObjectByRemovingKeysWithNullValues(parse(c.in), {}), parse(c.out)) << c.in;
  }
  // Key order survives the removal.
  ZRBValue kept = KVHSJSONObjectByRemovingKeysWithNullValues(parse(R"({"z":1,"y":null,"x":2})"), {});
  ASSERT_EQ(kept.count(), 2u);
  EXPECT_EQ(kept.entries()[0].first.string(), "z");
  EXPECT_EQ(kept.entries()[1].first.string(), "x");

  auto json = ZRBHS_JSONResponseSerializer::serializer();
  json->setRemovesKeysWithNullValues(true);
  EXPECT_EQ(
      json->responseObjectForResponse(httpResponse(200, "application/json"), body(R"({"a":null,"b":1})")),
      parse(R"({"b":1})"));
}

// Each kind's own settings travel in copies and archives; the string encoding never does, and an
// absent set stays absent.
TEST(ResponseSerializer, CopiesAndArchivesKeepTheConfiguration) {
  auto json = ZRBHS_JSONResponseSerializer::serializerWithReadingOptions(ZRBJSONReadingFragmentsAllowed);
  json->setRemovesKeysWithNullValues(true);
  json->setAcceptableStatusCodes(ZRBIndexSet::indexSetWithIndexesInRange(100, 500));
  json->setStringEncoding(ZRBASCIIStringEncoding);
  for (const auto& again : copiedAndDecoded(*json)) {
    ASSERT_TRUE(again);
    EXPECT_NE(again.get(), json.get());
    EXPECT_EQ(
        std::tuple(again->readingOptions(), again->removesKeysWithNullValues(), again->stringEncoding()),
        std::tuple(ZRBJSONReadingFragmentsAllowed, true, ZRBUTF8StringEncoding));
    EXPECT_EQ(again->acceptableStatusCodes(), json->acceptableStatusCodes());
    EXPECT_EQ(again->acceptableContentTypes(), json->acceptableContentTypes());
  }
  auto base = ZRBHS_HTTPResponseSerializer::serializer();
  base->setAcceptableStatusCodes(std::nullopt);
  auto decoded = copiedAndDecoded(*base)[1];
  ASSERT_TRUE(decoded);
  EXPECT_FALSE(decoded->acceptableStatusCodes());
  EXPECT_FALSE(decoded->acceptableContentTypes());

  auto plist = ZRBHS_PropertyListResponseSerializer::serializerWithFormat(ZRBPropertyListBinaryFormat_v1_0,
                                                                          ZRBPropertyListMutableContainers);
  for (const auto& again : copiedAndDecoded(*plist)) {
    ASSERT_TRUE(again);
    EXPECT_EQ(std::pair(again->format(), again->readOptions()),
              std::pair(ZRBPropertyListBinaryFormat_v1_0, ZRBPropertyListMutableContainers));
  }
  auto image = ZRBHS_ImageResponseSerializer::serializer();
  image->setImageScale(3);
  image->setAutomaticallyInflatesResponseImage(false);
  for (const auto& again : copiedAndDecoded(*image)) {
    ASSERT_TRUE(again);
    EXPECT_EQ(std::pair(again->imageScale(), again->automaticallyInflatesResponseImage()),
              std::pair(3.0, false));
  }
}

}  // namespace
