// ZRBRQ_Request: a request with an on-disk response cache.
//
// A subclass that returns a positive cacheTimeInSeconds() answers start() from its cache file,
// without the network, while the file is fresh and its metadata (cache_metadata.h) match the
// request's cacheVersion(), cacheSensitiveData() and the application version. After a network
// success it writes the body and a metadata record to disk. The default cache time, -1, turns all
// of it off: start() always goes to the network and nothing is written.
//
// start():
//   1. ignoreCache, or a resumable download (downloads are never cached): startWithoutCache();
//   2. loadCacheWithError() succeeds: the request is marked dataFromCache and, asynchronously on
//      the main queue, requestCompletePreprocessor, requestCompleteFilter, the delegate's
//      requestFinished, the success callback and clearCompletionBlock run. No accessory is called
//      and the network agent is not involved;
//   3. any miss: startWithoutCache(). Why the cache missed is not reported to the callbacks.
// startWithoutCache() clears the cached fields and starts through the agent, under the request's
// start lock, so the response getters then show the network's results.
//
// Response getters prefer cached values: responseData = cacheData, responseString = cacheString,
// responseJSONObject = cacheJSON, responseObject = cacheJSON, else cacheXML, else cacheData; each
// falls back to the network's value when the cached one is null.
//
// Files: the directory is the Library directory's "RequestCache", passed through every
// cache-directory filter of ZRBRQ_NetworkConfig in order, created when missing (a plain file in its
// place is removed first) and marked as not to be backed up. The file name is the lower-case hex
// MD5 of "Method:%ld Host:%@ Url:%@ Argument:%@" with requestMethod, the configuration's base URL
// (never the request's own, so requests differing only in baseUrl share a file), requestUrl and
// cacheFileNameFilterForRequestArgument(requestArgument). The body file holds the raw response
// bytes; "<name>.metadata" beside it holds the keyed archive of the metadata.
//
// loadCacheWithError() fails, in this order, with an error in ZRBRequestCacheErrorDomain:
//   -5 "Invalid cache time"                      cacheTimeInSeconds() < 0
//   -6 "Invalid metadata. Cache may not exist"   no metadata file, or not an archive of the record
//   -1 "Cache expired"                           age negative or above the cache time (a missing
//                                                or non-numeric creation date counts as expired)
//   -2 "Cache version mismatch"                  (a missing version matches no cacheVersion)
//   -3 "Cache sensitive data mismatch"
//   -4 "App version mismatch"
//   -7 "Invalid cache data"                      no or unreadable body file, or a JSON body that no
//                                                longer parses
// Every miss falls back to the network in start().
//
// Writing: after requestCompletePreprocessor, on the serial queue "com.velkit.zrb_request.caching"
// (writeCacheAsynchronously(), the default) or at once on the agent's processing queue. Only with a
// positive cache time, a body, and a response that did not come from the cache. The old metadata
// file is removed first, then the body and then the new metadata are each written to a temporary
// file and renamed into place: a writer killed at any point leaves the old entry, the new one, or a
// body without metadata (a miss), never a body under metadata that was written for another one.
// Writers of one entry in one process take turns.
// Write failures are logged ("Save cache failed, reason = %@") and otherwise ignored.
//
// Log texts (through ZRBNetworkLog): "Load cache metadata failed, reason = %@",
// "Save cache failed, reason = %@", "create cache directory failed, error = %@".
//
// Threads: start() reads the cache on the caller's thread; the cached fields are guarded by a lock
// of their own, the start lock only serialises startWithoutCache().
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"
#include "platform/foundation/xml_parser.h"
#include "platform/runtime/dispatch.h"
#include "request/base_request.h"
#include "request/cache_metadata.h"
#include "settings/error_domains.h"

// Codes of ZRBRequestCacheErrorDomain.
enum ZRBRequestCacheError : long {
  ZRBRequestCacheErrorExpired = -1,
  ZRBRequestCacheErrorVersionMismatch = -2,
  ZRBRequestCacheErrorSensitiveDataMismatch = -3,
  ZRBRequestCacheErrorAppVersionMismatch = -4,
  ZRBRequestCacheErrorInvalidCacheTime = -5,
  ZRBRequestCacheErrorInvalidMetadata = -6,
  ZRBRequestCacheErrorInvalidCacheData = -7,
};

// The cache writing queue: serial, "com.velkit.zrb_request.caching", created once.
const ZRBDispatchQueuePtr& KVrequest_cache_writing_queue();

class ZRBRQ_Request;
using ZRBRQ_RequestPtr = std::shared_ptr<ZRBRQ_Request>;

class ZRBRQ_Request : public ZRBRQ_BaseRequest {
 public:
  ZRBRQ_Request() = default;
  ~ZRBRQ_Request() override = default;

  // ---- overridable cache description ----
  // Seconds an entry stays valid; negative turns the cache off.
  virtual long cacheTimeInSeconds() const { return -1; }
  virtual long long cacheVersion() const { return 0; }
  // Compared through its description; absent for none.
  virtual ZRBValue cacheSensitiveData() const { return ZRBValue(); }
  virtual bool writeCacheAsynchronously() const { return true; }

  // ---- operations ----
  // With the cache decision above.
  void start() override;
  // Clears the cached fields and starts through the agent, under the start lock.
  void startWithoutCache();
  // Whether the cache holds a valid entry for this request; on success the cached fields are set.
  bool loadCacheWithError(ZRBErrorPtr* error = nullptr);
  // Writes `data` and a fresh metadata record (see "Writing" above). Public so that hosts and
  // tools can fill a cache ahead of time.
  void saveResponseDataToCacheFile(const ZRBValue& data);

  // ---- cached state ----
  bool ignoreCache() const;
  void setIgnoreCache(bool ignoreCache);
  bool isDataFromCache() const;
  ZRBValue cacheData() const;
  std::optional<std::string> cacheString() const;
  ZRBValue cacheJSON() const;
  ZRBXMLParserPtr cacheXML() const;
  ZRBRQ_CacheMetadataPtr cacheMetadata() const;

  // ---- files ----
  std::string cacheFilePath();
  std::string cacheMetadataFilePath();
  // The directory, created (and marked) when needed.
  std::string cacheBasePath();
  std::string cacheFileName();

  // ---- response getters, preferring cached values ----
  ZRBValue responseData() const override;
  std::optional<std::string> responseString() const override;
  ZRBValue responseObject() const override;
  ZRBValue responseJSONObject() const override;

  // Queues the cache write after the base operation.
  void requestCompletePreprocessor() override;

  ZRBRQ_RequestPtr selfRequest() { return std::static_pointer_cast<ZRBRQ_Request>(shared_from_this()); }
  std::string className() const override { return "ZRBRQ_Request"; }

 protected:
  void clearCacheVariables();
  bool validateCacheWithError(ZRBErrorPtr* error);
  bool loadCacheMetadata();
  bool loadCacheData();
  // The same steps on paths already computed.
  bool loadCacheMetadata(const std::string& path);
  bool loadCacheData(const std::string& path);
  void createDirectoryIfNeeded(const std::string& path);
  void createBaseDirectoryAtPath(const std::string& path);

 private:
  std::mutex lock_;  // held by startWithoutCache around clearing and starting
  mutable std::mutex fieldsMutex_;
  bool ignoreCache_ = false;
  bool dataFromCache_ = false;
  ZRBValue cacheData_;
  std::optional<std::string> cacheString_;
  ZRBValue cacheJSON_;
  ZRBXMLParserPtr cacheXML_;
  ZRBRQ_CacheMetadataPtr cacheMetadata_;
};
