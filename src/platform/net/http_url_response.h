// ZRBURLResponse and ZRBHTTPURLResponse: what a load answered, without the body.
//
// Responses are immutable. An HTTP response derives its MIME type, text encoding name and
// expected length from its header fields:
// - MIMEType(): the Content-Type's "type/subtype", lower-cased, parameters stripped; absent when
//   there is no Content-Type.
// - textEncodingName(): the Content-Type's charset parameter, unquoted and lower-cased; absent
//   without one.
// - expectedContentLength(): Content-Length, or -1 when it is missing or not a number.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/net/http_header_fields.h"

class ZRBURLResponse;
class ZRBHTTPURLResponse;
using ZRBURLResponsePtr = std::shared_ptr<const ZRBURLResponse>;
using ZRBHTTPURLResponsePtr = std::shared_ptr<const ZRBHTTPURLResponse>;

class ZRBURLResponse : public ZRBObject {
 public:
  ZRBURLResponse(ZRBURLPtr url, std::optional<std::string> MIMEType, long long expectedContentLength,
                 std::optional<std::string> textEncodingName);

  const ZRBURLPtr& URL() const { return url_; }
  const std::optional<std::string>& MIMEType() const { return knownMIMEType_ ? *knownMIMEType_ : mimeType_; }
  long long expectedContentLength() const { return expectedContentLength_; }
  const std::optional<std::string>& textEncodingName() const { return textEncodingName_; }
  // A file name to save the body under: the Content-Disposition's filename* or filename (HTTP
  // responses only), else the URL's last path component, else "Unknown". A "/" in the name
  // becomes "_", so the result never names another directory.
  virtual std::string suggestedFilename() const;

  std::string className() const override { return "ZRBURLResponse"; }
  // "<ZRBURLResponse: 0x...> { URL: ... }".
  std::string description() const override;

 protected:
  ZRBURLPtr url_;
  std::optional<std::string> mimeType_;
  // A common type is shared rather than built per response; it stands in for mimeType_ when set.
  const std::optional<std::string>* knownMIMEType_ = nullptr;
  long long expectedContentLength_;
  std::optional<std::string> textEncodingName_;
};

class ZRBHTTPURLResponse final : public ZRBURLResponse {
 public:
  ZRBHTTPURLResponse(ZRBURLPtr url, long statusCode, std::optional<std::string> HTTPVersion,
                     ZRBHTTPHeaderFields headerFields);
  // From the lines a transport collected: the fields are made from them when first asked for, so
  // a response whose fields nobody reads costs little. The same response either way.
  ZRBHTTPURLResponse(ZRBURLPtr url, long statusCode, std::optional<std::string> HTTPVersion,
                     ZRBHTTPHeaderLines headerLines);
  // Header fields as a dictionary value (string keys; values as ZRBHTTPHeaderFields takes them).
  static ZRBHTTPURLResponsePtr make(ZRBURLPtr url, long statusCode, std::optional<std::string> HTTPVersion,
                                    const ZRBValue& headerFields);

  long statusCode() const { return statusCode_; }
  // "HTTP/1.1" unless given.
  const std::string& HTTPVersion() const { return httpVersion_; }
  // Every field in the order received, names as received; absent-free dictionary of strings.
  ZRBValue allHeaderFields() const { return headerFields().dictionary(); }
  const ZRBHTTPHeaderFields& headerFields() const;
  // Looked up without regard to case.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const {
    return headerFields().value(field);
  }
  std::string suggestedFilename() const override;

  // The lower-case text of a status code, as the platform words it:
  //   100 continue                       101 switching protocols
  //   200 no error                       201 created
  //   202 accepted                       203 non-authoritative information
  //   204 no content                     205 reset content
  //   206 partial content
  //   300 multiple choices               301 moved permanently
  //   302 found                          303 see other
  //   304 not modified                   305 use proxy
  //   307 temporarily redirected
  //   400 bad request                    401 unauthorized
  //   402 payment required               403 forbidden
  //   404 not found                      405 method not allowed
  //   406 unacceptable                   407 proxy authentication required
  //   408 request timed out              409 conflict
  //   410 no longer exists               411 length required
  //   412 precondition failed            413 request too large
  //   414 requested URL too long         415 unsupported media type
  //   416 requested range not satisfiable
  //   417 expectation failed
  //   500 internal server error          501 unimplemented
  //   502 bad gateway                    503 service unavailable
  //   504 gateway timed out              505 unsupported version
  // Any other code gets the text of its class: 1xx "informational", 2xx "success",
  // 3xx "redirected", 4xx "client error", everything else "server error".
  static std::string localizedStringForStatusCode(long statusCode);

  std::string className() const override { return "ZRBHTTPURLResponse"; }
  // "<ZRBHTTPURLResponse: 0x...> { URL: ... } { Status Code: 200, Headers {...} }".
  std::string description() const override;

 private:
  // Either the fields or the lines (the other empty).
  ZRBHTTPURLResponse(ZRBURLPtr url, long statusCode, std::optional<std::string> HTTPVersion,
                     ZRBHTTPHeaderFields headerFields, ZRBHTTPHeaderLines headerLines);

  long statusCode_;
  std::string httpVersion_;
  // Lines not yet made into fields; made into headers_ once, on first use, from any thread.
  mutable std::once_flag fieldsMade_;
  mutable ZRBHTTPHeaderLines lines_;
  mutable ZRBHTTPHeaderFields headers_;
};

// The parts of a Content-Type value: "Text/HTML; charset=\"UTF-8\"" gives "text/html" and
// "utf-8". The MIME type is absent for an empty value, the charset when the parameter is missing.
struct ZRBContentType {
  std::optional<std::string> MIMEType;
  std::optional<std::string> charset;
};
ZRBContentType ZRBParseContentType(std::string_view value);

// The file name a Content-Disposition value names: filename* (RFC 8187, UTF-8 or ISO-8859-1)
// before filename; nullopt when neither is usable.
std::optional<std::string> ZRBFilenameFromContentDisposition(std::string_view value);
