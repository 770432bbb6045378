#include "request/batch_request.h"

#include <utility>

#include "request/batch_request_agent.h"
#include "request/network_log.h"

ZRBRQ_BatchRequestPtr ZRBRQ_BatchRequest::initWithRequestArray(
    const std::vector<ZRBRQ_BaseRequestPtr>& requestArray) {
  std::vector<ZRBRQ_RequestPtr> members;
  members.reserve(requestArray.size());
  for (const auto& request : requestArray) {
    auto member = std::dynamic_pointer_cast<ZRBRQ_Request>(request);
    if (!member) {
      ZRBNetworkLog("Error, request item must be KVRequest instance.");
      return nullptr;
    }
    members.push_back(std::move(member));
  }
  return ZRBRQ_BatchRequestPtr(new ZRBRQ_BatchRequest(std::move(members)));
}

ZRBRQ_BatchRequest::ZRBRQ_BatchRequest(std::vector<ZRBRQ_RequestPtr> requestArray)
    : requestArray_(std::move(requestArray)) {}

ZRBRQ_BatchRequest::~ZRBRQ_BatchRequest() { clearRequest(); }

// ---- fields ----

#define ZRBRQ_FIELD(Type, getter, setter, member) \
  Type ZRBRQ_BatchRequest::getter() const {       \
    std::lock_guard lock(mutex_);                 \
    return member;                                \
  }                                               \
  void ZRBRQ_BatchRequest::setter(Type value) {   \
    std::lock_guard lock(mutex_);                 \
    member = std::move(value);                    \
  }

ZRBRQ_FIELD(ZRBRQ_BatchRequest::CompletionBlock, successCompletionBlock, setSuccessCompletionBlock,
            successCompletionBlock_)
ZRBRQ_FIELD(ZRBRQ_BatchRequest::CompletionBlock, failureCompletionBlock, setFailureCompletionBlock,
            failureCompletionBlock_)
ZRBRQ_FIELD(long, tag, setTag, tag_)
ZRBRQ_FIELD(std::optional<std::vector<ZRBRQ_BatchRequestAccessoryPtr>>, requestAccessories,
            setRequestAccessories, requestAccessories_)

#undef ZRBRQ_FIELD

