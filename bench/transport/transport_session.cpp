// The transport benchmark's library side: the work of transport_curl.cpp done through
// ZRBURLSession, the way an application would: one session, a delegate on a serial queue, data
// tasks started one after another from the completion callback, a download task whose file the
// delegate moves away, and an upload task from a file. Server trust over HTTPS is judged by the
// delegate against the benchmark's own CA.
//
// Pinned side: with BENCH_PINNING_CONFIG (a file holding a JSON pinning configuration) the shared
// pin guard is set up first, with delegate proxies, as an application's Info.plist would do it, so
// the session's server trust goes through pin validation; BENCH_RESOLVE ("HOST:PORT:ADDRESS")
// lets the pinned name reach the server. Requests runs also print handshakes=N: how many server
// trust decisions (full TLS handshakes) the run needed.
//
// See run.sh for the server and the cases; measure.h for the command line and the report.
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "measure.h"
#include "pinning/pin_guard.h"
#include "platform/foundation/json_serialization.h"
#include "platform/foundation/url.h"
#include "platform/net/url_authentication.h"
#include "platform/net/url_request.h"
#include "platform/net/url_session.h"
#include "platform/net/url_session_configuration.h"
#include "platform/net/url_session_delegate.h"
#include "platform/runtime/dispatch.h"
#include "platform/security/sec_certificate.h"
#include "platform/security/sec_trust.h"

using transport_bench::Options;
using transport_bench::Stopwatch;

namespace {

class BenchDelegate final : public ZRBURLSessionDelegate {
 public:
  BenchDelegate(const Options& options, ZRBSecCertificatePtr anchor)
      : options_(options), anchor_(std::move(anchor)) {}

  // Set before the first task starts.
  void setSession(const ZRBURLSessionPtr& session) { session_ = session; }
  void setRequest(ZRBURLRequestPtr request) { request_ = std::move(request); }

  bool respondsToOperation(ZRBURLSessionDelegateOperation operation) const override {
    switch (operation) {
      case ZRBURLSessionDelegateOperation::SessionDidReceiveChallenge:
      case ZRBURLSessionDelegateOperation::TaskDidComplete:
      case ZRBURLSessionDelegateOperation::DataTaskDidReceiveData:
      case ZRBURLSessionDelegateOperation::DownloadTaskDidFinishDownloading: return true;
      default: return false;
    }
  }

  // Runs on the transport thread in the handshake: trust the benchmark's CA and nothing else.
  void sessionDidReceiveChallenge(const ZRBURLSessionPtr&, const ZRBURLAuthenticationChallengePtr& challenge,
                                  ZRBURLSessionChallengeCompletion completion) override {
    const ZRBURLProtectionSpacePtr& space = challenge->protectionSpace();
    if (space->authenticationMethod() != ZRBURLAuthenticationMethodServerTrust || !space->serverTrust()) {
      completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
      return;
    }
    ++handshakes_;
    const ZRBSecTrustPtr& trust = space->serverTrust();
    ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
    if (anchor_ && trust->setAnchorCertificates({anchor_}) == ZRBErrSecSuccess &&
        trust->evaluate(&result) == ZRBErrSecSuccess && result == ZRBSecTrustResultUnspecified) {
      completion(ZRBURLSessionAuthChallengeUseCredential, ZRBURLCredential::credentialForTrust(trust));
    } else {
      std::fprintf(stderr, "server trust refused (result %u)\n", static_cast<unsigned>(result));
      completion(ZRBURLSessionAuthChallengeCancelAuthenticationChallenge, nullptr);
    }
  }

  void dataTaskDidReceiveData(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&,
                              const ZRBValue& data) override {
    bodyBytes_ += static_cast<long long>(data.bytes().size());
  }

  void downloadTaskDidFinishDownloading(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&,
                                        const ZRBURLPtr& location) override {
    // Moved, not copied: the session's temporary file lives in the same file system as the target.
    if (std::rename(location->path().c_str(), options_.file.c_str()) != 0) {
      failure_ = "moving the download: " + std::string(std::strerror(errno));
    }
  }

  void taskDidComplete(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr& task,
                       ZRBErrorPtr error) override {
    if (error) {
      finish(error->description());
      return;
    }
    auto response = std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(task->response());
    if (!response || response->statusCode() != 200) {
      finish("HTTP status " + std::to_string(response ? response->statusCode() : 0));
      return;
    }
    sentBytes_ = task->countOfBytesSent();
    protocol_ = response->HTTPVersion();
    ++completed_;
    if (options_.mode == Options::Mode::Requests && started_ < options_.count) {
      startDataTask();
      return;
    }
    if (options_.mode != Options::Mode::Requests || completed_ == options_.count) finish(failure_);
  }

  void startDataTask() {
    ++started_;
    session_->dataTaskWithRequest(request_)->resume();
  }

  // Blocks until the work is done; returns the failure, empty on success.
  std::string wait() { return outcome_.wait(); }

  long completed() const { return completed_; }
  long handshakes() const { return handshakes_.load(); }
  long long bodyBytes() const { return bodyBytes_; }
  long long sentBytes() const { return sentBytes_; }
  const std::string& protocol() const { return protocol_; }

 private:
  void finish(std::string failure) { outcome_.finish(std::move(failure)); }

  const Options& options_;
  ZRBSecCertificatePtr anchor_;
  ZRBURLSessionPtr session_;
  ZRBURLRequestPtr request_;
  std::atomic<long> handshakes_{0};  // challenges answered here, on the transport thread

