// ZRBHS_PropertyListRequestSerializer: a request serializer that writes the parameters of body
// methods as a property list.
//
// Works as the JSON serializer does (json_request_serializer.h) with "Content-Type"
// "application/x-plist" and the body written in format() (XML unless told otherwise) with
// writeOptions().
#pragma once

#include <atomic>
#include <memory>

#include "http/request_serializer.h"
#include "platform/foundation/property_list_serialization.h"

class ZRBHS_PropertyListRequestSerializer;
using ZRBHS_PropertyListRequestSerializerPtr = std::shared_ptr<ZRBHS_PropertyListRequestSerializer>;

class ZRBHS_PropertyListRequestSerializer : public ZRBHS_HTTPRequestSerializer {
 public:
  // A plain initialisation leaves the format 0; the class constructors use XML.
  ZRBHS_PropertyListRequestSerializer() = default;
  // serializerWithFormat(XML, 0).
  static ZRBHS_PropertyListRequestSerializerPtr serializer();
  static ZRBHS_PropertyListRequestSerializerPtr serializerWithFormat(
      ZRBPropertyListFormat format, ZRBPropertyListWriteOptions writeOptions);

  ZRBPropertyListFormat format() const { return format_.load(std::memory_order_relaxed); }
  void setFormat(ZRBPropertyListFormat format) { format_.store(format, std::memory_order_relaxed); }
  ZRBPropertyListWriteOptions writeOptions() const { return writeOptions_.load(std::memory_order_relaxed); }
  void setWriteOptions(ZRBPropertyListWriteOptions writeOptions) {
    writeOptions_.store(writeOptions, std::memory_order_relaxed);
  }

  ZRBURLRequestPtr requestBySerializingRequest(const ZRBURLRequestPtr& request, const ZRBValue& parameters,
                                               ZRBErrorPtr* error = nullptr) override;

  // Carries format() and writeOptions() too.
  ZRBHS_HTTPRequestSerializerPtr copy() const override;

  // Adds "format" (integer) and "writeOptions" (number object); both are read back as numbers.
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBHS_PropertyListRequestSerializer"; }
  static ZRBHS_PropertyListRequestSerializerPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_PropertyListRequestSerializer"; }

 private:
  std::atomic<ZRBPropertyListFormat> format_{};
  std::atomic<ZRBPropertyListWriteOptions> writeOptions_{0};
};
