// ZRBNetworkPinGuard: the program's own pinning set-up. It decides from the settings whether the
// service's API domains are pinned and, when they are, builds the pinning configuration for them
// and creates a private pin guard (never the shared instance, never with delegate proxies) whose
// validator the caller installs where it wants pinning (the network agent's challenge hook).
//
// - trustDomains(domains): pinning is set up only when the settings report isRealStgEnv false and
//   isTrustDomains true; otherwise the line "JenkinsConfigNoTrustDomains: %d-%d-%d" (isRealStgEnv,
//   isTrustDomains, isInternational, each read afresh) goes to ZRBNetworkLog and the result is null.
//   A null or empty list gives null as well.
// - addPinGuardDomains(domains): every entry that is a non-empty string is reduced to its host by
//   ZRBRQ_NetworkUtils::filterUrlHost (entries without one are skipped silently); each host gets
//   the same policy: RSA 2048 keys, the program's pins, enforcement on, subdomains included. A later
//   entry with the same host replaces the earlier one. A list that yields no host still creates a
//   pin guard, whose configuration then raises the "no pinned domains" exception.
//
// The pins are those of network_pin_guard_pins.h unless replaced by setPublicKeyHashes (a
// deployment that reads them from elsewhere; tests use keys of their own PKI). A deployment whose
// servers chain to a private root, or that runs its own report collector, adds policy entries with
// setDomainPolicyAdditions ("PGDAdditionalTrustAnchors", "PGDReportUris",
// "PGDDisableDefaultReportUri", ...); the four entries above always keep their values. Both apply
// to pin guards made afterwards. Thread-safe.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pinning/pin_guard.h"
#include "platform/foundation/value.h"

class ZRBNetworkPinGuard {
 public:
  ZRBNetworkPinGuard() = delete;

  // `domains`: an array (other values count as null) whose entries should be strings.
  static ZRB_PinGuardPtr trustDomains(const ZRBValue& domains);
  static ZRB_PinGuardPtr trustDomains(const std::vector<std::string>& domains);
  static ZRB_PinGuardPtr addPinGuardDomains(const ZRBValue& domains);
  static ZRB_PinGuardPtr addPinGuardDomains(const std::vector<std::string>& domains);

  // The configuration addPinGuardDomains passes to the pin guard (for inspection and tools).
  static ZRBValue pinGuardConfigurationForDomains(const ZRBValue& domains);

  // The pins put under every domain; an empty list goes back to the built-in ones.
  static std::vector<std::string> publicKeyHashes();
  static void setPublicKeyHashes(std::vector<std::string> hashes);

  // Entries put into every domain's policy besides the four; keys of those four are ignored. A
  // value that is no dictionary (the default) adds nothing.
  static ZRBValue domainPolicyAdditions();
  static void setDomainPolicyAdditions(ZRBValue additions);
};
