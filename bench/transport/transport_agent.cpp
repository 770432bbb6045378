// The transport benchmark's fourth side: the json-requests case through the whole request road.
// Each GET is a ZRBRQ_BaseRequest subclass with a JSON response and a JSON validator, started on
// the main queue through the shared network agent; its success callback runs on the main queue and
// starts the next one. So the figures include URL building, a request serializer per request, the
// agent's table and lock, decoding on the processing queue, validation and the main-queue hop.
//
// Plain HTTP only for now: over HTTPS the agent judges server trust by its pin guard, whose pins
// and anchors are the program's own, so it cannot be pointed at the benchmark's throw-away CA.
#include <condition_variable>
#include <mutex>
#include <string>

#include "measure.h"
#include "platform/runtime/dispatch.h"
#include "request/base_request.h"
#include "request/network_config.h"

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

}  // namespace

int main(int argc, char** argv) {
  const Options options = transport_bench::parseOptions(argc, argv);
  if (options.mode != Options::Mode::JSONRequests)
    transport_bench::fail("transport_agent runs json-requests only");
  if (options.caFile) transport_bench::fail("transport_agent measures plain HTTP only");

  // Read once, when the agent is made.
  ZRBURLSessionConfigurationPtr configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  configuration->setHTTPMaximumConnectionsPerHost(options.concurrency);
  configuration->setHTTPShouldSetCookies(false);
  ZRBRQ_NetworkConfig::sharedConfig()->setSessionConfiguration(configuration);

  Run run(options);
  const Stopwatch watch;
  ZRBDispatch::mainQueue()->async([&] {
    for (long i = 0; i < options.concurrency && i < options.count; ++i) run.start();
  });
  if (std::string failure = run.wait(); !failure.empty()) transport_bench::fail(failure);
  transport_bench::reportRequests(run.completed(), watch, run.protocol());
  return 0;
}
