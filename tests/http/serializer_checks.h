// What the serializer tests share: responses to judge, error chains as text, and an object's copy
// and archive round trip.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/keyed_archiver.h"
#include "platform/foundation/url.h"
#include "platform/net/http_url_response.h"

// An HTTP response for `url` (none when empty) with the given status and Content-Type.
inline ZRBHTTPURLResponsePtr httpResponse(long status, std::optional<std::string> contentType,
                                          std::string_view url = "http://h/p") {
  ZRBDictionaryBuilder fields;
  if (contentType) fields.set("Content-Type", ZRBValue(*contentType));
  return ZRBHTTPURLResponse::make(url.empty() ? nullptr : ZRBURL::URLWithString(url), status, "HTTP/1.1",
                                  fields.build());
}

// The codes down an error's chain, outermost first ("-1011<-1016"), or "none".
inline std::string errorChain(const ZRBErrorPtr& error) {
  std::string out;
  for (ZRBErrorPtr e = error; e; e = e->underlyingError())
    out += (out.empty() ? "" : "<") + std::to_string(e->code());
  return out.empty() ? "none" : out;
}

// `object`'s copy, then `object` archived and read back as `T` (null where either step failed).
template <typename T>
std::vector<std::shared_ptr<T>> copiedAndDecoded(const T& object) {
  auto data = ZRBKeyedArchiver::archivedDataWithRootObject(object, true);
  return {std::dynamic_pointer_cast<T>(object.copy()),
          data ? ZRBKeyedUnarchiver::unarchivedObjectOfClass<T>(*data) : nullptr};
}
