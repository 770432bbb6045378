// Streamed multipart/form-data bodies: body parts and the input stream that concatenates them.
//
// A body is a list of ZRBHS_HTTPBodyPart, each written as
//   opening    "--B\r\n" for the first part, "\r\n--B\r\n" for every later one;
//   headers    "Name: value\r\n" per header, then "\r\n";
//   body       the part's bytes, file or caller-supplied stream, pulled on demand;
//   closing    "\r\n--B--\r\n" after the last part only.
// Nothing is assembled in memory: the boundary and header texts are encoded once per part and the
// body is read straight from its source into the caller's buffer, so a read allocates nothing.
// Lengths are computed from the declared body lengths, never by reading.
//
// Threading: a body stream is pulled by one thread at a time (the transport's, or the file-writing
// queue). Every phase change of a part after its construction (opening the body source, closing
// it, ...) runs on the main queue, hopping there synchronously from any other thread, so a reader
// must never run while the main queue waits for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/text_encoding.h"
#include "platform/foundation/value.h"
#include "platform/runtime/stream.h"

// Throttling values for slow mobile links: at most this many bytes per read...
extern "C" const std::uint64_t ZRBHS_kUploadStream3GSuggestedPacketSize;  // 16384
// ...and this many seconds of pause after each part read.
extern "C" const double ZRBHS_kUploadStream3GSuggestedDelay;  // 0.2

// "Boundary+" and two random 32-bit values as 16 upper-case hexadecimal digits.
std::string KVHSCreateMultipartFormBoundary();
// "--B\r\n": opens the first part.
std::string KVHSMultipartFormInitialBoundary(std::string_view boundary);
// "\r\n--B\r\n": opens every later part.
std::string KVHSMultipartFormEncapsulationBoundary(std::string_view boundary);
// "\r\n--B--\r\n": closes the body after the last part.
std::string KVHSMultipartFormFinalBoundary(std::string_view boundary);
// The MIME type of a file-name extension ("png" -> "image/png"), "application/octet-stream" when
// none is registered.
std::string KVHSContentTypeForPathExtension(std::string_view extension);

class ZRBHS_HTTPBodyPart;
using ZRBHS_HTTPBodyPartPtr = std::shared_ptr<ZRBHS_HTTPBodyPart>;
class ZRBHS_MultipartBodyStream;
using ZRBHS_MultipartBodyStreamPtr = std::shared_ptr<ZRBHS_MultipartBodyStream>;

// One part of a multipart body. It is read in phases: 1 opening boundary, 2 headers, 3 body,
// 4 closing boundary (empty unless hasFinalBoundary), then back to 1. A part reads its body once:
// the body's stream is closed after phase 3, so reading the part again needs a copy().
class ZRBHS_HTTPBodyPart final : public ZRBObject {
 public:
  enum Phase : int {
    kPhaseUninitialized = 0,
    kPhaseEncapsulationBoundary = 1,
    kPhaseHeaders = 2,
    kPhaseBody = 3,
    kPhaseFinalBoundary = 4,
  };

  // `headers`: a dictionary of strings, written in its order. `body`: a data value, a file URL
  // (an object value holding a ZRBURL) or a ZRBInputStream (an object value); anything else reads
  // as no bytes. `bodyContentLength` is trusted: it is what the part declares, not what it reads.
  // A new part starts in phase 1.
  ZRBHS_HTTPBodyPart(ZRBStringEncoding stringEncoding, ZRBValue headers, std::string boundary, ZRBValue body,
                     std::uint64_t bodyContentLength);
  // Closes the body's stream if one was made.
  ~ZRBHS_HTTPBodyPart() override;

  ZRBStringEncoding stringEncoding() const { return stringEncoding_; }
  const ZRBValue& headers() const { return headers_; }
  const std::string& boundary() const { return boundary_; }
  const ZRBValue& body() const { return body_; }
  std::uint64_t bodyContentLength() const { return bodyContentLength_; }

  bool hasInitialBoundary() const { return hasInitialBoundary_; }
  void setHasInitialBoundary(bool value) { hasInitialBoundary_ = value; }
  bool hasFinalBoundary() const { return hasFinalBoundary_; }
  void setHasFinalBoundary(bool value) { hasFinalBoundary_ = value; }

  Phase phase() const { return phase_; }
  std::int64_t phaseReadOffset() const { return phaseReadOffset_; }

  // The body's stream, made on first use: over the bytes, over the file, or the given stream.
  const ZRBInputStreamPtr& inputStream();
  // "Name: value\r\n" for each header, then "\r\n" (as UTF-8 text).
  std::string stringForHeaders() const;
  // Opening + headers + bodyContentLength + closing (when hasFinalBoundary), in bytes of the
  // part's encoding, with the boundary flags as they stand.
  std::uint64_t contentLength() const;

