// Which configured domain applies to a host: isSubdomain's plain-suffix rule, the look-up's order
// and its log lines; and the log itself, which formats nothing unless a logger is installed.
#include "pinning/domain_lookup.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "log_lines.h"
#include "pinning/registry/registry.h"
#include "platform/foundation/object.h"

namespace {

TEST(DomainLookupTest, IsSubdomainIsAPlainSuffixTest) {
  ZRB_InitializeDomainRegistry();
  struct Case {
    std::string_view domain, host;
    bool expected;
  };
  const Case cases[] = {
      {"example.com", "a.b.example.com", true},
      {"example.com", "example.com", true},
      // A bare suffix, which has no rest, matches only itself.
      {"com", "example.com", false},
      {"example.co.uk", "www.example.co.uk", true},
      // No label boundary is required: one more letter in front still counts.
      {"example.com", "evilexample.com", true},
      {"example.com", "xample.com", false},
      // Public suffixes must agree in length and text, as written: a trailing dot makes them differ.
      {"example.com", "www.example.org", false},
      {"example.com", "www.example.co.uk", false},
      {"example.co.uk", "example.uk", false},
      {"example.com", "www.example.com.", false},
      {"example.com", "com", false},
      {"spot.com", "x.blogspot.com", false},  // "blogspot.com" is a suffix of its own
      {"example.com", "www.example.notatld", false},
      {"example.com", std::string_view("www.example.com\0", 16), false},
      // The host's rest is split at every occurrence of the domain's, left to right: the host is
      // under the domain only when the last piece is empty, which is stricter than "ends with".
      {"ana.com", "banana.com", false},
      {"aa.com", "aaa.com", false},
      {"aa.com", "aaaa.com", true},
      {"a.a.com", "a.a.a.com", false},
      {"a.a.com", "a.a.a.a.com", true},
      {"a.a.com", "a.com", false},
  };
  for (const auto& [domain, host, expected] : cases) {
    EXPECT_EQ(isSubdomain(domain, host), expected) << domain << " / " << host;
  }
}

// An exact name first, then the first include-subdomains domain in configuration order (not the
// longest), logging each domain tried.
TEST(DomainLookupTest, ExactNameFirstThenFirstIncludingDomainInOrder) {
  ZRB_InitializeDomainRegistry();
  PGDLogLines log;
  ZRB_PGDPinnedDomainPolicies domains;
  for (auto [domain, include] :
       {std::pair{"example.org", false}, {"example.com", true}, {"www.example.com", true}}) {
    auto policy = std::make_shared<ZRB_PGDDomainPolicy>();
    policy->includeSubdomains = include;
    domains.set(domain, policy);
  }
  auto lookUp = [&](std::string_view host) {
    log.clear();
    return zrb_getPinningConfigurationKeyForDomain(host, domains);
  };
  const std::string checking = "Checking includeSubdomains configuration for ";

  EXPECT_EQ(lookUp("example.org"), "example.org");
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
  EXPECT_EQ(lookUp("www.example.com"), "www.example.com");
  EXPECT_EQ(lookUp("evilexample.com"), "example.com");
  EXPECT_EQ(lookUp("a.www.example.com"), "example.com");
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                checking + "example.com",
                "Applying includeSubdomains configuration from example.com to a.www.example.com"}));
  // Without include-subdomains only the exact name is pinned.
  EXPECT_EQ(lookUp("www.example.org"), std::nullopt);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{checking + "example.com", checking + "www.example.com",
                                                   "Domain www.example.org is not pinned"}));
}

// Counts how often it is described, so a test can tell whether a message was formatted.
class CountingObject : public ZRBObject {
 public:
  std::string description() const override {
    ++descriptions;
    return "<counted>";
  }
  mutable int descriptions = 0;
};

TEST(PGDLogTest, FormatsOnlyForAnInstalledLogger) {
  auto object = std::make_shared<CountingObject>();
  ZRB_PGDLog("before: %@", object);
  {
    PGDLogLines log;
    ZRB_PGDLog("Checking certificate with CN: %@", object);
    ZRB_PGDLog("index %ld for domain %@", 3L, std::string("example.com"));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Checking certificate with CN: <counted>",
                                                     "index 3 for domain example.com"}));
  }
  ZRB_PGDLog("after: %@", object);
  EXPECT_EQ(object->descriptions, 1);
}

}  // namespace
