// Trust evaluation: anchors, built chains, validity, host names, bad input and concurrent use.
#include "platform/security/sec_trust.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "support/test_pki.h"

namespace {

using Chain = ZRBTestChain;
using Variant = ZRBTestLeafVariant;
using Keys = std::vector<std::string>;
using Certificates = std::vector<ZRBSecCertificatePtr>;
constexpr auto kTrusted = ZRBSecTrustResultUnspecified;
constexpr auto kRecoverable = ZRBSecTrustResultRecoverableTrustFailure;

const Chain& shared(Variant variant = Variant::Valid, ZRBTestKeyType leaf = ZRBTestKeyType::ECP256) {
  return ZRBTestPKI::sharedChain(leaf, variant);
}

ZRBSecPolicyPtr ssl(std::optional<std::string> host = "localhost") {
  return ZRBSecPolicy::createSSL(true, host);
}

// A trust for `certificates` (the chain's peer certificates when empty), with the chain's root as the
// only anchor unless told not to.
ZRBSecTrustPtr trustFor(const Chain& chain, ZRBSecPolicyPtr policy, bool anchored = true,
                        Certificates certificates = {}) {
  auto trust = ZRBSecTrust::createWithCertificates(
      certificates.empty() ? chain.peerCertificates() : std::move(certificates), std::move(policy));
  if (anchored) trust->setAnchorCertificates({chain.rootCertificate()});
  return trust;
}

ZRBSecTrustResultType resultOf(const ZRBSecTrustPtr& trust) {
  ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
  EXPECT_EQ(trust->evaluate(&result), ZRBErrSecSuccess);
  return result;
}

// The detail keys that failed on the certificate at `index` of the built chain.
Keys failedAt(const ZRBSecTrustPtr& trust, std::size_t index) {
  Keys keys;
  ZRBValue result = trust->copyResult();  // entries() refers into it
  for (const auto& [key, value] : result[ZRBSecTrustResultDetailsKey][index].entries())
    keys.push_back(key.string());
  return keys;
}

TEST(SecTrust, CustomAnchorsDecideAndTheBuiltChainEndsAtTheRoot) {
  const auto& chain = shared(Variant::Valid, ZRBTestKeyType::ECP384);
  auto anchored = trustFor(chain, ssl());
  EXPECT_EQ(resultOf(anchored), kTrusted);
  ASSERT_EQ(anchored->certificateCount(), 3u);
  const ZRBTestCertificate* expected[] = {&chain.leaf, &chain.intermediate, &chain.root};
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_TRUE(anchored->certificateAtIndex(i)->isEqual(*expected[i]->secCertificate())) << i;
  EXPECT_EQ(anchored->certificateAtIndex(3), nullptr);
  EXPECT_EQ(failedAt(anchored, 0), Keys{});
  EXPECT_TRUE(anchored->copyResult()[ZRBSecTrustEvaluationDateKey].isDate());
  EXPECT_TRUE(anchored->copyPublicKey()->isEqual(*chain.leaf.secCertificate()->copyKey()));
  // Changing the policies forgets the evaluation.
  anchored->setPolicies(ssl());
  EXPECT_EQ(anchored->trustResult(), ZRBSecTrustResultInvalid);
  EXPECT_EQ(anchored->certificateCount(), 2u);

  // The system store does not know the test root: the chain stops at the intermediate.
  auto system = trustFor(chain, ssl(), false);
  EXPECT_EQ(resultOf(system), kRecoverable);
  ASSERT_EQ(system->certificateCount(), 2u);
  EXPECT_EQ(failedAt(system, 1), Keys{"MissingIntermediate"});
}

TEST(SecTrust, SystemAnchorsAreTrustedByDefault) {
  auto now = static_cast<std::int64_t>(ZRBDate::now().secondsSince1970);
  const auto& anchors = ZRBSecTrust::copyAnchorCertificates();
  auto current = std::find_if(anchors.begin(), anchors.end(), [&](const ZRBSecCertificatePtr& anchor) {
    return anchor->isSelfSigned() && anchor->notBefore() < now && anchor->notAfter() > now;
  });
  ASSERT_NE(current, anchors.end()) << "no current root in /etc/ssl/certs (package ca-certificates)";
  auto trust = ZRBSecTrust::createWithCertificates({*current}, ZRBSecPolicy::createBasicX509());
  EXPECT_EQ(resultOf(trust), kTrusted);
  trust->setAnchorCertificates({shared().rootCertificate()});  // custom anchors replace the system store
  EXPECT_EQ(resultOf(trust), kRecoverable);
}

// Evaluations find system anchors by name without decoding the whole store: every anchor must be
// found that way, and vouch for itself as the end of its chain, as the full list would.
TEST(SecTrust, EverySystemAnchorIsFoundByEvaluation) {
  auto now = static_cast<std::int64_t>(ZRBDate::now().secondsSince1970);
  const auto& anchors = ZRBSecTrust::copyAnchorCertificates();
  // Where two anchors share a subject (a root re-issued), which one ends the chain is OpenSSL's choice.
  auto subjectShared = [&anchors](const ZRBSecCertificatePtr& anchor) {
    return std::count_if(anchors.begin(), anchors.end(), [&](const ZRBSecCertificatePtr& other) {
             return other->copySubjectSummary() == anchor->copySubjectSummary();
           }) > 1;
  };
  std::size_t checked = 0;
  for (const auto& anchor : anchors) {
    if (!anchor->isSelfSigned() || anchor->notBefore() > now || anchor->notAfter() < now) continue;
    if (subjectShared(anchor)) continue;
    auto trust = ZRBSecTrust::createWithCertificates({anchor}, ZRBSecPolicy::createBasicX509());
    EXPECT_EQ(resultOf(trust), kTrusted) << anchor->description();
    ASSERT_EQ(trust->certificateCount(), 1u);
    EXPECT_TRUE(trust->certificateAtIndex(0)->isEqual(*anchor));
    // With a custom anchor that does not vouch for it, the system store still counts.
    trust->setAnchorCertificates({shared().rootCertificate()});
    trust->setAnchorCertificatesOnly(false);
    EXPECT_EQ(resultOf(trust), kTrusted) << anchor->description();
    ++checked;
  }
  EXPECT_GT(checked, 0u) << "no current root in /etc/ssl/certs (package ca-certificates)";
}

TEST(SecTrust, AnchorSettingsCombine) {
  const auto& chain = shared();
  auto trust = trustFor(chain, ssl());
  trust->setAnchorCertificatesOnly(false);  // the system store counts as well
  EXPECT_EQ(resultOf(trust), kTrusted);
  trust->setAnchorCertificates(Certificates{});  // trusts nothing
  EXPECT_EQ(resultOf(trust), kRecoverable);
  // An anchor need not be a root: the chain ends at the intermediate.
  trust->setAnchorCertificates({chain.intermediate.secCertificate()});
  EXPECT_EQ(resultOf(trust), kTrusted);
  EXPECT_EQ(trust->certificateCount(), 2u);
  // Another chain's root vouches for nothing here.
  trust->setAnchorCertificates({ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP384).rootCertificate()});
  EXPECT_EQ(resultOf(trust), kRecoverable);
  trust->setAnchorCertificates(std::nullopt);
  EXPECT_TRUE(trust->copyCustomAnchorCertificates().empty());
}

