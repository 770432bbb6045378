// The transport benchmark's baseline: the same work as transport_session.cpp done with libcurl's
// multi interface directly, the way a careful program would use it: easy handles reused, connections
// kept alive, at most COUNT connections per host, HTTP/2 over TLS multiplexed.
//
// The same work includes the same request: the session sends a User-Agent and an Accept-Encoding
// field and decodes what the server compresses, so this program does too, with the cheapest means
// libcurl offers (fixed header lines, formatted once). The session manager and the agent also send
// their request serializer's default fields; run.sh hands those to this program in
// BENCH_HEADER_LINES, and checks that every side's request has the same length.
// BENCH_RESOLVE ("HOST:PORT:ADDRESS") lets a name that the other sides use reach the server.
//
// See run.sh for the server and the cases; measure.h for the command line and the report.
#include <curl/curl.h>
#include <fcntl.h>
#include <simdjson.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "measure.h"

using transport_bench::Options;
using transport_bench::Stopwatch;

namespace {

#ifndef ORVELKIT_VERSION_STRING
#define ORVELKIT_VERSION_STRING "0"
#endif

// The header lines of every request: those of BENCH_HEADER_LINES (one per line, in libcurl's
// notation) first, as a request's own fields come before the ones the session adds; then the
// session's User-Agent unless such a line gave one, and its Accept-Encoding.
curl_slist* requestHeaderLines() {
  static curl_slist* lines = [] {
    curl_slist* list = nullptr;
    bool userAgent = false;
    const char* extra = std::getenv("BENCH_HEADER_LINES");
    for (std::string_view rest = extra ? extra : ""; !rest.empty();) {
      const std::string line(rest.substr(0, rest.find('\n')));
      rest.remove_prefix(std::min(rest.size(), line.size() + 1));
      if (line.empty()) continue;
      userAgent = userAgent || ::strncasecmp(line.c_str(), "User-Agent:", 11) == 0 ||
                  ::strncasecmp(line.c_str(), "User-Agent;", 11) == 0;
      list = curl_slist_append(list, line.c_str());
    }
    if (!userAgent) list = curl_slist_append(list, "User-Agent: ORVELKIT/" ORVELKIT_VERSION_STRING);
    return curl_slist_append(list, "Accept-Encoding: gzip, deflate, br");
  }();
  return lines;
}

// The entries of BENCH_RESOLVE, made once.
curl_slist* resolveEntries() {
  static curl_slist* entries = [] {
    const char* resolve = std::getenv("BENCH_RESOLVE");
    return resolve && *resolve ? curl_slist_append(nullptr, resolve) : nullptr;
  }();
  return entries;
}

struct Transfer {
  CURL* easy = nullptr;
  long long received = 0;
  std::string body;  // json-requests: the body so far
  int fd = -1;       // download target or upload source
};

// The HTTP version the last transfer of `easy` used.
std::string protocolOf(CURL* easy) {
  long version = 0;
  curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version);
  switch (version) {
    case CURL_HTTP_VERSION_1_0: return "HTTP/1.0";
    case CURL_HTTP_VERSION_1_1: return "HTTP/1.1";
    case CURL_HTTP_VERSION_2_0: return "HTTP/2";
    case CURL_HTTP_VERSION_3: return "HTTP/3";
    default: return "unknown";
  }
}

size_t countBody(char*, size_t size, size_t count, void* context) {
  static_cast<Transfer*>(context)->received += static_cast<long long>(size * count);
  return size * count;
}

size_t collectBody(char* data, size_t size, size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  transfer->body.append(data, size * count);
  transfer->received += static_cast<long long>(size * count);
  return size * count;
}

size_t writeBody(char* data, size_t size, size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  const size_t length = size * count;
  size_t written = 0;
  while (written < length) {
    const ssize_t n = ::write(transfer->fd, data + written, length - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return 0;  // makes the transfer fail with CURLE_WRITE_ERROR
    }
    written += static_cast<size_t>(n);
  }
  transfer->received += static_cast<long long>(length);
  return length;
}

size_t readBody(char* buffer, size_t size, size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  for (;;) {
    const ssize_t n = ::read(transfer->fd, buffer, size * count);
    if (n >= 0) return static_cast<size_t>(n);
    if (errno != EINTR) return CURL_READFUNC_ABORT;
  }
}

CURL* makeEasy(const Options& options, Transfer& transfer) {
  CURL* easy = curl_easy_init();
  if (!easy) transport_bench::fail("curl_easy_init");
  curl_easy_setopt(easy, CURLOPT_URL, options.url.c_str());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  if (options.caFile) curl_easy_setopt(easy, CURLOPT_CAINFO, options.caFile->c_str());
  // HTTP/2 when TLS negotiates it; new transfers wait to share the connection instead of opening
  // more.
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  // Decoding on, as in the session; the Accept-Encoding line itself is one of the header lines.
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, requestHeaderLines());
  if (curl_slist* entries = resolveEntries()) curl_easy_setopt(easy, CURLOPT_RESOLVE, entries);
  transfer.easy = easy;
  return easy;
}

