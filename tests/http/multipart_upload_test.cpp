// A multipart body streamed through a URL session to the loopback server: a gigabyte file and form
// fields arrive byte for byte while the process stays within a memory bound far below its size.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "http/multipart_form_data.h"
#include "http/request_serializer.h"
#include "platform/net/url_session.h"
#include "support/recording_delegate.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"

namespace {

std::uint64_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::uint64_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * std::uint64_t(sysconf(_SC_PAGESIZE));
}

TEST(MultipartUploadTest, GigabyteFileAndFieldsArriveIntactInBoundedMemory) {
  // Holding the body, or the file, in memory anywhere on the way would cross the bound.
  constexpr std::uint64_t kBound = 64ull << 20, kSize = 1ull << 30;
  ZRBTestTemporaryDirectory directory;
  const std::string file = directory / "clip.bin";

  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  ZRBTestServer server;
  server.start();
  // The file's length is taken when it is appended, its bytes only when they are sent: it is sized
  // first and filled once the boundary is known, so that the expected body is hashed as it is written.
  std::ofstream(file, std::ios::binary).close();
  std::filesystem::resize_file(file, kSize);
  ZRBErrorPtr error;
  auto request = serializer->multipartFormRequestWithMethod(
      "POST", server.url("/upload"), ZRBValue::dictionary({{"camera", "porch"}, {"frames", 1800}}),
      [&](ZRBHS_StreamingMultipartFormData& form) {
        form.appendPartWithFileURL(ZRBURL::fileURLWithPath(file), "video", "clip.bin",
                                   "application/octet-stream", &error);
      },
      &error);
  ASSERT_EQ(error, nullptr);
  ASSERT_TRUE(request);
  std::string type = request->valueForHTTPHeaderField("Content-Type").value_or("");
  std::string boundary = type.substr(type.find("boundary=") + 9);

  std::string head = "--" + boundary + "\r\nContent-Disposition: form-data; name=\"camera\"\r\n\r\nporch" +
                     "\r\n--" + boundary + "\r\nContent-Disposition: form-data; name=\"frames\"\r\n\r\n1800" +
                     "\r\n--" + boundary +
                     "\r\nContent-Disposition: form-data; name=\"video\"; filename=\"clip.bin\"\r\n"
                     "Content-Type: application/octet-stream\r\n\r\n";
  std::string tail = "\r\n--" + boundary + "--\r\n";
  ZRBTestSHA256 expected;
  expected.update(head);
  {
    std::ofstream out(file, std::ios::binary | std::ios::in);
    std::vector<char> chunk(1 << 20);
    for (std::uint64_t offset = 0; offset < kSize; offset += chunk.size()) {
      ZRBTestPatternFill(offset, chunk, 7);
      out.write(chunk.data(), std::streamsize(chunk.size()));
      expected.update(std::string_view(chunk.data(), chunk.size()));
    }
  }
  expected.update(tail);
  const std::string expectedSHA256 = expected.finish();

  ZRBTestUploadSinkOptions options;
  options.keepLimit = head.size();
  server.uploadSink("/upload", options);

  std::uint64_t baseline = residentBytes();
  std::atomic<std::uint64_t> peak{baseline};
  std::atomic<bool> sampling{true};
  std::thread sampler([&] {
    while (sampling) {
      peak = std::max<std::uint64_t>(peak, residentBytes());
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = ZRBURLSession::sessionWithConfiguration(nullptr, delegate, nullptr);
  auto task = session->uploadTaskWithStreamedRequest(request);
  task->resume();
  bool finished = delegate->waitForCompletions(1, std::chrono::minutes(5));
  sampling = false;
  sampler.join();
  session->invalidateAndCancel();
  delegate->waitForInvalidation();
  ASSERT_TRUE(finished);
  ASSERT_EQ(delegate->completion(task).error, nullptr);

  ASSERT_TRUE(server.waitForRequests(1));
  auto recorded = server.requests().front();
  EXPECT_EQ(recorded.header("Content-Length"), std::to_string(recorded.bodySize));
  EXPECT_EQ(recorded.bodySize, head.size() + kSize + tail.size());
  EXPECT_EQ(task->countOfBytesSent(), std::int64_t(recorded.bodySize));
  EXPECT_EQ(recorded.body, head);
  EXPECT_EQ(recorded.bodySHA256, expectedSHA256);
  // The server runs in this process too, but keeps nothing of the body.
  EXPECT_LT(peak - baseline, kBound) << "peak resident " << (peak >> 20) << " MiB";
}

}  // namespace
