// Requests through the network agent against the loopback test servers: one callback on the main
// queue, the status and JSON validation rules, where arguments travel, URL building, stop and
// cancel, accessories, the staging trust switch, resumable downloads and bad input.
#include "request/network_agent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <random>
#include <thread>

#include "http/url_session_manager.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/url.h"
#include "platform/net/url_request.h"
#include "platform/runtime/dispatch.h"
#include "platform/runtime/notification_center.h"
#include "platform/system/file_manager.h"
#include "request/base_request.h"
#include "request/network_config.h"
#include "request/network_utils.h"
#include "settings/error_domains.h"
#include "settings/sdk_config.h"
#include "settings/setting.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

using namespace std::chrono_literals;

// A request described by plain fields, as a caller's subclass would describe it by overrides.
class TestRequest : public ZRBRQ_BaseRequest {
 public:
  std::string url;
  std::string base;
  std::string cdn;
  bool cdnOn = false;
  long method = ZRBRQ_RequestMethodGET;
  long requestKind = ZRBRQ_RequestSerializerTypeHTTP;
  ZRBRQ_ResponseSerializerType responseKind = ZRBRQ_ResponseSerializerTypeJSON;
  ZRBValue argument;
  ZRBValue validator;
  bool acceptPartial = false;  // a resumed download answers 206, which the default rule rejects

  bool statusCodeValidator() const override {
    return (acceptPartial && responseStatusCode() == 206) || ZRBRQ_BaseRequest::statusCodeValidator();
  }
  std::string requestUrl() const override { return url; }
  std::string baseUrl() const override { return base; }
  std::string cdnUrl() const override { return cdn; }
  bool useCDN() const override { return cdnOn; }
  ZRBRQ_RequestMethod requestMethod() const override { return static_cast<ZRBRQ_RequestMethod>(method); }
  ZRBRQ_RequestSerializerType requestSerializerType() const override {
    return static_cast<ZRBRQ_RequestSerializerType>(requestKind);
  }
  ZRBRQ_ResponseSerializerType responseSerializerType() const override { return responseKind; }
  ZRBValue requestArgument() const override { return argument; }
  ZRBValue jsonValidator() const override { return validator; }
  std::string className() const override { return "TestRequest"; }
};

// Everything that reaches a request, in order, with whether it ran on the main queue.
class Recorder : public ZRBRQ_RequestDelegate, public ZRBRQ_RequestAccessory {
 public:
  explicit Recorder(std::string name = "") : name_(std::move(name)) {}
  void requestFinished(const ZRBRQ_BaseRequestPtr&) override { put("finished"); }
  void requestFailed(const ZRBRQ_BaseRequestPtr&) override { put("failed"); }
  void requestWillStart(const ZRBRQ_BaseRequestPtr&) override { put(name_ + "willStart"); }
  void requestWillStop(const ZRBRQ_BaseRequestPtr&) override { put(name_ + "willStop"); }
  void requestDidStop(const ZRBRQ_BaseRequestPtr&) override { put(name_ + "didStop"); }

  void put(const std::string& event) {
    std::lock_guard lock(mutex_);
    events_.push_back(event);
    if (!ZRBDispatch::isMainQueue()) offMain_.push_back(event);
    changed_.notify_all();
  }
  // Waits until `event` has arrived; returns every event so far.
  std::vector<std::string> waitFor(const std::string& event) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 30s,
                      [&] { return std::find(events_.begin(), events_.end(), event) != events_.end(); });
    return events_;
  }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::vector<std::string> offMain() {
    std::lock_guard lock(mutex_);
    return offMain_;
  }

 private:
  std::string name_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
  std::vector<std::string> offMain_;
};

// Wires the request's delegate, callbacks and one accessory to a recorder.
std::shared_ptr<Recorder> record(const std::shared_ptr<TestRequest>& request) {
  auto recorder = std::make_shared<Recorder>();
  request->setDelegate(recorder);
  request->addAccessory(recorder);
  request->setCompletionBlockWithSuccess(
      [recorder](const ZRBRQ_BaseRequestPtr&) { recorder->put("success"); },
      [recorder](const ZRBRQ_BaseRequestPtr&) { recorder->put("failure"); });
  return recorder;
}

