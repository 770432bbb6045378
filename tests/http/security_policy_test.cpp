// Security policy: pinning modes, invalid-chain allowance, host names, the staging rule, bundle
// certificates, archiving and copying, all against trusts made from the run-time test PKI.
#include "http/security_policy.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/exception.h"
#include "settings/setting.h"
#include "support/test_pki.h"

namespace {

using Variant = ZRBTestLeafVariant;
using Policy = ZRBHS_SecurityPolicy;
namespace fs = std::filesystem;

const ZRBTestChain& chainOf(Variant variant = Variant::Valid, ZRBTestKeyType leaf = ZRBTestKeyType::ECP256) {
  return ZRBTestPKI::sharedChain(leaf, variant);
}

// The peer's certificates under a basic policy (the policy under test replaces it); anchored at the
// chain's own root unless told not to, so that a sound chain evaluates as trusted.
ZRBSecTrustPtr trustFor(const ZRBTestChain& chain, bool anchored = true) {
  auto trust = ZRBSecTrust::createWithCertificates(chain.peerCertificates(), ZRBSecPolicy::createBasicX509());
  if (anchored) trust->setAnchorCertificates({chain.rootCertificate()});
  return trust;
}

ZRBValue pins(std::initializer_list<const ZRBTestCertificate*> certificates) {
  std::vector<ZRBValue> items;
  for (const auto* certificate : certificates) items.push_back(ZRBValue::data(certificate->der()));
  return ZRBValue::set(std::move(items));
}

ZRBHS_SecurityPolicyPtr policyWith(SSLPinningMode mode, ZRBValue pinned, bool allowInvalid = false,
                                   bool validatesDomainName = true) {
  auto policy = Policy::policyWithPinningMode(mode, std::move(pinned));
  policy->setAllowInvalidCertificates(allowInvalid);
  policy->setValidatesDomainName(validatesDomainName);
  return policy;
}

const std::optional<std::string> kHost = "localhost";
const std::optional<std::string> kNoHost = std::nullopt;

TEST(SecurityPolicy, PinnedPublicKeysFollowTheCertificatesAndObserversAreTold) {
  const auto& chain = chainOf();
  auto policy = Policy::defaultPolicy();
  EXPECT_TRUE(policy->pinnedCertificates().isAbsent());
  EXPECT_TRUE(policy->pinnedPublicKeys().isAbsent());

  std::vector<std::string> told;
  auto token = policy->addChangeObserver([&](std::string_view keyPath) { told.emplace_back(keyPath); });
  // Garbage and duplicate data yield no extra key; the two real certificates yield theirs.
  ZRBValue certificates = ZRBValue::set({ZRBValue::data(chain.leaf.der()), ZRBValue::data(chain.root.der()),
                                         ZRBValue::data(std::string_view("not a certificate"))});
  policy->setPinnedCertificates(certificates);
  EXPECT_EQ(policy->pinnedCertificates(), certificates);
  ZRBValue keys = policy->pinnedPublicKeys();
  ASSERT_EQ(keys.count(), 2u);
  EXPECT_TRUE(keys.containsItem(ZRBValue(chain.leaf.secCertificate()->copyKey())));
  EXPECT_TRUE(keys.containsItem(ZRBValue(chain.root.secCertificate()->copyKey())));
  EXPECT_EQ(told, (std::vector<std::string>{"pinnedCertificates", "pinnedPublicKeys"}));

  policy->removeChangeObserver(token);
  policy->setPinnedCertificates(ZRBValue());
  EXPECT_TRUE(policy->pinnedPublicKeys().isAbsent());
  EXPECT_EQ(told.size(), 2u);
}

TEST(SecurityPolicy, ModeNoneTrustsTheChainAndChecksTheHostOnlyWhenAsked) {
  const auto& valid = chainOf();
  EXPECT_TRUE(Policy::defaultPolicy()->evaluateServerTrust(trustFor(valid), kHost));
  // Unknown root: the system store does not hold the test root.
  EXPECT_FALSE(Policy::defaultPolicy()->evaluateServerTrust(trustFor(valid, false), kHost));

  const auto& wrongHost = chainOf(Variant::WrongHost);
  EXPECT_FALSE(Policy::defaultPolicy()->evaluateServerTrust(trustFor(wrongHost), kHost));
  EXPECT_TRUE(policyWith(SSLPinningModeNone, ZRBValue(), false, false)
                  ->evaluateServerTrust(trustFor(wrongHost), kHost));

  // Expired: rejected unless invalid chains are allowed (without a host, which that would forbid).
  const auto& expired = chainOf(Variant::Expired);
  EXPECT_FALSE(Policy::defaultPolicy()->evaluateServerTrust(trustFor(expired), kNoHost));
  EXPECT_TRUE(
      policyWith(SSLPinningModeNone, ZRBValue(), true)->evaluateServerTrust(trustFor(expired), kNoHost));
  EXPECT_TRUE(
      policyWith(SSLPinningModeNone, ZRBValue(), true, false)->evaluateServerTrust(trustFor(expired), kHost));
}

TEST(SecurityPolicy, AllowingInvalidChainsWhileValidatingAHostNeedsPins) {
  const auto& chain = chainOf();
  struct Case {
    SSLPinningMode mode;
    ZRBValue pinned;
  } cases[] = {{SSLPinningModeNone, pins({&chain.root})},
               {SSLPinningModeCertificate, ZRBValue()},
               {SSLPinningModeCertificate, ZRBValue::set({})},
               {SSLPinningModePublicKey, ZRBValue::set({})}};
  for (const auto& c : cases) {
    auto trust = trustFor(chain);
    EXPECT_FALSE(policyWith(c.mode, c.pinned, true)->evaluateServerTrust(trust, kHost)) << c.mode;
    // Refused before any evaluation: the trust keeps its own policy and has no result.
    EXPECT_EQ(trust->copyPolicies().front()->kind(), ZRBSecPolicyKindBasicX509);
    EXPECT_EQ(trust->trustResult(), ZRBSecTrustResultInvalid);
  }
  // With pins the same flags go on to the pin check.
  EXPECT_TRUE(policyWith(SSLPinningModeCertificate, pins({&chain.root}), true)
                  ->evaluateServerTrust(trustFor(chain), kHost));
}

TEST(SecurityPolicy, CertificateModeAnchorsAtThePinsAndMatchesAnyChainCertificate) {
  const auto& chain = chainOf();
  const auto& other = ZRBTestPKI::makeChain(ZRBTestKeyType::ECP256);
  for (const ZRBTestCertificate* pinned : {&chain.root, &chain.intermediate, &chain.leaf})
    EXPECT_TRUE(policyWith(SSLPinningModeCertificate, pins({pinned, &other.root}))
                    ->evaluateServerTrust(trustFor(chain), kHost));
  // Another PKI's root does not anchor this chain, though the chain is valid by its own anchors.
  EXPECT_FALSE(policyWith(SSLPinningModeCertificate, pins({&other.root}))
                   ->evaluateServerTrust(trustFor(chain), kHost));
  // Same key, different certificate: certificate pins compare whole certificates.
  ZRBTestCertificateOptions sameKey{
      .commonName = "same key", .keyType = ZRBTestKeyType::ECP256, .keySlot = 0};
  auto twin = ZRBTestPKI::issue(sameKey, nullptr);
  EXPECT_FALSE(
      policyWith(SSLPinningModeCertificate, pins({&twin}))->evaluateServerTrust(trustFor(chain), kHost));

  // The chain must be valid by the trust's own anchors first, unless invalid chains are allowed.
  EXPECT_FALSE(policyWith(SSLPinningModeCertificate, pins({&chain.root}))
                   ->evaluateServerTrust(trustFor(chain, false), kHost));
  EXPECT_TRUE(policyWith(SSLPinningModeCertificate, pins({&chain.root}), true)
                  ->evaluateServerTrust(trustFor(chain, false), kNoHost));
  // Allowing invalid chains does not survive the second, pinned evaluation.
  const auto& expired = chainOf(Variant::Expired);
  EXPECT_FALSE(policyWith(SSLPinningModeCertificate, pins({&expired.root}), true)
                   ->evaluateServerTrust(trustFor(expired), kNoHost));
  const auto& wrongHost = chainOf(Variant::WrongHost);
  EXPECT_FALSE(policyWith(SSLPinningModeCertificate, pins({&wrongHost.root}))
                   ->evaluateServerTrust(trustFor(wrongHost), kHost));
  EXPECT_TRUE(policyWith(SSLPinningModeCertificate, pins({&wrongHost.root}), false, false)
                  ->evaluateServerTrust(trustFor(wrongHost), kHost));
}

TEST(SecurityPolicy, PublicKeyModeComparesEncodedKeysOfTheBuiltChain) {
  const auto& chain = chainOf(Variant::Valid, ZRBTestKeyType::RSA2048);
  // Test CA keys are shared between chains, so only the other chain's leaf has a key of its own.
  const auto& other = ZRBTestPKI::makeChain(ZRBTestKeyType::ECP384);
  // Every key of the built chain counts, the anchor's included.
  for (const ZRBTestCertificate* pinned : {&chain.root, &chain.intermediate, &chain.leaf})
    EXPECT_TRUE(
        policyWith(SSLPinningModePublicKey, pins({pinned}))->evaluateServerTrust(trustFor(chain), kHost));
  EXPECT_FALSE(
      policyWith(SSLPinningModePublicKey, pins({&other.leaf}))->evaluateServerTrust(trustFor(chain), kHost));
  // A different certificate carrying the leaf's key is as good as the leaf.
  ZRBTestCertificateOptions sameKey{
      .commonName = "same key", .keyType = ZRBTestKeyType::RSA2048, .keySlot = 0};
  auto twin = ZRBTestPKI::issue(sameKey, nullptr);
  EXPECT_TRUE(
      policyWith(SSLPinningModePublicKey, pins({&twin}))->evaluateServerTrust(trustFor(chain), kHost));

  // Pins whose keys cannot be extracted leave nothing to match.
  auto unusable = ZRBValue::set({ZRBValue::data(std::string_view("junk")), ZRBValue("text")});
  EXPECT_FALSE(policyWith(SSLPinningModePublicKey, unusable)->evaluateServerTrust(trustFor(chain), kHost));

  // Without the test root as anchor the built chain stops at the intermediate, so with invalid chains
  // allowed the intermediate's key matches and the root's cannot.
  EXPECT_FALSE(policyWith(SSLPinningModePublicKey, pins({&chain.leaf}))
                   ->evaluateServerTrust(trustFor(chain, false), kNoHost));
  EXPECT_TRUE(policyWith(SSLPinningModePublicKey, pins({&chain.intermediate}), true)
                  ->evaluateServerTrust(trustFor(chain, false), kNoHost));
  EXPECT_FALSE(policyWith(SSLPinningModePublicKey, pins({&chain.root}), true)
                   ->evaluateServerTrust(trustFor(chain, false), kNoHost));
}

TEST(SecurityPolicy, UnknownModesAndMissingTrustsAreRejected) {
  const auto& chain = chainOf();
  EXPECT_FALSE(policyWith(static_cast<SSLPinningMode>(3), pins({&chain.root}))
                   ->evaluateServerTrust(trustFor(chain), kHost));
  EXPECT_FALSE(policyWith(SSLPinningModeNone, ZRBValue(), true, false)->evaluateServerTrust(nullptr, kHost));
}

TEST(SecurityPolicy, RealStagingEnvironmentAcceptsEverything) {
  struct Restore {
    ~Restore() { ZRBSetting::sharedSetting()->setIsRealStgEnvProvider({}); }
  } restore;
  ZRBSetting::sharedSetting()->setIsRealStgEnv(true);
  auto policy = Policy::policyWithPinningMode(SSLPinningModeCertificate, ZRBValue());
  EXPECT_TRUE(policy->evaluateServerTrust(nullptr, kHost));
  auto untrusted = trustFor(chainOf(Variant::Expired), false);
  EXPECT_TRUE(policy->evaluateServerTrust(untrusted, kHost));
  EXPECT_EQ(untrusted->trustResult(), ZRBSecTrustResultInvalid);  // not even evaluated

  ZRBSetting::sharedSetting()->setIsRealStgEnv(false);
  EXPECT_FALSE(policy->evaluateServerTrust(untrusted, kHost));
}

TEST(SecurityPolicy, BundleCertificatesAreTheTopLevelDerFiles) {
  const auto& chain = chainOf();
  fs::path dir = ZRBTestPKI::makeTemporaryDirectory();
  auto write = [&](const fs::path& name, const std::vector<std::uint8_t>& bytes) {
    fs::create_directories((dir / name).parent_path());
    std::ofstream(dir / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  };
  write("root.der", chain.root.der());
  write("leaf.der", chain.leaf.der());
  write("other.cer", chain.intermediate.der());
  write("other.DER", chain.intermediate.der());
  write("nested/inner.der", chain.intermediate.der());
  ZRBBundle bundle(dir.string(), (dir / "Info.plist").string());
  EXPECT_EQ(Policy::certificatesInBundle(bundle), pins({&chain.root, &chain.leaf}));

  // A listed certificate that cannot be read is not skipped silently.
  fs::create_symlink(dir / "missing", dir / "broken.der");
  try {
    Policy::certificatesInBundle(bundle);
    ADD_FAILURE() << "an unreadable certificate file was accepted";
  } catch (const ZRBException& e) {
    EXPECT_EQ(e.name(), kZRBHS_InvalidArgumentException);
  }
  fs::remove_all(dir);

  EXPECT_EQ(Policy::certificatesInBundle(ZRBBundle(dir.string(), "")), ZRBValue::set({}));
  EXPECT_EQ(Policy::defaultPinnedCertificates(), Policy::certificatesInBundle(*ZRBBundle::libraryBundle()));
  EXPECT_EQ(Policy::policyWithPinningMode(SSLPinningModePublicKey)->pinnedCertificates(),
            Policy::defaultPinnedCertificates());
}

void expectSameFields(const Policy& a, const Policy& b) {
  EXPECT_EQ(a.SSLPinningMode(), b.SSLPinningMode());
  EXPECT_EQ(a.allowInvalidCertificates(), b.allowInvalidCertificates());
  EXPECT_EQ(a.validatesDomainName(), b.validatesDomainName());
  EXPECT_EQ(a.pinnedCertificates(), b.pinnedCertificates());
  EXPECT_EQ(a.pinnedPublicKeys(), b.pinnedPublicKeys());
}

TEST(SecurityPolicy, ArchivesAndCopiesKeepEveryField) {
  const auto& chain = chainOf();
  auto original = policyWith(SSLPinningModeCertificate, pins({&chain.root, &chain.leaf}), true, false);
  EXPECT_TRUE(ZRBKeyedUnarchiver::classSupportsSecureCoding(original->codingClassName()));

  ZRBErrorPtr error;
  auto data = ZRBKeyedArchiver::archivedDataWithRootObject(*original, true, &error);
  ASSERT_TRUE(data) << (error ? error->description() : "");
  auto decoded = ZRBKeyedUnarchiver::unarchivedObjectOfClass<Policy>(*data, &error);
  ASSERT_TRUE(decoded) << (error ? error->description() : "");
  expectSameFields(*decoded, *original);
  EXPECT_EQ(decoded->pinnedPublicKeys().count(), 2u);

  auto copy = original->copy();
  expectSameFields(*copy, *original);
  copy->setSSLPinningMode(SSLPinningModePublicKey);
  copy->setPinnedCertificates(ZRBValue());
  EXPECT_EQ(original->SSLPinningMode(), SSLPinningModeCertificate);
  EXPECT_EQ(original->pinnedPublicKeys().count(), 2u);

  // A default policy round-trips with its nil certificates and domain validation on.
  auto plain = ZRBKeyedUnarchiver::unarchivedObjectOfClass<Policy>(
      *ZRBKeyedArchiver::archivedDataWithRootObject(*Policy::defaultPolicy(), true));
  ASSERT_TRUE(plain);
  expectSameFields(*plain, *Policy::defaultPolicy());
}

// Writes only the mode, as an archive from a sparser writer would.
class ModeOnly final : public ZRBCoding {
 public:
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override {
    coder.encodeInteger(SSLPinningModePublicKey, "SSLPinningMode");
  }
  std::string codingClassName() const override { return "ZRBHS_SecurityPolicy"; }
};

TEST(SecurityPolicy, MissingArchiveKeysDecodeAsFalseAndNil) {
  auto data = ZRBKeyedArchiver::archivedDataWithRootObject(ModeOnly(), true);
  ASSERT_TRUE(data);
  auto decoded = ZRBKeyedUnarchiver::unarchivedObjectOfClass<Policy>(*data);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->SSLPinningMode(), SSLPinningModePublicKey);
  EXPECT_FALSE(decoded->validatesDomainName());
  EXPECT_FALSE(decoded->allowInvalidCertificates());
  EXPECT_TRUE(decoded->pinnedCertificates().isAbsent());
  EXPECT_TRUE(decoded->pinnedPublicKeys().isAbsent());
}

}  // namespace
