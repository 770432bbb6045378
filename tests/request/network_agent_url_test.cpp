// What the agent makes of a request before anything is sent: the URL from filters and base or CDN
// URLs, the pinned-domain list an unknown absolute host widens, and the URL request from serializers
// that requests configured alike share. The agent remembers parsed URLs and shared serializers; each
// must give what the work done afresh gives.
#include <gtest/gtest.h>

#include <thread>

#include "platform/foundation/url.h"
#include "platform/net/url_request.h"
#include "request/network_config.h"
#include "request_test_support.h"
#include "settings/setting.h"

namespace {

class RecordingFilter : public ZRBRQ_UrlFilterProtocol {
 public:
  std::string filterUrl(const std::string& url, const std::shared_ptr<ZRBRQ_BaseRequest>&) override {
    ++calls;
    return url + (url.find('?') == std::string::npos ? "?sig=1" : "&sig=1");
  }
  std::atomic<int> calls = 0;
};

// The same strings against bases that change between calls, on two threads in turn.
TEST(NetworkAgentUrlTest, BuildsUrlsFromFiltersAndBaseOrCdnUrls) {
  const auto& config = ZRBRQ_NetworkConfig::sharedConfig();
  config->setCdnUrl("http://cdn.example/c/");
  auto agent = ZRBRQ_NetworkAgent::init();
  struct Case {
    std::string url, base, configBase;
    bool useCdn, filtered;
    std::string expected;
  };
  const std::string api = "http://config.example/api";
  const Case cases[] = {
      {"devices", "", api, false, false, "http://config.example/api/devices"},
      {"/devices", "", api, false, false, "http://config.example/devices"},
      {"devices", "", "http://config.example/other/", false, false, "http://config.example/other/devices"},
      {"devices", "http://own.example/v1", api, false, false, "http://own.example/v1/devices"},
      {"devices", "http://own.example/v1/", api, false, false, "http://own.example/v1/devices"},
      {"devices", "", api, true, false, "http://cdn.example/c/devices"},
      {"https://abs.example/p?q=1", "http://own.example/", api, false, false, "https://abs.example/p?q=1"},
      {"devices", "", api, false, true, "http://config.example/api/devices?sig=1"},
      {"https://abs.example/p", "", api, false, true, "https://abs.example/p"},
  };
  for (int thread = 0; thread < 2; ++thread) {
    std::thread([&] {
      for (const Case& c : cases) {
        SCOPED_TRACE(c.url + " " + c.base + " " + c.configBase);
        auto filter = std::make_shared<RecordingFilter>();
        if (c.filtered) {
          config->addUrlFilter(nullptr);  // skipped
          config->addUrlFilter(filter);
        }
        config->setBaseUrl(c.configBase);
        auto request = ZRBTestMakeRequest(c.url);
        request->base = c.base;
        request->cdnOn = c.useCdn;
        EXPECT_EQ(agent->buildRequestUrl(request), c.expected);
        EXPECT_EQ(filter->calls, c.filtered && c.expected.find("sig") != std::string::npos ? 1 : 0);
        config->clearUrlFilter();
      }
    }).join();
  }
  // The request's own CDN URL wins over the configuration's.
  auto request = ZRBTestMakeRequest("devices");
  request->cdn = "http://owncdn.example/x";
  request->cdnOn = true;
  EXPECT_EQ(agent->buildRequestUrl(request), "http://owncdn.example/x/devices");
  config->setBaseUrl("");
  config->setCdnUrl("");
}

// An absolute URL whose host the pinned list lacks rebuilds the pin guard from the settings'
// domains plus that host; a second unknown host replaces the first. Every agent learns the host,
// even from a URL another agent has parsed.
TEST(NetworkAgentUrlTest, UnknownAbsoluteHostsWidenThePinnedDomains) {
  auto setting = ZRBSetting::sharedSetting();
  setting->setAllDomainsProvider([] { return std::vector<std::string>{"http://api.orvel.com/"}; });
  setting->setIsTrustDomainsProvider([] { return true; });
  setting->setIsRealStgEnv(false);

  auto agent = ZRBRQ_NetworkAgent::init();
  auto other = ZRBRQ_NetworkAgent::init();
  ASSERT_NE(agent->pinGuard(), nullptr);
  EXPECT_EQ(agent->pinGuardDomains(), std::vector<std::string>{"http://api.orvel.com/"});
  EXPECT_EQ(agent->pinGuard()->configuration()->pinnedDomains.size(), 1u);
  struct Step {
    std::string url;
    std::vector<std::string> domains;
    bool rebuilt;
  };
  const Step steps[] = {
      {"https://media.orvel.net/a", {"http://api.orvel.com/", "media.orvel.net"}, true},
      {"https://media.orvel.net/b", {"http://api.orvel.com/", "media.orvel.net"}, false},
      {"relative/path", {"http://api.orvel.com/", "media.orvel.net"}, false},
      {"https://other.cam.com/x", {"http://api.orvel.com/", "other.cam.com"}, true},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.url);
    const auto before = agent->pinGuard();
    agent->buildRequestUrl(ZRBTestMakeRequest(step.url));
    EXPECT_EQ(agent->pinGuardDomains(), step.domains);
    EXPECT_EQ(agent->pinGuard() != before, step.rebuilt);
    EXPECT_EQ(agent->pinGuard()->configuration()->pinnedDomains.size(), 2u);
  }
  other->buildRequestUrl(ZRBTestMakeRequest("https://other.cam.com/x"));
  EXPECT_EQ(other->pinGuardDomains(), (std::vector<std::string>{"http://api.orvel.com/", "other.cam.com"}));
  setting->setAllDomainsProvider(nullptr);
  setting->setIsTrustDomainsProvider(nullptr);
  setting->setIsRealStgEnvProvider(nullptr);
}

