// ZRBCachedURLResponse and ZRBURLCache: responses kept for later loads.
//
// The cache is a memory store keyed by URL, for GET requests. A session with a cache offers each
// cacheable response (status 200, body within the size limit) to its delegate's will-cache callback
// and stores what the delegate returns. Stored responses are used by requests whose cache policy is
// ReturnCacheDataElseLoad or ReturnCacheDataDontLoad; there is no HTTP freshness logic.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"
#include "platform/net/url_request.h"

enum ZRBURLCacheStoragePolicy : unsigned long {
  ZRBURLCacheStorageAllowed = 0,
  ZRBURLCacheStorageAllowedInMemoryOnly = 1,
  ZRBURLCacheStorageNotAllowed = 2,
};

class ZRBCachedURLResponse;
using ZRBCachedURLResponsePtr = std::shared_ptr<const ZRBCachedURLResponse>;

class ZRBCachedURLResponse final : public ZRBObject {
 public:
  ZRBCachedURLResponse(ZRBURLResponsePtr response, ZRBValue data,
                       ZRBURLCacheStoragePolicy storagePolicy = ZRBURLCacheStorageAllowed);

  const ZRBURLResponsePtr& response() const { return response_; }
  const ZRBValue& data() const { return data_; }
  ZRBURLCacheStoragePolicy storagePolicy() const { return storagePolicy_; }

  std::string className() const override { return "ZRBCachedURLResponse"; }

 private:
  ZRBURLResponsePtr response_;
  ZRBValue data_;
  ZRBURLCacheStoragePolicy storagePolicy_;
};

class ZRBURLCache final : public ZRBObject {
 public:
  // Least recently used entries go first once the bodies exceed `memoryCapacity` bytes.
  explicit ZRBURLCache(std::size_t memoryCapacity = 4 << 20);

  ZRBCachedURLResponsePtr cachedResponseForRequest(const ZRBURLRequest& request);
  // Ignored for non-GET requests and for responses whose policy is NotAllowed.
  void storeCachedResponse(ZRBCachedURLResponsePtr response, const ZRBURLRequest& request);
  void removeCachedResponseForRequest(const ZRBURLRequest& request);
  void removeAllCachedResponses();

  std::size_t memoryCapacity() const { return capacity_; }
  std::size_t currentMemoryUsage() const;
  // Bodies larger than this share of the capacity are not offered for caching.
  std::size_t maximumEntrySize() const { return capacity_ / 20; }

  std::string className() const override { return "ZRBURLCache"; }

 private:
  struct Entry {
    std::string key;
    ZRBCachedURLResponsePtr response;
  };
  void evict();  // with mutex_ held

  std::size_t capacity_;
  std::size_t usage_ = 0;
  mutable std::mutex mutex_;
  std::list<Entry> entries_;  // most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};
