// The response cache: when start() answers from disk and when it goes to the network, how a hit is
// delivered, the file names and directory, damaged entries, and entries left by a writer killed
// half-way.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <tuple>

#include "http/security_policy.h"
#include "platform/foundation/keyed_archiver.h"
#include "platform/system/bundle.h"
#include "platform/system/file_manager.h"
#include "request/network_config.h"
#include "request/request.h"
#include "request_test_support.h"
#include "settings/sdk_config.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

using CachedRequest = ZRBTestCachedRequest;

// Runs the request to its callback. A write (synchronous, or queued on the writing queue) is under
// way before the callback is queued, so it is done once the writing queue is idle.
std::vector<std::string> run(const std::shared_ptr<CachedRequest>& request) {
  auto events = ZRBTestRun(request);
  KVrequest_cache_writing_queue()->sync([] {});
  return events;
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

long cacheErrorCode(const std::shared_ptr<CachedRequest>& request) {
  ZRBErrorPtr error;
  if (request->loadCacheWithError(&error)) return 0;
  EXPECT_EQ(error->domain(), ZRBRequestCacheErrorDomain);
  return error->code();
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
    ZRBFileManager::defaultManager()->setLibraryDirectory(library_.string());
    ZRBBundle::mainBundle()->setInfoDictionary(ZRBValue::dictionary({{"CFBundleShortVersionString", "1.0"}}));
  }
  void TearDown() override {
    ZRBRQ_NetworkConfig::sharedConfig()->clearCacheDirPathFilter();
    ZRBRQ_NetworkConfig::sharedConfig()->setBaseUrl("");
    ZRBFileManager::defaultManager()->setLibraryDirectory(std::nullopt);
    ZRBBundle::mainBundle()->resetInfoDictionary();
  }

  std::shared_ptr<CachedRequest> makeRequest() {
    return ZRBTestMakeRequest<CachedRequest>(server_.url("/status"));
  }
  // A request whose answer is now on disk.
  std::shared_ptr<CachedRequest> filled() {
    auto request = makeRequest();
    run(request);
    EXPECT_FALSE(request->isDataFromCache());
    EXPECT_TRUE(fs::exists(request->cacheMetadataFilePath()));
    return request;
  }
  bool logged(std::string_view prefix) { return !logs_.lines(prefix).empty(); }

  static constexpr std::string_view kBody = R"({"online":true,"name":"cam-1"})";
  ZRBTestServer server_;
  const ZRBTestTemporaryDirectory directory_;
  const fs::path& library_ = directory_.path;
  ZRBTestLogCatcher logs_;
};

TEST_F(RequestCacheTest, DefaultCacheTimeAlwaysGoesToTheNetworkAndWritesNothing) {
  for (int i = 0; i < 2; ++i) {
    auto request = makeRequest();
    request->cacheTime = -1;
    run(request);
    EXPECT_EQ(cacheErrorCode(request), ZRBRequestCacheErrorInvalidCacheTime);
  }
  EXPECT_EQ(server_.requestCount(), 2u);
  EXPECT_FALSE(fs::exists(library_ / "RequestCache"));
}

