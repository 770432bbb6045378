#include "http/request_serializer.h"

#include <algorithm>
#include <cstdio>
#include <typeinfo>

#include "http/multipart_form_data.h"
#include "http/query_string.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/locale.h"
#include "platform/foundation/string_transform.h"
#include "platform/foundation/url.h"
#include "platform/runtime/dispatch.h"
#include "platform/system/bundle.h"
#include "platform/system/device.h"

ZRB_REGISTER_CODING_CLASS(ZRBHS_HTTPRequestSerializer);

namespace {

constexpr std::string_view kHeadersKey = "mutableHTTPRequestHeaders";
constexpr std::string_view kStyleKey = "queryStringSerializationStyle";

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string infoString(const ZRBBundle& bundle, std::string_view key) {
  ZRBValue value = bundle.objectForInfoDictionaryKey(key);
  return value.isAbsent() ? std::string() : value.description();
}

// Callers send many requests to one URL string, so the last string parsed on a thread is
// remembered with its URL (URLs are immutable: requests may share one). Failures are not kept.
ZRBURLPtr parsedURL(std::string_view URLString) {
  thread_local std::string lastString;
  thread_local ZRBURLPtr lastURL;
  if (!lastURL || lastString != URLString) {
    ZRBURLPtr url = ZRBURL::URLWithString(URLString);
    if (!url) return nullptr;
    lastString.assign(URLString);
    lastURL = std::move(url);
  }
  return lastURL;
}

}  // namespace

const std::vector<std::string>& ZRBHS_HTTPRequestSerializerObservedKeyPaths() {
  static const std::vector<std::string> keyPaths{"allowsCellularAccess",    "cachePolicy",
                                                 "HTTPShouldHandleCookies", "HTTPShouldUsePipelining",
                                                 "networkServiceType",      "timeoutInterval"};
  return keyPaths;
}

std::string ZRBHS_AcceptLanguageHeaderValue(const std::vector<std::string>& languages) {
  std::string value;
  for (std::size_t index = 0; index < languages.size(); ++index) {
    // Single precision on purpose: the sixth entry must come out as exactly 0.5 and end the list.
    float q = 1.0f - static_cast<float>(index) * 0.1f;
    char weight[32];
    std::snprintf(weight, sizeof weight, ";q=%0.1g", static_cast<double>(q));
    if (index > 0) value += ", ";
    value += languages[index];
    value += weight;
    if (q <= 0.5f) break;
  }
  return value;
}

std::string ZRBHS_DefaultUserAgent() {
  const ZRBBundle& bundle = *ZRBBundle::mainBundle();
  std::string name = infoString(bundle, "CFBundleExecutable");
  if (name.empty()) name = infoString(bundle, "CFBundleIdentifier");
  // Programs without an information map still have a file name.
  if (name.empty()) name = bundle.executableName();
  std::string version = infoString(bundle, "CFBundleShortVersionString");
  if (version.empty()) version = infoString(bundle, "CFBundleVersion");
  if (version.empty()) version = "(null)";

  const ZRBDevice& device = *ZRBDevice::currentDevice();
  char scale[64];
  std::snprintf(scale, sizeof scale, "%0.2f", device.screenScale());
  std::string userAgent = name + "/" + version + " (" + device.model() + "; iOS " + device.systemVersion() +
                          "; Scale/" + scale + ")";
  if (!isASCII(userAgent)) {
    // Kept as it is when the transform fails, as the platform does.
    if (auto ascii = ZRBStringTransform(userAgent, "Any-Latin; Latin-ASCII; [:^ASCII:] Remove"))
      userAgent = std::move(*ascii);
  }
  return userAgent;
}

ZRBHS_HTTPRequestSerializer::Headers::Headers(HeaderFields fields) : list(std::move(fields)) {
  // What applyDefaultHeaders' loop would make of a request without fields.
  for (const auto& [field, value] : list) {
    if (!forBareRequest.contains(field)) forBareRequest.set(field, value);
  }
}

