#include "pinning/pinning_validator.h"

#include <chrono>
#include <utility>

#include "pinning/domain_lookup.h"
#include "pinning/pgd_log.h"
#include "pinning/registry/registry.h"

ZRB_PGDPinningValidatorPtr ZRB_PGDPinningValidator::initWithDomainPinningPolicies(
    ZRB_PGDPinnedDomainPolicies domainPinningPolicies, ZRB_PGDSPKIHashCachePtr hashCache,
    bool ignorePinsForUserTrustAnchors, ZRBDispatchQueuePtr validationCallbackQueue,
    ZRB_PGDValidationCallback validationCallback) {
  return std::make_shared<ZRB_PGDPinningValidator>(
      Private{}, std::move(domainPinningPolicies), std::move(hashCache), ignorePinsForUserTrustAnchors,
      std::move(validationCallbackQueue), std::move(validationCallback));
}

ZRB_PGDPinningValidator::ZRB_PGDPinningValidator(Private, ZRB_PGDPinnedDomainPolicies domainPinningPolicies,
                                                 ZRB_PGDSPKIHashCachePtr hashCache,
                                                 bool ignorePinsForUserTrustAnchors,
                                                 ZRBDispatchQueuePtr validationCallbackQueue,
                                                 ZRB_PGDValidationCallback validationCallback)
    : ignorePinsForUserTrustAnchors_(ignorePinsForUserTrustAnchors),
      spkiHashCache_(std::move(hashCache)),
      domainPinningPolicies_(std::move(domainPinningPolicies)),
      validationCallback_(std::move(validationCallback)),
      validationCallbackQueue_(std::move(validationCallbackQueue)) {
  // The host look-up compares public suffixes; policies need not have come through the parser.
  ZRB_InitializeDomainRegistry();
}

PGDTrustDecision ZRB_PGDPinningValidator::evaluateTrust(const ZRBSecTrustPtr& trust,
                                                        std::optional<std::string_view> hostname) const {
  if (!trust || !hostname) {
    ZRB_PGDLog("Pin validation error - invalid parameters for %@", hostname.value_or(std::string_view()));
    return PGDTrustDecisionShouldBlockConnection;
  }
  ZRBSecTrustPtr held = trust;
  const auto start = std::chrono::steady_clock::now();

  std::optional<std::string> domainKey =
      zrb_getPinningConfigurationKeyForDomain(*hostname, domainPinningPolicies_);
  if (!domainKey) return PGDTrustDecisionDomainNotPinned;
  ZRB_PGDDomainPolicyPtr policy = domainPinningPolicies_.find(*domainKey);
  if (!policy) return PGDTrustDecisionDomainNotPinned;
  // An expired policy is as if the domain were not pinned.
  if (policy->expirationDate && *policy->expirationDate < std::chrono::system_clock::now()) {
    return PGDTrustDecisionDomainNotPinned;
  }
  if (policy->excludeSubdomainFromParentPolicy) return PGDTrustDecisionDomainNotPinned;

  if (allowsAdditionalTrustAnchors() && policy->additionalTrustAnchors &&
      !policy->additionalTrustAnchors->empty()) {
    ZRB_PGDLog("Pin validation includes %ld potentially unsafe trust anchors",
               static_cast<long>(policy->additionalTrustAnchors->size()));
    held->setAnchorCertificates(*policy->additionalTrustAnchors);
    held->setAnchorCertificatesOnly(false);
  }

  const PGDTrustEvaluationResult result = zrb_verifyPublicKeyPin(
      held, *hostname, &policy->publicKeyAlgorithms, &policy->publicKeyHashes, spkiHashCache_);
  PGDTrustDecision decision = PGDTrustDecisionShouldBlockConnection;
  if (result == PGDTrustEvaluationResultSuccess) {
    ZRB_PGDLog("Pin validation succeeded for %@", *hostname);
    decision = PGDTrustDecisionShouldAllowConnection;
  } else {
    ZRB_PGDLog("Pin validation failed for %@", *hostname);
    if (result == PGDTrustEvaluationResultFailedNoMatchingPin && !policy->enforcePinning) {
      decision = PGDTrustDecisionShouldAllowConnection;
    }
  }

  if (validationCallbackQueue_ && validationCallback_) {
    const double duration = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    auto validationResult = ZRB_PGDPinningValidatorResult::initWithServerHostname(
        std::string(*hostname), held, result, decision, duration);
    validationCallbackQueue_->async([callback = validationCallback_, validationResult,
                                     key = std::move(*domainKey),
                                     policy] { callback(validationResult, key, policy); });
  }
  return decision;
}

bool ZRB_PGDPinningValidator::handleChallenge(
    const ZRBURLAuthenticationChallengePtr& challenge,
    const ZRBURLSessionChallengeCompletion& completionHandler) const {
  if (!challenge || !challenge->protectionSpace() ||
      challenge->protectionSpace()->authenticationMethod() != ZRBURLAuthenticationMethodServerTrust) {
    return false;
  }
  const ZRBURLProtectionSpacePtr& space = challenge->protectionSpace();
  const ZRBSecTrustPtr& trust = space->serverTrust();
  switch (evaluateTrust(trust, space->host())) {
    case PGDTrustDecisionShouldAllowConnection:
      completionHandler(ZRBURLSessionAuthChallengeUseCredential, ZRBURLCredential::credentialForTrust(trust));
      break;
    case PGDTrustDecisionShouldBlockConnection:
      completionHandler(ZRBURLSessionAuthChallengeCancelAuthenticationChallenge, nullptr);
      break;
    case PGDTrustDecisionDomainNotPinned:
      completionHandler(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
      break;
  }
  return true;
}
