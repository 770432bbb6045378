#include "platform/net/url_session_configuration.h"

#include "platform/foundation/string_format.h"
#include "platform/net/http_cookie_storage.h"

ZRB_REGISTER_CODING_CLASS(ZRBURLSessionConfiguration);

ZRBURLSessionConfigurationPtr ZRBURLSessionConfiguration::defaultSessionConfiguration() {
  auto configuration = std::make_shared<ZRBURLSessionConfiguration>();
  configuration->cookieStorage_ = ZRBHTTPCookieStorage::sharedHTTPCookieStorage();
  return configuration;
}

ZRBURLSessionConfigurationPtr ZRBURLSessionConfiguration::ephemeralSessionConfiguration() {
  auto configuration = std::make_shared<ZRBURLSessionConfiguration>();
  configuration->ephemeral_ = true;
  configuration->cookieStorage_ = ZRBHTTPCookieStorage::make();
  return configuration;
}

ZRBURLSessionConfigurationPtr ZRBURLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
    std::string identifier) {
  auto configuration = defaultSessionConfiguration();
  configuration->identifier_ = std::move(identifier);
  return configuration;
}

ZRBURLSessionConfigurationPtr ZRBURLSessionConfiguration::copy() const {
  auto other = std::make_shared<ZRBURLSessionConfiguration>();
  other->identifier_ = identifier_;
  other->ephemeral_ = ephemeral_;
  other->requestCachePolicy_ = requestCachePolicy_;
  other->timeoutIntervalForRequest_ = timeoutIntervalForRequest_;
  other->timeoutIntervalForResource_ = timeoutIntervalForResource_;
  other->networkServiceType_ = networkServiceType_;
  other->allowsCellularAccess_ = allowsCellularAccess_;
  other->discretionary_ = discretionary_;
  other->sessionSendsLaunchEvents_ = sessionSendsLaunchEvents_;
  other->HTTPAdditionalHeaders_ = HTTPAdditionalHeaders_;
  other->HTTPMaximumConnectionsPerHost_ = HTTPMaximumConnectionsPerHost_;
  other->HTTPShouldUsePipelining_ = HTTPShouldUsePipelining_;
  other->HTTPShouldSetCookies_ = HTTPShouldSetCookies_;
  other->HTTPCookieAcceptPolicy_ = HTTPCookieAcceptPolicy_;
  other->cookieStorage_ = cookieStorage_;
  other->URLCache_ = URLCache_;
  other->connectionProxyDictionary_ = connectionProxyDictionary_;
  other->resolveEntries_ = resolveEntries_;
  return other;
}

void ZRBURLSessionConfiguration::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  if (identifier_) coder.encodeString(*identifier_, "identifier");
  coder.encodeBool(ephemeral_, "ephemeral");
  coder.encodeInteger(requestCachePolicy_, "requestCachePolicy");
  coder.encodeDouble(timeoutIntervalForRequest_, "timeoutIntervalForRequest");
  coder.encodeDouble(timeoutIntervalForResource_, "timeoutIntervalForResource");
  coder.encodeInteger(networkServiceType_, "networkServiceType");
  coder.encodeBool(allowsCellularAccess_, "allowsCellularAccess");
  coder.encodeBool(discretionary_, "discretionary");
  coder.encodeBool(sessionSendsLaunchEvents_, "sessionSendsLaunchEvents");
  if (!HTTPAdditionalHeaders_.isAbsent()) coder.encodeValue(HTTPAdditionalHeaders_, "HTTPAdditionalHeaders");
  coder.encodeInteger(HTTPMaximumConnectionsPerHost_, "HTTPMaximumConnectionsPerHost");
  coder.encodeBool(HTTPShouldUsePipelining_, "HTTPShouldUsePipelining");
  coder.encodeBool(HTTPShouldSetCookies_, "HTTPShouldSetCookies");
  coder.encodeInteger(HTTPCookieAcceptPolicy_, "HTTPCookieAcceptPolicy");
  if (!connectionProxyDictionary_.isAbsent()) {
    coder.encodeValue(connectionProxyDictionary_, "connectionProxyDictionary");
  }
  if (!resolveEntries_.empty()) {
    ZRBArrayBuilder entries;
    for (const auto& entry : resolveEntries_) entries.add(ZRBValue(entry));
    coder.encodeValue(entries.build(), "resolveEntries");
  }
}

ZRBURLSessionConfigurationPtr ZRBURLSessionConfiguration::initWithCoder(ZRBKeyedUnarchiver& coder) {
  ZRBURLSessionConfigurationPtr configuration;
  if (auto identifier = coder.decodeString("identifier")) {
    configuration = backgroundSessionConfigurationWithIdentifier(*identifier);
  } else if (coder.decodeBool("ephemeral").value_or(false)) {
    configuration = ephemeralSessionConfiguration();
  } else {
    configuration = defaultSessionConfiguration();
  }
  auto& c = *configuration;
  if (auto v = coder.decodeInteger("requestCachePolicy"))
    c.requestCachePolicy_ = ZRBURLRequestCachePolicy(*v);
  if (auto v = coder.decodeDouble("timeoutIntervalForRequest")) c.timeoutIntervalForRequest_ = *v;
  if (auto v = coder.decodeDouble("timeoutIntervalForResource")) c.timeoutIntervalForResource_ = *v;
  if (auto v = coder.decodeInteger("networkServiceType")) {
    c.networkServiceType_ = ZRBURLRequestNetworkServiceType(*v);
  }
  if (auto v = coder.decodeBool("allowsCellularAccess")) c.allowsCellularAccess_ = *v;
  if (auto v = coder.decodeBool("discretionary")) c.discretionary_ = *v;
  if (auto v = coder.decodeBool("sessionSendsLaunchEvents")) c.sessionSendsLaunchEvents_ = *v;
  c.HTTPAdditionalHeaders_ = coder.decodeValue("HTTPAdditionalHeaders", ZRBValueClass::Dictionary);
  if (auto v = coder.decodeInteger("HTTPMaximumConnectionsPerHost"))
    c.HTTPMaximumConnectionsPerHost_ = long(*v);
  if (auto v = coder.decodeBool("HTTPShouldUsePipelining")) c.HTTPShouldUsePipelining_ = *v;
  if (auto v = coder.decodeBool("HTTPShouldSetCookies")) c.HTTPShouldSetCookies_ = *v;
  if (auto v = coder.decodeInteger("HTTPCookieAcceptPolicy"))
    c.HTTPCookieAcceptPolicy_ = ZRBHTTPCookieAcceptPolicy(*v);
  c.connectionProxyDictionary_ = coder.decodeValue("connectionProxyDictionary", ZRBValueClass::Dictionary);
  for (const ZRBValue& entry : coder.decodeValue("resolveEntries", ZRBValueClass::Array).items()) {
    if (entry.isString()) c.resolveEntries_.push_back(entry.string());
  }
  return configuration;
}

std::string ZRBURLSessionConfiguration::description() const {
  return ZRBStringWithFormat("<%@: %p> { identifier: %@, timeouts: %g/%g }", className(), this,
                             identifier_ ? ZRBValue(*identifier_) : ZRBValue(), timeoutIntervalForRequest_,
                             timeoutIntervalForResource_);
}