TEST(NetworkAgentUrlTest, RequestsConfiguredAlikeOrNotGetTheirOwnSettings) {
  auto agent = ZRBRQ_NetworkAgent::init();
  const std::string url = "http://127.0.0.1:9/x";  // the tasks are never resumed
  const std::string form = "application/x-www-form-urlencoded", json = "application/json";
  struct Case {
    long method, kind;
    double timeout;
    bool cellular, header, authorization;
    const char* query;
    std::optional<std::string> contentType;
  };
  const long GET = ZRBRQ_RequestMethodGET, HTTP = ZRBRQ_RequestSerializerTypeHTTP;
  const long JSON = ZRBRQ_RequestSerializerTypeJSON;
  const Case cases[] = {
      {GET, HTTP, 60, true, false, false, "?id=7", {}},
      {GET, HTTP, 5, true, false, false, "?id=7", {}},
      {GET, HTTP, 60, false, false, false, "?id=7", {}},
      {ZRBRQ_RequestMethodDELETE, HTTP, 60, true, false, false, "", form},
      {ZRBRQ_RequestMethodDELETE, JSON, 60, true, false, false, "", json},
      {ZRBRQ_RequestMethodPOST, JSON, 60, true, false, false, "", json},
      {ZRBRQ_RequestMethodPOST, HTTP, 60, true, false, false, "", form},
      {GET, HTTP, 60, true, true, false, "?id=7", {}},
      {GET, HTTP, 60, true, false, true, "?id=7", {}},
  };
  std::vector<ZRBURLSessionTaskPtr> tasks;
  const auto taskFor = [&](const std::shared_ptr<ZRBTestRequest>& request) {
    request->argument = ZRBValue::dictionary({{"id", ZRBValue(7)}});
    ZRBErrorPtr error;
    tasks.push_back(agent->sessionTaskForRequest(request, &error));
    return tasks.back() ? tasks.back()->originalRequest() : nullptr;
  };
  // Twice round, so that the second round meets whatever the first one left to share.
  for (int round = 0; round < 2; ++round) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << &c - cases << " round " << round);
      auto request = ZRBTestMakeRequest(url);
      request->method = c.method;
      request->requestKind = c.kind;
      request->timeout = c.timeout;
      request->cellular = c.cellular;
      if (c.header) request->headers = ZRBRQ_BaseRequest::HeaderMap{{"X-Camera", "front"}};
      if (c.authorization) request->authorization = std::vector<std::string>{"user", "secret"};
      const auto sent = taskFor(request);
      ASSERT_NE(sent, nullptr);
      EXPECT_EQ(sent->URL()->absoluteString(), url + c.query);
      EXPECT_EQ(sent->timeoutInterval(), c.timeout);
      EXPECT_EQ(sent->allowsCellularAccess(), c.cellular);
      EXPECT_EQ(sent->valueForHTTPHeaderField("Content-Type"), c.contentType);
      EXPECT_EQ(sent->valueForHTTPHeaderField("X-Camera").has_value(), c.header);
      EXPECT_EQ(sent->valueForHTTPHeaderField("Authorization").has_value(), c.authorization);
      EXPECT_TRUE(sent->valueForHTTPHeaderField("User-Agent").has_value());
    }
  }
  // More distinct settings than are shared: the rest are still made right, one by one.
  for (int timeout = 1; timeout <= 40; ++timeout) {
    auto request = ZRBTestMakeRequest(url);
    request->timeout = timeout;
    const auto sent = taskFor(request);
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(sent->timeoutInterval(), timeout);
  }
  for (const auto& task : tasks) task->cancel();
}

}  // namespace
