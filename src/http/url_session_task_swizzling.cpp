#include "http/url_session_task_swizzling.h"

#include <atomic>
#include <mutex>
#include <string>

#include "platform/foundation/assert.h"
#include "platform/runtime/method_replacement.h"
#include "platform/runtime/notification_center.h"

namespace {

// The names the managers' relay observers post to, once they are registered.
struct Relayed {
  ZRBNotificationCenter::ObservedName resume;
  ZRBNotificationCenter::ObservedName suspend;
};
std::atomic<const Relayed*> relayed{nullptr};

void post(const ZRBNotificationCenter::ObservedName& name,
          const ZRBNotificationCenter::ObservedName* relayedName, ZRBURLSessionTask& task) {
  // Nobody listens (no manager exists yet), or only the managers' relay, which would find nobody
  // to tell: nothing to make or post for every task.
  const auto& center = ZRBNotificationCenter::defaultCenter();
  const std::size_t observers = name.observerCount(*center);
  if (observers == 0) return;
  if (observers == 1 && relayedName && !relayedName->hasObservers(*center)) return;
  // Tasks are always held by shared pointers; one that is not (being destroyed) has no observers.
  ZRBObjectPtr object = task.weak_from_this().lock();
  if (!object) return;
  center->post(name.name(), ZRBValue(std::move(object)));
}

}  // namespace

void ZRBHS_URLSessionTaskSwizzling::ZRBHS_resume(ZRBURLSessionTask& task,
                                                 const ZRBURLSessionTaskStateSlot::Function& original) {
  ZRBURLSessionTaskState state = task.state();
  original(task);
  static const ZRBNotificationCenter::ObservedName kName(ZRBHS_NSURLSessionTaskDidResumeNotification);
  if (state == ZRBURLSessionTaskStateRunning) return;
  const Relayed* relay = relayed.load(std::memory_order_acquire);
  post(kName, relay ? &relay->resume : nullptr, task);
}

void ZRBHS_URLSessionTaskSwizzling::ZRBHS_suspend(ZRBURLSessionTask& task,
                                                  const ZRBURLSessionTaskStateSlot::Function& original) {
  ZRBURLSessionTaskState state = task.state();
  original(task);
  static const ZRBNotificationCenter::ObservedName kName(ZRBHS_NSURLSessionTaskDidSuspendNotification);
  if (state == ZRBURLSessionTaskStateSuspended) return;
  const Relayed* relay = relayed.load(std::memory_order_acquire);
  post(kName, relay ? &relay->suspend : nullptr, task);
}

void ZRBHS_URLSessionTaskSwizzling::install() {
  static std::once_flag once;
  std::call_once(once, [] {
    using Slot = ZRBURLSessionTaskStateSlot;
    ZRBMethodReplacement::replace<void(ZRBURLSessionTask&)>(
        ZRBURLSessionTaskResumeMethod, [](Slot::Function previous) -> Slot::Function {
          return [previous](ZRBURLSessionTask& task) { ZRBHS_resume(task, previous); };
        });
    ZRBMethodReplacement::replace<void(ZRBURLSessionTask&)>(
        ZRBURLSessionTaskSuspendMethod, [](Slot::Function previous) -> Slot::Function {
          return [previous](ZRBURLSessionTask& task) { ZRBHS_suspend(task, previous); };
        });
  });
}

void ZRBHS_URLSessionTaskSwizzling::relayObserved(const char* resumeRelayed, const char* suspendRelayed) {
  // Kept for the process: wrappers may read it at any time.
  static const Relayed* names = new Relayed{ZRBNotificationCenter::ObservedName(resumeRelayed),
                                            ZRBNotificationCenter::ObservedName(suspendRelayed)};
  relayed.store(names, std::memory_order_release);
}

ZRBURLSessionTaskState ZRBHS_URLSessionTaskSwizzling::state() const {
  ZRBAssertNamed(false, "State method should never be called in the actual dummy class");
  return ZRBURLSessionTaskStateCompleted;
}

static ZRBLoadTimeRegistrar zrbhsTaskStateObservation("session task resume and suspend observation",
                                                      [] { ZRBHS_URLSessionTaskSwizzling::install(); });
