#include <cstdio>
#include <string>

#include "commands.h"
#include "settings/app_sdk_log_manager.h"
#include "settings/exported_symbols.h"
#include "settings/sdk_config.h"
#include "settings/setting.h"
#include "settings/vendor_identifier.h"

int orvelVersionCommand(OrvelArguments) {
  std::string text(reinterpret_cast<const char*>(ORVELKITVersionString));
  if (!text.empty() && text.back() == '\n') text.pop_back();
  std::printf("orvel %.1f (%s)\n", ORVELKITVersionNumber, text.c_str());
  return 0;
}

int orvelSettingsCommand(OrvelArguments) {
  auto vendorId = ZRBIdentifierForVendor();
  std::printf("%s\n", ZRBSetting::sharedSetting()->description().c_str());
  std::printf("%s\n", ZRBSDKConfig::sharedInstance()->description().c_str());
  std::printf("%s\n", ZRBAppSdkLogManager::sharedInstance()->description().c_str());
  std::printf("identifierForVendor = %s\n", vendorId ? vendorId->c_str() : "(null)");
  return 0;
}
