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
#include "support/rate_reporter.h"

namespace {

// A small deterministic generator, so every run measures the same document.
struct Random {
  std::uint64_t state = 0x9E3779B97F4A7C15ULL;
  std::uint64_t next() {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return state >> 33;
  }
  std::uint64_t below(std::uint64_t n) { return next() % n; }
  double unit() { return static_cast<double>(next() % 1000000) / 1000000.0; }
};

std::string record(Random& r, int index) {
  static const char* kNames[] = {
      "Caméra d’entrée \\\"Nord\\\"",
      "Garage cam",
      "Wohnzimmer Kamera",
      "入口カメラ",
      "Back yard \\u2014 east",
      "Baby monitor 👶",
      "Porch\\tlight",
      "Офис камера",
      "Driveway / gate",
      "Kitchen",
      "Cámara del jardín",
      "Loft\\\\attic",
  };
  static const char* kModels[] = {"ZC-100", "ZC-200 Pro", "Doorbell 2", "Floodlight", "Indoor Mini"};
  static const char* kTags[] = {"outdoor", "indoor", "front", "back", "night", "motion", "audio", "hd"};
  char buffer[2048];
  int id = 100000 + index;
  int n = std::snprintf(
      buffer, sizeof buffer,
      "{\"id\":%d,\"uuid\":\"%08llx-%04llx-4%03llx-a%03llx-%012llx\",\"name\":\"%s %d\",\"model\":\"%s\","
      "\"online\":%s,\"battery\":%.3f,\"signal_dbm\":%d,\"firmware\":%s,"
      "\"last_seen\":\"2024-%02d-%02dT%02d:%02d:%02dZ\",\"created_at\":%lld,"
      "\"location\":{\"lat\":%.6f,\"lon\":%.6f,\"floor\":%d,\"room\":null},"
      "\"settings\":{\"resolution\":\"%s\",\"fps\":%d,\"night_vision\":%s,\"hdr\":%s,"
      "\"motion\":{\"enabled\":%s,\"sensitivity\":%.2f,\"zones\":[[0,0,%d,%d],[%d,%d,640,480]]},"
      "\"schedule\":{\"days\":[1,2,3,4,5],\"from\":\"08:00\",\"to\":\"18:30\"}},"
      "\"tags\":[\"%s\",\"%s\"],"
      "\"stream_url\":\"rtsp://cam-%d.example.com:554/live/main\","
      "\"thumbnail\":\"https://cdn.example.com/v2/thumbs/%d/latest.jpg?size=small&v=%d\","
      "\"owner\":{\"user_id\":%llu,\"email\":\"user%d@example.com\",\"admin\":%s}}",
      id, static_cast<unsigned long long>(r.next()), static_cast<unsigned long long>(r.below(0x10000)),
      static_cast<unsigned long long>(r.below(0x1000)), static_cast<unsigned long long>(r.below(0x1000)),
      static_cast<unsigned long long>(r.next() * 4099), kNames[r.below(12)], index, kModels[r.below(5)],
      r.below(4) ? "true" : "false", r.unit(), -30 - static_cast<int>(r.below(60)),
      r.below(5) ? "\"4.12.3-rc.1\"" : "null", 1 + static_cast<int>(r.below(12)),
      1 + static_cast<int>(r.below(28)), static_cast<int>(r.below(24)), static_cast<int>(r.below(60)),
      static_cast<int>(r.below(60)), 1600000000LL + static_cast<long long>(r.below(100000000)),
      48.0 + r.unit(), 2.0 + r.unit(), static_cast<int>(r.below(5)), r.below(2) ? "1920x1080" : "3840x2160",
      r.below(2) ? 30 : 15, r.below(2) ? "true" : "false", r.below(2) ? "true" : "false",
      r.below(2) ? "true" : "false", r.unit(), static_cast<int>(r.below(320)), static_cast<int>(r.below(240)),
      static_cast<int>(r.below(320)), static_cast<int>(r.below(240)), kTags[r.below(8)], kTags[r.below(8)],
      id, id, static_cast<int>(r.below(9)), static_cast<unsigned long long>(r.next() << 20), index % 997,
      r.below(10) ? "false" : "true");
  return std::string(buffer, static_cast<std::size_t>(n));
}

std::string largeDocument() {
  Random r;
  std::string out =
      "{\"meta\":{\"api_version\":\"2.4\",\"generated_at\":\"2024-05-01T12:00:00.000Z\",\"page\":1,"
      "\"next\":\"https:\\/\\/api.example.com\\/v2\\/"
      "devices?page=2&per_page=1500\",\"total\":18446744073709551615},"
      "\"devices\":[";
  for (int i = 0; out.size() < 1000000; ++i) {
    if (i) out += ',';
    out += record(r, i);
  }
  out += "]}";
  return out;
}

const std::string& large() {
  static const std::string doc = largeDocument();
  return doc;
}

const std::string& small() {
  static const std::string doc =
      "{\"id\":42,\"name\":\"Front door \\u00e9\",\"online\":true,\"battery\":0.87,\"firmware\":null,"
      "\"url\":\"https:\\/\\/api.example.com\\/v2\\/devices\\/42\",\"tags\":[\"outdoor\",\"front\"],"
      "\"settings\":{\"fps\":30,\"hdr\":false,\"zones\":[1,2,3]},\"seen\":1714564800}";
  return doc;
}

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
