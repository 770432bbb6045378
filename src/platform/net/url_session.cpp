#include "platform/net/url_session.h"

#include <algorithm>

#include "platform/foundation/exception.h"
#include "platform/foundation/string_format.h"
#include "platform/net/transport/resume_data.h"
#include "platform/net/transport/task_driver.h"
#include "platform/net/transport/transport.h"

struct ZRBURLSession::TaskBody : ZRBURLSessionTaskDriver::Body {};

namespace {
ZRBURLSessionPtr constructSession(ZRBURLSessionConfigurationPtr configuration,
                                  ZRBURLSessionDelegatePtr delegate, ZRBDispatchQueuePtr delegateQueue) {
  configuration =
      configuration ? configuration->copy() : ZRBURLSessionConfiguration::defaultSessionConfiguration();
  if (!delegateQueue) delegateQueue = ZRBDispatchQueue::serial("com.orvelkit.urlsession.delegate");
  return std::make_shared<ZRBURLSession>(ZRBURLSession::Private{}, std::move(configuration),
                                         std::move(delegate), std::move(delegateQueue));
}

}  // namespace

ZRBURLSessionConstructionSlot& ZRBURLSession::constructionSlot() {
  static ZRBURLSessionConstructionSlot slot(ZRBURLSessionConstructionMethod, &constructSession);
  return slot;
}

ZRBURLSessionPtr ZRBURLSession::sessionWithConfiguration(ZRBURLSessionConfigurationPtr configuration) {
  return sessionWithConfiguration(std::move(configuration), nullptr, nullptr);
}

ZRBURLSessionPtr ZRBURLSession::sessionWithConfiguration(ZRBURLSessionConfigurationPtr configuration,
                                                         ZRBURLSessionDelegatePtr delegate,
                                                         ZRBDispatchQueuePtr delegateQueue) {
  return constructionSlot().call(std::move(configuration), std::move(delegate), std::move(delegateQueue));
}

ZRBURLSession::ZRBURLSession(Private, ZRBURLSessionConfigurationPtr configuration,
                             ZRBURLSessionDelegatePtr delegate, ZRBDispatchQueuePtr delegateQueue)
    : configuration_(std::move(configuration)),
      delegateQueue_(std::move(delegateQueue)),
      delegate_(std::move(delegate)) {}

ZRBURLSession::~ZRBURLSession() {
  if (transport_) transport_->shutdown();
}

ZRBURLSessionConfigurationPtr ZRBURLSession::configuration() const { return configuration_->copy(); }

ZRBURLSessionDelegatePtr ZRBURLSession::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

std::optional<std::string> ZRBURLSession::sessionDescription() const {
  std::lock_guard lock(mutex_);
  return description_;
}

void ZRBURLSession::setSessionDescription(std::optional<std::string> description) {
  std::lock_guard lock(mutex_);
  description_ = std::move(description);
}

const std::shared_ptr<ZRBTransport>& ZRBURLSession::transport() {
  if (transportStarted_.load(std::memory_order_acquire)) return transport_;
  std::call_once(transportOnce_, [this] {
    ZRBTransportOptions options;
    options.maximumConnectionsPerHost = configuration_->HTTPMaximumConnectionsPerHost();
    options.pipelining = configuration_->HTTPShouldUsePipelining();
    options.callbackQueue = delegateQueue_;
    transport_ = ZRBTransport::make(options);
    transportStarted_.store(true, std::memory_order_release);
  });
  return transport_;
}

void ZRBURLSession::checkNotInvalidated() const {
  if (invalidated_)
    throw ZRBException("ZRBGenericException", "Task created in a session that has been invalidated");
}

template <typename Task>
std::shared_ptr<Task> ZRBURLSession::makeTask(ZRBURLSessionTask::Kind kind, ZRBURLRequestPtr request,
                                              TaskBody body) {
  auto self = std::static_pointer_cast<ZRBURLSession>(shared_from_this());
  transport();
  std::shared_ptr<Task> task;
  {
    std::lock_guard lock(mutex_);
    checkNotInvalidated();
    // Tasks keep the request as it was when they were made.
    task = std::make_shared<Task>(ZRBURLSessionTask::Private{}, kind, nextIdentifier_++,
                                  request ? request->copy() : nullptr);
    tasks_.add(task);
  }
  task->setDriver(std::make_shared<ZRBURLSessionTaskDriver>(std::move(self), task, std::move(body)));
  return task;
}

