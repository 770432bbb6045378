#include "pinning/reports_rate_limiter.h"

#include <utility>

#include "platform/foundation/assert.h"

namespace {

constexpr double kResetInterval = 24 * 3600;

}  // namespace

ZRB_PGDReportsRateLimiterPtr ZRB_PGDReportsRateLimiter::init(Clock clock) {
  return std::make_shared<ZRB_PGDReportsRateLimiter>(Private{},
                                                     clock ? std::move(clock) : Clock(ZRBDate::now));
}

ZRB_PGDReportsRateLimiter::ZRB_PGDReportsRateLimiter(Private, Clock clock)
    : clock_(std::move(clock)),
      lastReportsCacheResetDate_(clock_()),
      reportsCacheQueue_(ZRBDispatchQueue::serial("PGDReportsRateLimiter")) {}

bool ZRB_PGDReportsRateLimiter::shouldRateLimitReport(const ZRB_PGDPinFailureReportPtr& report) {
  ZRBAssertNamed(report != nullptr, "report");
  if (!report) return false;
  const ZRBDate now = clock_();
  ReportKey key{report->notedHostname(), report->hostname(),
                report->port(),          report->validatedCertificateChain(),
                report->knownPins(),     static_cast<long>(report->validationResult())};
  bool limited = false;
  reportsCacheQueue_->sync([&] {
    if (now.secondsSince1970 - lastReportsCacheResetDate_.secondsSince1970 > kResetInterval) {
      reportsCache_.clear();
      lastReportsCacheResetDate_ = now;
    }
    limited = !reportsCache_.insert(std::move(key)).second;
  });
  return limited;
}

ZRBDate ZRB_PGDReportsRateLimiter::lastReportsCacheResetDate() const {
  ZRBDate date;
  reportsCacheQueue_->sync([&] { date = lastReportsCacheResetDate_; });
  return date;
}

void ZRB_PGDReportsRateLimiter::setLastReportsCacheResetDate(std::optional<ZRBDate> date) {
  ZRBAssertNamed(date.has_value(), "lastReportsCacheResetDate");
  if (!date) return;
  reportsCacheQueue_->sync([&] { lastReportsCacheResetDate_ = *date; });
}
