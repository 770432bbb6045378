#include "platform/net/transport/transport.h"

#include <curl/curl.h>
#include <openssl/crypto.h>
#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "platform/net/transport/transfer.h"
#include "platform/net/transport/transport_exit.h"

namespace {
constexpr auto kTimeoutCheckInterval = std::chrono::milliseconds(100);
constexpr auto kIdleWait = std::chrono::milliseconds(5000);
constexpr std::size_t kEasyPoolLimit = 64;

// libcurl's global set-up is not thread-safe; do it once before the first handle.
void initializeCurlOnce() {
  static const bool initialized = [] { return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; }();
  (void)initialized;
}

// Runs every item in order. One that throws must not take the rest of the batch with it.
void runAll(std::vector<ZRBTransportWork>& batch, const char* what) {
  for (auto& work : batch) {
    try {
      work();
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "ORVELKIT: %s threw: %s\n", what, exception.what());
    }
  }
}

void runCallbacks(std::vector<ZRBTransportWork>& batch) { runAll(batch, "a session callback"); }
}  // namespace

std::shared_ptr<ZRBTransport> ZRBTransport::make(const ZRBTransportOptions& options) {
  auto transport = std::make_shared<ZRBTransport>(options);
  // The thread holds the transport until it has stopped, so a transport released from its own
  // thread (the last task completing) outlives the loop that is running it.
  ZRBTransportExit::instance().threadStarted(transport.get());
  // The thread reads its own id and handle only after taking the lock.
  std::lock_guard lock(transport->mutex_);
  transport->thread_ = std::thread([self = transport]() mutable {
    // Named for profilers and debuggers; otherwise it carries the name of whichever thread made
    // the session (often the main queue's).
    pthread_setname_np(pthread_self(), "zrb-transport");
    self->run();
    ZRBTransportExit::instance().threadLeaving(self.get());
    self.reset();  // the last owner may be this thread: the handles and connections go here
    // OpenSSL's per-thread state goes now, not after the thread function returns: an exiting
    // process may clean OpenSSL up as soon as this thread has said it finished.
    OPENSSL_thread_stop();
    ZRBTransportExit::instance().threadFinished();
  });
  transport->threadID_ = transport->thread_.get_id();
  return transport;
}

ZRBEnvironmentProxies ZRBEnvironmentProxies::read() {
  auto first = [](std::initializer_list<const char*> names) -> std::string {
    for (const char* name : names) {
      if (const char* value = std::getenv(name)) return value;  // set, even if empty
    }
    return {};
  };
  ZRBEnvironmentProxies proxies;
  proxies.http = first({"http_proxy", "all_proxy", "ALL_PROXY"});
  proxies.https = first({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"});
  proxies.noProxy = first({"no_proxy", "NO_PROXY"});
  return proxies;
}

ZRBTransport::ZRBTransport(const ZRBTransportOptions& options)
    : environmentProxies_(ZRBEnvironmentProxies::read()), callbackQueue_(options.callbackQueue) {
  initializeCurlOnce();
  multi_ = curl_multi_init();
  curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, std::max(1L, options.maximumConnectionsPerHost));
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, long(CURLPIPE_MULTIPLEX));
}

ZRBTransport::~ZRBTransport() {
  for (void* memory : transferMemory_) ::operator delete(memory);
  ZRBTransportExit& exit = ZRBTransportExit::instance();
  if (!exit.beginTeardown()) {
    // The process is exiting: the handles are left to it (see transport_exit.h).
    for (auto& handle : pool_) exit.keep(handle.release());
    exit.keep(multi_);
    return;
  }
  pool_.clear();
  curl_multi_cleanup(multi_);
  exit.teardownFinished();
}

void ZRBTransport::post(ZRBTransportWork work) {
  bool wake = false;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    posted_.push_back(std::move(work));
    // A thread that is not asleep finds the work before it sleeps again; one asleep needs one
    // wake-up however much is posted.
    wake = sleeping_ && !wakeSent_;
    if (wake) wakeSent_ = true;
  }
  if (wake) curl_multi_wakeup(multi_);
}

void ZRBTransport::shutdown() {
  std::thread thread;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
    // Taken under the lock: a thread stopped for exit detaches itself (see run).
    thread = std::move(thread_);
  }
  curl_multi_wakeup(multi_);  // unconditionally: stopping must never wait for a timeout
  if (!thread.joinable()) return;
  if (isTransportThread()) {
    thread.detach();
  } else {
    thread.join();
  }
}

void ZRBTransport::add(ZRBTransfer& transfer) {
  transfer.activeIndex_ = active_.size();
  active_.push_back(&transfer);
  curl_multi_add_handle(multi_, transfer.easy());
}

void ZRBTransport::remove(ZRBTransfer& transfer) {
  std::size_t index = transfer.activeIndex_;
  if (index >= active_.size() || active_[index] != &transfer) return;
  // Swapped out in constant time: the order of the list means nothing.
  active_[index] = active_.back();
  active_[index]->activeIndex_ = index;
  active_.pop_back();
  transfer.activeIndex_ = ZRBTransfer::kNotActive;
  curl_multi_remove_handle(multi_, transfer.easy());
}

void* ZRBTransport::takeTransferMemory() {
  if (!isTransportThread() || transferMemory_.empty()) return ::operator new(sizeof(ZRBTransfer));
  void* memory = transferMemory_.back();
  transferMemory_.pop_back();
  return memory;
}

void ZRBTransport::returnTransferMemory(void* memory) {
  if (!isTransportThread() || transferMemory_.size() >= kEasyPoolLimit) {
    ::operator delete(memory);
    return;
  }
  transferMemory_.push_back(memory);
}

