// The pin guard and its delegate proxies, over a loopback TLS server that answers as
// "api.example.com" (configurations need a name with a public suffix) through a tunnelling proxy:
// the shared instance, report URIs, which delegates get wrapped, and what the proxies do with
// challenges of hosts that are not pinned. Pinned refusal and acceptance end to end are in
// tests/tools/pinning_setup_test.cpp.
#include "pinning/pin_guard.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <future>
#include <string>
#include <vector>

#include "log_lines.h"
#include "pinning/url_connection_delegate_proxy.h"
#include "pinning/url_session_delegate_proxy.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/exception.h"
#include "platform/net/url_connection.h"
#include "platform/runtime/method_replacement.h"
#include "support/raises.h"
#include "support/recording_connection_delegate.h"
#include "support/recording_delegate.h"
#include "support/temporary_directory.h"
#include "support/test_connect_proxy.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

// `domain` and its subdomains pinned to two foreign keys, the test root an extra anchor.
ZRBValue configurationFor(const ZRBTestChain& chain, const std::string& domain, bool swizzle = false) {
  ZRBValue policy = ZRBValue::dictionary({
      {kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({ZRBValue(kZRB_PGDAlgorithmEcDsaSecp256r1)})},
      {kZRB_PGDPublicKeyHashes, ZRBValue::array({ZRBValue(ZRBBase64Encode(std::string(32, 'a'))),
                                                 ZRBValue(ZRBBase64Encode(std::string(32, 'b')))})},
      {kZRB_PGDIncludeSubdomains, ZRBValue(true)},
      {kZRB_PGDAdditionalTrustAnchors, ZRBValue::array({ZRBValue(chain.rootPEM())})},
      {kZRB_PGDDisableDefaultReportUri, ZRBValue(true)},
  });
  return ZRBValue::dictionary({{kZRB_PGDSwizzleNetworkDelegates, ZRBValue(swizzle)},
                               {kZRB_PGDPinnedDomains, ZRBValue::dictionary({{domain, policy}})}});
}

class PinGuardTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const ZRBTestChain& shared = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
    chain_.root = shared.root;
    chain_.intermediate = shared.intermediate;
    chain_.leaf = ZRBTestPKI::issue({.commonName = "api.example.com", .dnsNames = {"api.example.com"}},
                                    &chain_.intermediate);
    server_ = std::make_unique<ZRBTestServer>(ZRBTestServerOptions{.tls = chain_});
    server_->start();
    server_->respond("GET", "/", ZRBTestResponse::text(200, "ok"));
    ::setenv("https_proxy", proxy_.url().c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("https_proxy");
    ZRBMethodReplacement::resetAll();
    server_->stop();
  }

  ZRBURLRequestPtr request() const {
    return ZRBURLRequest::requestWithURL(
        ZRBURL::URLWithString("https://api.example.com:" + std::to_string(server_->port()) + "/"));
  }

  ZRBTestChain chain_;
  ZRBTestConnectProxy proxy_;
  std::unique_ptr<ZRBTestServer> server_;
  const ZRBTestCachesDirectory caches_;
};

TEST_F(PinGuardTest, SharedInstanceIsMadeOnceAndOnlyItMaySwizzle) {
  EXPECT_THROW(ZRB_PinGuard::initWithConfiguration(ZRBValue()), ZRBAssertionFailure);
  // A private instance may not swizzle.
  EXPECT_THAT([&] { ZRB_PinGuard::initWithConfiguration(configurationFor(chain_, "example.com", true)); },
              ZRBTestRaises(kZRB_PGDConfigurationInvalidException,
                            "Cannot use PGDSwizzleNetworkDelegates outside the PinGuard sharedInstance"));
  PGDLogLines log;
  auto first = configurationFor(chain_, "example.com");
  auto shared = ZRB_PinGuard::initSharedInstanceWithConfiguration(first);
  ASSERT_TRUE(shared && shared->isSharedInstance());
  EXPECT_EQ(ZRB_PinGuard::initSharedInstanceWithConfiguration(configurationFor(chain_, "example.org")),
            shared);
  EXPECT_EQ(ZRB_PinGuard::sharedInstance(), shared);
  EXPECT_EQ(*shared->configuration(), *zrb_parsePinGuardConfiguration(first));
  EXPECT_EQ(log.count("Configuration passed via explicit call to initSharedInstanceWithConfiguration:"), 2);
  // Every instance shares the one hash cache.
  auto privateInstance = ZRB_PinGuard::initWithConfiguration(first);
  EXPECT_EQ(privateInstance->pinningValidator()->spkiHashCache(),
            shared->pinningValidator()->spkiHashCache());
  EXPECT_EQ(shared->pinningValidator()->spkiHashCache()->spkiCacheFilename(),
            kZRB_PGDSharedHashCacheIdentifier);
}

