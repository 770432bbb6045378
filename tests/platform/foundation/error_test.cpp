#include "platform/foundation/error.h"

#include <gtest/gtest.h>

#include "platform/foundation/assert.h"

namespace {

TEST(ErrorTest, DescriptionsFallBackToThePlatformText) {
  auto plain = ZRBError::make(ZRBURLErrorDomain, ZRBURLErrorTimedOut);
  EXPECT_EQ(plain->localizedDescription(),
            "The operation couldn\u2019t be completed. (ZRBURLErrorDomain error -1001.)");
  EXPECT_TRUE(plain->userInfo().isDictionary());
  EXPECT_FALSE(plain->localizedFailureReason());

  auto described = ZRBError::withDescription("com.velkit.request.validation", -9, "Invalid JSON format");
  EXPECT_EQ(described->localizedDescription(), "Invalid JSON format");
  EXPECT_EQ(described->description(),
            "Error Domain=com.velkit.request.validation Code=-9 \"Invalid JSON format\" "
            "UserInfo={ZRBLocalizedDescription=Invalid JSON format}");
}

TEST(ErrorTest, UnderlyingChainIsSearchable) {
  auto contentType = ZRBError::withDescription("resp", -1016, "unacceptable content-type");
  auto status = ZRBError::make("resp", -1011, ZRBValue::dictionary({{ZRBUnderlyingErrorKey, contentType}}));
  EXPECT_EQ(status->underlyingError(), contentType);
  EXPECT_TRUE(status->hasCodeInChain("resp", -1016));
  EXPECT_TRUE(status->hasCodeInChain("resp", -1011));
  EXPECT_FALSE(status->hasCodeInChain("other", -1016));
  EXPECT_FALSE(contentType->hasCodeInChain("resp", -1011));
}

TEST(AssertTest, DefaultHandlerThrowsTheExactText) {
  const char* request = nullptr;
  try {
    ZRBAssert(request);
    FAIL() << "no assertion failure";
  } catch (const ZRBAssertionFailure& failure) {
    EXPECT_STREQ(failure.what(), "Invalid parameter not satisfying: request");
    EXPECT_GT(failure.line(), 0);
  }
}

TEST(AssertTest, ReplaceableHandlerAndLogMode) {
  std::string seen;
  auto previous =
      ZRBSetAssertionHandler([&](const std::string& message, const char*, int) { seen = message; });
  int value = 0;
  ZRBAssert(value == 1);
  EXPECT_EQ(seen, "Invalid parameter not satisfying: value == 1");
  ZRBSetAssertionHandler(previous);

  ZRBSetAssertionMode(ZRBAssertionMode::LogAndContinue);
  testing::internal::CaptureStderr();
  EXPECT_NO_THROW(ZRBAssertNamed(value == 1, "name"));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Invalid parameter not satisfying: name"),
            std::string::npos);
  ZRBSetAssertionMode(ZRBAssertionMode::Throw);
  EXPECT_THROW(ZRBAssert(value == 1), ZRBAssertionFailure);
}

}  // namespace
