#include "pinning/background_reporter.h"

#include <cctype>
#include <filesystem>
#include <utility>

#include "pinning/pgd_log.h"
#include "pinning/report_texts.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/exception.h"
#include "platform/foundation/string_format.h"
#include "platform/net/url_session_configuration.h"
#include "platform/net/url_session_delegate.h"
#include "platform/system/bundle.h"
#include "platform/system/device.h"
#include "platform/system/file_manager.h"
#include "platform/system/process_info.h"
#include "settings/vendor_identifier.h"

namespace {

// The session keeps its delegate; this one holds the reporter weakly, so a reporter its owner drops
// goes away (and lets its session finish) instead of living on through the session.
class ReporterSessionDelegate final : public ZRBURLSessionDelegate {
 public:
  explicit ReporterSessionDelegate(std::weak_ptr<ZRB_PGDBackgroundReporter> reporter,
                                   ZRBDispatchGroupPtr uploads)
      : reporter_(std::move(reporter)), uploads_(std::move(uploads)) {}

  void taskDidComplete(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                       ZRBErrorPtr error) override {
    if (auto reporter = reporter_.lock()) reporter->URLSessionTaskDidCompleteWithError(session, task, error);
    uploads_->leave();
  }
  std::string className() const override { return "PGDBackgroundReporterSessionDelegate"; }

 private:
  std::weak_ptr<ZRB_PGDBackgroundReporter> reporter_;
  ZRBDispatchGroupPtr uploads_;
};

ZRBValue describedURIs(const std::optional<std::vector<ZRBURLPtr>>& uris) {
  if (!uris) return ZRBValue();
  ZRBArrayBuilder array;
  for (const auto& uri : *uris) array.add(ZRBValue(uri));
  return array.build();
}

}  // namespace

std::string ZRB_PGDPlatformVersionString(std::string_view versionText) {
  long parts[3] = {0, 0, 0};
  std::size_t position = 0;
  for (long& part : parts) {
    if (position >= versionText.size() || !std::isdigit(static_cast<unsigned char>(versionText[position])))
      break;
    long value = 0;
    while (position < versionText.size() && std::isdigit(static_cast<unsigned char>(versionText[position]))) {
      if (value < 100000000) value = value * 10 + (versionText[position] - '0');
      ++position;
    }
    part = value;
    if (position >= versionText.size() || versionText[position] != '.') break;
    ++position;
  }
  return ZRBStringWithFormat("%ld.%ld.%ld", parts[0], parts[1], parts[2]);
}

ZRB_PGDBackgroundReporterPtr ZRB_PGDBackgroundReporter::initAndRateLimitReports(bool shouldRateLimitReports) {
  auto reporter = std::make_shared<ZRB_PGDBackgroundReporter>(Private{});
  reporter->shouldRateLimitReports_ = shouldRateLimitReports;
  if (shouldRateLimitReports) reporter->rateLimiter_ = ZRB_PGDReportsRateLimiter::init();
  reporter->appPlatform_ = "IOS";
  reporter->appPlatformVersion_ = ZRB_PGDPlatformVersionString(ZRBDevice::currentDevice()->systemVersion());
  const ZRBBundlePtr& bundle = ZRBBundle::mainBundle();
  reporter->appVersion_ = bundle->objectForInfoDictionaryKey("CFBundleShortVersionString").string();

  ZRBURLSessionConfigurationPtr configuration;
  if (std::optional<std::string> bundleId = bundle->bundleIdentifier()) {
    reporter->appBundleId_ = *bundleId;
    reporter->appVendorId_ = ZRBIdentifierForVendor().value_or("");
    configuration = ZRBURLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
        ZRBStringWithFormat("%@.PGDBackgroundReporter.%@", *bundleId, ZRBUUIDString()));
  } else {
    ZRB_PGDLog("Null bundle ID: we are running the test suite; falling back to a normal session.");
    reporter->appBundleId_ = "N/A";
    reporter->appVendorId_ = "unit-tests";
    configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  }
  reporter->backgroundSession_ = ZRBURLSession::sessionWithConfiguration(
      configuration, std::make_shared<ReporterSessionDelegate>(reporter, reporter->uploads_), nullptr);
  return reporter;
}

