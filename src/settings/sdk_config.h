// ZRBSDKConfig: the SDK's tuning values (server selection, log level, connection timings).
//
// Inside this library only logLevel is read: 3 or more lets successful requests tell their
// accessories that they stopped. Everything else is stored for the SDK's other modules. Like the
// other settings, only creation of the shared instance is synchronised.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

class ZRBSDKConfig final : public ZRBObject {
 public:
  static const std::shared_ptr<ZRBSDKConfig>& sharedInstance();

  ZRBSDKConfig() = default;

  bool directionalFlow() const { return directionalFlow_; }
  void setDirectionalFlow(bool value) { directionalFlow_ = value; }
  bool logWebsocket() const { return logWebsocket_; }
  void setLogWebsocket(bool value) { logWebsocket_ = value; }
  bool isCompatibility() const { return isCompatibility_; }
  void setIsCompatibility(bool value) { isCompatibility_ = value; }
  // Missed heartbeats tolerated.
  std::int32_t heartbeatTimeoutTimesThreshold() const { return heartbeatTimeoutTimesThreshold_; }
  void setHeartbeatTimeoutTimesThreshold(std::int32_t value) { heartbeatTimeoutTimesThreshold_ = value; }
  unsigned long useServerType() const { return useServerType_; }
  void setUseServerType(unsigned long value) { useServerType_ = value; }
  unsigned long apiType() const { return apiType_; }
  void setApiType(unsigned long value) { apiType_ = value; }
  // Seconds.
  double refreshTime() const { return refreshTime_; }
  void setRefreshTime(double value) { refreshTime_ = value; }
  // Camera version table: an array, absent until written.
  const ZRBValue& cameraVerMap() const { return cameraVerMap_; }
  void setCameraVerMap(ZRBValue value) { cameraVerMap_ = std::move(value); }
  unsigned long logLevel() const { return logLevel_; }
  void setLogLevel(unsigned long value) { logLevel_ = value; }
  const std::optional<std::string>& thirdLoginHide() const { return thirdLoginHide_; }
  void setThirdLoginHide(std::optional<std::string> value) { thirdLoginHide_ = std::move(value); }
  // Seconds.
  double connectTimeout() const { return connectTimeout_; }
  void setConnectTimeout(double value) { connectTimeout_ = value; }
  double reconnectInterval() const { return reconnectInterval_; }
  void setReconnectInterval(double value) { reconnectInterval_ = value; }
  double heartbeatInterval() const { return heartbeatInterval_; }
  void setHeartbeatInterval(double value) { heartbeatInterval_ = value; }

  std::string className() const override { return "ZRBSDKConfig"; }
  // Every field, one per line, in declaration order.
  std::string description() const override;

 private:
  bool directionalFlow_ = false;
  bool logWebsocket_ = false;
  bool isCompatibility_ = false;
  std::int32_t heartbeatTimeoutTimesThreshold_ = 0;
  unsigned long useServerType_ = 0;
  unsigned long apiType_ = 0;
  double refreshTime_ = 0;
  ZRBValue cameraVerMap_;
  unsigned long logLevel_ = 0;
  std::optional<std::string> thirdLoginHide_;
  double connectTimeout_ = 0;
  double reconnectInterval_ = 0;
  double heartbeatInterval_ = 0;
};
