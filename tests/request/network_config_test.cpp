// Network configuration: defaults, the shared instance, filter lists handed out as snapshots, the
// fields and the description.
#include "request/network_config.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/string_format.h"

namespace {

class PrefixUrlFilter final : public ZRBRQ_UrlFilterProtocol {
 public:
  explicit PrefixUrlFilter(std::string prefix) : prefix_(std::move(prefix)) {}
  std::string filterUrl(const std::string& originUrl, const std::shared_ptr<ZRBRQ_Request>&) override {
    return prefix_ + originUrl;
  }

 private:
  std::string prefix_;
};

class SuffixCacheDirFilter final : public ZRBRQ_CacheDirPathFilterProtocol {
 public:
  std::string filterCacheDirPath(const std::string& originPath,
                                 const std::shared_ptr<ZRBRQ_Request>&) override {
    return originPath + "/filtered";
  }
};

TEST(NetworkConfig, DefaultsAfterConstruction) {
  ZRBRQ_NetworkConfig config;
  EXPECT_TRUE(config.urlFilters().empty());
  EXPECT_TRUE(config.cacheDirPathFilters().empty());
  EXPECT_FALSE(config.debugLogEnabled());
  EXPECT_EQ(config.baseUrl(), "");
  EXPECT_EQ(config.cdnUrl(), "");
  EXPECT_EQ(config.sessionConfiguration(), nullptr);
  // The default policy: mode none, invalid certificates rejected, domain names validated, no pins.
  auto policy = config.securityPolicy();
  ASSERT_NE(policy, nullptr);
  EXPECT_EQ(policy->SSLPinningMode(), SSLPinningModeNone);
  EXPECT_FALSE(policy->allowInvalidCertificates());
  EXPECT_TRUE(policy->validatesDomainName());
  EXPECT_TRUE(policy->pinnedCertificates().isAbsent());
  // Each configuration gets a policy of its own.
  ZRBRQ_NetworkConfig other;
  EXPECT_NE(other.securityPolicy(), policy);
}

TEST(NetworkConfig, UrlFiltersKeepOrderAndDuplicatesAndNull) {
  ZRBRQ_NetworkConfig config;
  auto a = std::make_shared<PrefixUrlFilter>("a");
  auto b = std::make_shared<PrefixUrlFilter>("b");
  config.addUrlFilter(a);
  config.addUrlFilter(b);
  config.addUrlFilter(a);
  config.addUrlFilter(nullptr);
  auto filters = config.urlFilters();
  ASSERT_EQ(filters.size(), 4u);
  EXPECT_EQ(filters[0], a);
  EXPECT_EQ(filters[1], b);
  EXPECT_EQ(filters[2], a);
  EXPECT_EQ(filters[3], nullptr);

  // Applied in order, as the agent does.
  std::string url = "/path";
  for (const auto& filter : filters)
    if (filter) url = filter->filterUrl(url, nullptr);
  EXPECT_EQ(url, "aba/path");

  config.clearUrlFilter();
  EXPECT_TRUE(config.urlFilters().empty());
  // The earlier snapshot is unaffected.
  EXPECT_EQ(filters.size(), 4u);
}

TEST(NetworkConfig, CacheDirPathFilters) {
  ZRBRQ_NetworkConfig config;
  auto filter = std::make_shared<SuffixCacheDirFilter>();
  config.addCacheDirPathFilter(filter);
  config.addCacheDirPathFilter(filter);
  auto filters = config.cacheDirPathFilters();
  ASSERT_EQ(filters.size(), 2u);
  EXPECT_EQ(filters[0]->filterCacheDirPath("/cache", nullptr), "/cache/filtered");
  // Cache filters and URL filters are separate lists.
  EXPECT_TRUE(config.urlFilters().empty());
  config.clearCacheDirPathFilter();
  EXPECT_TRUE(config.cacheDirPathFilters().empty());
  EXPECT_EQ(filters.size(), 2u);
}

TEST(NetworkConfig, Description) {
  ZRBRQ_NetworkConfig config;
  config.setBaseUrl("http://base.example.com");
  config.setCdnUrl("http://cdn.example.com");
  const std::string expected = "<ZRBRQ_NetworkConfig: " + ZRBFormatPointer(&config) +
                               ">{ baseURL: http://base.example.com } { cdnURL: http://cdn.example.com }";
  EXPECT_EQ(config.description(), expected);
  // What %@ prints.
  EXPECT_EQ(ZRBStringWithFormat("%@", config), expected);

  ZRBRQ_NetworkConfig empty;
  EXPECT_EQ(empty.description(),
            "<ZRBRQ_NetworkConfig: " + ZRBFormatPointer(&empty) + ">{ baseURL:  } { cdnURL:  }");
}

}  // namespace
