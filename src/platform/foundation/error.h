// ZRBError: the error record through which every recoverable failure reaches a caller.
//
// A record is a domain, an integer code and a user-info dictionary. Records are immutable and
// shared (ZRBErrorPtr); functions that can fail take an optional `ZRBErrorPtr* error` out-parameter
// and leave it untouched on success.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

class ZRBError;
using ZRBErrorPtr = std::shared_ptr<const ZRBError>;

// ---- domains of the platform layer ----
inline constexpr std::string_view ZRBURLErrorDomain = "ZRBURLErrorDomain";
inline constexpr std::string_view ZRBCocoaErrorDomain = "ZRBCocoaErrorDomain";
inline constexpr std::string_view ZRBPOSIXErrorDomain = "ZRBPOSIXErrorDomain";
inline constexpr std::string_view ZRBOSStatusErrorDomain = "ZRBOSStatusErrorDomain";

// ---- user-info keys ----
inline constexpr std::string_view ZRBLocalizedDescriptionKey = "ZRBLocalizedDescription";
inline constexpr std::string_view ZRBLocalizedFailureReasonErrorKey = "ZRBLocalizedFailureReason";
inline constexpr std::string_view ZRBLocalizedRecoverySuggestionErrorKey = "ZRBLocalizedRecoverySuggestion";
inline constexpr std::string_view ZRBUnderlyingErrorKey = "ZRBUnderlyingError";
inline constexpr std::string_view ZRBURLErrorFailingURLErrorKey = "ZRBErrorFailingURLKey";
inline constexpr std::string_view ZRBURLErrorFailingURLStringErrorKey = "ZRBErrorFailingURLStringKey";
inline constexpr std::string_view ZRBFilePathErrorKey = "ZRBFilePath";
inline constexpr std::string_view ZRBDebugDescriptionErrorKey = "ZRBDebugDescription";
// Resume data attached to a cancelled or failed download.
inline constexpr std::string_view ZRBURLSessionDownloadTaskResumeData = "ZRBURLSessionDownloadTaskResumeData";

// Codes of ZRBURLErrorDomain, with the platform's values.
enum ZRBURLError : long {
  ZRBURLErrorUnknown = -1,
  ZRBURLErrorCancelled = -999,
  ZRBURLErrorBadURL = -1000,
  ZRBURLErrorTimedOut = -1001,
  ZRBURLErrorUnsupportedURL = -1002,
  ZRBURLErrorCannotFindHost = -1003,
  ZRBURLErrorCannotConnectToHost = -1004,
  ZRBURLErrorNetworkConnectionLost = -1005,
  ZRBURLErrorDNSLookupFailed = -1006,
  ZRBURLErrorHTTPTooManyRedirects = -1007,
  ZRBURLErrorResourceUnavailable = -1008,
  ZRBURLErrorNotConnectedToInternet = -1009,
  ZRBURLErrorRedirectToNonExistentLocation = -1010,
  ZRBURLErrorBadServerResponse = -1011,
  ZRBURLErrorUserCancelledAuthentication = -1012,
  ZRBURLErrorUserAuthenticationRequired = -1013,
  ZRBURLErrorZeroByteResource = -1014,
  ZRBURLErrorCannotDecodeRawData = -1015,
  ZRBURLErrorCannotDecodeContentData = -1016,
  ZRBURLErrorCannotParseResponse = -1017,
  ZRBURLErrorRequestBodyStreamExhausted = -1021,
  ZRBURLErrorFileDoesNotExist = -1100,
  ZRBURLErrorFileIsDirectory = -1101,
  ZRBURLErrorNoPermissionsToReadFile = -1102,
  ZRBURLErrorDataLengthExceedsMaximum = -1103,
  ZRBURLErrorSecureConnectionFailed = -1200,
  ZRBURLErrorServerCertificateHasBadDate = -1201,
  ZRBURLErrorServerCertificateUntrusted = -1202,
  ZRBURLErrorServerCertificateHasUnknownRoot = -1203,
  ZRBURLErrorServerCertificateNotYetValid = -1204,
  ZRBURLErrorClientCertificateRejected = -1205,
  ZRBURLErrorClientCertificateRequired = -1206,
  ZRBURLErrorCannotLoadFromNetwork = -2000,
  ZRBURLErrorCannotCreateFile = -3000,
  ZRBURLErrorCannotOpenFile = -3001,
  ZRBURLErrorCannotCloseFile = -3002,
  ZRBURLErrorCannotWriteToFile = -3003,
  ZRBURLErrorCannotRemoveFile = -3004,
  ZRBURLErrorCannotMoveFile = -3005,
  ZRBURLErrorDownloadDecodingFailedMidStream = -3006,
  ZRBURLErrorDownloadDecodingFailedToComplete = -3007,
};

// Codes of ZRBCocoaErrorDomain, with the platform's values.
enum ZRBCocoaError : long {
  ZRBFileNoSuchFileError = 4,
  ZRBFileReadUnknownError = 256,
  ZRBFileReadNoPermissionError = 257,
  ZRBFileReadNoSuchFileError = 260,
  ZRBFileReadCorruptFileError = 259,
  ZRBFileWriteUnknownError = 512,
  ZRBFileWriteNoPermissionError = 513,
  ZRBFileWriteFileExistsError = 516,
  ZRBFileWriteOutOfSpaceError = 640,
  // The JSON reader and the property-list reader report malformed input with this code.
  ZRBPropertyListReadCorruptError = 3840,
  ZRBPropertyListReadUnknownVersionError = 3841,
  ZRBPropertyListWriteInvalidError = 3852,
  ZRBCoderReadCorruptError = 4864,
  ZRBCoderValueNotFoundError = 4865,
  ZRBCoderInvalidValueError = 4866,
};

class ZRBError final : public ZRBObject {
 public:
  ZRBError(std::string domain, long code, ZRBValue userInfo = ZRBValue());

  static ZRBErrorPtr make(std::string_view domain, long code, ZRBValue userInfo = ZRBValue());
  // A record whose user info holds just a localized description.
  static ZRBErrorPtr withDescription(std::string_view domain, long code, std::string_view description);
  // ZRBPOSIXErrorDomain with errno's value and strerror's text.
  static ZRBErrorPtr fromErrno(int errnoValue, std::string_view path = {});

  const std::string& domain() const { return domain_; }
  long code() const { return code_; }
  // A dictionary; empty (never absent) when none was given.
  const ZRBValue& userInfo() const { return userInfo_; }

  // The user info's description, else one built from the domain and code as the platform does:
  // "The operation couldn’t be completed. (DOMAIN error CODE.)".
  std::string localizedDescription() const;
  std::optional<std::string> localizedFailureReason() const;
  ZRBErrorPtr underlyingError() const;

  // Whether this record, or any record under it, has the code in the domain.
  bool hasCodeInChain(std::string_view domain, long code) const;

  std::string className() const override { return "ZRBError"; }
  // "Error Domain=D Code=C \"description\" UserInfo={...}".
  std::string description() const override;
  bool isEqual(const ZRBObject& other) const override;
  std::size_t hash() const override;

 private:
  std::string domain_;
  long code_;
  ZRBValue userInfo_;
};

// Stores `value` in an optional out-parameter.
inline void ZRBSetError(ZRBErrorPtr* out, ZRBErrorPtr value) {
  if (out) *out = std::move(value);
}
