#include "platform/runtime/dispatch.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <exception>
#include <future>
#include <thread>
#include <typeinfo>

#include "platform/foundation/assert.h"

namespace zrb_detail {

namespace {

// Waits longer than this are treated as "forever", which keeps deadline arithmetic from overflowing.
constexpr auto kForever = std::chrono::hours(24 * 365);

std::size_t configuredPoolSize() {
  if (const char* text = std::getenv("ORVELKIT_DISPATCH_THREADS")) {
    long value = std::strtol(text, nullptr, 10);
    if (value >= 1 && value <= 1024) return static_cast<std::size_t>(value);
  }
  return std::max<std::size_t>(8, 2 * std::max(1u, std::thread::hardware_concurrency()));
}

// Immortal: queued work may still be running while static destructors run at exit.
boost::asio::thread_pool& pool() {
  static auto* instance = new boost::asio::thread_pool(configuredPoolSize());
  return *instance;
}

std::size_t& poolSizeValue() {
  static std::size_t size = configuredPoolSize();
  return size;
}

}  // namespace

// What the calling thread is running: the queue of the innermost block and, for a block run by
// sync(), the frames of the thread that waits for it. Walking the chain finds sync cycles.
struct Frame {
  const DispatchQueueCore* queue;
  const Frame* parent;
};

// Initial-exec: the library is linked by the programs that use it, and a sync() reads this twice,
// so the lookup through __tls_get_addr would cost as much as the rest of an idle sync.
__attribute__((tls_model("initial-exec"))) thread_local const Frame* currentFrame = nullptr;

class FrameScope {
 public:
  FrameScope(const DispatchQueueCore* queue, const Frame* parent)
      : frame_{queue, parent}, saved_(currentFrame) {
    currentFrame = &frame_;
  }
  ~FrameScope() { currentFrame = saved_; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  Frame frame_;
  const Frame* saved_;
};

// A sync() onto the main queue from another thread: the main thread runs the block, the caller waits.
struct SyncState {
  const Frame* callerFrames = nullptr;
  std::promise<void> done;
};

// A caller waiting for its turn on a serial or concurrent queue; once the queue lets it, it runs its
// block on its own thread as a block of that queue.
using Turn = std::shared_ptr<std::promise<void>>;

struct Job {
  ZRBDispatchBlock block;
  std::shared_ptr<SyncState> sync;  // set for sync() onto the main queue
  Turn turn;                        // set for a caller of sync() that waits for its turn
};

enum class QueueKind { Serial, Concurrent, Global, Main };

void reportEscapedException(const std::string& label) {
  try {
    throw;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "ORVELKIT: a block on queue \"%s\" threw %s: %s\n", label.c_str(), typeid(e).name(),
                 e.what());
  } catch (...) {
    std::fprintf(stderr, "ORVELKIT: a block on queue \"%s\" threw a non-standard exception\n", label.c_str());
  }
}

class DispatchQueueCore : public std::enable_shared_from_this<DispatchQueueCore> {
 public:
  DispatchQueueCore(std::string label, QueueKind kind) : label_(std::move(label)), kind_(kind) {}
  virtual ~DispatchQueueCore() = default;
  DispatchQueueCore(const DispatchQueueCore&) = delete;
  DispatchQueueCore& operator=(const DispatchQueueCore&) = delete;

  const std::string& label() const { return label_; }
  QueueKind kind() const { return kind_; }

  virtual void submit(Job job, bool barrier) = 0;
  // Runs the block as a block of this queue once the queue lets it, and returns when it is done;
  // an exception escaping the block reaches the caller. `frames` are the caller's own.
  virtual void runSync(const ZRBDispatchBlock& block, bool barrier, const Frame* frames) = 0;
  // Runs the block on the calling thread as a block of this queue, if the queue is idle.
  virtual bool runNowIfIdle(const ZRBDispatchBlock&) { return false; }

 protected:
  void execute(Job& job) const {
    FrameScope scope(this, job.sync ? job.sync->callerFrames : currentFrame);
    if (job.sync) {
      try {
        job.block();
        job.sync->done.set_value();
      } catch (...) {
        job.sync->done.set_exception(std::current_exception());
      }
      return;
    }
    try {
      job.block();
    } catch (...) {
      reportEscapedException(label_);
    }
  }

