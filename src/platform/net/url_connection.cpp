#include "platform/net/url_connection.h"

#include <semaphore>
#include <utility>

#include "platform/foundation/string_format.h"
#include "platform/net/transport/transport_error.h"
#include "platform/net/url_authentication_challenge_sender.h"
#include "platform/net/url_session.h"

// The session's delegate of one connection: turns the session's callbacks into the connection
// delegate's. It runs on the connection's delegate queue (server trust: on the transport thread).
class ZRBURLConnection::SessionDelegate final : public ZRBURLSessionDelegate {
 public:
  explicit SessionDelegate(ZRBURLConnectionPtr connection) : connection_(std::move(connection)) {}

  bool respondsToOperation(ZRBURLSessionDelegateOperation operation) const override {
    using Op = ZRBURLSessionDelegateOperation;
    switch (operation) {
      case Op::TaskDidReceiveChallenge: {
        // Unhandled challenges are left to the session, which then needs no round trip.
        auto delegate = connection_->delegate();
        using ConnectionOp = ZRBURLConnectionDelegateOperation;
        return delegate &&
               (delegate->respondsToOperation(
                    ConnectionOp::ConnectionWillSendRequestForAuthenticationChallenge) ||
                delegate->respondsToOperation(
                    ConnectionOp::ConnectionCanAuthenticateAgainstProtectionSpace) ||
                delegate->respondsToOperation(ConnectionOp::ConnectionDidReceiveAuthenticationChallenge));
      }
      case Op::DataTaskDidReceiveResponse: return true;
      default: return ZRBURLSessionDelegate::respondsToOperation(operation);
    }
  }

  void taskDidReceiveChallenge(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                               const ZRBURLAuthenticationChallengePtr& challenge,
                               ZRBURLSessionChallengeCompletion completion) override {
    auto delegate = connection_->isCancelled() ? nullptr : connection_->delegate();
    if (!delegate || !challenge) {
      completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
      return;
    }
    auto withSender =
        ZRBURLSessionChallengeSender::challengeWithCompletion(*challenge, std::move(completion));
    using Op = ZRBURLConnectionDelegateOperation;
    if (delegate->respondsToOperation(Op::ConnectionWillSendRequestForAuthenticationChallenge)) {
      delegate->connectionWillSendRequestForAuthenticationChallenge(connection_, withSender);
      return;
    }
    bool can = delegate->respondsToOperation(Op::ConnectionCanAuthenticateAgainstProtectionSpace)
                   ? delegate->connectionCanAuthenticateAgainstProtectionSpace(connection_,
                                                                               withSender->protectionSpace())
                   : delegate->ZRBURLConnectionDelegate::connectionCanAuthenticateAgainstProtectionSpace(
                         connection_, withSender->protectionSpace());
    if (can && delegate->respondsToOperation(Op::ConnectionDidReceiveAuthenticationChallenge)) {
      delegate->connectionDidReceiveAuthenticationChallenge(connection_, withSender);
      return;
    }
    withSender->sender()->performDefaultHandlingForAuthenticationChallenge(withSender);
  }

  void dataTaskDidReceiveResponse(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&,
                                  const ZRBURLResponsePtr& response,
                                  std::function<void(ZRBURLSessionResponseDisposition)> completion) override {
    if (auto delegate = heard(ZRBURLConnectionDelegateOperation::ConnectionDidReceiveResponse))
      delegate->connectionDidReceiveResponse(connection_, response);
    completion(ZRBURLSessionResponseAllow);
  }

  void dataTaskDidReceiveData(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&,
                              const ZRBValue& data) override {
    if (auto delegate = heard(ZRBURLConnectionDelegateOperation::ConnectionDidReceiveData))
      delegate->connectionDidReceiveData(connection_, data);
  }

  void taskDidSendBodyData(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, std::int64_t bytesSent,
                           std::int64_t totalBytesSent, std::int64_t totalBytesExpectedToSend) override {
    if (auto delegate = heard(ZRBURLConnectionDelegateOperation::ConnectionDidSendBodyData))
      delegate->connectionDidSendBodyData(connection_, bytesSent, totalBytesSent, totalBytesExpectedToSend);
  }

