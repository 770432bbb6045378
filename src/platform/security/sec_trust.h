// ZRBSecTrust: evaluation of a certificate chain against policies and trust anchors.
//
// A trust is made from the certificates a peer presented (leaf first, then whatever intermediates
// it sent, in any order) and one or more policies. evaluate() builds a chain from the leaf to a
// trust anchor, checks validity dates, signatures, CA constraints and the policies' rules, and
// gives the platform's result values. Afterwards certificates() is the chain that was built, leaf
// first and ending at the anchor even when the peer did not send it, and copyResult() tells which
// check failed on which certificate.
//
// Anchors are the system store (the ca-certificates bundle under /etc/ssl/certs, read once per
// process; an evaluation decodes only the anchors whose names its chain mentions) unless custom
// anchors are set: these replace the system store, or join it after setAnchorCertificatesOnly(false).
// A custom anchor need not be self-signed: the chain may end at any certificate of the custom set.
//
// The results ZRBSecTrustResultProceed and ZRBSecTrustResultDeny stand for explicit user trust
// settings, which this system has no store for; evaluate() therefore never produces them.
//
// All operations may be called from any thread; evaluate() works on a snapshot of the settings and
// touches no shared mutable state, so many trusts (or one trust) can be evaluated concurrently.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/security/sec_certificate.h"
#include "platform/security/sec_key.h"
#include "platform/security/sec_policy.h"

class ZRBSecTrust;
using ZRBSecTrustPtr = std::shared_ptr<ZRBSecTrust>;

// Status of a security call, with the platform's values. A status says whether the call could do
// its work; whether a chain is trusted is the separate result of evaluate().
using ZRBOSStatus = std::int32_t;
inline constexpr ZRBOSStatus ZRBErrSecSuccess = 0;
inline constexpr ZRBOSStatus ZRBErrSecParam = -50;
inline constexpr ZRBOSStatus ZRBErrSecAllocate = -108;
inline constexpr ZRBOSStatus ZRBErrSecInternalComponent = -2070;

enum ZRBSecTrustResultType : std::uint32_t {
  ZRBSecTrustResultInvalid = 0,      // not evaluated (yet), or the evaluation could not run
  ZRBSecTrustResultProceed = 1,      // user setting: trusted (never produced here)
  ZRBSecTrustResultConfirm = 2,      // obsolete; never produced
  ZRBSecTrustResultDeny = 3,         // user setting: distrusted (never produced here)
  ZRBSecTrustResultUnspecified = 4,  // the chain is valid and ends at an anchor
  // A failure that a caller may choose to override: expired or not yet valid certificates, a host
  // name that does not match, a chain that ends at no anchor, a leaf not meant for TLS.
  ZRBSecTrustResultRecoverableTrustFailure = 5,
  // A failure nothing should override: a bad signature, a malformed or revoked certificate.
  ZRBSecTrustResultFatalTrustFailure = 6,
  // The evaluation had nothing to evaluate against: the trust has no policy.
  ZRBSecTrustResultOtherError = 7,
};

// Keys of copyResult().
inline constexpr std::string_view ZRBSecTrustResultValueKey = "TrustResultValue";
inline constexpr std::string_view ZRBSecTrustEvaluationDateKey = "TrustEvaluationDate";
inline constexpr std::string_view ZRBSecTrustResultDetailsKey = "TrustResultDetails";

// Keys of the per-certificate detail dictionaries; a key is present (with the value false) when the
// check failed on that certificate.
inline constexpr std::string_view ZRBSecTrustDetailExpired = "Expired";
inline constexpr std::string_view ZRBSecTrustDetailNotYetValid = "NotYetValid";
inline constexpr std::string_view ZRBSecTrustDetailHostName = "HostName";
// The chain ends at a self-signed certificate that is not an anchor.
inline constexpr std::string_view ZRBSecTrustDetailAnchorTrusted = "AnchorTrusted";
// The issuer of this certificate is neither in the chain nor an anchor (an unknown root, or a
// missing intermediate).
inline constexpr std::string_view ZRBSecTrustDetailMissingIntermediate = "MissingIntermediate";
inline constexpr std::string_view ZRBSecTrustDetailSignature = "Signature";
inline constexpr std::string_view ZRBSecTrustDetailBasicConstraints = "BasicConstraints";
inline constexpr std::string_view ZRBSecTrustDetailKeyUsage = "KeyUsage";
inline constexpr std::string_view ZRBSecTrustDetailExtendedKeyUsage = "ExtendedKeyUsage";
inline constexpr std::string_view ZRBSecTrustDetailCriticalExtensions = "CriticalExtensions";
inline constexpr std::string_view ZRBSecTrustDetailWeakKeySize = "WeakKeySize";
inline constexpr std::string_view ZRBSecTrustDetailWeakSignature = "WeakSignature";
// Malformed validity dates.
inline constexpr std::string_view ZRBSecTrustDetailValidityPeriod = "ValidityPeriod";
inline constexpr std::string_view ZRBSecTrustDetailRevocation = "Revocation";
// An anchor marked as rejected for this purpose.
inline constexpr std::string_view ZRBSecTrustDetailRejected = "Rejected";
// Any other verification error (a malformed extension, ...); counted as fatal.
inline constexpr std::string_view ZRBSecTrustDetailOther = "Other";

