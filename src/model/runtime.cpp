#include "model/runtime.h"

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

// One lock for the class table and every class's member lists: changes are rare (registration,
// run-time additions), reads are snapshots.
struct ZRBMDRuntimeTables {
  std::shared_mutex mutex;
  std::unordered_map<std::string, std::unique_ptr<ZRBMDClass>> classes;
  std::vector<std::unique_ptr<ZRBMDClass>> metaclasses;
  const ZRBMDClass* root = nullptr;

  static ZRBMDRuntimeTables& shared();
  // Caller holds the lock exclusively.
  ZRBMDClass* add(std::string_view name, const ZRBMDClass* superclass) {
    auto found = classes.find(std::string(name));
    if (found != classes.end()) return found->second.get();
    std::unique_ptr<ZRBMDClass> cls(new ZRBMDClass(std::string(name), superclass, false));
    const ZRBMDClass* superMeta = superclass ? superclass->metaclass() : nullptr;
    metaclasses.emplace_back(new ZRBMDClass(std::string(name), superMeta, true));
    cls->metaclass_ = metaclasses.back().get();
    ZRBMDClass* raw = cls.get();
    classes.emplace(std::string(name), std::move(cls));
    return raw;
  }
};

ZRBMDRuntimeTables& ZRBMDRuntimeTables::shared() {
  static ZRBMDRuntimeTables* tables = [] {
    auto* t = new ZRBMDRuntimeTables;
    t->root = t->add("ZRBObject", nullptr);
    for (std::string_view name :
         {"ZRBString", "ZRBNumber", "ZRBArray", "ZRBDictionary", "ZRBSet", "ZRBDate", "ZRBData", "ZRBURL"})
      t->add(name, t->root);
    return t;
  }();
  return *tables;
}

std::string ZRBMDMethod::typeEncoding() const {
  std::string out = returnTypeEncoding;
  for (const auto& argument : argumentTypeEncodings) out += argument;
  return out;
}

ZRBMDClass::ZRBMDClass(std::string name, const ZRBMDClass* superclass, bool isMeta)
    : name_(std::move(name)), superclass_(superclass), isMeta_(isMeta) {}

namespace {
template <typename T>
std::vector<const T*> snapshot(const std::vector<std::unique_ptr<T>>& list) {
  std::shared_lock lock(ZRBMDRuntimeTables::shared().mutex);
  std::vector<const T*> out;
  out.reserve(list.size());
  for (const auto& item : list) out.push_back(item.get());
  return out;
}

// Caller holds the lock exclusively.
template <typename T>
bool addNamedLocked(std::vector<std::unique_ptr<T>>& list, T item) {
  for (const auto& existing : list)
    if (existing->name == item.name) return false;
  list.push_back(std::make_unique<T>(std::move(item)));
  return true;
}

template <typename T>
bool addNamed(std::vector<std::unique_ptr<T>>& list, T item) {
  std::unique_lock lock(ZRBMDRuntimeTables::shared().mutex);
  return addNamedLocked(list, std::move(item));
}
}  // namespace

std::vector<const ZRBMDIvar*> ZRBMDClass::copyIvarList() const { return snapshot(ivars_); }
std::vector<const ZRBMDMethod*> ZRBMDClass::copyMethodList() const { return snapshot(methods_); }
std::vector<const ZRBMDProperty*> ZRBMDClass::copyPropertyList() const { return snapshot(properties_); }

bool ZRBMDClass::addIvar(ZRBMDIvar ivar) { return addNamed(ivars_, std::move(ivar)); }
bool ZRBMDClass::addMethod(ZRBMDMethod method) { return addNamed(methods_, std::move(method)); }
bool ZRBMDClass::addProperty(std::string name, std::vector<ZRBMDPropertyAttribute> attributes) {
  return addNamed(properties_, ZRBMDProperty{std::move(name), std::move(attributes)});
}

const ZRBMDClass* ZRBMDClass::named(std::string_view name) {
  auto& tables = ZRBMDRuntimeTables::shared();
  std::shared_lock lock(tables.mutex);
  auto found = tables.classes.find(std::string(name));
  return found == tables.classes.end() ? nullptr : found->second.get();
}

ZRBMDClass* ZRBMDClass::registerClass(std::string_view name, const ZRBMDClass* superclass) {
  auto& tables = ZRBMDRuntimeTables::shared();
  std::unique_lock lock(tables.mutex);
  return tables.add(name, superclass ? superclass : tables.root);
}

ZRBMDClass* ZRBMDClass::registerClass(std::string_view name, const ZRBMDClass* superclass,
                                      ZRBMDClassMembers members) {
  auto& tables = ZRBMDRuntimeTables::shared();
  std::unique_lock lock(tables.mutex);
  ZRBMDClass* cls = tables.add(name, superclass ? superclass : tables.root);
  for (auto& ivar : members.ivars) addNamedLocked(cls->ivars_, std::move(ivar));
  for (auto& method : members.methods) addNamedLocked(cls->methods_, std::move(method));
  for (auto& property : members.properties) addNamedLocked(cls->properties_, std::move(property));
  auto* meta = const_cast<ZRBMDClass*>(cls->metaclass_);
  for (auto& method : members.classMethods) addNamedLocked(meta->methods_, std::move(method));
  return cls;
}

const ZRBMDClass* ZRBMDClass::rootClass() { return ZRBMDRuntimeTables::shared().root; }
