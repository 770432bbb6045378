#include "platform/runtime/dispatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/assert.h"

namespace {

using namespace std::chrono_literals;

// Hang guard only: generous, never part of what a test asserts.
constexpr auto kHangGuard = 60s;

template <typename Predicate>
bool waitUntil(Predicate predicate) {
  auto deadline = std::chrono::steady_clock::now() + kHangGuard;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// Gives the queue a block that holds on until `release` is signalled; returns once it runs.
bool occupy(const ZRBDispatchQueue& queue, ZRBDispatchSemaphore& release) {
  auto running = std::make_shared<std::atomic<bool>>(false);
  queue.async([running, &release] {
    *running = true;
    release.wait(kHangGuard);
  });
  return waitUntil([&] { return running->load(); });
}

// Restores the default main-queue mode whatever a test did.
struct OwnMainThreadAgain {
  ~OwnMainThreadAgain() { ZRBDispatch::useOwnMainThread(); }
};

TEST(DispatchQueueTest, SerialQueueRunsBlocksOneAtATimeInOrder) {
  auto queue = ZRBDispatchQueue::serial("test.serial.order");
  std::vector<int> order;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  for (int i = 0; i < 500; ++i) {
    queue->async([&, i] {
      if (inside.fetch_add(1) != 0) overlapped = true;
      order.push_back(i);
      inside.fetch_sub(1);
    });
  }
  queue->sync([] {});  // after every block queued before it
  ASSERT_EQ(order.size(), 500u);
  for (int i = 0; i < 500; ++i) ASSERT_EQ(order[i], i);
  EXPECT_FALSE(overlapped);
}

TEST(DispatchQueueTest, RunNowIfIdleTakesAnIdleSerialQueueAndKeepsItsOrder) {
  auto queue = ZRBDispatchQueue::serial("test.serial.now");
  std::thread::id ranOn;
  std::string label;
  ASSERT_TRUE(queue->runNowIfIdle([&] {
    ranOn = std::this_thread::get_id();
    label = ZRBDispatch::currentQueueLabel();
  }));
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(label, "test.serial.now");

  // While a block runs here, submitted blocks wait for it and another caller is turned away.
  std::vector<int> order;
  std::atomic<bool> turnedAway{false};
  ASSERT_TRUE(queue->runNowIfIdle([&] {
    queue->async([&] { order.push_back(2); });
    std::thread([&] { turnedAway = !queue->runNowIfIdle([&] { order.push_back(-1); }); }).join();
    order.push_back(1);
  }));
  queue->sync([] {});
  EXPECT_TRUE(turnedAway.load());
  EXPECT_EQ(order, (std::vector<int>{1, 2}));

  // A busy queue is not taken, nor is the main queue.
  ZRBDispatchSemaphore release;
  ASSERT_TRUE(occupy(*queue, release));
  EXPECT_FALSE(queue->runNowIfIdle([] {}));
  release.signal();
  queue->sync([] {});  // the block is done with `release` before the test ends
  EXPECT_FALSE(ZRBDispatch::mainQueue()->runNowIfIdle([] {}));
}

TEST(DispatchQueueTest, RunNowIfIdleJoinsAConcurrentQueueUnlessABarrierRunsOrWaits) {
  auto queue = ZRBDispatchQueue::concurrent("test.concurrent.now");
  // Beside a running block, as a block of the queue.
  ZRBDispatchSemaphore release;
  ASSERT_TRUE(occupy(*queue, release));
  std::string label;
  ASSERT_TRUE(queue->runNowIfIdle([&] { label = ZRBDispatch::currentQueueLabel(); }));
  EXPECT_EQ(label, "test.concurrent.now");

  // A barrier waiting for that block keeps callers out, and so does the barrier while it runs.
  std::atomic<bool> barrierRunning{false};
  ZRBDispatchSemaphore releaseBarrier;
  queue->asyncBarrier([&] {
    barrierRunning = true;
    releaseBarrier.wait(kHangGuard);
  });
  EXPECT_FALSE(queue->runNowIfIdle([] { ADD_FAILURE() << "ran before the barrier"; }));
  release.signal();
  ASSERT_TRUE(waitUntil([&] { return barrierRunning.load(); }));
  EXPECT_FALSE(queue->runNowIfIdle([] { ADD_FAILURE() << "ran beside the barrier"; }));
  releaseBarrier.signal();
  queue->syncBarrier([] {});
  EXPECT_TRUE(queue->runNowIfIdle([] {}));
  // Global queues hand their blocks to the pool as before.
  EXPECT_FALSE(ZRBDispatch::globalQueue()->runNowIfIdle([] {}));
}

TEST(DispatchQueueTest, SyncRunsOnTheCallingThreadWhenItsTurnComes) {
  // Idle and busy serial queues, concurrent reads and barriers, global queues: the caller runs the
  // block itself, as a block of the queue, after what was queued before it.
  auto serial = ZRBDispatchQueue::serial("test.sync.serial");
  auto concurrent = ZRBDispatchQueue::concurrent("test.sync.concurrent");
  struct Case {
    ZRBDispatchQueuePtr queue;
    bool barrier;
  };
  for (const Case& c : {Case{serial, false}, Case{concurrent, false}, Case{concurrent, true},
                        Case{ZRBDispatch::globalQueue(), false}}) {
    for (bool busy : {false, true}) {
      if (busy && c.queue == ZRBDispatch::globalQueue()) continue;  // nothing holds a global queue
      ZRBDispatchSemaphore release;
      std::atomic<bool> earlierDone{false};
      if (busy) {
        // A barrier holds a concurrent queue as a block holds a serial one.
        c.queue->asyncBarrier([&] {
          release.wait(kHangGuard);
          earlierDone = true;
        });
        ZRBDispatch::globalQueue()->asyncAfter(5ms, [&] { release.signal(); });
      }
      std::thread::id ranOn;
      std::string label;
      bool afterEarlier = false;
      auto block = [&] {
        ranOn = std::this_thread::get_id();
        label = ZRBDispatch::currentQueueLabel();
        afterEarlier = earlierDone.load();
      };
      c.barrier ? c.queue->syncBarrier(block) : c.queue->sync(block);
      SCOPED_TRACE(c.queue->label() + (busy ? " busy" : " idle") + (c.barrier ? " barrier" : ""));
      EXPECT_EQ(ranOn, std::this_thread::get_id());
      EXPECT_EQ(label, c.queue->label());
      EXPECT_TRUE(afterEarlier || !busy);
      EXPECT_TRUE(ZRBDispatch::currentQueueLabel().empty());
      c.queue->syncBarrier([] {});  // the busy block is over before the next case
    }
  }
}

TEST(DispatchQueueTest, ConcurrentSyncReadersOverlapAndBarriersExcludeThem) {
  auto queue = ZRBDispatchQueue::concurrent("test.sync.readers");
  // Two readers each wait inside for the other: both finish only if they run side by side.
  std::atomic<int> inside{0};
  std::atomic<int> metTheOther{0};
  auto reader = [&] {
    queue->sync([&] {
      inside.fetch_add(1);
      if (waitUntil([&] { return inside.load() >= 2; })) metTheOther.fetch_add(1);
    });
  };
  std::thread first(reader), second(reader);
  first.join();
  second.join();
  EXPECT_EQ(metTheOther.load(), 2);

  // A sync barrier waits for a running reader and keeps later readers out while it runs.
  ZRBDispatchSemaphore readerIn, readerGo;
  std::atomic<bool> readerRunning{false}, barrierSawReader{false}, laterSawBarrier{false};
  std::atomic<bool> barrierRunning{false};
  std::thread slowReader([&] {
    queue->sync([&] {
      readerRunning = true;
      readerIn.signal();
      readerGo.wait(kHangGuard);
      readerRunning = false;
    });
  });
  ASSERT_TRUE(readerIn.wait(kHangGuard));
  ZRBDispatch::globalQueue()->asyncAfter(5ms, [&] { readerGo.signal(); });
  std::thread later;
  queue->syncBarrier([&] {
    barrierRunning = true;
    barrierSawReader = readerRunning.load();
    later = std::thread([&] { queue->sync([&] { laterSawBarrier = barrierRunning.load(); }); });
    std::this_thread::sleep_for(5ms);
    barrierRunning = false;
  });
  slowReader.join();
  later.join();
  EXPECT_FALSE(barrierSawReader.load());
  EXPECT_FALSE(laterSawBarrier.load());
}

TEST(DispatchQueueTest, ConcurrentAndGlobalQueuesRunBlocksInParallel) {
  for (const auto& queue :
       {ZRBDispatchQueue::concurrent("test.concurrent.parallel"), ZRBDispatch::globalQueue()}) {
    // Each block waits for the other: both finish only if they run at the same time.
    std::atomic<int> arrived{0}, metTheOther{0};
    ZRBDispatchGroup group;
    for (int i = 0; i < 2; ++i) {
      group.async(queue, [&] {
        arrived.fetch_add(1);
        if (waitUntil([&] { return arrived.load() == 2; })) metTheOther.fetch_add(1);
      });
    }
    ASSERT_TRUE(group.wait(kHangGuard));
    EXPECT_EQ(metTheOther.load(), 2) << queue->label();
  }
}

TEST(DispatchQueueTest, PoolKeepsEnoughThreadsForBlockingWork) {
  EXPECT_GE(ZRBDispatch::threadPoolSize(), 4u);
  // Blocks on two concurrent queues block until a third queue answers.
  ZRBDispatchSemaphore answered;
  ZRBDispatchGroup group;
  for (const char* label : {"test.blocking.a", "test.blocking.b"}) {
    group.async(ZRBDispatchQueue::concurrent(label), [&] { answered.wait(kHangGuard); });
  }
  ZRBDispatchQueue::serial("test.blocking.answer")->async([&] {
    for (int i = 0; i < 2; ++i) answered.signal();
  });
  EXPECT_TRUE(group.wait(kHangGuard));
}

TEST(DispatchQueueTest, BarrierWaitsForEarlierBlocksRunsAloneAndHoldsBackLaterOnes) {
  auto queue = ZRBDispatchQueue::concurrent("test.concurrent.barrier");
  std::atomic<int> running{0}, barriersDone{0}, violations{0};
  std::atomic<bool> barrierRunning{false};
  std::vector<int> seenBarriers(200, -1);
  for (int i = 0; i < 200; ++i) {
    if (i > 0 && i % 20 == 0) {
      queue->asyncBarrier([&] {
        if (running.load() != 0) violations.fetch_add(1);
        barrierRunning = true;
        std::this_thread::yield();
        if (running.load() != 0) violations.fetch_add(1);
        barrierRunning = false;
        barriersDone.fetch_add(1);
      });
    }
    queue->async([&, i] {
      running.fetch_add(1);
      if (barrierRunning) violations.fetch_add(1);
      seenBarriers[i] = barriersDone.load();
      std::this_thread::yield();
      running.fetch_sub(1);
    });
  }
  int total = -1;
  queue->syncBarrier([&] { total = barriersDone.load(); });
  EXPECT_EQ(total, 9);
  EXPECT_EQ(violations.load(), 0);
  // Block i was queued after i/20 barriers: exactly those have finished when it starts.
  for (int i = 0; i < 200; ++i) ASSERT_EQ(seenBarriers[i], i / 20) << "block " << i;
}

TEST(DispatchQueueTest, WorkPostedFromManyThreadsRunsExactlyOnce) {
  constexpr int kThreads = 8, kPerThread = 500;
  auto serial = ZRBDispatchQueue::serial("test.many.serial");
  auto concurrent = ZRBDispatchQueue::concurrent("test.many.concurrent");
  std::vector<std::atomic<int>> runs(kThreads * kPerThread * 2);
  ZRBDispatchGroup group;
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        int index = (t * kPerThread + i) * 2;
        group.async(serial, [&runs, index] { runs[index].fetch_add(1); });
        group.async(concurrent, [&runs, index] { runs[index + 1].fetch_add(1); });
      }
    });
  }
  for (auto& poster : posters) poster.join();
  // The notification, on yet another queue, must see every block of both queues finished.
  std::atomic<bool> allRanBeforeNotify{false};
  ZRBDispatchSemaphore notified;
  group.notify(ZRBDispatch::mainQueue(), [&] {
    allRanBeforeNotify = std::all_of(runs.begin(), runs.end(), [](const auto& r) { return r.load() == 1; });
    notified.signal();
  });
  ASSERT_TRUE(notified.wait(kHangGuard));
  EXPECT_TRUE(allRanBeforeNotify.load());
  ASSERT_TRUE(group.wait(kHangGuard));
  for (std::size_t i = 0; i < runs.size(); ++i) ASSERT_EQ(runs[i].load(), 1) << "block " << i;
}