 private:
  std::string label_;
  QueueKind kind_;
};

namespace {

void releaseDeferredMainWake();

// Blocks run one at a time, in submission order. The queue is owned by at most one runner at a
// time: a drain on the pool, started by the submission that found the queue idle, or a caller of
// sync() or runNowIfIdle(), which runs its block on its own thread. A drain gives its pool thread
// back after a bounded number of blocks, so one busy queue cannot keep a pool thread to itself.
//
// One atomic word holds the owner flag and the number of queued blocks, so that a sync() onto an
// idle queue takes one compare-and-swap to start and one to finish, as a mutex does. The count
// changes only under mutex_, together with the list; an owner that finds blocks queued when it
// finishes keeps the queue and drains them on the pool.
class SerialCore final : public DispatchQueueCore {
 public:
  explicit SerialCore(std::string label) : DispatchQueueCore(std::move(label), QueueKind::Serial) {}

  void submit(Job job, bool) override {
    enqueue(std::move(job));
    if (tryAcquire()) scheduleDrain();
  }

  void runSync(const ZRBDispatchBlock& block, bool, const Frame* frames) override {
    std::uint64_t idle = 0;
    if (!state_.compare_exchange_strong(idle, kOwned)) waitInLine();
    Ownership owned{*this};
    FrameScope scope(this, frames);
    block();
  }

  bool runNowIfIdle(const ZRBDispatchBlock& block) override {
    if (!tryAcquire()) return false;
    Job job{block, nullptr, nullptr};
    execute(job);
    release();
    return true;
  }

 private:
  static constexpr int kDrainBatch = 64;
  static constexpr std::uint64_t kOwned = 1;  // a drain is scheduled or running, or a caller runs a block
  static constexpr std::uint64_t kOneQueued = 2;

  // Gives the queue up when the caller's block is done, also when it throws.
  struct Ownership {
    SerialCore& core;
    ~Ownership() { core.release(); }
  };

  // Takes the queue when nobody owns it, whether blocks are queued or not.
  bool tryAcquire() { return (state_.fetch_or(kOwned) & kOwned) == 0; }

  // Gives the queue up, or, when blocks were queued meanwhile, drains them on the pool.
  void release() {
    std::uint64_t ownedAndEmpty = kOwned;
    if (!state_.compare_exchange_strong(ownedAndEmpty, 0)) scheduleDrain();
  }

  void enqueue(Job job) {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    state_.fetch_add(kOneQueued);
  }

  // Called with mutex_ held and the list not empty.
  Job popLocked() {
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    state_.fetch_sub(kOneQueued);
    return job;
  }

  // Queues the caller behind the blocks before it and returns once it owns the queue.
  void waitInLine() {
    auto turn = std::make_shared<std::promise<void>>();
    auto ready = turn->get_future();
    enqueue(Job{nullptr, nullptr, turn});
    if (tryAcquire()) {
      {
        std::lock_guard lock(mutex_);
        if (jobs_.front().turn == turn) {  // nothing before it: no hop needed
          popLocked();
          return;
        }
      }
      scheduleDrain();
    }
    releaseDeferredMainWake();  // the blocks before it may wait for the main queue
    ready.wait();
  }

  void scheduleDrain() {
    boost::asio::post(pool(),
                      [self = std::static_pointer_cast<SerialCore>(shared_from_this())] { self->drain(); });
  }

  void drain() {
    for (int ran = 0; ran < kDrainBatch; ++ran) {
      Job job;
      {
        std::lock_guard lock(mutex_);
        if (jobs_.empty()) {
          state_.fetch_and(~kOwned);  // the count is 0 under the lock
          return;
        }
        job = popLocked();
      }
      if (job.turn) {
        job.turn->set_value();  // the waiting caller owns the queue now
        return;
      }
      execute(job);
    }
    scheduleDrain();  // still owned: the rest runs after other queues had their turn
  }

