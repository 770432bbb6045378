// The texts a pin-failure report carries: the chain as PEM blocks and the pins in HPKP form.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "pinning/configuration.h"
#include "platform/security/sec_trust.h"

// One "-----BEGIN CERTIFICATE-----\n...\n-----END CERTIFICATE-----" text per certificate of the
// trust (its current certificate list: the built chain after an evaluation), leaf first; the base64
// is broken into 64-character lines separated by CR LF. Empty for a null trust.
std::vector<std::string> zrb_convertTrustToPemArray(const ZRBSecTrustPtr& serverTrust);

// "pin-sha256=\"<base64>\"" per pin, in the set's order.
std::vector<std::string> zrb_convertPinsToHpkpPins(const std::set<ZRB_PGDPin>& knownPins);
