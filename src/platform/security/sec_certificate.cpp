#include "platform/security/sec_certificate.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <functional>

#include "platform/foundation/crypto.h"
#include "platform/security/sec_key.h"

namespace {

std::optional<std::string> utf8(const ASN1_STRING* value) {
  if (!value) return std::nullopt;
  unsigned char* text = nullptr;
  int length = ASN1_STRING_to_UTF8(&text, value);
  if (length < 0) return std::nullopt;
  std::string out(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
  OPENSSL_free(text);
  return out;
}

std::optional<std::string> lastCommonName(const X509_NAME* name) {
  int found = -1;
  for (int index = -1; (index = X509_NAME_get_index_by_NID(name, NID_commonName, index)) >= 0;) found = index;
  if (found < 0) return std::nullopt;
  return utf8(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, found)));
}

std::optional<std::string> nameSummary(const X509_NAME* name) {
  if (!name) return std::nullopt;
  if (auto common = lastCommonName(name)) return common;
  if (X509_NAME_entry_count(name) > 0) return utf8(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, 0)));
  return std::nullopt;
}

std::optional<std::string> firstDNSName(X509* x509) {
  auto* names = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(x509, NID_subject_alt_name, nullptr, nullptr));
  std::optional<std::string> out;
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names) && !out; ++i) {
    const GENERAL_NAME* entry = sk_GENERAL_NAME_value(names, i);
    if (entry->type == GEN_DNS) out = utf8(entry->d.dNSName);
  }
  GENERAL_NAMES_free(names);
  return out;
}

std::int64_t seconds(const ASN1_TIME* time) {
  std::tm tm{};
  if (!time || ASN1_TIME_to_tm(time, &tm) != 1) return 0;
  return static_cast<std::int64_t>(timegm(&tm));
}

}  // namespace

ZRBSecCertificate::ZRBSecCertificate(Private, x509_st* x509, std::vector<std::uint8_t> der)
    : x509_(x509), der_(std::move(der)) {
  // OpenSSL decodes a certificate's extensions into the X509 object on first use during a
  // verification, and readers on other threads may see that half done. Decoding them here, before
  // the object is shared, leaves concurrent verifications only reading.
  X509_check_purpose(x509_, -1, 0);
}

ZRBSecCertificate::~ZRBSecCertificate() { X509_free(x509_); }

ZRBSecCertificatePtr ZRBSecCertificate::createWithData(std::span<const std::uint8_t> der) {
  if (der.empty()) return nullptr;
  const unsigned char* cursor = der.data();
  ERR_set_mark();
  X509* x509 = d2i_X509(nullptr, &cursor, static_cast<long>(der.size()));
  ERR_pop_to_mark();
  if (!x509) return nullptr;
  if (cursor != der.data() + der.size()) {
    X509_free(x509);
    return nullptr;
  }
  return std::make_shared<ZRBSecCertificate>(Private{}, x509,
                                             std::vector<std::uint8_t>(der.begin(), der.end()));
}

ZRBSecCertificatePtr ZRBSecCertificate::createWithData(std::string_view der) {
  return createWithData(
      std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(der.data()), der.size()));
}

ZRBSecCertificatePtr ZRBSecCertificate::createWithX509(x509_st* x509) {
  if (!x509) return nullptr;
  unsigned char* buffer = nullptr;
  ERR_set_mark();
  int length = i2d_X509(x509, &buffer);
  ERR_pop_to_mark();
  if (length <= 0) {
    OPENSSL_free(buffer);
    return nullptr;
  }
  std::vector<std::uint8_t> der(buffer, buffer + length);
  OPENSSL_free(buffer);
  X509_up_ref(x509);
  return std::make_shared<ZRBSecCertificate>(Private{}, x509, std::move(der));
}

std::vector<ZRBSecCertificatePtr> ZRBSecCertificate::createAllWithPEM(std::string_view pem) {
  std::vector<ZRBSecCertificatePtr> out;
  if (pem.empty()) return out;
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (!bio) return out;
  // Leave errors that were queued before us alone; ours are expected and dropped.
  ERR_set_mark();
  bool damaged = false;
  while (X509* x509 = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
    auto certificate = createWithX509(x509);
    X509_free(x509);
    if (!certificate) {
      damaged = true;
      break;
    }
    out.push_back(std::move(certificate));
  }
  // The loop ends with "no start line" once the text is used up; any other reason is a block that
  // began but could not be read.
  unsigned long error = ERR_peek_last_error();
  if (error != 0 && !(ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE)) {
    damaged = true;
  }
  ERR_pop_to_mark();
  BIO_free(bio);
  if (damaged) out.clear();
  return out;
}

ZRBSecCertificatePtr ZRBSecCertificate::createWithPEM(std::string_view pem) {
  if (pem.empty()) return nullptr;
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (!bio) return nullptr;
  ERR_set_mark();
  X509* x509 = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  ERR_pop_to_mark();
  BIO_free(bio);
  auto certificate = createWithX509(x509);
  X509_free(x509);
  return certificate;
}

std::string ZRBSecCertificate::copyPEM() const {
  return "-----BEGIN CERTIFICATE-----\n" +
         ZRBBase64Encode(der_,
                         ZRBBase64Encoding64CharacterLineLength | ZRBBase64EncodingEndLineWithLineFeed) +
         "\n-----END CERTIFICATE-----\n";
}

std::optional<std::string> ZRBSecCertificate::copySubjectSummary() const {
  if (auto summary = nameSummary(X509_get_subject_name(x509_))) return summary;
  return firstDNSName(x509_);
}

std::optional<std::string> ZRBSecCertificate::copyCommonName() const {
  return lastCommonName(X509_get_subject_name(x509_));
}

std::optional<std::string> ZRBSecCertificate::copyIssuerSummary() const {
  return nameSummary(X509_get_issuer_name(x509_));
}

ZRBSecKeyPtr ZRBSecCertificate::copyKey() const {
  // Decoded once: the pin validator and the security policy ask for the same key many times.
  std::call_once(keyOnce_, [this] { key_ = ZRBSecKey::createWithEVPKey(X509_get0_pubkey(x509_)); });
  return key_;
}

std::int64_t ZRBSecCertificate::notBefore() const { return seconds(X509_get0_notBefore(x509_)); }
std::int64_t ZRBSecCertificate::notAfter() const { return seconds(X509_get0_notAfter(x509_)); }

bool ZRBSecCertificate::isSelfSigned() const {
  ERR_set_mark();
  bool result = X509_self_signed(x509_, 1) == 1;
  ERR_pop_to_mark();
  return result;
}

std::string ZRBSecCertificate::description() const {
  return "<ZRBSecCertificate " + ZRBFormatPointer(this) + " s: " + copySubjectSummary().value_or("(null)") +
         " i: " + copyIssuerSummary().value_or("(null)") + ">";
}

bool ZRBSecCertificate::isEqual(const ZRBObject& other) const {
  if (this == &other) return true;
  auto* certificate = dynamic_cast<const ZRBSecCertificate*>(&other);
  return certificate && certificate->der_ == der_;
}

std::size_t ZRBSecCertificate::hash() const {
  return std::hash<std::string_view>{}(
      std::string_view(reinterpret_cast<const char*>(der_.data()), der_.size()));
}
