// Trust evaluation: anchors, built chains, validity, host names, bad input and concurrent use.
#include "platform/sec_trust.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/test_pki.h"

namespace {

using Chain = ZRBTestChain;
using Variant = ZRBTestLeafVariant;

const Chain& shared(Variant variant = Variant::Valid, ZRBTestKeyType leaf = ZRBTestKeyType::ECP256) {
  return ZRBTestPKI::sharedChain(leaf, variant);
}

ZRBSecPolicyPtr ssl(std::optional<std::string> host = "localhost") {
  return ZRBSecPolicy::createSSL(true, host);
}

struct Evaluation {
  ZRBOSStatus status = 1;
  ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
  ZRBSecTrustPtr trust;
  // The detail keys that failed on the certificate at `index` of the built chain.
  std::vector<std::string> failedAt(std::size_t index) const {
    std::vector<std::string> keys;
    ZRBValue copied = trust->copyResult();
    for (const auto& [key, value] : copied[ZRBSecTrustResultDetailsKey][index].entries()) {
      keys.push_back(key.string());
    }
    return keys;
  }
};

// Evaluates the chain's peer certificates; with the chain's root as the only anchor unless told not to.
Evaluation evaluate(const Chain& chain, ZRBSecPolicyPtr policy, bool anchored = true) {
  Evaluation e;
  e.trust = ZRBSecTrust::createWithCertificates(chain.peerCertificates(), std::move(policy));
  if (anchored) e.trust->setAnchorCertificates({chain.rootCertificate()});
  e.status = e.trust->evaluate(&e.result);
  return e;
}

using Keys = std::vector<std::string>;

TEST(SecTrust, CustomAnchorsDecideAndTheBuiltChainEndsAtTheRoot) {
  const auto& chain = shared();
  auto anchored = evaluate(chain, ssl());
  EXPECT_EQ(anchored.status, ZRBErrSecSuccess);
  EXPECT_EQ(anchored.result, ZRBSecTrustResultUnspecified);
  ASSERT_EQ(anchored.trust->certificateCount(), 3u);
  EXPECT_TRUE(anchored.trust->certificateAtIndex(0)->isEqual(*chain.leaf.secCertificate()));
  EXPECT_TRUE(anchored.trust->certificateAtIndex(1)->isEqual(*chain.intermediate.secCertificate()));
  EXPECT_TRUE(anchored.trust->certificateAtIndex(2)->isEqual(*chain.rootCertificate()));
  EXPECT_EQ(anchored.trust->certificateAtIndex(3), nullptr);
  EXPECT_EQ(anchored.failedAt(0), Keys{});

  // The system store does not know the test root: the chain stops at the intermediate.
  auto system = evaluate(chain, ssl(), false);
  EXPECT_EQ(system.status, ZRBErrSecSuccess);
  EXPECT_EQ(system.result, ZRBSecTrustResultRecoverableTrustFailure);
  ASSERT_EQ(system.trust->certificateCount(), 2u);
  EXPECT_EQ(system.failedAt(1), Keys{"MissingIntermediate"});
  EXPECT_FALSE(ZRBSecTrust::copyAnchorCertificates().empty());
}

TEST(SecTrust, SystemAnchorsAreTrustedByDefault) {
  auto now = static_cast<std::int64_t>(ZRBDate::now().secondsSince1970);
  const auto& anchors = ZRBSecTrust::copyAnchorCertificates();
  auto current = std::find_if(anchors.begin(), anchors.end(), [&](const ZRBSecCertificatePtr& anchor) {
    return anchor->isSelfSigned() && anchor->notBefore() < now && anchor->notAfter() > now;
  });
  ASSERT_NE(current, anchors.end()) << "no current root in /etc/ssl/certs (package ca-certificates)";
  auto trust = ZRBSecTrust::createWithCertificates({*current}, ZRBSecPolicy::createBasicX509());
  ZRBSecTrustResultType result;
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultUnspecified);
  // Custom anchors replace the system store.
  trust->setAnchorCertificates({shared().rootCertificate()});
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultRecoverableTrustFailure);
}

