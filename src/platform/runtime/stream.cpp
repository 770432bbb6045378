#include "platform/runtime/stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

// ---- ZRBStream ----

void ZRBStream::open() {
  if (streamStatus() == ZRBStreamStatusNotOpen) setStreamStatus(ZRBStreamStatusOpen);
}

void ZRBStream::close() { setStreamStatus(ZRBStreamStatusClosed); }

ZRBErrorPtr ZRBStream::streamError() const {
  std::lock_guard lock(errorMutex_);
  return error_;
}

void ZRBStream::setStreamError(ZRBErrorPtr error) {
  {
    std::lock_guard lock(errorMutex_);
    error_ = std::move(error);
  }
  setStreamStatus(ZRBStreamStatusError);
}

ZRBValue ZRBStream::propertyForKey(std::string_view) const { return {}; }
bool ZRBStream::setProperty(const ZRBValue&, std::string_view) { return false; }

// ---- input ----

bool ZRBInputStream::hasBytesAvailable() const {
  auto status = streamStatus();
  return status == ZRBStreamStatusOpen || status == ZRBStreamStatusReading;
}

bool ZRBInputStream::getBuffer(const std::uint8_t**, std::size_t*) { return false; }

namespace {

bool readable(ZRBStreamStatus status) {
  return status == ZRBStreamStatusOpen || status == ZRBStreamStatusReading || status == ZRBStreamStatusAtEnd;
}

class DataInputStream final : public ZRBInputStream {
 public:
  explicit DataInputStream(ZRBValue data) : data_(std::move(data)) {}

  long read(std::uint8_t* buffer, std::size_t maxLength) override {
    auto status = streamStatus();
    if (!readable(status) || (!buffer && maxLength > 0)) return -1;
    auto bytes = data_.bytes();
    std::size_t count = std::min(maxLength, bytes.size() - offset_);
    if (count > 0) std::memcpy(buffer, bytes.data() + offset_, count);
    offset_ += count;
    // At end as soon as the last byte is out, so a reader can tell without an extra read.
    if (offset_ >= bytes.size()) setStreamStatus(ZRBStreamStatusAtEnd);
    return static_cast<long>(count);
  }

  bool hasBytesAvailable() const override {
    return ZRBInputStream::hasBytesAvailable() && offset_ < data_.bytes().size();
  }

  bool getBuffer(const std::uint8_t** buffer, std::size_t* length) override {
    if (!buffer || !length || !readable(streamStatus())) return false;
    auto bytes = data_.bytes();
    *buffer = bytes.data() + offset_;
    *length = bytes.size() - offset_;
    return true;
  }

  ZRBInputStreamPtr copyStream() const override { return std::make_shared<DataInputStream>(data_); }

 private:
  ZRBValue data_;
  std::size_t offset_ = 0;
};

class FileInputStream final : public ZRBInputStream {
 public:
  explicit FileInputStream(std::string path) : path_(std::move(path)) {}
  ~FileInputStream() override {
    if (fd_ >= 0) ::close(fd_);
  }

  void open() override {
    if (streamStatus() != ZRBStreamStatusNotOpen) return;
    setStreamStatus(ZRBStreamStatusOpening);
    int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      setStreamError(ZRBError::fromErrno(errno, path_));
      return;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) {
      int code = S_ISDIR(info.st_mode) ? EISDIR : errno;
      ::close(fd);
      setStreamError(ZRBError::fromErrno(code, path_));
      return;
    }
    fd_ = fd;
    if (S_ISREG(info.st_mode)) size_ = static_cast<long long>(info.st_size);
    if (offset_ > 0 && ::lseek(fd_, static_cast<off_t>(offset_), SEEK_SET) < 0) {
      setStreamError(ZRBError::fromErrno(errno, path_));
      return;
    }
    setStreamStatus(size_ >= 0 && offset_ >= size_ ? ZRBStreamStatusAtEnd : ZRBStreamStatusOpen);
  }

  void close() override {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    ZRBInputStream::close();
  }

  long read(std::uint8_t* buffer, std::size_t maxLength) override {
    if (!readable(streamStatus()) || fd_ < 0 || (!buffer && maxLength > 0)) return -1;
    if (maxLength == 0) return 0;
    ssize_t count;
    do {
      count = ::read(fd_, buffer, maxLength);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
      setStreamError(ZRBError::fromErrno(errno, path_));
      return -1;
    }
    offset_ += count;
    if (count == 0 || (size_ >= 0 && offset_ >= size_)) setStreamStatus(ZRBStreamStatusAtEnd);
    return static_cast<long>(count);
  }

  ZRBValue propertyForKey(std::string_view key) const override {
    if (key == ZRBStreamFileCurrentOffsetKey) return ZRBValue(offset_);
    return {};
  }