  std::atomic<std::uint64_t> state_{0};  // kOwned | queued blocks x kOneQueued
  std::mutex mutex_;
  std::deque<Job> jobs_;
};

// Readers/writer scheduling: ordinary blocks run side by side, a barrier runs alone. Blocks that
// arrive while a barrier waits or runs queue behind it, so a barrier is never starved.
//
// One atomic word holds the number of running blocks, whether a barrier runs, and whether blocks
// wait in line, so that a block (or a sync reader) that may start at once costs one atomic
// operation to start and one to finish; the line itself is kept under a mutex.
class ConcurrentCore final : public DispatchQueueCore {
 public:
  ConcurrentCore(std::string label, QueueKind kind) : DispatchQueueCore(std::move(label), kind) {}

  void submit(Job job, bool barrier) override {
    if (kind() == QueueKind::Global) {
      post(std::move(job), false, false);
      return;
    }
    if (tryStart(barrier)) {
      launch(std::move(job), barrier);
    } else {
      enqueue(std::move(job), barrier);
    }
  }

  void runSync(const ZRBDispatchBlock& block, bool barrier, const Frame* frames) override {
    if (kind() == QueueKind::Global) {
      FrameScope scope(this, frames);
      block();
      return;
    }
    if (!tryStart(barrier)) {
      auto turn = std::make_shared<std::promise<void>>();
      auto ready = turn->get_future();
      enqueue(Job{nullptr, nullptr, turn}, barrier);
      releaseDeferredMainWake();  // the blocks before it may wait for the main queue
      ready.wait();
    }
    Finish finish{*this, barrier};
    FrameScope scope(this, frames);
    block();
  }

  // An ordinary block may start at once when no barrier runs or waits: it runs here, beside
  // whatever else of the queue runs on the pool.
  bool runNowIfIdle(const ZRBDispatchBlock& block) override {
    if (kind() == QueueKind::Global || !tryStart(false)) return false;
    Job job{block, nullptr, nullptr};
    execute(job);
    finished(false);
    return true;
  }

 private:
  static constexpr std::uint64_t kExclusive = std::uint64_t{1} << 32;  // a barrier runs
  static constexpr std::uint64_t kWaiting = std::uint64_t{1} << 33;    // blocks wait in line
  static constexpr std::uint64_t kRunningMask = kExclusive - 1;

  struct Pending {
    Job job;
    bool barrier;
  };

  struct Finish {
    ConcurrentCore& core;
    bool barrier;
    ~Finish() { core.finished(barrier); }
  };

  // Takes a place when the block may start now: a barrier on an empty queue, an ordinary block
  // when no barrier runs and nothing waits in line.
  bool tryStart(bool barrier) {
    std::uint64_t state = state_.load();
    for (;;) {
      if (barrier ? state != 0 : (state & (kExclusive | kWaiting)) != 0) return false;
      if (state_.compare_exchange_weak(state, barrier ? kExclusive : state + 1)) return true;
    }
  }

  void finished(bool barrier) {
    std::uint64_t after = barrier ? state_.fetch_and(~kExclusive) & ~kExclusive : state_.fetch_sub(1) - 1;
    if ((after & kWaiting) != 0 && (after & (kRunningMask | kExclusive)) == 0) {
      std::lock_guard lock(mutex_);
      startWaiting();
    }
  }

  void enqueue(Job job, bool barrier) {
    std::lock_guard lock(mutex_);
    pending_.push_back({std::move(job), barrier});
    state_.fetch_or(kWaiting);
    startWaiting();  // what was running may have finished before it saw the line
  }

  // Called with mutex_ held: starts the blocks at the head of the line that may start now.
  void startWaiting() {
    while (!pending_.empty()) {
      const bool barrier = pending_.front().barrier;
      std::uint64_t state = state_.load();
      for (;;) {
        if ((state & kExclusive) != 0 || (barrier && (state & kRunningMask) != 0)) return;
        if (state_.compare_exchange_weak(state, barrier ? state | kExclusive : state + 1)) break;
      }
      Job job = std::move(pending_.front().job);
      pending_.pop_front();
      if (pending_.empty()) state_.fetch_and(~kWaiting);
      launch(std::move(job), barrier);
    }
  }

  // The block holds its place already: hand it its turn, or run it on the pool.
  void launch(Job job, bool barrier) {
    if (job.turn) {
      job.turn->set_value();
      return;
    }
    post(std::move(job), barrier, true);
  }

