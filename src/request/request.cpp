#include "request/request.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <exception>
#include <functional>
#include <utility>

#include "platform/foundation/foundation_version.h"
#include "platform/foundation/json_serialization.h"
#include "platform/foundation/keyed_archiver.h"
#include "platform/foundation/string_format.h"
#include "platform/foundation/text_encoding.h"
#include "platform/system/file_manager.h"
#include "request/network_config.h"
#include "request/network_log.h"
#include "request/network_utils.h"

namespace {

std::string appendPathComponent(const std::string& base, std::string_view component) {
  std::string path = base;
  if (!path.empty() && path.back() != '/') path += '/';
  path += component;
  return path;
}

ZRBErrorPtr cacheError(ZRBRequestCacheError code, std::string_view description) {
  return ZRBError::withDescription(ZRBRequestCacheErrorDomain, code, description);
}

// What went wrong, as a platform exception's reason would say it: the debug text of a coder
// error, else the error's description.
std::string failureReason(const ZRBErrorPtr& error) {
  if (!error) return "unknown";
  const ZRBValue& debug = error->userInfo()[ZRBDebugDescriptionErrorKey];
  return debug.isString() ? debug.string() : error->localizedDescription();
}

// The same test for sensitive data and application versions: either present and not equal.
bool stringsDiffer(const std::optional<std::string>& stored, const std::optional<std::string>& current) {
  return (stored || current) && stored != current;
}

// Writers of one entry in this process take turns: asynchronous writes share the serial writing
// queue, but synchronous ones run on the agent's concurrent queue, and two interleaved writers
// could pair one's body with the other's record.
std::mutex& writeLockFor(const std::string& path) {
  static std::array<std::mutex, 16> locks;
  return locks[std::hash<std::string>{}(path) % locks.size()];
}

}  // namespace

const ZRBDispatchQueuePtr& KVrequest_cache_writing_queue() {
  // The platform gives this queue background quality of service from Foundation 1140.11 on; here
  // quality of service is a label of the global queues only, so a plain serial queue is the same.
  static_assert(ZRBFoundationVersionNumber >= 1140.11);
  static const ZRBDispatchQueuePtr queue = ZRBDispatchQueue::serial("com.velkit.zrb_request.caching");
  return queue;
}

// ---- cached state ----

bool ZRBRQ_Request::ignoreCache() const {
  std::lock_guard lock(fieldsMutex_);
  return ignoreCache_;
}

void ZRBRQ_Request::setIgnoreCache(bool ignoreCache) {
  std::lock_guard lock(fieldsMutex_);
  ignoreCache_ = ignoreCache;
}

bool ZRBRQ_Request::isDataFromCache() const {
  std::lock_guard lock(fieldsMutex_);
  return dataFromCache_;
}

ZRBValue ZRBRQ_Request::cacheData() const {
  std::lock_guard lock(fieldsMutex_);
  return cacheData_;
}

std::optional<std::string> ZRBRQ_Request::cacheString() const {
  std::lock_guard lock(fieldsMutex_);
  return cacheString_;
}

ZRBValue ZRBRQ_Request::cacheJSON() const {
  std::lock_guard lock(fieldsMutex_);
  return cacheJSON_;
}

ZRBXMLParserPtr ZRBRQ_Request::cacheXML() const {
  std::lock_guard lock(fieldsMutex_);
  return cacheXML_;
}

ZRBRQ_CacheMetadataPtr ZRBRQ_Request::cacheMetadata() const {
  std::lock_guard lock(fieldsMutex_);
  return cacheMetadata_;
}

void ZRBRQ_Request::clearCacheVariables() {
  std::lock_guard lock(fieldsMutex_);
  cacheData_ = ZRBValue();
  cacheXML_.reset();
  cacheJSON_ = ZRBValue();
  cacheString_.reset();
  cacheMetadata_.reset();
  dataFromCache_ = false;
}

// ---- response getters ----

