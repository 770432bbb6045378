// Certificates from DER and PEM, and what they say about themselves.
#include "platform/security/sec_certificate.h"

#include <gtest/gtest.h>

#include "platform/foundation/value.h"
#include "platform/security/sec_key.h"
#include "support/test_pki.h"

namespace {

const ZRBTestChain& chain() { return ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256); }

std::string crlf(std::string text) {
  for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2) text.insert(at, "\r");
  return text;
}

TEST(SecCertificate, DERRoundTripAndEqualityByBytes) {
  auto der = chain().leaf.der();
  auto first = ZRBSecCertificate::createWithData(der);
  auto second = ZRBSecCertificate::createWithData(der);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->copyData(), der);
  EXPECT_TRUE(first->isEqual(*second));
  EXPECT_EQ(first->hash(), second->hash());
  EXPECT_FALSE(first->isEqual(*chain().intermediate.secCertificate()));
  // Sets of values compare certificates through isEqual, as the pinned-certificate sets do.
  EXPECT_EQ(ZRBValue::set({ZRBValue(first), ZRBValue(second)}).count(), 1u);
}

TEST(SecCertificate, BytesThatAreNotExactlyOneCertificateGiveNull) {
  auto der = chain().leaf.der();
  auto truncated = der, trailing = der;
  truncated.pop_back();
  trailing.push_back(0);
  std::string_view text = "not a certificate at all";
  // The last is a well-formed DER structure of the wrong kind.
  for (const auto& bytes :
       {std::vector<std::uint8_t>{}, std::vector<std::uint8_t>(text.begin(), text.end()), truncated, trailing,
        chain().leaf.secCertificate()->copyKey()->subjectPublicKeyInfo()}) {
    EXPECT_EQ(ZRBSecCertificate::createWithData(bytes), nullptr) << bytes.size();
  }
}

TEST(SecCertificate, PEMChainsKeepOrderAndSkipOtherBlocks) {
  const auto& c = chain();
  auto leaf = c.leaf.secCertificate();
  auto one = ZRBSecCertificate::createWithPEM(c.chainPEM());
  ASSERT_TRUE(one);
  EXPECT_TRUE(one->isEqual(*leaf));
  // A server bundle with the key first, CR LF line ends and text around the blocks.
  auto all =
      ZRBSecCertificate::createAllWithPEM("subject=localhost\n" + crlf(c.keyPEM() + c.chainPEM()) + "\n");
  ASSERT_EQ(all.size(), 2u);
  EXPECT_TRUE(all[0]->isEqual(*leaf));
  EXPECT_TRUE(all[1]->isEqual(*c.intermediate.secCertificate()));
  auto again = ZRBSecCertificate::createWithPEM(leaf->copyPEM());
  ASSERT_TRUE(again);
  EXPECT_TRUE(again->isEqual(*leaf));
}

TEST(SecCertificate, DamagedPEMGivesNothing) {
  const auto& c = chain();
  std::string pem = c.chainPEM(), leafPEM = c.leaf.pem();
  // Cut inside the second block: the whole chain is refused, not shortened to its first part.
  EXPECT_TRUE(ZRBSecCertificate::createAllWithPEM(pem.substr(0, pem.size() - 100)).empty());
  EXPECT_TRUE(ZRBSecCertificate::createAllWithPEM(c.keyPEM()).empty());
  EXPECT_TRUE(ZRBSecCertificate::createAllWithPEM("").empty());
  // Base64 damage inside a block that is otherwise complete.
  std::string corrupted = leafPEM;
  corrupted[corrupted.find('\n') + 10] = '*';
  for (const auto& text : {leafPEM.substr(0, leafPEM.size() / 2), corrupted,
                           std::string("-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n")}) {
    EXPECT_EQ(ZRBSecCertificate::createWithPEM(text), nullptr) << text;
  }
}

TEST(SecCertificate, SummariesSelfSignedAndValidity) {
  const auto& c = chain();
  auto leaf = c.leaf.secCertificate();
  EXPECT_EQ(leaf->copySubjectSummary(), "localhost");
  EXPECT_EQ(leaf->copyIssuerSummary(), c.intermediate.secCertificate()->copySubjectSummary());
  // Without a common name: the first attribute of the subject (the organisation).
  auto unnamed =
      ZRBTestPKI::issue({.commonName = "", .dnsNames = {"unnamed.test"}}, nullptr).secCertificate();
  EXPECT_EQ(unnamed->copyCommonName(), std::nullopt);
  EXPECT_EQ(unnamed->copySubjectSummary(), "ORVELKIT Tests");

  EXPECT_TRUE(c.root.secCertificate()->isSelfSigned());
  EXPECT_FALSE(c.intermediate.secCertificate()->isSelfSigned());
  auto now = static_cast<std::int64_t>(ZRBDate::now().secondsSince1970);
  EXPECT_LT(leaf->notBefore(), now);
  EXPECT_GT(leaf->notAfter(), now);
}

}  // namespace
