// ZRBURLConnection: the older, delegate-based way to load one request, over a URL session.
//
// A connection loads its request once: from construction, or from start() when it was made with
// startImmediately false. It reports to its delegate (ZRBURLConnectionDelegate) on its delegate
// queue, the main queue unless setDelegateQueue() chose another serial queue before the start, and
// ends with exactly one of connectionDidFinishLoading and connectionDidFailWithError. cancel() ends
// it silently: the delegate hears nothing after it (a callback already running finishes). A
// challenge that its handler cancels fails the connection with
// ZRBURLErrorUserCancelledAuthentication (-1012); every other failure is the session's URL error.
//
// Lifetime: a loading connection keeps itself and its delegate alive until it ends, so the caller
// need not hold it; then it lets go of the delegate. A null delegate is allowed (nobody hears).
//
// Each connection runs over a session of its own (one transport thread while it loads, and no
// TLS session shared with other connections), made directly rather than through the session
// construction slot: connections are interposed on through their own slots. The two class
// operations share one session that lives for the process.
//
// Replaceable (ZRBMethodReplacement): both initWithRequest forms and the two class operations run
// through slots, so an interposer can change the delegate or watch the requests and still call the
// implementation it replaced. connectionWithRequest goes through the initWithRequest slot.
//
// A null request is an assertion failure ("request"); with assertions logging, construction gives
// null and the class operations fail with ZRBURLErrorBadURL. Every operation is thread-safe.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"
#include "platform/net/url_connection_delegate.h"
#include "platform/net/url_request.h"
#include "platform/net/url_session_task.h"
#include "platform/runtime/dispatch.h"
#include "platform/runtime/method_replacement.h"

class ZRBURLConnection final : public ZRBObject {
 public:
  // ---- construction (through the slots) ----
  // Starts at once.
  static ZRBURLConnectionPtr initWithRequest(ZRBURLRequestPtr request, ZRBURLConnectionDelegatePtr delegate);
  static ZRBURLConnectionPtr initWithRequest(ZRBURLRequestPtr request, ZRBURLConnectionDelegatePtr delegate,
                                             bool startImmediately);
  static ZRBURLConnectionPtr connectionWithRequest(ZRBURLRequestPtr request,
                                                   ZRBURLConnectionDelegatePtr delegate);

  // ---- class operations (through the slots) ----
  // Loads the request and calls `handler` on `queue` with the response, the whole body (absent on
  // failure) and the error. A null queue is an assertion failure ("queue"); with assertions
  // logging, the handler runs on the main queue. A null handler loads and drops the answer.
  static void sendAsynchronousRequest(ZRBURLRequestPtr request, ZRBDispatchQueuePtr queue,
                                      ZRBURLConnectionCompletionHandler handler);
  // Loads the request and waits for it; the body (absent on failure), the response and the error
  // go to the out-parameters when given. Not from a block of the connections' shared session's
  // queue (none is reachable from outside), so it cannot deadlock.
  static ZRBValue sendSynchronousRequest(ZRBURLRequestPtr request, ZRBURLResponsePtr* response = nullptr,
                                         ZRBErrorPtr* error = nullptr);

  static ZRBURLConnectionInitSlot& initSlot();
  static ZRBURLConnectionInitStartImmediatelySlot& initStartImmediatelySlot();
  static ZRBURLConnectionSendAsynchronousSlot& sendAsynchronousSlot();
  static ZRBURLConnectionSendSynchronousSlot& sendSynchronousSlot();

  // ---- one connection ----
  // Where the delegate hears; null means the main queue. Only before the start; later calls are
  // ignored. Pass a serial queue: callbacks are meant to run one at a time.
  void setDelegateQueue(ZRBDispatchQueuePtr queue);
  // Begins loading; does nothing when started or cancelled already.
  void start();
  // Stops loading; the delegate hears nothing more and is let go.
  void cancel();

  ZRBURLRequestPtr originalRequest() const { return originalRequest_; }
  // The request being loaded: after redirects, the redirected one.
  ZRBURLRequestPtr currentRequest() const;
  // Null once the connection has ended or been cancelled.
  ZRBURLConnectionDelegatePtr delegate() const;

  std::string className() const override { return "ZRBURLConnection"; }
  // "<ZRBURLConnection: 0x...> { request: <ZRBURLRequest: 0x...> { URL: ... } }".
  std::string description() const override;

  // ---- for the connection's session ----
  struct Private {};
  ZRBURLConnection(Private, ZRBURLRequestPtr request, ZRBURLConnectionDelegatePtr delegate);
  bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }
  // The delegate is let go; the one it was is returned.
  ZRBURLConnectionDelegatePtr takeDelegate();

 private:
  class SessionDelegate;

  ZRBURLRequestPtr originalRequest_;
  std::atomic<bool> cancelled_{false};

  mutable std::mutex mutex_;
  ZRBURLConnectionDelegatePtr delegate_;
  ZRBDispatchQueuePtr delegateQueue_;
  ZRBURLSessionTaskPtr task_;
  bool started_ = false;
};