// A hit answers on the main queue with the delegate and callback but no accessory and no request;
// it decodes with the stored encoding and the request's serializer kind, whichever way the entry was
// written. Skipping the cache shows the network's answer again.
TEST_F(RequestCacheTest, HitAnswersOnTheMainQueueWithoutAccessoriesOrNetwork) {
  server_.respond("GET", "/latin1",
                  ZRBTestResponse::text(200, "<p>caf\xe9</p>", "text/xml; charset=iso-8859-1"));
  struct Case {
    const char* path;
    ZRBRQ_ResponseSerializerType kind;
    bool async;
    std::string text;
  };
  const Case cases[] = {
      {"/status", ZRBRQ_ResponseSerializerTypeJSON, false, std::string(kBody)},
      {"/status", ZRBRQ_ResponseSerializerTypeJSON, true, std::string(kBody)},
      {"/latin1", ZRBRQ_ResponseSerializerTypeHTTP, false, "<p>caf\u00e9</p>"},
      {"/latin1", ZRBRQ_ResponseSerializerTypeXMLParser, true, "<p>caf\u00e9</p>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.path << " " << c.kind << (c.async ? " async" : " sync"));
    fs::remove_all(library_ / "RequestCache");
    const std::size_t before = server_.requestCount();
    auto first = ZRBTestMakeRequest<CachedRequest>(server_.url(c.path));
    first->async = c.async;
    first->responseKind = c.kind;
    EXPECT_EQ(run(first), (std::vector<std::string>{"willStart", "willStop", "finished", "success"}));

    auto hit = ZRBTestMakeRequest<CachedRequest>(server_.url(c.path));
    hit->responseKind = c.kind;
    auto recorder = ZRBTestRecord(hit);
    hit->start();
    recorder->waitFor("success");
    ZRBTestSettle();
    EXPECT_EQ(recorder->events(), (std::vector<std::string>{"finished", "success"}));
    EXPECT_EQ(recorder->offMain(), std::vector<std::string>{});
    EXPECT_EQ(server_.requestCount(), before + 1);
    ASSERT_TRUE(hit->isDataFromCache());
    EXPECT_FALSE(hit->successCompletionBlock());
    EXPECT_EQ(hit->responseString(), c.text);
    EXPECT_EQ(hit->responseData().bytes().size(), first->responseData().bytes().size());
    if (c.kind == ZRBRQ_ResponseSerializerTypeJSON) {
      EXPECT_EQ(hit->responseJSONObject()["name"].string(), "cam-1");
      EXPECT_EQ(hit->responseObject(), hit->responseJSONObject());
    } else {
      EXPECT_FALSE(hit->responseJSONObject());
      if (c.kind == ZRBRQ_ResponseSerializerTypeXMLParser) {
        EXPECT_TRUE(hit->responseObject().objectAs<ZRBXMLParser>());
      } else {
        EXPECT_EQ(hit->responseObject(), hit->responseData());
      }
    }

    hit->setIgnoreCache(true);
    run(hit);
    EXPECT_FALSE(hit->isDataFromCache());
    EXPECT_FALSE(hit->cacheData());
    EXPECT_EQ(server_.requestCount(), before + 2);
  }
}

// Rewrites the entry's metadata as it would be, but with another creation date.
void writtenAt(CachedRequest& request, std::optional<ZRBDate> date) {
  ZRBRQ_CacheMetadata metadata;
  metadata.setVersion(0);
  metadata.setStringEncoding(ZRBUTF8StringEncoding);
  metadata.setAppVersionString("1.0");
  metadata.setCreationDate(date);
  ASSERT_TRUE(ZRBKeyedArchiver::archiveRootObjectToFile(metadata, request.cacheMetadataFilePath()));
}

void appVersion(const char* version) {
  ZRBBundle::mainBundle()->setInfoDictionary(
      version ? ZRBValue::dictionary({{"CFBundleShortVersionString", version}}) : ZRBValue());
}

TEST_F(RequestCacheTest, ChangedConditionsInvalidateTheEntryAndGoToTheNetwork) {
  const double now = ZRBDate::now().secondsSince1970;
  const std::vector<std::tuple<const char*, std::function<void(CachedRequest&)>, long>> cases = {
      {"written a minute ago", [&](CachedRequest& r) { writtenAt(r, ZRBDate{now - 60}); }, 0},
      {"cache time 0", [](CachedRequest& r) { r.cacheTime = 0; }, ZRBRequestCacheErrorExpired},
      {"written two hours ago", [&](CachedRequest& r) { writtenAt(r, ZRBDate{now - 7200}); },
       ZRBRequestCacheErrorExpired},
      {"clock moved back", [&](CachedRequest& r) { writtenAt(r, ZRBDate{now + 600}); },
       ZRBRequestCacheErrorExpired},
      {"date not a number", [](CachedRequest& r) { writtenAt(r, ZRBDate{std::nan("")}); },
       ZRBRequestCacheErrorExpired},
      {"no date", [](CachedRequest& r) { writtenAt(r, std::nullopt); }, ZRBRequestCacheErrorExpired},
      {"version", [](CachedRequest& r) { r.version = 2; }, ZRBRequestCacheErrorVersionMismatch},
      {"sensitive data", [](CachedRequest& r) { r.sensitive = ZRBValue("user-2"); },
       ZRBRequestCacheErrorSensitiveDataMismatch},
      {"app version", [](CachedRequest&) { appVersion("1.1"); }, ZRBRequestCacheErrorAppVersionMismatch},
      {"app version gone", [](CachedRequest&) { appVersion(nullptr); },
       ZRBRequestCacheErrorAppVersionMismatch},
  };
  for (const auto& [name, change, code] : cases) {
    SCOPED_TRACE(name);
    appVersion("1.0");
    fs::remove_all(library_ / "RequestCache");
    filled();
    auto request = makeRequest();
    change(*request);
    EXPECT_EQ(cacheErrorCode(request), code);
    const std::size_t before = server_.requestCount();
    EXPECT_EQ(run(request).back(), "success");
    EXPECT_EQ(server_.requestCount(), before + (code ? 1 : 0));
    EXPECT_EQ(request->isDataFromCache(), code == 0);
  }
}

TEST_F(RequestCacheTest, FilesAreNamedWithTheConfigurationsBaseUrlInAMarkedDirectory) {
  writeFile((library_ / "RequestCache").string(), "a plain file where the directory should be");
  auto a = makeRequest();
  auto b = makeRequest();
  b->base = "http://127.0.0.1:1/elsewhere/";
  EXPECT_EQ(a->cacheFilePath(), b->cacheFilePath());
  EXPECT_EQ(b->cacheMetadataFilePath(), b->cacheFilePath() + ".metadata");
  EXPECT_EQ(fs::path(a->cacheFilePath()).parent_path(), library_ / "RequestCache");
  EXPECT_TRUE(fs::is_directory(library_ / "RequestCache"));
  EXPECT_TRUE(ZRBFileManager::defaultManager()->isExcludedFromBackup((library_ / "RequestCache").string()));
  const std::string before = a->cacheFileName();
  ZRBRQ_NetworkConfig::sharedConfig()->setBaseUrl("http://127.0.0.1:2/");
  EXPECT_NE(a->cacheFileName(), before);
}

TEST_F(RequestCacheTest, DamagedEntriesMissWithTheirCodeAndGoToTheNetwork) {
  const auto policy =
      ZRBKeyedArchiver::archivedDataWithRootObject(*ZRBHS_SecurityPolicy::defaultPolicy(), true);
  const std::string otherClass(policy->begin(), policy->end());
  const std::string directory = "a directory";  // unreadable as a file
  struct Case {
    const char* name;
    bool metadata;  // else the body
    std::optional<std::string> contents;
    long code;
  };
  for (const Case& c :
       {Case{"metadata not an archive", true, "garbage", ZRBRequestCacheErrorInvalidMetadata},
        Case{"metadata of another class", true, otherClass, ZRBRequestCacheErrorInvalidMetadata},
        Case{"metadata unreadable", true, directory, ZRBRequestCacheErrorInvalidMetadata},
        Case{"JSON body no longer parses", false, "<html>", ZRBRequestCacheErrorInvalidCacheData},
        Case{"truncated body", false, std::string(kBody.substr(0, 9)), ZRBRequestCacheErrorInvalidCacheData},
        Case{"body missing", false, std::nullopt, ZRBRequestCacheErrorInvalidCacheData},
        Case{"body unreadable", false, directory, ZRBRequestCacheErrorInvalidCacheData}}) {
    SCOPED_TRACE(c.name);
    fs::remove_all(library_ / "RequestCache");
    filled();
    // A fresh request: the agent's clean-up of the one that filled the cache may still be queued.
    auto request = makeRequest();
    const std::string path = c.metadata ? request->cacheMetadataFilePath() : request->cacheFilePath();
    fs::remove(path);
    if (c.contents == directory)
      fs::create_directory(path);
    else if (c.contents)
      writeFile(path, *c.contents);
    EXPECT_EQ(cacheErrorCode(request), c.code);
    const std::size_t before = server_.requestCount();
    EXPECT_EQ(run(request).size(), 4u);  // willStart, willStop, finished, success
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
    EXPECT_EQ(run(request).back(), "success");
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

TEST(RequestCacheMetadata, MistypedEntriesReadAsNull) {
  const auto mistyped = ZRBKeyedArchiver::archivedDataWithRootObject(MistypedMetadata(), false);
  const auto nulls = ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBRQ_CacheMetadata>(*mistyped);
  ASSERT_TRUE(nulls);
  EXPECT_FALSE(nulls->version() || nulls->sensitiveDataString() || nulls->stringEncoding() ||
               nulls->creationDate() || nulls->appVersionString());
}

}  // namespace
