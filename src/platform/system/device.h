// ZRBDevice: facts about the machine the library runs on.
//
// Model and system facts are read from the machine once, on first use, and kept; hosts and tests
// may point the readers at other files (which drops what was kept).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/foundation/object.h"

class ZRBDevice final : public ZRBObject {
 public:
  static const std::shared_ptr<ZRBDevice>& currentDevice();

  ZRBDevice();

  // A UUID string that stays the same for one vendor's programs on this machine and differs
  // between vendors: derived from the machine id and the vendor name. Absent when the machine
  // has no id (no readable, non-empty machine-id file).
  std::optional<std::string> identifierForVendor() const;

  // The vendor the identifier belongs to: ORVELKIT_VENDOR if set, else the program's name.
  std::string vendor() const;
  void setVendor(std::string vendor);
  // Where the machine id is read from: /etc/machine-id, else /var/lib/dbus/machine-id.
  // Hosts and tests may point elsewhere; an empty path means "no machine id".
  void setMachineIdPath(std::optional<std::string> path);

  // The hardware model: the DMI product name (/sys/class/dmi/id/product_name) unless it is
  // missing or a placeholder, else the machine architecture (uname, "x86_64").
  std::string model() const;
  // The NAME of /etc/os-release ("Debian GNU/Linux"), else "Linux".
  std::string systemName() const;
  // The VERSION_ID of /etc/os-release ("12"), else the kernel release (uname, "6.1.0-18-amd64").
  std::string systemVersion() const;
  // The host's name (gethostname), "localhost" when it has none.
  std::string name() const;
  // Where the model and the system facts are read from; nullopt restores the standard paths.
  void setDMIProductNamePath(std::optional<std::string> path);
  void setOSReleasePath(std::optional<std::string> path);

  // Pixels per point of the main screen: 1 unless the host sets another (positive) value.
  double screenScale() const;
  void setScreenScale(double scale);
  // Counts the calls of the setters of the model, the system facts and the scale, so that values
  // derived from them once per process (the serializers' "User-Agent") know when to derive them
  // again.
  static std::uint64_t generation();

  std::string className() const override { return "ZRBDevice"; }

 private:
  struct SystemFacts {
    std::string model;
    std::string systemName;
    std::string systemVersion;
  };
  SystemFacts facts() const;

  mutable std::mutex mutex_;
  std::string vendor_;
  std::optional<std::string> machineIdPath_;
  std::optional<std::string> dmiProductNamePath_;
  std::optional<std::string> osReleasePath_;
  mutable std::optional<SystemFacts> facts_;
  double screenScale_ = 1;
};
