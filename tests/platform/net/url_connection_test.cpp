// URL connections against the loopback test server: callbacks, their order and queue, every answer
// to a challenge, cancel, the class operations and the replaceable slots.
#include "platform/net/url_connection.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "platform/foundation/assert.h"
#include "support/recording_connection_delegate.h"
#include "support/recording_delegate.h"
#include "support/test_server.h"

// At namespace scope, so that its class name is its plain name.
class PGDNamedConnectionDelegate : public ZRBURLConnectionDelegate {};

namespace {

using Recorder = RecordingConnectionDelegate;
constexpr auto answer = &ZRBTestAnswerChallenge;

// Waits (generously) for what follows once a connection's session has wound down.
template <typename Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 2000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return condition();
}

const std::vector<std::string> kLoaded{"response", "data", "finish"};

TEST(URLConnectionTest, CallbacksArriveInOrderOnTheDelegateQueue) {
  ZRBTestServer server;
  server.start();
  server.respond("GET", "/big", ZRBTestResponse::generated(300000));
  // The main queue with a connection that starts at once; a queue of its own with a deferred one.
  for (std::string queueLabel : {"", "com.orvelkit.test.connection"}) {
    auto delegate = std::make_shared<Recorder>();
    delegate->queue = queueLabel;
    std::weak_ptr<Recorder> weakDelegate = delegate;
    std::weak_ptr<ZRBURLConnection> weakConnection;
    {
      auto connection =
          ZRBURLConnection::initWithRequest(requestFor(server.url("/big")), delegate, queueLabel.empty());
      weakConnection = connection;
      if (!queueLabel.empty()) {
        connection->setDelegateQueue(ZRBDispatchQueue::serial(queueLabel));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(server.requestCount(), 1u) << "a deferred connection waits for start";
        connection->start();
        connection->start();  // a second start changes nothing
      }
    }
    // The caller has let go: the loading connection keeps itself.
    ASSERT_TRUE(delegate->waitForEnd());
    EXPECT_EQ(delegate->events(), kLoaded) << (delegate->error ? delegate->error->description() : "");
    EXPECT_EQ(delegate->body, ZRBTestPatternBytes(0, 300000));
    EXPECT_FALSE(delegate->misplaced) << "queue " << queueLabel;
    delegate.reset();
    EXPECT_TRUE(eventually([&] { return weakConnection.expired() && weakDelegate.expired(); }))
        << "an ended connection lets go of itself and its delegate";
  }
  EXPECT_EQ(server.requestCount(), 2u);
}

