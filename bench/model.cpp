// JSON <-> typed models: ZRBMDModel against what a C++ user would otherwise reach for, on the same
// ~1 MB device-list document decoded into the same structs, in the same run:
// - nlohmann::json: parse, then its type macros (NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE) where the JSON
//   fits them, and from_json/to_json by hand for the records with numbers given as strings;
// - Boost.JSON: parse, then value_to over the Boost.Describe declarations, with tag_invoke by hand
//   for the same records;
// - simdjson's on-demand API with every field read by hand: the practical limit;
// - ours again, mapping from the value tree that the library's JSON reader builds, to show what
//   reading straight from the document saves.
// Dates (ISO 8601 text or epoch seconds) go through the same parser on every side. The reverse
// direction (models to JSON text) runs against the first two. Every side's models are checked
// equal to ours before measuring; ratios are printed at the end.
#include "model/model.h"

#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <boost/json.hpp>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/json_serialization.h"
#include "support/device_list_models.h"
#include "support/rate_reporter.h"

using namespace bench_model;

namespace {

struct Random {
  std::uint64_t state = 0x9E3779B97F4A7C15ULL;
  std::uint64_t next() {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return state >> 33;
  }
  std::uint64_t below(std::uint64_t n) { return next() % n; }
};

std::string isoDate(Random& r) {
  char b[32];
  std::snprintf(b, sizeof b, "2024-%02d-%02dT%02d:%02d:%02dZ", 1 + static_cast<int>(r.below(12)),
                1 + static_cast<int>(r.below(28)), static_cast<int>(r.below(24)),
                static_cast<int>(r.below(60)), static_cast<int>(r.below(60)));
  return b;
}

const std::string& document() {
  static const std::string doc = [] {
    static const char* kNames[] = {"Porch", "Garage \\\"north\\\"", "Wohnzimmer", "入口カメラ", "Baby 👶",
                                   "Кухня"};
    static const char* kModels[] = {"ZC-100", "ZC-200 Pro", "Doorbell 2", "Floodlight"};
    static const char* kTags[] = {"outdoor", "indoor", "front", "back", "night", "motion"};
    Random r;
    std::string out = "{\"total\":1000,\"devices\":[";
    char b[4096];
    for (int i = 0; i < 1000; ++i) {
      if (i) out += ',';
      int n = std::snprintf(
          b, sizeof b,
          "{\"id\":\"dev-%06d\",\"name\":\"%s %d\",\"serial\":\"%llu\",\"online\":%s,\"battery\":%.3f,"
          "\"signalDbm\":%d,\"firmware\":\"4.%d.%d\",\"lastSeen\":\"%s\",\"createdAt\":%lld,\"port\":\"%d\","
          "\"tags\":[\"%s\",\"%s\"],"
          "\"camera\":{\"model\":\"%s\",\"resolution\":\"%s\",\"fps\":%d,\"nightVision\":%s,\"fieldOfView\":%"
          ".1f,"
          "\"codecs\":[\"h264\",\"h265\",\"mjpeg\"],\"stream\":\"rtsp://cam-%d.example.com:554/live/main\"},"
          "\"storages\":[{\"type\":\"sd\",\"totalBytes\":\"%llu\",\"usedBytes\":\"%llu\",\"healthy\":%s,"
          "\"mountedAt\":\"%s\"},{\"type\":\"cloud\",\"totalBytes\":\"%llu\",\"usedBytes\":\"%llu\","
          "\"healthy\":true,\"mountedAt\":\"%s\"}],"
          "\"location\":{\"lat\":%.6f,\"lon\":%.6f,\"floor\":%d,\"room\":%s}}",
          i, kNames[r.below(6)], i, static_cast<unsigned long long>(r.next() * 1000 + 7),
          r.below(4) ? "true" : "false", static_cast<double>(r.below(1000)) / 1000.0,
          -30 - static_cast<int>(r.below(60)), static_cast<int>(r.below(20)), static_cast<int>(r.below(10)),
          isoDate(r).c_str(), 1600000000LL + static_cast<long long>(r.below(100000000)),
          554 + static_cast<int>(r.below(3)), kTags[r.below(6)], kTags[r.below(6)], kModels[r.below(4)],
          r.below(2) ? "1920x1080" : "3840x2160", r.below(2) ? 30 : 15, r.below(2) ? "true" : "false",
          90.0 + static_cast<double>(r.below(40)), i, static_cast<unsigned long long>(64000000000ULL),
          static_cast<unsigned long long>(r.next() * 1000), r.below(10) ? "true" : "false",
          isoDate(r).c_str(), static_cast<unsigned long long>(1ULL << 40),
          static_cast<unsigned long long>(r.next() * 4096), isoDate(r).c_str(),
          48.0 + static_cast<double>(r.below(1000000)) / 1e6,
          2.0 + static_cast<double>(r.below(1000000)) / 1e6, static_cast<int>(r.below(5)),
          r.below(3) ? "null" : "\"Living room\"");
      out.append(b, static_cast<std::size_t>(n));
    }
    out += "]}";
    return out;
  }();
  return doc;
}

template <typename T>
T numberFromText(std::string_view text) {
  T value{};
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

ZRBDate dateFromText(std::string_view text) {
  ZRBDate date;
  zrbmd_detail::parseISO8601(text, date.secondsSince1970);
  return date;
}

std::string dateText(ZRBDate date) {
  std::string out;
  zrbmd_detail::appendISO8601(out, date.secondsSince1970);
  return out;
}

}  // namespace

// ---- nlohmann ----

namespace nlohmann {
template <>
struct adl_serializer<ZRBDate> {
  static void from_json(const json& j, ZRBDate& d) {
    d = j.is_string() ? dateFromText(j.get_ref<const std::string&>()) : ZRBDate{j.get<double>()};
  }
  static void to_json(json& j, const ZRBDate& d) { j = dateText(d); }
};
template <typename T>
struct adl_serializer<std::optional<T>> {
  static void from_json(const json& j, std::optional<T>& o) {
    if (j.is_null())
      o.reset();
    else
      o = j.get<T>();
  }
  static void to_json(json& j, const std::optional<T>& o) {
    if (o)
      j = *o;
    else
      j = nullptr;
  }
};
}  // namespace nlohmann

// Found by argument-dependent lookup beside ZRBDate.
ZRBDate tag_invoke(boost::json::value_to_tag<ZRBDate>, const boost::json::value& v) {
  return v.is_string() ? dateFromText(v.get_string()) : ZRBDate{v.to_number<double>()};
}
void tag_invoke(boost::json::value_from_tag, boost::json::value& v, const ZRBDate& d) { v = dateText(d); }

namespace bench_model {
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(BenchLocation, lat, lon, floor, room)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(BenchCamera, model, resolution, fps, nightVision, fieldOfView, codecs,
                                   stream)

void from_json(const nlohmann::json& j, BenchStorage& s) {
  j.at("type").get_to(s.type);
  s.totalBytes = numberFromText<std::uint64_t>(j.at("totalBytes").get_ref<const std::string&>());
  s.usedBytes = numberFromText<std::uint64_t>(j.at("usedBytes").get_ref<const std::string&>());
  j.at("healthy").get_to(s.healthy);
  j.at("mountedAt").get_to(s.mountedAt);
}
void to_json(nlohmann::json& j, const BenchStorage& s) {
  j = nlohmann::json{{"type", s.type},
                     {"totalBytes", s.totalBytes},
                     {"usedBytes", s.usedBytes},
                     {"healthy", s.healthy},
                     {"mountedAt", s.mountedAt}};
}
void from_json(const nlohmann::json& j, BenchDevice& d) {
  j.at("id").get_to(d.id);
  j.at("name").get_to(d.name);
  d.serial = numberFromText<std::uint64_t>(j.at("serial").get_ref<const std::string&>());
  j.at("online").get_to(d.online);
  j.at("battery").get_to(d.battery);
  j.at("signalDbm").get_to(d.signalDbm);
  j.at("firmware").get_to(d.firmware);
  j.at("lastSeen").get_to(d.lastSeen);
  j.at("createdAt").get_to(d.createdAt);
  d.port = numberFromText<int>(j.at("port").get_ref<const std::string&>());
  j.at("tags").get_to(d.tags);
  j.at("camera").get_to(d.camera);
  j.at("storages").get_to(d.storages);
  j.at("location").get_to(d.location);
}
void to_json(nlohmann::json& j, const BenchDevice& d) {
  j = nlohmann::json{{"id", d.id},
                     {"name", d.name},
                     {"serial", d.serial},
                     {"online", d.online},
                     {"battery", d.battery},
                     {"signalDbm", d.signalDbm},
                     {"firmware", d.firmware},
                     {"lastSeen", d.lastSeen},
                     {"createdAt", d.createdAt},
                     {"port", d.port},
                     {"tags", d.tags},
                     {"camera", d.camera},
                     {"storages", d.storages},
                     {"location", d.location}};
}
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(BenchPage, total, devices)

// ---- Boost.JSON (described structs convert by themselves; these records need a hand) ----

BenchStorage tag_invoke(boost::json::value_to_tag<BenchStorage>, const boost::json::value& v) {
  const auto& o = v.as_object();
  BenchStorage s;
  s.type = boost::json::value_to<std::string>(o.at("type"));
  s.totalBytes = numberFromText<std::uint64_t>(o.at("totalBytes").as_string());
  s.usedBytes = numberFromText<std::uint64_t>(o.at("usedBytes").as_string());
  s.healthy = o.at("healthy").as_bool();
  s.mountedAt = boost::json::value_to<ZRBDate>(o.at("mountedAt"));
  return s;
}
void tag_invoke(boost::json::value_from_tag, boost::json::value& v, const BenchStorage& s) {
  v = {{"type", s.type},
       {"totalBytes", s.totalBytes},
       {"usedBytes", s.usedBytes},
       {"healthy", s.healthy},
       {"mountedAt", boost::json::value_from(s.mountedAt)}};
}
BenchDevice tag_invoke(boost::json::value_to_tag<BenchDevice>, const boost::json::value& v) {
  using boost::json::value_to;
  const auto& o = v.as_object();
  BenchDevice d;
  d.id = value_to<std::string>(o.at("id"));
  d.name = value_to<std::string>(o.at("name"));
  d.serial = numberFromText<std::uint64_t>(o.at("serial").as_string());
  d.online = o.at("online").as_bool();
  d.battery = o.at("battery").to_number<double>();
  d.signalDbm = value_to<int>(o.at("signalDbm"));
  d.firmware = value_to<std::string>(o.at("firmware"));
  d.lastSeen = value_to<ZRBDate>(o.at("lastSeen"));
  d.createdAt = value_to<ZRBDate>(o.at("createdAt"));
  d.port = numberFromText<int>(o.at("port").as_string());
  d.tags = value_to<std::vector<std::string>>(o.at("tags"));
  d.camera = value_to<BenchCamera>(o.at("camera"));
  d.storages = value_to<std::vector<BenchStorage>>(o.at("storages"));
  d.location = value_to<BenchLocation>(o.at("location"));
  return d;
}
void tag_invoke(boost::json::value_from_tag, boost::json::value& v, const BenchDevice& d) {
  using boost::json::value_from;
  v = {{"id", d.id},
       {"name", d.name},
       {"serial", d.serial},
       {"online", d.online},
       {"battery", d.battery},
       {"signalDbm", d.signalDbm},
       {"firmware", d.firmware},
       {"lastSeen", value_from(d.lastSeen)},
       {"createdAt", value_from(d.createdAt)},
       {"port", d.port},
       {"tags", value_from(d.tags)},
       {"camera", value_from(d.camera)},
       {"storages", value_from(d.storages)},
       {"location", value_from(d.location)}};
}

}  // namespace bench_model

// ---- simdjson on-demand, by hand ----

namespace {

namespace od = simdjson::ondemand;

std::string_view str(od::value v) { return std::string_view(v.get_string().value_unsafe()); }

void readStrings(od::value v, std::vector<std::string>& out) {
  for (auto item : v.get_array()) out.emplace_back(std::string_view(item.get_string().value_unsafe()));
}

BenchStorage readStorage(od::object o) {
  BenchStorage s;
  for (auto field : o) {
    std::string_view key = field.unescaped_key().value_unsafe();
    od::value v = field.value().value_unsafe();
    if (key == "type")
      s.type = str(v);
    else if (key == "totalBytes")
      s.totalBytes = numberFromText<std::uint64_t>(str(v));
    else if (key == "usedBytes")
      s.usedBytes = numberFromText<std::uint64_t>(str(v));
    else if (key == "healthy")
      s.healthy = v.get_bool().value_unsafe();
    else if (key == "mountedAt")
      s.mountedAt = dateFromText(str(v));
  }
  return s;
}

BenchCamera readCamera(od::object o) {
  BenchCamera c;
  for (auto field : o) {
    std::string_view key = field.unescaped_key().value_unsafe();
    od::value v = field.value().value_unsafe();
    if (key == "model")
      c.model = str(v);
    else if (key == "resolution")
      c.resolution = str(v);
    else if (key == "fps")
      c.fps = static_cast<int>(v.get_int64().value_unsafe());
    else if (key == "nightVision")
      c.nightVision = v.get_bool().value_unsafe();
    else if (key == "fieldOfView")
      c.fieldOfView = v.get_double().value_unsafe();
    else if (key == "codecs")
      readStrings(v, c.codecs);
    else if (key == "stream")
      c.stream = str(v);
  }
  return c;
}

BenchLocation readLocation(od::object o) {
  BenchLocation l;
  for (auto field : o) {
    std::string_view key = field.unescaped_key().value_unsafe();
    od::value v = field.value().value_unsafe();
    if (key == "lat")
      l.lat = v.get_double().value_unsafe();
    else if (key == "lon")
      l.lon = v.get_double().value_unsafe();
    else if (key == "floor")
      l.floor = static_cast<int>(v.get_int64().value_unsafe());
    else if (key == "room" && !v.is_null())
      l.room = std::string(str(v));
  }
  return l;
}

BenchDevice readDevice(od::object o) {
  BenchDevice d;
  for (auto field : o) {
    std::string_view key = field.unescaped_key().value_unsafe();
    od::value v = field.value().value_unsafe();
    if (key == "id")
      d.id = str(v);
    else if (key == "name")
      d.name = str(v);
    else if (key == "serial")
      d.serial = numberFromText<std::uint64_t>(str(v));
    else if (key == "online")
      d.online = v.get_bool().value_unsafe();
    else if (key == "battery")
      d.battery = v.get_double().value_unsafe();
    else if (key == "signalDbm")
      d.signalDbm = static_cast<int>(v.get_int64().value_unsafe());
    else if (key == "firmware")
      d.firmware = str(v);
    else if (key == "lastSeen")
      d.lastSeen = dateFromText(str(v));
    else if (key == "createdAt")
      d.createdAt = ZRBDate{v.get_double().value_unsafe()};
    else if (key == "port")
      d.port = numberFromText<int>(str(v));
    else if (key == "tags")
      readStrings(v, d.tags);
    else if (key == "camera")
      d.camera = readCamera(v.get_object().value_unsafe());
    else if (key == "storages")
      for (auto item : v.get_array()) d.storages.push_back(readStorage(item.get_object().value_unsafe()));
    else if (key == "location")
      d.location = readLocation(v.get_object().value_unsafe());
  }
  return d;
}

BenchPage readPageByHand(od::parser& parser, const simdjson::padded_string& json) {
  BenchPage page;
  od::document doc = parser.iterate(json).value_unsafe();
  for (auto field : doc.get_object()) {
    std::string_view key = field.unescaped_key().value_unsafe();
    od::value v = field.value().value_unsafe();
    if (key == "total")
      page.total = static_cast<int>(v.get_int64().value_unsafe());
    else if (key == "devices")
      for (auto item : v.get_array()) page.devices.push_back(readDevice(item.get_object().value_unsafe()));
  }
  return page;
}

BenchPage ourPage() { return *ZRBMDModel::modelWithJSON<BenchPage>(document()); }

// ---- benchmarks ----

void BM_Decode_Ours(benchmark::State& state) {
  for (auto _ : state) {
    auto page = ZRBMDModel::modelWithJSON<BenchPage>(document());
    benchmark::DoNotOptimize(page);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document().size()));
}

// The same mapping from a value tree that the library's JSON reader builds first: what reading
// straight from the document saves.
void BM_Decode_OursThroughValue(benchmark::State& state) {
  for (auto _ : state) {
    auto page = ZRBMDModel::modelWithValue<BenchPage>(ZRBJSONSerialization::JSONObjectWithData(document()));
    benchmark::DoNotOptimize(page);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document().size()));
}

