#include "http/url_session_manager.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <utility>

#include "http/json_response_serializer.h"
#include "http/network_reachability_manager.h"
#include "http/security_policy.h"
#include "http/url_session_task_swizzling.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/foundation_version.h"
#include "platform/foundation/string_format.h"
#include "platform/system/file_manager.h"

namespace {

std::atomic<double> foundationVersion{ZRBFoundationVersionNumber};

// Older platforms handed out duplicate task identifiers when tasks were made on several threads
// at once; the identifier keys the delegate map, so there tasks are made one at a time.
constexpr double kConcurrentTaskCreationVersion = 1140.11;

template <typename Create>
auto createTask(Create&& create) {
  if (foundationVersion.load(std::memory_order_relaxed) >= kConcurrentTaskCreationVersion) return create();
  decltype(create()) task;
  ZRBHS_URLSessionManager::creationQueue()->sync([&] { task = create(); });
  return task;
}

// The managers alive, by the description they give their tasks: the resume and suspend
// observation finds a task's manager here, with one observer for all of them.
struct ManagerRegistry {
  std::mutex mutex;
  std::unordered_map<std::string, std::weak_ptr<ZRBHS_URLSessionManager>> managers;
};

ManagerRegistry& registry() {
  static auto* instance = new ManagerRegistry;  // outlives managers released at exit
  return *instance;
}

ZRBHS_URLSessionManagerPtr managerOfTask(const ZRBURLSessionTaskPtr& task) {
  if (!task) return nullptr;
  std::optional<std::string> description = task->taskDescription();
  if (!description) return nullptr;
  ManagerRegistry& managers = registry();
  std::lock_guard lock(managers.mutex);
  auto found = managers.managers.find(*description);
  return found == managers.managers.end() ? nullptr : found->second.lock();
}

void observeTaskStateOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto center = ZRBNotificationCenter::defaultCenter();
    center->addObserver(
        "com.brontide.zrb_networking.nsurlsessiontask.resume", ZRBValue(), nullptr,
        [](const ZRBNotificationPtr& notification) {
          // Nobody listens: no manager to look for.
          static const ZRBNotificationCenter::ObservedName kPublic(ZRBHS_NetworkingTaskDidResumeNotification);
          if (!kPublic.hasObservers(*ZRBNotificationCenter::defaultCenter())) return;
          auto task = notification->objectAs<ZRBURLSessionTask>();
          if (auto manager = managerOfTask(task)) manager->taskDidResume(task);
        });
    center->addObserver("com.brontide.zrb_networking.nsurlsessiontask.suspend", ZRBValue(), nullptr,
                        [](const ZRBNotificationPtr& notification) {
                          // Nobody listens: no manager to look for.
                          static const ZRBNotificationCenter::ObservedName kPublic(
                              ZRBHS_NetworkingTaskDidSuspendNotification);
                          if (!kPublic.hasObservers(*ZRBNotificationCenter::defaultCenter())) return;
                          auto task = notification->objectAs<ZRBURLSessionTask>();
                          if (auto manager = managerOfTask(task)) manager->taskDidSuspend(task);
                        });
    ZRBHS_URLSessionTaskSwizzling::relayObserved(ZRBHS_NetworkingTaskDidResumeNotification,
                                                 ZRBHS_NetworkingTaskDidSuspendNotification);
  });
}

void reportHookFailure(const char* hook) {
  try {
    throw;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "ORVELKIT: the %s hook threw: %s\n", hook, exception.what());
  } catch (...) {
    std::fprintf(stderr, "ORVELKIT: the %s hook threw\n", hook);
  }
}

}  // namespace

thread_local const ZRBDispatchQueue* ZRBHS_URLSessionManager::heldDelegateQueue = nullptr;

// ---- shared work objects ----

// Never destroyed: transport threads still deliver completions while the process exits.
const ZRBDispatchQueuePtr& ZRBHS_URLSessionManager::processingQueue() {
  static const auto* queue = new ZRBDispatchQueuePtr(
      ZRBDispatchQueue::concurrent("com.brontide.zrb_networking.session.manager.processing"));
  return *queue;
}

const ZRBDispatchQueuePtr& ZRBHS_URLSessionManager::creationQueue() {
  static const auto* queue = new ZRBDispatchQueuePtr(
      ZRBDispatchQueue::serial("com.brontide.zrb_networking.session.manager.creation"));
  return *queue;
}

const ZRBDispatchGroupPtr& ZRBHS_URLSessionManager::defaultCompletionGroup() {
  static const auto* group = new ZRBDispatchGroupPtr(ZRBDispatchGroup::make());
  return *group;
}

