#include "request/network_config.h"

#include <utility>

#include "platform/foundation/string_format.h"

const ZRBRQ_NetworkConfigPtr& ZRBRQ_NetworkConfig::sharedConfig() {
  // Never destroyed: requests finishing while the process exits still read it.
  static const auto* instance = new ZRBRQ_NetworkConfigPtr(std::make_shared<ZRBRQ_NetworkConfig>());
  return *instance;
}

ZRBRQ_NetworkConfig::ZRBRQ_NetworkConfig() : securityPolicy_(ZRBHS_SecurityPolicy::defaultPolicy()) {}

void ZRBRQ_NetworkConfig::addUrlFilter(ZRBRQ_UrlFilterPtr filter) {
  std::lock_guard lock(mutex_);
  urlFilters_.push_back(std::move(filter));
}

void ZRBRQ_NetworkConfig::clearUrlFilter() {
  std::lock_guard lock(mutex_);
  urlFilters_.clear();
}

void ZRBRQ_NetworkConfig::addCacheDirPathFilter(ZRBRQ_CacheDirPathFilterPtr filter) {
  std::lock_guard lock(mutex_);
  cacheDirPathFilters_.push_back(std::move(filter));
}

void ZRBRQ_NetworkConfig::clearCacheDirPathFilter() {
  std::lock_guard lock(mutex_);
  cacheDirPathFilters_.clear();
}

std::vector<ZRBRQ_UrlFilterPtr> ZRBRQ_NetworkConfig::urlFilters() const {
  std::lock_guard lock(mutex_);
  return urlFilters_;
}

std::vector<ZRBRQ_CacheDirPathFilterPtr> ZRBRQ_NetworkConfig::cacheDirPathFilters() const {
  std::lock_guard lock(mutex_);
  return cacheDirPathFilters_;
}

std::string ZRBRQ_NetworkConfig::baseUrl() const {
  std::lock_guard lock(mutex_);
  return baseUrl_;
}

void ZRBRQ_NetworkConfig::setBaseUrl(std::string baseUrl) {
  std::lock_guard lock(mutex_);
  baseUrl_ = std::move(baseUrl);
}

std::string ZRBRQ_NetworkConfig::cdnUrl() const {
  std::lock_guard lock(mutex_);
  return cdnUrl_;
}

void ZRBRQ_NetworkConfig::setCdnUrl(std::string cdnUrl) {
  std::lock_guard lock(mutex_);
  cdnUrl_ = std::move(cdnUrl);
}

ZRBHS_SecurityPolicyPtr ZRBRQ_NetworkConfig::securityPolicy() const {
  std::lock_guard lock(mutex_);
  return securityPolicy_;
}

void ZRBRQ_NetworkConfig::setSecurityPolicy(ZRBHS_SecurityPolicyPtr securityPolicy) {
  std::lock_guard lock(mutex_);
  securityPolicy_ = std::move(securityPolicy);
}

ZRBURLSessionConfigurationPtr ZRBRQ_NetworkConfig::sessionConfiguration() const {
  std::lock_guard lock(mutex_);
  return sessionConfiguration_;
}

void ZRBRQ_NetworkConfig::setSessionConfiguration(ZRBURLSessionConfigurationPtr sessionConfiguration) {
  std::lock_guard lock(mutex_);
  sessionConfiguration_ = std::move(sessionConfiguration);
}

std::string ZRBRQ_NetworkConfig::description() const {
  std::string base;
  std::string cdn;
  {
    std::lock_guard lock(mutex_);
    base = baseUrl_;
    cdn = cdnUrl_;
  }
  return ZRBStringWithFormat("<%@: %p>{ baseURL: %@ } { cdnURL: %@ }", className(),
                             static_cast<const void*>(this), base, cdn);
}