// The default headers of a fresh serializer, shared by all of them (a serializer replaces its
// headers whole when they change). Derived once per process and again only after the language
// override, a bundle's information map or the device facts changed: serializers are made per
// request, and deriving the two values costs more than the rest of building a request.
std::shared_ptr<const ZRBHS_HTTPRequestSerializer::Headers> ZRBHS_HTTPRequestSerializer::defaultHeaders() {
  struct Generations {
    std::uint64_t locale, bundle, device;
    bool operator==(const Generations&) const = default;
  };
  static std::mutex mutex;
  static std::optional<Generations> derivedAt;
  static std::shared_ptr<const Headers> fields;

  // Read before the values: a change that lands while they are derived leaves an older mark, so
  // the next serializer derives them again.
  const Generations now{ZRBLocale::overrideGeneration(), ZRBBundle::infoGeneration(),
                        ZRBDevice::generation()};
  {
    std::lock_guard lock(mutex);
    if (derivedAt == now) return fields;
  }
  auto derived = std::make_shared<const Headers>(
      HeaderFields{{"Accept-Language", ZRBHS_AcceptLanguageHeaderValue(ZRBLocale::preferredLanguages())},
                   {"User-Agent", ZRBHS_DefaultUserAgent()}});
  std::lock_guard lock(mutex);
  derivedAt = now;
  fields = derived;
  return derived;
}

namespace {

const std::shared_ptr<const std::set<std::string>>& defaultMethodsInURI() {
  static const auto methods =
      std::make_shared<const std::set<std::string>>(std::set<std::string>{"GET", "HEAD", "DELETE"});
  return methods;
}

}  // namespace

// ---- ZRBHS_HTTPRequestSerializer ----

ZRBHS_HTTPRequestSerializer::ZRBHS_HTTPRequestSerializer()
    : methodsInURI_(defaultMethodsInURI()), headers_(defaultHeaders()) {}

ZRBHS_HTTPRequestSerializerPtr ZRBHS_HTTPRequestSerializer::serializer() {
  return std::make_shared<ZRBHS_HTTPRequestSerializer>();
}

bool ZRBHS_HTTPRequestSerializer::allowsCellularAccess() const { return readLocked(allowsCellularAccess_); }
void ZRBHS_HTTPRequestSerializer::setAllowsCellularAccess(bool allowsCellularAccess) {
  writeLocked(allowsCellularAccess_, allowsCellularAccess, kAllowsCellularAccess);
}
ZRBURLRequestCachePolicy ZRBHS_HTTPRequestSerializer::cachePolicy() const { return readLocked(cachePolicy_); }
void ZRBHS_HTTPRequestSerializer::setCachePolicy(ZRBURLRequestCachePolicy cachePolicy) {
  writeLocked(cachePolicy_, cachePolicy, kCachePolicy);
}
bool ZRBHS_HTTPRequestSerializer::HTTPShouldHandleCookies() const {
  return readLocked(HTTPShouldHandleCookies_);
}
void ZRBHS_HTTPRequestSerializer::setHTTPShouldHandleCookies(bool HTTPShouldHandleCookies) {
  writeLocked(HTTPShouldHandleCookies_, HTTPShouldHandleCookies, kHTTPShouldHandleCookies);
}
bool ZRBHS_HTTPRequestSerializer::HTTPShouldUsePipelining() const {
  return readLocked(HTTPShouldUsePipelining_);
}
void ZRBHS_HTTPRequestSerializer::setHTTPShouldUsePipelining(bool HTTPShouldUsePipelining) {
  writeLocked(HTTPShouldUsePipelining_, HTTPShouldUsePipelining, kHTTPShouldUsePipelining);
}
ZRBURLRequestNetworkServiceType ZRBHS_HTTPRequestSerializer::networkServiceType() const {
  return readLocked(networkServiceType_);
}
void ZRBHS_HTTPRequestSerializer::setNetworkServiceType(ZRBURLRequestNetworkServiceType networkServiceType) {
  writeLocked(networkServiceType_, networkServiceType, kNetworkServiceType);
}
double ZRBHS_HTTPRequestSerializer::timeoutInterval() const { return readLocked(timeoutInterval_); }
void ZRBHS_HTTPRequestSerializer::setTimeoutInterval(double timeoutInterval) {
  writeLocked(timeoutInterval_, timeoutInterval, kTimeoutInterval);
}