void ZRBHS_URLSessionManager::setFoundationVersionNumberForTesting(double version) {
  foundationVersion.store(version > 0 ? version : ZRBFoundationVersionNumber, std::memory_order_relaxed);
}

// ---- making one ----

ZRBHS_URLSessionManager::ZRBHS_URLSessionManager(Private, ZRBURLSessionConfigurationPtr configuration)
    : sessionConfiguration_(configuration ? std::move(configuration)
                                          : ZRBURLSessionConfiguration::defaultSessionConfiguration()),
      operationQueue_(ZRBDispatchQueue::serial("com.brontide.zrb_networking.session.manager.delegate")),
      taskDescription_(ZRBStringWithFormat("%p", static_cast<const void*>(this))) {}

ZRBHS_URLSessionManagerPtr ZRBHS_URLSessionManager::initWithSessionConfiguration(
    ZRBURLSessionConfigurationPtr configuration) {
  auto manager = std::make_shared<ZRBHS_URLSessionManager>(Private{}, std::move(configuration));
  manager->setUp();
  return manager;
}

void ZRBHS_URLSessionManager::setUp() {
  auto self = std::static_pointer_cast<ZRBHS_URLSessionManager>(shared_from_this());
  session_ = ZRBURLSession::sessionWithConfiguration(sessionConfiguration_, self, operationQueue_);
  responseSerializer_ = ZRBHS_JSONResponseSerializer::serializer();
  securityPolicy_ = ZRBHS_SecurityPolicy::defaultPolicy();
  reachabilityManager_ = ZRBHS_NetworkReachabilityManager::sharedManager();
  observeTaskStateOnce();
  {
    ManagerRegistry& managers = registry();
    std::lock_guard lock(managers.mutex);
    managers.managers[taskDescription_] = self;
  }
  // Tasks a restored background session already runs get a delegate of their own.
  std::weak_ptr<ZRBHS_URLSessionManager> weakSelf = self;
  session_->getTasksWithCompletionHandler([weakSelf](std::vector<ZRBURLSessionDataTaskPtr> data,
                                                     std::vector<ZRBURLSessionUploadTaskPtr> uploads,
                                                     std::vector<ZRBURLSessionDownloadTaskPtr> downloads) {
    auto manager = weakSelf.lock();
    if (!manager) return;
    for (const auto& task : data) manager->addDelegateForDataTask(task, nullptr, nullptr, nullptr);
    for (const auto& task : uploads) manager->addDelegateForUploadTask(task, nullptr, nullptr);
    for (const auto& task : downloads) manager->addDelegateForDownloadTask(task, nullptr, nullptr, nullptr);
  });
}

ZRBHS_URLSessionManager::~ZRBHS_URLSessionManager() {
  ManagerRegistry& managers = registry();
  std::lock_guard lock(managers.mutex);
  auto found = managers.managers.find(taskDescription_);
  // Another manager may have the same address by now, and registered it again.
  if (found != managers.managers.end() && found->second.expired()) managers.managers.erase(found);
}

// ---- fields ----

ZRBHS_ResponseSerializerPtr ZRBHS_URLSessionManager::responseSerializer() const {
  std::lock_guard lock(fieldsMutex_);
  return responseSerializer_;
}

void ZRBHS_URLSessionManager::setResponseSerializer(ZRBHS_ResponseSerializerPtr serializer) {
  ZRBAssertNamed(serializer, "responseSerializer");
  if (!serializer) return;
  std::lock_guard lock(fieldsMutex_);
  responseSerializer_ = std::move(serializer);
}

std::shared_ptr<ZRBHS_SecurityPolicy> ZRBHS_URLSessionManager::securityPolicy() const {
  std::lock_guard lock(fieldsMutex_);
  return securityPolicy_;
}

void ZRBHS_URLSessionManager::setSecurityPolicy(std::shared_ptr<ZRBHS_SecurityPolicy> policy) {
  std::lock_guard lock(fieldsMutex_);
  securityPolicy_ = std::move(policy);
}

std::shared_ptr<ZRBHS_NetworkReachabilityManager> ZRBHS_URLSessionManager::reachabilityManager() const {
  std::lock_guard lock(fieldsMutex_);
  return reachabilityManager_;
}

void ZRBHS_URLSessionManager::setReachabilityManager(
    std::shared_ptr<ZRBHS_NetworkReachabilityManager> manager) {
  std::lock_guard lock(fieldsMutex_);
  reachabilityManager_ = std::move(manager);
}

ZRBDispatchQueuePtr ZRBHS_URLSessionManager::completionQueue() const {
  std::lock_guard lock(fieldsMutex_);
  return completionQueue_;
}

