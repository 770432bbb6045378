#include "pinning/report_texts.h"

#include "platform/foundation/crypto.h"

std::vector<std::string> zrb_convertTrustToPemArray(const ZRBSecTrustPtr& serverTrust) {
  std::vector<std::string> pems;
  if (!serverTrust) return pems;
  for (const ZRBSecCertificatePtr& certificate : serverTrust->certificates()) {
    pems.push_back("-----BEGIN CERTIFICATE-----\n" +
                   ZRBBase64Encode(certificate->data(), ZRBBase64Encoding64CharacterLineLength) +
                   "\n-----END CERTIFICATE-----");
  }
  return pems;
}

std::vector<std::string> zrb_convertPinsToHpkpPins(const std::set<ZRB_PGDPin>& knownPins) {
  std::vector<std::string> pins;
  pins.reserve(knownPins.size());
  for (const ZRB_PGDPin& pin : knownPins) pins.push_back("pin-sha256=\"" + ZRBBase64Encode(pin) + "\"");
  return pins;
}
