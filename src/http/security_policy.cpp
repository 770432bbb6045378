#include "http/security_policy.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "platform/foundation/assert.h"
#include "platform/foundation/exception.h"
#include "platform/security/sec_certificate.h"
#include "platform/security/sec_key.h"
#include "platform/security/sec_policy.h"
#include "settings/setting.h"

ZRB_REGISTER_CODING_CLASS(ZRBHS_SecurityPolicy);

namespace {

constexpr std::string_view kModeKey = "SSLPinningMode";
constexpr std::string_view kAllowInvalidKey = "allowInvalidCertificates";
constexpr std::string_view kValidatesDomainKey = "validatesDomainName";
constexpr std::string_view kPinnedCertificatesKey = "pinnedCertificates";
constexpr std::string_view kPinnedPublicKeysKey = "pinnedPublicKeys";

// The public key of one DER certificate, taken through a one-certificate trust under a basic X.509
// policy. Only whether the evaluation could run matters, not its verdict: a lone leaf never
// evaluates as trusted, yet its key is what we pin.
ZRBSecKeyPtr publicKeyForCertificate(const ZRBValue& certificateData) {
  if (!certificateData.isData()) return nullptr;
  auto certificate = ZRBSecCertificate::createWithData(certificateData.bytes());
  if (!certificate) return nullptr;
  ZRBOSStatus status = ZRBErrSecSuccess;
  auto trust = ZRBSecTrust::createWithCertificates({certificate}, ZRBSecPolicy::createBasicX509(), &status);
  if (!trust || status != ZRBErrSecSuccess) return nullptr;
  ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
  if (trust->evaluate(&result) != ZRBErrSecSuccess) return nullptr;
  return trust->copyPublicKey();
}

// Valid means trusted by the anchors (unspecified) or by an explicit user setting (proceed);
// recoverable failures count as invalid too.
bool serverTrustIsValid(ZRBSecTrust& trust) {
  ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
  if (trust.evaluate(&result) != ZRBErrSecSuccess) return false;
  return result == ZRBSecTrustResultUnspecified || result == ZRBSecTrustResultProceed;
}

// The DER bytes of the trust's chain, leaf first (after an evaluation: the built chain).
std::vector<ZRBValue> certificateChain(const ZRBSecTrust& trust) {
  std::vector<ZRBValue> chain;
  for (std::size_t i = 0, n = trust.certificateCount(); i < n; ++i) {
    if (auto certificate = trust.certificateAtIndex(i))
      chain.push_back(ZRBValue::data(certificate->copyData()));
  }
  return chain;
}

// The public keys of the chain's certificates, each taken through its own one-certificate trust;
// certificates whose key cannot be taken are skipped.
std::vector<ZRBSecKeyPtr> publicKeyChain(const ZRBSecTrust& trust) {
  auto policy = ZRBSecPolicy::createBasicX509();
  std::vector<ZRBSecKeyPtr> keys;
  for (std::size_t i = 0, n = trust.certificateCount(); i < n; ++i) {
    auto certificate = trust.certificateAtIndex(i);
    if (!certificate) continue;
    ZRBOSStatus status = ZRBErrSecSuccess;
    auto single = ZRBSecTrust::createWithCertificates({certificate}, policy, &status);
    if (!single || status != ZRBErrSecSuccess) continue;
    ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
    if (single->evaluate(&result) != ZRBErrSecSuccess) continue;
    if (auto key = single->copyPublicKey()) keys.push_back(std::move(key));
  }
  return keys;
}

ZRBValue readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return ZRBValue();
  std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return ZRBValue();
  return ZRBValue::data(std::move(bytes));
}

}  // namespace

// ---- class operations ----

ZRBHS_SecurityPolicyPtr ZRBHS_SecurityPolicy::defaultPolicy() {
  return std::make_shared<ZRBHS_SecurityPolicy>();
}

ZRBHS_SecurityPolicyPtr ZRBHS_SecurityPolicy::policyWithPinningMode(::SSLPinningMode pinningMode) {
  return policyWithPinningMode(pinningMode, defaultPinnedCertificates());
}

ZRBHS_SecurityPolicyPtr ZRBHS_SecurityPolicy::policyWithPinningMode(::SSLPinningMode pinningMode,
                                                                    ZRBValue pinnedCertificates) {
  auto policy = std::make_shared<ZRBHS_SecurityPolicy>();
  policy->setSSLPinningMode(pinningMode);
  policy->setPinnedCertificates(std::move(pinnedCertificates));
  return policy;
}

