// The SPKI hash cache: hashes equal the key's real SubjectPublicKeyInfo digest for the fitting
// algorithm, survive a restart through the file, and a damaged file or an unwritable directory
// never costs more than the file.
#include "pinning/spki_hash_cache.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "log_lines.h"
#include "platform/foundation/assert.h"
#include "platform/security/sec_key.h"
#include "platform/system/file_manager.h"
#include "support/temporary_directory.h"

namespace {

class SPKIHashCacheTest : public ::testing::Test {
 protected:
  void TearDown() override { ZRBSetAssertionHandler(nullptr); }
  std::filesystem::path file() const { return directory_ / "spki-hash.cache"; }
  bool logged(std::string_view line) { return log_.has(line); }

  const ZRBTestCachesDirectory directory_;
  PGDLogLines log_;
};

// Each algorithm's header in front of the raw key gives the DER SubjectPublicKeyInfo's digest for
// keys of that kind; other headers give something else.
TEST_F(SPKIHashCacheTest, HashesAreSubjectPublicKeyInfoDigests) {
  auto cache = ZRB_PGDSPKIHashCache::initWithIdentifier("spki-hash.cache");
  const PGDPublicKeyAlgorithm algorithms[] = {PGDPublicKeyAlgorithmRsa2048, PGDPublicKeyAlgorithmRsa4096,
                                              PGDPublicKeyAlgorithmEcDsaSecp256r1,
                                              PGDPublicKeyAlgorithmEcDsaSecp384r1};
  for (int kind = 0; kind < 4; ++kind) {
    auto certificate = ZRBTestPKI::sharedChain(kZRBTestKeyTypes[kind]).leaf.secCertificate();
    const ZRB_PGDPin real = certificate->copyKey()->subjectPublicKeyInfoSHA256();
    for (int algorithm = 0; algorithm < 4; ++algorithm) {
      auto hash = cache->hashSubjectPublicKeyInfoFromCertificate(certificate, algorithms[algorithm]);
      ASSERT_TRUE(hash);
      EXPECT_EQ(*hash == real, kind == algorithm) << kind << "/" << algorithm;
    }
  }
  EXPECT_FALSE(cache->hashSubjectPublicKeyInfoFromCertificate(nullptr, PGDPublicKeyAlgorithmRsa2048));
  EXPECT_FALSE(cache->hashSubjectPublicKeyInfoFromCertificate(
      ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256).leaf.secCertificate(),
      static_cast<PGDPublicKeyAlgorithm>(4)));
}

// A new cache object over the same file serves the known certificates without hashing them.
TEST_F(SPKIHashCacheTest, RestartServesHashesFromTheFile) {
  auto certificate = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256).leaf.secCertificate();
  std::optional<ZRB_PGDPin> first;
  {
    auto cache = ZRB_PGDSPKIHashCache::initWithIdentifier("spki-hash.cache");
    EXPECT_TRUE(logged("Loaded 0 SPKI cache entries from the filesystem"));
    first = cache->hashSubjectPublicKeyInfoFromCertificate(certificate, PGDPublicKeyAlgorithmEcDsaSecp256r1);
    EXPECT_TRUE(logged("Generating Subject Public Key Info hash..."));
    EXPECT_EQ(cache->SPKICachePath()->path(), file().string());
  }
  ASSERT_TRUE(std::filesystem::exists(file()));
  log_.clear();
  auto restarted = ZRB_PGDSPKIHashCache::initWithIdentifier("spki-hash.cache");
  EXPECT_TRUE(logged("Loaded 4 SPKI cache entries from the filesystem"));
  EXPECT_EQ(
      restarted->hashSubjectPublicKeyInfoFromCertificate(certificate, PGDPublicKeyAlgorithmEcDsaSecp256r1),
      first);
  EXPECT_TRUE(logged("Subject Public Key Info hash was found in the cache"));
  EXPECT_FALSE(logged("Generating Subject Public Key Info hash..."));
  EXPECT_EQ(restarted->getSubjectPublicKeyInfoHashesCache()[PGDPublicKeyAlgorithmEcDsaSecp256r1].size(), 1u);

  restarted->resetSubjectPublicKeyInfoDiskCache();
  EXPECT_FALSE(std::filesystem::exists(file()));
  for (const auto& map : restarted->getSubjectPublicKeyInfoHashesCache()) EXPECT_TRUE(map.empty());
}

