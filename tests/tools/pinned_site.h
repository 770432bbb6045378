// A loopback TLS server that answers "hello" at /hello as "api.example.com" (pinning configurations
// need a name with a public suffix), issued by the test PKI's shared P-256 CAs; a plain server that
// collects failure reports at /report; and a directory of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/foundation/crypto.h"
#include "platform/security/sec_key.h"
#include "support/test_pki.h"
#include "support/test_server.h"

// The base64 SHA-256 of a certificate's SubjectPublicKeyInfo, as configurations write pins.
inline std::string pinOf(const ZRBTestCertificate& certificate) {
  return ZRBBase64Encode(certificate.secCertificate()->copyKey()->subjectPublicKeyInfoSHA256());
}

class PinnedSiteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const ZRBTestChain& shared = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
    chain_.root = shared.root;
    chain_.intermediate = shared.intermediate;
    chain_.leaf = ZRBTestPKI::issue({.commonName = "api.example.com", .dnsNames = {"api.example.com"}},
                                    &chain_.intermediate);
    server_ = std::make_unique<ZRBTestServer>(ZRBTestServerOptions{.tls = chain_});
    server_->respond("GET", "/hello", ZRBTestResponse::text(200, "hello"));
    server_->start();
    reports_.uploadSink("/report", {.keepLimit = 1 << 16});
    reports_.start();
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  std::string port() const { return std::to_string(server_->port()); }

  std::filesystem::path directory_ = ZRBTestPKI::makeTemporaryDirectory();
  ZRBTestChain chain_;
  std::unique_ptr<ZRBTestServer> server_;
  ZRBTestServer reports_;
};
