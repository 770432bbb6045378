// Requests through the network agent against the loopback test servers: one callback on the main
// queue, the status and JSON validation rules, where arguments travel, stop and restart, accessories,
// the staging trust switch, resumable downloads, bad input, and the racing stops.
#include "request/network_agent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <functional>
#include <future>
#include <random>
#include <stdexcept>

#include "http/url_session_manager.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/url.h"
#include "platform/runtime/notification_center.h"
#include "platform/system/file_manager.h"
#include "request/network_utils.h"
#include "request_test_support.h"
#include "settings/error_domains.h"
#include "settings/sdk_config.h"
#include "settings/setting.h"
#include "support/temporary_directory.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

using namespace std::chrono_literals;
using Events = std::vector<std::string>;

const Events kSucceeded{"willStart", "willStop", "finished", "success"};
const Events kFailed{"willStart", "willStop", "failed", "failure", "didStop"};

class NetworkAgentTest : public testing::Test {
 protected:
  void SetUp() override {
    server_.start();
    ZRBSDKConfig::sharedInstance()->setLogLevel(0);
  }
  ZRBTestServer server_;
};

// Only 200 and 400 pass the status rule, failing without an error; a JSON validator that the body
// does not match (or that is no validator) fails with -9.
TEST_F(NetworkAgentTest, StatusAndJsonValidationDecideTheOneCallback) {
  const ZRBValue tag = ZRBValue::classTag(ZRBValueClass::String);
  struct Case {
    int status;
    std::string body;
    ZRBValue validator;
    bool succeeds;
    long code;  // 0: no error
  };
  const Case cases[] = {
      {200, R"({"name":"cam-1"})", ZRBValue::dictionary({{"name", tag}}), true, 0},
      {400, R"({"a":1})", {}, true, 0},
      {201, R"({"a":1})", {}, false, 0},
      {204, "", {}, false, 0},
      {404, R"({"a":1})", {}, false, 0},
      {400, R"({"items":["a",1]})", ZRBValue::dictionary({{"items", ZRBValue::array({tag})}}), false, -9},
      {200, R"({"a":1})", ZRBValue("not a validator"), false, -9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    server_.respond("GET", "/s", ZRBTestResponse::json(c.status, c.body));
    auto request = ZRBTestMakeRequest(server_.url("/s"));
    request->validator = c.validator;
    auto recorder = ZRBTestRecord(request);
    request->start();
    recorder->waitForAny({"success", "failure"});
    ZRBTestSettle();
    EXPECT_EQ(recorder->events(), c.succeeds ? kSucceeded : kFailed);
    EXPECT_EQ(recorder->offMain(), Events{"willStart"});  // on the caller's thread; the rest on main
    EXPECT_FALSE(request->successCompletionBlock());      // cleared after delivery
    EXPECT_EQ(ZRBRQ_NetworkAgent::sharedAgent()->requestCount(), 0u);
    if (c.code == 0) {
      EXPECT_EQ(request->error(), nullptr);
    } else {
      ASSERT_NE(request->error(), nullptr);
      EXPECT_EQ(request->error()->domain(), ZRBRQ_RequestValidationErrorDomain);
      EXPECT_EQ(request->error()->code(), c.code);
      EXPECT_EQ(request->error()->localizedDescription(), "Invalid JSON format");
    }
    if (c.status == 200 && c.succeeds) {
      EXPECT_EQ(request->responseJSONObject()["name"].string(), "cam-1");
      EXPECT_EQ(request->responseString(), c.body);
    }
  }
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
    auto request = ZRBTestMakeRequest(server_.url("/echo/x"));
    request->method = c.method;
    request->requestKind = c.serializer;
    request->argument = ZRBValue::dictionary({{"id", ZRBValue(7)}});
    EXPECT_EQ(ZRBTestRun(request), kSucceeded);
    const auto seen = server_.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].target, "/echo/x" + c.query);
    EXPECT_EQ(seen[0].body, c.body);
  }
  // The DELETE serializer's set is written with a lower-case "head".
  auto request = ZRBTestMakeRequest("x");
  request->method = ZRBRQ_RequestMethodDELETE;
  EXPECT_EQ(
      ZRBRQ_NetworkAgent::init()->requestSerializerForRequest(request)->HTTPMethodsEncodingParametersInURI(),
      (std::set<std::string>{"GET", "head"}));
}

