// ZRBInputStream / ZRBOutputStream: synchronous byte streams with the platform's statuses.
//
// A stream is pulled (or pushed) by one thread at a time; it is not meant for concurrent reads or
// writes. streamStatus() and streamError() may be read from any thread.
//
// Failures never throw: a stream that cannot open or read goes to ZRBStreamStatusError, read() and
// write() return -1, and streamError() holds the record (ZRBPOSIXErrorDomain for file errors, with
// the path under ZRBFilePathErrorKey).
//
// Subclassing an input stream (the multipart body stream does):
// - override read() (required), and open(), close(), hasBytesAvailable() as needed;
// - keep the status current with setStreamStatus() and report failures with setStreamError()
//   (which also sets ZRBStreamStatusError); or override streamStatus()/streamError() entirely;
// - the base open() moves NotOpen to Open, close() moves any status to Closed, and
//   hasBytesAvailable() answers whether the status is Open or Reading;
// - a reader calls read() until it returns 0 (at end) or -1 (error), and may consult
//   hasBytesAvailable() and streamStatus() between reads;
// - copyStream() returns a fresh stream over the same source, positioned at its start and not
//   open, or null when the stream cannot be copied (the base answer).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

enum ZRBStreamStatus : unsigned long {
  ZRBStreamStatusNotOpen = 0,
  ZRBStreamStatusOpening = 1,
  ZRBStreamStatusOpen = 2,
  ZRBStreamStatusReading = 3,
  ZRBStreamStatusWriting = 4,
  ZRBStreamStatusAtEnd = 5,
  ZRBStreamStatusClosed = 6,
  ZRBStreamStatusError = 7,
};

// Property keys.
// The bytes written to a memory output stream (a data value).
inline constexpr std::string_view ZRBStreamDataWrittenToMemoryStreamKey =
    "ZRBStreamDataWrittenToMemoryStreamKey";
// The read or write offset of a file stream (an integer); settable on file input streams to seek.
inline constexpr std::string_view ZRBStreamFileCurrentOffsetKey = "ZRBStreamFileCurrentOffsetKey";

class ZRBStream : public ZRBObject {
 public:
  ZRBStream() = default;

  virtual void open();
  virtual void close();
  virtual ZRBStreamStatus streamStatus() const { return status_.load(std::memory_order_acquire); }
  virtual ZRBErrorPtr streamError() const;

  // Absent / false unless a stream defines the key.
  virtual ZRBValue propertyForKey(std::string_view key) const;
  virtual bool setProperty(const ZRBValue& value, std::string_view key);

 protected:
  void setStreamStatus(ZRBStreamStatus status) { status_.store(status, std::memory_order_release); }
  // Records the error and moves the stream to ZRBStreamStatusError.
  void setStreamError(ZRBErrorPtr error);

 private:
  std::atomic<ZRBStreamStatus> status_{ZRBStreamStatusNotOpen};
  mutable std::mutex errorMutex_;
  ZRBErrorPtr error_;
};

class ZRBInputStream;
using ZRBInputStreamPtr = std::shared_ptr<ZRBInputStream>;
class ZRBOutputStream;
using ZRBOutputStreamPtr = std::shared_ptr<ZRBOutputStream>;

class ZRBInputStream : public ZRBStream {
 public:
  // A stream over bytes (copied, or shared when given a data value; other values give no bytes).
  static ZRBInputStreamPtr inputStreamWithData(const ZRBValue& data);
  static ZRBInputStreamPtr inputStreamWithData(std::vector<std::uint8_t> bytes);
  static ZRBInputStreamPtr inputStreamWithData(const void* bytes, std::size_t length);
  // A stream over a file, opened by open(): an unreadable file gives ZRBStreamStatusError there.
  static ZRBInputStreamPtr inputStreamWithFileAtPath(std::string path);

  // Bytes copied into `buffer` (at most maxLength), 0 at the end, -1 on error or when not open.
  virtual long read(std::uint8_t* buffer, std::size_t maxLength) = 0;
  virtual bool hasBytesAvailable() const;
  // Direct access to buffered bytes; false (the default) when the stream offers none.
  virtual bool getBuffer(const std::uint8_t** buffer, std::size_t* length);
  virtual ZRBInputStreamPtr copyStream() const { return nullptr; }

  std::string className() const override { return "ZRBInputStream"; }
};

class ZRBOutputStream : public ZRBStream {
 public:
  // Collects what is written; readable with writtenData() or ZRBStreamDataWrittenToMemoryStreamKey.
  static ZRBOutputStreamPtr outputStreamToMemory();
  // Writes to a file, created when missing, appended to or truncated on open().
  static ZRBOutputStreamPtr outputStreamToFileAtPath(std::string path, bool append);

  // Bytes taken (possibly fewer than length), -1 on error or when not open.
  virtual long write(const std::uint8_t* buffer, std::size_t length) = 0;
  virtual bool hasSpaceAvailable() const;
  // The bytes written so far, for memory streams; absent for others.
  virtual ZRBValue writtenData() const { return {}; }

  std::string className() const override { return "ZRBOutputStream"; }
};
