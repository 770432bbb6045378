// `orvel pins`: the public-key pins of every certificate in PEM or DER files, checked against the
// openssl program, and the files it cannot read.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/foundation/crypto.h"
#include "platform/security/sec_certificate.h"
#include "run_command.h"
#include "support/temporary_directory.h"
#include "support/test_pki.h"

namespace {

// The pin as the openssl program computes it: the certificate's public key as DER
// SubjectPublicKeyInfo, hashed with SHA-256, in base64.
std::string opensslPin(const ZRBTestCertificate& certificate) {
  const ZRBTestTemporaryDirectory directory;
  auto [digest, status] =
      runCommand("openssl x509 -in '" + directory.write("certificate.pem", certificate.pem()) +
                     "' -pubkey -noout | openssl pkey -pubin -outform der | openssl dgst -sha256 -binary",
                 false);
  EXPECT_EQ(status, 0) << "the openssl program is needed (package openssl)";
  EXPECT_EQ(digest.size(), 32u);
  return ZRBBase64Encode(digest);
}

std::string pinsCommand(const std::vector<std::filesystem::path>& files) {
  std::string command = ORVEL_PROGRAM_PATH " pins";
  for (const auto& file : files) command += " '" + file.string() + "'";
  return command;
}

TEST(OrvelPins, PrintsTheOpensslPinsOfEveryCertificate) {
  const auto& rsa = ZRBTestPKI::sharedChain(ZRBTestKeyType::RSA2048);
  const auto& ec = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP384);
  const ZRBTestTemporaryDirectory directory;
  // The files a test server would use: chain.pem (leaf, intermediate), root.pem; and a DER file.
  auto files = ZRBTestPKI::writeServerFiles(rsa, directory.path);
  auto der = ec.leaf.der();
  auto derFile =
      directory.write("leaf.der", std::string_view(reinterpret_cast<const char*>(der.data()), der.size()));

  auto [out, status] = runCommand(pinsCommand({files.chain, files.root, derFile}), false);
  EXPECT_EQ(status, 0);
  std::string expected;
  for (const auto* certificate : {&rsa.leaf, &rsa.intermediate, &rsa.root, &ec.leaf}) {
    expected += "pin-sha256=\"" + opensslPin(*certificate) + "\" " +
                certificate->secCertificate()->copySubjectSummary().value() + "\n";
  }
  EXPECT_EQ(out, expected);
}

TEST(OrvelPins, BadFilesAreNamedAndTheOthersStillPrinted) {
  const auto& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  const ZRBTestTemporaryDirectory directory;
  auto path = [&](const char* name) { return directory.path / name; };
  directory.write("good.pem", chain.leaf.pem());
  directory.write("garbage.der", "\x30\x82\x01garbage");
  std::string pem = chain.chainPEM();
  directory.write("truncated.pem", pem.substr(0, pem.size() - 80));

  auto errors = path("stderr.txt");
  auto [out, status] = runCommand(
      pinsCommand({path("missing.pem"), path("garbage.der"), path("truncated.pem"), path("good.pem")}) +
          " 2>'" + errors.string() + "'",
      false);
  EXPECT_NE(status, 0);
  EXPECT_EQ(out, "pin-sha256=\"" + opensslPin(chain.leaf) + "\" localhost\n");
  const std::string messages = ZRBTestReadFile(errors);
  for (const char* name : {"missing.pem", "garbage.der", "truncated.pem"})
    EXPECT_NE(messages.find(path(name).string()), std::string::npos) << messages;
  EXPECT_EQ(messages.find(path("good.pem").string()), std::string::npos);
}

}  // namespace
