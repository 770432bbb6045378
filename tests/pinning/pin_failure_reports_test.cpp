// Pin-failure reports: the JSON record key by key, the once-a-day limit over a moved clock, and the
// reporter's construction, exceptions and uploads to a loopback server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "log_lines.h"
#include "pinning/background_reporter.h"
#include "pinning/pin_failure_report.h"
#include "pinning/report_texts.h"
#include "pinning/reports_rate_limiter.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/exception.h"
#include "platform/foundation/json_serialization.h"
#include "platform/net/url_session_configuration.h"
#include "platform/system/bundle.h"
#include "platform/system/file_manager.h"
#include "settings/vendor_identifier.h"
#include "support/raises.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

// 2026-01-31 23:59:59 UTC: the day differs in most time zones west and east of it.
constexpr double kReportTime = 1769903999;

ZRB_PGDPinFailureReport::Fields sampleFields() {
  ZRB_PGDPinFailureReport::Fields f;
  f.appBundleId = "com.example.app";
  f.appVersion = "2.1";
  f.appPlatform = "IOS";
  f.appPlatformVersion = "12.0.0";
  f.appVendorId = "VENDOR";
  f.pinguardVersion = "1.5.2";
  f.hostname = "www.example.com";
  f.port = 8443;
  f.dateTime = ZRBDate{kReportTime};
  f.notedHostname = "example.com";
  f.includeSubdomains = true;
  f.enforcePinning = false;
  f.validatedCertificateChain = {"PEM-LEAF", "PEM-ROOT"};
  f.knownPins = zrb_convertPinsToHpkpPins({ZRB_PGDPin{}});
  f.validationResult = PGDTrustEvaluationResultFailedNoMatchingPin;
  f.knownPinsExpirationDate = ZRBDate{kReportTime};
  return f;
}

TEST(PinFailureReportTest, JSONHasExactlyTheSixteenKeys) {
  // The dates are UTC whatever the process's time zone.
  const char* previous = std::getenv("TZ");
  std::string saved = previous ? previous : "";
  setenv("TZ", "Pacific/Kiritimati", 1);
  tzset();
  auto report = ZRB_PGDPinFailureReport::initWithFields(sampleFields());
  auto bytes = report->json();
  if (previous)
    setenv("TZ", saved.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();

  ZRBValue json = ZRBJSONSerialization::JSONObjectWithData(
      std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  ASSERT_TRUE(json.isDictionary());
  const std::vector<std::pair<std::string, ZRBValue>> expected = {
      {"app-bundle-id", "com.example.app"},
      {"app-version", "2.1"},
      {"app-platform", "IOS"},
      {"app-platform-version", "12.0.0"},
      {"app-vendor-id", "VENDOR"},
      {"pinguard-version", "1.5.2"},
      {"date-time", "2026-01-31T23:59:59Z"},
      {"hostname", "www.example.com"},
      {"port", 8443},
      {"noted-hostname", "example.com"},
      {"include-subdomains", true},
      {"enforce-pinning", false},
      {"validated-certificate-chain", ZRBValue::array({"PEM-LEAF", "PEM-ROOT"})},
      {"known-pins", ZRBValue::array({"pin-sha256=\"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=\""})},
      {"validation-result", 1},
      {"known-pins-expiration-date", "2026-01-31"},
  };
  ASSERT_EQ(json.count(), expected.size());
  for (const auto& [key, value] : expected) EXPECT_EQ(json[key], value) << key;
  EXPECT_TRUE(json["include-subdomains"].isBool());
  EXPECT_TRUE(json["port"].isNumber());

  auto fields = sampleFields();
  fields.dateTime.reset();
  fields.knownPinsExpirationDate.reset();
  ZRBValue withoutDates = ZRB_PGDPinFailureReport::initWithFields(fields)->jsonObject();
  EXPECT_TRUE(withoutDates["date-time"].isNull());
  EXPECT_TRUE(withoutDates["known-pins-expiration-date"].isNull());
  EXPECT_EQ(withoutDates.count(), 16u);

  auto request = report->requestToUri(ZRBURL::URLWithString("https://reports.example/pin"));
  EXPECT_EQ(request->HTTPMethod(), "POST");
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Type"), "application/json");
  EXPECT_EQ(request->HTTPBody(), ZRBValue::data(bytes));
}

TEST(PinFailureReportTest, PlatformVersionHasThreeNumbers) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"12", "12.0.0"}, {"6.1.0-18-amd64", "6.1.0"}, {"22.04", "22.4.0"}, {"", "0.0.0"}, {"trixie", "0.0.0"}};
  for (const auto& [text, version] : cases) EXPECT_EQ(ZRB_PGDPlatformVersionString(text), version) << text;
}