TEST_F(PinGuardTest, ReportsGoToThePolicysURIsThenTheDefaultUnlessDisabled) {
  const std::string mine = "http://127.0.0.1:1/r", fallback(kZRB_PGDDefaultReportUri);
  struct Case {
    bool withMine, disableDefault;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {false, false, {fallback}}, {true, false, {mine, fallback}}, {true, true, {mine}}, {false, true, {}}};
  for (const auto& c : cases) {
    ZRB_PGDDomainPolicy policy;
    policy.disableDefaultReportUri = c.disableDefault;
    if (c.withMine) policy.reportUris = std::vector<ZRBURLPtr>{ZRBURL::URLWithString(mine)};
    std::vector<std::string> got;
    for (const auto& url : ZRB_PinGuard::reportURIsForPolicy(policy)) got.push_back(url->absoluteString());
    EXPECT_EQ(got, c.expected);
  }
}

// A host that is not pinned keeps its session delegate's own answer in the form the delegate
// implements; the proxy answers session-level challenges itself, so a delegate with only the task
// form gets default handling, which rejects the test root.
TEST_F(PinGuardTest, SessionProxyForwardsChallengesOfHostsThatAreNotPinned) {
  auto pinGuard = ZRB_PinGuard::initWithConfiguration(configurationFor(chain_, "example.org"));
  ZRB_PGDNSURLSessionDelegateProxy::swizzleNSURLSessionConstructors(pinGuard);
  auto accept = [](const ZRBURLAuthenticationChallengePtr& challenge,
                   ZRBURLSessionChallengeCompletion completion) {
    completion(ZRBURLSessionAuthChallengeUseCredential,
               ZRBURLCredential::credentialForTrust(challenge->protectionSpace()->serverTrust()));
  };
  const std::tuple<bool, bool, long> cases[] = {{true, false, 0},
                                                {false, true, ZRBURLErrorServerCertificateUntrusted},
                                                {false, false, ZRBURLErrorServerCertificateUntrusted}};
  for (const auto& [sessionLevel, taskLevel, code] : cases) {
    auto delegate = std::make_shared<RecordingDelegate>();
    if (sessionLevel) delegate->onServerTrust = accept;
    if (taskLevel) delegate->onTaskChallenge = accept;
    auto session = ZRBURLSession::sessionWithConfiguration(nullptr, delegate, nullptr);
    auto task = session->dataTaskWithRequest(request());
    task->resume();
    ASSERT_TRUE(delegate->waitForCompletions(1));
    auto error = delegate->completion(task).error;
    EXPECT_EQ(error ? error->code() : 0, code) << sessionLevel << taskLevel;
    session->invalidateAndCancel();
  }
}

template <typename Base>
struct Named : Base {
  explicit Named(std::string className) : name(std::move(className)) {}
  std::string className() const override { return name; }
  std::string name;
};

TEST_F(PinGuardTest, OnlyDelegatesOfOtherLibrariesAreWrapped) {
  auto pinGuard = ZRB_PinGuard::initWithConfiguration(configurationFor(chain_, "example.com"));
  ZRB_PGDNSURLSessionDelegateProxy::swizzleNSURLSessionConstructors(pinGuard);
  ZRB_PGDNSURLConnectionDelegateProxy::swizzleNSURLConnectionConstructors(pinGuard);
  const std::pair<std::string, bool> cases[] = {{"AppDelegate", true},
                                                {"XPGDThing", true},
                                                {"PGDReporterDelegate", false},
                                                {"ZRB_PGDSomething", false},
                                                {"ZRB_PGDNSURLSessionDelegateProxy", false}};
  for (const auto& [name, wrapped] : cases) {
    auto sessionDelegate = std::make_shared<Named<RecordingDelegate>>(name);
    auto session = ZRBURLSession::sessionWithConfiguration(nullptr, sessionDelegate, nullptr);
    auto sessionProxy = std::dynamic_pointer_cast<ZRB_PGDNSURLSessionDelegateProxy>(session->delegate());
    EXPECT_EQ(sessionProxy != nullptr, wrapped) << name;
    EXPECT_EQ(sessionProxy ? sessionProxy->sessionDelegate() : session->delegate(), sessionDelegate);
    session->invalidateAndCancel();
    auto connectionDelegate = std::make_shared<Named<ZRBURLConnectionDelegate>>(name);
    auto connection = ZRBURLConnection::initWithRequest(request(), connectionDelegate, false);
    EXPECT_EQ(
        std::dynamic_pointer_cast<ZRB_PGDNSURLConnectionDelegateProxy>(connection->delegate()) != nullptr,
        wrapped)
        << name;
  }
  // The proxies themselves are never wrapped again, and no delegate means nothing to wrap.
  auto sessionProxy = ZRB_PGDNSURLSessionDelegateProxy::initWithPinGuard(pinGuard, nullptr);
  auto session = ZRBURLSession::sessionWithConfiguration(nullptr, sessionProxy, nullptr);
  EXPECT_EQ(session->delegate(), sessionProxy);
  session->invalidateAndCancel();
  auto connectionProxy = ZRB_PGDNSURLConnectionDelegateProxy::initWithPinGuard(pinGuard, nullptr);
  EXPECT_EQ(ZRBURLConnection::initWithRequest(request(), connectionProxy, false)->delegate(),
            connectionProxy);
  auto bare = ZRBURLSession::sessionWithConfiguration(nullptr, nullptr, nullptr);
  EXPECT_EQ(bare->delegate(), nullptr);
  bare->invalidateAndCancel();
}

