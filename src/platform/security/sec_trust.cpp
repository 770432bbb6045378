#include "platform/security/sec_trust.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

namespace {

// One bit per detail key, in the order of kDetailNames.
enum Failure : std::uint32_t {
  kExpired = 1u << 0,
  kNotYetValid = 1u << 1,
  kHostName = 1u << 2,
  kAnchorTrusted = 1u << 3,
  kMissingIntermediate = 1u << 4,
  kSignature = 1u << 5,
  kBasicConstraints = 1u << 6,
  kKeyUsage = 1u << 7,
  kExtendedKeyUsage = 1u << 8,
  kCriticalExtensions = 1u << 9,
  kWeakKeySize = 1u << 10,
  kWeakSignature = 1u << 11,
  kValidityPeriod = 1u << 12,
  kRevocation = 1u << 13,
  kRejected = 1u << 14,
  kOther = 1u << 15,
};

constexpr std::array<std::string_view, 16> kDetailNames = {
    ZRBSecTrustDetailExpired,
    ZRBSecTrustDetailNotYetValid,
    ZRBSecTrustDetailHostName,
    ZRBSecTrustDetailAnchorTrusted,
    ZRBSecTrustDetailMissingIntermediate,
    ZRBSecTrustDetailSignature,
    ZRBSecTrustDetailBasicConstraints,
    ZRBSecTrustDetailKeyUsage,
    ZRBSecTrustDetailExtendedKeyUsage,
    ZRBSecTrustDetailCriticalExtensions,
    ZRBSecTrustDetailWeakKeySize,
    ZRBSecTrustDetailWeakSignature,
    ZRBSecTrustDetailValidityPeriod,
    ZRBSecTrustDetailRevocation,
    ZRBSecTrustDetailRejected,
    ZRBSecTrustDetailOther,
};

// Failures that no caller should be allowed to wave through.
constexpr std::uint32_t kFatalFailures = kSignature | kValidityPeriod | kRevocation | kRejected | kOther;

std::uint32_t failureFor(int error) {
  switch (error) {
    case X509_V_ERR_CERT_HAS_EXPIRED: return kExpired;
    case X509_V_ERR_CERT_NOT_YET_VALID: return kNotYetValid;
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD: return kValidityPeriod;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED: return kAnchorTrusted;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE: return kMissingIntermediate;
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
    case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
    case X509_V_ERR_SIGNATURE_ALGORITHM_MISMATCH:
    case X509_V_ERR_NO_ISSUER_PUBLIC_KEY: return kSignature;
    case X509_V_ERR_INVALID_CA:
    case X509_V_ERR_INVALID_NON_CA:
    case X509_V_ERR_PATH_LENGTH_EXCEEDED:
    case X509_V_ERR_PROXY_PATH_LENGTH_EXCEEDED: return kBasicConstraints;
    case X509_V_ERR_KEYUSAGE_NO_CERTSIGN:
    case X509_V_ERR_KEYUSAGE_NO_DIGITAL_SIGNATURE: return kKeyUsage;
    case X509_V_ERR_INVALID_PURPOSE: return kExtendedKeyUsage;
    case X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION: return kCriticalExtensions;
    case X509_V_ERR_EE_KEY_TOO_SMALL:
    case X509_V_ERR_CA_KEY_TOO_SMALL: return kWeakKeySize;
    case X509_V_ERR_CA_MD_TOO_WEAK: return kWeakSignature;
    case X509_V_ERR_CERT_REVOKED: return kRevocation;
    case X509_V_ERR_CERT_REJECTED: return kRejected;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH: return kHostName;
    default: return kOther;
  }
}

struct StackDeleter {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using X509Stack = std::unique_ptr<STACK_OF(X509), StackDeleter>;

struct StoreContextDeleter {
  void operator()(X509_STORE_CTX* ctx) const { X509_STORE_CTX_free(ctx); }
};

// Every store context needs a store, though anchors come from a trusted stack (below): one empty
// store, never changed after creation, serves all evaluations.
X509_STORE* emptyStore() {
  static X509_STORE* store = X509_STORE_new();
  return store;
}

std::vector<ZRBSecCertificatePtr> readPEMFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  std::stringstream text;
  text << in.rdbuf();
  return ZRBSecCertificate::createAllWithPEM(text.str());
}

std::vector<ZRBSecCertificatePtr> loadSystemAnchors() {
  const std::filesystem::path directory = "/etc/ssl/certs";
  auto anchors = readPEMFile(directory / "ca-certificates.crt");
  if (!anchors.empty()) return anchors;
  // No bundle: the individual files the bundle would have been made from.
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    auto extension = entry.path().extension();
    if (extension != ".pem" && extension != ".crt") continue;
    for (auto& certificate : readPEMFile(entry.path())) {
      bool duplicate = std::any_of(anchors.begin(), anchors.end(), [&](const ZRBSecCertificatePtr& known) {
        return known->isEqual(*certificate);
      });
      if (!duplicate) anchors.push_back(std::move(certificate));
    }
  }
  return anchors;
}

