// URL sessions against the loopback test server: callbacks and their order, bodies both ways,
// redirects, dispositions, authentication, downloads and their resumption, cancel and suspend.
#include "platform/net/url_session.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "platform/foundation/exception.h"
#include "platform/foundation/json_serialization.h"
#include "platform/net/http_cookie_storage.h"
#include "support/recording_delegate.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"

namespace {

class URLSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.start();
    delegate_ = std::make_shared<RecordingDelegate>();
    session_ = ZRBURLSession::sessionWithConfiguration(
        ZRBURLSessionConfiguration::ephemeralSessionConfiguration(), delegate_, nullptr);
  }
  void TearDown() override {
    session_->invalidateAndCancel();
    EXPECT_TRUE(delegate_->waitForInvalidation());
    EXPECT_FALSE(delegate_->overlapped) << "delegate callbacks overlapped";
  }

  ZRBTestServer server_;
  std::shared_ptr<RecordingDelegate> delegate_;
  ZRBURLSessionPtr session_;
};

TEST_F(URLSessionTest, DataTaskDeliversResponseDataAndCompletionInOrder) {
  server_.respond("GET", "/hello", ZRBTestResponse::text(200, "hello, world"));
  delegate_->onResponse = [](const ZRBURLResponsePtr&, auto completion) {
    completion(ZRBURLSessionResponseAllow);
  };
  auto task = session_->dataTaskWithRequest(requestFor(server_.url("/hello")));
  EXPECT_EQ(task->state(), ZRBURLSessionTaskStateSuspended);
  task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  auto completion = delegate_->completion(task);
  EXPECT_EQ(completion.error, nullptr);
  EXPECT_EQ(completion.body, "hello, world");
  EXPECT_EQ(delegate_->events(), (std::vector<std::string>{"response", "data", "complete"}));
  EXPECT_EQ(task->state(), ZRBURLSessionTaskStateCompleted);
  EXPECT_EQ(task->countOfBytesReceived(), 12);
  EXPECT_EQ(task->countOfBytesExpectedToReceive(), 12);
  auto response = std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(task->response());
  ASSERT_TRUE(response);
  EXPECT_EQ(response->statusCode(), 200);
  EXPECT_EQ(response->valueForHTTPHeaderField("content-type"), "text/plain");
}

ZRBURLSessionDataCompletion capture(
    std::promise<std::tuple<ZRBValue, ZRBURLResponsePtr, ZRBErrorPtr>>& promise) {
  return [&promise](ZRBValue data, ZRBURLResponsePtr response, ZRBErrorPtr error) {
    promise.set_value({std::move(data), std::move(response), std::move(error)});
  };
}

std::string fieldOf(const std::string& json, const std::string& key) {
  auto value = ZRBJSONSerialization::JSONObjectWithData(std::string_view(json));
  return value[key].isString() ? value[key].string() : value[key].description();
}

TEST_F(URLSessionTest, BodiesGoOutFromBytesFilesAndStreams) {
  server_.uploadSink("/sink");
  std::string payload = ZRBTestPatternBytes(0, 300000);
  ZRBTestTemporaryDirectory directory;
  std::string file = directory.write("body.bin", payload);

  auto request = requestFor(server_.url("/sink"), "PUT");
  std::vector<ZRBURLSessionTaskPtr> tasks = {
      session_->uploadTaskWithRequest(request, ZRBValue::data(payload)),
      session_->uploadTaskWithRequest(request, ZRBURL::fileURLWithPath(file)),
  };
  auto streamed = requestFor(server_.url("/sink"), "POST");
  streamed->setHTTPBodyStream(ZRBInputStream::inputStreamWithData(ZRBValue::data(payload)));
  tasks.push_back(session_->uploadTaskWithStreamedRequest(streamed));
  for (auto& task : tasks) task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(3));
  for (auto& task : tasks) {
    auto completion = delegate_->completion(task);
    EXPECT_EQ(completion.error, nullptr) << task->description();
    EXPECT_EQ(fieldOf(completion.body, "sha256"), ZRBTestSHA256Hex(payload)) << task->description();
    EXPECT_EQ(task->countOfBytesSent(), 300000);
  }
  EXPECT_EQ(delegate_->sent, 300000);
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 3u);
  for (const auto& recorded : requests) {
    // A stream of unknown length goes chunked (the POST); known lengths are declared.
    if (recorded.method == "PUT") {
      EXPECT_EQ(recorded.header("Content-Length"), "300000");
    } else {
      EXPECT_EQ(recorded.header("Transfer-Encoding"), "chunked");
    }
    EXPECT_FALSE(recorded.header("Content-Type")) << "no content type is invented";
    EXPECT_FALSE(recorded.header("Expect"));
  }
}

