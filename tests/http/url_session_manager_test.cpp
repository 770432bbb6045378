// Session managers against the loopback test server: where completions and decoding run, what the
// completion notification carries, hooks against built-in behaviour, downloads, the resume and
// suspend observation, invalidation, and resources given back.
#include "http/url_session_manager.h"

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "http/http_session_manager.h"
#include "http/json_response_serializer.h"
#include "http/response_serializer.h"
#include "http/url_session_task_swizzling.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/exception.h"
#include "platform/foundation/string_format.h"
#include "platform/runtime/notification_center.h"
#include "support/inbox.h"
#include "support/raises.h"
#include "support/recording_delegate.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"

namespace {

using namespace std::chrono_literals;

template <typename T>
using Inbox = ZRBTestInbox<T>;

struct Outcome {
  ZRBURLResponsePtr response;
  ZRBValue object;
  ZRBErrorPtr error;
  std::string queue;  // where the completion ran
};

// Records the queue it decodes on, once per call.
class RecordingSerializer final : public ZRBHS_JSONResponseSerializer {
 public:
  ZRBValue responseObjectForResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                     ZRBErrorPtr* error) override {
    queues.put(ZRBDispatch::currentQueueLabel());
    return ZRBHS_JSONResponseSerializer::responseObjectForResponse(response, data, error);
  }
  ZRBTestInbox<std::string> queues;
};

// Observes one notification name for the life of the object.
class NotificationInbox : public Inbox<ZRBNotificationPtr> {
 public:
  explicit NotificationInbox(std::string_view name) {
    observer_ = ZRBNotificationCenter::defaultCenter()->addObserver(
        name, ZRBValue(), nullptr, [this](const ZRBNotificationPtr& notification) { put(notification); });
  }
  ~NotificationInbox() { ZRBNotificationCenter::defaultCenter()->removeObserver(observer_); }

 private:
  ZRBNotificationObserverPtr observer_;
};

std::set<std::string> keysOf(const ZRBValue& dictionary) {
  std::set<std::string> keys;
  for (const auto& entry : dictionary.entries()) keys.insert(entry.first.string());
  return keys;
}

class URLSessionManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.start();
    server_.respond("GET", "/json", ZRBTestResponse::json(200, R"({"answer":42})"));
    manager_ = ZRBHS_URLSessionManager::initWithSessionConfiguration(
        ZRBURLSessionConfiguration::ephemeralSessionConfiguration());
    serializer_ = std::make_shared<RecordingSerializer>();
    manager_->setResponseSerializer(serializer_);
    completionQueue_ = ZRBDispatchQueue::serial("test.completion");
    manager_->setCompletionQueue(completionQueue_);
  }
  void TearDown() override {
    NotificationInbox invalidated(ZRBHS_URLSessionDidInvalidateNotification);
    manager_->invalidateSessionCancelingTasks(true);
    EXPECT_EQ(invalidated.wait(1).size(), 1u);
  }

  ZRBHS_TaskCompletionHandler record(Inbox<Outcome>& inbox) {
    return [&inbox](ZRBURLResponsePtr response, ZRBValue object, ZRBErrorPtr error) {
      inbox.put({std::move(response), std::move(object), std::move(error), ZRBDispatch::currentQueueLabel()});
    };
  }

  ZRBTestServer server_;
  ZRBHS_URLSessionManagerPtr manager_;
  std::shared_ptr<RecordingSerializer> serializer_;
  ZRBDispatchQueuePtr completionQueue_;
};

