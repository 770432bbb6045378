// camera_client: requests of the device-and-camera service, written as request subclasses and run
// against a loopback server, so no network is needed.
//
// - DeviceStatus: a cached GET whose JSON answer must have the shape its validator describes; asked
//   twice, the second answer comes from the response cache without reaching the server;
// - a batch of three cached GETs (status, camera settings, firmware) that reports once;
// - SnapshotUpload: a multipart POST carrying a JPEG snapshot and the capture time;
// - RecordingDownload: a resumable download with progress, stopped half-way and started again, so
//   the second run continues from the partial data the first one left behind.
// Every request URL is relative: the network configuration supplies the base URL, and a URL
// filter appends a signature parameter, as the service requires.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "http/multipart_form_data.h"
#include "platform/foundation/url.h"
#include "request/base_request.h"
#include "request/batch_request.h"
#include "request/network_agent.h"
#include "request/network_config.h"
#include "request/network_utils.h"
#include "request/request.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

// Fresh for five minutes; written before the callback so that the next request finds it.
class DeviceStatus : public ZRBRQ_Request {
 public:
  std::string requestUrl() const override { return "devices/42/status"; }
  long cacheTimeInSeconds() const override { return 300; }
  bool writeCacheAsynchronously() const override { return false; }
  ZRBValue jsonValidator() const override {
    return ZRBValue::dictionary(
        {{"online", ZRBValue::classTag(ZRBValueClass::Bool)},
         {"camera", ZRBValue::dictionary({{"fps", ZRBValue::classTag(ZRBValueClass::Number)}})}});
  }
};

class DeviceInfo : public ZRBRQ_Request {
 public:
  explicit DeviceInfo(std::string path) : path_(std::move(path)) {}
  std::string requestUrl() const override { return path_; }
  long cacheTimeInSeconds() const override { return 300; }

 private:
  std::string path_;
};

class SnapshotUpload : public ZRBRQ_BaseRequest {
 public:
  explicit SnapshotUpload(std::string jpeg) : jpeg_(std::move(jpeg)) {
    setConstructingBodyBlock([this](ZRBHS_StreamingMultipartFormData& form) {
      form.appendPartWithFileData(ZRBValue::data(jpeg_), "snapshot", "snapshot.jpg", "image/jpeg");
    });
  }
  std::string requestUrl() const override { return "devices/42/snapshots"; }
  ZRBRQ_RequestMethod requestMethod() const override { return ZRBRQ_RequestMethodPOST; }
  ZRBValue requestArgument() const override {
    return ZRBValue::dictionary({{"capturedAt", "2026-11-25T09:30:00Z"}});
  }

 private:
  std::string jpeg_;
};

class RecordingDownload : public ZRBRQ_BaseRequest {
 public:
  std::string requestUrl() const override { return "recordings/7.mp4"; }
  ZRBRQ_ResponseSerializerType responseSerializerType() const override {
    return ZRBRQ_ResponseSerializerTypeHTTP;
  }
  // A continued download answers 206 Partial Content.
  bool statusCodeValidator() const override {
    return responseStatusCode() == 206 || ZRBRQ_BaseRequest::statusCodeValidator();
  }
};

// The service wants every call signed; the signature here is the MD5 of the path.
class SigningFilter : public ZRBRQ_UrlFilterProtocol {
 public:
  std::string filterUrl(const std::string& url, const std::shared_ptr<ZRBRQ_BaseRequest>&) override {
    return url + (url.find('?') == std::string::npos ? "?" : "&") +
           "sig=" + ZRBRQ_NetworkUtils::md5StringFromString(url);
  }
};

// Keeps the example's response cache in a temporary folder rather than the Library directory.
class TemporaryCacheFolder : public ZRBRQ_CacheDirPathFilterProtocol {
 public:
  explicit TemporaryCacheFolder(std::string path) : path_(std::move(path)) {}
  std::string filterCacheDirPath(const std::string&, const std::shared_ptr<ZRBRQ_BaseRequest>&) override {
    return path_;
  }

 private:
  std::string path_;
};

// Starts the request and waits for its one callback; true on success.
bool run(const std::shared_ptr<ZRBRQ_BaseRequest>& request) {
  auto done = std::make_shared<std::promise<bool>>();
  auto outcome = done->get_future();
  request->startWithCompletionBlockWithSuccess(
      [done](const ZRBRQ_BaseRequestPtr&) { done->set_value(true); },
      [done](const ZRBRQ_BaseRequestPtr&) { done->set_value(false); });
  return outcome.get();
}

}  // namespace

