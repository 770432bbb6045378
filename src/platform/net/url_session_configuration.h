// ZRBURLSessionConfiguration: the options a URL session is created with.
//
// A session takes a copy of its configuration when it is created; changing the configuration
// object afterwards does not affect sessions made from it. The three kinds differ as on the
// platform:
// - default: shared cookie storage, no response cache unless one is set;
// - ephemeral: a private, in-memory cookie storage of its own;
// - background (with an identifier): like default, with the identifier recorded. This platform has
//   no out-of-process transfer daemon, so background tasks end with the process.
//
// Proxies: without a connectionProxyDictionary the usual environment variables apply (http_proxy,
// https_proxy, all_proxy, no_proxy), as they are when the session starts its first task. The
// dictionary, when set, uses the keys below.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/keyed_archiver.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/net/url_request.h"

class ZRBHTTPCookieStorage;
class ZRBURLCache;
class ZRBURLSessionConfiguration;
using ZRBURLSessionConfigurationPtr = std::shared_ptr<ZRBURLSessionConfiguration>;

enum ZRBHTTPCookieAcceptPolicy : unsigned long {
  ZRBHTTPCookieAcceptPolicyAlways = 0,
  ZRBHTTPCookieAcceptPolicyNever = 1,
  ZRBHTTPCookieAcceptPolicyOnlyFromMainDocumentDomain = 2,
};

// Keys of connectionProxyDictionary: "HTTPEnable" (bool), "HTTPProxy" (host), "HTTPPort" (integer),
// and the same with "HTTPS" for https URLs. A dictionary without an enabled entry for the URL's
// scheme means no proxy at all (the environment is then ignored).
inline constexpr std::string_view ZRBProxyHTTPEnable = "HTTPEnable";
inline constexpr std::string_view ZRBProxyHTTPProxy = "HTTPProxy";
inline constexpr std::string_view ZRBProxyHTTPPort = "HTTPPort";
inline constexpr std::string_view ZRBProxyHTTPSEnable = "HTTPSEnable";
inline constexpr std::string_view ZRBProxyHTTPSProxy = "HTTPSProxy";
inline constexpr std::string_view ZRBProxyHTTPSPort = "HTTPSPort";

class ZRBURLSessionConfiguration final : public ZRBObject, public ZRBCoding {
 public:
  static ZRBURLSessionConfigurationPtr defaultSessionConfiguration();
  static ZRBURLSessionConfigurationPtr ephemeralSessionConfiguration();
  static ZRBURLSessionConfigurationPtr backgroundSessionConfigurationWithIdentifier(std::string identifier);

  // Set for background configurations only.
  const std::optional<std::string>& identifier() const { return identifier_; }
  bool isEphemeral() const { return ephemeral_; }

  ZRBURLRequestCachePolicy requestCachePolicy() const { return requestCachePolicy_; }
  void setRequestCachePolicy(ZRBURLRequestCachePolicy policy) { requestCachePolicy_ = policy; }
  // Seconds a task may wait for more data (connecting included) before it fails with -1001. A
  // request's own timeoutInterval applies as well; the shorter one wins. Default 60.
  double timeoutIntervalForRequest() const { return timeoutIntervalForRequest_; }
  void setTimeoutIntervalForRequest(double seconds) { timeoutIntervalForRequest_ = seconds; }
  // Seconds a whole task may take, retries and redirects included. Default 7 days.
  double timeoutIntervalForResource() const { return timeoutIntervalForResource_; }
  void setTimeoutIntervalForResource(double seconds) { timeoutIntervalForResource_ = seconds; }
  ZRBURLRequestNetworkServiceType networkServiceType() const { return networkServiceType_; }
  void setNetworkServiceType(ZRBURLRequestNetworkServiceType type) { networkServiceType_ = type; }
  // Recorded only: this platform has no separate cellular path.
  bool allowsCellularAccess() const { return allowsCellularAccess_; }
  void setAllowsCellularAccess(bool allows) { allowsCellularAccess_ = allows; }
  bool isDiscretionary() const { return discretionary_; }
  void setDiscretionary(bool discretionary) { discretionary_ = discretionary; }
  bool sessionSendsLaunchEvents() const { return sessionSendsLaunchEvents_; }
  void setSessionSendsLaunchEvents(bool sends) { sessionSendsLaunchEvents_ = sends; }

