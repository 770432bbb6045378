#include "settings/vendor_identifier.h"

#include <mutex>
#include <set>

#include "platform/system/device.h"

std::optional<std::string> ZRBIdentifierForVendor() {
  return ZRBDevice::currentDevice()->identifierForVendor();
}

extern "C" const char* zrb_identifier_for_vendor(void) {
  auto identifier = ZRBIdentifierForVendor();
  if (!identifier) return nullptr;
  // The answer changes only when the vendor or the machine id does, so the set stays tiny.
  static std::mutex mutex;
  static auto* answers = new std::set<std::string>;
  std::lock_guard lock(mutex);
  return answers->insert(std::move(*identifier)).first->c_str();
}
