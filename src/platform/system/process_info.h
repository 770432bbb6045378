// ZRBProcessInfo: facts about the running process.
//
// Thread-safe; one instance per process.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/foundation/object.h"

class ZRBProcessInfo final : public ZRBObject {
 public:
  static const std::shared_ptr<ZRBProcessInfo>& processInfo();

  ZRBProcessInfo() = default;

  // A string that no other call, in this process or any other, returns: a random UUID, the process
  // identifier and a per-process counter ("3F2504E0-4F89-41D3-9A0C-0305E82C3301-4711-00000000000001A2").
  // Made of upper-case hex digits, decimal digits and hyphens, so it is safe in file names.
  std::string globallyUniqueString();
  int processIdentifier() const;

  std::string className() const override { return "ZRBProcessInfo"; }

 private:
  std::atomic<std::uint64_t> counter_{0};
};
