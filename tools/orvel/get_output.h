// What `orvel get` writes besides the body: the response head for -i, error messages and the
// progress bar. Pure formatting, so that it can be checked without a server.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/error.h"
#include "platform/net/http_url_response.h"

// The standard reason phrase of a status code ("OK", "Not Found"); for codes without one, the
// library's lower-case text of the code's class.
std::string orvelReasonPhrase(long statusCode);
// "HTTP/1.1 200 OK". HTTP/2 and later have no reason phrase, so none is shown ("HTTP/2 200").
std::string orvelStatusLine(const ZRBHTTPURLResponse& response);
// The status line and every header field, each ending in CRLF, then the empty line: what -i prints.
std::string orvelResponseHead(const ZRBHTTPURLResponse& response);

// The one-line diagnosis of a failed transfer, without the program name: "could not connect to
// 127.0.0.1:9 (ZRBURLErrorDomain -1004)". Common connection failures name the host and port; any
// other error is told by its localized description.
std::string orvelTransferErrorMessage(const ZRBError& error);

// The progress bar on standard error: drawn only for a terminal, only once a transfer has proven
// long (more than 1 MiB expected or more than a second gone), at most ten times a second.
class OrvelProgressBar {
 public:
  using Clock = std::chrono::steady_clock;

  // `enabled` is false for -s and when standard error is not a terminal; `label` is "" or "upload".
  OrvelProgressBar(bool enabled, std::string label, Clock::time_point start = Clock::now());

  // The text to draw (starting with "\r") for `done` of `total` bytes (total < 0: unknown), or
  // nullopt when nothing should be drawn now.
  std::optional<std::string> update(std::int64_t done, std::int64_t total,
                                    Clock::time_point now = Clock::now());
  // The final state and a line break, when the bar was ever drawn.
  std::optional<std::string> finish(Clock::time_point now = Clock::now());

  static constexpr std::int64_t kLongTransferBytes = 1 << 20;
  static constexpr std::chrono::milliseconds kLongTransferTime{1000};
  static constexpr std::chrono::milliseconds kRedrawInterval{100};

 private:
  std::string render(Clock::time_point now) const;

  bool enabled_;
  std::string label_;
  Clock::time_point start_;
  std::optional<Clock::time_point> lastDrawn_;
  std::int64_t done_ = 0;
  std::int64_t total_ = -1;
};

// "950 B", "12.3 KiB", "64.0 MiB".
std::string orvelByteCount(std::int64_t bytes);
// One line of the bar for a width of about 72 columns:
// "[=========>          ]  45%  28.8 MiB / 64.0 MiB  20.1 MiB/s" (without a total, no bar or
// percentage).
std::string orvelFormatProgress(std::string_view label, std::int64_t done, std::int64_t total,
                                double seconds);