// Waits until the agent has let go of every request, then until the main queue is idle.
void settle() {
  const auto& agent = ZRBRQ_NetworkAgent::sharedAgent();
  for (int i = 0; i < 3000 && agent->requestCount() != 0; ++i) std::this_thread::sleep_for(10ms);
  ZRBDispatch::mainQueue()->sync([] {});
}

std::shared_ptr<TestRequest> makeRequest(const std::string& url) {
  auto request = std::make_shared<TestRequest>();
  request->url = url;
  return request;
}

class NetworkAgentTest : public testing::Test {
 protected:
  void SetUp() override {
    server_.start();
    ZRBSDKConfig::sharedInstance()->setLogLevel(0);
  }
  ZRBTestServer server_;
};

TEST_F(NetworkAgentTest, SubclassedRequestReachesOneSuccessOnTheMainQueue) {
  server_.respond("GET", "/status", ZRBTestResponse::json(200, R"({"online":true,"name":"cam-1"})"));
  auto request = makeRequest(server_.url("/status"));
  request->validator = ZRBValue::dictionary({{"online", ZRBValue::classTag(ZRBValueClass::Bool)},
                                             {"name", ZRBValue::classTag(ZRBValueClass::String)}});
  auto recorder = record(request);
  EXPECT_FALSE(request->isExecuting());
  EXPECT_FALSE(request->isCancelled());
  request->start();
  recorder->waitFor("success");
  settle();

  EXPECT_EQ(recorder->events(), (std::vector<std::string>{"willStart", "willStop", "finished", "success"}));
  EXPECT_EQ(recorder->offMain(), std::vector<std::string>{"willStart"});  // on the caller's thread
  EXPECT_EQ(request->responseStatusCode(), 200);
  EXPECT_EQ(request->responseJSONObject()["name"].string(), "cam-1");
  EXPECT_EQ(request->responseString(), R"({"online":true,"name":"cam-1"})");
  EXPECT_EQ(request->error(), nullptr);
  EXPECT_FALSE(request->successCompletionBlock());  // cleared after delivery
  EXPECT_EQ(ZRBRQ_NetworkAgent::sharedAgent()->requestCount(), 0u);
}

TEST_F(NetworkAgentTest, OnlyTwoHundredAndFourHundredPassTheStatusRule) {
  struct Case {
    int status;
    bool succeeds;
  };
  for (const Case& c : {Case{200, true}, Case{400, true}, Case{201, false}, Case{204, false},
                        Case{500, false}, Case{404, false}}) {
    const std::string path = "/status/" + std::to_string(c.status);
    server_.respond("GET", path, ZRBTestResponse::json(c.status, c.status == 204 ? "" : R"({"a":1})"));
    auto request = makeRequest(server_.url(path));
    auto recorder = record(request);
    request->start();
    const auto events = recorder->waitFor(c.succeeds ? "success" : "failure");
    settle();
    SCOPED_TRACE(c.status);
    // willStart, willStop, delegate, callback, and didStop after a failure.
    EXPECT_EQ(recorder->events().size(), c.succeeds ? 4u : 5u);
    // A rejected status code fails without an error.
    if (!c.succeeds) {
      EXPECT_EQ(request->error(), nullptr);
    }
  }
}

TEST_F(NetworkAgentTest, JsonValidatorRejectionFailsWithCodeMinusNine) {
  server_.respond("GET", "/v", ZRBTestResponse::json(400, R"({"items":["a",1]})"));
  auto request = makeRequest(server_.url("/v"));
  request->validator =
      ZRBValue::dictionary({{"items", ZRBValue::array({ZRBValue::classTag(ZRBValueClass::String)})}});
  auto recorder = record(request);
  request->start();
  recorder->waitFor("failure");
  settle();
  ASSERT_NE(request->error(), nullptr);
  EXPECT_EQ(request->error()->domain(), ZRBRQ_RequestValidationErrorDomain);
  EXPECT_EQ(request->error()->code(), -9);
  EXPECT_EQ(request->error()->localizedDescription(), "Invalid JSON format");
  // didStop always follows a failure.
  EXPECT_EQ(recorder->events().back(), "didStop");
}

