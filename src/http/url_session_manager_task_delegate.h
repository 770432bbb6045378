// ZRBHS_URLSessionManagerTaskDelegate: what a session manager keeps for one task it created: the
// body collected so far, the two progress objects, the download destination and the caller's
// callbacks. It decodes the finished body off the delegate queue and calls the completion once.
//
// Threads: the body and download operations run on the manager's delegate queue. Progress
// objects follow the task's byte counters on whatever thread moves them (the transport thread);
// they are made on first use (the first progress callback set, or the first call of
// uploadProgress()/downloadProgress()), starting from the counters as they stand then, so a task
// nobody watches costs no observer.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"
#include "platform/net/url_session.h"
#include "platform/net/url_session_task.h"
#include "platform/runtime/progress.h"

class ZRBHS_URLSessionManager;

// (response, response object or absent, error or null).
using ZRBHS_TaskCompletionHandler =
    std::function<void(ZRBURLResponsePtr response, ZRBValue responseObject, ZRBErrorPtr error)>;
using ZRBHS_ProgressBlock = std::function<void(const ZRBProgressPtr& progress)>;
// (session, download task, temporary location) -> destination URL or null.
using ZRBHS_DownloadTaskDidFinishDownloadingBlock = std::function<ZRBURLPtr(
    const ZRBURLSessionPtr& session, const ZRBURLSessionDownloadTaskPtr& task, const ZRBURLPtr& location)>;

class ZRBHS_URLSessionManagerTaskDelegate final : public ZRBObject {
 public:
  ZRBHS_URLSessionManagerTaskDelegate();
  ~ZRBHS_URLSessionManagerTaskDelegate() override;

  std::shared_ptr<ZRBHS_URLSessionManager> manager() const { return manager_.lock(); }
  void setManager(const std::shared_ptr<ZRBHS_URLSessionManager>& manager) { manager_ = manager; }

  // The body so far (a data value, empty before the first chunk); absent once completion took it.
  ZRBValue mutableData() const;

  ZRBProgressPtr uploadProgress();
  ZRBProgressPtr downloadProgress();

  ZRBURLPtr downloadFileURL() const { return downloadFileURL_; }
  void setDownloadFileURL(ZRBURLPtr url) { downloadFileURL_ = std::move(url); }

  ZRBHS_DownloadTaskDidFinishDownloadingBlock downloadTaskDidFinishDownloading;
  ZRBHS_TaskCompletionHandler completionHandler;
  // Called with the progress object on every change of it.
  void setUploadProgressBlock(ZRBHS_ProgressBlock block);
  void setDownloadProgressBlock(ZRBHS_ProgressBlock block);

  // ---- for the manager ----
  // Remembers the task (weakly) whose counters the progress objects follow, and whose cancel,
  // suspend and resume their handlers call.
  void setupProgressForTask(const ZRBURLSessionTaskPtr& task);
  // Stops following the task's counters.
  void cleanUpProgressForTask(const ZRBURLSessionTaskPtr& task);

  void URLSessionTaskDidCompleteWithError(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                                          ZRBErrorPtr error);
  void URLSessionDataTaskDidReceiveData(const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
                                        const ZRBValue& data);
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const ZRBURLSessionPtr& session,
                                                       const ZRBURLSessionDownloadTaskPtr& task,
                                                       const ZRBURLPtr& location);

  std::string className() const override { return "ZRBHS_URLSessionManagerTaskDelegate"; }

 private:
  // Makes both progress objects and starts following the counters, once.
  void startProgress();
  void counterChanged(ZRBURLSessionTaskCounter counter, std::int64_t value);

  std::weak_ptr<ZRBHS_URLSessionManager> manager_;

  // Delegate queue only. One chunk is kept as it came; a second one starts a buffer.
  ZRBValue firstChunk_;
  std::vector<std::uint8_t> buffer_;
  bool taken_ = false;

  ZRBURLPtr downloadFileURL_;

  std::mutex progressMutex_;
  std::atomic<bool> progressStarted_{false};
  bool cleanedUp_ = false;
  std::weak_ptr<ZRBURLSessionTask> task_;
  ZRBURLSessionTask::ObserverToken counterToken_ = 0;
  ZRBProgressPtr uploadProgress_;
  ZRBProgressPtr downloadProgress_;
  std::shared_ptr<const ZRBHS_ProgressBlock> uploadProgressBlock_;
  std::shared_ptr<const ZRBHS_ProgressBlock> downloadProgressBlock_;
};

using ZRBHS_URLSessionManagerTaskDelegatePtr = std::shared_ptr<ZRBHS_URLSessionManagerTaskDelegate>;
