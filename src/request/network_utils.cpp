#include "request/network_utils.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <memory>

#include "platform/foundation/assert.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/error.h"
#include "platform/foundation/property_list_serialization.h"
#include "platform/system/bundle.h"
#include "platform/system/file_manager.h"
#include "request/network_log.h"

namespace {

// Whether `value` is an instance of the class that `validator` names; a validator that is not a
// class tag names no class.
bool isInstanceOfClass(const ZRBValue& value, const ZRBValue& validator) {
  return validator.isClassTag() && value.isKindOf(validator.classValue());
}

// One compiled expression, shared by every thread; match data is made per call.
class CompiledExpression {
 public:
  explicit CompiledExpression(std::string_view pattern) {
    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    code_ = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), 0, &errorCode,
                          &errorOffset, nullptr);
    // Just-in-time code where the system allows it; the interpreter otherwise.
    if (code_) pcre2_jit_compile(code_, PCRE2_JIT_COMPLETE);
  }
  ~CompiledExpression() { pcre2_code_free(code_); }
  CompiledExpression(const CompiledExpression&) = delete;
  CompiledExpression& operator=(const CompiledExpression&) = delete;

  // The whole first match in `subject`, nullopt when the expression did not compile or nothing
  // matches.
  std::optional<std::string> firstMatch(std::string_view subject) const {
    if (!code_) return std::nullopt;
    std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> matchData(
        pcre2_match_data_create_from_pattern(code_, nullptr), &pcre2_match_data_free);
    if (!matchData) return std::nullopt;
    // A null pointer with length 0 is allowed by PCRE2, but an empty view's data may be anything.
    static constexpr char kEmpty[] = "";
    const char* bytes = subject.empty() ? kEmpty : subject.data();
    int rc = pcre2_match(code_, reinterpret_cast<PCRE2_SPTR>(bytes), subject.size(), 0, 0, matchData.get(),
                         nullptr);
    if (rc < 0) return std::nullopt;
    const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(matchData.get());
    const PCRE2_SIZE start = ovector[0];
    const PCRE2_SIZE end = ovector[1];
    // \K could make a match end before it starts; these expressions have none, but stay safe.
    if (start > end || end > subject.size()) return std::nullopt;
    return std::string(subject.substr(start, end - start));
  }

 private:
  pcre2_code* code_ = nullptr;
};

const CompiledExpression& urlHostExpression() {
  static const CompiledExpression expression(kZRBRQ_UrlHostPattern);
  return expression;
}

const CompiledExpression& urlExpression() {
  static const CompiledExpression expression(kZRBRQ_UrlPattern);
  return expression;
}

}  // namespace

bool ZRBRQ_NetworkUtils::validateJSON(const ZRBValue& json, const ZRBValue& validator) {
  if (json.isDictionary() && validator.isDictionary()) {
    bool result = true;
    for (const auto& [key, format] : validator.entries()) {
      const ZRBValue& value = json[key.stringView()];
      if (value.isDictionary() || value.isArray()) {
        result = validateJSON(value, format);
        if (!result) break;
      } else if (!isInstanceOfClass(value, format) && !value.isNull()) {
        // An absent value is neither of the class nor the null object.
        result = false;
        break;
      }
    }
    return result;
  }
  if (json.isArray() && validator.isArray()) {
    if (validator.count() == 0) return true;
    const ZRBValue& elementValidator = validator[std::size_t{0}];
    bool result = true;
    for (const ZRBValue& element : json.items()) {
      result = validateJSON(element, elementValidator);
      if (!result) break;
    }
    return result;
  }
  return isInstanceOfClass(json, validator);
}

void ZRBRQ_NetworkUtils::addDoNotBackupAttribute(const std::string& path) {
  ZRBErrorPtr error;
  if (!ZRBFileManager::defaultManager()->setExcludedFromBackup(path, &error)) {
    ZRBNetworkLog("error to set do not backup attribute, error = %@", error);
  }
}

std::string ZRBRQ_NetworkUtils::md5StringFromString(const std::optional<std::string>& string) {
  if (!(string.has_value() && !string->empty())) {
    ZRBAssertionFailed("string != nil && [string length] > 0", "ZRBRQ_NetworkPrivate", __LINE__);
  }
  const std::string_view bytes = string ? std::string_view(*string) : std::string_view();
  const auto digest = ZRBMD5(bytes);
  return ZRBHexString(digest, true);
}

std::optional<std::string> ZRBRQ_NetworkUtils::appVersionString() {
  return ZRBBundle::mainBundle()->objectForInfoDictionaryKey("CFBundleShortVersionString").optionalString();
}

ZRBStringEncoding ZRBRQ_NetworkUtils::stringEncodingWithResponse(const ZRBURLResponsePtr& response) {
  ZRBStringEncoding stringEncoding = ZRBUTF8StringEncoding;
  if (response && response->textEncodingName()) {
    const ZRBStringEncoding encoding = ZRBStringEncodingFromIANACharsetName(*response->textEncodingName());
    // 0 is the platform's "invalid encoding": an unknown charset keeps UTF-8.
    if (encoding != 0) stringEncoding = encoding;
  }
  return stringEncoding;
}

std::optional<std::string> ZRBRQ_NetworkUtils::stringFromResponseData(const ZRBValue& data,
                                                                      const ZRBURLResponsePtr& response) {
  const auto http = std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(response);
  return ZRBStringFromBytes(data.bytes(), stringEncodingWithResponse(http));
}

bool ZRBRQ_NetworkUtils::validateResumeData(const ZRBValue& data) {
  if (!data.isData()) return false;
  return validateResumeData(data.bytes());
}

bool ZRBRQ_NetworkUtils::validateResumeData(std::span<const std::uint8_t> data) {
  if (data.empty()) return false;
  ZRBErrorPtr error;
  const ZRBValue resumeDictionary =
      ZRBPropertyListSerialization::propertyListWithData(data, ZRBPropertyListImmutable, nullptr, &error);
  return !resumeDictionary.isAbsent() && !error;
}

std::optional<std::string> ZRBRQ_NetworkUtils::filterUrlHost(std::string_view url) {
  return urlHostExpression().firstMatch(url);
}

std::optional<std::string> ZRBRQ_NetworkUtils::filterUrl(std::string_view url) {
  return urlExpression().firstMatch(url);
}
