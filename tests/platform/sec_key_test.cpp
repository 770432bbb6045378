// Public keys, their external representation and SubjectPublicKeyInfo hashes, checked against the
// openssl program; and the `orvel pins` command that prints those hashes.
#include "platform/sec_key.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/crypto.h"
#include "platform/sec_certificate.h"
#include "support/test_pki.h"

namespace {

struct Output {
  std::string text;
  int status = -1;
};

Output run(const std::string& command) {
  Output out;
  std::FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.text.append(buffer, n);
  int status = pclose(pipe);
  out.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

void writeFile(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

class TemporaryDirectory {
 public:
  TemporaryDirectory() : path_(ZRBTestPKI::makeTemporaryDirectory()) {}
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// The pin as the openssl program computes it: the certificate's public key as DER
// SubjectPublicKeyInfo, hashed with SHA-256, in base64.
std::string opensslPin(const ZRBTestCertificate& certificate) {
  TemporaryDirectory directory;
  auto file = directory.path() / "certificate.pem";
  writeFile(file, certificate.pem());
  auto out = run("openssl x509 -in '" + file.string() +
                 "' -pubkey -noout | openssl pkey -pubin -outform der | openssl dgst -sha256 -binary");
  EXPECT_EQ(out.status, 0) << "the openssl program is needed (package openssl)";
  EXPECT_EQ(out.text.size(), 32u);
  return ZRBBase64Encode(out.text);
}

std::string pinOf(const ZRBSecKey& key) { return ZRBBase64Encode(key.subjectPublicKeyInfoSHA256()); }

class SecKeyPerType : public testing::TestWithParam<ZRBTestKeyType> {};

TEST_P(SecKeyPerType, HeaderPlusExternalRepresentationIsTheSubjectPublicKeyInfo) {
  auto type = GetParam();
  const auto& leaf = ZRBTestPKI::sharedChain(type).leaf;
  auto key = leaf.secCertificate()->copyKey();
  ASSERT_TRUE(key);

  struct Expected {
    ZRBSecKeyType type;
    int bits;
    ZRBSecKeySPKIKind kind;
    std::size_t representationSize;
  };
  Expected expected =
      type == ZRBTestKeyType::RSA2048   ? Expected{ZRBSecKeyTypeRSA, 2048, ZRBSecKeySPKIKindRSA2048, 270}
      : type == ZRBTestKeyType::RSA4096 ? Expected{ZRBSecKeyTypeRSA, 4096, ZRBSecKeySPKIKindRSA4096, 526}
      : type == ZRBTestKeyType::ECP256  ? Expected{ZRBSecKeyTypeEC, 256, ZRBSecKeySPKIKindECSecp256r1, 65}
                                        : Expected{ZRBSecKeyTypeEC, 384, ZRBSecKeySPKIKindECSecp384r1, 97};
  EXPECT_EQ(key->keyType(), expected.type);
  EXPECT_EQ(key->keySizeInBits(), expected.bits);
  EXPECT_EQ(key->spkiKind(), expected.kind);

  const auto& representation = key->externalRepresentation();
  ASSERT_EQ(representation.size(), expected.representationSize);
  if (expected.type == ZRBSecKeyTypeEC) {
    EXPECT_EQ(representation[0], 0x04);  // uncompressed point
  } else {
    // PKCS#1 RSAPublicKey: SEQUENCE { INTEGER modulus, INTEGER 65537 }.
    EXPECT_EQ(representation[0], 0x30);
    std::vector<std::uint8_t> exponent(representation.end() - 5, representation.end());
    EXPECT_EQ(exponent, (std::vector<std::uint8_t>{0x02, 0x03, 0x01, 0x00, 0x01}));
  }

  ZRBSHA256Context hash;
  hash.update(ZRBSecKeySPKIHeader(expected.kind));
  hash.update(representation);
  auto pin = ZRBBase64Encode(hash.final());
  EXPECT_EQ(pin, opensslPin(leaf));
  EXPECT_EQ(pin, pinOf(*key));
}

INSTANTIATE_TEST_SUITE_P(AllTypes, SecKeyPerType, testing::ValuesIn(kZRBTestKeyTypes),
                         [](const auto& param) { return std::string(ZRBTestKeyTypeName(param.param)); });

TEST(SecKey, HeadersExistOnlyForTheFourKinds) {
  EXPECT_EQ(ZRBSecKeySPKIHeader(ZRBSecKeySPKIKindRSA2048).size(), 24u);
  EXPECT_EQ(ZRBSecKeySPKIHeader(ZRBSecKeySPKIKindRSA4096).size(), 24u);
  EXPECT_EQ(ZRBSecKeySPKIHeader(ZRBSecKeySPKIKindECSecp256r1).size(), 26u);
  EXPECT_EQ(ZRBSecKeySPKIHeader(ZRBSecKeySPKIKindECSecp384r1).size(), 23u);
  EXPECT_TRUE(ZRBSecKeySPKIHeader(-1).empty());
  EXPECT_TRUE(ZRBSecKeySPKIHeader(4).empty());
}

TEST(SecKey, CompressedPointsAreHandedOutUncompressed) {
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
  // Its real SubjectPublicKeyInfo is not header + point, so no standard header is claimed.
  EXPECT_EQ(fromCompressed->spkiKind(), std::nullopt);
  EXPECT_EQ(fromCompressed->subjectPublicKeyInfoSHA256(), ZRBSHA256(fromCompressed->subjectPublicKeyInfo()));
}

TEST(SecKey, OtherAlgorithmsHashTheirSubjectPublicKeyInfo) {
  EVP_PKEY* ed25519 = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
  ASSERT_TRUE(ed25519);
  auto key = ZRBSecKey::createWithEVPKey(ed25519);
  EVP_PKEY_free(ed25519);
  ASSERT_TRUE(key);
  EXPECT_EQ(key->keyType(), ZRBSecKeyTypeOther);
  EXPECT_EQ(key->spkiKind(), std::nullopt);
  EXPECT_EQ(key->externalRepresentation().size(), 32u);
  EXPECT_EQ(key->subjectPublicKeyInfoSHA256(), ZRBSHA256(key->subjectPublicKeyInfo()));
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

// ---- orvel pins ----

TEST(OrvelPins, PrintsTheOpensslPinsOfEveryCertificate) {
  const auto& rsa = ZRBTestPKI::sharedChain(ZRBTestKeyType::RSA4096);
  const auto& ec = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP384);
  TemporaryDirectory directory;
  // The files a test server would use: chain.pem (leaf, intermediate), root.pem.
  auto files = ZRBTestPKI::writeServerFiles(rsa, directory.path());
  auto derFile = directory.path() / "leaf.der";
  auto der = ec.leaf.der();
  writeFile(derFile, std::string_view(reinterpret_cast<const char*>(der.data()), der.size()));

  auto out = run(std::string(ORVEL_PROGRAM_PATH) + " pins '" + files.chain.string() + "' '" +
                 files.root.string() + "' '" + derFile.string() + "'");
  EXPECT_EQ(out.status, 0);
  std::string expected;
  for (const auto* certificate : {&rsa.leaf, &rsa.intermediate, &rsa.root, &ec.leaf}) {
    expected += "pin-sha256=\"" + opensslPin(*certificate) + "\" " +
                certificate->secCertificate()->copySubjectSummary().value() + "\n";
  }
  EXPECT_EQ(out.text, expected);
}

TEST(OrvelPins, BadFilesAreNamedAndTheOthersStillPrinted) {
  const auto& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  TemporaryDirectory directory;
  auto good = directory.path() / "good.pem";
  auto garbage = directory.path() / "garbage.der";
  auto truncated = directory.path() / "truncated.pem";
  auto missing = directory.path() / "missing.pem";
  writeFile(good, chain.leaf.pem());
  writeFile(garbage, "\x30\x82\x01garbage");
  std::string pem = chain.chainPEM();
  writeFile(truncated, pem.substr(0, pem.size() - 80));

  auto errors = directory.path() / "stderr.txt";
  auto out = run(std::string(ORVEL_PROGRAM_PATH) + " pins '" + missing.string() + "' '" + garbage.string() +
                 "' '" + truncated.string() + "' '" + good.string() + "' 2>'" + errors.string() + "'");
  EXPECT_NE(out.status, 0);
  EXPECT_EQ(out.text, "pin-sha256=\"" + opensslPin(chain.leaf) + "\" localhost\n");
  std::stringstream messages;
  messages << std::ifstream(errors).rdbuf();
  for (const auto& name : {missing, garbage, truncated}) {
    EXPECT_NE(messages.str().find(name.string()), std::string::npos) << messages.str();
  }
  EXPECT_EQ(messages.str().find(good.string()), std::string::npos);
}

}  // namespace
