#include "platform/net/url_session_delegate.h"

bool ZRBURLSessionDelegate::respondsToOperation(ZRBURLSessionDelegateOperation operation) const {
  using Op = ZRBURLSessionDelegateOperation;
  switch (operation) {
    case Op::SessionDidReceiveChallenge:
    case Op::SessionDidFinishEventsForBackgroundURLSession:
    case Op::TaskWillPerformHTTPRedirection:
    case Op::TaskDidReceiveChallenge:
    case Op::TaskNeedNewBodyStream:
    case Op::DataTaskDidReceiveResponse:
    case Op::DataTaskWillCacheResponse: return false;
    default: return true;
  }
}

void ZRBURLSessionDelegate::sessionDidBecomeInvalid(const ZRBURLSessionPtr&, ZRBErrorPtr) {}

void ZRBURLSessionDelegate::sessionDidReceiveChallenge(const ZRBURLSessionPtr&,
                                                       const ZRBURLAuthenticationChallengePtr&,
                                                       ZRBURLSessionChallengeCompletion completion) {
  completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
}

void ZRBURLSessionDelegate::sessionDidFinishEventsForBackgroundURLSession(const ZRBURLSessionPtr&) {}

void ZRBURLSessionDelegate::taskWillPerformHTTPRedirection(const ZRBURLSessionPtr&,
                                                           const ZRBURLSessionTaskPtr&,
                                                           const ZRBHTTPURLResponsePtr&,
                                                           ZRBURLRequestPtr request,
                                                           std::function<void(ZRBURLRequestPtr)> completion) {
  completion(std::move(request));
}

void ZRBURLSessionDelegate::taskDidReceiveChallenge(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                                                    const ZRBURLAuthenticationChallengePtr&,
                                                    ZRBURLSessionChallengeCompletion completion) {
  completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
}

void ZRBURLSessionDelegate::taskNeedNewBodyStream(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr& task,
                                                  std::function<void(ZRBInputStreamPtr)> completion) {
  ZRBURLRequestPtr original = task ? task->originalRequest() : nullptr;
  completion(original && original->HTTPBodyStream() ? original->HTTPBodyStream()->copyStream() : nullptr);
}

void ZRBURLSessionDelegate::taskDidSendBodyData(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                                                std::int64_t, std::int64_t, std::int64_t) {}

void ZRBURLSessionDelegate::taskDidComplete(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                                            ZRBErrorPtr) {}

void ZRBURLSessionDelegate::dataTaskDidReceiveResponse(
    const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&, const ZRBURLResponsePtr&,
    std::function<void(ZRBURLSessionResponseDisposition)> completion) {
  completion(ZRBURLSessionResponseAllow);
}

void ZRBURLSessionDelegate::dataTaskDidBecomeDownloadTask(const ZRBURLSessionPtr&,
                                                          const ZRBURLSessionDataTaskPtr&,
                                                          const ZRBURLSessionDownloadTaskPtr&) {}

void ZRBURLSessionDelegate::dataTaskDidReceiveData(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&,
                                                   const ZRBValue&) {}

void ZRBURLSessionDelegate::dataTaskWillCacheResponse(
    const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&, const ZRBCachedURLResponsePtr& proposedResponse,
    std::function<void(ZRBCachedURLResponsePtr)> completion) {
  completion(proposedResponse);
}

void ZRBURLSessionDelegate::downloadTaskDidFinishDownloading(const ZRBURLSessionPtr&,
                                                             const ZRBURLSessionDownloadTaskPtr&,
                                                             const ZRBURLPtr&) {}

void ZRBURLSessionDelegate::downloadTaskDidWriteData(const ZRBURLSessionPtr&,
                                                     const ZRBURLSessionDownloadTaskPtr&, std::int64_t,
                                                     std::int64_t, std::int64_t) {}

void ZRBURLSessionDelegate::downloadTaskDidResume(const ZRBURLSessionPtr&,
                                                  const ZRBURLSessionDownloadTaskPtr&, std::int64_t,
                                                  std::int64_t) {}
