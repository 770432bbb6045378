#include "pinning/pin_verifier.h"

#include "pinning/pgd_log.h"
#include "platform/foundation/assert.h"

namespace {

bool logging() { return zrb_detail::g_pgdLoggerInstalled.load(std::memory_order_relaxed); }

}  // namespace

PGDTrustEvaluationResult zrb_verifyPublicKeyPin(const ZRBSecTrustPtr& serverTrust,
                                                std::string_view serverHostname,
                                                const std::vector<PGDPublicKeyAlgorithm>* supportedAlgorithms,
                                                const std::set<ZRB_PGDPin>* knownPins,
                                                const ZRB_PGDSPKIHashCachePtr& hashCache) {
  ZRBAssertNamed(serverTrust != nullptr, "serverTrust");
  ZRBAssertNamed(supportedAlgorithms != nullptr, "supportedAlgorithms");
  ZRBAssertNamed(knownPins != nullptr, "knownPins");
  if (!serverTrust || !supportedAlgorithms || !knownPins) {
    ZRB_PGDLog("Invalid pinning parameters for %@", serverHostname);
    return PGDTrustEvaluationResultErrorInvalidParameters;
  }

  // Held for the whole check, whatever the caller does with its reference meanwhile.
  ZRBSecTrustPtr trust = serverTrust;
  trust->setPolicies(ZRBSecPolicy::createSSL(true, std::string(serverHostname)));
  ZRBSecTrustResultType trustResult = ZRBSecTrustResultInvalid;
  if (trust->evaluate(&trustResult) != ZRBErrSecSuccess) {
    ZRB_PGDLog("SecTrustEvaluate error for %@", serverHostname);
    return PGDTrustEvaluationResultErrorInvalidParameters;
  }
  if (trustResult != ZRBSecTrustResultUnspecified && trustResult != ZRBSecTrustResultProceed) {
    if (logging())
      ZRB_PGDLog("Error: default SSL validation failed for %@: %@", serverHostname, trust->copyResult());
    return PGDTrustEvaluationResultFailedInvalidCertificateChain;
  }

  const std::vector<ZRBSecCertificatePtr> chain = trust->certificates();
  for (std::size_t index = chain.size(); index-- > 0;) {
    const ZRBSecCertificatePtr& certificate = chain[index];
    if (logging()) ZRB_PGDLog("Checking certificate with CN: %@", certificate->copySubjectSummary());
    for (PGDPublicKeyAlgorithm algorithm : *supportedAlgorithms) {
      std::optional<ZRB_PGDPin> hash;
      if (hashCache) hash = hashCache->hashSubjectPublicKeyInfoFromCertificate(certificate, algorithm);
      if (!hash) {
        ZRB_PGDLog("Error - could not generate the SPKI hash for %@", serverHostname);
        return PGDTrustEvaluationResultErrorCouldNotGenerateSpkiHash;
      }
      if (logging()) ZRB_PGDLog("Testing SSL Pin %@", ZRBValue::data(hash->data(), hash->size()));
      if (knownPins->contains(*hash)) {
        ZRB_PGDLog("SSL Pin found for %@", serverHostname);
        return PGDTrustEvaluationResultSuccess;
      }
    }
  }
  ZRB_PGDLog("Error: SSL Pin not found for %@", serverHostname);
  return PGDTrustEvaluationResultFailedNoMatchingPin;
}
