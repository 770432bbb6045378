// The URL error records of the transport: what each transport failure becomes, in the codes and
// words a user of the platform's URL loading service expects.
#pragma once

#include <string_view>

#include "platform/foundation/error.h"
#include "platform/foundation/url.h"

// The domain of the underlying records that carry libcurl's own result code and words.
inline constexpr std::string_view ZRBTransportErrorDomain = "ZRBTransportErrorDomain";

// A ZRBURLErrorDomain record with the code's description and, when given, the failing URL and the
// underlying record.
ZRBErrorPtr ZRBTransportError(long code, const ZRBURLPtr& url, ZRBErrorPtr underlying = nullptr);

// The URL error code for a libcurl result code.
long ZRBURLErrorCodeForCurlCode(int curlCode);

// The record for a libcurl failure, with libcurl's words (`detail`, may be empty) underneath.
ZRBErrorPtr ZRBTransportErrorFromCurl(int curlCode, std::string_view detail, const ZRBURLPtr& url);
