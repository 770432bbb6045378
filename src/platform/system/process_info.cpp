#include "platform/system/process_info.h"

#include <unistd.h>

#include <cstdio>

#include "platform/foundation/crypto.h"

const std::shared_ptr<ZRBProcessInfo>& ZRBProcessInfo::processInfo() {
  static const auto* instance = new std::shared_ptr<ZRBProcessInfo>(std::make_shared<ZRBProcessInfo>());
  return *instance;
}

std::string ZRBProcessInfo::globallyUniqueString() {
  char tail[48];
  std::snprintf(tail, sizeof tail, "-%d-%016llX", processIdentifier(),
                static_cast<unsigned long long>(counter_.fetch_add(1) + 1));
  return ZRBUUIDString() + tail;
}

int ZRBProcessInfo::processIdentifier() const { return static_cast<int>(::getpid()); }