bool ZRBHS_HTTPRequestSerializer::setValueForKey(std::string_view key, const ZRBValue& value) {
  const auto& names = ZRBHS_HTTPRequestSerializerObservedKeyPaths();
  auto found = std::find(names.begin(), names.end(), key);
  if (found == names.end()) return false;
  auto property = static_cast<ObservedProperty>(found - names.begin());
  if (value.isNull()) {
    std::lock_guard lock(mutex_);
    explicitlySet_ &= ~(1u << property);
    return true;
  }
  if (!value.isNumber()) return false;
  switch (property) {
    case kAllowsCellularAccess: setAllowsCellularAccess(value.boolValue()); break;
    case kCachePolicy: setCachePolicy(static_cast<ZRBURLRequestCachePolicy>(value.uintValue())); break;
    case kHTTPShouldHandleCookies: setHTTPShouldHandleCookies(value.boolValue()); break;
    case kHTTPShouldUsePipelining: setHTTPShouldUsePipelining(value.boolValue()); break;
    case kNetworkServiceType:
      setNetworkServiceType(static_cast<ZRBURLRequestNetworkServiceType>(value.uintValue()));
      break;
    case kTimeoutInterval: setTimeoutInterval(value.doubleValue()); break;
    case kObservedPropertyCount: return false;
  }
  return true;
}

ZRBValue ZRBHS_HTTPRequestSerializer::valueForKey(std::string_view key) const {
  const auto& names = ZRBHS_HTTPRequestSerializerObservedKeyPaths();
  auto found = std::find(names.begin(), names.end(), key);
  if (found == names.end()) return ZRBValue();
  std::lock_guard lock(mutex_);
  switch (static_cast<ObservedProperty>(found - names.begin())) {
    case kAllowsCellularAccess: return ZRBValue(allowsCellularAccess_);
    case kCachePolicy: return ZRBValue(static_cast<unsigned long>(cachePolicy_));
    case kHTTPShouldHandleCookies: return ZRBValue(HTTPShouldHandleCookies_);
    case kHTTPShouldUsePipelining: return ZRBValue(HTTPShouldUsePipelining_);
    case kNetworkServiceType: return ZRBValue(static_cast<unsigned long>(networkServiceType_));
    case kTimeoutInterval: return ZRBValue(timeoutInterval_);
    case kObservedPropertyCount: break;
  }
  return ZRBValue();
}

std::set<std::string> ZRBHS_HTTPRequestSerializer::mutableObservedChangedKeyPaths() const {
  const auto& names = ZRBHS_HTTPRequestSerializerObservedKeyPaths();
  std::set<std::string> changed;
  std::lock_guard lock(mutex_);
  for (unsigned property = 0; property < kObservedPropertyCount; ++property) {
    if (isSet(static_cast<ObservedProperty>(property))) changed.insert(names[property]);
  }
  return changed;
}

std::set<std::string> ZRBHS_HTTPRequestSerializer::HTTPMethodsEncodingParametersInURI() const {
  return *methodsSnapshot();
}

void ZRBHS_HTTPRequestSerializer::setHTTPMethodsEncodingParametersInURI(std::set<std::string> methods) {
  auto replacement = std::make_shared<const std::set<std::string>>(std::move(methods));
  std::lock_guard lock(mutex_);
  methodsInURI_ = std::move(replacement);
}

ZRBHS_QueryStringSerializationStyle ZRBHS_HTTPRequestSerializer::queryStringSerializationStyle() const {
  std::lock_guard lock(mutex_);
  return style_;
}

ZRBHS_HTTPRequestSerializer::QueryStringSerialization ZRBHS_HTTPRequestSerializer::queryStringSerialization()
    const {
  std::lock_guard lock(mutex_);
  return queryStringSerialization_ ? *queryStringSerialization_ : QueryStringSerialization();
}

void ZRBHS_HTTPRequestSerializer::setQueryStringSerializationWithStyle(
    ZRBHS_QueryStringSerializationStyle style) {
  std::lock_guard lock(mutex_);
  style_ = style;
  queryStringSerialization_ = nullptr;
}

void ZRBHS_HTTPRequestSerializer::setQueryStringSerializationWithBlock(QueryStringSerialization block) {
  auto replacement = block ? std::make_shared<const QueryStringSerialization>(std::move(block)) : nullptr;
  std::lock_guard lock(mutex_);
  queryStringSerialization_ = std::move(replacement);
}

std::shared_ptr<const ZRBHS_HTTPRequestSerializer::Headers> ZRBHS_HTTPRequestSerializer::headersSnapshot()
    const {
  std::lock_guard lock(mutex_);
  return headers_;
}

std::shared_ptr<const std::set<std::string>> ZRBHS_HTTPRequestSerializer::methodsSnapshot() const {
  std::lock_guard lock(mutex_);
  return methodsInURI_;
}

ZRBHS_HTTPRequestSerializer::HeaderFields ZRBHS_HTTPRequestSerializer::mutableHTTPRequestHeaders() const {
  return headersSnapshot()->list;
}

