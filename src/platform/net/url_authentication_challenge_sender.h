// ZRBURLAuthenticationChallengeSender: how the handler of a connection's authentication challenge
// answers it, and the sender that turns those answers into a session's dispositions.
//
// The five answers and what the load does next:
// - useCredential: goes on with the credential (a server-trust credential accepts the chain, a user
//   and password retry the request);
// - continueWithoutCredentialForAuthenticationChallenge: goes on without one: server trust gets the
//   system's own verification, an HTTP challenge delivers the 401/407 response;
// - cancelAuthenticationChallenge: the load fails (ZRBURLErrorUserCancelledAuthentication on a
//   connection);
// - performDefaultHandlingForAuthenticationChallenge: as if nobody had handled the challenge;
// - rejectProtectionSpaceAndContinueWithChallenge: there is no other protection space to try, so
//   as default handling.
//
// A challenge is answered once: answers after the first are ignored. Every operation is
// thread-safe.
#pragma once

#include <atomic>
#include <memory>

#include "platform/foundation/object.h"
#include "platform/net/url_authentication.h"

class ZRBURLAuthenticationChallengeSender : public ZRBObject {
 public:
  virtual void useCredential(const ZRBURLCredentialPtr& credential,
                             const ZRBURLAuthenticationChallengePtr& challenge) = 0;
  virtual void continueWithoutCredentialForAuthenticationChallenge(
      const ZRBURLAuthenticationChallengePtr& challenge) = 0;
  virtual void cancelAuthenticationChallenge(const ZRBURLAuthenticationChallengePtr& challenge) = 0;
  virtual void performDefaultHandlingForAuthenticationChallenge(
      const ZRBURLAuthenticationChallengePtr& challenge) = 0;
  virtual void rejectProtectionSpaceAndContinueWithChallenge(
      const ZRBURLAuthenticationChallengePtr& challenge) = 0;
};

using ZRBURLAuthenticationChallengeSenderPtr = std::shared_ptr<ZRBURLAuthenticationChallengeSender>;

// Answers a session's challenge completion handler. The first answer is passed on; a sender that
// goes away unanswered cancels the challenge, so a handler that drops a challenge cannot leave
// the load waiting for ever.
class ZRBURLSessionChallengeSender final : public ZRBURLAuthenticationChallengeSender {
 public:
  explicit ZRBURLSessionChallengeSender(ZRBURLSessionChallengeCompletion completion);
  ~ZRBURLSessionChallengeSender() override;

  // `challenge` answered through a new sender that calls `completion`.
  static ZRBURLAuthenticationChallengePtr challengeWithCompletion(
      const ZRBURLAuthenticationChallenge& challenge, ZRBURLSessionChallengeCompletion completion);

  void useCredential(const ZRBURLCredentialPtr& credential,
                     const ZRBURLAuthenticationChallengePtr& challenge) override;
  void continueWithoutCredentialForAuthenticationChallenge(
      const ZRBURLAuthenticationChallengePtr& challenge) override;
  void cancelAuthenticationChallenge(const ZRBURLAuthenticationChallengePtr& challenge) override;
  void performDefaultHandlingForAuthenticationChallenge(
      const ZRBURLAuthenticationChallengePtr& challenge) override;
  void rejectProtectionSpaceAndContinueWithChallenge(
      const ZRBURLAuthenticationChallengePtr& challenge) override;

  bool isAnswered() const { return answered_.load(std::memory_order_acquire); }

  std::string className() const override { return "ZRBURLSessionChallengeSender"; }

 private:
  void answer(ZRBURLSessionAuthChallengeDisposition disposition, ZRBURLCredentialPtr credential);

  ZRBURLSessionChallengeCompletion completion_;
  std::atomic<bool> answered_{false};
};
