// Which configured domain applies to a host: isSubdomain's plain-suffix rule, the look-up's order
// and its log lines.
#include "pinning/domain_lookup.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "pinning/configuration.h"
#include "pinning/pgd_log.h"
#include "pinning/registry/registry.h"
#include "platform/crypto.h"

namespace {

class DomainLookupTest : public testing::Test {
 protected:
  void SetUp() override {
    ZRB_InitializeDomainRegistry();
    ZRB_PGDSetLoggerBlock([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
    });
  }
  void TearDown() override { ZRB_PGDSetLoggerBlock(nullptr); }

  std::vector<std::string> takeLines() {
    std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

  // A parsed configuration of the domains in order; each one includes subdomains or not.
  static ZRB_PGDConfigurationPtr pinned(std::initializer_list<std::pair<std::string_view, bool>> domains) {
    std::string pin1 = ZRBBase64Encode(std::vector<std::uint8_t>(32, 1));
    std::string pin2 = ZRBBase64Encode(std::vector<std::uint8_t>(32, 2));
    ZRBDictionaryBuilder map;
    for (const auto& [domain, includeSubdomains] : domains) {
      map.set(domain,
              ZRBValue::dictionary({{kZRB_PGDIncludeSubdomains, includeSubdomains},
                                    {kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({"PGDAlgorithmRsa2048"})},
                                    {kZRB_PGDPublicKeyHashes, ZRBValue::array({pin1, pin2})}}));
    }
    return zrb_parsePinGuardConfiguration(ZRBValue::dictionary({{kZRB_PGDPinnedDomains, map.build()}}));
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST_F(DomainLookupTest, IsSubdomainIsAPlainSuffixTest) {
  struct Case {
    std::string_view domain, host;
    bool expected;
  };
  const Case cases[] = {
      {"example.com", "www.example.com", true},
      {"example.com", "a.b.example.com", true},
      {"example.com", "example.com", true},
      // No label boundary is required: one more letter in front still counts.
      {"example.com", "evilexample.com", true},
      {"example.com", "xample.com", false},
      {"example.co.uk", "www.example.co.uk", true},
      // Public suffixes must agree in length and text.
      {"example.com", "www.example.org", false},
      {"example.com", "www.example.co.uk", false},
      {"example.co.uk", "example.uk", false},
      // Suffixes are compared as written: a trailing dot on one side makes them differ.
      {"example.com", "www.example.com.", false},
      {"example.com", "com", false},
      {"example.com", "www.example.notatld", false},
      {"example.com", std::string_view("www.example.com\0", 16), false},
      // A rest that repeats itself is still matched at its end.
      {"a.a.com", "a.a.a.com", true},
      {"a.a.com", "a.com", false},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(isSubdomain(test.domain, test.host), test.expected) << test.domain << " / " << test.host;
  }
}

TEST_F(DomainLookupTest, ExactNameFirstThenFirstIncludingDomainInOrder) {
  auto config = pinned({{"example.com", true}, {"www.example.com", true}, {"example.org", false}});
  const auto& domains = config->pinnedDomains;
  takeLines();

  EXPECT_EQ(zrb_getPinningConfigurationKeyForDomain("www.example.com", domains), "www.example.com");
  // Both include-subdomains domains match; the one listed first wins, not the longer one.
  EXPECT_EQ(zrb_getPinningConfigurationKeyForDomain("a.www.example.com", domains), "example.com");
  EXPECT_EQ(zrb_getPinningConfigurationKeyForDomain("evilexample.com", domains), "example.com");
  // Without include-subdomains only the exact name is pinned.
  EXPECT_EQ(zrb_getPinningConfigurationKeyForDomain("example.org", domains), "example.org");
  EXPECT_EQ(zrb_getPinningConfigurationKeyForDomain("www.example.org", domains), std::nullopt);

  auto reversed = pinned({{"www.example.com", true}, {"example.com", true}});
  EXPECT_EQ(zrb_getPinningConfigurationKeyForDomain("a.www.example.com", reversed->pinnedDomains),
            "www.example.com");
}

TEST_F(DomainLookupTest, LookUpLogsEachStep) {
  auto config = pinned({{"example.org", false}, {"example.net", true}, {"example.com", true}});
  takeLines();

  zrb_getPinningConfigurationKeyForDomain("example.org", config->pinnedDomains);
  EXPECT_EQ(takeLines(), std::vector<std::string>{});

  zrb_getPinningConfigurationKeyForDomain("www.example.com", config->pinnedDomains);
  EXPECT_EQ(takeLines(),
            (std::vector<std::string>{"Checking includeSubdomains configuration for example.net",
                                      "Checking includeSubdomains configuration for example.com",
                                      "Applying includeSubdomains configuration from example.com to "
                                      "www.example.com"}));

  zrb_getPinningConfigurationKeyForDomain("www.example.org", config->pinnedDomains);
  EXPECT_EQ(takeLines(), (std::vector<std::string>{"Checking includeSubdomains configuration for example.net",
                                                   "Checking includeSubdomains configuration for example.com",
                                                   "Domain www.example.org is not pinned"}));

  ZRB_PGDSetLoggerBlock(nullptr);
  zrb_getPinningConfigurationKeyForDomain("www.example.org", config->pinnedDomains);
  EXPECT_EQ(takeLines(), std::vector<std::string>{});
}

}  // namespace