void BM_Decode_Nlohmann(benchmark::State& state) {
  for (auto _ : state) {
    auto page = nlohmann::json::parse(document()).get<BenchPage>();
    benchmark::DoNotOptimize(page);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document().size()));
}

void BM_Decode_BoostJSON(benchmark::State& state) {
  for (auto _ : state) {
    auto page = boost::json::value_to<BenchPage>(boost::json::parse(document()));
    benchmark::DoNotOptimize(page);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document().size()));
}

void BM_Decode_SimdjsonByHand(benchmark::State& state) {
  od::parser parser;
  for (auto _ : state) {
    // The same padded copy the library makes of caller text.
    simdjson::padded_string json(document());
    auto page = readPageByHand(parser, json);
    benchmark::DoNotOptimize(page);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document().size()));
}

void BM_Encode_Ours(benchmark::State& state) {
  BenchPage page = ourPage();
  for (auto _ : state) {
    std::string json = ZRBMDModel::JSONString(page);
    benchmark::DoNotOptimize(json);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document().size()));
}

void BM_Encode_Nlohmann(benchmark::State& state) {
  BenchPage page = ourPage();
  for (auto _ : state) {
    std::string json = nlohmann::json(page).dump();
    benchmark::DoNotOptimize(json);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document().size()));
}

