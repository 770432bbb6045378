// Fuzzes zrb_parsePinGuardConfiguration with configurations decoded from arbitrary JSON. A
// configuration exception is the expected answer to bad input; any other exception or a crash is
// a finding. An accepted configuration is checked for what the parser promises: every policy has
// its pins, every domain is found under its own name, every excluded subdomain has a parent, and
// the map view reads back into an equal configuration.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "pinning/configuration.h"
#include "pinning/domain_lookup.h"
#include "pinning/pgd_log.h"
#include "platform/foundation/exception.h"
#include "platform/foundation/json_serialization.h"

namespace {

void check(bool condition, const char* what, std::string_view domain) {
  if (condition) return;
  std::fprintf(stderr, "pinning configuration fuzzer: %s (domain \"%.*s\")\n", what,
               static_cast<int>(domain.size()), domain.data());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Log lines are formatted and dropped, so that their formatting is exercised too.
  static const bool logging = (ZRB_PGDSetLoggerBlock([](const std::string&) {}), true);
  (void)logging;

  ZRBValue input = ZRBJSONSerialization::JSONObjectWithData(
      std::string_view(reinterpret_cast<const char*>(data), size), ZRBJSONReadingFragmentsAllowed);
  if (input.isAbsent()) return 0;

  ZRB_PGDConfigurationPtr configuration;
  try {
    configuration = zrb_parsePinGuardConfiguration(input);
  } catch (const ZRBException& exception) {
    check(exception.name() == kZRB_PGDConfigurationInvalidException, "exception of another name", "");
    check(!exception.reason().empty(), "exception without a reason", "");
    return 0;
  }

  check(configuration != nullptr, "no configuration and no exception", "");
  check(!configuration->pinnedDomains.empty(), "accepted without pinned domains", "");
  for (const auto& [domain, policy] : configuration->pinnedDomains) {
    check(zrb_registryLengthOfHost(domain) > 0, "accepted a domain without a public suffix", domain);
    check(zrb_getPinningConfigurationKeyForDomain(domain, configuration->pinnedDomains) == domain,
          "a domain is not found under its own name", domain);
    if (policy->excludeSubdomainFromParentPolicy) {
      check(zrb_getPinningConfigurationKeyForDomain("a" + domain, configuration->pinnedDomains).has_value(),
            "excluded subdomain without a parent", domain);
      continue;
    }
    check(policy->publicKeyHashes.size() >= (policy->enforcePinning ? 2u : 1u), "too few pins accepted",
          domain);
    check(!policy->includeSubdomains || zrb_registryLengthOfHost(domain) != domain.size(),
          "include-subdomains accepted on a bare suffix", domain);
  }
  auto readBack = ZRB_PGDConfiguration::fromValue(configuration->toValue());
  check(readBack && *readBack == *configuration, "the map view does not read back", "");
  return 0;
}