namespace {

// Data and download tasks send the request's own body: its bytes, else its body stream.
ZRBURLSessionTaskDriver::Body bodyOfRequest(const ZRBURLRequestPtr& request) {
  ZRBURLSessionTaskDriver::Body body;
  if (request && !request->HTTPBody().isAbsent()) {
    body.kind = ZRBURLSessionTaskDriver::Body::Kind::Bytes;
    body.bytes = request->HTTPBody();
  } else if (request && request->HTTPBodyStream()) {
    body.kind = ZRBURLSessionTaskDriver::Body::Kind::Stream;
    body.stream = request->HTTPBodyStream();
  }
  return body;
}

}  // namespace

ZRBURLSessionDataTaskPtr ZRBURLSession::dataTaskWithRequest(ZRBURLRequestPtr request) {
  TaskBody body{bodyOfRequest(request)};
  return makeTask<ZRBURLSessionDataTask>(ZRBURLSessionTask::Kind::Data, std::move(request), std::move(body));
}

ZRBURLSessionDataTaskPtr ZRBURLSession::dataTaskWithURL(ZRBURLPtr url) {
  return dataTaskWithRequest(ZRBURLRequest::requestWithURL(std::move(url)));
}

ZRBURLSessionDataTaskPtr ZRBURLSession::dataTaskWithRequest(ZRBURLRequestPtr request,
                                                            ZRBURLSessionDataCompletion completion) {
  auto task = dataTaskWithRequest(std::move(request));
  if (completion) task->driver()->setDataCompletion(std::move(completion));
  return task;
}

void ZRBURLSession::setFileUploadCreationGate(std::function<bool()> gate) {
  auto replacement = gate ? std::make_shared<const std::function<bool()>>(std::move(gate)) : nullptr;
  std::lock_guard lock(mutex_);
  fileUploadGate_ = std::move(replacement);
}

ZRBURLSessionUploadTaskPtr ZRBURLSession::uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBURLPtr fileURL) {
  std::shared_ptr<const std::function<bool()>> gate;
  {
    std::lock_guard lock(mutex_);
    gate = fileUploadGate_;
  }
  if (gate && !(*gate)()) return nullptr;
  TaskBody body;
  body.kind = TaskBody::Kind::File;
  body.path = fileURL ? fileURL->path() : std::string();
  return makeTask<ZRBURLSessionUploadTask>(ZRBURLSessionTask::Kind::Upload, std::move(request),
                                           std::move(body));
}

ZRBURLSessionUploadTaskPtr ZRBURLSession::uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBValue bodyData) {
  TaskBody body;
  body.kind = TaskBody::Kind::Bytes;
  body.bytes = bodyData.isString() ? ZRBValue::data(bodyData.stringView()) : std::move(bodyData);
  return makeTask<ZRBURLSessionUploadTask>(ZRBURLSessionTask::Kind::Upload, std::move(request),
                                           std::move(body));
}

ZRBURLSessionUploadTaskPtr ZRBURLSession::uploadTaskWithStreamedRequest(ZRBURLRequestPtr request) {
  TaskBody body;
  body.kind = TaskBody::Kind::Stream;
  body.stream = request ? request->HTTPBodyStream() : nullptr;
  return makeTask<ZRBURLSessionUploadTask>(ZRBURLSessionTask::Kind::Upload, std::move(request),
                                           std::move(body));
}

ZRBURLSessionUploadTaskPtr ZRBURLSession::uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBURLPtr fileURL,
                                                                ZRBURLSessionDataCompletion completion) {
  auto task = uploadTaskWithRequest(std::move(request), std::move(fileURL));
  if (task && completion) task->driver()->setDataCompletion(std::move(completion));
  return task;
}

