// The program's pinning set-up: when the settings switch pinning on, which hosts a domain list
// yields and the policy each gets, and the pin guard that results.
#include "request/network_pin_guard.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/foundation/crypto.h"
#include "platform/foundation/exception.h"
#include "request_test_support.h"
#include "settings/setting.h"
#include "support/temporary_directory.h"
#include "support/test_pki.h"

namespace {

class NetworkPinGuardTest : public ::testing::Test {
 protected:
  void TearDown() override {
    auto setting = ZRBSetting::sharedSetting();
    setting->setIsRealStgEnvProvider(nullptr);
    setting->setIsTrustDomainsProvider(nullptr);
    setting->setIsInternationalProvider(nullptr);
    ZRBNetworkPinGuard::setPublicKeyHashes({});
    ZRBNetworkPinGuard::setDomainPolicyAdditions(ZRBValue());
  }

  const ZRBTestCachesDirectory caches_;
  ZRBTestLogCatcher log_;
};

TEST_F(NetworkPinGuardTest, TrustDomainsPinsOnlyOutsideTheRealStagingEnvironmentWithTrustOn) {
  struct Case {
    bool realStgEnv, trustDomains, international;
    bool pinned;
    std::string line;  // logged when not pinned
  };
  const Case cases[] = {
      {false, false, false, false, "JenkinsConfigNoTrustDomains: 0-0-0"},
      {false, true, true, true, ""},
      {true, false, true, false, "JenkinsConfigNoTrustDomains: 1-0-1"},
      {true, true, false, false, "JenkinsConfigNoTrustDomains: 1-1-0"},
  };
  auto setting = ZRBSetting::sharedSetting();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    setting->setIsRealStgEnvProvider([&] { return c.realStgEnv; });
    setting->setIsTrustDomainsProvider([&] { return c.trustDomains; });
    setting->setIsInternationalProvider([&] { return c.international; });
    log_.clear();
    auto pinGuard = ZRBNetworkPinGuard::trustDomains(std::vector<std::string>{"https://api.orvel.com/v1"});
    EXPECT_EQ(pinGuard != nullptr, c.pinned);
    EXPECT_EQ(log_.lines(), c.pinned ? std::vector<std::string>{} : std::vector<std::string>{c.line});
    if (pinGuard) {
      EXPECT_FALSE(pinGuard->isSharedInstance());
      EXPECT_FALSE(pinGuard->configuration()->swizzleNetworkDelegates);
    }
  }
  // Pinning on, but nothing to pin.
  setting->setIsTrustDomainsProvider([] { return true; });
  setting->setIsRealStgEnvProvider([] { return false; });
  EXPECT_EQ(ZRBNetworkPinGuard::trustDomains(std::vector<std::string>{}), nullptr);
  EXPECT_EQ(ZRBNetworkPinGuard::trustDomains(ZRBValue()), nullptr);
}

TEST_F(NetworkPinGuardTest, EachHostGetsTheProgramsPolicyAndLaterEntriesReplaceEarlierOnes) {
  const ZRBValue domains = ZRBValue::array({
      ZRBValue("http://api.orvel.com/path"),
      ZRBValue(""),
      ZRBValue("not a url"),
      ZRBValue(42),
      ZRBValue("https://cdn.media.orvel.net/x"),  // https: the part after the first dot
      ZRBValue("http://api.orvel.com/other"),
  });
  auto filled = [](char c) {
    ZRB_PGDPin pin;
    pin.fill(std::uint8_t(c));
    return pin;
  };
  // The built-in pins parse (the pin guard is made); a replacement list takes their place.
  EXPECT_EQ(ZRBNetworkPinGuard::addPinGuardDomains(domains)->configuration()->pinnedDomains.size(), 2u);
  const std::vector<std::string> pins = {ZRBBase64Encode(std::string(32, 'p')),
                                         ZRBBase64Encode(std::string(32, 'q'))};
  ZRBNetworkPinGuard::setPublicKeyHashes(pins);
  auto pinGuard = ZRBNetworkPinGuard::addPinGuardDomains(domains);
  std::vector<std::string> hosts;
  for (const auto& [host, policy] : pinGuard->configuration()->pinnedDomains) {
    hosts.push_back(host);
    EXPECT_TRUE(policy->enforcePinning);
    EXPECT_TRUE(policy->includeSubdomains);
    EXPECT_EQ(policy->publicKeyAlgorithms, std::vector<PGDPublicKeyAlgorithm>{PGDPublicKeyAlgorithmRsa2048});
    EXPECT_EQ(policy->publicKeyHashes.size(), 2u);
    EXPECT_TRUE(policy->publicKeyHashes.contains(filled('p')));
    EXPECT_FALSE(policy->reportUris);
  }
  EXPECT_EQ(hosts, (std::vector<std::string>{"api.orvel.com", "media.orvel.net"}));

  // Additions join every policy but cannot weaken the program's four entries.
  ZRBNetworkPinGuard::setDomainPolicyAdditions(ZRBValue::dictionary({
      {"PGDReportUris", ZRBValue::array({ZRBValue("http://127.0.0.1:1/report")})},
      {"PGDEnforcePinning", ZRBValue(false)},
      {"PGDPublicKeyHashes", ZRBValue::array({})},
  }));
  const auto widened = ZRBNetworkPinGuard::addPinGuardDomains(domains);
  for (const auto& [host, policy] : widened->configuration()->pinnedDomains) {
    EXPECT_TRUE(policy->enforcePinning);
    EXPECT_EQ(policy->publicKeyHashes.size(), 2u);
    ASSERT_TRUE(policy->reportUris);
    EXPECT_EQ(policy->reportUris->size(), 1u);
  }

  // Nothing usable: the pin guard is still made, and its configuration refuses.
  try {
    ZRBNetworkPinGuard::addPinGuardDomains(ZRBValue::array({ZRBValue(""), ZRBValue("localhost")}));
    ADD_FAILURE() << "an empty pinned-domain map was accepted";
  } catch (const ZRBException& exception) {
    EXPECT_EQ(exception.name(), "PinGuard configuration invalid");
  }
}

}  // namespace