TEST(DispatchQueueTest, QueuedWorkOfADroppedQueueStillRuns) {
  ZRBDispatchSemaphore gate;
  std::atomic<int> ran{0};
  ZRBDispatchGroup group;
  {
    auto queue = ZRBDispatchQueue::serial("test.dropped");
    group.async(queue, [&] { gate.wait(kHangGuard); });
    for (int i = 0; i < 10; ++i) group.async(queue, [&] { ran.fetch_add(1); });
    queue->asyncAfter(1ms, [&] { ran.fetch_add(1); });
  }
  gate.signal();
  ASSERT_TRUE(group.wait(kHangGuard));
  EXPECT_TRUE(waitUntil([&] { return ran.load() == 11; }));
}

TEST(DispatchQueueTest, AsyncAfterNeverRunsEarly) {
  auto queue = ZRBDispatchQueue::serial("test.after");
  std::vector<char> order;
  std::chrono::steady_clock::duration waited{};
  auto start = std::chrono::steady_clock::now();
  std::atomic<bool> done{false};
  queue->asyncAfter(30ms, [&] {
    waited = std::chrono::steady_clock::now() - start;
    order.push_back('L');
    done = true;
  });
  queue->asyncAfter(0ms, [&] { order.push_back('N'); });
  queue->async([&] { order.push_back('A'); });
  ASSERT_TRUE(waitUntil([&] { return done.load(); }));
  queue->sync([] {});
  EXPECT_EQ(order, (std::vector<char>{'N', 'A', 'L'}));
  EXPECT_GE(waited, 30ms);  // a lower bound: a loaded machine can only make it later
}

