// ZRBAppSdkLogManager: the switch and the sink of the SDK's log collection.
//
// The library's log function forwards each message here when collection is on. The sink does
// nothing by itself; the SDK's other modules install a collector to store or forward the text.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "platform/foundation/object.h"
#include "platform/runtime/atomic_function.h"

class ZRBAppSdkLogManager final : public ZRBObject {
 public:
  using Collector = std::function<void(long line, const std::string& method, const std::string& message)>;

  static const std::shared_ptr<ZRBAppSdkLogManager>& sharedInstance();

  ZRBAppSdkLogManager() = default;

  // Logging happens on any thread, so the switch and the collector may change while it runs.
  bool collectAppSdkLogEnable() const { return collectAppSdkLogEnable_.load(std::memory_order_relaxed); }
  void setCollectAppSdkLogEnable(bool value) {
    collectAppSdkLogEnable_.store(value, std::memory_order_relaxed);
  }

  // The collection sink: hands the text to the installed collector, if any; otherwise the text
  // is accepted and dropped.
  void collectAppSdkLogWithLine(long line, const std::string& method, const std::string& message) const {
    if (auto collector = collector_.load()) (*collector)(line, method, message);
  }

  // Installs (or, with an empty function, removes) the collector of the SDK's other modules, at
  // any time: a message being collected meanwhile goes to the old collector or the new one.
  void setCollector(Collector collector) { collector_.store(std::move(collector)); }

  std::string className() const override { return "ZRBAppSdkLogManager"; }
  std::string description() const override;

 private:
  std::atomic<bool> collectAppSdkLogEnable_{false};
  ZRBAtomicFunction<void(long, const std::string&, const std::string&)> collector_;
};
