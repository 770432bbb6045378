// JSON decoding and encoding: ZRBJSONSerialization against nlohmann::json on the same bytes, in the
// same run. Documents are generated deterministically: a ~1 MB API listing of device and camera
// records, and a ~200-byte single record. At the end the throughput ratios are printed.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/foundation/json_serialization.h"
#include "support/json_documents.h"
#include "support/rate_reporter.h"

namespace {

using bench_json::large;
using bench_json::small;

void decodeOurs(benchmark::State& state, const std::string& doc) {
  for (auto _ : state) {
    ZRBValue v = ZRBJSONSerialization::JSONObjectWithData(std::string_view(doc));
    if (v.isAbsent()) state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * doc.size()));
}

void decodeNlohmann(benchmark::State& state, const std::string& doc) {
  for (auto _ : state) {
    nlohmann::json j = nlohmann::json::parse(doc);
    benchmark::DoNotOptimize(j);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * doc.size()));
}

void encodeOurs(benchmark::State& state, const std::string& doc) {
  ZRBValue v = ZRBJSONSerialization::JSONObjectWithData(std::string_view(doc));
  std::size_t bytes = 0;
  for (auto _ : state) {
    auto text = ZRBJSONSerialization::stringWithJSONObject(v);
    bytes = text->size();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void encodeNlohmann(benchmark::State& state, const std::string& doc) {
  nlohmann::json j = nlohmann::json::parse(doc);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string text = j.dump();
    bytes = text.size();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void BM_Decode1MB_Ours(benchmark::State& s) { decodeOurs(s, large()); }
void BM_Decode1MB_Nlohmann(benchmark::State& s) { decodeNlohmann(s, large()); }
void BM_Decode200B_Ours(benchmark::State& s) { decodeOurs(s, small()); }
void BM_Decode200B_Nlohmann(benchmark::State& s) { decodeNlohmann(s, small()); }
void BM_Encode1MB_Ours(benchmark::State& s) { encodeOurs(s, large()); }
void BM_Encode1MB_Nlohmann(benchmark::State& s) { encodeNlohmann(s, large()); }
void BM_Encode200B_Ours(benchmark::State& s) { encodeOurs(s, small()); }
void BM_Encode200B_Nlohmann(benchmark::State& s) { encodeNlohmann(s, small()); }

BENCHMARK(BM_Decode1MB_Ours);
BENCHMARK(BM_Decode1MB_Nlohmann);
BENCHMARK(BM_Decode200B_Ours);
BENCHMARK(BM_Decode200B_Nlohmann);
BENCHMARK(BM_Encode1MB_Ours);
BENCHMARK(BM_Encode1MB_Nlohmann);
BENCHMARK(BM_Encode200B_Ours);
BENCHMARK(BM_Encode200B_Nlohmann);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("documents: %zu bytes and %zu bytes\n", large().size(), small().size());
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  auto ratio = [&](const char* label, const std::string& ours, const std::string& theirs) {
    if (auto r = reporter.ratio(ours, theirs)) std::printf("%s: %.2fx nlohmann\n", label, *r);
  };
  ratio("json 1MB decode", "BM_Decode1MB_Ours", "BM_Decode1MB_Nlohmann");
  ratio("json 200B decode", "BM_Decode200B_Ours", "BM_Decode200B_Nlohmann");
  ratio("json 1MB encode", "BM_Encode1MB_Ours", "BM_Encode1MB_Nlohmann");
  ratio("json 200B encode", "BM_Encode200B_Ours", "BM_Encode200B_Nlohmann");
  return 0;
}