TEST_F(NetworkAgentTest, ArgumentsTravelInTheQueryForGetAndInTheBodyForDelete) {
  server_.echo("/echo");
  struct Case {
    long method;
    long serializer;
    std::string query;
    std::string body;
  };
  for (const Case& c : {Case{ZRBRQ_RequestMethodGET, ZRBRQ_RequestSerializerTypeHTTP, "?id=7", ""},
                        Case{ZRBRQ_RequestMethodDELETE, ZRBRQ_RequestSerializerTypeHTTP, "", "id=7"},
                        Case{ZRBRQ_RequestMethodPOST, ZRBRQ_RequestSerializerTypeJSON, "", R"({"id":7})"}}) {
    server_.clearRequests();
    auto request = makeRequest(server_.url("/echo/x"));
    request->method = c.method;
    request->requestKind = c.serializer;
    request->argument = ZRBValue::dictionary({{"id", ZRBValue(7)}});
    auto recorder = record(request);
    request->start();
    recorder->waitFor("success");
    settle();
    const auto seen = server_.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].target, "/echo/x" + c.query);
    EXPECT_EQ(seen[0].body, c.body);
  }
}

class RecordingFilter : public ZRBRQ_UrlFilterProtocol {
 public:
  std::string filterUrl(const std::string& url, const std::shared_ptr<ZRBRQ_BaseRequest>&) override {
    ++calls;
    return url + (url.find('?') == std::string::npos ? "?sig=1" : "&sig=1");
  }
  int calls = 0;
};

TEST(NetworkAgentUrlTest, BuildsUrlsFromFiltersAndBaseOrCdnUrls) {
  const auto& config = ZRBRQ_NetworkConfig::sharedConfig();
  config->setBaseUrl("http://config.example/api");
  config->setCdnUrl("http://cdn.example/c/");
  auto agent = ZRBRQ_NetworkAgent::init();
  struct Case {
    std::string url, base, cdn;
    bool useCdn;
    bool filtered;
    std::string expected;
  };
  const Case cases[] = {
      {"devices", "", "", false, false, "http://config.example/api/devices"},
      {"/devices", "", "", false, false, "http://config.example/devices"},
      {"devices", "http://own.example/v1", "", false, false, "http://own.example/v1/devices"},
      {"devices", "http://own.example/v1/", "", false, false, "http://own.example/v1/devices"},
      {"devices", "", "", true, false, "http://cdn.example/c/devices"},
      {"devices", "", "http://owncdn.example/x", true, false, "http://owncdn.example/x/devices"},
      {"https://abs.example/p?q=1", "http://own.example/", "", false, false, "https://abs.example/p?q=1"},
      {"devices", "", "", false, true, "http://config.example/api/devices?sig=1"},
      {"https://abs.example/p", "", "", false, true, "https://abs.example/p"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.url + " " + c.base + " " + c.cdn);
    auto filter = std::make_shared<RecordingFilter>();
    if (c.filtered) config->addUrlFilter(filter);
    auto request = makeRequest(c.url);
    request->base = c.base;
    request->cdn = c.cdn;
    request->cdnOn = c.useCdn;
    EXPECT_EQ(agent->buildRequestUrl(request), c.expected);
    EXPECT_EQ(filter->calls, c.filtered && c.expected.find("sig") != std::string::npos ? 1 : 0);
    config->clearUrlFilter();
  }
  config->setBaseUrl("");
  config->setCdnUrl("");
}

