#include "http/multipart_body_stream.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "platform/foundation/crypto.h"
#include "platform/foundation/url.h"
#include "platform/runtime/dispatch.h"
#include "platform/system/mime_type.h"

extern "C" const std::uint64_t ZRBHS_kUploadStream3GSuggestedPacketSize = 16384;
extern "C" const double ZRBHS_kUploadStream3GSuggestedDelay = 0.2;

namespace {

constexpr std::string_view kCRLF = "\r\n";

// The bytes of UTF-8 text in `encoding`; none when the text cannot be written in it.
std::vector<std::uint8_t> encodeText(std::string_view text, ZRBStringEncoding encoding) {
  if (encoding == ZRBUTF8StringEncoding) return {text.begin(), text.end()};
  return ZRBBytesFromString(text, encoding).value_or(std::vector<std::uint8_t>{});
}

}  // namespace

// ---- boundaries and content types ----

std::string KVHSCreateMultipartFormBoundary() {
  char text[32];
  std::snprintf(text, sizeof text, "Boundary+%08X%08X", static_cast<unsigned>(ZRBRandomUInt32()),
                static_cast<unsigned>(ZRBRandomUInt32()));
  return text;
}

std::string KVHSMultipartFormInitialBoundary(std::string_view boundary) {
  std::string out;
  out.reserve(boundary.size() + 4);
  out.append("--").append(boundary).append(kCRLF);
  return out;
}

std::string KVHSMultipartFormEncapsulationBoundary(std::string_view boundary) {
  std::string out;
  out.reserve(boundary.size() + 6);
  out.append(kCRLF).append("--").append(boundary).append(kCRLF);
  return out;
}

std::string KVHSMultipartFormFinalBoundary(std::string_view boundary) {
  std::string out;
  out.reserve(boundary.size() + 8);
  out.append(kCRLF).append("--").append(boundary).append("--").append(kCRLF);
  return out;
}

std::string KVHSContentTypeForPathExtension(std::string_view extension) {
  return ZRBMIMETypeForPathExtension(extension);
}

// ---- body part ----

ZRBHS_HTTPBodyPart::ZRBHS_HTTPBodyPart(ZRBStringEncoding stringEncoding, ZRBValue headers,
                                       std::string boundary, ZRBValue body, std::uint64_t bodyContentLength)
    : stringEncoding_(stringEncoding),
      headers_(std::move(headers)),
      boundary_(std::move(boundary)),
      body_(std::move(body)),
      bodyContentLength_(bodyContentLength),
      initialBoundaryBytes_(encodeText(KVHSMultipartFormInitialBoundary(boundary_), stringEncoding)),
      encapsulationBoundaryBytes_(
          encodeText(KVHSMultipartFormEncapsulationBoundary(boundary_), stringEncoding)),
      headersBytes_(encodeText(stringForHeaders(), stringEncoding)),
      finalBoundaryBytes_(encodeText(KVHSMultipartFormFinalBoundary(boundary_), stringEncoding)) {
  // Nobody else can see the part yet, so its first step (0 -> 1) needs no hop to the main queue.
  advancePhase();
}

ZRBHS_HTTPBodyPart::~ZRBHS_HTTPBodyPart() {
  if (inputStream_) inputStream_->close();
}

const ZRBInputStreamPtr& ZRBHS_HTTPBodyPart::inputStream() {
  if (!inputStream_) {
    if (body_.isData()) {
      inputStream_ = ZRBInputStream::inputStreamWithData(body_);  // shares the bytes
    } else if (auto url = body_.objectAs<ZRBURL>(); url && url->isFileURL()) {
      inputStream_ = ZRBInputStream::inputStreamWithFileAtPath(url->path());
    } else if (auto stream = body_.objectAs<ZRBInputStream>()) {
      inputStream_ = std::move(stream);
    } else {
      inputStream_ = ZRBInputStream::inputStreamWithData(std::vector<std::uint8_t>{});
    }
  }
  return inputStream_;
}

