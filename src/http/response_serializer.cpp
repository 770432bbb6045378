#include "http/response_serializer.h"

#include "platform/foundation/string_format.h"
#include "platform/system/localized_string.h"

ZRB_REGISTER_CODING_CLASS(ZRBHS_HTTPResponseSerializer);

namespace {

constexpr std::string_view kStatusCodesKey = "acceptableStatusCodes";
constexpr std::string_view kContentTypesKey = "acceptableContentTypes";

// A validation error with the user info every response error carries.
ZRBErrorPtr validationError(long code, std::string description, const ZRBHTTPURLResponse& response,
                            const ZRBURLResponsePtr& responsePointer, const ZRBValue& data) {
  ZRBDictionaryBuilder userInfo;
  userInfo.reserve(4);
  userInfo.append(ZRBValue(ZRBLocalizedDescriptionKey), ZRBValue(description));
  userInfo.append(ZRBValue(ZRBURLErrorFailingURLErrorKey), ZRBValue(response.URL()));
  userInfo.append(ZRBValue(ZRBHS_ResponseSerializationResponseKey), ZRBValue(responsePointer));
  if (!data.isAbsent()) userInfo.append(ZRBValue(ZRBHS_ResponseSerializationDataKey), data);
  return ZRBError::make(ZRBHS_ResponseSerializationErrorDomain, code, userInfo.build());
}

}  // namespace

ZRBErrorPtr KVHSErrorWithUnderlyingError(const ZRBErrorPtr& error, const ZRBErrorPtr& underlyingError) {
  if (!error) return underlyingError;
  if (!underlyingError || error->userInfo().contains(ZRBUnderlyingErrorKey)) return error;
  ZRBDictionaryBuilder userInfo(error->userInfo());
  userInfo.set(ZRBUnderlyingErrorKey, ZRBValue(underlyingError));
  return ZRBError::make(error->domain(), error->code(), userInfo.build());
}

bool KVHSErrorOrUnderlyingErrorHasCodeInDomain(const ZRBErrorPtr& error, long code, std::string_view domain) {
  for (ZRBErrorPtr current = error; current; current = current->underlyingError()) {
    if (current->domain() == domain && current->code() == code) return true;
  }
  return false;
}

ZRBHS_HTTPResponseSerializer::ZRBHS_HTTPResponseSerializer()
    : statusCodes_(std::make_shared<const ZRBIndexSet>(ZRBIndexSet::indexSetWithIndexesInRange(200, 100))) {}

ZRBHS_HTTPResponseSerializerPtr ZRBHS_HTTPResponseSerializer::serializer() {
  return std::make_shared<ZRBHS_HTTPResponseSerializer>();
}

ZRBStringEncoding ZRBHS_HTTPResponseSerializer::stringEncoding() const {
  std::lock_guard lock(mutex_);
  return stringEncoding_;
}

void ZRBHS_HTTPResponseSerializer::setStringEncoding(ZRBStringEncoding stringEncoding) {
  std::lock_guard lock(mutex_);
  stringEncoding_ = stringEncoding;
}

std::optional<ZRBIndexSet> ZRBHS_HTTPResponseSerializer::acceptableStatusCodes() const {
  std::lock_guard lock(mutex_);
  if (!statusCodes_) return std::nullopt;
  return *statusCodes_;
}

void ZRBHS_HTTPResponseSerializer::setAcceptableStatusCodes(
    std::optional<ZRBIndexSet> acceptableStatusCodes) {
  std::shared_ptr<const ZRBIndexSet> codes;
  if (acceptableStatusCodes) codes = std::make_shared<const ZRBIndexSet>(std::move(*acceptableStatusCodes));
  std::lock_guard lock(mutex_);
  statusCodes_.swap(codes);
}

std::optional<ZRBHS_HTTPResponseSerializer::ContentTypes>
ZRBHS_HTTPResponseSerializer::acceptableContentTypes() const {
  std::lock_guard lock(mutex_);
  if (!contentTypes_) return std::nullopt;
  return *contentTypes_;
}

void ZRBHS_HTTPResponseSerializer::setAcceptableContentTypes(
    std::optional<ContentTypes> acceptableContentTypes) {
  std::shared_ptr<const ContentTypes> types;
  if (acceptableContentTypes)
    types = std::make_shared<const ContentTypes>(std::move(*acceptableContentTypes));
  std::lock_guard lock(mutex_);
  contentTypes_.swap(types);
}

