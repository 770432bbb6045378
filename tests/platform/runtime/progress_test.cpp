#include "platform/runtime/progress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(ProgressTest, FractionFollowsThePlatformIncludingUnknownTotals) {
  EXPECT_EQ(ZRBProgress().fractionCompleted(), 0.0);  // no total: no division by zero
  auto transfer = ZRBProgress::progressWithTotalUnitCount(ZRBProgressUnknownUnitCount);
  transfer->setCompletedUnitCount(500);
  EXPECT_EQ(transfer->fractionCompleted(), 0.0);
  EXPECT_TRUE(transfer->isIndeterminate());
  EXPECT_FALSE(transfer->isFinished());

  transfer->setTotalUnitCount(1000);
  EXPECT_DOUBLE_EQ(transfer->fractionCompleted(), 0.5);
  EXPECT_FALSE(transfer->isIndeterminate());
  transfer->setCompletedUnitCount(1200);  // more than announced: not clamped
  EXPECT_DOUBLE_EQ(transfer->fractionCompleted(), 1.2);
  EXPECT_TRUE(transfer->isFinished());
  transfer->setCompletedUnitCount(-1);
  EXPECT_EQ(transfer->fractionCompleted(), 0.0);
}

TEST(ProgressTest, CancelPauseAndResumeCallTheirHandlersOnceAndHandlersMayCallBack) {
  auto progress = ZRBProgress::progressWithTotalUnitCount(10);
  int cancels = 0, pauses = 0, resumes = 0;
  progress->setPausable(true);
  progress->setPausingHandler([&] { ++pauses; });
  progress->setResumingHandler([&] { ++resumes; });

  progress->resume();  // not paused: nothing
  progress->pause();
  progress->pause();
  EXPECT_TRUE(progress->isPaused());
  progress->resume();
  EXPECT_FALSE(progress->isPaused());
  EXPECT_EQ(pauses, 1);
  EXPECT_EQ(resumes, 1);

  // Handlers may call back into the progress.
  bool seenCancelled = false;
  progress->setCancellationHandler([&] {
    ++cancels;
    seenCancelled = progress->isCancelled();
    progress->setCompletedUnitCount(10);
  });
  progress->cancel();
  progress->cancel();
  EXPECT_EQ(cancels, 1);
  EXPECT_TRUE(seenCancelled);
  EXPECT_EQ(progress->completedUnitCount(), 10);
  progress->pause();  // a cancelled progress does not pause
  EXPECT_FALSE(progress->isPaused());
  EXPECT_EQ(pauses, 1);

  // Set after the fact: runs at once.
  bool late = false;
  progress->setCancellationHandler([&] { late = true; });
  EXPECT_TRUE(late);
}

TEST(ProgressTest, ObserversSeeEveryRealChangeUntilRemoved) {
  ZRBProgress progress;
  std::vector<ZRBProgressChange> changes;
  std::vector<double> fractions;
  auto token = progress.addObserver([&](ZRBProgress& p, ZRBProgressChange change) {
    changes.push_back(change);
    fractions.push_back(p.fractionCompleted());
  });
  progress.setTotalUnitCount(4);
  progress.setCompletedUnitCount(1);
  progress.setCompletedUnitCount(1);  // unchanged: no call
  progress.setPausable(true);
  progress.pause();
  progress.resume();
  progress.cancel();
  EXPECT_EQ(changes, (std::vector<ZRBProgressChange>{
                         ZRBProgressChange::TotalUnitCount, ZRBProgressChange::CompletedUnitCount,
                         ZRBProgressChange::Pausable, ZRBProgressChange::Paused, ZRBProgressChange::Resumed,
                         ZRBProgressChange::Cancelled}));
  EXPECT_DOUBLE_EQ(fractions[1], 0.25);
  progress.removeObserver(token);
  progress.setCompletedUnitCount(2);
  EXPECT_EQ(changes.size(), 6u);
}

TEST(ProgressTest, ConcurrentUpdatesAreObservedFromTheChangingThreads) {
  auto progress = ZRBProgress::progressWithTotalUnitCount(4000);
  std::atomic<int> observed{0};
  std::atomic<int> cancels{0};
  progress->addObserver([&](ZRBProgress&, ZRBProgressChange change) {
    if (change == ZRBProgressChange::CompletedUnitCount) observed.fetch_add(1);
  });
  progress->setCancellationHandler([&] { cancels.fetch_add(1); });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      // Values of different threads never repeat, so every set is a change.
      for (int i = 1; i <= 1000; ++i) progress->setCompletedUnitCount(t * 1000 + i);
      progress->cancel();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(observed.load(), 4000);
  EXPECT_EQ(cancels.load(), 1);
}

}  // namespace