TEST_F(URLSessionManagerTest, DecodesOffTheDelegateQueueAndCompletesOnceOnTheCompletionQueue) {
  NotificationInbox completed(ZRBHS_NetworkingTaskDidCompleteNotification);
  Inbox<Outcome> outcomes;
  auto task = manager_->dataTaskWithRequest(requestFor(server_.url("/json")), record(outcomes));
  ASSERT_TRUE(task);
  EXPECT_EQ(task->taskDescription(), manager_->taskDescriptionForSessionTasks());
  task->resume();
  auto results = outcomes.wait(1);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].error, nullptr);
  EXPECT_EQ(results[0].object["answer"].intValue(), 42);
  EXPECT_EQ(results[0].queue, "test.completion");
  EXPECT_EQ(serializer_->queues.now(),
            (std::vector<std::string>{"com.brontide.zrb_networking.session.manager.processing"}));
  auto notifications = completed.wait(1);
  ASSERT_EQ(notifications.size(), 1u);
  EXPECT_EQ(notifications[0]->objectAs<ZRBURLSessionTask>(), task);
  const ZRBValue& info = notifications[0]->userInfo();
  EXPECT_EQ(keysOf(info), (std::set<std::string>{ZRBHS_NetworkingTaskDidCompleteResponseSerializerKey,
                                                 ZRBHS_NetworkingTaskDidCompleteResponseDataKey,
                                                 ZRBHS_NetworkingTaskDidCompleteSerializedResponseKey}));
  EXPECT_EQ(info[ZRBHS_NetworkingTaskDidCompleteResponseDataKey], ZRBValue::data(R"({"answer":42})"));
  EXPECT_EQ(info[ZRBHS_NetworkingTaskDidCompleteResponseSerializerKey].object(), serializer_);
  // The delegate went with the task: nothing is left to report progress for. It goes on the
  // delegate queue right after handing the completion on, which may finish first.
  manager_->operationQueue()->sync([] {});
  EXPECT_EQ(manager_->uploadProgressForTask(task), nullptr);
  ZRBDispatch::mainQueue()->sync([] {});
  EXPECT_EQ(outcomes.now().size(), 1u);
}

// A transport error never reaches the serializer; a decoding error comes from it. Either way the
// completion has the error, and the notification carries it with the bytes that came.
TEST_F(URLSessionManagerTest, ErrorsReachTheCompletionAndTheNotification) {
  ZRBTestResponse cut = ZRBTestResponse::generated(100000);
  cut.closeAfterBodyBytes = 5000;
  server_.respond("GET", "/cut", cut);
  server_.respond("GET", "/broken", ZRBTestResponse::json(200, "{not json"));
  for (const auto& [path, decoded] : {std::pair("/cut", false), std::pair("/broken", true)}) {
    SCOPED_TRACE(path);
    const std::size_t callsBefore = serializer_->queues.now().size();
    NotificationInbox completed(ZRBHS_NetworkingTaskDidCompleteNotification);
    Inbox<Outcome> outcomes;
    manager_->dataTaskWithRequest(requestFor(server_.url(path)), record(outcomes))->resume();
    auto results = outcomes.wait(1);
    ASSERT_EQ(results.size(), 1u);
    ASSERT_NE(results[0].error, nullptr);
    EXPECT_TRUE(results[0].object.isAbsent());
    EXPECT_EQ(serializer_->queues.now().size() - callsBefore, decoded ? 1u : 0u);
    auto notifications = completed.wait(1);
    ASSERT_EQ(notifications.size(), 1u);
    const ZRBValue& info = notifications[0]->userInfo();
    EXPECT_EQ(info[ZRBHS_NetworkingTaskDidCompleteErrorKey].object().get(), results[0].error.get());
    EXPECT_FALSE(keysOf(info).count(ZRBHS_NetworkingTaskDidCompleteSerializedResponseKey));
    EXPECT_TRUE(keysOf(info).count(ZRBHS_NetworkingTaskDidCompleteResponseDataKey));
  }
}

TEST_F(URLSessionManagerTest, DownloadsCompleteWithTheirDestination) {
  server_.respond("GET", "/file", ZRBTestResponse::text(200, "file body"));
  ZRBTestTemporaryDirectory directory;
  struct Case {
    const char* name;
    std::string destination;  // empty: the destination callback answers null
    bool moves;
    bool managerHook;  // the manager-wide hook names the destination, and the task's is never asked
  };
  const Case cases[] = {
      {"with destination", directory / "kept.txt", true, false},
      {"without destination", {}, false, false},
      {"destination that cannot be written", directory / "missing/kept.txt", false, false},
      {"the manager's hook wins", directory / "hook.txt", true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NotificationInbox completed(ZRBHS_NetworkingTaskDidCompleteNotification);
    NotificationInbox moveFailed(ZRBHS_URLSessionDownloadTaskDidFailToMoveFileNotification);
    Inbox<Outcome> outcomes;
    ZRBURLPtr destination = c.destination.empty() ? nullptr : ZRBURL::fileURLWithPath(c.destination);
    std::atomic<bool> taskAsked{false};
    ZRBURLPtr taskDestination = destination;
    if (c.managerHook) {
      manager_->setDownloadTaskDidFinishDownloadingBlock(
          [destination](auto&, auto&, const ZRBURLPtr&) { return destination; });
      taskDestination = ZRBURL::fileURLWithPath(directory / "task.txt");
    }
    auto task = manager_->downloadTaskWithRequest(
        requestFor(server_.url("/file")), nullptr,
        [&taskAsked, taskDestination](const ZRBURLPtr&, const ZRBURLResponsePtr&) {
          taskAsked = true;
          return taskDestination;
        },
        record(outcomes));
    task->resume();
    auto results = outcomes.wait(1);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].error, nullptr);
    EXPECT_EQ(taskAsked.load(), !c.managerHook);
    auto notifications = completed.wait(1);
    ASSERT_EQ(notifications.size(), 1u);
    // A failed move still completes with the destination.
    EXPECT_EQ(results[0].object.objectAs<ZRBURL>(), destination);
    EXPECT_EQ(keysOf(notifications[0]->userInfo()).count(ZRBHS_NetworkingTaskDidCompleteAssetPathKey),
              destination ? 1u : 0u);
    EXPECT_EQ(ZRBTestReadFile(c.destination), c.moves ? "file body" : "");
    EXPECT_EQ(moveFailed.now().size(), destination && !c.moves ? 1u : 0u);
    if (!moveFailed.now().empty()) {
      EXPECT_EQ(moveFailed.now()[0]->objectAs<ZRBURLSessionTask>(), task);
    }
  }
}