ZRBValue ZRBRQ_Request::responseData() const {
  if (ZRBValue cached = cacheData()) return cached;
  return ZRBRQ_BaseRequest::responseData();
}

std::optional<std::string> ZRBRQ_Request::responseString() const {
  if (auto cached = cacheString()) return cached;
  return ZRBRQ_BaseRequest::responseString();
}

ZRBValue ZRBRQ_Request::responseJSONObject() const {
  if (ZRBValue cached = cacheJSON()) return cached;
  return ZRBRQ_BaseRequest::responseJSONObject();
}

ZRBValue ZRBRQ_Request::responseObject() const {
  {
    std::lock_guard lock(fieldsMutex_);
    if (cacheJSON_) return cacheJSON_;
    if (cacheXML_) return ZRBValue(cacheXML_);
    if (cacheData_) return cacheData_;
  }
  return ZRBRQ_BaseRequest::responseObject();
}

// ---- start ----

void ZRBRQ_Request::start() {
  if (ignoreCache() || resumableDownloadPath() || !loadCacheWithError()) {
    startWithoutCache();
    return;
  }
  {
    std::lock_guard lock(fieldsMutex_);
    dataFromCache_ = true;
  }
  // A hit answers like a network success, minus the accessories, and without the agent.
  ZRBDispatch::mainQueue()->async([self = selfRequest()] {
    self->requestCompletePreprocessor();
    self->requestCompleteFilter();
    const ZRBRQ_BaseRequestPtr request = self;
    if (auto delegate = self->delegate()) delegate->requestFinished(request);
    if (auto success = self->successCompletionBlock()) success(request);
    self->clearCompletionBlock();
  });
}

void ZRBRQ_Request::startWithoutCache() {
  std::lock_guard lock(lock_);
  clearCacheVariables();
  ZRBRQ_BaseRequest::start();
}

void ZRBRQ_Request::requestCompletePreprocessor() {
  ZRBRQ_BaseRequest::requestCompletePreprocessor();
  ZRBValue data = ZRBRQ_BaseRequest::responseData();
  // Nothing would be written: spare the hop to the writing queue.
  if (cacheTimeInSeconds() <= 0 || !data.isData()) return;
  if (writeCacheAsynchronously()) {
    KVrequest_cache_writing_queue()->async(
        [self = selfRequest(), data = std::move(data)] { self->saveResponseDataToCacheFile(data); });
  } else {
    saveResponseDataToCacheFile(data);
  }
}

// ---- loading ----

bool ZRBRQ_Request::loadCacheWithError(ZRBErrorPtr* error) {
  if (cacheTimeInSeconds() < 0) {
    ZRBSetError(error, cacheError(ZRBRequestCacheErrorInvalidCacheTime, "Invalid cache time"));
    return false;
  }
  // Both files of the entry from one look-up of the directory.
  const std::string bodyPath = cacheFilePath();
  if (!loadCacheMetadata(bodyPath + ".metadata")) {
    ZRBSetError(error,
                cacheError(ZRBRequestCacheErrorInvalidMetadata, "Invalid metadata. Cache may not exist"));
    return false;
  }
  if (!validateCacheWithError(error)) return false;
  if (!loadCacheData(bodyPath)) {
    ZRBSetError(error, cacheError(ZRBRequestCacheErrorInvalidCacheData, "Invalid cache data"));
    return false;
  }
  return true;
}

