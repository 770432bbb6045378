#include "request/network_config.h"

#include <utility>

#include "platform/foundation/string_format.h"

const ZRBRQ_NetworkConfigPtr& ZRBRQ_NetworkConfig::sharedConfig() {
  // Never destroyed: requests finishing while the process exits still read it.
  static const auto* instance = new ZRBRQ_NetworkConfigPtr(std::make_shared<ZRBRQ_NetworkConfig>());
  return *instance;
}

ZRBRQ_NetworkConfig::ZRBRQ_NetworkConfig()
    : urlFilters_(std::make_shared<const std::vector<ZRBRQ_UrlFilterPtr>>()),
      baseUrl_(std::make_shared<const std::string>()),
      cdnUrl_(std::make_shared<const std::string>()),
      securityPolicy_(ZRBHS_SecurityPolicy::defaultPolicy()) {}

void ZRBRQ_NetworkConfig::addUrlFilter(ZRBRQ_UrlFilterPtr filter) {
  std::lock_guard lock(mutex_);
  auto filters = std::make_shared<std::vector<ZRBRQ_UrlFilterPtr>>(*urlFilters_);
  filters->push_back(std::move(filter));
  urlFilters_ = std::move(filters);
}

void ZRBRQ_NetworkConfig::clearUrlFilter() {
  auto empty = std::make_shared<const std::vector<ZRBRQ_UrlFilterPtr>>();
  std::lock_guard lock(mutex_);
  urlFilters_ = std::move(empty);
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
  return *urlFilters_;
}

ZRBRQ_NetworkConfig::UrlSettings ZRBRQ_NetworkConfig::urlSettings() const {
  std::lock_guard lock(mutex_);
  return UrlSettings{urlFilters_, baseUrl_, cdnUrl_};
}

std::vector<ZRBRQ_CacheDirPathFilterPtr> ZRBRQ_NetworkConfig::cacheDirPathFilters() const {
  std::lock_guard lock(mutex_);
  return cacheDirPathFilters_;
}

std::string ZRBRQ_NetworkConfig::baseUrl() const {
  std::lock_guard lock(mutex_);
  return *baseUrl_;
}

void ZRBRQ_NetworkConfig::setBaseUrl(std::string baseUrl) {
  auto value = std::make_shared<const std::string>(std::move(baseUrl));
  std::lock_guard lock(mutex_);
  baseUrl_ = std::move(value);
}

std::string ZRBRQ_NetworkConfig::cdnUrl() const {
  std::lock_guard lock(mutex_);
  return *cdnUrl_;
}

void ZRBRQ_NetworkConfig::setCdnUrl(std::string cdnUrl) {
  auto value = std::make_shared<const std::string>(std::move(cdnUrl));
  std::lock_guard lock(mutex_);
  cdnUrl_ = std::move(value);
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
    base = *baseUrl_;
    cdn = *cdnUrl_;
  }
  return ZRBStringWithFormat("<%@: %p>{ baseURL: %@ } { cdnURL: %@ }", className(),
                             static_cast<const void*>(this), base, cdn);
}
