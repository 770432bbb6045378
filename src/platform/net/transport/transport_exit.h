// ZRBTransportExit: what becomes of transports when the process exits.
//
// A process may exit while sessions still exist: their transport threads running, or a session
// being let go of on a pool thread. Exit handlers, OpenSSL's cleanup among them, would then run
// beside them. So at exit (an atexit handler registered with the first transport, after OpenSSL
// registered its own, so it runs before it) every running transport thread is told to stop, with
// no further callbacks, and exit waits up to a second for those threads and for teardowns under
// way. A transport torn down after that leaves its libcurl handles as they are, still reachable:
// the process is going, and OpenSSL may already be gone.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

class ZRBTransport;

class ZRBTransportExit {
 public:
  // Immortal: threads may finish after static destruction has begun.
  static ZRBTransportExit& instance();

  // The life of a transport thread.
  void threadStarted(ZRBTransport* transport);
  // The thread lets go of its transport next: it can no longer be told to stop.
  void threadLeaving(ZRBTransport* transport);
  void threadFinished();

  // Whether a transport may close its handles now; when true, teardownFinished() follows.
  bool beginTeardown();
  void teardownFinished();
  // Handles a transport leaves behind at exit.
  void keep(void* handle);

 private:
  ZRBTransportExit() = default;
  void stopAndWait();

  static constexpr auto kWait = std::chrono::seconds(1);
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<ZRBTransport*> running_;  // removed by their own thread before the transport can go
  long threads_ = 0;
  long teardowns_ = 0;
  bool exiting_ = false;
  std::vector<void*> kept_;
};
