#include "http/url_session_task_swizzling.h"

#include <mutex>
#include <string>

#include "platform/foundation/assert.h"
#include "platform/runtime/method_replacement.h"
#include "platform/runtime/notification_center.h"

namespace {

void post(const std::string& name, ZRBURLSessionTask& task) {
  // Nobody listens (no manager exists yet): nothing to make or post for every task.
  const auto& center = ZRBNotificationCenter::defaultCenter();
  if (!center->hasObservers(name)) return;
  // Tasks are always held by shared pointers; one that is not (being destroyed) has no observers.
  ZRBObjectPtr object = task.weak_from_this().lock();
  if (!object) return;
  center->post(name, ZRBValue(std::move(object)));
}

}  // namespace

void ZRBHS_URLSessionTaskSwizzling::ZRBHS_resume(ZRBURLSessionTask& task,
                                                 const ZRBURLSessionTaskStateSlot::Function& original) {
  ZRBURLSessionTaskState state = task.state();
  original(task);
  static const std::string kName(ZRBHS_NSURLSessionTaskDidResumeNotification);
  if (state != ZRBURLSessionTaskStateRunning) post(kName, task);
}

void ZRBHS_URLSessionTaskSwizzling::ZRBHS_suspend(ZRBURLSessionTask& task,
                                                  const ZRBURLSessionTaskStateSlot::Function& original) {
  ZRBURLSessionTaskState state = task.state();
  original(task);
  static const std::string kName(ZRBHS_NSURLSessionTaskDidSuspendNotification);
  if (state != ZRBURLSessionTaskStateSuspended) post(kName, task);
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

ZRBURLSessionTaskState ZRBHS_URLSessionTaskSwizzling::state() const {
  ZRBAssertNamed(false, "State method should never be called in the actual dummy class");
  return ZRBURLSessionTaskStateCompleted;
}

static ZRBLoadTimeRegistrar zrbhsTaskStateObservation("session task resume and suspend observation",
                                                      [] { ZRBHS_URLSessionTaskSwizzling::install(); });
