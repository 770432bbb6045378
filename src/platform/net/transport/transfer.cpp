#include "platform/net/transport/transfer.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "platform/net/transport/body_pump.h"
#include "platform/net/transport/transport.h"
#include "platform/net/transport/transport_error.h"

#ifndef ORVELKIT_VERSION_STRING
#define ORVELKIT_VERSION_STRING "0"
#endif

namespace {
std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() &&
         (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

// "host:port" of the configured proxy for the scheme, "" for none, nullopt for the environment's.
std::optional<std::string> proxyFor(const ZRBValue& proxies, bool https) {
  if (!proxies.isDictionary()) return std::nullopt;
  std::string_view enable = https ? "HTTPSEnable" : "HTTPEnable";
  std::string_view host = https ? "HTTPSProxy" : "HTTPProxy";
  std::string_view port = https ? "HTTPSPort" : "HTTPPort";
  if (!proxies[enable].boolValue() || !proxies[host].isString()) return std::string();
  std::string proxy = proxies[host].string();
  if (proxies[port].isNumber()) proxy += ":" + std::to_string(proxies[port].intValue());
  return proxy;
}
}  // namespace

ZRBTransfer::Ptr ZRBTransfer::make(ZRBTransport& transport, ZRBTransferClient& client) {
  void* memory = transport.takeTransferMemory();
  try {
    return Ptr(new (memory) ZRBTransfer(transport, client));
  } catch (...) {
    transport.returnTransferMemory(memory);
    throw;
  }
}

void ZRBTransfer::Deleter::operator()(ZRBTransfer* transfer) const {
  ZRBTransport& transport = transfer->transport_;
  transfer->~ZRBTransfer();
  transport.returnTransferMemory(transfer);
}

ZRBTransfer::ZRBTransfer(ZRBTransport& transport, ZRBTransferClient& client)
    : transport_(transport), client_(client), handle_(transport.takeEasyHandle()) {
  handle_->transfer = this;
}

ZRBTransfer::~ZRBTransfer() {
  if (active_) transport_.remove(*this);
  if (body_.pump) body_.pump->cancel();
  if (fd_ >= 0) ::close(fd_);
  transport_.returnEasyHandle(std::move(handle_));
}

CURL* ZRBTransfer::easy() const { return handle_->easy; }
const char* ZRBTransfer::errorDetail() const { return handle_->errorBuffer; }

namespace {
// Sets an option that not every transfer sets: the handle is reset before its next transfer.
template <typename Value>
void setExtraOption(ZRBEasyHandle& handle, CURLoption option, Value value) {
  handle.dirty = true;
  curl_easy_setopt(handle.easy, option, value);
}
}  // namespace

void ZRBTransfer::configureHandle() {
  ZRBEasyHandle& handle = *handle_;
  CURL* easy = handle.easy;
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &handle);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, handle.errorBuffer);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  // Every encoding libcurl can decode; the Accept-Encoding field itself is one of our header
  // lines (see applyHeaders).
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  // No proxy unless a transfer names one: the environment's were read when the transport started.
  curl_easy_setopt(easy, CURLOPT_PROXY, "");
  curl_easy_setopt(easy, CURLOPT_NOPROXY, "");

  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &ZRBTransfer::onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &handle);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &ZRBTransfer::onWrite);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &handle);
  // Only used by transfers with a body.
  curl_easy_setopt(easy, CURLOPT_READFUNCTION, &ZRBTransfer::onRead);
  curl_easy_setopt(easy, CURLOPT_READDATA, &handle);
  curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &ZRBTransfer::onSeek);
  curl_easy_setopt(easy, CURLOPT_SEEKDATA, &handle);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &ZRBTransfer::onProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &handle);

  // The session's challenge path judges the server; libcurl's own checks are off.
  //
  // TLS sessions are never resumed. A resumed handshake carries no certificates and OpenSSL runs no
  // verification callback for it, so the challenge path (and the pin validation behind it) would be
  // skipped for a connection whose trust decision may have changed since the session was made. Every
  // new connection therefore makes a full handshake that the challenge path judges; kept-alive
  // connections and HTTP/2 streams, which carry nearly all requests, need no handshake at all.
  curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
  curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
  curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &ZRBTransfer::onSSLContext);
  curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, &handle);
  handle.configured = true;
}

