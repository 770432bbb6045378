// The library's own error domains and user-info keys. Platform-level domains (URL loading,
// codecs, POSIX) live in platform/error.h.
#pragma once

#include <string_view>

// Requests whose JSON body fails the request's JSON validator.
inline constexpr std::string_view ZRBRQ_RequestValidationErrorDomain = "com.velkit.request.validation";
// Response cache load failures.
inline constexpr std::string_view ZRBRequestCacheErrorDomain = "com.wvelkit.request.caching";
// Request serialization failures, and the key under which the failing request is given.
inline constexpr std::string_view ZRBHS_RequestSerializationErrorDomain =
    "com.brontide.error.serialization.request";
inline constexpr std::string_view ZRBHS_RequestSerializationFailingRequestKey =
    "com.brontide.serialization.request.error.response";
// Response validation and decoding failures, with the keys for the response and its body.
inline constexpr std::string_view ZRBHS_ResponseSerializationErrorDomain =
    "com.brontide.error.serialization.response";
inline constexpr std::string_view ZRBHS_ResponseSerializationResponseKey =
    "com.brontide.serialization.response.error.response";
inline constexpr std::string_view ZRBHS_ResponseSerializationDataKey =
    "com.brontide.serialization.response.error.data";