// Collects every verification error by chain depth instead of stopping at the first, so that the
// result can tell all that is wrong and the chain is built as far as it goes.
struct Collector {
  std::vector<std::pair<int, std::uint32_t>> failures;  // (depth, failure bit)
};

int collectFailure(int ok, X509_STORE_CTX* ctx) {
  if (!ok) {
    auto* collector = static_cast<Collector*>(X509_STORE_CTX_get_app_data(ctx));
    collector->failures.emplace_back(X509_STORE_CTX_get_error_depth(ctx),
                                     failureFor(X509_STORE_CTX_get_error(ctx)));
  }
  return 1;
}

struct PolicyOutcome {
  bool ran = false;
  std::vector<X509*> chain;  // borrowed from the certificates of the evaluation
  std::vector<std::uint32_t> failures;
};

ZRBSecTrustResultType resultFor(const std::vector<std::uint32_t>& failures) {
  std::uint32_t all = 0;
  for (auto bits : failures) all |= bits;
  if (all & kFatalFailures) return ZRBSecTrustResultFatalTrustFailure;
  if (all) return ZRBSecTrustResultRecoverableTrustFailure;
  return ZRBSecTrustResultUnspecified;
}

}  // namespace

// The certificates an evaluation may end at, as the stack OpenSSL searches and as our objects.
struct ZRBSecTrust::TrustedSet {
  X509Stack stack;
  std::vector<ZRBSecCertificatePtr> certificates;
  // Custom anchors may be intermediates or leaves; the chain may end at any of them.
  bool partialChain = false;

  static std::shared_ptr<const TrustedSet> make(const std::vector<ZRBSecCertificatePtr>& custom,
                                                bool withSystem) {
    auto set = std::make_shared<TrustedSet>();
    set->partialChain = !custom.empty();
    set->certificates = custom;
    if (withSystem) {
      const auto& system = copyAnchorCertificates();
      set->certificates.insert(set->certificates.end(), system.begin(), system.end());
    }
    set->stack.reset(sk_X509_new_reserve(nullptr, static_cast<int>(set->certificates.size())));
    if (!set->stack) return nullptr;
    for (const auto& certificate : set->certificates) sk_X509_push(set->stack.get(), certificate->x509());
    return set;
  }

  static std::shared_ptr<const TrustedSet> system() {
    // Never destroyed, like the anchors it holds: destruction at exit could run after OpenSSL's own
    // clean-up.
    static const auto* set = new std::shared_ptr<const TrustedSet>(make({}, true));
    return *set;
  }
};

const std::vector<ZRBSecCertificatePtr>& ZRBSecTrust::copyAnchorCertificates() {
  static const auto* anchors = new std::vector<ZRBSecCertificatePtr>(loadSystemAnchors());
  return *anchors;
}

ZRBSecTrust::ZRBSecTrust(Private, std::vector<ZRBSecCertificatePtr> certificates,
                         std::vector<ZRBSecPolicyPtr> policies)
    : certificates_(std::move(certificates)), policies_(std::move(policies)) {}

