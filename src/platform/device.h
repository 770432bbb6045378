// ZRBDevice: facts about the machine the library runs on.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/object.h"

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

  std::string className() const override { return "ZRBDevice"; }

 private:
  mutable std::mutex mutex_;
  std::string vendor_;
  std::optional<std::string> machineIdPath_;
};