  void taskDidComplete(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr& task,
                       ZRBErrorPtr error) override {
    auto delegate = connection_->takeDelegate();
    if (!delegate || connection_->isCancelled()) return;
    if (!error) {
      if (delegate->respondsToOperation(ZRBURLConnectionDelegateOperation::ConnectionDidFinishLoading))
        delegate->connectionDidFinishLoading(connection_);
      return;
    }
    if (error->domain() == ZRBURLErrorDomain && error->code() == ZRBURLErrorCancelled) {
      // The connection was not cancelled, so a challenge was: by its handler, or for want of an
      // answer inside the handshake.
      error = ZRBTransportError(ZRBURLErrorUserCancelledAuthentication,
                                task->currentRequest() ? task->currentRequest()->URL() : nullptr, error);
    }
    if (delegate->respondsToOperation(ZRBURLConnectionDelegateOperation::ConnectionDidFailWithError))
      delegate->connectionDidFailWithError(connection_, error);
  }

  std::string className() const override { return "ZRBURLConnectionSessionDelegate"; }

 private:
  // The delegate, when it is still there and implements `operation`.
  ZRBURLConnectionDelegatePtr heard(ZRBURLConnectionDelegateOperation operation) const {
    if (connection_->isCancelled()) return nullptr;
    auto delegate = connection_->delegate();
    return delegate && delegate->respondsToOperation(operation) ? delegate : nullptr;
  }

  // Held until the session lets go of this delegate, which it does once the connection's only
  // task has completed: a loading connection stays alive without its caller.
  const ZRBURLConnectionPtr connection_;
};

namespace {

ZRBURLSessionPtr makeSession(ZRBURLSessionDelegatePtr delegate, ZRBDispatchQueuePtr queue) {
  // Not through the session construction slot: see the header.
  return std::make_shared<ZRBURLSession>(ZRBURLSession::Private{},
                                         ZRBURLSessionConfiguration::defaultSessionConfiguration(),
                                         std::move(delegate), std::move(queue));
}

// The session of the class operations, made on first use; it lives for the process.
const ZRBURLSessionPtr& classOperationSession() {
  static const ZRBURLSessionPtr session =
      makeSession(nullptr, ZRBDispatchQueue::serial("com.orvelkit.urlconnection.class-operations"));
  return session;
}

ZRBErrorPtr badRequestError() { return ZRBTransportError(ZRBURLErrorBadURL, nullptr); }

ZRBURLConnectionPtr construct(ZRBURLRequestPtr request, ZRBURLConnectionDelegatePtr delegate,
                              bool startImmediately) {
  ZRBAssertNamed(request, "request");
  if (!request) return nullptr;
  auto connection = std::make_shared<ZRBURLConnection>(ZRBURLConnection::Private{}, std::move(request),
                                                       std::move(delegate));
  if (startImmediately) connection->start();
  return connection;
}

ZRBURLConnectionPtr initWithRequestOriginal(ZRBURLRequestPtr request, ZRBURLConnectionDelegatePtr delegate) {
  // Not through the other form's slot, so an interposer on both sees each construction once.
  return construct(std::move(request), std::move(delegate), true);
}

void sendAsynchronousOriginal(ZRBURLRequestPtr request, ZRBDispatchQueuePtr queue,
                              ZRBURLConnectionCompletionHandler handler) {
  ZRBAssertNamed(queue, "queue");
  if (!queue) queue = ZRBDispatch::mainQueue();
  ZRBAssertNamed(request, "request");
  if (!request) {
    if (handler) queue->async([handler] { handler(nullptr, ZRBValue(), badRequestError()); });
    return;
  }
  auto task = classOperationSession()->dataTaskWithRequest(
      std::move(request),
      [queue, handler = std::move(handler)](ZRBValue data, ZRBURLResponsePtr response, ZRBErrorPtr error) {
        if (!handler) return;
        queue->async([handler, data = std::move(data), response = std::move(response),
                      error = std::move(error)] { handler(response, data, error); });
      });
  task->resume();
}

ZRBValue sendSynchronousOriginal(ZRBURLRequestPtr request, ZRBURLResponsePtr* response, ZRBErrorPtr* error) {
  ZRBAssertNamed(request, "request");
  if (!request) {
    if (response) *response = nullptr;
    if (error) *error = badRequestError();
    return ZRBValue();
  }
  struct Outcome {
    std::binary_semaphore done{0};
    ZRBValue data;
    ZRBURLResponsePtr response;
    ZRBErrorPtr error;
  };
  auto outcome = std::make_shared<Outcome>();
  auto task = classOperationSession()->dataTaskWithRequest(
      std::move(request), [outcome](ZRBValue data, ZRBURLResponsePtr answer, ZRBErrorPtr failure) {
        outcome->data = std::move(data);
        outcome->response = std::move(answer);
        outcome->error = std::move(failure);
        outcome->done.release();
      });
  task->resume();
  outcome->done.acquire();
  if (response) *response = outcome->response;
  if (error) *error = outcome->error;
  return outcome->error ? ZRBValue() : outcome->data;
}

}  // namespace

