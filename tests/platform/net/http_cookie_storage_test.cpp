// Cookie storage: which Set-Cookie values are kept, and which requests carry them.
#include "platform/net/http_cookie_storage.h"

#include <gtest/gtest.h>

namespace {

ZRBURLPtr url(const char* text) { return ZRBURL::URLWithString(text); }

TEST(HTTPCookieStorageTest, DomainPathSecureAndExpiryDecideWhoGetsACookie) {
  auto storage = ZRBHTTPCookieStorage::make();
  const auto origin = url("https://cam.example.com/api/v1/login");
  EXPECT_TRUE(storage->setCookieFromHeader(*origin, "host=1"));  // host only, path /api/v1
  EXPECT_TRUE(storage->setCookieFromHeader(*origin, "wide=2; Domain=example.com; Path=/"));  // subdomains too
  EXPECT_TRUE(storage->setCookieFromHeader(*origin, "safe=3; Path=/; Secure; HttpOnly"));
  EXPECT_TRUE(storage->setCookieFromHeader(*origin, "gone=4; Path=/; Max-Age=0"));
  EXPECT_TRUE(storage->setCookieFromHeader(*origin, "old=5; Path=/; Expires=Wed, 21 Oct 2015 07:28:00 GMT"));
  EXPECT_FALSE(storage->setCookieFromHeader(*origin, "evil=6; Domain=other.com"));
  EXPECT_FALSE(storage->setCookieFromHeader(*origin, "=nameless"));

  struct Case {
    const char* url;
    std::optional<std::string> header;
  };
  for (const Case& c : std::vector<Case>{
           {"https://cam.example.com/api/v1/devices", "host=1; wide=2; safe=3"},
           {"http://cam.example.com/api/v1/devices", "host=1; wide=2"},  // no secure cookie over http
           {"https://cam.example.com/other", "wide=2; safe=3"},          // outside /api/v1
           {"https://cdn.example.com/", "wide=2"},                       // the domain cookie only
           {"https://example.org/", std::nullopt},
       }) {
    EXPECT_EQ(storage->cookieHeaderForURL(*url(c.url)), c.header) << c.url;
  }
  // The same name, domain and path replaces; expiring removes.
  storage->setCookieFromHeader(*origin, "wide=7; Domain=example.com; Path=/");
  EXPECT_EQ(storage->cookieHeaderForURL(*url("https://cdn.example.com/")), "wide=7");
  storage->setCookieFromHeader(*origin, "wide=; Domain=example.com; Path=/; Max-Age=-1");
  EXPECT_EQ(storage->cookieHeaderForURL(*url("https://cdn.example.com/")), std::nullopt);
  storage->deleteAllCookies();
  EXPECT_TRUE(storage->cookies().empty());
}

}  // namespace
