#include "settings/sdk_config.h"

#include "settings/field_list.h"

const std::shared_ptr<ZRBSDKConfig>& ZRBSDKConfig::sharedInstance() {
  // Never destroyed: callbacks still running on the main queue while the process exits read it.
  static const auto* instance = new std::shared_ptr<ZRBSDKConfig>(std::make_shared<ZRBSDKConfig>());
  return *instance;
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