TEST(NetworkAgentSerializerTest, SerializerFollowsTheRequest) {
  auto agent = ZRBRQ_NetworkAgent::init();
  auto request = makeRequest("x");
  request->method = ZRBRQ_RequestMethodDELETE;
  auto serializer = agent->requestSerializerForRequest(request);
  ASSERT_NE(serializer, nullptr);
  EXPECT_EQ(serializer->HTTPMethodsEncodingParametersInURI(), (std::set<std::string>{"GET", "head"}));
  EXPECT_EQ(serializer->timeoutInterval(), 60.0);
  request->method = ZRBRQ_RequestMethodGET;
  EXPECT_TRUE(
      agent->requestSerializerForRequest(request)->HTTPMethodsEncodingParametersInURI().contains("HEAD"));
  request->requestKind = 7;
  EXPECT_EQ(agent->requestSerializerForRequest(request), nullptr);
  EXPECT_EQ(agent->allStatusCodes().count(), 500u);
}

TEST_F(NetworkAgentTest, StopBeforeCompletionDeliversOnlyTheAccessoryStops) {
  // The answer waits for the test, so the stop comes first however slowly this thread runs.
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  server_.handle("GET", "/held", [released](const ZRBTestRecordedRequest&) {
    released.wait_for(30s);
    return ZRBTestResponse::json(200, "{}");
  });
  auto request = makeRequest(server_.url("/held"));
  auto recorder = record(request);
  auto second = std::make_shared<Recorder>("2:");
  request->addAccessory(second);
  request->start();
  // Posted on the main queue once the cancelled task's completion has run.
  auto completed = std::make_shared<Recorder>();
  auto observer = ZRBNotificationCenter::defaultCenter()->addObserver(
      ZRBHS_NetworkingTaskDidCompleteNotification, ZRBValue(request->requestTask()), nullptr,
      [completed](const ZRBNotificationPtr&) { completed->put("completed"); });
  request->stop();
  release.set_value();
  EXPECT_EQ(completed->waitFor("completed").size(), 1u);
  ZRBNotificationCenter::defaultCenter()->removeObserver(observer);
  settle();
  EXPECT_EQ(recorder->events(), (std::vector<std::string>{"willStart", "willStop", "didStop"}));
  EXPECT_EQ(second->events(), (std::vector<std::string>{"2:willStart", "2:willStop", "2:didStop"}));
  EXPECT_EQ(request->delegate(), nullptr);
}

TEST_F(NetworkAgentTest, ARequestStartedAgainFromItsCallbackRunsAndReportsAgain) {
  server_.respond("GET", "/again", ZRBTestResponse::json(200, "{}"));
  auto request = makeRequest(server_.url("/again"));
  auto recorder = std::make_shared<Recorder>();
  int runs = 0;  // touched on the main queue only
  ZRBRQ_BaseRequest::CompletionBlock success = [&](const ZRBRQ_BaseRequestPtr& finished) {
    recorder->put("success " + std::to_string(++runs));
    if (runs == 1) finished->start();  // the blocks set for the first run serve the second
  };
  request->setCompletionBlockWithSuccess(success,
                                         [&](const ZRBRQ_BaseRequestPtr&) { recorder->put("failure"); });
  request->start();
  recorder->waitFor("success 2");
  settle();
  EXPECT_EQ(recorder->events(), (std::vector<std::string>{"success 1", "success 2"}));
  EXPECT_FALSE(request->successCompletionBlock());  // cleared after the second run
  EXPECT_EQ(server_.requestCount(), 2u);
}

TEST_F(NetworkAgentTest, SuccessCallsDidStopOnlyFromLogLevelThree) {
  server_.respond("GET", "/ok", ZRBTestResponse::json(200, "{}"));
  for (unsigned long level : {2ul, 3ul}) {
    ZRBSDKConfig::sharedInstance()->setLogLevel(level);
    auto request = makeRequest(server_.url("/ok"));
    auto recorder = record(request);
    auto second = std::make_shared<Recorder>("2:");
    request->addAccessory(second);
    request->start();
    recorder->waitFor("success");
    settle();
    std::vector<std::string> expected{"willStart",  "2:willStart", "willStop",
                                      "2:willStop", "finished",    "success"};
    if (level >= 3) expected.insert(expected.end(), {"didStop", "2:didStop"});
    std::vector<std::string> ours;
    for (const auto& event : expected) {
      if (event.rfind("2:", 0) != 0) ours.push_back(event);
    }
    EXPECT_EQ(recorder->events(), ours);
    EXPECT_EQ(second->events().size(), level >= 3 ? 3u : 2u);
  }
  ZRBSDKConfig::sharedInstance()->setLogLevel(0);
}

