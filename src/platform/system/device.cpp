#include "platform/system/device.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "platform/foundation/crypto.h"

namespace {

std::atomic<std::uint64_t> factChanges{0};

constexpr const char* kDefaultDMIProductNamePath = "/sys/class/dmi/id/product_name";
constexpr const char* kDefaultOSReleasePath = "/etc/os-release";

std::string trimmed(std::string text) {
  auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

std::optional<std::string> readFirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return std::nullopt;
  line = trimmed(std::move(line));
  if (line.empty()) return std::nullopt;
  return line;
}

// Firmware that was never filled in reports one of these instead of a product name.
bool isPlaceholderProductName(const std::string& name) {
  static const char* const kPlaceholders[] = {"To Be Filled By O.E.M.", "To be filled by O.E.M.",
                                              "Default string", "System Product Name", "None"};
  for (const char* placeholder : kPlaceholders) {
    if (name == placeholder) return true;
  }
  return false;
}

// The value of KEY in an os-release file: shell-style assignments, values optionally quoted.
std::optional<std::string> osReleaseValue(const std::string& path, std::string_view key) {
  std::ifstream in(path);
  std::string line;
  while (in && std::getline(in, line)) {
    if (line.size() <= key.size() || line.compare(0, key.size(), key) != 0 || line[key.size()] != '=')
      continue;
    std::string raw = trimmed(line.substr(key.size() + 1));
    std::string value;
    if (!raw.empty() && (raw.front() == '"' || raw.front() == '\'')) {
      char quote = raw.front();
      for (std::size_t i = 1; i < raw.size() && raw[i] != quote; ++i) {
        if (quote == '"' && raw[i] == '\\' && i + 1 < raw.size()) ++i;
        value.push_back(raw[i]);
      }
    } else {
      value = raw;
    }
    if (value.empty()) return std::nullopt;
    return value;
  }
  return std::nullopt;
}

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

ZRBDevice::SystemFacts ZRBDevice::facts() const {
  std::string dmiPath, osReleasePath;
  {
    std::lock_guard lock(mutex_);
    if (facts_) return *facts_;
    dmiPath = dmiProductNamePath_.value_or(kDefaultDMIProductNamePath);
    osReleasePath = osReleasePath_.value_or(kDefaultOSReleasePath);
  }
  struct utsname uts {};
  bool haveUname = ::uname(&uts) == 0;
  SystemFacts found;
  auto product = readFirstLine(dmiPath);
  if (product && !isPlaceholderProductName(*product)) {
    found.model = *product;
  } else {
    found.model = haveUname ? uts.machine : "unknown";
  }
  found.systemName = osReleaseValue(osReleasePath, "NAME").value_or("Linux");
  found.systemVersion = osReleaseValue(osReleasePath, "VERSION_ID").value_or(haveUname ? uts.release : "");
  std::lock_guard lock(mutex_);
  if (!facts_) facts_ = std::move(found);
  return *facts_;
}

std::string ZRBDevice::model() const { return facts().model; }
std::string ZRBDevice::systemName() const { return facts().systemName; }
std::string ZRBDevice::systemVersion() const { return facts().systemVersion; }

std::string ZRBDevice::name() const {
  char buffer[256] = {};
  if (::gethostname(buffer, sizeof buffer - 1) != 0 || buffer[0] == '\0') return "localhost";
  return buffer;
}

void ZRBDevice::setDMIProductNamePath(std::optional<std::string> path) {
  std::lock_guard lock(mutex_);
  dmiProductNamePath_ = std::move(path);
  facts_.reset();
  factChanges.fetch_add(1, std::memory_order_release);
}

void ZRBDevice::setOSReleasePath(std::optional<std::string> path) {
  std::lock_guard lock(mutex_);
  osReleasePath_ = std::move(path);
  facts_.reset();
  factChanges.fetch_add(1, std::memory_order_release);
}

double ZRBDevice::screenScale() const {
  std::lock_guard lock(mutex_);
  return screenScale_;
}

void ZRBDevice::setScreenScale(double scale) {
  std::lock_guard lock(mutex_);
  if (scale > 0) screenScale_ = scale;
  factChanges.fetch_add(1, std::memory_order_release);
}

std::uint64_t ZRBDevice::generation() { return factChanges.load(std::memory_order_acquire); }
