#include "settings/setting.h"

#include "settings/field_list.h"

const std::shared_ptr<ZRBSetting>& ZRBSetting::sharedSetting() {
  // Never destroyed: callbacks still running on the main queue while the process exits read it.
  static const auto* instance = new std::shared_ptr<ZRBSetting>(std::make_shared<ZRBSetting>());
  return *instance;
}

void ZRBSetting::setAllDomains(std::vector<std::string> domains) {
  allDomains_.store([domains = std::move(domains)] { return domains; });
}
void ZRBSetting::setIsRealStgEnv(bool value) {
  isRealStgEnv_.store([value] { return value; });
}
void ZRBSetting::setIsTrustDomains(bool value) {
  isTrustDomains_.store([value] { return value; });
}
void ZRBSetting::setIsInternational(bool value) {
  isInternational_.store([value] { return value; });
}

std::string ZRBSetting::description() const {
  ZRBArrayBuilder domains;
  for (auto& domain : allDomains()) domains.add(ZRBValue(domain));
  return ZRBFieldList(ZRBObject::description())
      .add("isAlwaysFullrelay", isAlwaysFullrelay_)
      .add("isEnabledAutoDNS", isEnabledAutoDNS_)
      .add("openTrace", openTrace_)
      .add("isReinitialize", isReinitialize_)
      .add("firstInit", firstInit_)
      .add("serverCAFilePath", serverCAFilePath_)
      .add("serverConfigPath", serverConfigPath_)
      .add("fullRelayServerUrl", fullRelayServerUrl_)
      .add("dvrPlanPreUrl", dvrPlanPreUrl_)
      .add("domainIPDic", domainIPDic_)
      .add("isServerPro", isServerPro_)
      .add("requestCount", requestCount_)
      .add("cid", cid_)
      .add("deviceCid", deviceCid_)
      .add("mdicDomain", mdicDomain_)
      .add("allDomains", domains.build())
      .add("isRealStgEnv", isRealStgEnv())
      .add("isTrustDomains", isTrustDomains())
      .add("isInternational", isInternational())
      .text();
}
