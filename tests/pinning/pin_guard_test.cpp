// The pin guard and its delegate proxies over a loopback TLS server with the test PKI: instances
// and the shared one, the observer and reports, which delegates get wrapped, and the challenge
// paths of sessions and connections (pinned refusal and acceptance, everything else forwarded).
#include "pinning/pin_guard.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "pinning/url_connection_delegate_proxy.h"
#include "pinning/url_session_delegate_proxy.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/exception.h"
#include "platform/net/url_connection.h"
#include "platform/runtime/method_replacement.h"
#include "platform/security/sec_key.h"
#include "platform/system/file_manager.h"
#include "support/recording_delegate.h"
#include "support/test_connect_proxy.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

std::string pinOf(const ZRBTestCertificate& certificate) {
  auto pin = certificate.secCertificate()->copyKey()->subjectPublicKeyInfoSHA256();
  return ZRBBase64Encode(std::span<const std::uint8_t>(pin));
}

// Two pins that match no key of the test PKI.
const std::vector<std::string> kForeignPins = {ZRBBase64Encode(std::string(32, 'a')),
                                               ZRBBase64Encode(std::string(32, 'b'))};

ZRBValue strings(const std::vector<std::string>& items) {
  std::vector<ZRBValue> values(items.begin(), items.end());
  return ZRBValue::array(std::move(values));
}

struct PolicyOptions {
  std::vector<std::string> pins;
  std::string domain = "example.com";  // pinned with its subdomains
  bool enforce = true;
  std::vector<std::string> reportUris{};
  bool disableDefaultReportUri = true;  // tests never contact the default endpoint
  bool swizzle = false;
};

// The options' domain pinned for P-256 keys, the chain's root trusted as an extra anchor.
ZRBValue configurationFor(const ZRBTestChain& chain, const PolicyOptions& options) {
  std::vector<std::pair<std::string_view, ZRBValue>> policy = {
      {kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({ZRBValue(kZRB_PGDAlgorithmEcDsaSecp256r1)})},
      {kZRB_PGDPublicKeyHashes, strings(options.pins)},
      {kZRB_PGDEnforcePinning, ZRBValue(options.enforce)},
      {kZRB_PGDIncludeSubdomains, ZRBValue(true)},
      {kZRB_PGDAdditionalTrustAnchors, ZRBValue::array({ZRBValue(chain.rootPEM())})},
      {kZRB_PGDDisableDefaultReportUri, ZRBValue(options.disableDefaultReportUri)},
  };
  if (!options.reportUris.empty()) policy.emplace_back(kZRB_PGDReportUris, strings(options.reportUris));
  std::vector<ZRBDictionaryEntry> entries;
  for (auto& [key, value] : policy) entries.emplace_back(ZRBValue(key), std::move(value));
  return ZRBValue::dictionary({
      {kZRB_PGDSwizzleNetworkDelegates, ZRBValue(options.swizzle)},
      {kZRB_PGDPinnedDomains,
       ZRBValue::dictionary({{options.domain, ZRBValue::dictionary(std::move(entries))}})},
  });
}

