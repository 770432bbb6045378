// ZRBNetworkLog: printing to standard output under debugLogEnabled, collection through the app/SDK
// log manager (line 19, method "ZRBNetworkLog"), each independent of the other, nothing with both off.
#include "request/network_log.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/value.h"
#include "request/network_config.h"
#include "settings/app_sdk_log_manager.h"

namespace {

struct Collected {
  long line;
  std::string method;
  std::string message;
};

class NetworkLogTest : public testing::Test {
 protected:
  void SetUp() override {
    ZRBRQ_NetworkConfig::sharedConfig()->setDebugLogEnabled(false);
    auto manager = ZRBAppSdkLogManager::sharedInstance();
    manager->setCollectAppSdkLogEnable(false);
    manager->setCollector([this](long line, const std::string& method, const std::string& message) {
      collected_.push_back({line, method, message});
    });
  }
  void TearDown() override {
    ZRBRQ_NetworkConfig::sharedConfig()->setDebugLogEnabled(false);
    ZRBAppSdkLogManager::sharedInstance()->setCollectAppSdkLogEnable(false);
    ZRBAppSdkLogManager::sharedInstance()->setCollector(nullptr);
  }

  std::vector<Collected> collected_;
};

TEST_F(NetworkLogTest, BothSwitchesOffHasNoEffect) {
  testing::internal::CaptureStdout();
  ZRBNetworkLog("nothing %d %@", 1, std::string("here"));
  ZRBNetworkLog("no arguments");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(collected_.empty());
}

TEST_F(NetworkLogTest, DebugLogPrintsLineToStandardOutput) {
  ZRBRQ_NetworkConfig::sharedConfig()->setDebugLogEnabled(true);
  const ZRBValue number(42);
  testing::internal::CaptureStdout();
  ZRBNetworkLog("request %@ took %d ms, value %@", std::string("abc"), 12, number);
  ZRBNetworkLog("plain");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "request abc took 12 ms, value 42\nplain\n");
  // Printing does not collect.
  EXPECT_TRUE(collected_.empty());
}

TEST_F(NetworkLogTest, CollectionHandsMessageWithLine19AndMethodName) {
  ZRBAppSdkLogManager::sharedInstance()->setCollectAppSdkLogEnable(true);
  testing::internal::CaptureStdout();
  ZRBNetworkLog("status = %ld, %s", 404L, "not found");
  // Collecting does not print.
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  ASSERT_EQ(collected_.size(), 1u);
  EXPECT_EQ(collected_[0].line, 19);
  EXPECT_EQ(collected_[0].method, "ZRBNetworkLog");
  EXPECT_EQ(collected_[0].message, "status = 404, not found");
}

TEST_F(NetworkLogTest, BothSwitchesOnDoBoth) {
  ZRBRQ_NetworkConfig::sharedConfig()->setDebugLogEnabled(true);
  ZRBAppSdkLogManager::sharedInstance()->setCollectAppSdkLogEnable(true);
  testing::internal::CaptureStdout();
  ZRBNetworkLog("%@ and %@", std::optional<std::string>(), std::string("x"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "(null) and x\n");
  ASSERT_EQ(collected_.size(), 1u);
  EXPECT_EQ(collected_[0].message, "(null) and x");
}

TEST_F(NetworkLogTest, PercentSignsInArgumentsAreNotReinterpreted) {
  ZRBRQ_NetworkConfig::sharedConfig()->setDebugLogEnabled(true);
  testing::internal::CaptureStdout();
  ZRBNetworkLog("%@", std::string("100%s %d %@"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "100%s %d %@\n");
}

}  // namespace
