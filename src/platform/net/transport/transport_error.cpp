#include "platform/net/transport/transport_error.h"

#include <curl/curl.h>

namespace {
std::string_view descriptionFor(long code) {
  switch (code) {
    case ZRBURLErrorCancelled: return "cancelled";
    case ZRBURLErrorBadURL: return "bad URL";
    case ZRBURLErrorTimedOut: return "The request timed out.";
    case ZRBURLErrorUnsupportedURL: return "unsupported URL";
    case ZRBURLErrorCannotFindHost: return "A server with the specified hostname could not be found.";
    case ZRBURLErrorCannotConnectToHost: return "Could not connect to the server.";
    case ZRBURLErrorNetworkConnectionLost: return "The network connection was lost.";
    case ZRBURLErrorHTTPTooManyRedirects: return "too many HTTP redirects";
    case ZRBURLErrorResourceUnavailable: return "resource unavailable";
    case ZRBURLErrorBadServerResponse: return "The server returned a bad response.";
    case ZRBURLErrorUserCancelledAuthentication: return "The user canceled authentication.";
    case ZRBURLErrorCannotDecodeContentData: return "cannot decode content data";
    case ZRBURLErrorRequestBodyStreamExhausted: return "request body stream exhausted";
    case ZRBURLErrorFileDoesNotExist: return "The requested URL was not found on this server.";
    case ZRBURLErrorFileIsDirectory: return "file is directory";
    case ZRBURLErrorNoPermissionsToReadFile:
      return "You do not have permission to access the requested resource.";
    case ZRBURLErrorDataLengthExceedsMaximum: return "resource exceeds maximum size";
    case ZRBURLErrorSecureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case ZRBURLErrorServerCertificateHasBadDate: return "The certificate for this server has expired.";
    case ZRBURLErrorServerCertificateUntrusted: return "The certificate for this server is invalid.";
    case ZRBURLErrorServerCertificateHasUnknownRoot:
      return "The certificate for this server was signed by an unknown certifying authority.";
    case ZRBURLErrorServerCertificateNotYetValid: return "The certificate for this server is not yet valid.";
    case ZRBURLErrorCannotCreateFile: return "cannot create file";
    case ZRBURLErrorCannotWriteToFile: return "cannot write file";
    default: return "unknown error";
  }
}
}  // namespace

ZRBErrorPtr ZRBTransportError(long code, const ZRBURLPtr& url, ZRBErrorPtr underlying) {
  std::vector<ZRBDictionaryEntry> info;
  info.emplace_back(ZRBValue(ZRBLocalizedDescriptionKey), ZRBValue(descriptionFor(code)));
  if (url) {
    info.emplace_back(ZRBValue(ZRBURLErrorFailingURLErrorKey), ZRBValue(url));
    info.emplace_back(ZRBValue(ZRBURLErrorFailingURLStringErrorKey), ZRBValue(url->absoluteString()));
  }
  if (underlying) info.emplace_back(ZRBValue(ZRBUnderlyingErrorKey), ZRBValue(underlying));
  return ZRBError::make(ZRBURLErrorDomain, code, ZRBValue::dictionary(std::move(info)));
}

long ZRBURLErrorCodeForCurlCode(int curlCode) {
  switch (static_cast<CURLcode>(curlCode)) {
    case CURLE_OK: return 0;
    case CURLE_UNSUPPORTED_PROTOCOL: return ZRBURLErrorUnsupportedURL;
    case CURLE_URL_MALFORMAT: return ZRBURLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST: return ZRBURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT: return ZRBURLErrorCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT: return ZRBURLErrorTimedOut;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP_RETURNED_ERROR: return ZRBURLErrorBadServerResponse;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_HTTP3: return ZRBURLErrorNetworkConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS: return ZRBURLErrorHTTPTooManyRedirects;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_CACERT_BADFILE: return ZRBURLErrorSecureConnectionFailed;
    case CURLE_PEER_FAILED_VERIFICATION: return ZRBURLErrorServerCertificateUntrusted;
    case CURLE_ABORTED_BY_CALLBACK: return ZRBURLErrorCancelled;
    case CURLE_READ_ERROR:
    case CURLE_SEND_FAIL_REWIND: return ZRBURLErrorRequestBodyStreamExhausted;
    case CURLE_WRITE_ERROR: return ZRBURLErrorCannotWriteToFile;
    case CURLE_FILESIZE_EXCEEDED: return ZRBURLErrorDataLengthExceedsMaximum;
    case CURLE_BAD_CONTENT_ENCODING: return ZRBURLErrorCannotDecodeContentData;
    case CURLE_RANGE_ERROR: return ZRBURLErrorBadServerResponse;
    default: return ZRBURLErrorUnknown;
  }
}

ZRBErrorPtr ZRBTransportErrorFromCurl(int curlCode, std::string_view detail, const ZRBURLPtr& url) {
  std::string words =
      detail.empty() ? curl_easy_strerror(static_cast<CURLcode>(curlCode)) : std::string(detail);
  auto underlying = ZRBError::withDescription(ZRBTransportErrorDomain, curlCode, words);
  return ZRBTransportError(ZRBURLErrorCodeForCurlCode(curlCode), url, std::move(underlying));
}
