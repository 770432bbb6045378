#include "pinning/spki_hash_cache.h"

#include <algorithm>
#include <filesystem>
#include <span>
#include <utility>

#include "pinning/pgd_log.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/keyed_archiver.h"
#include "platform/security/sec_policy.h"
#include "platform/security/sec_trust.h"
#include "platform/system/file_manager.h"

namespace {

// What the cache file holds: under "0" to "3", an array of [certificate DER, hash] pairs.
class ZRB_PGDSPKIHashCacheArchive final : public ZRBObject, public ZRBCoding {
 public:
  ZRB_PGDSPKIHashCache::HashesByAlgorithm hashes;
  std::size_t algorithmCount = 0;  // top-level entries read

  void encodeWithCoder(ZRBKeyedArchiver& coder) const override {
    for (std::size_t algorithm = 0; algorithm < hashes.size(); ++algorithm) {
      ZRBArrayBuilder pairs;
      pairs.reserve(hashes[algorithm].size());
      for (const auto& [certificate, hash] : hashes[algorithm]) {
        pairs.add(ZRBValue::array({ZRBValue::data(certificate), ZRBValue::data(hash.data(), hash.size())}));
      }
      coder.encodeValue(pairs.build(), std::to_string(algorithm));
    }
  }
  std::string codingClassName() const override { return "ZRB_PGDSPKIHashCacheArchive"; }
  std::string className() const override { return "ZRB_PGDSPKIHashCacheArchive"; }

  // Refuses anything but the exact shape: a file that is wrong anywhere is wrong everywhere.
  static std::shared_ptr<ZRB_PGDSPKIHashCacheArchive> initWithCoder(ZRBKeyedUnarchiver& coder) {
    auto archive = std::make_shared<ZRB_PGDSPKIHashCacheArchive>();
    for (std::size_t algorithm = 0; algorithm < archive->hashes.size(); ++algorithm) {
      std::string key = std::to_string(algorithm);
      if (!coder.containsValueForKey(key)) continue;
      ZRBValue pairs = coder.decodeValue(key, ZRBValueClass::Array);
      if (!pairs.isArray()) return nullptr;
      ++archive->algorithmCount;
      auto& map = archive->hashes[algorithm];
      for (const ZRBValue& pair : pairs.items()) {
        const ZRBValue& certificate = pair[0];
        const ZRBValue& hash = pair[1];
        if (pair.count() != 2 || !certificate.isData() || !hash.isData() || hash.bytes().size() != 32)
          return nullptr;
        ZRB_PGDPin pin;
        std::copy_n(hash.bytes().begin(), pin.size(), pin.begin());
        auto bytes = certificate.bytes();
        map.insert_or_assign(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()), pin);
      }
    }
    return archive;
  }
};
ZRB_REGISTER_CODING_CLASS(ZRB_PGDSPKIHashCacheArchive);

std::shared_ptr<ZRB_PGDSPKIHashCacheArchive> loadArchive(const std::string& path) {
  auto data = ZRBFileManager::defaultManager()->contentsAtPath(path);
  if (!data) return nullptr;
  return ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRB_PGDSPKIHashCacheArchive>(*data);
}

