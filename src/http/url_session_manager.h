// ZRBHS_URLSessionManager: owns one URL session, acts as its delegate, and runs the caller's tasks.
//
// Every task made through the manager gets a task delegate (url_session_manager_task_delegate.h)
// that collects its body and progress. When a task ends, its body is decoded by the response
// serializer on the shared processing queue ("com.brontide.zrb_networking.session.manager.
// processing"), never on the delegate queue, and the completion handler runs exactly once, entered
// into the completion group, on the completion queue (the main queue when none is set); then
// "com.brontide.zrb_networking.task.complete" is posted on the main queue. A transport error skips
// decoding.
//
// Each session delegate callback can be taken over by a hook; without its hook the manager does
// the built-in work. The redirection, response, will-cache and background-events callbacks are
// not answered at all while their hooks are null (respondsToOperation), so the session behaves as
// it does without a delegate for them.
//
// Lifetime: the session keeps the manager (its delegate) until the session is invalidated; call
// invalidateSessionCancelingTasks() when done. An invalidated session ends its transport thread,
// and the manager's release then frees the session's handles.
//
// Threads: setters and task creation from any thread. Hooks run on the delegate queue
// (operationQueue(), serial), except the server-trust challenge, which runs on the transport
// thread during the handshake (see url_session_delegate.h): the session-level challenge hook and
// the security policy must be quick and thread-safe. The task lists block the caller until the
// delegate queue answers, so they must not be called from it.
//
// Programming errors (a null response serializer, task or task delegate) are ZRBAssert failures
// naming the parameter. A hook that throws is reported on standard error by the queue that ran
// it; the transport carries on.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "http/url_session_manager_task_delegate.h"
#include "platform/foundation/error.h"
#include "platform/foundation/keyed_archiver.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/net/url_authentication.h"
#include "platform/net/url_cache.h"
#include "platform/net/url_request.h"
#include "platform/net/url_session.h"
#include "platform/net/url_session_configuration.h"
#include "platform/net/url_session_delegate.h"
#include "platform/runtime/atomic_function.h"
#include "platform/runtime/dispatch.h"
#include "platform/runtime/notification_center.h"
#include "platform/runtime/stream.h"

class ZRBHS_HTTPResponseSerializer;
class ZRBHS_SecurityPolicy;
class ZRBHS_NetworkReachabilityManager;
using ZRBHS_ResponseSerializerPtr = std::shared_ptr<ZRBHS_HTTPResponseSerializer>;

// Notification names and the completion notification's user-info keys.
inline constexpr const char* ZRBHS_NetworkingTaskDidResumeNotification =
    "com.brontide.zrb_networking.task.resume";
inline constexpr const char* ZRBHS_NetworkingTaskDidSuspendNotification =
    "com.brontide.zrb_networking.task.suspend";
inline constexpr const char* ZRBHS_NetworkingTaskDidCompleteNotification =
    "com.brontide.zrb_networking.task.complete";
inline constexpr const char* ZRBHS_URLSessionDidInvalidateNotification =
    "com.brontide.zrb_networking.session.invalidate";
inline constexpr const char* ZRBHS_URLSessionDownloadTaskDidFailToMoveFileNotification =
    "com.brontide.zrb_networking.session.download.file-manager-error";
inline constexpr const char* ZRBHS_NetworkingTaskDidCompleteResponseSerializerKey =
    "com.brontide.zrb_networking.task.complete.responseserializer";
inline constexpr const char* ZRBHS_NetworkingTaskDidCompleteAssetPathKey =
    "com.brontide.zrb_networking.task.complete.assetpath";
// Without "task.": the key has always been spelled this way, and observers look it up so.
inline constexpr const char* ZRBHS_NetworkingTaskDidCompleteResponseDataKey =
    "com.brontide.zrb_networking.complete.finish.responsedata";
inline constexpr const char* ZRBHS_NetworkingTaskDidCompleteSerializedResponseKey =
    "com.brontide.zrb_networking.task.complete.serializedresponse";
inline constexpr const char* ZRBHS_NetworkingTaskDidCompleteErrorKey =
    "com.brontide.zrb_networking.task.complete.error";

// (temporary file URL, response) -> destination URL or null.
using ZRBHS_DownloadDestinationBlock =
    std::function<ZRBURLPtr(const ZRBURLPtr& targetPath, const ZRBURLResponsePtr& response)>;