ZRB_PGDBackgroundReporter::~ZRB_PGDBackgroundReporter() {
  // Uploads under way still finish; the session then lets go of its delegate.
  if (backgroundSession_) backgroundSession_->finishTasksAndInvalidate();
}

void ZRB_PGDBackgroundReporter::pinValidationFailedForHostname(
    const std::string& serverHostname, long serverPort, const std::vector<std::string>& certificateChain,
    const std::string& notedHostname, const std::optional<std::vector<ZRBURLPtr>>& reportURIs,
    bool includeSubdomains, bool enforcePinning, const std::set<ZRB_PGDPin>& knownPins,
    PGDTrustEvaluationResult validationResult, std::optional<ZRBDate> knownPinsExpirationDate) {
  if (!reportURIs || reportURIs->empty()) {
    throw ZRBException(
        std::string(kZRB_PGDBackgroundReporterConfigurationInvalidException),
        ZRBStringWithFormat("Reporter was given an invalid value for reportURIs: %@ for domain %@",
                            describedURIs(reportURIs), notedHostname));
  }

  ZRB_PGDPinFailureReport::Fields fields;
  fields.appBundleId = appBundleId_;
  fields.appVersion = appVersion_;
  fields.appPlatform = appPlatform_;
  fields.appPlatformVersion = appPlatformVersion_;
  fields.appVendorId = appVendorId_;
  fields.pinguardVersion = kZRB_PGDPinguardVersion;
  fields.hostname = serverHostname;
  fields.port = serverPort;
  fields.dateTime = ZRBDate::now();
  fields.notedHostname = notedHostname;
  fields.includeSubdomains = includeSubdomains;
  fields.enforcePinning = enforcePinning;
  fields.validatedCertificateChain = certificateChain;
  fields.knownPins = zrb_convertPinsToHpkpPins(knownPins);
  fields.validationResult = validationResult;
  fields.knownPinsExpirationDate = knownPinsExpirationDate;
  ZRB_PGDPinFailureReportPtr report = ZRB_PGDPinFailureReport::initWithFields(std::move(fields));

  if (shouldRateLimitReports_ && rateLimiter_ && rateLimiter_->shouldRateLimitReport(report)) {
    ZRB_PGDLog("Pin failure report for %@ was not sent due to rate-limiting", notedHostname);
    return;
  }

  const std::string path = (std::filesystem::path(ZRBFileManager::defaultManager()->temporaryDirectory()) /
                            (ZRBProcessInfo::processInfo()->globallyUniqueString() + ".pgd-report"))
                               .string();
  ZRBErrorPtr error;
  if (!ZRBFileManager::defaultManager()->writeData(report->json(), path, true, &error)) {
    throw ZRBException(
        std::string(kZRB_PGDBackgroundReporterRuntimeErrorException),
        ZRBStringWithFormat("Report cannot be saved to file: %@",
                            error ? error->localizedDescription() : std::string("unknown error")));
  }
  ZRB_PGDLog("Report for %@ created at: %@", notedHostname, path);

  const ZRBURLPtr file = ZRBURL::fileURLWithPath(path, false);
  for (const ZRBURLPtr& uri : *reportURIs) {
    auto request = ZRBMutableURLRequest::requestWithURL(uri);
    request->setHTTPMethod("POST");
    request->setValue("application/json", "Content-Type");
    auto task = backgroundSession_->uploadTaskWithRequest(request, file);
    if (!task) continue;
    uploads_->enter();
    task->resume();
  }
}

void ZRB_PGDBackgroundReporter::URLSessionTaskDidCompleteWithError(const ZRBURLSessionPtr&,
                                                                   const ZRBURLSessionTaskPtr&,
                                                                   const ZRBErrorPtr& error) {
  if (error) {
    ZRB_PGDLog("Background upload - task completed with error: %@ (code %ld)", error, error->code());
  } else {
    ZRB_PGDLog("Background upload - task completed successfully: pinning failure report sent");
  }
}

bool ZRB_PGDBackgroundReporter::waitForUploads(std::chrono::milliseconds timeout) const {
  return uploads_->wait(timeout);
}
