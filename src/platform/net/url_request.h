// ZRBURLRequest and ZRBMutableURLRequest: what the URL loading service is asked to load.
//
// A request is a value: the URL, the HTTP method, header fields, an optional body (bytes or a
// stream, never both) and the loading options. ZRBURLRequest offers reading only;
// ZRBMutableURLRequest adds the setters. copy() gives an independent immutable request (an
// immutable request owned by a shared pointer is returned itself) and mutableCopy() an independent
// mutable one; neither shares mutable state with the original (a body stream is shared, as a
// stream can only be read once anyway). A mutable request is not
// safe to change from two threads at once.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/net/http_header_fields.h"

class ZRBInputStream;

// The platform's cache policy values.
enum ZRBURLRequestCachePolicy : unsigned long {
  ZRBURLRequestUseProtocolCachePolicy = 0,
  ZRBURLRequestReloadIgnoringLocalCacheData = 1,
  ZRBURLRequestReloadIgnoringLocalAndRemoteCacheData = 4,
  ZRBURLRequestReloadIgnoringCacheData = ZRBURLRequestReloadIgnoringLocalCacheData,
  ZRBURLRequestReturnCacheDataElseLoad = 2,
  ZRBURLRequestReturnCacheDataDontLoad = 3,
  ZRBURLRequestReloadRevalidatingCacheData = 5,
};

// The platform's network service type values.
enum ZRBURLRequestNetworkServiceType : unsigned long {
  ZRBURLNetworkServiceTypeDefault = 0,
  ZRBURLNetworkServiceTypeVoIP = 1,
  ZRBURLNetworkServiceTypeVideo = 2,
  ZRBURLNetworkServiceTypeBackground = 3,
  ZRBURLNetworkServiceTypeVoice = 4,
  ZRBURLNetworkServiceTypeResponsiveData = 6,
  ZRBURLNetworkServiceTypeAVStreaming = 8,
  ZRBURLNetworkServiceTypeResponsiveAV = 9,
  ZRBURLNetworkServiceTypeCallSignaling = 11,
};

class ZRBURLRequest;
class ZRBMutableURLRequest;
using ZRBURLRequestPtr = std::shared_ptr<ZRBURLRequest>;
using ZRBMutableURLRequestPtr = std::shared_ptr<ZRBMutableURLRequest>;

class ZRBURLRequest : public ZRBObject {
 public:
  static constexpr double kDefaultTimeoutInterval = 60;

  // A GET request with the default options; the URL may be null.
  explicit ZRBURLRequest(ZRBURLPtr url = nullptr,
                         ZRBURLRequestCachePolicy cachePolicy = ZRBURLRequestUseProtocolCachePolicy,
                         double timeoutInterval = kDefaultTimeoutInterval);
  static ZRBURLRequestPtr requestWithURL(ZRBURLPtr url);
  static ZRBURLRequestPtr requestWithURL(ZRBURLPtr url, ZRBURLRequestCachePolicy cachePolicy,
                                         double timeoutInterval);

  const ZRBURLPtr& URL() const { return url_; }
  const ZRBURLPtr& mainDocumentURL() const { return mainDocumentURL_; }
  // "GET" unless set.
  const std::string& HTTPMethod() const { return method_; }
  ZRBURLRequestCachePolicy cachePolicy() const { return cachePolicy_; }
  double timeoutInterval() const { return timeoutInterval_; }
  ZRBURLRequestNetworkServiceType networkServiceType() const { return networkServiceType_; }
  bool allowsCellularAccess() const { return allowsCellularAccess_; }
  bool HTTPShouldHandleCookies() const { return HTTPShouldHandleCookies_; }
  bool HTTPShouldUsePipelining() const { return HTTPShouldUsePipelining_; }

  // The value of a header field, looked up without regard to case.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  // A dictionary of strings in the order the fields were first set, each name in its first
  // spelling; absent when the request has no header fields.
  ZRBValue allHTTPHeaderFields() const;
  const ZRBHTTPHeaderFields& headerFields() const { return headers_; }
  // Whether the request goes without a field that the transport adds on its own to a request
  // without it (User-Agent, Accept-Encoding): curl's "Name:" for a field nobody set. Names ignore
  // case. A field the request has is sent all the same.
  bool omitsHTTPHeaderField(std::string_view field) const;
  const std::vector<std::string>& omittedHTTPHeaderFields() const { return omittedFields_; }

