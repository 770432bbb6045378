#include "http/property_list_response_serializer.h"

ZRB_REGISTER_CODING_CLASS(ZRBHS_PropertyListResponseSerializer);

namespace {
constexpr std::string_view kFormatKey = "format";
constexpr std::string_view kReadOptionsKey = "readOptions";
}  // namespace

ZRBHS_PropertyListResponseSerializer::ZRBHS_PropertyListResponseSerializer() {
  setAcceptableContentTypes(ContentTypes{"application/x-plist"});
}

ZRBHS_PropertyListResponseSerializerPtr ZRBHS_PropertyListResponseSerializer::serializer() {
  return serializerWithFormat(ZRBPropertyListXMLFormat_v1_0, ZRBPropertyListImmutable);
}

ZRBHS_PropertyListResponseSerializerPtr ZRBHS_PropertyListResponseSerializer::serializerWithFormat(
    ZRBPropertyListFormat format, ZRBPropertyListReadOptions readOptions) {
  auto serializer = std::make_shared<ZRBHS_PropertyListResponseSerializer>();
  serializer->setFormat(format);
  serializer->setReadOptions(readOptions);
  return serializer;
}

ZRBValue ZRBHS_PropertyListResponseSerializer::responseObjectForResponse(const ZRBURLResponsePtr& response,
                                                                         const ZRBValue& data,
                                                                         ZRBErrorPtr* error) {
  if (!guardResponse(response, data, error)) return ZRBValue();
  if (data.isAbsent()) return ZRBValue();
  ZRBErrorPtr parseError;
  ZRBValue plist =
      ZRBPropertyListSerialization::propertyListWithData(data.bytes(), readOptions(), nullptr, &parseError);
  if (error) *error = KVHSErrorWithUnderlyingError(parseError, *error);
  return plist;
}

ZRBHS_HTTPResponseSerializerPtr ZRBHS_PropertyListResponseSerializer::copy() const {
  auto fresh = std::make_shared<ZRBHS_PropertyListResponseSerializer>();
  copyStateInto(*fresh);
  fresh->setFormat(format());
  fresh->setReadOptions(readOptions());
  return fresh;
}

void ZRBHS_PropertyListResponseSerializer::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  ZRBHS_HTTPResponseSerializer::encodeWithCoder(coder);
  coder.encodeInteger(static_cast<std::int64_t>(format()), kFormatKey);
  coder.encodeInteger(static_cast<std::int64_t>(readOptions()), kReadOptionsKey);
}

ZRBHS_PropertyListResponseSerializerPtr ZRBHS_PropertyListResponseSerializer::initWithCoder(
    ZRBKeyedUnarchiver& coder) {
  auto serializer = std::make_shared<ZRBHS_PropertyListResponseSerializer>();
  serializer->decodeStateFrom(coder);
  // A key the archive lacks leaves the fresh serializer's default.
  if (ZRBValue format = coder.decodeValue(kFormatKey, ZRBValueClass::Number)) {
    serializer->setFormat(static_cast<ZRBPropertyListFormat>(format.uintValue()));
  }
  if (ZRBValue options = coder.decodeValue(kReadOptionsKey, ZRBValueClass::Number)) {
    serializer->setReadOptions(static_cast<ZRBPropertyListReadOptions>(options.uintValue()));
  }
  return serializer;
}