TEST(DispatchQueueTest, SyncOntoTheRunningQueueIsAnAssertionNotADeadlock) {
  auto a = ZRBDispatchQueue::serial("test.cycle.a");
  auto b = ZRBDispatchQueue::serial("test.cycle.b");
  auto c = ZRBDispatchQueue::concurrent("test.cycle.c");
  bool innerRan = false;
  EXPECT_THROW(a->sync([&] { a->sync([&] { innerRan = true; }); }), ZRBAssertionFailure);
  // Through another queue: a -> b -> a.
  EXPECT_THROW(a->sync([&] { b->sync([&] { a->sync([&] { innerRan = true; }); }); }), ZRBAssertionFailure);
  EXPECT_FALSE(innerRan);
  // A barrier from inside its own concurrent queue would wait for itself.
  EXPECT_THROW(c->sync([&] { c->syncBarrier([] {}); }), ZRBAssertionFailure);
  // An ordinary sync from inside a concurrent queue onto itself runs inline.
  bool nested = false;
  c->sync([&] { c->sync([&] { nested = ZRBDispatch::currentQueueLabel() == "test.cycle.c"; }); });
  EXPECT_TRUE(nested);
  // The queues still work.
  a->sync([&] { innerRan = true; });
  EXPECT_TRUE(innerRan);
}