// The four optional callbacks go unanswered without their hooks, so the session does what the
// platform does (a redirect is followed); a hook answers in their place and replaces that.
TEST_F(URLSessionManagerTest, HooksReplaceBuiltInBehaviour) {
  using Op = ZRBURLSessionDelegateOperation;
  const Op optional[] = {Op::TaskWillPerformHTTPRedirection, Op::DataTaskDidReceiveResponse,
                         Op::DataTaskWillCacheResponse, Op::SessionDidFinishEventsForBackgroundURLSession};
  for (Op op : optional) EXPECT_FALSE(manager_->respondsToOperation(op)) << int(op);
  EXPECT_TRUE(manager_->respondsToOperation(Op::TaskNeedNewBodyStream));
  EXPECT_TRUE(manager_->respondsToOperation(Op::SessionDidReceiveChallenge));
  server_.redirect("/moved", "/json");
  Inbox<Outcome> followed;
  manager_->dataTaskWithRequest(requestFor(server_.url("/moved")), record(followed))->resume();
  ASSERT_EQ(followed.wait(1).size(), 1u);
  EXPECT_EQ(followed.now()[0].object["answer"].intValue(), 42);

  // The redirection hook's null answer stops at the 302.
  std::atomic<int> asked{0};
  manager_->setTaskWillPerformHTTPRedirectionBlock([&](auto&, auto&, auto&, auto&) -> ZRBURLRequestPtr {
    ++asked;
    return nullptr;
  });
  Inbox<Outcome> stopped;
  manager_->dataTaskWithRequest(requestFor(server_.url("/moved")), record(stopped))->resume();
  ASSERT_EQ(stopped.wait(1).size(), 1u);
  auto response = std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(stopped.now()[0].response);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->statusCode(), 302);
  EXPECT_EQ(asked.load(), 1);

  // A response hook that cancels ends the task with the cancellation error, undecoded.
  manager_->setDataTaskDidReceiveResponseBlock(
      [](auto&, auto&, auto&) { return ZRBURLSessionResponseCancel; });
  Inbox<Outcome> cancelled;
  manager_->dataTaskWithRequest(requestFor(server_.url("/json")), record(cancelled))->resume();
  ASSERT_EQ(cancelled.wait(1).size(), 1u);
  ASSERT_TRUE(cancelled.now()[0].error);
  EXPECT_EQ(cancelled.now()[0].error->code(), -999);

  manager_->setDataTaskWillCacheResponseBlock(
      [](auto&, auto&, const ZRBCachedURLResponsePtr& r) { return r; });
  manager_->setDidFinishEventsForBackgroundURLSessionBlock([](auto&) {});
  for (Op op : optional) EXPECT_TRUE(manager_->respondsToOperation(op)) << int(op);
}

