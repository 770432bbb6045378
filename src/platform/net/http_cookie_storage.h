// ZRBHTTPCookieStorage: the cookies a URL session sends and stores.
//
// The default and background session configurations share sharedHTTPCookieStorage(); an ephemeral
// configuration gets a storage of its own. Cookies live in memory for the storage's lifetime. The
// storage may be used from any thread, by several sessions at once.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/object.h"
#include "platform/foundation/url.h"

struct ZRBHTTPCookie {
  std::string name;
  std::string value;
  std::string domain;  // a leading "." matches subdomains as well
  std::string path = "/";
  bool secure = false;
  bool HTTPOnly = false;
  std::optional<std::int64_t> expiresDate;  // seconds since 1970; absent for session cookies
};

class ZRBHTTPCookieStorage final : public ZRBObject {
 public:
  static const std::shared_ptr<ZRBHTTPCookieStorage>& sharedHTTPCookieStorage();
  static std::shared_ptr<ZRBHTTPCookieStorage> make();

  // Every unexpired cookie, in the order stored.
  std::vector<ZRBHTTPCookie> cookies() const;
  // The cookies a request to `url` carries: domain and path match, secure ones only over https.
  std::vector<ZRBHTTPCookie> cookiesForURL(const ZRBURL& url) const;
  // The "Cookie" field for a request to `url`, nullopt when no cookie applies.
  std::optional<std::string> cookieHeaderForURL(const ZRBURL& url) const;
  // Stores a cookie as if `url` had answered with this Set-Cookie value (Domain, Path, Secure,
  // HttpOnly, Max-Age and Expires are understood). False when it was refused: no name, or a
  // domain that is not the host's own or a parent of it.
  bool setCookieFromHeader(const ZRBURL& url, std::string_view setCookieValue);
  // Replaces the cookie of the same name, domain and path; an expired one just removes it.
  void setCookie(ZRBHTTPCookie cookie);
  void deleteAllCookies();

  std::string className() const override { return "ZRBHTTPCookieStorage"; }

 private:
  mutable std::mutex mutex_;
  std::vector<ZRBHTTPCookie> cookies_;
};
