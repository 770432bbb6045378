#include "http/property_list_request_serializer.h"

#include "platform/foundation/assert.h"

ZRB_REGISTER_CODING_CLASS(ZRBHS_PropertyListRequestSerializer);

namespace {
constexpr std::string_view kFormatKey = "format";
constexpr std::string_view kWriteOptionsKey = "writeOptions";
}  // namespace

ZRBHS_PropertyListRequestSerializerPtr ZRBHS_PropertyListRequestSerializer::serializer() {
  return serializerWithFormat(ZRBPropertyListXMLFormat_v1_0, 0);
}

ZRBHS_PropertyListRequestSerializerPtr ZRBHS_PropertyListRequestSerializer::serializerWithFormat(
    ZRBPropertyListFormat format, ZRBPropertyListWriteOptions writeOptions) {
  auto serializer = std::make_shared<ZRBHS_PropertyListRequestSerializer>();
  serializer->setFormat(format);
  serializer->setWriteOptions(writeOptions);
  return serializer;
}

ZRBURLRequestPtr ZRBHS_PropertyListRequestSerializer::requestBySerializingRequest(
    const ZRBURLRequestPtr& request, const ZRBValue& parameters, ZRBErrorPtr* error) {
  ZRBAssertNamed(request != nullptr, "request");
  if (!request) return nullptr;
  if (encodesParametersInURI(request->HTTPMethod())) {
    return ZRBHS_HTTPRequestSerializer::requestBySerializingRequest(request, parameters, error);
  }

  ZRBMutableURLRequestPtr mutableRequest = request->mutableCopy();
  applyDefaultHeaders(*mutableRequest);
  if (!parameters.isAbsent()) {
    if (!mutableRequest->valueForHTTPHeaderField("Content-Type")) {
      mutableRequest->setValue("application/x-plist", "Content-Type");
    }
    if (auto body =
            ZRBPropertyListSerialization::dataWithPropertyList(parameters, format(), writeOptions(), error)) {
      mutableRequest->setHTTPBody(std::move(*body));
    } else {
      mutableRequest->setHTTPBody(ZRBValue());
    }
  }
  return mutableRequest;
}

ZRBHS_HTTPRequestSerializerPtr ZRBHS_PropertyListRequestSerializer::copy() const {
  auto fresh = std::make_shared<ZRBHS_PropertyListRequestSerializer>();
  copyStateInto(*fresh);
  fresh->setFormat(format());
  fresh->setWriteOptions(writeOptions());
  return fresh;
}

void ZRBHS_PropertyListRequestSerializer::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  ZRBHS_HTTPRequestSerializer::encodeWithCoder(coder);
  coder.encodeInteger(static_cast<std::int64_t>(format()), kFormatKey);
  coder.encodeValue(ZRBValue(static_cast<unsigned long>(writeOptions())), kWriteOptionsKey);
}

ZRBHS_PropertyListRequestSerializerPtr ZRBHS_PropertyListRequestSerializer::initWithCoder(
    ZRBKeyedUnarchiver& coder) {
  auto serializer = std::make_shared<ZRBHS_PropertyListRequestSerializer>();
  serializer->decodeStateFrom(coder);
  serializer->setFormat(
      static_cast<ZRBPropertyListFormat>(coder.decodeValue(kFormatKey, ZRBValueClass::Number).uintValue()));
  serializer->setWriteOptions(coder.decodeValue(kWriteOptionsKey, ZRBValueClass::Number).uintValue());
  return serializer;
}