void ZRBHS_URLSessionManager::setCompletionQueue(ZRBDispatchQueuePtr queue) {
  std::lock_guard lock(fieldsMutex_);
  completionQueue_ = std::move(queue);
}

ZRBDispatchGroupPtr ZRBHS_URLSessionManager::completionGroup() const {
  std::lock_guard lock(fieldsMutex_);
  return completionGroup_;
}

void ZRBHS_URLSessionManager::setCompletionGroup(ZRBDispatchGroupPtr group) {
  std::lock_guard lock(fieldsMutex_);
  completionGroup_ = std::move(group);
}

ZRBHS_URLSessionManager::CompletionSettings ZRBHS_URLSessionManager::completionSettings() const {
  std::lock_guard lock(fieldsMutex_);
  return {responseSerializer_, completionQueue_, completionGroup_};
}

// ---- task lists ----

std::vector<ZRBURLSessionTaskPtr> ZRBHS_URLSessionManager::tasks() const {
  std::vector<ZRBURLSessionTaskPtr> all;
  if (heldDelegateQueue == operationQueue_.get()) {
    all = session_->tasksNow();
  } else {
    ZRBDispatchSemaphore answered(0);
    session_->getAllTasksWithCompletionHandler([&](std::vector<ZRBURLSessionTaskPtr> tasks) {
      all = std::move(tasks);
      answered.signal();
    });
    answered.wait();
  }
  // Data, then upload, then download tasks.
  std::stable_partition(all.begin(), all.end(),
                        [](const auto& task) { return task->kind() == ZRBURLSessionTask::Kind::Data; });
  std::stable_partition(all.begin(), all.end(),
                        [](const auto& task) { return task->kind() != ZRBURLSessionTask::Kind::Download; });
  return all;
}

namespace {

template <typename Task>
std::vector<std::shared_ptr<Task>> tasksOfKind(const std::vector<ZRBURLSessionTaskPtr>& all,
                                               ZRBURLSessionTask::Kind kind) {
  std::vector<std::shared_ptr<Task>> tasks;
  for (const auto& task : all) {
    if (task->kind() == kind) tasks.push_back(std::static_pointer_cast<Task>(task));
  }
  return tasks;
}

}  // namespace

std::vector<ZRBURLSessionDataTaskPtr> ZRBHS_URLSessionManager::dataTasks() const {
  return tasksOfKind<ZRBURLSessionDataTask>(tasks(), ZRBURLSessionTask::Kind::Data);
}

std::vector<ZRBURLSessionUploadTaskPtr> ZRBHS_URLSessionManager::uploadTasks() const {
  return tasksOfKind<ZRBURLSessionUploadTask>(tasks(), ZRBURLSessionTask::Kind::Upload);
}

std::vector<ZRBURLSessionDownloadTaskPtr> ZRBHS_URLSessionManager::downloadTasks() const {
  return tasksOfKind<ZRBURLSessionDownloadTask>(tasks(), ZRBURLSessionTask::Kind::Download);
}

void ZRBHS_URLSessionManager::invalidateSessionCancelingTasks(bool cancelPendingTasks) {
  ZRBDispatch::mainQueue()->async([session = session_, cancelPendingTasks] {
    if (cancelPendingTasks) {
      session->invalidateAndCancel();
    } else {
      session->finishTasksAndInvalidate();
    }
  });
}

// ---- tasks ----

ZRBURLSessionDataTaskPtr ZRBHS_URLSessionManager::dataTaskWithRequest(
    ZRBURLRequestPtr request, ZRBHS_TaskCompletionHandler completion) {
  return dataTaskWithRequest(std::move(request), nullptr, nullptr, std::move(completion));
}

ZRBURLSessionDataTaskPtr ZRBHS_URLSessionManager::dataTaskWithRequest(
    ZRBURLRequestPtr request, ZRBHS_ProgressBlock uploadProgress, ZRBHS_ProgressBlock downloadProgress,
    ZRBHS_TaskCompletionHandler completion) {
  auto task = createTask([&] { return session_->dataTaskWithRequest(std::move(request)); });
  addDelegateForDataTask(task, std::move(uploadProgress), std::move(downloadProgress), std::move(completion));
  return task;
}

