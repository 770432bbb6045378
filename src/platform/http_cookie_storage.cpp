#include "platform/http_cookie_storage.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <memory>

#include "platform/string_format.h"

struct ZRBHTTPCookieStorageLocking {
  static std::mutex& mutexFor(ZRBHTTPCookieStorage& storage, curl_lock_data data) {
    return data == CURL_LOCK_DATA_COOKIE ? storage.cookieLock_ : storage.shareLock_;
  }
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* storage) {
    mutexFor(*static_cast<ZRBHTTPCookieStorage*>(storage), data).lock();
  }
  static void unlock(CURL*, curl_lock_data data, void* storage) {
    mutexFor(*static_cast<ZRBHTTPCookieStorage*>(storage), data).unlock();
  }
};

namespace {
struct EasyDeleter {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

// One cookie in the tab-separated form libcurl lists and accepts.
std::string netscapeLine(const ZRBHTTPCookie& cookie) {
  bool domainCookie = !cookie.domain.empty() && cookie.domain.front() == '.';
  return (cookie.HTTPOnly ? "#HttpOnly_" : "") + cookie.domain + "\t" + (domainCookie ? "TRUE" : "FALSE") +
         "\t" + cookie.path + "\t" + (cookie.secure ? "TRUE" : "FALSE") + "\t" +
         std::to_string(cookie.expiresDate.value_or(0)) + "\t" + cookie.name + "\t" + cookie.value;
}

std::optional<ZRBHTTPCookie> parseNetscapeLine(std::string_view line) {
  ZRBHTTPCookie cookie;
  constexpr std::string_view httpOnly = "#HttpOnly_";
  if (line.starts_with(httpOnly)) {
    cookie.HTTPOnly = true;
    line.remove_prefix(httpOnly.size());
  }
  std::string_view fields[7];
  for (int i = 0; i < 7; ++i) {
    std::size_t tab = i < 6 ? line.find('\t') : line.size();
    if (tab == std::string_view::npos) return std::nullopt;
    fields[i] = line.substr(0, tab);
    line.remove_prefix(std::min(line.size(), tab + 1));
  }
  cookie.domain = std::string(fields[0]);
  if (fields[1] == "TRUE" && !cookie.domain.starts_with('.')) cookie.domain.insert(0, ".");
  cookie.path = std::string(fields[2]);
  cookie.secure = fields[3] == "TRUE";
  std::int64_t expires = 0;
  std::from_chars(fields[4].data(), fields[4].data() + fields[4].size(), expires);
  if (expires != 0) cookie.expiresDate = expires;
  cookie.name = std::string(fields[5]);
  cookie.value = std::string(fields[6]);
  return cookie;
}

bool domainMatches(const std::string& host, const std::string& domain) {
  if (domain.empty()) return false;
  if (domain.front() != '.') return equalsIgnoringCase(host, domain);
  std::string_view bare = std::string_view(domain).substr(1);
  if (equalsIgnoringCase(host, bare)) return true;
  return host.size() > domain.size() &&
         equalsIgnoringCase(std::string_view(host).substr(host.size() - domain.size()), domain);
}

bool pathMatches(const std::string& requestPath, const std::string& cookiePath) {
  if (requestPath == cookiePath) return true;
  if (!requestPath.starts_with(cookiePath)) return false;
  return cookiePath.ends_with('/') || requestPath[cookiePath.size()] == '/';
}
}  // namespace

const std::shared_ptr<ZRBHTTPCookieStorage>& ZRBHTTPCookieStorage::sharedHTTPCookieStorage() {
  static const std::shared_ptr<ZRBHTTPCookieStorage> shared = make();
  return shared;
}

std::shared_ptr<ZRBHTTPCookieStorage> ZRBHTTPCookieStorage::make() {
  return std::make_shared<ZRBHTTPCookieStorage>();
}

ZRBHTTPCookieStorage::ZRBHTTPCookieStorage() : share_(curl_share_init()) {
  curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, &ZRBHTTPCookieStorageLocking::lock);
  curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, &ZRBHTTPCookieStorageLocking::unlock);
  curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
}

