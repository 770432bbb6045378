// ZRBHS_CompoundResponseSerializer: asks several response serializers in turn; the first that
// decodes something wins.
//
// Each serializer of responseSerializers() (null entries skipped) is called in order with an error
// slot of its own. The first to return an object has its error chained onto the caller's slot and
// its object returned; the errors of those before it are dropped. When none returns anything the
// base behaviour runs: validation against the compound's own acceptable sets, and the body as it
// is. The compound accepts every content type unless told otherwise.
#pragma once

#include <memory>
#include <vector>

#include "http/response_serializer.h"

class ZRBHS_CompoundResponseSerializer;
using ZRBHS_CompoundResponseSerializerPtr = std::shared_ptr<ZRBHS_CompoundResponseSerializer>;

class ZRBHS_CompoundResponseSerializer : public ZRBHS_HTTPResponseSerializer {
 public:
  using Serializers = std::vector<ZRBHS_HTTPResponseSerializerPtr>;

  ZRBHS_CompoundResponseSerializer() = default;
  static ZRBHS_CompoundResponseSerializerPtr compoundSerializerWithResponseSerializers(
      Serializers serializers);

  // A copy of the list.
  Serializers responseSerializers() const;
  void setResponseSerializers(Serializers serializers);

  ZRBValue responseObjectForResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                     ZRBErrorPtr* error = nullptr) override;

  // Shares the serializers of the list (the list itself is copied).
  ZRBHS_HTTPResponseSerializerPtr copy() const override;

  // Adds "responseSerializers" (an array of archived serializers).
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBHS_CompoundResponseSerializer"; }
  static ZRBHS_CompoundResponseSerializerPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_CompoundResponseSerializer"; }

 private:
  std::shared_ptr<const Serializers> snapshot() const;

  mutable std::mutex serializersMutex_;
  std::shared_ptr<const Serializers> serializers_ = std::make_shared<const Serializers>();
};