ZRBURLSessionUploadTaskPtr ZRBHS_URLSessionManager::uploadTaskWithRequest(
    ZRBURLRequestPtr request, ZRBURLPtr fileURL, ZRBHS_ProgressBlock progress,
    ZRBHS_TaskCompletionHandler completion) {
  auto task = createTask([&] { return session_->uploadTaskWithRequest(request, fileURL); });
  // A background session may refuse now and then; three attempts in all.
  if (!task && recreateUploads_ && sessionConfiguration_->identifier()) {
    for (int attempt = 1; !task && attempt < 3; ++attempt)
      task = session_->uploadTaskWithRequest(request, fileURL);
  }
  if (task) addDelegateForUploadTask(task, std::move(progress), std::move(completion));
  return task;
}

ZRBURLSessionUploadTaskPtr ZRBHS_URLSessionManager::uploadTaskWithRequest(
    ZRBURLRequestPtr request, ZRBValue bodyData, ZRBHS_ProgressBlock progress,
    ZRBHS_TaskCompletionHandler completion) {
  auto task =
      createTask([&] { return session_->uploadTaskWithRequest(std::move(request), std::move(bodyData)); });
  addDelegateForUploadTask(task, std::move(progress), std::move(completion));
  return task;
}

ZRBURLSessionUploadTaskPtr ZRBHS_URLSessionManager::uploadTaskWithStreamedRequest(
    ZRBURLRequestPtr request, ZRBHS_ProgressBlock progress, ZRBHS_TaskCompletionHandler completion) {
  auto task = createTask([&] { return session_->uploadTaskWithStreamedRequest(std::move(request)); });
  addDelegateForUploadTask(task, std::move(progress), std::move(completion));
  return task;
}

ZRBURLSessionDownloadTaskPtr ZRBHS_URLSessionManager::downloadTaskWithRequest(
    ZRBURLRequestPtr request, ZRBHS_ProgressBlock progress, ZRBHS_DownloadDestinationBlock destination,
    ZRBHS_TaskCompletionHandler completion) {
  auto task = createTask([&] { return session_->downloadTaskWithRequest(std::move(request)); });
  addDelegateForDownloadTask(task, std::move(progress), std::move(destination), std::move(completion));
  return task;
}

ZRBURLSessionDownloadTaskPtr ZRBHS_URLSessionManager::downloadTaskWithResumeData(
    const ZRBValue& resumeData, ZRBHS_ProgressBlock progress, ZRBHS_DownloadDestinationBlock destination,
    ZRBHS_TaskCompletionHandler completion) {
  auto task = createTask([&] { return session_->downloadTaskWithResumeData(resumeData); });
  addDelegateForDownloadTask(task, std::move(progress), std::move(destination), std::move(completion));
  return task;
}

ZRBProgressPtr ZRBHS_URLSessionManager::uploadProgressForTask(const ZRBURLSessionTaskPtr& task) const {
  auto delegate = task ? delegateForTask(task) : nullptr;
  return delegate ? delegate->uploadProgress() : nullptr;
}

ZRBProgressPtr ZRBHS_URLSessionManager::downloadProgressForTask(const ZRBURLSessionTaskPtr& task) const {
  auto delegate = task ? delegateForTask(task) : nullptr;
  return delegate ? delegate->downloadProgress() : nullptr;
}

// ---- the task delegates ----

void ZRBHS_URLSessionManager::addDelegateForDataTask(const ZRBURLSessionDataTaskPtr& task,
                                                     ZRBHS_ProgressBlock uploadProgress,
                                                     ZRBHS_ProgressBlock downloadProgress,
                                                     ZRBHS_TaskCompletionHandler completion) {
  auto delegate = std::make_shared<ZRBHS_URLSessionManagerTaskDelegate>();
  delegate->setManager(std::static_pointer_cast<ZRBHS_URLSessionManager>(shared_from_this()));
  delegate->completionHandler = std::move(completion);
  if (task) task->setTaskDescription(taskDescription_);
  setDelegateForTask(delegate, task);
  delegate->setUploadProgressBlock(std::move(uploadProgress));
  delegate->setDownloadProgressBlock(std::move(downloadProgress));
}

void ZRBHS_URLSessionManager::addDelegateForUploadTask(const ZRBURLSessionUploadTaskPtr& task,
                                                       ZRBHS_ProgressBlock progress,
                                                       ZRBHS_TaskCompletionHandler completion) {
  auto delegate = std::make_shared<ZRBHS_URLSessionManagerTaskDelegate>();
  delegate->setManager(std::static_pointer_cast<ZRBHS_URLSessionManager>(shared_from_this()));
  delegate->completionHandler = std::move(completion);
  if (task) task->setTaskDescription(taskDescription_);
  setDelegateForTask(delegate, task);
  delegate->setUploadProgressBlock(std::move(progress));
}

