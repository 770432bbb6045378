// ZRBAppSdkLogManager: the switch and the sink of the SDK's log collection.
//
// The library's log function forwards each message here when collection is on. The sink does
// nothing by itself; the SDK's other modules install a collector to store or forward the text.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/foundation/object.h"

class ZRBAppSdkLogManager final : public ZRBObject {
 public:
  using Collector = std::function<void(long line, const std::string& method, const std::string& message)>;

  static const std::shared_ptr<ZRBAppSdkLogManager>& sharedInstance();

  ZRBAppSdkLogManager() = default;

  bool collectAppSdkLogEnable() const { return collectAppSdkLogEnable_; }
  void setCollectAppSdkLogEnable(bool value) { collectAppSdkLogEnable_ = value; }

  // The collection sink: hands the text to the installed collector, if any; otherwise the text
  // is accepted and dropped.
  void collectAppSdkLogWithLine(long line, const std::string& method, const std::string& message) const {
    if (collector_) collector_(line, method, message);
  }

  // Installs (or, with an empty function, removes) the collector of the SDK's other modules.
  // Install it before logging starts: like the settings, the sink is not locked.
  void setCollector(Collector collector) { collector_ = std::move(collector); }

  std::string className() const override { return "ZRBAppSdkLogManager"; }
  std::string description() const override;

 private:
  bool collectAppSdkLogEnable_ = false;
  Collector collector_;
};