  void post(Job job, bool barrier, bool tracked) {
    boost::asio::post(pool(), [self = std::static_pointer_cast<ConcurrentCore>(shared_from_this()),
                               job = std::move(job), barrier, tracked]() mutable {
      self->execute(job);
      if (tracked) self->finished(barrier);
    });
  }

  std::atomic<std::uint64_t> state_{0};
  std::mutex mutex_;
  std::deque<Pending> pending_;
};

}  // namespace

// Inline runs (runNowIfIdle) in progress on this thread, and whether a main-queue block queued by
// asyncDeferringWake inside them still owes the main thread its wake-up.
struct DeferredMainWake {
  int inlineRuns = 0;
  bool owed = false;
};
__attribute__((tls_model("initial-exec"))) thread_local DeferredMainWake deferredMainWake;

// What the main queue's thread sleeps on: a counter bumped by every wake-up, waited on with a
// futex. A condition variable hands its waiter the mutex back marked contended, so every wake-up
// of the main thread cost a second system call (the futex wake of that mutex's next unlock); here a
// wake-up is one futex wake, made only while somebody sleeps.
class WakeWord {
 public:
  // Taken before looking for work: a wake-up after it ends the wait() that follows at once.
  std::uint32_t ticket() const { return word_.load(std::memory_order_seq_cst); }

  // Sleeps until a wake-up after `ticket`, a signal, or `timeout` (null: none).
  void wait(std::uint32_t ticket, const std::timespec* timeout) {
    sleepers_.fetch_add(1, std::memory_order_seq_cst);
    // The kernel compares again, so a wake-up between this check and the sleep is not lost.
    if (word_.load(std::memory_order_seq_cst) == ticket) {
      syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word_), FUTEX_WAIT_PRIVATE, ticket, timeout,
              nullptr, 0);
    }
    sleepers_.fetch_sub(1, std::memory_order_seq_cst);
  }

  void wakeAll() {
    word_.fetch_add(1, std::memory_order_seq_cst);
    // Either this sees the sleeper or the sleeper sees the new word (both are sequentially
    // consistent), so no sleeper is missed.
    if (sleepers_.load(std::memory_order_seq_cst) > 0) {
      syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word_), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr,
              nullptr, 0);
    }
  }

 private:
  static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t) &&
                std::atomic<std::uint32_t>::is_always_lock_free);
  std::atomic<std::uint32_t> word_{0};
  std::atomic<int> sleepers_{0};
};

// The main queue keeps its own list so that whoever runs it (its own thread, a host thread, a
// host's poster) takes blocks from one place, one at a time and in order.
class MainCore final : public DispatchQueueCore {
 public:
  MainCore() : DispatchQueueCore("com.velkit.dispatch.main", QueueKind::Main) {}

  void submit(Job job, bool) override { push(std::move(job), false); }
  // The block is queued now; inside an inline run, the wake-up waits for the run's end.
  void submitDeferringWake(Job job) { push(std::move(job), deferredMainWake.inlineRuns > 0); }
  void wake() { wake_.wakeAll(); }

  // Main-queue code may depend on running on the main thread, so the main thread runs the block
  // and the caller waits (from the main queue itself, sync() runs the block inline before this).
  void runSync(const ZRBDispatchBlock& block, bool, const Frame* frames) override {
    auto state = std::make_shared<SyncState>();
    state->callerFrames = frames;
    auto future = state->done.get_future();
    submit(Job{[&block] { block(); }, state, nullptr}, false);
    future.get();
  }

  // Runs the oldest queued block on the calling thread; false when there was none.
  bool runOne() {
    std::lock_guard exec(executing_);
    Job job;
    {
      std::lock_guard lock(mutex_);
      if (blocks_.empty()) return false;
      job = std::move(blocks_.front());
      blocks_.pop_front();
      queued_.store(blocks_.size(), std::memory_order_seq_cst);
    }
    execute(job);
    return true;
  }

  bool isMainThread() const {
    if (currentFrame) return currentFrame->queue == this;
    return mode_.load() == ZRBDispatch::MainQueueMode::HostDriven &&
           hostThread_.load() == std::this_thread::get_id();
  }

