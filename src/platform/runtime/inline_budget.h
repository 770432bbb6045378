// ZRBInlineBudget: whether work that is ready on a thread may run right there, as a block of its
// queue, instead of waking another thread for it. Work that overruns the budget sends the work
// after it through its queue for a while (the penalty), so a slow callback cannot hold up the
// thread that found it ready (a transport, a processing queue).
//
// An overrun is judged by the CPU time the thread spent, not by the wall clock alone: a thread that
// was merely preempted while it ran quick work (a loaded machine) must not lose the inline path
// for the whole penalty. Reading a thread's CPU time is a system call, so it is read only on the
// run after one that overran on the wall clock; a run over budget on both clocks starts the
// penalty. A slow callback therefore runs inline twice before it goes through its queue.
//
// Thread-safe: threads may share one budget; each run is timed on the thread that runs it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

class ZRBInlineBudget {
 public:
  using Clock = std::chrono::steady_clock;

  constexpr ZRBInlineBudget(Clock::duration budget, Clock::duration penalty)
      : budget_(budget), penalty_(penalty) {}
  ZRBInlineBudget(const ZRBInlineBudget&) = delete;
  ZRBInlineBudget& operator=(const ZRBInlineBudget&) = delete;

  // One chance to run work inline, timed from construction. When allowed() and the work ran
  // inline, call finished() on the same thread right after it.
  class Run {
   public:
    explicit Run(ZRBInlineBudget& budget);
    bool allowed() const { return allowed_; }
    void finished();

   private:
    ZRBInlineBudget& budget_;
    Clock::time_point start_;
    std::chrono::nanoseconds cpuStart_{};
    bool allowed_ = false;
    bool measureCpu_ = false;
  };

  // True while no penalty lasts.
  bool allows(Clock::time_point now = Clock::now()) const;

 private:
  static std::chrono::nanoseconds threadCpuTime();

  const Clock::duration budget_;
  const Clock::duration penalty_;
  std::atomic<Clock::rep> allowedAfter_{Clock::time_point::min().time_since_epoch().count()};
  // The last run overran on the wall clock: the next one also reads the thread's CPU time.
  std::atomic<bool> suspect_{false};
};