  // Header fields added to every request that does not set them itself (a dictionary of strings).
  const ZRBValue& HTTPAdditionalHeaders() const { return HTTPAdditionalHeaders_; }
  void setHTTPAdditionalHeaders(ZRBValue headers) { HTTPAdditionalHeaders_ = std::move(headers); }
  // Simultaneous connections to one host (HTTP/2 streams share one). Default 6.
  long HTTPMaximumConnectionsPerHost() const { return HTTPMaximumConnectionsPerHost_; }
  void setHTTPMaximumConnectionsPerHost(long count) { HTTPMaximumConnectionsPerHost_ = count; }
  bool HTTPShouldUsePipelining() const { return HTTPShouldUsePipelining_; }
  void setHTTPShouldUsePipelining(bool uses) { HTTPShouldUsePipelining_ = uses; }
  // Cookies are sent and stored only when this is true, the request handles cookies, a storage is
  // set and the accept policy is not Never.
  bool HTTPShouldSetCookies() const { return HTTPShouldSetCookies_; }
  void setHTTPShouldSetCookies(bool sets) { HTTPShouldSetCookies_ = sets; }
  ZRBHTTPCookieAcceptPolicy HTTPCookieAcceptPolicy() const { return HTTPCookieAcceptPolicy_; }
  void setHTTPCookieAcceptPolicy(ZRBHTTPCookieAcceptPolicy policy) { HTTPCookieAcceptPolicy_ = policy; }
  const std::shared_ptr<ZRBHTTPCookieStorage>& HTTPCookieStorage() const { return cookieStorage_; }
  void setHTTPCookieStorage(std::shared_ptr<ZRBHTTPCookieStorage> storage) {
    cookieStorage_ = std::move(storage);
  }
  // Responses offered to the will-cache delegate callback are stored here; null (the default)
  // means no caching and no will-cache callback.
  const std::shared_ptr<ZRBURLCache>& URLCache() const { return URLCache_; }
  void setURLCache(std::shared_ptr<ZRBURLCache> cache) { URLCache_ = std::move(cache); }
  // Absent: proxies from the environment.
  const ZRBValue& connectionProxyDictionary() const { return connectionProxyDictionary_; }
  void setConnectionProxyDictionary(ZRBValue proxies) { connectionProxyDictionary_ = std::move(proxies); }

  // Fixed addresses for host names, as "HOST:PORT:ADDRESS" entries (curl's --resolve): a task to
  // HOST on PORT connects to ADDRESS (several separated by commas; IPv6 in brackets) while the URL's
  // host still names the server for the Host field, SNI and certificate checks. Empty (the default):
  // names are looked up as usual. Once used, an entry stays in the transport's shared name cache for
  // the life of the process.
  const std::vector<std::string>& resolveEntries() const { return resolveEntries_; }
  void setResolveEntries(std::vector<std::string> entries) { resolveEntries_ = std::move(entries); }

  ZRBURLSessionConfigurationPtr copy() const;

  // Archives every option except the cookie storage and the cache (objects of the process).
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBURLSessionConfiguration"; }
  static ZRBURLSessionConfigurationPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBURLSessionConfiguration"; }
  // "<ZRBURLSessionConfiguration: 0x...> { identifier: ..., timeouts: 60/604800 }".
  std::string description() const override;

  ZRBURLSessionConfiguration() = default;

 private:
  std::optional<std::string> identifier_;
  bool ephemeral_ = false;
  ZRBURLRequestCachePolicy requestCachePolicy_ = ZRBURLRequestUseProtocolCachePolicy;
  double timeoutIntervalForRequest_ = 60;
  double timeoutIntervalForResource_ = 7 * 24 * 3600;
  ZRBURLRequestNetworkServiceType networkServiceType_ = ZRBURLNetworkServiceTypeDefault;
  bool allowsCellularAccess_ = true;
  bool discretionary_ = false;
  bool sessionSendsLaunchEvents_ = false;
  ZRBValue HTTPAdditionalHeaders_;
  long HTTPMaximumConnectionsPerHost_ = 6;
  bool HTTPShouldUsePipelining_ = false;
  bool HTTPShouldSetCookies_ = true;
  ZRBHTTPCookieAcceptPolicy HTTPCookieAcceptPolicy_ = ZRBHTTPCookieAcceptPolicyAlways;
  std::shared_ptr<ZRBHTTPCookieStorage> cookieStorage_;
  std::shared_ptr<ZRBURLCache> URLCache_;
  ZRBValue connectionProxyDictionary_;
  std::vector<std::string> resolveEntries_;
};
