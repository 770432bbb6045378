// zrb_verifyPublicKeyPin: whether a server's chain is valid for a host and carries a known pin.
//
// The trust is evaluated with one SSL server policy for the host (replacing its policies; the
// caller's trust keeps that policy). A chain the default evaluation rejects gives
// PGDTrustEvaluationResultFailedInvalidCertificateChain before any pin is looked at. Then the built
// chain is walked from the anchor end down to the leaf and each certificate hashed with each
// configured algorithm in order: the first hash found among the pins wins, so a root's or an
// intermediate's pin is found before the leaf's. Every step is logged through ZRB_PGDLog.
#pragma once

#include <set>
#include <string_view>
#include <vector>

#include "pinning/configuration.h"
#include "pinning/public_key_algorithm.h"
#include "pinning/spki_hash_cache.h"
#include "platform/security/sec_trust.h"

enum PGDTrustEvaluationResult : long {
  PGDTrustEvaluationResultSuccess = 0,
  PGDTrustEvaluationResultFailedNoMatchingPin = 1,
  PGDTrustEvaluationResultFailedInvalidCertificateChain = 2,
  PGDTrustEvaluationResultErrorInvalidParameters = 3,
  // 4 is never produced.
  PGDTrustEvaluationResultErrorCouldNotGenerateSpkiHash = 5,
};

// serverTrust, supportedAlgorithms and knownPins must not be null: a null one fails the assertion
// naming it and, where assertions only log, gives PGDTrustEvaluationResultErrorInvalidParameters
// (as does a trust that cannot be evaluated). A null hash cache cannot hash anything and gives
// PGDTrustEvaluationResultErrorCouldNotGenerateSpkiHash once a chain has passed.
PGDTrustEvaluationResult zrb_verifyPublicKeyPin(const ZRBSecTrustPtr& serverTrust,
                                                std::string_view serverHostname,
                                                const std::vector<PGDPublicKeyAlgorithm>* supportedAlgorithms,
                                                const std::set<ZRB_PGDPin>* knownPins,
                                                const ZRB_PGDSPKIHashCachePtr& hashCache);