  // The frames a sync() from this thread hands to the block it waits for: the host's thread counts
  // as running the main queue even between blocks.
  const Frame* callerFrames() const {
    if (currentFrame) return currentFrame;
    static const Frame hostFrame{this, nullptr};
    if (mode_.load() == ZRBDispatch::MainQueueMode::HostDriven &&
        hostThread_.load() == std::this_thread::get_id()) {
      return &hostFrame;
    }
    return nullptr;
  }

  void setHostDriven() {
    {
      std::lock_guard lock(mutex_);
      hostThread_ = std::this_thread::get_id();
      mode_ = ZRBDispatch::MainQueueMode::HostDriven;
      poster_ = nullptr;
    }
    wake_.wakeAll();
  }

  void setPoster(std::function<void(std::function<void()>)> poster) {
    std::size_t queued;
    {
      std::lock_guard lock(mutex_);
      poster_ = poster;
      mode_ = ZRBDispatch::MainQueueMode::HostPoster;
      queued = blocks_.size();
    }
    for (std::size_t i = 0; i < queued; ++i) poster(runner());
  }

  void setOwnThread() {
    {
      std::lock_guard lock(mutex_);
      mode_ = ZRBDispatch::MainQueueMode::OwnThread;
      poster_ = nullptr;
      startThreadLocked();
    }
    wake_.wakeAll();
  }

  ZRBDispatch::MainQueueMode mode() const { return mode_.load(); }
  bool isDrivingThread() const {
    return mode_.load() == ZRBDispatch::MainQueueMode::HostDriven &&
           hostThread_.load() == std::this_thread::get_id();
  }

  // Waits up to `timeout` for a block to be queued (or for any other wake-up).
  void waitForWork(std::chrono::milliseconds timeout) {
    const std::uint32_t ticket = wake_.ticket();
    if (queued_.load(std::memory_order_seq_cst) > 0) return;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
    const std::timespec relative{static_cast<std::time_t>(seconds.count()),
                                 static_cast<long>(std::chrono::nanoseconds(timeout - seconds).count())};
    wake_.wait(ticket, &relative);
  }

 private:
  void push(Job job, bool deferWake) {
    std::function<void(std::function<void()>)> poster;
    {
      std::lock_guard lock(mutex_);
      blocks_.push_back(std::move(job));
      queued_.store(blocks_.size(), std::memory_order_seq_cst);
      auto mode = mode_.load();
      if (mode == ZRBDispatch::MainQueueMode::OwnThread) {
        startThreadLocked();
      } else if (mode == ZRBDispatch::MainQueueMode::HostPoster) {
        poster = poster_;  // one post per block: nothing to save by waiting
        deferWake = false;
      }
    }
    if (deferWake) {
      deferredMainWake.owed = true;
      return;
    }
    wake_.wakeAll();
    if (poster) poster(runner());
  }

  std::function<void()> runner() {
    return [self = std::static_pointer_cast<MainCore>(shared_from_this())] { self->runOne(); };
  }

  void startThreadLocked() {
    if (threadStarted_) return;
    threadStarted_ = true;
    // Detached and immortal, like the pool: the main queue lives for the process.
    std::thread([self = std::static_pointer_cast<MainCore>(shared_from_this())] {
      pthread_setname_np(pthread_self(), "orvelkit-main");
      self->ownThreadLoop();
    }).detach();
  }

  void ownThreadLoop() {
    for (;;) {
      const std::uint32_t ticket = wake_.ticket();
      if (mode_.load() == ZRBDispatch::MainQueueMode::OwnThread &&
          queued_.load(std::memory_order_seq_cst) > 0 && runOne()) {
        continue;
      }
      wake_.wait(ticket, nullptr);
    }
  }

  std::mutex mutex_;
  WakeWord wake_;
  std::deque<Job> blocks_;
  // blocks_.size(), written under mutex_, so that an idle thread looks without taking the lock.
  std::atomic<std::size_t> queued_{0};
  std::atomic<ZRBDispatch::MainQueueMode> mode_{ZRBDispatch::MainQueueMode::OwnThread};
  std::atomic<std::thread::id> hostThread_{};
  std::function<void(std::function<void()>)> poster_;
  bool threadStarted_ = false;
  // Held while a block runs, so that blocks never overlap while the mode changes hands; recursive
  // so that a main-queue block may pump the main queue itself.
  std::recursive_mutex executing_;
};