TEST(NetworkAgentTlsTest, StagingSwitchAcceptsAnUntrustedServer) {
  const ZRBTestChain& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  ZRBTestServer server(ZRBTestServerOptions{.tls = chain});
  server.start();
  // Every answer closes its connection, so each request is judged in a handshake of its own.
  ZRBTestResponse closing = ZRBTestResponse::json(200, "{}");
  closing.keepAlive = false;
  server.respond("GET", "/s", closing);
  struct Restore {
    ~Restore() { ZRBSetting::sharedSetting()->setIsRealStgEnvProvider({}); }
  } restore;
  for (bool staging : {false, true}) {
    ZRBSetting::sharedSetting()->setIsRealStgEnv(staging);
    auto request = makeRequest(server.url("/s"));
    auto recorder = record(request);
    request->start();
    recorder->waitFor(staging ? "success" : "failure");
    settle();
    SCOPED_TRACE(staging);
    // The test root is not among the system's roots: without the switch the handshake fails.
    EXPECT_EQ(request->error() != nullptr, !staging);
  }
}

TEST_F(NetworkAgentTest, CancelledDownloadResumesFromTheIncompleteFolder) {
  ZRBTestRangeOptions options;
  options.body = ZRBTestBodySource::pattern(512 * 1024, 3);
  options.etag = "\"v1\"";
  options.shape.bytesPerSecond = 1024 * 1024;
  options.shape.chunkSize = 16 * 1024;
  server_.serveRanges("/video.bin", options);
  const auto directory = ZRBTestPKI::makeTemporaryDirectory();
  const std::string target = (directory / "video.bin").string();

  auto first = makeRequest(server_.url("/video.bin"));
  first->setResumableDownloadPath(target);
  std::atomic<bool> halfway{false};
  first->setResumableDownloadProgressBlock([&](const ZRBProgressPtr& progress) {
    if (progress->completedUnitCount() > 128 * 1024) halfway = true;
  });
  first->start();
  for (int i = 0; i < 3000 && !halfway; ++i) std::this_thread::sleep_for(10ms);
  ASSERT_TRUE(halfway);
  first->stop();
  const auto partial = ZRBRQ_NetworkAgent::incompleteDownloadTempPathForDownloadPath(target);
  ASSERT_NE(partial, nullptr);
  EXPECT_EQ(partial->lastPathComponent(), ZRBRQ_NetworkUtils::md5StringFromString(target));
  for (int i = 0; i < 3000 && !std::filesystem::exists(partial->path()); ++i)
    std::this_thread::sleep_for(10ms);
  ASSERT_TRUE(std::filesystem::exists(partial->path()));

  auto second = makeRequest(server_.url("/video.bin"));
  second->setResumableDownloadPath(target);
  second->acceptPartial = true;
  auto recorder = record(second);
  second->start();
  recorder->waitFor("success");
  settle();
  EXPECT_TRUE(second->responseObject().objectAs<ZRBURL>() != nullptr)
      << second->responseObject().description() << " " << recorder->events().size() << " "
      << (second->error() ? second->error()->description() : "");
  std::ifstream in(target, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(ZRBTestSHA256Hex(bytes), ZRBTestPatternSHA256(0, 512 * 1024, 3));
  const auto seen = server_.requests();
  ASSERT_GE(seen.size(), 2u);
  EXPECT_TRUE(seen.back().header("Range").has_value());
  std::filesystem::remove_all(directory);
}

TEST_F(NetworkAgentTest, BadInputEndsInOneFailureOrTheAssertion) {
  // A server that closes mid-body, and an unknown host on loopback's closed port.
  ZRBTestResponse cut = ZRBTestResponse::json(200, std::string(4096, ' '));
  cut.closeAfterBodyBytes = 100;
  server_.respond("GET", "/cut", cut);
  for (const std::string& url : {server_.url("/cut"), std::string("http://127.0.0.1:1/x")}) {
    auto request = makeRequest(url);
    auto recorder = record(request);
    request->start();
    recorder->waitFor("failure");
    settle();
    EXPECT_NE(request->error(), nullptr);
    EXPECT_EQ(recorder->events().size(), 5u);
  }

  // A base URL without a scheme fails in the transport; a validator that is no validator rejects
  // the body.
  server_.respond("GET", "/j", ZRBTestResponse::json(200, R"({"a":1})"));
  auto noScheme = makeRequest("/j");
  noScheme->base = "127.0.0.1/api";
  auto oddValidator = makeRequest(server_.url("/j"));
  oddValidator->validator = ZRBValue("not a validator");
  for (const auto& request : {noScheme, oddValidator}) {
    auto recorder = record(request);
    request->start();
    recorder->waitFor("failure");
    settle();
    const auto events = recorder->events();
    EXPECT_EQ(events.back(), "didStop");
    EXPECT_EQ(std::count(events.begin(), events.end(), "failure"), 1);
    EXPECT_NE(request->error(), nullptr);
  }
  EXPECT_EQ(oddValidator->error()->code(), -9);

  // Null request and unknown method: the assertion texts; with assertions off, no callback.
  EXPECT_THROW(
      {
        try {
          ZRBRQ_NetworkAgent::sharedAgent()->addRequest(nullptr);
        } catch (const ZRBAssertionFailure& failure) {
          EXPECT_STREQ(failure.what(), "Invalid parameter not satisfying: request != nil");
          throw;
        }
      },
      ZRBAssertionFailure);
  auto unknown = makeRequest(server_.url("/cut"));
  unknown->method = 9;
  try {
    unknown->start();
    ADD_FAILURE() << "no assertion";
  } catch (const ZRBAssertionFailure& failure) {
    EXPECT_STREQ(failure.what(), "Invalid parameter not satisfying: requestTask should not be nil");
  }
  ZRBSetAssertionMode(ZRBAssertionMode::LogAndContinue);
  auto quiet = makeRequest(server_.url("/cut"));
  quiet->requestKind = 5;
  auto recorder = record(quiet);
  quiet->start();
  ZRBSetAssertionMode(ZRBAssertionMode::Throw);
  settle();
  EXPECT_EQ(recorder->events(), std::vector<std::string>{});
  EXPECT_EQ(quiet->requestTask(), nullptr);
}

TEST_F(NetworkAgentTest, DownloadToAnUnwritablePathFails) {
  server_.respond("GET", "/f", ZRBTestResponse::text(200, "payload"));
  const auto directory = ZRBTestPKI::makeTemporaryDirectory();
  std::ofstream(directory / "plain") << "x";
  // No such folder, and a folder that is a file: the transfer succeeds, the move into place fails.
  for (const std::string& path :
       {std::string("/proc/no-such-dir/file"), (directory / "plain" / "file").string()}) {
    SCOPED_TRACE(path);
    auto request = makeRequest(server_.url("/f"));
    request->setResumableDownloadPath(path);
    auto recorder = record(request);
    request->start();
    recorder->waitFor("failure");
    settle();
    EXPECT_EQ(recorder->events(),
              (std::vector<std::string>{"willStart", "willStop", "failed", "failure", "didStop"}));
    ASSERT_NE(request->error(), nullptr);
    EXPECT_EQ(request->error()->domain(), ZRBCocoaErrorDomain);
    EXPECT_EQ(request->error()->code(), ZRBFileNoSuchFileError);
    EXPECT_EQ(request->error()->userInfo()[ZRBFilePathErrorKey].string(), path);
    EXPECT_FALSE(request->responseObject());
    EXPECT_FALSE(std::filesystem::exists(path));
  }
  std::filesystem::remove_all(directory);
}

// Input that no URL request can be made of fails before any traffic: a JSON body that cannot be
// written through the failure path, a URL that does not parse through the serializer's assertion
// (and, with assertions off, one failure all the same).
TEST_F(NetworkAgentTest, UnusableUrlOrArgumentsFailWithoutTraffic) {
  auto unwritable = makeRequest(server_.url("/j"));
  unwritable->method = ZRBRQ_RequestMethodPOST;
  unwritable->requestKind = ZRBRQ_RequestSerializerTypeJSON;
  unwritable->argument = ZRBValue::dictionary({{"ratio", ZRBValue(std::nan(""))}});
  auto recorder = record(unwritable);
  unwritable->start();
  recorder->waitFor("failure");
  settle();
  EXPECT_EQ(recorder->events(), (std::vector<std::string>{"willStop", "failed", "failure", "didStop"}));
  ASSERT_NE(unwritable->error(), nullptr);
  EXPECT_EQ(unwritable->error()->domain(), ZRBCocoaErrorDomain);  // the JSON writer's own error

  auto unparsable = makeRequest("http://[::1/x");
  try {
    unparsable->start();
    ADD_FAILURE() << "no assertion";
  } catch (const ZRBAssertionFailure& failure) {
    EXPECT_STREQ(failure.what(), "Invalid parameter not satisfying: url");
  }
  ZRBSetAssertionMode(ZRBAssertionMode::LogAndContinue);
  auto quiet = makeRequest("http://[::1/x");
  recorder = record(quiet);
  quiet->start();
  ZRBSetAssertionMode(ZRBAssertionMode::Throw);
  recorder->waitFor("failure");
  settle();
  const auto events = recorder->events();
  EXPECT_EQ(std::count(events.begin(), events.end(), "failure"), 1);
  EXPECT_NE(quiet->error(), nullptr);
  EXPECT_EQ(server_.requestCount(), 0u);
}

// Completion, stop, cancelRequest and cancelAllRequests race; a request gets at most one callback,
// and exactly one unless it was stopped.
TEST_F(NetworkAgentTest, RacingStopsNeverGiveASecondCallback) {
  server_.respond("GET", "/r", ZRBTestResponse::json(200, R"({"a":1})"));
  constexpr int kRequests = 10000;
  constexpr int kBatch = 250;
  struct Slot {
    std::atomic<int> callbacks{0};
    std::atomic<bool> stopped{false};
  };
  // Marks requests whose will-stop came from a stop() (off the main queue).
  class StopMark : public ZRBRQ_RequestAccessory {
   public:
    explicit StopMark(Slot* slot) : slot_(slot) {}
    void requestWillStop(const ZRBRQ_BaseRequestPtr&) override {
      if (!ZRBDispatch::isMainQueue()) slot_->stopped = true;
    }

   private:
    Slot* slot_;
  };
  std::vector<Slot> slots(kRequests);
  std::mt19937 random(20);
  const auto& agent = ZRBRQ_NetworkAgent::sharedAgent();
  for (int begin = 0; begin < kRequests; begin += kBatch) {
    std::vector<std::shared_ptr<TestRequest>> batch;
    for (int i = begin; i < begin + kBatch; ++i) {
      auto request = makeRequest(server_.url("/r"));
      Slot* slot = &slots[static_cast<std::size_t>(i)];
      request->addAccessory(std::make_shared<StopMark>(slot));
      request->setCompletionBlockWithSuccess([slot](const ZRBRQ_BaseRequestPtr&) { ++slot->callbacks; },
                                             [slot](const ZRBRQ_BaseRequestPtr&) { ++slot->callbacks; });
      request->start();
      batch.push_back(request);
    }
    for (auto& request : batch) {
      const unsigned roll = random() % 8;
      if (roll == 0) request->stop();
      if (roll == 1) {
        request->toggleAccessoriesWillStopCallBack();  // cancelRequest alone: marked as stopped too
        agent->cancelRequest(request);
      }
    }
    if (random() % 4 == 0) agent->cancelAllRequests();
    settle();
  }
  int delivered = 0;
  for (const Slot& slot : slots) {
    ASSERT_LE(slot.callbacks.load(), 1);
    if (!slot.stopped) {
      ASSERT_EQ(slot.callbacks.load(), 1);
    }
    delivered += slot.callbacks.load();
  }
  EXPECT_GT(delivered, kRequests / 2);
}

TEST(BaseRequestTest, DefaultsDescriptionAndAccessoryOrder) {
  auto request = std::make_shared<ZRBRQ_BaseRequest>();
  EXPECT_EQ(request->requestUrl(), "");
  EXPECT_EQ(request->requestTimeoutInterval(), 60.0);
  EXPECT_EQ(request->requestMethod(), ZRBRQ_RequestMethodGET);
  EXPECT_EQ(request->responseSerializerType(), ZRBRQ_ResponseSerializerTypeJSON);
  EXPECT_EQ(request->requestPriority(), ZRBRQ_RequestPriorityDefault);
  EXPECT_TRUE(request->allowsCellularAccess());
  EXPECT_EQ(request->responseStatusCode(), 0);
  EXPECT_FALSE(request->statusCodeValidator());
  EXPECT_FALSE(request->requestAccessories().has_value());
  const std::string text = request->description();
  EXPECT_EQ(text.rfind("<ZRBRQ_BaseRequest: 0x", 0), 0u) << text;
  EXPECT_NE(text.find(">{ header: (null) } { URL: (null) } { method: (null) } { arguments: (null) }"),
            std::string::npos)
      << text;

  auto first = std::make_shared<Recorder>("a:");
  auto second = std::make_shared<Recorder>("b:");
  request->addAccessory(first);
  request->addAccessory(second);
  std::vector<std::string> order;
  struct Order : ZRBRQ_RequestAccessory {
    std::vector<std::string>* out;
    std::string name;
    void requestWillStart(const ZRBRQ_BaseRequestPtr&) override { out->push_back(name); }
  };
  for (const char* name : {"c", "d"}) {
    auto accessory = std::make_shared<Order>();
    accessory->out = &order;
    accessory->name = name;
    request->addAccessory(accessory);
  }
  request->toggleAccessoriesWillStartCallBack();
  EXPECT_EQ(order, (std::vector<std::string>{"c", "d"}));
  EXPECT_EQ(first->events(), std::vector<std::string>{"a:willStart"});
  EXPECT_EQ(request->requestAccessories()->size(), 4u);
}

}  // namespace