ZRBValue ZRBHS_HTTPRequestSerializer::HTTPRequestHeaders() const {
  auto headers = headersSnapshot();
  ZRBDictionaryBuilder builder;
  builder.reserve(headers->list.size());
  for (const auto& [field, value] : headers->list) builder.set(field, ZRBValue(value));
  return builder.build();
}

void ZRBHS_HTTPRequestSerializer::setValueForHTTPHeaderField(std::optional<std::string> value,
                                                             std::string_view field) {
  std::lock_guard lock(mutex_);
  HeaderFields list = headers_->list;
  auto found =
      std::find_if(list.begin(), list.end(), [&](const auto& entry) { return entry.first == field; });
  if (!value) {
    if (found == list.end()) return;
    list.erase(found);
  } else if (found != list.end()) {
    found->second = std::move(*value);
  } else {
    list.emplace_back(std::string(field), std::move(*value));
  }
  headers_ = std::make_shared<const Headers>(std::move(list));
}

std::optional<std::string> ZRBHS_HTTPRequestSerializer::valueForHTTPHeaderField(
    std::string_view field) const {
  auto headers = headersSnapshot();  // kept alive for the loop
  for (const auto& [name, value] : headers->list) {
    if (name == field) return value;
  }
  return std::nullopt;
}

void ZRBHS_HTTPRequestSerializer::setAuthorizationHeaderFieldWithUsername(std::string_view username,
                                                                          std::string_view password) {
  std::string credentials;
  credentials.reserve(username.size() + password.size() + 1);
  credentials.append(username).append(":").append(password);
  auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(credentials.data()), credentials.size());
  setValueForHTTPHeaderField("Basic " + ZRBBase64Encode(bytes), "Authorization");
}

void ZRBHS_HTTPRequestSerializer::clearAuthorizationHeader() {
  setValueForHTTPHeaderField(std::nullopt, "Authorization");
}

void ZRBHS_HTTPRequestSerializer::applyDefaultHeaders(ZRBMutableURLRequest& request) const {
  auto headers = headersSnapshot();  // kept alive for the loop
  // Usually the request has no fields yet: it gets the ones made for that case, shared.
  if (request.headerFields().empty()) {
    request.setHeaderFields(headers->forBareRequest);
    return;
  }
  for (const auto& [field, value] : headers->list) {
    if (!request.headerFields().contains(field)) request.setValue(value, field);
  }
}

bool ZRBHS_HTTPRequestSerializer::encodesParametersInURI(std::string_view method) const {
  std::string upper(method);
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  return methodsSnapshot()->contains(upper);
}

ZRBMutableURLRequestPtr ZRBHS_HTTPRequestSerializer::requestWithMethod(
    const std::optional<std::string_view>& method, const std::optional<std::string_view>& URLString,
    const ZRBValue& parameters, ZRBErrorPtr* error) {
  ZRBAssertNamed(method.has_value(), "method");
  ZRBAssertNamed(URLString.has_value(), "URLString");
  ZRBURLPtr url = URLString ? parsedURL(*URLString) : nullptr;
  ZRBAssertNamed(url != nullptr, "url");

  auto request = std::make_shared<ZRBMutableURLRequest>(url);
  request->setHTTPMethod(method ? std::string(*method) : std::string());
  std::unique_lock lock(mutex_);
  if (isSet(kAllowsCellularAccess)) request->setAllowsCellularAccess(allowsCellularAccess_);
  if (isSet(kCachePolicy)) request->setCachePolicy(cachePolicy_);
  if (isSet(kHTTPShouldHandleCookies)) request->setHTTPShouldHandleCookies(HTTPShouldHandleCookies_);
  if (isSet(kHTTPShouldUsePipelining)) request->setHTTPShouldUsePipelining(HTTPShouldUsePipelining_);
  if (isSet(kNetworkServiceType)) request->setNetworkServiceType(networkServiceType_);
  if (isSet(kTimeoutInterval)) request->setTimeoutInterval(timeoutInterval_);
  lock.unlock();

  // A plain serializer works on the request it just made; a subclass may serialize differently and
  // gets it through requestBySerializingRequest, which works on a copy.
  if (typeid(*this) == typeid(ZRBHS_HTTPRequestSerializer)) {
    if (!serializeInto(request, *request, parameters, error)) return nullptr;
    return request;
  }
  ZRBURLRequestPtr serialized = requestBySerializingRequest(request, parameters, error);
  if (!serialized) return nullptr;
  // The serialized request is usually a fresh mutable copy nobody else holds: hand it out as it is.
  if (serialized.use_count() == 1) {
    if (auto mutableRequest = std::dynamic_pointer_cast<ZRBMutableURLRequest>(serialized))
      return mutableRequest;
  }
  return serialized->mutableCopy();
}

