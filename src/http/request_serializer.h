// ZRBHS_HTTPRequestSerializer: turns (method, URL string, parameters) into a ZRBMutableURLRequest.
//
// A serializer holds default header fields, a few request properties and the rules for where the
// parameters go. Building a request:
//   1. a request for the URL with the method;
//   2. the request properties that were set explicitly on the serializer (and only those; the
//      request's own defaults apply otherwise), in the order of
//      ZRBHS_HTTPRequestSerializerObservedKeyPaths();
//   3. the serializer's default headers, wherever the request has no value for the field yet;
//   4. the parameters: for the methods in HTTPMethodsEncodingParametersInURI() (GET, HEAD, DELETE)
//      appended to the URL's query ("&" when it already has a query part, "?" otherwise); for any
//      other method as a form body ("application/x-www-form-urlencoded" unless the request has a
//      Content-Type), empty when there are no parameters.
// The JSON and property-list serializers (json_request_serializer.h,
// property_list_request_serializer.h) write body methods' parameters in their own format instead.
//
// Defaults: "Accept-Language" lists the preferred languages with falling q-values (at most six,
// "en-US;q=1, de;q=0.9, ..."); "User-Agent" is "<executable>/<version> (<model>; iOS <system
// version>; Scale/<scale with two decimals>)", reduced to ASCII when needed, from the main bundle's
// information map (CFBundleExecutable, else CFBundleIdentifier, else the executable's file name;
// CFBundleShortVersionString, else CFBundleVersion) and ZRBDevice. Both are derived once per
// process (the environment's languages as they are then) and shared by the fresh serializers; a
// language override, a change of a bundle's information map or of the device facts makes the next
// fresh serializer derive them again.
//
// Programming errors (a missing method, URL string or request, an unparsable URL) are ZRBAssert
// failures naming "method", "URLString", "url" or "request".
//
// Thread-safe: the agent changes headers and properties per request while other threads build
// requests. Accessors hand out copies, never references into the serializer; a request being built
// takes each part of the configuration as it stands at one moment (a snapshot), and a change
// affects only the requests built afterwards. Multipart bodies are built through
// multipartFormRequestWithMethod (see multipart_form_data.h for the form-data builder).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/keyed_archiver.h"
#include "platform/foundation/object.h"
#include "platform/foundation/text_encoding.h"
#include "platform/foundation/value.h"
#include "platform/net/url_request.h"

// How parameters become a query string when no custom callback is set.
enum ZRBHS_QueryStringSerializationStyle : unsigned long {
  // The escaping and naming rules of query_string.h.
  ZRBHS_QueryStringStyleDefault = 0,
};

// The request properties whose explicit setting is tracked, in the order they are copied to a
// request: "allowsCellularAccess", "cachePolicy", "HTTPShouldHandleCookies",
// "HTTPShouldUsePipelining", "networkServiceType", "timeoutInterval". Built once per process.
const std::vector<std::string>& ZRBHS_HTTPRequestSerializerObservedKeyPaths();

class ZRBHS_HTTPRequestSerializer;
class ZRBHS_StreamingMultipartFormData;
using ZRBHS_HTTPRequestSerializerPtr = std::shared_ptr<ZRBHS_HTTPRequestSerializer>;

class ZRBHS_HTTPRequestSerializer : public ZRBObject, public ZRBCoding {
 public:
  // A custom query encoder: (request, parameters, error out) -> the query, or nullopt for none.
  // Setting *error makes the serialization fail with that error.
  using QueryStringSerialization = std::function<std::optional<std::string>(
      const ZRBURLRequestPtr& request, const ZRBValue& parameters, ZRBErrorPtr* error)>;
  // Fills a multipart body through the form-data builder.
  using MultipartFormConstructingBlock = std::function<void(ZRBHS_StreamingMultipartFormData& formData)>;

  // Fresh defaults: UTF-8, the default headers computed now, GET/HEAD/DELETE in the URI, nothing
  // set explicitly.
  ZRBHS_HTTPRequestSerializer();
  static ZRBHS_HTTPRequestSerializerPtr serializer();

  // ---- request properties copied to requests only once set (any value, even the initial one) ----

  bool allowsCellularAccess() const;
  void setAllowsCellularAccess(bool allowsCellularAccess);
  ZRBURLRequestCachePolicy cachePolicy() const;
  void setCachePolicy(ZRBURLRequestCachePolicy cachePolicy);
  bool HTTPShouldHandleCookies() const;
  void setHTTPShouldHandleCookies(bool HTTPShouldHandleCookies);
  bool HTTPShouldUsePipelining() const;
  void setHTTPShouldUsePipelining(bool HTTPShouldUsePipelining);
  ZRBURLRequestNetworkServiceType networkServiceType() const;
  void setNetworkServiceType(ZRBURLRequestNetworkServiceType networkServiceType);
  double timeoutInterval() const;
  void setTimeoutInterval(double timeoutInterval);

