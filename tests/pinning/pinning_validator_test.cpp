// Pin verification and the validator's decisions over chains of the test PKI: enforcement, the
// order in which pins are found, algorithms that do not fit the key, lapsed and excluded policies,
// chains the default validation rejects, the observer, and challenge answers. Challenges over a real
// handshake are in the pin guard's tests and tests/tools/pinning_setup_test.cpp.
#include "pinning/pinning_validator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "log_lines.h"
#include "pinning/pin_verifier.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/crypto.h"
#include "platform/net/url_session.h"
#include "platform/security/sec_key.h"
#include "support/temporary_directory.h"
#include "support/test_pki.h"

namespace {

// The pin of a certificate's key: SHA-256 of its DER SubjectPublicKeyInfo.
ZRB_PGDPin pinOf(const ZRBTestCertificate& certificate) {
  return certificate.secCertificate()->copyKey()->subjectPublicKeyInfoSHA256();
}

struct Observed {
  ZRB_PGDPinningValidatorResultPtr result;
  std::string notedHostname;
  ZRB_PGDDomainPolicyPtr policy;
  int calls = 0;
};

class PinningValidatorTest : public ::testing::Test {
 protected:
  void SetUp() override { cache_ = ZRB_PGDSPKIHashCache::initWithIdentifier("spki-hash.cache"); }
  void TearDown() override {
    // Observer calls still queued would land in the next test's fixture.
    callbackQueue_->sync([] {});
  }

  // A policy for "localhost" pinning `pins`, trusting the chain's root as an extra anchor.
  static ZRB_PGDDomainPolicy policyFor(const ZRBTestChain& chain, std::set<ZRB_PGDPin> pins,
                                       std::vector<PGDPublicKeyAlgorithm> algorithms = {
                                           PGDPublicKeyAlgorithmEcDsaSecp256r1}) {
    ZRB_PGDDomainPolicy policy;
    policy.publicKeyAlgorithms = std::move(algorithms);
    policy.publicKeyHashes = std::move(pins);
    policy.additionalTrustAnchors = std::vector{chain.rootCertificate()};
    return policy;
  }

  ZRB_PGDPinningValidatorPtr validator(ZRB_PGDDomainPolicy policy, std::string domain = "localhost") {
    ZRB_PGDPinnedDomainPolicies policies;
    policies.set(std::move(domain), std::make_shared<const ZRB_PGDDomainPolicy>(std::move(policy)));
    return ZRB_PGDPinningValidator::initWithDomainPinningPolicies(
        std::move(policies), cache_, false, callbackQueue_,
        [this](const ZRB_PGDPinningValidatorResultPtr& result, const std::string& noted,
               const ZRB_PGDDomainPolicyPtr& applied) {
          EXPECT_EQ(ZRBDispatch::currentQueueLabel(), "test.pinning.observer");
          observed_.result = result;
          observed_.notedHostname = noted;
          observed_.policy = applied;
          ++observed_.calls;
        });
  }

  static ZRBSecTrustPtr trustFor(const ZRBTestChain& chain) {
    return ZRBSecTrust::createWithCertificates(chain.peerCertificates(), ZRBSecPolicy::createBasicX509());
  }

  // Lets the observer's queue run what was posted so far.
  Observed observed() {
    callbackQueue_->sync([] {});
    return observed_;
  }