class ZRBHS_URLSessionManager;
using ZRBHS_URLSessionManagerPtr = std::shared_ptr<ZRBHS_URLSessionManager>;

class ZRBHS_URLSessionManager : public ZRBURLSessionDelegate, public ZRBCoding {
 public:
  // ---- hooks ----
  using SessionDidBecomeInvalidBlock = std::function<void(const ZRBURLSessionPtr&, const ZRBErrorPtr&)>;
  // Returns the disposition; may set *credential.
  using SessionDidReceiveChallengeBlock = std::function<ZRBURLSessionAuthChallengeDisposition(
      const ZRBURLSessionPtr&, const ZRBURLAuthenticationChallengePtr&, ZRBURLCredentialPtr* credential)>;
  using DidFinishEventsForBackgroundURLSessionBlock = std::function<void(const ZRBURLSessionPtr&)>;
  using TaskWillPerformHTTPRedirectionBlock =
      std::function<ZRBURLRequestPtr(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                                     const ZRBHTTPURLResponsePtr&, const ZRBURLRequestPtr&)>;
  using TaskDidReceiveChallengeBlock = std::function<ZRBURLSessionAuthChallengeDisposition(
      const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, const ZRBURLAuthenticationChallengePtr&,
      ZRBURLCredentialPtr* credential)>;
  using TaskNeedNewBodyStreamBlock =
      std::function<ZRBInputStreamPtr(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&)>;
  // (session, task, bytes sent, total sent, total expected).
  using TaskDidSendBodyDataBlock = std::function<void(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                                                      std::int64_t, std::int64_t, std::int64_t)>;
  using TaskDidCompleteBlock =
      std::function<void(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, const ZRBErrorPtr&)>;
  using DataTaskDidReceiveResponseBlock = std::function<ZRBURLSessionResponseDisposition(
      const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&, const ZRBURLResponsePtr&)>;
  using DataTaskDidBecomeDownloadTaskBlock = std::function<void(
      const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&, const ZRBURLSessionDownloadTaskPtr&)>;
  using DataTaskDidReceiveDataBlock =
      std::function<void(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&, const ZRBValue&)>;
  using DataTaskWillCacheResponseBlock = std::function<ZRBCachedURLResponsePtr(
      const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&, const ZRBCachedURLResponsePtr&)>;
  using DownloadTaskDidFinishDownloadingBlock = ZRBHS_DownloadTaskDidFinishDownloadingBlock;
  // (session, task, bytes written, total written, total expected).
  using DownloadTaskDidWriteDataBlock =
      std::function<void(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&, std::int64_t,
                         std::int64_t, std::int64_t)>;
  // (session, task, file offset, expected total).
  using DownloadTaskDidResumeBlock = std::function<void(
      const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&, std::int64_t, std::int64_t)>;

  // ---- making one ----
  // A null configuration means the default one.
  static ZRBHS_URLSessionManagerPtr initWithSessionConfiguration(ZRBURLSessionConfigurationPtr configuration);
  static ZRBHS_URLSessionManagerPtr make() { return initWithSessionConfiguration(nullptr); }
  ~ZRBHS_URLSessionManager() override;

  // ---- fields ----
  const ZRBURLSessionPtr& session() const { return session_; }
  const ZRBDispatchQueuePtr& operationQueue() const { return operationQueue_; }
  ZRBURLSessionConfigurationPtr sessionConfiguration() const { return sessionConfiguration_; }

  ZRBHS_ResponseSerializerPtr responseSerializer() const;
  // Null is an assertion failure naming "responseSerializer" (and changes nothing).
  void setResponseSerializer(ZRBHS_ResponseSerializerPtr serializer);
  std::shared_ptr<ZRBHS_SecurityPolicy> securityPolicy() const;
  void setSecurityPolicy(std::shared_ptr<ZRBHS_SecurityPolicy> policy);
  std::shared_ptr<ZRBHS_NetworkReachabilityManager> reachabilityManager() const;
  void setReachabilityManager(std::shared_ptr<ZRBHS_NetworkReachabilityManager> manager);
  // Null: the main queue.
  ZRBDispatchQueuePtr completionQueue() const;
  void setCompletionQueue(ZRBDispatchQueuePtr queue);
  // Null: one group shared by the process.
  ZRBDispatchGroupPtr completionGroup() const;
  void setCompletionGroup(ZRBDispatchGroupPtr group);
  bool attemptsToRecreateUploadTasksForBackgroundSessions() const { return recreateUploads_; }
  void setAttemptsToRecreateUploadTasksForBackgroundSessions(bool attempts) { recreateUploads_ = attempts; }