ZRBURLSessionUploadTaskPtr ZRBURLSession::uploadTaskWithRequest(ZRBURLRequestPtr request, ZRBValue bodyData,
                                                                ZRBURLSessionDataCompletion completion) {
  auto task = uploadTaskWithRequest(std::move(request), std::move(bodyData));
  if (completion) task->driver()->setDataCompletion(std::move(completion));
  return task;
}

ZRBURLSessionDownloadTaskPtr ZRBURLSession::downloadTaskWithRequest(ZRBURLRequestPtr request) {
  TaskBody body{bodyOfRequest(request)};
  return makeTask<ZRBURLSessionDownloadTask>(ZRBURLSessionTask::Kind::Download, std::move(request),
                                             std::move(body));
}

ZRBURLSessionDownloadTaskPtr ZRBURLSession::downloadTaskWithURL(ZRBURLPtr url) {
  return downloadTaskWithRequest(ZRBURLRequest::requestWithURL(std::move(url)));
}

ZRBURLSessionDownloadTaskPtr ZRBURLSession::downloadTaskWithRequest(
    ZRBURLRequestPtr request, ZRBURLSessionDownloadCompletion completion) {
  auto task = downloadTaskWithRequest(std::move(request));
  if (completion) task->driver()->setDownloadCompletion(std::move(completion));
  return task;
}

ZRBURLSessionDownloadTaskPtr ZRBURLSession::makeResumedDownload(const ZRBValue& resumeData) {
  auto info = ZRBDecodeResumeData(resumeData);
  if (!info) throw ZRBException("ZRBInvalidArgumentException", "Invalid resume data");
  auto task = downloadTaskWithRequest(ZRBURLRequest::requestWithURL(ZRBURL::URLWithString(info->URL)));
  task->driver()->setResumeInfo(std::move(*info));
  return task;
}

ZRBURLSessionDownloadTaskPtr ZRBURLSession::downloadTaskWithResumeData(const ZRBValue& resumeData) {
  return makeResumedDownload(resumeData);
}

ZRBURLSessionDownloadTaskPtr ZRBURLSession::downloadTaskWithResumeData(
    const ZRBValue& resumeData, ZRBURLSessionDownloadCompletion completion) {
  auto task = makeResumedDownload(resumeData);
  if (completion) task->driver()->setDownloadCompletion(std::move(completion));
  return task;
}

ZRBURLSessionDownloadTaskPtr ZRBURLSession::adoptAsDownloadTask(
    const ZRBURLSessionTaskPtr& dataTask, std::shared_ptr<ZRBURLSessionTaskDriver> driver) {
  ZRBURLSessionDownloadTaskPtr task;
  {
    std::lock_guard lock(mutex_);
    task = std::make_shared<ZRBURLSessionDownloadTask>(ZRBURLSessionTask::Private{},
                                                       ZRBURLSessionTask::Kind::Download, nextIdentifier_++,
                                                       dataTask->originalRequest());
    tasks_.add(task);
  }
  task->setCurrentRequest(dataTask->currentRequest());
  task->setResponse(dataTask->response());
  task->setPriority(dataTask->priority());
  task->setTaskDescription(dataTask->taskDescription());
  task->setState(dataTask->state() == ZRBURLSessionTaskStateSuspended ? ZRBURLSessionTaskStateSuspended
                                                                      : ZRBURLSessionTaskStateRunning);
  task->setDriver(std::move(driver));
  // The data task's part is over; the session forgets it once the delegate has heard.
  dataTask->setState(ZRBURLSessionTaskStateCompleted);
  return task;
}

void ZRBURLSession::taskDidFinish(const ZRBURLSessionTask& task) {
  // Dropped after the lock is released (the task may hold the last reference to this session).
  ZRBURLSessionTaskPtr released;
  std::lock_guard lock(mutex_);
  released = tasks_.take(task.taskIdentifier());
  becomeInvalidIfDone();
}