  const ZRBTestCachesDirectory caches_;
  ZRB_PGDSPKIHashCachePtr cache_;
  ZRBDispatchQueuePtr callbackQueue_ = ZRBDispatchQueue::serial("test.pinning.observer");
  Observed observed_;
};

// The chain is walked from the root down: with root and leaf pinned, the root's pin is found first.
TEST_F(PinningValidatorTest, RootPinIsFoundBeforeLeafPin) {
  const ZRBTestChain& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  PGDLogLines log;
  auto trust = trustFor(chain);
  EXPECT_EQ(
      validator(policyFor(chain, {pinOf(chain.root), pinOf(chain.leaf)}))->evaluateTrust(trust, "localhost"),
      PGDTrustDecisionShouldAllowConnection);
  EXPECT_EQ(observed().result->evaluationResult(), PGDTrustEvaluationResultSuccess);
  long checking = log.find("Checking certificate with CN: ");
  ASSERT_GE(checking, 0);
  EXPECT_EQ(log.lines()[static_cast<std::size_t>(checking)],
            "Checking certificate with CN: " + *chain.root.secCertificate()->copySubjectSummary());
  long found = log.find("SSL Pin found for localhost");
  ASSERT_GT(found, checking);
  EXPECT_EQ(log.find("Checking certificate with CN: ", checking + 1), -1) << "walk went on after the match";
  EXPECT_GE(log.find("Pin validation succeeded for localhost"), found);
}

// RSA 2048 before P-256 on an all-EC chain: the RSA header gives hashes that match nothing, the EC
// one matches the leaf.
TEST_F(PinningValidatorTest, AlgorithmThatDoesNotFitTheKeyGivesNonMatchingHashes) {
  const ZRBTestChain& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  PGDLogLines log;
  auto policy = policyFor(chain, {pinOf(chain.leaf)},
                          {PGDPublicKeyAlgorithmRsa2048, PGDPublicKeyAlgorithmEcDsaSecp256r1});
  auto trust = trustFor(chain);
  EXPECT_EQ(validator(policy)->evaluateTrust(trust, "localhost"), PGDTrustDecisionShouldAllowConnection);
  EXPECT_EQ(log.count("Testing SSL Pin "), 6);
}

// Unpinned chains are blocked only under enforcement; lapsed, excluded and unknown domains are not
// pinned and the observer hears nothing of them; a chain the default validation rejects is blocked
// whatever the enforcement and the pins, before any pin is looked at.
TEST_F(PinningValidatorTest, DecisionsByPolicyAndChain) {
  using namespace std::chrono_literals;
  const ZRBTestChain& valid = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  const ZRBTestChain& expired = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256, ZRBTestLeafVariant::Expired);
  const auto now = std::chrono::system_clock::now();
  const auto Allow = PGDTrustDecisionShouldAllowConnection, Block = PGDTrustDecisionShouldBlockConnection,
             NotPinned = PGDTrustDecisionDomainNotPinned;
  const auto NoPin = PGDTrustEvaluationResultFailedNoMatchingPin,
             BadChain = PGDTrustEvaluationResultFailedInvalidCertificateChain;
  // Leaf and root pinned, enforcement off: only the default validation can block.
  auto pinnedLoosely = [](const ZRBTestChain& chain) {
    return [&chain](ZRB_PGDDomainPolicy& p) {
      p.publicKeyHashes = {pinOf(chain.leaf), pinOf(chain.root)};
      p.enforcePinning = false;
    };
  };
  struct Case {
    const char* name;
    const ZRBTestChain& chain;
    std::function<void(ZRB_PGDDomainPolicy&)> change;
    std::string domain;  // pinned, and the host asked about unless "example.com"
    PGDTrustDecision decision;
    std::optional<PGDTrustEvaluationResult> observed;  // none: the observer hears nothing
  };
  const Case cases[] = {
      {"unpinned, enforced", valid, [](auto&) {}, "localhost", Block, NoPin},
      {"unpinned, not enforced", valid, [](auto& p) { p.enforcePinning = false; }, "localhost", Allow, NoPin},
      {"lapses tomorrow", valid, [&](auto& p) { p.expirationDate = now + 24h; }, "localhost", Block, NoPin},
      {"lapsed", valid, [&](auto& p) { p.expirationDate = now - 1h; }, "localhost", NotPinned, {}},
      {"excluded",
       valid,
       [](auto& p) {
         p = {};
         p.excludeSubdomainFromParentPolicy = true;
       },
       "localhost",
       NotPinned,
       {}},
      {"another domain", valid, [](auto&) {}, "example.com", NotPinned, {}},
      {"expired leaf", expired, pinnedLoosely(expired), "localhost", Block, BadChain},
      {"unknown root", valid,
       [&](auto& p) {
         pinnedLoosely(valid)(p);
         p.additionalTrustAnchors.reset();
       },
       "localhost", Block, BadChain},
      {"host the leaf is not issued for", valid, pinnedLoosely(valid), "wrong.example", Block, BadChain},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    observed_ = {};
    PGDLogLines log;
    auto policy = policyFor(c.chain, {ZRB_PGDPin{1}, ZRB_PGDPin{2}});
    c.change(policy);
    const std::string host = c.domain == "example.com" ? "localhost" : c.domain;
    EXPECT_EQ(validator(policy, c.domain)->evaluateTrust(trustFor(c.chain), host), c.decision);
    Observed seen = observed();
    ASSERT_EQ(seen.calls, c.observed ? 1 : 0);
    if (!c.observed) continue;
    EXPECT_EQ(seen.result->evaluationResult(), *c.observed);
    EXPECT_EQ(seen.result->finalTrustDecision(), c.decision);
    EXPECT_EQ(seen.result->serverHostname(), host);
    EXPECT_EQ(seen.notedHostname, c.domain);
    EXPECT_EQ(seen.policy->enforcePinning, policy.enforcePinning);
    if (*c.observed == BadChain) {
      EXPECT_GE(log.find("Error: default SSL validation failed for " + host + ": "), 0);
      EXPECT_EQ(log.find("Checking certificate"), -1);
      continue;
    }
    // The built chain, leaf first, as PEM with 64-character CR LF lines.
    ASSERT_EQ(seen.result->certificateChain().size(), 3u);
    EXPECT_EQ(seen.result->certificateChain()[0], "-----BEGIN CERTIFICATE-----\n" +
                                                      ZRBBase64Encode(c.chain.leaf.der(), 1) +
                                                      "\n-----END CERTIFICATE-----");
    EXPECT_NE(seen.result->certificateChain()[0].find("\r\n"), std::string::npos);
  }
}

