// ZRB_PGDPinFailureReport: one pin-validation failure as it is sent to a report endpoint.
//
// The JSON form is an object with exactly these 16 keys: "app-bundle-id", "app-version",
// "app-platform", "app-platform-version", "app-vendor-id", "pinguard-version", "date-time"
// ("yyyy-MM-dd'T'HH:mm:ss'Z'", UTC), "hostname", "port", "noted-hostname", "include-subdomains",
// "enforce-pinning", "validated-certificate-chain" (PEM texts), "known-pins" ("pin-sha256=..."
// texts), "validation-result" (the PGDTrustEvaluationResult number) and
// "known-pins-expiration-date" ("yyyy-MM-dd", UTC). An absent date is JSON null.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pinning/pin_verifier.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/net/url_request.h"

class ZRB_PGDPinFailureReport;
using ZRB_PGDPinFailureReportPtr = std::shared_ptr<const ZRB_PGDPinFailureReport>;

class ZRB_PGDPinFailureReport final : public ZRBObject {
 public:
  struct Fields {
    std::string appBundleId;
    std::string appVersion;
    std::string appPlatform;
    std::string appPlatformVersion;
    std::string appVendorId;
    std::string pinguardVersion;
    std::string hostname;
    long port = 0;
    std::optional<ZRBDate> dateTime;
    std::string notedHostname;
    bool includeSubdomains = false;
    bool enforcePinning = false;
    std::vector<std::string> validatedCertificateChain;
    std::vector<std::string> knownPins;
    PGDTrustEvaluationResult validationResult = PGDTrustEvaluationResultSuccess;
    std::optional<ZRBDate> knownPinsExpirationDate;
  };

  // The designated initialiser, with its arguments gathered in one record.
  static ZRB_PGDPinFailureReportPtr initWithFields(Fields fields);

  const std::string& appBundleId() const { return fields_.appBundleId; }
  const std::string& appVersion() const { return fields_.appVersion; }
  const std::string& appPlatform() const { return fields_.appPlatform; }
  const std::string& appPlatformVersion() const { return fields_.appPlatformVersion; }
  const std::string& appVendorId() const { return fields_.appVendorId; }
  const std::string& pinguardVersion() const { return fields_.pinguardVersion; }
  const std::optional<ZRBDate>& dateTime() const { return fields_.dateTime; }
  const std::string& hostname() const { return fields_.hostname; }
  long port() const { return fields_.port; }
  const std::string& notedHostname() const { return fields_.notedHostname; }
  bool includeSubdomains() const { return fields_.includeSubdomains; }
  bool enforcePinning() const { return fields_.enforcePinning; }
  const std::vector<std::string>& validatedCertificateChain() const {
    return fields_.validatedCertificateChain;
  }
  const std::vector<std::string>& knownPins() const { return fields_.knownPins; }
  PGDTrustEvaluationResult validationResult() const { return fields_.validationResult; }
  const std::optional<ZRBDate>& knownPinsExpirationDate() const { return fields_.knownPinsExpirationDate; }

  // The JSON object as a value (keys in the order above), and its UTF-8 bytes.
  ZRBValue jsonObject() const;
  std::vector<std::uint8_t> json() const;
  // A POST to the URL with "Content-Type: application/json" and the JSON as its body.
  ZRBMutableURLRequestPtr requestToUri(const ZRBURLPtr& uri) const;

  std::string className() const override { return "ZRB_PGDPinFailureReport"; }
  std::string description() const override;

  struct Private {};
  ZRB_PGDPinFailureReport(Private, Fields fields) : fields_(std::move(fields)) {}

 private:
  Fields fields_;
};

// "2026-11-25T13:05:09Z" and "2026-11-25": the report's two date texts (UTC, whatever the locale).
std::string ZRB_PGDReportDateTimeString(ZRBDate date);
std::string ZRB_PGDReportDateString(ZRBDate date);
