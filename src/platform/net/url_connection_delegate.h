// ZRBURLConnectionDelegate: what a URL connection tells its delegate, and asks it.
//
// Which operations a delegate implements is explicit: respondsToOperation(). The default answers
// false for the three authentication operations and true for the others, whose default bodies do
// nothing; a delegate that handles challenges answers true for the operations it overrides.
// Answers may change over time; the connection asks each time it would call.
//
// Authentication challenges go, in this order of preference, to
// connectionWillSendRequestForAuthenticationChallenge; else to the older pair: when
// connectionCanAuthenticateAgainstProtectionSpace answers true (without it: true for every method
// but server trust and client certificates), to connectionDidReceiveAuthenticationChallenge; else
// they get default handling. The delegate answers through the challenge's sender, exactly once.
//
// Threads: callbacks run one at a time, in order, on the connection's delegate queue, with one
// exception: a server-trust challenge (and canAuthenticateAgainstProtectionSpace for it) runs
// synchronously on the connection's transport thread in the middle of the TLS handshake. It must
// answer before returning, be quick and thread-safe, and never wait for another queue; no answer
// by then cancels the challenge. HTTP challenges may be answered later, from any thread.
//
// A delegate is an object like any other: it answers its class name and description, so code that
// wraps delegates can tell them apart by name.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"
#include "platform/net/url_authentication.h"
#include "platform/net/url_authentication_challenge_sender.h"

class ZRBURLConnection;
using ZRBURLConnectionPtr = std::shared_ptr<ZRBURLConnection>;

enum class ZRBURLConnectionDelegateOperation {
  ConnectionWillSendRequestForAuthenticationChallenge,
  ConnectionCanAuthenticateAgainstProtectionSpace,
  ConnectionDidReceiveAuthenticationChallenge,
  ConnectionDidReceiveResponse,
  ConnectionDidReceiveData,
  ConnectionDidSendBodyData,
  ConnectionDidFinishLoading,
  ConnectionDidFailWithError,
};

class ZRBURLConnectionDelegate : public ZRBObject {
 public:
  virtual bool respondsToOperation(ZRBURLConnectionDelegateOperation operation) const;

  // ---- authentication ----
  // The default performs default handling through the sender.
  virtual void connectionWillSendRequestForAuthenticationChallenge(
      const ZRBURLConnectionPtr& connection, const ZRBURLAuthenticationChallengePtr& challenge);
  // The default answers true unless the space is for server trust or client certificates.
  virtual bool connectionCanAuthenticateAgainstProtectionSpace(
      const ZRBURLConnectionPtr& connection, const ZRBURLProtectionSpacePtr& protectionSpace);
  // The default performs default handling through the sender.
  virtual void connectionDidReceiveAuthenticationChallenge(const ZRBURLConnectionPtr& connection,
                                                           const ZRBURLAuthenticationChallengePtr& challenge);

  // ---- loading ----
  // The final response (redirects are followed before it).
  virtual void connectionDidReceiveResponse(const ZRBURLConnectionPtr& connection,
                                            const ZRBURLResponsePtr& response);
  // Each chunk once, in order.
  virtual void connectionDidReceiveData(const ZRBURLConnectionPtr& connection, const ZRBValue& data);
  virtual void connectionDidSendBodyData(const ZRBURLConnectionPtr& connection, std::int64_t bytesWritten,
                                         std::int64_t totalBytesWritten,
                                         std::int64_t totalBytesExpectedToWrite);
  // Exactly one of these ends a connection that was not cancelled; a cancelled one hears neither.
  virtual void connectionDidFinishLoading(const ZRBURLConnectionPtr& connection);
  virtual void connectionDidFailWithError(const ZRBURLConnectionPtr& connection, const ZRBErrorPtr& error);
};

using ZRBURLConnectionDelegatePtr = std::shared_ptr<ZRBURLConnectionDelegate>;