TEST_F(PinningValidatorTest, InvalidParameters) {
  auto validate = validator(policyFor(ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256), {ZRB_PGDPin{1}}));
  EXPECT_EQ(validate->evaluateTrust(nullptr, "localhost"), PGDTrustDecisionShouldBlockConnection);
  EXPECT_EQ(validate->evaluateTrust(trustFor(ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256)), std::nullopt),
            PGDTrustDecisionShouldBlockConnection);
  EXPECT_EQ(observed().calls, 0);

  std::vector<std::string> failures;
  ZRBSetAssertionHandler([&](const std::string& message, const char*, int) { failures.push_back(message); });
  std::vector<PGDPublicKeyAlgorithm> algorithms{PGDPublicKeyAlgorithmEcDsaSecp256r1};
  std::set<ZRB_PGDPin> pins{ZRB_PGDPin{1}};
  auto trust = trustFor(ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256));
  EXPECT_EQ(zrb_verifyPublicKeyPin(nullptr, "h", &algorithms, &pins, cache_),
            PGDTrustEvaluationResultErrorInvalidParameters);
  EXPECT_EQ(zrb_verifyPublicKeyPin(trust, "h", nullptr, &pins, cache_),
            PGDTrustEvaluationResultErrorInvalidParameters);
  EXPECT_EQ(zrb_verifyPublicKeyPin(trust, "h", &algorithms, nullptr, cache_),
            PGDTrustEvaluationResultErrorInvalidParameters);
  ZRBSetAssertionHandler(nullptr);
  EXPECT_EQ(failures, (std::vector<std::string>{"Invalid parameter not satisfying: serverTrust",
                                                "Invalid parameter not satisfying: supportedAlgorithms",
                                                "Invalid parameter not satisfying: knownPins"}));
}

// Challenges: server trust is answered by decision; anything else is left to the caller.
TEST_F(PinningValidatorTest, ChallengeDispositions) {
  const ZRBTestChain& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  auto challengeFor = [&](std::string host, std::string method) {
    auto space = std::make_shared<const ZRBURLProtectionSpace>(host, 443, "https", std::nullopt, method,
                                                               trustFor(chain));
    return std::make_shared<const ZRBURLAuthenticationChallenge>(space, nullptr, 0, nullptr, nullptr);
  };
  auto pinned = validator(policyFor(chain, {pinOf(chain.intermediate)}));
  auto unpinned = validator(policyFor(chain, {ZRB_PGDPin{1}, ZRB_PGDPin{2}}));
  struct Case {
    ZRB_PGDPinningValidatorPtr validator;
    std::string host;
    ZRBURLSessionAuthChallengeDisposition disposition;
    bool credential;
  };
  const Case cases[] = {
      {pinned, "localhost", ZRBURLSessionAuthChallengeUseCredential, true},
      {unpinned, "localhost", ZRBURLSessionAuthChallengeCancelAuthenticationChallenge, false},
      {pinned, "other.example", ZRBURLSessionAuthChallengePerformDefaultHandling, false},
  };
  for (const auto& c : cases) {
    int calls = 0;
    auto challenge = challengeFor(c.host, std::string(ZRBURLAuthenticationMethodServerTrust));
    EXPECT_TRUE(
        c.validator->handleChallenge(challenge, [&](auto disposition, ZRBURLCredentialPtr credential) {
          ++calls;
          EXPECT_EQ(disposition, c.disposition) << c.host;
          EXPECT_EQ(credential != nullptr, c.credential);
          if (credential) {
            EXPECT_EQ(credential->serverTrust(), challenge->protectionSpace()->serverTrust());
          }
        }));
    EXPECT_EQ(calls, 1);
  }
  EXPECT_FALSE(
      pinned->handleChallenge(challengeFor("localhost", std::string(ZRBURLAuthenticationMethodHTTPBasic)),
                              [](auto, auto) { ADD_FAILURE() << "answered a password challenge"; }));
}

// Many threads validating with one validator and one cache (run under ThreadSanitizer once).
TEST_F(PinningValidatorTest, ConcurrentValidations) {
  const ZRBTestChain& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  const ZRBTestChain& other = ZRBTestPKI::sharedChain(ZRBTestKeyType::RSA2048);
  auto policy = policyFor(chain, {pinOf(chain.leaf)});
  policy.additionalTrustAnchors->push_back(other.rootCertificate());
  auto validate = validator(policy);
  std::vector<std::thread> threads;
  std::atomic<int> allowed{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        // Odd threads bring a second chain, so insertions race with look-ups.
        const ZRBTestChain& use = (t % 2 == 0) ? chain : other;
        auto trust = trustFor(use);
        if (validate->evaluateTrust(trust, "localhost") == PGDTrustDecisionShouldAllowConnection) ++allowed;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(allowed.load(), 40);
  EXPECT_EQ(observed().calls, 80);
}

}  // namespace
