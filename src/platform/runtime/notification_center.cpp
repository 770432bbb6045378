#include "platform/runtime/notification_center.h"

#include <algorithm>

#include "platform/foundation/assert.h"

struct ZRBNotificationObserver::Record {
  std::string name;  // empty: every name
  // The object filter: an object is matched by identity and not kept alive; other values by equality.
  bool filtersObject = false;
  const void* objectIdentity = nullptr;
  std::weak_ptr<ZRBObject> objectWeak;
  ZRBValue objectValue;
  ZRBDispatchQueuePtr queue;
  std::uint64_t order = 0;
  const ZRBNotificationCenter* center = nullptr;

  std::mutex mutex;
  std::shared_ptr<const ZRBNotificationBlock> block;  // null once removed

  bool matches(const ZRBValue& object) const {
    if (!filtersObject) return true;
    if (objectIdentity) {
      return object.isObject() && object.object().get() == objectIdentity && !objectWeak.expired();
    }
    return object == objectValue;
  }

  void deliver(const ZRBNotificationPtr& notification) {
    std::shared_ptr<const ZRBNotificationBlock> current;
    {
      std::lock_guard lock(mutex);
      current = block;
    }
    if (current && *current) (*current)(notification);
  }
};

std::string ZRBNotification::description() const {
  return "<ZRBNotification: " + ZRBFormatPointer(this) + "> {name = " + name_ +
         "; object = " + object_.description() + "; userInfo = " + userInfo_.description() + "}";
}

ZRBNotificationCenter::ZRBNotificationCenter() = default;
ZRBNotificationCenter::~ZRBNotificationCenter() = default;

const std::shared_ptr<ZRBNotificationCenter>& ZRBNotificationCenter::defaultCenter() {
  // Immortal: observers may post from queue blocks still running while the process exits.
  static const auto* center =
      new std::shared_ptr<ZRBNotificationCenter>(std::make_shared<ZRBNotificationCenter>());
  return *center;
}

ZRBNotificationObserverPtr ZRBNotificationCenter::addObserver(std::string_view name, const ZRBValue& object,
                                                              ZRBDispatchQueuePtr queue,
                                                              ZRBNotificationBlock block) {
  ZRBAssert(block);
  auto record = std::make_shared<ZRBNotificationObserver::Record>();
  record->name = std::string(name);
  if (!object.isAbsent()) {
    record->filtersObject = true;
    if (object.isObject()) {
      ZRBObjectPtr target = object.object();
      record->objectIdentity = target.get();
      record->objectWeak = target;
    } else {
      record->objectValue = object;
    }
  }
  record->queue = std::move(queue);
  record->center = this;
  record->block = std::make_shared<const ZRBNotificationBlock>(std::move(block));
  {
    std::lock_guard lock(mutex_);
    record->order = nextOrder_++;
    (record->name.empty() ? anyName_ : byName_[record->name]).push_back(record);
    observerCount_.fetch_add(1, std::memory_order_release);
    generation_.fetch_add(1, std::memory_order_release);
  }
  return ZRBNotificationObserverPtr(new ZRBNotificationObserver(record));
}

void ZRBNotificationCenter::removeObserver(const ZRBNotificationObserverPtr& observer) {
  if (!observer || !observer->record_ || observer->record_->center != this) return;
  const RecordPtr& record = observer->record_;
  std::shared_ptr<const ZRBNotificationBlock> released;
  {
    // First: from here on no delivery takes the block any more.
    std::lock_guard lock(record->mutex);
    released.swap(record->block);
  }
  {
    std::lock_guard lock(mutex_);
    auto remove = [&](std::vector<RecordPtr>& list) {
      auto removed = std::remove(list.begin(), list.end(), record);
      observerCount_.fetch_sub(static_cast<std::size_t>(list.end() - removed), std::memory_order_release);
      generation_.fetch_add(1, std::memory_order_release);
      list.erase(removed, list.end());
    };
    if (record->name.empty()) {
      remove(anyName_);
    } else if (auto it = byName_.find(record->name); it != byName_.end()) {
      remove(it->second);
      if (it->second.empty()) byName_.erase(it);
    }
  }
  // `released` goes here (outside every lock), unless a delivery still holds the block.
}

bool ZRBNotificationCenter::hasObservers(const std::string& name) const {
  if (observerCount_.load(std::memory_order_acquire) == 0) return false;
  std::lock_guard lock(mutex_);
  return !anyName_.empty() || byName_.count(name) != 0;
}

std::size_t ZRBNotificationCenter::observerCount(const std::string& name) const {
  if (observerCount_.load(std::memory_order_acquire) == 0) return 0;
  std::lock_guard lock(mutex_);
  auto named = byName_.find(name);
  return anyName_.size() + (named == byName_.end() ? 0 : named->second.size());
}

std::size_t ZRBNotificationCenter::ObservedName::observerCount(const ZRBNotificationCenter& center) const {
  // The generation is read first: an answer worked out after it is at least as new as it.
  const std::uint64_t key = center.generation_.load(std::memory_order_acquire) + 1;
  const std::uint64_t remembered = remembered_.load(std::memory_order_acquire);
  constexpr std::uint64_t kCountMask = (std::uint64_t{1} << kCountBits) - 1;
  if (remembered >> kCountBits == key) return static_cast<std::size_t>(remembered & kCountMask);
  const std::size_t count = center.observerCount(name_);
  remembered_.store(key << kCountBits | std::min<std::uint64_t>(count, kCountMask),
                    std::memory_order_release);
  return count;
}

void ZRBNotificationCenter::post(std::string name, ZRBValue object, ZRBValue userInfo) {
  if (observerCount_.load(std::memory_order_acquire) == 0) return;
  post(std::make_shared<const ZRBNotification>(std::move(name), std::move(object), std::move(userInfo)));
}

void ZRBNotificationCenter::post(const ZRBNotificationPtr& notification) {
  ZRBAssert(notification);
  if (!notification) return;
  if (observerCount_.load(std::memory_order_acquire) == 0) return;
  std::vector<RecordPtr> targets;
  bool merged = false;
  {
    std::lock_guard lock(mutex_);
    if (auto it = byName_.find(notification->name()); it != byName_.end()) targets = it->second;
    merged = !targets.empty() && !anyName_.empty();
    targets.insert(targets.end(), anyName_.begin(), anyName_.end());
  }
  std::erase_if(targets, [&](const RecordPtr& r) { return !r->matches(notification->object()); });
  // Registration order, across named and catch-all observers (each list alone is in that order).
  if (merged) {
    std::sort(targets.begin(), targets.end(),
              [](const RecordPtr& a, const RecordPtr& b) { return a->order < b->order; });
  }
  for (const RecordPtr& record : targets) {
    if (record->queue) {
      record->queue->async([record, notification] { record->deliver(notification); });
    } else {
      record->deliver(notification);
    }
  }
}