TEST_F(URLSessionTest, DataAndDownloadTasksSendTheRequestsBodyOrBodyStream) {
  server_.echo("/echo");
  const std::string payload = ZRBTestPatternBytes(7, 70000);
  std::vector<ZRBURLSessionTaskPtr> tasks;
  for (const char* method : {"POST", "PUT"}) {
    for (bool stream : {false, true}) {
      for (bool download : {false, true}) {
        std::string target = std::string("/echo/") + method + (stream ? "/stream" : "/bytes") +
                             (download ? "/download" : "/data");
        auto request = requestFor(server_.url(target), method);
        if (stream) {
          request->setHTTPBodyStream(ZRBInputStream::inputStreamWithData(ZRBValue::data(payload)));
        } else {
          request->setHTTPBody(ZRBValue::data(payload));
        }
        tasks.push_back(download ? ZRBURLSessionTaskPtr(session_->downloadTaskWithRequest(request))
                                 : ZRBURLSessionTaskPtr(session_->dataTaskWithRequest(request)));
      }
    }
  }
  for (auto& task : tasks) task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(static_cast<int>(tasks.size())));
  for (auto& task : tasks) EXPECT_EQ(delegate_->completion(task).error, nullptr) << task->description();
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), tasks.size());
  for (const auto& recorded : requests) {
    SCOPED_TRACE(recorded.target);
    EXPECT_EQ(recorded.method, recorded.path.substr(6, recorded.method.size()));
    EXPECT_EQ(recorded.bodySize, payload.size());
    EXPECT_EQ(recorded.bodySHA256, ZRBTestSHA256Hex(payload));
  }
}

TEST_F(URLSessionTest, CompletionHandlerGetsTheWholeBodyAndConfigurationHeadersApply) {
  server_.echo("/echo");
  auto configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  configuration->setHTTPAdditionalHeaders(
      ZRBValue::dictionary({{"X-Extra", "from configuration"}, {"Accept", "a/b"}}));
  auto session = ZRBURLSession::sessionWithConfiguration(configuration);
  auto request = requestFor(server_.url("/echo/x"));
  request->setValue("mine", "Accept");
  std::promise<std::tuple<ZRBValue, ZRBURLResponsePtr, ZRBErrorPtr>> promise;
  session->dataTaskWithRequest(request, capture(promise))->resume();
  auto [data, response, error] = promise.get_future().get();
  EXPECT_EQ(error, nullptr);
  auto echoed = ZRBJSONSerialization::JSONObjectWithData(data.bytes());
  EXPECT_EQ(echoed["headers"]["X-Extra"].string(), "from configuration");
  EXPECT_EQ(echoed["headers"]["Accept"].string(), "mine") << "the request's own field wins";
  session->finishTasksAndInvalidate();
}

