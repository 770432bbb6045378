// ZRBSecPolicy: what a trust evaluation checks besides the chain itself.
//
// Two kinds exist: the SSL policy (a TLS server's or client's certificate; for a server, optionally
// bound to the host name the client connected to) and the basic X.509 policy (a chain of valid,
// correctly signed certificates up to an anchor, nothing more). Policies are immutable.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/object.h"

class ZRBSecCertificate;
class ZRBSecPolicy;
using ZRBSecPolicyPtr = std::shared_ptr<ZRBSecPolicy>;

enum ZRBSecPolicyKind {
  ZRBSecPolicyKindBasicX509 = 0,
  ZRBSecPolicyKindSSL = 1,
};

class ZRBSecPolicy final : public ZRBObject {
 public:
  // The SSL policy. For a server (`server` true) the leaf must allow server authentication (its
  // extended key usage, when present) and, when a non-empty host name is given, match it:
  //   - an IP address (IPv4, or IPv6 with or without brackets) matches only IP-address subject
  //     alternative names;
  //   - a DNS name matches the DNS subject alternative names, case-insensitively, with one
  //     trailing dot ignored; a wildcard counts only as the whole left-most label ("*.example.com")
  //     and stands for exactly one label; the subject common name is consulted only when the
  //     certificate has no DNS subject alternative name at all.
  // For a client (`server` false) the leaf must allow client authentication; the host is ignored.
  static ZRBSecPolicyPtr createSSL(bool server, std::optional<std::string> hostname = std::nullopt);
  static ZRBSecPolicyPtr createBasicX509();

  ZRBSecPolicyKind kind() const { return kind_; }
  bool isServer() const { return server_; }
  // The host name given at creation; nullopt for basic policies and SSL policies without one.
  const std::optional<std::string>& hostname() const { return hostname_; }

  // Whether the certificate satisfies this policy's host-name rule (always true when the policy
  // has no host name to check).
  bool matchesHostName(const ZRBSecCertificate& leaf) const;

  std::string className() const override { return "ZRBSecPolicy"; }
  std::string description() const override;

  // Use the create functions; the constructor is public only for std::make_shared.
  struct Private {};
  ZRBSecPolicy(Private, ZRBSecPolicyKind kind, bool server, std::optional<std::string> hostname);

 private:
  ZRBSecPolicyKind kind_;
  bool server_;
  std::optional<std::string> hostname_;
  // The host as it is checked: brackets and one trailing dot removed; whether it is an IP address.
  std::string checkedHost_;
  bool hostIsAddress_ = false;
};
