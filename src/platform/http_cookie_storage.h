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
#include <vector>

#include "platform/object.h"
#include "platform/url.h"

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

  ZRBHTTPCookieStorage();
  ~ZRBHTTPCookieStorage() override;

  std::vector<ZRBHTTPCookie> cookies() const;
  // The cookies a request to `url` would carry.
  std::vector<ZRBHTTPCookie> cookiesForURL(const ZRBURL& url) const;
  // Stores a cookie as if `url` had answered with this Set-Cookie value. False when it was refused.
  bool setCookieFromHeader(const ZRBURL& url, const std::string& setCookieValue);
  void setCookie(const ZRBHTTPCookie& cookie);
  void deleteAllCookies();

  std::string className() const override { return "ZRBHTTPCookieStorage"; }

  // The transport attaches requests to this handle (a libcurl share handle).
  void* shareHandle() const { return share_; }

 private:
  void* share_;
  // libcurl locks the cookie data and its own share state separately, sometimes one inside the
  // other, so each has a mutex.
  std::mutex cookieLock_;
  std::mutex shareLock_;

  friend struct ZRBHTTPCookieStorageLocking;
};
