// ZRBAtomicFunction: a callback that one thread may replace while others call it.
//
// A call takes a reference to the function that is current at that moment and runs it outside any
// lock, so a replacement never waits for calls in progress and a call never sees a half-written
// function: it runs either the old one or the new one, which stays alive until the call returns.
// (A mutex guards the reference only while it is copied. std::atomic<std::shared_ptr> would do the
// same, but the standard library this is built with releases its internal lock too weakly.) Most
// callbacks are never set: asking for an unset one takes no lock.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

template <typename Signature>
class ZRBAtomicFunction;

template <typename Result, typename... Arguments>
class ZRBAtomicFunction<Result(Arguments...)> {
 public:
  using Function = std::function<Result(Arguments...)>;

  ZRBAtomicFunction() = default;
  ZRBAtomicFunction(const ZRBAtomicFunction&) = delete;
  ZRBAtomicFunction& operator=(const ZRBAtomicFunction&) = delete;

  // An empty function clears it.
  void store(Function function) {
    std::shared_ptr<const Function> replacement =
        function ? std::make_shared<const Function>(std::move(function)) : nullptr;
    std::lock_guard lock(mutex_);
    current_.swap(replacement);  // the old function is released after the lock, outside it
    set_.store(current_ != nullptr, std::memory_order_release);
  }
  // The current function, or null; callers may keep it as long as they like.
  std::shared_ptr<const Function> load() const {
    if (!set_.load(std::memory_order_acquire)) return nullptr;
    std::lock_guard lock(mutex_);
    return current_;
  }

  // Calls the current function; without one, returns `fallback`.
  template <typename Fallback>
  Result callOr(Fallback&& fallback, Arguments... arguments) const {
    if (auto function = load()) return (*function)(std::forward<Arguments>(arguments)...);
    return std::forward<Fallback>(fallback)();
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const Function> current_;
  std::atomic<bool> set_{false};
};