void ZRBHS_URLSessionManager::addDelegateForDownloadTask(const ZRBURLSessionDownloadTaskPtr& task,
                                                         ZRBHS_ProgressBlock progress,
                                                         ZRBHS_DownloadDestinationBlock destination,
                                                         ZRBHS_TaskCompletionHandler completion) {
  auto delegate = std::make_shared<ZRBHS_URLSessionManagerTaskDelegate>();
  delegate->setManager(std::static_pointer_cast<ZRBHS_URLSessionManager>(shared_from_this()));
  delegate->completionHandler = std::move(completion);
  if (destination) {
    delegate->downloadTaskDidFinishDownloading =
        [destination = std::move(destination)](
            const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr& downloadTask,
            const ZRBURLPtr& location) { return destination(location, downloadTask->response()); };
  }
  if (task) task->setTaskDescription(taskDescription_);
  setDelegateForTask(delegate, task);
  delegate->setDownloadProgressBlock(std::move(progress));
}

void ZRBHS_URLSessionManager::setDelegateForTask(const ZRBHS_URLSessionManagerTaskDelegatePtr& delegate,
                                                 const ZRBURLSessionTaskPtr& task) {
  ZRBAssertNamed(task, "task");
  ZRBAssertNamed(delegate, "delegate");
  if (!task || !delegate) return;
  std::lock_guard lock(lock_);
  auto& delegates = mutableTaskDelegatesKeyedByTaskIdentifier_;
  // The entry of the last task removed is used again: one allocation less per task.
  if (spareDelegateEntry_ && !delegates.contains(task->taskIdentifier())) {
    spareDelegateEntry_.key() = task->taskIdentifier();
    spareDelegateEntry_.mapped() = delegate;
    delegates.insert(std::move(spareDelegateEntry_));
    spareDelegateEntry_ = {};
  } else {
    delegates[task->taskIdentifier()] = delegate;
  }
  delegate->setupProgressForTask(task);
}

ZRBHS_URLSessionManagerTaskDelegatePtr ZRBHS_URLSessionManager::delegateForTask(
    const ZRBURLSessionTaskPtr& task) const {
  ZRBAssertNamed(task, "task");
  if (!task) return nullptr;
  std::lock_guard lock(lock_);
  auto found = mutableTaskDelegatesKeyedByTaskIdentifier_.find(task->taskIdentifier());
  return found == mutableTaskDelegatesKeyedByTaskIdentifier_.end() ? nullptr : found->second;
}

void ZRBHS_URLSessionManager::removeDelegateForTask(const ZRBURLSessionTaskPtr& task) {
  ZRBAssertNamed(task, "task");
  if (!task) return;
  ZRBHS_URLSessionManagerTaskDelegatePtr removed;  // released outside the lock
  std::lock_guard lock(lock_);
  auto found = mutableTaskDelegatesKeyedByTaskIdentifier_.find(task->taskIdentifier());
  if (found == mutableTaskDelegatesKeyedByTaskIdentifier_.end()) return;
  removed = std::move(found->second);
  spareDelegateEntry_ = mutableTaskDelegatesKeyedByTaskIdentifier_.extract(found);
  removed->cleanUpProgressForTask(task);
}

void ZRBHS_URLSessionManager::taskDidResume(const ZRBURLSessionTaskPtr& task) {
  static const ZRBNotificationCenter::ObservedName kName(ZRBHS_NetworkingTaskDidResumeNotification);
  if (!task || task->taskDescription() != taskDescription_) return;
  // Nobody listens: no hop to the main queue for every task.
  if (!kName.hasObservers(*ZRBNotificationCenter::defaultCenter())) return;
  ZRBDispatch::mainQueue()->async([task] {
    ZRBNotificationCenter::defaultCenter()->post(ZRBHS_NetworkingTaskDidResumeNotification, ZRBValue(task));
  });
}

void ZRBHS_URLSessionManager::taskDidSuspend(const ZRBURLSessionTaskPtr& task) {
  static const ZRBNotificationCenter::ObservedName kName(ZRBHS_NetworkingTaskDidSuspendNotification);
  if (!task || task->taskDescription() != taskDescription_) return;
  // Nobody listens: no hop to the main queue for every task.
  if (!kName.hasObservers(*ZRBNotificationCenter::defaultCenter())) return;
  ZRBDispatch::mainQueue()->async([task] {
    ZRBNotificationCenter::defaultCenter()->post(ZRBHS_NetworkingTaskDidSuspendNotification, ZRBValue(task));
  });
}

// ---- hook setters ----

