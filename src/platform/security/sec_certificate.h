// ZRBSecCertificate: an immutable X.509 certificate.
//
// A certificate is made from its DER bytes (or PEM text) and keeps those bytes unchanged, so
// copyData() returns exactly what was parsed. Two certificates are equal when their DER bytes are.
// Objects are immutable after construction and safe to share between threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/object.h"

struct x509_st;  // OpenSSL's X509, kept out of this header

class ZRBSecCertificate;
class ZRBSecKey;
using ZRBSecCertificatePtr = std::shared_ptr<ZRBSecCertificate>;
using ZRBSecKeyPtr = std::shared_ptr<ZRBSecKey>;

class ZRBSecCertificate final : public ZRBObject {
 public:
  // The certificate encoded by `der`, or null when the bytes are not exactly one DER certificate
  // (garbage, truncation and trailing bytes all give null).
  static ZRBSecCertificatePtr createWithData(std::span<const std::uint8_t> der);
  static ZRBSecCertificatePtr createWithData(std::string_view der);

  // The first certificate of PEM text, or null when there is none or it is malformed.
  static ZRBSecCertificatePtr createWithPEM(std::string_view pem);
  // Every certificate of PEM text in order (a chain file). Blocks of other kinds (keys) are skipped;
  // a malformed or truncated certificate block makes the whole result empty, so a damaged chain
  // never passes for a shorter valid one.
  static std::vector<ZRBSecCertificatePtr> createAllWithPEM(std::string_view pem);

  // Wraps an OpenSSL certificate, taking a reference of its own (the caller keeps its reference).
  // Null for a null pointer or a certificate that cannot be encoded.
  static ZRBSecCertificatePtr createWithX509(x509_st* x509);

  ~ZRBSecCertificate() override;

  // The DER bytes the certificate was made from.
  const std::vector<std::uint8_t>& data() const { return der_; }
  std::vector<std::uint8_t> copyData() const { return der_; }

  // One PEM block ("-----BEGIN CERTIFICATE-----", base64 in 64-character lines, LF line ends).
  std::string copyPEM() const;

  // A human-readable summary of the subject: the common name, else the value of the first subject
  // attribute, else the first DNS name of the subject alternative names; nullopt when there is none.
  std::optional<std::string> copySubjectSummary() const;
  // The subject's (last) common name, nullopt when the subject has none.
  std::optional<std::string> copyCommonName() const;
  // The summary of the issuer name, with the same rules as the subject summary.
  std::optional<std::string> copyIssuerSummary() const;

  // The certificate's public key; null when the key's algorithm is not supported by OpenSSL.
  ZRBSecKeyPtr copyKey() const;

  // Validity period, as seconds since 1970 (UTC).
  std::int64_t notBefore() const;
  std::int64_t notAfter() const;
  // Whether subject and issuer names are equal and the certificate verifies with its own key.
  bool isSelfSigned() const;

  // The OpenSSL certificate, owned by this object; callers must not change or free it.
  x509_st* x509() const { return x509_; }

  std::string className() const override { return "ZRBSecCertificate"; }
  // "<ZRBSecCertificate 0x...> s: SUBJECT i: ISSUER".
  std::string description() const override;
  bool isEqual(const ZRBObject& other) const override;
  std::size_t hash() const override;

  // Use the create functions; the constructor is public only for std::make_shared.
  struct Private {};
  ZRBSecCertificate(Private, x509_st* x509, std::vector<std::uint8_t> der);

 private:
  x509_st* x509_;
  std::vector<std::uint8_t> der_;
  mutable std::once_flag keyOnce_;
  mutable ZRBSecKeyPtr key_;
};
