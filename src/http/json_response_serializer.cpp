#include "http/json_response_serializer.h"

#include <utility>
#include <vector>

ZRB_REGISTER_CODING_CLASS(ZRBHS_JSONResponseSerializer);

namespace {
constexpr std::string_view kReadingOptionsKey = "readingOptions";
constexpr std::string_view kRemovesKeysKey = "removesKeysWithNullValues";
}  // namespace

ZRBValue KVHSJSONObjectByRemovingKeysWithNullValues(const ZRBValue& value,
                                                    ZRBJSONReadingOptions readingOptions) {
  if (value.isArray()) {
    std::vector<ZRBValue> items;
    items.reserve(value.count());
    for (const ZRBValue& item : value.items()) {
      items.push_back(KVHSJSONObjectByRemovingKeysWithNullValues(item, readingOptions));
    }
    return ZRBValue::array(std::move(items));
  }
  if (value.isDictionary()) {
    std::vector<ZRBDictionaryEntry> entries;
    entries.reserve(value.count());
    for (const auto& [key, item] : value.entries()) {
      if (item.isNothing()) continue;
      if (item.isArray() || item.isDictionary()) {
        entries.emplace_back(key, KVHSJSONObjectByRemovingKeysWithNullValues(item, readingOptions));
      } else {
        entries.emplace_back(key, item);
      }
    }
    return ZRBValue::dictionary(std::move(entries));
  }
  return value;
}

ZRBHS_JSONResponseSerializer::ZRBHS_JSONResponseSerializer() {
  setAcceptableContentTypes(ContentTypes{"application/json", "text/json", "text/javascript"});
}

ZRBHS_JSONResponseSerializerPtr ZRBHS_JSONResponseSerializer::serializer() {
  return serializerWithReadingOptions({});
}

ZRBHS_JSONResponseSerializerPtr ZRBHS_JSONResponseSerializer::serializerWithReadingOptions(
    ZRBJSONReadingOptions readingOptions) {
  auto serializer = std::make_shared<ZRBHS_JSONResponseSerializer>();
  serializer->setReadingOptions(readingOptions);
  return serializer;
}

ZRBValue ZRBHS_JSONResponseSerializer::responseObjectForResponse(const ZRBURLResponsePtr& response,
                                                                 const ZRBValue& data, ZRBErrorPtr* error) {
  if (!guardResponse(response, data, error)) return ZRBValue();

  std::span<const std::uint8_t> bytes = data.bytes();
  if (bytes.empty() || (bytes.size() == 1 && bytes[0] == ' ')) return ZRBValue();

  const ZRBJSONReadingOptions options = readingOptions();
  ZRBErrorPtr parseError;
  ZRBValue object = ZRBJSONSerialization::JSONObjectWithData(bytes, options, &parseError);
  if (removesKeysWithNullValues() && !object.isAbsent()) {
    object = KVHSJSONObjectByRemovingKeysWithNullValues(object, options);
  }
  if (error) *error = KVHSErrorWithUnderlyingError(parseError, *error);
  return object;
}

ZRBHS_HTTPResponseSerializerPtr ZRBHS_JSONResponseSerializer::copy() const {
  auto fresh = std::make_shared<ZRBHS_JSONResponseSerializer>();
  copyStateInto(*fresh);
  fresh->setReadingOptions(readingOptions());
  fresh->setRemovesKeysWithNullValues(removesKeysWithNullValues());
  return fresh;
}

void ZRBHS_JSONResponseSerializer::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  ZRBHS_HTTPResponseSerializer::encodeWithCoder(coder);
  coder.encodeInteger(static_cast<std::int64_t>(readingOptions()), kReadingOptionsKey);
  coder.encodeBool(removesKeysWithNullValues(), kRemovesKeysKey);
}

ZRBHS_JSONResponseSerializerPtr ZRBHS_JSONResponseSerializer::initWithCoder(ZRBKeyedUnarchiver& coder) {
  auto serializer = std::make_shared<ZRBHS_JSONResponseSerializer>();
  serializer->decodeStateFrom(coder);
  // A key the archive lacks leaves the fresh serializer's default.
  if (ZRBValue options = coder.decodeValue(kReadingOptionsKey, ZRBValueClass::Number)) {
    serializer->setReadingOptions(static_cast<ZRBJSONReadingOptions>(options.uintValue()));
  }
  if (ZRBValue removes = coder.decodeValue(kRemovesKeysKey, ZRBValueClass::Number)) {
    serializer->setRemovesKeysWithNullValues(removes.boolValue());
  }
  return serializer;
}
