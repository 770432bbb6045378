#include "support/test_connect_proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

namespace {

int loopbackSocket() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket");
  return fd;
}

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void relay(int from, int to) {
  char buffer[16384];
  for (ssize_t n; (n = ::recv(from, buffer, sizeof buffer, 0)) > 0;) {
    for (ssize_t sent = 0; sent < n;) {
      ssize_t written = ::send(to, buffer + sent, std::size_t(n - sent), MSG_NOSIGNAL);
      if (written <= 0) return (void)::shutdown(from, SHUT_RDWR);
      sent += written;
    }
  }
  ::shutdown(to, SHUT_WR);
}

}  // namespace

ZRBTestConnectProxy::ZRBTestConnectProxy() {
  listener_ = loopbackSocket();
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(listener_);
    throw std::runtime_error("cannot listen on loopback");
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] {
    while (!stopping_) {
      int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) return;
      std::lock_guard lock(mutex_);
      sockets_.push_back(client);
      workers_.emplace_back([this, client] { serve(client); });
    }
  });
}

ZRBTestConnectProxy::~ZRBTestConnectProxy() { stop(); }

void ZRBTestConnectProxy::stop() {
  if (stopping_.exchange(true)) return;
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  ::close(listener_);
  std::vector<std::thread> workers;
  {
    std::lock_guard lock(mutex_);
    for (int fd : sockets_) ::shutdown(fd, SHUT_RDWR);
    workers.swap(workers_);
  }
  for (auto& worker : workers) worker.join();
  for (int fd : sockets_) ::close(fd);
}

void ZRBTestConnectProxy::serve(int client) {
  std::string head;
  char c;
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < 8192 && ::recv(client, &c, 1, 0) == 1)
    head += c;
  unsigned port = 0;
  char host[256] = "";
  if (std::sscanf(head.c_str(), "CONNECT %255[^:]:%u ", host, &port) != 2 || port == 0 || port > 65535) {
    ::send(client, "HTTP/1.1 400 Bad Request\r\n\r\n", 28, MSG_NOSIGNAL);
    return;
  }
  int server = loopbackSocket();
  {
    std::lock_guard lock(mutex_);
    sockets_.push_back(server);
  }
  sockaddr_in address = loopback(std::uint16_t(port));
  if (::connect(server, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::send(client, "HTTP/1.1 502 Bad Gateway\r\n\r\n", 28, MSG_NOSIGNAL);
    return;
  }
  const char established[] = "HTTP/1.1 200 Connection established\r\n\r\n";
  ::send(client, established, sizeof established - 1, MSG_NOSIGNAL);
  std::thread back([client, server] { relay(server, client); });
  relay(client, server);
  back.join();
}