TEST(DispatchQueueTest, EscapingExceptionsKeepAsyncQueuesAliveAndReachSyncCallers) {
  auto queue = ZRBDispatchQueue::serial("test.exceptions");
  queue->async([] { throw std::runtime_error("expected by the test"); });
  std::atomic<bool> after{false};
  queue->async([&] { after = true; });
  EXPECT_THROW(queue->sync([] { throw std::runtime_error("to the caller"); }), std::runtime_error);
  EXPECT_TRUE(after.load());
  auto concurrent = ZRBDispatchQueue::concurrent("test.exceptions.concurrent");
  concurrent->asyncBarrier([] { throw std::runtime_error("expected by the test"); });
  bool ran = false;
  concurrent->syncBarrier([&] { ran = true; });  // the failed barrier released the queue
  EXPECT_TRUE(ran);
}

TEST(DispatchMainQueueTest, OwnThreadRunsMainBlocksAndSyncFromMainIsInline) {
  ASSERT_EQ(ZRBDispatch::mainQueueMode(), ZRBDispatch::MainQueueMode::OwnThread);
  EXPECT_FALSE(ZRBDispatch::isMainQueue());
  std::thread::id mainThread, laterThread;
  bool isMain = false, nestedRan = false;
  ZRBDispatch::mainQueue()->sync([&] {
    mainThread = std::this_thread::get_id();
    isMain = ZRBDispatch::isMainQueue();
    ZRBDispatch::mainQueue()->sync([&] { nestedRan = true; });
    EXPECT_TRUE(nestedRan);  // ran before sync returned: inline
  });
  EXPECT_TRUE(isMain);
  EXPECT_NE(mainThread, std::this_thread::get_id());
  // From a pool thread, asynchronously; same thread every time.
  ZRBDispatchSemaphore done;
  ZRBDispatch::globalQueue(ZRBQoSUtility)->async([&] {
    ZRBDispatch::mainQueue()->async([&] {
      laterThread = std::this_thread::get_id();
      done.signal();
    });
  });
  ASSERT_TRUE(done.wait(kHangGuard));
  EXPECT_EQ(laterThread, mainThread);
}

