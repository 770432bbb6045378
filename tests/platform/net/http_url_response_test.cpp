#include "platform/net/http_url_response.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

ZRBHTTPURLResponse response(const char* url, ZRBHTTPHeaderFields headers, long status = 200) {
  return ZRBHTTPURLResponse(ZRBURL::URLWithString(url), status, std::nullopt, std::move(headers));
}

TEST(HTTPURLResponseTest, ContentTypeGivesMIMETypeAndCharset) {
  struct Case {
    const char* contentType;
    std::optional<std::string> mime;
    std::optional<std::string> charset;
  };
  const Case cases[] = {
      {"application/json", "application/json", std::nullopt},
      {" Application/JSON\t", "application/json", std::nullopt},
      {"IMAGE/png", "image/png", std::nullopt},
      {"application/jsonx", "application/jsonx", std::nullopt},
      {"Text/JSON; charset=UTF-8", "text/json", "utf-8"},
      {"Text/HTML; Charset=UTF-8", "text/html", "utf-8"},
      {"text/plain;charset=\"ISO-8859-1\";format=flowed", "text/plain", "iso-8859-1"},
      {"text/plain; format=\"a;charset=x\"; charset = Shift_JIS ", "text/plain", "shift_jis"},
      {"text/plain; charset=\"\"", "text/plain", std::nullopt},
      {"text/plain; charset", "text/plain", std::nullopt},
      {"", std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    auto r = response("http://h/", {{"content-type", c.contentType}});
    EXPECT_EQ(r.MIMEType(), c.mime) << c.contentType;
    EXPECT_EQ(r.textEncodingName(), c.charset) << c.contentType;
  }
  EXPECT_FALSE(response("http://h/", {}).MIMEType());
}

TEST(HTTPURLResponseTest, HeadersLengthAndDescription) {
  auto r = ZRBHTTPURLResponse::make(ZRBURL::URLWithString("http://h/x"), 404, "HTTP/2",
                                    ZRBValue::dictionary({{"Content-Length", "12"}, {"ETag", "\"v1\""}}));
  EXPECT_EQ(r->valueForHTTPHeaderField("etag"), "\"v1\"");
  EXPECT_EQ(r->expectedContentLength(), 12);
  EXPECT_EQ(r->allHeaderFields()["ETag"], ZRBValue("\"v1\""));
  for (const char* bad : {"", "-5", "12abc", "lots"}) {
    EXPECT_EQ(response("http://h/", {{"Content-Length", bad}}).expectedContentLength(), -1) << bad;
  }
  EXPECT_EQ(response("http://h/", {}).expectedContentLength(), -1);
}

TEST(HTTPURLResponseTest, HeaderLinesMakeTheSameResponseAsFields) {
  // As a transport collects them: repeated names, other cases, values with ':' and ", ".
  ZRBHTTPHeaderLines lines;
  ZRBHTTPHeaderFields fields;
  const std::pair<const char*, const char*> received[] = {
      {"Content-Type", "Text/Plain; charset=UTF-8"},
      {"Set-Cookie", "a=1"},
      {"content-length", "5"},
      {"set-cookie", "b=2; Expires=Wed, 21 Oct 2026 07:28:00 GMT"},
      {"X-Time", "12:30:00"},
      {"X-Empty", ""},
  };
  for (const auto& [name, value] : received) {
    lines.add(name, value);
    fields.add(name, value);
  }
  std::string joined;
  EXPECT_EQ(lines.value("SET-COOKIE", joined), "a=1, b=2; Expires=Wed, 21 Oct 2026 07:28:00 GMT");
  EXPECT_EQ(lines.value("x-empty", joined), "");
  EXPECT_FALSE(lines.value("Location", joined));

  auto url = ZRBURL::URLWithString("http://h/");
  auto fromLines = std::make_shared<const ZRBHTTPURLResponse>(url, 200, std::nullopt, lines);
  ZRBHTTPURLResponse fromFields(url, 200, std::nullopt, fields);
  EXPECT_EQ(fromLines->MIMEType(), "text/plain");
  EXPECT_EQ(fromLines->textEncodingName(), "utf-8");
  EXPECT_EQ(fromLines->expectedContentLength(), 5);
  // The fields are made on first use, once, whichever thread asks first.
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) readers.emplace_back([&] { EXPECT_TRUE(fromLines->headerFields() == fields); });
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(fromLines->allHeaderFields(), fromFields.allHeaderFields());
  EXPECT_EQ(fromLines->valueForHTTPHeaderField("x-time"), "12:30:00");

  // A repeated Content-Length joins into a value that is not a number, with fields as with lines.
  lines.add("Content-Length", "5");
  fields.add("Content-Length", "5");
  EXPECT_EQ(ZRBHTTPURLResponse(url, 200, std::nullopt, lines).expectedContentLength(), -1);
  EXPECT_EQ(ZRBHTTPURLResponse(url, 200, std::nullopt, fields).expectedContentLength(), -1);
}

TEST(HTTPURLResponseTest, SuggestedFilenames) {
  struct Case {
    const char* url;
    const char* disposition;  // null: no header
    const char* expected;
  };
  const Case cases[] = {
      {"http://h/files/report.pdf?x=1", nullptr, "report.pdf"},
      {"http://h/a%20b.txt", nullptr, "a b.txt"},
      {"http://h/", nullptr, "Unknown"},
      {"http://h", nullptr, "Unknown"},
      {"http://h/dir/", nullptr, "dir"},
      {"http://h/x", "attachment; filename=\"quoted name.zip\"", "quoted name.zip"},
      {"http://h/x", "attachment; filename=plain.txt", "plain.txt"},
      {"http://h/x", "attachment; filename=\"a.txt\"; filename*=UTF-8''%E2%82%AC%20rates.txt",
       "\u20ac rates.txt"},
      {"http://h/x", "attachment; filename*=iso-8859-1'en'caf%E9.txt", "caf\u00e9.txt"},
      {"http://h/x", "attachment; filename*=UTF-8''%FF; filename=fallback.bin", "fallback.bin"},
      {"http://h/x", "attachment; filename=\"../../etc/passwd\"", ".._.._etc_passwd"},
      {"http://h/x", "attachment; filename=\"..\"", "x"},
      {"http://h/x", "inline", "x"},
  };
  for (const auto& c : cases) {
    ZRBHTTPHeaderFields headers;
    if (c.disposition) headers.set("Content-Disposition", c.disposition);
    EXPECT_EQ(response(c.url, headers).suggestedFilename(), c.expected)
        << c.url << " " << (c.disposition ? c.disposition : "");
  }
  EXPECT_EQ(ZRBURLResponse(nullptr, std::nullopt, -1, std::nullopt).suggestedFilename(), "Unknown");
}

TEST(HTTPURLResponseTest, StatusTextsAndClassFallbacks) {
  // A known code, then the fallback of each class and for codes outside every class.
  const std::pair<long, const char*> cases[] = {
      {404, "not found"},    {102, "informational"}, {299, "success"},    {308, "redirected"},
      {429, "client error"}, {599, "server error"},  {0, "server error"}, {700, "server error"},
  };
  for (auto [code, text] : cases)
    EXPECT_EQ(ZRBHTTPURLResponse::localizedStringForStatusCode(code), text) << code;
}

}  // namespace
