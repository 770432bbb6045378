// ZRBBodyPump: reads a request body stream on a thread of its own, ahead of the transfer.
//
// Body streams are read synchronously and may block (a throttled multipart body sleeps between
// packets), so they are never read on the transport thread. The pump fills a bounded buffer; the
// transfer takes from it and pauses when it is empty, and the pump's wake-up function restarts the
// transfer once more bytes (or the end) are there.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/runtime/stream.h"

class ZRBBodyPump : public std::enable_shared_from_this<ZRBBodyPump> {
 public:
  static constexpr std::size_t kCapacity = 1 << 20;

  static std::shared_ptr<ZRBBodyPump> make(ZRBInputStreamPtr stream);
  explicit ZRBBodyPump(ZRBInputStreamPtr stream);

  // Opens the stream and starts reading. `wake` is called (on the pump's thread) when the reader
  // had found the buffer empty and there is something new: bytes, the end, or an error.
  void start(std::function<void()> wake);
  // Stops reading soon and closes the stream; the thread ends by itself.
  void cancel();

  enum class State { Data, WouldBlock, End, Failed };
  // Copies up to `length` buffered bytes. WouldBlock means: pause and wait for the wake-up.
  State read(char* buffer, std::size_t length, std::size_t* copied);
  // The stream's error once read() said Failed.
  ZRBErrorPtr error() const;
  const ZRBInputStreamPtr& stream() const { return stream_; }

 private:
  void pump();

  ZRBInputStreamPtr stream_;
  std::function<void()> wake_;

  mutable std::mutex mutex_;
  std::condition_variable spaceAvailable_;
  std::vector<char> ring_;
  std::size_t head_ = 0;  // first buffered byte
  std::size_t size_ = 0;  // buffered bytes
  bool end_ = false;
  bool cancelled_ = false;
  bool readerWaiting_ = false;
  ZRBErrorPtr error_;
};
