// The JSON documents the JSON benchmarks read, generated deterministically so that every run
// measures the same bytes: a ~1 MB API listing of device and camera records, and a ~200-byte single
// record.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace bench_json {

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

inline std::string record(Random& r, int index) {
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

inline std::string largeDocument() {
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

inline const std::string& large() {
  static const std::string doc = largeDocument();
  return doc;
}

inline const std::string& small() {
  static const std::string doc =
      "{\"id\":42,\"name\":\"Front door \\u00e9\",\"online\":true,\"battery\":0.87,\"firmware\":null,"
      "\"url\":\"https:\\/\\/api.example.com\\/v2\\/devices\\/42\",\"tags\":[\"outdoor\",\"front\"],"
      "\"settings\":{\"fps\":30,\"hdr\":false,\"zones\":[1,2,3]},\"seen\":1714564800}";
  return doc;
}

}  // namespace bench_json