namespace {

const std::shared_ptr<MainCore>& mainCore() {
  static const auto* core = new std::shared_ptr<MainCore>(std::make_shared<MainCore>());
  return *core;
}

const Frame* callerFrames() { return mainCore()->callerFrames(); }

// Before this thread blocks, or when its outermost inline run ends: the main thread must not sleep
// through blocks queued for it.
void releaseDeferredMainWake() {
  if (!deferredMainWake.owed) return;
  deferredMainWake.owed = false;
  mainCore()->wake();
}

class InlineRunScope {
 public:
  InlineRunScope() { ++deferredMainWake.inlineRuns; }
  ~InlineRunScope() {
    if (--deferredMainWake.inlineRuns == 0) releaseDeferredMainWake();
  }
  InlineRunScope(const InlineRunScope&) = delete;
  InlineRunScope& operator=(const InlineRunScope&) = delete;
};

bool chainContains(const Frame* frames, const DispatchQueueCore* queue) {
  for (const Frame* f = frames; f; f = f->parent) {
    if (f->queue == queue) return true;
  }
  return false;
}

void runSync(const std::shared_ptr<DispatchQueueCore>& core, const ZRBDispatchBlock& block, bool barrier) {
  if (core->kind() == QueueKind::Global) barrier = false;  // global queues have no barriers
  const Frame* frames = callerFrames();
  const bool onThisQueue = frames && frames->queue == core.get();
  const bool inChain = chainContains(frames, core.get());
  const bool concurrent = core->kind() == QueueKind::Concurrent || core->kind() == QueueKind::Global;

  if (core->kind() == QueueKind::Main && onThisQueue) {
    block();  // already on the main queue
    return;
  }
  if (inChain && concurrent && !barrier) {
    // This thread already holds a place on the queue; queueing again could wait behind a barrier
    // that itself waits for this thread.
    FrameScope scope(core.get(), currentFrame);
    block();
    return;
  }
  if (inChain) {
    ZRBAssertNamed(false, "dispatch sync onto a queue that the calling code is running on");
    return;
  }
  core->runSync(block, barrier, frames);
}

}  // namespace

}  // namespace zrb_detail

using zrb_detail::DispatchQueueCore;
using zrb_detail::Job;
using zrb_detail::QueueKind;

// ---- ZRBDispatchQueue ----

ZRBDispatchQueue::ZRBDispatchQueue(std::shared_ptr<DispatchQueueCore> core) : core_(std::move(core)) {}

ZRBDispatchQueuePtr ZRBDispatchQueue::serial(std::string label) {
  return ZRBDispatchQueuePtr(
      new ZRBDispatchQueue(std::make_shared<zrb_detail::SerialCore>(std::move(label))));
}

ZRBDispatchQueuePtr ZRBDispatchQueue::concurrent(std::string label) {
  return ZRBDispatchQueuePtr(new ZRBDispatchQueue(
      std::make_shared<zrb_detail::ConcurrentCore>(std::move(label), QueueKind::Concurrent)));
}

const std::string& ZRBDispatchQueue::label() const { return core_->label(); }
bool ZRBDispatchQueue::isSerial() const {
  return core_->kind() == QueueKind::Serial || core_->kind() == QueueKind::Main;
}
bool ZRBDispatchQueue::isMain() const { return core_->kind() == QueueKind::Main; }

void ZRBDispatchQueue::async(ZRBDispatchBlock block) const {
  core_->submit(Job{std::move(block), nullptr, nullptr}, false);
}

void ZRBDispatchQueue::asyncDeferringWake(ZRBDispatchBlock block) const {
  if (core_->kind() != QueueKind::Main) {
    async(std::move(block));
    return;
  }
  zrb_detail::mainCore()->submitDeferringWake(Job{std::move(block), nullptr, nullptr});
}

