// Batch requests against the loopback test server: one report per start, the first failure
// stopping every member, stop and an empty batch reporting nothing, the restart guard, members
// from the cache, the refused initializer and the agent holding a running batch.
#include "request/batch_request.h"

#include <gtest/gtest.h>

#include "platform/runtime/dispatch.h"
#include "request/batch_request_agent.h"
#include "request/network_agent.h"
#include "request/network_config.h"
#include "request_test_support.h"
#include "settings/sdk_config.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"

namespace {

using namespace std::chrono_literals;
using Events = std::vector<std::string>;

using Member = ZRBTestCachedRequest;

// Everything a batch tells its delegate, accessory and callbacks, in order; results must arrive on
// the main queue.
class Recorder : public ZRBTestEventLog,
                 public ZRBRQ_BatchRequestDelegate,
                 public ZRBRQ_BatchRequestAccessory {
 public:
  void batchRequestFinished(const ZRBRQ_BatchRequestPtr&) override { result("finished"); }
  void batchRequestFailed(const ZRBRQ_BatchRequestPtr&) override { result("failed"); }
  void requestWillStart(const ZRBRQ_BatchRequestPtr&) override { put("willStart"); }
  void requestWillStop(const ZRBRQ_BatchRequestPtr&) override { put("willStop"); }
  void requestDidStop(const ZRBRQ_BatchRequestPtr&) override { put("didStop"); }
  void result(const std::string& event) {
    EXPECT_TRUE(ZRBDispatch::isMainQueue()) << event;
    put(event);
  }
};

// Delegate, accessory and both callbacks of `batch` go to one recorder.
std::shared_ptr<Recorder> record(const ZRBRQ_BatchRequestPtr& batch) {
  auto recorder = std::make_shared<Recorder>();
  batch->setDelegate(recorder);
  batch->addAccessory(recorder);
  batch->setCompletionBlockWithSuccess([recorder](const auto&) { recorder->result("success"); },
                                       [recorder](const auto&) { recorder->result("failure"); });
  return recorder;
}

// Batches start from the main queue, where their members' results arrive: started from another
// thread, a failure could stop a member that is still being added and leave it running.
void start(const ZRBRQ_BatchRequestPtr& batch) {
  ZRBDispatch::mainQueue()->sync([&] { batch->start(); });
}

bool held(const ZRBRQ_BatchRequestPtr& batch) {
  const auto running = ZRBRQ_BatchRequestAgent::sharedAgent()->requestArray();
  return std::find(running.begin(), running.end(), batch) != running.end();
}

class BatchRequestTest : public testing::Test {
 protected:
  void SetUp() override {
    ZRBSDKConfig::sharedInstance()->setLogLevel(0);
    server_.start();
    server_.respondPrefix("GET", "/ok/", ZRBTestResponse::json(200, R"({"ok":true})"));
    server_.respond("GET", "/fail", ZRBTestResponse::json(500, "{}"));
    ZRBTestResponse held = ZRBTestResponse::json(200, "{}");  // never within a test
    held.delayBeforeHeaders = std::chrono::hours(1);
    server_.respond("GET", "/held", held);
  }
  void TearDown() override { ZRBTestSettle(); }
  std::shared_ptr<Member> member(const std::string& path, long cacheTime = -1) {
    auto request = ZRBTestMakeRequest<Member>(server_.url(path));
    request->cacheTime = cacheTime;
    return request;
  }
  Events takeLog() {
    const auto lines = logs_.lines("Error");  // the batch's own lines
    logs_.clear();
    return lines;
  }