ZRBValue ZRBHS_SecurityPolicy::certificatesInBundle(const ZRBBundle& bundle) {
  namespace fs = std::filesystem;
  std::vector<fs::path> paths;
  std::error_code ec;
  for (fs::directory_iterator it(bundle.bundlePath(), ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& path = it->path();
    if (path.extension() != ".der") continue;
    std::error_code typeError;
    if (it->is_directory(typeError)) continue;
    paths.push_back(path);
  }
  // Listing order is the file system's; sorting makes a failure name the same file every time.
  std::sort(paths.begin(), paths.end());

  std::vector<ZRBValue> certificates;
  for (const auto& path : paths) {
    ZRBValue data = readFile(path);
    // A listed certificate that cannot be read means a broken deployment; it is not skipped.
    if (data.isAbsent())
      throw ZRBException(std::string(kZRBHS_InvalidArgumentException),
                         "certificate file cannot be read: " + path.string());
    certificates.push_back(std::move(data));
  }
  return ZRBValue::set(std::move(certificates));
}

ZRBValue ZRBHS_SecurityPolicy::defaultPinnedCertificates() {
  static const ZRBValue certificates = certificatesInBundle(*ZRBBundle::libraryBundle());
  return certificates;
}

// ---- fields ----

bool ZRBHS_SecurityPolicy::allowInvalidCertificates() const {
  std::lock_guard lock(mutex_);
  return fields_.allowInvalidCertificates;
}

void ZRBHS_SecurityPolicy::setAllowInvalidCertificates(bool allowInvalidCertificates) {
  {
    std::lock_guard lock(mutex_);
    fields_.allowInvalidCertificates = allowInvalidCertificates;
  }
  notify({kAllowInvalidKey});
}

bool ZRBHS_SecurityPolicy::validatesDomainName() const {
  std::lock_guard lock(mutex_);
  return fields_.validatesDomainName;
}

void ZRBHS_SecurityPolicy::setValidatesDomainName(bool validatesDomainName) {
  {
    std::lock_guard lock(mutex_);
    fields_.validatesDomainName = validatesDomainName;
  }
  notify({kValidatesDomainKey});
}

::SSLPinningMode ZRBHS_SecurityPolicy::SSLPinningMode() const {
  std::lock_guard lock(mutex_);
  return fields_.pinningMode;
}

void ZRBHS_SecurityPolicy::setSSLPinningMode(::SSLPinningMode pinningMode) {
  {
    std::lock_guard lock(mutex_);
    fields_.pinningMode = pinningMode;
  }
  notify({kModeKey});
}

ZRBValue ZRBHS_SecurityPolicy::pinnedCertificates() const {
  std::lock_guard lock(mutex_);
  return fields_.pinnedCertificates;
}

ZRBValue ZRBHS_SecurityPolicy::pinnedPublicKeys() const {
  std::lock_guard lock(mutex_);
  return fields_.pinnedPublicKeys;
}

void ZRBHS_SecurityPolicy::setPinnedCertificates(ZRBValue pinnedCertificates) {
  ZRBAssert(pinnedCertificates.isNothing() || pinnedCertificates.isSet() || pinnedCertificates.isArray());
  ZRBValue certificates;
  ZRBValue keys;
  if (pinnedCertificates.isSet()) {
    certificates = std::move(pinnedCertificates);
  } else if (pinnedCertificates.isArray()) {
    certificates = ZRBValue::set(
        std::vector<ZRBValue>(pinnedCertificates.items().begin(), pinnedCertificates.items().end()));
  }
  if (!certificates.isAbsent()) {
    // Extraction evaluates a trust per certificate, so it runs before taking the lock.
    std::vector<ZRBValue> extracted;
    for (const ZRBValue& data : certificates.items()) {
      if (auto key = publicKeyForCertificate(data)) extracted.emplace_back(std::move(key));
    }
    keys = ZRBValue::set(std::move(extracted));
  }
  {
    std::lock_guard lock(mutex_);
    fields_.pinnedCertificates = std::move(certificates);
    fields_.pinnedPublicKeys = std::move(keys);
  }
  notify({kPinnedCertificatesKey, kPinnedPublicKeysKey});
}

ZRBHS_SecurityPolicy::Fields ZRBHS_SecurityPolicy::snapshot() const {
  std::lock_guard lock(mutex_);
  return fields_;
}

// ---- evaluation ----

bool ZRBHS_SecurityPolicy::evaluateServerTrust(const ZRBSecTrustPtr& serverTrust,
                                               const std::optional<std::string>& domain) {
  // The real staging environment's servers are accepted as they are, whatever the policy says.
  if (ZRBSetting::sharedSetting()->isRealStgEnv()) return true;

  const Fields fields = snapshot();
  // Checking the name of a host whose chain may be invalid (self-signed) is only meaningful with
  // pins to decide instead of the chain.
  if (domain && fields.allowInvalidCertificates && fields.validatesDomainName &&
      (fields.pinningMode == SSLPinningModeNone || fields.pinnedCertificates.empty()))
    return false;

  if (!serverTrust) return false;
  serverTrust->setPolicies(fields.validatesDomainName ? ZRBSecPolicy::createSSL(true, domain)
                                                      : ZRBSecPolicy::createBasicX509());

  if (fields.pinningMode == SSLPinningModeNone)
    return fields.allowInvalidCertificates || serverTrustIsValid(*serverTrust);

  // The trust is evaluated here in any case, so the chains below are the built ones.
  if (!serverTrustIsValid(*serverTrust) && !fields.allowInvalidCertificates) return false;

  switch (fields.pinningMode) {
    case SSLPinningModeCertificate: {
      std::vector<ZRBSecCertificatePtr> anchors;
      for (const ZRBValue& data : fields.pinnedCertificates.items()) {
        // Data that is not a certificate cannot be an anchor; it is left out.
        if (auto certificate = data.isData() ? ZRBSecCertificate::createWithData(data.bytes()) : nullptr)
          anchors.push_back(std::move(certificate));
      }
      serverTrust->setAnchorCertificates(std::move(anchors));
      if (!serverTrustIsValid(*serverTrust)) return false;
      // From the root side towards the leaf, so the outermost pinned certificate answers first.
      auto chain = certificateChain(*serverTrust);
      return std::any_of(chain.rbegin(), chain.rend(), [&](const ZRBValue& certificate) {
        return fields.pinnedCertificates.containsItem(certificate);
      });
    }
    case SSLPinningModePublicKey: {
      std::size_t matches = 0;
      for (const auto& key : publicKeyChain(*serverTrust)) {
        for (const ZRBValue& pinned : fields.pinnedPublicKeys.items()) {
          if (auto pinnedKey = pinned.objectAs<ZRBSecKey>(); pinnedKey && pinnedKey->isEqual(*key)) ++matches;
        }
      }
      return matches > 0;
    }
    default: return false;
  }
}

// ---- change observation ----

ZRBHS_SecurityPolicy::ObserverToken ZRBHS_SecurityPolicy::addChangeObserver(ChangeObserver observer) {
  std::lock_guard lock(mutex_);
  ObserverToken token = nextToken_++;
  if (observer) observers_.emplace_back(token, std::move(observer));
  return token;
}

void ZRBHS_SecurityPolicy::removeChangeObserver(ObserverToken token) {
  std::lock_guard lock(mutex_);
  std::erase_if(observers_, [token](const auto& entry) { return entry.first == token; });
}

void ZRBHS_SecurityPolicy::notify(std::initializer_list<std::string_view> keyPaths) const {
  std::vector<ChangeObserver> observers;
  {
    std::lock_guard lock(mutex_);
    if (observers_.empty()) return;
    for (const auto& entry : observers_) observers.push_back(entry.second);
  }
  for (std::string_view keyPath : keyPaths) {
    for (const auto& observer : observers) observer(keyPath);
  }
}

// ---- copying and coding ----

ZRBHS_SecurityPolicyPtr ZRBHS_SecurityPolicy::copy() const {
  const Fields fields = snapshot();
  auto policy = std::make_shared<ZRBHS_SecurityPolicy>();
  policy->setSSLPinningMode(fields.pinningMode);
  policy->setAllowInvalidCertificates(fields.allowInvalidCertificates);
  policy->setValidatesDomainName(fields.validatesDomainName);
  // Containers are immutable, so sharing the set is copying it.
  policy->setPinnedCertificates(fields.pinnedCertificates);
  return policy;
}

void ZRBHS_SecurityPolicy::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  const Fields fields = snapshot();
  coder.encodeInteger(static_cast<std::int64_t>(fields.pinningMode), kModeKey);
  coder.encodeBool(fields.allowInvalidCertificates, kAllowInvalidKey);
  coder.encodeBool(fields.validatesDomainName, kValidatesDomainKey);
  coder.encodeValue(fields.pinnedCertificates, kPinnedCertificatesKey);
}

