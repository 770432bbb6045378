// Resume data of a download: a binary property list of our own that says where a cancelled or
// failed download stopped, so a later download can ask for the rest.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/value.h"

struct ZRBDownloadResumeInfo {
  std::string URL;
  std::optional<std::string> entityTag;     // the ETag, as sent
  std::optional<std::string> lastModified;  // the Last-Modified text, as sent
  std::int64_t bytesReceived = 0;
  std::optional<std::int64_t> expectedTotal;
  std::string partialFilePath;
};

// Keys of the property list.
inline constexpr std::string_view ZRBResumeInfoVersionKey = "ZRBResumeInfoVersion";
inline constexpr std::string_view ZRBResumeURLKey = "ZRBResumeURL";
inline constexpr std::string_view ZRBResumeEntityTagKey = "ZRBResumeEntityTag";
inline constexpr std::string_view ZRBResumeLastModifiedKey = "ZRBResumeLastModified";
inline constexpr std::string_view ZRBResumeBytesReceivedKey = "ZRBResumeBytesReceived";
inline constexpr std::string_view ZRBResumeExpectedTotalKey = "ZRBResumeExpectedTotal";
inline constexpr std::string_view ZRBResumePartialFilePathKey = "ZRBResumePartialFilePath";

ZRBValue ZRBEncodeResumeData(const ZRBDownloadResumeInfo& info);
// nullopt unless the bytes are a property list with at least the URL, the byte count and the path.
std::optional<ZRBDownloadResumeInfo> ZRBDecodeResumeData(const ZRBValue& data);