TEST(URLConnectionTest, ServerTrustChallengesAreAnsweredInTheHandshake) {
  const ZRBTestChain& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  ZRBTestServer server(ZRBTestServerOptions{.tls = chain});
  server.start();
  server.respond("GET", "/", ZRBTestResponse::text(200, "secret"));
  // The test root is not a system anchor: default handling refuses the chain.
  const long untrusted = ZRBURLErrorServerCertificateUntrusted,
             cancelled = ZRBURLErrorUserCancelledAuthentication;
  struct Case {
    std::string willSend, canAuthenticate, didReceive;  // how each answers; empty: not implemented
    long code;                                          // 0: loaded
    std::vector<std::string> events;                    // up to the response, or the failure
  };
  std::vector<Case> cases = {
      {"trust", "", "", 0, {"challenge trust"}},
      {"cancel", "", "", cancelled, {"challenge trust", "fail"}},
      {"none", "", "", cancelled, {"challenge trust", "fail"}},  // dropped unanswered
      {"keep", "", "", cancelled, {"challenge trust", "fail"}},  // answered once the handshake is over
      {"default", "", "", untrusted, {"challenge trust", "fail"}},
      {"reject", "", "", untrusted, {"challenge trust", "fail"}},
      {"without", "", "", untrusted, {"challenge trust", "fail"}},
      {"trust", "yes", "cancel", 0, {"challenge trust"}},  // the newer operation is preferred
      {"", "yes", "trust", 0, {"can authenticate", "older challenge trust"}},
      {"", "no", "trust", untrusted, {"can authenticate", "fail"}},
      // Without canAuthenticate, server trust is not offered to the older operation.
      {"", "", "trust", untrusted, {"fail"}},
      {"", "", "", untrusted, {"fail"}},
  };
  for (const auto& c : cases) {
    std::string label = c.willSend + "/" + c.canAuthenticate + "/" + c.didReceive;
    auto delegate = std::make_shared<Recorder>();
    ZRBURLAuthenticationChallengePtr kept;
    if (!c.willSend.empty())
      delegate->onWillSend = [&kept, how = c.willSend](auto ch) {
        if (how == "keep") kept = ch;
        answer(ch, how);
      };
    if (!c.didReceive.empty()) delegate->onDidReceive = [how = c.didReceive](auto ch) { answer(ch, how); };
    if (!c.canAuthenticate.empty())
      delegate->onCanAuthenticate = [yes = c.canAuthenticate == "yes"] { return yes; };
    std::size_t sent = server.requestCount();
    ZRBURLConnection::initWithRequest(requestFor(server.url("/")), delegate);
    ASSERT_TRUE(delegate->waitForEnd()) << label;
    if (kept) answer(kept, "trust");  // too late: dropped
    auto expected = c.events;
    if (c.code == 0) expected.insert(expected.end(), kLoaded.begin(), kLoaded.end());
    EXPECT_EQ(delegate->events(), expected) << label;
    EXPECT_FALSE(delegate->misplaced) << label;
    EXPECT_EQ(delegate->error ? delegate->error->code() : 0, c.code) << label;
    EXPECT_EQ(server.requestCount() - sent, c.code == 0 ? 1u : 0u) << label;
  }
}

TEST(URLConnectionTest, HTTPChallengesAreAnsweredOnTheDelegateQueue) {
  ZRBTestServer server;
  server.start();
  server.handle("GET", "/private", [](const ZRBTestRecordedRequest& request) {
    if (request.header("Authorization") == "Basic dXNlcjpwYXNz") return ZRBTestResponse::text(200, "inside");
    ZRBTestResponse response = ZRBTestResponse::text(401, "keep out");
    response.headers.add("WWW-Authenticate", "Basic realm=\"vault\"");
    return response;
  });
  struct Case {
    std::string how;
    long status, code;  // status 0: no response
    std::string body;
  };
  std::vector<Case> cases = {
      {"user", 200, 0, "inside"},      {"later", 200, 0, "inside"},
      {"without", 401, 0, "keep out"}, {"default", 401, 0, "keep out"},
      {"reject", 401, 0, "keep out"},  {"cancel", 0, ZRBURLErrorUserCancelledAuthentication, ""},
  };
  for (const auto& c : cases) {
    auto delegate = std::make_shared<Recorder>();
    delegate->queue = "com.orvelkit.test.http-challenge";
    delegate->onWillSend = [how = c.how](const ZRBURLAuthenticationChallengePtr& challenge) {
      EXPECT_EQ(challenge->protectionSpace()->realm(), "vault");
      answer(challenge, how);
    };
    auto connection = ZRBURLConnection::initWithRequest(requestFor(server.url("/private")), delegate, false);
    connection->setDelegateQueue(ZRBDispatchQueue::serial(delegate->queue));
    connection->start();
    ASSERT_TRUE(delegate->waitForEnd()) << c.how;
    EXPECT_FALSE(delegate->misplaced) << c.how;
    EXPECT_EQ(delegate->events().front(), "challenge http") << c.how;
    EXPECT_EQ(delegate->status, c.status) << c.how;
    EXPECT_EQ(delegate->body, c.body) << c.how;
    EXPECT_EQ(delegate->error ? delegate->error->code() : 0, c.code) << c.how;
  }
}

