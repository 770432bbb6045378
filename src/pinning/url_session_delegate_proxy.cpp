#include "pinning/url_session_delegate_proxy.h"

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

using Construction = SlotSignature<ZRBURLSessionConstructionSlot>::type;

}  // namespace

void ZRB_PGDNSURLSessionDelegateProxy::swizzleNSURLSessionConstructors(const ZRB_PinGuardPtr& pinGuard) {
  ZRBMethodReplacement::replace<Construction>(
      ZRBURLSessionConstructionMethod, [pinGuard](ZRBURLSessionConstructionSlot::Function previous) {
        return [pinGuard, previous = std::move(previous)](
                   std::shared_ptr<ZRBURLSessionConfiguration> configuration,
                   std::shared_ptr<ZRBURLSessionDelegate> delegate, ZRBDispatchQueuePtr delegateQueue) {
          if (delegate && !ZRB_PGDIsPinGuardClassName(delegate->className())) {
            ZRB_PGDLog("Proxy-ing NSURLSessionDelegate: %@", delegate);
            delegate = initWithPinGuard(pinGuard, std::move(delegate));
          }
          return previous(std::move(configuration), std::move(delegate), std::move(delegateQueue));
        };
      });
}

ZRB_PGDNSURLSessionDelegateProxyPtr ZRB_PGDNSURLSessionDelegateProxy::initWithPinGuard(
    ZRB_PinGuardPtr pinGuard, ZRBURLSessionDelegatePtr sessionDelegate) {
  return std::make_shared<ZRB_PGDNSURLSessionDelegateProxy>(Private{}, std::move(pinGuard),
                                                            std::move(sessionDelegate));
}

ZRB_PGDNSURLSessionDelegateProxy::ZRB_PGDNSURLSessionDelegateProxy(Private, ZRB_PinGuardPtr pinGuard,
                                                                   ZRBURLSessionDelegatePtr sessionDelegate)
    : pinGuard_(std::move(pinGuard)), sessionDelegate_(std::move(sessionDelegate)) {}

bool ZRB_PGDNSURLSessionDelegateProxy::respondsToOperation(ZRBURLSessionDelegateOperation operation) const {
  if (operation == ZRBURLSessionDelegateOperation::SessionDidReceiveChallenge ||
      operation == ZRBURLSessionDelegateOperation::TaskDidReceiveChallenge) {
    return true;
  }
  return sessionDelegate_ ? sessionDelegate_->respondsToOperation(operation)
                          : ZRBURLSessionDelegate::respondsToOperation(operation);
}

bool ZRB_PGDNSURLSessionDelegateProxy::common_URLSession(
    const ZRBURLSessionPtr&, const ZRBURLAuthenticationChallengePtr& challenge,
    const ZRBURLSessionChallengeCompletion& completion) const {
  if (!challenge || !pinGuard_) return false;
  const ZRBURLProtectionSpacePtr& space = challenge->protectionSpace();
  if (!space || space->authenticationMethod() != ZRBURLAuthenticationMethodServerTrust) return false;
  const ZRBSecTrustPtr& trust = space->serverTrust();
  switch (pinGuard_->pinningValidator()->evaluateTrust(trust, space->host())) {
    case PGDTrustDecisionShouldAllowConnection:
      completion(ZRBURLSessionAuthChallengeUseCredential, ZRBURLCredential::credentialForTrust(trust));
      return true;
    case PGDTrustDecisionShouldBlockConnection:
      completion(ZRBURLSessionAuthChallengeCancelAuthenticationChallenge, nullptr);
      return true;
    default: return false;
  }
}

void ZRB_PGDNSURLSessionDelegateProxy::sessionDidReceiveChallenge(
    const ZRBURLSessionPtr& session, const ZRBURLAuthenticationChallengePtr& challenge,
    ZRBURLSessionChallengeCompletion completion) {
  if (common_URLSession(session, challenge, completion)) return;
  if (sessionDelegate_ &&
      sessionDelegate_->respondsToOperation(ZRBURLSessionDelegateOperation::SessionDidReceiveChallenge)) {
    return sessionDelegate_->sessionDidReceiveChallenge(session, challenge, std::move(completion));
  }
  completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
}

void ZRB_PGDNSURLSessionDelegateProxy::taskDidReceiveChallenge(
    const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
    const ZRBURLAuthenticationChallengePtr& challenge, ZRBURLSessionChallengeCompletion completion) {
  if (common_URLSession(session, challenge, completion)) return;
  if (sessionDelegate_ &&
      sessionDelegate_->respondsToOperation(ZRBURLSessionDelegateOperation::TaskDidReceiveChallenge)) {
    return sessionDelegate_->taskDidReceiveChallenge(session, task, challenge, std::move(completion));
  }
  completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
}

// ---- forwarding: with no delegate, the platform's defaults ----