void ZRBHS_URLSessionManager::setSessionDidBecomeInvalidBlock(SessionDidBecomeInvalidBlock block) {
  sessionDidBecomeInvalid_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setSessionDidReceiveAuthenticationChallengeBlock(
    SessionDidReceiveChallengeBlock block) {
  sessionDidReceiveAuthenticationChallenge_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setDidFinishEventsForBackgroundURLSessionBlock(
    DidFinishEventsForBackgroundURLSessionBlock block) {
  didFinishEventsForBackgroundURLSession_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setTaskNeedNewBodyStreamBlock(TaskNeedNewBodyStreamBlock block) {
  taskNeedNewBodyStream_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setTaskWillPerformHTTPRedirectionBlock(
    TaskWillPerformHTTPRedirectionBlock block) {
  taskWillPerformHTTPRedirection_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setTaskDidReceiveAuthenticationChallengeBlock(
    TaskDidReceiveChallengeBlock block) {
  taskDidReceiveAuthenticationChallenge_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setTaskDidSendBodyDataBlock(TaskDidSendBodyDataBlock block) {
  taskDidSendBodyData_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setTaskDidCompleteBlock(TaskDidCompleteBlock block) {
  taskDidComplete_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setDataTaskDidReceiveResponseBlock(DataTaskDidReceiveResponseBlock block) {
  dataTaskDidReceiveResponse_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setDataTaskDidBecomeDownloadTaskBlock(
    DataTaskDidBecomeDownloadTaskBlock block) {
  dataTaskDidBecomeDownloadTask_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setDataTaskDidReceiveDataBlock(DataTaskDidReceiveDataBlock block) {
  dataTaskDidReceiveData_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setDataTaskWillCacheResponseBlock(DataTaskWillCacheResponseBlock block) {
  dataTaskWillCacheResponse_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setDownloadTaskDidFinishDownloadingBlock(
    DownloadTaskDidFinishDownloadingBlock block) {
  downloadTaskDidFinishDownloading_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setDownloadTaskDidWriteDataBlock(DownloadTaskDidWriteDataBlock block) {
  downloadTaskDidWriteData_.store(std::move(block));
}
void ZRBHS_URLSessionManager::setDownloadTaskDidResumeBlock(DownloadTaskDidResumeBlock block) {
  downloadTaskDidResume_.store(std::move(block));
}

// ---- session delegate ----

bool ZRBHS_URLSessionManager::respondsToOperation(ZRBURLSessionDelegateOperation operation) const {
  using Op = ZRBURLSessionDelegateOperation;
  switch (operation) {
    case Op::TaskWillPerformHTTPRedirection: return taskWillPerformHTTPRedirection_.load() != nullptr;
    case Op::DataTaskDidReceiveResponse: return dataTaskDidReceiveResponse_.load() != nullptr;
    case Op::DataTaskWillCacheResponse: return dataTaskWillCacheResponse_.load() != nullptr;
    case Op::SessionDidFinishEventsForBackgroundURLSession:
      return didFinishEventsForBackgroundURLSession_.load() != nullptr;
    default: return true;
  }
}

void ZRBHS_URLSessionManager::sessionDidBecomeInvalid(const ZRBURLSessionPtr& session, ZRBErrorPtr error) {
  if (auto hook = sessionDidBecomeInvalid_.load()) (*hook)(session, error);
  ZRBNotificationCenter::defaultCenter()->post(ZRBHS_URLSessionDidInvalidateNotification, ZRBValue(session));
}

void ZRBHS_URLSessionManager::answerChallenge(
    const ZRBURLAuthenticationChallengePtr& challenge,
    const std::function<ZRBURLSessionAuthChallengeDisposition(ZRBURLCredentialPtr*)>& hook,
    const ZRBURLSessionChallengeCompletion& completion) {
  ZRBURLSessionAuthChallengeDisposition disposition = ZRBURLSessionAuthChallengePerformDefaultHandling;
  ZRBURLCredentialPtr credential;
  if (hook) {
    try {
      disposition = hook(&credential);
    } catch (...) {
      // An answer is owed either way; a hook that failed does not get to trust anything.
      reportHookFailure("authentication challenge");
      disposition = ZRBURLSessionAuthChallengeCancelAuthenticationChallenge;
      credential = nullptr;
    }
  } else if (challenge && challenge->protectionSpace() &&
             challenge->protectionSpace()->authenticationMethod() == ZRBURLAuthenticationMethodServerTrust) {
    const ZRBURLProtectionSpacePtr& space = challenge->protectionSpace();
    auto policy = securityPolicy();
    if (policy && policy->evaluateServerTrust(space->serverTrust(), space->host())) {
      credential = ZRBURLCredential::credentialForTrust(space->serverTrust());
      disposition = credential ? ZRBURLSessionAuthChallengeUseCredential
                               : ZRBURLSessionAuthChallengePerformDefaultHandling;
    } else {
      disposition = ZRBURLSessionAuthChallengeCancelAuthenticationChallenge;
    }
  }
  if (completion) completion(disposition, std::move(credential));
}

void ZRBHS_URLSessionManager::sessionDidReceiveChallenge(const ZRBURLSessionPtr& session,
                                                         const ZRBURLAuthenticationChallengePtr& challenge,
                                                         ZRBURLSessionChallengeCompletion completion) {
  auto hook = sessionDidReceiveAuthenticationChallenge_.load();
  if (!hook) {
    answerChallenge(challenge, nullptr, completion);
    return;
  }
  answerChallenge(
      challenge, [&](ZRBURLCredentialPtr* credential) { return (*hook)(session, challenge, credential); },
      completion);
}

void ZRBHS_URLSessionManager::taskDidReceiveChallenge(const ZRBURLSessionPtr& session,
                                                      const ZRBURLSessionTaskPtr& task,
                                                      const ZRBURLAuthenticationChallengePtr& challenge,
                                                      ZRBURLSessionChallengeCompletion completion) {
  auto hook = taskDidReceiveAuthenticationChallenge_.load();
  if (!hook) {
    answerChallenge(challenge, nullptr, completion);
    return;
  }
  answerChallenge(
      challenge,
      [&](ZRBURLCredentialPtr* credential) { return (*hook)(session, task, challenge, credential); },
      completion);
}

void ZRBHS_URLSessionManager::sessionDidFinishEventsForBackgroundURLSession(const ZRBURLSessionPtr& session) {
  if (auto hook = didFinishEventsForBackgroundURLSession_.load()) {
    ZRBDispatch::mainQueue()->async([hook, session] { (*hook)(session); });
  }
}

void ZRBHS_URLSessionManager::taskWillPerformHTTPRedirection(
    const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task, const ZRBHTTPURLResponsePtr& response,
    ZRBURLRequestPtr request, std::function<void(ZRBURLRequestPtr)> completion) {
  ZRBURLRequestPtr redirect = request;
  if (auto hook = taskWillPerformHTTPRedirection_.load()) {
    try {
      redirect = (*hook)(session, task, response, request);
    } catch (...) {
      reportHookFailure("redirection");
    }
  }
  if (completion) completion(std::move(redirect));
}

void ZRBHS_URLSessionManager::taskNeedNewBodyStream(const ZRBURLSessionPtr& session,
                                                    const ZRBURLSessionTaskPtr& task,
                                                    std::function<void(ZRBInputStreamPtr)> completion) {
  ZRBInputStreamPtr stream;
  if (auto hook = taskNeedNewBodyStream_.load()) {
    try {
      stream = (*hook)(session, task);
    } catch (...) {
      reportHookFailure("new body stream");
    }
  } else if (auto original = task ? task->originalRequest() : nullptr;
             original && original->HTTPBodyStream()) {
    stream = original->HTTPBodyStream()->copyStream();
  }
  if (completion) completion(std::move(stream));
}

void ZRBHS_URLSessionManager::taskDidSendBodyData(const ZRBURLSessionPtr& session,
                                                  const ZRBURLSessionTaskPtr& task, std::int64_t bytesSent,
                                                  std::int64_t totalBytesSent,
                                                  std::int64_t totalBytesExpectedToSend) {
  auto hook = taskDidSendBodyData_.load();
  if (!hook) return;
  std::int64_t expected = totalBytesExpectedToSend;
  if (expected == ZRBURLSessionTransferSizeUnknown && task && task->originalRequest()) {
    if (auto length = task->originalRequest()->valueForHTTPHeaderField("Content-Length")) {
      expected = std::strtoll(length->c_str(), nullptr, 10);
    }
  }
  (*hook)(session, task, bytesSent, totalBytesSent, expected);
}

void ZRBHS_URLSessionManager::taskDidComplete(const ZRBURLSessionPtr& session,
                                              const ZRBURLSessionTaskPtr& task, ZRBErrorPtr error) {
  if (auto delegate = delegateForTask(task)) {
    delegate->URLSessionTaskDidCompleteWithError(session, task, error);
    removeDelegateForTask(task);
  }
  if (auto hook = taskDidComplete_.load()) (*hook)(session, task, error);
}

void ZRBHS_URLSessionManager::dataTaskDidReceiveResponse(
    const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task, const ZRBURLResponsePtr& response,
    std::function<void(ZRBURLSessionResponseDisposition)> completion) {
  ZRBURLSessionResponseDisposition disposition = ZRBURLSessionResponseAllow;
  if (auto hook = dataTaskDidReceiveResponse_.load()) {
    try {
      disposition = (*hook)(session, task, response);
    } catch (...) {
      reportHookFailure("response");
      disposition = ZRBURLSessionResponseCancel;
    }
  }
  if (completion) completion(disposition);
}

void ZRBHS_URLSessionManager::dataTaskDidBecomeDownloadTask(
    const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
    const ZRBURLSessionDownloadTaskPtr& downloadTask) {
  if (auto delegate = delegateForTask(task)) {
    removeDelegateForTask(task);
    setDelegateForTask(delegate, downloadTask);
  }
  if (auto hook = dataTaskDidBecomeDownloadTask_.load()) (*hook)(session, task, downloadTask);
}

void ZRBHS_URLSessionManager::dataTaskDidReceiveData(const ZRBURLSessionPtr& session,
                                                     const ZRBURLSessionDataTaskPtr& task,
                                                     const ZRBValue& data) {
  if (auto delegate = delegateForTask(task)) delegate->URLSessionDataTaskDidReceiveData(session, task, data);
  if (auto hook = dataTaskDidReceiveData_.load()) (*hook)(session, task, data);
}

void ZRBHS_URLSessionManager::dataTaskWillCacheResponse(
    const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
    const ZRBCachedURLResponsePtr& proposedResponse,
    std::function<void(ZRBCachedURLResponsePtr)> completion) {
  ZRBCachedURLResponsePtr cached = proposedResponse;
  if (auto hook = dataTaskWillCacheResponse_.load()) {
    try {
      cached = (*hook)(session, task, proposedResponse);
    } catch (...) {
      reportHookFailure("will-cache");
      cached = nullptr;
    }
  }
  if (completion) completion(std::move(cached));
}

void ZRBHS_URLSessionManager::downloadTaskDidFinishDownloading(const ZRBURLSessionPtr& session,
                                                               const ZRBURLSessionDownloadTaskPtr& task,
                                                               const ZRBURLPtr& location) {
  auto delegate = delegateForTask(task);
  if (auto hook = downloadTaskDidFinishDownloading_.load()) {
    if (ZRBURLPtr destination = (*hook)(session, task, location)) {
      if (delegate) delegate->setDownloadFileURL(destination);
      ZRBErrorPtr error;
      if (!ZRBFileManager::defaultManager()->moveItemAtPath(location->path(), destination->path(), &error)) {
        ZRBNotificationCenter::defaultCenter()->post(
            ZRBHS_URLSessionDownloadTaskDidFailToMoveFileNotification, ZRBValue(task),
            error ? error->userInfo() : ZRBValue());
      }
      return;
    }
  }
  if (delegate) delegate->URLSessionDownloadTaskDidFinishDownloadingToURL(session, task, location);
}

void ZRBHS_URLSessionManager::downloadTaskDidWriteData(const ZRBURLSessionPtr& session,
                                                       const ZRBURLSessionDownloadTaskPtr& task,
                                                       std::int64_t bytesWritten,
                                                       std::int64_t totalBytesWritten,
                                                       std::int64_t totalBytesExpectedToWrite) {
  if (auto hook = downloadTaskDidWriteData_.load())
    (*hook)(session, task, bytesWritten, totalBytesWritten, totalBytesExpectedToWrite);
}

void ZRBHS_URLSessionManager::downloadTaskDidResume(const ZRBURLSessionPtr& session,
                                                    const ZRBURLSessionDownloadTaskPtr& task,
                                                    std::int64_t fileOffset,
                                                    std::int64_t expectedTotalBytes) {
  if (auto hook = downloadTaskDidResume_.load()) (*hook)(session, task, fileOffset, expectedTotalBytes);
}

// ---- copying, coding, description ----

ZRBHS_URLSessionManagerPtr ZRBHS_URLSessionManager::copy() const {
  return initWithSessionConfiguration(session_->configuration());
}

void ZRBHS_URLSessionManager::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  coder.encodeObject(session_->configuration(), "sessionConfiguration");
}

ZRBHS_URLSessionManagerPtr ZRBHS_URLSessionManager::initWithCoder(ZRBKeyedUnarchiver& coder) {
  return initWithSessionConfiguration(
      coder.decodeObjectOfClass<ZRBURLSessionConfiguration>("sessionConfiguration"));
}

ZRB_REGISTER_CODING_CLASS(ZRBHS_URLSessionManager);

std::string ZRBHS_URLSessionManager::description() const {
  return ZRBStringWithFormat("<%@: %p, session: %@, operationQueue: %@>", className(),
                             static_cast<const void*>(this), session_, operationQueue_);
}
