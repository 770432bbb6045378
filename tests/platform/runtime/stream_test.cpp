#include "platform/runtime/stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <random>
#include <string>

#include "support/temporary_directory.h"

namespace {

namespace fs = std::filesystem;

// Reads a stream to its end in chunks of `chunk` bytes; -1 stops and is reported through `failed`.
std::string drain(ZRBInputStream& stream, std::size_t chunk, bool* failed = nullptr) {
  std::string out;
  std::vector<std::uint8_t> buffer(chunk);
  for (;;) {
    long n = stream.read(buffer.data(), buffer.size());
    if (n < 0) {
      if (failed) *failed = true;
      break;
    }
    if (n == 0) break;
    out.append(reinterpret_cast<const char*>(buffer.data()), static_cast<std::size_t>(n));
  }
  return out;
}

TEST(InputStreamTest, DataStreamReadsInChunksAndReportsItsEnd) {
  auto stream = ZRBInputStream::inputStreamWithData(ZRBValue::data(std::string_view("hello, world")));
  std::uint8_t buffer[5];
  EXPECT_EQ(stream->read(buffer, 1), -1);  // not open
  stream->open();
  std::string out;
  while (stream->hasBytesAvailable()) {
    long n = stream->read(buffer, sizeof buffer);
    ASSERT_GT(n, 0);
    out.append(reinterpret_cast<char*>(buffer), static_cast<std::size_t>(n));
  }
  EXPECT_EQ(out, "hello, world");
  // At end with the last byte, before any empty read.
  EXPECT_EQ(stream->streamStatus(), ZRBStreamStatusAtEnd);
  EXPECT_EQ(stream->read(buffer, sizeof buffer), 0);

  auto copy = stream->copyStream();
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->streamStatus(), ZRBStreamStatusNotOpen);
  copy->open();
  EXPECT_EQ(drain(*copy, 64), "hello, world");

  stream->close();
  EXPECT_EQ(stream->streamStatus(), ZRBStreamStatusClosed);
  EXPECT_EQ(stream->read(buffer, sizeof buffer), -1);

  auto empty = ZRBInputStream::inputStreamWithData(std::vector<std::uint8_t>{});
  empty->open();
  EXPECT_FALSE(empty->hasBytesAvailable());
  EXPECT_EQ(empty->read(buffer, sizeof buffer), 0);
  EXPECT_EQ(empty->streamStatus(), ZRBStreamStatusAtEnd);
}

