#include "pinning/pinning_validator_result.h"

#include "pinning/report_texts.h"
#include "platform/foundation/string_format.h"

ZRB_PGDPinningValidatorResultPtr ZRB_PGDPinningValidatorResult::initWithServerHostname(
    std::string serverHostname, const ZRBSecTrustPtr& serverTrust, PGDTrustEvaluationResult validationResult,
    PGDTrustDecision finalTrustDecision, double validationDuration) {
  return std::make_shared<const ZRB_PGDPinningValidatorResult>(
      Private{}, std::move(serverHostname), validationResult, finalTrustDecision, validationDuration,
      zrb_convertTrustToPemArray(serverTrust));
}

ZRB_PGDPinningValidatorResult::ZRB_PGDPinningValidatorResult(Private, std::string serverHostname,
                                                             PGDTrustEvaluationResult evaluationResult,
                                                             PGDTrustDecision finalTrustDecision,
                                                             double validationDuration,
                                                             std::vector<std::string> certificateChain)
    : serverHostname_(std::move(serverHostname)),
      evaluationResult_(evaluationResult),
      finalTrustDecision_(finalTrustDecision),
      validationDuration_(validationDuration),
      certificateChain_(std::move(certificateChain)) {}

std::string ZRB_PGDPinningValidatorResult::description() const {
  return ZRBStringWithFormat("<%@: %p; host = %@; result = %ld; decision = %ld; duration = %f; chain = %lu>",
                             className(), static_cast<const void*>(this), serverHostname_, evaluationResult_,
                             finalTrustDecision_, validationDuration_, certificateChain_.size());
}
