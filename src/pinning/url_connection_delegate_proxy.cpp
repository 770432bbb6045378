#include "pinning/url_connection_delegate_proxy.h"

#include <utility>

#include "pinning/delegate_proxy_name.h"
#include "pinning/pgd_log.h"
#include "pinning/pin_guard.h"
#include "platform/runtime/method_replacement.h"

namespace {

template <typename Slot>
struct SlotSignature;
template <typename Signature>
struct SlotSignature<ZRBReplaceableSlot<Signature>> {
  using type = Signature;
};

using Op = ZRBURLConnectionDelegateOperation;

ZRBURLConnectionDelegatePtr proxied(const ZRB_PinGuardPtr& pinGuard, ZRBURLConnectionDelegatePtr delegate) {
  if (!delegate || ZRB_PGDIsPinGuardClassName(delegate->className())) return delegate;
  ZRB_PGDLog("Proxy-ing NSURLConnectionDelegate: %@", delegate);
  return ZRB_PGDNSURLConnectionDelegateProxy::initWithPinGuard(pinGuard, std::move(delegate));
}

std::string hostOf(const ZRBURLRequestPtr& request) {
  ZRBURLPtr url = request ? request->URL() : nullptr;
  return url ? url->host().value_or("") : "";
}

}  // namespace

void ZRB_PGDNSURLConnectionDelegateProxy::swizzleNSURLConnectionConstructors(
    const ZRB_PinGuardPtr& pinGuard) {
  ZRBMethodReplacement::replace<SlotSignature<ZRBURLConnectionInitSlot>::type>(
      ZRBURLConnectionInitMethod, [pinGuard](ZRBURLConnectionInitSlot::Function previous) {
        return [pinGuard, previous = std::move(previous)](ZRBURLRequestPtr request,
                                                          ZRBURLConnectionDelegatePtr delegate) {
          return previous(std::move(request), proxied(pinGuard, std::move(delegate)));
        };
      });
  ZRBMethodReplacement::replace<SlotSignature<ZRBURLConnectionInitStartImmediatelySlot>::type>(
      ZRBURLConnectionInitStartImmediatelyMethod,
      [pinGuard](ZRBURLConnectionInitStartImmediatelySlot::Function previous) {
        return [pinGuard, previous = std::move(previous)](
                   ZRBURLRequestPtr request, ZRBURLConnectionDelegatePtr delegate, bool startImmediately) {
          return previous(std::move(request), proxied(pinGuard, std::move(delegate)), startImmediately);
        };
      });
  ZRBMethodReplacement::replace<SlotSignature<ZRBURLConnectionSendAsynchronousSlot>::type>(
      ZRBURLConnectionSendAsynchronousMethod, [](ZRBURLConnectionSendAsynchronousSlot::Function previous) {
        return [previous = std::move(previous)](ZRBURLRequestPtr request, ZRBDispatchQueuePtr queue,
                                                ZRBURLConnectionCompletionHandler handler) {
          ZRB_PGDLog(
              "WARNING: +sendAsynchronousRequest:queue:completionHandler: was called to connect to %@. This "
              "method does not expose a delegate argument for handling authentication challenges; PinGuard "
              "cannot enforce SSL pinning for these connections",
              hostOf(request));
          previous(std::move(request), std::move(queue), std::move(handler));
        };
      });
  ZRBMethodReplacement::replace<SlotSignature<ZRBURLConnectionSendSynchronousSlot>::type>(
      ZRBURLConnectionSendSynchronousMethod, [](ZRBURLConnectionSendSynchronousSlot::Function previous) {
        return [previous = std::move(previous)](ZRBURLRequestPtr request,
                                                std::shared_ptr<const ZRBURLResponse>* response,
                                                ZRBErrorPtr* error) {
          ZRB_PGDLog(
              "WARNING: +sendSynchronousRequest:returningResponse:error: was called to connect to %@. This "
              "method does not expose a delegate argument for handling authentication challenges; PinGuard "
              "cannot enforce SSL pinning for these connections",
              hostOf(request));
          return previous(std::move(request), response, error);
        };
      });
}

ZRB_PGDNSURLConnectionDelegateProxyPtr ZRB_PGDNSURLConnectionDelegateProxy::initWithPinGuard(
    ZRB_PinGuardPtr pinGuard, ZRBURLConnectionDelegatePtr connectionDelegate) {
  return std::make_shared<ZRB_PGDNSURLConnectionDelegateProxy>(Private{}, std::move(pinGuard),
                                                               std::move(connectionDelegate));
}

ZRB_PGDNSURLConnectionDelegateProxy::ZRB_PGDNSURLConnectionDelegateProxy(
    Private, ZRB_PinGuardPtr pinGuard, ZRBURLConnectionDelegatePtr connectionDelegate)
    : pinGuard_(std::move(pinGuard)), connectionDelegate_(std::move(connectionDelegate)) {}