class LogLines {
 public:
  LogLines() {
    ZRB_PinGuard::setLoggerBlock([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~LogLines() { ZRB_PinGuard::setLoggerBlock(nullptr); }
  int count(std::string_view prefix) {
    std::lock_guard lock(mutex_);
    return int(
        std::count_if(lines_.begin(), lines_.end(), [&](const auto& l) { return l.starts_with(prefix); }));
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// The server answers as "api.example.com" (a name with a public suffix, as configurations need) on
// loopback; sessions reach it through a resolve entry, which then stays in the process's name cache
// for connections too.
class PinGuardTest : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ = ZRBTestPKI::makeTemporaryDirectory();
    ZRBFileManager::defaultManager()->setCachesDirectory(directory_.string());
    const ZRBTestChain& shared = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
    chain_.root = shared.root;
    chain_.intermediate = shared.intermediate;
    ZRBTestCertificateOptions leaf;
    leaf.commonName = "api.example.com";
    leaf.dnsNames = {"api.example.com"};
    chain_.leaf = ZRBTestPKI::issue(leaf, &chain_.intermediate);
    server_ = std::make_unique<ZRBTestServer>(ZRBTestServerOptions{.tls = chain_});
    server_->start();
    server_->respond("GET", "/", ZRBTestResponse::text(200, "pinned"));
    url_ = "https://api.example.com:" + std::to_string(server_->port()) + "/";
    // Puts the name into the name cache, trusting the server for this one request.
    auto delegate = std::make_shared<RecordingDelegate>();
    delegate->onServerTrust = [](const ZRBURLAuthenticationChallengePtr& challenge, auto completion) {
      completion(ZRBURLSessionAuthChallengeUseCredential,
                 ZRBURLCredential::credentialForTrust(challenge->protectionSpace()->serverTrust()));
    };
    ASSERT_EQ(fetchThroughSession(delegate), nullptr);
    server_->clearRequests();
  }
  void TearDown() override {
    ZRBMethodReplacement::resetAll();
    server_->stop();
    ZRBFileManager::defaultManager()->setCachesDirectory(std::nullopt);
    std::filesystem::remove_all(directory_);
  }

  ZRBURLSessionPtr makeSession(ZRBURLSessionDelegatePtr delegate) {
    auto configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
    configuration->setResolveEntries({"api.example.com:" + std::to_string(server_->port()) + ":127.0.0.1"});
    return ZRBURLSession::sessionWithConfiguration(configuration, std::move(delegate), nullptr);
  }
  ZRBURLRequestPtr request() const { return ZRBURLRequest::requestWithURL(ZRBURL::URLWithString(url_)); }

  // One GET through a session whose delegate is `delegate` (wrapped or not by the construction
  // slot); the error, null on success.
  ZRBErrorPtr fetchThroughSession(const std::shared_ptr<RecordingDelegate>& delegate) {
    auto session = makeSession(delegate);
    auto task = session->dataTaskWithRequest(request());
    task->resume();
    EXPECT_TRUE(delegate->waitForCompletions(1));
    session->invalidateAndCancel();
    return delegate->completion(task).error;
  }

  ZRBTestChain chain_;
  std::unique_ptr<ZRBTestServer> server_;
  std::string url_;
  std::filesystem::path directory_;
};

TEST_F(PinGuardTest, InstancesRefuseBadConfigurationsAndSwizzlingOutsideTheSharedOne) {
  EXPECT_THROW(ZRB_PinGuard::initWithConfiguration(ZRBValue()), ZRBAssertionFailure);
  struct Case {
    ZRBValue configuration;
    std::string reason;
  };
  const Case cases[] = {
      {configurationFor(chain_, {.pins = kForeignPins, .swizzle = true}),
       "Cannot use PGDSwizzleNetworkDelegates outside the PinGuard sharedInstance"},
      {ZRBValue::dictionary({{kZRB_PGDSwizzleNetworkDelegates, ZRBValue(false)}}),
       "PinGuard was initialized with no"},
  };
  for (const auto& c : cases) {
    try {
      ZRB_PinGuard::initWithConfiguration(c.configuration);
      ADD_FAILURE() << c.reason;
    } catch (const ZRBException& exception) {
      EXPECT_EQ(exception.name(), kZRB_PGDConfigurationInvalidException);
      EXPECT_TRUE(exception.reason().starts_with(c.reason)) << exception.reason();
    }
  }
  auto a = ZRB_PinGuard::initWithConfiguration(configurationFor(chain_, {.pins = kForeignPins}));
  auto b = ZRB_PinGuard::initWithConfiguration(configurationFor(chain_, {.pins = kForeignPins}));
  EXPECT_FALSE(a->isSharedInstance());
  EXPECT_EQ(a->pinningValidator()->spkiHashCache(), b->pinningValidator()->spkiHashCache());
  EXPECT_EQ(a->pinningValidator()->spkiHashCache()->spkiCacheFilename(), kZRB_PGDSharedHashCacheIdentifier);
}

TEST_F(PinGuardTest, SharedInstanceIsMadeOnceAndLaterCallsOnlyLog) {
  LogLines log;
  auto first = configurationFor(chain_, {.pins = {pinOf(chain_.leaf)}, .enforce = false});
  auto shared = ZRB_PinGuard::initSharedInstanceWithConfiguration(first);
  ASSERT_TRUE(shared);
  EXPECT_TRUE(shared->isSharedInstance());
  auto second =
      ZRB_PinGuard::initSharedInstanceWithConfiguration(configurationFor(chain_, {.pins = kForeignPins}));
  EXPECT_EQ(second, shared);
  EXPECT_EQ(ZRB_PinGuard::sharedInstance(), shared);
  EXPECT_EQ(*shared->configuration(), *zrb_parsePinGuardConfiguration(first));
  EXPECT_EQ(log.count("Configuration passed via explicit call to initSharedInstanceWithConfiguration:"), 2);
  EXPECT_LE(log.count("Successfully initialized with configuration"), 1);
}

// An object that counts how often its description is asked for.
struct CountingObject : ZRBObject {
  mutable int described = 0;
  std::string description() const override { return std::to_string(++described); }
};

TEST_F(PinGuardTest, LogBuildsNoTextWithoutALogger) {
  auto object = std::make_shared<CountingObject>();
  ZRB_PGDLog("nobody listens: %@", object);
  EXPECT_EQ(object->described, 0);
  LogLines log;
  ZRB_PGDLog("somebody listens: %@", object);
  EXPECT_EQ(object->described, 1);
  EXPECT_EQ(log.count("somebody listens: 1"), 1);
}

TEST_F(PinGuardTest, ReportURIsAreThePolicysThenTheDefaultUnlessDisabled) {
  struct Case {
    std::vector<std::string> uris;
    bool disableDefault;
    std::vector<std::string> expected;
  };
  const std::string mine = "http://127.0.0.1:1/r";
  const std::string fallback(kZRB_PGDDefaultReportUri);
  const Case cases[] = {
      {{}, false, {fallback}},
      {{mine}, false, {mine, fallback}},
      {{mine}, true, {mine}},
      {{}, true, {}},
  };
  for (const auto& c : cases) {
    ZRB_PGDDomainPolicy policy;
    policy.disableDefaultReportUri = c.disableDefault;
    if (!c.uris.empty()) policy.reportUris = std::vector<ZRBURLPtr>{ZRBURL::URLWithString(c.uris[0])};
    std::vector<std::string> got;
    for (const auto& url : ZRB_PinGuard::reportURIsForPolicy(policy)) got.push_back(url->absoluteString());
    EXPECT_EQ(got, c.expected);
  }
  EXPECT_TRUE(fallback.starts_with("https://"));
}

// Through the session proxy: pinned acceptance and refusal, a failure reported even when
// enforcement lets it through, and no report without any report URI.
TEST_F(PinGuardTest, SessionProxyEnforcesPinsAndReportsFailures) {
  ZRBTestServer collector;
  collector.start();
  collector.uploadSink("/report", {.keepLimit = 1 << 16});
  struct Case {
    std::vector<std::string> pins;
    bool enforce;
    bool withReportUri;
    long code;      // 0: the request goes through
    bool reported;  // a report reaches the collector
  };
  const Case cases[] = {
      {{pinOf(chain_.leaf), kForeignPins[0]}, true, true, 0, false},
      {{pinOf(chain_.intermediate), kForeignPins[0]}, true, true, 0, false},
      {kForeignPins, true, true, ZRBURLErrorCancelled, true},
      {kForeignPins, false, true, 0, true},
      {kForeignPins, false, false, 0, false},
  };
  int row = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(row++);
    collector.clearRequests();
    auto pinGuard = ZRB_PinGuard::initWithConfiguration(configurationFor(
        chain_, {.pins = c.pins,
                 .enforce = c.enforce,
                 .reportUris = c.withReportUri ? std::vector<std::string>{collector.url("/report")}
                                               : std::vector<std::string>{}}));
    std::vector<std::string> observed;
    std::mutex mutex;
    pinGuard->setPinningValidatorCallbackQueue(ZRBDispatchQueue::serial("observer"));
    pinGuard->setPinningValidatorCallback([&](const auto& result, const std::string& noted, const auto&) {
      std::lock_guard lock(mutex);
      observed.push_back(noted + " " + std::to_string(result->finalTrustDecision()));
    });
    // The delegate implements no challenge operation: only the proxy answers.
    auto delegate = std::make_shared<RecordingDelegate>();
    auto proxy = ZRB_PGDNSURLSessionDelegateProxy::initWithPinGuard(pinGuard, delegate);
    auto session = makeSession(proxy);
    auto task = session->dataTaskWithRequest(request());
    task->resume();
    ASSERT_TRUE(delegate->waitForCompletions(1));
    auto error = delegate->completion(task).error;
    EXPECT_EQ(error ? error->code() : 0, c.code);
    EXPECT_EQ(server_->requestCount() > 0, c.code == 0) << "nothing goes over a refused connection";
    server_->clearRequests();
    if (c.reported) {
      EXPECT_TRUE(collector.waitForRequests(1));
      EXPECT_NE(collector.requests()[0].body.find("\"api.example.com\""), std::string::npos);
    } else {
      // The reporter queue is serial: a block queued after the observer's has seen any report start.
      pinGuard->pinFailureReporterQueue()->sync([] {});
      pinGuard->pinFailureReporter()->waitForUploads(std::chrono::seconds(10));
      EXPECT_EQ(collector.requestCount(), 0u);
    }
    session->invalidateAndCancel();
  }
}

// A pinning-unaware delegate keeps its challenges for hosts that are not pinned, in the form it
// implements; without one they get default handling (which rejects the test root).
TEST_F(PinGuardTest, SessionProxyForwardsChallengesOfHostsThatAreNotPinned) {
  // Another domain is pinned, not the server's.
  auto pinGuard = ZRB_PinGuard::initWithConfiguration(
      configurationFor(chain_, {.pins = kForeignPins, .domain = "example.org"}));
  ZRB_PGDNSURLSessionDelegateProxy::swizzleNSURLSessionConstructors(pinGuard);
  auto accept = [](const ZRBURLAuthenticationChallengePtr& challenge,
                   ZRBURLSessionChallengeCompletion completion) {
    completion(ZRBURLSessionAuthChallengeUseCredential,
               ZRBURLCredential::credentialForTrust(challenge->protectionSpace()->serverTrust()));
  };
  struct Case {
    bool sessionLevel, taskLevel;
    long code;
  };
  const Case cases[] = {
      {true, false, 0},
      // The proxy answers session-level challenges itself, so a delegate with only the task form
      // is not asked for server trust.
      {false, true, ZRBURLErrorServerCertificateUntrusted},
      {false, false, ZRBURLErrorServerCertificateUntrusted},
  };
  for (const auto& c : cases) {
    auto delegate = std::make_shared<RecordingDelegate>();
    if (c.sessionLevel) delegate->onServerTrust = accept;
    if (c.taskLevel) delegate->onTaskChallenge = accept;
    auto error = fetchThroughSession(delegate);
    EXPECT_EQ(error ? error->code() : 0, c.code) << c.sessionLevel << c.taskLevel;
  }
}

struct NamedSessionDelegate : RecordingDelegate {
  explicit NamedSessionDelegate(std::string className) : name(std::move(className)) {}
  std::string className() const override { return name; }
  std::string name;
};

struct NamedConnectionDelegate : ZRBURLConnectionDelegate {
  explicit NamedConnectionDelegate(std::string className) : name(std::move(className)) {}
  std::string className() const override { return name; }
  std::string name;
};

TEST_F(PinGuardTest, OnlyDelegatesOfOtherLibrariesAreWrapped) {
  auto pinGuard = ZRB_PinGuard::initWithConfiguration(configurationFor(chain_, {.pins = kForeignPins}));
  ZRB_PGDNSURLSessionDelegateProxy::swizzleNSURLSessionConstructors(pinGuard);
  ZRB_PGDNSURLConnectionDelegateProxy::swizzleNSURLConnectionConstructors(pinGuard);
  struct Case {
    std::string name;
    bool wrapped;
  };
  const Case cases[] = {
      {"AppDelegate", true},          {"ZRBHS_SessionDelegate", true}, {"XPGDThing", true},
      {"PGDReporterDelegate", false}, {"ZRB_PGDSomething", false},
  };
  for (const auto& c : cases) {
    auto sessionDelegate = std::make_shared<NamedSessionDelegate>(c.name);
    auto session = ZRBURLSession::sessionWithConfiguration(nullptr, sessionDelegate, nullptr);
    auto sessionProxy = std::dynamic_pointer_cast<ZRB_PGDNSURLSessionDelegateProxy>(session->delegate());
    EXPECT_EQ(sessionProxy != nullptr, c.wrapped) << c.name;
    if (sessionProxy) {
      EXPECT_EQ(sessionProxy->sessionDelegate(), sessionDelegate);
    }
    session->invalidateAndCancel();

    auto connectionDelegate = std::make_shared<NamedConnectionDelegate>(c.name);
    auto connection = ZRBURLConnection::initWithRequest(request(), connectionDelegate, false);
    auto connectionProxy =
        std::dynamic_pointer_cast<ZRB_PGDNSURLConnectionDelegateProxy>(connection->delegate());
    EXPECT_EQ(connectionProxy != nullptr, c.wrapped) << c.name;
  }
  // The proxies themselves are never wrapped again, and no delegate means nothing to wrap.
  auto proxy =
      ZRB_PGDNSURLSessionDelegateProxy::initWithPinGuard(pinGuard, std::make_shared<RecordingDelegate>());
  auto session = ZRBURLSession::sessionWithConfiguration(nullptr, proxy, nullptr);
  EXPECT_EQ(session->delegate(), proxy);
  session->invalidateAndCancel();
  auto connectionProxy = ZRB_PGDNSURLConnectionDelegateProxy::initWithPinGuard(pinGuard, nullptr);
  EXPECT_EQ(ZRBURLConnection::initWithRequest(request(), connectionProxy, false)->delegate(),
            connectionProxy);
  auto bare = ZRBURLSession::sessionWithConfiguration(nullptr, nullptr, nullptr);
  EXPECT_EQ(bare->delegate(), nullptr);
  bare->invalidateAndCancel();
}

// A connection delegate that records how the connection ended and which challenge operations ran.
class EndingConnectionDelegate : public ZRBURLConnectionDelegate {
 public:
  enum class Handles { Nothing, WillSend, OlderPair };
  explicit EndingConnectionDelegate(Handles handles) : handles_(handles) {}

  bool respondsToOperation(ZRBURLConnectionDelegateOperation operation) const override {
    using Op = ZRBURLConnectionDelegateOperation;
    switch (operation) {
      case Op::ConnectionWillSendRequestForAuthenticationChallenge: return handles_ == Handles::WillSend;
      case Op::ConnectionCanAuthenticateAgainstProtectionSpace:
      case Op::ConnectionDidReceiveAuthenticationChallenge: return handles_ == Handles::OlderPair;
      default: return ZRBURLConnectionDelegate::respondsToOperation(operation);
    }
  }
  void connectionWillSendRequestForAuthenticationChallenge(
      const ZRBURLConnectionPtr&, const ZRBURLAuthenticationChallengePtr& challenge) override {
    note("will send");
    accept(challenge);
  }
  bool connectionCanAuthenticateAgainstProtectionSpace(const ZRBURLConnectionPtr&,
                                                       const ZRBURLProtectionSpacePtr&) override {
    note("can authenticate");
    return true;
  }
  void connectionDidReceiveAuthenticationChallenge(
      const ZRBURLConnectionPtr&, const ZRBURLAuthenticationChallengePtr& challenge) override {
    note("did receive");
    accept(challenge);
  }
  void connectionDidFinishLoading(const ZRBURLConnectionPtr&) override { end(nullptr); }
  void connectionDidFailWithError(const ZRBURLConnectionPtr&, const ZRBErrorPtr& error) override {
    end(error);
  }

  // The error the connection ended with (null on success); fails the test on a timeout.
  ZRBErrorPtr wait() {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(ended_.wait_for(lock, std::chrono::seconds(20), [&] { return done_; }));
    return error_;
  }
  std::vector<std::string> notes() {
    std::lock_guard lock(mutex_);
    return notes_;
  }

 private:
  static void accept(const ZRBURLAuthenticationChallengePtr& challenge) {
    challenge->sender()->useCredential(
        ZRBURLCredential::credentialForTrust(challenge->protectionSpace()->serverTrust()), challenge);
  }
  void note(std::string text) {
    std::lock_guard lock(mutex_);
    notes_.push_back(std::move(text));
  }
  void end(ZRBErrorPtr error) {
    std::lock_guard lock(mutex_);
    done_ = true;
    error_ = std::move(error);
    ended_.notify_all();
  }
  Handles handles_;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool done_ = false;
  ZRBErrorPtr error_;
  std::vector<std::string> notes_;
};

TEST_F(PinGuardTest, ConnectionProxyEnforcesPinsAndForwardsEverythingElse) {
  using Handles = EndingConnectionDelegate::Handles;
  const std::string wrongName = "example.org";
  struct Case {
    std::string pinnedDomain;
    std::vector<std::string> pins;
    Handles handles;
    long code;
    std::vector<std::string> notes;
  };
  const Case cases[] = {
      {"example.com", {pinOf(chain_.leaf), kForeignPins[0]}, Handles::WillSend, 0, {}},
      {"example.com", kForeignPins, Handles::WillSend, ZRBURLErrorUserCancelledAuthentication, {}},
      // Not pinned: the delegate's own way of answering, else default handling.
      {wrongName, kForeignPins, Handles::WillSend, 0, {"will send"}},
      {wrongName, kForeignPins, Handles::OlderPair, 0, {"can authenticate", "did receive"}},
      {wrongName, kForeignPins, Handles::Nothing, ZRBURLErrorServerCertificateUntrusted, {}},
  };
  // Connections make sessions of their own, which take no resolve entry: they reach the name
  // through a tunnelling proxy on loopback instead.
  ZRBTestConnectProxy proxy;
  ::setenv("https_proxy", proxy.url().c_str(), 1);
  int row = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(row++);
    ZRBMethodReplacement::resetAll();
    auto pinGuard = ZRB_PinGuard::initWithConfiguration(
        configurationFor(chain_, {.pins = c.pins, .domain = c.pinnedDomain}));
    ZRB_PGDNSURLConnectionDelegateProxy::swizzleNSURLConnectionConstructors(pinGuard);
    auto delegate = std::make_shared<EndingConnectionDelegate>(c.handles);
    auto connection = ZRBURLConnection::initWithRequest(request(), delegate, false);
    connection->setDelegateQueue(ZRBDispatchQueue::serial("connection"));
    connection->start();
    auto error = delegate->wait();
    EXPECT_EQ(error ? error->code() : 0, c.code) << (error ? error->description() : "");
    EXPECT_EQ(delegate->notes(), c.notes);
  }
  ::unsetenv("https_proxy");
  EXPECT_EQ(proxy.tunnelCount(), int(std::size(cases)));
}

TEST_F(PinGuardTest, ClassOperationsOfConnectionsWarnThatTheyCannotBePinned) {
  LogLines log;
  auto pinGuard = ZRB_PinGuard::initWithConfiguration(configurationFor(chain_, {.pins = kForeignPins}));
  ZRB_PGDNSURLConnectionDelegateProxy::swizzleNSURLConnectionConstructors(pinGuard);
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