// Damaged files are ignored as a whole and replaced by the next insertion.
TEST_F(SPKIHashCacheTest, DamagedFileIsIgnoredAndRebuilt) {
  auto certificate = ZRBTestPKI::sharedChain(ZRBTestKeyType::RSA2048).leaf.secCertificate();
  std::vector<char> good;
  {
    auto cache = ZRB_PGDSPKIHashCache::initWithIdentifier("spki-hash.cache");
    cache->hashSubjectPublicKeyInfoFromCertificate(certificate, PGDPublicKeyAlgorithmRsa2048);
    std::ifstream in(file(), std::ios::binary);
    good.assign(std::istreambuf_iterator<char>(in), {});
  }
  ASSERT_GT(good.size(), 64u);
  const std::vector<std::string> damaged = {
      std::string(good.begin(), good.begin() + static_cast<long>(good.size() / 2)),  // truncated
      std::string(good.size(), '\xff'),                                              // garbage
      "",
  };
  for (const auto& bytes : damaged) {
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << bytes;
    log_.clear();
    auto cache = ZRB_PGDSPKIHashCache::initWithIdentifier("spki-hash.cache");
    EXPECT_TRUE(logged("Loaded 0 SPKI cache entries from the filesystem"));
    EXPECT_FALSE(cache->loadSPKICacheFromFileSystem());
    cache->hashSubjectPublicKeyInfoFromCertificate(certificate, PGDPublicKeyAlgorithmRsa2048);
    EXPECT_TRUE(cache->loadSPKICacheFromFileSystem()) << "file not rebuilt";
  }
}

// An unwritable Caches directory: the entry stays in memory, the failure is logged and asserted.
TEST_F(SPKIHashCacheTest, UnwritableDirectoryKeepsTheMemoryEntry) {
  std::filesystem::path blocked = directory_ / "not-a-directory";
  std::ofstream(blocked) << "x";
  ZRBFileManager::defaultManager()->setCachesDirectory((blocked / "caches").string());
  std::vector<std::string> failures;
  ZRBSetAssertionHandler([&](const std::string& message, const char*, int) { failures.push_back(message); });
  auto cache = ZRB_PGDSPKIHashCache::initWithIdentifier("spki-hash.cache");
  auto certificate = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP384).leaf.secCertificate();
  auto hash =
      cache->hashSubjectPublicKeyInfoFromCertificate(certificate, PGDPublicKeyAlgorithmEcDsaSecp384r1);
  ASSERT_TRUE(hash);
  EXPECT_EQ(*hash, certificate->copyKey()->subjectPublicKeyInfoSHA256());
  EXPECT_EQ(failures, std::vector<std::string>{"Failed to write cache"});
  EXPECT_TRUE(logged("Could not persist SPKI cache to the filesystem"));
  log_.clear();
  EXPECT_EQ(cache->hashSubjectPublicKeyInfoFromCertificate(certificate, PGDPublicKeyAlgorithmEcDsaSecp384r1),
            hash);
  EXPECT_TRUE(logged("Subject Public Key Info hash was found in the cache"));

  // Where assertions are fatal the failure reaches the caller, and the entry is kept all the same.
  ZRBSetAssertionHandler(nullptr);
  auto other = ZRBTestPKI::sharedChain(ZRBTestKeyType::RSA4096).leaf.secCertificate();
  EXPECT_THROW(cache->hashSubjectPublicKeyInfoFromCertificate(other, PGDPublicKeyAlgorithmRsa4096),
               ZRBAssertionFailure);
  EXPECT_EQ(cache->getSubjectPublicKeyInfoHashesCache()[PGDPublicKeyAlgorithmRsa4096].size(), 1u);
}

}  // namespace
