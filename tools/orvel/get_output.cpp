#include "get_output.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/foundation/url.h"

std::string orvelReasonPhrase(long statusCode) {
  switch (statusCode) {
    case 100: return "Continue";
    case 101: return "Switching Protocols";
    case 200: return "OK";
    case 201: return "Created";
    case 202: return "Accepted";
    case 203: return "Non-Authoritative Information";
    case 204: return "No Content";
    case 205: return "Reset Content";
    case 206: return "Partial Content";
    case 300: return "Multiple Choices";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 303: return "See Other";
    case 304: return "Not Modified";
    case 307: return "Temporary Redirect";
    case 308: return "Permanent Redirect";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 406: return "Not Acceptable";
    case 407: return "Proxy Authentication Required";
    case 408: return "Request Timeout";
    case 409: return "Conflict";
    case 410: return "Gone";
    case 411: return "Length Required";
    case 412: return "Precondition Failed";
    case 413: return "Content Too Large";
    case 414: return "URI Too Long";
    case 415: return "Unsupported Media Type";
    case 416: return "Range Not Satisfiable";
    case 417: return "Expectation Failed";
    case 422: return "Unprocessable Content";
    case 429: return "Too Many Requests";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    case 504: return "Gateway Timeout";
    case 505: return "HTTP Version Not Supported";
    default: return ZRBHTTPURLResponse::localizedStringForStatusCode(statusCode);
  }
}

std::string orvelStatusLine(const ZRBHTTPURLResponse& response) {
  std::string line = response.HTTPVersion() + " " + std::to_string(response.statusCode());
  const auto& version = response.HTTPVersion();
  bool hasReasonPhrase = version == "HTTP/1.0" || version == "HTTP/1.1" || version == "HTTP/0.9";
  if (hasReasonPhrase) line += " " + orvelReasonPhrase(response.statusCode());
  return line;
}

std::string orvelResponseHead(const ZRBHTTPURLResponse& response) {
  std::string head = orvelStatusLine(response) + "\r\n";
  for (const auto& [name, value] : response.headerFields().fields()) head += name + ": " + value + "\r\n";
  return head + "\r\n";
}

namespace {

// "HOST:PORT" of the URL the error names, or "" when it names none.
std::string failingEndpoint(const ZRBError& error) {
  const auto& urlString = error.userInfo()[ZRBURLErrorFailingURLStringErrorKey];
  if (!urlString.isString()) return {};
  auto url = ZRBURL::URLWithString(urlString.stringView());
  if (!url) return {};
  auto host = url->host();
  if (!host) return {};
  auto port = url->port();
  if (!port) port = url->scheme() == "https" ? 443 : 80;
  bool ipv6 = host->find(':') != std::string::npos;
  return (ipv6 ? "[" + *host + "]" : *host) + ":" + std::to_string(*port);
}

std::string failingHost(const ZRBError& error) {
  auto endpoint = failingEndpoint(error);
  auto colon = endpoint.rfind(':');
  return colon == std::string::npos ? endpoint : endpoint.substr(0, colon);
}

}  // namespace

std::string orvelTransferErrorMessage(const ZRBError& error) {
  std::string what;
  if (error.domain() == ZRBURLErrorDomain) {
    auto endpoint = failingEndpoint(error);
    auto host = failingHost(error);
    if (!endpoint.empty()) {
      switch (error.code()) {
        case ZRBURLErrorCannotConnectToHost: what = "could not connect to " + endpoint; break;
        case ZRBURLErrorCannotFindHost:
        case ZRBURLErrorDNSLookupFailed: what = "could not resolve host " + host; break;
        case ZRBURLErrorTimedOut: what = "timed out talking to " + endpoint; break;
        case ZRBURLErrorNetworkConnectionLost: what = "the connection to " + endpoint + " was lost"; break;
        case ZRBURLErrorSecureConnectionFailed: what = "TLS handshake with " + endpoint + " failed"; break;
        case ZRBURLErrorServerCertificateUntrusted:
        case ZRBURLErrorServerCertificateHasUnknownRoot:
          what = "the certificate of " + host + " is not trusted";
          break;
        case ZRBURLErrorServerCertificateHasBadDate:
          what = "the certificate of " + host + " has expired";
          break;
        case ZRBURLErrorServerCertificateNotYetValid:
          what = "the certificate of " + host + " is not yet valid";
          break;
        default: break;
      }
    }
  }
  if (what.empty()) what = error.localizedDescription();
  return what + " (" + error.domain() + " " + std::to_string(error.code()) + ")";
}

std::string orvelByteCount(std::int64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  value /= 1024;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string orvelFormatProgress(std::string_view label, std::int64_t done, std::int64_t total,
                                double seconds) {
  std::string line;
  if (!label.empty()) line.append(label).append(" ");
  if (total > 0) {
    constexpr int kWidth = 24;
    double fraction = std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0);
    int filled = static_cast<int>(fraction * kWidth);
    line += "[";
    line.append(static_cast<std::size_t>(filled), '=');
    if (filled < kWidth) {
      line += '>';
      line.append(static_cast<std::size_t>(kWidth - filled - 1), ' ');
    }
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100));
    line += "] ";
    line += percent;
    line += "  " + orvelByteCount(done) + " / " + orvelByteCount(total);
  } else {
    line += orvelByteCount(done);
  }
  if (seconds > 0) {
    line += "  " +
            orvelByteCount(static_cast<std::int64_t>(std::llround(static_cast<double>(done) / seconds))) +
            "/s";
  }
  return line;
}

OrvelProgressBar::OrvelProgressBar(bool enabled, std::string label, Clock::time_point start)
    : enabled_(enabled), label_(std::move(label)), start_(start) {}

std::optional<std::string> OrvelProgressBar::update(std::int64_t done, std::int64_t total,
                                                    Clock::time_point now) {
  done_ = done;
  total_ = total;
  if (!enabled_) return std::nullopt;
  if (lastDrawn_ && now - *lastDrawn_ < kRedrawInterval) return std::nullopt;
  bool isLong = total > kLongTransferBytes || done > kLongTransferBytes || now - start_ >= kLongTransferTime;
  if (!isLong) return std::nullopt;
  lastDrawn_ = now;
  return render(now);
}

std::optional<std::string> OrvelProgressBar::finish(Clock::time_point now) {
  if (!lastDrawn_) return std::nullopt;
  return render(now) + "\n";
}

std::string OrvelProgressBar::render(Clock::time_point now) const {
  double seconds = std::chrono::duration<double>(now - start_).count();
  // Trailing spaces wipe what a longer previous line left behind.
  return "\r" + orvelFormatProgress(label_, done_, total_, seconds) + "   ";
}