bool ZRBRQ_Request::validateCacheWithError(ZRBErrorPtr* error) {
  const ZRBRQ_CacheMetadataPtr metadata = cacheMetadata();
  if (!metadata) {
    ZRBSetError(error,
                cacheError(ZRBRequestCacheErrorInvalidMetadata, "Invalid metadata. Cache may not exist"));
    return false;
  }
  // Written so that a record without a creation date, or with one that is not a number, counts as
  // expired rather than as never expiring.
  const auto created = metadata->creationDate();
  const double age = created ? ZRBDate::now().secondsSince1970 - created->secondsSince1970 : -1;
  if (!(age >= 0 && age <= static_cast<double>(cacheTimeInSeconds()))) {
    ZRBSetError(error, cacheError(ZRBRequestCacheErrorExpired, "Cache expired"));
    return false;
  }
  if (metadata->version() != cacheVersion()) {
    ZRBSetError(error, cacheError(ZRBRequestCacheErrorVersionMismatch, "Cache version mismatch"));
    return false;
  }
  const ZRBValue sensitiveData = cacheSensitiveData();
  const auto currentSensitive =
      sensitiveData.isAbsent() ? std::nullopt : std::optional<std::string>(sensitiveData.description());
  if (stringsDiffer(metadata->sensitiveDataString(), currentSensitive)) {
    ZRBSetError(error,
                cacheError(ZRBRequestCacheErrorSensitiveDataMismatch, "Cache sensitive data mismatch"));
    return false;
  }
  if (stringsDiffer(metadata->appVersionString(), ZRBRQ_NetworkUtils::appVersionString())) {
    ZRBSetError(error, cacheError(ZRBRequestCacheErrorAppVersionMismatch, "App version mismatch"));
    return false;
  }
  return true;
}

bool ZRBRQ_Request::loadCacheMetadata() { return loadCacheMetadata(cacheMetadataFilePath()); }

bool ZRBRQ_Request::loadCacheMetadata(const std::string& path) {
  const auto& fileManager = ZRBFileManager::defaultManager();
  ZRBErrorPtr error;
  ZRBRQ_CacheMetadataPtr metadata;
  // Reading first and asking whether the file exists only on failure saves a look-up on a hit.
  if (auto bytes = fileManager->contentsAtPath(path, &error)) {
    metadata = ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBRQ_CacheMetadata>(*bytes, &error);
  } else if (!fileManager->fileExistsAtPath(path)) {
    return false;
  }
  if (!metadata) {
    ZRBNetworkLog("Load cache metadata failed, reason = %@", failureReason(error));
    return false;
  }
  std::lock_guard lock(fieldsMutex_);
  cacheMetadata_ = std::move(metadata);
  return true;
}

bool ZRBRQ_Request::loadCacheData() { return loadCacheData(cacheFilePath()); }

bool ZRBRQ_Request::loadCacheData(const std::string& path) {
  auto bytes = ZRBFileManager::defaultManager()->contentsAtPath(path);
  if (!bytes) return false;
  const ZRBValue data = ZRBValue::data(std::move(*bytes));
  const ZRBRQ_CacheMetadataPtr metadata = cacheMetadata();
  // A record without an encoding decodes nothing, as the platform's invalid encoding 0 would.
  const ZRBStringEncoding encoding = metadata && metadata->stringEncoding()
                                         ? *metadata->stringEncoding()
                                         : static_cast<ZRBStringEncoding>(0);
  std::optional<std::string> string = ZRBStringFromBytes(data.bytes(), encoding);
  ZRBValue json;
  ZRBXMLParserPtr xml;
  bool ok = true;
  switch (responseSerializerType()) {
    case ZRBRQ_ResponseSerializerTypeHTTP: break;
    case ZRBRQ_ResponseSerializerTypeJSON: {
      ZRBErrorPtr error;
      json = ZRBJSONSerialization::JSONObjectWithData(data.bytes(), {}, &error);
      ok = !error;
      break;
    }
    case ZRBRQ_ResponseSerializerTypeXMLParser: xml = ZRBXMLParser::parserWithData(data); break;
  }
  std::lock_guard lock(fieldsMutex_);
  cacheData_ = data;
  cacheString_ = std::move(string);
  cacheJSON_ = std::move(json);
  cacheXML_ = std::move(xml);
  return ok;
}

// ---- writing ----

