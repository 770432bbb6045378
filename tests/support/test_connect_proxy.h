// A tunnelling HTTP proxy on loopback for tests that must reach a TLS test server under a name with
// a public suffix when they cannot give the client a resolve entry: it answers "CONNECT host:port"
// by connecting to 127.0.0.1:port, whatever the host, and relays bytes both ways. TLS runs end to
// end, so the client's SNI and certificate checks see the name it asked for.
//
// Point a client at it with https_proxy=http://127.0.0.1:<port>. Threads: one accepting, two per
// tunnel; stop() (or the destructor) closes everything and joins them.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class ZRBTestConnectProxy {
 public:
  ZRBTestConnectProxy();
  ZRBTestConnectProxy(const ZRBTestConnectProxy&) = delete;
  ZRBTestConnectProxy& operator=(const ZRBTestConnectProxy&) = delete;
  ~ZRBTestConnectProxy();

  std::uint16_t port() const { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  void stop();

 private:
  void serve(int client);

  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;
  std::mutex mutex_;
  std::vector<int> sockets_;
  std::vector<std::thread> workers_;
};
