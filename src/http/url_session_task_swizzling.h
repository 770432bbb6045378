// ZRBHS_URLSessionTaskSwizzling: tells session managers when their tasks are resumed or suspended.
//
// At load time, resume and suspend of every URL session task are wrapped (through the tasks'
// replaceable slots, which every task kind shares). The wrappers run the original operation and
// then, when the state really changed (resume of a task that was not running, suspend of one that
// was not suspended), post "com.brontide.zrb_networking.nsurlsessiontask.resume" or "...suspend"
// with the task as object. Session managers turn those into their public notifications for the
// tasks they made.
#pragma once

#include "platform/net/url_session_task.h"

inline constexpr const char* ZRBHS_NSURLSessionTaskDidResumeNotification =
    "com.brontide.zrb_networking.nsurlsessiontask.resume";
inline constexpr const char* ZRBHS_NSURLSessionTaskDidSuspendNotification =
    "com.brontide.zrb_networking.nsurlsessiontask.suspend";

class ZRBHS_URLSessionTaskSwizzling {
 public:
  // The wrappers; `original` is the implementation they replaced.
  static void ZRBHS_resume(ZRBURLSessionTask& task, const ZRBURLSessionTaskStateSlot::Function& original);
  static void ZRBHS_suspend(ZRBURLSessionTask& task, const ZRBURLSessionTaskStateSlot::Function& original);
  // Installs the wrappers once (done at load time; later calls do nothing).
  static void install();
  // Session managers relay both notifications through one observer each, registered before this is
  // called, which does nothing while nobody observes the notification it relays to
  // (`resumeRelayed`, `suspendRelayed`). While that observer is the only one, the wrappers post
  // nothing unless the relayed notification has observers. Called once.
  static void relayObserved(const char* resumeRelayed, const char* suspendRelayed);
  // The helper class is never a task: its own state must never be asked for (assertion failure
  // "State method should never be called in the actual dummy class").
  ZRBURLSessionTaskState state() const;
};