  // True in phase 4 (a closing that did not fit is still owed); otherwise while the body's stream
  // has not reached its end (or closed, or failed).
  bool hasBytesAvailable();
  // Runs through as many phases as fit into `buffer`; the bytes delivered, or -1 when the body's
  // stream failed (its streamError() says why).
  long read(std::uint8_t* buffer, std::size_t maxLength);
  // Copies what is left of `data` from phaseReadOffset (at most maxLength bytes) and moves to the
  // next phase once all of it is out.
  long readData(std::span<const std::uint8_t> data, std::uint8_t* buffer, std::size_t maxLength);
  // 1 -> 2; 2 -> 3 opening the body's stream; 3 -> 4 closing it; 4 -> 1. Runs on the main queue,
  // synchronously from any other thread (then returns true). Resets phaseReadOffset.
  bool transitionToNextPhase();

  // Same encoding, headers, boundary, body and length; phase 1 and a fresh body stream. The
  // boundary flags are left for the owning body stream to set.
  ZRBHS_HTTPBodyPartPtr copy() const;

  std::string className() const override { return "ZRBHS_HTTPBodyPart"; }

 private:
  void advancePhase();
  std::span<const std::uint8_t> openingBytes() const {
    return hasInitialBoundary_ ? initialBoundaryBytes_ : encapsulationBoundaryBytes_;
  }

  Phase phase_ = kPhaseUninitialized;
  ZRBInputStreamPtr inputStream_;
  std::int64_t phaseReadOffset_ = 0;
  bool hasInitialBoundary_ = false;
  bool hasFinalBoundary_ = false;
  ZRBStringEncoding stringEncoding_;
  ZRBValue headers_;
  std::string boundary_;
  ZRBValue body_;
  std::uint64_t bodyContentLength_;
  // The texts of phases 1, 2 and 4, encoded once so that reads only copy bytes.
  std::vector<std::uint8_t> initialBoundaryBytes_;
  std::vector<std::uint8_t> encapsulationBoundaryBytes_;
  std::vector<std::uint8_t> headersBytes_;
  std::vector<std::uint8_t> finalBoundaryBytes_;
};

// The request body: an input stream that reads its parts one after the other. The transport pulls
// it synchronously (open, read, hasBytesAvailable, streamError, close); there is no run-loop
// scheduling to do. Statuses it sets: not open, open, closed, and error when a part's body fails.
//
// Reading with throttling: one read delivers at most numberOfBytesInPacket bytes, and the reading
// thread sleeps `delay` seconds after each part read within it. A failing body stops the read: the
// count delivered so far is returned and streamError() holds the body stream's error (a negative
// count is never returned once open).
class ZRBHS_MultipartBodyStream final : public ZRBInputStream {
 public:
  explicit ZRBHS_MultipartBodyStream(ZRBStringEncoding stringEncoding);

  ZRBStringEncoding stringEncoding() const { return stringEncoding_; }
  std::uint64_t numberOfBytesInPacket() const { return numberOfBytesInPacket_; }
  void setNumberOfBytesInPacket(std::uint64_t value) { numberOfBytesInPacket_ = value; }
  double delay() const { return delay_; }
  void setDelay(double seconds) { delay_ = seconds; }

  const std::vector<ZRBHS_HTTPBodyPartPtr>& HTTPBodyParts() const { return parts_; }
  const ZRBHS_HTTPBodyPartPtr& currentHTTPBodyPart() const { return current_; }

  void appendHTTPBodyPart(ZRBHS_HTTPBodyPartPtr part);
  // With at least one part: only the first part opens with the initial boundary, only the last
  // closes the body.
  void setInitialAndFinalBoundaries();
  bool isEmpty() const { return parts_.empty(); }
  // The body's length in bytes with the boundary flags as they stand.
  std::uint64_t contentLength() const;

  // Once only (re-opening an open stream does nothing): sets the boundary flags and starts at the
  // first part.
  void open() override;
  // 0 once closed.
  long read(std::uint8_t* buffer, std::size_t maxLength) override;
  // Whether the stream is open.
  bool hasBytesAvailable() const override;

  // Same encoding and a copy of every part, boundary flags set, not open. Throttling is not
  // carried over.
  ZRBHS_MultipartBodyStreamPtr copy() const;
  // The transport asks for this when a streamed body must be sent again. Unlike copy(), parts whose
  // body is a stream read from a fresh copy of that stream (a part's own stream is spent after one
  // reading), and throttling is kept. When a part's stream cannot be copied (a caller's own
  // stream), the body cannot be sent again: null, which fails the task at once with "request body
  // stream exhausted" instead of sending fewer bytes than Content-Length declares.
  ZRBInputStreamPtr copyStream() const override;

  std::string className() const override { return "ZRBHS_MultipartBodyStream"; }

 private:
  static constexpr std::size_t kNoCursor = std::numeric_limits<std::size_t>::max();

  std::uint64_t numberOfBytesInPacket_ = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  double delay_ = 0;
  ZRBStringEncoding stringEncoding_;
  std::vector<ZRBHS_HTTPBodyPartPtr> parts_;
  std::size_t cursor_ = kNoCursor;  // index of the next part to read; kNoCursor until opened
  ZRBHS_HTTPBodyPartPtr current_;
};
