// The test server's engine: accepting, TLS, reading requests with Beast's parser and writing
// responses byte by byte ourselves, since most scripted misbehaviour is exactly what a well-behaved
// serializer would refuse to produce. Each connection is one coroutine on a strand of its own.
#include "support/test_server.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "support/test_server_internal.h"

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using zrb_test_server::equalsIgnoringCase;

namespace {

constexpr auto kNoThrow = asio::as_tuple(asio::use_awaitable);
constexpr std::size_t kWriteSlice = 64 * 1024;
constexpr int kThreads = 2;
constexpr std::uint32_t kHeaderLimit = 64 * 1024;
constexpr std::uint64_t kEndlessHeaderCap = 64ull << 20;
// Bounds on waiting for a peer during a graceful close; the peer normally answers at once.
constexpr auto kCloseGrace = std::chrono::seconds(2);
constexpr auto kStopGrace = std::chrono::seconds(10);

using Strand = asio::strand<asio::io_context::executor_type>;

struct Connection {
  Connection(std::uint64_t connectionID, tcp::socket acceptedSocket)
      : id(connectionID),
        socket(std::move(acceptedSocket)),
        timer(socket.get_executor()),
        watchdog(socket.get_executor()) {}

  // Runs on the connection's strand. Closing the socket aborts its pending operations; the timers
  // are cancelled and every wait re-checks `closed`, so the coroutine unwinds promptly.
  void close() {
    closed = true;
    boost::system::error_code ignored;
    socket.close(ignored);
    if (upstream) upstream->close(ignored);
    timer.cancel();
    watchdog.cancel();
  }

  // Closes the connection after `after` unless the watchdog is cancelled first.
  void arm(std::chrono::steady_clock::duration after) {
    watchdog.expires_after(after);
    watchdog.async_wait([this](boost::system::error_code ec) {
      if (!ec) close();
    });
  }

  const std::uint64_t id;
  tcp::socket socket;
  std::unique_ptr<ssl::stream<tcp::socket&>> tls;
  std::optional<tcp::socket> upstream;  // a tunnel's other end
  asio::steady_timer timer;
  asio::steady_timer watchdog;
  bool closed = false;
};

std::string reasonPhrase(int status) {
  auto reason = http::obsolete_reason(http::int_to_status(static_cast<unsigned>(status)));
  if (reason == "<unknown-status>") return "Unknown";
  return std::string(reason);
}

bool statusHasNoBody(int status) { return (status >= 100 && status < 200) || status == 204 || status == 304; }

// Copies bytes until `from` ends, then ends the sending side of `to`.
asio::awaitable<void> relay(tcp::socket& from, tcp::socket& to) {
  std::vector<char> chunk(kWriteSlice);
  for (;;) {
    auto [ec, n] = co_await from.async_read_some(asio::buffer(chunk), kNoThrow);
    if (ec) break;
    auto [writeError, written] = co_await asio::async_write(to, asio::buffer(chunk.data(), n), kNoThrow);
    if (writeError) break;
  }
  boost::system::error_code ignored;
  to.shutdown(tcp::socket::shutdown_send, ignored);
}

// Answers a CONNECT for `target` ("host:port") on a plain connection and relays until both ends close.
asio::awaitable<void> tunnel(Connection& connection, std::string_view target, beast::flat_buffer& buffer) {
  unsigned port = 0;
  const char* digits = target.data() + std::min(target.rfind(':') + 1, target.size());
  std::from_chars(digits, target.data() + target.size(), port);
  auto& upstream = connection.upstream.emplace(connection.socket.get_executor());
  auto [ec] = co_await upstream.async_connect(
      tcp::endpoint(asio::ip::make_address_v4("127.0.0.1"), static_cast<std::uint16_t>(port)), kNoThrow);
  const bool connected = !ec && port > 0 && port <= 65535;
  std::string_view answer =
      connected ? "HTTP/1.1 200 Connection established\r\n\r\n" : "HTTP/1.1 502 Bad Gateway\r\n\r\n";
  auto [writeError, written] = co_await asio::async_write(connection.socket, asio::buffer(answer), kNoThrow);
  if (writeError || !connected) co_return;
  // Whatever the client sent after its request head goes first.
  co_await asio::async_write(upstream, buffer.data(), kNoThrow);
  using namespace asio::experimental::awaitable_operators;
  co_await (relay(connection.socket, upstream) && relay(upstream, connection.socket));
}

}  // namespace