  // The body bytes as a data value, absent when there is none (an empty body is not absent).
  const ZRBValue& HTTPBody() const { return body_; }
  const std::shared_ptr<ZRBInputStream>& HTTPBodyStream() const { return bodyStream_; }

  ZRBURLRequestPtr copy() const;
  ZRBMutableURLRequestPtr mutableCopy() const;

  std::string className() const override { return "ZRBURLRequest"; }
  // "<ZRBURLRequest: 0x...> { URL: http://... }".
  std::string description() const override;
  // Same URL, method, options, header fields and omitted ones, body bytes and body stream (by
  // identity).
  bool isEqual(const ZRBObject& other) const override;
  std::size_t hash() const override;

 protected:
  ZRBURLPtr url_;
  ZRBURLPtr mainDocumentURL_;
  std::string method_ = "GET";
  ZRBURLRequestCachePolicy cachePolicy_;
  double timeoutInterval_;
  ZRBURLRequestNetworkServiceType networkServiceType_ = ZRBURLNetworkServiceTypeDefault;
  bool allowsCellularAccess_ = true;
  bool HTTPShouldHandleCookies_ = true;
  bool HTTPShouldUsePipelining_ = false;
  ZRBHTTPHeaderFields headers_;
  std::vector<std::string> omittedFields_;  // first spelling of each name
  ZRBValue body_;
  std::shared_ptr<ZRBInputStream> bodyStream_;

  void copyStateFrom(const ZRBURLRequest& other);
  bool sameOmissions(const ZRBURLRequest& other) const;
};

class ZRBMutableURLRequest final : public ZRBURLRequest {
 public:
  using ZRBURLRequest::ZRBURLRequest;
  static ZRBMutableURLRequestPtr requestWithURL(ZRBURLPtr url);
  static ZRBMutableURLRequestPtr requestWithURL(ZRBURLPtr url, ZRBURLRequestCachePolicy cachePolicy,
                                                double timeoutInterval);

  void setURL(ZRBURLPtr url) { url_ = std::move(url); }
  void setMainDocumentURL(ZRBURLPtr url) { mainDocumentURL_ = std::move(url); }
  // An empty method means "GET".
  void setHTTPMethod(std::string method) { method_ = method.empty() ? "GET" : std::move(method); }
  void setCachePolicy(ZRBURLRequestCachePolicy policy) { cachePolicy_ = policy; }
  void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }
  void setNetworkServiceType(ZRBURLRequestNetworkServiceType type) { networkServiceType_ = type; }
  void setAllowsCellularAccess(bool allows) { allowsCellularAccess_ = allows; }
  void setHTTPShouldHandleCookies(bool handles) { HTTPShouldHandleCookies_ = handles; }
  void setHTTPShouldUsePipelining(bool uses) { HTTPShouldUsePipelining_ = uses; }

  // Replaces the field's value (names compare without regard to case); nullopt removes it.
  void setValue(std::optional<std::string> value, std::string_view field) {
    headers_.set(field, std::move(value));
  }
  // Appends to an existing value after ", ", or sets it.
  void addValue(std::string_view value, std::string_view field) { headers_.add(field, value); }
  // Replaces every field; string values as they are, other values by their description.
  void setAllHTTPHeaderFields(const ZRBValue& fields) {
    headers_ = ZRBHTTPHeaderFields::fromDictionary(fields);
  }
  void setHeaderFields(ZRBHTTPHeaderFields fields) { headers_ = std::move(fields); }
  // See omitsHTTPHeaderField.
  void setOmitsHTTPHeaderField(std::string_view field, bool omits);

  // A data value (a string value stands for its UTF-8 bytes) or absent. A body removes any body
  // stream; absent just removes the body.
  void setHTTPBody(ZRBValue body);
  void setHTTPBody(std::vector<std::uint8_t> bytes) { setHTTPBody(ZRBValue::data(std::move(bytes))); }
  // A stream removes any body bytes; null just removes the stream.
  void setHTTPBodyStream(std::shared_ptr<ZRBInputStream> stream);

  std::string className() const override { return "ZRBMutableURLRequest"; }
};