namespace {

// An absolute URL whose host the pinned list lacks rebuilds the pin guard from the settings'
// domains plus that host; a second unknown host replaces the first.
TEST(NetworkAgentPinningTest, UnknownAbsoluteHostsWidenThePinnedDomains) {
  auto setting = ZRBSetting::sharedSetting();
  struct Restore {
    ~Restore() {
      auto s = ZRBSetting::sharedSetting();
      s->setAllDomainsProvider(nullptr);
      s->setIsTrustDomainsProvider(nullptr);
      s->setIsRealStgEnvProvider(nullptr);
    }
  } restore;
  setting->setAllDomainsProvider([] { return std::vector<std::string>{"http://api.orvel.com/"}; });
  setting->setIsTrustDomainsProvider([] { return true; });
  setting->setIsRealStgEnv(false);

  auto agent = ZRBRQ_NetworkAgent::init();
  ASSERT_NE(agent->pinGuard(), nullptr);
  EXPECT_EQ(agent->pinGuardDomains(), std::vector<std::string>{"http://api.orvel.com/"});
  EXPECT_EQ(agent->pinGuard()->configuration()->pinnedDomains.size(), 1u);

  struct Step {
    std::string url;
    std::vector<std::string> domains;
    bool rebuilt;
  };
  const Step steps[] = {
      {"https://media.orvel.net/a", {"http://api.orvel.com/", "media.orvel.net"}, true},
      {"https://media.orvel.net/b", {"http://api.orvel.com/", "media.orvel.net"}, false},
      {"relative/path", {"http://api.orvel.com/", "media.orvel.net"}, false},
      {"https://other.cam.com/x", {"http://api.orvel.com/", "other.cam.com"}, true},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.url);
    const auto before = agent->pinGuard();
    agent->buildRequestUrl(makeRequest(step.url));
    EXPECT_EQ(agent->pinGuardDomains(), step.domains);
    EXPECT_EQ(agent->pinGuard() != before, step.rebuilt);
    EXPECT_EQ(agent->pinGuard()->configuration()->pinnedDomains.size(), 2u);
  }
}

}  // namespace
