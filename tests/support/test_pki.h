// A test PKI made at run time with OpenSSL: keys of the four kinds the pinning code knows, chains
// with subject alternative names, and the broken variants (expired, not yet valid, wrong host).
// Shapes are fixed, bytes are random. Keys are made once per process and kind/slot (an RSA 4096 key
// takes a second or more), chains from sharedChain() once as well. Everything is thread-safe.
#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/security/sec_certificate.h"

enum class ZRBTestKeyType { RSA2048, RSA4096, ECP256, ECP384 };

inline constexpr ZRBTestKeyType kZRBTestKeyTypes[] = {ZRBTestKeyType::RSA2048, ZRBTestKeyType::RSA4096,
                                                      ZRBTestKeyType::ECP256, ZRBTestKeyType::ECP384};

// "rsa2048", "rsa4096", "p256", "p384": for test names and certificate names.
std::string_view ZRBTestKeyTypeName(ZRBTestKeyType type);

// The names every valid leaf is issued for, and the only name of a wrong-host leaf.
inline constexpr std::string_view kZRBTestLeafDNSNames[] = {"localhost", "*.wild.test"};
inline constexpr std::string_view kZRBTestLeafIPAddresses[] = {"127.0.0.1", "::1"};
inline constexpr std::string_view kZRBTestWrongHostName = "wrong.example";

struct ZRBTestCertificateOptions {
  std::string commonName{};  // left out of the subject when empty
  ZRBTestKeyType keyType = ZRBTestKeyType::ECP256;
  int keySlot = 0;  // keys of the same type and slot are the same key within a process
  bool isCA = false;
  std::vector<std::string> dnsNames{};
  std::vector<std::string> ipAddresses{};
  std::int64_t notBeforeOffset = -24 * 3600;
  std::int64_t notAfterOffset = 365 * 24 * 3600;           // validity in seconds relative to issue
  std::string extendedKeyUsage = "serverAuth,clientAuth";  // leaves, OpenSSL syntax; empty: none
};

// An issued certificate with its private key.
class ZRBTestCertificate {
 public:
  ZRBTestCertificate() = default;
  ZRBTestCertificate(std::shared_ptr<X509> x509, std::shared_ptr<EVP_PKEY> key);

  X509* x509() const { return x509_.get(); }
  EVP_PKEY* key() const { return key_.get(); }
  std::vector<std::uint8_t> der() const;
  std::string pem() const;
  std::string keyPEM() const;  // unencrypted PKCS#8
  ZRBSecCertificatePtr secCertificate() const;

 private:
  std::shared_ptr<X509> x509_;
  std::shared_ptr<EVP_PKEY> key_;
};

enum class ZRBTestLeafVariant { Valid, Expired, NotYetValid, WrongHost };

// root -> intermediate -> leaf.
struct ZRBTestChain {
  ZRBTestCertificate root;
  ZRBTestCertificate intermediate;
  ZRBTestCertificate leaf;

  std::vector<ZRBSecCertificatePtr> peerCertificates() const;  // leaf, intermediate
  ZRBSecCertificatePtr rootCertificate() const { return root.secCertificate(); }
  std::string chainPEM() const { return leaf.pem() + intermediate.pem(); }
  std::string keyPEM() const { return leaf.keyPEM(); }
  std::string rootPEM() const { return root.pem(); }
};

struct ZRBTestServerFiles {  // files for a TLS test server
  std::filesystem::path directory;
  std::filesystem::path chain;  // chain.pem: leaf + intermediate
  std::filesystem::path key;    // key.pem: the leaf's private key
  std::filesystem::path root;   // root.pem: the anchor a client must trust
};

class ZRBTestPKI {
 public:
  static std::shared_ptr<EVP_PKEY> key(ZRBTestKeyType type, int slot = 0);

  // Signed by `issuer`, or self-signed. CAs get critical basic constraints and certificate-signing
  // key usage; leaves digital signature (plus key encipherment for RSA) and the options' EKU.
  static ZRBTestCertificate issue(const ZRBTestCertificateOptions& options, const ZRBTestCertificate* issuer);

  // A new chain: root (slot 1) and intermediate (slot 2) of `caKeyType`, leaf (slot 0) of
  // `leafKeyType`; each chain has its own root name. Valid leaves (CN "localhost") carry the names
  // above; expired ones ended a day ago, not-yet-valid ones start in a day.
  static ZRBTestChain makeChain(ZRBTestKeyType leafKeyType,
                                ZRBTestLeafVariant variant = ZRBTestLeafVariant::Valid,
                                ZRBTestKeyType caKeyType = ZRBTestKeyType::ECP256);
  // The same, made once per process and arguments.
  static const ZRBTestChain& sharedChain(ZRBTestKeyType leafKeyType,
                                         ZRBTestLeafVariant variant = ZRBTestLeafVariant::Valid,
                                         ZRBTestKeyType caKeyType = ZRBTestKeyType::ECP256);

  // A new, empty directory under $TMPDIR (or /tmp); the caller removes it.
  static std::filesystem::path makeTemporaryDirectory();
  // Writes chain.pem, key.pem and root.pem into `directory` (a new temporary one when empty).
  static ZRBTestServerFiles writeServerFiles(const ZRBTestChain& chain, std::filesystem::path directory = {});
};
