#include "platform/net/url_connection_delegate.h"

bool ZRBURLConnectionDelegate::respondsToOperation(ZRBURLConnectionDelegateOperation operation) const {
  using Op = ZRBURLConnectionDelegateOperation;
  switch (operation) {
    case Op::ConnectionWillSendRequestForAuthenticationChallenge:
    case Op::ConnectionCanAuthenticateAgainstProtectionSpace:
    case Op::ConnectionDidReceiveAuthenticationChallenge: return false;
    default: return true;
  }
}

void ZRBURLConnectionDelegate::connectionWillSendRequestForAuthenticationChallenge(
    const ZRBURLConnectionPtr&, const ZRBURLAuthenticationChallengePtr& challenge) {
  if (challenge && challenge->sender())
    challenge->sender()->performDefaultHandlingForAuthenticationChallenge(challenge);
}

bool ZRBURLConnectionDelegate::connectionCanAuthenticateAgainstProtectionSpace(
    const ZRBURLConnectionPtr&, const ZRBURLProtectionSpacePtr& protectionSpace) {
  if (!protectionSpace) return false;
  const std::string& method = protectionSpace->authenticationMethod();
  return method != ZRBURLAuthenticationMethodServerTrust &&
         method != ZRBURLAuthenticationMethodClientCertificate;
}

void ZRBURLConnectionDelegate::connectionDidReceiveAuthenticationChallenge(
    const ZRBURLConnectionPtr&, const ZRBURLAuthenticationChallengePtr& challenge) {
  if (challenge && challenge->sender())
    challenge->sender()->performDefaultHandlingForAuthenticationChallenge(challenge);
}

void ZRBURLConnectionDelegate::connectionDidReceiveResponse(const ZRBURLConnectionPtr&,
                                                            const ZRBURLResponsePtr&) {}

void ZRBURLConnectionDelegate::connectionDidReceiveData(const ZRBURLConnectionPtr&, const ZRBValue&) {}

void ZRBURLConnectionDelegate::connectionDidSendBodyData(const ZRBURLConnectionPtr&, std::int64_t,
                                                         std::int64_t, std::int64_t) {}

void ZRBURLConnectionDelegate::connectionDidFinishLoading(const ZRBURLConnectionPtr&) {}

void ZRBURLConnectionDelegate::connectionDidFailWithError(const ZRBURLConnectionPtr&, const ZRBErrorPtr&) {}
