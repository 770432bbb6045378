#include "platform/security/sec_trust.h"

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <cstring>
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

// The DER bytes of every certificate block in PEM text, in order; empty when a block is damaged (as
// createAllWithPEM would give nothing for the text). Blocks of other kinds are skipped.
std::vector<std::vector<std::uint8_t>> certificateBlocks(const std::string& pem) {
  std::vector<std::vector<std::uint8_t>> blocks;
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (!bio) return blocks;
  ERR_set_mark();
  char* name = nullptr;
  char* header = nullptr;
  unsigned char* data = nullptr;
  long length = 0;
  while (PEM_read_bio(bio, &name, &header, &data, &length) == 1) {
    if (std::strcmp(name, PEM_STRING_X509) == 0 || std::strcmp(name, PEM_STRING_X509_OLD) == 0)
      blocks.emplace_back(data, data + length);
    OPENSSL_free(name);
    OPENSSL_free(header);
    OPENSSL_free(data);
  }
  unsigned long error = ERR_peek_last_error();
  if (error != 0 && !(ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE))
    blocks.clear();
  ERR_pop_to_mark();
  BIO_free(bio);
  return blocks;
}

// The hash of a certificate's subject name, read from its DER without decoding the rest: decoding
// a whole certificate costs a lookup of its key's decoder, which for a store of ~150 anchors adds
// up to tens of milliseconds. Nullopt when the bytes are not a certificate's.
std::optional<unsigned long> subjectHashOf(const std::vector<std::uint8_t>& der) {
  const unsigned char* p = der.data();
  const unsigned char* end = der.data() + der.size();
  // Reads one element's header; `p` is left at its contents.
  auto enter = [&](int& tag, int& type, long& length, const unsigned char*& start) {
    start = p;
    int flags = ASN1_get_object(&p, &length, &tag, &type, end - p);
    // 0x80: malformed; 0x01: an indefinite length, which DER does not have.
    return (flags & 0x81) == 0 && length <= end - p;
  };
  int tag = 0;
  int type = 0;
  long length = 0;
  const unsigned char* start = nullptr;
  // Certificate, then TBSCertificate: both sequences, entered.
  if (!enter(tag, type, length, start) || tag != V_ASN1_SEQUENCE) return std::nullopt;
  if (!enter(tag, type, length, start) || tag != V_ASN1_SEQUENCE) return std::nullopt;
  // [0] version (optional), serial number, signature algorithm, issuer, validity: skipped.
  for (int skipped = 0; skipped < 5; ++skipped) {
    if (!enter(tag, type, length, start)) return std::nullopt;
    if (skipped == 0 && !(type == V_ASN1_CONTEXT_SPECIFIC && tag == 0)) ++skipped;
    p += length;
  }
  if (!enter(tag, type, length, start) || tag != V_ASN1_SEQUENCE) return std::nullopt;
  const unsigned char* name = start;
  X509_NAME* subject = d2i_X509_NAME(nullptr, &name, (p - start) + length);
  if (!subject) return std::nullopt;
  int ok = 0;
  unsigned long hash = X509_NAME_hash_ex(subject, nullptr, nullptr, &ok);
  X509_NAME_free(subject);
  if (!ok) return std::nullopt;
  return hash;
}

// The system store as an evaluation sees it: the same certificates as loadSystemAnchors(), read
// once per process, but decoded only when an evaluation may need them (a certificate whose subject
// is the name of a certificate of the chain, or of its issuer).
class SystemAnchorIndex {
 public:
  static SystemAnchorIndex& shared() {
    // Never destroyed, like the anchors: destruction at exit could run after OpenSSL's clean-up.
    static auto* index = new SystemAnchorIndex();
    return *index;
  }

