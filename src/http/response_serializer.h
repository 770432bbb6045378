// ZRBHS_HTTPResponseSerializer: validates an HTTP response (status code and content type) and hands
// back its body; the base of every response serializer.
//
// Validation (validateResponse) looks only at HTTP responses; anything else is valid.
//   - Content type: with acceptableContentTypes set, a MIME type outside the set is invalid, except
//     that an absent MIME type with an empty body passes. The -1016 error
//     (ZRBURLErrorCannotDecodeContentData) is made only for a non-empty body and a response with a
//     URL: "Request failed: unacceptable content-type: %@".
//   - Status code: with acceptableStatusCodes set, a code outside it (and a response with a URL) is
//     invalid with a -1011 error (ZRBURLErrorBadServerResponse), "Request failed: %@ (%ld)" with the
//     status text; it is chained onto the content-type error, which becomes its underlying error.
// Errors are in ZRBHS_ResponseSerializationErrorDomain; their user info holds the localized
// description (through the "ZRBNetworking" table), the failing URL, the response under
// ZRBHS_ResponseSerializationResponseKey and, when a body was given, the body under
// ZRBHS_ResponseSerializationDataKey. An invalid response can come back without an error (an empty
// body with a wrong content type): the out error is then set to null.
//
// The decoding subclasses share one guard (guardResponse): when validation fails they decode
// nothing if the caller asked for no error or if the failure involves the content type; a response
// that failed only on its status code is still decoded, and the caller gets object and error.
//
// Serializers are configured once and then shared: every accessor is thread-safe, and a response
// is judged against the configuration as it stands at one moment.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/foundation/error.h"
#include "platform/foundation/index_set.h"
#include "platform/foundation/keyed_archiver.h"
#include "platform/foundation/object.h"
#include "platform/foundation/text_encoding.h"
#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"
#include "settings/error_domains.h"

// The response serialization interface: what a session manager or an agent holds.
class ZRBHS_URLResponseSerialization {
 public:
  virtual ~ZRBHS_URLResponseSerialization() = default;
  // The decoded object for the response and its body (a data value, or absent for no body); absent
  // when nothing could be decoded. `error`, when given, receives the failure, if any.
  virtual ZRBValue responseObjectForResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                             ZRBErrorPtr* error = nullptr) = 0;
};

class ZRBHS_HTTPResponseSerializer;
using ZRBHS_HTTPResponseSerializerPtr = std::shared_ptr<ZRBHS_HTTPResponseSerializer>;

class ZRBHS_HTTPResponseSerializer : public ZRBObject,
                                     public ZRBCoding,
                                     public ZRBHS_URLResponseSerialization {
 public:
  using ContentTypes = std::set<std::string, std::less<>>;

  // UTF-8, status codes 200 to 299, any content type.
  ZRBHS_HTTPResponseSerializer();
  static ZRBHS_HTTPResponseSerializerPtr serializer();

  ZRBStringEncoding stringEncoding() const;
  void setStringEncoding(ZRBStringEncoding stringEncoding);
  // nullopt: every status code is acceptable.
  std::optional<ZRBIndexSet> acceptableStatusCodes() const;
  void setAcceptableStatusCodes(std::optional<ZRBIndexSet> acceptableStatusCodes);
  // nullopt: every content type is acceptable. MIME types compare exactly (responses report them
  // lower-cased).
  std::optional<ContentTypes> acceptableContentTypes() const;
  void setAcceptableContentTypes(std::optional<ContentTypes> acceptableContentTypes);

  // Whether the response passes; when it does not and `error` is given, *error receives the error
  // made (possibly null).
  bool validateResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                        ZRBErrorPtr* error = nullptr);

  // Validates (the outcome only reaches *error) and returns the body as it is.
  ZRBValue responseObjectForResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                     ZRBErrorPtr* error = nullptr) override;

  // ---- copying and coding ----

  // A freshly initialised serializer of the same class with copies of both acceptable sets and the
  // subclass's own fields; the string encoding is not carried over.
  virtual ZRBHS_HTTPResponseSerializerPtr copy() const;

  static bool supportsSecureCoding() { return true; }
  // "acceptableStatusCodes" (as [location, length] ranges) and "acceptableContentTypes" (a set of
  // strings); each is left out when absent.
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBHS_HTTPResponseSerializer"; }
  // A fresh serializer whose acceptable sets are the archived ones (absent when missing).
  static ZRBHS_HTTPResponseSerializerPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_HTTPResponseSerializer"; }

 protected:
  // The common guard of the decoding serializers: validates, and answers whether decoding goes on.
  bool guardResponse(const ZRBURLResponsePtr& response, const ZRBValue& data, ZRBErrorPtr* error);
  // What copy() carries over from this serializer, into a fresh one.
  void copyStateInto(ZRBHS_HTTPResponseSerializer& fresh) const;
  // What initWithCoder reads, into a fresh one.
  void decodeStateFrom(ZRBKeyedUnarchiver& coder);

 private:
  mutable std::mutex mutex_;  // guards the fields below
  ZRBStringEncoding stringEncoding_ = ZRBUTF8StringEncoding;
  // Replaced whole on every change, so a validation reads a consistent snapshot without the lock.
  std::shared_ptr<const ZRBIndexSet> statusCodes_;    // null when absent
  std::shared_ptr<const ContentTypes> contentTypes_;  // null when absent
};

// `error` with `underlyingError` under ZRBUnderlyingErrorKey. Without an error the underlying one is
// the answer; without an underlying error, or when the error has one already, the error comes back
// unchanged.
ZRBErrorPtr KVHSErrorWithUnderlyingError(const ZRBErrorPtr& error, const ZRBErrorPtr& underlyingError);
// Whether the error, or any error under it, has the code in the domain.
bool KVHSErrorOrUnderlyingErrorHasCodeInDomain(const ZRBErrorPtr& error, long code, std::string_view domain);
