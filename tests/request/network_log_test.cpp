// ZRBNetworkLog: printing under debugLogEnabled and collection through the app/SDK log manager,
// each independent of the other.
#include "request/network_log.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "request/network_config.h"
#include "settings/app_sdk_log_manager.h"

namespace {

TEST(NetworkLog, PrintsAndCollectsIndependently) {
  const auto config = ZRBRQ_NetworkConfig::sharedConfig();
  const auto manager = ZRBAppSdkLogManager::sharedInstance();
  using Messages = std::vector<std::string>;
  Messages collected;
  manager->setCollector([&](long line, const std::string& method, const std::string& message) {
    EXPECT_EQ(line, 19);
    EXPECT_EQ(method, "ZRBNetworkLog");
    collected.push_back(message);
  });
  const std::string message = "100%s %@ took 12 ms, (null) 404 not found";
  for (bool print : {false, true}) {
    for (bool collect : {false, true}) {
      SCOPED_TRACE(testing::Message() << "print " << print << ", collect " << collect);
      config->setDebugLogEnabled(print);
      manager->setCollectAppSdkLogEnable(collect);
      collected.clear();
      testing::internal::CaptureStdout();
      // The argument's own percent signs are not formatted again.
      ZRBNetworkLog("%@ took %d ms, %@ %ld %s", std::string("100%s %@"), 12, std::optional<std::string>(),
                    404L, "not found");
      ZRBNetworkLog("plain");
      EXPECT_EQ(testing::internal::GetCapturedStdout(), print ? message + "\nplain\n" : "");
      EXPECT_EQ(collected, (collect ? Messages{message, "plain"} : Messages{}));
    }
  }
  config->setDebugLogEnabled(false);
  manager->setCollectAppSdkLogEnable(false);
  manager->setCollector(nullptr);
}

}  // namespace