struct ZRBTestServer::Impl {
  explicit Impl(ZRBTestServerOptions serverOptions) : options(std::move(serverOptions)) {
    if (options.tls) {
      sslContext.emplace(ssl::context::tls_server);
      sslContext->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                              ssl::context::no_sslv3);
      std::string chain = options.tls->chainPEM();
      std::string key = options.tls->keyPEM();
      sslContext->use_certificate_chain(asio::buffer(chain));
      sslContext->use_private_key(asio::buffer(key), ssl::context::pem);
    }
  }

  ~Impl() { stop(); }

  void start();
  void stop();
  asio::awaitable<void> acceptLoop();
  asio::awaitable<void> serve(std::shared_ptr<Connection> connection);
  template <class Stream>
  asio::awaitable<void> serveRequests(Connection& connection, Stream& stream);
  template <class Stream>
  asio::awaitable<bool> writeResponse(Connection& connection, Stream& stream, const ZRBTestResponse& response,
                                      bool head, bool keepAlive);
  template <class Stream>
  asio::awaitable<void> closeGracefully(Connection& connection, Stream& stream);
  std::shared_ptr<const ZRBTestRoute> findRoute(std::string_view method, std::string_view path) const;
  void record(ZRBTestRecordedRequest& request);
  void connectionEnded(std::uint64_t id);

  ZRBTestServerOptions options;
  std::optional<ssl::context> sslContext;

  std::mutex lifecycleMutex;
  bool started = false;
  bool stopped = false;
  std::atomic<std::uint16_t> port{0};

  mutable std::mutex routesMutex;
  std::vector<std::shared_ptr<const ZRBTestRoute>> routes;

  mutable std::mutex requestsMutex;
  mutable std::condition_variable requestsChanged;
  std::vector<ZRBTestRecordedRequest> recorded;

  std::atomic<std::uint64_t> accepted{0};
  mutable std::mutex connectionsMutex;
  std::condition_variable connectionsChanged;
  std::map<std::uint64_t, std::weak_ptr<Connection>> live;
  bool stopping = false;
  bool acceptLoopRunning = false;

  // Declared after the state that coroutine frames refer to, so that destroying it (which destroys
  // frames a forced stop left behind) happens while that state still exists.
  asio::io_context io;
  std::optional<Strand> acceptorStrand;
  std::optional<tcp::acceptor> acceptor;
  std::vector<std::thread> threads;
};

void ZRBTestServer::Impl::start() {
  std::lock_guard lock(lifecycleMutex);
  if (started) throw std::logic_error("ZRBTestServer: started twice");
  started = true;
  acceptorStrand.emplace(asio::make_strand(io));
  acceptor.emplace(*acceptorStrand);
  tcp::endpoint loopback(asio::ip::make_address_v4("127.0.0.1"), 0);
  acceptor->open(loopback.protocol());
  acceptor->bind(loopback);
  acceptor->listen(asio::socket_base::max_listen_connections);
  port = acceptor->local_endpoint().port();
  {
    std::lock_guard connectionsLock(connectionsMutex);
    acceptLoopRunning = true;
  }
  asio::co_spawn(*acceptorStrand, acceptLoop(), [](std::exception_ptr) {});
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this] {
      for (;;) {
        try {
          io.run();
          return;
        } catch (...) {
          // A throwing completion handler must not take the process down; keep serving.
        }
      }
    });
  }
}

void ZRBTestServer::Impl::stop() {
  std::lock_guard lock(lifecycleMutex);
  if (stopped) return;
  stopped = true;
  if (!started) return;
  {
    std::unique_lock connectionsLock(connectionsMutex);
    stopping = true;
    asio::post(*acceptorStrand, [this] {
      boost::system::error_code ignored;
      acceptor->close(ignored);
    });
    for (auto& [id, weak] : live) {
      if (auto connection = weak.lock()) {
        asio::post(connection->socket.get_executor(), [connection] { connection->close(); });
      }
    }
    // Normally everything unwinds at once; the bound only matters if a handler is stuck.
    connectionsChanged.wait_for(connectionsLock, kStopGrace,
                                [this] { return live.empty() && !acceptLoopRunning; });
  }
  io.stop();
  for (auto& thread : threads) thread.join();
  threads.clear();
}

void ZRBTestServer::Impl::connectionEnded(std::uint64_t id) {
  std::lock_guard lock(connectionsMutex);
  live.erase(id);
  connectionsChanged.notify_all();
}

