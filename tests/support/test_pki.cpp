#include "support/test_pki.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
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

void check(long rc, const char* what) {
  if (rc <= 0) fail(what);
}

bool isRSA(ZRBTestKeyType type) { return type == ZRBTestKeyType::RSA2048 || type == ZRBTestKeyType::RSA4096; }

// The text `write` puts into a memory BIO.
template <typename Write>
std::string pemText(Write write, const char* what) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  check(write(bio.get()), what);
  char* data = nullptr;
  long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

std::shared_ptr<EVP_PKEY> generate(ZRBTestKeyType type) {
  EVP_PKEY* key = nullptr;
  switch (type) {
    case ZRBTestKeyType::RSA2048: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{2048}); break;
    case ZRBTestKeyType::RSA4096: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{4096}); break;
    case ZRBTestKeyType::ECP256: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"); break;
    case ZRBTestKeyType::ECP384: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384"); break;
  }
  if (!key) fail("EVP_PKEY_Q_keygen");
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

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) fail("cannot write " + path.string());
}

}  // namespace

std::string_view ZRBTestKeyTypeName(ZRBTestKeyType type) {
  constexpr std::string_view names[] = {"rsa2048", "rsa4096", "p256", "p384"};
  auto index = static_cast<std::size_t>(type);
  return index < std::size(names) ? names[index] : "?";
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
  return pemText([&](BIO* bio) { return PEM_write_bio_X509(bio, x509_.get()); }, "PEM_write_bio_X509");
}

std::string ZRBTestCertificate::keyPEM() const {
  return pemText(
      [&](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key_.get(), nullptr, nullptr, 0, nullptr, nullptr);
      },
      "PEM_write_bio_PrivateKey");
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

  std::uint64_t serial = 0;
  check(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial), "serial");
  check(ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert), serial >> 1), "serial");  // random, 63 bits

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
  auto add = [&](int nid, const std::string& value) { addExtension(cert, issuerCert, nid, value); };
  add(NID_subject_key_identifier, "hash");
  add(NID_authority_key_identifier, "keyid:always");
  if (options.isCA) {
    add(NID_basic_constraints, "critical,CA:TRUE");
    add(NID_key_usage, "critical,keyCertSign,cRLSign,digitalSignature");
  } else {
    add(NID_basic_constraints, "critical,CA:FALSE");
    add(NID_key_usage,
        isRSA(options.keyType) ? "critical,digitalSignature,keyEncipherment" : "critical,digitalSignature");
    if (!options.extendedKeyUsage.empty()) add(NID_ext_key_usage, options.extendedKeyUsage);
  }
  std::string names;
  for (const auto& dns : options.dnsNames) names += (names.empty() ? "DNS:" : ",DNS:") + dns;
  for (const auto& ip : options.ipAddresses) names += (names.empty() ? "IP:" : ",IP:") + ip;
  if (!names.empty()) add(NID_subject_alt_name, names);

  check(X509_sign(cert, issuer ? issuer->key() : key.get(), EVP_sha256()), "X509_sign");
  return ZRBTestCertificate(std::move(x509), std::move(key));
}

ZRBTestChain ZRBTestPKI::makeChain(ZRBTestKeyType leafKeyType, ZRBTestLeafVariant variant,
                                   ZRBTestKeyType caKeyType) {
  // A sequence number keeps the names of chains made with the same arguments apart too.
  static std::atomic<int> sequence{0};
  constexpr const char* variantNames[] = {"valid", "expired", "not-yet-valid", "wrong-host"};
  std::string label = std::string(ZRBTestKeyTypeName(leafKeyType)) + "-" +
                      variantNames[static_cast<int>(variant)] + "-" +
                      std::string(ZRBTestKeyTypeName(caKeyType)) + "-" + std::to_string(++sequence);
  constexpr std::int64_t day = 24 * 3600;

  ZRBTestChain chain;
  ZRBTestCertificateOptions ca{.commonName = "ORVELKIT Test Root " + label,
                               .keyType = caKeyType,
                               .keySlot = 1,
                               .isCA = true,
                               .notBeforeOffset = -2 * day,
                               .notAfterOffset = 3650 * day};
  chain.root = issue(ca, nullptr);
  ca.commonName = "ORVELKIT Test Intermediate " + label;
  ca.keySlot = 2;
  chain.intermediate = issue(ca, &chain.root);

  ZRBTestCertificateOptions leaf{.commonName = "localhost", .keyType = leafKeyType, .keySlot = 0};
  leaf.dnsNames.assign(std::begin(kZRBTestLeafDNSNames), std::end(kZRBTestLeafDNSNames));
  leaf.ipAddresses.assign(std::begin(kZRBTestLeafIPAddresses), std::end(kZRBTestLeafIPAddresses));
  auto &start = leaf.notBeforeOffset, &end = leaf.notAfterOffset;
  switch (variant) {
    case ZRBTestLeafVariant::Valid: break;
    case ZRBTestLeafVariant::Expired: std::tie(start, end) = std::pair(-30 * day, -day); break;
    case ZRBTestLeafVariant::NotYetValid: std::tie(start, end) = std::pair(day, 30 * day); break;
    case ZRBTestLeafVariant::WrongHost:
      leaf.commonName = std::string(kZRBTestWrongHostName);
      leaf.dnsNames = {leaf.commonName};
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
