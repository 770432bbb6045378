// An in-process HTTP/1.1 server on loopback for the transport's tests, plain or over TLS with a
// chain from the test PKI.
//
// Answers are scripted per route (method + exact path or path prefix): canned responses with every
// misbehaviour a client must survive (delays, throttling, abrupt closes, malformed status lines,
// endless headers, truncated chunked bodies, lying Content-Length), or handlers written by the test.
// Convenience routes cover redirects, byte ranges, large generated bodies, an upload sink and an
// echo. Every request is recorded for assertions.
//
// Only HTTP/1.1 is spoken; TLS offers no ALPN, so clients always fall back to HTTP/1.1. The server
// binds 127.0.0.1 on an ephemeral port and nothing else.
//
// Threads: the server runs its own io_context on two threads of its own. Handlers and body
// callbacks run on those threads, possibly concurrently for different connections, and must not
// block for long (a blocked handler also blocks stop()). Everything else may be called from any
// thread. The Beast/Asio machinery stays in the .cpp files so including this header is cheap.
#pragma once

#include <openssl/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/test_pki.h"

// Header fields in the order received or to be sent. Lookups ignore case.
class ZRBTestHeaders {
 public:
  using Field = std::pair<std::string, std::string>;

  void add(std::string name, std::string value) { fields_.emplace_back(std::move(name), std::move(value)); }
  // Replaces every field of that name with one field.
  void set(std::string_view name, std::string value);
  void remove(std::string_view name);
  bool has(std::string_view name) const;
  // The first value of that name.
  std::optional<std::string> get(std::string_view name) const;

  const std::vector<Field>& fields() const { return fields_; }

 private:
  std::vector<Field> fields_;
};

// A response body produced on demand, so that a gigabyte need not be held in memory. `fill` writes
// out.size() bytes starting at `offset`; it is called from the server's threads.
struct ZRBTestBodySource {
  std::uint64_t size = 0;
  std::function<void(std::uint64_t offset, std::span<char> out)> fill;

  // `size` bytes of the deterministic pattern below.
  static ZRBTestBodySource pattern(std::uint64_t size, std::uint64_t seed = 0);
};

// The deterministic body pattern: every byte depends on its offset (and the seed) without a short
// period, so a client that skips, repeats or reorders bytes produces different data.
void ZRBTestPatternFill(std::uint64_t offset, std::span<char> out, std::uint64_t seed = 0);
std::string ZRBTestPatternBytes(std::uint64_t offset, std::uint64_t length, std::uint64_t seed = 0);
// Lower-case hex SHA-256 of pattern bytes [offset, offset + length), computed piecewise.
std::string ZRBTestPatternSHA256(std::uint64_t offset, std::uint64_t length, std::uint64_t seed = 0);
// Lower-case hex SHA-256 of `bytes`.
std::string ZRBTestSHA256Hex(std::string_view bytes);

// A running SHA-256 over bytes that arrive piece by piece.
class ZRBTestSHA256 {
 public:
  ZRBTestSHA256();
  void update(std::string_view bytes);
  // Lower-case hex; the hash cannot be updated afterwards.
  std::string finish();

 private:
  std::shared_ptr<EVP_MD_CTX> context_;
};

// A scripted answer. The defaults give a well-formed 200 with Content-Length on a kept-alive
// connection. The server adds Content-Length (or Transfer-Encoding: chunked) and Connection: close
// itself unless `headers` already has them.
struct ZRBTestResponse {
  int status = 200;
  std::string reason{};  // empty: the usual phrase for `status`
  ZRBTestHeaders headers{};
  std::string body{};
  std::optional<ZRBTestBodySource> generatedBody{};  // when set, used instead of `body`

  // Chunked transfer coding; each piece of `chunkSize` bytes becomes one chunk.
  bool chunked = false;
  // Bodies are written in pieces of this many bytes (0: in one piece; at most 64 KiB per write).
  std::size_t chunkSize = 0;
  std::chrono::milliseconds delayBeforeHeaders{0};
  std::chrono::milliseconds delayBeforeBody{0};
  // Throttles the body to about this many bytes per second (0: as fast as the socket takes it).
  std::uint64_t bytesPerSecond = 0;

  // Misbehaviour.
  // Closes the connection (TCP, without a TLS close_notify) once this many body bytes are out.
  std::optional<std::uint64_t> closeAfterBodyBytes{};
  // Sent verbatim (plus CRLF) instead of the status line; the connection closes after the answer.
  std::optional<std::string> malformedStatusLine{};
  // Sends header fields without end until the client goes away or 64 MiB are out, then closes.
  bool endlessHeader = false;
  // Chunked bodies only: leaves out the last (empty) chunk and closes.
  bool truncateChunkedBody = false;
  // Declares this Content-Length instead of the real one; when it is larger the connection closes
  // after the real body.
  std::optional<std::uint64_t> declaredContentLength{};
  // false answers with Connection: close and closes after the response.
  bool keepAlive = true;

  std::uint64_t bodySize() const { return generatedBody ? generatedBody->size : body.size(); }

  static ZRBTestResponse text(int status, std::string body, std::string contentType = "text/plain");
  static ZRBTestResponse json(int status, std::string body);
  // `size` bytes of the pattern, streamed.
  static ZRBTestResponse generated(std::uint64_t size, std::uint64_t seed = 0);
};