ZRBHS_SecurityPolicyPtr ZRBHS_SecurityPolicy::initWithCoder(ZRBKeyedUnarchiver& coder) {
  auto policy = std::make_shared<ZRBHS_SecurityPolicy>();
  policy->setSSLPinningMode(static_cast<::SSLPinningMode>(coder.decodeInteger(kModeKey).value_or(0)));
  policy->setAllowInvalidCertificates(coder.decodeBool(kAllowInvalidKey).value_or(false));
  policy->setValidatesDomainName(coder.decodeBool(kValidatesDomainKey).value_or(false));
  policy->setPinnedCertificates(coder.decodeValue(kPinnedCertificatesKey, ZRBValueClass::Set));
  return policy;
}

std::string ZRBHS_SecurityPolicy::description() const {
  const Fields fields = snapshot();
  return "<ZRBHS_SecurityPolicy: " + ZRBFormatPointer(this) +
         "> mode: " + std::to_string(static_cast<std::uint64_t>(fields.pinningMode)) +
         ", allowInvalidCertificates: " + (fields.allowInvalidCertificates ? "1" : "0") +
         ", validatesDomainName: " + (fields.validatesDomainName ? "1" : "0") +
         ", pinnedCertificates: " + std::to_string(fields.pinnedCertificates.count());
}