namespace {
std::vector<ZRBSecPolicyPtr> withoutNulls(std::vector<ZRBSecPolicyPtr> policies) {
  std::erase(policies, nullptr);
  return policies;
}
}  // namespace

ZRBSecTrustPtr ZRBSecTrust::createWithCertificates(std::vector<ZRBSecCertificatePtr> certificates,
                                                   std::vector<ZRBSecPolicyPtr> policies,
                                                   ZRBOSStatus* status) {
  bool valid = !certificates.empty() &&
               std::find(certificates.begin(), certificates.end(), nullptr) == certificates.end();
  if (status) *status = valid ? ZRBErrSecSuccess : ZRBErrSecParam;
  if (!valid) return nullptr;
  return std::make_shared<ZRBSecTrust>(Private{}, std::move(certificates), withoutNulls(std::move(policies)));
}

ZRBSecTrustPtr ZRBSecTrust::createWithCertificates(std::vector<ZRBSecCertificatePtr> certificates,
                                                   ZRBSecPolicyPtr policy, ZRBOSStatus* status) {
  return createWithCertificates(std::move(certificates), std::vector<ZRBSecPolicyPtr>{std::move(policy)},
                                status);
}

void ZRBSecTrust::forgetEvaluation() {
  result_ = ZRBSecTrustResultInvalid;
  chain_.clear();
  failures_.clear();
}

ZRBOSStatus ZRBSecTrust::setPolicies(std::vector<ZRBSecPolicyPtr> policies) {
  std::lock_guard lock(mutex_);
  policies_ = withoutNulls(std::move(policies));
  forgetEvaluation();
  return ZRBErrSecSuccess;
}

ZRBOSStatus ZRBSecTrust::setPolicies(ZRBSecPolicyPtr policy) {
  return setPolicies(std::vector<ZRBSecPolicyPtr>{std::move(policy)});
}

std::vector<ZRBSecPolicyPtr> ZRBSecTrust::copyPolicies() const {
  std::lock_guard lock(mutex_);
  return policies_;
}

ZRBOSStatus ZRBSecTrust::setAnchorCertificates(std::vector<ZRBSecCertificatePtr> anchors) {
  std::erase(anchors, nullptr);
  std::lock_guard lock(mutex_);
  anchors_ = std::move(anchors);
  anchorsOnly_ = true;
  trusted_.reset();
  forgetEvaluation();
  return ZRBErrSecSuccess;
}

ZRBOSStatus ZRBSecTrust::setAnchorCertificates(std::nullopt_t) {
  std::lock_guard lock(mutex_);
  anchors_.reset();
  anchorsOnly_ = false;
  trusted_.reset();
  forgetEvaluation();
  return ZRBErrSecSuccess;
}

ZRBOSStatus ZRBSecTrust::setAnchorCertificatesOnly(bool anchorCertificatesOnly) {
  std::lock_guard lock(mutex_);
  anchorsOnly_ = anchorCertificatesOnly;
  trusted_.reset();
  forgetEvaluation();
  return ZRBErrSecSuccess;
}

std::vector<ZRBSecCertificatePtr> ZRBSecTrust::copyCustomAnchorCertificates() const {
  std::lock_guard lock(mutex_);
  return anchors_.value_or(std::vector<ZRBSecCertificatePtr>{});
}

ZRBOSStatus ZRBSecTrust::setVerifyDate(std::optional<ZRBDate> date) {
  std::lock_guard lock(mutex_);
  verifyDate_ = date;
  forgetEvaluation();
  return ZRBErrSecSuccess;
}

std::optional<ZRBDate> ZRBSecTrust::verifyDate() const {
  std::lock_guard lock(mutex_);
  return verifyDate_;
}

std::shared_ptr<const ZRBSecTrust::TrustedSet> ZRBSecTrust::trustedSet() {
  if (!anchors_) return TrustedSet::system();
  if (!trusted_) trusted_ = TrustedSet::make(*anchors_, !anchorsOnly_);
  return trusted_;
}