TEST_F(URLSessionManagerTest, AHookThatThrowsDoesNotTakeTheTransportDown) {
  manager_->setDataTaskDidReceiveDataBlock(
      [](auto&, auto&, auto&) { throw std::runtime_error("hook failed"); });
  manager_->setDataTaskDidReceiveResponseBlock([](auto&, auto&, auto&) -> ZRBURLSessionResponseDisposition {
    throw std::runtime_error("hook failed");
  });
  Inbox<Outcome> first;
  manager_->dataTaskWithRequest(requestFor(server_.url("/json")), record(first))->resume();
  ASSERT_EQ(first.wait(1).size(), 1u);
  // The response hook failed: the task was cancelled rather than left waiting.
  ASSERT_TRUE(first.now()[0].error);
  manager_->setDataTaskDidReceiveResponseBlock(nullptr);
  Inbox<Outcome> second;
  manager_->dataTaskWithRequest(requestFor(server_.url("/json")), record(second))->resume();
  ASSERT_EQ(second.wait(1).size(), 1u);
  EXPECT_EQ(second.now()[0].object["answer"].intValue(), 42);
}

TEST_F(URLSessionManagerTest, ResumeAndSuspendAreReportedForTheManagersOwnTasksOnly) {
  NotificationInbox resumed(ZRBHS_NetworkingTaskDidResumeNotification);
  NotificationInbox suspended(ZRBHS_NetworkingTaskDidSuspendNotification);
  // The wrappers' own notifications go to whoever observes them, for every task.
  NotificationInbox internalResumed(ZRBHS_NSURLSessionTaskDidResumeNotification);
  NotificationInbox internalSuspended(ZRBHS_NSURLSessionTaskDidSuspendNotification);
  server_.respond("GET", "/slow", [] {
    ZRBTestResponse r = ZRBTestResponse::text(200, "late");
    r.delayBeforeHeaders = 300ms;
    return r;
  }());
  // A task made directly on the manager's session carries no description of the manager's.
  auto direct = manager_->session()->dataTaskWithRequest(requestFor(server_.url("/slow")));
  Inbox<Outcome> outcomes;
  auto own = manager_->dataTaskWithRequest(requestFor(server_.url("/slow")), record(outcomes));
  for (const auto& task : {ZRBURLSessionTaskPtr(direct), ZRBURLSessionTaskPtr(own)}) {
    task->resume();
    task->suspend();
    task->suspend();  // no change, no notification
    task->resume();
  }
  ASSERT_EQ(outcomes.wait(1).size(), 1u);
  ZRBDispatch::mainQueue()->sync([] {});
  auto count = [](const std::vector<ZRBNotificationPtr>& list, const ZRBURLSessionTaskPtr& task) {
    std::size_t found = 0;
    for (const auto& n : list) found += n->objectAs<ZRBURLSessionTask>() == task;
    return found;
  };
  EXPECT_EQ(count(resumed.now(), own), 2u);
  EXPECT_EQ(count(suspended.now(), own), 1u);
  EXPECT_EQ(count(resumed.now(), direct), 0u);
  EXPECT_EQ(count(suspended.now(), direct), 0u);
  for (const auto& task : {ZRBURLSessionTaskPtr(direct), ZRBURLSessionTaskPtr(own)}) {
    EXPECT_EQ(count(internalResumed.now(), task), 2u);
    EXPECT_EQ(count(internalSuspended.now(), task), 1u);
  }
}

// The wrappers skip posting while the managers' relay is their only observer and the relayed
// notification has none; either kind of observer alone must still hear of a resume.
TEST_F(URLSessionManagerTest, AResumeReachesEitherKindOfObserverAlone) {
  for (const char* name :
       {ZRBHS_NSURLSessionTaskDidResumeNotification, ZRBHS_NetworkingTaskDidResumeNotification}) {
    SCOPED_TRACE(name);
    NotificationInbox heard(name);
    Inbox<Outcome> outcomes;
    auto task = manager_->dataTaskWithRequest(requestFor(server_.url("/json")), record(outcomes));
    task->resume();
    ASSERT_EQ(outcomes.wait(1).size(), 1u);
    ZRBDispatch::mainQueue()->sync([] {});
    ASSERT_EQ(heard.now().size(), 1u);
    EXPECT_EQ(heard.now()[0]->objectAs<ZRBURLSessionTask>(), task);
  }
}

