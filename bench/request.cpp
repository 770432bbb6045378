// The response cache: a cached request answered from disk against the same request going to the
// loopback test server, and the cost of a cache write against a plain atomic file write of the
// same bytes.
//
// Round trips are timed from start() to the success callback, with JSON decoding and the
// main-queue callback included: the benchmark's thread drives the main queue, as a program's main
// thread would, and starts each request from it. Bodies are the JSON benchmark's documents (about
// 200 bytes and 1 MB). Rates are per wall-clock second.
#include "request/request.h"

#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "platform/runtime/dispatch.h"
#include "platform/system/file_manager.h"
#include "support/json_documents.h"
#include "support/rate_reporter.h"
#include "support/test_server.h"

namespace {

using bench_json::large;
using bench_json::small;
namespace fs = std::filesystem;

class BenchRequest final : public ZRBRQ_Request {
 public:
  BenchRequest(const std::string& url, long cacheTime) : url_(url), cacheTime_(cacheTime) {}
  std::string requestUrl() const override { return url_; }
  long cacheTimeInSeconds() const override { return cacheTime_; }

 private:
  const std::string& url_;
  long cacheTime_;
};

constexpr long kCacheTime = 24 * 3600;

struct Fixture {
  ZRBTestServer server;
  fs::path library = fs::temp_directory_path() / ("orvelkit-bench-request-" + std::to_string(::getpid()));
  std::string smallUrl;
  std::string largeUrl;

  Fixture() {
    server.start();
    server.respond("GET", "/small", ZRBTestResponse::json(200, small()));
    server.respond("GET", "/large", ZRBTestResponse::json(200, large()));
    smallUrl = server.url("/small");
    largeUrl = server.url("/large");
    fs::create_directories(library);
    ZRBFileManager::defaultManager()->setLibraryDirectory(library.string());
    // The entries the hits are answered from.
    std::make_shared<BenchRequest>(smallUrl, kCacheTime)
        ->saveResponseDataToCacheFile(ZRBValue::data(small()));
    std::make_shared<BenchRequest>(largeUrl, kCacheTime)
        ->saveResponseDataToCacheFile(ZRBValue::data(large()));
  }
  ~Fixture() { fs::remove_all(library); }
};

Fixture& fixture() {
  static Fixture instance;
  return instance;
}

// CPU time of the whole process (every thread: transport, processing queue, main queue).
double processCpuSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// start() to the success callback; `cached` says whether the answer must come from disk. Besides
// the wall-clock rate, "process_cpu_us" is the process's CPU time per request over all threads,
// which a loaded machine distorts less than the wall clock.
void roundTrip(benchmark::State& state, const std::string& url, std::size_t bytes, bool cached) {
  const double cpuBefore = processCpuSeconds();
  for (auto _ : state) {
    bool done = false;
    bool succeeded = false;
    auto request = std::make_shared<BenchRequest>(url, cached ? kCacheTime : -1);
    request->startWithCompletionBlockWithSuccess(
        [&](const ZRBRQ_BaseRequestPtr&) { done = succeeded = true; },
        [&](const ZRBRQ_BaseRequestPtr&) { done = true; });
    ZRBDispatch::runMainQueueUntil([&] { return done; }, std::chrono::seconds(30));
    if (!succeeded || request->isDataFromCache() != cached || !request->responseJSONObject()) {
      state.SkipWithError("the request did not succeed as expected");
      break;
    }
  }
  // The agent's clean-up follows each network callback on the main queue.
  ZRBDispatch::drainMainQueue();
  state.counters["process_cpu_us"] =
      (processCpuSeconds() - cpuBefore) * 1e6 /
      static_cast<double>(std::max<benchmark::IterationCount>(state.iterations(), 1));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

void BM_Hit200B(benchmark::State& s) { roundTrip(s, fixture().smallUrl, small().size(), true); }
void BM_Network200B(benchmark::State& s) { roundTrip(s, fixture().smallUrl, small().size(), false); }
void BM_Hit1MB(benchmark::State& s) { roundTrip(s, fixture().largeUrl, large().size(), true); }
void BM_Network1MB(benchmark::State& s) { roundTrip(s, fixture().largeUrl, large().size(), false); }

// A whole cache write (old metadata removed, body and metadata each written and renamed, synced).
void cacheWrite(benchmark::State& state, const std::string& body) {
  const std::string url = "/write/" + std::to_string(body.size());
  const ZRBValue data = ZRBValue::data(body);
  auto request = std::make_shared<BenchRequest>(url, kCacheTime);
  request->cacheFilePath();  // the directory exists before timing
  for (auto _ : state) request->saveResponseDataToCacheFile(data);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}

// The baseline: the same bytes written atomically to one file (temporary file, sync, rename).
void plainWrite(benchmark::State& state, const std::string& body) {
  const std::string path = (fixture().library / ("plain-" + std::to_string(body.size()))).string();
  for (auto _ : state)
    ZRBFileManager::defaultManager()->writeData(
        std::span(reinterpret_cast<const std::uint8_t*>(body.data()), body.size()), path, true);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}

void BM_CacheWrite200B(benchmark::State& s) { cacheWrite(s, small()); }
void BM_PlainWrite200B(benchmark::State& s) { plainWrite(s, small()); }
void BM_CacheWrite1MB(benchmark::State& s) { cacheWrite(s, large()); }
void BM_PlainWrite1MB(benchmark::State& s) { plainWrite(s, large()); }

// Keeps each run's process CPU per request beside the rates.
class CpuReporter : public RateReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    RateReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (auto found = run.counters.find("process_cpu_us"); found != run.counters.end()) {
        cpu_[run.benchmark_name()] = found->second.value;
      }
    }
  }
  std::optional<double> counter(const std::string& name) const {
    auto found = cpu_.find(name);
    return found == cpu_.end() ? std::nullopt : std::optional<double>(found->second);
  }

 private:
  std::map<std::string, double> cpu_;
};