TEST_F(NetworkAgentTest, StopBeforeCompletionDeliversOnlyTheAccessoryStops) {
  // The answer waits for the test, so the stop comes first however slowly this thread runs.
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  server_.handle("GET", "/held", [released](const ZRBTestRecordedRequest&) {
    released.wait_for(30s);
    return ZRBTestResponse::json(200, "{}");
  });
  auto request = ZRBTestMakeRequest(server_.url("/held"));
  auto recorder = ZRBTestRecord(request);
  auto second = std::make_shared<ZRBTestRecorder>("2:");
  request->addAccessory(second);
  request->start();
  // Posted on the main queue once the cancelled task's completion has run.
  ZRBTestEventLog completed;
  auto observer = ZRBNotificationCenter::defaultCenter()->addObserver(
      ZRBHS_NetworkingTaskDidCompleteNotification, ZRBValue(request->requestTask()), nullptr,
      [&completed](const ZRBNotificationPtr&) { completed.put("completed"); });
  request->stop();
  release.set_value();
  EXPECT_EQ(completed.waitFor("completed").size(), 1u);
  ZRBNotificationCenter::defaultCenter()->removeObserver(observer);
  ZRBTestSettle();
  EXPECT_EQ(recorder->events(), (Events{"willStart", "willStop", "didStop"}));
  EXPECT_EQ(second->events(), (Events{"2:willStart", "2:willStop", "2:didStop"}));
  EXPECT_EQ(request->delegate(), nullptr);
}

// A run's clean-up lets go of that run only, and follows callbacks that throw.
TEST_F(NetworkAgentTest, ARequestStartedAgainFromItsCallbackRunsAndReportsAgain) {
  server_.respond("GET", "/again", ZRBTestResponse::json(200, "{}"));
  auto request = ZRBTestMakeRequest(server_.url("/again"));
  ZRBTestEventLog log;
  int runs = 0;  // touched on the main queue only
  request->setCompletionBlockWithSuccess(
      [&](const ZRBRQ_BaseRequestPtr& finished) {
        log.put("success " + std::to_string(++runs));
        if (runs == 1) finished->start();  // the blocks set for the first run serve the second
        if (runs == 2) throw std::runtime_error("caller's bug");
      },
      [&](const ZRBRQ_BaseRequestPtr&) { log.put("failure"); });
  request->start();
  log.waitFor("success 2");
  ZRBTestSettle();
  EXPECT_EQ(log.events(), (Events{"success 1", "success 2"}));
  EXPECT_FALSE(request->successCompletionBlock());  // cleared after the second run
  EXPECT_FALSE(request->failureCompletionBlock());
  EXPECT_EQ(ZRBRQ_NetworkAgent::sharedAgent()->requestCount(), 0u);
  EXPECT_EQ(server_.requestCount(), 2u);
}

// Accessories are called in the order they were added; after a success, did-stop only from log
// level 3.
TEST_F(NetworkAgentTest, SuccessCallsDidStopOnlyFromLogLevelThree) {
  server_.respond("GET", "/ok", ZRBTestResponse::json(200, "{}"));
  ZRBTestEventLog order;
  struct Named : ZRBRQ_RequestAccessory {
    Named(ZRBTestEventLog& into, std::string prefix) : log(into), name(std::move(prefix)) {}
    void requestWillStart(const ZRBRQ_BaseRequestPtr&) override { log.put(name + "willStart"); }
    void requestWillStop(const ZRBRQ_BaseRequestPtr&) override { log.put(name + "willStop"); }
    void requestDidStop(const ZRBRQ_BaseRequestPtr&) override { log.put(name + "didStop"); }
    ZRBTestEventLog& log;
    std::string name;
  };
  for (unsigned long level : {2ul, 3ul}) {
    ZRBSDKConfig::sharedInstance()->setLogLevel(level);
    ZRBTestEventLog log;
    auto request = ZRBTestMakeRequest(server_.url("/ok"));
    for (const char* name : {"a:", "b:", "c:"}) request->addAccessory(std::make_shared<Named>(log, name));
    request->startWithCompletionBlockWithSuccess([&](const auto&) { log.put("success"); }, nullptr);
    log.waitFor("success");
    ZRBTestSettle();
    Events expected{"a:willStart", "b:willStart", "c:willStart", "a:willStop",
                    "b:willStop",  "c:willStop",  "success"};
    if (level >= 3) expected.insert(expected.end(), {"a:didStop", "b:didStop", "c:didStop"});
    EXPECT_EQ(log.events(), expected) << level;
  }
  ZRBSDKConfig::sharedInstance()->setLogLevel(0);
}