  ZRBTestServer server_;
  ZRBTestLogCatcher logs_;
};

TEST_F(BatchRequestTest, InitializerTakesOnlyCachedRequests) {
  const auto request = member("/ok/1");
  const auto plain = std::make_shared<ZRBRQ_BaseRequest>();
  for (const auto& [members, accepted] :
       std::vector<std::pair<std::vector<ZRBRQ_BaseRequestPtr>, bool>>{{{}, true},
                                                                       {{request, request}, true},
                                                                       {{plain}, false},
                                                                       {{request, plain}, false},
                                                                       {{nullptr}, false}}) {
    SCOPED_TRACE(members.size());
    const auto batch = ZRBRQ_BatchRequest::initWithRequestArray(members);
    EXPECT_EQ(batch != nullptr, accepted);
    EXPECT_EQ(takeLog(), accepted ? Events{} : Events{"Error, request item must be KVRequest instance."});
    EXPECT_EQ(batch ? batch->requestArray().size() : 0, accepted ? members.size() : 0);
  }
}

TEST_F(BatchRequestTest, AllMembersSucceedingReportOnceAndTheBatchCannotStartAgain) {
  const std::vector<std::shared_ptr<Member>> members = {member("/ok/1"), member("/ok/2"), member("/ok/3")};
  std::atomic<int> memberCallbacks = 0;  // the batch discards them
  for (const auto& request : members) {
    request->setCompletionBlockWithSuccess([&](const auto&) { ++memberCallbacks; }, nullptr);
  }
  const auto batch = ZRBRQ_BatchRequest::initWithRequestArray({members[0], members[1], members[2]});
  const auto recorder = record(batch);
  start(batch);
  recorder->waitFor("didStop");
  ZRBTestSettle();
  EXPECT_EQ(recorder->events(), (Events{"willStart", "willStop", "finished", "success", "didStop"}));
  EXPECT_EQ(batch->finishedCount(), 3);
  EXPECT_EQ(batch->failedRequest(), nullptr);
  EXPECT_FALSE(batch->isDataFromCache());
  EXPECT_EQ(memberCallbacks, 0);
  EXPECT_FALSE(held(batch));

  batch->setCompletionBlockWithSuccess([&](const auto&) { recorder->result("success"); }, nullptr);
  start(batch);
  ZRBTestSettle();
  EXPECT_EQ(takeLog(), Events{"Error! Batch request has already started."});
  EXPECT_EQ(server_.requestCount(), 3u);
  EXPECT_EQ(recorder->events().size(), 5u);
}

TEST_F(BatchRequestTest, SecondMemberFailingStopsEveryMemberAndReportsOnce) {
  const std::vector<std::shared_ptr<Member>> members = {member("/ok/1"), member("/fail"), member("/held")};
  const auto batch = ZRBRQ_BatchRequest::initWithRequestArray({members[0], members[1], members[2]});
  const auto recorder = record(batch);
  start(batch);
  recorder->waitFor("didStop");
  ZRBTestSettle();
  EXPECT_EQ(batch->failedRequest(), members[1]);
  EXPECT_EQ(recorder->events(), (Events{"willStart", "willStop", "failed", "failure", "didStop"}));
  for (const auto& request : members) EXPECT_EQ(request->delegate(), nullptr);  // stopped
  EXPECT_FALSE(held(batch));

  // No member succeeded in a batch that fails at once, so it may run again.
  const auto again = ZRBRQ_BatchRequest::initWithRequestArray({member("/fail")});
  const auto againHeard = record(again);
  start(again);
  againHeard->waitFor("didStop");
  ZRBTestSettle();
  start(again);
  ZRBTestSettle();
  const auto events = againHeard->events();
  EXPECT_EQ(std::count(events.begin(), events.end(), "failed"), 2);  // the delegate outlives the callbacks
  EXPECT_EQ(takeLog(), Events{});
}

TEST_F(BatchRequestTest, StopAndAnEmptyBatchReportNothing) {
  const auto running = ZRBRQ_BatchRequest::initWithRequestArray({member("/held"), member("/held")});
  const auto empty = ZRBRQ_BatchRequest::initWithRequestArray({});
  const auto runningHeard = record(running);
  const auto emptyHeard = record(empty);
  start(running);
  start(empty);
  for (const auto& request : running->requestArray()) EXPECT_TRUE(request->isExecuting());
  running->stop();
  ZRBTestSettle();
  EXPECT_EQ(runningHeard->events(), (Events{"willStart", "willStop", "didStop"}));
  EXPECT_FALSE(held(running));
  EXPECT_EQ(running->successCompletionBlock(), nullptr);
  // Never reports, and stays with the agent until stopped.
  EXPECT_EQ(emptyHeard->events(), Events{"willStart"});
  EXPECT_TRUE(held(empty));
  EXPECT_TRUE(empty->isDataFromCache());
  empty->stop();
  EXPECT_FALSE(held(empty));
}

TEST_F(BatchRequestTest, MembersFromTheCacheMakeTheBatchCached) {
  struct Into : ZRBRQ_CacheDirPathFilterProtocol {
    ZRBTestTemporaryDirectory directory;
    std::string filterCacheDirPath(const std::string&, const ZRBRQ_BaseRequestPtr&) override {
      return directory.path.string();
    }
  };
  const auto directory = std::make_shared<Into>();
  ZRBRQ_NetworkConfig::sharedConfig()->addCacheDirPathFilter(directory);
  const auto cached = [](const std::vector<ZRBRQ_BaseRequestPtr>& members) {
    const auto batch = ZRBRQ_BatchRequest::initWithRequestArray(members);
    const auto recorder = record(batch);
    start(batch);
    recorder->waitFor("success");
    return batch->isDataFromCache();
  };
  EXPECT_FALSE(cached({member("/ok/cached", 600)}));  // fills the cache
  EXPECT_TRUE(cached({member("/ok/cached", 600), member("/ok/cached", 600)}));
  EXPECT_FALSE(cached({member("/ok/cached", 600), member("/ok/fresh")}));
  ZRBRQ_NetworkConfig::sharedConfig()->clearCacheDirPathFilter();
}

TEST_F(BatchRequestTest, TheAgentKeepsARunningBatchAndItsEndStopsTheMembers) {
  const auto request = member("/ok/1");
  std::weak_ptr<ZRBRQ_BatchRequest> weak;
  std::shared_ptr<Recorder> recorder;
  {
    const auto batch = ZRBRQ_BatchRequest::initWithRequestArray({request});
    weak = batch;
    recorder = record(batch);
    start(batch);
  }
  recorder->waitFor("didStop");
  ZRBTestSettle();
  EXPECT_EQ(recorder->events(), (Events{"willStart", "willStop", "finished", "success", "didStop"}));
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(request->delegate(), nullptr);  // stopped when the batch went
}

}  // namespace