bool ZRBHS_HTTPResponseSerializer::validateResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                                    ZRBErrorPtr* error) {
  const auto* http = dynamic_cast<const ZRBHTTPURLResponse*>(response.get());
  if (!http) return true;

  std::shared_ptr<const ZRBIndexSet> statusCodes;
  std::shared_ptr<const ContentTypes> contentTypes;
  {
    std::lock_guard lock(mutex_);
    statusCodes = statusCodes_;
    contentTypes = contentTypes_;
  }

  bool valid = true;
  ZRBErrorPtr validationErrorSoFar;
  const bool emptyBody = data.bytes().empty();
  const std::optional<std::string>& mimeType = http->MIMEType();

  if (contentTypes && !(mimeType && contentTypes->contains(*mimeType)) && !(!mimeType && emptyBody)) {
    if (!emptyBody && http->URL()) {
      std::string description = ZRBStringWithFormat(
          ZRBLocalizedString("Request failed: unacceptable content-type: %@", ZRBNetworkingStringTable),
          mimeType);
      validationErrorSoFar = KVHSErrorWithUnderlyingError(
          validationError(ZRBURLErrorCannotDecodeContentData, std::move(description), *http, response, data),
          validationErrorSoFar);
    }
    valid = false;
  }

  const long statusCode = http->statusCode();
  if (statusCodes && !statusCodes->containsIndex(statusCode) && http->URL()) {
    std::string description =
        ZRBStringWithFormat(ZRBLocalizedString("Request failed: %@ (%ld)", ZRBNetworkingStringTable),
                            ZRBHTTPURLResponse::localizedStringForStatusCode(statusCode), statusCode);
    validationErrorSoFar = KVHSErrorWithUnderlyingError(
        validationError(ZRBURLErrorBadServerResponse, std::move(description), *http, response, data),
        validationErrorSoFar);
    valid = false;
  }

  if (!valid) ZRBSetError(error, std::move(validationErrorSoFar));
  return valid;
}

bool ZRBHS_HTTPResponseSerializer::guardResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                                 ZRBErrorPtr* error) {
  if (validateResponse(response, data, error)) return true;
  return error && !KVHSErrorOrUnderlyingErrorHasCodeInDomain(*error, ZRBURLErrorCannotDecodeContentData,
                                                             ZRBHS_ResponseSerializationErrorDomain);
}

ZRBValue ZRBHS_HTTPResponseSerializer::responseObjectForResponse(const ZRBURLResponsePtr& response,
                                                                 const ZRBValue& data, ZRBErrorPtr* error) {
  validateResponse(response, data, error);
  return data;
}

void ZRBHS_HTTPResponseSerializer::copyStateInto(ZRBHS_HTTPResponseSerializer& fresh) const {
  std::lock_guard lock(mutex_);
  // The sets are immutable once stored, so sharing them is copying them.
  std::lock_guard freshLock(fresh.mutex_);
  fresh.statusCodes_ = statusCodes_;
  fresh.contentTypes_ = contentTypes_;
}

ZRBHS_HTTPResponseSerializerPtr ZRBHS_HTTPResponseSerializer::copy() const {
  auto fresh = std::make_shared<ZRBHS_HTTPResponseSerializer>();
  copyStateInto(*fresh);
  return fresh;
}

void ZRBHS_HTTPResponseSerializer::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  std::shared_ptr<const ZRBIndexSet> statusCodes;
  std::shared_ptr<const ContentTypes> contentTypes;
  {
    std::lock_guard lock(mutex_);
    statusCodes = statusCodes_;
    contentTypes = contentTypes_;
  }
  if (statusCodes) coder.encodeValue(statusCodes->rangesValue(), kStatusCodesKey);
  if (contentTypes) {
    ZRBSetBuilder types;
    for (const std::string& type : *contentTypes) types.add(ZRBValue(type));
    coder.encodeValue(types.build(), kContentTypesKey);
  }
}

void ZRBHS_HTTPResponseSerializer::decodeStateFrom(ZRBKeyedUnarchiver& coder) {
  setAcceptableStatusCodes(
      ZRBIndexSet::fromRangesValue(coder.decodeValue(kStatusCodesKey, ZRBValueClass::Array)));
  ZRBValue types = coder.decodeValue(kContentTypesKey, ZRBValueClass::Set);
  if (!types.isSet()) {
    setAcceptableContentTypes(std::nullopt);
    return;
  }
  ContentTypes decoded;
  for (const ZRBValue& type : types.items()) {
    if (type.isString()) decoded.insert(type.string());
  }
  setAcceptableContentTypes(std::move(decoded));
}

ZRBHS_HTTPResponseSerializerPtr ZRBHS_HTTPResponseSerializer::initWithCoder(ZRBKeyedUnarchiver& coder) {
  auto serializer = std::make_shared<ZRBHS_HTTPResponseSerializer>();
  serializer->decodeStateFrom(coder);
  return serializer;
}
