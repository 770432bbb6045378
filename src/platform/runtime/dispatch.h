// ZRBDispatch: work queues, groups, semaphores and once-guards.
//
// Threading model
// - One process-wide thread pool runs every queue except the main queue. Its size is
//   max(8, 2 x hardware threads) (ORVELKIT_DISPATCH_THREADS overrides it): callers block pool
//   threads on purpose (synchronous hops, semaphore waits for task lists, throttled upload reads),
//   so even a 2-core machine needs enough threads that blocking work on one queue cannot starve
//   the others. The pool never shrinks or grows and lives for the process.
// - A serial queue runs one block at a time, in submission order, on the pool (a strand of our own:
//   Asio's cannot be taken over by a caller that finds it idle, which sync and runNowIfIdle need).
// - sync() runs the block on the calling thread once the queue lets it (main queue excepted), so
//   readers that sync onto a queue from a hot path (a TLS handshake) never wait for a pool thread.
// - A concurrent queue runs its blocks in parallel on the pool. A barrier block waits for the
//   blocks submitted before it, runs alone, and blocks submitted after it wait until it is done.
// - Global queues are concurrent queues, one per quality of service. Quality of service is a
//   label only: all global queues share the pool at the same priority. Barriers on a global queue
//   behave as ordinary blocks.
// - The main queue is serial. By default it has a thread of its own, started on first use, so a
//   program that never pumps still gets its callbacks. A host with its own loop can take it over,
//   either by pumping it from one thread (driveMainQueueFromCurrentThread, then drainMainQueue or
//   runMainQueueUntil) or by handing over a poster that runs work on the host's loop.
//
// Lifetime: a queue stays alive while blocks are queued on it, so dropping the last handle to a
// queue never drops its work: every block submitted still runs exactly once, and no block ever sees
// a freed queue. Blocks are copied; whatever they capture lives until they have run.
//
// Failures: an exception escaping an asynchronous block is caught, reported on standard error, and
// the queue carries on. An exception escaping a synchronous block is rethrown to the caller of
// sync()/syncBarrier().
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/object.h"

// Qualities of service of the global queues, most urgent first.
enum ZRBQoS {
  ZRBQoSUserInteractive = 0,
  ZRBQoSUserInitiated = 1,
  ZRBQoSDefault = 2,
  ZRBQoSUtility = 3,
  ZRBQoSBackground = 4,
};

using ZRBDispatchBlock = std::function<void()>;

class ZRBDispatchQueue;
using ZRBDispatchQueuePtr = std::shared_ptr<ZRBDispatchQueue>;

namespace zrb_detail {
class DispatchQueueCore;
}

// A handle to a queue. Every operation is thread-safe.
class ZRBDispatchQueue final : public ZRBObject {
 public:
  static ZRBDispatchQueuePtr serial(std::string label);
  static ZRBDispatchQueuePtr concurrent(std::string label);

  const std::string& label() const;
  bool isSerial() const;
  bool isMain() const;

  // Queues the block and returns at once.
  void async(ZRBDispatchBlock block) const;
  // The main queue: queues the block like async(), but when the calling code runs inside
  // runNowIfIdle (a thread that found callbacks ready and runs them itself), the main thread is
  // woken only when the outermost such run on this thread ends, so a thread that finishes many
  // tasks in one turn wakes it once for all of them. A blocking wait of this file (sync, groups,
  // semaphores) wakes it first; nothing else may wait for the block before that run ends.
  // Other queues: async().
  void asyncDeferringWake(ZRBDispatchBlock block) const;
  // Runs the block at once on the calling thread, as a block of this queue, when this is a serial
  // queue (not the main queue) with nothing queued or running, or a concurrent queue of one's own
  // where no barrier runs or waits (beside its other blocks, as async would run it); returns
  // whether it ran. Global queues always refuse. A thread that would otherwise hand work over and
  // wait for another thread to take it saves the hop.
  // An exception escaping the block is reported and dropped, as for an asynchronous block.
  bool runNowIfIdle(const ZRBDispatchBlock& block) const;
  // Runs the block as a block of this queue and returns when it is done. Once the queue lets it
  // (a serial queue: when it is idle or the blocks queued before have run; a concurrent queue: when
  // no barrier runs or waits before it), the block runs on the calling thread, with
  // currentQueueLabel() naming this queue; nothing is handed to another thread, so a sync onto an
  // idle queue costs about a mutex lock. Non-barrier syncs onto a concurrent queue from several
  // threads run side by side. The main queue is the exception: its blocks run on the main thread,
  // so a sync onto it from elsewhere waits for the main thread; from the main queue it runs inline.
  // On a concurrent queue from a block of the same queue it runs inline too. A sync onto a serial
  // queue from that same queue (directly or through a chain of sync calls) would deadlock: it is an
  // assertion failure, and with assertions logging it returns without running the block.
  void sync(const ZRBDispatchBlock& block) const;
  // Queues the block once the delay has passed (at the earliest; never before).
  void asyncAfter(std::chrono::nanoseconds delay, ZRBDispatchBlock block) const;
  // Barrier blocks: on a concurrent queue of one's own, the block waits for the blocks submitted
  // before it, runs alone, then the queue goes on. On serial and global queues, an ordinary block.
  // syncBarrier runs the block on the calling thread like sync(), alone on the queue. A
  // syncBarrier from a block of the same queue is an assertion failure (it would deadlock).
  void asyncBarrier(ZRBDispatchBlock block) const;
  void syncBarrier(const ZRBDispatchBlock& block) const;