namespace {

// One X509_verify_cert run for one policy, on a context of its own.
PolicyOutcome verifyForPolicy(const std::vector<ZRBSecCertificatePtr>& certificates,
                              const ZRBSecTrust::TrustedSet& trusted, const ZRBSecPolicy& policy,
                              std::optional<std::int64_t> time) {
  PolicyOutcome outcome;
  std::unique_ptr<X509_STORE_CTX, StoreContextDeleter> ctx(X509_STORE_CTX_new());
  X509Stack untrusted(sk_X509_new_reserve(nullptr, static_cast<int>(certificates.size())));
  if (!ctx || !untrusted || !emptyStore()) return outcome;
  for (std::size_t i = 1; i < certificates.size(); ++i)
    sk_X509_push(untrusted.get(), certificates[i]->x509());

  if (X509_STORE_CTX_init(ctx.get(), emptyStore(), certificates[0]->x509(), untrusted.get()) != 1)
    return outcome;
  X509_STORE_CTX_set0_trusted_stack(ctx.get(), trusted.stack.get());
  X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(ctx.get());
  if (trusted.partialChain) X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_PARTIAL_CHAIN);
  if (time) X509_VERIFY_PARAM_set_time(param, static_cast<time_t>(*time));
  if (policy.kind() == ZRBSecPolicyKindSSL) {
    X509_STORE_CTX_set_purpose(ctx.get(),
                               policy.isServer() ? X509_PURPOSE_SSL_SERVER : X509_PURPOSE_SSL_CLIENT);
  }
  Collector collector;
  X509_STORE_CTX_set_app_data(ctx.get(), &collector);
  X509_STORE_CTX_set_verify_cb(ctx.get(), collectFailure);

  int rc = X509_verify_cert(ctx.get());
  // A negative value is a failure of the verifier itself (memory, an invalid call), not a verdict.
  if (rc < 0) return outcome;

  STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(ctx.get());
  int length = chain ? sk_X509_num(chain) : 0;
  for (int i = 0; i < length; ++i) outcome.chain.push_back(sk_X509_value(chain, i));
  if (outcome.chain.empty()) outcome.chain.push_back(certificates[0]->x509());
  outcome.failures.assign(outcome.chain.size(), 0);
  auto last = static_cast<int>(outcome.chain.size()) - 1;
  for (auto [depth, failure] : collector.failures) {
    outcome.failures[static_cast<std::size_t>(std::clamp(depth, 0, last))] |= failure;
  }
  // The verifier refused without saying why: count it as a fatal failure of the leaf.
  if (rc == 0 && collector.failures.empty()) outcome.failures[0] |= kOther;
  if (!policy.matchesHostName(*certificates[0])) outcome.failures[0] |= kHostName;
  outcome.ran = true;
  return outcome;
}

}  // namespace

