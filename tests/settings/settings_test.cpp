#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <thread>

#include "platform/system/device.h"
#include "settings/app_sdk_log_manager.h"
#include "settings/exported_symbols.h"
#include "settings/sdk_config.h"
#include "settings/setting.h"
#include "settings/vendor_identifier.h"

namespace {

// The defaults other modules act on: no pinning, no domains, no staging, and a log level low enough
// that successful requests do not notify accessories.
TEST(SettingsTest, FreshInstancesAnswerNeutrally) {
  ZRBSetting setting;
  EXPECT_TRUE(setting.allDomains().empty());
  EXPECT_FALSE(setting.isRealStgEnv() || setting.isTrustDomains() || setting.isInternational());
  EXPECT_EQ(setting.domainIPDic(), nullptr);
  EXPECT_EQ(ZRBSDKConfig().logLevel(), 0u);
  EXPECT_FALSE(ZRBAppSdkLogManager().collectAppSdkLogEnable());
}

TEST(SettingsTest, SingletonsAreCreatedOnceAcrossThreads) {
  std::vector<const void*> seen(8);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&seen, i] { seen[i] = ZRBSetting::sharedSetting().get(); });
  }
  for (auto& thread : threads) thread.join();
  for (const void* p : seen) EXPECT_EQ(p, ZRBSetting::sharedSetting().get());
  EXPECT_EQ(ZRBSDKConfig::sharedInstance(), ZRBSDKConfig::sharedInstance());
  EXPECT_EQ(ZRBAppSdkLogManager::sharedInstance(), ZRBAppSdkLogManager::sharedInstance());
}

TEST(SettingsTest, HostProvidersAndModuleWritesAreSeen) {
  ZRBSetting setting;
  int calls = 0;
  setting.setAllDomainsProvider([&] {
    ++calls;
    return std::vector<std::string>{"a.example", "b.example"};
  });
  EXPECT_EQ(setting.allDomains().size(), 2u);
  EXPECT_EQ(setting.allDomains().size(), 2u);
  EXPECT_EQ(calls, 2);  // asked each time, not cached
  setting.setIsRealStgEnv(true);
  EXPECT_TRUE(setting.isRealStgEnv());

  ZRBSettingModuleAccess::setServerConfigPath(setting, "/etc/orvel/server.json");
  EXPECT_EQ(setting.serverConfigPath(), "/etc/orvel/server.json");

  auto table = std::make_shared<ZRBSetting::StringMap>();
  setting.setDomainIPDic(table);
  (*table)["api.example"] = "127.0.0.1";  // a shared, growable map: later writes are visible
  EXPECT_EQ(setting.domainIPDic()->at("api.example"), "127.0.0.1");
  EXPECT_NE(setting.description().find("api.example = 127.0.0.1;"), std::string::npos);
}

TEST(SettingsTest, LogSinkDoesNothingUntilACollectorIsInstalled) {
  ZRBAppSdkLogManager manager;
  manager.setCollectAppSdkLogEnable(true);
  EXPECT_NO_THROW(manager.collectAppSdkLogWithLine(19, "ZRBNetworkLog", "dropped"));
  std::string seen;
  manager.setCollector([&](long line, const std::string& method, const std::string& message) {
    seen = std::to_string(line) + " " + method + " " + message;
  });
  manager.collectAppSdkLogWithLine(19, "ZRBNetworkLog", "kept");
  EXPECT_EQ(seen, "19 ZRBNetworkLog kept");
}

class VendorIdentifierTest : public testing::Test {
 protected:
  void TearDown() override {
    ZRBDevice::currentDevice()->setMachineIdPath(std::nullopt);
    ZRBDevice::currentDevice()->setVendor("settings_tests");
  }
  std::string writeMachineId(const std::string& id) {
    std::string path = testing::TempDir() + "machine-id-" + std::to_string(getpid());
    std::ofstream(path) << id << "\n";
    return path;
  }
};

TEST_F(VendorIdentifierTest, StablePerVendorAndAbsentWithoutMachineId) {
  auto device = ZRBDevice::currentDevice();
  device->setMachineIdPath(writeMachineId("0123456789abcdef0123456789abcdef"));
  device->setVendor("com.example");
  auto first = ZRBIdentifierForVendor();
  ASSERT_TRUE(first);
  EXPECT_TRUE(std::regex_match(
      *first, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-5[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << *first;
  EXPECT_EQ(ZRBIdentifierForVendor(), first);
  device->setVendor("com.other");
  EXPECT_NE(ZRBIdentifierForVendor(), first);

  device->setMachineIdPath(testing::TempDir() + "no-such-machine-id");
  EXPECT_FALSE(ZRBIdentifierForVendor());
  device->setMachineIdPath(writeMachineId(""));
  EXPECT_FALSE(ZRBIdentifierForVendor());
}

TEST(ExportedSymbolsTest, FoundThroughDlsym) {
  void* library = dlopen(ORVELKIT_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  auto* number = static_cast<const double*>(dlsym(library, "ORVELKITVersionNumber"));
  auto* text = static_cast<const char*>(dlsym(library, "ORVELKITVersionString"));
  auto* flag = static_cast<int*>(dlsym(library, "g_DebugFlag"));
  auto* vendor = reinterpret_cast<const char* (*)()>(dlsym(library, "zrb_identifier_for_vendor"));
  ASSERT_TRUE(number && text && flag && vendor);
  EXPECT_EQ(*number, 1.0);
  EXPECT_STREQ(text, "@(#)PROGRAM:ORVELKIT  PROJECT:ORVELKIT-1\n");
  EXPECT_EQ(*flag, 0);
  // The C function answers what the C++ one does (null without a machine id).
  auto expected = ZRBIdentifierForVendor();
  const char* answer = vendor();
  EXPECT_EQ(answer ? std::optional<std::string>(answer) : std::nullopt, expected);
  dlclose(library);
}

}  // namespace
