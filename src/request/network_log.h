// ZRBNetworkLog: the request layer's log function.
//
// ZRBNetworkLog(format, args...) formats like ZRBStringWithFormat (printf conversions plus %@ for
// descriptions, see platform/string_format.h) and then, independently of each other:
// 1. when ZRBAppSdkLogManager::sharedInstance()->collectAppSdkLogEnable() is on, hands the message
//    to collectAppSdkLogWithLine with line 19 and the method name "ZRBNetworkLog";
// 2. when ZRBRQ_NetworkConfig::sharedConfig()->debugLogEnabled() is on, prints it with "%s\n" to
//    standard output.
// Both, one or neither may happen for a call; with both switches off nothing is formatted. The
// function returns nothing, never fails and may be called from any thread.
#pragma once

#include <span>
#include <string_view>

#include "platform/foundation/string_format.h"

// The line and method name that collected messages carry.
inline constexpr long kZRBNetworkLogCollectLine = 19;
inline constexpr std::string_view kZRBNetworkLogMethodName = "ZRBNetworkLog";

// Whether a ZRBNetworkLog call made now would print or collect: callers whose arguments cost
// something to gather (copies, descriptions) check it first.
bool ZRBNetworkLogIsOn();

// The function behind ZRBNetworkLog, for callers that already hold their arguments as a list.
void ZRBNetworkLogArguments(std::string_view format, std::span<const ZRBFormatArgument> arguments);

template <typename... Args>
void ZRBNetworkLog(std::string_view format, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    ZRBNetworkLogArguments(format, {});
  } else {
    const ZRBFormatArgument arguments[] = {ZRBFormatArgument(args)...};
    ZRBNetworkLogArguments(format, arguments);
  }
}
