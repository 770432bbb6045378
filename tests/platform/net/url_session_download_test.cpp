// Download tasks: the file handed to the delegate, resume data from a cancel or a failure, and
// resuming with Range and If-Range, including servers that ignore the range.
#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <thread>

#include "platform/foundation/exception.h"
#include "platform/foundation/property_list_serialization.h"
#include "platform/net/url_session.h"
#include "support/recording_delegate.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"

namespace {

constexpr std::uint64_t kSize = 3 << 20;

class URLSessionDownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.start();
    file_.body = ZRBTestBodySource::pattern(kSize);
    file_.etag = "\"v1\"";
    file_.shape.bytesPerSecond = 8 << 20;  // slow enough to be cancelled halfway
    server_.serveRanges("/file", file_);
    ZRBTestRangeOptions stubborn = file_;
    stubborn.ignoreRange = true;
    server_.serveRanges("/stubborn", stubborn);
    delegate_->onDownloaded = [this](const ZRBURLSessionDownloadTaskPtr&, const ZRBURLPtr& location) {
      std::lock_guard lock(mutex_);
      location_ = location->path();
      contents_ = ZRBTestReadFile(location_);
    };
    session_ = ZRBURLSession::sessionWithConfiguration(nullptr, delegate_, nullptr);
  }
  void TearDown() override {
    session_->invalidateAndCancel();
    EXPECT_TRUE(delegate_->waitForInvalidation());
  }

  // Starts a download, cancels it with resume data once about half has arrived.
  ZRBValue cancelHalfway(const std::string& path) {
    auto task = session_->downloadTaskWithURL(ZRBURL::URLWithString(server_.url(path)));
    task->resume();
    while (task->countOfBytesReceived() < std::int64_t(kSize / 2))
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::promise<ZRBValue> promise;
    task->cancelByProducingResumeData([&](ZRBValue data) { promise.set_value(data); });
    ZRBValue data = promise.get_future().get();
    int done = completions_ + 1;
    EXPECT_TRUE(delegate_->waitForCompletions(done));
    completions_ = done;
    EXPECT_EQ(delegate_->completion(task).error->code(), ZRBURLErrorCancelled);
    return data;
  }

  ZRBTestServer server_;
  ZRBTestRangeOptions file_;
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  ZRBURLSessionPtr session_;
  std::mutex mutex_;
  std::string location_;
  std::string contents_;
  int completions_ = 0;
};

TEST_F(URLSessionDownloadTest, FileIsHandedOverThenRemoved) {
  auto task = session_->downloadTaskWithURL(ZRBURL::URLWithString(server_.url("/file")));
  task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_EQ(delegate_->completion(task).error, nullptr);
  std::lock_guard lock(mutex_);
  EXPECT_TRUE(contents_ == ZRBTestPatternBytes(0, kSize));
  EXPECT_FALSE(std::filesystem::exists(location_)) << "the temporary file outlived the callback";
  EXPECT_EQ(delegate_->written, std::int64_t(kSize));
  EXPECT_EQ(task->countOfBytesExpectedToReceive(), std::int64_t(kSize));
  auto events = delegate_->events();
  EXPECT_EQ(std::vector<std::string>(events.end() - 2, events.end()),
            (std::vector<std::string>{"downloaded", "complete"}));
}

TEST_F(URLSessionDownloadTest, CancelledDownloadResumesWithARange) {
  ZRBValue resumeData = cancelHalfway("/file");
  ASSERT_TRUE(resumeData.isData());
  // An error answer is handed over as it is and leaves the partial file for the next try.
  server_.respond("GET", "/file", ZRBTestResponse::text(503, "try later"));
  auto refused = session_->downloadTaskWithResumeData(resumeData);
  refused->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  {
    std::lock_guard lock(mutex_);
    EXPECT_EQ(contents_, "try later");
  }
  server_.serveRanges("/file", file_);
  auto task = session_->downloadTaskWithResumeData(resumeData);
  task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(3));
  EXPECT_EQ(delegate_->completion(task).error, nullptr);
  auto last = server_.requests().back();
  ASSERT_TRUE(last.header("Range"));
  EXPECT_EQ(last.header("If-Range"), "\"v1\"");
  std::lock_guard lock(mutex_);
  EXPECT_TRUE(contents_ == ZRBTestPatternBytes(0, kSize)) << "resumed file differs";
  auto events = delegate_->events();
  EXPECT_NE(std::find(events.begin(), events.end(),
                      "resumed at " + last.header("Range")->substr(6, last.header("Range")->size() - 7)),
            events.end());
}

TEST_F(URLSessionDownloadTest, ServerIgnoringTheRangeStartsTheFileOver) {
  ZRBValue resumeData = cancelHalfway("/stubborn");
  auto task = session_->downloadTaskWithResumeData(resumeData);
  task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  EXPECT_EQ(delegate_->completion(task).error, nullptr);
  std::lock_guard lock(mutex_);
  EXPECT_TRUE(contents_ == ZRBTestPatternBytes(0, kSize)) << "restarted file differs";
  auto events = delegate_->events();
  EXPECT_NE(std::find(events.begin(), events.end(), "resumed at 0"), events.end());
}

TEST_F(URLSessionDownloadTest, FailedDownloadCarriesResumeDataAndBadDataIsRefused) {
  ZRBTestResponse broken = ZRBTestResponse::generated(kSize);
  broken.headers.add("ETag", "\"v1\"");
  broken.closeAfterBodyBytes = 100000;
  server_.respond("GET", "/broken", broken);
  auto task = session_->downloadTaskWithURL(ZRBURL::URLWithString(server_.url("/broken")));
  task->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  auto error = delegate_->completion(task).error;
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), ZRBURLErrorNetworkConnectionLost);
  ZRBValue resumeData = error->userInfo()[ZRBURLSessionDownloadTaskResumeData];
  ASSERT_TRUE(resumeData.isData());
  // Our own property list: it names the URL and the bytes kept.
  ZRBValue plist = ZRBPropertyListSerialization::propertyListWithData(resumeData.bytes());
  EXPECT_EQ(plist["ZRBResumeURL"].string(), server_.url("/broken"));
  EXPECT_EQ(plist["ZRBResumeBytesReceived"].intValue(), 100000);
  std::filesystem::remove(plist["ZRBResumePartialFilePath"].string());

  EXPECT_THROW(session_->downloadTaskWithResumeData(ZRBValue::data(std::string("not a plist"))),
               ZRBException);
  EXPECT_THROW(session_->downloadTaskWithResumeData(ZRBValue()), ZRBException);
}

TEST_F(URLSessionDownloadTest, CompletionHandlerGetsTheFileWhileItExists) {
  std::promise<std::pair<std::string, bool>> promise;
  auto task = session_->downloadTaskWithRequest(requestFor(server_.url("/file")), [&](ZRBURLPtr location,
                                                                                      ZRBURLResponsePtr,
                                                                                      ZRBErrorPtr error) {
    EXPECT_EQ(error, nullptr);
    promise.set_value({location->path(), ZRBTestReadFile(location->path()) == ZRBTestPatternBytes(0, kSize)});
  });
  task->resume();
  auto [path, intact] = promise.get_future().get();
  EXPECT_TRUE(intact);
  // Removed once the handler has returned, which may be a while after it answered on a busy machine.
  for (int i = 0; i < 2000 && std::filesystem::exists(path); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