// A connection delegate that answers server trust in either of the two ways the API offers keeps
// that answer; one that answers neither gets default handling, which rejects the test root.
TEST_F(PinGuardTest, ConnectionProxyForwardsChallengesOfHostsThatAreNotPinned) {
  auto pinGuard = ZRB_PinGuard::initWithConfiguration(configurationFor(chain_, "example.org"));
  ZRB_PGDNSURLConnectionDelegateProxy::swizzleNSURLConnectionConstructors(pinGuard);
  auto trust = [](const ZRBURLAuthenticationChallengePtr& c) { ZRBTestAnswerChallenge(c, "trust"); };
  enum class Handles { WillSend, OlderPair, Nothing };
  const std::tuple<Handles, long, std::vector<std::string>> cases[] = {
      {Handles::WillSend, 0, {"challenge trust", "response", "data", "finish"}},
      {Handles::OlderPair, 0, {"can authenticate", "older challenge trust", "response", "data", "finish"}},
      {Handles::Nothing, ZRBURLErrorServerCertificateUntrusted, {"fail"}},
  };
  for (const auto& [handles, code, events] : cases) {
    auto delegate = std::make_shared<RecordingConnectionDelegate>();
    delegate->queue = "connection";
    if (handles == Handles::WillSend) delegate->onWillSend = trust;
    if (handles == Handles::OlderPair) {
      delegate->onCanAuthenticate = [] { return true; };
      delegate->onDidReceive = trust;
    }
    auto connection = ZRBURLConnection::initWithRequest(request(), delegate, false);
    connection->setDelegateQueue(ZRBDispatchQueue::serial("connection"));
    connection->start();
    ASSERT_TRUE(delegate->waitForEnd());
    EXPECT_EQ(delegate->error ? delegate->error->code() : 0, code);
    EXPECT_EQ(delegate->events(), events);
  }
}

TEST_F(PinGuardTest, ClassOperationsOfConnectionsWarnThatTheyCannotBePinned) {
  PGDLogLines log;
  ZRB_PGDNSURLConnectionDelegateProxy::swizzleNSURLConnectionConstructors(
      ZRB_PinGuard::initWithConfiguration(configurationFor(chain_, "example.com")));
  auto request = ZRBURLRequest::requestWithURL(ZRBURL::URLWithString("http://127.0.0.1:9/"));
  ZRBErrorPtr error;
  ZRBURLConnection::sendSynchronousRequest(request, nullptr, &error);
  EXPECT_TRUE(error);
  auto done = std::make_shared<std::promise<void>>();
  ZRBURLConnection::sendAsynchronousRequest(request, ZRBDispatchQueue::serial("answers"),
                                            [done](auto, auto, auto) { done->set_value(); });
  EXPECT_EQ(done->get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  const std::string tail =
      " was called to connect to 127.0.0.1. This method does not expose a delegate argument for handling "
      "authentication challenges; PinGuard cannot enforce SSL pinning for these connections";
  EXPECT_EQ(log.count("WARNING: +sendSynchronousRequest:returningResponse:error:" + tail), 1);
  EXPECT_EQ(log.count("WARNING: +sendAsynchronousRequest:queue:completionHandler:" + tail), 1);
}

}  // namespace
