// ZRBTransport: the thread that drives one session's transfers through a libcurl multi handle.
//
// Everything that touches libcurl handles runs on the transport thread: work from other threads is
// handed over with post(), which wakes the thread at once. The thread sleeps in curl_multi_poll
// between socket events, and every 100 ms at most checks the timeouts of its transfers.
//
// The multi handle holds the session's connection cache (keep-alive, HTTP/2 multiplexing) and
// easy handles are reused from a pool, so DNS answers and TLS sessions carry over between
// transfers.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/dispatch.h"

typedef void CURLM;
typedef void CURL;

class ZRBTransfer;

struct ZRBTransportOptions {
  long maximumConnectionsPerHost = 6;
  bool pipelining = false;
  // Where the session's callbacks run (its delegate queue).
  ZRBDispatchQueuePtr callbackQueue;
};

class ZRBTransport : public std::enable_shared_from_this<ZRBTransport> {
 public:
  static std::shared_ptr<ZRBTransport> make(const ZRBTransportOptions& options);
  ZRBTransport(const ZRBTransportOptions& options);
  ZRBTransport(const ZRBTransport&) = delete;
  ZRBTransport& operator=(const ZRBTransport&) = delete;
  ~ZRBTransport();

  // Runs `work` on the transport thread, in the order posted. Work posted after shutdown() is
  // dropped (its captures are released on the caller's thread).
  void post(std::function<void()> work);
  bool isTransportThread() const { return std::this_thread::get_id() == threadID_; }
  // Stops the thread once the work posted so far has run. Waits for it unless called on it.
  void shutdown();

  // ---- on the transport thread ----
  // The transfer is driven until it completes (its onDone runs) or is removed.
  void add(ZRBTransfer& transfer);
  void remove(ZRBTransfer& transfer);
  CURL* takeEasyHandle();
  void returnEasyHandle(CURL* easy);
  // Queues `work` for the callback queue. What one turn of the loop queues goes over in one block,
  // in order, so a burst of events costs one hand-over instead of one each.
  void toCallbackQueue(std::function<void()> work) { outbox_.push_back(std::move(work)); }

 private:
  void run();
  void runPostedWork();
  void finishDoneTransfers();
  void checkTimeouts();
  void flushOutbox();

  CURLM* multi_;
  std::thread thread_;
  std::thread::id threadID_;

  std::mutex mutex_;
  std::vector<std::function<void()>> posted_;
  bool stopping_ = false;
  bool sleeping_ = false;  // the thread is in (or about to enter) curl_multi_poll
  bool wakeSent_ = false;  // ... and has been woken already

  // Transport thread only.
  std::vector<ZRBTransfer*> active_;
  std::vector<CURL*> pool_;
  ZRBDispatchQueuePtr callbackQueue_;
  std::vector<std::function<void()>> outbox_;
  std::chrono::steady_clock::time_point nextTimeoutCheck_{};
  std::chrono::steady_clock::time_point inlineAllowedAfter_{};
};
