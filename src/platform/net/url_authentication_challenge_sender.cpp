#include "platform/net/url_authentication_challenge_sender.h"

#include <cstdio>
#include <exception>
#include <utility>

ZRBURLSessionChallengeSender::ZRBURLSessionChallengeSender(ZRBURLSessionChallengeCompletion completion)
    : completion_(std::move(completion)) {}

ZRBURLSessionChallengeSender::~ZRBURLSessionChallengeSender() {
  if (answered_.load(std::memory_order_acquire)) return;
  try {
    answer(ZRBURLSessionAuthChallengeCancelAuthenticationChallenge, nullptr);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "ORVELKIT: answering a dropped challenge failed: %s\n", exception.what());
  }
}

ZRBURLAuthenticationChallengePtr ZRBURLSessionChallengeSender::challengeWithCompletion(
    const ZRBURLAuthenticationChallenge& challenge, ZRBURLSessionChallengeCompletion completion) {
  return std::make_shared<ZRBURLAuthenticationChallenge>(
      challenge, std::make_shared<ZRBURLSessionChallengeSender>(std::move(completion)));
}

void ZRBURLSessionChallengeSender::answer(ZRBURLSessionAuthChallengeDisposition disposition,
                                          ZRBURLCredentialPtr credential) {
  if (answered_.exchange(true, std::memory_order_acq_rel)) return;
  // Released once used: whatever the handler captured need not live as long as the challenge.
  ZRBURLSessionChallengeCompletion completion = std::move(completion_);
  if (completion) completion(disposition, std::move(credential));
}

void ZRBURLSessionChallengeSender::useCredential(const ZRBURLCredentialPtr& credential,
                                                 const ZRBURLAuthenticationChallengePtr&) {
  answer(ZRBURLSessionAuthChallengeUseCredential, credential);
}

void ZRBURLSessionChallengeSender::continueWithoutCredentialForAuthenticationChallenge(
    const ZRBURLAuthenticationChallengePtr&) {
  // A use-credential answer without a credential: the session goes on as it would unaided.
  answer(ZRBURLSessionAuthChallengeUseCredential, nullptr);
}

void ZRBURLSessionChallengeSender::cancelAuthenticationChallenge(const ZRBURLAuthenticationChallengePtr&) {
  answer(ZRBURLSessionAuthChallengeCancelAuthenticationChallenge, nullptr);
}

void ZRBURLSessionChallengeSender::performDefaultHandlingForAuthenticationChallenge(
    const ZRBURLAuthenticationChallengePtr&) {
  answer(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
}

void ZRBURLSessionChallengeSender::rejectProtectionSpaceAndContinueWithChallenge(
    const ZRBURLAuthenticationChallengePtr&) {
  answer(ZRBURLSessionAuthChallengeRejectProtectionSpace, nullptr);
}