void ZRBURLSession::becomeInvalidIfDone() {
  if (!invalidated_ || !tasks_.empty() || invalidationReported_) return;
  invalidationReported_ = true;
  auto self = std::static_pointer_cast<ZRBURLSession>(shared_from_this());
  delegateQueue_->async([self] {
    if (auto delegate = self->delegate()) delegate->sessionDidBecomeInvalid(self, nullptr);
    ZRBURLSessionDelegatePtr released;
    {
      std::lock_guard lock(self->mutex_);
      released = std::move(self->delegate_);
    }
    // No task can come any more: the transport thread ends now rather than with the session, which
    // its owner may keep for a long time. (Its handles go with the session.)
    if (self->transportStarted_.load(std::memory_order_acquire)) self->transport_->shutdown();
  });
}

void ZRBURLSession::invalidateAndCancel() {
  std::vector<ZRBURLSessionTaskPtr> tasks;
  {
    std::lock_guard lock(mutex_);
    invalidated_ = true;
    tasks_.forEach([&tasks](const ZRBURLSessionTaskPtr& task) { tasks.push_back(task); });
    becomeInvalidIfDone();
  }
  for (const auto& task : tasks) task->cancel();
}

void ZRBURLSession::finishTasksAndInvalidate() {
  std::lock_guard lock(mutex_);
  invalidated_ = true;
  becomeInvalidIfDone();
}

bool ZRBURLSession::isInvalidated() const {
  std::lock_guard lock(mutex_);
  return invalidated_;
}

std::vector<ZRBURLSessionTaskPtr> ZRBURLSession::tasksNow() const {
  std::vector<ZRBURLSessionTaskPtr> tasks;  // in identifier order, as the list keeps them
  std::lock_guard lock(mutex_);
  tasks_.forEach([&tasks](const ZRBURLSessionTaskPtr& task) {
    if (task->state() != ZRBURLSessionTaskStateCompleted) tasks.push_back(task);
  });
  return tasks;
}

void ZRBURLSession::getAllTasksWithCompletionHandler(
    std::function<void(std::vector<ZRBURLSessionTaskPtr>)> completion) {
  std::vector<ZRBURLSessionTaskPtr> tasks = tasksNow();
  delegateQueue_->async(
      [tasks = std::move(tasks), completion = std::move(completion)] { completion(tasks); });
}

void ZRBURLSession::getTasksWithCompletionHandler(ZRBURLSessionTasksCompletion completion) {
  getAllTasksWithCompletionHandler(
      [completion = std::move(completion)](std::vector<ZRBURLSessionTaskPtr> tasks) {
        std::vector<ZRBURLSessionDataTaskPtr> data;
        std::vector<ZRBURLSessionUploadTaskPtr> uploads;
        std::vector<ZRBURLSessionDownloadTaskPtr> downloads;
        for (auto& task : tasks) {
          switch (task->kind()) {
            case ZRBURLSessionTask::Kind::Data:
              data.push_back(std::static_pointer_cast<ZRBURLSessionDataTask>(task));
              break;
            case ZRBURLSessionTask::Kind::Upload:
              uploads.push_back(std::static_pointer_cast<ZRBURLSessionUploadTask>(task));
              break;
            case ZRBURLSessionTask::Kind::Download:
              downloads.push_back(std::static_pointer_cast<ZRBURLSessionDownloadTask>(task));
              break;
          }
        }
        completion(std::move(data), std::move(uploads), std::move(downloads));
      });
}

void ZRBURLSession::TaskList::add(ZRBURLSessionTaskPtr task) {
  unsigned long identifier = task->taskIdentifier();
  entries_.emplace_back(identifier, std::move(task));
  ++count_;
}

ZRBURLSessionTaskPtr ZRBURLSession::TaskList::take(unsigned long identifier) {
  auto found = std::lower_bound(entries_.begin(), entries_.end(), identifier,
                                [](const auto& entry, unsigned long id) { return entry.first < id; });
  if (found == entries_.end() || found->first != identifier || !found->second) return nullptr;
  ZRBURLSessionTaskPtr task = std::move(found->second);
  --count_;
  if (entries_.size() > 32 && entries_.size() > 2 * count_) {
    std::erase_if(entries_, [](const auto& entry) { return !entry.second; });
  }
  return task;
}

std::string ZRBURLSession::description() const { return ZRBStringWithFormat("<%@: %p>", className(), this); }