TEST_F(URLSessionManagerTest, ProgressFollowsTheTaskAndItsHandlersControlIt) {
  server_.respond("GET", "/big", ZRBTestResponse::generated(300000));
  std::atomic<std::int64_t> lastSeen{0};
  Inbox<Outcome> outcomes;
  auto task = manager_->dataTaskWithRequest(
      requestFor(server_.url("/big")), nullptr,
      [&](const ZRBProgressPtr& progress) { lastSeen = progress->completedUnitCount(); }, record(outcomes));
  auto download = manager_->downloadProgressForTask(task);
  ASSERT_TRUE(download);
  EXPECT_EQ(download, manager_->downloadProgressForTask(task));
  task->resume();
  ASSERT_EQ(outcomes.wait(1).size(), 1u);
  EXPECT_EQ(download->completedUnitCount(), 300000);
  EXPECT_EQ(download->totalUnitCount(), 300000);
  EXPECT_EQ(lastSeen.load(), 300000);

  // Cancelling the progress cancels the task.
  ZRBTestResponse slow = ZRBTestResponse::text(200, "late");
  slow.delayBeforeHeaders = 2s;
  server_.respond("GET", "/slow", slow);
  Inbox<Outcome> cancelled;
  auto second = manager_->dataTaskWithRequest(requestFor(server_.url("/slow")), record(cancelled));
  second->resume();
  manager_->uploadProgressForTask(second)->cancel();
  ASSERT_EQ(cancelled.wait(1).size(), 1u);
  ASSERT_TRUE(cancelled.now()[0].error);
  EXPECT_EQ(cancelled.now()[0].error->code(), -999);
}

TEST_F(URLSessionManagerTest, TaskListsAndInvalidationBothWays) {
  ZRBTestResponse slow = ZRBTestResponse::json(200, "{}");
  slow.delayBeforeHeaders = 300ms;
  server_.respond("", "/slow", slow);
  for (bool cancel : {false, true}) {
    SCOPED_TRACE(cancel ? "canceling" : "finishing");
    auto manager = ZRBHS_URLSessionManager::make();
    NotificationInbox invalidated(ZRBHS_URLSessionDidInvalidateNotification);
    Inbox<Outcome> outcomes;
    auto data = manager->dataTaskWithRequest(requestFor(server_.url("/slow")), record(outcomes));
    auto upload = manager->uploadTaskWithRequest(requestFor(server_.url("/slow"), "POST"),
                                                 ZRBValue::data("x"), nullptr, record(outcomes));
    auto download = manager->downloadTaskWithRequest(requestFor(server_.url("/slow")), nullptr, nullptr,
                                                     record(outcomes));
    EXPECT_EQ(manager->tasks(), (std::vector<ZRBURLSessionTaskPtr>{data, upload, download}));
    EXPECT_EQ(manager->dataTasks(), (std::vector<ZRBURLSessionDataTaskPtr>{data}));
    EXPECT_EQ(manager->uploadTasks(), (std::vector<ZRBURLSessionUploadTaskPtr>{upload}));
    EXPECT_EQ(manager->downloadTasks(), (std::vector<ZRBURLSessionDownloadTaskPtr>{download}));
    data->resume();
    upload->resume();
    download->resume();
    manager->invalidateSessionCancelingTasks(cancel);
    auto results = outcomes.wait(3);
    ASSERT_EQ(results.size(), 3u);
    for (const auto& result : results) {
      if (cancel) {
        ASSERT_TRUE(result.error);
        EXPECT_EQ(result.error->code(), -999);
      } else {
        EXPECT_EQ(result.error, nullptr);
      }
    }
    ASSERT_EQ(invalidated.wait(1).size(), 1u);
    EXPECT_EQ(invalidated.now()[0]->objectAs<ZRBURLSession>(), manager->session());
    EXPECT_TRUE(manager->session()->isInvalidated());
  }
}

TEST_F(URLSessionManagerTest, TaskListsAnswerFromACompletion) {
  // A completion may run on the thread that holds the delegate queue; the lists must not wait for it.
  Inbox<std::size_t> listed;
  auto waiting = manager_->dataTaskWithRequest(requestFor(server_.url("/json")), nullptr);
  manager_
      ->dataTaskWithRequest(requestFor(server_.url("/json")),
                            [&](auto&&...) { listed.put(manager_->tasks().size()); })
      ->resume();
  auto sizes = listed.wait(1);
  ASSERT_EQ(sizes.size(), 1u);
  EXPECT_EQ(sizes[0], 1u);  // the task never resumed
  waiting->cancel();
}