TEST(URLConnectionTest, CancelSilencesTheDelegateAndLetsItGo) {
  ZRBTestServer server;
  server.start();
  ZRBTestResponse slow = ZRBTestResponse::generated(1 << 20);
  slow.bytesPerSecond = 64 * 1024;
  server.respond("GET", "/slow", slow);
  auto delegate = std::make_shared<Recorder>();
  auto connection = ZRBURLConnection::initWithRequest(requestFor(server.url("/slow")), delegate);
  ASSERT_TRUE(eventually([&] { return delegate->events().size() == 2; }));  // response, data
  connection->cancel();
  EXPECT_EQ(connection->delegate(), nullptr);
  EXPECT_TRUE(eventually([&] { return delegate.use_count() == 1; })) << "the delegate is let go";
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(delegate->events(), (std::vector<std::string>{"response", "data"})) << "nothing after cancel";

  // Cancelled before its start, a connection never goes out.
  auto never = ZRBURLConnection::initWithRequest(requestFor(server.url("/slow")), delegate, false);
  never->cancel();
  never->start();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(delegate->events().size(), 2u);
}

TEST(URLConnectionTest, ARefusedPortEndsInTheFailCallback) {
  // Port 9 (discard) on loopback is closed on any machine running the tests.
  auto delegate = std::make_shared<Recorder>();
  ZRBURLConnection::connectionWithRequest(requestFor("http://127.0.0.1:9/"), delegate);
  ASSERT_TRUE(delegate->waitForEnd());
  EXPECT_EQ(delegate->events(), std::vector<std::string>{"fail"});
  EXPECT_EQ(delegate->error->code(), ZRBURLErrorCannotConnectToHost);
  EXPECT_FALSE(delegate->misplaced);
  // With nobody to tell, the connection still runs to its end.
  std::weak_ptr<ZRBURLConnection> quiet =
      ZRBURLConnection::initWithRequest(requestFor("http://127.0.0.1:9/"), nullptr);
  EXPECT_TRUE(eventually([&] { return quiet.expired(); }));
  EXPECT_THROW(ZRBURLConnection::initWithRequest(nullptr, delegate), ZRBAssertionFailure);
}

TEST(URLConnectionTest, ClassOperationsLoadWithoutADelegate) {
  ZRBTestServer server;
  server.start();
  server.respond("GET", "/ok", ZRBTestResponse::text(200, "fine"));
  server.respond("GET", "/missing", ZRBTestResponse::text(404, "no such thing"));
  struct Case {
    std::string url;
    long status, code;
    std::string body;
  };
  std::vector<Case> cases = {
      {server.url("/ok"), 200, 0, "fine"},
      {server.url("/missing"), 404, 0, "no such thing"},  // a status is not a failure
      {"http://127.0.0.1:9/", 0, ZRBURLErrorCannotConnectToHost, ""},
  };
  auto outcome = [](const ZRBURLResponsePtr& r, const ZRBValue& data, const ZRBErrorPtr& e) {
    auto http = std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(r);
    return std::to_string(http ? http->statusCode() : 0) + " " + std::to_string(e ? e->code() : 0) + " " +
           (data.isAbsent() ? "absent" : ZRBTestText(data));
  };
  for (const auto& c : cases) {
    std::string expected =
        std::to_string(c.status) + " " + std::to_string(c.code) + " " + (c.code ? "absent" : c.body);
    ZRBURLResponsePtr response;
    ZRBErrorPtr error;
    ZRBValue data = ZRBURLConnection::sendSynchronousRequest(requestFor(c.url), &response, &error);
    EXPECT_EQ(outcome(response, data, error), expected);

    std::promise<std::string> answered;
    auto queue = ZRBDispatchQueue::serial("com.orvelkit.test.async-send");
    ZRBURLConnection::sendAsynchronousRequest(requestFor(c.url), queue, [&](auto r, auto d, auto e) {
      bool onQueue = ZRBDispatch::currentQueueLabel() == "com.orvelkit.test.async-send";
      answered.set_value(outcome(r, d, e) + (onQueue ? "" : " off the queue"));
    });
    EXPECT_EQ(answered.get_future().get(), expected);
  }
  EXPECT_THROW(ZRBURLConnection::sendSynchronousRequest(nullptr), ZRBAssertionFailure);
}