// Runs the multi handle until every transfer added to it is done, calling `done` for each.
template <typename OnDone>
void drive(CURLM* multi, OnDone&& done) {
  for (;;) {
    int running = 0;
    if (curl_multi_perform(multi, &running) != CURLM_OK) transport_bench::fail("curl_multi_perform");
    bool finishedAny = false;
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      finishedAny = true;
      Transfer* transfer = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
      const CURLcode result = message->data.result;
      curl_multi_remove_handle(multi, message->easy_handle);
      if (result != CURLE_OK) transport_bench::fail(curl_easy_strerror(result));
      long status = 0;
      curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
      if (status != 200) transport_bench::fail("HTTP status " + std::to_string(status));
      done(*transfer);
    }
    // `done` may have added handles back: let perform count them before deciding to stop.
    if (finishedAny) continue;
    if (running == 0) return;
    if (curl_multi_poll(multi, nullptr, 0, 1000, nullptr) != CURLM_OK)
      transport_bench::fail("curl_multi_poll");
  }
}

void runRequests(const Options& options) {
  const bool json = options.mode == Options::Mode::JSONRequests;
  CURLM* multi = curl_multi_init();
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, options.concurrency);
  std::vector<Transfer> transfers(static_cast<size_t>(options.concurrency));
  for (Transfer& transfer : transfers) {
    CURL* easy = makeEasy(options, transfer);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, json ? collectBody : countBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  }
  // The same JSON library as the library's JSON serializer, one parser reused for every body.
  simdjson::dom::parser parser;

  long started = 0;
  long completed = 0;
  long long bodyBytes = 0;
  const Stopwatch watch;
  for (Transfer& transfer : transfers) {
    if (started == options.count) break;
    curl_multi_add_handle(multi, transfer.easy);
    ++started;
  }
  drive(multi, [&](Transfer& transfer) {
    ++completed;
    bodyBytes += transfer.received;
    transfer.received = 0;
    if (json) {
      simdjson::dom::element document;
      if (parser.parse(transfer.body).get(document) != simdjson::SUCCESS || !document.is_object())
        transport_bench::fail("the body is not a JSON object");
      transfer.body.clear();
    }
    if (started < options.count) {
      curl_multi_add_handle(multi, transfer.easy);
      ++started;
    }
  });
  transport_bench::reportRequests(completed, watch, protocolOf(transfers.front().easy));
  std::fprintf(stderr, "curl: %ld requests, %lld body bytes\n", completed, bodyBytes);

  for (Transfer& transfer : transfers) curl_easy_cleanup(transfer.easy);
  curl_multi_cleanup(multi);
}

void runDownload(const Options& options) {
  Transfer transfer;
  transfer.fd = ::open(options.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (transfer.fd < 0) transport_bench::fail(options.file + ": " + std::strerror(errno));
  CURLM* multi = curl_multi_init();
  CURL* easy = makeEasy(options, transfer);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, writeBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);

  const Stopwatch watch;
  curl_multi_add_handle(multi, easy);
  drive(multi, [](Transfer&) {});
  if (::close(transfer.fd) != 0) transport_bench::fail(options.file + ": " + std::strerror(errno));
  transport_bench::reportTransfer(transfer.received, watch, protocolOf(easy));

  curl_easy_cleanup(easy);
  curl_multi_cleanup(multi);
}

void runUpload(const Options& options) {
  Transfer transfer;
  transfer.fd = ::open(options.file.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info {};
  if (transfer.fd < 0 || ::fstat(transfer.fd, &info) != 0) {
    transport_bench::fail(options.file + ": " + std::strerror(errno));
  }
  CURLM* multi = curl_multi_init();
  CURL* easy = makeEasy(options, transfer);
  curl_easy_setopt(easy, CURLOPT_POST, 1L);
  curl_easy_setopt(easy, CURLOPT_READFUNCTION, readBody);
  curl_easy_setopt(easy, CURLOPT_READDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(info.st_size));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, countBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/octet-stream");
  headers = curl_slist_append(headers, "User-Agent: ORVELKIT/" ORVELKIT_VERSION_STRING);
  headers = curl_slist_append(headers, "Accept-Encoding: gzip, deflate, br");
  headers = curl_slist_append(headers, "Expect:");  // the session does not wait for 100 Continue either
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);

  const Stopwatch watch;
  curl_multi_add_handle(multi, easy);
  drive(multi, [](Transfer&) {});
  curl_off_t sent = 0;
  curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &sent);
  if (sent != info.st_size) transport_bench::fail("sent " + std::to_string(sent) + " bytes");
  transport_bench::reportTransfer(sent, watch, protocolOf(easy));

  ::close(transfer.fd);
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
  curl_multi_cleanup(multi);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = transport_bench::parseOptions(argc, argv);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  switch (options.mode) {
    case Options::Mode::Requests:
    case Options::Mode::JSONRequests: runRequests(options); break;
    case Options::Mode::Download: runDownload(options); break;
    case Options::Mode::Upload: runUpload(options); break;
  }
  curl_global_cleanup();
  return 0;
}