// A background session may make no upload task from a file; the manager asks again, three times in
// all, only for background sessions and only when told to.
TEST(URLSessionManagerUploadRetries, FileUploadsAreAskedForAgainOnlyInBackgroundSessionsThatRetry) {
  ZRBTestServer server;
  server.start();
  server.respond("POST", "/upload", ZRBTestResponse::json(200, R"({"stored":true})"));
  ZRBTestTemporaryDirectory directory;
  const std::string file = directory.write("body.txt", "file body");

  struct Case {
    const char* name;
    bool background;
    bool retries;
    int refusals;  // before the session makes the task
    int expectedAsks;
    bool expectTask;
  };
  const Case cases[] = {
      {"refused twice, made on the third", true, true, 2, 3, true},
      {"refused every time", true, true, 100, 3, false},
      {"background without retries", true, false, 1, 1, false},
      {"retries, but not a background session", false, true, 1, 1, false},
  };
  int number = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto configuration = c.background
                             ? ZRBURLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
                                   "orvelkit.test.upload-retries." + std::to_string(++number))
                             : ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
    auto manager = ZRBHS_URLSessionManager::initWithSessionConfiguration(configuration);
    manager->setAttemptsToRecreateUploadTasksForBackgroundSessions(c.retries);
    auto asks = std::make_shared<std::atomic<int>>(0);
    manager->session()->setFileUploadCreationGate(
        [asks, refusals = c.refusals] { return ++*asks > refusals; });

    Inbox<Outcome> outcomes;
    auto task = manager->uploadTaskWithRequest(
        requestFor(server.url("/upload"), "POST"), ZRBURL::fileURLWithPath(file), nullptr,
        [&outcomes](ZRBURLResponsePtr response, ZRBValue object, ZRBErrorPtr error) {
          outcomes.put({std::move(response), std::move(object), std::move(error), {}});
        });
    EXPECT_EQ(asks->load(), c.expectedAsks);
    ASSERT_EQ(task != nullptr, c.expectTask);
    if (task) {
      EXPECT_EQ(task->taskDescription(), manager->taskDescriptionForSessionTasks());
      task->resume();
      auto results = outcomes.wait(1);
      ASSERT_EQ(results.size(), 1u);
      EXPECT_EQ(results[0].error, nullptr);
      EXPECT_TRUE(results[0].object["stored"].boolValue());
    }
    manager->invalidateSessionCancelingTasks(true);
  }
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u) << "only the task that was made ran";
  EXPECT_EQ(requests[0].body, "file body");
}

TEST_F(URLSessionManagerTest, TheCreationGuardSerializesOnOldPlatforms) {
  ZRBHS_URLSessionManager::setFoundationVersionNumberForTesting(1140.0);
  std::vector<std::thread> threads;
  std::mutex mutex;
  std::set<unsigned long> identifiers;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 25; ++j) {
        auto task = manager_->dataTaskWithRequest(requestFor(server_.url("/json")), nullptr);
        std::lock_guard lock(mutex);
        identifiers.insert(task->taskIdentifier());
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ZRBHS_URLSessionManager::setFoundationVersionNumberForTesting(0);
  EXPECT_EQ(identifiers.size(), 100u);
}

TEST_F(URLSessionManagerTest, BadInputFailsAsDocumented) {
  struct Case {
    const char* name;
    std::function<void()> call;
    std::string message;
  };
  const Case cases[] = {
      {"null response serializer", [&] { manager_->setResponseSerializer(nullptr); },
       ZRBAssertionMessage("responseSerializer")},
      {"null task",
       [&] {
         manager_->setDelegateForTask(std::make_shared<ZRBHS_URLSessionManagerTaskDelegate>(), nullptr);
       },
       ZRBAssertionMessage("task")},
      {"null delegate",
       [&] {
         manager_->setDelegateForTask(
             nullptr, manager_->session()->dataTaskWithURL(ZRBURL::URLWithString("http://127.0.0.1/")));
       },
       ZRBAssertionMessage("delegate")},
      {"null request serializer", [] { ZRBHS_HTTPSessionManager::manager()->setRequestSerializer(nullptr); },
       ZRBAssertionMessage("requestSerializer")},
  };
  for (const Case& c : cases) {
    EXPECT_THAT(c.call, testing::ThrowsMessage<ZRBAssertionFailure>(c.message)) << c.name;
  }
  EXPECT_EQ(manager_->responseSerializer(), serializer_);
  EXPECT_THAT(
      [&] {
        manager_->downloadTaskWithResumeData(ZRBValue::data("not resume data"), nullptr, nullptr, nullptr);
      },
      ZRBTestRaises("ZRBInvalidArgumentException"));
}

// ---- the HTTP manager ----

