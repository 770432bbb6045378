// ZRBURLSession: the URL loading service. A session runs data, upload and download tasks over
// HTTP/1.1 and HTTP/2 (negotiated over TLS), with connection reuse, and reports to its delegate on
// its delegate queue. TLS sessions are not resumed, so every new connection's server trust is judged.
//
// Threads: each session has one transport thread of its own, started with its first task, that
// drives every transfer of the session. Delegate callbacks (except server-trust challenges, see
// ZRBURLSessionDelegate) and completion handlers run on the delegate queue, one at a time, in order;
// pass a serial queue (a new one is made when none is given). When that queue has nothing to do,
// the transport thread runs them itself as a block of the queue (ZRBDispatchQueue::runNowIfIdle),
// which saves two thread hops per request; a delegate whose callbacks take more than a couple of
// milliseconds gets them on the pool again for a while, so a slow delegate cannot stall transfers.
//
// Lifetime: the session keeps its delegate until it is invalidated, and stays alive while it has
// tasks that have not completed (a task holds its session). Invalidate a session when done with it:
// once invalid, its transport thread ends; its connections and handles go with the session.
//
// Errors: every failure reaches the task as a ZRBURLErrorDomain record whose user info holds the
// failing URL (ZRBURLErrorFailingURLErrorKey, ZRBURLErrorFailingURLStringErrorKey) and a localized
// description; the transport's own diagnosis is under ZRBUnderlyingErrorKey.
//
// Creating a task on an invalidated session throws ZRBException "ZRBGenericException".
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/net/url_request.h"
#include "platform/net/url_session_configuration.h"
#include "platform/net/url_session_delegate.h"
#include "platform/net/url_session_task.h"
#include "platform/runtime/dispatch.h"
#include "platform/runtime/method_replacement.h"

class ZRBTransport;
class ZRBURLSessionTaskDriver;

using ZRBURLSessionDataCompletion =
    std::function<void(ZRBValue data, ZRBURLResponsePtr response, ZRBErrorPtr error)>;
// `location` is removed when the handler returns unless it was moved away.
using ZRBURLSessionDownloadCompletion =
    std::function<void(ZRBURLPtr location, ZRBURLResponsePtr response, ZRBErrorPtr error)>;
using ZRBURLSessionTasksCompletion = std::function<void(
    std::vector<ZRBURLSessionDataTaskPtr> dataTasks, std::vector<ZRBURLSessionUploadTaskPtr> uploadTasks,
    std::vector<ZRBURLSessionDownloadTaskPtr> downloadTasks)>;

class ZRBURLSession final : public ZRBObject {
 public:
  // Goes through the construction slot (ZRBURLSessionConstructionMethod). A null configuration means
  // the default one; the session keeps a copy.
  static ZRBURLSessionPtr sessionWithConfiguration(ZRBURLSessionConfigurationPtr configuration);
  static ZRBURLSessionPtr sessionWithConfiguration(ZRBURLSessionConfigurationPtr configuration,
                                                   ZRBURLSessionDelegatePtr delegate,
                                                   ZRBDispatchQueuePtr delegateQueue);
  static ZRBURLSessionConstructionSlot& constructionSlot();

  // A copy of the session's configuration.
  ZRBURLSessionConfigurationPtr configuration() const;
  // Null once the session has become invalid.
  ZRBURLSessionDelegatePtr delegate() const;
  const ZRBDispatchQueuePtr& delegateQueue() const { return delegateQueue_; }
  std::optional<std::string> sessionDescription() const;
  void setSessionDescription(std::optional<std::string> description);

  // ---- tasks (created suspended) ----
  ZRBURLSessionDataTaskPtr dataTaskWithRequest(ZRBURLRequestPtr request);
  ZRBURLSessionDataTaskPtr dataTaskWithURL(ZRBURLPtr url);
  // The handler gets the whole body instead of the delegate's data callbacks.
  ZRBURLSessionDataTaskPtr dataTaskWithRequest(ZRBURLRequestPtr request,
                                               ZRBURLSessionDataCompletion completion);

