// ZRB_PGDNSURLConnectionDelegateProxy: stands between a URL connection and its delegate so that the
// connection's server-trust challenges go through the shared pin guard's validator first.
//
// swizzleNSURLConnectionConstructors replaces both initWithRequest forms of ZRBURLConnection: a
// delegate whose class is not one of the pinning library's own (ZRB_PGDIsPinGuardClassName) is
// wrapped in a proxy before the connection is made. The two class operations take no delegate, so
// their connections cannot be pinned: they log a warning naming the host and go on unchanged.
//
// A server-trust challenge for a pinned host is answered through its sender: allowed -> a
// credential for the trust; blocked -> cancel. Anything else goes to the delegate's
// connectionWillSendRequestForAuthenticationChallenge, else its older pair (can authenticate, then
// did receive), else default handling. Every other operation, and whether it is implemented, is
// the delegate's.
#pragma once

#include <memory>
#include <string>

#include "platform/net/url_connection.h"
#include "platform/net/url_connection_delegate.h"

class ZRB_PinGuard;
using ZRB_PinGuardPtr = std::shared_ptr<ZRB_PinGuard>;

class ZRB_PGDNSURLConnectionDelegateProxy;
using ZRB_PGDNSURLConnectionDelegateProxyPtr = std::shared_ptr<ZRB_PGDNSURLConnectionDelegateProxy>;

class ZRB_PGDNSURLConnectionDelegateProxy final : public ZRBURLConnectionDelegate {
 public:
  // Installs the proxy on every connection constructed from now on, and the warnings of the two
  // class operations. Called once, with the shared instance, which the replacements keep.
  static void swizzleNSURLConnectionConstructors(const ZRB_PinGuardPtr& pinGuard);

  static ZRB_PGDNSURLConnectionDelegateProxyPtr initWithPinGuard(
      ZRB_PinGuardPtr pinGuard, ZRBURLConnectionDelegatePtr connectionDelegate);

  const ZRB_PinGuardPtr& pinGuard() const { return pinGuard_; }
  const ZRBURLConnectionDelegatePtr& connectionDelegate() const { return connectionDelegate_; }

  bool respondsToOperation(ZRBURLConnectionDelegateOperation operation) const override;
  void connectionWillSendRequestForAuthenticationChallenge(
      const ZRBURLConnectionPtr& connection, const ZRBURLAuthenticationChallengePtr& challenge) override;
  void forwardToOriginalDelegateAuthenticationChallenge(const ZRBURLAuthenticationChallengePtr& challenge,
                                                        const ZRBURLConnectionPtr& connection);

  // ---- forwarded to the delegate ----
  bool connectionCanAuthenticateAgainstProtectionSpace(
      const ZRBURLConnectionPtr& connection, const ZRBURLProtectionSpacePtr& protectionSpace) override;
  void connectionDidReceiveAuthenticationChallenge(
      const ZRBURLConnectionPtr& connection, const ZRBURLAuthenticationChallengePtr& challenge) override;
  void connectionDidReceiveResponse(const ZRBURLConnectionPtr& connection,
                                    const ZRBURLResponsePtr& response) override;
  void connectionDidReceiveData(const ZRBURLConnectionPtr& connection, const ZRBValue& data) override;
  void connectionDidSendBodyData(const ZRBURLConnectionPtr& connection, std::int64_t bytesWritten,
                                 std::int64_t totalBytesWritten,
                                 std::int64_t totalBytesExpectedToWrite) override;
  void connectionDidFinishLoading(const ZRBURLConnectionPtr& connection) override;
  void connectionDidFailWithError(const ZRBURLConnectionPtr& connection, const ZRBErrorPtr& error) override;

  std::string className() const override { return "ZRB_PGDNSURLConnectionDelegateProxy"; }

  struct Private {};
  ZRB_PGDNSURLConnectionDelegateProxy(Private, ZRB_PinGuardPtr pinGuard,
                                      ZRBURLConnectionDelegatePtr connectionDelegate);

 private:
  const ZRB_PinGuardPtr pinGuard_;
  const ZRBURLConnectionDelegatePtr connectionDelegate_;
};