TEST_F(URLSessionTest, ResolveEntriesKeepMappingANameForTransfersOnReusedHandles) {
  server_.respond("GET", "/named", ZRBTestResponse::text(200, "named"));
  const std::string authority = "resolve.invalid:" + std::to_string(server_.port());
  auto configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  configuration->setResolveEntries({authority + ":127.0.0.1"});
  auto session = ZRBURLSession::sessionWithConfiguration(configuration);
  // One after another, so each transfer takes the handle the last one gave back.
  for (int i = 0; i < 3; ++i) {
    std::promise<std::tuple<ZRBValue, ZRBURLResponsePtr, ZRBErrorPtr>> promise;
    session->dataTaskWithRequest(requestFor("http://" + authority + "/named"), capture(promise))->resume();
    auto [data, response, error] = promise.get_future().get();
    EXPECT_EQ(error, nullptr) << "transfer " << i;
    auto bytes = data.bytes();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()), "named")
        << "transfer " << i;
  }
  session->finishTasksAndInvalidate();
}

TEST_F(URLSessionTest, ProxiesComeFromTheEnvironmentAsItWasWhenTheSessionStarted) {
  // The test server is the proxy: it sees the absolute target. Reached directly, localhost:9 would
  // refuse the connection.
  server_.respond("GET", "http://localhost:9/through", ZRBTestResponse::text(200, "via proxy"));
  server_.respond("GET", "/direct", ZRBTestResponse::text(200, "direct"));
  auto fetch = [](const ZRBURLSessionPtr& session, const std::string& url) {
    std::promise<std::tuple<ZRBValue, ZRBURLResponsePtr, ZRBErrorPtr>> promise;
    session->dataTaskWithRequest(requestFor(url), capture(promise))->resume();
    auto [data, response, error] = promise.get_future().get();
    auto bytes = data.bytes();
    return error ? "error " + std::to_string(error->code())
                 : std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  };
  ::setenv("http_proxy", server_.baseURL().c_str(), 1);
  ::setenv("no_proxy", "127.0.0.1", 1);
  auto session =
      ZRBURLSession::sessionWithConfiguration(ZRBURLSessionConfiguration::ephemeralSessionConfiguration());
  EXPECT_EQ(fetch(session, "http://localhost:9/through"), "via proxy");
  EXPECT_EQ(fetch(session, server_.url("/direct")), "direct") << "no_proxy names the host";
  // Read once: later changes to the environment leave a running session as it was.
  ::unsetenv("http_proxy");
  EXPECT_EQ(fetch(session, "http://localhost:9/through"), "via proxy");
  ::unsetenv("no_proxy");
  session->finishTasksAndInvalidate();
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].target, "http://localhost:9/through");
  EXPECT_EQ(requests[1].target, "/direct");
}

TEST_F(URLSessionTest, RedirectsAreFollowedOfferedAndRefused) {
  server_.echo("/echo");
  server_.redirect("/see-other", "/echo/after-303", 303);
  server_.redirect("/temporary", "/echo/after-307", 307);
  server_.redirectLoop("/a", "/b");

  // Without a redirection callback the session follows; 303 turns a POST into a GET, 307 keeps it.
  auto post303 = requestFor(server_.url("/see-other"), "POST");
  post303->setHTTPBody(ZRBValue::data(std::string("x=1")));
  auto post307 = requestFor(server_.url("/temporary"), "POST");
  post307->setHTTPBody(ZRBValue::data(std::string("x=1")));
  auto seeOther = session_->dataTaskWithRequest(post303);
  auto temporary = session_->dataTaskWithRequest(post307);
  auto loop = session_->dataTaskWithRequest(requestFor(server_.url("/a")));
  for (auto& task : {seeOther, temporary, loop}) task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(3));
  EXPECT_EQ(fieldOf(delegate_->completion(seeOther).body, "method"), "GET");
  EXPECT_EQ(fieldOf(delegate_->completion(temporary).body, "method"), "POST");
  EXPECT_EQ(fieldOf(delegate_->completion(temporary).body, "bodyLength"), "3");
  EXPECT_EQ(seeOther->currentRequest()->URL()->path(), "/echo/after-303");
  EXPECT_EQ(seeOther->originalRequest()->URL()->path(), "/see-other");
  ASSERT_TRUE(delegate_->completion(loop).error);
  EXPECT_EQ(delegate_->completion(loop).error->code(), ZRBURLErrorHTTPTooManyRedirects);

  // Answering null stops at the 3xx, which completes the task with its own body.
  delegate_->onRedirect = [](const ZRBHTTPURLResponsePtr&, ZRBURLRequestPtr, auto completion) {
    completion(nullptr);
  };
  auto stopped = session_->dataTaskWithRequest(requestFor(server_.url("/temporary")));
  stopped->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(4));
  EXPECT_EQ(delegate_->completion(stopped).error, nullptr);
  EXPECT_EQ(std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(stopped->response())->statusCode(), 307);
  // Two redirects followed, sixteen redirects of the loop, one stopped.
  EXPECT_EQ(server_.requestCount(), 2u + 2u + 17u + 1u);
}