ZRBURLRequestPtr ZRBHS_HTTPRequestSerializer::requestBySerializingRequest(const ZRBURLRequestPtr& request,
                                                                          const ZRBValue& parameters,
                                                                          ZRBErrorPtr* error) {
  ZRBAssertNamed(request != nullptr, "request");
  if (!request) return nullptr;

  ZRBMutableURLRequestPtr mutableRequest = request->mutableCopy();
  if (!serializeInto(request, *mutableRequest, parameters, error)) return nullptr;
  return mutableRequest;
}

bool ZRBHS_HTTPRequestSerializer::serializeInto(const ZRBURLRequestPtr& request, ZRBMutableURLRequest& target,
                                                const ZRBValue& parameters, ZRBErrorPtr* error) const {
  // The query first: a custom serialization sees the request as it was given.
  std::optional<std::string> query;
  if (!parameters.isAbsent()) {
    std::shared_ptr<const QueryStringSerialization> custom;
    ZRBHS_QueryStringSerializationStyle style;
    {
      std::lock_guard lock(mutex_);
      custom = queryStringSerialization_;
      style = style_;
    }
    if (custom) {
      ZRBErrorPtr serializationError;
      query = (*custom)(request, parameters, &serializationError);
      if (serializationError) {
        ZRBSetError(error, std::move(serializationError));
        return false;
      }
    } else if (style == ZRBHS_QueryStringStyleDefault) {
      query = ZRBHS_QueryStringFromParameters(parameters);
    }
  }
  ZRBMutableURLRequest* mutableRequest = &target;
  applyDefaultHeaders(*mutableRequest);

  if (encodesParametersInURI(mutableRequest->HTTPMethod())) {
    if (query && !query->empty()) {
      const ZRBURLPtr& url = mutableRequest->URL();
      // An empty query part ("http://h/p?") still counts as a query, so "&" follows it.
      bool hasQuery = url && url->query().has_value();
      std::string string = url ? url->absoluteString() : std::string("(null)");
      string += hasQuery ? '&' : '?';
      string += *query;
      mutableRequest->setURL(ZRBURL::URLWithString(string));
    }
  } else {
    // Body methods always get a body, even an empty one.
    if (!query) query.emplace();
    if (!mutableRequest->valueForHTTPHeaderField("Content-Type")) {
      mutableRequest->setValue("application/x-www-form-urlencoded", "Content-Type");
    }
    if (auto body = ZRBBytesFromString(*query, stringEncoding())) {
      mutableRequest->setHTTPBody(std::move(*body));
    } else {
      mutableRequest->setHTTPBody(ZRBValue());
    }
  }
  return true;
}

ZRBMutableURLRequestPtr ZRBHS_HTTPRequestSerializer::multipartFormRequestWithMethod(
    const std::optional<std::string_view>& method, const std::optional<std::string_view>& URLString,
    const ZRBValue& parameters, const MultipartFormConstructingBlock& block, ZRBErrorPtr* error) {
  ZRBAssertNamed(method.has_value(), "method");
  ZRBAssert(method != "GET" && method != "HEAD");

  // The plain request brings the headers and explicitly set properties; its empty form body is
  // replaced by the body stream once a part exists.
  ZRBMutableURLRequestPtr request = requestWithMethod(method, URLString, ZRBValue(), error);
  if (!request) return nullptr;

  // The builder's own texts are always UTF-8; only the field values follow stringEncoding().
  ZRBHS_StreamingMultipartFormData formData(std::move(request), ZRBUTF8StringEncoding);
  for (const ZRBHS_QueryStringPair& pair : ZRBHS_QueryStringPairsFromDictionary(parameters)) {
    const ZRBValue& value = pair.value();
    ZRBValue data;
    if (value.isData()) {
      data = value;
    } else if (value.isNull()) {
      data = ZRBValue::data(std::vector<std::uint8_t>{});
    } else if (!value.isAbsent()) {
      // An absent value (the lone pair of absent parameters) has no description and so no field.
      if (auto bytes = ZRBBytesFromString(value.description(), stringEncoding()))
        data = ZRBValue::data(std::move(*bytes));
    }
    if (data) formData.appendPartWithFormData(data, pair.field().description());
  }
  if (block) block(formData);
  return formData.requestByFinalizingMultipartFormData();
}