TEST(DispatchMainQueueTest, HostThreadCanDriveTheMainQueue) {
  OwnMainThreadAgain restore;
  ZRBDispatch::driveMainQueueFromCurrentThread();
  EXPECT_TRUE(ZRBDispatch::isMainQueue());
  ZRBDispatch::drainMainQueue();  // whatever earlier tests left behind
  std::vector<int> ran;
  std::thread::id ranOn;
  std::thread poster([&] {
    for (int i = 0; i < 3; ++i) {
      ZRBDispatch::mainQueue()->async([&, i] {
        ran.push_back(i);
        ranOn = std::this_thread::get_id();
      });
    }
  });
  poster.join();
  EXPECT_GE(ZRBDispatch::drainMainQueue(), 3u);
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  // A block on another queue that syncs onto the main queue while the host pumps.
  bool syncRan = false;
  std::atomic<bool> finished{false};
  ZRBDispatch::globalQueue()->async([&] {
    ZRBDispatch::mainQueue()->sync([&] { syncRan = ZRBDispatch::isMainQueue(); });
    finished = true;
  });
  EXPECT_TRUE(ZRBDispatch::runMainQueueUntil([&] { return finished.load(); }, kHangGuard));
  EXPECT_TRUE(syncRan);
  // Sync onto the main queue from the driving thread itself runs inline.
  bool inlineRan = false;
  ZRBDispatch::mainQueue()->sync([&] { inlineRan = true; });
  EXPECT_TRUE(inlineRan);
}

TEST(DispatchMainQueueTest, PosterModeKeepsMainBlocksInOrder) {
  OwnMainThreadAgain restore;
  std::mutex postedMutex;
  std::vector<std::function<void()>> posted, runs;
  ZRBDispatch::setMainQueuePoster([&](std::function<void()> run) {
    std::lock_guard lock(postedMutex);
    posted.push_back(std::move(run));
  });
  std::vector<int> ran;
  bool insideIsMain = false;
  for (int i = 0; i < 4; ++i) {
    ZRBDispatch::mainQueue()->async([&, i] {
      ran.push_back(i);
      insideIsMain = ZRBDispatch::isMainQueue();
    });
  }
  {
    std::lock_guard lock(postedMutex);
    runs.swap(posted);
  }
  ASSERT_GE(runs.size(), 4u);  // and any main-queue work other tests left behind
  // The host may call them in any order; the blocks still run first to last.
  for (auto it = runs.rbegin(); it != runs.rend(); ++it) (*it)();
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 3}));
  EXPECT_TRUE(insideIsMain);
}