TEST_F(URLSessionTest, StreamedBodyIsAskedForAgainWhenARedirectKeepsIt) {
  server_.echo("/echo");
  server_.redirect("/moved", "/echo/there", 307);
  std::string payload = ZRBTestPatternBytes(0, 100000);
  auto request = requestFor(server_.url("/moved"), "PUT");
  request->setHTTPBodyStream(ZRBInputStream::inputStreamWithData(ZRBValue::data(payload)));
  delegate_->onNeedBodyStream = [&](auto completion) {
    completion(ZRBInputStream::inputStreamWithData(ZRBValue::data(payload)));
  };
  auto task = session_->uploadTaskWithStreamedRequest(request);
  task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  auto body = delegate_->completion(task).body;
  EXPECT_EQ(fieldOf(body, "method"), "PUT");
  EXPECT_EQ(fieldOf(body, "bodySHA256"), ZRBTestSHA256Hex(payload));
  auto events = delegate_->events();
  EXPECT_EQ(std::count(events.begin(), events.end(), "need body stream"), 1);

  // Without a new stream the task cannot go on.
  delegate_->onNeedBodyStream = [](auto completion) { completion(nullptr); };
  request->setHTTPBodyStream(ZRBInputStream::inputStreamWithData(ZRBValue::data(payload)));
  auto stranded = session_->uploadTaskWithStreamedRequest(request);
  stranded->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  ASSERT_TRUE(delegate_->completion(stranded).error);
  EXPECT_EQ(delegate_->completion(stranded).error->code(), ZRBURLErrorRequestBodyStreamExhausted);
}

TEST_F(URLSessionTest, ResponseDispositionHoldsTheBodyCancelsOrTurnsIntoADownload) {
  server_.respond("GET", "/big", ZRBTestResponse::generated(200000));
  std::vector<ZRBURLSessionResponseDisposition> answers = {
      ZRBURLSessionResponseAllow, ZRBURLSessionResponseCancel, ZRBURLSessionResponseBecomeDownload};
  std::mutex mutex;
  std::string downloaded;
  delegate_->onDownloaded = [&](const ZRBURLSessionDownloadTaskPtr&, const ZRBURLPtr& location) {
    std::string contents = ZRBTestReadFile(location->path());
    std::lock_guard lock(mutex);
    downloaded = std::move(contents);
  };
  for (auto disposition : answers) {
    delegate_->onResponse = [disposition](const ZRBURLResponsePtr&, auto completion) {
      // Answered late and from another thread: the body must wait for it.
      std::thread([completion, disposition] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        completion(disposition);
      }).detach();
    };
    int before = delegate_->completedCount();
    auto task = session_->dataTaskWithRequest(requestFor(server_.url("/big")));
    task->resume();
    ASSERT_TRUE(delegate_->waitForCompletions(before + 1));
    if (disposition == ZRBURLSessionResponseAllow) {
      EXPECT_EQ(delegate_->completion(task).body, ZRBTestPatternBytes(0, 200000));
    } else if (disposition == ZRBURLSessionResponseCancel) {
      ASSERT_TRUE(delegate_->completion(task).error);
      EXPECT_EQ(delegate_->completion(task).error->code(), ZRBURLErrorCancelled);
    } else {
      EXPECT_EQ(task->state(), ZRBURLSessionTaskStateCompleted);
      std::lock_guard lock(mutex);
      EXPECT_EQ(downloaded, ZRBTestPatternBytes(0, 200000));
    }
  }
  auto events = delegate_->events();
  EXPECT_NE(std::find(events.begin(), events.end(), "became download"), events.end());
}

