#include "settings/app_sdk_log_manager.h"

#include "settings/field_list.h"

const std::shared_ptr<ZRBAppSdkLogManager>& ZRBAppSdkLogManager::sharedInstance() {
  // Never destroyed: callbacks still running on the main queue while the process exits read it.
  static const auto* instance =
      new std::shared_ptr<ZRBAppSdkLogManager>(std::make_shared<ZRBAppSdkLogManager>());
  return *instance;
}

std::string ZRBAppSdkLogManager::description() const {
  return ZRBFieldList(ZRBObject::description())
      .add("collectAppSdkLogEnable", collectAppSdkLogEnable())
      .text();
}
