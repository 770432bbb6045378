#include "model/class_info.h"

#include <semaphore>

namespace {

struct Cache {
  std::counting_semaphore<> semaphore{1};
  std::unordered_map<const ZRBMDClass*, std::shared_ptr<ZRBMDClassInfo>> classes;
  std::unordered_map<const ZRBMDClass*, std::shared_ptr<ZRBMDClassInfo>> metaclasses;

  static Cache& shared() {
    static Cache* cache = new Cache;  // lives for the process, as the records do
    return *cache;
  }
  auto& mapFor(const ZRBMDClass* cls) { return cls->isMetaclass() ? metaclasses : classes; }
};

// The list's records by name, skipping unnamed ones; null when the list is empty.
template <typename Info, typename Handle, typename Make>
std::shared_ptr<const ZRBMDClassInfo::Map<Info>> recordsByName(const std::vector<const Handle*>& list,
                                                               Make make) {
  if (list.empty()) return nullptr;
  auto map = std::make_shared<ZRBMDClassInfo::Map<Info>>();
  for (const Handle* handle : list) {
    auto info = make(handle);
    if (info && !info->name().empty()) (*map)[info->name()] = std::move(info);
  }
  return map;
}

template <typename Info>
std::shared_ptr<const ZRBMDClassInfo::Map<Info>> orEmpty(
    std::shared_ptr<const ZRBMDClassInfo::Map<Info>> map) {
  return map ? map : std::make_shared<const ZRBMDClassInfo::Map<Info>>();
}

}  // namespace

ZRBMDClassInfo::ZRBMDClassInfo(const ZRBMDClass* cls) {
  cls_ = cls;
  superCls_ = cls->superclass();
  isMeta_ = cls->isMetaclass();
  if (!isMeta_) {
    const ZRBMDClass* byName = ZRBMDClass::named(cls->name());
    metaCls_ = byName ? byName->metaclass() : cls->metaclass();
  }
  name_ = cls->name();
  update();
  superClassInfo_ = classInfoWithClass(superCls_);
}

void ZRBMDClassInfo::update() {
  auto methods =
      recordsByName<ZRBMDClassMethodInfo>(cls_->copyMethodList(), ZRBMDClassMethodInfo::initWithMethod);
  auto properties = recordsByName<ZRBMDClassPropertyInfo>(cls_->copyPropertyList(),
                                                          ZRBMDClassPropertyInfo::initWithProperty);
  auto ivars = recordsByName<ZRBMDClassIvarInfo>(cls_->copyIvarList(), ZRBMDClassIvarInfo::initWithIvar);
  {
    std::lock_guard lock(mapsMutex_);
    methodInfos_ = orEmpty(std::move(methods));
    propertyInfos_ = orEmpty(std::move(properties));
    ivarInfos_ = orEmpty(std::move(ivars));
  }
  needUpdate_.store(false, std::memory_order_release);
}

std::shared_ptr<const ZRBMDClassInfo::Map<ZRBMDClassIvarInfo>> ZRBMDClassInfo::ivarInfos() const {
  std::lock_guard lock(mapsMutex_);
  return ivarInfos_;
}
std::shared_ptr<const ZRBMDClassInfo::Map<ZRBMDClassMethodInfo>> ZRBMDClassInfo::methodInfos() const {
  std::lock_guard lock(mapsMutex_);
  return methodInfos_;
}
std::shared_ptr<const ZRBMDClassInfo::Map<ZRBMDClassPropertyInfo>> ZRBMDClassInfo::propertyInfos() const {
  std::lock_guard lock(mapsMutex_);
  return propertyInfos_;
}

std::shared_ptr<ZRBMDClassInfo> ZRBMDClassInfo::classInfoWithClass(const ZRBMDClass* cls) {
  if (!cls) return nullptr;
  Cache& cache = Cache::shared();
  std::shared_ptr<ZRBMDClassInfo> info;
  cache.semaphore.acquire();
  auto& map = cache.mapFor(cls);
  if (auto found = map.find(cls); found != map.end()) {
    info = found->second;
    if (info->needUpdate()) info->update();
  }
  cache.semaphore.release();
  if (!info) {
    info = std::make_shared<ZRBMDClassInfo>(cls);
    cache.semaphore.acquire();
    cache.mapFor(cls)[cls] = info;
    cache.semaphore.release();
  }
  return info;
}

std::shared_ptr<ZRBMDClassInfo> ZRBMDClassInfo::classInfoWithClassName(std::string_view name) {
  return classInfoWithClass(ZRBMDClass::named(name));
}