TEST(SecTrust, AnchorSettingsCombine) {
  const auto& chain = shared();
  auto trust = ZRBSecTrust::createWithCertificates(chain.peerCertificates(), ssl());
  ZRBSecTrustResultType result;

  trust->setAnchorCertificates({chain.rootCertificate()});
  trust->setAnchorCertificatesOnly(false);  // the system store counts as well
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultUnspecified);

  trust->setAnchorCertificates(std::vector<ZRBSecCertificatePtr>{});  // trusts nothing
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultRecoverableTrustFailure);

  // An anchor need not be a root: the chain ends at the intermediate.
  trust->setAnchorCertificates({chain.intermediate.secCertificate()});
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultUnspecified);
  EXPECT_EQ(trust->certificateCount(), 2u);

  // Another chain's root vouches for nothing here.
  trust->setAnchorCertificates({ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP384).rootCertificate()});
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultRecoverableTrustFailure);

  trust->setAnchorCertificates(std::nullopt);
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultRecoverableTrustFailure);
  EXPECT_TRUE(trust->copyCustomAnchorCertificates().empty());
}

TEST(SecTrust, PeerOrderAndASentRootDoNotMatter) {
  const auto& chain = shared();
  // Root and intermediate sent in the wrong order: the chain is still built leaf, intermediate, root.
  auto trust = ZRBSecTrust::createWithCertificates(
      {chain.leaf.secCertificate(), chain.rootCertificate(), chain.intermediate.secCertificate()}, ssl());
  trust->setAnchorCertificates({chain.rootCertificate()});
  ZRBSecTrustResultType result;
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultUnspecified);
  ASSERT_EQ(trust->certificateCount(), 3u);
  EXPECT_TRUE(trust->certificateAtIndex(1)->isEqual(*chain.intermediate.secCertificate()));

  // A self-signed root that is sent but not trusted.
  trust->setAnchorCertificates(std::nullopt);
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultRecoverableTrustFailure);
  auto details = trust->copyResult()[ZRBSecTrustResultDetailsKey];
  ASSERT_EQ(details.count(), 3u);
  EXPECT_TRUE(details[2].contains(ZRBSecTrustDetailAnchorTrusted));
}

TEST(SecTrust, ValidityFailuresAreRecoverableUnderBothPolicies) {
  for (auto policy : {ssl(), ZRBSecPolicy::createBasicX509()}) {
    SCOPED_TRACE(policy->description());
    auto expired = evaluate(shared(Variant::Expired), policy);
    EXPECT_EQ(expired.result, ZRBSecTrustResultRecoverableTrustFailure);
    EXPECT_EQ(expired.failedAt(0), Keys{"Expired"});
    EXPECT_EQ(expired.trust->certificateCount(), 3u);
    auto early = evaluate(shared(Variant::NotYetValid), policy);
    EXPECT_EQ(early.result, ZRBSecTrustResultRecoverableTrustFailure);
    EXPECT_EQ(early.failedAt(0), Keys{"NotYetValid"});
  }
  // Checked at a time inside its validity period (and after the CAs' start), the expired leaf is fine.
  auto trust = ZRBSecTrust::createWithCertificates(shared(Variant::Expired).peerCertificates(), ssl());
  trust->setAnchorCertificates({shared(Variant::Expired).rootCertificate()});
  trust->setVerifyDate(ZRBDate{ZRBDate::now().secondsSince1970 - 36 * 3600});
  ZRBSecTrustResultType result;
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultUnspecified);
}

TEST(SecTrust, WrongHostFailsOnlyUnderTheSSLPolicyWithThatHost) {
  const auto& wrong = shared(Variant::WrongHost);
  EXPECT_EQ(evaluate(wrong, ZRBSecPolicy::createBasicX509()).result, ZRBSecTrustResultUnspecified);
  EXPECT_EQ(evaluate(wrong, ssl(std::nullopt)).result, ZRBSecTrustResultUnspecified);
  EXPECT_EQ(evaluate(wrong, ssl("wrong.example")).result, ZRBSecTrustResultUnspecified);
  auto mismatch = evaluate(wrong, ssl("localhost"));
  EXPECT_EQ(mismatch.result, ZRBSecTrustResultRecoverableTrustFailure);
  EXPECT_EQ(mismatch.failedAt(0), Keys{"HostName"});

  // Several policies: all must hold.
  auto trust = ZRBSecTrust::createWithCertificates(
      wrong.peerCertificates(), std::vector{ZRBSecPolicy::createBasicX509(), ssl("localhost")});
  trust->setAnchorCertificates({wrong.rootCertificate()});
  ZRBSecTrustResultType result;
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultRecoverableTrustFailure);
  trust->setPolicies(ZRBSecPolicy::createBasicX509());
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultUnspecified);
}

