// What `orvel get` prints besides the body: the -i head, error lines and the progress bar.
#include "orvel/get_output.h"

#include <gtest/gtest.h>

#include <tuple>

#include "platform/foundation/url.h"

namespace {

ZRBHTTPURLResponsePtr response(long status, std::optional<std::string> version,
                               ZRBHTTPHeaderFields fields = {}) {
  return std::make_shared<ZRBHTTPURLResponse>(ZRBURL::URLWithString("http://127.0.0.1/"), status,
                                              std::move(version), std::move(fields));
}

TEST(OrvelGetHead, StatusLineWithStandardReasonThenFieldsWithCRLF) {
  const std::tuple<long, std::optional<std::string>, std::string> lines[] = {
      {200, std::nullopt, "HTTP/1.1 200 OK"},
      {404, "HTTP/1.0", "HTTP/1.0 404 Not Found"},
      {599, "HTTP/1.1", "HTTP/1.1 599 server error"},  // no standard phrase: the library's text for the class
      {200, "HTTP/2", "HTTP/2 200"},                   // HTTP/2 has no reason phrase, and curl shows none
  };
  for (const auto& [status, version, line] : lines)
    EXPECT_EQ(orvelStatusLine(*response(status, version)), line);
  auto head = orvelResponseHead(
      *response(200, "HTTP/1.1", {{"Content-Type", "application/json"}, {"X-b", "2"}, {"ETag", "\"v1\""}}));
  EXPECT_EQ(head, "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nX-b: 2\r\nETag: \"v1\"\r\n\r\n");
}

ZRBError urlError(long code, std::string_view url) {
  return ZRBError(std::string(ZRBURLErrorDomain), code,
                  ZRBValue::dictionary({{ZRBURLErrorFailingURLStringErrorKey, ZRBValue(url)},
                                        {ZRBLocalizedDescriptionKey, ZRBValue("Something went wrong.")}}));
}

TEST(OrvelGetErrors, ConnectionFailuresNameTheEndpointAndTheCode) {
  const std::tuple<long, std::string_view, std::string> cases[] = {
      // Default ports by scheme, IPv6 literals in brackets.
      {-1004, "https://localhost/", "could not connect to localhost:443 (ZRBURLErrorDomain -1004)"},
      {-1001, "http://[::1]/", "timed out talking to [::1]:80 (ZRBURLErrorDomain -1001)"},
      {-1003, "http://nowhere.invalid:8080/",
       "could not resolve host nowhere.invalid (ZRBURLErrorDomain -1003)"},
      // Anything else is told by its own description.
      {-1011, "http://127.0.0.1/", "Something went wrong. (ZRBURLErrorDomain -1011)"},
  };
  for (const auto& [code, url, message] : cases)
    EXPECT_EQ(orvelTransferErrorMessage(urlError(code, url)), message);
  // Without a failing URL, and outside the URL domain, the description speaks.
  ZRBError bare(std::string(ZRBURLErrorDomain), -1004);
  EXPECT_EQ(orvelTransferErrorMessage(bare), bare.localizedDescription() + " (ZRBURLErrorDomain -1004)");
  ZRBError posix(
      std::string(ZRBPOSIXErrorDomain), 28,
      ZRBValue::dictionary({{ZRBLocalizedDescriptionKey, ZRBValue("No space left on device")},
                            {ZRBURLErrorFailingURLStringErrorKey, ZRBValue("http://127.0.0.1:9/")}}));
  EXPECT_EQ(orvelTransferErrorMessage(posix), "No space left on device (ZRBPOSIXErrorDomain 28)");
}

TEST(OrvelGetProgress, FormatsBarPercentSizesAndRate) {
  EXPECT_EQ(orvelFormatProgress("", 16ll << 20, 64ll << 20, 2.0),
            "[======>                 ]  25%  16.0 MiB / 64.0 MiB  8.0 MiB/s");
  // More than announced (a lying Content-Length) stays at 100%.
  EXPECT_EQ(orvelFormatProgress("", 3000, 1000, 0), "[========================] 100%  2.9 KiB / 1000 B");
  EXPECT_EQ(orvelFormatProgress("", 5ll << 20, -1, 1.0), "5.0 MiB  5.0 MiB/s");
}

TEST(OrvelGetProgress, DrawsOnlyLongTransfersAtMostTenTimesASecond) {
  using namespace std::chrono_literals;
  auto start = OrvelProgressBar::Clock::now();
  // Small and quick: never drawn, and nothing to finish.
  OrvelProgressBar small(true, "", start);
  EXPECT_FALSE(small.update(100, 1000, start + 10ms));
  EXPECT_FALSE(small.update(1000, 1000, start + 20ms));
  EXPECT_FALSE(small.finish(start + 20ms));

  // Announced as large: drawn at once, then not again within 100 ms.
  OrvelProgressBar large(true, "", start);
  EXPECT_TRUE(large.update(1, 64 << 20, start + 1ms));
  EXPECT_FALSE(large.update(2 << 20, 64 << 20, start + 50ms));
  EXPECT_TRUE(large.update(3 << 20, 64 << 20, start + 102ms));
  auto last = large.finish(start + 200ms);
  ASSERT_TRUE(last);
  EXPECT_NE(last->find("3.0 MiB / 64.0 MiB"), std::string::npos) << *last;
  EXPECT_EQ(last->back(), '\n');

  // Small but slow: drawn once a second has gone by.
  OrvelProgressBar slow(true, "", start);
  EXPECT_FALSE(slow.update(10, -1, start + 999ms));
  EXPECT_TRUE(slow.update(20, -1, start + 1000ms));
}

}  // namespace
