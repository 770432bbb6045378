// Collects what other threads hand over, in order, and lets a test wait for it without fixed sleeps.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

template <typename T>
class ZRBTestInbox {
 public:
  void put(T item) {
    std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
    changed_.notify_all();
  }
  // Waits until `done` holds for what has come (at most `timeout`); returns whether it does.
  bool waitUntil(const std::function<bool(const std::vector<T>&)>& done,
                 std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(items_); });
  }
  // Waits for `count` items; returns what has come by then.
  std::vector<T> wait(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    waitUntil([count](const std::vector<T>& items) { return items.size() >= count; }, timeout);
    return now();
  }
  std::vector<T> now() const {
    std::lock_guard lock(mutex_);
    return items_;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    items_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<T> items_;
};