  // Sets one of the properties above by name, from a number (or boolean). The null object clears
  // the property's explicitly-set mark instead and leaves its value alone. False for any other name
  // or a value that is not a number.
  bool setValueForKey(std::string_view key, const ZRBValue& value);
  // The property's value as a number; absent for any other name.
  ZRBValue valueForKey(std::string_view key) const;
  // The names of the properties set explicitly (mutableObservedChangedKeyPaths).
  std::set<std::string> mutableObservedChangedKeyPaths() const;

  // ---- encoding ----

  // Encoding of URL-encoded bodies; UTF-8 by default.
  ZRBStringEncoding stringEncoding() const { return stringEncoding_.load(std::memory_order_relaxed); }
  void setStringEncoding(ZRBStringEncoding stringEncoding) {
    stringEncoding_.store(stringEncoding, std::memory_order_relaxed);
  }
  // Methods (upper case) whose parameters go into the URL; a copy.
  std::set<std::string> HTTPMethodsEncodingParametersInURI() const;
  void setHTTPMethodsEncodingParametersInURI(std::set<std::string> methods);

  ZRBHS_QueryStringSerializationStyle queryStringSerializationStyle() const;
  // A copy of the custom callback (null when none is set).
  QueryStringSerialization queryStringSerialization() const;
  // Sets the style and drops any custom callback.
  void setQueryStringSerializationWithStyle(ZRBHS_QueryStringSerializationStyle style);
  // A custom callback; it takes precedence over the style, which is left as it is.
  void setQueryStringSerializationWithBlock(QueryStringSerialization block);

  // ---- default headers ----

  // A snapshot of the default headers as a dictionary of strings, in the order they were set.
  ZRBValue HTTPRequestHeaders() const;
  // A copy of the default header fields; names compare exactly (case-sensitively), as map keys.
  using HeaderFields = std::vector<std::pair<std::string, std::string>>;
  HeaderFields mutableHTTPRequestHeaders() const;
  // Stores the value under the field; nullopt removes the field.
  void setValueForHTTPHeaderField(std::optional<std::string> value, std::string_view field);
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  // "Authorization: Basic <base64 of "username:password" in UTF-8, no line breaks>".
  void setAuthorizationHeaderFieldWithUsername(std::string_view username, std::string_view password);
  void clearAuthorizationHeader();

  // ---- building requests ----

  // A request for `URLString` with `method`, the explicitly set properties, default headers and
  // parameters; null (with *error set) when serializing the parameters failed.
  ZRBMutableURLRequestPtr requestWithMethod(const std::optional<std::string_view>& method,
                                            const std::optional<std::string_view>& URLString,
                                            const ZRBValue& parameters, ZRBErrorPtr* error = nullptr);

  // A copy of `request` with the default headers it lacks and the parameters applied; the request
  // itself is left alone. Null (with *error set) when a custom query callback reports an error.
  virtual ZRBURLRequestPtr requestBySerializingRequest(const ZRBURLRequestPtr& request,
                                                       const ZRBValue& parameters,
                                                       ZRBErrorPtr* error = nullptr);

  // ---- multipart bodies ----

  // A request whose body streams multipart/form-data parts: the plain request for `method` and
  // `URLString` (no parameters), then one form field per query-string pair of `parameters` (in the
  // order and with the names of query_string.h; data values as they are, the null object as an
  // empty field, anything else as its description in stringEncoding()), then whatever `block`
  // appends. The builder writes its own texts in UTF-8. With no part at all the plain request comes
  // back as it is; otherwise it carries the body stream, "Content-Type: multipart/form-data;
  // boundary=B" and "Content-Length". GET and HEAD cannot carry a body: assertion failures, like
  // a missing method.
  ZRBMutableURLRequestPtr multipartFormRequestWithMethod(const std::optional<std::string_view>& method,
                                                         const std::optional<std::string_view>& URLString,
                                                         const ZRBValue& parameters,
                                                         const MultipartFormConstructingBlock& block,
                                                         ZRBErrorPtr* error = nullptr);

  // Writes the body stream of a multipart request to the file at `fileURL` (replacing it), for
  // callers that upload from a file instead. The copy runs on the default global queue in 1024-byte
  // steps; `completionHandler`, when given, is then called on the main queue with the stream error
  // that stopped it, or null. Returns at once a copy of the request without its body stream but
  // with its multipart headers. The request must have a body stream and `fileURL` must be a file
  // URL (assertion failures).
  ZRBMutableURLRequestPtr requestWithMultipartFormRequest(
      const ZRBURLRequestPtr& request, const ZRBURLPtr& fileURL,
      std::function<void(ZRBErrorPtr error)> completionHandler);

