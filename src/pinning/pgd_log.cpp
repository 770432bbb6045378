#include "pinning/pgd_log.h"

#include <memory>
#include <mutex>
#include <utility>

namespace {

std::mutex& loggerMutex() {
  static std::mutex mutex;
  return mutex;
}

// Shared so that a line being delivered keeps its callback alive while another thread replaces it.
std::shared_ptr<const ZRB_PGDLoggerBlock>& loggerBlock() {
  static std::shared_ptr<const ZRB_PGDLoggerBlock> block;
  return block;
}

}  // namespace

namespace zrb_detail {

std::atomic<bool> g_pgdLoggerInstalled{false};

void PGDLogMessage(const std::string& message) {
  std::shared_ptr<const ZRB_PGDLoggerBlock> block;
  {
    std::lock_guard lock(loggerMutex());
    block = loggerBlock();
  }
  // Called outside the lock, so the callback may log or replace itself.
  if (block) (*block)(message);
}

}  // namespace zrb_detail

void ZRB_PGDSetLoggerBlock(ZRB_PGDLoggerBlock block) {
  std::shared_ptr<const ZRB_PGDLoggerBlock> installed;
  if (block) installed = std::make_shared<const ZRB_PGDLoggerBlock>(std::move(block));
  std::lock_guard lock(loggerMutex());
  zrb_detail::g_pgdLoggerInstalled.store(installed != nullptr, std::memory_order_release);
  loggerBlock() = std::move(installed);
}