ZRBEasyHandle::ZRBEasyHandle() : easy(curl_easy_init()) {}
ZRBEasyHandle::~ZRBEasyHandle() {
  curl_easy_cleanup(easy);
  curl_url_cleanup(url);
  curl_slist_free_all(resolveList);
}

std::unique_ptr<ZRBEasyHandle> ZRBTransport::takeEasyHandle() {
  if (pool_.empty()) return std::make_unique<ZRBEasyHandle>();
  auto handle = std::move(pool_.back());
  pool_.pop_back();
  return handle;
}

void ZRBTransport::returnEasyHandle(std::unique_ptr<ZRBEasyHandle> handle) {
  if (!handle || pool_.size() >= kEasyPoolLimit) return;
  handle->transfer = nullptr;
  if (handle->dirty) {
    // Options go, the handle's DNS and TLS session caches stay.
    curl_easy_reset(handle->easy);
    handle->configured = false;
    handle->dirty = false;
    handle->streamWeight = -1;
    handle->connectTimeout = -1;
    curl_slist_free_all(handle->resolveList);
    handle->resolveList = nullptr;
    handle->resolveEntries.clear();
  }
  pool_.push_back(std::move(handle));
}

void ZRBTransport::run() {
  for (;;) {
    turnStart_ = std::chrono::steady_clock::now();
    runPostedWork();
    {
      std::lock_guard lock(mutex_);
      if (exiting_ || (stopping_ && posted_.empty())) break;
    }
    int running = 0;
    curl_multi_perform(multi_, &running);
    finishDoneTransfers();
    checkTimeouts();
    flushOutbox();

    long timeout = -1;
    curl_multi_timeout(multi_, &timeout);
    // With transfers running, timeouts are checked at least every interval; an idle transport
    // sleeps until work is posted (or libcurl wants to close idle connections).
    long limit = active_.empty() ? kIdleWait.count() : kTimeoutCheckInterval.count();
    if (timeout < 0 || timeout > limit) timeout = limit;
    {
      std::lock_guard lock(mutex_);
      if (!posted_.empty()) timeout = 0;
      sleeping_ = timeout > 0;
    }
    if (timeout > 0) {
      curl_multi_poll(multi_, nullptr, 0, int(timeout), nullptr);
      std::lock_guard lock(mutex_);
      sleeping_ = false;
      wakeSent_ = false;
    }
  }
  // Transfers still here belong to tasks that were never finished (the session went away); they
  // are dropped without callbacks.
  for (ZRBTransfer* transfer : std::vector<ZRBTransfer*>(active_)) transfer->abandon();
  active_.clear();
  bool exiting = false;
  {
    std::lock_guard lock(mutex_);
    exiting = exiting_;
    // Nobody joins a thread stopped for exit: its session may outlive it, or never be released.
    if (exiting && thread_.joinable()) thread_.detach();
  }
  if (exiting) {
    outbox_.clear();  // the process is going: no more callbacks
    return;
  }
  flushOutbox();
}

void ZRBTransport::stopForExit() {
  {
    std::lock_guard lock(mutex_);
    exiting_ = true;
  }
  curl_multi_wakeup(multi_);
}

void ZRBTransport::flushOutbox() {
  if (outbox_.empty()) return;
  if (!callbackQueue_) {
    outbox_.clear();
    return;
  }
  std::vector<ZRBTransportWork> batch;
  batch.swap(spareOutbox_);
  batch.swap(outbox_);
  // A delegate queue with nothing to do runs the batch here and now, as its own block: the
  // callbacks keep their order and run one at a time, and no thread has to wake for them. A
  // delegate that turns out slow gets its callbacks on the pool for a while, so it cannot hold
  // up the transfers.
  auto runHere = [this, &batch] {
    runningCallbacks_ = true;
    runCallbacks(batch);
    runningCallbacks_ = false;
  };
  ZRBInlineBudget::Run inlineRun(inlineBudget_);
  if (inlineRun.allowed() && callbackQueue_->runNowIfIdle(runHere)) {
    inlineRun.finished();
    batch.clear();
    spareOutbox_.swap(batch);  // its storage serves the next turn
    return;
  }
  // Queue blocks are copyable; the batch is not, so it goes over behind a shared pointer.
  callbackQueue_->async(
      [batch = std::make_shared<std::vector<ZRBTransportWork>>(std::move(batch))] { runCallbacks(*batch); });
}

void ZRBTransport::runPostedWork() {
  {
    std::lock_guard lock(mutex_);
    if (posted_.empty()) return;
    running_.swap(posted_);
  }
  runAll(running_, "transport work");
  running_.clear();  // its storage serves the next turn
}

void ZRBTransport::finishDoneTransfers() {
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    ZRBEasyHandle* handle = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, reinterpret_cast<char**>(&handle));
    CURLcode result = message->data.result;
    ZRBTransfer* transfer = handle ? handle->transfer : nullptr;
    if (!transfer) continue;
    remove(*transfer);
    // May delete the transfer or start new ones.
    transfer->done(result);
  }
}

void ZRBTransport::checkTimeouts() {
  auto now = turnStart_;
  if (now < nextTimeoutCheck_) return;
  nextTimeoutCheck_ = now + kTimeoutCheckInterval;
  // A check may finish a transfer, which removes it from active_.
  for (ZRBTransfer* transfer : std::vector<ZRBTransfer*>(active_)) {
    if (std::find(active_.begin(), active_.end(), transfer) != active_.end()) transfer->checkTimeouts(now);
  }
}
