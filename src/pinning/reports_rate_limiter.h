// ZRB_PGDReportsRateLimiter: lets the same pin failure be reported once a day.
//
// Two reports are the same when they agree on six values: noted host name, host name, port,
// validated certificate chain, known pins and validation result (not the date, the application
// fields or the policy flags). The set of keys seen is emptied once more than 86,400 seconds have
// passed since the last emptying (or since creation). The set and the reset date are touched only
// on the serial queue "PGDReportsRateLimiter"; the clock is read just before entering it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "pinning/pin_failure_report.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/runtime/dispatch.h"

class ZRB_PGDReportsRateLimiter;
using ZRB_PGDReportsRateLimiterPtr = std::shared_ptr<ZRB_PGDReportsRateLimiter>;

class ZRB_PGDReportsRateLimiter final : public ZRBObject {
 public:
  // The current time; replaceable so that tests can move the clock.
  using Clock = std::function<ZRBDate()>;

  static ZRB_PGDReportsRateLimiterPtr init(Clock clock = ZRBDate::now);

  // True when the report must not be sent (its key was seen within the period); otherwise records
  // the key and answers false. A null report fails the assertion "report" and answers false.
  bool shouldRateLimitReport(const ZRB_PGDPinFailureReportPtr& report);

  ZRBDate lastReportsCacheResetDate() const;
  // nullopt fails the assertion "lastReportsCacheResetDate" and changes nothing.
  void setLastReportsCacheResetDate(std::optional<ZRBDate> date);

  std::string className() const override { return "ZRB_PGDReportsRateLimiter"; }

  struct Private {};
  ZRB_PGDReportsRateLimiter(Private, Clock clock);

 private:
  struct ReportKey {
    std::string notedHostname;
    std::string hostname;
    long port;
    std::vector<std::string> validatedCertificateChain;
    std::vector<std::string> knownPins;
    long validationResult;
    auto operator<=>(const ReportKey&) const = default;
  };

  const Clock clock_;
  std::set<ReportKey> reportsCache_;
  ZRBDate lastReportsCacheResetDate_;
  const ZRBDispatchQueuePtr reportsCacheQueue_;
};
