// The pinning configuration: its keys, its parser and the normalised configuration it produces.
//
// An application describes pinning as a map (decoded from JSON or a property list):
//
//   PGDSwizzleNetworkDelegates  boolean, default false
//   PGDPinnedDomains            map of domain name -> policy map, required and non-empty
//     PGDPublicKeyHashes        array of base64 SHA-256 SPKI hashes; at least 2 under enforcement, else 1
//     PGDPublicKeyAlgorithms    array of algorithm names (kZRB_PGDAlgorithm...), required
//     PGDEnforcePinning         boolean, default true
//     PGDIncludeSubdomains      boolean, default false; refused on a bare public suffix
//     PGDExpirationDate         "yyyy-MM-dd": the policy lapses at local midnight of that day
//     PGDReportUris             array of URL strings
//     PGDDisableDefaultReportUri boolean, default false
//     PGDAdditionalTrustAnchors array of PEM certificates
//     kPGExcludeSubdomainFromParentPolicy  present (whatever its value) and alone: the domain is
//                               carved out of its parent's include-subdomains policy
//
// zrb_parsePinGuardConfiguration checks it and returns the typed, immutable ZRB_PGDConfiguration.
// A mistake in the configuration is a programming error of the integrating application: it raises
// ZRBException named "PinGuard configuration invalid" whose reason names the first problem found,
// and no partial configuration survives.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pinning/public_key_algorithm.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/security/sec_certificate.h"

// ---- keys: configurations are matched against these literals ----
inline constexpr std::string_view kZRB_PGDSwizzleNetworkDelegates = "PGDSwizzleNetworkDelegates";
inline constexpr std::string_view kZRB_PGDPinnedDomains = "PGDPinnedDomains";
// Not read by the parser: user-installed anchors cannot be told apart on this platform.
inline constexpr std::string_view kZRB_PGDIgnorePinningForUserDefinedTrustAnchors =
    "PGDIgnorePinningForUserDefinedTrustAnchors";
inline constexpr std::string_view kZRB_PGDPublicKeyHashes = "PGDPublicKeyHashes";
inline constexpr std::string_view kZRB_PGDEnforcePinning = "PGDEnforcePinning";
// The stored literal begins with "kPG", unlike the other keys. Existing configurations use it, so
// it must stay as it is.
inline constexpr std::string_view kZRB_PGDExcludeSubdomainFromParentPolicy =
    "kPGExcludeSubdomainFromParentPolicy";
inline constexpr std::string_view kZRB_PGDIncludeSubdomains = "PGDIncludeSubdomains";
inline constexpr std::string_view kZRB_PGDPublicKeyAlgorithms = "PGDPublicKeyAlgorithms";
inline constexpr std::string_view kZRB_PGDReportUris = "PGDReportUris";
inline constexpr std::string_view kZRB_PGDDisableDefaultReportUri = "PGDDisableDefaultReportUri";
inline constexpr std::string_view kZRB_PGDExpirationDate = "PGDExpirationDate";
inline constexpr std::string_view kZRB_PGDAdditionalTrustAnchors = "PGDAdditionalTrustAnchors";

// ---- algorithm names (matched exactly, case-sensitively) ----
inline constexpr std::string_view kZRB_PGDAlgorithmRsa2048 = "PGDAlgorithmRsa2048";
inline constexpr std::string_view kZRB_PGDAlgorithmRsa4096 = "PGDAlgorithmRsa4096";
inline constexpr std::string_view kZRB_PGDAlgorithmEcDsaSecp256r1 = "PGDAlgorithmEcDsaSecp256r1";
inline constexpr std::string_view kZRB_PGDAlgorithmEcDsaSecp384r1 = "PGDAlgorithmEcDsaSecp384r1";

// The name of every configuration exception.
inline constexpr std::string_view kZRB_PGDConfigurationInvalidException = "PinGuard configuration invalid";

// Throws ZRBException(kZRB_PGDConfigurationInvalidException, reason).
[[noreturn]] void zrb_raisePinGuardConfigurationInvalid(std::string reason);

// A pin: the SHA-256 of a certificate's SubjectPublicKeyInfo.
using ZRB_PGDPin = std::array<std::uint8_t, 32>;

// The normalised policy of one configured domain. An excluded subdomain carries only
// excludeSubdomainFromParentPolicy = true; its other fields keep their defaults and mean nothing.
struct ZRB_PGDDomainPolicy {
  bool excludeSubdomainFromParentPolicy = false;
  bool includeSubdomains = false;
  // Local midnight of the configured day; absent when none was given or it did not parse. Days
  // outside the clock's range (about 1678 to 2261) are clamped to its ends, so the policy lapses
  // never or at once, as the date says.
  std::optional<std::chrono::system_clock::time_point> expirationDate;
  bool enforcePinning = true;
  bool disableDefaultReportUri = false;
  // Present exactly when the key was given (possibly empty).
  std::optional<std::vector<ZRBSecCertificatePtr>> additionalTrustAnchors;
  // In the order configured, duplicates kept.
  std::vector<PGDPublicKeyAlgorithm> publicKeyAlgorithms;
  // Present exactly when the key was given (possibly empty).
  std::optional<std::vector<ZRBURLPtr>> reportUris;
  std::set<ZRB_PGDPin> publicKeyHashes;

