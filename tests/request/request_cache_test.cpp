// The response cache: when start() answers from disk and when it goes to the network, how a hit is
// delivered, the file names and directory, damaged entries, and entries left by a writer killed
// half-way.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include "http/security_policy.h"
#include "platform/foundation/keyed_archiver.h"
#include "platform/system/bundle.h"
#include "platform/system/file_manager.h"
#include "request/network_agent.h"
#include "request/network_config.h"
#include "request/request.h"
#include "settings/app_sdk_log_manager.h"
#include "settings/sdk_config.h"
#include "support/test_server.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

class CachedRequest : public ZRBRQ_Request {
 public:
  std::string url;
  std::string base;
  long cacheTime = 3600;
  long long version = 0;
  ZRBValue sensitive;
  bool async = false;
  ZRBRQ_ResponseSerializerType responseKind = ZRBRQ_ResponseSerializerTypeJSON;

  std::string requestUrl() const override { return url; }
  std::string baseUrl() const override { return base; }
  ZRBRQ_ResponseSerializerType responseSerializerType() const override { return responseKind; }
  long cacheTimeInSeconds() const override { return cacheTime; }
  long long cacheVersion() const override { return version; }
  ZRBValue cacheSensitiveData() const override { return sensitive; }
  bool writeCacheAsynchronously() const override { return async; }
};

// What reached a request, in order, and whether all of it ran on the main queue.
class Recorder : public ZRBRQ_RequestDelegate, public ZRBRQ_RequestAccessory {
 public:
  void requestFinished(const ZRBRQ_BaseRequestPtr&) override { put("finished"); }
  void requestFailed(const ZRBRQ_BaseRequestPtr&) override { put("failed"); }
  void requestWillStart(const ZRBRQ_BaseRequestPtr&) override { put("willStart"); }
  void requestWillStop(const ZRBRQ_BaseRequestPtr&) override { put("willStop"); }
  void requestDidStop(const ZRBRQ_BaseRequestPtr&) override { put("didStop"); }

  void put(const std::string& event) {
    std::lock_guard lock(mutex_);
    events.push_back(event);
    if (event != "willStart" && !ZRBDispatch::isMainQueue()) offMain = true;
    changed_.notify_all();
  }
  // Waits for the success or failure callback, then for the main queue to be idle.
  void waitForOutcome() {
    {
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, 30s, [&] {
        return std::find_if(events.begin(), events.end(),
                            [](const auto& e) { return e == "success" || e == "failure"; }) != events.end();
      });
    }
    ZRBDispatch::mainQueue()->sync([] {});
  }

  std::vector<std::string> events;
  bool offMain = false;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
};

std::shared_ptr<Recorder> run(const std::shared_ptr<CachedRequest>& request) {
  auto recorder = std::make_shared<Recorder>();
  request->setDelegate(recorder);
  request->addAccessory(recorder);
  request->startWithCompletionBlockWithSuccess(
      [recorder](const ZRBRQ_BaseRequestPtr&) { recorder->put("success"); },
      [recorder](const ZRBRQ_BaseRequestPtr&) { recorder->put("failure"); });
  recorder->waitForOutcome();
  // The agent's clean-up follows the callbacks on the main queue; asynchronous writes follow on
  // the writing queue.
  for (int i = 0; i < 3000 && ZRBRQ_NetworkAgent::sharedAgent()->requestCount() != 0; ++i) {
    std::this_thread::sleep_for(1ms);
  }
  KVrequest_cache_writing_queue()->sync([] {});
  return recorder;
}

