#include "platform/net/http_cookie_storage.h"

#include <algorithm>
#include <charconv>
#include <ctime>

#include "platform/net/http_header_fields.h"

namespace {
std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// A leading "." in the cookie's domain lets subdomains match too.
bool domainMatches(std::string_view host, std::string_view domain) {
  if (domain.empty()) return false;
  if (domain.front() != '.') return ZRBHTTPHeaderNameEquals(host, domain);
  if (ZRBHTTPHeaderNameEquals(host, domain.substr(1))) return true;
  return host.size() > domain.size() &&
         ZRBHTTPHeaderNameEquals(host.substr(host.size() - domain.size()), domain);
}

bool pathMatches(std::string_view requestPath, std::string_view cookiePath) {
  if (requestPath == cookiePath) return true;
  if (!requestPath.starts_with(cookiePath)) return false;
  return cookiePath.ends_with('/') || requestPath[cookiePath.size()] == '/';
}

std::int64_t now() { return std::int64_t(std::time(nullptr)); }

bool expired(const ZRBHTTPCookie& cookie, std::int64_t at) {
  return cookie.expiresDate && *cookie.expiresDate <= at;
}

// An HTTP date ("Wed, 21 Oct 2026 07:28:00 GMT") as seconds since 1970; nullopt when unreadable.
std::optional<std::int64_t> parseHTTPDate(std::string_view text) {
  std::tm tm{};
  std::string copy(text);
  for (const char* format : {"%a, %d %b %Y %H:%M:%S", "%a, %d-%b-%Y %H:%M:%S", "%a, %d-%b-%y %H:%M:%S"}) {
    tm = {};
    if (strptime(copy.c_str(), format, &tm)) return std::int64_t(timegm(&tm));
  }
  return std::nullopt;
}
}  // namespace

const std::shared_ptr<ZRBHTTPCookieStorage>& ZRBHTTPCookieStorage::sharedHTTPCookieStorage() {
  static const std::shared_ptr<ZRBHTTPCookieStorage> shared = make();
  return shared;
}

std::shared_ptr<ZRBHTTPCookieStorage> ZRBHTTPCookieStorage::make() {
  return std::make_shared<ZRBHTTPCookieStorage>();
}

std::vector<ZRBHTTPCookie> ZRBHTTPCookieStorage::cookies() const {
  std::int64_t at = now();
  std::lock_guard lock(mutex_);
  std::vector<ZRBHTTPCookie> result;
  for (const auto& cookie : cookies_) {
    if (!expired(cookie, at)) result.push_back(cookie);
  }
  return result;
}

std::vector<ZRBHTTPCookie> ZRBHTTPCookieStorage::cookiesForURL(const ZRBURL& url) const {
  std::string host = url.host().value_or("");
  std::string path = url.percentEncodedPath().empty() ? "/" : url.percentEncodedPath();
  bool secure = url.scheme() == "https";
  std::vector<ZRBHTTPCookie> result;
  for (auto& cookie : cookies()) {
    if (domainMatches(host, cookie.domain) && pathMatches(path, cookie.path) && (!cookie.secure || secure)) {
      result.push_back(std::move(cookie));
    }
  }
  // Longer paths first, as browsers send them.
  std::stable_sort(result.begin(), result.end(), [](const ZRBHTTPCookie& a, const ZRBHTTPCookie& b) {
    return a.path.size() > b.path.size();
  });
  return result;
}

std::optional<std::string> ZRBHTTPCookieStorage::cookieHeaderForURL(const ZRBURL& url) const {
  auto cookies = cookiesForURL(url);
  if (cookies.empty()) return std::nullopt;
  std::string header;
  for (const auto& cookie : cookies) {
    if (!header.empty()) header += "; ";
    header += cookie.name + "=" + cookie.value;
  }
  return header;
}

void ZRBHTTPCookieStorage::setCookie(ZRBHTTPCookie cookie) {
  std::lock_guard lock(mutex_);
  std::erase_if(cookies_, [&](const ZRBHTTPCookie& known) {
    return known.name == cookie.name && ZRBHTTPHeaderNameEquals(known.domain, cookie.domain) &&
           known.path == cookie.path;
  });
  if (!expired(cookie, now())) cookies_.push_back(std::move(cookie));
}

bool ZRBHTTPCookieStorage::setCookieFromHeader(const ZRBURL& url, std::string_view setCookieValue) {
  auto host = url.host();
  if (!host) return false;
  std::string_view rest = setCookieValue;
  std::size_t semicolon = rest.find(';');
  std::string_view pair = trim(rest.substr(0, semicolon));
  std::size_t equals = pair.find('=');
  if (equals == std::string_view::npos || trim(pair.substr(0, equals)).empty()) return false;
  ZRBHTTPCookie cookie;
  cookie.name = std::string(trim(pair.substr(0, equals)));
  cookie.value = std::string(trim(pair.substr(equals + 1)));
  cookie.domain = *host;
  // The default path is the request path up to its last "/".
  std::string requestPath = url.percentEncodedPath();
  std::size_t lastSlash = requestPath.rfind('/');
  cookie.path = lastSlash == std::string::npos || lastSlash == 0 ? "/" : requestPath.substr(0, lastSlash);
  std::optional<std::int64_t> maxAge;
  while (semicolon != std::string_view::npos) {
    rest.remove_prefix(semicolon + 1);
    semicolon = rest.find(';');
    std::string_view attribute = trim(rest.substr(0, semicolon));
    std::size_t eq = attribute.find('=');
    std::string_view name = trim(attribute.substr(0, eq));
    std::string_view value =
        eq == std::string_view::npos ? std::string_view() : trim(attribute.substr(eq + 1));
    if (ZRBHTTPHeaderNameEquals(name, "Domain") && !value.empty()) {
      std::string domain(value.starts_with('.') ? value.substr(1) : value);
      // A server may set cookies for its own domain or a parent of it only.
      if (!domainMatches(*host, "." + domain)) return false;
      cookie.domain = "." + domain;
    } else if (ZRBHTTPHeaderNameEquals(name, "Path") && value.starts_with('/')) {
      cookie.path = std::string(value);
    } else if (ZRBHTTPHeaderNameEquals(name, "Secure")) {
      cookie.secure = true;
    } else if (ZRBHTTPHeaderNameEquals(name, "HttpOnly")) {
      cookie.HTTPOnly = true;
    } else if (ZRBHTTPHeaderNameEquals(name, "Max-Age")) {
      std::int64_t seconds = 0;
      if (std::from_chars(value.data(), value.data() + value.size(), seconds).ec == std::errc())
        maxAge = seconds;
    } else if (ZRBHTTPHeaderNameEquals(name, "Expires") && !cookie.expiresDate) {
      cookie.expiresDate = parseHTTPDate(value);
    }
  }
  // Max-Age wins over Expires.
  if (maxAge) cookie.expiresDate = now() + *maxAge;
  setCookie(std::move(cookie));
  return true;
}

void ZRBHTTPCookieStorage::deleteAllCookies() {
  std::lock_guard lock(mutex_);
  cookies_.clear();
}