  // Certificates and URLs compare by content.
  friend bool operator==(const ZRB_PGDDomainPolicy& a, const ZRB_PGDDomainPolicy& b);

  // The policy as the configuration map describes it (see ZRB_PGDConfiguration::toValue()).
  ZRBValue toValue() const;
};

using ZRB_PGDDomainPolicyPtr = std::shared_ptr<const ZRB_PGDDomainPolicy>;

// Domain name -> policy, in the order the configuration listed the domains. Look-ups that walk
// the domains (include-subdomains matching) see them in that order.
class ZRB_PGDPinnedDomainPolicies {
 public:
  using Entry = std::pair<std::string, ZRB_PGDDomainPolicyPtr>;

  // The policy of exactly this domain name, or null.
  ZRB_PGDDomainPolicyPtr find(std::string_view domain) const;
  bool contains(std::string_view domain) const { return index_.find(domain) != index_.end(); }
  // Adds a domain, or replaces the policy of one already present (keeping its position).
  void set(std::string domain, ZRB_PGDDomainPolicyPtr policy);

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  std::vector<Entry>::const_iterator begin() const { return entries_.begin(); }
  std::vector<Entry>::const_iterator end() const { return entries_.end(); }

  friend bool operator==(const ZRB_PGDPinnedDomainPolicies& a, const ZRB_PGDPinnedDomainPolicies& b);

 private:
  std::vector<Entry> entries_;
  std::map<std::string, std::size_t, std::less<>> index_;
};

struct ZRB_PGDConfiguration {
  bool swizzleNetworkDelegates = false;
  ZRB_PGDPinnedDomainPolicies pinnedDomains;

  friend bool operator==(const ZRB_PGDConfiguration& a, const ZRB_PGDConfiguration& b) {
    return a.swizzleNetworkDelegates == b.swizzleNetworkDelegates && a.pinnedDomains == b.pinnedDomains;
  }

  // The configuration as a map: "PGDSwizzleNetworkDelegates" (boolean) and "PGDPinnedDomains"
  // (domain -> policy map). A policy map holds "kPGExcludeSubdomainFromParentPolicy" = true alone
  // for an excluded subdomain; otherwise, in this order: "kPGExcludeSubdomainFromParentPolicy" =
  // false, "PGDIncludeSubdomains", "PGDExpirationDate" (a date, when set), "PGDEnforcePinning",
  // "PGDDisableDefaultReportUri", "PGDAdditionalTrustAnchors" (ZRBSecCertificate objects, when
  // given), "PGDPublicKeyAlgorithms" (numbers), "PGDReportUris" (ZRBURL objects, when given) and
  // "PGDPublicKeyHashes" (a set of 32-byte data values).
  ZRBValue toValue() const;

  // The inverse of toValue(): null when the map does not have exactly that shape. No checks
  // beyond the shape are made (this reads a normalised configuration; it does not parse one).
  static std::shared_ptr<const ZRB_PGDConfiguration> fromValue(const ZRBValue& value);
};

using ZRB_PGDConfigurationPtr = std::shared_ptr<const ZRB_PGDConfiguration>;

// Checks a configuration map and returns its normalised form, or raises the configuration
// exception. The checks run in this order, and the first failure is reported:
//   1. "PGDPinnedDomains" missing, not a map, or empty: "PinGuard was initialized with no pinned
//      domains. ..." ("PGDSwizzleNetworkDelegates" is read first; a value that is no boolean or
//      number raises "PinGuard was initialized with an invalid value for PGDSwizzleNetworkDelegates").
//   2. Per domain, in the map's order: a name without a known public suffix ("...an invalid domain
//      %@"); a policy that is not a map ("...an invalid value for PGDPinnedDomains for domain %@");
//      the exclude key beside other keys; include-subdomains on a bare public suffix; unreadable
//      trust anchors; missing or unknown algorithms; invalid report URIs; pins that are not
//      strict base64 of 32 bytes; too few distinct pins. A value of the wrong type for any key
//      raises "PinGuard was initialized with an invalid value for %@ for domain %@" (key, domain)
//      when that key's turn comes. Booleans may be given as booleans or numbers.
//   3. Every excluded subdomain needs a parent domain pinned with include-subdomains.
// An expiration date that does not parse is not an error: the policy simply has none.
// Initialises the domain registry first. Thread-safe.
ZRB_PGDConfigurationPtr zrb_parsePinGuardConfiguration(const ZRBValue& configuration);

// One PEM certificate: white space around it and the BEGIN/END CERTIFICATE lines are removed, and
// the rest is decoded as base64 skipping any character outside the alphabet. Raises the
// configuration exception with "Failed to parse PEM certificate" when no certificate results.
ZRBSecCertificatePtr certificateFromPEM(std::string_view pem);
