// ZRBHS_PropertyListResponseSerializer: validates a response and reads its body as a property list.
//
// Accepts "application/x-plist" by default. After the common guard (response_serializer.h) a
// missing body gives absent; otherwise the body is read (XML or binary, told apart by content,
// with readOptions()) and, when the caller gave an error slot, the reader's error is chained onto
// it as JSON's is. format() is kept for the caller's information only: reading detects the format.
#pragma once

#include <atomic>
#include <memory>

#include "http/response_serializer.h"
#include "platform/foundation/property_list_serialization.h"

class ZRBHS_PropertyListResponseSerializer;
using ZRBHS_PropertyListResponseSerializerPtr = std::shared_ptr<ZRBHS_PropertyListResponseSerializer>;

class ZRBHS_PropertyListResponseSerializer : public ZRBHS_HTTPResponseSerializer {
 public:
  ZRBHS_PropertyListResponseSerializer();
  // serializerWithFormat(XML, immutable).
  static ZRBHS_PropertyListResponseSerializerPtr serializer();
  static ZRBHS_PropertyListResponseSerializerPtr serializerWithFormat(ZRBPropertyListFormat format,
                                                                      ZRBPropertyListReadOptions readOptions);

  ZRBPropertyListFormat format() const { return format_.load(std::memory_order_relaxed); }
  void setFormat(ZRBPropertyListFormat format) { format_.store(format, std::memory_order_relaxed); }
  ZRBPropertyListReadOptions readOptions() const { return readOptions_.load(std::memory_order_relaxed); }
  void setReadOptions(ZRBPropertyListReadOptions readOptions) {
    readOptions_.store(readOptions, std::memory_order_relaxed);
  }

  ZRBValue responseObjectForResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                     ZRBErrorPtr* error = nullptr) override;

  // Carries format() and readOptions() too.
  ZRBHS_HTTPResponseSerializerPtr copy() const override;

  // Adds "format" and "readOptions" (numbers).
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBHS_PropertyListResponseSerializer"; }
  static ZRBHS_PropertyListResponseSerializerPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_PropertyListResponseSerializer"; }

 private:
  std::atomic<ZRBPropertyListFormat> format_{ZRBPropertyListXMLFormat_v1_0};
  std::atomic<ZRBPropertyListReadOptions> readOptions_{ZRBPropertyListImmutable};
};
