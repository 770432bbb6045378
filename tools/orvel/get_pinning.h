// `orvel get --pinning-config FILE`: the program pins its connection as an application whose
// Info.plist carries a "PGDConfiguration" entry would. FILE holds the configuration (JSON or a
// property list) or an Info.plist with that entry; it initialises the shared pin guard with
// delegate swizzling on (whatever the file says about it), so the session orvel makes validates
// the pins of every configured domain before a byte of the request is sent.
//
// After the transfer, orvelExplainPinning names a refusal by the pins, and the reports of failed
// validations (to the policy's report URIs) are sent before the program ends.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "pinning/pin_guard.h"

class OrvelGetPinning {
 public:
  // Reads and applies FILE. On failure returns null and sets `error` (unreadable file, no map in
  // it, or the configuration's own exception reason).
  static std::unique_ptr<OrvelGetPinning> setUp(const std::string& path, std::string& error);

  // After the transfer: waits until the pin guard's observer and reporter have heard everything,
  // then the line that explains a refusal by the pins for `host`, or empty when the pins did not
  // refuse it.
  std::string explainRefusal(const std::string& host);

 private:
  OrvelGetPinning() = default;
  std::string path_;
  ZRB_PinGuardPtr pinGuard_;
  ZRBDispatchQueuePtr observerQueue_;
  std::mutex mutex_;
  std::optional<std::string> blockedHost_;  // the server host of a blocked validation
  std::string notedDomain_;
  bool noMatchingPin_ = false;
};