std::string_view bytesView(const std::vector<std::uint8_t>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

ZRB_PGDSPKIHashCachePtr ZRB_PGDSPKIHashCache::initWithIdentifier(std::optional<std::string> identifier) {
  if (!identifier) {
    ZRBAssertionFailedWithMessage("PGDSPKIHashCache initializer must be passed a unique identifier", __FILE__,
                                  __LINE__);
  }
  return std::make_shared<ZRB_PGDSPKIHashCache>(Private{}, identifier.value_or(""));
}

ZRB_PGDSPKIHashCache::ZRB_PGDSPKIHashCache(Private, std::string identifier)
    : keychainQueue_(ZRBDispatchQueue::serial("PGDSPKIKeychainLock")),
      lockQueue_(ZRBDispatchQueue::concurrent("PGDSPKIHashLock")),
      spkiCacheFilename_(std::move(identifier)) {
  std::shared_ptr<ZRB_PGDSPKIHashCacheArchive> loaded;
  if (!spkiCacheFilename_.empty()) loaded = loadArchive(SPKICachePath()->path());
  ZRB_PGDLog("Loaded %lu SPKI cache entries from the filesystem", loaded ? loaded->algorithmCount : 0);
  if (loaded) subjectPublicKeyInfoHashesCache_ = std::move(loaded->hashes);
  // There is no key store here, so no item from an earlier run can be left over to clear.
}

ZRBURLPtr ZRB_PGDSPKIHashCache::SPKICachePath() const {
  std::filesystem::path path(ZRBFileManager::defaultManager()->cachesDirectory());
  return ZRBURL::fileURLWithPath((path / spkiCacheFilename_).string(), false);
}

std::optional<ZRB_PGDSPKIHashCache::HashesByAlgorithm> ZRB_PGDSPKIHashCache::loadSPKICacheFromFileSystem()
    const {
  if (spkiCacheFilename_.empty()) return std::nullopt;
  auto archive = loadArchive(SPKICachePath()->path());
  if (!archive) return std::nullopt;
  return std::move(archive->hashes);
}

std::optional<ZRB_PGDPin> ZRB_PGDSPKIHashCache::hashSubjectPublicKeyInfoFromCertificate(
    const ZRBSecCertificatePtr& certificate, PGDPublicKeyAlgorithm algorithm) {
  if (!certificate || algorithm < 0 ||
      static_cast<std::size_t>(algorithm) >= subjectPublicKeyInfoHashesCache_.size()) {
    return std::nullopt;
  }
  const std::string_view key = bytesView(certificate->data());
  const auto index = static_cast<std::size_t>(algorithm);

  std::optional<ZRB_PGDPin> cached;
  lockQueue_->sync([&] {
    const CertificateHashes& map = subjectPublicKeyInfoHashesCache_[index];
    if (auto found = map.find(key); found != map.end()) cached = found->second;
  });
  if (cached) {
    ZRB_PGDLog("Subject Public Key Info hash was found in the cache");
    return cached;
  }

  ZRB_PGDLog("Generating Subject Public Key Info hash...");
  std::optional<std::vector<std::uint8_t>> keyBytes = getPublicKeyDataFromCertificate(certificate);
  if (!keyBytes) {
    ZRB_PGDLog("Error - could not extract the public key bytes");
    return std::nullopt;
  }
  // Header and key in one buffer, hashed in one call.
  std::vector<std::uint8_t> spki(asn1HeaderBytes[index], asn1HeaderBytes[index] + asn1HeaderSizes[index]);
  spki.insert(spki.end(), keyBytes->begin(), keyBytes->end());
  const ZRB_PGDPin hash = ZRBSHA256(std::span<const std::uint8_t>(spki));

  lockQueue_->syncBarrier([&] {
    subjectPublicKeyInfoHashesCache_[index].insert_or_assign(std::string(key), hash);
    persist();
  });
  return hash;
}

void ZRB_PGDSPKIHashCache::persist() const {
  bool written = false;
  if (!spkiCacheFilename_.empty()) {
    auto archive = std::make_shared<ZRB_PGDSPKIHashCacheArchive>();
    archive->hashes = subjectPublicKeyInfoHashesCache_;
    auto data = ZRBKeyedArchiver::archivedDataWithRootObject(*archive, true);
    const std::string path = SPKICachePath()->path();
    const auto& files = ZRBFileManager::defaultManager();
    std::string directory = std::filesystem::path(path).parent_path().string();
    if (data && (files->fileExistsAtPath(directory) || files->createDirectoryAtPath(directory, true))) {
      written = files->writeData(*data, path, true);
    }
  }
  if (!written) {
    ZRB_PGDLog("Could not persist SPKI cache to the filesystem");
    ZRBAssertionFailedWithMessage("Failed to write cache", __FILE__, __LINE__);
  }
}

std::optional<std::vector<std::uint8_t>> ZRB_PGDSPKIHashCache::getPublicKeyDataFromCertificate(
    const ZRBSecCertificatePtr& certificate) const {
  // The version test that picks the legacy path exists only on systems with a key store.
  return getPublicKeyDataFromCertificate_unified(certificate);
}

std::optional<std::vector<std::uint8_t>> ZRB_PGDSPKIHashCache::getPublicKeyDataFromCertificate_unified(
    const ZRBSecCertificatePtr& certificate) const {
  if (!certificate) return std::nullopt;
  // Our trust hands out its leaf's key without an evaluation, so none is run.
  ZRBSecTrustPtr trust = ZRBSecTrust::createWithCertificates({certificate}, ZRBSecPolicy::createBasicX509());
  ZRBSecKeyPtr key = trust ? trust->copyPublicKey() : nullptr;
  if (!key) return std::nullopt;
  return key->copyExternalRepresentation();
}

std::optional<std::vector<std::uint8_t>> ZRB_PGDSPKIHashCache::getPublicKeyDataFromCertificate_legacy_ios(
    const ZRBSecCertificatePtr& certificate) const {
  std::optional<std::vector<std::uint8_t>> bytes;
  keychainQueue_->sync([&] { bytes = getPublicKeyDataFromCertificate_unified(certificate); });
  return bytes;
}

void ZRB_PGDSPKIHashCache::resetSubjectPublicKeyInfoDiskCache() {
  lockQueue_->syncBarrier([&] {
    for (auto& map : subjectPublicKeyInfoHashesCache_) map.clear();
    if (!spkiCacheFilename_.empty())
      ZRBFileManager::defaultManager()->removeItemAtPath(SPKICachePath()->path());
  });
}

ZRB_PGDSPKIHashCache::HashesByAlgorithm ZRB_PGDSPKIHashCache::getSubjectPublicKeyInfoHashesCache() const {
  HashesByAlgorithm copy;
  lockQueue_->sync([&] { copy = subjectPublicKeyInfoHashesCache_; });
  return copy;
}