ZRBHTTPCookieStorage::~ZRBHTTPCookieStorage() { curl_share_cleanup(share_); }

std::vector<ZRBHTTPCookie> ZRBHTTPCookieStorage::cookies() const {
  std::vector<ZRBHTTPCookie> result;
  std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
  if (!easy) return result;
  curl_easy_setopt(easy.get(), CURLOPT_SHARE, share_);
  curl_slist* list = nullptr;
  if (curl_easy_getinfo(easy.get(), CURLINFO_COOKIELIST, &list) == CURLE_OK) {
    for (curl_slist* item = list; item; item = item->next) {
      if (auto cookie = parseNetscapeLine(item->data)) result.push_back(std::move(*cookie));
    }
  }
  curl_slist_free_all(list);
  curl_easy_setopt(easy.get(), CURLOPT_SHARE, nullptr);
  return result;
}

std::vector<ZRBHTTPCookie> ZRBHTTPCookieStorage::cookiesForURL(const ZRBURL& url) const {
  std::vector<ZRBHTTPCookie> result;
  std::string host = url.host().value_or("");
  std::string path = url.percentEncodedPath().empty() ? "/" : url.percentEncodedPath();
  bool secure = url.scheme() == "https";
  for (auto& cookie : cookies()) {
    if (domainMatches(host, cookie.domain) && pathMatches(path, cookie.path) && (!cookie.secure || secure)) {
      result.push_back(std::move(cookie));
    }
  }
  return result;
}

void ZRBHTTPCookieStorage::setCookie(const ZRBHTTPCookie& cookie) {
  std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
  if (!easy) return;
  curl_easy_setopt(easy.get(), CURLOPT_SHARE, share_);
  curl_easy_setopt(easy.get(), CURLOPT_COOKIELIST, netscapeLine(cookie).c_str());
  curl_easy_setopt(easy.get(), CURLOPT_SHARE, nullptr);
}

bool ZRBHTTPCookieStorage::setCookieFromHeader(const ZRBURL& url, const std::string& setCookieValue) {
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
  std::string requestPath = url.percentEncodedPath();
  std::size_t lastSlash = requestPath.rfind('/');
  cookie.path = lastSlash == std::string::npos || lastSlash == 0 ? "/" : requestPath.substr(0, lastSlash);
  while (semicolon != std::string_view::npos) {
    rest.remove_prefix(semicolon + 1);
    semicolon = rest.find(';');
    std::string_view attribute = trim(rest.substr(0, semicolon));
    std::size_t eq = attribute.find('=');
    std::string_view name = trim(attribute.substr(0, eq));
    std::string_view value =
        eq == std::string_view::npos ? std::string_view() : trim(attribute.substr(eq + 1));
    if (equalsIgnoringCase(name, "Domain") && !value.empty()) {
      std::string domain(value.starts_with('.') ? value.substr(1) : value);
      // A server may only set cookies for its own domain or a parent of it.
      if (!domainMatches(*host, "." + domain)) return false;
      cookie.domain = "." + domain;
    } else if (equalsIgnoringCase(name, "Path") && value.starts_with('/')) {
      cookie.path = std::string(value);
    } else if (equalsIgnoringCase(name, "Secure")) {
      cookie.secure = true;
    } else if (equalsIgnoringCase(name, "HttpOnly")) {
      cookie.HTTPOnly = true;
    } else if (equalsIgnoringCase(name, "Max-Age")) {
      std::int64_t seconds = 0;
      std::from_chars(value.data(), value.data() + value.size(), seconds);
      cookie.expiresDate = std::int64_t(time(nullptr)) + seconds;
    }
  }
  setCookie(cookie);
  return true;
}

void ZRBHTTPCookieStorage::deleteAllCookies() {
  std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
  if (!easy) return;
  curl_easy_setopt(easy.get(), CURLOPT_SHARE, share_);
  curl_easy_setopt(easy.get(), CURLOPT_COOKIELIST, "ALL");
  curl_easy_setopt(easy.get(), CURLOPT_SHARE, nullptr);
}