asio::awaitable<void> ZRBTestServer::Impl::acceptLoop() {
  for (;;) {
    auto [ec, socket] = co_await acceptor->async_accept(asio::make_strand(io), kNoThrow);
    if (ec) {
      if (!acceptor->is_open() || ec == asio::error::operation_aborted) break;
      continue;
    }
    std::unique_lock lock(connectionsMutex);
    if (stopping) break;
    std::uint64_t id = ++accepted;
    auto connection = std::make_shared<Connection>(id, std::move(socket));
    live.emplace(id, connection);
    lock.unlock();
    asio::co_spawn(connection->socket.get_executor(), serve(connection), [](std::exception_ptr) {});
  }
  std::lock_guard lock(connectionsMutex);
  acceptLoopRunning = false;
  connectionsChanged.notify_all();
}

asio::awaitable<void> ZRBTestServer::Impl::serve(std::shared_ptr<Connection> connection) {
  // Unregisters however the frame ends, including destruction by a stopped io_context.
  struct Unregister {
    Impl* impl;
    std::uint64_t id;
    ~Unregister() { impl->connectionEnded(id); }
  } unregister{this, connection->id};

  try {
    boost::system::error_code ignored;
    connection->socket.set_option(tcp::no_delay(true), ignored);
    if (sslContext) {
      connection->tls = std::make_unique<ssl::stream<tcp::socket&>>(connection->socket, *sslContext);
      auto [ec] = co_await connection->tls->async_handshake(ssl::stream_base::server, kNoThrow);
      if (ec) {
        connection->close();
        co_return;
      }
      co_await serveRequests(*connection, *connection->tls);
    } else {
      co_await serveRequests(*connection, connection->socket);
    }
  } catch (...) {
  }
  connection->close();
}

template <class Stream>
asio::awaitable<void> ZRBTestServer::Impl::serveRequests(Connection& connection, Stream& stream) {
  beast::flat_buffer buffer;
  std::vector<char> piece(kWriteSlice);
  for (std::uint64_t onConnection = 0; !connection.closed; ++onConnection) {
    http::request_parser<http::buffer_body> parser;
    parser.header_limit(kHeaderLimit);
    parser.body_limit(boost::none);
    auto [headerError, headerBytes] = co_await http::async_read_header(stream, buffer, parser, kNoThrow);
    if (headerError) co_return;

    auto& message = parser.get();
    ZRBTestRecordedRequest request;
    request.connectionID = connection.id;
    request.indexOnConnection = onConnection;
    request.tls = sslContext.has_value();
    request.method = std::string(message.method_string());
    request.target = std::string(message.target());
    request.path = request.target.substr(0, request.target.find('?'));
    for (const auto& field : message) {
      request.headers.add(std::string(field.name_string()), std::string(field.value()));
    }
    if constexpr (std::is_same_v<Stream, tcp::socket>) {
      if (options.tunnels && request.method == "CONNECT") {
        co_await tunnel(connection, request.target, buffer);
        co_return;
      }
    }
    auto route = findRoute(request.method, request.path);

    auto expect = request.headers.get("Expect");
    if (expect && equalsIgnoringCase(*expect, "100-continue")) {
      static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
      auto [ec, n] = co_await asio::async_write(stream, asio::buffer(kContinue), kNoThrow);
      if (ec) co_return;
    }
    std::uint64_t keepLimit = route && route->bodyKeepLimit ? *route->bodyKeepLimit : options.bodyKeepLimit;
    ZRBTestSHA256 hash;
    bool failed = false;
    while (!parser.is_done()) {
      message.body().data = piece.data();
      message.body().size = piece.size();
      auto [ec, n] = co_await http::async_read(stream, buffer, parser, kNoThrow);
      if (ec == http::error::need_buffer) ec = {};
      std::size_t got = piece.size() - message.body().size;
      std::string_view part(piece.data(), got);
      hash.update(part);
      request.bodySize += got;
      std::size_t keep = static_cast<std::size_t>(
          std::min<std::uint64_t>(got, keepLimit - std::min<std::uint64_t>(keepLimit, request.body.size())));
      request.body.append(part.substr(0, keep));
      if (ec) {
        failed = true;
        break;
      }
    }
    request.bodySHA256 = hash.finish();
    if (failed) {
      // The client went away mid-body; the record says how far it got.
      record(request);
      co_return;
    }
    request.bodyComplete = true;
    record(request);

    ZRBTestResponse response;
    if (!route) {
      response = ZRBTestResponse::text(404, "no route for " + request.method + " " + request.path + "\n");
    } else {
      try {
        response = route->handler(request);
      } catch (const std::exception& error) {
        response = ZRBTestResponse::text(500, std::string("handler threw: ") + error.what() + "\n");
      }
    }
    bool keepAlive = parser.keep_alive() && response.keepAlive;
    bool kept = co_await writeResponse(connection, stream, response, request.method == "HEAD", keepAlive);
    if (!kept) co_return;
    if (!keepAlive) {
      co_await closeGracefully(connection, stream);
      co_return;
    }
  }
}