TEST(HTTPSessionManagerTest, BaseURLsEndInASlashWhenTheyHaveAPath) {
  struct Case {
    const char* given;
    const char* stored;
    const char* relative;
    const char* resolved;
  };
  const Case cases[] = {
      {"http://example.test/api", "http://example.test/api/", "users", "http://example.test/api/users"},
      {"http://example.test/api/", "http://example.test/api/", "users", "http://example.test/api/users"},
      {"http://example.test", "http://example.test", "users", "http://example.test/users"},
      {"http://example.test/a/b", "http://example.test/a/b/", "/root", "http://example.test/root"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.given);
    auto manager = ZRBHS_HTTPSessionManager::initWithBaseURL(ZRBURL::URLWithString(c.given));
    EXPECT_EQ(manager->baseURL()->absoluteString(), c.stored);
    auto task =
        manager->dataTaskWithHTTPMethod("GET", c.relative, ZRBValue(), nullptr, nullptr, nullptr, nullptr);
    ASSERT_TRUE(task);
    EXPECT_EQ(task->originalRequest()->URL()->absoluteString(), c.resolved);
    manager->invalidateSessionCancelingTasks(true);
  }
}

TEST(HTTPSessionManagerTest, ConveniencesSortOutcomesAndFailedRequestsHaveNoTask) {
  ZRBTestServer server;
  server.start();
  server.echo("/echo");
  server.respond("GET", "/missing", ZRBTestResponse::json(404, "{}"));
  auto manager = ZRBHS_HTTPSessionManager::initWithBaseURL(ZRBURL::URLWithString(server.url("/")));
  auto queue = ZRBDispatchQueue::serial("test.http.completion");
  manager->setCompletionQueue(queue);
  Inbox<std::string> events;
  auto success = [&](const char* name) {
    return [&events, name](const ZRBURLSessionDataTaskPtr& task, const ZRBValue& object) {
      events.put(std::string(name) + " ok " + (task ? object["method"].string() : "no task"));
    };
  };
  auto failure = [&](const char* name) {
    return [&events, name](const ZRBURLSessionDataTaskPtr& task, const ZRBErrorPtr& error) {
      events.put(std::string(name) + " failed " + (task ? "task" : "no task") + (error ? "" : " no error"));
    };
  };
  ASSERT_TRUE(
      manager->GET("echo/a", ZRBValue::dictionary({{"q", ZRBValue(1)}}), success("GET"), failure("GET")));
  ASSERT_TRUE(manager->POST("echo/b", ZRBValue(), success("POST"), failure("POST")));
  ASSERT_TRUE(manager->PUT("echo/c", ZRBValue(), success("PUT"), failure("PUT")));
  ASSERT_TRUE(manager->PATCH("echo/d", ZRBValue(), success("PATCH"), failure("PATCH")));
  ASSERT_TRUE(manager->DELETE("echo/e", ZRBValue(), success("DELETE"), failure("DELETE")));
  ASSERT_TRUE(manager->HEAD(
      "echo/f", ZRBValue(),
      [&](const ZRBURLSessionDataTaskPtr& task) { events.put(task ? "HEAD ok" : "HEAD no task"); },
      failure("HEAD")));
  ASSERT_TRUE(manager->GET("missing", ZRBValue(), success("404"), failure("404")));
  ASSERT_TRUE(manager->POST(
      "echo/g", ZRBValue::dictionary({{"field", ZRBValue("value")}}),
      [](ZRBHS_StreamingMultipartFormData&) {}, success("multipart"), failure("multipart")));
  // A request the serializer cannot build: no task, failure later on the completion queue.
  auto refusing = ZRBHS_HTTPRequestSerializer::serializer();
  refusing->setQueryStringSerializationWithBlock(
      [](const ZRBURLRequestPtr&, const ZRBValue&, ZRBErrorPtr* error) {
        *error = ZRBError::withDescription("test", 1, "refused");
        return std::optional<std::string>();
      });
  manager->setRequestSerializer(refusing);
  std::atomic<bool> ranOnQueue{false};
  EXPECT_EQ(
      manager->GET("echo/h", ZRBValue::dictionary({{"q", ZRBValue(1)}}), success("bad"),
                   [&](const ZRBURLSessionDataTaskPtr& task, const ZRBErrorPtr& error) {
                     ranOnQueue = ZRBDispatch::currentQueueLabel() == "test.http.completion";
                     events.put(std::string(task ? "bad task" : "bad no task") + (error ? "" : " no error"));
                   }),
      nullptr);
  auto all = events.wait(9);
  std::multiset<std::string> got(all.begin(), all.end());
  EXPECT_EQ(got, (std::multiset<std::string>{"GET ok GET", "POST ok POST", "PUT ok PUT", "PATCH ok PATCH",
                                             "DELETE ok DELETE", "HEAD ok", "404 failed task",
                                             "multipart ok POST", "bad no task"}));
  EXPECT_TRUE(ranOnQueue.load());
  manager->invalidateSessionCancelingTasks(true);
}