#define ZRB_PGD_FORWARD(call)                            \
  do {                                                   \
    if (sessionDelegate_) return sessionDelegate_->call; \
    return ZRBURLSessionDelegate::call;                  \
  } while (false)

void ZRB_PGDNSURLSessionDelegateProxy::sessionDidBecomeInvalid(const ZRBURLSessionPtr& session,
                                                               ZRBErrorPtr error) {
  ZRB_PGD_FORWARD(sessionDidBecomeInvalid(session, std::move(error)));
}

void ZRB_PGDNSURLSessionDelegateProxy::sessionDidFinishEventsForBackgroundURLSession(
    const ZRBURLSessionPtr& session) {
  ZRB_PGD_FORWARD(sessionDidFinishEventsForBackgroundURLSession(session));
}

void ZRB_PGDNSURLSessionDelegateProxy::taskWillPerformHTTPRedirection(
    const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task, const ZRBHTTPURLResponsePtr& response,
    ZRBURLRequestPtr request, std::function<void(ZRBURLRequestPtr)> completion) {
  ZRB_PGD_FORWARD(
      taskWillPerformHTTPRedirection(session, task, response, std::move(request), std::move(completion)));
}

void ZRB_PGDNSURLSessionDelegateProxy::taskNeedNewBodyStream(
    const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
    std::function<void(ZRBInputStreamPtr)> completion) {
  ZRB_PGD_FORWARD(taskNeedNewBodyStream(session, task, std::move(completion)));
}

void ZRB_PGDNSURLSessionDelegateProxy::taskDidSendBodyData(const ZRBURLSessionPtr& session,
                                                           const ZRBURLSessionTaskPtr& task,
                                                           std::int64_t bytesSent,
                                                           std::int64_t totalBytesSent,
                                                           std::int64_t totalBytesExpectedToSend) {
  ZRB_PGD_FORWARD(taskDidSendBodyData(session, task, bytesSent, totalBytesSent, totalBytesExpectedToSend));
}

void ZRB_PGDNSURLSessionDelegateProxy::taskDidComplete(const ZRBURLSessionPtr& session,
                                                       const ZRBURLSessionTaskPtr& task, ZRBErrorPtr error) {
  ZRB_PGD_FORWARD(taskDidComplete(session, task, std::move(error)));
}

void ZRB_PGDNSURLSessionDelegateProxy::dataTaskDidReceiveResponse(
    const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task, const ZRBURLResponsePtr& response,
    std::function<void(ZRBURLSessionResponseDisposition)> completion) {
  ZRB_PGD_FORWARD(dataTaskDidReceiveResponse(session, task, response, std::move(completion)));
}

void ZRB_PGDNSURLSessionDelegateProxy::dataTaskDidBecomeDownloadTask(
    const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
    const ZRBURLSessionDownloadTaskPtr& downloadTask) {
  ZRB_PGD_FORWARD(dataTaskDidBecomeDownloadTask(session, task, downloadTask));
}

void ZRB_PGDNSURLSessionDelegateProxy::dataTaskDidReceiveData(const ZRBURLSessionPtr& session,
                                                              const ZRBURLSessionDataTaskPtr& task,
                                                              const ZRBValue& data) {
  ZRB_PGD_FORWARD(dataTaskDidReceiveData(session, task, data));
}

void ZRB_PGDNSURLSessionDelegateProxy::dataTaskWillCacheResponse(
    const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
    const ZRBCachedURLResponsePtr& proposedResponse,
    std::function<void(ZRBCachedURLResponsePtr)> completion) {
  ZRB_PGD_FORWARD(dataTaskWillCacheResponse(session, task, proposedResponse, std::move(completion)));
}

void ZRB_PGDNSURLSessionDelegateProxy::downloadTaskDidFinishDownloading(
    const ZRBURLSessionPtr& session, const ZRBURLSessionDownloadTaskPtr& task, const ZRBURLPtr& location) {
  ZRB_PGD_FORWARD(downloadTaskDidFinishDownloading(session, task, location));
}

void ZRB_PGDNSURLSessionDelegateProxy::downloadTaskDidWriteData(const ZRBURLSessionPtr& session,
                                                                const ZRBURLSessionDownloadTaskPtr& task,
                                                                std::int64_t bytesWritten,
                                                                std::int64_t totalBytesWritten,
                                                                std::int64_t totalBytesExpectedToWrite) {
  ZRB_PGD_FORWARD(
      downloadTaskDidWriteData(session, task, bytesWritten, totalBytesWritten, totalBytesExpectedToWrite));
}

void ZRB_PGDNSURLSessionDelegateProxy::downloadTaskDidResume(const ZRBURLSessionPtr& session,
                                                             const ZRBURLSessionDownloadTaskPtr& task,
                                                             std::int64_t fileOffset,
                                                             std::int64_t expectedTotalBytes) {
  ZRB_PGD_FORWARD(downloadTaskDidResume(session, task, fileOffset, expectedTotalBytes));
}

#undef ZRB_PGD_FORWARD
