#include "platform/net/url_session_task.h"

#include <algorithm>

#include "platform/foundation/string_format.h"
#include "platform/net/transport/task_driver.h"

ZRBURLSessionTask::ZRBURLSessionTask(Private, Kind kind, unsigned long identifier, ZRBURLRequestPtr request)
    : kind_(kind), identifier_(identifier), originalRequest_(request), currentRequest_(std::move(request)) {}

ZRBURLSessionTask::~ZRBURLSessionTask() = default;

ZRBURLRequestPtr ZRBURLSessionTask::currentRequest() const {
  std::lock_guard lock(mutex_);
  return currentRequest_;
}

ZRBURLResponsePtr ZRBURLSessionTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

ZRBErrorPtr ZRBURLSessionTask::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

std::optional<std::string> ZRBURLSessionTask::taskDescription() const {
  std::lock_guard lock(mutex_);
  return description_;
}

void ZRBURLSessionTask::setTaskDescription(std::optional<std::string> description) {
  std::lock_guard lock(mutex_);
  description_ = std::move(description);
}

void ZRBURLSessionTask::setCurrentRequest(ZRBURLRequestPtr request) {
  std::lock_guard lock(mutex_);
  currentRequest_ = std::move(request);
}

void ZRBURLSessionTask::setResponse(ZRBURLResponsePtr response) {
  std::lock_guard lock(mutex_);
  response_ = std::move(response);
}

void ZRBURLSessionTask::setError(ZRBErrorPtr error) {
  std::lock_guard lock(mutex_);
  error_ = std::move(error);
}

bool ZRBURLSessionTask::moveState(ZRBURLSessionTaskState expected, ZRBURLSessionTaskState next) {
  return state_.compare_exchange_strong(expected, next, std::memory_order_acq_rel);
}

void ZRBURLSessionTask::setPriority(float priority) {
  priority_.store(std::clamp(priority, 0.0f, 1.0f), std::memory_order_relaxed);
}

// ---- counters ----

void ZRBURLSessionTask::setCounter(ZRBURLSessionTaskCounter counter, std::int64_t value) {
  switch (counter) {
    case ZRBURLSessionTaskCounter::BytesReceived: received_.store(value, std::memory_order_relaxed); break;
    case ZRBURLSessionTaskCounter::BytesExpectedToReceive:
      expectedReceive_.store(value, std::memory_order_relaxed);
      break;
    case ZRBURLSessionTaskCounter::BytesSent: sent_.store(value, std::memory_order_relaxed); break;
    case ZRBURLSessionTaskCounter::BytesExpectedToSend:
      expectedSend_.store(value, std::memory_order_relaxed);
      break;
  }
  if (hasObservers_.load(std::memory_order_acquire)) notifyObservers(counter, value);
}

void ZRBURLSessionTask::addToCounter(ZRBURLSessionTaskCounter counter, std::int64_t delta) {
  std::atomic<std::int64_t>& target = counter == ZRBURLSessionTaskCounter::BytesReceived ? received_
                                      : counter == ZRBURLSessionTaskCounter::BytesSent   ? sent_
                                      : counter == ZRBURLSessionTaskCounter::BytesExpectedToReceive
                                          ? expectedReceive_
                                          : expectedSend_;
  // The transport thread is the counters' only writer, so no read-modify-write is needed.
  std::int64_t value = target.load(std::memory_order_relaxed) + delta;
  target.store(value, std::memory_order_relaxed);
  if (hasObservers_.load(std::memory_order_acquire)) notifyObservers(counter, value);
}

ZRBURLSessionTask::ObserverToken ZRBURLSessionTask::addCounterObserver(CounterObserver observer) {
  std::lock_guard lock(observersMutex_);
  ObserverToken token = nextToken_++;
  observers_.emplace_back(token, std::make_shared<const CounterObserver>(std::move(observer)));
  hasObservers_.store(true, std::memory_order_release);
  return token;
}

void ZRBURLSessionTask::removeCounterObserver(ObserverToken token) {
  std::lock_guard lock(observersMutex_);
  std::erase_if(observers_, [token](const auto& entry) { return entry.first == token; });
  hasObservers_.store(!observers_.empty(), std::memory_order_release);
}

void ZRBURLSessionTask::notifyObservers(ZRBURLSessionTaskCounter counter, std::int64_t value) {
  std::vector<std::shared_ptr<const CounterObserver>> observers;
  {
    std::lock_guard lock(observersMutex_);
    for (const auto& entry : observers_) observers.push_back(entry.second);
  }
  // Outside the lock, so an observer may remove itself.
  for (const auto& observer : observers) (*observer)(counter, value);
}

// ---- resume, suspend, cancel ----

ZRBURLSessionTaskStateSlot& ZRBURLSessionTask::resumeSlot() {
  static ZRBURLSessionTaskStateSlot slot(ZRBURLSessionTaskResumeMethod,
                                         [](ZRBURLSessionTask& task) { task.resumeImplementation(); });
  return slot;
}

ZRBURLSessionTaskStateSlot& ZRBURLSessionTask::suspendSlot() {
  static ZRBURLSessionTaskStateSlot slot(ZRBURLSessionTaskSuspendMethod,
                                         [](ZRBURLSessionTask& task) { task.suspendImplementation(); });
  return slot;
}

void ZRBURLSessionTask::resume() { resumeSlot().call(*this); }
void ZRBURLSessionTask::suspend() { suspendSlot().call(*this); }

void ZRBURLSessionTask::resumeImplementation() {
  if (moveState(ZRBURLSessionTaskStateSuspended, ZRBURLSessionTaskStateRunning) && driver_) driver_->resume();
}

void ZRBURLSessionTask::suspendImplementation() {
  if (moveState(ZRBURLSessionTaskStateRunning, ZRBURLSessionTaskStateSuspended) && driver_)
    driver_->suspend();
}

bool ZRBURLSessionTask::beginCanceling() {
  return moveState(ZRBURLSessionTaskStateRunning, ZRBURLSessionTaskStateCanceling) ||
         moveState(ZRBURLSessionTaskStateSuspended, ZRBURLSessionTaskStateCanceling);
}

void ZRBURLSessionTask::cancel() {
  if (beginCanceling() && driver_) driver_->cancel();
}

void ZRBURLSessionDownloadTask::cancelByProducingResumeData(std::function<void(ZRBValue)> completion) {
  bool canceling = beginCanceling();
  if (driver() && (canceling || completion)) {
    driver()->cancelProducingResumeData(std::move(completion));
  }
}

std::string ZRBURLSessionTask::description() const {
  static constexpr const char* kStates[] = {"running", "suspended", "canceling", "completed"};
  auto request = currentRequest();
  return ZRBStringWithFormat(
      "<%@: %p> { taskIdentifier: %lu, state: %s, URL: %@ }", className(), this, identifier_,
      kStates[state()], request && request->URL() ? ZRBValue(request->URL()->absoluteString()) : ZRBValue());
}
