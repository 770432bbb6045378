// ZRBTransport: the thread that drives one session's transfers through a libcurl multi handle.
//
// Everything that touches libcurl handles runs on the transport thread: work from other threads is
// handed over with post(), which wakes the thread at once. The thread sleeps in curl_multi_poll
// between socket events, and every 100 ms at most checks the timeouts of its transfers.
//
// The multi handle holds the session's connection cache (keep-alive, HTTP/2 multiplexing) and
// easy handles are reused from a pool, so DNS answers carry over between transfers, and a handle
// that served a plain request is ready for the next one as it is. TLS sessions are not resumed: every
// new connection's chain goes through the session's challenge path (see ZRBTransfer).
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/net/http_header_fields.h"
#include "platform/net/transport/transport_work.h"
#include "platform/runtime/dispatch.h"
#include "platform/runtime/inline_budget.h"

typedef void CURLM;
typedef void CURL;
struct curl_slist;
typedef struct Curl_URL CURLU;

class ZRBTransfer;

// A libcurl easy handle as the transport pools it. The options that every transfer sets alike,
// the callbacks among them, are set once and stay across transfers; the callbacks' data is this
// record, whose `transfer` says whose turn it is. A transfer that sets anything more marks the
// handle dirty, and it is reset before the next one.
struct ZRBEasyHandle {
  ZRBEasyHandle();
  ~ZRBEasyHandle();
  ZRBEasyHandle(const ZRBEasyHandle&) = delete;
  ZRBEasyHandle& operator=(const ZRBEasyHandle&) = delete;

  CURL* easy;
  ZRBTransfer* transfer = nullptr;
  bool configured = false;
  bool dirty = false;
  long streamWeight = -1;  // as last set, -1 for libcurl's default
  long connectTimeout = -1;
  // The last request's URL, parsed by libcurl once: a transfer to the same URL hands libcurl this
  // copy instead of the text, which libcurl would otherwise parse again for every transfer.
  CURLU* url = nullptr;
  std::string urlText;
  char errorBuffer[256] = {};  // CURL_ERROR_SIZE
  // The current request's header lines, NUL-terminated one after another, and the list libcurl
  // reads them through: nodes of our own, kept with the handle so that no transfer allocates them.
  std::string headerText;
  std::vector<curl_slist> headerList;
  // The fields those lines were made from, unmerged, and the rules (encodings, body) they followed:
  // a next request sharing the same fields under the same rules sends the same lines as they are.
  ZRBHTTPHeaderFields headerSource;
  unsigned headerRules = 0;
  bool headerLinesValid = false;
  // The resolve list of the current transfer (libcurl reads it when the transfer starts); freed
  // when the handle is reset. `resolveEntries` are its texts, as last set.
  curl_slist* resolveList = nullptr;
  std::vector<std::string> resolveEntries;
};

// The proxies the environment names, read once when the transport starts (libcurl would look them
// up again for every transfer). The rules are libcurl's: a lower-case variable before its
// upper-case form, never HTTP_PROXY, all_proxy for a scheme without one of its own.
struct ZRBEnvironmentProxies {
  std::string http;     // "" for none
  std::string https;    // "" for none
  std::string noProxy;  // hosts that are reached directly
  bool any() const { return !http.empty() || !https.empty(); }
  static ZRBEnvironmentProxies read();
};

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
  void post(ZRBTransportWork work);
  bool isTransportThread() const { return std::this_thread::get_id() == threadID_; }
  // True while the transport thread runs delegate callbacks itself (see flushOutbox): no transport
  // or libcurl code is under way then, so work for this transport may run at once instead of
  // being posted.
  bool runningCallbacksHere() const { return isTransportThread() && runningCallbacks_; }
  // When the transport thread's current turn of its loop began: close enough to now for idle
  // timeouts, and cheaper than reading the clock for every event. Transport thread only.
  std::chrono::steady_clock::time_point turnStart() const { return turnStart_; }
  // Stops the thread once the work posted so far has run. Waits for it unless called on it.
  void shutdown();
  // The process is exiting: the thread stops after its current turn, without further callbacks,
  // and does not wait for posted work. Any thread; does not wait.
  void stopForExit();

  const ZRBEnvironmentProxies& environmentProxies() const { return environmentProxies_; }

  // ---- on the transport thread ----
  // The transfer is driven until it completes (its onDone runs) or is removed.
  void add(ZRBTransfer& transfer);
  void remove(ZRBTransfer& transfer);
  std::unique_ptr<ZRBEasyHandle> takeEasyHandle();
  void returnEasyHandle(std::unique_ptr<ZRBEasyHandle> handle);
  // Memory for a ZRBTransfer, recycled on the transport thread (elsewhere it is plain new and
  // delete): a transfer per request would otherwise cost an allocation each.
  void* takeTransferMemory();
  void returnTransferMemory(void* memory);
  // Queues `work` for the callback queue. What one turn of the loop queues goes over in one block,
  // in order, so a burst of events costs one hand-over instead of one each.
  void toCallbackQueue(ZRBTransportWork work) { outbox_.push_back(std::move(work)); }

 private:
  void run();
  void runPostedWork();
  void finishDoneTransfers();
  void checkTimeouts();
  void flushOutbox();

  CURLM* multi_;
  const ZRBEnvironmentProxies environmentProxies_;
  std::thread thread_;  // under mutex_ once the thread runs
  std::thread::id threadID_;

  std::mutex mutex_;
  std::vector<ZRBTransportWork> posted_;
  bool stopping_ = false;
  bool exiting_ = false;
  bool sleeping_ = false;  // the thread is in (or about to enter) curl_multi_poll
  bool wakeSent_ = false;  // ... and has been woken already

  // Transport thread only.
  std::vector<ZRBTransfer*> active_;
  std::vector<std::unique_ptr<ZRBEasyHandle>> pool_;
  std::vector<void*> transferMemory_;
  ZRBDispatchQueuePtr callbackQueue_;
  std::vector<ZRBTransportWork> outbox_;
  bool runningCallbacks_ = false;
  std::vector<ZRBTransportWork> spareOutbox_;  // the last batch run here, emptied
  std::vector<ZRBTransportWork> running_;      // posted work being run, emptied after
  std::chrono::steady_clock::time_point turnStart_{};
  std::chrono::steady_clock::time_point nextTimeoutCheck_{};
  // Callbacks run on the transport thread only while they are quick.
  ZRBInlineBudget inlineBudget_{std::chrono::milliseconds(2), std::chrono::seconds(1)};
};
