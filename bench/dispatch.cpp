// Synchronous hops onto queues against the locks they stand in for, in the same run: sync onto an
// idle serial queue against a std::mutex lock and unlock, and two threads of sync reads on one
// concurrent queue against shared locks of one std::shared_mutex. Every side does the same small
// read inside (a counter in a shared table). At the end the speed ratios are printed; the target
// is at least 0.5x (within 2x of the lock) for each.
#include "platform/runtime/dispatch.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <shared_mutex>

#include "support/rate_reporter.h"

namespace {

// What every guarded section reads: a value the optimiser cannot see through.
std::array<std::uint64_t, 64> table{};

inline void read(std::uint64_t& sum, std::size_t i) { sum += table[i & 63]; }

void BM_SerialSync(benchmark::State& state) {
  auto queue = ZRBDispatchQueue::serial("bench.dispatch.serial");
  std::uint64_t sum = 0;
  std::size_t i = 0;
  for (auto _ : state) queue->sync([&] { read(sum, ++i); });
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations());
}

void BM_Mutex(benchmark::State& state) {
  std::mutex mutex;
  std::uint64_t sum = 0;
  std::size_t i = 0;
  for (auto _ : state) {
    std::lock_guard lock(mutex);
    read(sum, ++i);
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations());
}

// Shared by the two threads of each run.
const ZRBDispatchQueuePtr& readersQueue() {
  static const auto* queue = new ZRBDispatchQueuePtr(ZRBDispatchQueue::concurrent("bench.dispatch.readers"));
  return *queue;
}
std::shared_mutex readersLock;

void BM_ConcurrentSyncRead(benchmark::State& state) {
  const auto& queue = readersQueue();
  std::uint64_t sum = 0;
  std::size_t i = static_cast<std::size_t>(state.thread_index()) * 32;
  for (auto _ : state) queue->sync([&] { read(sum, ++i); });
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations());
}

void BM_SharedMutexRead(benchmark::State& state) {
  std::uint64_t sum = 0;
  std::size_t i = static_cast<std::size_t>(state.thread_index()) * 32;
  for (auto _ : state) {
    std::shared_lock lock(readersLock);
    read(sum, ++i);
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_SerialSync);
BENCHMARK(BM_Mutex);
BENCHMARK(BM_ConcurrentSyncRead)->Threads(2)->UseRealTime();
BENCHMARK(BM_SharedMutexRead)->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  auto print = [&](const char* what, const char* ours, const char* baseline) {
    if (auto r = reporter.ratio(ours, baseline))
      std::printf("%s: %.2fx %s (target >= 0.5)\n", what, *r, baseline + 3);
  };
  print("sync onto an idle serial queue", "BM_SerialSync", "BM_Mutex");
  print("two threads of concurrent sync reads", "BM_ConcurrentSyncRead/real_time/threads:2",
        "BM_SharedMutexRead/real_time/threads:2");
  return 0;
}