TEST(SecTrust, HostNamesMatchAsBrowsersDo) {
  auto leaf = shared().leaf.secCertificate();  // localhost, *.wild.test, 127.0.0.1, ::1
  for (const char* host : {"localhost", "LocalHost", "localhost.", "a.wild.test", "A.WILD.test", "127.0.0.1",
                           "::1", "[::1]", ""}) {
    EXPECT_TRUE(ssl(host)->matchesHostName(*leaf)) << host;
  }
  for (const char* host : {"wild.test", "a.b.wild.test", "xwild.test", "127.0.0.2", "::2",
                           "localhost.localdomain", "local", "localhost..", "*.wild.test"}) {
    EXPECT_FALSE(ssl(host)->matchesHostName(*leaf)) << host;
  }

  // An address matches IP names only, never a DNS name or common name that spells it.
  auto dnsSpelled =
      ZRBTestPKI::issue({.commonName = "127.0.0.1", .dnsNames = {"127.0.0.1"}}, nullptr).secCertificate();
  EXPECT_FALSE(ssl("127.0.0.1")->matchesHostName(*dnsSpelled));
  // The common name counts only without DNS names (IP names do not hide it).
  auto cnOnly =
      ZRBTestPKI::issue({.commonName = "cn.test", .ipAddresses = {"10.0.0.1"}}, nullptr).secCertificate();
  EXPECT_TRUE(ssl("cn.test")->matchesHostName(*cnOnly));
  auto cnHidden =
      ZRBTestPKI::issue({.commonName = "cn.test", .dnsNames = {"san.test"}}, nullptr).secCertificate();
  EXPECT_FALSE(ssl("cn.test")->matchesHostName(*cnHidden));
  EXPECT_TRUE(ssl("san.test")->matchesHostName(*cnHidden));
  // Wildcards only as a whole label.
  auto partial =
      ZRBTestPKI::issue({.commonName = "p", .dnsNames = {"w*.wild.test"}}, nullptr).secCertificate();
  EXPECT_FALSE(ssl("www.wild.test")->matchesHostName(*partial));

  // Through an evaluation.
  EXPECT_EQ(evaluate(shared(), ssl("x.wild.test")).result, ZRBSecTrustResultUnspecified);
  EXPECT_EQ(evaluate(shared(), ssl("127.0.0.1")).result, ZRBSecTrustResultUnspecified);
  EXPECT_EQ(evaluate(shared(), ssl("10.0.0.1")).result, ZRBSecTrustResultRecoverableTrustFailure);
}

TEST(SecTrust, ALeafNotForServersFailsTheServerPolicy) {
  const auto& chain = shared();
  ZRBTestCertificateOptions options{
      .commonName = "client", .dnsNames = {"localhost"}, .extendedKeyUsage = "clientAuth"};
  auto client = ZRBTestPKI::issue(options, &chain.intermediate).secCertificate();
  auto trust = ZRBSecTrust::createWithCertificates({client, chain.intermediate.secCertificate()}, ssl());
  trust->setAnchorCertificates({chain.rootCertificate()});
  ZRBSecTrustResultType result;
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultRecoverableTrustFailure);
  EXPECT_TRUE(
      trust->copyResult()[ZRBSecTrustResultDetailsKey][0].contains(ZRBSecTrustDetailExtendedKeyUsage));
  trust->setPolicies(ZRBSecPolicy::createSSL(false));
  trust->evaluate(&result);
  EXPECT_EQ(result, ZRBSecTrustResultUnspecified);
}

TEST(SecTrust, ABadSignatureIsFatal) {
  const auto& chain = shared(Variant::Valid, ZRBTestKeyType::RSA2048);
  auto der = chain.leaf.der();
  der.back() ^= 0x01;  // inside the issuer's signature
  auto forged = ZRBSecCertificate::createWithData(der);
  ASSERT_TRUE(forged);
  auto trust = ZRBSecTrust::createWithCertificates({forged, chain.intermediate.secCertificate()}, ssl());
  trust->setAnchorCertificates({chain.rootCertificate()});
  ZRBSecTrustResultType result;
  EXPECT_EQ(trust->evaluate(&result), ZRBErrSecSuccess);
  EXPECT_EQ(result, ZRBSecTrustResultFatalTrustFailure);
  EXPECT_TRUE(trust->copyResult()[ZRBSecTrustResultDetailsKey][0].contains(ZRBSecTrustDetailSignature));
}

