// The transport benchmark's third side: the GETs of transport_curl.cpp's json-requests case made
// through ZRBHS_HTTPSessionManager, the way the rest of the library makes them: GET with the JSON
// response serializer decoding each body, and completions on a serial completion queue, from which
// the next GET starts. Server trust over HTTPS is judged by the session-level challenge hook against
// the benchmark's own CA.
//
// The request carries the request serializer's default fields (Accept-Language, User-Agent), as
// every request of the manager does. "transport_manager header-lines" prints them in libcurl's
// notation, for the baseline to send the same (run.sh compares the requests' lengths).
// BENCH_RESOLVE ("HOST:PORT:ADDRESS") lets a name reach the server, as for the agent.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

#include "http/http_session_manager.h"
#include "measure.h"
#include "platform/security/sec_certificate.h"
#include "platform/security/sec_trust.h"

using transport_bench::Options;
using transport_bench::Stopwatch;

namespace {

ZRBSecCertificatePtr readAnchor(const Options& options) {
  if (!options.caFile) return nullptr;
  std::ifstream file(*options.caFile);
  std::stringstream pem;
  pem << file.rdbuf();
  ZRBSecCertificatePtr anchor = ZRBSecCertificate::createWithPEM(pem.str());
  if (!anchor) transport_bench::fail(*options.caFile + ": no certificate");
  return anchor;
}

class Run {
 public:
  Run(const Options& options, ZRBHS_HTTPSessionManagerPtr manager)
      : options_(options), manager_(std::move(manager)) {}

  // On the completion queue, like every later start.
  void start() {
    ++started_;
    manager_->GET(
        options_.url, ZRBValue(),
        [this](const ZRBURLSessionDataTaskPtr& task, const ZRBValue& object) {
          if (!object.isDictionary()) {
            finish("the body did not decode to a JSON object");
            return;
          }
          if (protocol_.empty()) {
            auto response = std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(task->response());
            if (response) protocol_ = response->HTTPVersion();
          }
          ++completed_;
          if (started_ < options_.count) {
            start();
          } else if (completed_ == options_.count) {
            finish({});
          }
        },
        [this](const ZRBURLSessionDataTaskPtr&, const ZRBErrorPtr& error) {
          finish(error ? error->description() : "failed");
        });
  }

  std::string wait() { return outcome_.wait(); }
  long completed() const { return completed_; }
  const std::string& protocol() const { return protocol_; }

 private:
  void finish(std::string failure) { outcome_.finish(std::move(failure)); }

  const Options& options_;
  ZRBHS_HTTPSessionManagerPtr manager_;
  // Completion queue only.
  long started_ = 0;
  long completed_ = 0;
  std::string protocol_;

  transport_bench::Outcome outcome_;
};

// The default header fields of a fresh request serializer, one libcurl header line each ("Name;"
// for an empty value, as the transport sends it).
void printHeaderLines() {
  const ZRBValue fields = ZRBHS_HTTPRequestSerializer::serializer()->HTTPRequestHeaders();
  for (const auto& [name, value] : fields.entries()) {
    const std::string text = value.string();
    std::printf("%s%s%s\n", name.string().c_str(), text.empty() ? ";" : ": ", text.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "header-lines") {
    printHeaderLines();
    return 0;
  }
  const Options options = transport_bench::parseOptions(argc, argv);
  if (options.mode != Options::Mode::JSONRequests && options.mode != Options::Mode::Requests)
    transport_bench::fail("transport_manager runs the request cases only");

  ZRBURLSessionConfigurationPtr configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  configuration->setHTTPMaximumConnectionsPerHost(options.concurrency);
  configuration->setHTTPShouldSetCookies(false);
  if (const char* resolve = std::getenv("BENCH_RESOLVE"); resolve && *resolve) {
    configuration->setResolveEntries({resolve});
  }
  auto manager = ZRBHS_HTTPSessionManager::initWithSessionConfiguration(configuration);
  auto completionQueue = ZRBDispatchQueue::serial("orvelkit.bench.transport.completion");
  manager->setCompletionQueue(completionQueue);

  if (ZRBSecCertificatePtr anchor = readAnchor(options)) {
    // Runs on the transport thread in the handshake: trust the benchmark's CA and nothing else.
    manager->setSessionDidReceiveAuthenticationChallengeBlock(
        [anchor](const ZRBURLSessionPtr&, const ZRBURLAuthenticationChallengePtr& challenge,
                 ZRBURLCredentialPtr* credential) {
          const ZRBURLProtectionSpacePtr& space = challenge->protectionSpace();
          if (space->authenticationMethod() != ZRBURLAuthenticationMethodServerTrust || !space->serverTrust())
            return ZRBURLSessionAuthChallengePerformDefaultHandling;
          const ZRBSecTrustPtr& trust = space->serverTrust();
          ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
          if (trust->setAnchorCertificates({anchor}) == ZRBErrSecSuccess &&
              trust->evaluate(&result) == ZRBErrSecSuccess && result == ZRBSecTrustResultUnspecified) {
            *credential = ZRBURLCredential::credentialForTrust(trust);
            return ZRBURLSessionAuthChallengeUseCredential;
          }
          std::fprintf(stderr, "server trust refused (result %u)\n", static_cast<unsigned>(result));
          return ZRBURLSessionAuthChallengeCancelAuthenticationChallenge;
        });
  }

  Run run(options, manager);
  const Stopwatch watch;
  completionQueue->async([&] {
    for (long i = 0; i < options.concurrency && i < options.count; ++i) run.start();
  });
  if (std::string failure = run.wait(); !failure.empty()) transport_bench::fail(failure);
  transport_bench::reportRequests(run.completed(), watch, run.protocol());
  manager->invalidateSessionCancelingTasks(true);
  return 0;
}