class ZRBSecTrust final : public ZRBObject {
 public:
  // A trust for the certificates (leaf first) and policies. Null, with ZRBErrSecParam in `status`,
  // when there is no certificate or one of them is null. Null policies are dropped; a trust without
  // any policy can be created, but evaluates to ZRBSecTrustResultOtherError.
  static ZRBSecTrustPtr createWithCertificates(std::vector<ZRBSecCertificatePtr> certificates,
                                               std::vector<ZRBSecPolicyPtr> policies,
                                               ZRBOSStatus* status = nullptr);
  static ZRBSecTrustPtr createWithCertificates(std::vector<ZRBSecCertificatePtr> certificates,
                                               ZRBSecPolicyPtr policy, ZRBOSStatus* status = nullptr);

  // Replace the policies (null ones are dropped); the previous evaluation is forgotten. When
  // several policies are set, the chain must satisfy all of them.
  ZRBOSStatus setPolicies(std::vector<ZRBSecPolicyPtr> policies);
  ZRBOSStatus setPolicies(ZRBSecPolicyPtr policy);
  std::vector<ZRBSecPolicyPtr> copyPolicies() const;

  // Custom anchors: from now on only these are trusted (an empty list trusts nothing) until
  // setAnchorCertificatesOnly(false) lets the system store count as well. Null entries are
  // dropped. setAnchorCertificates(std::nullopt) returns to the system store alone.
  ZRBOSStatus setAnchorCertificates(std::vector<ZRBSecCertificatePtr> anchors);
  ZRBOSStatus setAnchorCertificates(std::nullopt_t);
  ZRBOSStatus setAnchorCertificatesOnly(bool anchorCertificatesOnly);
  std::vector<ZRBSecCertificatePtr> copyCustomAnchorCertificates() const;

  // The moment at which validity periods are checked; nullopt (the default) means "now", taken
  // anew at each evaluation.
  ZRBOSStatus setVerifyDate(std::optional<ZRBDate> date);
  std::optional<ZRBDate> verifyDate() const;

  // Evaluates the trust. Returns ZRBErrSecSuccess when the evaluation ran, whatever its verdict,
  // and stores the verdict in `result`; a non-zero status (out of memory, an OpenSSL failure)
  // leaves ZRBSecTrustResultInvalid there. `result` may be null.
  ZRBOSStatus evaluate(ZRBSecTrustResultType* result);
  // The result of the last evaluation; ZRBSecTrustResultInvalid before one.
  ZRBSecTrustResultType trustResult() const;

  // The chain: after an evaluation the built chain (leaf first, anchor last); before one, the
  // certificates the trust was created with.
  std::vector<ZRBSecCertificatePtr> certificates() const;
  std::size_t certificateCount() const;
  // Null when the index is out of range.
  ZRBSecCertificatePtr certificateAtIndex(std::size_t index) const;

  // The leaf's public key; null when its algorithm is unsupported.
  ZRBSecKeyPtr copyPublicKey() const;

  // After an evaluation, a dictionary: TrustResultValue (number), TrustEvaluationDate (date) and
  // TrustResultDetails (an array with one dictionary per chain certificate, keyed by the failed
  // checks, see above). Absent before an evaluation.
  ZRBValue copyResult() const;

  // The system's trust anchors, loaded once per process; empty when the store cannot be read.
  static const std::vector<ZRBSecCertificatePtr>& copyAnchorCertificates();

  std::string className() const override { return "ZRBSecTrust"; }
  std::string description() const override;

  // The anchors one evaluation searches (defined in the implementation).
  struct TrustedSet;
  // Use createWithCertificates; the constructor is public only for std::make_shared.
  struct Private {};
  ZRBSecTrust(Private, std::vector<ZRBSecCertificatePtr> certificates, std::vector<ZRBSecPolicyPtr> policies);

 private:
  void forgetEvaluation();                         // with mutex_ held
  std::shared_ptr<const TrustedSet> trustedSet();  // with mutex_ held

  const std::vector<ZRBSecCertificatePtr> certificates_;
  mutable std::mutex mutex_;
  std::vector<ZRBSecPolicyPtr> policies_;
  std::optional<std::vector<ZRBSecCertificatePtr>> anchors_;
  bool anchorsOnly_ = false;
  std::shared_ptr<const TrustedSet> trusted_;  // built on first evaluation after a change
  std::optional<ZRBDate> verifyDate_;

  // The last evaluation.
  ZRBSecTrustResultType result_ = ZRBSecTrustResultInvalid;
  std::vector<ZRBSecCertificatePtr> chain_;
  std::vector<std::uint32_t> failures_;  // per chain certificate, a bit per detail key
  ZRBDate evaluationDate_;
};
