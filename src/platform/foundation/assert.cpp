#include "platform/foundation/assert.h"

#include <atomic>
#include <cstdio>
#include <mutex>

namespace {

std::mutex handlerMutex;
ZRBAssertionHandler currentHandler;
std::atomic<ZRBAssertionMode> currentMode{ZRBAssertionMode::Throw};

}  // namespace

ZRBAssertionHandler ZRBSetAssertionHandler(ZRBAssertionHandler handler) {
  std::lock_guard lock(handlerMutex);
  std::swap(currentHandler, handler);
  return handler;
}

void ZRBSetAssertionMode(ZRBAssertionMode mode) { currentMode = mode; }

std::string ZRBAssertionMessage(std::string_view condition) {
  return "Invalid parameter not satisfying: " + std::string(condition);
}

void ZRBAssertionFailed(std::string_view condition, const char* file, int line) {
  ZRBAssertionFailedWithMessage(ZRBAssertionMessage(condition), file, line);
}

void ZRBAssertionFailedWithMessage(std::string message, const char* file, int line) {
  ZRBAssertionHandler handler;
  {
    std::lock_guard lock(handlerMutex);
    handler = currentHandler;
  }
  if (handler) {
    handler(message, file, line);
    return;
  }
  if (currentMode == ZRBAssertionMode::LogAndContinue) {
    std::fprintf(stderr, "%s (%s:%d)\n", message.c_str(), file, line);
    return;
  }
  throw ZRBAssertionFailure(message, file, line);
}