int main() {
  ZRBTestServer server;
  server.start();
  server.respond("GET", "/api/v1/devices/42/status",
                 ZRBTestResponse::json(200, R"({"online":true,"camera":{"fps":30,"name":"Porch"}})"));
  server.respond("GET", "/api/v1/devices/42/camera", ZRBTestResponse::json(200, R"({"fps":30,"hdr":false})"));
  server.respond("GET", "/api/v1/devices/42/firmware", ZRBTestResponse::json(200, R"({"version":"4.2.1"})"));
  server.uploadSink("/api/v1/devices/42/snapshots");
  constexpr std::uint64_t kRecordingSize = 4 << 20;
  ZRBTestRangeOptions recording;
  recording.body = ZRBTestBodySource::pattern(kRecordingSize, 7);
  recording.contentType = "video/mp4";
  recording.etag = "\"rec-7\"";
  recording.shape.bytesPerSecond = 8 << 20;
  recording.shape.chunkSize = 64 * 1024;
  server.serveRanges("/api/v1/recordings/7.mp4", recording);

  const auto& config = ZRBRQ_NetworkConfig::sharedConfig();
  config->setBaseUrl(server.url("/api/v1"));
  config->addUrlFilter(std::make_shared<SigningFilter>());

  const auto directory = ZRBTestPKI::makeTemporaryDirectory();
  config->addCacheDirPathFilter(
      std::make_shared<TemporaryCacheFolder>((directory / "RequestCache").string()));

  bool statusOK = true;
  for (int round = 1; round <= 2; ++round) {
    auto status = std::make_shared<DeviceStatus>();
    statusOK = run(status) && statusOK;
    std::printf("camera_client: GET %s -> %s, fps %lld, %s\n", status->requestUrl().c_str(),
                statusOK ? "valid" : "rejected", status->responseJSONObject()["camera"]["fps"].intValue(),
                status->isDataFromCache() ? "answered from the cache (the server was not asked)"
                                          : "from the server, now cached");
  }
  std::printf("camera_client:   sent as %s; the server saw %zu status request(s)\n",
              server.requests().front().target.c_str(), server.requestCount());
  statusOK = statusOK && server.requestCount() == 1;

  auto batch = ZRBRQ_BatchRequest::initWithRequestArray(
      {std::make_shared<DeviceStatus>(), std::make_shared<DeviceInfo>("devices/42/camera"),
       std::make_shared<DeviceInfo>("devices/42/firmware")});
  std::promise<bool> batchDone;
  batch->startWithCompletionBlockWithSuccess(
      [&](const ZRBRQ_BatchRequestPtr&) { batchDone.set_value(true); },
      [&](const ZRBRQ_BatchRequestPtr&) { batchDone.set_value(false); });
  const bool batchOK = batchDone.get_future().get();
  std::printf("camera_client: batch of %zu -> %s, %ld finished, all from the cache: %s\n",
              batch->requestArray().size(), batchOK ? "ok" : "failed", batch->finishedCount(),
              batch->isDataFromCache() ? "yes" : "no");
  for (const auto& request : batch->requestArray()) {
    std::printf("camera_client:   %-20s %s\n", request->requestUrl().c_str(),
                request->isDataFromCache() ? "cache" : "server");
  }

  auto upload = std::make_shared<SnapshotUpload>(std::string(48 * 1024, '\xd8'));
  const bool uploadOK = run(upload);
  std::printf("camera_client: POST %s (multipart) -> %ld %s, server saw %lld bytes\n",
              upload->requestUrl().c_str(), upload->responseStatusCode(), uploadOK ? "ok" : "failed",
              upload->responseJSONObject()["bytes"].intValue());

  const std::string target = (directory / "7.mp4").string();
  auto first = std::make_shared<RecordingDownload>();
  first->setResumableDownloadPath(target);
  std::promise<void> halfway;
  auto half = std::make_shared<std::atomic<bool>>(false);
  first->setResumableDownloadProgressBlock([&halfway, half](const ZRBProgressPtr& progress) {
    if (progress->fractionCompleted() >= 0.5 && !half->exchange(true)) halfway.set_value();
  });
  first->start();
  halfway.get_future().wait();
  first->stop();
  // The resume data arrive from the cancelled transfer a moment later.
  const auto partial = ZRBRQ_NetworkAgent::incompleteDownloadTempPathForDownloadPath(target);
  for (int i = 0; i < 500 && partial && !std::filesystem::exists(partial->path()); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::printf("camera_client: download stopped half-way, partial data kept in %s\n",
              ZRBRQ_NetworkAgent::incompleteDownloadTempCacheFolder().value_or("?").c_str());

  auto second = std::make_shared<RecordingDownload>();
  second->setResumableDownloadPath(target);
  long lastPercent = -1;
  second->setResumableDownloadProgressBlock([&lastPercent](const ZRBProgressPtr& progress) {
    const long percent = static_cast<long>(progress->fractionCompleted() * 100);
    if (percent / 25 != lastPercent / 25) std::printf("camera_client:   %3ld%%\n", percent);
    lastPercent = percent;
  });
  const bool downloadOK = run(second);
  const auto size = std::filesystem::exists(target) ? std::filesystem::file_size(target) : 0;
  std::printf("camera_client: resumed download -> %ld %s, %llu bytes, %s\n", second->responseStatusCode(),
              downloadOK ? "ok" : "failed", static_cast<unsigned long long>(size),
              size == kRecordingSize ? "complete" : "incomplete");
  std::filesystem::remove_all(directory);
  return statusOK && batchOK && uploadOK && downloadOK && size == kRecordingSize ? 0 : 1;
}
