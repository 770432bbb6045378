// Fuzzes the JSON response serializer with null removal. The first byte picks the reading options
// and the status code; the rest is the body. Whatever comes back must be what the JSON reader
// makes of the body with every dictionary entry holding null taken out (arrays keep their length),
// and a body the reader refuses must come back absent with the reader's error.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "http/json_response_serializer.h"

namespace {

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "json response serializer fuzzer: %s\n", what);
  std::abort();
}

// The same value without null entries, checked node by node against the unfiltered one.
void checkFiltered(const ZRBValue& raw, const ZRBValue& filtered, int depth) {
  check(depth < 1000, "nesting beyond the reader's limit");
  if (raw.isArray()) {
    check(filtered.isArray() && filtered.count() == raw.count(), "an array changed its length");
    for (std::size_t i = 0; i < raw.count(); ++i) checkFiltered(raw[i], filtered[i], depth + 1);
  } else if (raw.isDictionary()) {
    check(filtered.isDictionary(), "a dictionary changed its kind");
    std::size_t kept = 0;
    for (const auto& [key, value] : raw.entries()) {
      if (value.isNull()) {
        check(!filtered.contains(key.stringView()), "a null entry survived");
      } else {
        ++kept;
        checkFiltered(value, filtered[key.stringView()], depth + 1);
      }
    }
    check(filtered.count() == kept, "entries other than nulls went missing");
  } else {
    check(raw == filtered, "a scalar changed");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::uint8_t switches = data[0];
  ZRBValue body = ZRBValue::data(data + 1, size - 1);
  auto options = static_cast<ZRBJSONReadingOptions>(switches & 7);
  long status = switches & 8 ? 500 : 200;

  auto serializer = ZRBHS_JSONResponseSerializer::serializerWithReadingOptions(options);
  serializer->setRemovesKeysWithNullValues(true);
  auto response = ZRBHTTPURLResponse::make(ZRBURL::URLWithString("http://fuzz/"), status, "HTTP/1.1",
                                           ZRBValue::dictionary({{"Content-Type", "application/json"}}));
  ZRBErrorPtr error;
  ZRBValue object = serializer->responseObjectForResponse(response, body, &error);

  auto bytes = body.bytes();
  if (bytes.empty() || (bytes.size() == 1 && bytes[0] == ' ')) {
    check(object.isAbsent(), "an empty body decoded");
    return 0;
  }
  ZRBErrorPtr readerError;
  ZRBValue raw = ZRBJSONSerialization::JSONObjectWithData(bytes, options, &readerError);
  if (raw.isAbsent()) {
    check(object.isAbsent(), "a refused body decoded");
    check(error && error->code() == readerError->code(), "the reader's error is not the answer");
    check((status == 500) == (error->underlyingError() != nullptr), "the status error is not underneath");
    return 0;
  }
  check(!object.isAbsent(), "a readable body was lost");
  check((status == 500) == (error != nullptr), "an error without cause, or none for a bad status");
  checkFiltered(raw, object, 0);
  return 0;
}
