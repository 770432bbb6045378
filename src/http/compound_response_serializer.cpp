#include "http/compound_response_serializer.h"

#include <utility>

ZRB_REGISTER_CODING_CLASS(ZRBHS_CompoundResponseSerializer);

namespace {
constexpr std::string_view kSerializersKey = "responseSerializers";
}  // namespace

ZRBHS_CompoundResponseSerializerPtr
ZRBHS_CompoundResponseSerializer::compoundSerializerWithResponseSerializers(Serializers serializers) {
  auto compound = std::make_shared<ZRBHS_CompoundResponseSerializer>();
  compound->setResponseSerializers(std::move(serializers));
  return compound;
}

std::shared_ptr<const ZRBHS_CompoundResponseSerializer::Serializers>
ZRBHS_CompoundResponseSerializer::snapshot() const {
  std::lock_guard lock(serializersMutex_);
  return serializers_;
}

ZRBHS_CompoundResponseSerializer::Serializers ZRBHS_CompoundResponseSerializer::responseSerializers() const {
  return *snapshot();
}

void ZRBHS_CompoundResponseSerializer::setResponseSerializers(Serializers serializers) {
  auto fresh = std::make_shared<const Serializers>(std::move(serializers));
  std::lock_guard lock(serializersMutex_);
  serializers_.swap(fresh);
}

ZRBValue ZRBHS_CompoundResponseSerializer::responseObjectForResponse(const ZRBURLResponsePtr& response,
                                                                     const ZRBValue& data,
                                                                     ZRBErrorPtr* error) {
  for (const ZRBHS_HTTPResponseSerializerPtr& serializer : *snapshot()) {
    if (!serializer) continue;
    ZRBErrorPtr serializerError;
    ZRBValue object = serializer->responseObjectForResponse(response, data, &serializerError);
    if (!object.isAbsent()) {
      if (error) *error = KVHSErrorWithUnderlyingError(serializerError, *error);
      return object;
    }
  }
  return ZRBHS_HTTPResponseSerializer::responseObjectForResponse(response, data, error);
}

ZRBHS_HTTPResponseSerializerPtr ZRBHS_CompoundResponseSerializer::copy() const {
  auto fresh = std::make_shared<ZRBHS_CompoundResponseSerializer>();
  copyStateInto(*fresh);
  fresh->setResponseSerializers(responseSerializers());
  return fresh;
}

void ZRBHS_CompoundResponseSerializer::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  ZRBHS_HTTPResponseSerializer::encodeWithCoder(coder);
  std::vector<ZRBValue> serializers;
  for (const ZRBHS_HTTPResponseSerializerPtr& serializer : *snapshot()) {
    if (serializer) serializers.emplace_back(serializer);
  }
  coder.encodeValue(ZRBValue::array(std::move(serializers)), kSerializersKey);
}

ZRBHS_CompoundResponseSerializerPtr ZRBHS_CompoundResponseSerializer::initWithCoder(
    ZRBKeyedUnarchiver& coder) {
  auto compound = std::make_shared<ZRBHS_CompoundResponseSerializer>();
  compound->decodeStateFrom(coder);
  Serializers serializers;
  const ZRBValue archived = coder.decodeValue(kSerializersKey, ZRBValueClass::Array);
  for (const ZRBValue& item : archived.items()) {
    // Anything in the list that is not a response serializer is left out.
    if (auto serializer = item.objectAs<ZRBHS_HTTPResponseSerializer>())
      serializers.push_back(std::move(serializer));
  }
  compound->setResponseSerializers(std::move(serializers));
  return compound;
}
