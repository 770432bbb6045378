// orvel pins FILE...: the public-key pins of certificates, one line per certificate:
//   pin-sha256="BASE64" SUBJECT
// BASE64 is the SHA-256 of the certificate's SubjectPublicKeyInfo, the value a pinning
// configuration lists. Files may be PEM (a whole chain) or a single DER certificate; "-" reads
// standard input.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>

#include "commands.h"
#include "platform/foundation/crypto.h"
#include "platform/security/sec_certificate.h"
#include "platform/security/sec_key.h"

namespace {

std::vector<ZRBSecCertificatePtr> certificatesIn(const std::string& contents) {
  if (contents.find("-----BEGIN") != std::string::npos) return ZRBSecCertificate::createAllWithPEM(contents);
  if (auto certificate = ZRBSecCertificate::createWithData(contents)) return {certificate};
  return {};
}

void complain(std::string_view path, const std::string& message) {
  std::fprintf(stderr, "orvel pins: %.*s: %s\n", static_cast<int>(path.size()), path.data(), message.c_str());
}

}  // namespace

int orvelPinsCommand(OrvelArguments arguments) {
  if (arguments.empty()) {
    std::fprintf(stderr, "usage: orvel pins FILE...\n");
    return 2;
  }
  int status = 0;
  for (std::string_view path : arguments) {
    errno = 0;
    auto contents = orvelReadFile(path);
    if (!contents) {
      complain(path, std::string("cannot read: ") + std::strerror(errno != 0 ? errno : EIO));
      status = 1;
      continue;
    }
    auto certificates = certificatesIn(*contents);
    if (certificates.empty()) {
      complain(path, "not a certificate (PEM or DER)");
      status = 1;
      continue;
    }
    for (std::size_t index = 0; index < certificates.size(); ++index) {
      auto key = certificates[index]->copyKey();
      if (!key) {
        complain(path, "certificate " + std::to_string(index + 1) + ": unsupported public key");
        status = 1;
        continue;
      }
      auto pin = ZRBBase64Encode(key->subjectPublicKeyInfoSHA256());
      auto subject = certificates[index]->copySubjectSummary().value_or("(no subject)");
      std::printf("pin-sha256=\"%s\" %s\n", pin.c_str(), subject.c_str());
    }
  }
  std::fflush(stdout);
  return status;
}