// The same failure once a day; what makes it "the same" is the six-value key.
TEST(ReportsRateLimiterTest, SameFailureOnceADay) {
  double now = 1000;
  auto limiter = ZRB_PGDReportsRateLimiter::init([&now] { return ZRBDate{now}; });
  auto report = [](auto change) {
    auto fields = sampleFields();
    change(fields);
    return ZRB_PGDPinFailureReport::initWithFields(fields);
  };
  using F = ZRB_PGDPinFailureReport::Fields;
  auto same = [](F&) {};
  struct Step {
    double advance;
    std::function<void(F&)> change;
    bool limited;
    const char* what;
  };
  const Step steps[] = {
      {0, same, false, "first"},
      {10, same, true, "repeat"},
      {0,
       [](F& f) {
         f.dateTime = ZRBDate{1};
         f.appVersion = "9";
         f.enforcePinning = true;
       },
       true, "date, application and flags do not count"},
      {0, [](F& f) { f.port = 443; }, false, "another port"},
      {0, [](F& f) { f.hostname = "api.example.com"; }, false, "another host"},
      {0, [](F& f) { f.notedHostname = "example.org"; }, false, "another policy"},
      {0, [](F& f) { f.validatedCertificateChain.pop_back(); }, false, "another chain"},
      {0, [](F& f) { f.knownPins.clear(); }, false, "other pins"},
      {0, [](F& f) { f.validationResult = PGDTrustEvaluationResultFailedInvalidCertificateChain; }, false,
       "another result"},
      {86400 - 10, same, true, "exactly a day after creation"},
      {1, same, false, "more than a day: the set was emptied"},
      {100, [](F& f) { f.port = 443; }, false, "emptied for every key"},
  };
  for (const auto& step : steps) {
    now += step.advance;
    EXPECT_EQ(limiter->shouldRateLimitReport(report(step.change)), step.limited) << step.what;
  }
  EXPECT_EQ(limiter->lastReportsCacheResetDate(), ZRBDate{1000 + 86401});
}

TEST(ReportsRateLimiterTest, NullArgumentsAreAssertions) {
  auto limiter = ZRB_PGDReportsRateLimiter::init();
  EXPECT_THROW(limiter->shouldRateLimitReport(nullptr), ZRBAssertionFailure);
  EXPECT_THAT([&] { limiter->setLastReportsCacheResetDate(std::nullopt); },
              testing::ThrowsMessage<ZRBAssertionFailure>(
                  "Invalid parameter not satisfying: lastReportsCacheResetDate"));
}

class BackgroundReporterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    temporary_ = ZRBTestPKI::makeTemporaryDirectory();
    ZRBFileManager::defaultManager()->setTemporaryDirectory(temporary_.string());
  }
  void TearDown() override {
    ZRBBundle::mainBundle()->resetInfoDictionary();
    ZRBFileManager::defaultManager()->setTemporaryDirectory(std::nullopt);
    std::filesystem::remove_all(temporary_);
  }
  bool logged(std::string_view prefix) { return log_.find(prefix) >= 0; }
  void fail(const ZRB_PGDBackgroundReporterPtr& reporter, long port,
            const std::optional<std::vector<ZRBURLPtr>>& uris) {
    reporter->pinValidationFailedForHostname("www.example.com", port, {"PEM"}, "example.com", uris, true,
                                             true, {ZRB_PGDPin{3}},
                                             PGDTrustEvaluationResultFailedNoMatchingPin, std::nullopt);
  }

  std::filesystem::path temporary_;
  PGDLogLines log_;
};

