// ZRBHS_StreamingMultipartFormData: the form-data builder that a multipart request's construction
// callback receives (see ZRBHS_HTTPRequestSerializer::multipartFormRequestWithMethod).
//
// Each append adds one part to the builder's body stream: form fields and in-memory bytes, files
// (read when the body is sent, never loaded here) and caller-supplied input streams. All parts of
// one builder share its boundary. requestByFinalizingMultipartFormData() then makes the stream the
// request's body stream with "Content-Type: multipart/form-data; boundary=B" and a
// "Content-Length" computed from the declared lengths.
//
// Missing arguments are programming errors (ZRBAssert failures naming the argument). A file URL
// that is not a file URL or not reachable gives an error record in
// ZRBHS_RequestSerializationErrorDomain with code ZRBURLErrorBadURL (-1000) and a localized
// failure reason; the builder is then left unchanged.
//
// A builder is filled on one thread (the caller's).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "http/multipart_body_stream.h"
#include "platform/foundation/error.h"
#include "platform/foundation/text_encoding.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/net/url_request.h"
#include "platform/runtime/stream.h"

class ZRBHS_StreamingMultipartFormData final : public ZRBObject {
 public:
  // A builder for `request` writing its texts in `encoding`, with a fresh random boundary.
  ZRBHS_StreamingMultipartFormData(ZRBMutableURLRequestPtr request, ZRBStringEncoding encoding);

  const ZRBMutableURLRequestPtr& request() const { return request_; }
  ZRBStringEncoding stringEncoding() const { return stringEncoding_; }
  const std::string& boundary() const { return boundary_; }
  const ZRBHS_MultipartBodyStreamPtr& bodyStream() const { return bodyStream_; }

  // A file part named after the file's last path component, typed by its extension.
  bool appendPartWithFileURL(const ZRBURLPtr& fileURL, const std::optional<std::string_view>& name,
                             ZRBErrorPtr* error);
  // A file part: Content-Disposition `form-data; name="N"; filename="F"`, Content-Type M, the
  // file's current size as its length. False, with *error set when given, for a URL that is not a
  // file URL, a file that is not reachable, or attributes that cannot be read.
  bool appendPartWithFileURL(const ZRBURLPtr& fileURL, const std::optional<std::string_view>& name,
                             const std::optional<std::string_view>& fileName,
                             const std::optional<std::string_view>& mimeType, ZRBErrorPtr* error = nullptr);
  // A part read from `inputStream` when the body is sent; `length` is trusted as the part's body
  // length (a stream that delivers less makes Content-Length wrong).
  void appendPartWithInputStream(const ZRBInputStreamPtr& inputStream,
                                 const std::optional<std::string_view>& name,
                                 const std::optional<std::string_view>& fileName, std::uint64_t length,
                                 const std::optional<std::string_view>& mimeType);
  // A part with a file name and type whose body is `data` (a data value).
  void appendPartWithFileData(const ZRBValue& data, const std::optional<std::string_view>& name,
                              const std::optional<std::string_view>& fileName,
                              const std::optional<std::string_view>& mimeType);
  // A form field: Content-Disposition `form-data; name="N"` and `data` as its value.
  void appendPartWithFormData(const ZRBValue& data, const std::optional<std::string_view>& name);
  // A part with the given headers (a dictionary of strings, written in its order) and body (a data
  // value, which must be present).
  void appendPartWithHeaders(const ZRBValue& headers, const ZRBValue& body);

  // At most `numberOfBytes` per read of the body stream and a pause of `delay` seconds after each
  // part read (ZRBHS_kUploadStream3GSuggestedPacketSize and ZRBHS_kUploadStream3GSuggestedDelay
  // suit slow links).
  void throttleBandwidthWithPacketSize(std::uint64_t numberOfBytes, double delay);

  // The request with the body stream and the multipart headers; the request unchanged when no
  // part was appended.
  ZRBMutableURLRequestPtr requestByFinalizingMultipartFormData();

  std::string className() const override { return "ZRBHS_StreamingMultipartFormData"; }

 private:
  ZRBMutableURLRequestPtr request_;
  ZRBStringEncoding stringEncoding_;
  std::string boundary_;
  ZRBHS_MultipartBodyStreamPtr bodyStream_;
};

using ZRBHS_StreamingMultipartFormDataPtr = std::shared_ptr<ZRBHS_StreamingMultipartFormData>;
