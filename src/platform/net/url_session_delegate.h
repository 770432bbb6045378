// ZRBURLSessionDelegate: what a URL session tells its delegate, and asks it.
//
// One class covers the session, task, data and download callbacks. Every operation has a default
// body that does what the platform does for a delegate that lacks it.
//
// Which operations a delegate implements is explicit: respondsToOperation(). An operation that takes
// a completion handler is called only when respondsToOperation() answers true for it; the default
// answers false for those and true for the others, so a delegate that implements, say, the response
// callback must answer true for DataTaskDidReceiveResponse. Answers may change over time (a session
// manager answers according to the hooks set); the session asks each time it would call.
//
// Callbacks run one at a time, in order, on the session's delegate queue, with one exception: the
// server-trust challenge (session-level, else task-level) runs synchronously on the session's
// transport thread in the middle of the TLS handshake. It must answer before returning, be quick and
// thread-safe, and never wait for another queue. An answer that has not come when the callback
// returns cancels the connection.
//
// Completion handlers may be called on any thread, exactly once.
//
// A delegate is an object like any other: it answers its class name and description, so code that
// wraps delegates can tell them apart by name.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"
#include "platform/net/url_authentication.h"
#include "platform/net/url_cache.h"
#include "platform/net/url_request.h"
#include "platform/net/url_session_task.h"
#include "platform/runtime/stream.h"

class ZRBURLSession;
using ZRBURLSessionPtr = std::shared_ptr<ZRBURLSession>;

enum ZRBURLSessionResponseDisposition : long {
  ZRBURLSessionResponseCancel = 0,
  ZRBURLSessionResponseAllow = 1,
  ZRBURLSessionResponseBecomeDownload = 2,
  // Stream tasks do not exist here; this answer behaves as Allow.
  ZRBURLSessionResponseBecomeStream = 3,
};

enum class ZRBURLSessionDelegateOperation {
  SessionDidBecomeInvalid,
  SessionDidReceiveChallenge,
  SessionDidFinishEventsForBackgroundURLSession,
  TaskWillPerformHTTPRedirection,
  TaskDidReceiveChallenge,
  TaskNeedNewBodyStream,
  TaskDidSendBodyData,
  TaskDidComplete,
  DataTaskDidReceiveResponse,
  DataTaskDidBecomeDownloadTask,
  DataTaskDidReceiveData,
  DataTaskWillCacheResponse,
  DownloadTaskDidFinishDownloading,
  DownloadTaskDidWriteData,
  DownloadTaskDidResume,
};

class ZRBURLSessionDelegate : public ZRBObject {
 public:
  virtual bool respondsToOperation(ZRBURLSessionDelegateOperation operation) const;

  // ---- session ----
  // After invalidation, once every task has completed; the session then lets go of its delegate.
  virtual void sessionDidBecomeInvalid(const ZRBURLSessionPtr& session, ZRBErrorPtr error);
  // Server trust (and other connection-level challenges). Without it, server trust goes to the
  // task-level callback, then to default handling.
  virtual void sessionDidReceiveChallenge(const ZRBURLSessionPtr& session,
                                          const ZRBURLAuthenticationChallengePtr& challenge,
                                          ZRBURLSessionChallengeCompletion completion);
  // Never called on this platform (no background daemon); present for completeness.
  virtual void sessionDidFinishEventsForBackgroundURLSession(const ZRBURLSessionPtr& session);

  // ---- task ----
  // `request` is the request the session would send next; answering null stops at the 3xx response,
  // which then completes the task (with its body).
  virtual void taskWillPerformHTTPRedirection(const ZRBURLSessionPtr& session,
                                              const ZRBURLSessionTaskPtr& task,
                                              const ZRBHTTPURLResponsePtr& response, ZRBURLRequestPtr request,
                                              std::function<void(ZRBURLRequestPtr)> completion);
  virtual void taskDidReceiveChallenge(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                                       const ZRBURLAuthenticationChallengePtr& challenge,
                                       ZRBURLSessionChallengeCompletion completion);
  // A streamed body must be sent again (after a redirect that keeps the body, an authentication
  // retry, or a connection that failed before the server answered). A null stream fails the task
  // with ZRBURLErrorRequestBodyStreamExhausted.
  virtual void taskNeedNewBodyStream(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                                     std::function<void(ZRBInputStreamPtr)> completion);
  virtual void taskDidSendBodyData(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                                   std::int64_t bytesSent, std::int64_t totalBytesSent,
                                   std::int64_t totalBytesExpectedToSend);
  virtual void taskDidComplete(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                               ZRBErrorPtr error);

  // ---- data ----
  // The body waits (the transfer is paused) until the disposition comes.
  virtual void dataTaskDidReceiveResponse(const ZRBURLSessionPtr& session,
                                          const ZRBURLSessionDataTaskPtr& task,
                                          const ZRBURLResponsePtr& response,
                                          std::function<void(ZRBURLSessionResponseDisposition)> completion);
  virtual void dataTaskDidBecomeDownloadTask(const ZRBURLSessionPtr& session,
                                             const ZRBURLSessionDataTaskPtr& task,
                                             const ZRBURLSessionDownloadTaskPtr& downloadTask);
  // Each chunk once, in order.
  virtual void dataTaskDidReceiveData(const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
                                      const ZRBValue& data);
  // Only for sessions with a URL cache. Answer the response to store, or null to store nothing.
  virtual void dataTaskWillCacheResponse(const ZRBURLSessionPtr& session,
                                         const ZRBURLSessionDataTaskPtr& task,
                                         const ZRBCachedURLResponsePtr& proposedResponse,
                                         std::function<void(ZRBCachedURLResponsePtr)> completion);

  // ---- download ----
  // The file at `location` is removed when this returns unless it was moved away.
  virtual void downloadTaskDidFinishDownloading(const ZRBURLSessionPtr& session,
                                                const ZRBURLSessionDownloadTaskPtr& task,
                                                const ZRBURLPtr& location);
  virtual void downloadTaskDidWriteData(const ZRBURLSessionPtr& session,
                                        const ZRBURLSessionDownloadTaskPtr& task, std::int64_t bytesWritten,
                                        std::int64_t totalBytesWritten,
                                        std::int64_t totalBytesExpectedToWrite);
  virtual void downloadTaskDidResume(const ZRBURLSessionPtr& session,
                                     const ZRBURLSessionDownloadTaskPtr& task, std::int64_t fileOffset,
                                     std::int64_t expectedTotalBytes);
};

using ZRBURLSessionDelegatePtr = std::shared_ptr<ZRBURLSessionDelegate>;
