#include "support/test_pki.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <tuple>

namespace {

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("test PKI: " + what); }

void check(int rc, const char* what) {
  if (rc <= 0) fail(what);
}

std::string bioText(BIO* bio) {
  char* data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<std::size_t>(length));
}

std::shared_ptr<EVP_PKEY> generate(ZRBTestKeyType type) {
  bool rsa = type == ZRBTestKeyType::RSA2048 || type == ZRBTestKeyType::RSA4096;
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, rsa ? "RSA" : "EC", nullptr);
  if (!ctx) fail("EVP_PKEY_CTX_new_from_name");
  check(EVP_PKEY_keygen_init(ctx), "EVP_PKEY_keygen_init");
  switch (type) {
    case ZRBTestKeyType::RSA2048: check(EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, 2048), "rsa bits"); break;
    case ZRBTestKeyType::RSA4096: check(EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, 4096), "rsa bits"); break;
    case ZRBTestKeyType::ECP256: check(EVP_PKEY_CTX_set_group_name(ctx, "P-256"), "curve"); break;
    case ZRBTestKeyType::ECP384: check(EVP_PKEY_CTX_set_group_name(ctx, "P-384"), "curve"); break;
  }
  EVP_PKEY* key = nullptr;
  check(EVP_PKEY_generate(ctx, &key), "EVP_PKEY_generate");
  EVP_PKEY_CTX_free(ctx);
  return std::shared_ptr<EVP_PKEY>(key, EVP_PKEY_free);
}

void addExtension(X509* subject, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, subject, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  if (!extension) fail("extension " + value);
  check(X509_add_ext(subject, extension, -1), "X509_add_ext");
  X509_EXTENSION_free(extension);
}

void addName(X509_NAME* name, const char* field, const std::string& value) {
  check(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1, 0),
        "name entry");
}

std::string leafName(ZRBTestLeafVariant variant) {
  switch (variant) {
    case ZRBTestLeafVariant::Valid: return "valid";
    case ZRBTestLeafVariant::Expired: return "expired";
    case ZRBTestLeafVariant::NotYetValid: return "not-yet-valid";
    case ZRBTestLeafVariant::WrongHost: return "wrong-host";
  }
  return "?";
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) fail("cannot write " + path.string());
}

}  // namespace

std::string_view ZRBTestKeyTypeName(ZRBTestKeyType type) {
  switch (type) {
    case ZRBTestKeyType::RSA2048: return "rsa2048";
    case ZRBTestKeyType::RSA4096: return "rsa4096";
    case ZRBTestKeyType::ECP256: return "p256";
    case ZRBTestKeyType::ECP384: return "p384";
  }
  return "?";
}

ZRBTestCertificate::ZRBTestCertificate(std::shared_ptr<X509> x509, std::shared_ptr<EVP_PKEY> key)
    : x509_(std::move(x509)), key_(std::move(key)) {}

std::vector<std::uint8_t> ZRBTestCertificate::der() const {
  unsigned char* buffer = nullptr;
  int length = i2d_X509(x509_.get(), &buffer);
  if (length <= 0) fail("i2d_X509");
  std::vector<std::uint8_t> out(buffer, buffer + length);
  OPENSSL_free(buffer);
  return out;
}

std::string ZRBTestCertificate::pem() const {
  BIO* bio = BIO_new(BIO_s_mem());
  check(PEM_write_bio_X509(bio, x509_.get()), "PEM_write_bio_X509");
  std::string text = bioText(bio);
  BIO_free(bio);
  return text;
}

std::string ZRBTestCertificate::keyPEM() const {
  BIO* bio = BIO_new(BIO_s_mem());
  check(PEM_write_bio_PrivateKey(bio, key_.get(), nullptr, nullptr, 0, nullptr, nullptr),
        "PEM_write_bio_PrivateKey");
  std::string text = bioText(bio);
  BIO_free(bio);
  return text;
}

ZRBSecCertificatePtr ZRBTestCertificate::secCertificate() const {
  return ZRBSecCertificate::createWithX509(x509());
}

std::vector<ZRBSecCertificatePtr> ZRBTestChain::peerCertificates() const {
  return {leaf.secCertificate(), intermediate.secCertificate()};
}

std::shared_ptr<EVP_PKEY> ZRBTestPKI::key(ZRBTestKeyType type, int slot) {
  // Generation runs under the lock: two tests asking for the same RSA 4096 key must not both pay.
  static std::mutex mutex;
  static std::map<std::pair<ZRBTestKeyType, int>, std::shared_ptr<EVP_PKEY>> keys;
  std::lock_guard lock(mutex);
  auto& entry = keys[{type, slot}];
  if (!entry) entry = generate(type);
  return entry;
}