TEST(DispatchMainQueueTest, DeferredWakesReachTheMainThreadWhenTheInlineRunEndsOrWaits) {
  const auto& main = ZRBDispatch::mainQueue();
  auto queue = ZRBDispatchQueue::serial("test.deferred.wake");
  auto other = ZRBDispatchQueue::serial("test.deferred.wake.other");
  std::mutex ranMutex;
  std::vector<int> ran;
  auto record = [&](int step) {
    std::lock_guard lock(ranMutex);
    ran.push_back(step);
  };
  std::promise<void> lastRan;
  bool waitedInside = false, queueSawIt = false;
  ASSERT_TRUE(queue->runNowIfIdle([&] {
    // Queued now, in order with plain blocks; the wake may come later.
    main->asyncDeferringWake([&] { record(1); });
    main->async([&] { record(2); });
    // A wait of this thread wakes the main thread first...
    ZRBDispatchSemaphore inside;
    main->asyncDeferringWake([&] { inside.signal(); });
    waitedInside = inside.wait(kHangGuard);
    // ...and so does a sync that must wait for a block that waits for the main queue.
    auto seen = std::make_shared<std::promise<void>>();
    main->asyncDeferringWake([seen] { seen->set_value(); });
    other->async([&, ready = seen->get_future().share()] {
      queueSawIt = ready.wait_for(kHangGuard) == std::future_status::ready;
    });
    other->sync([] {});
    main->asyncDeferringWake([&] {
      record(3);
      lastRan.set_value();
    });
  }));
  // The end of the run wakes it for the last one.
  EXPECT_EQ(lastRan.get_future().wait_for(kHangGuard), std::future_status::ready);
  EXPECT_TRUE(waitedInside);
  EXPECT_TRUE(queueSawIt);
  std::lock_guard lock(ranMutex);
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
}

TEST(DispatchMainQueueTest, DeferringWakesOutsideAnInlineRunOrOffTheMainQueueIsAsync) {
  for (const auto& queue : {ZRBDispatch::mainQueue(), ZRBDispatchQueue::serial("test.deferred.plain")}) {
    std::promise<bool> ran;
    queue->asyncDeferringWake([&] { ran.set_value(ZRBDispatch::isMainQueue()); });
    auto result = ran.get_future();
    ASSERT_EQ(result.wait_for(kHangGuard), std::future_status::ready) << queue->label();
    EXPECT_EQ(result.get(), queue->isMain()) << queue->label();
  }
}

TEST(DispatchGroupTest, NotifyRunsOnceAfterTheLastLeaveAndAtOnceWhenEmpty) {
  auto queue = ZRBDispatchQueue::serial("test.group.notify");
  ZRBDispatchGroup group;
  std::atomic<int> notified{0};
  group.enter();
  group.enter();
  group.notify(queue, [&] { notified.fetch_add(1); });
  EXPECT_FALSE(group.wait(1ms));
  group.leave();
  queue->sync([] {});
  EXPECT_EQ(notified.load(), 0);  // not queued while one entry is outstanding
  group.leave();
  EXPECT_TRUE(group.wait(kHangGuard));
  queue->sync([] {});
  EXPECT_EQ(notified.load(), 1);
  group.enter();
  group.leave();
  queue->sync([] {});
  EXPECT_EQ(notified.load(), 1);  // a notification is spent once it ran

  ZRBDispatchGroup empty;
  ZRBDispatchSemaphore ran;
  empty.notify(queue, [&] { ran.signal(); });
  EXPECT_TRUE(ran.wait(kHangGuard));
  EXPECT_TRUE(empty.wait(0ms));
  EXPECT_THROW(empty.leave(), ZRBAssertionFailure);
}

TEST(DispatchSemaphoreTest, TimedWaitsAndSignalsAcrossThreads) {
  ZRBDispatchSemaphore semaphore, two(2);
  EXPECT_FALSE(semaphore.wait(1ms));
  semaphore.signal();
  EXPECT_TRUE(semaphore.wait(0ms));
  ZRBDispatch::globalQueue()->asyncAfter(5ms, [&] { semaphore.signal(); });
  EXPECT_TRUE(semaphore.wait(kHangGuard));
  for (bool taken : {true, true, false}) EXPECT_EQ(two.wait(0ms), taken);
}

}  // namespace
