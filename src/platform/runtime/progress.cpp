#include "platform/runtime/progress.h"

#include <algorithm>
#include <cstdio>

ZRBProgressPtr ZRBProgress::progressWithTotalUnitCount(std::int64_t total) {
  auto progress = std::make_shared<ZRBProgress>();
  progress->total_ = total;
  return progress;
}

std::int64_t ZRBProgress::totalUnitCount() const {
  std::lock_guard lock(mutex_);
  return total_;
}

void ZRBProgress::setTotalUnitCount(std::int64_t total) {
  {
    std::lock_guard lock(mutex_);
    if (total_ == total) return;
    total_ = total;
  }
  changed(ZRBProgressChange::TotalUnitCount);
}

std::int64_t ZRBProgress::completedUnitCount() const {
  std::lock_guard lock(mutex_);
  return completed_;
}

void ZRBProgress::setCompletedUnitCount(std::int64_t completed) {
  {
    std::lock_guard lock(mutex_);
    if (completed_ == completed) return;
    completed_ = completed;
  }
  changed(ZRBProgressChange::CompletedUnitCount);
}

double ZRBProgress::fractionCompleted() const {
  std::lock_guard lock(mutex_);
  if (total_ <= 0 || completed_ < 0) return 0.0;
  return static_cast<double>(completed_) / static_cast<double>(total_);
}

bool ZRBProgress::isIndeterminate() const {
  std::lock_guard lock(mutex_);
  return total_ < 0 || completed_ < 0;
}

bool ZRBProgress::isFinished() const {
  std::lock_guard lock(mutex_);
  return total_ > 0 && completed_ >= total_;
}

bool ZRBProgress::isCancellable() const {
  std::lock_guard lock(mutex_);
  return cancellable_;
}

void ZRBProgress::setCancellable(bool cancellable) {
  {
    std::lock_guard lock(mutex_);
    if (cancellable_ == cancellable) return;
    cancellable_ = cancellable;
  }
  changed(ZRBProgressChange::Cancellable);
}

bool ZRBProgress::isPausable() const {
  std::lock_guard lock(mutex_);
  return pausable_;
}

void ZRBProgress::setPausable(bool pausable) {
  {
    std::lock_guard lock(mutex_);
    if (pausable_ == pausable) return;
    pausable_ = pausable;
  }
  changed(ZRBProgressChange::Pausable);
}

bool ZRBProgress::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

bool ZRBProgress::isPaused() const {
  std::lock_guard lock(mutex_);
  return paused_;
}

void ZRBProgress::cancel() {
  std::function<void()> handler;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    handler = cancellationHandler_;
  }
  changed(ZRBProgressChange::Cancelled, handler);
}

void ZRBProgress::pause() {
  std::function<void()> handler;
  {
    std::lock_guard lock(mutex_);
    if (paused_ || cancelled_) return;
    paused_ = true;
    handler = pausingHandler_;
  }
  changed(ZRBProgressChange::Paused, handler);
}

void ZRBProgress::resume() {
  std::function<void()> handler;
  {
    std::lock_guard lock(mutex_);
    if (!paused_) return;
    paused_ = false;
    handler = resumingHandler_;
  }
  changed(ZRBProgressChange::Resumed, handler);
}

void ZRBProgress::setCancellationHandler(std::function<void()> handler) {
  bool runNow;
  {
    std::lock_guard lock(mutex_);
    cancellationHandler_ = handler;
    runNow = cancelled_;
  }
  if (runNow && handler) handler();
}

void ZRBProgress::setPausingHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  pausingHandler_ = std::move(handler);
}

void ZRBProgress::setResumingHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  resumingHandler_ = std::move(handler);
}

ZRBProgress::ObserverToken ZRBProgress::addObserver(ZRBProgressObserver observer) {
  std::lock_guard lock(mutex_);
  ObserverToken token = nextToken_++;
  observers_.push_back({token, std::make_shared<const ZRBProgressObserver>(std::move(observer))});
  return token;
}

void ZRBProgress::removeObserver(ObserverToken token) {
  std::shared_ptr<const ZRBProgressObserver> released;  // destroyed outside the lock
  std::lock_guard lock(mutex_);
  auto it =
      std::find_if(observers_.begin(), observers_.end(), [&](const Observer& o) { return o.token == token; });
  if (it == observers_.end()) return;
  released = std::move(it->function);
  observers_.erase(it);
}

void ZRBProgress::changed(ZRBProgressChange change, const std::function<void()>& handler) {
  // The handler first: it is the work's own reaction (cancel the task), observers only report.
  if (handler) handler();
  std::vector<std::shared_ptr<const ZRBProgressObserver>> current;
  {
    std::lock_guard lock(mutex_);
    current.reserve(observers_.size());
    for (const Observer& o : observers_) current.push_back(o.function);
  }
  for (const auto& observer : current) {
    if (*observer) (*observer)(*this, change);
  }
}

std::string ZRBProgress::description() const {
  std::int64_t total, completed;
  {
    std::lock_guard lock(mutex_);
    total = total_;
    completed = completed_;
  }
  char text[128];
  std::snprintf(text, sizeof text, " : Fraction completed: %.4f / Completed: %lld of %lld",
                fractionCompleted(), static_cast<long long>(completed), static_cast<long long>(total));
  return "<ZRBProgress: " + ZRBFormatPointer(this) + ">" + text;
}
