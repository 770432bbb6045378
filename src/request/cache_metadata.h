// ZRBRQ_CacheMetadata: the record kept beside a cached response body.
//
// It says under which conditions the body was written: the request's cache version, the text
// description of its sensitive data, the response's text encoding, the time of writing and the
// application version. ZRBRQ_Request (request.h) compares it with the request's current values
// before answering from the cache.
//
// Archiving: secure keyed archiving (keyed_archiver.h), each field under a key equal to its name:
// "version" and "stringEncoding" as numbers, "sensitiveDataString" and "appVersionString" as
// strings, "creationDate" as a date. Decoding reads each key with its expected class and leaves the
// field null when the entry is missing or of another class; it never refuses the record as a whole.
//
// A record is filled once (by the writer or by decoding) and then only read; it is not locked.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/keyed_archiver.h"
#include "platform/foundation/object.h"
#include "platform/foundation/text_encoding.h"
#include "platform/foundation/value.h"

class ZRBRQ_CacheMetadata;
using ZRBRQ_CacheMetadataPtr = std::shared_ptr<ZRBRQ_CacheMetadata>;

class ZRBRQ_CacheMetadata final : public ZRBObject, public ZRBCoding {
 public:
  ZRBRQ_CacheMetadata() = default;

  // The request's cacheVersion when written.
  std::optional<std::int64_t> version() const { return version_; }
  void setVersion(std::optional<std::int64_t> version) { version_ = version; }
  // The description of the request's cacheSensitiveData when written; null when it had none.
  const std::optional<std::string>& sensitiveDataString() const { return sensitiveDataString_; }
  void setSensitiveDataString(std::optional<std::string> string) { sensitiveDataString_ = std::move(string); }
  // The response's text encoding.
  std::optional<ZRBStringEncoding> stringEncoding() const { return stringEncoding_; }
  void setStringEncoding(std::optional<ZRBStringEncoding> encoding) { stringEncoding_ = encoding; }
  // The time of writing.
  std::optional<ZRBDate> creationDate() const { return creationDate_; }
  void setCreationDate(std::optional<ZRBDate> date) { creationDate_ = date; }
  // The application version when written; null when the bundle had none.
  const std::optional<std::string>& appVersionString() const { return appVersionString_; }
  void setAppVersionString(std::optional<std::string> string) { appVersionString_ = std::move(string); }

  // ---- secure coding ----
  static bool supportsSecureCoding() { return true; }
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBRQ_CacheMetadata"; }
  static ZRBRQ_CacheMetadataPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBRQ_CacheMetadata"; }

 private:
  std::optional<std::int64_t> version_;
  std::optional<std::string> sensitiveDataString_;
  std::optional<ZRBStringEncoding> stringEncoding_;
  std::optional<ZRBDate> creationDate_;
  std::optional<std::string> appVersionString_;
};