bool ZRBDispatchQueue::runNowIfIdle(const ZRBDispatchBlock& block) const {
  zrb_detail::InlineRunScope scope;
  return core_->runNowIfIdle(block);
}

void ZRBDispatchQueue::sync(const ZRBDispatchBlock& block) const { zrb_detail::runSync(core_, block, false); }

void ZRBDispatchQueue::asyncAfter(std::chrono::nanoseconds delay, ZRBDispatchBlock block) const {
  if (delay <= std::chrono::nanoseconds::zero()) {
    async(std::move(block));
    return;
  }
  if (delay > zrb_detail::kForever) return;  // would never fire
  auto timer = std::make_shared<boost::asio::steady_timer>(zrb_detail::pool(), delay);
  timer->async_wait(
      [timer, core = core_, block = std::move(block)](const boost::system::error_code&) mutable {
        core->submit(Job{std::move(block), nullptr, nullptr}, false);
      });
}

void ZRBDispatchQueue::asyncBarrier(ZRBDispatchBlock block) const {
  core_->submit(Job{std::move(block), nullptr, nullptr}, true);
}

void ZRBDispatchQueue::syncBarrier(const ZRBDispatchBlock& block) const {
  zrb_detail::runSync(core_, block, true);
}

std::string ZRBDispatchQueue::description() const {
  return "<ZRBDispatchQueue: " + ZRBFormatPointer(this) + "; label = " + label() + ">";
}

// ---- ZRBDispatch ----

const ZRBDispatchQueuePtr& ZRBDispatch::mainQueue() {
  static const auto* queue = new ZRBDispatchQueuePtr(new ZRBDispatchQueue(zrb_detail::mainCore()));
  return *queue;
}

const ZRBDispatchQueuePtr& ZRBDispatch::globalQueue(ZRBQoS qos) {
  static const auto* queues = [] {
    static const char* const labels[] = {
        "com.velkit.dispatch.global.user-interactive", "com.velkit.dispatch.global.user-initiated",
        "com.velkit.dispatch.global.default",          "com.velkit.dispatch.global.utility",
        "com.velkit.dispatch.global.background",
    };
    auto* list = new std::vector<ZRBDispatchQueuePtr>;
    for (const char* label : labels) {
      list->push_back(ZRBDispatchQueuePtr(
          new ZRBDispatchQueue(std::make_shared<zrb_detail::ConcurrentCore>(label, QueueKind::Global))));
    }
    return list;
  }();
  auto index = static_cast<std::size_t>(qos);
  return (*queues)[index < queues->size() ? index : static_cast<std::size_t>(ZRBQoSDefault)];
}

bool ZRBDispatch::isMainQueue() { return zrb_detail::mainCore()->isMainThread(); }

std::string ZRBDispatch::currentQueueLabel() {
  if (zrb_detail::currentFrame) return zrb_detail::currentFrame->queue->label();
  if (isMainQueue()) return zrb_detail::mainCore()->label();
  return {};
}

std::size_t ZRBDispatch::threadPoolSize() { return zrb_detail::poolSizeValue(); }

void ZRBDispatch::driveMainQueueFromCurrentThread() { zrb_detail::mainCore()->setHostDriven(); }

std::size_t ZRBDispatch::drainMainQueue() {
  const auto& core = zrb_detail::mainCore();
  ZRBAssertNamed(core->isDrivingThread(), "the calling thread drives the main queue");
  std::size_t ran = 0;
  while (core->runOne()) ++ran;
  return ran;
}

bool ZRBDispatch::runMainQueueUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto& core = zrb_detail::mainCore();
  ZRBAssertNamed(core->isDrivingThread(), "the calling thread drives the main queue");
  const auto deadline =
      std::chrono::steady_clock::now() + std::min<std::chrono::milliseconds>(timeout, zrb_detail::kForever);
  for (;;) {
    if (done()) return true;
    if (core->runOne()) continue;
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return done();
    // `done` may turn true through other threads without any main-queue block, so look again
    // every few milliseconds.
    auto slice = std::min<std::chrono::steady_clock::duration>(deadline - now, std::chrono::milliseconds(5));
    core->waitForWork(std::chrono::duration_cast<std::chrono::milliseconds>(slice) +
                      std::chrono::milliseconds(1));
  }
}

