// ZRB_PGDSPKIHashCache: SHA-256 hashes of certificates' SubjectPublicKeyInfo, kept in memory and in
// a file so that a pin check after the first one (and after a restart) costs a look-up.
//
// A hash is SHA-256 over the fixed DER header of the configured algorithm followed by the
// certificate's raw public key bytes (PKCS#1 for RSA, the uncompressed point for EC). The header is
// the configured one, not the key's real kind: a key hashed with the wrong algorithm gives a hash
// that matches no pin.
//
// Entries are keyed by algorithm and the certificate's DER bytes. Reads are synchronous blocks on
// the concurrent queue "PGDSPKIHashLock", which run on the calling thread side by side; an insertion
// and the rewrite of the file are one barrier block, so the file always holds a map that was whole
// at some moment. The file (in the Caches directory, named after the identifier) is a keyed
// archive; a missing, truncated or corrupt file is ignored and rebuilt, never partly trusted.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "pinning/configuration.h"
#include "pinning/public_key_algorithm.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/runtime/dispatch.h"
#include "platform/security/sec_certificate.h"

// The DER prefixes of a SubjectPublicKeyInfo enclosing a key of each algorithm, by algorithm number.
inline constexpr std::uint8_t rsa2048Asn1Header[] = {0x30, 0x82, 0x01, 0x22, 0x30, 0x0d, 0x06, 0x09,
                                                     0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01,
                                                     0x01, 0x05, 0x00, 0x03, 0x82, 0x01, 0x0f, 0x00};
inline constexpr std::uint8_t rsa4096Asn1Header[] = {0x30, 0x82, 0x02, 0x22, 0x30, 0x0d, 0x06, 0x09,
                                                     0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01,
                                                     0x01, 0x05, 0x00, 0x03, 0x82, 0x02, 0x0f, 0x00};
inline constexpr std::uint8_t ecDsaSecp256r1Asn1Header[] = {
    0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01,
    0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00};
inline constexpr std::uint8_t ecDsaSecp384r1Asn1Header[] = {0x30, 0x76, 0x30, 0x10, 0x06, 0x07, 0x2a, 0x86,
                                                            0x48, 0xce, 0x3d, 0x02, 0x01, 0x06, 0x05, 0x2b,
                                                            0x81, 0x04, 0x00, 0x22, 0x03, 0x62, 0x00};
inline constexpr const std::uint8_t* asn1HeaderBytes[4] = {
    rsa2048Asn1Header, rsa4096Asn1Header, ecDsaSecp256r1Asn1Header, ecDsaSecp384r1Asn1Header};
inline constexpr std::size_t asn1HeaderSizes[4] = {sizeof rsa2048Asn1Header, sizeof rsa4096Asn1Header,
                                                   sizeof ecDsaSecp256r1Asn1Header,
                                                   sizeof ecDsaSecp384r1Asn1Header};

class ZRB_PGDSPKIHashCache;
using ZRB_PGDSPKIHashCachePtr = std::shared_ptr<ZRB_PGDSPKIHashCache>;

class ZRB_PGDSPKIHashCache final : public ZRBObject {
 public:
  struct BytesHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view bytes) const noexcept {
      return std::hash<std::string_view>{}(bytes);
    }
  };
  // Certificate DER bytes -> hash.
  using CertificateHashes = std::unordered_map<std::string, ZRB_PGDPin, BytesHash, std::equal_to<>>;
  // Indexed by algorithm number (0 to 3).
  using HashesByAlgorithm = std::array<CertificateHashes, 4>;

  // The cache persisted under `identifier` in the Caches directory, loaded from its file now
  // (logging "Loaded %lu SPKI cache entries from the filesystem"). A missing identifier fails the
  // assertion "PGDSPKIHashCache initializer must be passed a unique identifier"; with assertions
  // logging, the cache then lives in memory only.
  static ZRB_PGDSPKIHashCachePtr initWithIdentifier(std::optional<std::string> identifier);

  // The hash for the certificate and algorithm, from memory or computed (then stored and the file
  // rewritten). nullopt when the certificate is null, the algorithm unknown or the key unreadable.
  // Safe from any thread; a hit runs on the calling thread and takes no exclusive lock.
  std::optional<ZRB_PGDPin> hashSubjectPublicKeyInfoFromCertificate(const ZRBSecCertificatePtr& certificate,
                                                                    PGDPublicKeyAlgorithm algorithm);

  // The map in the file, or nullopt when it is missing, unreadable or not a well-formed cache.
  std::optional<HashesByAlgorithm> loadSPKICacheFromFileSystem() const;
  // The file: the Caches directory joined with the identifier.
  ZRBURLPtr SPKICachePath() const;

  // The certificate's raw public key bytes (see ZRBSecKey's external representation), or nullopt.
  std::optional<std::vector<std::uint8_t>> getPublicKeyDataFromCertificate(
      const ZRBSecCertificatePtr& certificate) const;
  std::optional<std::vector<std::uint8_t>> getPublicKeyDataFromCertificate_unified(
      const ZRBSecCertificatePtr& certificate) const;
  // The unified path, serialised on "PGDSPKIKeychainLock". It exists for systems whose key bytes
  // come out of a shared key store; this platform has none, so the unified path does the work.
  std::optional<std::vector<std::uint8_t>> getPublicKeyDataFromCertificate_legacy_ios(
      const ZRBSecCertificatePtr& certificate) const;

  // For tests of the integrating application: empties the map (the four inner maps stay) and
  // removes the file.
  void resetSubjectPublicKeyInfoDiskCache();
  // A copy of the map.
  HashesByAlgorithm getSubjectPublicKeyInfoHashesCache() const;

  const std::string& spkiCacheFilename() const { return spkiCacheFilename_; }

  std::string className() const override { return "ZRB_PGDSPKIHashCache"; }

  // Use initWithIdentifier; the constructor is public only for std::make_shared.
  struct Private {};
  ZRB_PGDSPKIHashCache(Private, std::string identifier);

 private:
  void persist() const;  // inside the barrier

  ZRBDispatchQueuePtr keychainQueue_;
  HashesByAlgorithm subjectPublicKeyInfoHashesCache_;
  ZRBDispatchQueuePtr lockQueue_;
  std::string spkiCacheFilename_;
};
