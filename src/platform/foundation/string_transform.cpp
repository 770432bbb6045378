#include "platform/foundation/string_transform.h"

#include <unicode/translit.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <map>
#include <memory>
#include <mutex>

namespace {

bool isValidUTF8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto length = static_cast<std::int32_t>(text.size());
  for (std::int32_t i = 0; i < length;) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c < 0) return false;
  }
  return true;
}

}  // namespace

std::optional<std::string> ZRBStringTransform(std::string_view text, std::string_view transform) {
  if (text.size() > static_cast<std::size_t>(INT32_MAX) || !isValidUTF8(text)) return std::nullopt;
  // Compiling a transform reads ICU's rule data and costs milliseconds; using one is quick. One
  // lock covers both, as a compiled transform is not meant to be shared between threads unguarded.
  static std::mutex mutex;
  static std::map<std::string, std::unique_ptr<icu::Transliterator>, std::less<>> compiled;
  std::lock_guard lock(mutex);
  auto found = compiled.find(transform);
  if (found == compiled.end()) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Transliterator> made(icu::Transliterator::createInstance(
        icu::UnicodeString::fromUTF8(
            icu::StringPiece(transform.data(), static_cast<std::int32_t>(transform.size()))),
        UTRANS_FORWARD, status));
    if (U_FAILURE(status) || !made) return std::nullopt;
    found = compiled.emplace(std::string(transform), std::move(made)).first;
  }
  icu::UnicodeString unicode =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
  found->second->transliterate(unicode);
  std::string out;
  unicode.toUTF8String(out);
  return out;
}