  std::string className() const override { return "ZRBDispatchQueue"; }
  // "<ZRBDispatchQueue: 0x...; label = com.example.queue>".
  std::string description() const override;

 private:
  friend class ZRBDispatch;
  explicit ZRBDispatchQueue(std::shared_ptr<zrb_detail::DispatchQueueCore> core);
  std::shared_ptr<zrb_detail::DispatchQueueCore> core_;
};

class ZRBDispatch {
 public:
  enum class MainQueueMode {
    OwnThread,   // default: the library's own main thread runs the main queue
    HostDriven,  // one host thread pumps it with drainMainQueue / runMainQueueUntil
    HostPoster,  // every block is handed to a poster that the host supplied
  };

  static const ZRBDispatchQueuePtr& mainQueue();
  static const ZRBDispatchQueuePtr& globalQueue(ZRBQoS qos = ZRBQoSDefault);

  // True inside a main-queue block, and on the host's thread while the host drives the main queue.
  static bool isMainQueue();
  // The label of the queue running the calling code; empty outside any queue.
  static std::string currentQueueLabel();
  static std::size_t threadPoolSize();

  // ---- taking over the main queue (a host with its own loop; tests) ----
  // The calling thread becomes the main thread and must pump the main queue; the library's own
  // main thread stops taking blocks (it finishes the block it is running, if any).
  static void driveMainQueueFromCurrentThread();
  // Runs queued main-queue blocks on the calling thread until none is left, including blocks that
  // are queued meanwhile; returns how many ran. Only on the driving thread in HostDriven mode.
  static std::size_t drainMainQueue();
  // Pumps the main queue on the calling thread until `done` returns true or the timeout passes;
  // returns the last answer of `done`. Only on the driving thread in HostDriven mode.
  static bool runMainQueueUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
  // Hands every main-queue block (and those already queued) to `poster`, which must arrange for
  // the given function to run soon on the host's main thread. Blocks still run one at a time and in
  // order even if the poster calls them from several threads.
  static void setMainQueuePoster(std::function<void(std::function<void()>)> poster);
  // Back to the default: the library's own main thread runs the main queue.
  static void useOwnMainThread();
  static MainQueueMode mainQueueMode();
};

// Counts outstanding work; notifies or wakes waiters when the count drops to zero.
// Thread-safe; the object may live on the stack or be shared (blocks keep its state alive).
class ZRBDispatchGroup final : public ZRBObject {
 public:
  ZRBDispatchGroup();
  static std::shared_ptr<ZRBDispatchGroup> make() { return std::make_shared<ZRBDispatchGroup>(); }

  void enter();
  // Leaving more often than entering is an assertion failure.
  void leave();
  // enter(), then runs the block on the queue and leaves afterwards (even if the block throws).
  void async(const ZRBDispatchQueuePtr& queue, ZRBDispatchBlock block);
  // Queues the block on the queue when the count next drops to zero, or at once when it is zero
  // now. Each notification runs exactly once.
  void notify(const ZRBDispatchQueuePtr& queue, ZRBDispatchBlock block);
  // Waits until the count is zero; false when the timeout passed first.
  bool wait(std::chrono::nanoseconds timeout);
  void wait();

  std::string className() const override { return "ZRBDispatchGroup"; }

 private:
  struct State;
  std::shared_ptr<State> state_;
};
using ZRBDispatchGroupPtr = std::shared_ptr<ZRBDispatchGroup>;

// A counting semaphore with timed waits. Thread-safe.
class ZRBDispatchSemaphore final : public ZRBObject {
 public:
  explicit ZRBDispatchSemaphore(long value = 0) : value_(value) {}
  static std::shared_ptr<ZRBDispatchSemaphore> make(long value = 0) {
    return std::make_shared<ZRBDispatchSemaphore>(value);
  }

  // Adds one; returns true when a waiting thread was woken.
  bool signal();
  // Takes one, waiting while there is none; false when the timeout passed first.
  bool wait(std::chrono::nanoseconds timeout);
  void wait();

  std::string className() const override { return "ZRBDispatchSemaphore"; }

 private:
  std::mutex mutex_;
  std::condition_variable available_;
  long value_;
  long waiting_ = 0;
};
using ZRBDispatchSemaphorePtr = std::shared_ptr<ZRBDispatchSemaphore>;

// Runs a function once per guard, however many threads race; later callers wait for the first run
// to finish. (A thin name for std::call_once, for code that reads better with it.)
class ZRBDispatchOnce {
 public:
  template <typename F>
  void operator()(F&& function) {
    std::call_once(flag_, std::forward<F>(function));
  }

 private:
  std::once_flag flag_;
};