TEST_F(URLSessionTest, AuthenticationChallengeRetriesWithTheCredential) {
  server_.handle("GET", "/private", [](const ZRBTestRecordedRequest& request) {
    // "user:secret" in base64.
    if (request.header("Authorization") == "Basic dXNlcjpzZWNyZXQ=")
      return ZRBTestResponse::text(200, "welcome");
    auto response = ZRBTestResponse::text(401, "who are you");
    response.headers.add("WWW-Authenticate", "Basic realm=\"vault\"");
    return response;
  });
  std::vector<long> failures;
  delegate_->onTaskChallenge = [&](const ZRBURLAuthenticationChallengePtr& challenge, auto completion) {
    failures.push_back(challenge->previousFailureCount());
    EXPECT_EQ(challenge->protectionSpace()->realm(), "vault");
    EXPECT_EQ(challenge->protectionSpace()->authenticationMethod(), ZRBURLAuthenticationMethodHTTPBasic);
    // A wrong password first, then the right one.
    completion(ZRBURLSessionAuthChallengeUseCredential,
               ZRBURLCredential::credentialWithUser("user", failures.size() == 1 ? "wrong" : "secret",
                                                    ZRBURLCredentialPersistenceNone));
  };
  auto task = session_->dataTaskWithRequest(requestFor(server_.url("/private")));
  task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_EQ(delegate_->completion(task).body, "welcome");
  EXPECT_EQ(failures, (std::vector<long>{0, 1}));

  // Default handling delivers the 401 itself.
  delegate_->onTaskChallenge = [](const ZRBURLAuthenticationChallengePtr&, auto completion) {
    completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
  };
  auto declined = session_->dataTaskWithRequest(requestFor(server_.url("/private")));
  declined->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  EXPECT_EQ(delegate_->completion(declined).body, "who are you");
  EXPECT_EQ(std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(declined->response())->statusCode(), 401);
}

TEST_F(URLSessionTest, CookiesAreKeptPerStorageAndSentBack) {
  server_.handle("GET", "/set", [](const ZRBTestRecordedRequest&) {
    auto response = ZRBTestResponse::text(200, "ok");
    response.headers.add("Set-Cookie", "flavour=oat; Path=/");
    return response;
  });
  server_.echo("/echo");
  for (const char* path : {"/set", "/echo/after"}) {
    std::promise<std::tuple<ZRBValue, ZRBURLResponsePtr, ZRBErrorPtr>> promise;
    session_->dataTaskWithRequest(requestFor(server_.url(path)), capture(promise))->resume();
    promise.get_future().get();
  }
  EXPECT_EQ(server_.requests().back().header("Cookie"), "flavour=oat");
  auto storage = session_->configuration()->HTTPCookieStorage();
  ASSERT_EQ(storage->cookies().size(), 1u);
  EXPECT_EQ(storage->cookies()[0].value, "oat");
  // Another ephemeral session has cookies of its own.
  EXPECT_TRUE(
      ZRBURLSessionConfiguration::ephemeralSessionConfiguration()->HTTPCookieStorage()->cookies().empty());
}