// Writes one response. Returns whether the connection may carry another request; misbehaving
// answers close it themselves.
template <class Stream>
asio::awaitable<bool> ZRBTestServer::Impl::writeResponse(Connection& connection, Stream& stream,
                                                         const ZRBTestResponse& response, bool head,
                                                         bool keepAlive) {
  auto wait = [&connection](std::chrono::steady_clock::duration delay) -> asio::awaitable<bool> {
    if (connection.closed) co_return false;
    if (delay <= delay.zero()) co_return true;
    connection.timer.expires_after(delay);
    co_await connection.timer.async_wait(kNoThrow);
    co_return !connection.closed;
  };
  auto write = [&connection, &stream](std::string_view bytes) -> asio::awaitable<bool> {
    if (connection.closed) co_return false;
    auto [ec, n] = co_await asio::async_write(stream, asio::buffer(bytes.data(), bytes.size()), kNoThrow);
    co_return !ec && !connection.closed;
  };
  auto abort = [&connection] {
    connection.close();
    return false;
  };

  if (!co_await wait(response.delayBeforeHeaders)) co_return false;

  std::string text;
  if (response.malformedStatusLine) {
    text = *response.malformedStatusLine + "\r\n";
  } else {
    text = "HTTP/1.1 " + std::to_string(response.status) + " " +
           (response.reason.empty() ? reasonPhrase(response.status) : response.reason) + "\r\n";
  }

  if (response.endlessHeader) {
    if (!co_await write(text)) co_return false;
    const std::string filler(1000, 'x');
    std::uint64_t sent = text.size();
    for (std::uint64_t n = 0; sent < kEndlessHeaderCap; ++n) {
      std::string field = "X-Filler-" + std::to_string(n) + ": " + filler + "\r\n";
      if (!co_await write(field)) co_return false;
      sent += field.size();
    }
    co_return abort();
  }

  const std::uint64_t size = response.bodySize();
  const bool noBody = statusHasNoBody(response.status);
  const bool userFraming =
      response.headers.has("Content-Length") || response.headers.has("Transfer-Encoding");
  for (const auto& [name, value] : response.headers.fields()) text += name + ": " + value + "\r\n";
  if (!userFraming && !noBody) {
    text += response.chunked
                ? std::string("Transfer-Encoding: chunked\r\n")
                : "Content-Length: " + std::to_string(response.declaredContentLength.value_or(size)) + "\r\n";
  }
  if (!keepAlive && !response.headers.has("Connection")) text += "Connection: close\r\n";
  text += "\r\n";
  if (!co_await write(text)) co_return false;

  const bool lyingLength = !response.chunked && response.declaredContentLength.value_or(size) > size;
  const bool misbehaves = response.malformedStatusLine || lyingLength ||
                          (response.chunked && response.truncateChunkedBody) || response.closeAfterBodyBytes;
  if (head || noBody) co_return misbehaves ? abort() : true;
  if (!co_await wait(response.delayBeforeBody)) co_return false;

  // The body, in pieces of chunkSize (one chunk each when chunked), each written in slices that the
  // throttle and the close-after limit may shorten further.
  const std::uint64_t limit = response.closeAfterBodyBytes.value_or(UINT64_MAX);
  const std::uint64_t pieceSize =
      response.chunkSize > 0 ? response.chunkSize : std::max<std::uint64_t>(size, 1);
  const auto bodyStarted = std::chrono::steady_clock::now();
  std::vector<char> scratch(response.generatedBody ? kWriteSlice : 0);
  std::uint64_t sent = 0;
  for (std::uint64_t pieceStart = 0; pieceStart < size; pieceStart += pieceSize) {
    const std::uint64_t pieceEnd = std::min(size, pieceStart + pieceSize);
    if (response.chunked) {
      char line[32];
      int n = std::snprintf(line, sizeof line, "%llx\r\n",
                            static_cast<unsigned long long>(pieceEnd - pieceStart));
      if (!co_await write(std::string_view(line, static_cast<std::size_t>(n)))) co_return false;
    }
    while (sent < pieceEnd) {
      if (sent >= limit) co_return abort();
      std::uint64_t slice = std::min<std::uint64_t>({pieceEnd - sent, kWriteSlice, limit - sent});
      if (response.bytesPerSecond > 0) {
        // About twenty writes a second, each at the moment the rate allows it.
        slice = std::min<std::uint64_t>(slice, std::max<std::uint64_t>(response.bytesPerSecond / 20, 1));
        auto due = bodyStarted + std::chrono::microseconds(sent * 1'000'000 / response.bytesPerSecond);
        if (!co_await wait(due - std::chrono::steady_clock::now())) co_return false;
      }
      std::string_view bytes;
      if (response.generatedBody) {
        response.generatedBody->fill(sent, std::span<char>(scratch.data(), static_cast<std::size_t>(slice)));
        bytes = std::string_view(scratch.data(), static_cast<std::size_t>(slice));
      } else {
        bytes = std::string_view(response.body)
                    .substr(static_cast<std::size_t>(sent), static_cast<std::size_t>(slice));
      }
      if (!co_await write(bytes)) co_return false;
      sent += slice;
    }
    if (sent >= limit) co_return abort();
    if (response.chunked && !co_await write("\r\n")) co_return false;
  }
  if (response.chunked) {
    if (response.truncateChunkedBody) co_return abort();
    if (!co_await write("0\r\n\r\n")) co_return false;
  }
  if (misbehaves) co_return abort();
  co_return true;
}

