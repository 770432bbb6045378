// ZRBException: a named exception, raised for mistakes the caller must fix (for example an invalid
// pinning configuration) and not caught inside the library.
#pragma once

#include <stdexcept>
#include <string>

#include "platform/foundation/value.h"

class ZRBException : public std::runtime_error {
 public:
  ZRBException(std::string name, std::string reason, ZRBValue userInfo = ZRBValue())
      : std::runtime_error(name + ": " + reason),
        name_(std::move(name)),
        reason_(std::move(reason)),
        userInfo_(std::move(userInfo)) {}

  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  const ZRBValue& userInfo() const noexcept { return userInfo_; }

 private:
  std::string name_;
  std::string reason_;
  ZRBValue userInfo_;
};
