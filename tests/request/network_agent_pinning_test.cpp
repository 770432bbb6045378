// Pinned requests through the network agent over HTTPS, with the program's own pinning set-up: a
// server whose key is among the pins is let through, one whose key is not is blocked and reported,
// and the failure reaches the failure callback once on the main queue; the staging switch accepts
// the server without asking the validator at all.
#include <gtest/gtest.h>

#include <thread>

#include "platform/foundation/crypto.h"
#include "platform/foundation/error.h"
#include "platform/net/url_session_configuration.h"
#include "platform/runtime/dispatch.h"
#include "platform/security/sec_key.h"
#include "request/network_agent.h"
#include "request/network_config.h"
#include "request/network_pin_guard.h"
#include "request/network_pin_guard_pins.h"
#include "request_test_support.h"
#include "settings/setting.h"
#include "support/temporary_directory.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kHost = "api.example.com";

std::string pinOf(const ZRBTestCertificate& certificate) {
  return ZRBBase64Encode(certificate.secCertificate()->copyKey()->subjectPublicKeyInfoSHA256());
}

class PinnedAgentTest : public testing::Test {
 protected:
  void SetUp() override {
    // The program pins RSA 2048 keys only: the shared CAs with an RSA 2048 leaf for a name with a
    // public suffix, as pinned domains need.
    const ZRBTestChain& shared = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
    chain_.root = shared.root;
    chain_.intermediate = shared.intermediate;
    ZRBTestCertificateOptions leaf;
    leaf.commonName = kHost;
    leaf.keyType = ZRBTestKeyType::RSA2048;
    leaf.dnsNames = {kHost};
    chain_.leaf = ZRBTestPKI::issue(leaf, &chain_.intermediate);
    server_ = std::make_unique<ZRBTestServer>(ZRBTestServerOptions{.tls = chain_});
    ZRBTestResponse status = ZRBTestResponse::json(200, R"({"online":true})");
    status.keepAlive = false;  // every request is judged in a handshake of its own
    server_->respond("GET", "/status", status);
    server_->start();
    collector_.respondPrefix("POST", "/report", ZRBTestResponse::text(204, ""));
    collector_.start();

    auto setting = ZRBSetting::sharedSetting();
    setting->setAllDomainsProvider([] { return std::vector<std::string>{kHost}; });
    setting->setIsTrustDomainsProvider([] { return true; });
    setting->setIsRealStgEnv(false);
    // The test root is no system anchor; reports go to the loopback collector only.
    ZRBNetworkPinGuard::setDomainPolicyAdditions(ZRBValue::dictionary({
        {"PGDAdditionalTrustAnchors", ZRBValue::array({ZRBValue(chain_.rootPEM())})},
        {"PGDReportUris", ZRBValue::array({ZRBValue(collector_.url("/report"))})},
        {"PGDDisableDefaultReportUri", ZRBValue(true)},
    }));
    // The agent reads the session configuration when it is made.
    auto configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
    configuration->setResolveEntries(
        {std::string(kHost) + ":" + std::to_string(server_->port()) + ":127.0.0.1"});
    ZRBRQ_NetworkConfig::sharedConfig()->setSessionConfiguration(configuration);
  }

  void TearDown() override {
    auto setting = ZRBSetting::sharedSetting();
    setting->setAllDomainsProvider(nullptr);
    setting->setIsTrustDomainsProvider(nullptr);
    setting->setIsRealStgEnvProvider(nullptr);
    ZRBNetworkPinGuard::setPublicKeyHashes({});
    ZRBNetworkPinGuard::setDomainPolicyAdditions(ZRBValue());
    ZRBRQ_NetworkConfig::sharedConfig()->setSessionConfiguration(nullptr);
    ZRBDispatch::mainQueue()->sync([] {});  // observer calls still queued
  }

  std::string url(const std::string& path) const {
    return "https://" + std::string(kHost) + ":" + std::to_string(server_->port()) + path;
  }

  const ZRBTestCachesDirectory caches_;
  ZRBTestChain chain_;
  std::unique_ptr<ZRBTestServer> server_;
  ZRBTestServer collector_;
};

TEST_F(PinnedAgentTest, PinsDecideUnlessTheStagingSwitchAcceptsWithoutEvaluation) {
  struct Case {
    const char* name;
    bool leafPinned;
    bool staging;
    bool succeeds;
    int evaluations;
  };
  const Case cases[] = {
      {"leaf key pinned", true, false, true, 1},
      {"other keys pinned", false, false, false, 1},
      {"staging", false, true, true, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // The built-in pins are keys of other servers.
    if (c.leafPinned) {
      ZRBNetworkPinGuard::setPublicKeyHashes(
          {pinOf(chain_.leaf), std::string(kZRBNetworkPinGuardPublicKeyHashes.front())});
    } else {
      ZRBNetworkPinGuard::setPublicKeyHashes({});
    }
    const auto agent = ZRBRQ_NetworkAgent::init();
    ASSERT_NE(agent->pinGuard(), nullptr);
    ZRBSetting::sharedSetting()->setIsRealStgEnv(c.staging);
    // Runs on the main queue, as the validator observes.
    std::vector<PGDTrustDecision> decisions;
    agent->pinGuard()->setPinningValidatorCallback(
        [&decisions](const ZRB_PGDPinningValidatorResultPtr& result, const std::string&,
                     const ZRB_PGDDomainPolicyPtr&) { decisions.push_back(result->finalTrustDecision()); });

    auto request = ZRBTestMakeRequest(url("/status"));
    request->validator = ZRBValue::dictionary({{"online", ZRBValue::classTag(ZRBValueClass::Bool)}});
    auto recorder = ZRBTestRecord(request);
    agent->addRequest(request);
    recorder->waitForAny({"success", "failure"});
    for (int i = 0; i < 3000 && agent->requestCount() != 0; ++i) std::this_thread::sleep_for(10ms);
    ZRBDispatch::mainQueue()->sync([] {});

    const std::vector<std::string> succeeded{"willStart", "willStop", "finished", "success"};
    const std::vector<std::string> failed{"willStart", "willStop", "failed", "failure", "didStop"};
    EXPECT_EQ(recorder->events(), c.succeeds ? succeeded : failed);
    EXPECT_EQ(recorder->offMain(), std::vector<std::string>{"willStart"});  // the rest on the main queue
    EXPECT_EQ(decisions.size(), static_cast<std::size_t>(c.evaluations));
    if (c.succeeds) {
      EXPECT_EQ(request->responseJSONObject()["online"].boolValue(), true);
      EXPECT_EQ(request->error(), nullptr);
    } else {
      ASSERT_NE(request->error(), nullptr);
      EXPECT_EQ(request->error()->code(), ZRBURLErrorCancelled);  // the validator cancelled the challenge
      EXPECT_EQ(decisions.front(), PGDTrustDecisionShouldBlockConnection);
      // The refusal is reported to the policy's collector, and to it alone.
      EXPECT_TRUE(collector_.waitForRequests(1));
    }
  }
  EXPECT_EQ(collector_.requestCount(), 1u);
}

}  // namespace
