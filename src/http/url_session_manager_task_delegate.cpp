#include "http/url_session_manager_task_delegate.h"

#include <chrono>
#include <cstdio>
#include <exception>

#include "http/response_serializer.h"
#include "http/url_session_manager.h"
#include "platform/runtime/inline_budget.h"
#include "platform/runtime/notification_center.h"
#include "platform/system/file_manager.h"

namespace {

// A serializer must not throw, but one that does still owes the caller its completion.
ZRBErrorPtr decodingFailure(const char* what) {
  return ZRBError::withDescription("com.brontide.error.serialization.response", -1016, what);
}

constexpr std::size_t kDecodeHereLimit = 16 * 1024;

// Completions run on the thread that finished the task (the transport's, or the processing
// queue's) when their queue is idle: the hop to another thread costs more than a quick completion.
// A completion that took long sends the next ones through their queue for a while, so a slow
// caller cannot hold up the transport for long.
ZRBInlineBudget completionBudget(std::chrono::milliseconds(2), std::chrono::seconds(1));

// One task's completion: the decoding step fills in the outcome, the completion queue runs it once.
// The blocks that carry it by reference are small enough to need no allocation of their own.
struct Completion {
  ZRBDispatchQueuePtr queue;
  ZRBDispatchGroupPtr group;
  // The delegate queue this thread holds while it decodes, or null. Only read while the decoding
  // runs on this thread, under the manager that owns the queue.
  const ZRBDispatchQueue* delegateQueue = nullptr;
  ZRBURLSessionTaskPtr task;
  ZRBURLResponsePtr response;
  ZRBHS_TaskCompletionHandler handler;
  bool notify = false;
  ZRBValue object;
  ZRBErrorPtr failure;
  ZRBValue info;

  // On the completion queue, once; the group was entered for it.
  void run() {
    struct Leave {
      ZRBDispatchGroup& group;
      ~Leave() { group.leave(); }
    } leave{*group};
    if (handler) handler(response, object, failure);
    if (!notify) return;
    ZRBDispatch::mainQueue()->async([task = task, info = info] {
      ZRBNotificationCenter::defaultCenter()->post(ZRBHS_NetworkingTaskDidCompleteNotification,
                                                   ZRBValue(task), info);
    });
  }

  // When the completion queue is idle, this thread runs the completion as the queue's block
  // instead of handing it to another thread.
  void dispatch() {
    group->enter();
    ZRBInlineBudget::Run inlineRun(completionBudget);
    if (inlineRun.allowed() && queue->runNowIfIdle([this] {
          // The task lists must not wait for the delegate queue that this thread may be holding.
          const ZRBDispatchQueue* outer = ZRBHS_URLSessionManager::heldDelegateQueue;
          ZRBHS_URLSessionManager::heldDelegateQueue = delegateQueue;
          struct Restore {
            const ZRBDispatchQueue* outer;
            ~Restore() { ZRBHS_URLSessionManager::heldDelegateQueue = outer; }
          } restore{outer};
          run();
        })) {
      inlineRun.finished();
      return;
    }
    ZRBDispatchQueuePtr target = queue;
    target->async([completion = std::move(*this)]() mutable { completion.run(); });
  }
};

// The decoding step of a completion, on the processing queue.
struct Decoding {
  Completion completion;
  ZRBHS_ResponseSerializerPtr serializer;
  ZRBValue data;
  ZRBURLPtr fileURL;
  ZRBDictionaryBuilder userInfo;

  void run() {
    ZRBErrorPtr failure;
    ZRBValue object;
    try {
      if (serializer) object = serializer->responseObjectForResponse(completion.response, data, &failure);
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "ORVELKIT: a response serializer threw: %s\n", exception.what());
      failure = decodingFailure(exception.what());
    }
    if (fileURL) object = ZRBValue(fileURL);
    if (completion.notify) {
      if (object) userInfo.append(ZRBValue(ZRBHS_NetworkingTaskDidCompleteSerializedResponseKey), object);
      if (failure) userInfo.append(ZRBValue(ZRBHS_NetworkingTaskDidCompleteErrorKey), ZRBValue(failure));
      completion.info = userInfo.build();
    }
    completion.object = std::move(object);
    completion.failure = std::move(failure);
    completion.dispatch();
  }
};