  bool setProperty(const ZRBValue& value, std::string_view key) override {
    if (key != ZRBStreamFileCurrentOffsetKey || !value.isNumber() || value.intValue() < 0) return false;
    long long offset = value.intValue();
    if (fd_ >= 0) {
      if (::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0) return false;
      setStreamStatus(size_ >= 0 && offset >= size_ ? ZRBStreamStatusAtEnd : ZRBStreamStatusOpen);
    }
    offset_ = offset;
    return true;
  }

  ZRBInputStreamPtr copyStream() const override { return std::make_shared<FileInputStream>(path_); }

 private:
  std::string path_;
  int fd_ = -1;
  long long size_ = -1;  // -1 for pipes and devices: the end is where read() says
  long long offset_ = 0;
};

}  // namespace

ZRBInputStreamPtr ZRBInputStream::inputStreamWithData(const ZRBValue& data) {
  return std::make_shared<DataInputStream>(data.isData() ? data
                                                         : ZRBValue::data(std::vector<std::uint8_t>{}));
}

ZRBInputStreamPtr ZRBInputStream::inputStreamWithData(std::vector<std::uint8_t> bytes) {
  return std::make_shared<DataInputStream>(ZRBValue::data(std::move(bytes)));
}

ZRBInputStreamPtr ZRBInputStream::inputStreamWithData(const void* bytes, std::size_t length) {
  return std::make_shared<DataInputStream>(ZRBValue::data(bytes, length));
}

ZRBInputStreamPtr ZRBInputStream::inputStreamWithFileAtPath(std::string path) {
  return std::make_shared<FileInputStream>(std::move(path));
}

// ---- output ----

bool ZRBOutputStream::hasSpaceAvailable() const {
  auto status = streamStatus();
  return status == ZRBStreamStatusOpen || status == ZRBStreamStatusWriting;
}

namespace {

class MemoryOutputStream final : public ZRBOutputStream {
 public:
  long write(const std::uint8_t* buffer, std::size_t length) override {
    if (!hasSpaceAvailable() || (!buffer && length > 0)) return -1;
    std::lock_guard lock(mutex_);
    bytes_.insert(bytes_.end(), buffer, buffer + length);
    return static_cast<long>(length);
  }

  ZRBValue writtenData() const override {
    std::lock_guard lock(mutex_);
    return ZRBValue::data(bytes_.data(), bytes_.size());
  }

  ZRBValue propertyForKey(std::string_view key) const override {
    if (key == ZRBStreamDataWrittenToMemoryStreamKey) return writtenData();
    return {};
  }

 private:
  mutable std::mutex mutex_;  // writtenData() may be read while another thread writes
  std::vector<std::uint8_t> bytes_;
};

class FileOutputStream final : public ZRBOutputStream {
 public:
  FileOutputStream(std::string path, bool append) : path_(std::move(path)), append_(append) {}
  ~FileOutputStream() override {
    if (fd_ >= 0) ::close(fd_);
  }

  void open() override {
    if (streamStatus() != ZRBStreamStatusNotOpen) return;
    setStreamStatus(ZRBStreamStatusOpening);
    int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (append_ ? O_APPEND : O_TRUNC);
    int fd = ::open(path_.c_str(), flags, 0666);
    if (fd < 0) {
      setStreamError(ZRBError::fromErrno(errno, path_));
      return;
    }
    fd_ = fd;
    setStreamStatus(ZRBStreamStatusOpen);
  }

  void close() override {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    ZRBOutputStream::close();
  }

  long write(const std::uint8_t* buffer, std::size_t length) override {
    if (!hasSpaceAvailable() || fd_ < 0 || (!buffer && length > 0)) return -1;
    if (length == 0) return 0;
    ssize_t count;
    do {
      count = ::write(fd_, buffer, length);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
      setStreamError(ZRBError::fromErrno(errno, path_));
      return -1;
    }
    return static_cast<long>(count);
  }

  ZRBValue propertyForKey(std::string_view key) const override {
    if (key == ZRBStreamFileCurrentOffsetKey && fd_ >= 0) {
      return ZRBValue(static_cast<long long>(::lseek(fd_, 0, SEEK_CUR)));
    }
    return {};
  }

 private:
  std::string path_;
  bool append_;
  int fd_ = -1;
};

}  // namespace

ZRBOutputStreamPtr ZRBOutputStream::outputStreamToMemory() { return std::make_shared<MemoryOutputStream>(); }

ZRBOutputStreamPtr ZRBOutputStream::outputStreamToFileAtPath(std::string path, bool append) {
  return std::make_shared<FileOutputStream>(std::move(path), append);
}