  // The body comes from the file (fileURL), from `bodyData`, or (streamed) from the request's body
  // stream, else from the delegate's need-new-body-stream callback. Any body in the request
  // itself is ignored for the first two.
  ZRBURLSessionUploadTaskPtr uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBURLPtr fileURL);
  ZRBURLSessionUploadTaskPtr uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBValue bodyData);
  ZRBURLSessionUploadTaskPtr uploadTaskWithStreamedRequest(ZRBURLRequestPtr request);
  ZRBURLSessionUploadTaskPtr uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBURLPtr fileURL,
                                                   ZRBURLSessionDataCompletion completion);
  ZRBURLSessionUploadTaskPtr uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBValue bodyData,
                                                   ZRBURLSessionDataCompletion completion);
  // The platform's background sessions now and then make no upload task from a file (null), and
  // callers retry; ours always make one. A gate stands in for that refusal: while one is set, each
  // upload from a file asks it first and is null, using no identifier, when it answers false. Null
  // removes it. Meant for tests of those retries.
  void setFileUploadCreationGate(std::function<bool()> gate);

  ZRBURLSessionDownloadTaskPtr downloadTaskWithRequest(ZRBURLRequestPtr request);
  ZRBURLSessionDownloadTaskPtr downloadTaskWithURL(ZRBURLPtr url);
  ZRBURLSessionDownloadTaskPtr downloadTaskWithRequest(ZRBURLRequestPtr request,
                                                       ZRBURLSessionDownloadCompletion completion);
  // Resume data from cancelByProducingResumeData or from a failed download's error. The download
  // asks for the rest with Range and If-Range; when the server answers with the whole resource
  // instead, it starts over cleanly. Data that is not resume data throws ZRBException
  // "ZRBInvalidArgumentException" ("Invalid resume data").
  ZRBURLSessionDownloadTaskPtr downloadTaskWithResumeData(const ZRBValue& resumeData);
  ZRBURLSessionDownloadTaskPtr downloadTaskWithResumeData(const ZRBValue& resumeData,
                                                          ZRBURLSessionDownloadCompletion completion);

  // ---- lifetime ----
  // Cancels every task; once they have completed the delegate hears sessionDidBecomeInvalid.
  void invalidateAndCancel();
  // Lets running tasks finish (and never-resumed ones wait); then sessionDidBecomeInvalid.
  void finishTasksAndInvalidate();
  bool isInvalidated() const;
  // The tasks that have not completed, on the delegate queue.
  void getTasksWithCompletionHandler(ZRBURLSessionTasksCompletion completion);
  void getAllTasksWithCompletionHandler(std::function<void(std::vector<ZRBURLSessionTaskPtr>)> completion);
  // The same list at once, for a caller that holds the delegate queue and so cannot wait for it.
  std::vector<ZRBURLSessionTaskPtr> tasksNow() const;

  std::string className() const override { return "ZRBURLSession"; }
  // "<ZRBURLSession: 0x...>".
  std::string description() const override;

  // ---- for the tasks and the transport ----
  struct Private {};
  ZRBURLSession(Private, ZRBURLSessionConfigurationPtr configuration, ZRBURLSessionDelegatePtr delegate,
                ZRBDispatchQueuePtr delegateQueue);
  ~ZRBURLSession() override;
  const ZRBURLSessionConfiguration& configurationRef() const { return *configuration_; }
  // The session's transport, started with its first task.
  const std::shared_ptr<ZRBTransport>& transport();
  // The delegate, for code running on the delegate queue: only a block on that queue lets go of
  // it, so it stays valid for the rest of the calling block without a lock or a reference.
  ZRBURLSessionDelegate* delegateOnDelegateQueue() const { return delegate_.get(); }
  // The task has completed: drop it, and finish the invalidation when it was the last one.
  void taskDidFinish(const ZRBURLSessionTask& task);
  // A data task whose delegate answered "become download": a new download task, with its own
  // identifier, that carries on with the same driver.
  ZRBURLSessionDownloadTaskPtr adoptAsDownloadTask(const ZRBURLSessionTaskPtr& dataTask,
                                                   std::shared_ptr<ZRBURLSessionTaskDriver> driver);

 private:
  struct TaskBody;
  template <typename Task>
  std::shared_ptr<Task> makeTask(ZRBURLSessionTask::Kind kind, ZRBURLRequestPtr request, TaskBody body);
  void checkNotInvalidated() const;
  void becomeInvalidIfDone();  // with mutex_ held
  ZRBURLSessionDownloadTaskPtr makeResumedDownload(const ZRBValue& resumeData);

  // The tasks that have not finished, in creation order, which is identifier order. A finished
  // task leaves a hole, swept out once holes outnumber tasks: no allocation per task.
  class TaskList {
   public:
    void add(ZRBURLSessionTaskPtr task);
    // The task with that identifier, taken out of the list; null when it is not there.
    ZRBURLSessionTaskPtr take(unsigned long identifier);
    bool empty() const { return count_ == 0; }
    template <typename Visit>
    void forEach(Visit visit) const {
      for (const auto& entry : entries_) {
        if (entry.second) visit(entry.second);
      }
    }

   private:
    std::vector<std::pair<unsigned long, ZRBURLSessionTaskPtr>> entries_;
    std::size_t count_ = 0;
  };

  ZRBURLSessionConfigurationPtr configuration_;
  ZRBDispatchQueuePtr delegateQueue_;

  mutable std::mutex mutex_;
  ZRBURLSessionDelegatePtr delegate_;
  std::optional<std::string> description_;
  unsigned long nextIdentifier_ = 1;
  TaskList tasks_;
  bool invalidated_ = false;
  bool invalidationReported_ = false;
  std::shared_ptr<const std::function<bool()>> fileUploadGate_;

  std::once_flag transportOnce_;
  std::atomic<bool> transportStarted_{false};  // read before call_once, which costs more
  std::shared_ptr<ZRBTransport> transport_;
};