void postMoveFailure(const ZRBURLSessionDownloadTaskPtr& task, const ZRBErrorPtr& error) {
  ZRBNotificationCenter::defaultCenter()->post(ZRBHS_URLSessionDownloadTaskDidFailToMoveFileNotification,
                                               ZRBValue(task), error ? error->userInfo() : ZRBValue());
}

}  // namespace

ZRBHS_URLSessionManagerTaskDelegate::ZRBHS_URLSessionManagerTaskDelegate() = default;

ZRBHS_URLSessionManagerTaskDelegate::~ZRBHS_URLSessionManagerTaskDelegate() = default;

ZRBValue ZRBHS_URLSessionManagerTaskDelegate::mutableData() const {
  if (taken_) return ZRBValue();
  if (!buffer_.empty()) return ZRBValue::data(buffer_.data(), buffer_.size());
  return firstChunk_ ? firstChunk_ : ZRBValue::data(nullptr, 0);
}

// ---- progress ----

ZRBProgressPtr ZRBHS_URLSessionManagerTaskDelegate::uploadProgress() {
  startProgress();
  return uploadProgress_;
}

ZRBProgressPtr ZRBHS_URLSessionManagerTaskDelegate::downloadProgress() {
  startProgress();
  return downloadProgress_;
}

void ZRBHS_URLSessionManagerTaskDelegate::setUploadProgressBlock(ZRBHS_ProgressBlock block) {
  if (!block) return;
  {
    std::lock_guard lock(progressMutex_);
    uploadProgressBlock_ = std::make_shared<const ZRBHS_ProgressBlock>(std::move(block));
  }
  startProgress();
}

void ZRBHS_URLSessionManagerTaskDelegate::setDownloadProgressBlock(ZRBHS_ProgressBlock block) {
  if (!block) return;
  {
    std::lock_guard lock(progressMutex_);
    downloadProgressBlock_ = std::make_shared<const ZRBHS_ProgressBlock>(std::move(block));
  }
  startProgress();
}

void ZRBHS_URLSessionManagerTaskDelegate::setupProgressForTask(const ZRBURLSessionTaskPtr& task) {
  std::lock_guard lock(progressMutex_);
  task_ = task;
}

void ZRBHS_URLSessionManagerTaskDelegate::cleanUpProgressForTask(const ZRBURLSessionTaskPtr& task) {
  std::lock_guard lock(progressMutex_);
  cleanedUp_ = true;
  if (counterToken_ && task) task->removeCounterObserver(counterToken_);
  counterToken_ = 0;
}