TEST(SecTrust, PeerOrderAndASentRootDoNotMatter) {
  const auto& chain = shared();
  // Root and intermediate sent in the wrong order: the chain is still built leaf, intermediate, root.
  auto trust =
      trustFor(chain, ssl(), true,
               {chain.leaf.secCertificate(), chain.rootCertificate(), chain.intermediate.secCertificate()});
  EXPECT_EQ(resultOf(trust), kTrusted);
  ASSERT_EQ(trust->certificateCount(), 3u);
  EXPECT_TRUE(trust->certificateAtIndex(1)->isEqual(*chain.intermediate.secCertificate()));
  // A self-signed root that is sent but not trusted.
  trust->setAnchorCertificates(std::nullopt);
  EXPECT_EQ(resultOf(trust), kRecoverable);
  ASSERT_EQ(trust->copyResult()[ZRBSecTrustResultDetailsKey].count(), 3u);
  EXPECT_THAT(failedAt(trust, 2), testing::Contains(ZRBSecTrustDetailAnchorTrusted));
}

TEST(SecTrust, ValidityFailuresAreRecoverableUnderBothPolicies) {
  for (auto policy : {ssl(), ZRBSecPolicy::createBasicX509()}) {
    for (auto [variant, key] :
         {std::pair{Variant::Expired, "Expired"}, {Variant::NotYetValid, "NotYetValid"}}) {
      SCOPED_TRACE(policy->description() + " " + key);
      auto trust = trustFor(shared(variant), policy);
      EXPECT_EQ(resultOf(trust), kRecoverable);
      EXPECT_EQ(failedAt(trust, 0), Keys{key});
      EXPECT_EQ(trust->certificateCount(), 3u);
    }
  }
  // Checked at a time inside its validity period (and after the CAs' start), the expired leaf is fine.
  auto trust = trustFor(shared(Variant::Expired), ssl());
  trust->setVerifyDate(ZRBDate{ZRBDate::now().secondsSince1970 - 36 * 3600});
  EXPECT_EQ(resultOf(trust), kTrusted);
}

