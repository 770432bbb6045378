// Multipart bodies through a URL session to the loopback server, which parses what arrives part by
// part: a gigabyte file with form fields in bounded memory, and a throttled upload.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "http/multipart_body_stream.h"
#include "http/multipart_form_data.h"
#include "http/request_serializer.h"
#include "platform/url_session.h"
#include "support/recording_delegate.h"
#include "support/test_server.h"

namespace {

// Reads a multipart/form-data body as it arrives: each part's header block as text, and its body
// as size and SHA-256, never holding more than a boundary's worth of bytes.
class MultipartReceiver {
 public:
  struct Part {
    std::string headers;
    std::uint64_t size = 0;
    std::string sha256;
    std::string start;  // the first bytes, for form fields
  };

  void feed(const ZRBTestRecordedRequest& request, std::string_view bytes) {
    std::lock_guard lock(mutex_);
    if (delimiter_.empty()) {
      std::string type = request.header("Content-Type").value_or("");
      delimiter_ = "\r\n--" + type.substr(type.find("boundary=") + 9);
      pending_ = "\r\n";  // the body starts with the first delimiter, without the CRLF before it
    }
    pending_.append(bytes);
    for (;;) {
      if (state_ == State::Preamble || state_ == State::Body) {
        std::size_t at = pending_.find(delimiter_);
        if (at == std::string::npos) {
          // Keep what might be the start of a delimiter.
          std::size_t keep = std::min(pending_.size(), delimiter_.size());
          consume(pending_.size() - keep);
          return;
        }
        consume(at);
        pending_.erase(0, delimiter_.size());
        if (state_ == State::Body) finishPart();
        state_ = State::AfterDelimiter;
      }
      if (state_ == State::AfterDelimiter) {
        if (pending_.size() < 2) return;
        if (pending_.starts_with("--")) {
          state_ = State::Done;
          return;
        }
        pending_.erase(0, 2);  // CRLF
        state_ = State::Headers;
      }
      if (state_ == State::Headers) {
        std::size_t end = pending_.find("\r\n\r\n");
        if (end == std::string::npos) return;
        parts_.push_back(Part{pending_.substr(0, end)});
        pending_.erase(0, end + 4);
        digest_ = EVP_MD_CTX_new();
        EVP_DigestInit_ex(digest_, EVP_sha256(), nullptr);
        state_ = State::Body;
      }
      if (state_ == State::Done) return;
    }
  }

  std::vector<Part> parts() {
    std::lock_guard lock(mutex_);
    return parts_;
  }
  bool complete() {
    std::lock_guard lock(mutex_);
    return state_ == State::Done;
  }

 private:
  enum class State { Preamble, AfterDelimiter, Headers, Body, Done };

  void consume(std::size_t count) {
    if (state_ == State::Body && count > 0) {
      Part& part = parts_.back();
      if (part.start.size() < 64) part.start.append(pending_.substr(0, std::min<std::size_t>(count, 64)));
      EVP_DigestUpdate(digest_, pending_.data(), count);
      part.size += count;
    }
    pending_.erase(0, count);
  }
  void finishPart() {
    unsigned char hash[32];
    EVP_DigestFinal_ex(digest_, hash, nullptr);
    EVP_MD_CTX_free(digest_);
    digest_ = nullptr;
    static constexpr char kHex[] = "0123456789abcdef";
    for (unsigned char byte : hash) parts_.back().sha256 += {kHex[byte >> 4], kHex[byte & 15]};
  }

  std::mutex mutex_;
  State state_ = State::Preamble;
  std::string delimiter_;
  std::string pending_;
  std::vector<Part> parts_;
  EVP_MD_CTX* digest_ = nullptr;
};

std::uint64_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::uint64_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * std::uint64_t(sysconf(_SC_PAGESIZE));
}

struct Upload {
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  ZRBURLSessionPtr session = ZRBURLSession::sessionWithConfiguration(nullptr, delegate, nullptr);
  ~Upload() {
    session->invalidateAndCancel();
    delegate->waitForInvalidation();
  }
};

