#include "request/cache_metadata.h"

#include <string_view>

ZRB_REGISTER_CODING_CLASS(ZRBRQ_CacheMetadata);

namespace {

constexpr std::string_view kVersionKey = "version";
constexpr std::string_view kSensitiveDataStringKey = "sensitiveDataString";
constexpr std::string_view kStringEncodingKey = "stringEncoding";
constexpr std::string_view kCreationDateKey = "creationDate";
constexpr std::string_view kAppVersionStringKey = "appVersionString";

}  // namespace

void ZRBRQ_CacheMetadata::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  if (version_) coder.encodeInteger(*version_, kVersionKey);
  if (sensitiveDataString_) coder.encodeString(*sensitiveDataString_, kSensitiveDataStringKey);
  if (stringEncoding_)
    coder.encodeValue(ZRBValue(static_cast<unsigned long>(*stringEncoding_)), kStringEncodingKey);
  if (creationDate_) coder.encodeValue(ZRBValue(*creationDate_), kCreationDateKey);
  if (appVersionString_) coder.encodeString(*appVersionString_, kAppVersionStringKey);
}

ZRBRQ_CacheMetadataPtr ZRBRQ_CacheMetadata::initWithCoder(ZRBKeyedUnarchiver& coder) {
  auto metadata = std::make_shared<ZRBRQ_CacheMetadata>();
  // A number of any width or sign is accepted as the platform's number class would be; a value
  // that is no number at all leaves the field null.
  if (const ZRBValue version = coder.decodeValue(kVersionKey, ZRBValueClass::Number)) {
    metadata->version_ = version.intValue();
  }
  metadata->sensitiveDataString_ =
      coder.decodeValue(kSensitiveDataStringKey, ZRBValueClass::String).optionalString();
  if (const ZRBValue encoding = coder.decodeValue(kStringEncodingKey, ZRBValueClass::Number)) {
    metadata->stringEncoding_ = static_cast<ZRBStringEncoding>(encoding.uintValue());
  }
  if (const ZRBValue date = coder.decodeValue(kCreationDateKey, ZRBValueClass::Date)) {
    metadata->creationDate_ = date.dateValue();
  }
  metadata->appVersionString_ =
      coder.decodeValue(kAppVersionStringKey, ZRBValueClass::String).optionalString();
  return metadata;
}
