#include "platform/runtime/inline_budget.h"

#include <ctime>

std::chrono::nanoseconds ZRBInlineBudget::threadCpuTime() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

bool ZRBInlineBudget::allows(Clock::time_point now) const {
  return now.time_since_epoch().count() >= allowedAfter_.load(std::memory_order_relaxed);
}

ZRBInlineBudget::Run::Run(ZRBInlineBudget& budget) : budget_(budget), start_(Clock::now()) {
  allowed_ = budget_.allows(start_);
  measureCpu_ = allowed_ && budget_.suspect_.load(std::memory_order_relaxed);
  if (measureCpu_) cpuStart_ = threadCpuTime();
}

void ZRBInlineBudget::Run::finished() {
  const Clock::time_point end = Clock::now();
  if (end - start_ <= budget_.budget_) {
    if (measureCpu_) budget_.suspect_.store(false, std::memory_order_relaxed);
    return;
  }
  if (!measureCpu_) {
    // Slow work or a preempted thread: the next run tells them apart.
    budget_.suspect_.store(true, std::memory_order_relaxed);
    return;
  }
  if (threadCpuTime() - cpuStart_ <= budget_.budget_) return;  // preempted again: still suspect
  budget_.allowedAfter_.store((end + budget_.penalty_).time_since_epoch().count(), std::memory_order_relaxed);
  budget_.suspect_.store(false, std::memory_order_relaxed);
}
