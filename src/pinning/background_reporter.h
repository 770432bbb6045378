// ZRB_PGDBackgroundReporter: turns pin-validation failures into reports and uploads them by POST to
// each report URI of the domain's policy.
//
// Construction reads the main bundle: with an identifier, reports carry it and the vendor
// identifier, and go through a background session configuration named
// "<bundle id>.PGDBackgroundReporter.<random UUID>"; without one (a test run), they say "N/A" and
// "unit-tests" and go through an ephemeral session. Each report is written once to the temporary
// directory ("<unique>.pgd-report") and uploaded from that file, one upload per URI. Answers are
// not examined and nothing is retried; completions are only logged.
//
// Mistakes raise ZRBException: "PGDBackgroundReporter configuration invalid" for a missing or empty
// URI list, "PGDBackgroundReporter runtime error" when the report file cannot be written.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "pinning/configuration.h"
#include "pinning/pin_failure_report.h"
#include "pinning/pin_verifier.h"
#include "pinning/reports_rate_limiter.h"
#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/net/url_session.h"
#include "platform/runtime/dispatch.h"

inline constexpr std::string_view kZRB_PGDBackgroundReporterConfigurationInvalidException =
    "PGDBackgroundReporter configuration invalid";
inline constexpr std::string_view kZRB_PGDBackgroundReporterRuntimeErrorException =
    "PGDBackgroundReporter runtime error";
// The version the reports name.
inline constexpr std::string_view kZRB_PGDPinguardVersion = "1.5.2";

class ZRB_PGDBackgroundReporter;
using ZRB_PGDBackgroundReporterPtr = std::shared_ptr<ZRB_PGDBackgroundReporter>;

class ZRB_PGDBackgroundReporter final : public ZRBObject {
 public:
  // With rate limiting, the same failure is sent at most once a day (ZRB_PGDReportsRateLimiter).
  static ZRB_PGDBackgroundReporterPtr initAndRateLimitReports(bool shouldRateLimitReports);
  ~ZRB_PGDBackgroundReporter() override;

  // Builds the report (date: now) and, unless it is rate-limited, saves and uploads it. Raises the
  // exceptions above. Called on the reporter's queue, never on a validating thread.
  void pinValidationFailedForHostname(
      const std::string& serverHostname, long serverPort, const std::vector<std::string>& certificateChain,
      const std::string& notedHostname, const std::optional<std::vector<ZRBURLPtr>>& reportURIs,
      bool includeSubdomains, bool enforcePinning, const std::set<ZRB_PGDPin>& knownPins,
      PGDTrustEvaluationResult validationResult, std::optional<ZRBDate> knownPinsExpirationDate);

  // The session's task completion: logs the outcome.
  void URLSessionTaskDidCompleteWithError(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                                          const ZRBErrorPtr& error);

  // Waits until every upload started so far has completed; false when the timeout passed first.
  // For tools and tests: the reporter itself never waits.
  bool waitForUploads(std::chrono::milliseconds timeout) const;

  const ZRBURLSessionPtr& backgroundSession() const { return backgroundSession_; }
  const std::string& appBundleId() const { return appBundleId_; }
  const std::string& appVersion() const { return appVersion_; }
  const std::string& appPlatform() const { return appPlatform_; }
  const std::string& appPlatformVersion() const { return appPlatformVersion_; }
  const std::string& appVendorId() const { return appVendorId_; }
  bool shouldRateLimitReports() const { return shouldRateLimitReports_; }
  const ZRB_PGDReportsRateLimiterPtr& rateLimiter() const { return rateLimiter_; }
  // Replaces the limiter (tests give one with a clock they move).
  void setRateLimiter(ZRB_PGDReportsRateLimiterPtr limiter) { rateLimiter_ = std::move(limiter); }

  std::string className() const override { return "ZRB_PGDBackgroundReporter"; }

  struct Private {};
  explicit ZRB_PGDBackgroundReporter(Private) {}

 private:
  ZRBURLSessionPtr backgroundSession_;
  std::string appBundleId_;
  std::string appVersion_;
  std::string appPlatform_;
  std::string appPlatformVersion_;
  std::string appVendorId_;
  bool shouldRateLimitReports_ = false;
  ZRB_PGDReportsRateLimiterPtr rateLimiter_;
  ZRBDispatchGroupPtr uploads_ = ZRBDispatchGroup::make();
};

// The operating system's version as "major.minor.patch" from its version text ("12" -> "12.0.0",
// "6.1.0-18-amd64" -> "6.1.0"); "0.0.0" when the text starts with no number.
std::string ZRB_PGDPlatformVersionString(std::string_view versionText);
