#include "pinning/pin_failure_report.h"

#include <cmath>
#include <ctime>

#include "platform/foundation/json_serialization.h"
#include "platform/foundation/string_format.h"

namespace {

// gmtime and strftime with fixed numeric conversions: no locale or time zone takes part.
std::string formatUTC(ZRBDate date, const char* format) {
  const auto seconds = static_cast<std::time_t>(std::floor(date.secondsSince1970));
  std::tm utc{};
  char text[40] = "";
  if (gmtime_r(&seconds, &utc)) std::strftime(text, sizeof text, format, &utc);
  return text;
}

ZRBValue stringArray(const std::vector<std::string>& strings) {
  ZRBArrayBuilder array;
  array.reserve(strings.size());
  for (const auto& text : strings) array.add(ZRBValue(text));
  return array.build();
}

}  // namespace

std::string ZRB_PGDReportDateTimeString(ZRBDate date) { return formatUTC(date, "%Y-%m-%dT%H:%M:%SZ"); }
std::string ZRB_PGDReportDateString(ZRBDate date) { return formatUTC(date, "%Y-%m-%d"); }

ZRB_PGDPinFailureReportPtr ZRB_PGDPinFailureReport::initWithFields(Fields fields) {
  return std::make_shared<const ZRB_PGDPinFailureReport>(Private{}, std::move(fields));
}

ZRBValue ZRB_PGDPinFailureReport::jsonObject() const {
  const Fields& f = fields_;
  return ZRBValue::dictionary({
      {"app-bundle-id", f.appBundleId},
      {"app-version", f.appVersion},
      {"app-platform", f.appPlatform},
      {"app-platform-version", f.appPlatformVersion},
      {"app-vendor-id", f.appVendorId},
      {"pinguard-version", f.pinguardVersion},
      {"date-time", f.dateTime ? ZRBValue(ZRB_PGDReportDateTimeString(*f.dateTime)) : ZRBValue::null()},
      {"hostname", f.hostname},
      {"port", f.port},
      {"noted-hostname", f.notedHostname},
      {"include-subdomains", f.includeSubdomains},
      {"enforce-pinning", f.enforcePinning},
      {"validated-certificate-chain", stringArray(f.validatedCertificateChain)},
      {"known-pins", stringArray(f.knownPins)},
      {"validation-result", static_cast<long>(f.validationResult)},
      {"known-pins-expiration-date", f.knownPinsExpirationDate
                                         ? ZRBValue(ZRB_PGDReportDateString(*f.knownPinsExpirationDate))
                                         : ZRBValue::null()},
  });
}

std::vector<std::uint8_t> ZRB_PGDPinFailureReport::json() const {
  // Strings, numbers, booleans and null only: serialisation cannot fail.
  return ZRBJSONSerialization::dataWithJSONObject(jsonObject()).value_or(std::vector<std::uint8_t>{});
}

ZRBMutableURLRequestPtr ZRB_PGDPinFailureReport::requestToUri(const ZRBURLPtr& uri) const {
  auto request = ZRBMutableURLRequest::requestWithURL(uri);
  request->setHTTPMethod("POST");
  request->setValue("application/json", "Content-Type");
  request->setHTTPBody(ZRBValue::data(json()));
  return request;
}

std::string ZRB_PGDPinFailureReport::description() const {
  return ZRBStringWithFormat("<%@: %p; hostname = %@; port = %ld; noted hostname = %@; result = %ld>",
                             className(), static_cast<const void*>(this), fields_.hostname, fields_.port,
                             fields_.notedHostname, fields_.validationResult);
}
