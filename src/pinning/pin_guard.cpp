#include "pinning/pin_guard.h"

#include <atomic>
#include <utility>

#include "pinning/url_connection_delegate_proxy.h"
#include "pinning/url_session_delegate_proxy.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/exception.h"
#include "platform/runtime/method_replacement.h"
#include "platform/system/bundle.h"

namespace {

inline constexpr std::string_view kInfoPlistConfigurationKey = "PGDConfiguration";

std::mutex& sharedInstanceMutex() {
  static std::mutex mutex;
  return mutex;
}

// Written once under the mutex; read without it.
std::atomic<std::shared_ptr<ZRB_PinGuard>>& sharedInstanceSlot() {
  static std::atomic<std::shared_ptr<ZRB_PinGuard>> slot;
  return slot;
}

// The load-time initialiser; nothing else of the pinning library runs at load.
const ZRBLoadTimeRegistrar pinGuardRegistrar("pin guard Info.plist configuration",
                                             [] { ZRB_PinGuard::initializeWithInfoPlist(); });

}  // namespace

ZRB_PinGuardPtr ZRB_PinGuard::sharedInstance() {
  return sharedInstanceSlot().load(std::memory_order_acquire);
}

ZRB_PinGuardPtr ZRB_PinGuard::initSharedInstanceWithConfiguration(const ZRBValue& configuration) {
  ZRB_PGDLog("Configuration passed via explicit call to initSharedInstanceWithConfiguration:");
  std::lock_guard lock(sharedInstanceMutex());
  if (auto existing = sharedInstance()) return existing;
  // A configuration that raises leaves the slot empty, so a corrected call may still succeed.
  auto instance = initWithConfiguration(configuration, true);
  sharedInstanceSlot().store(instance, std::memory_order_release);
  if (instance->configuration()->swizzleNetworkDelegates) {
    ZRB_PGDNSURLConnectionDelegateProxy::swizzleNSURLConnectionConstructors(instance);
    ZRB_PGDNSURLSessionDelegateProxy::swizzleNSURLSessionConstructors(instance);
  }
  return instance;
}

void ZRB_PinGuard::initializeWithInfoPlist() {
  ZRBValue configuration = ZRBBundle::mainBundle()->objectForInfoDictionaryKey(kInfoPlistConfigurationKey);
  if (configuration.isAbsent()) return;
  ZRB_PGDLog("Configuration supplied via the App's Info.plist");
  initSharedInstanceWithConfiguration(configuration);
}

ZRB_PinGuardPtr ZRB_PinGuard::initWithConfiguration(const ZRBValue& configuration) {
  return initWithConfiguration(configuration, false);
}

ZRB_PinGuardPtr ZRB_PinGuard::initWithConfiguration(const ZRBValue& configuration, bool isSingleton) {
  ZRBAssertNamed(!configuration.isAbsent(), "pinGuardConfig");
  // Parsing raises on any mistake, before anything is created.
  auto parsed = zrb_parsePinGuardConfiguration(configuration);
  auto instance = std::make_shared<ZRB_PinGuard>(Private{}, parsed, isSingleton);
  instance->pinFailureReporterQueue_ = ZRBDispatchQueue::serial(std::string(kZRB_PGDReporterQueueLabel));
  instance->pinFailureReporter_ = ZRB_PGDBackgroundReporter::initAndRateLimitReports(true);
  if (parsed->swizzleNetworkDelegates && !isSingleton) {
    zrb_raisePinGuardConfigurationInvalid(
        "Cannot use PGDSwizzleNetworkDelegates outside the PinGuard sharedInstance");
  }
  std::weak_ptr<ZRB_PinGuard> weakInstance = instance;
  instance->pinningValidator_ = ZRB_PGDPinningValidator::initWithDomainPinningPolicies(
      parsed->pinnedDomains, sharedHashCache(), true, ZRBDispatch::mainQueue(),
      [weakInstance](const ZRB_PGDPinningValidatorResultPtr& result, const std::string& notedHostname,
                     const ZRB_PGDDomainPolicyPtr& policy) {
        if (auto strongInstance = weakInstance.lock())
          strongInstance->didValidate(result, notedHostname, policy);
      });
  // The configuration's map is built only for a logger.
  if (zrb_detail::g_pgdLoggerInstalled.load(std::memory_order_acquire)) {
    ZRB_PGDLog("Successfully initialized with configuration %@", parsed->toValue());
  }
  return instance;
}

