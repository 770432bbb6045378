#include "http/json_request_serializer.h"

#include "platform/foundation/assert.h"

ZRB_REGISTER_CODING_CLASS(ZRBHS_JSONRequestSerializer);

namespace {
constexpr std::string_view kWritingOptionsKey = "writingOptions";
}  // namespace

ZRBHS_JSONRequestSerializerPtr ZRBHS_JSONRequestSerializer::serializer() {
  return serializerWithWritingOptions({});
}

ZRBHS_JSONRequestSerializerPtr ZRBHS_JSONRequestSerializer::serializerWithWritingOptions(
    ZRBJSONWritingOptions writingOptions) {
  auto serializer = std::make_shared<ZRBHS_JSONRequestSerializer>();
  serializer->setWritingOptions(writingOptions);
  return serializer;
}

ZRBURLRequestPtr ZRBHS_JSONRequestSerializer::requestBySerializingRequest(const ZRBURLRequestPtr& request,
                                                                          const ZRBValue& parameters,
                                                                          ZRBErrorPtr* error) {
  ZRBAssertNamed(request != nullptr, "request");
  if (!request) return nullptr;
  if (encodesParametersInURI(request->HTTPMethod())) {
    return ZRBHS_HTTPRequestSerializer::requestBySerializingRequest(request, parameters, error);
  }

  ZRBMutableURLRequestPtr mutableRequest = request->mutableCopy();
  applyDefaultHeaders(*mutableRequest);
  if (!parameters.isAbsent()) {
    if (!mutableRequest->valueForHTTPHeaderField("Content-Type")) {
      mutableRequest->setValue("application/json", "Content-Type");
    }
    // No separate validity check: the writer's own error is what the caller gets.
    if (auto body = ZRBJSONSerialization::dataWithJSONObject(parameters, writingOptions(), error)) {
      mutableRequest->setHTTPBody(std::move(*body));
    } else {
      mutableRequest->setHTTPBody(ZRBValue());
    }
  }
  return mutableRequest;
}

ZRBHS_HTTPRequestSerializerPtr ZRBHS_JSONRequestSerializer::copy() const {
  auto fresh = std::make_shared<ZRBHS_JSONRequestSerializer>();
  copyStateInto(*fresh);
  fresh->setWritingOptions(writingOptions());
  return fresh;
}

void ZRBHS_JSONRequestSerializer::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  ZRBHS_HTTPRequestSerializer::encodeWithCoder(coder);
  coder.encodeInteger(static_cast<std::int64_t>(writingOptions()), kWritingOptionsKey);
}

ZRBHS_JSONRequestSerializerPtr ZRBHS_JSONRequestSerializer::initWithCoder(ZRBKeyedUnarchiver& coder) {
  auto serializer = std::make_shared<ZRBHS_JSONRequestSerializer>();
  serializer->decodeStateFrom(coder);
  ZRBValue options = coder.decodeValue(kWritingOptionsKey, ZRBValueClass::Number);
  serializer->setWritingOptions(static_cast<ZRBJSONWritingOptions>(options.uintValue()));
  return serializer;
}