ZRBOSStatus ZRBSecTrust::evaluate(ZRBSecTrustResultType* result) {
  std::vector<ZRBSecPolicyPtr> policies;
  std::shared_ptr<const TrustedSet> trusted;
  std::optional<ZRBDate> date;
  {
    std::lock_guard lock(mutex_);
    policies = policies_;
    trusted = trustedSet();
    date = verifyDate_;
  }
  ZRBDate evaluationDate = date.value_or(ZRBDate::now());

  ZRBSecTrustResultType verdict = ZRBSecTrustResultOtherError;
  std::vector<ZRBSecCertificatePtr> chain = certificates_;
  std::vector<std::uint32_t> failures(chain.size(), 0);
  ZRBOSStatus status = ZRBErrSecSuccess;

  if (!trusted) {
    status = ZRBErrSecAllocate;
    verdict = ZRBSecTrustResultInvalid;
  } else if (!policies.empty()) {
    std::optional<std::int64_t> time;
    if (date) time = static_cast<std::int64_t>(date->secondsSince1970);
    // Errors that OpenSSL queues on the way are ours to drop, not the caller's.
    ERR_set_mark();
    std::vector<X509*> builtChain;
    for (const auto& policy : policies) {
      PolicyOutcome outcome = verifyForPolicy(certificates_, *trusted, *policy, time);
      if (!outcome.ran) {
        status = ZRBErrSecInternalComponent;
        break;
      }
      // The chain of the first policy is the one reported; further policies add their failures to
      // the certificates they share with it.
      if (builtChain.empty()) {
        builtChain = outcome.chain;
        failures.assign(builtChain.size(), 0);
      }
      for (std::size_t i = 0; i < outcome.chain.size(); ++i) {
        auto at = std::find(builtChain.begin(), builtChain.end(), outcome.chain[i]);
        std::size_t index = at != builtChain.end() ? static_cast<std::size_t>(at - builtChain.begin()) : 0;
        failures[index] |= outcome.failures[i];
      }
    }
    ERR_pop_to_mark();

    if (status == ZRBErrSecSuccess) {
      // Hand back the objects the certificates came from, so no certificate is copied.
      chain.clear();
      for (X509* x509 : builtChain) {
        auto owner = [x509](const ZRBSecCertificatePtr& certificate) { return certificate->x509() == x509; };
        auto found = std::find_if(certificates_.begin(), certificates_.end(), owner);
        if (found != certificates_.end()) {
          chain.push_back(*found);
          continue;
        }
        auto anchor = std::find_if(trusted->certificates.begin(), trusted->certificates.end(), owner);
        chain.push_back(anchor != trusted->certificates.end() ? *anchor
                                                              : ZRBSecCertificate::createWithX509(x509));
      }
      verdict = resultFor(failures);
    } else {
      verdict = ZRBSecTrustResultInvalid;
      chain = certificates_;
      failures.assign(chain.size(), 0);
    }
  }

  {
    std::lock_guard lock(mutex_);
    result_ = verdict;
    chain_ = std::move(chain);
    failures_ = std::move(failures);
    evaluationDate_ = evaluationDate;
  }
  if (result) *result = verdict;
  return status;
}

ZRBSecTrustResultType ZRBSecTrust::trustResult() const {
  std::lock_guard lock(mutex_);
  return result_;
}

std::vector<ZRBSecCertificatePtr> ZRBSecTrust::certificates() const {
  std::lock_guard lock(mutex_);
  return chain_.empty() ? certificates_ : chain_;
}

std::size_t ZRBSecTrust::certificateCount() const {
  std::lock_guard lock(mutex_);
  return chain_.empty() ? certificates_.size() : chain_.size();
}

ZRBSecCertificatePtr ZRBSecTrust::certificateAtIndex(std::size_t index) const {
  std::lock_guard lock(mutex_);
  const auto& list = chain_.empty() ? certificates_ : chain_;
  return index < list.size() ? list[index] : nullptr;
}

ZRBSecKeyPtr ZRBSecTrust::copyPublicKey() const { return certificates_.front()->copyKey(); }

ZRBValue ZRBSecTrust::copyResult() const {
  std::lock_guard lock(mutex_);
  if (result_ == ZRBSecTrustResultInvalid && chain_.empty()) return ZRBValue();
  ZRBArrayBuilder details;
  for (std::uint32_t bits : failures_) {
    ZRBDictionaryBuilder entry;
    for (std::size_t bit = 0; bit < kDetailNames.size(); ++bit) {
      if (bits & (1u << bit)) entry.set(kDetailNames[bit], false);
    }
    details.add(entry.build());
  }
  return ZRBValue::dictionary({
      {ZRBSecTrustResultValueKey, static_cast<unsigned long long>(result_)},
      {ZRBSecTrustEvaluationDateKey, evaluationDate_},
      {ZRBSecTrustResultDetailsKey, details.build()},
  });
}

std::string ZRBSecTrust::description() const {
  std::lock_guard lock(mutex_);
  std::size_t count = chain_.empty() ? certificates_.size() : chain_.size();
  return "<ZRBSecTrust " + ZRBFormatPointer(this) + ": " + std::to_string(count) +
         " certificates, result: " + std::to_string(result_) + ">";
}