void ZRBHS_URLSessionManagerTaskDelegate::startProgress() {
  if (progressStarted_.load(std::memory_order_acquire)) return;
  std::unique_lock lock(progressMutex_);
  if (progressStarted_.load(std::memory_order_relaxed)) return;
  auto task = task_.lock();
  std::weak_ptr<ZRBURLSessionTask> weakTask = task_;
  auto make = [&weakTask](std::int64_t total, std::int64_t completed) {
    auto progress = ZRBProgress::progressWithTotalUnitCount(ZRBURLSessionTransferSizeUnknown);
    progress->setCancellable(true);
    progress->setCancellationHandler([weakTask] {
      if (auto owner = weakTask.lock()) owner->cancel();
    });
    progress->setPausable(true);
    progress->setPausingHandler([weakTask] {
      if (auto owner = weakTask.lock()) owner->suspend();
    });
    progress->setResumingHandler([weakTask] {
      if (auto owner = weakTask.lock()) owner->resume();
    });
    progress->setTotalUnitCount(total);
    progress->setCompletedUnitCount(completed);
    return progress;
  };
  uploadProgress_ = make(task ? task->countOfBytesExpectedToSend() : ZRBURLSessionTransferSizeUnknown,
                         task ? task->countOfBytesSent() : 0);
  downloadProgress_ = make(task ? task->countOfBytesExpectedToReceive() : ZRBURLSessionTransferSizeUnknown,
                           task ? task->countOfBytesReceived() : 0);
  // The callbacks hear of changes from here on; the progress objects keep this delegate weakly.
  std::weak_ptr<ZRBHS_URLSessionManagerTaskDelegate> weakSelf =
      std::static_pointer_cast<ZRBHS_URLSessionManagerTaskDelegate>(shared_from_this());
  auto observe = [&weakSelf](const ZRBProgressPtr& progress, bool upload) {
    progress->addObserver([weakSelf, upload](ZRBProgress& changed, ZRBProgressChange change) {
      if (change != ZRBProgressChange::CompletedUnitCount && change != ZRBProgressChange::TotalUnitCount)
        return;
      auto self = weakSelf.lock();
      if (!self) return;
      std::shared_ptr<const ZRBHS_ProgressBlock> block;
      {
        std::lock_guard blockLock(self->progressMutex_);
        block = upload ? self->uploadProgressBlock_ : self->downloadProgressBlock_;
      }
      if (block) (*block)(upload ? self->uploadProgress_ : self->downloadProgress_);
      (void)changed;
    });
  };
  observe(uploadProgress_, true);
  observe(downloadProgress_, false);
  if (task && !cleanedUp_) {
    counterToken_ =
        task->addCounterObserver([weakSelf](ZRBURLSessionTaskCounter counter, std::int64_t value) {
          if (auto self = weakSelf.lock()) self->counterChanged(counter, value);
        });
  }
  progressStarted_.store(true, std::memory_order_release);
}

void ZRBHS_URLSessionManagerTaskDelegate::counterChanged(ZRBURLSessionTaskCounter counter,
                                                         std::int64_t value) {
  // The progress objects are set before the observer exists and never change afterwards.
  switch (counter) {
    case ZRBURLSessionTaskCounter::BytesReceived: downloadProgress_->setCompletedUnitCount(value); break;
    case ZRBURLSessionTaskCounter::BytesExpectedToReceive: downloadProgress_->setTotalUnitCount(value); break;
    case ZRBURLSessionTaskCounter::BytesSent: uploadProgress_->setCompletedUnitCount(value); break;
    case ZRBURLSessionTaskCounter::BytesExpectedToSend: uploadProgress_->setTotalUnitCount(value); break;
  }
}

// ---- body ----