TEST(MultipartUploadTest, GigabyteFileAndFieldsArriveIntactInBoundedMemory) {
  constexpr std::uint64_t kSize = 1ull << 30;
  auto directory = ZRBTestPKI::makeTemporaryDirectory();
  auto file = directory / "clip.bin";
  {
    std::ofstream out(file, std::ios::binary);
    std::vector<char> chunk(1 << 20);
    for (std::uint64_t offset = 0; offset < kSize; offset += chunk.size()) {
      ZRBTestPatternFill(offset, chunk, 7);
      out.write(chunk.data(), std::streamsize(chunk.size()));
    }
  }
  ZRBTestServer server;
  server.start();
  MultipartReceiver receiver;
  ZRBTestUploadSinkOptions options;
  options.onBodyPart = [&](const ZRBTestRecordedRequest& request, std::string_view part, bool) {
    receiver.feed(request, part);
  };
  server.uploadSink("/upload", options);

  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  ZRBErrorPtr error;
  auto request = serializer->multipartFormRequestWithMethod(
      "POST", server.url("/upload"), ZRBValue::dictionary({{"camera", "porch"}, {"frames", 1800}}),
      [&](ZRBHS_StreamingMultipartFormData& form) {
        form.appendPartWithFileURL(ZRBURL::fileURLWithPath(file.string()), "video", "clip.bin",
                                   "application/octet-stream", &error);
      },
      &error);
  ASSERT_EQ(error, nullptr);

  std::uint64_t baseline = residentBytes();
  std::atomic<std::uint64_t> peak{baseline};
  std::atomic<bool> sampling{true};
  std::thread sampler([&] {
    while (sampling) {
      peak = std::max<std::uint64_t>(peak, residentBytes());
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  Upload upload;
  auto task = upload.session->uploadTaskWithStreamedRequest(request);
  task->resume();
  bool finished = upload.delegate->waitForCompletions(1, std::chrono::minutes(5));
  sampling = false;
  sampler.join();
  ASSERT_TRUE(finished);
  ASSERT_EQ(upload.delegate->completion(task).error, nullptr);

  ASSERT_TRUE(server.waitForRequests(1));
  auto recorded = server.requests().front();
  EXPECT_EQ(recorded.header("Content-Length"), std::to_string(recorded.bodySize));
  EXPECT_EQ(task->countOfBytesSent(), std::int64_t(recorded.bodySize));
  ASSERT_TRUE(receiver.complete());
  auto parts = receiver.parts();
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(parts[0].headers, "Content-Disposition: form-data; name=\"camera\"");
  EXPECT_EQ(parts[0].start, "porch");
  EXPECT_EQ(parts[1].headers, "Content-Disposition: form-data; name=\"frames\"");
  EXPECT_EQ(parts[1].start, "1800");
  EXPECT_EQ(parts[2].headers,
            "Content-Disposition: form-data; name=\"video\"; filename=\"clip.bin\"\r\n"
            "Content-Type: application/octet-stream");
  EXPECT_EQ(parts[2].size, kSize);
  EXPECT_EQ(parts[2].sha256, ZRBTestPatternSHA256(0, kSize, 7));
  // The server runs in this process too, but keeps nothing of the body.
  EXPECT_LT(peak - baseline, 64ull << 20) << "peak resident " << (peak >> 20) << " MiB";
  std::filesystem::remove_all(directory);
}

TEST(MultipartUploadTest, ThrottledBodyGoesOnePacketPerRead) {
  ZRBTestServer server;
  server.start();
  std::mutex mutex;
  std::vector<std::pair<std::chrono::steady_clock::time_point, std::uint64_t>> arrivals;
  ZRBTestUploadSinkOptions options;
  options.onBodyPart = [&](const ZRBTestRecordedRequest&, std::string_view part, bool) {
    std::lock_guard lock(mutex);
    std::uint64_t total = (arrivals.empty() ? 0 : arrivals.back().second) + part.size();
    arrivals.emplace_back(std::chrono::steady_clock::now(), total);
  };
  server.uploadSink("/upload", options);

  constexpr std::size_t kFileSize = 4 * 16384;
  std::string payload = ZRBTestPatternBytes(0, kFileSize);
  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  auto request = serializer->multipartFormRequestWithMethod(
      "POST", server.url("/upload"), ZRBValue(), [&](ZRBHS_StreamingMultipartFormData& form) {
        form.appendPartWithFileData(ZRBValue::data(payload), "blob", "blob.bin", "application/octet-stream");
        form.throttleBandwidthWithPacketSize(ZRBHS_kUploadStream3GSuggestedPacketSize,
                                             ZRBHS_kUploadStream3GSuggestedDelay);
      });
  Upload upload;
  auto started = std::chrono::steady_clock::now();
  auto task = upload.session->uploadTaskWithStreamedRequest(request);
  task->resume();
  ASSERT_TRUE(upload.delegate->waitForCompletions(1, std::chrono::seconds(30)));
  ASSERT_EQ(upload.delegate->completion(task).error, nullptr);
  auto recorded = server.requests().front();
  EXPECT_EQ(recorded.header("Content-Length"), std::to_string(recorded.bodySize));
  // At most one packet per read with a pause after each: no arrival can be ahead of the schedule
  // of one 16 KiB packet per 0.2 s.
  std::lock_guard lock(mutex);
  for (const auto& [when, total] : arrivals) {
    double elapsed = std::chrono::duration<double>(when - started).count();
    std::uint64_t allowed = (std::uint64_t(elapsed / ZRBHS_kUploadStream3GSuggestedDelay) + 1) * 16384;
    EXPECT_LE(total, allowed) << "at " << elapsed << " s";
  }
  EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(),
            ZRBHS_kUploadStream3GSuggestedDelay * double(recorded.bodySize / 16384));
}

}  // namespace
