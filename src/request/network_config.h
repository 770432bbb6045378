// ZRBRQ_NetworkConfig: the request layer's process-wide configuration, and the two filter protocols
// that the host plugs into it.
//
// The network agent reads it: the default base and CDN URLs and the URL filters for every request
// (a relative request URL passes the filters in order, then is resolved against a base URL), the
// cache-directory filters for the response cache's base path, and the security policy and session
// configuration once, when the agent is created. debugLogEnabled switches ZRBNetworkLog's printing
// to standard output (network_log.h).
//
// Defaults after construction: no filters, debug printing off, empty base and CDN URLs, a new
// ZRBHS_SecurityPolicy::defaultPolicy(), no session configuration (null: the session manager uses
// its own default).
//
// Filters are appended as given (no check for null or duplicates); urlFilters() and
// cacheDirPathFilters() return copies, so callers iterate a snapshot. The host should set the
// configuration up before the first request; every field is nevertheless guarded by a lock (the
// debug switch is atomic), so reading while another thread changes a field is not a data race.
//
// The host's debug switch g_DebugFlag, which nothing here reads, is exported by the settings layer
// (settings/exported_symbols.h).
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "http/security_policy.h"
#include "platform/foundation/object.h"
#include "platform/net/url_session_configuration.h"

// The request that the filters are told about; only passed through here, so declared, not included.
class ZRBRQ_BaseRequest;

// Rewrites a relative request URL before it is resolved against a base URL.
class ZRBRQ_UrlFilterProtocol {
 public:
  virtual ~ZRBRQ_UrlFilterProtocol() = default;
  // filterUrl:withRequest: the URL to use instead of `originUrl` for `request`.
  virtual std::string filterUrl(const std::string& originUrl,
                                const std::shared_ptr<ZRBRQ_BaseRequest>& request) = 0;
};

// Rewrites the response cache's base path for a request.
class ZRBRQ_CacheDirPathFilterProtocol {
 public:
  virtual ~ZRBRQ_CacheDirPathFilterProtocol() = default;
  // filterCacheDirPath:withRequest: the path to use instead of `originPath` for `request`.
  virtual std::string filterCacheDirPath(const std::string& originPath,
                                         const std::shared_ptr<ZRBRQ_BaseRequest>& request) = 0;
};

using ZRBRQ_UrlFilterPtr = std::shared_ptr<ZRBRQ_UrlFilterProtocol>;
using ZRBRQ_CacheDirPathFilterPtr = std::shared_ptr<ZRBRQ_CacheDirPathFilterProtocol>;

class ZRBRQ_NetworkConfig;
using ZRBRQ_NetworkConfigPtr = std::shared_ptr<ZRBRQ_NetworkConfig>;

class ZRBRQ_NetworkConfig final : public ZRBObject {
 public:
  // The single configuration, created once on first use (thread-safe) and kept for the process.
  static const ZRBRQ_NetworkConfigPtr& sharedConfig();

  // A configuration in the default state above.
  ZRBRQ_NetworkConfig();

  // ---- filters ----

  // Appends to urlFilters (a null filter or a duplicate is appended as well).
  void addUrlFilter(ZRBRQ_UrlFilterPtr filter);
  // Removes every URL filter.
  void clearUrlFilter();
  // Appends to cacheDirPathFilters.
  void addCacheDirPathFilter(ZRBRQ_CacheDirPathFilterPtr filter);
  // Removes every cache-directory filter.
  void clearCacheDirPathFilter();
  // Copies of the filter lists, in the order they were added.
  std::vector<ZRBRQ_UrlFilterPtr> urlFilters() const;
  std::vector<ZRBRQ_CacheDirPathFilterPtr> cacheDirPathFilters() const;

  // What building a relative request URL reads, in one hold of the lock and without copying: the
  // URL filters and the two base URLs as they are now (never null; later changes replace them).
  struct UrlSettings {
    std::shared_ptr<const std::vector<ZRBRQ_UrlFilterPtr>> urlFilters;
    std::shared_ptr<const std::string> baseUrl;
    std::shared_ptr<const std::string> cdnUrl;
  };
  UrlSettings urlSettings() const;

  // ---- fields ----

  std::string baseUrl() const;
  void setBaseUrl(std::string baseUrl);
  std::string cdnUrl() const;
  void setCdnUrl(std::string cdnUrl);
  ZRBHS_SecurityPolicyPtr securityPolicy() const;
  void setSecurityPolicy(ZRBHS_SecurityPolicyPtr securityPolicy);
  bool debugLogEnabled() const { return debugLogEnabled_.load(std::memory_order_relaxed); }
  void setDebugLogEnabled(bool enabled) { debugLogEnabled_.store(enabled, std::memory_order_relaxed); }
  // May be null.
  ZRBURLSessionConfigurationPtr sessionConfiguration() const;
  void setSessionConfiguration(ZRBURLSessionConfigurationPtr sessionConfiguration);

  std::string className() const override { return "ZRBRQ_NetworkConfig"; }
  // "<ZRBRQ_NetworkConfig: 0x...>{ baseURL: <baseUrl> } { cdnURL: <cdnUrl> }".
  std::string description() const override;

 private:
  mutable std::mutex mutex_;
  // Replaced, never changed in place, so that urlSettings() hands them out without copies.
  std::shared_ptr<const std::vector<ZRBRQ_UrlFilterPtr>> urlFilters_;
  std::vector<ZRBRQ_CacheDirPathFilterPtr> cacheDirPathFilters_;
  std::atomic<bool> debugLogEnabled_{false};
  std::shared_ptr<const std::string> baseUrl_;
  std::shared_ptr<const std::string> cdnUrl_;
  ZRBHS_SecurityPolicyPtr securityPolicy_;
  ZRBURLSessionConfigurationPtr sessionConfiguration_;
};