ZRBTestCertificate ZRBTestPKI::issue(const ZRBTestCertificateOptions& options,
                                     const ZRBTestCertificate* issuer) {
  auto key = ZRBTestPKI::key(options.keyType, options.keySlot);
  std::shared_ptr<X509> x509(X509_new(), X509_free);
  if (!x509) fail("X509_new");
  X509* cert = x509.get();
  check(X509_set_version(cert, X509_VERSION_3), "version");

  BIGNUM* serial = BN_new();
  check(BN_rand(serial, 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY), "serial");
  check(BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(cert)) != nullptr, "serial");
  BN_free(serial);

  X509_NAME* name = X509_get_subject_name(cert);
  addName(name, "O", "ORVELKIT Tests");
  if (!options.commonName.empty()) addName(name, "CN", options.commonName);
  check(X509_set_issuer_name(cert, issuer ? X509_get_subject_name(issuer->x509()) : name), "issuer");
  check(X509_gmtime_adj(X509_getm_notBefore(cert), static_cast<long>(options.notBeforeOffset)) != nullptr,
        "notBefore");
  check(X509_gmtime_adj(X509_getm_notAfter(cert), static_cast<long>(options.notAfterOffset)) != nullptr,
        "notAfter");
  check(X509_set_pubkey(cert, key.get()), "pubkey");

  X509* issuerCert = issuer ? issuer->x509() : cert;
  addExtension(cert, issuerCert, NID_subject_key_identifier, "hash");
  addExtension(cert, issuerCert, NID_authority_key_identifier, "keyid:always");
  bool rsa = options.keyType == ZRBTestKeyType::RSA2048 || options.keyType == ZRBTestKeyType::RSA4096;
  if (options.isCA) {
    addExtension(cert, issuerCert, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(cert, issuerCert, NID_key_usage, "critical,keyCertSign,cRLSign,digitalSignature");
  } else {
    addExtension(cert, issuerCert, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(cert, issuerCert, NID_key_usage,
                 rsa ? "critical,digitalSignature,keyEncipherment" : "critical,digitalSignature");
    if (!options.extendedKeyUsage.empty())
      addExtension(cert, issuerCert, NID_ext_key_usage, options.extendedKeyUsage);
  }
  std::string names;
  for (const auto& dns : options.dnsNames) names += (names.empty() ? "DNS:" : ",DNS:") + dns;
  for (const auto& ip : options.ipAddresses) names += (names.empty() ? "IP:" : ",IP:") + ip;
  if (!names.empty()) addExtension(cert, issuerCert, NID_subject_alt_name, names);

  EVP_PKEY* signer = issuer ? issuer->key() : key.get();
  check(X509_sign(cert, signer, EVP_sha256()), "X509_sign");
  return ZRBTestCertificate(std::move(x509), std::move(key));
}

ZRBTestChain ZRBTestPKI::makeChain(ZRBTestKeyType leafKeyType, ZRBTestLeafVariant variant,
                                   ZRBTestKeyType caKeyType) {
  // A sequence number keeps the names of chains made with the same arguments apart too.
  static std::atomic<int> sequence{0};
  std::string label = std::string(ZRBTestKeyTypeName(leafKeyType)) + "-" + leafName(variant) + "-" +
                      std::string(ZRBTestKeyTypeName(caKeyType)) + "-" + std::to_string(++sequence);
  constexpr std::int64_t day = 24 * 3600;

  ZRBTestChain chain;
  ZRBTestCertificateOptions root{.commonName = "ORVELKIT Test Root " + label,
                                 .keyType = caKeyType,
                                 .keySlot = 1,
                                 .isCA = true,
                                 .notBeforeOffset = -2 * day,
                                 .notAfterOffset = 3650 * day};
  chain.root = issue(root, nullptr);
  ZRBTestCertificateOptions intermediate = root;
  intermediate.commonName = "ORVELKIT Test Intermediate " + label;
  intermediate.keySlot = 2;
  chain.intermediate = issue(intermediate, &chain.root);

  ZRBTestCertificateOptions leaf{.commonName = "localhost", .keyType = leafKeyType, .keySlot = 0};
  leaf.dnsNames.assign(std::begin(kZRBTestLeafDNSNames), std::end(kZRBTestLeafDNSNames));
  leaf.ipAddresses.assign(std::begin(kZRBTestLeafIPAddresses), std::end(kZRBTestLeafIPAddresses));
  switch (variant) {
    case ZRBTestLeafVariant::Valid: break;
    case ZRBTestLeafVariant::Expired:
      leaf.notBeforeOffset = -30 * day;
      leaf.notAfterOffset = -day;
      break;
    case ZRBTestLeafVariant::NotYetValid:
      leaf.notBeforeOffset = day;
      leaf.notAfterOffset = 30 * day;
      break;
    case ZRBTestLeafVariant::WrongHost:
      leaf.commonName = std::string(kZRBTestWrongHostName);
      leaf.dnsNames = {std::string(kZRBTestWrongHostName)};
      leaf.ipAddresses.clear();
      break;
  }
  chain.leaf = issue(leaf, &chain.intermediate);
  return chain;
}

const ZRBTestChain& ZRBTestPKI::sharedChain(ZRBTestKeyType leafKeyType, ZRBTestLeafVariant variant,
                                            ZRBTestKeyType caKeyType) {
  static std::mutex mutex;
  static std::map<std::tuple<ZRBTestKeyType, ZRBTestLeafVariant, ZRBTestKeyType>,
                  std::unique_ptr<ZRBTestChain>>
      chains;
  std::lock_guard lock(mutex);
  auto& entry = chains[{leafKeyType, variant, caKeyType}];
  if (!entry) entry = std::make_unique<ZRBTestChain>(makeChain(leafKeyType, variant, caKeyType));
  return *entry;
}

std::filesystem::path ZRBTestPKI::makeTemporaryDirectory() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/orvelkit-pki-XXXXXX";
  if (!mkdtemp(pattern.data())) fail("mkdtemp " + pattern);
  return pattern;
}

ZRBTestServerFiles ZRBTestPKI::writeServerFiles(const ZRBTestChain& chain, std::filesystem::path directory) {
  if (directory.empty()) directory = makeTemporaryDirectory();
  std::filesystem::create_directories(directory);
  ZRBTestServerFiles files{directory, directory / "chain.pem", directory / "key.pem", directory / "root.pem"};
  writeFile(files.chain, chain.chainPEM());
  writeFile(files.key, chain.keyPEM());
  writeFile(files.root, chain.rootPEM());
  return files;
}
