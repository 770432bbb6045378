// The transport benchmark's fourth side: the json-requests case through the whole request road.
// Each GET is a ZRBRQ_BaseRequest subclass with a JSON response and a JSON validator, started on
// the main queue through the shared network agent; its success callback runs on the main queue and
// starts the next one. So the figures include URL building, a request serializer per request, the
// agent's table and lock, decoding on the processing queue, validation and the main-queue hop.
//
// Over HTTPS (a CA file given) pinning is on, set up the way the program sets it up: the settings
// name the URL's host as the one API domain and switch pinning on, so the agent's pin guard judges
// every handshake. Its pins are RSA 2048 ones, so the benchmark's CA has an RSA 2048 key: the CA's
// pin and a spare are the pins, the CA is the policies' extra anchor, and reports are off.
// BENCH_RESOLVE ("HOST:PORT:ADDRESS") lets the pinned name reach the server; the SPKI hash cache
// sits in XDG_CACHE_HOME, so it is warm from the second run on (and after the first handshake of
// every run). Such runs also print handshakes=N: the validations the pin guard allowed.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

#include "measure.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/url.h"
#include "platform/runtime/dispatch.h"
#include "platform/security/sec_certificate.h"
#include "platform/security/sec_key.h"
#include "request/base_request.h"
#include "request/network_agent.h"
#include "request/network_config.h"
#include "request/network_pin_guard.h"
#include "settings/setting.h"

using transport_bench::Options;
using transport_bench::Stopwatch;

namespace {

class SmallJSON final : public ZRBRQ_BaseRequest {
 public:
  explicit SmallJSON(const std::string& url) : url_(url) {}
  std::string requestUrl() const override { return url_; }
  ZRBValue jsonValidator() const override {
    static const ZRBValue validator =
        ZRBValue::dictionary({{"id", ZRBValue::classTag(ZRBValueClass::Number)},
                              {"name", ZRBValue::classTag(ZRBValueClass::String)},
                              {"tags", ZRBValue::array({})}});
    return validator;
  }

 private:
  const std::string& url_;
};

class Run {
 public:
  explicit Run(const Options& options) : options_(options) {}

  // On the main queue, like every later start.
  void start() {
    ++started_;
    auto request = std::make_shared<SmallJSON>(options_.url);
    request->startWithCompletionBlockWithSuccess(
        [this](const ZRBRQ_BaseRequestPtr& done) {
          if (protocol_.empty()) {
            if (auto response = done->response()) protocol_ = response->HTTPVersion();
          }
          ++completed_;
          if (started_ < options_.count) {
            start();
          } else if (completed_ == options_.count) {
            finish({});
          }
        },
        [this](const ZRBRQ_BaseRequestPtr& failed) {
          finish(failed->error() ? failed->error()->description()
                                 : "status " + std::to_string(failed->responseStatusCode()));
        });
  }

  std::string wait() { return outcome_.wait(); }
  long completed() const { return completed_; }
  const std::string& protocol() const { return protocol_; }

 private:
  void finish(std::string failure) { outcome_.finish(std::move(failure)); }

  const Options& options_;
  // Main queue only.
  long started_ = 0;
  long completed_ = 0;
  std::string protocol_;

  transport_bench::Outcome outcome_;
};

// Pins the URL's host to the CA of `caFile`, before the agent exists (it reads the settings once).
void setUpPinning(const Options& options) {
  std::ifstream file(*options.caFile);
  std::stringstream pem;
  pem << file.rdbuf();
  const ZRBSecCertificatePtr anchor = ZRBSecCertificate::createWithPEM(pem.str());
  const auto key = anchor ? anchor->copyKey() : nullptr;
  if (!key) transport_bench::fail(*options.caFile + ": no certificate");
  const ZRBURLPtr url = ZRBURL::URLWithString(options.url);
  if (!url || !url->host()) transport_bench::fail(options.url + ": no host");

  const auto& setting = ZRBSetting::sharedSetting();
  setting->setAllDomains({*url->host()});
  setting->setIsTrustDomains(true);
  setting->setIsRealStgEnv(false);
  ZRBNetworkPinGuard::setPublicKeyHashes(
      {ZRBBase64Encode(key->subjectPublicKeyInfoSHA256()), ZRBBase64Encode(std::string(32, '\0'))});
  ZRBNetworkPinGuard::setDomainPolicyAdditions(ZRBValue::dictionary({
      {"PGDAdditionalTrustAnchors", ZRBValue::array({ZRBValue(pem.str())})},
      {"PGDDisableDefaultReportUri", ZRBValue(true)},
  }));
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = transport_bench::parseOptions(argc, argv);
  if (options.mode != Options::Mode::JSONRequests)
    transport_bench::fail("transport_agent runs json-requests only");
  if (options.caFile) setUpPinning(options);

  // Read once, when the agent is made.
  ZRBURLSessionConfigurationPtr configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  configuration->setHTTPMaximumConnectionsPerHost(options.concurrency);
  configuration->setHTTPShouldSetCookies(false);
  if (const char* resolve = std::getenv("BENCH_RESOLVE"); resolve && *resolve) {
    configuration->setResolveEntries({resolve});
  }
  ZRBRQ_NetworkConfig::sharedConfig()->setSessionConfiguration(configuration);

  std::atomic<long> handshakes{0};
  if (options.caFile) {
    const ZRB_PinGuardPtr pinGuard = ZRBRQ_NetworkAgent::sharedAgent()->pinGuard();
    if (!pinGuard) transport_bench::fail("the agent has no pin guard");
    pinGuard->setPinningValidatorCallbackQueue(ZRBDispatchQueue::serial("orvelkit.bench.transport.pinning"));
    pinGuard->setPinningValidatorCallback([&handshakes](const auto& result, const auto&, const auto&) {
      if (result->finalTrustDecision() == PGDTrustDecisionShouldAllowConnection) ++handshakes;
    });
  }

  Run run(options);
  const Stopwatch watch;
  ZRBDispatch::mainQueue()->async([&] {
    for (long i = 0; i < options.concurrency && i < options.count; ++i) run.start();
  });
  if (std::string failure = run.wait(); !failure.empty()) transport_bench::fail(failure);
  transport_bench::reportRequests(run.completed(), watch, run.protocol());
  if (options.caFile) {
    // Observer calls still queued have run once a call queued after them has.
    ZRBRQ_NetworkAgent::sharedAgent()->pinGuard()->pinningValidatorCallbackQueue()->sync([] {});
    std::printf("handshakes=%ld\n", handshakes.load());
  }
  return 0;
}