std::shared_ptr<ZRBRQ_BatchRequestDelegate> ZRBRQ_BatchRequest::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void ZRBRQ_BatchRequest::setDelegate(const std::shared_ptr<ZRBRQ_BatchRequestDelegate>& delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

ZRBRQ_RequestPtr ZRBRQ_BatchRequest::failedRequest() const {
  std::lock_guard lock(mutex_);
  return failedRequest_;
}

long ZRBRQ_BatchRequest::finishedCount() const {
  std::lock_guard lock(mutex_);
  return finishedCount_;
}

// ---- operations ----

void ZRBRQ_BatchRequest::start() {
  if (finishedCount() > 0) {
    ZRBNetworkLog("Error! Batch request has already started.");
    return;
  }
  {
    std::lock_guard lock(mutex_);
    failedRequest_ = nullptr;
  }
  const auto batch = self();
  ZRBRQ_BatchRequestAgent::sharedAgent()->addBatchRequest(batch);
  toggleAccessoriesWillStartCallBack();
  for (const auto& request : requestArray_) {
    request->setDelegate(batch);
    // Only the batch reports; callbacks the caller left on a member are dropped.
    request->clearCompletionBlock();
    request->start();
  }
}

void ZRBRQ_BatchRequest::stop() {
  const auto batch = self();  // the agent may hold the last reference
  toggleAccessoriesWillStopCallBack();
  setDelegate(nullptr);
  clearRequest();
  toggleAccessoriesDidStopCallBack();
  ZRBRQ_BatchRequestAgent::sharedAgent()->removeBatchRequest(batch);
}

void ZRBRQ_BatchRequest::startWithCompletionBlockWithSuccess(CompletionBlock success,
                                                             CompletionBlock failure) {
  setCompletionBlockWithSuccess(std::move(success), std::move(failure));
  start();
}

void ZRBRQ_BatchRequest::setCompletionBlockWithSuccess(CompletionBlock success, CompletionBlock failure) {
  std::lock_guard lock(mutex_);
  successCompletionBlock_ = std::move(success);
  failureCompletionBlock_ = std::move(failure);
}

void ZRBRQ_BatchRequest::clearCompletionBlock() {
  CompletionBlock success;
  CompletionBlock failure;
  {
    std::lock_guard lock(mutex_);
    success.swap(successCompletionBlock_);
    failure.swap(failureCompletionBlock_);
  }
  // Whatever the callbacks capture is released here, outside the lock.
}

void ZRBRQ_BatchRequest::clearRequest() {
  for (const auto& request : requestArray_) request->stop();
  clearCompletionBlock();
}

void ZRBRQ_BatchRequest::addAccessory(ZRBRQ_BatchRequestAccessoryPtr accessory) {
  std::lock_guard lock(mutex_);
  if (!requestAccessories_) requestAccessories_.emplace();
  requestAccessories_->push_back(std::move(accessory));
}

bool ZRBRQ_BatchRequest::isDataFromCache() const {
  for (const auto& request : requestArray_) {
    if (!request->isDataFromCache()) return false;
  }
  return true;
}

void ZRBRQ_BatchRequest::forEachAccessory(
    void (ZRBRQ_BatchRequestAccessory::*operation)(const ZRBRQ_BatchRequestPtr&)) {
  const auto accessories = requestAccessories();
  if (!accessories) return;
  const auto batch = self();
  for (const auto& accessory : *accessories) {
    if (accessory) ((*accessory).*operation)(batch);
  }
}

void ZRBRQ_BatchRequest::toggleAccessoriesWillStartCallBack() {
  forEachAccessory(&ZRBRQ_BatchRequestAccessory::requestWillStart);
}

void ZRBRQ_BatchRequest::toggleAccessoriesWillStopCallBack() {
  forEachAccessory(&ZRBRQ_BatchRequestAccessory::requestWillStop);
}

void ZRBRQ_BatchRequest::toggleAccessoriesDidStopCallBack() {
  forEachAccessory(&ZRBRQ_BatchRequestAccessory::requestDidStop);
}

// ---- as the members' delegate (main queue) ----

void ZRBRQ_BatchRequest::requestFinished(const ZRBRQ_BaseRequestPtr& request) {
  (void)request;
  long finished = 0;
  {
    std::lock_guard lock(mutex_);
    finished = ++finishedCount_;
  }
  if (finished != static_cast<long>(requestArray_.size())) return;
  const auto batch = self();
  toggleAccessoriesWillStopCallBack();
  if (auto receiver = delegate()) receiver->batchRequestFinished(batch);
  if (auto success = successCompletionBlock()) success(batch);
  clearCompletionBlock();
  toggleAccessoriesDidStopCallBack();
  ZRBRQ_BatchRequestAgent::sharedAgent()->removeBatchRequest(batch);
}

void ZRBRQ_BatchRequest::requestFailed(const ZRBRQ_BaseRequestPtr& request) {
  {
    std::lock_guard lock(mutex_);
    failedRequest_ = std::dynamic_pointer_cast<ZRBRQ_Request>(request);
  }
  const auto batch = self();
  toggleAccessoriesWillStopCallBack();
  // Stopped members deliver nothing, so this runs at most once per start.
  for (const auto& member : requestArray_) member->stop();
  if (auto receiver = delegate()) receiver->batchRequestFailed(batch);
  if (auto failure = failureCompletionBlock()) failure(batch);
  clearCompletionBlock();
  toggleAccessoriesDidStopCallBack();
  ZRBRQ_BatchRequestAgent::sharedAgent()->removeBatchRequest(batch);
}
