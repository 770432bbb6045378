#include "platform/net/transport/transport_exit.h"

#include <algorithm>
#include <cstdlib>

#include "platform/net/transport/transport.h"

ZRBTransportExit& ZRBTransportExit::instance() {
  static auto* exit = [] {
    auto* created = new ZRBTransportExit;
    std::atexit([] { ZRBTransportExit::instance().stopAndWait(); });
    return created;
  }();
  return *exit;
}

void ZRBTransportExit::threadStarted(ZRBTransport* transport) {
  std::lock_guard lock(mutex_);
  running_.push_back(transport);
  ++threads_;
}

void ZRBTransportExit::threadLeaving(ZRBTransport* transport) {
  std::lock_guard lock(mutex_);
  std::erase(running_, transport);
}

void ZRBTransportExit::threadFinished() {
  std::lock_guard lock(mutex_);
  --threads_;
  changed_.notify_all();
}

bool ZRBTransportExit::beginTeardown() {
  std::lock_guard lock(mutex_);
  if (exiting_) return false;
  ++teardowns_;
  return true;
}

void ZRBTransportExit::teardownFinished() {
  std::lock_guard lock(mutex_);
  --teardowns_;
  changed_.notify_all();
}

void ZRBTransportExit::keep(void* handle) {
  std::lock_guard lock(mutex_);
  kept_.push_back(handle);
}

void ZRBTransportExit::stopAndWait() {
  std::unique_lock lock(mutex_);
  exiting_ = true;
  for (ZRBTransport* transport : running_) transport->stopForExit();
  changed_.wait_for(lock, kWait, [this] { return threads_ == 0 && teardowns_ == 0; });
}
