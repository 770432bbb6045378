// ZRBHS_SecurityPolicy: decides whether a server's TLS trust is acceptable for a host.
//
// The session manager asks its policy on every server-trust challenge; a false answer cancels the
// challenge and so the task. A policy pins nothing, public keys, or whole certificates; it can
// accept chains that do not evaluate as trusted, and it can bind the evaluation to the host name.
//
// While ZRBSetting::sharedSetting()->isRealStgEnv() is true (the real staging environment), every
// trust is accepted without looking at it.
//
// Pinned certificates are DER byte strings held as a set of data values. The policy keeps the
// public keys of those certificates beside them (pinnedPublicKeys), recomputed whenever the
// certificates are set; keys compare by type and encoded bytes.
//
// Every failure is a false answer; nothing is logged and no error is produced. Fields are guarded
// by a lock so that a challenge on the transport thread may read them while another thread sets
// them, but an evaluation that overlaps a change sees either the old or the new fields.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/keyed_archiver.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/security/sec_trust.h"
#include "platform/system/bundle.h"

enum SSLPinningMode : std::uint64_t {
  // No pinning: the chain evaluation alone decides.
  SSLPinningModeNone = 0,
  // Some public key of the server chain must equal a pinned public key.
  SSLPinningModePublicKey = 1,
  // The chain must evaluate with the pinned certificates as the only anchors, and some certificate
  // of the built chain must be a pinned one.
  SSLPinningModeCertificate = 2,
};

class ZRBHS_SecurityPolicy;
using ZRBHS_SecurityPolicyPtr = std::shared_ptr<ZRBHS_SecurityPolicy>;

class ZRBHS_SecurityPolicy final : public ZRBObject, public ZRBCoding {
 public:
  // Told the key path of a field after it was set: "SSLPinningMode", "allowInvalidCertificates",
  // "validatesDomainName", "pinnedCertificates" (followed by "pinnedPublicKeys", which changes with
  // it). Called on the setting thread, outside the policy's lock.
  using ChangeObserver = std::function<void(std::string_view keyPath)>;
  using ObserverToken = std::uint64_t;

  // A policy as initialised: mode none, no pinned certificates (nil), invalid certificates
  // rejected, domain names validated.
  ZRBHS_SecurityPolicy() = default;

  // ---- class operations ----

  // A new policy in the initial state above; what a session manager uses unless told otherwise.
  static ZRBHS_SecurityPolicyPtr defaultPolicy();
  // A new policy with `pinningMode`, pinning defaultPinnedCertificates().
  static ZRBHS_SecurityPolicyPtr policyWithPinningMode(::SSLPinningMode pinningMode);
  // A new policy with `pinningMode`, then setPinnedCertificates(pinnedCertificates).
  static ZRBHS_SecurityPolicyPtr policyWithPinningMode(::SSLPinningMode pinningMode,
                                                       ZRBValue pinnedCertificates);

  // Every file with the extension "der" directly in the bundle's folder, read whole, as a set of
  // data values (empty when there is none or the folder cannot be listed). A matching file that
  // cannot be read is a fatal mistake in the deployment: it throws
  // ZRBException(kZRBHS_InvalidArgumentException, ...).
  static ZRBValue certificatesInBundle(const ZRBBundle& bundle);
  // certificatesInBundle() of the library's own bundle, read once per process and then reused.
  static ZRBValue defaultPinnedCertificates();

  // ---- fields ----

  bool allowInvalidCertificates() const;
  void setAllowInvalidCertificates(bool allowInvalidCertificates);
  // True: evaluate with an SSL server policy bound to the host; false: a plain X.509 policy.
  bool validatesDomainName() const;
  void setValidatesDomainName(bool validatesDomainName);
  ::SSLPinningMode SSLPinningMode() const;
  void setSSLPinningMode(::SSLPinningMode pinningMode);

  // A set of DER data values, or absent (nil). An array is taken as the set of its items; absent
  // and the null object both mean nil. Any other kind is a programming error (ZRBAssert).
  ZRBValue pinnedCertificates() const;
  // Stores the set and recomputes pinnedPublicKeys: absent for nil, else the set of the keys that
  // could be extracted (items that are not certificates, or whose key is unsupported, are skipped).
  void setPinnedCertificates(ZRBValue pinnedCertificates);
  // A set of ZRBSecKey objects, or absent when no certificates are set.
  ZRBValue pinnedPublicKeys() const;

  // ---- evaluation ----

  // Whether `serverTrust` is acceptable for `domain` (nullopt: no host to check). The trust's
  // policies are replaced and, in certificate mode, its anchors too; it is evaluated in place. A
  // null trust is rejected, except under the staging rule, which accepts before looking at it.
  bool evaluateServerTrust(const ZRBSecTrustPtr& serverTrust, const std::optional<std::string>& domain);

  // ---- change observation ----

  ObserverToken addChangeObserver(ChangeObserver observer);
  void removeChangeObserver(ObserverToken token);

  // ---- copying and coding ----

  // A new policy with the same mode, flags and certificates (keys recomputed); observers are
  // not carried over.
  ZRBHS_SecurityPolicyPtr copy() const;

  static bool supportsSecureCoding() { return true; }
  // Keys "SSLPinningMode" (integer), "allowInvalidCertificates", "validatesDomainName" (bools) and
  // "pinnedCertificates" (a set of data; left out when nil).
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBHS_SecurityPolicy"; }
  // Starts from the initial state and sets every field from the archive, so a missing mode is
  // none, a missing flag false and missing certificates nil.
  static ZRBHS_SecurityPolicyPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_SecurityPolicy"; }
  // "<ZRBHS_SecurityPolicy: 0x...> mode: N, allowInvalidCertificates: B, validatesDomainName: B,
  // pinnedCertificates: N".
  std::string description() const override;

 private:
  struct Fields {
    bool allowInvalidCertificates = false;
    bool validatesDomainName = true;
    ::SSLPinningMode pinningMode = SSLPinningModeNone;
    ZRBValue pinnedCertificates;  // set of data, or absent
    ZRBValue pinnedPublicKeys;    // set of ZRBSecKey, or absent
  };

  Fields snapshot() const;
  void notify(std::initializer_list<std::string_view> keyPaths) const;

  mutable std::mutex mutex_;
  Fields fields_;
  std::vector<std::pair<ObserverToken, ChangeObserver>> observers_;
  ObserverToken nextToken_ = 1;
};

// The name of the exception certificatesInBundle() throws for an unreadable certificate file.
inline constexpr std::string_view kZRBHS_InvalidArgumentException = "ZRBInvalidArgumentException";