ZRBURLConnectionInitSlot& ZRBURLConnection::initSlot() {
  static ZRBURLConnectionInitSlot slot(ZRBURLConnectionInitMethod, &initWithRequestOriginal);
  return slot;
}

ZRBURLConnectionInitStartImmediatelySlot& ZRBURLConnection::initStartImmediatelySlot() {
  static ZRBURLConnectionInitStartImmediatelySlot slot(ZRBURLConnectionInitStartImmediatelyMethod,
                                                       &construct);
  return slot;
}

ZRBURLConnectionSendAsynchronousSlot& ZRBURLConnection::sendAsynchronousSlot() {
  static ZRBURLConnectionSendAsynchronousSlot slot(ZRBURLConnectionSendAsynchronousMethod,
                                                   &sendAsynchronousOriginal);
  return slot;
}

ZRBURLConnectionSendSynchronousSlot& ZRBURLConnection::sendSynchronousSlot() {
  static ZRBURLConnectionSendSynchronousSlot slot(ZRBURLConnectionSendSynchronousMethod,
                                                  &sendSynchronousOriginal);
  return slot;
}

ZRBURLConnectionPtr ZRBURLConnection::initWithRequest(ZRBURLRequestPtr request,
                                                      ZRBURLConnectionDelegatePtr delegate) {
  return initSlot().call(std::move(request), std::move(delegate));
}

ZRBURLConnectionPtr ZRBURLConnection::initWithRequest(ZRBURLRequestPtr request,
                                                      ZRBURLConnectionDelegatePtr delegate,
                                                      bool startImmediately) {
  return initStartImmediatelySlot().call(std::move(request), std::move(delegate), startImmediately);
}

ZRBURLConnectionPtr ZRBURLConnection::connectionWithRequest(ZRBURLRequestPtr request,
                                                            ZRBURLConnectionDelegatePtr delegate) {
  return initWithRequest(std::move(request), std::move(delegate));
}

void ZRBURLConnection::sendAsynchronousRequest(ZRBURLRequestPtr request, ZRBDispatchQueuePtr queue,
                                               ZRBURLConnectionCompletionHandler handler) {
  sendAsynchronousSlot().call(std::move(request), std::move(queue), std::move(handler));
}

ZRBValue ZRBURLConnection::sendSynchronousRequest(ZRBURLRequestPtr request, ZRBURLResponsePtr* response,
                                                  ZRBErrorPtr* error) {
  return sendSynchronousSlot().call(std::move(request), response, error);
}

ZRBURLConnection::ZRBURLConnection(Private, ZRBURLRequestPtr request, ZRBURLConnectionDelegatePtr delegate)
    // The connection loads the request as it was when it was made.
    : originalRequest_(request->copy()), delegate_(std::move(delegate)) {}

void ZRBURLConnection::setDelegateQueue(ZRBDispatchQueuePtr queue) {
  std::lock_guard lock(mutex_);
  if (!started_) delegateQueue_ = std::move(queue);
}

void ZRBURLConnection::start() {
  ZRBURLSessionPtr session;
  ZRBURLSessionTaskPtr task;
  {
    std::lock_guard lock(mutex_);
    if (started_ || isCancelled()) return;
    started_ = true;
    auto self = std::static_pointer_cast<ZRBURLConnection>(shared_from_this());
    session = makeSession(std::make_shared<SessionDelegate>(std::move(self)),
                          delegateQueue_ ? delegateQueue_ : ZRBDispatch::mainQueue());
    task_ = session->dataTaskWithRequest(originalRequest_);
    task = task_;
  }
  task->resume();
  // The session lets go of its delegate, and with it of this connection, once the task is done.
  session->finishTasksAndInvalidate();
}

void ZRBURLConnection::cancel() {
  cancelled_.store(true, std::memory_order_release);
  ZRBURLSessionTaskPtr task;
  {
    std::lock_guard lock(mutex_);
    task = task_;
  }
  if (task) task->cancel();
  takeDelegate();
}

ZRBURLRequestPtr ZRBURLConnection::currentRequest() const {
  std::lock_guard lock(mutex_);
  return task_ ? task_->currentRequest() : originalRequest_;
}

ZRBURLConnectionDelegatePtr ZRBURLConnection::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

ZRBURLConnectionDelegatePtr ZRBURLConnection::takeDelegate() {
  std::lock_guard lock(mutex_);
  return std::move(delegate_);
}

std::string ZRBURLConnection::description() const {
  return ZRBStringWithFormat("<%@: %p> { request: %@ }", className(), this, originalRequest_->description());
}