void BM_Encode_BoostJSON(benchmark::State& state) {
  BenchPage page = ourPage();
  for (auto _ : state) {
    std::string json = boost::json::serialize(boost::json::value_from(page));
    benchmark::DoNotOptimize(json);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document().size()));
}

BENCHMARK(BM_Decode_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode_OursThroughValue)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode_Nlohmann)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode_BoostJSON)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode_SimdjsonByHand)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Encode_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Encode_Nlohmann)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Encode_BoostJSON)->Unit(benchmark::kMillisecond);

// Every side must read the document into the same models, or the comparison means nothing.
bool sidesAgree() {
  BenchPage ours = ourPage();
  auto throughValue =
      ZRBMDModel::modelWithValue<BenchPage>(ZRBJSONSerialization::JSONObjectWithData(document()));
  if (!throughValue || !ZRBMDModel::isEqual(ours, *throughValue)) {
    std::fprintf(stderr, "models differ when mapped from a value tree\n");
    return false;
  }
  od::parser parser;
  simdjson::padded_string json(document());
  BenchPage sides[] = {nlohmann::json::parse(document()).get<BenchPage>(),
                       boost::json::value_to<BenchPage>(boost::json::parse(document())),
                       readPageByHand(parser, json)};
  const char* names[] = {"nlohmann", "Boost.JSON", "simdjson by hand"};
  bool ok = ours.devices.size() == 1000;
  for (std::size_t i = 0; i < std::size(sides); ++i) {
    if (!ZRBMDModel::isEqual(ours, sides[i])) {
      std::fprintf(stderr, "models differ from the %s side\n", names[i]);
      ok = false;
    }
  }
  // Written text reads back into the same models, and says what the other writers say.
  std::string written = ZRBMDModel::JSONString(ours);
  if (!ZRBMDModel::isEqual(ours, *ZRBMDModel::modelWithJSON<BenchPage>(written)) ||
      nlohmann::json::parse(written) != nlohmann::json::parse(nlohmann::json(ours).dump())) {
    std::fprintf(stderr, "written JSON does not read back\n");
    ok = false;
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("document: %zu bytes, 1000 devices\n", document().size());
  if (!sidesAgree()) return 1;
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  auto ratio = [&](const char* label, const char* ours, const char* theirs, const char* name) {
    if (auto r = reporter.ratio(ours, theirs)) std::printf("%s: %.2fx %s\n", label, *r, name);
  };
  ratio("models from JSON", "BM_Decode_Ours", "BM_Decode_Nlohmann", "nlohmann (target >= 3x)");
  ratio("models from JSON", "BM_Decode_Ours", "BM_Decode_BoostJSON", "Boost.JSON (target >= 1.5x)");
  ratio("models from JSON", "BM_Decode_Ours", "BM_Decode_SimdjsonByHand", "simdjson by hand (aim >= 0.5x)");
  ratio("models from JSON", "BM_Decode_Ours", "BM_Decode_OursThroughValue", "ours through a value tree");
  ratio("models to JSON", "BM_Encode_Ours", "BM_Encode_Nlohmann", "nlohmann");
  ratio("models to JSON", "BM_Encode_Ours", "BM_Encode_BoostJSON", "Boost.JSON");
  return 0;
}