// A request as the server received it.
struct ZRBTestRecordedRequest {
  std::uint64_t connectionID = 0;  // the same for requests on one connection, from 1
  std::uint64_t indexOnConnection = 0;
  bool tls = false;
  std::string method;
  std::string target;  // as sent: path and query
  std::string path;    // target without the query
  ZRBTestHeaders headers;
  std::string body;  // the body up to the route's keep limit
  std::uint64_t bodySize = 0;
  std::string bodySHA256;     // lower-case hex, of the whole body
  bool bodyComplete = false;  // the whole body was read (false when the client stopped sending)

  std::optional<std::string> header(std::string_view name) const { return headers.get(name); }
};

// Answers one request. It runs on a server thread once the request body has been read.
using ZRBTestHandler = std::function<ZRBTestResponse(const ZRBTestRecordedRequest& request)>;

struct ZRBTestRoute {
  std::string method{};  // empty: any; "GET" also answers HEAD (without the body)
  std::string path{};
  bool prefix = false;  // `path` is a prefix of the request path rather than the whole of it
  ZRBTestHandler handler{};
  // How much of the request body to keep in the record (default: the server's option).
  std::optional<std::uint64_t> bodyKeepLimit{};
};

struct ZRBTestRangeOptions {
  ZRBTestBodySource body = ZRBTestBodySource::pattern(64 * 1024);
  std::string contentType = "application/octet-stream";
  std::optional<std::string> etag{};  // sent as given, e.g. "\"v1\""
  // Answers 200 with the whole body whatever Range says.
  bool ignoreRange = false;
  // Applied to every answer (delays, throttling, chunk size, closes); status, headers and body are
  // set by the route.
  ZRBTestResponse shape{};
};

struct ZRBTestUploadSinkOptions {
  std::uint64_t keepLimit = 0;  // bytes of the body kept in the record
  int status = 200;
};

struct ZRBTestServerOptions {
  // TLS with this chain's leaf and intermediate; clients trust the chain's root.
  std::optional<ZRBTestChain> tls{};
  std::uint64_t bodyKeepLimit = 1 << 20;
  // Plain servers only: "CONNECT host:port" opens a tunnel to 127.0.0.1:port, whatever the host, and
  // relays bytes both ways until either side closes. Such requests are not recorded.
  bool tunnels = false;
};

class ZRBTestServer {
 public:
  ZRBTestServer();
  explicit ZRBTestServer(ZRBTestServerOptions options);
  ZRBTestServer(const ZRBTestServer&) = delete;
  ZRBTestServer& operator=(const ZRBTestServer&) = delete;
  ~ZRBTestServer();  // stops

  // Binds and starts serving; port() is valid afterwards. A server starts once.
  void start();
  // Closes the listener and every connection (transfers in progress included), waits for the
  // server's threads and returns. Idempotent; not to be called from a handler.
  void stop();

  std::uint16_t port() const;
  // "http://127.0.0.1:PORT", or "https://localhost:PORT" so host checks match the leaf's names.
  std::string baseURL() const;
  std::string url(std::string_view pathAndQuery) const { return baseURL() + std::string(pathAndQuery); }

  // Routes may be added at any time. Exact routes are tried first, then prefix routes, longest
  // prefix first; among equals the route added last wins. Unrouted requests get a 404.
  void route(ZRBTestRoute route);
  void respond(std::string method, std::string path, ZRBTestResponse response);
  void respondPrefix(std::string method, std::string pathPrefix, ZRBTestResponse response);
  void handle(std::string method, std::string path, ZRBTestHandler handler);

  // Any method at `path` redirects to `location` with 301, 302, 303, 307 or 308.
  void redirect(std::string path, std::string location, int status = 302);
  // `pathA` redirects to `pathB` and back, for ever.
  void redirectLoop(std::string pathA, std::string pathB, int status = 302);
  // GET and HEAD at `path` serve the body honouring a single `Range: bytes=a-b`, `a-` or `-n`
  // (206 with Content-Range; 416 when unsatisfiable) unless If-Range names another entity tag
  // (strong comparison) or a date, in which case the answer is 200.
  // Several ranges in one header are answered with the whole body.
  void serveRanges(std::string path, ZRBTestRangeOptions options);
  // Any method at `path` reads the body streamingly and answers JSON {"bytes":N,"sha256":"hex"};
  // the record holds size and hash, and the body up to keepLimit.
  void uploadSink(std::string path, ZRBTestUploadSinkOptions options = {});
  // Any method at paths under `pathPrefix` answers JSON describing the request: method, target,
  // headers (names as sent; repeated fields joined with ", "), bodyLength, bodySHA256,
  // connectionID, tls.
  void echo(std::string pathPrefix = "/echo");

  // Requests in order of arrival (those whose body has been read).
  std::vector<ZRBTestRecordedRequest> requests() const;
  std::size_t requestCount() const;
  // Waits until at least `count` requests are recorded; false on timeout.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
  void clearRequests();
  // Connections accepted so far (TLS ones count even when the handshake fails).
  std::uint64_t connectionCount() const;

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};
