#include "platform/runtime/inline_budget.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr auto kBudget = 5ms;
constexpr auto kPenalty = 1h;

std::chrono::nanoseconds threadCpu() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// One inline run of the given kind: quick, off the CPU past the budget (as a preempted thread
// is), or on the CPU past the budget. Returns whether the budget allowed it.
bool run(ZRBInlineBudget& budget, char kind) {
  ZRBInlineBudget::Run inlineRun(budget);
  if (!inlineRun.allowed()) return false;
  if (kind == 'w') std::this_thread::sleep_for(4 * kBudget);
  if (kind == 'c') {
    const auto start = threadCpu();
    while (threadCpu() - start <= 2 * kBudget) {
    }
  }
  inlineRun.finished();
  return true;
}

TEST(InlineBudgetTest, OnlyWorkThatOverrunsOnTheCpuTwiceInARowStartsThePenalty) {
  // q: quick, w: waits off the CPU, c: busy on the CPU.
  const struct {
    std::string runs;
    bool allowedAfter;
  } cases[] = {
      {"www", true},    // preempted, not slow
      {"c", true},      // one overrun might be a preemption: suspect only
      {"cc", false},    // slow twice: the penalty
      {"wc", false},    // after a suspect run, the next is judged on the CPU
      {"cwqc", true},   // a suspect run that only waited keeps the suspicion; a quick run clears it
      {"qcwc", false},  //
  };
  for (const auto& c : cases) {
    ZRBInlineBudget budget(kBudget, kPenalty);
    for (char kind : c.runs) EXPECT_TRUE(run(budget, kind)) << c.runs;
    EXPECT_EQ(budget.allows(), c.allowedAfter) << c.runs;
    EXPECT_EQ(ZRBInlineBudget::Run(budget).allowed(), c.allowedAfter) << c.runs;
    // A penalty ends.
    EXPECT_TRUE(budget.allows(ZRBInlineBudget::Clock::now() + kPenalty + 1min)) << c.runs;
  }
}

TEST(InlineBudgetTest, ARunIsJudgedOnTheCpuTimeOfItsOwnThread) {
  ZRBInlineBudget budget(kBudget, kPenalty);
  run(budget, 'c');
  // Another thread burns the CPU while this one's suspect run waits: not this run's time.
  std::thread busy([] {
    const auto start = threadCpu();
    while (threadCpu() - start <= 8 * kBudget) {
    }
  });
  run(budget, 'w');
  busy.join();
  EXPECT_TRUE(budget.allows());
  std::thread([&budget] { run(budget, 'c'); }).join();  // still suspect, from any thread
  EXPECT_FALSE(budget.allows());
}

}  // namespace
