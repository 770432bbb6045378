#include "pinning/domain_lookup.h"

#include <string>

#include "pinning/pgd_log.h"
#include "pinning/registry/registry.h"

std::size_t zrb_registryLengthOfHost(std::string_view host) {
  // The registry reads a C string; a name with a NUL inside would be judged by its first part.
  if (host.find('\0') != std::string_view::npos) return 0;
  return ZRB_GetRegistryLength(std::string(host).c_str());
}

std::optional<std::string> zrb_getPinningConfigurationKeyForDomain(
    std::string_view hostname, const ZRB_PGDPinnedDomainPolicies& policies) {
  if (policies.contains(hostname)) return std::string(hostname);
  for (const auto& [domain, policy] : policies) {
    if (!policy->includeSubdomains) continue;
    ZRB_PGDLog("Checking includeSubdomains configuration for %@", domain);
    if (isSubdomain(domain, hostname)) {
      ZRB_PGDLog("Applying includeSubdomains configuration from %@ to %@", domain, hostname);
      return domain;
    }
  }
  ZRB_PGDLog("Domain %@ is not pinned", hostname);
  return std::nullopt;
}

bool isSubdomain(std::string_view domainKey, std::string_view hostname) {
  std::size_t registryLength = zrb_registryLengthOfHost(domainKey);
  if (registryLength != zrb_registryLengthOfHost(hostname)) return false;
  // The suffixes are compared as text: a trailing dot on one name makes them differ.
  if (domainKey.size() < registryLength || hostname.size() < registryLength) return false;
  if (domainKey.substr(domainKey.size() - registryLength) !=
      hostname.substr(hostname.size() - registryLength)) {
    return false;
  }
  auto rest = [registryLength](std::string_view name) {
    std::size_t keep = name.size() >= registryLength + 1 ? name.size() - registryLength - 1 : 0;
    return name.substr(0, keep);
  };
  std::string_view domainRest = rest(domainKey), hostRest = rest(hostname);
  if (domainRest.empty()) return hostRest.empty();
  if (hostRest.empty()) return false;  // a bare suffix is under no domain
  // Split the host's rest at every occurrence of the domain's, left to right without overlaps: the
  // host is under the domain when the last piece is empty. This is not the same as "ends with":
  // "banana" splits at "ana" into "b" and "na".
  std::size_t lastPieceStart = 0;
  for (std::size_t found; (found = hostRest.find(domainRest, lastPieceStart)) != std::string_view::npos;)
    lastPieceStart = found + domainRest.size();
  return lastPieceStart == hostRest.size();
}
