// The header lines a transfer sends, request after request on one reused handle: requests that
// share their fields, a changed copy of them, a body, fields the transfer has to merge, an empty
// value, none at all, and the transport's own fields omitted. Each request must carry its own lines and
// nothing of the one before.
#include <gtest/gtest.h>

#include <future>
#include <string>
#include <utility>
#include <vector>

#include "platform/net/url_session.h"
#include "support/recording_delegate.h"
#include "support/test_server.h"

namespace {

using Lines = std::vector<std::pair<std::string, std::string>>;

// What the server received, without the fields libcurl writes itself.
Lines received(const ZRBTestRecordedRequest& request) {
  Lines lines;
  for (const auto& [name, value] : request.headers.fields()) {
    if (name == "Host" || name == "Accept" || name == "Content-Length") continue;
    // The default User-Agent carries the library's version.
    lines.emplace_back(name, name == "User-Agent" && value.starts_with("ORVELKIT/") ? "ORVELKIT/*" : value);
  }
  return lines;
}

TEST(TransferHeadersTest, EachRequestOnAReusedHandleSendsItsOwnLines) {
  ZRBTestServer server;
  server.echo("/echo");
  server.start();
  auto configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  configuration->setHTTPMaximumConnectionsPerHost(1);
  auto session = ZRBURLSession::sessionWithConfiguration(configuration);

  const ZRBHTTPHeaderFields shared{{"X-Trace", "1"}, {"User-Agent", "tester"}};
  ZRBHTTPHeaderFields grown = shared;
  grown.set("x-trace", "2");
  grown.set("X-More", "3");
  ZRBHTTPHeaderFields withLength = shared;  // the transfer drops the field, so it merges
  withLength.set("Content-Length", "0");
  const ZRBHTTPHeaderFields blank{{"X-Blank", ""}};
  const Lines sharedLines{
      {"X-Trace", "1"}, {"User-Agent", "tester"}, {"Accept-Encoding", "gzip, deflate, br"}};

  struct Row {
    const char* name;
    const char* method;
    bool body;
    ZRBHTTPHeaderFields fields;
    Lines expected;
    std::vector<const char*> omitted = {};
  };
  const std::vector<Row> rows = {
      {"shared", "GET", false, shared, sharedLines},
      {"shared again", "GET", false, shared, sharedLines},
      {"a changed copy",
       "GET",
       false,
       grown,
       {{"X-Trace", "2"},
        {"User-Agent", "tester"},
        {"X-More", "3"},
        {"Accept-Encoding", "gzip, deflate, br"}}},
      {"shared with a body", "PUT", true, shared, sharedLines},
      {"shared after the body", "GET", false, shared, sharedLines},
      {"merged", "GET", false, withLength, sharedLines},
      {"shared after the merge", "GET", false, shared, sharedLines},
      {"an empty value",
       "GET",
       false,
       blank,
       {{"X-Blank", ""}, {"User-Agent", "ORVELKIT/*"}, {"Accept-Encoding", "gzip, deflate, br"}}},
      {"none", "GET", false, {}, {{"User-Agent", "ORVELKIT/*"}, {"Accept-Encoding", "gzip, deflate, br"}}},
      // Omitting the transport's own fields drops them, not the request's own.
      {"omitting",
       "GET",
       false,
       shared,
       {{"X-Trace", "1"}, {"User-Agent", "tester"}},
       {"user-agent", "ACCEPT-ENCODING"}},
      {"omitting with no fields", "GET", false, {}, {}, {"User-Agent", "Accept-Encoding"}},
      {"shared at the end", "GET", false, shared, sharedLines},
  };
  // One after another, so that each transfer takes the handle the one before gave back.
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const Row& row = rows[i];
    auto request = requestFor(server.url("/echo/" + std::to_string(i)), row.method);
    request->setHeaderFields(row.fields);
    for (const char* name : row.omitted) request->setOmitsHTTPHeaderField(name, true);
    std::promise<ZRBErrorPtr> done;
    auto completion = [&done](ZRBValue, ZRBURLResponsePtr, ZRBErrorPtr error) { done.set_value(error); };
    auto task = row.body ? session->uploadTaskWithRequest(request, ZRBValue::data("body"), completion)
                         : session->dataTaskWithRequest(request, completion);
    task->resume();
    const ZRBErrorPtr error = done.get_future().get();
    EXPECT_FALSE(error) << row.name << ": " << error->description();
  }
  session->finishTasksAndInvalidate();

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(received(requests[i]), rows[i].expected) << rows[i].name;
    EXPECT_EQ(requests[i].connectionID, requests[0].connectionID) << rows[i].name;
  }
  EXPECT_EQ(requests[3].header("Content-Length"), "4");
  EXPECT_FALSE(requests[3].header("Expect"));
}

}  // namespace