bool ZRB_PGDNSURLConnectionDelegateProxy::respondsToOperation(Op operation) const {
  if (operation == Op::ConnectionWillSendRequestForAuthenticationChallenge) return true;
  return connectionDelegate_ ? connectionDelegate_->respondsToOperation(operation)
                             : ZRBURLConnectionDelegate::respondsToOperation(operation);
}

void ZRB_PGDNSURLConnectionDelegateProxy::connectionWillSendRequestForAuthenticationChallenge(
    const ZRBURLConnectionPtr& connection, const ZRBURLAuthenticationChallengePtr& challenge) {
  if (!challenge) return;
  const ZRBURLProtectionSpacePtr& space = challenge->protectionSpace();
  const auto& sender = challenge->sender();
  if (pinGuard_ && sender && space &&
      space->authenticationMethod() == ZRBURLAuthenticationMethodServerTrust) {
    const ZRBSecTrustPtr& trust = space->serverTrust();
    switch (pinGuard_->pinningValidator()->evaluateTrust(trust, space->host())) {
      case PGDTrustDecisionShouldBlockConnection: return sender->cancelAuthenticationChallenge(challenge);
      case PGDTrustDecisionShouldAllowConnection:
        return sender->useCredential(ZRBURLCredential::credentialForTrust(trust), challenge);
      default: break;
    }
  }
  forwardToOriginalDelegateAuthenticationChallenge(challenge, connection);
}

void ZRB_PGDNSURLConnectionDelegateProxy::forwardToOriginalDelegateAuthenticationChallenge(
    const ZRBURLAuthenticationChallengePtr& challenge, const ZRBURLConnectionPtr& connection) {
  if (!challenge) return;
  const auto& delegate = connectionDelegate_;
  if (delegate && delegate->respondsToOperation(Op::ConnectionWillSendRequestForAuthenticationChallenge)) {
    return delegate->connectionWillSendRequestForAuthenticationChallenge(connection, challenge);
  }
  if (delegate && delegate->respondsToOperation(Op::ConnectionCanAuthenticateAgainstProtectionSpace) &&
      delegate->respondsToOperation(Op::ConnectionDidReceiveAuthenticationChallenge)) {
    if (delegate->connectionCanAuthenticateAgainstProtectionSpace(connection, challenge->protectionSpace())) {
      return delegate->connectionDidReceiveAuthenticationChallenge(connection, challenge);
    }
  }
  if (const auto& sender = challenge->sender())
    sender->performDefaultHandlingForAuthenticationChallenge(challenge);
}

// ---- forwarding: with no delegate, the platform's defaults ----

#define ZRB_PGD_FORWARD(call)                                  \
  do {                                                         \
    if (connectionDelegate_) return connectionDelegate_->call; \
    return ZRBURLConnectionDelegate::call;                     \
  } while (false)

bool ZRB_PGDNSURLConnectionDelegateProxy::connectionCanAuthenticateAgainstProtectionSpace(
    const ZRBURLConnectionPtr& connection, const ZRBURLProtectionSpacePtr& protectionSpace) {
  ZRB_PGD_FORWARD(connectionCanAuthenticateAgainstProtectionSpace(connection, protectionSpace));
}

void ZRB_PGDNSURLConnectionDelegateProxy::connectionDidReceiveAuthenticationChallenge(
    const ZRBURLConnectionPtr& connection, const ZRBURLAuthenticationChallengePtr& challenge) {
  ZRB_PGD_FORWARD(connectionDidReceiveAuthenticationChallenge(connection, challenge));
}

void ZRB_PGDNSURLConnectionDelegateProxy::connectionDidReceiveResponse(const ZRBURLConnectionPtr& connection,
                                                                       const ZRBURLResponsePtr& response) {
  ZRB_PGD_FORWARD(connectionDidReceiveResponse(connection, response));
}

void ZRB_PGDNSURLConnectionDelegateProxy::connectionDidReceiveData(const ZRBURLConnectionPtr& connection,
                                                                   const ZRBValue& data) {
  ZRB_PGD_FORWARD(connectionDidReceiveData(connection, data));
}

void ZRB_PGDNSURLConnectionDelegateProxy::connectionDidSendBodyData(const ZRBURLConnectionPtr& connection,
                                                                    std::int64_t bytesWritten,
                                                                    std::int64_t totalBytesWritten,
                                                                    std::int64_t totalBytesExpectedToWrite) {
  ZRB_PGD_FORWARD(
      connectionDidSendBodyData(connection, bytesWritten, totalBytesWritten, totalBytesExpectedToWrite));
}

void ZRB_PGDNSURLConnectionDelegateProxy::connectionDidFinishLoading(const ZRBURLConnectionPtr& connection) {
  ZRB_PGD_FORWARD(connectionDidFinishLoading(connection));
}

void ZRB_PGDNSURLConnectionDelegateProxy::connectionDidFailWithError(const ZRBURLConnectionPtr& connection,
                                                                     const ZRBErrorPtr& error) {
  ZRB_PGD_FORWARD(connectionDidFailWithError(connection, error));
}

#undef ZRB_PGD_FORWARD
