// Fuzzes loading the SPKI hash cache file: the input is written as the cache file and a cache is
// built over it. Whatever the bytes, loading must neither crash nor keep part of a damaged file: the
// cache either holds exactly what the file holds or starts empty, and a hash computed afterwards
// is the real one and is written back over the input.
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "pinning/spki_hash_cache.h"
#include "platform/security/sec_key.h"
#include "platform/system/file_manager.h"

namespace {

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "SPKI hash cache fuzzer: %s\n", what);
  std::abort();
}

// A self-signed P-256 certificate made once; its key is hashed after each load.
ZRBSecCertificatePtr makeCertificate() {
  EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  X509* x509 = X509_new();
  ZRBSecCertificatePtr certificate;
  if (key && x509) {
    ASN1_INTEGER_set(X509_get_serialNumber(x509), 1);
    X509_gmtime_adj(X509_getm_notBefore(x509), 0);
    X509_gmtime_adj(X509_getm_notAfter(x509), 3600);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x509), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("fuzz"), -1, -1, 0);
    X509_set_issuer_name(x509, X509_get_subject_name(x509));
    X509_set_pubkey(x509, key);
    if (X509_sign(x509, key, EVP_sha256()) > 0) certificate = ZRBSecCertificate::createWithX509(x509);
  }
  X509_free(x509);
  EVP_PKEY_free(key);
  return certificate;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::filesystem::path directory = [] {
    auto path = std::filesystem::temp_directory_path() / ("spki-cache-fuzz-" + std::to_string(getpid()));
    std::filesystem::create_directories(path);
    ZRBFileManager::defaultManager()->setCachesDirectory(path.string());
    return path;
  }();
  const auto file = directory / "spki-hash.cache";
  std::ofstream(file, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));

  auto cache = ZRB_PGDSPKIHashCache::initWithIdentifier("spki-hash.cache");
  auto loaded = cache->loadSPKICacheFromFileSystem();
  auto held = cache->getSubjectPublicKeyInfoHashesCache();
  for (std::size_t algorithm = 0; algorithm < held.size(); ++algorithm) {
    check(loaded ? held[algorithm] == (*loaded)[algorithm] : held[algorithm].empty(),
          "the cache holds something other than the whole file or nothing");
  }

  static const ZRBSecCertificatePtr certificate = makeCertificate();
  if (!certificate || !certificate->copyKey()) return 0;
  const std::string der(certificate->data().begin(), certificate->data().end());
  // A hash the file supplies for this certificate is served as it is (the file is the cache's own);
  // without one, the computed hash must be the key's real one.
  bool fromFile = held[PGDPublicKeyAlgorithmEcDsaSecp256r1].contains(der);
  auto hash =
      cache->hashSubjectPublicKeyInfoFromCertificate(certificate, PGDPublicKeyAlgorithmEcDsaSecp256r1);
  check(hash.has_value(), "no hash for a readable key");
  if (!fromFile) {
    check(*hash == certificate->copyKey()->subjectPublicKeyInfoSHA256(), "a computed hash is wrong");
    check(cache->loadSPKICacheFromFileSystem().has_value(), "the file was not rewritten");
  }
  return 0;
}
