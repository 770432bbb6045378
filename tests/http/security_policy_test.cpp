// Security policy: pinning modes, invalid-chain allowance, host names, the staging rule, bundle
// certificates, archiving and copying, all against trusts made from the run-time test PKI.
#include "http/security_policy.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "platform/foundation/exception.h"
#include "serializer_checks.h"
#include "settings/setting.h"
#include "support/raises.h"
#include "support/test_pki.h"

namespace {

using Variant = ZRBTestLeafVariant;
using Policy = ZRBHS_SecurityPolicy;
namespace fs = std::filesystem;

const ZRBTestChain& chainOf(Variant variant) {
  return ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256, variant);
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

const std::optional<std::string> kHost = "localhost";

TEST(SecurityPolicy, PinnedPublicKeysFollowTheCertificatesAndObserversAreTold) {
  const auto& chain = chainOf(Variant::Valid);
  auto policy = Policy::defaultPolicy();
  std::vector<std::string> told;
  auto token = policy->addChangeObserver([&](std::string_view keyPath) { told.emplace_back(keyPath); });
  // Data that is not a certificate yields no key; the two real certificates yield theirs.
  std::vector<ZRBValue> items = {ZRBValue::data(chain.leaf.der()), ZRBValue::data(chain.root.der()),
                                 ZRBValue::data(std::string_view("not a certificate"))};
  policy->setPinnedCertificates(ZRBValue::array(items));
  EXPECT_EQ(policy->pinnedCertificates(), ZRBValue::set(items)) << "an array is taken as a set";
  ZRBValue keys = policy->pinnedPublicKeys();
  ASSERT_EQ(keys.count(), 2u);
  EXPECT_TRUE(keys.containsItem(ZRBValue(chain.leaf.secCertificate()->copyKey())));
  EXPECT_TRUE(keys.containsItem(ZRBValue(chain.root.secCertificate()->copyKey())));
  EXPECT_EQ(told, (std::vector<std::string>{"pinnedCertificates", "pinnedPublicKeys"}));

  policy->removeChangeObserver(token);
  policy->setPinnedCertificates(ZRBValue::null());
  EXPECT_TRUE(policy->pinnedCertificates().isAbsent());
  EXPECT_TRUE(policy->pinnedPublicKeys().isAbsent());
  EXPECT_EQ(told.size(), 2u);
}

TEST(SecurityPolicy, EvaluationByModePinsFlagsAndHost) {
  // The valid chain has an RSA leaf and EC CAs, so both key kinds are extracted and compared.
  const auto& valid = ZRBTestPKI::sharedChain(ZRBTestKeyType::RSA2048, Variant::Valid);
  const auto& expired = chainOf(Variant::Expired);
  const auto& wrongHost = chainOf(Variant::WrongHost);
  // Test CA keys are shared between chains, so only the other chain's leaf has a key of its own.
  const auto other = ZRBTestPKI::makeChain(ZRBTestKeyType::ECP384);
  // A different certificate carrying the valid leaf's key.
  const auto twin =
      ZRBTestPKI::issue({.commonName = "same key", .keyType = ZRBTestKeyType::RSA2048}, nullptr);
  const ZRBValue none, empty = ZRBValue::set({});
  const ZRBValue junk = ZRBValue::set({ZRBValue::data(std::string_view("junk")), ZRBValue("text")});
  const auto None = SSLPinningModeNone, Cert = SSLPinningModeCertificate, Key = SSLPinningModePublicKey;
  enum : unsigned { Unanchored = 1, AllowInvalid = 2, AnyName = 4, NoHost = 8, Unevaluated = 16 };

  struct Case {
    SSLPinningMode mode;
    ZRBValue pinned;
    const ZRBTestChain* chain;
    unsigned flags;
    bool accepted;
  } cases[] = {
      // No pinning: the chain decides, and the host name unless told otherwise. The system store
      // does not hold the test root.
      {None, none, &valid, 0, true},
      {None, none, &valid, Unanchored, false},
      {None, none, &wrongHost, 0, false},
      {None, none, &wrongHost, AnyName, true},
      {None, none, &expired, NoHost, false},
      {None, none, &expired, AllowInvalid | NoHost, true},
      {None, none, &expired, AllowInvalid | AnyName, true},
      // Allowing invalid chains while checking a host needs pins: refused before any evaluation.
      {None, pins({&valid.root}), &valid, AllowInvalid | Unevaluated, false},
      {Cert, none, &valid, AllowInvalid | Unevaluated, false},
      {Cert, empty, &valid, AllowInvalid | Unevaluated, false},
      {Key, empty, &valid, AllowInvalid | Unevaluated, false},
      {Cert, pins({&valid.root}), &valid, AllowInvalid, true},
      // Certificates: the pins are the only anchors and one certificate of the chain must be pinned.
      {Cert, pins({&valid.root, &other.root}), &valid, 0, true},
      {Cert, pins({&valid.intermediate, &other.root}), &valid, 0, true},
      {Cert, pins({&valid.leaf, &other.root}), &valid, 0, true},
      {Cert, pins({&other.root}), &valid, 0, false},
      {Cert, pins({&twin}), &valid, 0, false},
      // ...after the chain is valid by the trust's own anchors, unless invalid chains are allowed;
      // that allowance does not carry over to the pinned evaluation.
      {Cert, pins({&valid.root}), &valid, Unanchored, false},
      {Cert, pins({&valid.root}), &valid, Unanchored | AllowInvalid | NoHost, true},
      {Cert, pins({&expired.root}), &expired, AllowInvalid | NoHost, false},
      {Cert, pins({&wrongHost.root}), &wrongHost, 0, false},
      {Cert, pins({&wrongHost.root}), &wrongHost, AnyName, true},
      // Public keys: any key of the built chain, the anchor's included; a twin is as good as the leaf.
      {Key, pins({&valid.root}), &valid, 0, true},
      {Key, pins({&valid.intermediate}), &valid, 0, true},
      {Key, pins({&valid.leaf}), &valid, 0, true},
      {Key, pins({&twin}), &valid, 0, true},
      {Key, pins({&other.leaf}), &valid, 0, false},
      {Key, junk, &valid, 0, false},
      // Without the test root as anchor the built chain stops at the intermediate.
      {Key, pins({&valid.leaf}), &valid, Unanchored | NoHost, false},
      {Key, pins({&valid.intermediate}), &valid, Unanchored | AllowInvalid | NoHost, true},
      {Key, pins({&valid.root}), &valid, Unanchored | AllowInvalid | NoHost, false},
      {static_cast<SSLPinningMode>(3), pins({&valid.root}), &valid, 0, false},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    auto policy = Policy::policyWithPinningMode(c.mode, c.pinned);
    policy->setAllowInvalidCertificates(c.flags & AllowInvalid);
    policy->setValidatesDomainName(!(c.flags & AnyName));
    auto trust = trustFor(*c.chain, !(c.flags & Unanchored));
    EXPECT_EQ(policy->evaluateServerTrust(trust, c.flags & NoHost ? std::nullopt : kHost), c.accepted)
        << "case " << i << ", mode " << c.mode << ", flags " << c.flags;
    if (c.flags & Unevaluated) {
      EXPECT_EQ(trust->copyPolicies().front()->kind(), ZRBSecPolicyKindBasicX509) << "case " << i;
      EXPECT_EQ(trust->trustResult(), ZRBSecTrustResultInvalid) << "case " << i;
    }
  }
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
  EXPECT_FALSE(policy->evaluateServerTrust(nullptr, kHost));
}

TEST(SecurityPolicy, BundleCertificatesAreTheTopLevelDerFiles) {
  const auto& chain = chainOf(Variant::Valid);
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
  EXPECT_THAT([&] { Policy::certificatesInBundle(bundle); }, ZRBTestRaises(kZRBHS_InvalidArgumentException));
  fs::remove_all(dir);

  EXPECT_EQ(Policy::certificatesInBundle(ZRBBundle(dir.string(), "")), ZRBValue::set({}));
  EXPECT_EQ(Policy::policyWithPinningMode(SSLPinningModePublicKey)->pinnedCertificates(),
            Policy::certificatesInBundle(*ZRBBundle::libraryBundle()));
}

// Writes only the mode, as an archive from a sparser writer would.
class ModeOnly final : public ZRBCoding {
 public:
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override {
    coder.encodeInteger(SSLPinningModePublicKey, "SSLPinningMode");
  }
  std::string codingClassName() const override { return "ZRBHS_SecurityPolicy"; }
};

TEST(SecurityPolicy, ArchivesAndCopiesKeepEveryField) {
  auto roundTrip = [](const ZRBCoding& policy) {
    auto data = ZRBKeyedArchiver::archivedDataWithRootObject(policy, true);
    return data ? ZRBKeyedUnarchiver::unarchivedObjectOfClass<Policy>(*data) : nullptr;
  };
  const auto& chain = chainOf(Variant::Valid);
  auto configured =
      Policy::policyWithPinningMode(SSLPinningModeCertificate, pins({&chain.root, &chain.leaf}));
  configured->setAllowInvalidCertificates(true);
  configured->setValidatesDomainName(false);
  // The default policy has nil certificates and domain validation on.
  for (const auto& original : {configured, Policy::defaultPolicy()}) {
    auto fields = [](const Policy& p) {
      return std::tuple(p.SSLPinningMode(), p.allowInvalidCertificates(), p.validatesDomainName(),
                        p.pinnedCertificates(), p.pinnedPublicKeys());
    };
    for (const auto& again : copiedAndDecoded(*original)) {
      ASSERT_TRUE(again);
      EXPECT_TRUE(fields(*again) == fields(*original));
    }
  }

  // Missing keys decode as false and nil, not as the initial state.
  auto sparse = roundTrip(ModeOnly());
  ASSERT_TRUE(sparse);
  EXPECT_EQ(sparse->SSLPinningMode(), SSLPinningModePublicKey);
  EXPECT_FALSE(sparse->validatesDomainName());
  EXPECT_FALSE(sparse->allowInvalidCertificates());
  EXPECT_TRUE(sparse->pinnedPublicKeys().isAbsent());
}

}  // namespace