TEST(SecTrust, BadInputGivesNullOrOtherError) {
  const auto& chain = shared();
  ZRBOSStatus status = 0;
  EXPECT_EQ(ZRBSecTrust::createWithCertificates({}, ssl(), &status), nullptr);
  EXPECT_EQ(status, ZRBErrSecParam);
  auto garbage = ZRBSecCertificate::createWithData(std::string_view("\x30\x03\x02\x01\x00"));
  EXPECT_EQ(ZRBSecTrust::createWithCertificates({garbage}, ssl(), &status), nullptr);
  EXPECT_EQ(status, ZRBErrSecParam);

  // No policy to judge by: the evaluation runs and says "other error"; the chain stays as given.
  for (auto policies : {std::vector<ZRBSecPolicyPtr>{}, std::vector<ZRBSecPolicyPtr>{nullptr}}) {
    auto trust = ZRBSecTrust::createWithCertificates(chain.peerCertificates(), policies, &status);
    ASSERT_TRUE(trust);
    EXPECT_EQ(trust->copyResult(), ZRBValue());
    ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
    EXPECT_EQ(trust->evaluate(&result), ZRBErrSecSuccess);
    EXPECT_EQ(result, ZRBSecTrustResultOtherError);
    EXPECT_EQ(trust->certificateCount(), 2u);
    EXPECT_EQ(trust->copyResult()[ZRBSecTrustResultValueKey].intValue(), 7);
  }
  auto trust = ZRBSecTrust::createWithCertificates(chain.peerCertificates(), ssl());
  trust->setPolicies(ZRBSecPolicyPtr());
  EXPECT_EQ(trust->evaluate(nullptr), ZRBErrSecSuccess);
  EXPECT_EQ(trust->trustResult(), ZRBSecTrustResultOtherError);
}

TEST(SecTrust, ResultAndPublicKeyAfterEvaluation) {
  const auto& chain = shared(Variant::Valid, ZRBTestKeyType::ECP384);
  auto e = evaluate(chain, ssl());
  ASSERT_EQ(e.result, ZRBSecTrustResultUnspecified);
  auto result = e.trust->copyResult();
  EXPECT_EQ(result[ZRBSecTrustResultValueKey].intValue(), ZRBSecTrustResultUnspecified);
  EXPECT_TRUE(result[ZRBSecTrustEvaluationDateKey].isDate());
  EXPECT_EQ(result[ZRBSecTrustResultDetailsKey].count(), 3u);
  EXPECT_TRUE(e.trust->copyPublicKey()->isEqual(*chain.leaf.secCertificate()->copyKey()));
  EXPECT_EQ(e.trust->copyPublicKey()->spkiKind(), ZRBSecKeySPKIKindECSecp384r1);

  // Changing the policies forgets the evaluation.
  e.trust->setPolicies(ssl());
  EXPECT_EQ(e.trust->trustResult(), ZRBSecTrustResultInvalid);
  EXPECT_EQ(e.trust->certificateCount(), 2u);
}

TEST(SecTrust, ConcurrentEvaluationsAgree) {
  struct Case {
    const Chain* chain;
    ZRBSecPolicyPtr policy;
    bool anchored;
    ZRBSecTrustResultType expected;
  };
  std::vector<Case> cases = {
      {&shared(), ssl(), true, ZRBSecTrustResultUnspecified},
      {&shared(), ssl(), false, ZRBSecTrustResultRecoverableTrustFailure},
      {&shared(Variant::Expired), ssl(), true, ZRBSecTrustResultRecoverableTrustFailure},
      {&shared(Variant::WrongHost), ssl(), true, ZRBSecTrustResultRecoverableTrustFailure},
      {&shared(Variant::Valid, ZRBTestKeyType::RSA2048), ZRBSecPolicy::createBasicX509(), true,
       ZRBSecTrustResultUnspecified},
  };
  // One trust shared by every thread as well, next to trusts of their own.
  auto sharedTrust = evaluate(shared(), ssl()).trust;
  constexpr int kThreads = 6, kRounds = 40;
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) {
        const Case& c = cases[static_cast<std::size_t>(round + t) % cases.size()];
        auto e = evaluate(*c.chain, c.policy, c.anchored);
        std::size_t expectedCount = c.anchored ? 3 : 2;
        if (e.status != ZRBErrSecSuccess || e.result != c.expected ||
            e.trust->certificateCount() != expectedCount) {
          ++mismatches[static_cast<std::size_t>(t)];
        }
        ZRBSecTrustResultType result;
        if (sharedTrust->evaluate(&result) != ZRBErrSecSuccess || result != ZRBSecTrustResultUnspecified ||
            sharedTrust->certificateCount() != 3) {
          ++mismatches[static_cast<std::size_t>(t)];
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(kThreads, 0));
}

}  // namespace