TEST_F(URLSessionTest, InvalidationCancelsTasksThenReportsAndRefusesNewTasks) {
  server_.respond("GET", "/slow", [] {
    auto response = ZRBTestResponse::generated(1 << 20);
    response.bytesPerSecond = 64 * 1024;
    return response;
  }());
  auto running = session_->dataTaskWithRequest(requestFor(server_.url("/slow")));
  auto idle = session_->dataTaskWithRequest(requestFor(server_.url("/slow")));
  running->resume();
  std::vector<ZRBURLSessionTaskPtr> listed;
  std::promise<void> listedPromise;
  session_->getAllTasksWithCompletionHandler([&](std::vector<ZRBURLSessionTaskPtr> tasks) {
    listed = std::move(tasks);
    listedPromise.set_value();
  });
  listedPromise.get_future().get();
  EXPECT_EQ(listed.size(), 2u);
  EXPECT_LT(running->taskIdentifier(), idle->taskIdentifier());

  session_->invalidateAndCancel();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  for (auto& task : {running, idle})
    EXPECT_EQ(delegate_->completion(task).error->code(), ZRBURLErrorCancelled);
  EXPECT_EQ(delegate_->events().back(), "invalid");
  // The session lets go of its delegate right after the callback.
  for (int i = 0; i < 200 && session_->delegate(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(session_->delegate(), nullptr);
  EXPECT_THROW(session_->dataTaskWithURL(ZRBURL::URLWithString(server_.url("/slow"))), ZRBException);
}

TEST_F(URLSessionTest, TaskListsHoldUnfinishedTasksInIdentifierOrder) {
  server_.respond("GET", "/quick", ZRBTestResponse::text(200, "ok"));
  auto listTasks = [this] {
    std::promise<std::vector<ZRBURLSessionTaskPtr>> promise;
    session_->getAllTasksWithCompletionHandler(
        [&promise](std::vector<ZRBURLSessionTaskPtr> tasks) { promise.set_value(std::move(tasks)); });
    return promise.get_future().get();
  };
  // Enough finished tasks to leave the list more holes than tasks, interleaved with waiting ones.
  std::vector<ZRBURLSessionTaskPtr> waiting;
  for (int i = 0; i < 60; ++i) {
    auto task = session_->dataTaskWithRequest(requestFor(server_.url("/quick")));
    if (i % 20 == 7) {
      waiting.push_back(task);
    } else {
      task->resume();
    }
  }
  ASSERT_TRUE(delegate_->waitForCompletions(57));
  waiting.push_back(session_->dataTaskWithRequest(requestFor(server_.url("/quick"))));
  EXPECT_EQ(listTasks(), waiting);
  for (const auto& task : waiting) task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(61));
  EXPECT_TRUE(listTasks().empty());
}

TEST_F(URLSessionTest, ResumeAndSuspendRunThroughReplaceableSlots) {
  std::vector<std::string> calls;
  std::mutex mutex;
  auto wrap = [&](const char* name) {
    return [&, name](ZRBURLSessionTaskStateSlot::Function previous) {
      return [&, name, previous](ZRBURLSessionTask& task) {
        {
          std::lock_guard lock(mutex);
          calls.push_back(std::string(name) + " from " + std::to_string(task.state()));
        }
        previous(task);
      };
    };
  };
  ZRBURLSessionTask::resumeSlot().replace(wrap("resume"));
  ZRBURLSessionTask::suspendSlot().replace(wrap("suspend"));
  // The answer waits, so the task cannot complete before it is suspended.
  auto slow = ZRBTestResponse::text(200, "x");
  slow.delayBeforeHeaders = std::chrono::milliseconds(50);
  server_.respond("GET", "/x", slow);
  auto task = session_->downloadTaskWithURL(ZRBURL::URLWithString(server_.url("/x")));
  task->resume();
  task->suspend();
  task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  ZRBURLSessionTask::resumeSlot().reset();
  ZRBURLSessionTask::suspendSlot().reset();
  std::lock_guard lock(mutex);
  EXPECT_EQ(calls, (std::vector<std::string>{"resume from 1", "suspend from 0", "resume from 1"}));
}

}  // namespace
