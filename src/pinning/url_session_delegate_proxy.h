// ZRB_PGDNSURLSessionDelegateProxy: stands between a URL session and its delegate so that the
// session's server-trust challenges go through the shared pin guard's validator first.
//
// swizzleNSURLSessionConstructors replaces session construction (ZRBURLSessionConstructionMethod):
// a delegate whose class is not one of the pinning library's own (ZRB_PGDIsPinGuardClassName) is
// wrapped in a proxy before the session is made. The proxy answers both challenge operations
// whatever the delegate implements, and passes every other operation, and the question whether it
// is implemented, to the delegate.
//
// A server-trust challenge for a pinned host is answered by the validator: allowed -> use a
// credential for the trust; blocked -> cancel. Any other challenge (a host that is not pinned, an
// HTTP challenge) goes to the delegate's method of the same form when it implements it, else gets
// default handling. Challenges run where the session runs them (server trust: the transport
// thread, in the handshake).
#pragma once

#include <memory>
#include <string>

#include "platform/net/url_session.h"
#include "platform/net/url_session_delegate.h"

class ZRB_PinGuard;
using ZRB_PinGuardPtr = std::shared_ptr<ZRB_PinGuard>;

class ZRB_PGDNSURLSessionDelegateProxy;
using ZRB_PGDNSURLSessionDelegateProxyPtr = std::shared_ptr<ZRB_PGDNSURLSessionDelegateProxy>;

class ZRB_PGDNSURLSessionDelegateProxy final : public ZRBURLSessionDelegate {
 public:
  // Installs the proxy on every session constructed from now on. Called once, with the shared
  // instance, which the replacement keeps.
  static void swizzleNSURLSessionConstructors(const ZRB_PinGuardPtr& pinGuard);

  static ZRB_PGDNSURLSessionDelegateProxyPtr initWithPinGuard(ZRB_PinGuardPtr pinGuard,
                                                              ZRBURLSessionDelegatePtr sessionDelegate);

  const ZRB_PinGuardPtr& pinGuard() const { return pinGuard_; }
  const ZRBURLSessionDelegatePtr& sessionDelegate() const { return sessionDelegate_; }

  // Answers a pinned host's server-trust challenge and returns true; leaves anything else
  // unanswered and returns false.
  bool common_URLSession(const ZRBURLSessionPtr& session, const ZRBURLAuthenticationChallengePtr& challenge,
                         const ZRBURLSessionChallengeCompletion& completion) const;

  bool respondsToOperation(ZRBURLSessionDelegateOperation operation) const override;
  void sessionDidReceiveChallenge(const ZRBURLSessionPtr& session,
                                  const ZRBURLAuthenticationChallengePtr& challenge,
                                  ZRBURLSessionChallengeCompletion completion) override;
  void taskDidReceiveChallenge(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                               const ZRBURLAuthenticationChallengePtr& challenge,
                               ZRBURLSessionChallengeCompletion completion) override;

  // ---- forwarded to the delegate ----
  void sessionDidBecomeInvalid(const ZRBURLSessionPtr& session, ZRBErrorPtr error) override;
  void sessionDidFinishEventsForBackgroundURLSession(const ZRBURLSessionPtr& session) override;
  void taskWillPerformHTTPRedirection(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                                      const ZRBHTTPURLResponsePtr& response, ZRBURLRequestPtr request,
                                      std::function<void(ZRBURLRequestPtr)> completion) override;
  void taskNeedNewBodyStream(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                             std::function<void(ZRBInputStreamPtr)> completion) override;
  void taskDidSendBodyData(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                           std::int64_t bytesSent, std::int64_t totalBytesSent,
                           std::int64_t totalBytesExpectedToSend) override;
  void taskDidComplete(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                       ZRBErrorPtr error) override;
  void dataTaskDidReceiveResponse(const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
                                  const ZRBURLResponsePtr& response,
                                  std::function<void(ZRBURLSessionResponseDisposition)> completion) override;
  void dataTaskDidBecomeDownloadTask(const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
                                     const ZRBURLSessionDownloadTaskPtr& downloadTask) override;
  void dataTaskDidReceiveData(const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
                              const ZRBValue& data) override;
  void dataTaskWillCacheResponse(const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
                                 const ZRBCachedURLResponsePtr& proposedResponse,
                                 std::function<void(ZRBCachedURLResponsePtr)> completion) override;
  void downloadTaskDidFinishDownloading(const ZRBURLSessionPtr& session,
                                        const ZRBURLSessionDownloadTaskPtr& task,
                                        const ZRBURLPtr& location) override;
  void downloadTaskDidWriteData(const ZRBURLSessionPtr& session, const ZRBURLSessionDownloadTaskPtr& task,
                                std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                                std::int64_t totalBytesExpectedToWrite) override;
  void downloadTaskDidResume(const ZRBURLSessionPtr& session, const ZRBURLSessionDownloadTaskPtr& task,
                             std::int64_t fileOffset, std::int64_t expectedTotalBytes) override;

  std::string className() const override { return "ZRB_PGDNSURLSessionDelegateProxy"; }

  struct Private {};
  ZRB_PGDNSURLSessionDelegateProxy(Private, ZRB_PinGuardPtr pinGuard,
                                   ZRBURLSessionDelegatePtr sessionDelegate);

 private:
  const ZRB_PinGuardPtr pinGuard_;
  const ZRBURLSessionDelegatePtr sessionDelegate_;
};