TEST(NetworkAgentTlsTest, StagingSwitchAcceptsAnUntrustedServer) {
  ZRBTestServer server(ZRBTestServerOptions{.tls = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256)});
  server.start();
  // Every answer closes its connection, so each request is judged in a handshake of its own.
  ZRBTestResponse closing = ZRBTestResponse::json(200, "{}");
  closing.keepAlive = false;
  server.respond("GET", "/s", closing);
  for (bool staging : {false, true}) {
    ZRBSetting::sharedSetting()->setIsRealStgEnv(staging);
    auto request = ZRBTestMakeRequest(server.url("/s"));
    // The test root is not among the system's roots: without the switch the handshake fails.
    EXPECT_EQ(ZRBTestRun(request), staging ? kSucceeded : kFailed);
  }
  ZRBSetting::sharedSetting()->setIsRealStgEnvProvider({});
}

TEST_F(NetworkAgentTest, CancelledDownloadResumesFromTheIncompleteFolder) {
  ZRBTestRangeOptions options;
  options.body = ZRBTestBodySource::pattern(512 * 1024, 3);
  options.etag = "\"v1\"";
  options.shape.bytesPerSecond = 1024 * 1024;
  options.shape.chunkSize = 16 * 1024;
  server_.serveRanges("/video.bin", options);
  const ZRBTestTemporaryDirectory directory;
  const std::string target = directory / "video.bin";

  auto first = ZRBTestMakeRequest(server_.url("/video.bin"));
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

  auto second = ZRBTestMakeRequest(server_.url("/video.bin"));
  second->setResumableDownloadPath(target);
  second->acceptPartial = true;
  EXPECT_EQ(ZRBTestRun(second), kSucceeded);
  EXPECT_TRUE(second->responseObject().objectAs<ZRBURL>() != nullptr);
  EXPECT_EQ(ZRBTestSHA256Hex(ZRBTestReadFile(target)), ZRBTestPatternSHA256(0, 512 * 1024, 3));
  const auto seen = server_.requests();
  ASSERT_GE(seen.size(), 2u);
  EXPECT_TRUE(seen.back().header("Range").has_value());
}

// Bad input ends in one failure: a server that closes mid-body, a closed port, a base URL without a
// scheme, arguments the JSON writer refuses (before anything is sent, and before will-start), and a
// download that cannot be moved into place.
TEST_F(NetworkAgentTest, BadInputEndsInOneFailure) {
  ZRBTestResponse cut = ZRBTestResponse::json(200, std::string(4096, ' '));
  cut.closeAfterBodyBytes = 100;
  server_.respond("GET", "/cut", cut);
  server_.respond("GET", "/j", ZRBTestResponse::text(200, "payload"));
  const ZRBTestTemporaryDirectory directory;
  const std::string inFile = directory.write("plain", "x") + "/file";
  struct Case {
    const char* name;
    std::function<void(ZRBTestRequest&)> set;
    std::string_view domain;  // empty: any error
    long code;
  };
  const Case cases[] = {
      {"cut", [&](auto& r) { r.url = server_.url("/cut"); }, "", 0},
      {"closed port", [](auto& r) { r.url = "http://127.0.0.1:1/x"; }, "", 0},
      {"no scheme",
       [](auto& r) {
         r.url = "/j";
         r.base = "127.0.0.1/api";
       },
       "", 0},
      {"NaN",
       [&](auto& r) {
         r.url = server_.url("/j");
         r.method = ZRBRQ_RequestMethodPOST;
         r.requestKind = ZRBRQ_RequestSerializerTypeJSON;
         r.argument = ZRBValue::dictionary({{"ratio", ZRBValue(std::nan(""))}});
       },
       ZRBCocoaErrorDomain, 0},
      {"download",
       [&](auto& r) {
         r.url = server_.url("/j");
         r.setResumableDownloadPath(inFile);
       },
       ZRBCocoaErrorDomain, ZRBFileNoSuchFileError},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto request = std::make_shared<ZRBTestRequest>();
    c.set(*request);
    Events expected = kFailed;
    if (std::string(c.name) == "NaN") expected.erase(expected.begin());
    EXPECT_EQ(ZRBTestRun(request), expected);
    ASSERT_NE(request->error(), nullptr);
    if (!c.domain.empty()) {
      EXPECT_EQ(request->error()->domain(), c.domain);
    }
    if (c.code) {
      EXPECT_EQ(request->error()->code(), c.code);
      EXPECT_EQ(request->error()->userInfo()[ZRBFilePathErrorKey].string(), inFile);
      EXPECT_FALSE(request->responseObject());
    }
  }
  EXPECT_EQ(server_.requestCount(), 2u);  // the cut body and the download
}

