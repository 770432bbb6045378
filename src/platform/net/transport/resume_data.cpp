#include "platform/net/transport/resume_data.h"

#include "platform/foundation/property_list_serialization.h"

ZRBValue ZRBEncodeResumeData(const ZRBDownloadResumeInfo& info) {
  std::vector<ZRBDictionaryEntry> entries;
  entries.emplace_back(ZRBValue(ZRBResumeInfoVersionKey), ZRBValue(1));
  entries.emplace_back(ZRBValue(ZRBResumeURLKey), ZRBValue(info.URL));
  if (info.entityTag) entries.emplace_back(ZRBValue(ZRBResumeEntityTagKey), ZRBValue(*info.entityTag));
  if (info.lastModified)
    entries.emplace_back(ZRBValue(ZRBResumeLastModifiedKey), ZRBValue(*info.lastModified));
  entries.emplace_back(ZRBValue(ZRBResumeBytesReceivedKey),
                       ZRBValue(static_cast<long long>(info.bytesReceived)));
  if (info.expectedTotal) {
    entries.emplace_back(ZRBValue(ZRBResumeExpectedTotalKey),
                         ZRBValue(static_cast<long long>(*info.expectedTotal)));
  }
  entries.emplace_back(ZRBValue(ZRBResumePartialFilePathKey), ZRBValue(info.partialFilePath));
  auto bytes = ZRBPropertyListSerialization::dataWithPropertyList(ZRBValue::dictionary(std::move(entries)),
                                                                  ZRBPropertyListBinaryFormat_v1_0);
  return bytes ? ZRBValue::data(std::move(*bytes)) : ZRBValue();
}

std::optional<ZRBDownloadResumeInfo> ZRBDecodeResumeData(const ZRBValue& data) {
  if (!data.isData() || data.bytes().empty()) return std::nullopt;
  ZRBValue plist = ZRBPropertyListSerialization::propertyListWithData(data.bytes());
  if (!plist.isDictionary()) return std::nullopt;
  const ZRBValue& url = plist[ZRBResumeURLKey];
  const ZRBValue& received = plist[ZRBResumeBytesReceivedKey];
  const ZRBValue& path = plist[ZRBResumePartialFilePathKey];
  if (!url.isString() || !received.isInteger() || received.intValue() < 0 || !path.isString())
    return std::nullopt;
  ZRBDownloadResumeInfo info;
  info.URL = url.string();
  info.entityTag = plist[ZRBResumeEntityTagKey].optionalString();
  info.lastModified = plist[ZRBResumeLastModifiedKey].optionalString();
  info.bytesReceived = received.intValue();
  if (plist[ZRBResumeExpectedTotalKey].isInteger())
    info.expectedTotal = plist[ZRBResumeExpectedTotalKey].intValue();
  info.partialFilePath = path.string();
  return info;
}