TEST(HTTPSessionManagerTest, ArchivesAndCopiesCarryTheConfigurationAndSerializers) {
  auto original = ZRBHS_HTTPSessionManager::initWithBaseURL(
      ZRBURL::URLWithString("http://example.test/api"),
      ZRBURLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("com.example.bg"));
  original->setResponseSerializer(ZRBHS_HTTPResponseSerializer::serializer());
  auto data = ZRBKeyedArchiver::archivedDataWithRootObject(*original, true);
  ASSERT_TRUE(data);
  for (const auto& manager : {ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBHS_HTTPSessionManager>(*data),
                              std::dynamic_pointer_cast<ZRBHS_HTTPSessionManager>(original->copy())}) {
    ASSERT_TRUE(manager);
    EXPECT_EQ(manager->baseURL()->absoluteString(), "http://example.test/api/");
    EXPECT_EQ(manager->session()->configuration()->identifier(), "com.example.bg");
    EXPECT_EQ(manager->responseSerializer()->className(), "ZRBHS_HTTPResponseSerializer");
    // Serializers are copied, not shared.
    EXPECT_NE(manager->responseSerializer(), original->responseSerializer());
    EXPECT_NE(manager->requestSerializer(), original->requestSerializer());
    manager->invalidateSessionCancelingTasks(true);
  }
  EXPECT_TRUE(original->description().starts_with(ZRBStringWithFormat(
      "<ZRBHS_HTTPSessionManager: %p, baseURL: http://example.test/api/, session: <ZRBURLSession: ",
      static_cast<const void*>(original.get()))));
  original->invalidateSessionCancelingTasks(true);
}

// ---- resources ----

std::size_t countEntries(const char* directory) {
  std::size_t count = 0;
  if (DIR* dir = ::opendir(directory)) {
    while (dirent* entry = ::readdir(dir)) count += entry->d_name[0] != '.';
    ::closedir(dir);
  }
  return count;
}

TEST(URLSessionManagerResourcesTest, ManyManagersUsedOnceGiveTheirThreadsAndFilesBack) {
  ZRBTestServer server;
  server.start();
  server.respond("GET", "/json", ZRBTestResponse::json(200, R"({"n":1})"));
  // Warm up what lives for the process (pool, main thread, shared queues).
  auto warm = ZRBHS_URLSessionManager::make();
  warm->invalidateSessionCancelingTasks(true);
  warm.reset();
  auto settled = [](std::size_t threads, std::size_t files) {
    for (int i = 0; i < 400; ++i) {
      if (countEntries("/proc/self/task") <= threads && countEntries("/proc/self/fd") <= files) return true;
      std::this_thread::sleep_for(25ms);
    }
    return false;
  };
  settled(0, 0);  // let the warm-up's thread go (bounded wait)
  const std::size_t threads = countEntries("/proc/self/task");
  const std::size_t files = countEntries("/proc/self/fd");
  // Invalidated sessions end their threads even while their managers are still held.
  std::vector<ZRBHS_URLSessionManagerPtr> kept;
  for (int i = 0; i < 1000; ++i) {
    auto manager = ZRBHS_URLSessionManager::make();
    if (i % 10 == 0) kept.push_back(manager);
    manager->setCompletionQueue(ZRBDispatchQueue::serial("test.resources"));
    NotificationInbox invalidated(ZRBHS_URLSessionDidInvalidateNotification);
    Inbox<int> done;
    manager->dataTaskWithRequest(requestFor(server.url("/json")), [&](auto&&...) { done.put(1); })->resume();
    ASSERT_EQ(done.wait(1).size(), 1u);
    manager->invalidateSessionCancelingTasks(i % 2 == 0);
    ASSERT_EQ(invalidated.wait(1).size(), 1u);
  }
  EXPECT_TRUE(settled(threads, ~std::size_t{0}))
      << "threads " << countEntries("/proc/self/task") << " (from " << threads << ")";
  kept.clear();
  EXPECT_TRUE(settled(threads, files))
      << "threads " << countEntries("/proc/self/task") << " (from " << threads << "), files "
      << countEntries("/proc/self/fd") << " (from " << files << ")";
}

}  // namespace