// Requests no task can be made for: the assertion texts, and with assertions off no callback (an
// unknown serializer kind) or one failure (a URL that does not parse).
TEST_F(NetworkAgentTest, NullRequestAndNullTaskGiveTheAssertion) {
  const auto assertion = [](const std::function<void()>& call) {
    try {
      call();
    } catch (const ZRBAssertionFailure& failure) {
      return std::string(failure.what());
    }
    return std::string("no assertion");
  };
  const std::string prefix = "Invalid parameter not satisfying: ";
  EXPECT_EQ(assertion([] { ZRBRQ_NetworkAgent::sharedAgent()->addRequest(nullptr); }),
            prefix + "request != nil");
  auto unknown = ZRBTestMakeRequest(server_.url("/x"));
  unknown->method = 9;
  EXPECT_EQ(assertion([&] { unknown->start(); }), prefix + "requestTask should not be nil");
  EXPECT_EQ(assertion([&] { ZRBTestMakeRequest("http://[::1/x")->start(); }), prefix + "url");

  ZRBSetAssertionMode(ZRBAssertionMode::LogAndContinue);
  auto quiet = ZRBTestMakeRequest(server_.url("/x"));
  quiet->requestKind = 5;
  auto recorder = ZRBTestRecord(quiet);
  quiet->start();
  auto unparsable = ZRBTestMakeRequest("http://[::1/x");
  auto unparsableRecorder = ZRBTestRecord(unparsable);
  unparsable->start();
  ZRBSetAssertionMode(ZRBAssertionMode::Throw);
  unparsableRecorder->waitFor("failure");
  ZRBTestSettle();
  EXPECT_EQ(recorder->events(), Events{});
  EXPECT_EQ(quiet->requestTask(), nullptr);
  const auto events = unparsableRecorder->events();
  EXPECT_EQ(std::count(events.begin(), events.end(), "failure"), 1);
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
    std::vector<std::shared_ptr<ZRBTestRequest>> batch;
    for (int i = begin; i < begin + kBatch; ++i) {
      auto request = ZRBTestMakeRequest(server_.url("/r"));
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
    ZRBTestSettle();
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

TEST(BaseRequestTest, DefaultsAndDescription) {
  auto request = std::make_shared<ZRBRQ_BaseRequest>();
  EXPECT_EQ(request->requestTimeoutInterval(), 60.0);
  EXPECT_EQ(request->responseSerializerType(), ZRBRQ_ResponseSerializerTypeJSON);
  EXPECT_FALSE(request->statusCodeValidator());  // no response yet
  const std::string text = request->description();
  EXPECT_EQ(text.rfind("<ZRBRQ_BaseRequest: 0x", 0), 0u) << text;
  EXPECT_NE(text.find(">{ header: (null) } { URL: (null) } { method: (null) } { arguments: (null) }"),
            std::string::npos)
      << text;
}

}  // namespace
