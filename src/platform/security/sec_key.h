// ZRBSecKey: an immutable public key, as taken from a certificate.
//
// The external representation is the one the platform's key services give out, so that code which
// hashes "standard SubjectPublicKeyInfo header + external representation" (public-key pinning) gets
// the SHA-256 of the key's real DER SubjectPublicKeyInfo:
//   RSA: the PKCS#1 RSAPublicKey DER (SEQUENCE { modulus, publicExponent });
//   EC:  the uncompressed X9.63 point 04 || X || Y, each coordinate padded to the field size;
//   other algorithms: the raw public key where OpenSSL has one, else the DER SubjectPublicKeyInfo.
// Two keys are equal when their type and external representation are. Everything is computed at
// construction, so a key is safe to share between threads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/object.h"

struct evp_pkey_st;  // OpenSSL's EVP_PKEY, kept out of this header

class ZRBSecKey;
using ZRBSecKeyPtr = std::shared_ptr<ZRBSecKey>;

enum ZRBSecKeyType {
  ZRBSecKeyTypeOther = 0,
  ZRBSecKeyTypeRSA = 1,
  ZRBSecKeyTypeEC = 2,  // a prime-curve ECDSA key
};

// The key kinds whose SubjectPublicKeyInfo starts with a fixed, well-known DER header. The numbers
// are those the pinning configuration stores for its public-key algorithms.
enum ZRBSecKeySPKIKind {
  ZRBSecKeySPKIKindRSA2048 = 0,
  ZRBSecKeySPKIKindRSA4096 = 1,
  ZRBSecKeySPKIKindECSecp256r1 = 2,
  ZRBSecKeySPKIKindECSecp384r1 = 3,
};

// The DER bytes that precede the external representation in a SubjectPublicKeyInfo of that kind
// (24, 24, 26 and 23 bytes); empty for a value outside the enumeration.
std::span<const std::uint8_t> ZRBSecKeySPKIHeader(int kind);

class ZRBSecKey final : public ZRBObject {
 public:
  // A key from a DER SubjectPublicKeyInfo; null when the bytes are not one.
  static ZRBSecKeyPtr createWithSubjectPublicKeyInfo(std::span<const std::uint8_t> der);
  // Wraps an OpenSSL public key, taking a reference of its own. Null for a null pointer or a key
  // whose public part cannot be encoded.
  static ZRBSecKeyPtr createWithEVPKey(evp_pkey_st* key);

  ~ZRBSecKey() override;

  ZRBSecKeyType keyType() const { return type_; }
  // Modulus size for RSA, curve order size for EC, OpenSSL's bit count otherwise.
  int keySizeInBits() const { return bits_; }
  // The OpenSSL name of an EC key's curve ("prime256v1", "secp384r1"); empty for other keys.
  const std::string& curveName() const { return curve_; }

  // See the file comment.
  const std::vector<std::uint8_t>& externalRepresentation() const { return external_; }
  std::vector<std::uint8_t> copyExternalRepresentation() const { return external_; }
  // The DER SubjectPublicKeyInfo.
  const std::vector<std::uint8_t>& subjectPublicKeyInfo() const { return spki_; }

  // The standard header kind of this key: RSA with a 2048- or 4096-bit modulus (and an encoding
  // whose length fits the header, which holds for the usual exponent 65537), EC on P-256 or P-384.
  // nullopt for every other key, whose SubjectPublicKeyInfo has no such fixed prefix.
  std::optional<ZRBSecKeySPKIKind> spkiKind() const { return spkiKind_; }

  // SHA-256 of the SubjectPublicKeyInfo: over the standard header followed by the external
  // representation when the key has a standard kind, else over the DER SubjectPublicKeyInfo. This is
  // the value an HPKP-style pin ("pin-sha256") holds.
  std::array<std::uint8_t, 32> subjectPublicKeyInfoSHA256() const;

  // The OpenSSL key, owned by this object; callers must not change or free it.
  evp_pkey_st* evpKey() const { return key_; }

  std::string className() const override { return "ZRBSecKey"; }
  // "<ZRBSecKey 0x...: type: RSA, bits: 2048>" (EC keys add their curve).
  std::string description() const override;
  bool isEqual(const ZRBObject& other) const override;
  std::size_t hash() const override;

  // Use the create functions; the constructor is public only for std::make_shared.
  struct Private {};
  explicit ZRBSecKey(Private, evp_pkey_st* key);

 private:
  evp_pkey_st* key_;
  ZRBSecKeyType type_ = ZRBSecKeyTypeOther;
  int bits_ = 0;
  std::string curve_;
  std::vector<std::uint8_t> external_;
  std::vector<std::uint8_t> spki_;
  std::optional<ZRBSecKeySPKIKind> spkiKind_;
};
