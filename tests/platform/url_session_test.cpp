// URL sessions against the loopback test server: callbacks and their order, bodies both ways,
// redirects, dispositions, authentication, downloads and their resumption, cancel and suspend.
#include "platform/url_session.h"

#include <gtest/gtest.h>

#include "support/test_server.h"
#include "url_session_support.h"

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

}  // namespace
