// A connection delegate for the URL connection tests, and answers to challenges by name.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/net/url_connection.h"
#include "platform/runtime/dispatch.h"

inline std::string ZRBTestText(const ZRBValue& data) {
  auto bytes = data.bytes();
  return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// Records a connection's callbacks in order ("response", "data" once per run of chunks, "finish",
// "fail", "challenge trust", "older challenge http", "can authenticate"...) and whether each ran
// where it should: on the delegate queue, or, for server trust, off it.
class RecordingConnectionDelegate : public ZRBURLConnectionDelegate {
 public:
  // The challenge operations are implemented when set.
  std::function<void(const ZRBURLAuthenticationChallengePtr&)> onWillSend, onDidReceive;
  std::function<bool()> onCanAuthenticate;
  std::string queue;  // label of the delegate queue; empty: the main queue

  bool respondsToOperation(ZRBURLConnectionDelegateOperation operation) const override {
    using Op = ZRBURLConnectionDelegateOperation;
    if (operation == Op::ConnectionWillSendRequestForAuthenticationChallenge) return bool(onWillSend);
    if (operation == Op::ConnectionDidReceiveAuthenticationChallenge) return bool(onDidReceive);
    if (operation == Op::ConnectionCanAuthenticateAgainstProtectionSpace) return bool(onCanAuthenticate);
    return true;
  }
  void connectionWillSendRequestForAuthenticationChallenge(
      const ZRBURLConnectionPtr&, const ZRBURLAuthenticationChallengePtr& c) override {
    challenge("challenge", c, onWillSend);
  }
  bool connectionCanAuthenticateAgainstProtectionSpace(const ZRBURLConnectionPtr&,
                                                       const ZRBURLProtectionSpacePtr&) override {
    record("can authenticate", false);
    return onCanAuthenticate();
  }
  void connectionDidReceiveAuthenticationChallenge(const ZRBURLConnectionPtr&,
                                                   const ZRBURLAuthenticationChallengePtr& c) override {
    challenge("older challenge", c, onDidReceive);
  }
  void connectionDidReceiveResponse(const ZRBURLConnectionPtr&, const ZRBURLResponsePtr& response) override {
    status = std::static_pointer_cast<const ZRBHTTPURLResponse>(response)->statusCode();
    record("response");
  }
  void connectionDidReceiveData(const ZRBURLConnectionPtr&, const ZRBValue& data) override {
    body += ZRBTestText(data);
    record("data");
  }
  void connectionDidFinishLoading(const ZRBURLConnectionPtr&) override { record("finish"); }
  void connectionDidFailWithError(const ZRBURLConnectionPtr&, const ZRBErrorPtr& e) override {
    error = e;
    record("fail");
  }

  bool waitForEnd() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] {
      return !events_.empty() && (events_.back() == "finish" || events_.back() == "fail");
    });
  }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }

  std::string body;
  ZRBErrorPtr error;
  long status = 0;
  std::atomic<bool> misplaced{false};  // a callback ran off its queue, or server trust on it

 private:
  void challenge(std::string name, const ZRBURLAuthenticationChallengePtr& c,
                 const std::function<void(const ZRBURLAuthenticationChallengePtr&)>& handler) {
    bool trust = c->protectionSpace()->authenticationMethod() == ZRBURLAuthenticationMethodServerTrust;
    // Server trust is decided in the handshake, on the transport thread.
    if (trust && onQueue()) misplaced = true;
    record(name + (trust ? " trust" : " http"), !trust);
    handler(c);
  }
  bool onQueue() const {
    return queue.empty() ? ZRBDispatch::isMainQueue() : ZRBDispatch::currentQueueLabel() == queue;
  }
  void record(const std::string& event, bool checkQueue = true) {
    if (checkQueue && !onQueue()) misplaced = true;
    {
      std::lock_guard lock(mutex_);
      if (event != "data" || events_.empty() || events_.back() != "data") events_.push_back(event);
    }
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

// Answers through the challenge's sender: "trust" (a credential for the server's trust), "user"
// (user / pass), "without", "cancel", "default", "reject", "later" (user / pass from another
// thread, after returning); anything else leaves it unanswered.
inline void ZRBTestAnswerChallenge(const ZRBURLAuthenticationChallengePtr& c, const std::string& how) {
  auto& sender = *c->sender();
  if (how == "trust")
    sender.useCredential(ZRBURLCredential::credentialForTrust(c->protectionSpace()->serverTrust()), c);
  if (how == "user")
    sender.useCredential(
        ZRBURLCredential::credentialWithUser("user", "pass", ZRBURLCredentialPersistenceNone), c);
  if (how == "without") sender.continueWithoutCredentialForAuthenticationChallenge(c);
  if (how == "cancel") sender.cancelAuthenticationChallenge(c);
  if (how == "default") sender.performDefaultHandlingForAuthenticationChallenge(c);
  if (how == "reject") sender.rejectProtectionSpaceAndContinueWithChallenge(c);
  if (how == "later") std::thread([c] { ZRBTestAnswerChallenge(c, "user"); }).detach();
}