TEST_F(BackgroundReporterTest, ConstructionFollowsTheMainBundle) {
  ZRBBundle::mainBundle()->setInfoDictionary(ZRBValue::dictionary({}));
  auto anonymous = ZRB_PGDBackgroundReporter::initAndRateLimitReports(false);
  EXPECT_EQ(anonymous->appBundleId(), "N/A");
  EXPECT_EQ(anonymous->appVendorId(), "unit-tests");
  EXPECT_EQ(anonymous->appVersion(), "");
  EXPECT_EQ(anonymous->appPlatform(), "IOS");
  EXPECT_TRUE(anonymous->backgroundSession()->configuration()->isEphemeral());
  EXPECT_FALSE(anonymous->rateLimiter());
  EXPECT_TRUE(logged("Null bundle ID: we are running the test suite; falling back to a normal session."));

  ZRBBundle::mainBundle()->setInfoDictionary(ZRBValue::dictionary(
      {{"CFBundleIdentifier", "com.example.app"}, {"CFBundleShortVersionString", "3.4"}}));
  auto named = ZRB_PGDBackgroundReporter::initAndRateLimitReports(true);
  EXPECT_EQ(named->appBundleId(), "com.example.app");
  EXPECT_EQ(named->appVersion(), "3.4");
  EXPECT_EQ(named->appVendorId(), ZRBIdentifierForVendor().value_or(""));
  EXPECT_TRUE(named->rateLimiter());
  auto identifier = named->backgroundSession()->configuration()->identifier();
  ASSERT_TRUE(identifier);
  const std::string prefix = "com.example.app.PGDBackgroundReporter.";
  ASSERT_TRUE(identifier->starts_with(prefix)) << *identifier;
  EXPECT_EQ(identifier->size(), prefix.size() + 36);  // a UUID
}

TEST_F(BackgroundReporterTest, Exceptions) {
  auto reporter = ZRB_PGDBackgroundReporter::initAndRateLimitReports(false);
  struct Case {
    std::optional<std::vector<ZRBURLPtr>> uris;
    std::string reason;
  };
  const Case cases[] = {
      {std::nullopt, "Reporter was given an invalid value for reportURIs: (null) for domain example.com"},
      {std::vector<ZRBURLPtr>{},
       "Reporter was given an invalid value for reportURIs: (\n) for domain example.com"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT([&] { fail(reporter, 443, c.uris); },
                ZRBTestRaises("PGDBackgroundReporter configuration invalid", c.reason));
  }

  ZRBFileManager::defaultManager()->setTemporaryDirectory((temporary_ / "missing").string());
  EXPECT_THAT([&] { fail(reporter, 443, std::vector{ZRBURL::URLWithString("http://127.0.0.1:9/")}); },
              ZRBTestRaises("PGDBackgroundReporter runtime error",
                            testing::StartsWith("Report cannot be saved to file: ")));
}

// Two URIs: two uploads of the same file. The same failure again is limited; another port is not.
TEST_F(BackgroundReporterTest, UploadsOncePerURIAndRateLimits) {
  ZRBTestServer server;
  server.respondPrefix("POST", "/report", ZRBTestResponse::text(204, ""));
  server.start();
  auto reporter = ZRB_PGDBackgroundReporter::initAndRateLimitReports(true);
  std::vector<ZRBURLPtr> uris{ZRBURL::URLWithString(server.url("/report/a")),
                              ZRBURL::URLWithString(server.url("/report/b"))};
  fail(reporter, 443, uris);
  ASSERT_TRUE(reporter->waitForUploads(std::chrono::seconds(20)));
  fail(reporter, 443, uris);
  EXPECT_TRUE(logged("Pin failure report for example.com was not sent due to rate-limiting"));
  fail(reporter, 8443, uris);
  ASSERT_TRUE(reporter->waitForUploads(std::chrono::seconds(20)));

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 4u);
  std::vector<std::string> paths;
  for (const auto& request : requests) {
    paths.push_back(request.path);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    ZRBValue json = ZRBJSONSerialization::JSONObjectWithData(request.body);
    EXPECT_EQ(json.count(), 16u);
    EXPECT_EQ(json["known-pins"][0], "pin-sha256=\"AwAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=\"");
  }
  EXPECT_EQ(requests[0].body, requests[1].body);
  EXPECT_EQ(ZRBJSONSerialization::JSONObjectWithData(requests[3].body)["port"], 8443);
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(paths, (std::vector<std::string>{"/report/a", "/report/a", "/report/b", "/report/b"}));
  EXPECT_TRUE(logged("Report for example.com created at: " + temporary_.string()));
  EXPECT_TRUE(logged("Background upload - task completed successfully: pinning failure report sent"));

  // A refused connection is only logged.
  fail(reporter, 1, std::vector{ZRBURL::URLWithString("http://127.0.0.1:1/report")});
  ASSERT_TRUE(reporter->waitForUploads(std::chrono::seconds(20)));
  EXPECT_TRUE(logged("Background upload - task completed with error: "));
}

}  // namespace
