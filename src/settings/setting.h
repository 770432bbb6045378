// ZRBSetting: the process-wide server settings that the SDK's modules share.
//
// Every field starts false, 0 or null and is written by the host application or the SDK's other
// modules, typically before the first request. Only the creation of the shared instance is
// synchronised; field reads and writes are plain, so writers must not race readers. The four
// answer functions are the exception: the transport thread asks them during TLS handshakes, so
// they may be replaced at any time (each call runs either the old or the new function).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/runtime/atomic_function.h"

class ZRBSetting final : public ZRBObject {
 public:
  using StringMap = std::map<std::string, std::string>;
  using ValueMap = std::map<std::string, ZRBValue>;

  // The shared instance, created on first use.
  static const std::shared_ptr<ZRBSetting>& sharedSetting();

  ZRBSetting() = default;

  bool isAlwaysFullrelay() const { return isAlwaysFullrelay_; }
  void setIsAlwaysFullrelay(bool value) { isAlwaysFullrelay_ = value; }
  // Automatic DNS switch for the host-to-IP table.
  bool isEnabledAutoDNS() const { return isEnabledAutoDNS_; }
  void setIsEnabledAutoDNS(bool value) { isEnabledAutoDNS_ = value; }
  bool openTrace() const { return openTrace_; }
  void setOpenTrace(bool value) { openTrace_ = value; }
  bool isReinitialize() const { return isReinitialize_; }
  void setIsReinitialize(bool value) { isReinitialize_ = value; }
  bool firstInit() const { return firstInit_; }
  void setFirstInit(bool value) { firstInit_ = value; }

  // Read-only here; the SDK's other modules set them through ZRBSettingModuleAccess.
  const std::optional<std::string>& serverCAFilePath() const { return serverCAFilePath_; }
  const std::optional<std::string>& serverConfigPath() const { return serverConfigPath_; }
  const std::optional<std::string>& fullRelayServerUrl() const { return fullRelayServerUrl_; }
  const std::optional<std::string>& dvrPlanPreUrl() const { return dvrPlanPreUrl_; }

  // Host name to IP address table; null until written. Shared, so holders see later changes.
  const std::shared_ptr<StringMap>& domainIPDic() const { return domainIPDic_; }
  void setDomainIPDic(std::shared_ptr<StringMap> value) { domainIPDic_ = std::move(value); }
  long isServerPro() const { return isServerPro_; }
  void setIsServerPro(long value) { isServerPro_ = value; }
  // Kept for the SDK's other modules; nothing in this library reads or changes it.
  long requestCount() const { return requestCount_; }
  void setRequestCount(long value) { requestCount_ = value; }
  unsigned long cid() const { return cid_; }
  void setCid(unsigned long value) { cid_ = value; }
  unsigned long deviceCid() const { return deviceCid_; }
  void setDeviceCid(unsigned long value) { deviceCid_ = value; }
  const std::shared_ptr<ValueMap>& mdicDomain() const { return mdicDomain_; }
  void setMdicDomain(std::shared_ptr<ValueMap> value) { mdicDomain_ = std::move(value); }

  // ---- operations supplied by the SDK's other modules ----
  // Each is a provider the host installs; without one the answer is neutral (empty, false).

  // Host names that certificate pinning covers.
  std::vector<std::string> allDomains() const {
    return allDomains_.callOr([] { return std::vector<std::string>{}; });
  }
  // True when the current server environment's certificates are accepted without pin checks.
  bool isRealStgEnv() const {
    return isRealStgEnv_.callOr([] { return false; });
  }
  // Whether pinning is wanted at all.
  bool isTrustDomains() const {
    return isTrustDomains_.callOr([] { return false; });
  }
  // Whether the international service is in use.
  bool isInternational() const {
    return isInternational_.callOr([] { return false; });
  }

  void setAllDomainsProvider(std::function<std::vector<std::string>()> provider) {
    allDomains_.store(std::move(provider));
  }
  void setIsRealStgEnvProvider(std::function<bool()> provider) { isRealStgEnv_.store(std::move(provider)); }
  void setIsTrustDomainsProvider(std::function<bool()> provider) {
    isTrustDomains_.store(std::move(provider));
  }
  void setIsInternationalProvider(std::function<bool()> provider) {
    isInternational_.store(std::move(provider));
  }
  // Fixed answers, for hosts and tests that have no logic of their own.
  void setAllDomains(std::vector<std::string> domains);
  void setIsRealStgEnv(bool value);
  void setIsTrustDomains(bool value);
  void setIsInternational(bool value);

  std::string className() const override { return "ZRBSetting"; }
  // Every field, one per line, in declaration order.
  std::string description() const override;

 private:
  friend class ZRBSettingModuleAccess;

  bool isAlwaysFullrelay_ = false;
  bool isEnabledAutoDNS_ = false;
  bool openTrace_ = false;
  bool isReinitialize_ = false;
  bool firstInit_ = false;
  std::optional<std::string> serverCAFilePath_;
  std::optional<std::string> serverConfigPath_;
  std::optional<std::string> fullRelayServerUrl_;
  std::optional<std::string> dvrPlanPreUrl_;
  std::shared_ptr<StringMap> domainIPDic_;
  long isServerPro_ = 0;
  long requestCount_ = 0;
  unsigned long cid_ = 0;
  unsigned long deviceCid_ = 0;
  std::shared_ptr<ValueMap> mdicDomain_;

  ZRBAtomicFunction<std::vector<std::string>()> allDomains_;
  ZRBAtomicFunction<bool()> isRealStgEnv_;
  ZRBAtomicFunction<bool()> isTrustDomains_;
  ZRBAtomicFunction<bool()> isInternational_;
};

// The way the SDK's other modules write the settings that are read-only to everyone else.
class ZRBSettingModuleAccess {
 public:
  static void setServerCAFilePath(ZRBSetting& s, std::optional<std::string> v) {
    s.serverCAFilePath_ = std::move(v);
  }
  static void setServerConfigPath(ZRBSetting& s, std::optional<std::string> v) {
    s.serverConfigPath_ = std::move(v);
  }
  static void setFullRelayServerUrl(ZRBSetting& s, std::optional<std::string> v) {
    s.fullRelayServerUrl_ = std::move(v);
  }
  static void setDvrPlanPreUrl(ZRBSetting& s, std::optional<std::string> v) {
    s.dvrPlanPreUrl_ = std::move(v);
  }
};
