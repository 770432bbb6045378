// Fuzzes unarchiving the response cache's metadata record, as a cached request reads it from its
// ".metadata" file. Whatever the bytes, unarchiving must not crash, and a record it accepts must
// archive again and read back with the same five fields. The one exception is a string holding a
// NUL character: property lists read such strings but refuse to write them, so a record with one
// may fail to archive (a request with such sensitive data gets its cache write refused and logged).
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "platform/foundation/keyed_archiver.h"
#include "request/cache_metadata.h"

namespace {

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "cache metadata fuzzer: %s\n", what);
  std::abort();
}

bool sameDate(const std::optional<ZRBDate>& a, const std::optional<ZRBDate>& b) {
  if (a.has_value() != b.has_value()) return false;
  if (!a) return true;
  const double x = a->secondsSince1970;
  const double y = b->secondsSince1970;
  return x == y || (std::isnan(x) && std::isnan(y));
}

bool hasNul(const std::optional<std::string>& string) {
  return string && string->find('\0') != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ZRBErrorPtr error;
  const auto metadata = ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBRQ_CacheMetadata>(
      std::span<const std::uint8_t>(data, size), &error);
  check(metadata || error, "a refused archive without an error");
  if (!metadata) return 0;

  const auto archived = ZRBKeyedArchiver::archivedDataWithRootObject(*metadata, true);
  if (!archived) {
    check(hasNul(metadata->sensitiveDataString()) || hasNul(metadata->appVersionString()),
          "an accepted record does not archive again");
    return 0;
  }
  const auto back = ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBRQ_CacheMetadata>(*archived);
  check(back != nullptr, "a re-archived record is refused");
  check(back->version() == metadata->version(), "version changed");
  check(back->sensitiveDataString() == metadata->sensitiveDataString(), "sensitiveDataString changed");
  check(back->stringEncoding() == metadata->stringEncoding(), "stringEncoding changed");
  check(sameDate(back->creationDate(), metadata->creationDate()), "creationDate changed");
  check(back->appVersionString() == metadata->appVersionString(), "appVersionString changed");
  return 0;
}