TEST(InputStreamTest, FileStreamReadsTheWholeFileAndSeeks) {
  ZRBTestTemporaryDirectory dir;
  std::string content(100'000, '\0');
  std::mt19937 random(7);
  for (char& c : content) c = static_cast<char>(random());
  auto stream = ZRBInputStream::inputStreamWithFileAtPath(dir.write("body.bin", content));
  stream->open();
  EXPECT_EQ(drain(*stream, 4096), content);
  EXPECT_EQ(stream->streamStatus(), ZRBStreamStatusAtEnd);
  EXPECT_EQ(stream->propertyForKey(ZRBStreamFileCurrentOffsetKey).intValue(), 100'000);

  auto tail = stream->copyStream();
  EXPECT_TRUE(tail->setProperty(ZRBValue(99'990), ZRBStreamFileCurrentOffsetKey));
  tail->open();
  EXPECT_EQ(drain(*tail, 4096), content.substr(99'990));
}

TEST(InputStreamTest, UnreadableFilesGiveAnErrorRecordNotACrash) {
  ZRBTestTemporaryDirectory dir;
  auto missing = ZRBInputStream::inputStreamWithFileAtPath(dir / "missing");
  missing->open();
  EXPECT_EQ(missing->streamStatus(), ZRBStreamStatusError);
  ASSERT_TRUE(missing->streamError());
  EXPECT_EQ(missing->streamError()->domain(), ZRBPOSIXErrorDomain);
  EXPECT_EQ(missing->streamError()->code(), ENOENT);
  EXPECT_EQ(missing->streamError()->userInfo()[ZRBFilePathErrorKey].string(), dir / "missing");
  std::uint8_t buffer[8];
  EXPECT_EQ(missing->read(buffer, sizeof buffer), -1);
  EXPECT_FALSE(missing->hasBytesAvailable());

  fs::create_directory(dir / "folder");
  auto folder = ZRBInputStream::inputStreamWithFileAtPath(dir / "folder");
  folder->open();
  EXPECT_EQ(folder->streamStatus(), ZRBStreamStatusError);
  EXPECT_EQ(folder->streamError()->code(), EISDIR);
}

// A subclass as the multipart body stream is one: bytes made on demand, its own status handling.
class CountingStream final : public ZRBInputStream {
 public:
  CountingStream(std::size_t length, std::size_t failAt) : length_(length), failAt_(failAt) {}

  long read(std::uint8_t* buffer, std::size_t maxLength) override {
    if (streamStatus() != ZRBStreamStatusOpen) return streamStatus() == ZRBStreamStatusAtEnd ? 0 : -1;
    if (produced_ >= failAt_) {
      setStreamError(ZRBError::withDescription("test", 42, "broken source"));
      return -1;
    }
    std::size_t n = std::min({maxLength, length_ - produced_, failAt_ - produced_});
    for (std::size_t i = 0; i < n; ++i) buffer[i] = static_cast<std::uint8_t>('a' + (produced_ + i) % 26);
    produced_ += n;
    if (produced_ == length_) setStreamStatus(ZRBStreamStatusAtEnd);
    return static_cast<long>(n);
  }

 private:
  std::size_t length_;
  std::size_t failAt_;
  std::size_t produced_ = 0;
};

TEST(InputStreamTest, SubclassesWorkThroughTheBaseInterface) {
  CountingStream whole(30, SIZE_MAX);
  ZRBInputStream& stream = whole;
  EXPECT_FALSE(stream.hasBytesAvailable());
  stream.open();
  EXPECT_TRUE(stream.hasBytesAvailable());
  EXPECT_EQ(drain(stream, 7), "abcdefghijklmnopqrstuvwxyzabcd");
  EXPECT_FALSE(stream.hasBytesAvailable());
  EXPECT_FALSE(stream.copyStream());  // not copyable unless the subclass says so

  CountingStream broken(30, 10);
  broken.open();
  bool failed = false;
  EXPECT_EQ(drain(broken, 4, &failed), "abcdefghij");
  EXPECT_TRUE(failed);
  EXPECT_EQ(broken.streamStatus(), ZRBStreamStatusError);
  ASSERT_TRUE(broken.streamError());
  EXPECT_EQ(broken.streamError()->code(), 42);
}

TEST(OutputStreamTest, MemoryStreamCollectsWhatIsWritten) {
  auto stream = ZRBOutputStream::outputStreamToMemory();
  const std::uint8_t bytes[] = {'a', 'b', 'c'};
  EXPECT_EQ(stream->write(bytes, 3), -1);  // not open
  stream->open();
  EXPECT_EQ(stream->write(bytes, 3), 3);
  EXPECT_EQ(stream->write(bytes, 2), 2);
  EXPECT_EQ(stream->writtenData(), ZRBValue::data(std::string_view("abcab")));
  stream->close();
  EXPECT_EQ(stream->write(bytes, 3), -1);
}

TEST(OutputStreamTest, FileStreamTruncatesOrAppendsAndReportsFailures) {
  ZRBTestTemporaryDirectory dir;
  auto path = dir / "out.txt";
  auto write = [&](std::string_view text, bool append) {
    auto stream = ZRBOutputStream::outputStreamToFileAtPath(path, append);
    stream->open();
    ASSERT_EQ(stream->streamStatus(), ZRBStreamStatusOpen);
    EXPECT_EQ(stream->write(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()),
              static_cast<long>(text.size()));
    stream->close();
  };
  write("abc", false);
  write("def", true);
  EXPECT_EQ(ZRBTestReadFile(path), "abcdef");
  write("x", false);
  EXPECT_EQ(ZRBTestReadFile(path), "x");

  auto nowhere = ZRBOutputStream::outputStreamToFileAtPath(dir / "no/such/dir", false);
  nowhere->open();
  EXPECT_EQ(nowhere->streamStatus(), ZRBStreamStatusError);
  ASSERT_TRUE(nowhere->streamError());
  EXPECT_EQ(nowhere->streamError()->code(), ENOENT);
  EXPECT_FALSE(nowhere->hasSpaceAvailable());
  const std::uint8_t byte = 0;
  EXPECT_EQ(nowhere->write(&byte, 1), -1);
}

}  // namespace