long cacheErrorCode(const std::shared_ptr<CachedRequest>& request) {
  ZRBErrorPtr error;
  if (request->loadCacheWithError(&error)) return 0;
  EXPECT_EQ(error->domain(), ZRBRequestCacheErrorDomain);
  return error->code();
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class FixedDirFilter : public ZRBRQ_CacheDirPathFilterProtocol {
 public:
  explicit FixedDirFilter(std::string dir) : dir_(std::move(dir)) {}
  std::string filterCacheDirPath(const std::string&, const ZRBRQ_BaseRequestPtr&) override { return dir_; }

 private:
  std::string dir_;
};

class RequestCacheTest : public testing::Test {
 protected:
  void SetUp() override {
    server_.start();
    server_.respond("GET", "/status", ZRBTestResponse::json(200, std::string(kBody)));
    ZRBSDKConfig::sharedInstance()->setLogLevel(0);
    library_ = fs::temp_directory_path() / ("orvelkit-cache-" + std::to_string(::getpid()) + "-" +
                                            testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(library_);
    fs::create_directories(library_);
    ZRBFileManager::defaultManager()->setLibraryDirectory(library_.string());
    ZRBBundle::mainBundle()->setInfoDictionary(ZRBValue::dictionary({{"CFBundleShortVersionString", "1.0"}}));
    ZRBAppSdkLogManager::sharedInstance()->setCollector(
        [this](long, const std::string&, const std::string& message) {
          std::lock_guard lock(logMutex_);
          logs_.push_back(message);
        });
    ZRBAppSdkLogManager::sharedInstance()->setCollectAppSdkLogEnable(true);
  }
  void TearDown() override {
    ZRBAppSdkLogManager::sharedInstance()->setCollectAppSdkLogEnable(false);
    ZRBAppSdkLogManager::sharedInstance()->setCollector(nullptr);
    ZRBRQ_NetworkConfig::sharedConfig()->clearCacheDirPathFilter();
    ZRBRQ_NetworkConfig::sharedConfig()->setBaseUrl("");
    ZRBFileManager::defaultManager()->setLibraryDirectory(std::nullopt);
    ZRBBundle::mainBundle()->resetInfoDictionary();
    fs::remove_all(library_);
  }

  std::shared_ptr<CachedRequest> makeRequest() {
    auto request = std::make_shared<CachedRequest>();
    request->url = server_.url("/status");
    return request;
  }
  // A request whose answer is now on disk.
  std::shared_ptr<CachedRequest> filled() {
    auto request = makeRequest();
    run(request);
    EXPECT_FALSE(request->isDataFromCache());
    EXPECT_TRUE(fs::exists(request->cacheMetadataFilePath()));
    return request;
  }
  bool logged(std::string_view prefix) {
    std::lock_guard lock(logMutex_);
    return std::any_of(logs_.begin(), logs_.end(), [&](const auto& m) { return m.starts_with(prefix); });
  }

  static constexpr std::string_view kBody = R"({"online":true,"name":"cam-1"})";
  ZRBTestServer server_;
  fs::path library_;
  std::mutex logMutex_;
  std::vector<std::string> logs_;
};

TEST_F(RequestCacheTest, DefaultCacheTimeAlwaysGoesToTheNetworkAndWritesNothing) {
  for (int i = 0; i < 2; ++i) {
    auto request = std::make_shared<CachedRequest>();
    request->url = server_.url("/status");
    request->cacheTime = -1;
    run(request);
    EXPECT_EQ(cacheErrorCode(request), ZRBRequestCacheErrorInvalidCacheTime);
  }
  EXPECT_EQ(server_.requestCount(), 2u);
  EXPECT_FALSE(fs::exists(library_ / "RequestCache"));
}

TEST_F(RequestCacheTest, HitAnswersOnTheMainQueueWithoutAccessoriesOrNetwork) {
  for (bool async : {false, true}) {
    SCOPED_TRACE(async ? "asynchronous write" : "synchronous write");
    fs::remove_all(library_ / "RequestCache");
    const std::size_t before = server_.requestCount();
    auto first = makeRequest();
    first->async = async;
    EXPECT_EQ(run(first)->events, (std::vector<std::string>{"willStart", "willStop", "finished", "success"}));

    auto second = makeRequest();
    const auto recorder = run(second);
    EXPECT_EQ(recorder->events, (std::vector<std::string>{"finished", "success"}));
    EXPECT_FALSE(recorder->offMain);
    EXPECT_EQ(server_.requestCount(), before + 1);
    EXPECT_TRUE(second->isDataFromCache());
    EXPECT_FALSE(second->successCompletionBlock());
    EXPECT_EQ(second->responseString(), kBody);
    EXPECT_EQ(second->responseJSONObject()["name"].string(), "cam-1");
    EXPECT_EQ(second->responseObject(), second->responseJSONObject());
    EXPECT_EQ(second->responseData().bytes().size(), kBody.size());

    // Skipping the cache shows the network's answer again.
    second->setIgnoreCache(true);
    run(second);
    EXPECT_FALSE(second->isDataFromCache());
    EXPECT_FALSE(second->cacheData());
    EXPECT_EQ(server_.requestCount(), before + 2);
  }
}

TEST_F(RequestCacheTest, HitDecodesWithTheStoredEncodingAndTheRequestsSerializerKind) {
  ZRBTestResponse latin1 = ZRBTestResponse::text(200, "<p>caf\xe9</p>", "text/xml; charset=iso-8859-1");
  server_.respond("GET", "/latin1", latin1);
  for (auto kind : {ZRBRQ_ResponseSerializerTypeHTTP, ZRBRQ_ResponseSerializerTypeXMLParser}) {
    SCOPED_TRACE(kind);
    fs::remove_all(library_ / "RequestCache");
    std::shared_ptr<CachedRequest> hit;
    for (int i = 0; i < 2; ++i) {
      hit = makeRequest();
      hit->url = server_.url("/latin1");
      hit->responseKind = kind;
      EXPECT_EQ(run(hit)->events.back(), "success")
          << (hit->error() ? hit->error()->description() : "no error");
    }
    ASSERT_TRUE(hit->isDataFromCache());
    EXPECT_EQ(hit->responseString(), "<p>caf\u00e9</p>");
    EXPECT_FALSE(hit->responseJSONObject());
    if (kind == ZRBRQ_ResponseSerializerTypeXMLParser) {
      EXPECT_TRUE(hit->responseObject().objectAs<ZRBXMLParser>());
    } else {
      EXPECT_EQ(hit->responseObject(), hit->responseData());
    }
  }
}

TEST_F(RequestCacheTest, ChangedConditionsInvalidateTheEntryAndGoToTheNetwork) {
  struct Case {
    const char* name;
    std::function<void(CachedRequest&)> change;
    long code;
  };
  const std::vector<Case> cases = {
      {"cache time 0", [](CachedRequest& r) { r.cacheTime = 0; }, ZRBRequestCacheErrorExpired},
      {"version", [](CachedRequest& r) { r.version = 2; }, ZRBRequestCacheErrorVersionMismatch},
      {"sensitive data", [](CachedRequest& r) { r.sensitive = ZRBValue("user-2"); },
       ZRBRequestCacheErrorSensitiveDataMismatch},
      {"app version",
       [](CachedRequest&) {
         ZRBBundle::mainBundle()->setInfoDictionary(
             ZRBValue::dictionary({{"CFBundleShortVersionString", "1.1"}}));
       },
       ZRBRequestCacheErrorAppVersionMismatch},
      {"app version gone", [](CachedRequest&) { ZRBBundle::mainBundle()->setInfoDictionary(ZRBValue()); },
       ZRBRequestCacheErrorAppVersionMismatch},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ZRBBundle::mainBundle()->setInfoDictionary(ZRBValue::dictionary({{"CFBundleShortVersionString", "1.0"}}));
    fs::remove_all(library_ / "RequestCache");
    filled();
    auto request = makeRequest();
    c.change(*request);
    EXPECT_EQ(cacheErrorCode(request), c.code);
    const std::size_t before = server_.requestCount();
    EXPECT_EQ(run(request)->events.back(), "success");
    EXPECT_EQ(server_.requestCount(), before + 1);
    EXPECT_FALSE(request->isDataFromCache());
  }
}

TEST_F(RequestCacheTest, EntryFromAMovedClockOrWithoutDatesIsExpired) {
  auto request = filled();
  const std::string path = request->cacheMetadataFilePath();
  const auto rewrite = [&](std::optional<ZRBDate> date) {
    ZRBRQ_CacheMetadata metadata;
    metadata.setVersion(0);
    metadata.setStringEncoding(ZRBUTF8StringEncoding);
    metadata.setAppVersionString("1.0");
    metadata.setCreationDate(date);
    ASSERT_TRUE(ZRBKeyedArchiver::archiveRootObjectToFile(metadata, path));
  };
  const double now = ZRBDate::now().secondsSince1970;
  rewrite(ZRBDate{now - 60});
  EXPECT_EQ(cacheErrorCode(request), 0);
  for (auto date : {std::optional<ZRBDate>(ZRBDate{now - 7200}), std::optional<ZRBDate>(ZRBDate{now + 600}),
                    std::optional<ZRBDate>(ZRBDate{std::nan("")}), std::optional<ZRBDate>()}) {
    rewrite(date);
    EXPECT_EQ(cacheErrorCode(request), ZRBRequestCacheErrorExpired);
  }
}

TEST_F(RequestCacheTest, FileNameUsesTheConfigurationsBaseUrlNeverTheRequests) {
  auto a = makeRequest();
  auto b = makeRequest();
  b->base = "http://127.0.0.1:1/elsewhere/";
  EXPECT_EQ(a->cacheFilePath(), b->cacheFilePath());
  EXPECT_EQ(b->cacheMetadataFilePath(), b->cacheFilePath() + ".metadata");
  EXPECT_EQ(fs::path(a->cacheFilePath()).parent_path(), library_ / "RequestCache");
  const std::string before = a->cacheFileName();
  EXPECT_EQ(before.size(), 32u);
  ZRBRQ_NetworkConfig::sharedConfig()->setBaseUrl("http://127.0.0.1:2/");
  EXPECT_NE(a->cacheFileName(), before);
}

TEST_F(RequestCacheTest, PlainFileWhereTheDirectoryShouldBeIsReplacedByAMarkedDirectory) {
  writeFile((library_ / "RequestCache").string(), "not a directory");
  auto request = filled();
  EXPECT_TRUE(fs::is_directory(library_ / "RequestCache"));
  EXPECT_TRUE(ZRBFileManager::defaultManager()->isExcludedFromBackup((library_ / "RequestCache").string()));
  EXPECT_EQ(cacheErrorCode(request), 0);
}

TEST_F(RequestCacheTest, DamagedEntriesMissWithTheirCodeAndGoToTheNetwork) {
  struct Case {
    const char* name;
    std::function<void(CachedRequest&)> damage;
    long code;
  };
  const auto policyArchive = [] {
    auto bytes = ZRBKeyedArchiver::archivedDataWithRootObject(*ZRBHS_SecurityPolicy::defaultPolicy(), true);
    return std::string(bytes->begin(), bytes->end());
  };
  const std::vector<Case> cases = {
      {"metadata not an archive", [](CachedRequest& r) { writeFile(r.cacheMetadataFilePath(), "garbage"); },
       ZRBRequestCacheErrorInvalidMetadata},
      {"metadata of another class",
       [&](CachedRequest& r) { writeFile(r.cacheMetadataFilePath(), policyArchive()); },
       ZRBRequestCacheErrorInvalidMetadata},
      {"metadata unreadable",
       [](CachedRequest& r) {
         fs::remove(r.cacheMetadataFilePath());
         fs::create_directory(r.cacheMetadataFilePath());
       },
       ZRBRequestCacheErrorInvalidMetadata},
      {"JSON body no longer parses", [](CachedRequest& r) { writeFile(r.cacheFilePath(), "<html>"); },
       ZRBRequestCacheErrorInvalidCacheData},
      {"truncated body", [](CachedRequest& r) { writeFile(r.cacheFilePath(), kBody.substr(0, 9)); },
       ZRBRequestCacheErrorInvalidCacheData},
      {"body missing", [](CachedRequest& r) { fs::remove(r.cacheFilePath()); },
       ZRBRequestCacheErrorInvalidCacheData},
      {"body unreadable",
       [](CachedRequest& r) {
         fs::remove(r.cacheFilePath());
         fs::create_directory(r.cacheFilePath());
       },
       ZRBRequestCacheErrorInvalidCacheData},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(library_ / "RequestCache");
    filled();
    auto request = makeRequest();
    c.damage(*request);
    EXPECT_EQ(cacheErrorCode(request), c.code);
    const std::size_t before = server_.requestCount();
    EXPECT_EQ(run(request)->events.size(), 4u);  // willStart, willStop, finished, success
    EXPECT_EQ(server_.requestCount(), before + 1);
    EXPECT_EQ(request->responseString(), kBody);
  }
  EXPECT_TRUE(logged("Load cache metadata failed, reason = "));
}

TEST_F(RequestCacheTest, UnwritableCacheDirectoryLogsAndUsesTheNetwork) {
  ZRBRQ_NetworkConfig::sharedConfig()->addCacheDirPathFilter(
      std::make_shared<FixedDirFilter>("/proc/orvelkit-request-cache"));
  for (int i = 0; i < 2; ++i) {
    auto request = makeRequest();
    EXPECT_EQ(run(request)->events.back(), "success");
    EXPECT_FALSE(request->isDataFromCache());
  }
  EXPECT_EQ(server_.requestCount(), 2u);
  EXPECT_TRUE(logged("create cache directory failed, error = "));
  EXPECT_TRUE(logged("Save cache failed, reason = "));
}

// An archive under the metadata's class name whose entries all have the wrong kind.
class MistypedMetadata : public ZRBCoding {
 public:
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override {
    coder.encodeString("3", "version");
    coder.encodeInteger(5, "sensitiveDataString");
    coder.encodeValue(ZRBValue(ZRBDate::now()), "stringEncoding");
    coder.encodeDouble(1.5, "creationDate");
  }
  std::string codingClassName() const override { return "ZRBRQ_CacheMetadata"; }
};

TEST(RequestCacheMetadata, ArchivesItsFiveKeysAndReadsMistypedEntriesAsNull) {
  ZRBRQ_CacheMetadata metadata;
  metadata.setVersion(-7);
  metadata.setSensitiveDataString("token");
  metadata.setStringEncoding(ZRBISOLatin1StringEncoding);
  metadata.setCreationDate(ZRBDate{1700000000.25});
  metadata.setAppVersionString("2.3");
  const auto bytes = ZRBKeyedArchiver::archivedDataWithRootObject(metadata, true);
  ASSERT_TRUE(bytes);
  const auto back = ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBRQ_CacheMetadata>(*bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->version(), -7);
  EXPECT_EQ(back->sensitiveDataString(), "token");
  EXPECT_EQ(back->stringEncoding(), ZRBISOLatin1StringEncoding);
  EXPECT_EQ(back->creationDate(), ZRBDate{1700000000.25});
  EXPECT_EQ(back->appVersionString(), "2.3");

  const auto mistyped = ZRBKeyedArchiver::archivedDataWithRootObject(MistypedMetadata(), false);
  ASSERT_TRUE(mistyped);
  const auto nulls = ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBRQ_CacheMetadata>(*mistyped);
  ASSERT_TRUE(nulls);
  EXPECT_FALSE(nulls->version());
  EXPECT_FALSE(nulls->sensitiveDataString());
  EXPECT_FALSE(nulls->stringEncoding());
  EXPECT_FALSE(nulls->creationDate());
  EXPECT_FALSE(nulls->appVersionString());
}

}  // namespace