void ZRBHS_URLSessionManagerTaskDelegate::URLSessionDataTaskDidReceiveData(const ZRBURLSessionPtr&,
                                                                           const ZRBURLSessionDataTaskPtr&,
                                                                           const ZRBValue& data) {
  if (taken_) return;
  // Most bodies come in one chunk: that value is the body, shared rather than copied.
  if (!firstChunk_ && buffer_.empty()) {
    firstChunk_ = data;
    return;
  }
  if (firstChunk_) {
    auto first = firstChunk_.bytes();
    buffer_.reserve(first.size() + data.bytes().size());
    buffer_.assign(first.begin(), first.end());
    firstChunk_ = ZRBValue();
  }
  auto bytes = data.bytes();
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

void ZRBHS_URLSessionManagerTaskDelegate::URLSessionDownloadTaskDidFinishDownloadingToURL(
    const ZRBURLSessionPtr& session, const ZRBURLSessionDownloadTaskPtr& task, const ZRBURLPtr& location) {
  downloadFileURL_ = nullptr;
  if (!downloadTaskDidFinishDownloading) return;
  downloadFileURL_ = downloadTaskDidFinishDownloading(session, task, location);
  if (!downloadFileURL_) return;
  ZRBErrorPtr error;
  if (!ZRBFileManager::defaultManager()->moveItemAtPath(location->path(), downloadFileURL_->path(), &error))
    postMoveFailure(task, error);
}

// ---- completion ----

void ZRBHS_URLSessionManagerTaskDelegate::URLSessionTaskDidCompleteWithError(const ZRBURLSessionPtr&,
                                                                             const ZRBURLSessionTaskPtr& task,
                                                                             ZRBErrorPtr error) {
  auto manager = manager_.lock();
  ZRBHS_URLSessionManager::CompletionSettings settings;
  if (manager) settings = manager->completionSettings();
  ZRBHS_ResponseSerializerPtr serializer = std::move(settings.responseSerializer);
  ZRBDispatchQueuePtr queue = std::move(settings.completionQueue);
  if (!queue) queue = ZRBDispatch::mainQueue();
  ZRBDispatchGroupPtr group = std::move(settings.completionGroup);
  if (!group) group = ZRBHS_URLSessionManager::defaultCompletionGroup();

  // The body leaves the delegate here, whole: no copy is made of it.
  ZRBValue data;
  if (!taken_) {
    data = !buffer_.empty() ? ZRBValue::data(std::move(buffer_)) : firstChunk_;
    buffer_ = {};
    firstChunk_ = ZRBValue();
    taken_ = true;
  }

  // The notification's user info is made only when somebody listens for it.
  static const ZRBNotificationCenter::ObservedName kCompleted(ZRBHS_NetworkingTaskDidCompleteNotification);
  const bool notify = kCompleted.hasObservers(*ZRBNotificationCenter::defaultCenter());
  ZRBDictionaryBuilder userInfo;
  if (notify) {
    userInfo.reserve(4);
    if (serializer)
      userInfo.append(ZRBValue(ZRBHS_NetworkingTaskDidCompleteResponseSerializerKey), ZRBValue(serializer));
    if (downloadFileURL_) {
      userInfo.append(ZRBValue(ZRBHS_NetworkingTaskDidCompleteAssetPathKey), ZRBValue(downloadFileURL_));
    } else if (data) {
      userInfo.append(ZRBValue(ZRBHS_NetworkingTaskDidCompleteResponseDataKey), data);
    }
  }

  const std::size_t size = data.bytes().size();
  Decoding decoding;
  Completion& completion = decoding.completion;
  completion.queue = std::move(queue);
  completion.group = std::move(group);
  // Set when decoding runs here, on the delegate queue; a completion run from there holds it.
  if (size <= kDecodeHereLimit && manager) completion.delegateQueue = manager->operationQueue().get();
  completion.task = task;
  completion.response = task->response();
  completion.handler = std::move(completionHandler);
  completionHandler = nullptr;
  completion.notify = notify;

  if (error) {
    if (notify) {
      userInfo.append(ZRBValue(ZRBHS_NetworkingTaskDidCompleteErrorKey), ZRBValue(error));
      completion.info = userInfo.build();
    }
    completion.failure = std::move(error);
    completion.dispatch();
    return;
  }
  decoding.serializer = std::move(serializer);
  decoding.data = std::move(data);
  decoding.fileURL = downloadFileURL_;
  decoding.userInfo = std::move(userInfo);
  // A small body decodes in less time than handing it to another thread takes: it is decoded as a
  // block of the processing queue on this thread. Larger ones go to the queue's threads, so that
  // decoding them never holds up the delegate queue.
  if (size <= kDecodeHereLimit) {
    ZRBHS_URLSessionManager::processingQueue()->sync([&decoding] { decoding.run(); });
  } else {
    ZRBHS_URLSessionManager::processingQueue()->async(
        [decoding = std::move(decoding)]() mutable { decoding.run(); });
  }
}
