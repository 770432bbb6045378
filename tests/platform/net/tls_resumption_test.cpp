// Every new TLS connection asks the session's challenge path about the server's chain, even when an
// earlier connection to the same server could have been resumed: a trust decision that changed in
// between (a pin removed, enforcement turned on) applies to the next connection. A kept-alive
// connection is judged once.
#include <gtest/gtest.h>

#include <atomic>

#include "platform/net/url_session.h"
#include "support/recording_delegate.h"
#include "support/test_server.h"

namespace {

// A delegate that trusts the server until told not to, counting the challenges it answers.
std::shared_ptr<RecordingDelegate> switchableDelegate(std::atomic<bool>& trusted, std::atomic<int>& asked) {
  auto delegate = std::make_shared<RecordingDelegate>();
  delegate->onServerTrust = [&trusted, &asked](const ZRBURLAuthenticationChallengePtr& challenge,
                                               auto completion) {
    ++asked;
    if (!trusted) return completion(ZRBURLSessionAuthChallengeCancelAuthenticationChallenge, nullptr);
    completion(ZRBURLSessionAuthChallengeUseCredential,
               ZRBURLCredential::credentialForTrust(challenge->protectionSpace()->serverTrust()));
  };
  return delegate;
}

class TLSResumptionTest : public testing::Test {
 protected:
  void SetUp() override { server.start(); }
  ZRBTestServer server{ZRBTestServerOptions{.tls = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256)}};
};

TEST_F(TLSResumptionTest, AKeptAliveConnectionIsReusedAndJudgedOnce) {
  server.respond("GET", "/", ZRBTestResponse::text(200, "x"));
  std::atomic<bool> trusted{true};
  std::atomic<int> asked{0};
  auto delegate = switchableDelegate(trusted, asked);
  auto session = ZRBURLSession::sessionWithConfiguration(nullptr, delegate, nullptr);
  for (int i = 1; i <= 5; ++i) {
    session->dataTaskWithRequest(requestFor(server.url("/")))->resume();
    ASSERT_TRUE(delegate->waitForCompletions(i));
  }
  EXPECT_EQ(server.connectionCount(), 1u);
  EXPECT_EQ(asked, 1);
  session->invalidateAndCancel();
  EXPECT_TRUE(delegate->waitForInvalidation());
}

TEST_F(TLSResumptionTest, EveryNewConnectionIsJudgedAgain) {
  // Each answer closes its connection, so every request needs a new handshake.
  ZRBTestResponse closing = ZRBTestResponse::text(200, "ok");
  closing.keepAlive = false;
  server.respond("GET", "/", closing);

  std::atomic<bool> trusted{true};
  std::atomic<int> asked{0};
  auto delegate = switchableDelegate(trusted, asked);
  auto session = ZRBURLSession::sessionWithConfiguration(nullptr, delegate, nullptr);
  // Rows run in order on one session: trust, trust, distrust, trust again.
  const bool rows[] = {true, true, false, true};
  int completions = 0;
  for (bool trust : rows) {
    trusted = trust;
    int askedBefore = asked;
    std::size_t requestsBefore = server.requestCount();
    auto task = session->dataTaskWithRequest(requestFor(server.url("/")));
    task->resume();
    ASSERT_TRUE(delegate->waitForCompletions(++completions));
    auto completion = delegate->completion(task);
    EXPECT_EQ(asked, askedBefore + 1) << "connection " << completions << " skipped the challenge";
    if (trust) {
      EXPECT_EQ(completion.error, nullptr) << completions;
      EXPECT_EQ(completion.body, "ok");
    } else {
      ASSERT_TRUE(completion.error);
      EXPECT_EQ(completion.error->code(), ZRBURLErrorCancelled);
      EXPECT_EQ(server.requestCount(), requestsBefore) << "a refused connection carried a request";
    }
  }
  session->invalidateAndCancel();
  EXPECT_TRUE(delegate->waitForInvalidation());
}

// A second session with a delegate of its own is judged by that delegate, whatever the first one
// decided about the same server.
TEST_F(TLSResumptionTest, AnotherSessionIsJudgedByItsOwnDelegate) {
  server.respond("GET", "/", ZRBTestResponse::text(200, "ok"));

  std::atomic<bool> trustedA{true}, trustedB{false};
  std::atomic<int> askedA{0}, askedB{0};
  auto delegateA = switchableDelegate(trustedA, askedA);
  auto delegateB = switchableDelegate(trustedB, askedB);
  auto sessionA = ZRBURLSession::sessionWithConfiguration(nullptr, delegateA, nullptr);
  auto sessionB = ZRBURLSession::sessionWithConfiguration(nullptr, delegateB, nullptr);
  auto taskA = sessionA->dataTaskWithRequest(requestFor(server.url("/")));
  taskA->resume();
  ASSERT_TRUE(delegateA->waitForCompletions(1));
  EXPECT_EQ(delegateA->completion(taskA).error, nullptr);
  auto taskB = sessionB->dataTaskWithRequest(requestFor(server.url("/")));
  taskB->resume();
  ASSERT_TRUE(delegateB->waitForCompletions(1));
  ASSERT_TRUE(delegateB->completion(taskB).error);
  EXPECT_EQ(delegateB->completion(taskB).error->code(), ZRBURLErrorCancelled);
  EXPECT_EQ(askedA, 1);
  EXPECT_EQ(askedB, 1);
  EXPECT_EQ(server.requestCount(), 1u);
  for (const auto& [session, delegate] : {std::pair{sessionA, delegateA}, std::pair{sessionB, delegateB}}) {
    session->invalidateAndCancel();
    EXPECT_TRUE(delegate->waitForInvalidation());
  }
}

}  // namespace