ZRBMutableURLRequestPtr ZRBHS_HTTPRequestSerializer::requestWithMultipartFormRequest(
    const ZRBURLRequestPtr& request, const ZRBURLPtr& fileURL,
    std::function<void(ZRBErrorPtr error)> completionHandler) {
  ZRBAssertNamed(request && request->HTTPBodyStream(), "request.HTTPBodyStream");
  ZRBAssertNamed(fileURL && fileURL->isFileURL(), "[fileURL isFileURL]");
  if (!request) return nullptr;

  ZRBInputStreamPtr inputStream = request->HTTPBodyStream();
  ZRBOutputStreamPtr outputStream =
      ZRBOutputStream::outputStreamToFileAtPath(fileURL ? fileURL->path() : std::string(), false);

  if (inputStream) {
    ZRBDispatch::globalQueue(ZRBQoSDefault)
        ->async([inputStream, outputStream, completionHandler = std::move(completionHandler)] {
          inputStream->open();
          outputStream->open();

          ZRBErrorPtr error;
          std::uint8_t buffer[1024];
          while (inputStream->hasBytesAvailable() && outputStream->hasSpaceAvailable()) {
            long bytesRead = inputStream->read(buffer, sizeof buffer);
            if (inputStream->streamError() || bytesRead < 0) {
              error = inputStream->streamError();
              break;
            }
            // A file may take fewer bytes than offered; what was read must all reach it.
            long bytesWritten = 0;
            while (bytesWritten < bytesRead) {
              long count = outputStream->write(buffer + bytesWritten,
                                               static_cast<std::size_t>(bytesRead - bytesWritten));
              if (count <= 0) break;
              bytesWritten += count;
            }
            if (outputStream->streamError() || bytesWritten < bytesRead) {
              error = outputStream->streamError();
              break;
            }
            if (bytesRead == 0 && bytesWritten == 0) break;
          }
          // A stream that failed to open (a target in a missing folder) never entered the loop.
          if (!error) error = inputStream->streamError();
          if (!error) error = outputStream->streamError();

          outputStream->close();
          inputStream->close();

          if (completionHandler) {
            ZRBDispatch::mainQueue()->async([completionHandler, error] { completionHandler(error); });
          }
        });
  }

  ZRBMutableURLRequestPtr mutableRequest = request->mutableCopy();
  mutableRequest->setHTTPBodyStream(nullptr);
  return mutableRequest;
}

void ZRBHS_HTTPRequestSerializer::copyStateInto(ZRBHS_HTTPRequestSerializer& fresh) const {
  std::scoped_lock lock(mutex_, fresh.mutex_);
  fresh.headers_ = headers_;  // immutable once stored, so the copy may share it
  fresh.style_ = style_;
  fresh.queryStringSerialization_ = queryStringSerialization_;
}

ZRBHS_HTTPRequestSerializerPtr ZRBHS_HTTPRequestSerializer::copy() const {
  auto fresh = std::make_shared<ZRBHS_HTTPRequestSerializer>();
  copyStateInto(*fresh);
  return fresh;
}

void ZRBHS_HTTPRequestSerializer::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  coder.encodeValue(HTTPRequestHeaders(), kHeadersKey);
  coder.encodeInteger(static_cast<std::int64_t>(queryStringSerializationStyle()), kStyleKey);
}

void ZRBHS_HTTPRequestSerializer::decodeStateFrom(ZRBKeyedUnarchiver& coder) {
  HeaderFields list;
  ZRBValue headers = coder.decodeValue(kHeadersKey, ZRBValueClass::Dictionary);
  for (const auto& [field, value] : headers.entries()) {
    if (value.isString()) list.emplace_back(field.string(), value.string());
  }
  auto decoded = std::make_shared<const Headers>(std::move(list));
  ZRBValue style = coder.decodeValue(kStyleKey, ZRBValueClass::Number);
  std::lock_guard lock(mutex_);
  headers_ = std::move(decoded);
  style_ = static_cast<ZRBHS_QueryStringSerializationStyle>(style.uintValue());
}

ZRBHS_HTTPRequestSerializerPtr ZRBHS_HTTPRequestSerializer::initWithCoder(ZRBKeyedUnarchiver& coder) {
  auto serializer = std::make_shared<ZRBHS_HTTPRequestSerializer>();
  serializer->decodeStateFrom(coder);
  return serializer;
}
