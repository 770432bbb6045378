// camera_client: three requests of the device-and-camera service, written as request subclasses
// and run against a loopback server, so no network is needed.
//
// - DeviceStatus: a GET whose JSON answer must have the shape its validator describes;
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
#include "request/network_agent.h"
#include "request/network_config.h"
#include "request/network_utils.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

class DeviceStatus : public ZRBRQ_BaseRequest {
 public:
  std::string requestUrl() const override { return "devices/42/status"; }
  ZRBValue jsonValidator() const override {
    return ZRBValue::dictionary(
        {{"online", ZRBValue::classTag(ZRBValueClass::Bool)},
         {"camera", ZRBValue::dictionary({{"fps", ZRBValue::classTag(ZRBValueClass::Number)}})}});
  }
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

  auto status = std::make_shared<DeviceStatus>();
  const bool statusOK = run(status);
  std::printf("camera_client: GET %s -> %ld %s, fps %lld\n", status->requestUrl().c_str(),
              status->responseStatusCode(), statusOK ? "valid" : "rejected",
              status->responseJSONObject()["camera"]["fps"].intValue());
  std::printf("camera_client:   sent as %s\n", server.requests().front().target.c_str());

  auto upload = std::make_shared<SnapshotUpload>(std::string(48 * 1024, '\xd8'));
  const bool uploadOK = run(upload);
  std::printf("camera_client: POST %s (multipart) -> %ld %s, server saw %lld bytes\n",
              upload->requestUrl().c_str(), upload->responseStatusCode(), uploadOK ? "ok" : "failed",
              upload->responseJSONObject()["bytes"].intValue());

  const auto directory = ZRBTestPKI::makeTemporaryDirectory();
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
  return statusOK && uploadOK && downloadOK && size == kRecordingSize ? 0 : 1;
}
