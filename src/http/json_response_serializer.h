// ZRBHS_JSONResponseSerializer: validates a response and reads its body as JSON.
//
// Accepts "application/json", "text/json" and "text/javascript" by default. After the common guard
// (response_serializer.h), an empty body or a body of exactly one space gives absent and leaves the
// error alone: servers answer an empty success with a single space. Anything else goes to the JSON
// reader with readingOptions(); its error, when there is one, carries the validation error as its
// underlying error, and on success the validation error (a status code outside the acceptable set)
// stays in *error beside the decoded value. With removesKeysWithNullValues() the value is passed
// through KVHSJSONObjectByRemovingKeysWithNullValues before it is returned.
#pragma once

#include <atomic>
#include <memory>

#include "http/response_serializer.h"
#include "platform/foundation/json_serialization.h"

class ZRBHS_JSONResponseSerializer;
using ZRBHS_JSONResponseSerializerPtr = std::shared_ptr<ZRBHS_JSONResponseSerializer>;

class ZRBHS_JSONResponseSerializer : public ZRBHS_HTTPResponseSerializer {
 public:
  ZRBHS_JSONResponseSerializer();
  // serializerWithReadingOptions(0).
  static ZRBHS_JSONResponseSerializerPtr serializer();
  static ZRBHS_JSONResponseSerializerPtr serializerWithReadingOptions(ZRBJSONReadingOptions readingOptions);

  ZRBJSONReadingOptions readingOptions() const { return readingOptions_.load(std::memory_order_relaxed); }
  void setReadingOptions(ZRBJSONReadingOptions readingOptions) {
    readingOptions_.store(readingOptions, std::memory_order_relaxed);
  }
  bool removesKeysWithNullValues() const {
    return removesKeysWithNullValues_.load(std::memory_order_relaxed);
  }
  void setRemovesKeysWithNullValues(bool removes) {
    removesKeysWithNullValues_.store(removes, std::memory_order_relaxed);
  }

  ZRBValue responseObjectForResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                     ZRBErrorPtr* error = nullptr) override;

  // Carries readingOptions() and removesKeysWithNullValues() too.
  ZRBHS_HTTPResponseSerializerPtr copy() const override;

  // Adds "readingOptions" and "removesKeysWithNullValues" (numbers).
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBHS_JSONResponseSerializer"; }
  static ZRBHS_JSONResponseSerializerPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_JSONResponseSerializer"; }

 private:
  std::atomic<ZRBJSONReadingOptions> readingOptions_{};
  std::atomic<bool> removesKeysWithNullValues_{false};
};

// `value` without the dictionary entries whose value is the null object (or absent), at every depth
// of dictionaries and arrays. Arrays keep their length: a null inside an array stays. Other values
// come back as they are. Values of this library are immutable, so the mutable-containers bit of
// `readingOptions` asks for nothing more: the containers built are new either way.
ZRBValue KVHSJSONObjectByRemovingKeysWithNullValues(const ZRBValue& value,
                                                    ZRBJSONReadingOptions readingOptions);
