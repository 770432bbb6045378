#include "platform/net/url_request.h"

#include <algorithm>
#include <functional>
#include <typeinfo>

ZRBURLRequest::ZRBURLRequest(ZRBURLPtr url, ZRBURLRequestCachePolicy cachePolicy, double timeoutInterval)
    : url_(std::move(url)), cachePolicy_(cachePolicy), timeoutInterval_(timeoutInterval) {}

ZRBURLRequestPtr ZRBURLRequest::requestWithURL(ZRBURLPtr url) {
  return std::make_shared<ZRBURLRequest>(std::move(url));
}

ZRBURLRequestPtr ZRBURLRequest::requestWithURL(ZRBURLPtr url, ZRBURLRequestCachePolicy cachePolicy,
                                               double timeoutInterval) {
  return std::make_shared<ZRBURLRequest>(std::move(url), cachePolicy, timeoutInterval);
}

ZRBMutableURLRequestPtr ZRBMutableURLRequest::requestWithURL(ZRBURLPtr url) {
  return std::make_shared<ZRBMutableURLRequest>(std::move(url));
}

ZRBMutableURLRequestPtr ZRBMutableURLRequest::requestWithURL(ZRBURLPtr url,
                                                             ZRBURLRequestCachePolicy cachePolicy,
                                                             double timeoutInterval) {
  return std::make_shared<ZRBMutableURLRequest>(std::move(url), cachePolicy, timeoutInterval);
}

void ZRBURLRequest::copyStateFrom(const ZRBURLRequest& other) {
  url_ = other.url_;
  mainDocumentURL_ = other.mainDocumentURL_;
  method_ = other.method_;
  cachePolicy_ = other.cachePolicy_;
  timeoutInterval_ = other.timeoutInterval_;
  networkServiceType_ = other.networkServiceType_;
  allowsCellularAccess_ = other.allowsCellularAccess_;
  HTTPShouldHandleCookies_ = other.HTTPShouldHandleCookies_;
  HTTPShouldUsePipelining_ = other.HTTPShouldUsePipelining_;
  headers_ = other.headers_;
  omittedFields_ = other.omittedFields_;
  body_ = other.body_;
  bodyStream_ = other.bodyStream_;
}

std::optional<std::string> ZRBURLRequest::valueForHTTPHeaderField(std::string_view field) const {
  return headers_.value(field);
}

bool ZRBURLRequest::omitsHTTPHeaderField(std::string_view field) const {
  return std::any_of(omittedFields_.begin(), omittedFields_.end(),
                     [field](const std::string& name) { return ZRBHTTPHeaderNameEquals(name, field); });
}

void ZRBMutableURLRequest::setOmitsHTTPHeaderField(std::string_view field, bool omits) {
  auto found = std::find_if(omittedFields_.begin(), omittedFields_.end(), [field](const std::string& name) {
    return ZRBHTTPHeaderNameEquals(name, field);
  });
  if (omits && found == omittedFields_.end()) omittedFields_.emplace_back(field);
  if (!omits && found != omittedFields_.end()) omittedFields_.erase(found);
}

ZRBValue ZRBURLRequest::allHTTPHeaderFields() const {
  if (headers_.empty()) return ZRBValue();
  return headers_.dictionary();
}

ZRBURLRequestPtr ZRBURLRequest::copy() const {
  // An immutable request is its own copy, as on the platform.
  if (typeid(*this) == typeid(ZRBURLRequest)) {
    if (auto self = weak_from_this().lock()) {
      return std::static_pointer_cast<ZRBURLRequest>(std::const_pointer_cast<ZRBObject>(self));
    }
  }
  auto request = std::make_shared<ZRBURLRequest>();
  request->copyStateFrom(*this);
  return request;
}

ZRBMutableURLRequestPtr ZRBURLRequest::mutableCopy() const {
  auto request = std::make_shared<ZRBMutableURLRequest>();
  request->copyStateFrom(*this);
  return request;
}

std::string ZRBURLRequest::description() const {
  return ZRBObject::description() + " { URL: " + (url_ ? url_->absoluteString() : std::string("(null)")) +
         " }";
}

bool ZRBURLRequest::sameOmissions(const ZRBURLRequest& other) const {
  return omittedFields_.size() == other.omittedFields_.size() &&
         std::all_of(omittedFields_.begin(), omittedFields_.end(),
                     [&other](const std::string& name) { return other.omitsHTTPHeaderField(name); });
}

bool ZRBURLRequest::isEqual(const ZRBObject& other) const {
  auto* r = dynamic_cast<const ZRBURLRequest*>(&other);
  if (!r) return false;
  auto sameURL = [](const ZRBURLPtr& a, const ZRBURLPtr& b) { return a == b || (a && b && a->isEqual(*b)); };
  return sameURL(url_, r->url_) && sameURL(mainDocumentURL_, r->mainDocumentURL_) && method_ == r->method_ &&
         cachePolicy_ == r->cachePolicy_ && timeoutInterval_ == r->timeoutInterval_ &&
         networkServiceType_ == r->networkServiceType_ && allowsCellularAccess_ == r->allowsCellularAccess_ &&
         HTTPShouldHandleCookies_ == r->HTTPShouldHandleCookies_ &&
         HTTPShouldUsePipelining_ == r->HTTPShouldUsePipelining_ && headers_ == r->headers_ &&
         sameOmissions(*r) && body_ == r->body_ && bodyStream_ == r->bodyStream_;
}

std::size_t ZRBURLRequest::hash() const {
  return (url_ ? url_->hash() : 0) ^ (std::hash<std::string>{}(method_) << 1);
}

void ZRBMutableURLRequest::setHTTPBody(ZRBValue body) {
  if (body.isString()) body = ZRBValue::data(body.stringView());
  if (!body.isData()) body = ZRBValue();
  if (!body.isAbsent()) bodyStream_.reset();
  body_ = std::move(body);
}

void ZRBMutableURLRequest::setHTTPBodyStream(std::shared_ptr<ZRBInputStream> stream) {
  if (stream) body_ = ZRBValue();
  bodyStream_ = std::move(stream);
}
