// The work the agent does once instead of per request: serializers shared between requests that
// configure them alike, URL strings and base URLs parsed once per thread, and the clean-up that
// follows the callbacks in the same main-queue block. Each must give what the per-request work gave.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/url.h"
#include "platform/net/url_request.h"
#include "platform/runtime/dispatch.h"
#include "request/base_request.h"
#include "request/network_agent.h"
#include "request/network_config.h"
#include "settings/sdk_config.h"
#include "support/test_server.h"

namespace {

using namespace std::chrono_literals;

class ConfiguredRequest : public ZRBRQ_BaseRequest {
 public:
  std::string url;
  std::string base;
  ZRBRQ_RequestMethod method = ZRBRQ_RequestMethodGET;
  ZRBRQ_RequestSerializerType kind = ZRBRQ_RequestSerializerTypeHTTP;
  double timeout = 60;
  bool cellular = true;
  std::optional<HeaderMap> headers;
  std::optional<std::vector<std::string>> authorization;

  std::string requestUrl() const override { return url; }
  std::string baseUrl() const override { return base; }
  ZRBRQ_RequestMethod requestMethod() const override { return method; }
  ZRBRQ_RequestSerializerType requestSerializerType() const override { return kind; }
  double requestTimeoutInterval() const override { return timeout; }
  bool allowsCellularAccess() const override { return cellular; }
  std::optional<HeaderMap> requestHeaderFieldValueDictionary() const override { return headers; }
  std::optional<std::vector<std::string>> requestAuthorizationHeaderFieldArray() const override {
    return authorization;
  }
  ZRBValue requestArgument() const override { return ZRBValue::dictionary({{"id", ZRBValue(7)}}); }
};

struct Configuration {
  const char* name;
  ZRBRQ_RequestMethod method;
  ZRBRQ_RequestSerializerType kind;
  double timeout;
  bool cellular;
  bool header;
  bool authorization;
  // What the URL request must show.
  const char* query;  // appended to the URL
  std::optional<std::string> contentType;
};

TEST(NetworkAgentSharedWorkTest, RequestsConfiguredAlikeOrNotGetTheirOwnSettings) {
  auto agent = ZRBRQ_NetworkAgent::init();
  const std::string url = "http://127.0.0.1:9/x";  // the tasks are never resumed
  const Configuration setups[] = {
      {"plain GET",
       ZRBRQ_RequestMethodGET,
       ZRBRQ_RequestSerializerTypeHTTP,
       60,
       true,
       false,
       false,
       "?id=7",
       {}},
      {"short GET",
       ZRBRQ_RequestMethodGET,
       ZRBRQ_RequestSerializerTypeHTTP,
       5,
       true,
       false,
       false,
       "?id=7",
       {}},
      {"no cellular",
       ZRBRQ_RequestMethodGET,
       ZRBRQ_RequestSerializerTypeHTTP,
       60,
       false,
       false,
       false,
       "?id=7",
       {}},
      {"DELETE", ZRBRQ_RequestMethodDELETE, ZRBRQ_RequestSerializerTypeHTTP, 60, true, false, false, "",
       "application/x-www-form-urlencoded"},
      {"JSON DELETE", ZRBRQ_RequestMethodDELETE, ZRBRQ_RequestSerializerTypeJSON, 60, true, false, false, "",
       "application/json"},
      {"JSON POST", ZRBRQ_RequestMethodPOST, ZRBRQ_RequestSerializerTypeJSON, 60, true, false, false, "",
       "application/json"},
      {"form POST", ZRBRQ_RequestMethodPOST, ZRBRQ_RequestSerializerTypeHTTP, 60, true, false, false, "",
       "application/x-www-form-urlencoded"},
      {"with header",
       ZRBRQ_RequestMethodGET,
       ZRBRQ_RequestSerializerTypeHTTP,
       60,
       true,
       true,
       false,
       "?id=7",
       {}},
      {"with authorization",
       ZRBRQ_RequestMethodGET,
       ZRBRQ_RequestSerializerTypeHTTP,
       60,
       true,
       false,
       true,
       "?id=7",
       {}},
  };
  std::vector<ZRBURLSessionTaskPtr> tasks;
  // Twice round, so that the second round meets whatever the first one left to share.
  for (int round = 0; round < 2; ++round) {
    for (const Configuration& s : setups) {
      SCOPED_TRACE(std::string(s.name) + " round " + std::to_string(round));
      auto request = std::make_shared<ConfiguredRequest>();
      request->url = url;
      request->method = s.method;
      request->kind = s.kind;
      request->timeout = s.timeout;
      request->cellular = s.cellular;
      if (s.header) request->headers = ZRBRQ_BaseRequest::HeaderMap{{"X-Camera", "front"}};
      if (s.authorization) request->authorization = std::vector<std::string>{"user", "secret"};
      ZRBErrorPtr error;
      auto task = agent->sessionTaskForRequest(request, &error);
      ASSERT_NE(task, nullptr);
      tasks.push_back(task);
      const auto sent = task->originalRequest();
      ASSERT_NE(sent, nullptr);
      EXPECT_EQ(sent->URL()->absoluteString(), url + s.query);
      EXPECT_EQ(sent->timeoutInterval(), s.timeout);
      EXPECT_EQ(sent->allowsCellularAccess(), s.cellular);
      EXPECT_EQ(sent->valueForHTTPHeaderField("Content-Type"), s.contentType);
      EXPECT_EQ(sent->valueForHTTPHeaderField("X-Camera").has_value(), s.header);
      EXPECT_EQ(sent->valueForHTTPHeaderField("Authorization").has_value(), s.authorization);
      EXPECT_TRUE(sent->valueForHTTPHeaderField("User-Agent").has_value());
    }
  }
  // More distinct settings than are shared: the rest are still made right, one by one.
  for (int timeout = 1; timeout <= 40; ++timeout) {
    auto request = std::make_shared<ConfiguredRequest>();
    request->url = url;
    request->timeout = timeout;
    auto task = agent->sessionTaskForRequest(request, nullptr);
    ASSERT_NE(task, nullptr);
    tasks.push_back(task);
    EXPECT_EQ(task->originalRequest()->timeoutInterval(), timeout);
  }
  for (const auto& task : tasks) task->cancel();
}

TEST(NetworkAgentSharedWorkTest, RememberedUrlsStillWidenEachAgentsDomains) {
  const auto& config = ZRBRQ_NetworkConfig::sharedConfig();
  auto first = ZRBRQ_NetworkAgent::init();
  auto second = ZRBRQ_NetworkAgent::init();
  auto request = std::make_shared<ConfiguredRequest>();
  request->url = "https://cam-a.example/status";
  EXPECT_EQ(first->buildRequestUrl(request), request->url);
  // The same string again, on the same thread, for another agent: it learns the host too.
  EXPECT_EQ(second->buildRequestUrl(request), request->url);
  for (const auto& agent : {first, second}) {
    const auto domains = agent->pinGuardDomains();
    EXPECT_NE(std::find(domains.begin(), domains.end(), "cam-a.example"), domains.end());
  }

  // Relative URLs against bases that change between calls, and between threads.
  struct Case {
    std::string url, base, configBase, expected;
  };
  const Case cases[] = {
      {"status", "http://own.example/v1", "", "http://own.example/v1/status"},
      {"status", "", "http://config.example/api", "http://config.example/api/status"},
      {"status", "", "http://config.example/other/", "http://config.example/other/status"},
      {"status", "http://own.example/v1", "", "http://own.example/v1/status"},
      {"/root", "http://own.example/v1", "", "http://own.example/root"},
      {"https://cam-b.example/x", "http://own.example/v1", "", "https://cam-b.example/x"},
      {"status", "http://own.example/v1", "", "http://own.example/v1/status"},
  };
  for (int thread = 0; thread < 2; ++thread) {
    std::thread([&] {
      for (const Case& c : cases) {
        SCOPED_TRACE(c.url + " " + c.base + " " + c.configBase);
        config->setBaseUrl(c.configBase);
        request->url = c.url;
        request->base = c.base;
        EXPECT_EQ(first->buildRequestUrl(request), c.expected);
      }
    }).join();
  }
  config->setBaseUrl("");
  // The last unknown host replaced the one before it.
  const auto domains = first->pinGuardDomains();
  EXPECT_NE(std::find(domains.begin(), domains.end(), "cam-b.example"), domains.end());
  EXPECT_EQ(std::find(domains.begin(), domains.end(), "cam-a.example"), domains.end());
}

TEST(NetworkAgentSharedWorkTest, CleanUpFollowsACallbackThatThrows) {
  ZRBTestServer server;
  server.start();
  server.respond("GET", "/status", ZRBTestResponse::json(200, R"({"online":true})"));
  ZRBSDKConfig::sharedInstance()->setLogLevel(0);
  const auto& agent = ZRBRQ_NetworkAgent::sharedAgent();
  auto request = std::make_shared<ConfiguredRequest>();
  request->url = server.url("/status");
  std::atomic<int> calls{0};
  request->startWithCompletionBlockWithSuccess(
      [&calls](const ZRBRQ_BaseRequestPtr&) {
        ++calls;
        throw std::runtime_error("caller's bug");
      },
      [&calls](const ZRBRQ_BaseRequestPtr&) { calls += 100; });
  for (int i = 0; i < 3000 && (calls == 0 || agent->requestCount() != 0); ++i)
    std::this_thread::sleep_for(10ms);
  ZRBDispatch::mainQueue()->sync([] {});
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(agent->requestCount(), 0u);
  EXPECT_FALSE(request->successCompletionBlock());
  EXPECT_FALSE(request->failureCompletionBlock());
}

}  // namespace
