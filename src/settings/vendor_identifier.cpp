#include "settings/vendor_identifier.h"

#include "platform/system/device.h"

std::optional<std::string> zrb_identifier_for_vendor() {
  return ZRBDevice::currentDevice()->identifierForVendor();
}