ZRBErrorPtr ZRBTransfer::prepare(const ZRBTransferSetup& setup) {
  const ZRBURLRequest& request = *setup.request;
  url_ = request.URL();
  if (!url_) return ZRBTransportError(ZRBURLErrorBadURL, nullptr);
  const std::string scheme = url_->scheme().value_or("");
  const bool https = ZRBHTTPHeaderNameEquals(scheme, "https");  // schemes ignore case, as names do
  if (!https && !ZRBHTTPHeaderNameEquals(scheme, "http"))
    return ZRBTransportError(ZRBURLErrorUnsupportedURL, url_);
  if (auto host = url_->host(); !host || host->empty()) return ZRBTransportError(ZRBURLErrorBadURL, url_);

  body_ = setup.body;
  switch (body_.kind) {
    case ZRBTransferBody::Kind::None: break;
    case ZRBTransferBody::Kind::Bytes: bodyLength_ = std::int64_t(body_.bytes.bytes().size()); break;
    case ZRBTransferBody::Kind::File: {
      fd_ = ::open(body_.path.c_str(), O_RDONLY | O_CLOEXEC);
      struct stat info {};
      if (fd_ < 0 || ::fstat(fd_, &info) != 0 || S_ISDIR(info.st_mode)) {
        long code = errno == EACCES                       ? ZRBURLErrorNoPermissionsToReadFile
                    : (fd_ >= 0 && S_ISDIR(info.st_mode)) ? ZRBURLErrorFileIsDirectory
                                                          : ZRBURLErrorFileDoesNotExist;
        return ZRBTransportError(code, url_);
      }
      bodyLength_ = info.st_size;
      ::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
      break;
    }
    case ZRBTransferBody::Kind::Stream: {
      // A stream's length is only known from the request's own Content-Length.
      auto declared = request.valueForHTTPHeaderField("Content-Length");
      if (declared) {
        std::int64_t length = -1;
        auto [end, ec] = std::from_chars(declared->data(), declared->data() + declared->size(), length);
        if (ec == std::errc() && end == declared->data() + declared->size() && length >= 0)
          bodyLength_ = length;
      }
      break;
    }
  }

  ZRBEasyHandle& handle = *handle_;
  if (!handle.configured) configureHandle();
  handle.errorBuffer[0] = '\0';
  CURL* easy = handle.easy;
  const std::string& urlText = url_->absoluteString();
  if (urlText != handle.urlText) {
    if (!handle.url) handle.url = curl_url();
    // The flags are the ones libcurl parses a URL option with. A URL it cannot parse goes to it
    // as text, so that the failure is the transfer's, as before.
    if (handle.url &&
        curl_url_set(handle.url, CURLUPART_URL, urlText.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK) {
      handle.urlText = urlText;
    } else {
      handle.urlText.clear();
    }
  }
  curl_easy_setopt(easy, CURLOPT_CURLU, handle.urlText.empty() ? nullptr : handle.url);
  // The text as well: libcurl reports it as the effective URL and names it in its messages.
  curl_easy_setopt(easy, CURLOPT_URL, urlText.c_str());
  // Set only when they differ from the last transfer's: most transfers of a session agree.
  if (long weight = std::clamp(setup.streamWeight, 1L, 256L); weight != handle.streamWeight) {
    curl_easy_setopt(easy, CURLOPT_STREAM_WEIGHT, weight);
    handle.streamWeight = weight;
  }
  if (long timeout = std::max(1L, setup.connectTimeoutMilliseconds); timeout != handle.connectTimeout) {
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, timeout);
    handle.connectTimeout = timeout;
  }
  if (setup.receiveBufferSize > 0) setExtraOption(handle, CURLOPT_BUFFERSIZE, setup.receiveBufferSize);
  if (!setup.decodeContent)
    setExtraOption(handle, CURLOPT_ACCEPT_ENCODING, static_cast<const char*>(nullptr));
  if (auto proxy = proxyFor(setup.proxyDictionary, https)) {
    setExtraOption(handle, CURLOPT_PROXY, proxy->c_str());
  } else if (const ZRBEnvironmentProxies& environment = transport_.environmentProxies(); environment.any()) {
    curl_easy_setopt(easy, CURLOPT_PROXY, (https ? environment.https : environment.http).c_str());
    curl_easy_setopt(easy, CURLOPT_NOPROXY, environment.noProxy.c_str());
  }
  // libcurl moves the entries into the DNS cache for good when a transfer starts, so a handle that
  // set the same ones last time keeps them, without a reset for them when it is returned.
  if (setup.resolveEntries != handle.resolveEntries) {
    curl_slist_free_all(handle.resolveList);
    handle.resolveList = nullptr;
    for (const auto& entry : setup.resolveEntries) {
      if (curl_slist* grown = curl_slist_append(handle.resolveList, entry.c_str()))
        handle.resolveList = grown;
    }
    curl_easy_setopt(easy, CURLOPT_RESOLVE, handle.resolveList);
    handle.resolveEntries = setup.resolveEntries;
  }
  if (setup.user) {
    setExtraOption(handle, CURLOPT_USERNAME, setup.user->c_str());
    setExtraOption(handle, CURLOPT_PASSWORD, setup.password.value_or("").c_str());
    setExtraOption(
        handle, CURLOPT_HTTPAUTH,
        setup.authenticationSchemes ? setup.authenticationSchemes : long(CURLAUTH_BASIC | CURLAUTH_DIGEST));
  }

  const std::string& method = request.HTTPMethod();
  bool hasBody = body_.kind != ZRBTransferBody::Kind::None;
  if (hasBody) {
    setExtraOption(handle, CURLOPT_POST, 1L);
    setExtraOption(handle, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(bodyLength_));
    // libcurl's default upload buffer (64 KiB) is kept: larger ones measured slower on loopback,
    // where the socket rather than the buffer sets the pace.
    setExtraOption(handle, CURLOPT_NOPROGRESS, 0L);
    if (method != "POST") setExtraOption(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
  } else if (method == "GET") {
    // A handle is in GET mode unless a transfer set another, which made it dirty.
  } else if (method == "HEAD") {
    setExtraOption(handle, CURLOPT_NOBODY, 1L);
  } else if (method == "POST") {
    setExtraOption(handle, CURLOPT_POSTFIELDS, "");
    setExtraOption(handle, CURLOPT_POSTFIELDSIZE, 0L);
  } else {
    setExtraOption(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
  applyHeaders(setup, hasBody);
  return nullptr;
}

void ZRBTransfer::applyHeaders(const ZRBTransferSetup& setup, bool hasBody) {
  const ZRBHTTPHeaderFields& own = setup.request->headerFields();
  // Most requests go out with their own fields as they are, and most share them with the requests
  // before them (the serializer's defaults): those take the merging copy only when it changes them.
  const bool additional = setup.additionalHeaders.isDictionary() && setup.additionalHeaders.count() > 0;
  const bool chunked = hasBody && bodyLength_ < 0;
  const bool merged = additional || !setup.overrideHeaders.empty() || setup.cookieHeader ||
                      own.contains("Content-Length") || (chunked && !own.contains("Transfer-Encoding"));
  ZRBHTTPHeaderFields mergedFields;
  if (merged) {
    mergedFields = own;
    if (additional) {
      for (const auto& entry : setup.additionalHeaders.entries()) {
        if (!mergedFields.contains(entry.first.stringView()) && entry.second.isString()) {
          mergedFields.set(entry.first.stringView(), entry.second.string());
        }
      }
    }
    for (const auto& [name, value] : setup.overrideHeaders.fields()) mergedFields.set(name, value);
    // Stored cookies join a Cookie field of the request's own.
    if (setup.cookieHeader) {
      auto cookie = mergedFields.value("Cookie");
      mergedFields.set("Cookie", cookie ? *cookie + "; " + *setup.cookieHeader : *setup.cookieHeader);
    }
    // The body's length is the transfer's business: a Content-Length of the request was read in
    // prepare() and libcurl writes the header itself.
    mergedFields.remove("Content-Length");
    if (chunked && !mergedFields.contains("Transfer-Encoding"))
      mergedFields.set("Transfer-Encoding", "chunked");
  }
  const ZRBHTTPHeaderFields& fields = merged ? mergedFields : own;

  // Our own User-Agent and Accept-Encoding go unless the request omits them.
  const bool ownAgent = !setup.request->omitsHTTPHeaderField("User-Agent");
  const bool ownEncodings = !setup.request->omitsHTTPHeaderField("Accept-Encoding");
  ZRBEasyHandle& handle = *handle_;
  // The lines this handle sent last time, when they came from the same fields under the same rules.
  const unsigned rules =
      (setup.decodeContent ? 1u : 0u) | (hasBody ? 2u : 0u) | (ownAgent ? 4u : 0u) | (ownEncodings ? 8u : 0u);
  if (!merged && handle.headerLinesValid && handle.headerRules == rules &&
      handle.headerSource.sharesFieldsWith(own)) {
    curl_easy_setopt(handle.easy, CURLOPT_HTTPHEADER,
                     handle.headerList.empty() ? nullptr : handle.headerList.data());
    return;
  }

  std::string& text = handle.headerText;
  text.clear();
  std::size_t lines = 0;
  auto addLine = [&](std::string_view name, std::string_view separator, std::string_view value) {
    text.append(name).append(separator).append(value).push_back('\0');
    ++lines;
  };
  // Lines of our own, each with its terminating NUL.
  auto addFixedLine = [&](std::string_view line) {
    text.append(line.data(), line.size() + 1);
    ++lines;
  };
  for (const auto& [name, value] : fields.fields()) {
    // "Name;" is libcurl's way of sending a field with an empty value.
    addLine(name, value.empty() ? ";" : ": ", value);
  }
  if (ownAgent && !fields.contains("User-Agent"))
    addFixedLine("User-Agent: ORVELKIT/" ORVELKIT_VERSION_STRING);
  // Sent by us rather than by libcurl, which would format the line anew for every request; "Name:"
  // keeps libcurl from sending its own.
  if (setup.decodeContent && !fields.contains("Accept-Encoding"))
    addFixedLine(ownEncodings ? "Accept-Encoding: gzip, deflate, br" : "Accept-Encoding:");
  // Fields libcurl would add on its own that a request here does not send unless it asks.
  if (hasBody && !fields.contains("Expect")) addFixedLine("Expect:");
  if (hasBody && !fields.contains("Content-Type")) addFixedLine("Content-Type:");

  std::vector<curl_slist>& list = handle.headerList;
  list.resize(lines);
  const char* line = text.data();
  for (std::size_t i = 0; i < lines; ++i) {
    list[i].data = const_cast<char*>(line);
    list[i].next = i + 1 < lines ? &list[i + 1] : nullptr;
    line += std::strlen(line) + 1;
  }
  curl_easy_setopt(handle.easy, CURLOPT_HTTPHEADER, lines ? list.data() : nullptr);
  // Kept, so that the fields cannot go and their place be taken by other ones.
  handle.headerSource = merged ? ZRBHTTPHeaderFields() : own;
  handle.headerRules = rules;
  handle.headerLinesValid = !merged;
}

void ZRBTransfer::start() {
  if (body_.pump) {
    // The pump wakes us from its own thread; the wake-up reaches this transfer through the
    // transport thread, and only if the transfer still exists by then.
    std::weak_ptr<ZRBTransport> weakTransport = transport_.shared_from_this();
    self_ = std::make_shared<ZRBTransfer*>(this);
    std::weak_ptr<ZRBTransfer*> weakSelf = self_;
    body_.pump->start([weakTransport, weakSelf] {
      if (auto transport = weakTransport.lock()) {
        transport->post([weakSelf] {
          if (auto self = weakSelf.lock()) (*self)->unpause();
        });
      }
    });
  }
  active_ = true;
  transport_.add(*this);
}

void ZRBTransfer::pause() {
  if (active_) curl_easy_pause(handle_->easy, CURLPAUSE_ALL);
}

void ZRBTransfer::unpause() {
  if (active_) curl_easy_pause(handle_->easy, CURLPAUSE_CONT);
}

void ZRBTransfer::done(int curlCode) {
  if (!active_) return;
  active_ = false;
  client_.transferDidComplete(*this, curlCode);
}

// ---- libcurl callbacks ----

namespace {
ZRBTransfer& transferOf(void* handle) { return *static_cast<ZRBEasyHandle*>(handle)->transfer; }
}  // namespace

std::size_t ZRBTransfer::onHeader(char* data, std::size_t size, std::size_t count, void* self) {
  return transferOf(self).header(std::string_view(data, size * count));
}

std::size_t ZRBTransfer::header(std::string_view lines) {
  // libcurl hands over one line at a time, except the lines it read while the transfer was paused:
  // those come in one call when it resumes.
  for (std::size_t start = 0; start < lines.size();) {
    std::size_t end = lines.find('\n', start);
    end = end == std::string_view::npos ? lines.size() : end + 1;
    if (!headerLine(lines.substr(start, end - start))) return 0;
    start = end;
  }
  return lines.size();
}

bool ZRBTransfer::headerLine(std::string_view line) {
  headBytes_ += line.size();
  if (headBytes_ > kMaximumHeaderBytes) {
    headTooLarge_ = true;
    return false;
  }
  if (line.starts_with("HTTP/")) {
    // A new head: an interim 1xx one may come before the final one.
    head_ = {};
    head_.reserve(512);
    setCookies_.clear();
    std::string_view rest = line.substr(5);
    std::size_t space = rest.find(' ');
    std::string_view version = rest.substr(0, space);
    if (version == "2.0") version = "2";
    version_.assign("HTTP/").append(version);
    status_ = 0;
    if (space != std::string_view::npos) {
      std::string_view code = trimmed(rest.substr(space + 1)).substr(0, 3);
      std::from_chars(code.data(), code.data() + code.size(), status_);
    }
    return true;
  }
  std::string_view content = trimmed(line);
  if (content.empty()) {
    if (status_ >= 200 || status_ == 0) {
      headBytes_ = 0;
      receivedResponse_ = true;
      auto response =
          std::make_shared<ZRBHTTPURLResponse>(url_, status_, std::move(version_), std::move(head_));
      head_ = {};
      client_.transferDidReceiveResponse(*this, std::move(response));
    }
    return true;
  }
  std::size_t colon = content.find(':');
  if (colon != std::string_view::npos && colon > 0) {
    std::string_view name = content.substr(0, colon);
    while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.remove_suffix(1);
    std::string_view value = content.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    // A value cannot hold '\n': libcurl hands over one line at a time.
    head_.add(name, value);
    if (ZRBHTTPHeaderNameEquals(name, "Set-Cookie")) setCookies_.emplace_back(value);
  }
  return true;
}

std::size_t ZRBTransfer::onWrite(char* data, std::size_t size, std::size_t count, void* self) {
  ZRBTransfer& transfer = transferOf(self);
  return transfer.client_.transferDidReceiveData(transfer, data, size * count);
}

std::size_t ZRBTransfer::onRead(char* buffer, std::size_t size, std::size_t count, void* self) {
  return transferOf(self).read(buffer, size * count);
}

std::size_t ZRBTransfer::read(char* buffer, std::size_t length) {
  switch (body_.kind) {
    case ZRBTransferBody::Kind::None: return 0;
    case ZRBTransferBody::Kind::Bytes: {
      auto bytes = body_.bytes.bytes();
      std::size_t offset = std::size_t(std::min<std::int64_t>(bodyOffset_, bytes.size()));
      std::size_t take = std::min(length, bytes.size() - offset);
      std::memcpy(buffer, bytes.data() + offset, take);
      bodyOffset_ += std::int64_t(take);
      return take;
    }
    case ZRBTransferBody::Kind::File: {
      ssize_t got = ::pread(fd_, buffer, length, bodyOffset_);
      if (got < 0) return CURL_READFUNC_ABORT;
      bodyOffset_ += got;
      return std::size_t(got);
    }
    case ZRBTransferBody::Kind::Stream: {
      std::size_t copied = 0;
      switch (body_.pump->read(buffer, length, &copied)) {
        case ZRBBodyPump::State::Data: bodyOffset_ += std::int64_t(copied); return copied;
        case ZRBBodyPump::State::WouldBlock: return CURL_READFUNC_PAUSE;
        case ZRBBodyPump::State::End: return 0;
        case ZRBBodyPump::State::Failed: return CURL_READFUNC_ABORT;
      }
    }
  }
  return CURL_READFUNC_ABORT;
}

int ZRBTransfer::onSeek(void* self, std::int64_t offset, int origin) {
  auto* transfer = &transferOf(self);
  // Only bytes and files can go back; a stream must be asked for again by the client.
  if (origin != SEEK_SET || transfer->body_.kind == ZRBTransferBody::Kind::Stream)
    return CURL_SEEKFUNC_CANTSEEK;
  transfer->bodyOffset_ = offset;
  return CURL_SEEKFUNC_OK;
}

int ZRBTransfer::onProgress(void* self, std::int64_t, std::int64_t, std::int64_t, std::int64_t ulnow) {
  auto* transfer = &transferOf(self);
  // libcurl counts chunk framing as sent bytes; the body bytes handed over are the upper bound.
  std::int64_t sent = std::min<std::int64_t>(ulnow, transfer->bodyOffset_);
  if (sent > transfer->lastReportedSent_) {
    transfer->lastReportedSent_ = sent;
    transfer->client_.transferDidSendBodyData(*transfer, sent);
  }
  return 0;
}

int ZRBTransfer::onSSLContext(CURL*, void* sslContext, void* self) {
  auto* context = static_cast<SSL_CTX*>(sslContext);
  // libcurl has set "verify none" (its own checks are off); the chain still has to be judged, by
  // the client, and a "no" has to end the handshake.
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_cert_verify_callback(context, &ZRBTransfer::onVerify, self);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
  return CURLE_OK;
}

int ZRBTransfer::onVerify(x509_store_ctx_st* context, void* self) {
  // A handshake with no transfer behind it has nobody to judge it, so it does not go on.
  ZRBTransfer* transfer = static_cast<ZRBEasyHandle*>(self)->transfer;
  bool proceed = transfer && transfer->client_.transferEvaluateServerTrust(*transfer, context);
  if (!proceed) X509_STORE_CTX_set_error(context, X509_V_ERR_APPLICATION_VERIFICATION);
  return proceed ? 1 : 0;
}