  // Touched only on the delegate queue, which runs one callback at a time, until finish().
  long started_ = 0;
  long completed_ = 0;
  long long bodyBytes_ = 0;
  long long sentBytes_ = 0;
  std::string protocol_;
  std::string failure_;

  transport_bench::Outcome outcome_;
};

ZRBSecCertificatePtr readAnchor(const Options& options) {
  if (!options.caFile) return nullptr;
  std::ifstream file(*options.caFile);
  std::stringstream pem;
  pem << file.rdbuf();
  ZRBSecCertificatePtr anchor = ZRBSecCertificate::createWithPEM(pem.str());
  if (!anchor) transport_bench::fail(*options.caFile + ": no certificate");
  return anchor;
}

// The shared pin guard from BENCH_PINNING_CONFIG, with its proxies installed; null without it.
// Counts the validations it observes.
ZRB_PinGuardPtr setUpPinning(std::atomic<long>& validations) {
  const char* path = std::getenv("BENCH_PINNING_CONFIG");
  if (!path || !*path) return nullptr;
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  ZRBValue configuration = ZRBJSONSerialization::JSONObjectWithData(text.str(), {}, nullptr);
  if (!configuration.isDictionary()) transport_bench::fail(std::string(path) + ": no configuration");
  auto pinGuard = ZRB_PinGuard::initSharedInstanceWithConfiguration(configuration);
  if (!pinGuard->configuration()->swizzleNetworkDelegates) {
    transport_bench::fail(std::string(path) + ": PGDSwizzleNetworkDelegates must be on");
  }
  pinGuard->setPinningValidatorCallbackQueue(ZRBDispatchQueue::serial("orvelkit.bench.transport.pinning"));
  pinGuard->setPinningValidatorCallback([&validations](const auto& result, const auto&, const auto&) {
    if (result->finalTrustDecision() == PGDTrustDecisionShouldAllowConnection) ++validations;
  });
  return pinGuard;
}

long long fileSize(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) transport_bench::fail(path + ": " + std::strerror(errno));
  return info.st_size;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = transport_bench::parseOptions(argc, argv);
  std::atomic<long> validations{0};
  const ZRB_PinGuardPtr pinGuard = setUpPinning(validations);
  auto delegate = std::make_shared<BenchDelegate>(options, readAnchor(options));

  ZRBURLSessionConfigurationPtr configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  configuration->setHTTPMaximumConnectionsPerHost(options.concurrency);
  configuration->setHTTPShouldSetCookies(false);
  if (const char* resolve = std::getenv("BENCH_RESOLVE"); resolve && *resolve) {
    configuration->setResolveEntries({resolve});
  }
  ZRBURLSessionPtr session = ZRBURLSession::sessionWithConfiguration(
      configuration, delegate, ZRBDispatchQueue::serial("orvelkit.bench.transport.delegate"));
  delegate->setSession(session);

  const ZRBURLPtr url = ZRBURL::URLWithString(options.url);
  if (!url) transport_bench::fail(options.url + ": not a URL");

  switch (options.mode) {
    case Options::Mode::Requests: {
      delegate->setRequest(ZRBURLRequest::requestWithURL(url));
      const Stopwatch watch;
      // Started on the delegate queue, like every later one, so the callbacks never race the starts.
      session->delegateQueue()->async([&] {
        for (long i = 0; i < options.concurrency && i < options.count; ++i) delegate->startDataTask();
      });
      if (std::string failure = delegate->wait(); !failure.empty()) transport_bench::fail(failure);
      transport_bench::reportRequests(delegate->completed(), watch, delegate->protocol());
      long handshakes = delegate->handshakes();
      if (pinGuard) {
        // Validations reach the counter through the main queue, then the pin guard's queue.
        ZRBDispatch::mainQueue()->sync([] {});
        pinGuard->pinningValidatorCallbackQueue()->sync([] {});
        handshakes += validations.load();
      }
      std::printf("handshakes=%ld\n", handshakes);
      std::fprintf(stderr, "session: %ld requests, %lld body bytes\n", delegate->completed(),
                   delegate->bodyBytes());
      break;
    }
    case Options::Mode::JSONRequests: transport_bench::fail("json-requests is transport_manager's case");
    case Options::Mode::Download: {
      const Stopwatch watch;
      session->downloadTaskWithURL(url)->resume();
      if (std::string failure = delegate->wait(); !failure.empty()) transport_bench::fail(failure);
      transport_bench::reportTransfer(fileSize(options.file), watch, delegate->protocol());
      break;
    }
    case Options::Mode::Upload: {
      const long long size = fileSize(options.file);
      ZRBMutableURLRequestPtr request = ZRBMutableURLRequest::requestWithURL(url);
      request->setHTTPMethod("POST");
      request->setValue("application/octet-stream", "Content-Type");
      const ZRBURLPtr source = ZRBURL::fileURLWithPath(options.file);
      const Stopwatch watch;
      session->uploadTaskWithRequest(request, source)->resume();
      if (std::string failure = delegate->wait(); !failure.empty()) transport_bench::fail(failure);
      if (delegate->sentBytes() != size) {
        transport_bench::fail("sent " + std::to_string(delegate->sentBytes()) + " bytes");
      }
      transport_bench::reportTransfer(size, watch, delegate->protocol());
      break;
    }
  }
  session->invalidateAndCancel();
  return 0;
}
