#include "request/network_log.h"

#include <cstdio>
#include <optional>
#include <string>

#include "platform/foundation/string_format.h"
#include "request/network_config.h"
#include "settings/app_sdk_log_manager.h"

bool ZRBNetworkLogIsOn() {
  return ZRBAppSdkLogManager::sharedInstance()->collectAppSdkLogEnable() ||
         ZRBRQ_NetworkConfig::sharedConfig()->debugLogEnabled();
}

void ZRBNetworkLogArguments(std::string_view format, std::span<const ZRBFormatArgument> arguments) {
  const bool collect = ZRBAppSdkLogManager::sharedInstance()->collectAppSdkLogEnable();
  const bool print = ZRBRQ_NetworkConfig::sharedConfig()->debugLogEnabled();
  if (!collect && !print) return;
  // Formatting has no side effects, so one formatted message serves both uses.
  const std::string message = ZRBStringWithFormatArguments(format, arguments);
  if (collect) {
    const std::string method = ZRBStringWithFormat("%s", kZRBNetworkLogMethodName);
    ZRBAppSdkLogManager::sharedInstance()->collectAppSdkLogWithLine(kZRBNetworkLogCollectLine, method,
                                                                    message);
  }
  if (print) {
    std::printf("%s\n", message.c_str());
    std::fflush(stdout);
  }
}
