#include "platform/net/url_cache.h"

ZRBCachedURLResponse::ZRBCachedURLResponse(ZRBURLResponsePtr response, ZRBValue data,
                                           ZRBURLCacheStoragePolicy storagePolicy)
    : response_(std::move(response)), data_(std::move(data)), storagePolicy_(storagePolicy) {}

namespace {
std::string cacheKey(const ZRBURLRequest& request) {
  if (!request.URL() || request.HTTPMethod() != "GET") return {};
  return request.URL()->absoluteString();
}
std::size_t entrySize(const ZRBCachedURLResponse& response) { return response.data().bytes().size(); }
}  // namespace

ZRBURLCache::ZRBURLCache(std::size_t memoryCapacity) : capacity_(memoryCapacity) {}

ZRBCachedURLResponsePtr ZRBURLCache::cachedResponseForRequest(const ZRBURLRequest& request) {
  std::string key = cacheKey(request);
  if (key.empty()) return nullptr;
  std::lock_guard lock(mutex_);
  auto found = index_.find(key);
  if (found == index_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, found->second);
  return found->second->response;
}

void ZRBURLCache::storeCachedResponse(ZRBCachedURLResponsePtr response, const ZRBURLRequest& request) {
  std::string key = cacheKey(request);
  if (key.empty() || !response || response->storagePolicy() == ZRBURLCacheStorageNotAllowed) return;
  std::lock_guard lock(mutex_);
  if (auto found = index_.find(key); found != index_.end()) {
    usage_ -= entrySize(*found->second->response);
    entries_.erase(found->second);
    index_.erase(found);
  }
  usage_ += entrySize(*response);
  entries_.push_front(Entry{key, std::move(response)});
  index_.emplace(std::move(key), entries_.begin());
  evict();
}

void ZRBURLCache::removeCachedResponseForRequest(const ZRBURLRequest& request) {
  std::string key = cacheKey(request);
  std::lock_guard lock(mutex_);
  auto found = index_.find(key);
  if (found == index_.end()) return;
  usage_ -= entrySize(*found->second->response);
  entries_.erase(found->second);
  index_.erase(found);
}

void ZRBURLCache::removeAllCachedResponses() {
  std::lock_guard lock(mutex_);
  entries_.clear();
  index_.clear();
  usage_ = 0;
}

std::size_t ZRBURLCache::currentMemoryUsage() const {
  std::lock_guard lock(mutex_);
  return usage_;
}

void ZRBURLCache::evict() {
  while (usage_ > capacity_ && !entries_.empty()) {
    usage_ -= entrySize(*entries_.back().response);
    index_.erase(entries_.back().key);
    entries_.pop_back();
  }
}
