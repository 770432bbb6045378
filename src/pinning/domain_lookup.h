// Which configured domain's policy applies to a host.
//
// The validator asks this on every pinned connection and the configuration parser asks it once per
// excluded subdomain. The match is deliberately simple: an exact name first, then the first
// include-subdomains domain (in configuration order) that the host ends with, as plain text. A host
// such as "evilexample.com" therefore falls under an include-subdomains policy for "example.com";
// configurations depend on this (the parser's parent check does), so it must not be tightened.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "pinning/configuration.h"

// The byte length of the public suffix of a host name (ZRB_GetRegistryLength), 0 when it has none.
// A name holding a NUL byte is no host name and gives 0. The domain registry must be initialised.
std::size_t zrb_registryLengthOfHost(std::string_view host);

// The configured domain name whose policy applies to `hostname`, or nullopt:
//   1. a domain equal to the host name;
//   2. else the first domain with include-subdomains for which isSubdomain(domain, hostname) holds,
//      logging "Checking includeSubdomains configuration for %@" for each such domain tried and
//      "Applying includeSubdomains configuration from %@ to %@" for the match;
//   3. else nothing, logging "Domain %@ is not pinned".
// Logs go through ZRB_PGDLog. The domain registry must be initialised (the parser does it).
std::optional<std::string> zrb_getPinningConfigurationKeyForDomain(
    std::string_view hostname, const ZRB_PGDPinnedDomainPolicies& policies);

// Whether `hostname` counts as a subdomain of the configured `domainKey`: both have public suffixes
// of the same length and the same text, and, with the suffix and the character before it removed
// from both, the host's rest ends with the domain's rest. This is a string-suffix test, not a label
// test: "xexample.com" is a subdomain of "example.com" here, and so is "example.com" itself. Two
// names without a known suffix (length 0 both) compare with their last character removed. A rest
// that would be shorter than nothing counts as empty, and an empty domain rest matches only an
// empty host rest.
bool isSubdomain(std::string_view domainKey, std::string_view hostname);
