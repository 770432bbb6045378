#include "platform/net/transport/body_pump.h"

#include <algorithm>
#include <cstring>
#include <thread>

std::shared_ptr<ZRBBodyPump> ZRBBodyPump::make(ZRBInputStreamPtr stream) {
  return std::make_shared<ZRBBodyPump>(std::move(stream));
}

ZRBBodyPump::ZRBBodyPump(ZRBInputStreamPtr stream) : stream_(std::move(stream)), ring_(kCapacity) {}

void ZRBBodyPump::start(std::function<void()> wake) {
  wake_ = std::move(wake);
  std::thread([self = shared_from_this()] { self->pump(); }).detach();
}

void ZRBBodyPump::cancel() {
  std::lock_guard lock(mutex_);
  cancelled_ = true;
  spaceAvailable_.notify_all();
}

ZRBErrorPtr ZRBBodyPump::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

ZRBBodyPump::State ZRBBodyPump::read(char* buffer, std::size_t length, std::size_t* copied) {
  std::lock_guard lock(mutex_);
  *copied = 0;
  if (size_ == 0) {
    if (error_) return State::Failed;
    if (end_) return State::End;
    readerWaiting_ = true;
    return State::WouldBlock;
  }
  std::size_t total = std::min(length, size_);
  std::size_t first = std::min(total, ring_.size() - head_);
  std::memcpy(buffer, ring_.data() + head_, first);
  std::memcpy(buffer + first, ring_.data(), total - first);
  head_ = (head_ + total) % ring_.size();
  size_ -= total;
  *copied = total;
  spaceAvailable_.notify_one();
  return State::Data;
}

void ZRBBodyPump::pump() {
  if (stream_->streamStatus() == ZRBStreamStatusNotOpen) stream_->open();
  std::vector<std::uint8_t> chunk(64 * 1024);
  for (;;) {
    std::size_t room = 0;
    {
      std::unique_lock lock(mutex_);
      spaceAvailable_.wait(lock, [&] { return cancelled_ || size_ < ring_.size(); });
      if (cancelled_) break;
      room = std::min(chunk.size(), ring_.size() - size_);
    }
    long count = stream_->read(chunk.data(), room);
    bool wake = false;
    {
      std::lock_guard lock(mutex_);
      if (cancelled_) break;
      if (count > 0) {
        std::size_t tail = (head_ + size_) % ring_.size();
        std::size_t first = std::min(std::size_t(count), ring_.size() - tail);
        std::memcpy(ring_.data() + tail, chunk.data(), first);
        std::memcpy(ring_.data(), chunk.data() + first, std::size_t(count) - first);
        size_ += std::size_t(count);
      } else if (count == 0) {
        end_ = true;
      } else {
        error_ = stream_->streamError();
        if (!error_) error_ = ZRBError::make(ZRBPOSIXErrorDomain, EIO);
      }
      wake = readerWaiting_;
      readerWaiting_ = false;
    }
    if (wake && wake_) wake_();
    if (count <= 0) break;
  }
  stream_->close();
}