ZRB_PinGuard::ZRB_PinGuard(Private, ZRB_PGDConfigurationPtr configuration, bool isSingleton)
    : configuration_(std::move(configuration)),
      isSingleton_(isSingleton),
      pinningValidatorCallbackQueue_(ZRBDispatch::mainQueue()) {}

void ZRB_PinGuard::setPinningValidatorCallback(ZRB_PGDValidationCallback callback) {
  std::lock_guard lock(observerMutex_);
  pinningValidatorCallback_ = std::move(callback);
}

ZRB_PGDValidationCallback ZRB_PinGuard::pinningValidatorCallback() const {
  std::lock_guard lock(observerMutex_);
  return pinningValidatorCallback_;
}

void ZRB_PinGuard::setPinningValidatorCallbackQueue(ZRBDispatchQueuePtr queue) {
  std::lock_guard lock(observerMutex_);
  pinningValidatorCallbackQueue_ = queue ? std::move(queue) : ZRBDispatch::mainQueue();
}

ZRBDispatchQueuePtr ZRB_PinGuard::pinningValidatorCallbackQueue() const {
  std::lock_guard lock(observerMutex_);
  return pinningValidatorCallbackQueue_;
}

void ZRB_PinGuard::didValidate(const ZRB_PGDPinningValidatorResultPtr& result,
                               const std::string& notedHostname, const ZRB_PGDDomainPolicyPtr& policy) {
  ZRB_PGDValidationCallback callback;
  ZRBDispatchQueuePtr queue;
  {
    std::lock_guard lock(observerMutex_);
    callback = pinningValidatorCallback_;
    queue = pinningValidatorCallbackQueue_;
  }
  if (callback) {
    queue->async([callback = std::move(callback), result, notedHostname, policy] {
      callback(result, notedHostname, policy);
    });
  }
  sendValidationReport(result, notedHostname, policy);
}

std::vector<ZRBURLPtr> ZRB_PinGuard::reportURIsForPolicy(const ZRB_PGDDomainPolicy& policy) {
  std::vector<ZRBURLPtr> uris = policy.reportUris.value_or(std::vector<ZRBURLPtr>{});
  if (!policy.disableDefaultReportUri)
    uris.push_back(ZRBURL::URLWithString(std::string(kZRB_PGDDefaultReportUri)));
  return uris;
}

void ZRB_PinGuard::sendValidationReport(const ZRB_PGDPinningValidatorResultPtr& result,
                                        const std::string& notedHostname,
                                        const ZRB_PGDDomainPolicyPtr& policy) {
  if (!result || !policy || result->evaluationResult() == PGDTrustEvaluationResultSuccess) return;
  std::vector<ZRBURLPtr> uris = reportURIsForPolicy(*policy);
  if (uris.empty()) return;
  std::optional<ZRBDate> expiration;
  if (policy->expirationDate) {
    expiration = ZRBDate{std::chrono::duration<double>(policy->expirationDate->time_since_epoch()).count()};
  }
  pinFailureReporterQueue_->async(
      [reporter = pinFailureReporter_, result, notedHostname, policy, uris = std::move(uris), expiration] {
        try {
          reporter->pinValidationFailedForHostname(result->serverHostname(), 0, result->certificateChain(),
                                                   notedHostname, uris, policy->includeSubdomains,
                                                   policy->enforcePinning, policy->publicKeyHashes,
                                                   result->evaluationResult(), expiration);
        } catch (const ZRBException& exception) {
          // The reporter raises only when its report file cannot be written; the queue must go on.
          ZRB_PGDLog("Pin failure report not sent: %s", exception.reason());
        }
      });
}

const ZRB_PGDSPKIHashCachePtr& ZRB_PinGuard::sharedHashCache() {
  static const ZRB_PGDSPKIHashCachePtr cache =
      ZRB_PGDSPKIHashCache::initWithIdentifier(std::string(kZRB_PGDSharedHashCacheIdentifier));
  return cache;
}
