// Network configuration: the default policy and the description.
#include "request/network_config.h"

#include <gtest/gtest.h>

#include "platform/foundation/string_format.h"

namespace {

TEST(NetworkConfig, EachConfigurationHasAStrictPolicyOfItsOwn) {
  ZRBRQ_NetworkConfig config;
  auto policy = config.securityPolicy();
  ASSERT_NE(policy, nullptr);
  EXPECT_FALSE(policy->allowInvalidCertificates());
  EXPECT_NE(ZRBRQ_NetworkConfig().securityPolicy(), policy);
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
