// Authentication challenges of the URL loading service: protection spaces, credentials, challenges
// and the dispositions a delegate answers with.
//
// A server-trust challenge carries the peer's chain in a ZRBSecTrust (certificates as the server
// sent them, with an SSL policy for the host). Answering it:
// - UseCredential with a server-trust credential: the connection proceeds with that trust, whatever
//   its evaluation says (the delegate has judged it). UseCredential without a credential behaves as
//   default handling.
// - PerformDefaultHandling: the system's own verification (system anchors, host name check).
// - CancelAuthenticationChallenge: the task fails with ZRBURLErrorCancelled (-999).
// - RejectProtectionSpace: there is no other protection space to try, so default handling.
//
// HTTP challenges (401 and 407 with Basic or Digest) are offered to the task-level callback; a
// credential with a user and password retries the request, default handling or rejection deliver the
// 401/407 response, cancel fails the task with -999.
//
// A challenge of the connection API also carries its sender (ZRBURLAuthenticationChallengeSender),
// through which the one who handles it answers; a session's challenge has none and is answered
// through a completion handler instead.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/net/http_url_response.h"
#include "platform/security/sec_trust.h"

enum ZRBURLSessionAuthChallengeDisposition : long {
  ZRBURLSessionAuthChallengeUseCredential = 0,
  ZRBURLSessionAuthChallengePerformDefaultHandling = 1,
  ZRBURLSessionAuthChallengeCancelAuthenticationChallenge = 2,
  ZRBURLSessionAuthChallengeRejectProtectionSpace = 3,
};

// Authentication methods of a protection space.
inline constexpr std::string_view ZRBURLAuthenticationMethodDefault = "ZRBURLAuthenticationMethodDefault";
inline constexpr std::string_view ZRBURLAuthenticationMethodHTTPBasic = "ZRBURLAuthenticationMethodHTTPBasic";
inline constexpr std::string_view ZRBURLAuthenticationMethodHTTPDigest =
    "ZRBURLAuthenticationMethodHTTPDigest";
inline constexpr std::string_view ZRBURLAuthenticationMethodServerTrust =
    "ZRBURLAuthenticationMethodServerTrust";
inline constexpr std::string_view ZRBURLAuthenticationMethodClientCertificate =
    "ZRBURLAuthenticationMethodClientCertificate";

enum ZRBURLCredentialPersistence : unsigned long {
  ZRBURLCredentialPersistenceNone = 0,
  ZRBURLCredentialPersistenceForSession = 1,
  ZRBURLCredentialPersistencePermanent = 2,
  ZRBURLCredentialPersistenceSynchronizable = 3,
};

class ZRBURLProtectionSpace;
class ZRBURLCredential;
class ZRBURLAuthenticationChallengeSender;
class ZRBURLAuthenticationChallenge;
using ZRBURLProtectionSpacePtr = std::shared_ptr<const ZRBURLProtectionSpace>;
using ZRBURLCredentialPtr = std::shared_ptr<const ZRBURLCredential>;
using ZRBURLAuthenticationChallengePtr = std::shared_ptr<const ZRBURLAuthenticationChallenge>;

class ZRBURLProtectionSpace final : public ZRBObject {
 public:
  // `protocol` is the URL scheme ("https"); `serverTrust` only for the server-trust method.
  ZRBURLProtectionSpace(std::string host, long port, std::string protocol, std::optional<std::string> realm,
                        std::string authenticationMethod, ZRBSecTrustPtr serverTrust = nullptr);

  const std::string& host() const { return host_; }
  long port() const { return port_; }
  const std::string& protocol() const { return protocol_; }
  const std::optional<std::string>& realm() const { return realm_; }
  const std::string& authenticationMethod() const { return authenticationMethod_; }
  bool receivesCredentialSecurely() const { return protocol_ == "https"; }
  const ZRBSecTrustPtr& serverTrust() const { return serverTrust_; }

  std::string className() const override { return "ZRBURLProtectionSpace"; }
  std::string description() const override;

 private:
  std::string host_;
  long port_;
  std::string protocol_;
  std::optional<std::string> realm_;
  std::string authenticationMethod_;
  ZRBSecTrustPtr serverTrust_;
};

class ZRBURLCredential final : public ZRBObject {
 public:
  static ZRBURLCredentialPtr credentialWithUser(std::string user, std::string password,
                                                ZRBURLCredentialPersistence persistence);
  static ZRBURLCredentialPtr credentialForTrust(ZRBSecTrustPtr trust);

  const std::optional<std::string>& user() const { return user_; }
  const std::optional<std::string>& password() const { return password_; }
  bool hasPassword() const { return password_.has_value(); }
  ZRBURLCredentialPersistence persistence() const { return persistence_; }
  // Set for server-trust credentials.
  const ZRBSecTrustPtr& serverTrust() const { return trust_; }

  std::string className() const override { return "ZRBURLCredential"; }
  std::string description() const override;

  struct Private {};
  explicit ZRBURLCredential(Private) {}

 private:
  std::optional<std::string> user_;
  std::optional<std::string> password_;
  ZRBURLCredentialPersistence persistence_ = ZRBURLCredentialPersistenceNone;
  ZRBSecTrustPtr trust_;
};

class ZRBURLAuthenticationChallenge final : public ZRBObject {
 public:
  ZRBURLAuthenticationChallenge(ZRBURLProtectionSpacePtr space, ZRBURLCredentialPtr proposedCredential,
                                long previousFailureCount, ZRBURLResponsePtr failureResponse,
                                ZRBErrorPtr error);
  // The same challenge, answered through `sender`.
  ZRBURLAuthenticationChallenge(const ZRBURLAuthenticationChallenge& challenge,
                                std::shared_ptr<ZRBURLAuthenticationChallengeSender> sender);

  const ZRBURLProtectionSpacePtr& protectionSpace() const { return space_; }
  const ZRBURLCredentialPtr& proposedCredential() const { return proposedCredential_; }
  long previousFailureCount() const { return previousFailureCount_; }
  // The 401/407 response of an HTTP challenge; null for server trust.
  const ZRBURLResponsePtr& failureResponse() const { return failureResponse_; }
  const ZRBErrorPtr& error() const { return error_; }
  // Null unless the challenge was made with one.
  const std::shared_ptr<ZRBURLAuthenticationChallengeSender>& sender() const { return sender_; }

  std::string className() const override { return "ZRBURLAuthenticationChallenge"; }
  std::string description() const override;

 private:
  ZRBURLProtectionSpacePtr space_;
  ZRBURLCredentialPtr proposedCredential_;
  long previousFailureCount_;
  ZRBURLResponsePtr failureResponse_;
  ZRBErrorPtr error_;
  std::shared_ptr<ZRBURLAuthenticationChallengeSender> sender_;
};

// The answer to a challenge; called exactly once.
using ZRBURLSessionChallengeCompletion =
    std::function<void(ZRBURLSessionAuthChallengeDisposition disposition, ZRBURLCredentialPtr credential)>;
