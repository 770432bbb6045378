// ZRBTransfer: one HTTP exchange on a libcurl easy handle, on the transport thread.
//
// A transfer turns a ZRBURLRequest into easy-handle options, sends the body from bytes, a file or
// a stream pump, parses the response head into a ZRBHTTPURLResponse, and reports every event to its
// client. It knows nothing about tasks or delegates: redirects, authentication, dispositions and
// retries are the client's business (a task runs one transfer per attempt).
//
// TLS: libcurl's own verification is off; the client judges the peer's chain inside the handshake
// (transferEvaluateServerTrust), which is how the session's server-trust challenge runs there.
// Renegotiation is refused, so a connection kept in the cache never verifies again after its
// first transfer is gone.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"
#include "platform/net/http_header_fields.h"
#include "platform/net/http_url_response.h"
#include "platform/net/url_request.h"

typedef void CURL;
struct x509_store_ctx_st;
class ZRBTransport;
struct ZRBEasyHandle;
class ZRBTransfer;
class ZRBBodyPump;

// What a transfer tells its owner. Every call runs on the transport thread.
class ZRBTransferClient {
 public:
  virtual ~ZRBTransferClient() = default;
  // The head of the final (non-1xx) response.
  virtual void transferDidReceiveResponse(ZRBTransfer& transfer, ZRBHTTPURLResponsePtr response) = 0;
  // Body bytes. Return `length` to take them, ZRBTransfer::kPause to be handed them again after
  // unpause(), anything else to abort the transfer.
  virtual std::size_t transferDidReceiveData(ZRBTransfer& transfer, const char* data, std::size_t length) = 0;
  // Request body bytes sent so far (upload transfers only).
  virtual void transferDidSendBodyData(ZRBTransfer& transfer, std::int64_t totalSent) = 0;
  // The peer's chain during the TLS handshake; true lets the handshake go on.
  virtual bool transferEvaluateServerTrust(ZRBTransfer& transfer, x509_store_ctx_st* context) = 0;
  // The transfer has ended with a libcurl result code; it is no longer driven.
  virtual void transferDidComplete(ZRBTransfer& transfer, int curlCode) = 0;
  virtual void transferCheckTimeouts(ZRBTransfer& transfer, std::chrono::steady_clock::time_point now) = 0;
};

struct ZRBTransferBody {
  enum class Kind { None, Bytes, File, Stream };
  Kind kind = Kind::None;
  ZRBValue bytes;                     // Bytes
  std::string path;                   // File
  std::shared_ptr<ZRBBodyPump> pump;  // Stream
};

struct ZRBTransferSetup {
  const ZRBURLRequest* request = nullptr;  // kept alive by the caller while prepare() runs
  ZRBTransferBody body;
  // Added when the request lacks them (the configuration's additional headers).
  ZRBValue additionalHeaders;
  // Extra fields set on top of the request's (Range, If-Range of a resumed download).
  ZRBHTTPHeaderFields overrideHeaders;
  long connectTimeoutMilliseconds = 60000;
  std::optional<std::string> cookieHeader;  // the "Cookie" field, when cookies are handled
  ZRBValue proxyDictionary;                 // absent: proxies from the environment
  long streamWeight = 16;
  long receiveBufferSize = 0;  // 0: libcurl's default
  bool decodeContent = true;
  // Credentials for an HTTP authentication retry.
  std::optional<std::string> user;
  std::optional<std::string> password;
  long authenticationSchemes = 0;  // CURLAUTH_* bits
  // "HOST:PORT:ADDRESS" entries for libcurl's resolve list (the configuration's resolveEntries).
  std::vector<std::string> resolveEntries;
};

class ZRBTransfer {
 public:
  // Transfers live in memory the transport recycles; this deleter gives it back.
  struct Deleter {
    void operator()(ZRBTransfer* transfer) const;
  };
  using Ptr = std::unique_ptr<ZRBTransfer, Deleter>;
  static Ptr make(ZRBTransport& transport, ZRBTransferClient& client);

  static constexpr std::size_t kPause = 0x10000001;  // CURL_WRITEFUNC_PAUSE
  // Heads larger than this end the transfer: a server that never stops sending header fields.
  static constexpr std::size_t kMaximumHeaderBytes = 256 * 1024;

  ZRBTransfer(ZRBTransport& transport, ZRBTransferClient& client);
  ZRBTransfer(const ZRBTransfer&) = delete;
  ZRBTransfer& operator=(const ZRBTransfer&) = delete;
  // Stops driving the transfer (if it still runs) and gives the handle back to the pool.
  ~ZRBTransfer();

  // Sets the handle up. An error record when the request cannot be sent at all: no or bad URL
  // (ZRBURLErrorBadURL), a scheme other than http/https (ZRBURLErrorUnsupportedURL), an
  // unreadable body file (ZRBURLErrorFileDoesNotExist, ZRBURLErrorNoPermissionsToReadFile).
  ZRBErrorPtr prepare(const ZRBTransferSetup& setup);
  void start();
  void pause();
  void unpause();

  CURL* easy() const;
  // Total body length when known, else -1.
  std::int64_t bodyLength() const { return bodyLength_; }
  bool headTooLarge() const { return headTooLarge_; }
  // libcurl's own words about the last failure.
  const char* errorDetail() const;
  // The head arrived (a final response was reported).
  bool receivedResponse() const { return receivedResponse_; }
  // The Set-Cookie fields of the final head, one entry each (a joined field would be ambiguous,
  // dates carry commas).
  const std::vector<std::string>& setCookies() const { return setCookies_; }

  // ---- for the transport ----
  void done(int curlCode);
  void checkTimeouts(std::chrono::steady_clock::time_point now) { client_.transferCheckTimeouts(*this, now); }
  // The transport is going away: stop without reporting.
  void abandon() { active_ = false; }

 private:
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onWrite(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onRead(char* buffer, std::size_t size, std::size_t count, void* self);
  static int onSeek(void* self, std::int64_t offset, int origin);
  static int onProgress(void* self, std::int64_t dltotal, std::int64_t dlnow, std::int64_t ultotal,
                        std::int64_t ulnow);
  static int onSSLContext(CURL* easy, void* sslContext, void* self);
  static int onVerify(x509_store_ctx_st* context, void* self);

  std::size_t header(std::string_view lines);
  // One line of a head; false ends the transfer (a head beyond the size limit).
  bool headerLine(std::string_view line);
  std::size_t read(char* buffer, std::size_t length);
  void configureHandle();
  void applyHeaders(const ZRBTransferSetup& setup, bool hasBody);

  ZRBTransport& transport_;
  ZRBTransferClient& client_;
  std::unique_ptr<ZRBEasyHandle> handle_;
  bool active_ = false;
  // Where the transport keeps it in its list of active transfers.
  static constexpr std::size_t kNotActive = std::size_t(-1);
  std::size_t activeIndex_ = kNotActive;
  friend class ZRBTransport;
  // Lets work posted from other threads find this transfer if it still exists (checked and
  // destroyed on the transport thread only).
  std::shared_ptr<ZRBTransfer*> self_;  // made when a body pump needs it

  ZRBURLPtr url_;
  ZRBTransferBody body_;
  int fd_ = -1;
  std::int64_t bodyLength_ = -1;
  std::int64_t bodyOffset_ = 0;
  std::int64_t lastReportedSent_ = 0;

  // The response head being read.
  long status_ = 0;
  std::string version_;
  ZRBHTTPHeaderLines head_;
  std::size_t headBytes_ = 0;
  bool headTooLarge_ = false;
  std::vector<std::string> setCookies_;
  bool receivedResponse_ = false;
};
