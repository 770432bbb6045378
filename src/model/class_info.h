// ZRBMDClassInfo: the cached metadata of one class (or metaclass): its handles, its name, its own
// instance variables, methods and properties by name, and the record of its superclass.
//
// classInfoWithClass answers one shared record per class, built on first request together with the
// records of every superclass up to the root, and kept for the life of the process. A class changed
// at run time (a property added) is refreshed on the next lookup after setNeedUpdate. The cache is
// safe for concurrent use: one semaphore guards both process-wide maps; new records are built
// outside it, and a record built concurrently for the same class replaces the earlier one.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "model/class_member_info.h"
#include "model/runtime.h"

class ZRBMDClassInfo {
 public:
  template <typename Info>
  using Map = std::unordered_map<std::string, std::shared_ptr<const Info>>;

  // Null for a null class.
  static std::shared_ptr<ZRBMDClassInfo> classInfoWithClass(const ZRBMDClass* cls);
  // Null when no class of that name is registered.
  static std::shared_ptr<ZRBMDClassInfo> classInfoWithClassName(std::string_view name);

  // Marks the record stale: the next lookup rebuilds its member maps in place.
  void setNeedUpdate() { needUpdate_.store(true, std::memory_order_release); }
  bool needUpdate() const { return needUpdate_.load(std::memory_order_acquire); }

  bool isMeta() const { return isMeta_; }
  const ZRBMDClass* cls() const { return cls_; }
  const ZRBMDClass* superCls() const { return superCls_; }
  const ZRBMDClass* metaCls() const { return metaCls_; }
  const std::string& name() const { return name_; }
  // Null at the root.
  const std::shared_ptr<ZRBMDClassInfo>& superClassInfo() const { return superClassInfo_; }

  // The class's own members by name; never null, empty when it declares none. Each call answers
  // the maps of the latest update, which stay valid while held.
  std::shared_ptr<const Map<ZRBMDClassIvarInfo>> ivarInfos() const;
  std::shared_ptr<const Map<ZRBMDClassMethodInfo>> methodInfos() const;
  std::shared_ptr<const Map<ZRBMDClassPropertyInfo>> propertyInfos() const;

  explicit ZRBMDClassInfo(const ZRBMDClass* cls);

 private:
  void update();

  std::atomic<bool> needUpdate_{false};
  bool isMeta_ = false;
  const ZRBMDClass* cls_ = nullptr;
  const ZRBMDClass* superCls_ = nullptr;
  const ZRBMDClass* metaCls_ = nullptr;
  std::string name_;
  std::shared_ptr<ZRBMDClassInfo> superClassInfo_;

  mutable std::mutex mapsMutex_;
  std::shared_ptr<const Map<ZRBMDClassIvarInfo>> ivarInfos_;
  std::shared_ptr<const Map<ZRBMDClassMethodInfo>> methodInfos_;
  std::shared_ptr<const Map<ZRBMDClassPropertyInfo>> propertyInfos_;
};