TEST(URLConnectionTest, ReplacedSlotsCallTheImplementationsTheyReplaced) {
  const ZRBTestChain& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  ZRBTestServer server(ZRBTestServerOptions{.tls = chain});
  server.start();
  server.respond("GET", "/", ZRBTestResponse::text(200, "secret"));
  // Each replacement takes over the server-trust challenge, as an interposer would, and calls on.
  std::atomic<int> plainInits{0}, deferredInits{0}, syncSends{0};
  auto takeOver = [](const ZRBURLConnectionDelegatePtr& delegate) {
    std::static_pointer_cast<Recorder>(delegate)->onWillSend = [](auto c) { answer(c, "trust"); };
    return delegate;
  };
  // By name, as code that knows only the operation's name does.
  ZRBMethodReplacement::replace<ZRBURLConnectionPtr(ZRBURLRequestPtr, ZRBURLConnectionDelegatePtr)>(
      ZRBURLConnectionInitMethod, [&](auto previous) {
        return [&, previous](ZRBURLRequestPtr request, ZRBURLConnectionDelegatePtr delegate) {
          ++plainInits;
          return previous(std::move(request), takeOver(delegate));
        };
      });
  ZRBURLConnection::initStartImmediatelySlot().replace([&](auto previous) {
    return [&, previous](ZRBURLRequestPtr request, ZRBURLConnectionDelegatePtr delegate, bool start) {
      ++deferredInits;
      return previous(std::move(request), takeOver(delegate), start);
    };
  });
  ZRBURLConnection::sendSynchronousSlot().replace([&](auto previous) {
    return [&, previous](ZRBURLRequestPtr request, ZRBURLResponsePtr* response, ZRBErrorPtr* error) {
      ++syncSends;
      return previous(std::move(request), response, error);
    };
  });

  auto first = std::make_shared<Recorder>(), second = std::make_shared<Recorder>();
  ZRBURLConnection::connectionWithRequest(requestFor(server.url("/")), first);
  ZRBURLConnection::initWithRequest(requestFor(server.url("/")), second, true);
  for (const auto& delegate : {first, second}) {
    ASSERT_TRUE(delegate->waitForEnd());
    EXPECT_EQ(delegate->events(),
              (std::vector<std::string>{"challenge trust", "response", "data", "finish"}));
  }
  // Each form went through its own slot once.
  EXPECT_EQ(plainInits, 1);
  EXPECT_EQ(deferredInits, 1);
  ZRBErrorPtr error;
  ZRBURLConnection::sendSynchronousRequest(requestFor(server.url("/")), nullptr, &error);
  EXPECT_EQ(syncSends, 1);
  EXPECT_EQ(error ? error->code() : 0, ZRBURLErrorServerCertificateUntrusted) << "no delegate, no test root";

  ZRBURLConnection::initSlot().reset();
  ZRBURLConnection::initStartImmediatelySlot().reset();
  ZRBURLConnection::sendSynchronousSlot().reset();
}

TEST(URLConnectionTest, DelegatesAnswerTheirClassNames) {
  EXPECT_EQ(std::make_shared<Recorder>()->className(), "RecordingConnectionDelegate");
  EXPECT_EQ(std::make_shared<PGDNamedConnectionDelegate>()->className(), "PGDNamedConnectionDelegate");
  EXPECT_EQ(std::make_shared<ZRBURLConnectionDelegate>()->className(), "ZRBURLConnectionDelegate");
}

}  // namespace
