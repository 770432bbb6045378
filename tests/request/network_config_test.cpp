// Network configuration: the default policy, filter lists handed out as snapshots, the description.
#include "request/network_config.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/string_format.h"

namespace {

// Does nothing; only which filter sits where in the lists matters here.
struct Filter final : ZRBRQ_UrlFilterProtocol, ZRBRQ_CacheDirPathFilterProtocol {
  std::string filterUrl(const std::string& url, const std::shared_ptr<ZRBRQ_BaseRequest>&) override {
    return url;
  }
  std::string filterCacheDirPath(const std::string& path,
                                 const std::shared_ptr<ZRBRQ_BaseRequest>&) override {
    return path;
  }
};

TEST(NetworkConfig, EachConfigurationHasAStrictPolicyOfItsOwn) {
  ZRBRQ_NetworkConfig config;
  auto policy = config.securityPolicy();
  ASSERT_NE(policy, nullptr);
  EXPECT_FALSE(policy->allowInvalidCertificates());
  EXPECT_NE(ZRBRQ_NetworkConfig().securityPolicy(), policy);
}

TEST(NetworkConfig, FiltersKeepOrderDuplicatesAndNullsAndAreSnapshots) {
  ZRBRQ_NetworkConfig config;
  auto a = std::make_shared<Filter>();
  auto b = std::make_shared<Filter>();
  for (const auto& filter : {a, b, a, std::shared_ptr<Filter>()}) config.addUrlFilter(filter);
  config.addCacheDirPathFilter(b);
  const std::vector<ZRBRQ_UrlFilterPtr> expected{a, b, a, nullptr};
  auto filters = config.urlFilters();
  EXPECT_EQ(filters, expected);
  config.clearUrlFilter();
  EXPECT_TRUE(config.urlFilters().empty());
  EXPECT_EQ(filters, expected);  // the snapshot stays as it was
  // The two lists are separate.
  EXPECT_EQ(config.cacheDirPathFilters(), std::vector<ZRBRQ_CacheDirPathFilterPtr>{b});
  config.clearCacheDirPathFilter();
  EXPECT_TRUE(config.cacheDirPathFilters().empty());
}

TEST(NetworkConfig, DescriptionNamesBothURLs) {
  ZRBRQ_NetworkConfig config;
  config.setBaseUrl("http://base.example.com");
  config.setCdnUrl("http://cdn.example.com");
  EXPECT_EQ(ZRBStringWithFormat("%@", config),
            "<ZRBRQ_NetworkConfig: " + ZRBFormatPointer(&config) +
                ">{ baseURL: http://base.example.com } { cdnURL: http://cdn.example.com }");
}

}  // namespace