// Ends the connection so that the peer reads everything written before: a TLS close_notify or a
// TCP half-close, then whatever the peer still sends is drained until it closes too.
template <class Stream>
asio::awaitable<void> ZRBTestServer::Impl::closeGracefully(Connection& connection, Stream& stream) {
  if (connection.closed) co_return;
  connection.arm(kCloseGrace);
  if constexpr (std::is_same_v<Stream, tcp::socket>) {
    boost::system::error_code ignored;
    stream.shutdown(tcp::socket::shutdown_send, ignored);
    std::vector<char> sink(kWriteSlice);
    for (;;) {
      auto [ec, n] = co_await stream.async_read_some(asio::buffer(sink), kNoThrow);
      if (ec) break;
    }
  } else {
    co_await stream.async_shutdown(kNoThrow);
  }
  connection.close();
}

std::shared_ptr<const ZRBTestRoute> ZRBTestServer::Impl::findRoute(std::string_view method,
                                                                   std::string_view path) const {
  std::lock_guard lock(routesMutex);
  auto methodMatches = [&](const ZRBTestRoute& route) {
    return route.method.empty() || route.method == method || (route.method == "GET" && method == "HEAD");
  };
  for (auto it = routes.rbegin(); it != routes.rend(); ++it) {
    if (!(*it)->prefix && (*it)->path == path && methodMatches(**it)) return *it;
  }
  std::shared_ptr<const ZRBTestRoute> best;
  for (auto it = routes.rbegin(); it != routes.rend(); ++it) {
    const ZRBTestRoute& route = **it;
    if (route.prefix && path.starts_with(route.path) && methodMatches(route) &&
        (!best || route.path.size() > best->path.size())) {
      best = *it;
    }
  }
  return best;
}

void ZRBTestServer::Impl::record(ZRBTestRecordedRequest& request) {
  std::lock_guard lock(requestsMutex);
  recorded.push_back(request);
  requestsChanged.notify_all();
}

// The public face.

ZRBTestServer::ZRBTestServer() : ZRBTestServer(ZRBTestServerOptions{}) {}

ZRBTestServer::ZRBTestServer(ZRBTestServerOptions options)
    : impl_(std::make_shared<Impl>(std::move(options))) {}

ZRBTestServer::~ZRBTestServer() { stop(); }

void ZRBTestServer::start() { impl_->start(); }

void ZRBTestServer::stop() { impl_->stop(); }

std::uint16_t ZRBTestServer::port() const { return impl_->port.load(); }

std::string ZRBTestServer::baseURL() const {
  return (impl_->sslContext ? "https://localhost:" : "http://127.0.0.1:") + std::to_string(port());
}

void ZRBTestServer::route(ZRBTestRoute route) {
  if (!route.handler) throw std::invalid_argument("ZRBTestServer: a route needs a handler");
  std::lock_guard lock(impl_->routesMutex);
  impl_->routes.push_back(std::make_shared<const ZRBTestRoute>(std::move(route)));
}

std::vector<ZRBTestRecordedRequest> ZRBTestServer::requests() const {
  std::lock_guard lock(impl_->requestsMutex);
  return impl_->recorded;
}

std::size_t ZRBTestServer::requestCount() const {
  std::lock_guard lock(impl_->requestsMutex);
  return impl_->recorded.size();
}

bool ZRBTestServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(impl_->requestsMutex);
  return impl_->requestsChanged.wait_for(lock, timeout, [&] { return impl_->recorded.size() >= count; });
}

void ZRBTestServer::clearRequests() {
  std::lock_guard lock(impl_->requestsMutex);
  impl_->recorded.clear();
}

std::uint64_t ZRBTestServer::connectionCount() const { return impl_->accepted.load(); }
