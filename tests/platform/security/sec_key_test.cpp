// Public keys, their external representation and SubjectPublicKeyInfo hashes, checked against the
// openssl program.
#include "platform/security/sec_key.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/wait.h>

#include <cstdio>

#include "platform/foundation/crypto.h"
#include "platform/security/sec_certificate.h"
#include "support/temporary_directory.h"
#include "support/test_pki.h"

namespace {

// Output and exit status of a shell command.
std::pair<std::string, int> run(const std::string& command) {
  std::string text;
  std::FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return {text, -1};
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, n);
  int status = pclose(pipe);
  return {text, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

// The pin as the openssl program computes it: the certificate's public key as DER
// SubjectPublicKeyInfo, hashed with SHA-256, in base64.
std::string opensslPin(const ZRBTestCertificate& certificate) {
  ZRBTestTemporaryDirectory directory;
  auto file = directory.write("certificate.pem", certificate.pem());
  auto [digest, status] =
      run("openssl x509 -in '" + file +
          "' -pubkey -noout | openssl pkey -pubin -outform der | openssl dgst -sha256 -binary");
  EXPECT_EQ(status, 0) << "the openssl program is needed (package openssl)";
  EXPECT_EQ(digest.size(), 32u);
  return ZRBBase64Encode(digest);
}

class SecKeyPerType : public testing::TestWithParam<ZRBTestKeyType> {};

TEST_P(SecKeyPerType, HeaderPlusExternalRepresentationIsTheSubjectPublicKeyInfo) {
  struct Expected {
    ZRBSecKeyType type;
    int bits;
    ZRBSecKeySPKIKind kind;
  };
  const Expected table[] = {{ZRBSecKeyTypeRSA, 2048, ZRBSecKeySPKIKindRSA2048},
                            {ZRBSecKeyTypeRSA, 4096, ZRBSecKeySPKIKindRSA4096},
                            {ZRBSecKeyTypeEC, 256, ZRBSecKeySPKIKindECSecp256r1},
                            {ZRBSecKeyTypeEC, 384, ZRBSecKeySPKIKindECSecp384r1}};
  const Expected& expected = table[static_cast<int>(GetParam())];
  const auto& leaf = ZRBTestPKI::sharedChain(GetParam()).leaf;
  auto key = leaf.secCertificate()->copyKey();
  ASSERT_TRUE(key);
  EXPECT_EQ(key->keyType(), expected.type);
  EXPECT_EQ(key->keySizeInBits(), expected.bits);
  EXPECT_EQ(key->spkiKind(), expected.kind);
  // Matching the openssl pin proves header and representation byte for byte.
  ZRBSHA256Context hash;
  hash.update(ZRBSecKeySPKIHeader(expected.kind));
  hash.update(key->externalRepresentation());
  auto pin = ZRBBase64Encode(hash.final());
  EXPECT_EQ(pin, opensslPin(leaf));
  EXPECT_EQ(pin, ZRBBase64Encode(key->subjectPublicKeyInfoSHA256()));
}

INSTANTIATE_TEST_SUITE_P(AllTypes, SecKeyPerType, testing::ValuesIn(kZRBTestKeyTypes),
                         [](const auto& param) { return std::string(ZRBTestKeyTypeName(param.param)); });

TEST(SecKey, KeysWithoutAStandardHeaderHashTheirRealSubjectPublicKeyInfo) {
  EXPECT_TRUE(ZRBSecKeySPKIHeader(-1).empty());
  EXPECT_TRUE(ZRBSecKeySPKIHeader(4).empty());

  // A P-256 key whose SubjectPublicKeyInfo holds the compressed point: handed out uncompressed.
  auto key = ZRBTestPKI::key(ZRBTestKeyType::ECP256);
  EVP_PKEY* compressed = EVP_PKEY_dup(key.get());
  ASSERT_TRUE(compressed);
  ASSERT_EQ(
      EVP_PKEY_set_utf8_string_param(compressed, OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, "compressed"),
      1);
  unsigned char* der = nullptr;
  int length = i2d_PUBKEY(compressed, &der);
  ASSERT_GT(length, 0);
  auto fromCompressed = ZRBSecKey::createWithSubjectPublicKeyInfo({der, static_cast<std::size_t>(length)});
  OPENSSL_free(der);
  EVP_PKEY_free(compressed);
  auto plain = ZRBSecKey::createWithEVPKey(key.get());
  ASSERT_TRUE(fromCompressed && plain);
  EXPECT_EQ(fromCompressed->subjectPublicKeyInfo().size(), 59u);  // 26 - 1 + 33 + 1
  EXPECT_EQ(fromCompressed->externalRepresentation(), plain->externalRepresentation());
  EXPECT_TRUE(fromCompressed->isEqual(*plain));

  EVP_PKEY* ed25519 = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
  ASSERT_TRUE(ed25519);
  auto other = ZRBSecKey::createWithEVPKey(ed25519);
  EVP_PKEY_free(ed25519);
  ASSERT_TRUE(other);
  EXPECT_EQ(other->keyType(), ZRBSecKeyTypeOther);
  EXPECT_EQ(other->externalRepresentation().size(), 32u);
  // Neither SubjectPublicKeyInfo is header + representation, so no standard header is claimed.
  for (const auto& k : {fromCompressed, other}) {
    EXPECT_EQ(k->spkiKind(), std::nullopt);
    EXPECT_EQ(k->subjectPublicKeyInfoSHA256(), ZRBSHA256(k->subjectPublicKeyInfo()));
  }
}

TEST(SecKey, EqualityIsByEncodedKey) {
  // Roots of two chains are different certificates over the same cached key.
  auto a = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256).root.secCertificate();
  auto b = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP384).root.secCertificate();
  ASSERT_FALSE(a->isEqual(*b));
  EXPECT_TRUE(a->copyKey()->isEqual(*b->copyKey()));
  EXPECT_EQ(a->copyKey()->hash(), b->copyKey()->hash());
  auto leaf = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256).leaf.secCertificate();
  EXPECT_FALSE(a->copyKey()->isEqual(*leaf->copyKey()));
  EXPECT_EQ(ZRBSecKey::createWithSubjectPublicKeyInfo(a->copyKey()->externalRepresentation()), nullptr);
}

}  // namespace