std::string ZRBHS_HTTPBodyPart::stringForHeaders() const {
  std::string out;
  for (const auto& [name, value] : headers_.entries()) {
    out.append(name.description()).append(": ").append(value.description()).append(kCRLF);
  }
  out.append(kCRLF);
  return out;
}

std::uint64_t ZRBHS_HTTPBodyPart::contentLength() const {
  std::uint64_t length = openingBytes().size() + headersBytes_.size() + bodyContentLength_;
  if (hasFinalBoundary_) length += finalBoundaryBytes_.size();
  return length;
}

bool ZRBHS_HTTPBodyPart::hasBytesAvailable() {
  // The closing may not have fitted into the previous read; it is still owed.
  if (phase_ == kPhaseFinalBoundary) return true;
  return inputStream()->streamStatus() < ZRBStreamStatusAtEnd;
}

long ZRBHS_HTTPBodyPart::read(std::uint8_t* buffer, std::size_t maxLength) {
  std::size_t total = 0;
  if (phase_ == kPhaseEncapsulationBoundary) total += readData(openingBytes(), buffer, maxLength);
  if (phase_ == kPhaseHeaders) total += readData(headersBytes_, buffer + total, maxLength - total);
  if (phase_ == kPhaseBody) {
    ZRBInputStream& stream = *inputStream();
    if (total < maxLength) {
      long count = stream.read(buffer + total, maxLength - total);
      if (count == -1) return -1;
      total += static_cast<std::size_t>(count);
    } else if (stream.streamStatus() == ZRBStreamStatusError) {
      // A zero-length read is never asked of the body (a file would take it as its end), but a
      // body that failed to open must not be skipped silently.
      return -1;
    }
    if (stream.streamStatus() >= ZRBStreamStatusAtEnd) transitionToNextPhase();
  }
  if (phase_ == kPhaseFinalBoundary) {
    std::span<const std::uint8_t> closing;
    if (hasFinalBoundary_) closing = finalBoundaryBytes_;
    total += readData(closing, buffer + total, maxLength - total);
  }
  return static_cast<long>(total);
}

long ZRBHS_HTTPBodyPart::readData(std::span<const std::uint8_t> data, std::uint8_t* buffer,
                                  std::size_t maxLength) {
  std::size_t offset = static_cast<std::size_t>(phaseReadOffset_);
  std::size_t count = std::min(data.size() - std::min(offset, data.size()), maxLength);
  if (count > 0) std::memcpy(buffer, data.data() + offset, count);
  phaseReadOffset_ += static_cast<std::int64_t>(count);
  if (static_cast<std::size_t>(phaseReadOffset_) >= data.size()) transitionToNextPhase();
  return static_cast<long>(count);
}

bool ZRBHS_HTTPBodyPart::transitionToNextPhase() {
  if (!ZRBDispatch::isMainQueue()) {
    // The body's stream is opened and closed on the main queue only; a capture of `this` alone
    // fits std::function's inline storage, so the hop itself does not allocate here.
    ZRBDispatch::mainQueue()->sync([this] { transitionToNextPhase(); });
    return true;
  }
  advancePhase();
  return true;
}

void ZRBHS_HTTPBodyPart::advancePhase() {
  switch (phase_) {
    case kPhaseEncapsulationBoundary: phase_ = kPhaseHeaders; break;
    case kPhaseHeaders:
      inputStream()->open();
      phase_ = kPhaseBody;
      break;
    case kPhaseBody:
      inputStream()->close();
      phase_ = kPhaseFinalBoundary;
      break;
    case kPhaseFinalBoundary:
    case kPhaseUninitialized: phase_ = kPhaseEncapsulationBoundary; break;
  }
  phaseReadOffset_ = 0;
}

