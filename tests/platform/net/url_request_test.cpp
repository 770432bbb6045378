#include "platform/net/url_request.h"

#include <gtest/gtest.h>

namespace {

// A request only holds its body stream, so a distinct non-null handle is all these tests need; it
// never points at a real stream and is never dereferenced.
std::shared_ptr<ZRBInputStream> opaqueStream() {
  auto owner = std::make_shared<int>(0);
  return std::shared_ptr<ZRBInputStream>(owner, reinterpret_cast<ZRBInputStream*>(owner.get()));
}

ZRBURLPtr url(const char* s) { return ZRBURL::URLWithString(s); }

TEST(URLRequestTest, HeaderNamesIgnoreCaseAndKeepTheirFirstSpelling) {
  ZRBMutableURLRequest request(url("http://h/"));
  request.setValue("text/html", "Accept");
  request.setValue("gzip", "accept-encoding");
  request.setValue("application/json", "ACCEPT");  // replaces, keeps "Accept" first
  request.addValue("br", "Accept-Encoding");
  request.addValue("1", "X-New");
  EXPECT_EQ(request.valueForHTTPHeaderField("accept"), "application/json");
  EXPECT_EQ(request.valueForHTTPHeaderField("ACCEPT-ENCODING"), "gzip, br");
  EXPECT_EQ(request.allHTTPHeaderFields(),
            ZRBValue::dictionary(
                {{"Accept", "application/json"}, {"accept-encoding", "gzip, br"}, {"X-New", "1"}}));
  EXPECT_EQ(request.allHTTPHeaderFields().entries()[0].first, ZRBValue("Accept"));

  request.setValue(std::nullopt, "accept");
  EXPECT_FALSE(request.valueForHTTPHeaderField("Accept"));
  EXPECT_EQ(request.headerFields().size(), 2u);

  request.setAllHTTPHeaderFields(
      ZRBValue::dictionary({{"A", "1"}, {"Length", 42}, {"Gone", ZRBValue::null()}}));
  EXPECT_EQ(request.allHTTPHeaderFields(), ZRBValue::dictionary({{"A", "1"}, {"Length", "42"}}));
}

TEST(URLRequestTest, BodyAndBodyStreamExcludeEachOther) {
  ZRBMutableURLRequest request(url("http://h/"));
  auto stream = opaqueStream();
  request.setHTTPBody(std::vector<std::uint8_t>{1, 2, 3});
  request.setHTTPBodyStream(stream);
  EXPECT_TRUE(request.HTTPBody().isAbsent());
  EXPECT_EQ(request.HTTPBodyStream(), stream);

  request.setHTTPBody(ZRBValue("a=1"));
  EXPECT_FALSE(request.HTTPBodyStream());
  EXPECT_EQ(request.HTTPBody(), ZRBValue::data("a=1"));

  // Removing one leaves the other alone; an empty body is still a body.
  request.setHTTPBodyStream(nullptr);
  EXPECT_EQ(request.HTTPBody(), ZRBValue::data("a=1"));
  request.setHTTPBodyStream(stream);
  request.setHTTPBody(ZRBValue());
  EXPECT_EQ(request.HTTPBodyStream(), stream);
  request.setHTTPBody(std::vector<std::uint8_t>{});
  EXPECT_TRUE(request.HTTPBody().isData());
  EXPECT_FALSE(request.HTTPBodyStream());
}

TEST(URLRequestTest, CopiesAreIndependentAndEqual) {
  auto original =
      ZRBMutableURLRequest::requestWithURL(url("http://h/"), ZRBURLRequestReturnCacheDataElseLoad, 5);
  original->setHTTPMethod("POST");
  original->setValue("1", "X-A");
  original->setHTTPBody(ZRBValue("body"));
  original->setAllowsCellularAccess(false);
  original->setNetworkServiceType(ZRBURLNetworkServiceTypeBackground);

  auto frozen = original->copy();
  auto mutableCopy = frozen->mutableCopy();
  EXPECT_EQ(frozen->className(), "ZRBURLRequest");
  EXPECT_EQ(frozen->copy(), frozen);  // nothing in it can change
  EXPECT_NE(mutableCopy->copy(), frozen);
  EXPECT_TRUE(frozen->isEqual(*original));
  EXPECT_TRUE(mutableCopy->isEqual(*original));
  EXPECT_EQ(mutableCopy->cachePolicy(), ZRBURLRequestReturnCacheDataElseLoad);
  EXPECT_EQ(mutableCopy->timeoutInterval(), 5);

  auto omitting = original->mutableCopy();
  omitting->setOmitsHTTPHeaderField("User-Agent", true);
  EXPECT_FALSE(omitting->isEqual(*original));
  EXPECT_TRUE(omitting->copy()->omitsHTTPHeaderField("user-agent"));
  EXPECT_TRUE(omitting->mutableCopy()->isEqual(*omitting));
  EXPECT_FALSE(original->omitsHTTPHeaderField("User-Agent"));
  omitting->setOmitsHTTPHeaderField("USER-AGENT", false);
  EXPECT_TRUE(omitting->isEqual(*original));

  mutableCopy->setValue("2", "x-a");
  mutableCopy->setHTTPMethod("");
  EXPECT_EQ(original->valueForHTTPHeaderField("X-A"), "1");
  EXPECT_EQ(original->HTTPMethod(), "POST");
  EXPECT_EQ(mutableCopy->HTTPMethod(), "GET");
  EXPECT_FALSE(mutableCopy->isEqual(*original));
}

}  // namespace