TEST(SecTrust, WrongHostFailsOnlyUnderTheSSLPolicyWithThatHost) {
  const auto& wrong = shared(Variant::WrongHost);
  for (auto policy : {ZRBSecPolicy::createBasicX509(), ssl(std::nullopt), ssl("wrong.example")})
    EXPECT_EQ(resultOf(trustFor(wrong, policy)), kTrusted) << policy->description();
  auto mismatch = trustFor(wrong, ssl("localhost"));
  EXPECT_EQ(resultOf(mismatch), kRecoverable);
  EXPECT_EQ(failedAt(mismatch, 0), Keys{"HostName"});

  // Several policies: all must hold.
  auto trust = ZRBSecTrust::createWithCertificates(
      wrong.peerCertificates(), std::vector{ZRBSecPolicy::createBasicX509(), ssl("localhost")});
  trust->setAnchorCertificates({wrong.rootCertificate()});
  EXPECT_EQ(resultOf(trust), kRecoverable);
  trust->setPolicies(ZRBSecPolicy::createBasicX509());
  EXPECT_EQ(resultOf(trust), kTrusted);
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
  struct Case {
    ZRBTestCertificateOptions options;
    const char* host;
    bool matches;
  };
  const Case cases[] = {
      // An address matches IP names only, never a DNS name or common name that spells it.
      {{.commonName = "127.0.0.1", .dnsNames = {"127.0.0.1"}}, "127.0.0.1", false},
      // The common name counts only without DNS names (IP names do not hide it).
      {{.commonName = "cn.test", .ipAddresses = {"10.0.0.1"}}, "cn.test", true},
      {{.commonName = "cn.test", .dnsNames = {"san.test"}}, "cn.test", false},
      {{.commonName = "cn.test", .dnsNames = {"san.test"}}, "san.test", true},
      // Wildcards only as a whole label.
      {{.commonName = "p", .dnsNames = {"w*.wild.test"}}, "www.wild.test", false},
  };
  for (const auto& c : cases) {
    auto certificate = ZRBTestPKI::issue(c.options, nullptr).secCertificate();
    EXPECT_EQ(ssl(c.host)->matchesHostName(*certificate), c.matches) << c.options.commonName << " " << c.host;
  }
  // Through an evaluation.
  EXPECT_EQ(resultOf(trustFor(shared(), ssl("x.wild.test"))), kTrusted);
  EXPECT_EQ(resultOf(trustFor(shared(), ssl("127.0.0.1"))), kTrusted);
  EXPECT_EQ(resultOf(trustFor(shared(), ssl("10.0.0.1"))), kRecoverable);
}

