// Objects that several threads share, under load: requests are built from one serializer and run
// against the loopback server while another thread keeps changing that serializer, swapping the
// settings' answer functions and the log collector, and installing the domain registry's tables
// and assertion handler again. Its real verdict comes from the ThreadSanitizer build (build-tsan);
// in every build each request must succeed with one of the header values that were set.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "http/request_serializer.h"
#include "pinning/domain_lookup.h"
#include "pinning/registry/registry.h"
#include "platform/foundation/json_serialization.h"
#include "platform/net/url_session.h"
#include "request/network_log.h"
#include "settings/app_sdk_log_manager.h"
#include "settings/setting.h"
#include "support/recording_delegate.h"
#include "support/test_server.h"

namespace {

std::atomic<int> registryAssertions{0};
void countingHandlerA(const char*, int, const char*) { registryAssertions.fetch_add(1); }
void countingHandlerB(const char*, int, const char*) { registryAssertions.fetch_add(1); }

TEST(SharedStateStressTest, SwapsWhileRequestsRun) {
  ZRBTestServer server;
  server.start();
  server.echo("/echo");
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = ZRBURLSession::sessionWithConfiguration(nullptr, delegate, nullptr);
  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  serializer->setValueForHTTPHeaderField("0", "X-Round");
  ZRBSetting& setting = *ZRBSetting::sharedSetting();
  ZRBAppSdkLogManager& logs = *ZRBAppSdkLogManager::sharedInstance();
  std::atomic<int> collected{0};
  // Everything the workers read is in place before they start; the swapper only replaces it.
  setting.setAllDomains({"example.com", "r0.example.com"});
  ZRB_InitializeDomainRegistry();
  ZRB_SetDomainRegistryAssertHandler(countingHandlerA);

  std::atomic<bool> stop{false};
  std::thread swapper([&] {
    for (int round = 1; !stop.load(); ++round) {
      serializer->setValueForHTTPHeaderField(std::to_string(round), "X-Round");
      serializer->setTimeoutInterval(round % 2 ? 30 : 31);
      serializer->setHTTPMethodsEncodingParametersInURI(
          round % 2 ? std::set<std::string>{"GET", "HEAD", "DELETE"} : std::set<std::string>{"GET", "HEAD"});
      setting.setIsRealStgEnv(round % 2 == 0);
      setting.setAllDomains({"example.com", "r" + std::to_string(round) + ".example.com"});
      logs.setCollectAppSdkLogEnable(round % 3 != 0);
      logs.setCollector(
          [&collected](long, const std::string&, const std::string&) { collected.fetch_add(1); });
      ZRB_InitializeDomainRegistry();
      ZRB_SetDomainRegistryAssertHandler(round % 2 ? countingHandlerA : countingHandlerB);
      std::this_thread::yield();
    }
  });

  constexpr int kThreads = 4, kRequestsPerThread = 25;
  std::mutex mutex;
  std::vector<ZRBURLSessionTaskPtr> tasks;
  std::vector<std::thread> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < kRequestsPerThread; ++i) {
        auto request = serializer->requestWithMethod("GET", server.url("/echo/" + std::to_string(t)),
                                                     ZRBValue::dictionary({{"i", i}}));
        EXPECT_FALSE(serializer->mutableHTTPRequestHeaders().empty());
        EXPECT_FALSE(serializer->HTTPMethodsEncodingParametersInURI().empty());
        EXPECT_EQ(setting.allDomains().size(), 2u);
        setting.isRealStgEnv();
        ZRBNetworkLog("request %d of thread %d", i, t);
        EXPECT_EQ(ZRB_GetRegistryLength("www.example.co.uk"), 5u);
        EXPECT_TRUE(isSubdomain("example.com", "www.example.com"));
        auto task = session->dataTaskWithRequest(request);
        {
          std::lock_guard lock(mutex);
          tasks.push_back(task);
        }
        task->resume();
      }
    });
  }
  for (auto& worker : workers) worker.join();
  bool completed = delegate->waitForCompletions(kThreads * kRequestsPerThread, std::chrono::seconds(120));
  stop = true;
  swapper.join();
  session->invalidateAndCancel();
  delegate->waitForInvalidation();
  setting.setAllDomainsProvider(nullptr);
  setting.setIsRealStgEnvProvider(nullptr);
  logs.setCollector(nullptr);
  logs.setCollectAppSdkLogEnable(false);
  ZRB_SetDomainRegistryAssertHandler(nullptr);

  ASSERT_TRUE(completed);
  EXPECT_EQ(registryAssertions.load(), 0);
  for (const auto& task : tasks) {
    auto completion = delegate->completion(task);
    ASSERT_EQ(completion.error, nullptr) << completion.error->description();
    auto echoed = ZRBJSONSerialization::JSONObjectWithData(std::string_view(completion.body));
    std::string round = echoed["headers"]["X-Round"].description();
    EXPECT_FALSE(round.empty()) << completion.body;
    EXPECT_EQ(round.find_first_not_of("0123456789"), std::string::npos) << completion.body;
  }
}

}  // namespace