void ZRBDispatch::setMainQueuePoster(std::function<void(std::function<void()>)> poster) {
  ZRBAssert(poster);
  if (!poster) return;
  zrb_detail::mainCore()->setPoster(std::move(poster));
}

void ZRBDispatch::useOwnMainThread() { zrb_detail::mainCore()->setOwnThread(); }

ZRBDispatch::MainQueueMode ZRBDispatch::mainQueueMode() { return zrb_detail::mainCore()->mode(); }

// ---- ZRBDispatchGroup ----

struct ZRBDispatchGroup::State {
  std::mutex mutex;
  std::condition_variable empty;
  long count = 0;
  std::vector<std::pair<ZRBDispatchQueuePtr, ZRBDispatchBlock>> notifications;

  // False when there was nothing to leave.
  bool leave() {
    std::vector<std::pair<ZRBDispatchQueuePtr, ZRBDispatchBlock>> due;
    {
      std::lock_guard lock(mutex);
      if (count <= 0) return false;
      if (--count > 0) return true;
      due.swap(notifications);
      // Notified under the lock: a waiter may destroy the group as soon as it wakes.
      empty.notify_all();
    }
    for (auto& [queue, block] : due) queue->async(std::move(block));
    return true;
  }
};

ZRBDispatchGroup::ZRBDispatchGroup() : state_(std::make_shared<State>()) {}

void ZRBDispatchGroup::enter() {
  std::lock_guard lock(state_->mutex);
  ++state_->count;
}

void ZRBDispatchGroup::leave() {
  bool balanced = state_->leave();
  ZRBAssertNamed(balanced, "dispatch group leave balanced by enter");
}

void ZRBDispatchGroup::async(const ZRBDispatchQueuePtr& queue, ZRBDispatchBlock block) {
  ZRBAssert(queue);
  if (!queue) return;
  enter();
  queue->async([state = state_, block = std::move(block)] {
    struct Leave {
      State& state;
      ~Leave() { state.leave(); }
    } leave{*state};
    block();
  });
}

void ZRBDispatchGroup::notify(const ZRBDispatchQueuePtr& queue, ZRBDispatchBlock block) {
  ZRBAssert(queue);
  if (!queue) return;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->count > 0) {
      state_->notifications.emplace_back(queue, std::move(block));
      return;
    }
  }
  queue->async(std::move(block));
}

bool ZRBDispatchGroup::wait(std::chrono::nanoseconds timeout) {
  zrb_detail::releaseDeferredMainWake();  // what it waits for may wait for the main queue
  if (timeout > zrb_detail::kForever) {
    wait();
    return true;
  }
  std::unique_lock lock(state_->mutex);
  return state_->empty.wait_for(lock, timeout, [&] { return state_->count == 0; });
}

void ZRBDispatchGroup::wait() {
  zrb_detail::releaseDeferredMainWake();  // what it waits for may wait for the main queue
  std::unique_lock lock(state_->mutex);
  state_->empty.wait(lock, [&] { return state_->count == 0; });
}

// ---- ZRBDispatchSemaphore ----

bool ZRBDispatchSemaphore::signal() {
  // Notified under the lock: a waiter may destroy the semaphore as soon as it wakes.
  std::lock_guard lock(mutex_);
  ++value_;
  available_.notify_one();
  return waiting_ > 0;
}

bool ZRBDispatchSemaphore::wait(std::chrono::nanoseconds timeout) {
  zrb_detail::releaseDeferredMainWake();  // what it waits for may wait for the main queue
  if (timeout > zrb_detail::kForever) {
    wait();
    return true;
  }
  std::unique_lock lock(mutex_);
  ++waiting_;
  bool acquired = available_.wait_for(lock, timeout, [&] { return value_ > 0; });
  --waiting_;
  if (acquired) --value_;
  return acquired;
}

void ZRBDispatchSemaphore::wait() {
  zrb_detail::releaseDeferredMainWake();  // what it waits for may wait for the main queue
  std::unique_lock lock(mutex_);
  ++waiting_;
  available_.wait(lock, [&] { return value_ > 0; });
  --waiting_;
  --value_;
}
