// ZRB_PGDLog: the pinning subsystem's log function.
//
// Silent until a logger callback is installed: without one, ZRB_PGDLog returns before formatting,
// so log lines cost nothing in production. The callback receives each formatted line and may be
// called from any thread (pin validation runs on the transport thread), so it must be thread-safe.
// Formats follow ZRBStringWithFormat: printf conversions plus %@ for descriptions.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>

#include "platform/foundation/string_format.h"

using ZRB_PGDLoggerBlock = std::function<void(const std::string& message)>;

// Installs the logger callback; an empty function removes it. Safe to call while other threads log:
// a line being logged goes to the callback that was installed when it started.
void ZRB_PGDSetLoggerBlock(ZRB_PGDLoggerBlock block);

namespace zrb_detail {
extern std::atomic<bool> g_pgdLoggerInstalled;
void PGDLogMessage(const std::string& message);
}  // namespace zrb_detail

template <typename... Args>
void ZRB_PGDLog(std::string_view format, const Args&... args) {
  if (!zrb_detail::g_pgdLoggerInstalled.load(std::memory_order_acquire)) return;
  zrb_detail::PGDLogMessage(ZRBStringWithFormat(format, args...));
}
