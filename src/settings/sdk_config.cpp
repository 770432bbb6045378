#include "settings/sdk_config.h"

#include <mutex>

#include "settings/field_list.h"

const std::shared_ptr<ZRBSDKConfig>& ZRBSDKConfig::sharedInstance() {
  static std::shared_ptr<ZRBSDKConfig> instance;
  static std::once_flag once;
  std::call_once(once, [] {
    if (!instance) instance = std::make_shared<ZRBSDKConfig>();
  });
  return instance;
}

std::string ZRBSDKConfig::description() const {
  return ZRBFieldList(ZRBObject::description())
      .add("directionalFlow", directionalFlow_)
      .add("logWebsocket", logWebsocket_)
      .add("isCompatibility", isCompatibility_)
      .add("heartbeatTimeoutTimesThreshold", heartbeatTimeoutTimesThreshold_)
      .add("useServerType", useServerType_)
      .add("apiType", apiType_)
      .add("refreshTime", refreshTime_)
      .add("cameraVerMap", cameraVerMap_)
      .add("logLevel", logLevel_)
      .add("thirdLoginHide", thirdLoginHide_)
      .add("connectTimeout", connectTimeout_)
      .add("reconnectInterval", reconnectInterval_)
      .add("heartbeatInterval", heartbeatInterval_)
      .text();
}
