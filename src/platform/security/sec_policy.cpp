#include "platform/security/sec_policy.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "platform/security/sec_certificate.h"

namespace {

bool isIPAddress(const std::string& host) {
  unsigned char buffer[16];
  return inet_pton(AF_INET, host.c_str(), buffer) == 1 || inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

}  // namespace

ZRBSecPolicy::ZRBSecPolicy(Private, ZRBSecPolicyKind kind, bool server, std::optional<std::string> hostname)
    : kind_(kind), server_(server), hostname_(std::move(hostname)) {
  if (kind_ != ZRBSecPolicyKindSSL || !server_ || !hostname_) return;
  std::string host = *hostname_;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  if (isIPAddress(host)) {
    hostIsAddress_ = true;
  } else if (host.size() > 1 && host.back() == '.') {
    host.pop_back();
  }
  checkedHost_ = std::move(host);
}

ZRBSecPolicyPtr ZRBSecPolicy::createSSL(bool server, std::optional<std::string> hostname) {
  // An empty name is no name: there is nothing a certificate could be matched against.
  if (hostname && hostname->empty()) hostname.reset();
  return std::make_shared<ZRBSecPolicy>(Private{}, ZRBSecPolicyKindSSL, server, std::move(hostname));
}

ZRBSecPolicyPtr ZRBSecPolicy::createBasicX509() {
  return std::make_shared<ZRBSecPolicy>(Private{}, ZRBSecPolicyKindBasicX509, false, std::nullopt);
}

bool ZRBSecPolicy::matchesHostName(const ZRBSecCertificate& leaf) const {
  if (kind_ != ZRBSecPolicyKindSSL || !server_ || !hostname_) return true;
  // A name with an embedded NUL can only be an attack on C-string comparisons; one with a '*'
  // names no host, and OpenSSL would let it match a wildcard name literally.
  if (checkedHost_.find_first_of(std::string_view("\0*", 2)) != std::string::npos) return false;
  ERR_set_mark();
  int match;
  if (hostIsAddress_) {
    match = X509_check_ip_asc(leaf.x509(), checkedHost_.c_str(), 0);
  } else {
    // OpenSSL's defaults already give the browser rules: DNS names before the common name, which
    // counts only without DNS names; a wildcard only left-most and for one label. Partial-label
    // wildcards ("w*.example.com") are what browsers refuse and OpenSSL accepts unless told.
    match = X509_check_host(leaf.x509(), checkedHost_.data(), checkedHost_.size(),
                            X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS, nullptr);
  }
  ERR_pop_to_mark();
  return match == 1;
}

std::string ZRBSecPolicy::description() const {
  std::string text = "<ZRBSecPolicy " + ZRBFormatPointer(this) + ": ";
  if (kind_ == ZRBSecPolicyKindBasicX509) return text + "basic X.509>";
  text += server_ ? "SSL server" : "SSL client";
  if (hostname_) text += ", host: " + *hostname_;
  return text + ">";
}
