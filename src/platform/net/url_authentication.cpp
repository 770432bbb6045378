#include "platform/net/url_authentication.h"

#include "platform/foundation/string_format.h"

ZRBURLProtectionSpace::ZRBURLProtectionSpace(std::string host, long port, std::string protocol,
                                             std::optional<std::string> realm,
                                             std::string authenticationMethod, ZRBSecTrustPtr serverTrust)
    : host_(std::move(host)),
      port_(port),
      protocol_(std::move(protocol)),
      realm_(std::move(realm)),
      authenticationMethod_(std::move(authenticationMethod)),
      serverTrust_(std::move(serverTrust)) {}

std::string ZRBURLProtectionSpace::description() const {
  return ZRBStringWithFormat("<%@: %p>: Host:%@, Server:%@, Auth-Scheme:%@, Realm:%@, Port:%ld", className(),
                             this, host_, protocol_, authenticationMethod_,
                             realm_ ? ZRBValue(*realm_) : ZRBValue(), port_);
}

ZRBURLCredentialPtr ZRBURLCredential::credentialWithUser(std::string user, std::string password,
                                                         ZRBURLCredentialPersistence persistence) {
  auto credential = std::make_shared<ZRBURLCredential>(Private{});
  credential->user_ = std::move(user);
  credential->password_ = std::move(password);
  credential->persistence_ = persistence;
  return credential;
}

ZRBURLCredentialPtr ZRBURLCredential::credentialForTrust(ZRBSecTrustPtr trust) {
  if (!trust) return nullptr;
  auto credential = std::make_shared<ZRBURLCredential>(Private{});
  credential->trust_ = std::move(trust);
  credential->persistence_ = ZRBURLCredentialPersistenceForSession;
  return credential;
}

std::string ZRBURLCredential::description() const {
  // The password never appears in diagnostics.
  return ZRBStringWithFormat("<%@: %p>: %@", className(), this,
                             trust_ ? ZRBValue("server trust") : ZRBValue(user_.value_or("")));
}

ZRBURLAuthenticationChallenge::ZRBURLAuthenticationChallenge(ZRBURLProtectionSpacePtr space,
                                                             ZRBURLCredentialPtr proposedCredential,
                                                             long previousFailureCount,
                                                             ZRBURLResponsePtr failureResponse,
                                                             ZRBErrorPtr error)
    : space_(std::move(space)),
      proposedCredential_(std::move(proposedCredential)),
      previousFailureCount_(previousFailureCount),
      failureResponse_(std::move(failureResponse)),
      error_(std::move(error)) {}

ZRBURLAuthenticationChallenge::ZRBURLAuthenticationChallenge(
    const ZRBURLAuthenticationChallenge& challenge,
    std::shared_ptr<ZRBURLAuthenticationChallengeSender> sender)
    : ZRBObject(),
      space_(challenge.space_),
      proposedCredential_(challenge.proposedCredential_),
      previousFailureCount_(challenge.previousFailureCount_),
      failureResponse_(challenge.failureResponse_),
      error_(challenge.error_),
      sender_(std::move(sender)) {}

std::string ZRBURLAuthenticationChallenge::description() const {
  return ZRBStringWithFormat("<%@: %p> { space: %@, failures: %ld }", className(), this,
                             space_ ? space_->description() : std::string("(null)"), previousFailureCount_);
}
