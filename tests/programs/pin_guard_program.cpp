// A program that knows nothing of pinning: it loads a URL once through a URL session and once
// through a URL connection, with delegates of its own that answer no challenge. Whatever pinning
// happens comes from the "PGDConfiguration" of its Info.plist (ORVELKIT_INFO_PLIST), applied when
// the library is loaded.
//
// Prints "shared: yes|no", then "session: ok|error CODE" and "connection: ok|error CODE". Before
// it ends it waits until failure reports, if any, have been sent.
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>

#include "pinning/pin_guard.h"
#include "platform/net/url_connection.h"
#include "platform/net/url_session.h"

namespace {

using Outcome = std::shared_ptr<std::promise<ZRBErrorPtr>>;

class SessionDelegate final : public ZRBURLSessionDelegate {
 public:
  explicit SessionDelegate(Outcome outcome) : outcome_(std::move(outcome)) {}
  void taskDidComplete(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, ZRBErrorPtr error) override {
    outcome_->set_value(std::move(error));
  }
  std::string className() const override { return "ProgramSessionDelegate"; }

 private:
  Outcome outcome_;
};

class ConnectionDelegate final : public ZRBURLConnectionDelegate {
 public:
  explicit ConnectionDelegate(Outcome outcome) : outcome_(std::move(outcome)) {}
  void connectionDidFinishLoading(const ZRBURLConnectionPtr&) override { outcome_->set_value(nullptr); }
  void connectionDidFailWithError(const ZRBURLConnectionPtr&, const ZRBErrorPtr& error) override {
    outcome_->set_value(error);
  }
  std::string className() const override { return "ProgramConnectionDelegate"; }

 private:
  Outcome outcome_;
};

void print(const char* what, const Outcome& outcome) {
  auto result = outcome->get_future();
  if (result.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    std::printf("%s: no answer\n", what);
    return;
  }
  ZRBErrorPtr error = result.get();
  if (error) {
    std::printf("%s: error %ld\n", what, error->code());
  } else {
    std::printf("%s: ok\n", what);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s URL\n", argv[0]);
    return 2;
  }
  auto pinGuard = ZRB_PinGuard::sharedInstance();
  std::printf("shared: %s\n", pinGuard ? "yes" : "no");
  auto request = ZRBURLRequest::requestWithURL(ZRBURL::URLWithString(argv[1]));

  auto sessionOutcome = std::make_shared<std::promise<ZRBErrorPtr>>();
  auto session = ZRBURLSession::sessionWithConfiguration(
      nullptr, std::make_shared<SessionDelegate>(sessionOutcome), nullptr);
  session->dataTaskWithRequest(request)->resume();
  print("session", sessionOutcome);
  session->invalidateAndCancel();

  auto connectionOutcome = std::make_shared<std::promise<ZRBErrorPtr>>();
  auto connection =
      ZRBURLConnection::initWithRequest(request, std::make_shared<ConnectionDelegate>(connectionOutcome));
  print("connection", connectionOutcome);

  if (pinGuard) {
    // The validator tells the pin guard on the main queue, which hands reports to its queue.
    ZRBDispatch::mainQueue()->sync([] {});
    pinGuard->pinFailureReporterQueue()->sync([] {});
    pinGuard->pinFailureReporter()->waitForUploads(std::chrono::seconds(10));
  }
  return 0;
}
