// Percent escaping and query-string encoding: ZRBHS_PercentEscapedStringFromString and
// ZRBHS_QueryStringFromParameters against libcurl's curl_easy_escape on the same input, in the same
// run. Inputs are fixed or generated deterministically. At the end the throughput ratios are
// printed.
//
// The two escape different reserved sets: curl_easy_escape keeps only ASCII letters, digits and
// "-._~", while ours also keeps "/" and "?", which our query strings allow. The outputs therefore
// differ slightly; what is compared is speed over the same input, not output. To keep the ratios a
// ratio of times, both sides of a comparison are credited with the same byte count: the input
// length for escaping, the length of our query string for query encoding.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "http/multipart_body_stream.h"
#include "http/multipart_form_data.h"
#include "http/query_string.h"
#include "http/request_serializer.h"
#include "platform/foundation/value.h"
#include "support/rate_reporter.h"

namespace {

// ---- escaping input ----

struct Sample {
  const char* name;
  std::string text;
};

// About 4 KB of mixed text: prose, punctuation, URLs, accented Latin, CJK, Cyrillic and emoji.
std::string mixedText() {
  static const char* kPieces[] = {
      "The quick brown fox jumps over the lazy dog. ",
      "Café crème, naïve résumé, façade; ",
      "see https://example.com/docs/v2/guide?section=3&lang=en#top ",
      "北京欢迎你，今天天气很好。",
      "Привет, как дела? ",
      "Party time 🎉🎊 with the family 👩‍👩‍👧! ",
      "price: $19.99 (20% off) [limited] {offer} ",
      "\"quoted\" 'single' <tag> a+b=c ",
      "東京タワーへ行きましょう。",
      "line one\nline two\ttabbed ",
  };
  std::string out;
  for (std::size_t i = 0; out.size() < 4096; ++i) out += kPieces[(i * 7) % std::size(kPieces)];
  return out;
}

const std::vector<Sample>& samples() {
  static const std::vector<Sample> all = {
      {"ascii_words", "wireless outdoor security camera with night vision"},
      {"email", "first.last+alerts@mail.example-company.co.uk"},
      {"url", "https://api.example.com/v2/devices/42/events?since=2024-05-01T12:00:00Z&limit=50&sort=-time"},
      {"json", R"({"id":42,"name":"Front door","online":true,"zones":[[0,0,320,240]],"tags":["a","b"]})"},
      {"chinese", "北京市朝阳区建国路88号现代城小区三号楼"},
      {"emoji",
       "Happy birthday 🎂🎉 love you ❤️ 👨‍👩‍👧‍👦 see you soon 😀👍🏽"},
      {"mixed_4k", mixedText()},
  };
  return all;
}

// ---- query-string input ----

// A search/listing request: 24 flat keys of strings, numbers, booleans and a few arrays.
ZRBValue listingParameters() {
  return ZRBValue::dictionary({
      {"q", "outdoor camera night vision"},
      {"page", 3},
      {"per_page", 50},
      {"sort", "-last_seen"},
      {"order", "desc"},
      {"since", "2024-05-01T12:00:00Z"},
      {"until", "2024-05-31T23:59:59Z"},
      {"include_offline", true},
      {"min_battery", 0.25},
      {"max_signal_dbm", -40},
      {"model", ZRBValue::array({"ZC-100", "ZC-200 Pro", "Doorbell 2"})},
      {"tag", ZRBValue::array({"outdoor", "front", "motion"})},
      {"fields", "id,name,model,online,battery,location"},
      {"locale", "en_US"},
      {"tz", "Europe/Berlin"},
      {"client", "orvelkit/1.4.0 (Linux; x86_64)"},
      {"session", "3f2a9c1e-77b0-4d2a-9e1f-0c6b5d4a3e21"},
      {"redirect", "https://app.example.com/devices?view=grid&filter=online"},
      {"ids", ZRBValue::array({101, 102, 103, 104, 105, 106, 107, 108})},
      {"lat", 48.137154},
      {"lon", 11.576124},
      {"radius_km", 12.5},
      {"owner", "first.last+alerts@example.com"},
      {"debug", false},
  });
}

// A device update: 36 leaves under nested dictionaries and arrays, with unicode names.
ZRBValue deviceUpdateParameters() {
  return ZRBValue::dictionary({
      {"device_id", 100042},
      {"name", "Caméra d’entrée « Nord »"},
      {"room", "入口カメラ"},
      {"firmware", "4.12.3-rc.1"},
      {"settings", ZRBValue::dictionary({
                       {"resolution", "1920x1080"},
                       {"fps", 30},
                       {"hdr", true},
                       {"night_vision", "auto"},
                       {"motion", ZRBValue::dictionary({
                                      {"enabled", true},
                                      {"sensitivity", 0.75},
                                      {"zones", ZRBValue::array({0, 0, 320, 240, 320, 240, 640, 480})},
                                      {"cooldown_s", 30},
                                  })},
                       {"schedule", ZRBValue::dictionary({
                                        {"days", ZRBValue::array({1, 2, 3, 4, 5})},
                                        {"from", "08:00"},
                                        {"to", "18:30"},
                                    })},
                   })},
      {"location", ZRBValue::dictionary({
                       {"lat", 48.856613},
                       {"lon", 2.352222},
                       {"floor", 2},
                       {"label", "Büro — 2. Stock"},
                   })},
      {"notify", ZRBValue::dictionary({
                     {"email", "ops@example.com"},
                     {"push", true},
                     {"quiet_hours", ZRBValue::array({"22:00", "07:00"})},
                     {"message", "Bewegung erkannt 🚶 at {time}"},
                 })},
      {"owner", ZRBValue::dictionary({{"user_id", 987654321ULL}, {"display", "Дмитрий Иванов"}})},
      {"note", "Replaced lens 2024/05/01; check alignment & focus?"},
  });
}

// An analytics batch: 50 keys, flat and nested, mostly short values with some unicode.
ZRBValue analyticsParameters() {
  std::vector<ZRBDictionaryEntry> entries;
  static const char* kValues[] = {"view", "tap", "scroll", "Ünïcödé", "搜索", "🔍 search", "a b c", "x/y?z"};
  for (int i = 0; i < 40; ++i) {
    char key[32];
    std::snprintf(key, sizeof key, "event_%02d", i);
    if (i % 4 == 0) {
      entries.emplace_back(key, static_cast<long long>(1714564800000LL + i * 137));
    } else if (i % 4 == 1) {
      entries.emplace_back(key, 0.001 * i + 0.5);
    } else {
      entries.emplace_back(key, kValues[i % std::size(kValues)]);
    }
  }
  entries.emplace_back("app",
                       ZRBValue::dictionary({{"name", "Orvel Home"}, {"version", "5.2.1"}, {"build", 5021}}));
  entries.emplace_back("device",
                       ZRBValue::dictionary({{"os", "Linux 6.1"}, {"arch", "x86_64"}, {"lang", "zh-Hans"}}));
  entries.emplace_back("screens", ZRBValue::array({"home", "devices", "设置", "events", "account"}));
  entries.emplace_back("ab", ZRBValue::dictionary({{"new_onboarding", "B"}, {"dark_mode", true}}));
  entries.emplace_back("session_ms", 183422);
  entries.emplace_back("referrer", "https://www.example.org/landing?utm_source=mail&utm_campaign=spring");
  entries.emplace_back("user", "first.last@example.com");
  entries.emplace_back("consent", ZRBValue::array({"analytics", "crash"}));
  entries.emplace_back("region", "Île-de-France");
  entries.emplace_back("seq", 42);
  return ZRBValue::dictionary(std::move(entries));
}

struct QueryInput {
  const char* name;
  ZRBValue parameters;
  // The flattened pairs' descriptions, made once outside any timed loop for the baseline.
  struct Pair {
    std::string field;
    std::string value;
    bool hasValue;
  };
  std::vector<Pair> pairs;
  std::size_t leaves = 0;
  std::size_t queryBytes = 0;
};

std::vector<QueryInput> makeQueryInputs() {
  std::vector<QueryInput> inputs;
  inputs.push_back({"listing", listingParameters(), {}});
  inputs.push_back({"device_update", deviceUpdateParameters(), {}});
  inputs.push_back({"analytics", analyticsParameters(), {}});
  for (QueryInput& input : inputs) {
    for (const ZRBHS_QueryStringPair& pair : ZRBHS_QueryStringPairsFromDictionary(input.parameters)) {
      bool hasValue = !pair.value().isNothing();
      input.pairs.push_back(
          {pair.field().description(), hasValue ? pair.value().description() : std::string(), hasValue});
    }
    input.leaves = input.pairs.size();
    input.queryBytes = ZRBHS_QueryStringFromParameters(input.parameters).size();
  }
  return inputs;
}

const std::vector<QueryInput>& queryInputs() {
  static const std::vector<QueryInput> all = makeQueryInputs();
  return all;
}

CURL* curlHandle() {
  static CURL* handle = curl_easy_init();
  return handle;
}

// ---- escaping ----

void escapeOurs(benchmark::State& state, const std::vector<const Sample*>& inputs) {
  std::size_t bytes = 0;
  for (const Sample* s : inputs) bytes += s->text.size();
  for (auto _ : state) {
    for (const Sample* s : inputs) {
      std::string escaped = ZRBHS_PercentEscapedStringFromString(s->text);
      benchmark::DoNotOptimize(escaped.data());
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

void escapeCurl(benchmark::State& state, const std::vector<const Sample*>& inputs) {
  std::size_t bytes = 0;
  for (const Sample* s : inputs) bytes += s->text.size();
  CURL* curl = curlHandle();
  for (auto _ : state) {
    for (const Sample* s : inputs) {
      char* escaped = curl_easy_escape(curl, s->text.data(), static_cast<int>(s->text.size()));
      benchmark::DoNotOptimize(escaped);
      curl_free(escaped);
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

std::vector<const Sample*> allSamples() {
  std::vector<const Sample*> out;
  for (const Sample& s : samples()) out.push_back(&s);
  return out;
}

// ---- query strings ----

void queryOurs(benchmark::State& state, const QueryInput& input) {
  for (auto _ : state) {
    std::string query = ZRBHS_QueryStringFromParameters(input.parameters);
    benchmark::DoNotOptimize(query.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * input.queryBytes));
  state.counters["pairs"] = static_cast<double>(input.leaves);
}

// The baseline starts from pairs flattened once outside the timed loop (ours flattens, sorts and
// describes inside it), and escapes each key and value with curl_easy_escape into "k=v&...".
std::string curlQuery(CURL* curl, const QueryInput& input) {
  std::string query;
  bool first = true;
  for (const QueryInput::Pair& pair : input.pairs) {
    if (!first) query.push_back('&');
    first = false;
    char* field = curl_easy_escape(curl, pair.field.data(), static_cast<int>(pair.field.size()));
    query.append(field);
    curl_free(field);
    if (!pair.hasValue) continue;
    query.push_back('=');
    char* value = curl_easy_escape(curl, pair.value.data(), static_cast<int>(pair.value.size()));
    query.append(value);
    curl_free(value);
  }
  return query;
}

void queryCurl(benchmark::State& state, const QueryInput& input) {
  CURL* curl = curlHandle();
  for (auto _ : state) {
    std::string query = curlQuery(curl, input);
    benchmark::DoNotOptimize(query.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * input.queryBytes));
  state.counters["pairs"] = static_cast<double>(input.leaves);
}

void queryAllOurs(benchmark::State& state) {
  std::size_t bytes = 0;
  for (const QueryInput& input : queryInputs()) bytes += input.queryBytes;
  for (auto _ : state) {
    for (const QueryInput& input : queryInputs()) {
      std::string query = ZRBHS_QueryStringFromParameters(input.parameters);
      benchmark::DoNotOptimize(query.data());
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

void queryAllCurl(benchmark::State& state) {
  std::size_t bytes = 0;
  for (const QueryInput& input : queryInputs()) bytes += input.queryBytes;
  CURL* curl = curlHandle();
  for (auto _ : state) {
    for (const QueryInput& input : queryInputs()) {
      std::string query = curlQuery(curl, input);
      benchmark::DoNotOptimize(query.data());
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

// ---- multipart body stream over a large file ----

// The file the multipart body carries: BENCH_MULTIPART_BYTES (default 1 GiB) of varied bytes in the
// temporary directory, written once per run and read warm from the page cache by both sides.
const std::string& largeFile() {
  static const std::string path = [] {
    std::uint64_t size = 1ull << 30;
    if (const char* text = std::getenv("BENCH_MULTIPART_BYTES")) size = std::strtoull(text, nullptr, 10);
    std::string file = (std::filesystem::temp_directory_path() / "orvelkit-bench-multipart.bin").string();
    std::vector<char> chunk(1 << 20);
    for (std::size_t i = 0; i < chunk.size(); ++i) chunk[i] = char((i * 2654435761u) >> 13);
    std::FILE* out = std::fopen(file.c_str(), "wb");
    for (std::uint64_t written = 0; out && written < size; written += chunk.size()) {
      std::fwrite(chunk.data(), 1, std::min<std::uint64_t>(chunk.size(), size - written), out);
    }
    if (out) std::fclose(out);
    // Read it once, so that neither side pays for the pages the write left behind.
    if (std::FILE* in = std::fopen(file.c_str(), "rb")) {
      while (std::fread(chunk.data(), 1, chunk.size(), in) == chunk.size()) {
      }
      std::fclose(in);
    }
    return file;
  }();
  return path;
}

constexpr std::size_t kReadSize = 64 * 1024;  // what the transport's body pump asks for per read

void multipartOurs(benchmark::State& state) {
  auto file = ZRBURL::fileURLWithPath(largeFile());
  std::vector<std::uint8_t> buffer(kReadSize);
  std::uint64_t total = 0;
  for (auto _ : state) {
    auto request = ZRBHS_HTTPRequestSerializer::serializer()->multipartFormRequestWithMethod(
        "POST", "http://127.0.0.1/upload", ZRBValue::dictionary({{"camera", "porch"}}),
        [&](ZRBHS_StreamingMultipartFormData& form) {
          form.appendPartWithFileURL(file, "video", "clip.bin", "application/octet-stream");
        });
    auto stream = request->HTTPBodyStream();
    stream->open();
    for (long count; (count = stream->read(buffer.data(), buffer.size())) > 0;) total += std::uint64_t(count);
    stream->close();
  }
  state.SetBytesProcessed(std::int64_t(total));
}

void multipartPlainFile(benchmark::State& state) {
  std::vector<char> buffer(kReadSize);
  std::uint64_t total = 0;
  for (auto _ : state) {
    int fd = ::open(largeFile().c_str(), O_RDONLY);
    for (ssize_t count; (count = ::read(fd, buffer.data(), buffer.size())) > 0;)
      total += std::uint64_t(count);
    ::close(fd);
  }
  state.SetBytesProcessed(std::int64_t(total));
}

void registerBenchmarks() {
  // Headline: every sample once per iteration.
  benchmark::RegisterBenchmark("Escape/all/Ours", [](benchmark::State& s) { escapeOurs(s, allSamples()); });
  benchmark::RegisterBenchmark("Escape/all/Curl", [](benchmark::State& s) { escapeCurl(s, allSamples()); });
  for (const Sample& sample : samples()) {
    const Sample* p = &sample;
    benchmark::RegisterBenchmark((std::string("Escape/") + sample.name + "/Ours").c_str(),
                                 [p](benchmark::State& s) { escapeOurs(s, {p}); });
    benchmark::RegisterBenchmark((std::string("Escape/") + sample.name + "/Curl").c_str(),
                                 [p](benchmark::State& s) { escapeCurl(s, {p}); });
  }
  benchmark::RegisterBenchmark("Query/all/Ours", queryAllOurs);
  benchmark::RegisterBenchmark("Query/all/Curl", queryAllCurl);
  for (const QueryInput& input : queryInputs()) {
    const QueryInput* p = &input;
    benchmark::RegisterBenchmark((std::string("Query/") + input.name + "/Ours").c_str(),
                                 [p](benchmark::State& s) { queryOurs(s, *p); });
    benchmark::RegisterBenchmark((std::string("Query/") + input.name + "/Curl").c_str(),
                                 [p](benchmark::State& s) { queryCurl(s, *p); });
  }
  benchmark::RegisterBenchmark("MultipartRead/Ours", multipartOurs)
      ->Iterations(3)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("MultipartRead/PlainFile", multipartPlainFile)
      ->Iterations(3)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  registerBenchmarks();
  std::size_t total = 0;
  for (const Sample& s : samples()) total += s.text.size();
  std::printf("escaping: %zu samples, %zu bytes in all\n", samples().size(), total);
  for (const QueryInput& input : queryInputs())
    std::printf("query %s: %zu pairs, %zu bytes of query\n", input.name, input.leaves, input.queryBytes);
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  auto ratio = [&](const std::string& label, const std::string& prefix) {
    if (auto r = reporter.ratio(prefix + "/Ours", prefix + "/Curl"))
      std::printf("%s: %.2fx curl_easy_escape\n", label.c_str(), *r);
  };
  for (const Sample& s : samples())
    ratio(std::string("  escaping ") + s.name, std::string("Escape/") + s.name);
  for (const QueryInput& q : queryInputs())
    ratio(std::string("  query ") + q.name, std::string("Query/") + q.name);
  ratio("percent escaping", "Escape/all");
  ratio("query string", "Query/all");
  if (auto r = reporter.ratio("MultipartRead/Ours/iterations:3/real_time",
                              "MultipartRead/PlainFile/iterations:3/real_time")) {
    std::printf("multipart body stream read: %.2fx reading the file plainly (target >= 0.9)\n", *r);
  }
  std::filesystem::remove(largeFile());
  curl_easy_cleanup(curlHandle());
  curl_global_cleanup();
  return 0;
}
