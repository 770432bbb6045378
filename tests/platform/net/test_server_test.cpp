// The loopback test server, driven by a small Beast client. Only what could let another test pass
// wrongly is covered here (routes that ignore the method, ranges served whatever If-Range says,
// connections miscounted); a server that breaks in other ways fails the tests that use it.
#include "support/test_server.h"

#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <optional>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

struct Reply {
  error_code error;
  http::response<http::string_body> message;
  std::string header(std::string_view name) const { return std::string(message[beast::string_view(name)]); }
};

// One connection to the server, used by one request after another. Operations are asynchronous
// underneath only so that the stream's expiry can guard against hangs.
class Client {
 public:
  explicit Client(const ZRBTestServer& server) {
    asio::ip::tcp::endpoint endpoint(asio::ip::make_address_v4("127.0.0.1"), server.port());
    run([&](auto done) { stream_.async_connect(endpoint, done); });  // a failure shows in send()
  }

  Reply send(http::request<http::string_body> request) {
    request.version(11);
    request.set(http::field::host, "localhost");
    request.prepare_payload();
    Reply reply;
    reply.error = run([&](auto done) { http::async_write(stream_, request, done); });
    if (reply.error) return reply;
    parser_.emplace();
    parser_->body_limit(boost::none);
    parser_->skip(request.method() == http::verb::head);
    reply.error = run([&](auto done) { http::async_read(stream_, buffer_, *parser_, done); });
    reply.message = parser_->get();
    return reply;
  }
  Reply get(std::string target) { return send({http::verb::get, target, 11}); }

 private:
  // Starts one operation and runs until it completes; a generous expiry stands guard against hangs.
  template <class Start>
  error_code run(Start&& start) {
    stream_.expires_after(std::chrono::seconds(60));
    error_code result = asio::error::timed_out;
    bool completed = false;
    start([&](error_code ec, auto&&...) {
      result = ec;
      completed = true;
    });
    io_.restart();
    io_.run();
    return completed ? result : error_code(asio::error::timed_out);
  }

  asio::io_context io_;
  beast::tcp_stream stream_{io_};
  beast::flat_buffer buffer_;
  std::optional<http::response_parser<http::string_body>> parser_;
};

http::request<http::string_body> post(std::string target, std::string body) {
  http::request<http::string_body> request{http::verb::post, target, 11};
  request.body() = std::move(body);
  return request;
}

class TestServerTest : public testing::Test {
 protected:
  void SetUp() override { server.start(); }
  ZRBTestServer server;
};

// Or tests of method handling would pass against any route.
TEST_F(TestServerTest, RoutesMatchTheMethodToo) {
  server.respond("PUT", "/canned", ZRBTestResponse::text(201, "made it"));
  Client client(server);
  Reply reply = client.send({http::verb::put, "/canned", 11});
  EXPECT_EQ(reply.message.result_int(), 201u);
  EXPECT_EQ(reply.message.body(), "made it");
  EXPECT_EQ(client.get("/canned").message.result_int(), 404u);
}

TEST_F(TestServerTest, RangesAnswer206UnlessIgnoredOrTheValidatorChanged) {
  server.serveRanges("/file", {.body = ZRBTestBodySource::pattern(1000), .etag = "\"v1\""});
  server.serveRanges("/stubborn", {.body = ZRBTestBodySource::pattern(1000), .ignoreRange = true});
  auto ranged = [&](std::string target, std::string range, std::string ifRange = {}) {
    http::request<http::string_body> request{http::verb::get, target, 11};
    request.set(http::field::range, range);
    if (!ifRange.empty()) request.set(http::field::if_range, ifRange);
    return Client(server).send(request);
  };

  Reply reply = ranged("/file", "bytes=100-199");
  EXPECT_EQ(reply.message.result_int(), 206u);
  EXPECT_EQ(reply.header("Content-Range"), "bytes 100-199/1000");
  EXPECT_EQ(reply.message.body(), ZRBTestPatternBytes(100, 100));
  reply = ranged("/file", "bytes=990-", "\"v1\"");
  EXPECT_EQ(reply.message.result_int(), 206u);
  EXPECT_EQ(reply.message.body(), ZRBTestPatternBytes(990, 10));
  EXPECT_EQ(ranged("/file", "bytes=1000-").message.result_int(), 416u);

  reply = ranged("/file", "bytes=100-199", "\"v0\"");
  EXPECT_EQ(reply.message.result_int(), 200u);
  EXPECT_EQ(reply.message.body(), ZRBTestPatternBytes(0, 1000));
  reply = ranged("/stubborn", "bytes=100-199");
  EXPECT_EQ(reply.message.result_int(), 200u);
  EXPECT_EQ(reply.message.body().size(), 1000u);
}

TEST_F(TestServerTest, RecordsRequestsWithTheirConnection) {
  server.echo("/echo");
  Client first(server);
  first.get("/echo/a?x=1");
  first.send(post("/echo/b", "12345"));
  Client(server).get("/echo/c");

  ASSERT_TRUE(server.waitForRequests(3));
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].path, "/echo/a");
  EXPECT_EQ(requests[1].body, "12345");
  EXPECT_EQ(requests[0].connectionID, requests[1].connectionID);
  EXPECT_EQ(requests[1].indexOnConnection, 1u);
  EXPECT_NE(requests[2].connectionID, requests[0].connectionID);
  EXPECT_EQ(server.connectionCount(), 2u);
}

}  // namespace
