// A test PKI made at run time with OpenSSL: keys of the four kinds the pinning code knows, roots,
// intermediates and leaves with subject alternative names, and the broken variants (expired, not
// yet valid, wrong host) that trust evaluation must reject.
//
// Shapes are fixed (names, extensions, validity offsets relative to now), bytes are not: keys and
// serial numbers are random. Keys are generated once per process and kind/slot and then reused,
// since an RSA 4096 key takes a second or more; chains from sharedChain() are made once as well.
// Everything here may be called from several threads.
#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sec_certificate.h"

enum class ZRBTestKeyType { RSA2048, RSA4096, ECP256, ECP384 };

inline constexpr ZRBTestKeyType kZRBTestKeyTypes[] = {ZRBTestKeyType::RSA2048, ZRBTestKeyType::RSA4096,
                                                      ZRBTestKeyType::ECP256, ZRBTestKeyType::ECP384};

// "rsa2048", "rsa4096", "p256", "p384": for test names and certificate names.
std::string_view ZRBTestKeyTypeName(ZRBTestKeyType type);

// The names every valid leaf is issued for.
inline constexpr std::string_view kZRBTestLeafDNSNames[] = {"localhost", "*.wild.test"};
inline constexpr std::string_view kZRBTestLeafIPAddresses[] = {"127.0.0.1", "::1"};
// The only name of a wrong-host leaf.
inline constexpr std::string_view kZRBTestWrongHostName = "wrong.example";

struct ZRBTestCertificateOptions {
  std::string commonName{};  // left out of the subject when empty
  ZRBTestKeyType keyType = ZRBTestKeyType::ECP256;
  int keySlot = 0;  // keys of the same type and slot are the same key within a process
  bool isCA = false;
  std::vector<std::string> dnsNames{};
  std::vector<std::string> ipAddresses{};
  // Validity relative to the moment of issue, in seconds.
  std::int64_t notBeforeOffset = -24 * 3600;
  std::int64_t notAfterOffset = 365 * 24 * 3600;
  // Leaves: the extended key usage, in OpenSSL's configuration syntax; empty leaves it out.
  std::string extendedKeyUsage = "serverAuth,clientAuth";
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
  // The private key, as unencrypted PKCS#8 PEM.
  std::string keyPEM() const;
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

  // What a TLS server sends: leaf, then intermediate.
  std::vector<ZRBSecCertificatePtr> peerCertificates() const;
  ZRBSecCertificatePtr rootCertificate() const { return root.secCertificate(); }
  // The server's certificate file: leaf and intermediate PEM, in that order.
  std::string chainPEM() const { return leaf.pem() + intermediate.pem(); }
  std::string keyPEM() const { return leaf.keyPEM(); }
  std::string rootPEM() const { return root.pem(); }
};

// Files for a TLS test server.
struct ZRBTestServerFiles {
  std::filesystem::path directory;
  std::filesystem::path chain;  // chain.pem: leaf + intermediate
  std::filesystem::path key;    // key.pem: the leaf's private key
  std::filesystem::path root;   // root.pem: the anchor a client must trust
};

class ZRBTestPKI {
 public:
  // The cached private key of that type and slot.
  static std::shared_ptr<EVP_PKEY> key(ZRBTestKeyType type, int slot = 0);

  // Issues a certificate signed by `issuer`, or self-signed when `issuer` is null. CA certificates
  // get critical basic constraints and key usage for signing certificates; leaves get digital
  // signature (and key encipherment for RSA) and the extended key usage of the options.
  static ZRBTestCertificate issue(const ZRBTestCertificateOptions& options, const ZRBTestCertificate* issuer);

  // A new chain. The root (slot 1) and intermediate (slot 2) use `caKeyType`, the leaf (slot 0)
  // `leafKeyType`. Every chain has its own root name, so chains never validate through each other.
  // Valid leaves are issued for kZRBTestLeafDNSNames and kZRBTestLeafIPAddresses (common name
  // "localhost"); expired ones ended a day ago, not-yet-valid ones start in a day; wrong-host ones
  // name only kZRBTestWrongHostName.
  static ZRBTestChain makeChain(ZRBTestKeyType leafKeyType,
                                ZRBTestLeafVariant variant = ZRBTestLeafVariant::Valid,
                                ZRBTestKeyType caKeyType = ZRBTestKeyType::ECP256);
  // The same, made once per process and argument combination.
  static const ZRBTestChain& sharedChain(ZRBTestKeyType leafKeyType,
                                         ZRBTestLeafVariant variant = ZRBTestLeafVariant::Valid,
                                         ZRBTestKeyType caKeyType = ZRBTestKeyType::ECP256);

  // A new, empty directory under $TMPDIR (or /tmp); the caller removes it.
  static std::filesystem::path makeTemporaryDirectory();
  // Writes chain.pem, key.pem and root.pem into `directory`, or into a new temporary directory
  // when it is empty.
  static ZRBTestServerFiles writeServerFiles(const ZRBTestChain& chain, std::filesystem::path directory = {});
};