  // ---- copying and coding ----

  // A freshly initialised serializer of the same class carrying a copy of the headers (which
  // replaces the fresh ones whole), the style and the callback. Explicitly set properties, the
  // string encoding and the URI methods are not carried over. Subclasses override this.
  virtual ZRBHS_HTTPRequestSerializerPtr copy() const;

  static bool supportsSecureCoding() { return true; }
  // "mutableHTTPRequestHeaders" (dictionary of strings) and "queryStringSerializationStyle"
  // (integer).
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBHS_HTTPRequestSerializer"; }
  // A fresh serializer with the archived headers (none when the key is missing) and style.
  static ZRBHS_HTTPRequestSerializerPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_HTTPRequestSerializer"; }

 protected:
  // The serializer's default headers added to `request` where it has no value for the field.
  void applyDefaultHeaders(ZRBMutableURLRequest& request) const;
  // Whether the method's parameters go into the URL (compared upper-cased).
  bool encodesParametersInURI(std::string_view method) const;
  // What copy() carries over, into a fresh serializer.
  void copyStateInto(ZRBHS_HTTPRequestSerializer& fresh) const;
  // What initWithCoder reads, into a fresh serializer.
  void decodeStateFrom(ZRBKeyedUnarchiver& coder);

 private:
  enum ObservedProperty : unsigned {
    kAllowsCellularAccess,
    kCachePolicy,
    kHTTPShouldHandleCookies,
    kHTTPShouldUsePipelining,
    kNetworkServiceType,
    kTimeoutInterval,
    kObservedPropertyCount,
  };
  template <typename T>
  T readLocked(const T& field) const {
    std::lock_guard lock(mutex_);
    return field;
  }
  template <typename T>
  void writeLocked(T& field, T value, ObservedProperty property) {
    std::lock_guard lock(mutex_);
    field = value;
    markSet(property);
  }
  // What requestBySerializingRequest does to its copy (`target`) of `request`: false, with the
  // error set, when a custom query serialization failed. `target` may be `request` itself.
  bool serializeInto(const ZRBURLRequestPtr& request, ZRBMutableURLRequest& target,
                     const ZRBValue& parameters, ZRBErrorPtr* error) const;
  // Called with mutex_ held.
  void markSet(ObservedProperty property) { explicitlySet_ |= 1u << property; }
  bool isSet(ObservedProperty property) const { return explicitlySet_ >> property & 1u; }
  // The default headers as set, and the fields they give a request that has none of its own: made
  // once per change and shared by every such request, so that applying them copies no string.
  struct Headers {
    explicit Headers(HeaderFields fields);
    HeaderFields list;
    ZRBHTTPHeaderFields forBareRequest;
  };
  // A fresh serializer's headers (see defaultHeaders in the .cpp).
  static std::shared_ptr<const Headers> defaultHeaders();
  // The header fields and the method set are replaced whole on every change, so a reader keeps a
  // consistent snapshot without holding the lock while it uses it.
  std::shared_ptr<const Headers> headersSnapshot() const;
  std::shared_ptr<const std::set<std::string>> methodsSnapshot() const;

  mutable std::mutex mutex_;  // guards every field below except stringEncoding_
  bool allowsCellularAccess_ = false;
  bool HTTPShouldHandleCookies_ = false;
  bool HTTPShouldUsePipelining_ = false;
  ZRBURLRequestCachePolicy cachePolicy_ = ZRBURLRequestUseProtocolCachePolicy;
  ZRBURLRequestNetworkServiceType networkServiceType_ = ZRBURLNetworkServiceTypeDefault;
  double timeoutInterval_ = 0;
  std::shared_ptr<const std::set<std::string>> methodsInURI_;
  unsigned explicitlySet_ = 0;  // one bit per ObservedProperty
  std::shared_ptr<const Headers> headers_;
  ZRBHS_QueryStringSerializationStyle style_ = ZRBHS_QueryStringStyleDefault;
  std::shared_ptr<const QueryStringSerialization> queryStringSerialization_;  // null when none
  std::atomic<ZRBStringEncoding> stringEncoding_{ZRBUTF8StringEncoding};
};

// The default "Accept-Language" value for a list of language tags: "tag;q=1, tag;q=0.9, ...",
// stopping after q 0.5; empty for an empty list.
std::string ZRBHS_AcceptLanguageHeaderValue(const std::vector<std::string>& languages);
// The default "User-Agent" value for the current main bundle and device.
std::string ZRBHS_DefaultUserAgent();
