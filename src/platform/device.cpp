#include "platform/device.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "platform/crypto.h"

namespace {

std::optional<std::string> readMachineId(const std::string& path) {
  std::ifstream in(path);
  std::string id;
  if (!in || !std::getline(in, id)) return std::nullopt;
  while (!id.empty() && (id.back() == ' ' || id.back() == '\r')) id.pop_back();
  if (id.empty()) return std::nullopt;
  return id;
}

}  // namespace

const std::shared_ptr<ZRBDevice>& ZRBDevice::currentDevice() {
  static const std::shared_ptr<ZRBDevice> instance = std::make_shared<ZRBDevice>();
  return instance;
}

ZRBDevice::ZRBDevice() {
  if (const char* vendor = std::getenv("ORVELKIT_VENDOR"); vendor && *vendor) {
    vendor_ = vendor;
  } else {
    vendor_ = program_invocation_short_name;
  }
}

std::string ZRBDevice::vendor() const {
  std::lock_guard lock(mutex_);
  return vendor_;
}

void ZRBDevice::setVendor(std::string vendor) {
  std::lock_guard lock(mutex_);
  vendor_ = std::move(vendor);
}

void ZRBDevice::setMachineIdPath(std::optional<std::string> path) {
  std::lock_guard lock(mutex_);
  machineIdPath_ = std::move(path);
}

std::optional<std::string> ZRBDevice::identifierForVendor() const {
  std::string vendor;
  std::optional<std::string> id;
  {
    std::lock_guard lock(mutex_);
    vendor = vendor_;
    if (machineIdPath_) {
      if (!machineIdPath_->empty()) id = readMachineId(*machineIdPath_);
    } else {
      id = readMachineId("/etc/machine-id");
      if (!id) id = readMachineId("/var/lib/dbus/machine-id");
    }
  }
  if (!id) return std::nullopt;
  // The machine id must not leak through the identifier, hence a hash rather than the id itself.
  std::string material = *id + '\n' + vendor;
  auto digest = ZRBSHA256(material);
  std::array<std::uint8_t, 16> bytes;
  std::copy_n(digest.begin(), 16, bytes.begin());
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x50);  // name-based, SHA
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return ZRBUUIDStringFromBytes(bytes);
}
