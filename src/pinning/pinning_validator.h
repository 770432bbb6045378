// ZRB_PGDPinningValidator: decides whether a TLS connection to a host may go on, from the pinning
// policies of the configured domains.
//
// evaluateTrust(trust, host), step by step:
//   1. no trust or no host: "Pin validation error - invalid parameters for %@", block;
//   2. no policy applies to the host (zrb_getPinningConfigurationKeyForDomain), the policy's
//      expiration date has passed, or the host is an excluded subdomain: DomainNotPinned, and the
//      observer hears nothing;
//   3. additional trust anchors of the policy join the system anchors on the trust ("Pin validation
//      includes %ld potentially unsafe trust anchors");
//   4. zrb_verifyPublicKeyPin with the policy's algorithms and pins: success allows; no matching pin
//      blocks only under enforcement; any other failure (a chain the default validation rejects, bad
//      parameters, a key that cannot be hashed) blocks whatever the enforcement;
//   5. the observer, when both it and its queue are set, is called asynchronously on that queue with
//      the result object, the configured domain whose policy applied and that policy.
// The trust passed in is changed: it keeps the SSL policy for the host and the extra anchors.
//
// Thread-safe: many connections may be validated at once from any threads (the transport thread
// among them). The validator only reads its policies and goes through the hash cache.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "pinning/configuration.h"
#include "pinning/pinning_validator_result.h"
#include "pinning/spki_hash_cache.h"
#include "platform/foundation/object.h"
#include "platform/net/url_authentication.h"
#include "platform/runtime/dispatch.h"
#include "platform/security/sec_trust.h"

// Receives the result, the configured domain name whose policy applied, and that policy.
using ZRB_PGDValidationCallback =
    std::function<void(const ZRB_PGDPinningValidatorResultPtr& result, const std::string& notedHostname,
                       const ZRB_PGDDomainPolicyPtr& policy)>;

class ZRB_PGDPinningValidator;
using ZRB_PGDPinningValidatorPtr = std::shared_ptr<ZRB_PGDPinningValidator>;

class ZRB_PGDPinningValidator final : public ZRBObject {
 public:
  static ZRB_PGDPinningValidatorPtr initWithDomainPinningPolicies(
      ZRB_PGDPinnedDomainPolicies domainPinningPolicies, ZRB_PGDSPKIHashCachePtr hashCache,
      bool ignorePinsForUserTrustAnchors, ZRBDispatchQueuePtr validationCallbackQueue,
      ZRB_PGDValidationCallback validationCallback);

  // Additional trust anchors of a policy are honoured on this platform.
  static bool allowsAdditionalTrustAnchors() { return true; }

  PGDTrustDecision evaluateTrust(const ZRBSecTrustPtr& trust, std::optional<std::string_view> hostname) const;

  // A server-trust challenge is evaluated for its host and answered: allow -> use-credential with a
  // credential for the trust; block -> cancel; not pinned -> default handling; returns true. Any
  // other challenge is left alone (the completion is not called) and false returned.
  bool handleChallenge(const ZRBURLAuthenticationChallengePtr& challenge,
                       const ZRBURLSessionChallengeCompletion& completionHandler) const;

  // Stored only: user-installed anchors cannot be told apart here.
  bool ignorePinsForUserTrustAnchors() const { return ignorePinsForUserTrustAnchors_; }
  const ZRB_PGDSPKIHashCachePtr& spkiHashCache() const { return spkiHashCache_; }
  const ZRB_PGDPinnedDomainPolicies& domainPinningPolicies() const { return domainPinningPolicies_; }

  std::string className() const override { return "ZRB_PGDPinningValidator"; }

  struct Private {};
  ZRB_PGDPinningValidator(Private, ZRB_PGDPinnedDomainPolicies domainPinningPolicies,
                          ZRB_PGDSPKIHashCachePtr hashCache, bool ignorePinsForUserTrustAnchors,
                          ZRBDispatchQueuePtr validationCallbackQueue,
                          ZRB_PGDValidationCallback validationCallback);

 private:
  const bool ignorePinsForUserTrustAnchors_;
  const ZRB_PGDSPKIHashCachePtr spkiHashCache_;
  const ZRB_PGDPinnedDomainPolicies domainPinningPolicies_;
  const ZRB_PGDValidationCallback validationCallback_;
  const ZRBDispatchQueuePtr validationCallbackQueue_;
};
