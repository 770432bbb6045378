// ZRB_PinGuard: the entry object of the pinning library. It parses a configuration, owns the pin
// validator and the failure reporter, and connects the two: every validated pinned connection is
// passed to the caller's observer (when one is set) and, when validation did not succeed, reported
// to the policy's report URIs on a serial reporter queue.
//
// Two kinds of instances:
// - the shared instance (initSharedInstanceWithConfiguration, once per process, or at load time
//   from the main bundle's "PGDConfiguration" entry). Only it may install the delegate proxies
//   ("PGDSwizzleNetworkDelegates"), which make every URL session and URL connection of the process
//   validate pins;
// - private instances (initWithConfiguration) that the program hands to code that validates
//   explicitly (the request layer's agent).
// Every instance shares one SPKI hash cache, "spki-hash.cache" in the Caches directory.
//
// The validator's observer holds its instance weakly: a private instance dropped by its owner stops
// observing and reporting. Observer calls and reports never run on the validating thread.
//
// Configuration mistakes raise ZRBException named "PinGuard configuration invalid" (see
// zrb_parsePinGuardConfiguration); they are the integrating program's errors and are not caught.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pinning/background_reporter.h"
#include "pinning/configuration.h"
#include "pinning/pgd_log.h"
#include "pinning/pinning_validator.h"
#include "pinning/pinning_validator_result.h"
#include "pinning/spki_hash_cache.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/runtime/dispatch.h"

// The project's collector of pin-failure reports, used for every policy that does not set
// "PGDDisableDefaultReportUri". A deployment that runs its own collector replaces this value.
inline constexpr std::string_view kZRB_PGDDefaultReportUri = "https://pin-reports.orvelkit.net/log_report";

// The reporter queue's label.
inline constexpr std::string_view kZRB_PGDReporterQueueLabel = "com.velkit.pinguard.reporter";

// The identifier (file name) of the process's SPKI hash cache.
inline constexpr std::string_view kZRB_PGDSharedHashCacheIdentifier = "spki-hash.cache";

class ZRB_PinGuard;
using ZRB_PinGuardPtr = std::shared_ptr<ZRB_PinGuard>;

class ZRB_PinGuard final : public ZRBObject {
 public:
  // ---- the shared instance ----
  // Null until initialised.
  static ZRB_PinGuardPtr sharedInstance();
  // Logs, then, the first time only, creates the shared instance and installs the delegate proxies
  // when the configuration asks for them. Later calls log and change nothing. Returns the shared
  // instance. A configuration that fails to parse raises, and leaves the process uninitialised.
  static ZRB_PinGuardPtr initSharedInstanceWithConfiguration(const ZRBValue& configuration);
  // The load-time initialiser: the main bundle's "PGDConfiguration", when present, initialises the
  // shared instance. Nothing happens without one.
  static void initializeWithInfoPlist();

  // ---- private instances ----
  // A non-shared instance. "PGDSwizzleNetworkDelegates" true raises the configuration exception.
  static ZRB_PinGuardPtr initWithConfiguration(const ZRBValue& configuration);
  // An absent configuration fails the assertion "pinGuardConfig".
  static ZRB_PinGuardPtr initWithConfiguration(const ZRBValue& configuration, bool isSingleton);

  // ---- observation ----
  // Called for every validated pinned connection with the result, the configured domain whose
  // policy applied and that policy; asynchronously on the callback queue. Null removes it.
  void setPinningValidatorCallback(ZRB_PGDValidationCallback callback);
  ZRB_PGDValidationCallback pinningValidatorCallback() const;
  // Null means the main queue.
  void setPinningValidatorCallbackQueue(ZRBDispatchQueuePtr queue);
  ZRBDispatchQueuePtr pinningValidatorCallbackQueue() const;

  const ZRB_PGDPinningValidatorPtr& pinningValidator() const { return pinningValidator_; }
  const ZRB_PGDConfigurationPtr& configuration() const { return configuration_; }
  const ZRB_PGDBackgroundReporterPtr& pinFailureReporter() const { return pinFailureReporter_; }
  const ZRBDispatchQueuePtr& pinFailureReporterQueue() const { return pinFailureReporterQueue_; }
  bool isSharedInstance() const { return isSingleton_; }

  // Reports a failed validation (a result whose evaluation did not succeed) on the reporter queue,
  // to reportURIsForPolicy(policy) when that is not empty. A failure let through because
  // enforcement is off is reported all the same.
  void sendValidationReport(const ZRB_PGDPinningValidatorResultPtr& result, const std::string& notedHostname,
                            const ZRB_PGDDomainPolicyPtr& policy);
  // The policy's report URIs, then the default endpoint unless the policy disables it.
  static std::vector<ZRBURLPtr> reportURIsForPolicy(const ZRB_PGDDomainPolicy& policy);

  // ---- process-wide ----
  // The hash cache every instance shares, created on first use.
  static const ZRB_PGDSPKIHashCachePtr& sharedHashCache();
  // The logger of ZRB_PGDLog; null silences it.
  static void setLoggerBlock(ZRB_PGDLoggerBlock block) { ZRB_PGDSetLoggerBlock(std::move(block)); }

  std::string className() const override { return "ZRB_PinGuard"; }

  struct Private {};
  ZRB_PinGuard(Private, ZRB_PGDConfigurationPtr configuration, bool isSingleton);

 private:
  void didValidate(const ZRB_PGDPinningValidatorResultPtr& result, const std::string& notedHostname,
                   const ZRB_PGDDomainPolicyPtr& policy);

  const ZRB_PGDConfigurationPtr configuration_;
  const bool isSingleton_;
  ZRB_PGDPinningValidatorPtr pinningValidator_;
  ZRB_PGDBackgroundReporterPtr pinFailureReporter_;
  ZRBDispatchQueuePtr pinFailureReporterQueue_;

  mutable std::mutex observerMutex_;
  ZRB_PGDValidationCallback pinningValidatorCallback_;
  ZRBDispatchQueuePtr pinningValidatorCallbackQueue_;
};