ZRBHS_HTTPBodyPartPtr ZRBHS_HTTPBodyPart::copy() const {
  return std::make_shared<ZRBHS_HTTPBodyPart>(stringEncoding_, headers_, boundary_, body_,
                                              bodyContentLength_);
}

// ---- body stream ----

ZRBHS_MultipartBodyStream::ZRBHS_MultipartBodyStream(ZRBStringEncoding stringEncoding)
    : stringEncoding_(stringEncoding) {}

void ZRBHS_MultipartBodyStream::appendHTTPBodyPart(ZRBHS_HTTPBodyPartPtr part) {
  if (part) parts_.push_back(std::move(part));
}

void ZRBHS_MultipartBodyStream::setInitialAndFinalBoundaries() {
  if (parts_.empty()) return;
  for (const auto& part : parts_) {
    part->setHasInitialBoundary(false);
    part->setHasFinalBoundary(false);
  }
  parts_.front()->setHasInitialBoundary(true);
  parts_.back()->setHasFinalBoundary(true);
}

std::uint64_t ZRBHS_MultipartBodyStream::contentLength() const {
  std::uint64_t length = 0;
  for (const auto& part : parts_) length += part->contentLength();
  return length;
}

void ZRBHS_MultipartBodyStream::open() {
  if (streamStatus() == ZRBStreamStatusOpen) return;
  setStreamStatus(ZRBStreamStatusOpen);
  setInitialAndFinalBoundaries();
  cursor_ = 0;
  current_.reset();
}

long ZRBHS_MultipartBodyStream::read(std::uint8_t* buffer, std::size_t maxLength) {
  if (streamStatus() == ZRBStreamStatusClosed) return 0;
  const std::size_t limit =
      static_cast<std::size_t>(std::min<std::uint64_t>(maxLength, numberOfBytesInPacket_));
  std::size_t delivered = 0;
  while (delivered < limit) {
    if (!current_ || !current_->hasBytesAvailable()) {
      if (cursor_ >= parts_.size()) {
        current_.reset();
        break;
      }
      current_ = parts_[cursor_++];
      continue;
    }
    long count = current_->read(buffer + delivered, limit - delivered);
    if (count == -1) {
      setStreamError(current_->inputStream()->streamError());
      break;
    }
    delivered += static_cast<std::size_t>(count);
    if (delay_ > 0) std::this_thread::sleep_for(std::chrono::duration<double>(delay_));
  }
  return static_cast<long>(delivered);
}

bool ZRBHS_MultipartBodyStream::hasBytesAvailable() const { return streamStatus() == ZRBStreamStatusOpen; }

ZRBHS_MultipartBodyStreamPtr ZRBHS_MultipartBodyStream::copy() const {
  auto stream = std::make_shared<ZRBHS_MultipartBodyStream>(stringEncoding_);
  stream->parts_.reserve(parts_.size());
  for (const auto& part : parts_) stream->parts_.push_back(part->copy());
  stream->setInitialAndFinalBoundaries();
  return stream;
}

ZRBInputStreamPtr ZRBHS_MultipartBodyStream::copyStream() const {
  auto stream = std::make_shared<ZRBHS_MultipartBodyStream>(stringEncoding_);
  stream->numberOfBytesInPacket_ = numberOfBytesInPacket_;
  stream->delay_ = delay_;
  stream->parts_.reserve(parts_.size());
  for (const auto& part : parts_) {
    if (auto source = part->body().objectAs<ZRBInputStream>()) {
      ZRBInputStreamPtr fresh = source->copyStream();
      if (!fresh) return nullptr;
      stream->parts_.push_back(
          std::make_shared<ZRBHS_HTTPBodyPart>(part->stringEncoding(), part->headers(), part->boundary(),
                                               ZRBValue(std::move(fresh)), part->bodyContentLength()));
    } else {
      stream->parts_.push_back(part->copy());
    }
  }
  stream->setInitialAndFinalBoundaries();
  return stream;
}