  // Adds to `out`, in store order, the anchors that can be the issuer of, or equal to, a
  // certificate of `certificates`, and again those of the anchors so found.
  void addCandidates(const std::vector<ZRBSecCertificatePtr>& certificates,
                     std::vector<ZRBSecCertificatePtr>& out) {
    std::vector<unsigned long> names;
    auto addName = [&names](const X509_NAME* name) {
      int ok = 0;
      unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &ok);
      if (ok && std::find(names.begin(), names.end(), hash) == names.end()) names.push_back(hash);
    };
    for (const auto& certificate : certificates) {
      addName(X509_get_subject_name(certificate->x509()));
      addName(X509_get_issuer_name(certificate->x509()));
    }
    std::vector<std::size_t> chosen;
    std::lock_guard lock(mutex_);
    for (std::size_t next = 0; next < names.size(); ++next) {
      for (std::size_t i = 0; i < entries_.size(); ++i) {
        Entry& entry = entries_[i];
        if (entry.subjectHash != names[next]) continue;
        if (std::find(chosen.begin(), chosen.end(), i) != chosen.end()) continue;
        if (!entry.decoded) decode(entry);
        if (!entry.certificate) continue;
        chosen.push_back(i);
        addName(X509_get_issuer_name(entry.certificate->x509()));
      }
    }
    std::sort(chosen.begin(), chosen.end());
    for (std::size_t i : chosen) out.push_back(entries_[i].certificate);
  }

 private:
  struct Entry {
    unsigned long subjectHash = 0;
    std::vector<std::uint8_t> der;
    bool decoded = false;
    ZRBSecCertificatePtr certificate;  // null when the bytes did not decode
  };

  SystemAnchorIndex() {
    // Errors OpenSSL queues while reading are ours to drop, not the caller's.
    ERR_set_mark();
    const std::filesystem::path directory = "/etc/ssl/certs";
    if (!add(directory / "ca-certificates.crt", false)) {
      // No bundle: the individual files the bundle would have been made from.
      std::error_code error;
      for (const auto& file : std::filesystem::directory_iterator(directory, error)) {
        auto extension = file.path().extension();
        if (extension == ".pem" || extension == ".crt") add(file.path(), true);
      }
    }
    ERR_pop_to_mark();
  }

  // Decodes as PEM_read_bio_X509 would have; the entry's certificate stays null if that fails.
  static void decode(Entry& entry) {
    entry.decoded = true;
    ERR_set_mark();
    const unsigned char* p = entry.der.data();
    if (X509* x509 = d2i_X509(nullptr, &p, static_cast<long>(entry.der.size()))) {
      entry.certificate = ZRBSecCertificate::createWithX509(x509);
      X509_free(x509);
    }
    ERR_pop_to_mark();
  }

  // Adds the certificates of one PEM file, none when one of them is damaged; true when some were.
  bool add(const std::filesystem::path& path, bool skipDuplicates) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::stringstream text;
    text << in.rdbuf();
    std::vector<Entry> found;
    for (auto& der : certificateBlocks(text.str())) {
      Entry entry;
      entry.der = std::move(der);
      if (std::optional<unsigned long> hash = subjectHashOf(entry.der)) {
        entry.subjectHash = *hash;
      } else {
        // Not plain DER as far as the quick reading goes: OpenSSL's decoder has the last word.
        decode(entry);
        if (!entry.certificate) return false;  // a damaged block spoils its file, as before
        entry.subjectHash = X509_subject_name_hash(entry.certificate->x509());
      }
      found.push_back(std::move(entry));
    }
    for (auto& entry : found) {
      auto same = [&entry](const Entry& known) { return known.der == entry.der; };
      if (skipDuplicates && std::any_of(entries_.begin(), entries_.end(), same)) continue;
      entries_.push_back(std::move(entry));
    }
    return !found.empty();
  }

  std::mutex mutex_;  // guards the decoding of entries
  std::vector<Entry> entries_;
};

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

  // Custom anchors, then (withSystem) the system anchors that may take part in evaluating
  // `certificates`: a chain is built by subject names, and those of no certificate here cannot.
  static std::shared_ptr<const TrustedSet> make(const std::vector<ZRBSecCertificatePtr>& custom,
                                                bool withSystem,
                                                const std::vector<ZRBSecCertificatePtr>& certificates) {
    auto set = std::make_shared<TrustedSet>();
    set->partialChain = !custom.empty();
    set->certificates = custom;
    if (withSystem) {
      std::vector<ZRBSecCertificatePtr> chain = certificates;
      chain.insert(chain.end(), custom.begin(), custom.end());
      SystemAnchorIndex::shared().addCandidates(chain, set->certificates);
    }
    set->stack.reset(sk_X509_new_reserve(nullptr, static_cast<int>(set->certificates.size())));
    if (!set->stack) return nullptr;
    for (const auto& certificate : set->certificates) sk_X509_push(set->stack.get(), certificate->x509());
    return set;
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
  if (!trusted_) {
    trusted_ = anchors_ ? TrustedSet::make(*anchors_, !anchorsOnly_, certificates_)
                        : TrustedSet::make({}, true, certificates_);
  }
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
