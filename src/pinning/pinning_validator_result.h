// ZRB_PGDPinningValidatorResult: what one validation of a pinned connection found, as the
// validator's observer (and from it the failure reporter) receives it.
//
// Immutable; the certificate chain is taken from the trust at construction, as PEM texts.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "pinning/pin_verifier.h"
#include "platform/foundation/object.h"
#include "platform/security/sec_trust.h"

enum PGDTrustDecision : long {
  PGDTrustDecisionShouldAllowConnection = 0,
  PGDTrustDecisionShouldBlockConnection = 1,
  PGDTrustDecisionDomainNotPinned = 2,
};

class ZRB_PGDPinningValidatorResult;
using ZRB_PGDPinningValidatorResultPtr = std::shared_ptr<const ZRB_PGDPinningValidatorResult>;

class ZRB_PGDPinningValidatorResult final : public ZRBObject {
 public:
  static ZRB_PGDPinningValidatorResultPtr initWithServerHostname(std::string serverHostname,
                                                                 const ZRBSecTrustPtr& serverTrust,
                                                                 PGDTrustEvaluationResult validationResult,
                                                                 PGDTrustDecision finalTrustDecision,
                                                                 double validationDuration);

  const std::string& serverHostname() const { return serverHostname_; }
  PGDTrustEvaluationResult evaluationResult() const { return evaluationResult_; }
  PGDTrustDecision finalTrustDecision() const { return finalTrustDecision_; }
  // Seconds.
  double validationDuration() const { return validationDuration_; }
  // zrb_convertTrustToPemArray of the trust: leaf first.
  const std::vector<std::string>& certificateChain() const { return certificateChain_; }

  std::string className() const override { return "ZRB_PGDPinningValidatorResult"; }
  std::string description() const override;

  struct Private {};
  ZRB_PGDPinningValidatorResult(Private, std::string serverHostname,
                                PGDTrustEvaluationResult evaluationResult,
                                PGDTrustDecision finalTrustDecision, double validationDuration,
                                std::vector<std::string> certificateChain);

 private:
  std::string serverHostname_;
  PGDTrustEvaluationResult evaluationResult_;
  PGDTrustDecision finalTrustDecision_;
  double validationDuration_;
  std::vector<std::string> certificateChain_;
};