  // The manager's address as "%p": the description of every task it makes.
  const std::string& taskDescriptionForSessionTasks() const { return taskDescription_; }
  // The name of the lock over the task delegates.
  static constexpr const char* kLockName = "com.brontide.zrb_networking.session.manager.lock";

  // The session's tasks that have not completed; blocks until the delegate queue answers.
  std::vector<ZRBURLSessionTaskPtr> tasks() const;
  std::vector<ZRBURLSessionDataTaskPtr> dataTasks() const;
  std::vector<ZRBURLSessionUploadTaskPtr> uploadTasks() const;
  std::vector<ZRBURLSessionDownloadTaskPtr> downloadTasks() const;

  // On the main queue, later: invalidateAndCancel (true) or finishTasksAndInvalidate (false).
  void invalidateSessionCancelingTasks(bool cancelPendingTasks);

  // ---- tasks (returned suspended) ----
  ZRBURLSessionDataTaskPtr dataTaskWithRequest(ZRBURLRequestPtr request,
                                               ZRBHS_TaskCompletionHandler completion);
  ZRBURLSessionDataTaskPtr dataTaskWithRequest(ZRBURLRequestPtr request, ZRBHS_ProgressBlock uploadProgress,
                                               ZRBHS_ProgressBlock downloadProgress,
                                               ZRBHS_TaskCompletionHandler completion);
  // Null when the session made no task (background sessions retry up to three times in all when
  // attemptsToRecreateUploadTasksForBackgroundSessions is set).
  ZRBURLSessionUploadTaskPtr uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBURLPtr fileURL,
                                                   ZRBHS_ProgressBlock progress,
                                                   ZRBHS_TaskCompletionHandler completion);
  ZRBURLSessionUploadTaskPtr uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBValue bodyData,
                                                   ZRBHS_ProgressBlock progress,
                                                   ZRBHS_TaskCompletionHandler completion);
  ZRBURLSessionUploadTaskPtr uploadTaskWithStreamedRequest(ZRBURLRequestPtr request,
                                                           ZRBHS_ProgressBlock progress,
                                                           ZRBHS_TaskCompletionHandler completion);
  ZRBURLSessionDownloadTaskPtr downloadTaskWithRequest(ZRBURLRequestPtr request, ZRBHS_ProgressBlock progress,
                                                       ZRBHS_DownloadDestinationBlock destination,
                                                       ZRBHS_TaskCompletionHandler completion);
  // Data that is not resume data throws ZRBException "ZRBInvalidArgumentException".
  ZRBURLSessionDownloadTaskPtr downloadTaskWithResumeData(const ZRBValue& resumeData,
                                                          ZRBHS_ProgressBlock progress,
                                                          ZRBHS_DownloadDestinationBlock destination,
                                                          ZRBHS_TaskCompletionHandler completion);

  // The progress objects of a task made here; null for any other task.
  ZRBProgressPtr uploadProgressForTask(const ZRBURLSessionTaskPtr& task) const;
  ZRBProgressPtr downloadProgressForTask(const ZRBURLSessionTaskPtr& task) const;

  // ---- hook setters (null clears) ----
  void setSessionDidBecomeInvalidBlock(SessionDidBecomeInvalidBlock block);
  void setSessionDidReceiveAuthenticationChallengeBlock(SessionDidReceiveChallengeBlock block);
  void setDidFinishEventsForBackgroundURLSessionBlock(DidFinishEventsForBackgroundURLSessionBlock block);
  void setTaskNeedNewBodyStreamBlock(TaskNeedNewBodyStreamBlock block);
  void setTaskWillPerformHTTPRedirectionBlock(TaskWillPerformHTTPRedirectionBlock block);
  void setTaskDidReceiveAuthenticationChallengeBlock(TaskDidReceiveChallengeBlock block);
  void setTaskDidSendBodyDataBlock(TaskDidSendBodyDataBlock block);
  void setTaskDidCompleteBlock(TaskDidCompleteBlock block);
  void setDataTaskDidReceiveResponseBlock(DataTaskDidReceiveResponseBlock block);
  void setDataTaskDidBecomeDownloadTaskBlock(DataTaskDidBecomeDownloadTaskBlock block);
  void setDataTaskDidReceiveDataBlock(DataTaskDidReceiveDataBlock block);
  void setDataTaskWillCacheResponseBlock(DataTaskWillCacheResponseBlock block);
  void setDownloadTaskDidFinishDownloadingBlock(DownloadTaskDidFinishDownloadingBlock block);
  void setDownloadTaskDidWriteDataBlock(DownloadTaskDidWriteDataBlock block);
  void setDownloadTaskDidResumeBlock(DownloadTaskDidResumeBlock block);

  // ---- copying, coding, description ----
  // A new manager with the session's configuration; hooks, serializers and tasks stay here.
  virtual ZRBHS_URLSessionManagerPtr copy() const;
  static bool supportsSecureCoding() { return true; }
  std::string codingClassName() const override { return "ZRBHS_URLSessionManager"; }
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  static ZRBHS_URLSessionManagerPtr initWithCoder(ZRBKeyedUnarchiver& coder);
  std::string className() const override { return "ZRBHS_URLSessionManager"; }
  // "<ZRBHS_URLSessionManager: 0x..., session: <...>, operationQueue: <...>>".
  std::string description() const override;

  // ---- session delegate ----
  bool respondsToOperation(ZRBURLSessionDelegateOperation operation) const override;
  void sessionDidBecomeInvalid(const ZRBURLSessionPtr& session, ZRBErrorPtr error) override;
  void sessionDidReceiveChallenge(const ZRBURLSessionPtr& session,
                                  const ZRBURLAuthenticationChallengePtr& challenge,
                                  ZRBURLSessionChallengeCompletion completion) override;
  void sessionDidFinishEventsForBackgroundURLSession(const ZRBURLSessionPtr& session) override;
  void taskWillPerformHTTPRedirection(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                                      const ZRBHTTPURLResponsePtr& response, ZRBURLRequestPtr request,
                                      std::function<void(ZRBURLRequestPtr)> completion) override;
  void taskDidReceiveChallenge(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                               const ZRBURLAuthenticationChallengePtr& challenge,
                               ZRBURLSessionChallengeCompletion completion) override;
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

  // ---- the task delegates (internal; public for the code that interposes on them) ----
  void addDelegateForDataTask(const ZRBURLSessionDataTaskPtr& task, ZRBHS_ProgressBlock uploadProgress,
                              ZRBHS_ProgressBlock downloadProgress, ZRBHS_TaskCompletionHandler completion);
  void addDelegateForUploadTask(const ZRBURLSessionUploadTaskPtr& task, ZRBHS_ProgressBlock progress,
                                ZRBHS_TaskCompletionHandler completion);
  void addDelegateForDownloadTask(const ZRBURLSessionDownloadTaskPtr& task, ZRBHS_ProgressBlock progress,
                                  ZRBHS_DownloadDestinationBlock destination,
                                  ZRBHS_TaskCompletionHandler completion);
  // Both non-null (assertion failures naming "task" and "delegate").
  void setDelegateForTask(const ZRBHS_URLSessionManagerTaskDelegatePtr& delegate,
                          const ZRBURLSessionTaskPtr& task);
  ZRBHS_URLSessionManagerTaskDelegatePtr delegateForTask(const ZRBURLSessionTaskPtr& task) const;
  void removeDelegateForTask(const ZRBURLSessionTaskPtr& task);
  // What a finishing task needs, read together: the response serializer, the completion queue and
  // the completion group as set (either may be null).
  struct CompletionSettings {
    ZRBHS_ResponseSerializerPtr responseSerializer;
    ZRBDispatchQueuePtr completionQueue;
    ZRBDispatchGroupPtr completionGroup;
  };
  CompletionSettings completionSettings() const;
  // Posts the public resume / suspend notification when the task is one of this manager's.
  void taskDidResume(const ZRBURLSessionTaskPtr& task);
  void taskDidSuspend(const ZRBURLSessionTaskPtr& task);

  // The version of the platform the task-creation guard compares with 1140.11: below it, tasks are
  // created one at a time on a serial queue. Tests lower it; 0 restores the platform's.
  static void setFoundationVersionNumberForTesting(double version);

  // The delegate queue the calling thread holds while it runs a completion in place (null
  // otherwise): the task lists answer from the session at once there instead of waiting for it.
  static thread_local const ZRBDispatchQueue* heldDelegateQueue;

  // Shared by every manager, made once: the decoding queue, the task-creation queue and the
  // default completion group.
  static const ZRBDispatchQueuePtr& processingQueue();
  static const ZRBDispatchQueuePtr& creationQueue();
  static const ZRBDispatchGroupPtr& defaultCompletionGroup();

 protected:
  struct Private {};

 public:
  ZRBHS_URLSessionManager(Private, ZRBURLSessionConfigurationPtr configuration);

 protected:
  // The initializer's steps that need the finished object: the session with this manager as its
  // delegate, the defaults, and delegates for tasks the session already has.
  void setUp();

 private:
  // The hook's answer when one is set, else the security policy's for server trust, else default
  // handling; then `completion`.
  void answerChallenge(const ZRBURLAuthenticationChallengePtr& challenge,
                       const std::function<ZRBURLSessionAuthChallengeDisposition(ZRBURLCredentialPtr*)>& hook,
                       const ZRBURLSessionChallengeCompletion& completion);

  ZRBURLSessionConfigurationPtr sessionConfiguration_;
  ZRBDispatchQueuePtr operationQueue_;
  ZRBURLSessionPtr session_;
  std::string taskDescription_;
  bool recreateUploads_ = false;

  mutable std::mutex fieldsMutex_;
  ZRBHS_ResponseSerializerPtr responseSerializer_;
  std::shared_ptr<ZRBHS_SecurityPolicy> securityPolicy_;
  std::shared_ptr<ZRBHS_NetworkReachabilityManager> reachabilityManager_;
  ZRBDispatchQueuePtr completionQueue_;
  ZRBDispatchGroupPtr completionGroup_;

  mutable std::mutex lock_;  // kLockName: the task delegates
  std::unordered_map<unsigned long, ZRBHS_URLSessionManagerTaskDelegatePtr>
      mutableTaskDelegatesKeyedByTaskIdentifier_;
  // A removed entry kept for the next task (its delegate already moved out).
  decltype(mutableTaskDelegatesKeyedByTaskIdentifier_)::node_type spareDelegateEntry_;

  ZRBAtomicFunction<void(const ZRBURLSessionPtr&, const ZRBErrorPtr&)> sessionDidBecomeInvalid_;
  ZRBAtomicFunction<ZRBURLSessionAuthChallengeDisposition(
      const ZRBURLSessionPtr&, const ZRBURLAuthenticationChallengePtr&, ZRBURLCredentialPtr*)>
      sessionDidReceiveAuthenticationChallenge_;
  ZRBAtomicFunction<void(const ZRBURLSessionPtr&)> didFinishEventsForBackgroundURLSession_;
  ZRBAtomicFunction<ZRBURLRequestPtr(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                                     const ZRBHTTPURLResponsePtr&, const ZRBURLRequestPtr&)>
      taskWillPerformHTTPRedirection_;
  ZRBAtomicFunction<ZRBURLSessionAuthChallengeDisposition(
      const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, const ZRBURLAuthenticationChallengePtr&,
      ZRBURLCredentialPtr*)>
      taskDidReceiveAuthenticationChallenge_;
  ZRBAtomicFunction<ZRBInputStreamPtr(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&)>
      taskNeedNewBodyStream_;
  ZRBAtomicFunction<void(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, std::int64_t, std::int64_t,
                         std::int64_t)>
      taskDidSendBodyData_;
  ZRBAtomicFunction<void(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, const ZRBErrorPtr&)>
      taskDidComplete_;
  ZRBAtomicFunction<ZRBURLSessionResponseDisposition(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&,
                                                     const ZRBURLResponsePtr&)>
      dataTaskDidReceiveResponse_;
  ZRBAtomicFunction<void(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&,
                         const ZRBURLSessionDownloadTaskPtr&)>
      dataTaskDidBecomeDownloadTask_;
  ZRBAtomicFunction<void(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&, const ZRBValue&)>
      dataTaskDidReceiveData_;
  ZRBAtomicFunction<ZRBCachedURLResponsePtr(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&,
                                            const ZRBCachedURLResponsePtr&)>
      dataTaskWillCacheResponse_;
  ZRBAtomicFunction<ZRBURLPtr(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&, const ZRBURLPtr&)>
      downloadTaskDidFinishDownloading_;
  ZRBAtomicFunction<void(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&, std::int64_t,
                         std::int64_t, std::int64_t)>
      downloadTaskDidWriteData_;
  ZRBAtomicFunction<void(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&, std::int64_t,
                         std::int64_t)>
      downloadTaskDidResume_;
};
