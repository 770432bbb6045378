#include "settings/app_sdk_log_manager.h"

#include <mutex>

#include "settings/field_list.h"

const std::shared_ptr<ZRBAppSdkLogManager>& ZRBAppSdkLogManager::sharedInstance() {
  static std::shared_ptr<ZRBAppSdkLogManager> instance;
  static std::once_flag once;
  std::call_once(once, [] {
    if (!instance) instance = std::make_shared<ZRBAppSdkLogManager>();
  });
  return instance;
}

std::string ZRBAppSdkLogManager::description() const {
  return ZRBFieldList(ZRBObject::description())
      .add("collectAppSdkLogEnable", collectAppSdkLogEnable())
      .text();
}