void ZRBRQ_Request::saveResponseDataToCacheFile(const ZRBValue& data) {
  if (cacheTimeInSeconds() <= 0 || isDataFromCache() || !data.isData()) return;
  try {
    const auto& fileManager = ZRBFileManager::defaultManager();
    const std::string bodyPath = cacheFilePath();
    const std::string metadataPath = bodyPath + ".metadata";
    std::lock_guard turn(writeLockFor(bodyPath));
    ZRBErrorPtr error;
    // The old record goes first: until the new one is in place the entry is a miss, so no
    // interruption can leave a new body under the old record (or the reverse).
    if (::unlink(metadataPath.c_str()) != 0 && errno != ENOENT) {
      error = ZRBFileErrorFromErrno(errno, metadataPath, true);
    } else if (fileManager->writeData(data.bytes(), bodyPath, true, &error)) {
      ZRBRQ_CacheMetadata metadata;
      metadata.setVersion(cacheVersion());
      const ZRBValue sensitiveData = cacheSensitiveData();
      if (!sensitiveData.isAbsent()) metadata.setSensitiveDataString(sensitiveData.description());
      metadata.setStringEncoding(ZRBRQ_NetworkUtils::stringEncodingWithResponse(response()));
      metadata.setCreationDate(ZRBDate::now());
      metadata.setAppVersionString(ZRBRQ_NetworkUtils::appVersionString());
      if (auto archive = ZRBKeyedArchiver::archivedDataWithRootObject(metadata, true, &error)) {
        if (fileManager->writeData(*archive, metadataPath, true, &error)) return;
      }
    }
    ZRBNetworkLog("Save cache failed, reason = %@", failureReason(error));
  } catch (const std::exception& exception) {
    ZRBNetworkLog("Save cache failed, reason = %@", exception.what());
  }
}

// ---- files ----

std::string ZRBRQ_Request::cacheFileName() {
  const std::string requestInfo =
      ZRBStringWithFormat("Method:%ld Host:%@ Url:%@ Argument:%@", static_cast<long>(requestMethod()),
                          ZRBRQ_NetworkConfig::sharedConfig()->baseUrl(), requestUrl(),
                          cacheFileNameFilterForRequestArgument(requestArgument()));
  return ZRBRQ_NetworkUtils::md5StringFromString(requestInfo);
}

std::string ZRBRQ_Request::cacheFilePath() { return appendPathComponent(cacheBasePath(), cacheFileName()); }

std::string ZRBRQ_Request::cacheMetadataFilePath() { return cacheFilePath() + ".metadata"; }

std::string ZRBRQ_Request::cacheBasePath() {
  std::string path =
      appendPathComponent(ZRBFileManager::defaultManager()->libraryDirectory(), "RequestCache");
  const auto filters = ZRBRQ_NetworkConfig::sharedConfig()->cacheDirPathFilters();
  if (!filters.empty()) {
    const ZRBRQ_BaseRequestPtr request = self();
    for (const auto& filter : filters) {
      if (filter) path = filter->filterCacheDirPath(path, request);
    }
  }
  createDirectoryIfNeeded(path);
  return path;
}

void ZRBRQ_Request::createDirectoryIfNeeded(const std::string& path) {
  const auto& fileManager = ZRBFileManager::defaultManager();
  bool isDirectory = false;
  if (!fileManager->fileExistsAtPath(path, &isDirectory)) {
    createBaseDirectoryAtPath(path);
  } else if (!isDirectory) {
    fileManager->removeItemAtPath(path);
    createBaseDirectoryAtPath(path);
  }
}

void ZRBRQ_Request::createBaseDirectoryAtPath(const std::string& path) {
  ZRBErrorPtr error;
  if (!ZRBFileManager::defaultManager()->createDirectoryAtPath(path, true, &error)) {
    ZRBNetworkLog("create cache directory failed, error = %@", error);
  } else {
    ZRBRQ_NetworkUtils::addDoNotBackupAttribute(path);
  }
}
