#include "platform/runtime/method_replacement.h"

#include <cstdio>
#include <exception>
#include <map>

namespace {

using SlotKey = std::string;

SlotKey keyOf(std::string_view className, ZRBMethodKind kind, std::string_view selector) {
  SlotKey key;
  key.reserve(className.size() + selector.size() + 2);
  key.append(kind == ZRBMethodKind::Class ? "+" : "-").append(className).append(" ").append(selector);
  return key;
}

struct PendingReplacement {
  std::type_index signature;
  std::function<void(ZRBReplaceableSlotBase&)> apply;
};

struct Registry {
  // Recursive: a slot constructed by a replacement's factory (a function-local static reached
  // from it) registers while the registry is held by the same thread.
  std::recursive_mutex mutex;
  std::map<SlotKey, ZRBReplaceableSlotBase*> slots;
  std::map<SlotKey, std::vector<PendingReplacement>> pending;
};

// Immortal and reached through a function, so that slots and registrars constructed during static
// initialisation, in any order, find it ready.
Registry& registry() {
  static auto* instance = new Registry;
  return *instance;
}

struct LoadLog {
  std::mutex mutex;
  std::vector<std::string> names;
};

LoadLog& loadLog() {
  static auto* instance = new LoadLog;
  return *instance;
}

}  // namespace

std::string ZRBReplaceableSlotBase::displayName() const {
  return std::string(kind_ == ZRBMethodKind::Class ? "+" : "-") + "[" + className_ + " " + selector_ + "]";
}

void ZRBReplaceableSlotBase::registerSlot() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  SlotKey key = keyOf(className_, kind_, selector_);
  auto [it, inserted] = r.slots.emplace(key, this);
  if (!inserted) {
    std::fprintf(stderr, "ORVELKIT: %s has two replaceable slots; replacements by name reach the first\n",
                 displayName().c_str());
    return;
  }
  auto waiting = r.pending.find(key);
  if (waiting == r.pending.end()) return;
  std::vector<PendingReplacement> replacements = std::move(waiting->second);
  r.pending.erase(waiting);
  for (auto& replacement : replacements) {
    if (replacement.signature != signature_) {
      std::fprintf(stderr, "ORVELKIT: a replacement of %s has the wrong signature and was dropped\n",
                   displayName().c_str());
      continue;
    }
    replacement.apply(*this);
  }
}

void ZRBReplaceableSlotBase::unregisterSlot() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.slots.find(keyOf(className_, kind_, selector_));
  if (it != r.slots.end() && it->second == this) r.slots.erase(it);
}

bool zrb_detail::applyOrQueueReplacement(const ZRBMethodName& name, std::type_index signature,
                                         std::function<void(ZRBReplaceableSlotBase&)> apply) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  SlotKey key = keyOf(name.className, name.kind, name.selector);
  if (auto it = r.slots.find(key); it != r.slots.end()) {
    if (it->second->signature() != signature) return false;
    apply(*it->second);
    return true;
  }
  r.pending[key].push_back({signature, std::move(apply)});
  return true;
}

ZRBReplaceableSlotBase* ZRBMethodReplacement::find(const ZRBMethodName& name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.slots.find(keyOf(name.className, name.kind, name.selector));
  return it == r.slots.end() ? nullptr : it->second;
}

void ZRBMethodReplacement::resetAll() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.pending.clear();
  for (auto& [key, slot] : r.slots) slot->reset();
}

ZRBLoadTimeRegistrar::ZRBLoadTimeRegistrar(const char* name, void (*initializer)()) {
  try {
    if (initializer) initializer();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "ORVELKIT: load-time initialiser \"%s\" failed: %s\n", name, e.what());
  } catch (...) {
    std::fprintf(stderr, "ORVELKIT: load-time initialiser \"%s\" failed\n", name);
  }
  LoadLog& log = loadLog();
  std::lock_guard lock(log.mutex);
  log.names.emplace_back(name ? name : "");
}

std::vector<std::string> ZRBLoadTimeRegistrar::ranInitializers() {
  LoadLog& log = loadLog();
  std::lock_guard lock(log.mutex);
  return log.names;
}