TEST(SecTrust, ALeafNotForServersFailsRecoverablyAndABadSignatureFatally) {
  const auto& chain = shared(Variant::Valid, ZRBTestKeyType::RSA2048);
  auto client =
      ZRBTestPKI::issue({.commonName = "client", .dnsNames = {"localhost"}, .extendedKeyUsage = "clientAuth"},
                        &chain.intermediate);
  auto der = chain.leaf.der();
  der.back() ^= 0x01;  // inside the issuer's signature
  auto forged = ZRBSecCertificate::createWithData(der);
  ASSERT_TRUE(forged);
  for (auto [leaf, expected, key] :
       {std::tuple{client.secCertificate(), kRecoverable, ZRBSecTrustDetailExtendedKeyUsage},
        std::tuple{forged, ZRBSecTrustResultFatalTrustFailure, ZRBSecTrustDetailSignature}}) {
    auto trust = trustFor(chain, ssl(), true, {leaf, chain.intermediate.secCertificate()});
    EXPECT_EQ(resultOf(trust), expected) << key;
    EXPECT_THAT(failedAt(trust, 0), testing::Contains(key));
  }
  auto trust = trustFor(chain, ZRBSecPolicy::createSSL(false), true,
                        {client.secCertificate(), chain.intermediate.secCertificate()});
  EXPECT_EQ(resultOf(trust), kTrusted);  // a client policy accepts it
}

TEST(SecTrust, BadInputGivesNullOrOtherError) {
  const auto& chain = shared();
  auto garbage = ZRBSecCertificate::createWithData(std::string_view("\x30\x03\x02\x01\x00"));
  for (const auto& certificates : {Certificates{}, Certificates{garbage}}) {
    ZRBOSStatus status = 0;
    EXPECT_EQ(ZRBSecTrust::createWithCertificates(certificates, ssl(), &status), nullptr);
    EXPECT_EQ(status, ZRBErrSecParam);
  }
  // No policy to judge by: the evaluation runs and says "other error"; the chain stays as given.
  for (auto policies : {std::vector<ZRBSecPolicyPtr>{}, std::vector<ZRBSecPolicyPtr>{nullptr}}) {
    auto trust = ZRBSecTrust::createWithCertificates(chain.peerCertificates(), policies);
    ASSERT_TRUE(trust);
    EXPECT_EQ(trust->copyResult(), ZRBValue());
    EXPECT_EQ(resultOf(trust), ZRBSecTrustResultOtherError);
    EXPECT_EQ(trust->certificateCount(), 2u);
  }
  auto trust = trustFor(chain, ssl(), false);
  trust->setPolicies(ZRBSecPolicyPtr());
  EXPECT_EQ(trust->evaluate(nullptr), ZRBErrSecSuccess);
  EXPECT_EQ(trust->trustResult(), ZRBSecTrustResultOtherError);
}

TEST(SecTrust, ConcurrentEvaluationsAgree) {
  const std::tuple<const Chain*, ZRBSecPolicyPtr, bool, ZRBSecTrustResultType> cases[] = {
      {&shared(), ssl(), true, kTrusted},
      {&shared(), ssl(), false, kRecoverable},
      {&shared(Variant::Expired), ssl(), true, kRecoverable},
      {&shared(Variant::WrongHost), ssl(), true, kRecoverable},
      {&shared(Variant::Valid, ZRBTestKeyType::RSA2048), ZRBSecPolicy::createBasicX509(), true, kTrusted},
  };
  // One trust shared by every thread as well, next to trusts of their own.
  auto sharedTrust = trustFor(shared(), ssl());
  constexpr int kThreads = 6, kRounds = 40;
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) {
        const auto& [chain, policy, anchored, ownExpected] =
            cases[static_cast<std::size_t>(round + t) % std::size(cases)];
        for (const auto& [trust, expected, count] :
             {std::tuple{trustFor(*chain, policy, anchored), ownExpected, anchored ? 3u : 2u},
              std::tuple{sharedTrust, kTrusted, 3u}}) {
          ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
          if (trust->evaluate(&result) != ZRBErrSecSuccess || result != expected ||
              trust->certificateCount() != count) {
            ++mismatches[static_cast<std::size_t>(t)];
          }
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(kThreads, 0));
}

}  // namespace