BENCHMARK(BM_Hit200B)->UseRealTime();
BENCHMARK(BM_Network200B)->UseRealTime();
BENCHMARK(BM_Hit1MB)->UseRealTime();
BENCHMARK(BM_Network1MB)->UseRealTime();
BENCHMARK(BM_CacheWrite200B)->UseRealTime();
BENCHMARK(BM_PlainWrite200B)->UseRealTime();
BENCHMARK(BM_CacheWrite1MB)->UseRealTime();
BENCHMARK(BM_PlainWrite1MB)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  ZRBDispatch::driveMainQueueFromCurrentThread();
  fixture();
  std::printf("bodies: %zu bytes and %zu bytes\n", small().size(), large().size());
  CpuReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  const auto& rates = reporter.rates();
  if (auto hit = rates.find("BM_Hit200B/real_time"); hit != rates.end() && hit->second > 0) {
    std::printf("200-byte hit: %.1f us from start to the success callback (target: under 50)\n",
                1e6 / hit->second);
  }
  auto ratio = [&](const char* label, const char* ours, const char* baseline, const char* what) {
    if (auto r = reporter.ratio(std::string(ours) + "/real_time", std::string(baseline) + "/real_time")) {
      std::printf("%s: %.2fx %s\n", label, *r, what);
    }
  };
  for (const char* size : {"200B", "1MB"}) {
    const auto hit = reporter.counter(std::string("BM_Hit") + size + "/real_time");
    const auto network = reporter.counter(std::string("BM_Network") + size + "/real_time");
    if (hit && network && *hit > 0) {
      std::printf(
          "cache hit %s: %.1f us of process CPU per request, %.2fx less than the round trip's %.1f us\n",
          size, *hit, *network / *hit, *network);
    }
  }
  ratio("cache hit 200B", "BM_Hit200B", "BM_Network200B", "the loopback round trip");
  ratio("cache hit 1MB", "BM_Hit1MB", "BM_Network1MB", "the loopback round trip");
  ratio("cache write 200B", "BM_CacheWrite200B", "BM_PlainWrite200B", "a plain atomic write");
  ratio("cache write 1MB", "BM_CacheWrite1MB", "BM_PlainWrite1MB", "a plain atomic write");
  return 0;
}
