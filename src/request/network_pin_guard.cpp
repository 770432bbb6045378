#include "request/network_pin_guard.h"

#include <mutex>
#include <utility>

#include "pinning/configuration.h"
#include "request/network_log.h"
#include "request/network_pin_guard_pins.h"
#include "request/network_utils.h"
#include "settings/setting.h"

namespace {

std::mutex& pinsMutex() {
  static std::mutex mutex;
  return mutex;
}

// Empty while the built-in pins apply.
std::vector<std::string>& replacedPins() {
  static std::vector<std::string> pins;
  return pins;
}

ZRBValue& policyAdditions() {
  static ZRBValue additions;
  return additions;
}

ZRBValue stringArray(const std::vector<std::string>& strings) {
  std::vector<ZRBValue> items;
  items.reserve(strings.size());
  for (const auto& string : strings) items.emplace_back(string);
  return ZRBValue::array(std::move(items));
}

ZRBValue domainPolicy(const ZRBValue& pins, const ZRBValue& additions) {
  ZRBDictionaryBuilder policy;
  if (additions.isDictionary()) {
    for (const auto& [key, value] : additions.entries()) {
      if (key.isString()) policy.set(key.stringView(), value);
    }
  }
  // Set last, so that an addition cannot weaken them.
  policy.set(kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({ZRBValue(kZRB_PGDAlgorithmRsa2048)}));
  policy.set(kZRB_PGDPublicKeyHashes, pins);
  policy.set(kZRB_PGDEnforcePinning, ZRBValue(true));
  policy.set(kZRB_PGDIncludeSubdomains, ZRBValue(true));
  return policy.build();
}

}  // namespace

std::vector<std::string> ZRBNetworkPinGuard::publicKeyHashes() {
  {
    std::lock_guard lock(pinsMutex());
    if (!replacedPins().empty()) return replacedPins();
  }
  return {kZRBNetworkPinGuardPublicKeyHashes.begin(), kZRBNetworkPinGuardPublicKeyHashes.end()};
}

void ZRBNetworkPinGuard::setPublicKeyHashes(std::vector<std::string> hashes) {
  std::lock_guard lock(pinsMutex());
  replacedPins() = std::move(hashes);
}

ZRBValue ZRBNetworkPinGuard::domainPolicyAdditions() {
  std::lock_guard lock(pinsMutex());
  return policyAdditions();
}

void ZRBNetworkPinGuard::setDomainPolicyAdditions(ZRBValue additions) {
  std::lock_guard lock(pinsMutex());
  policyAdditions() = std::move(additions);
}

ZRB_PinGuardPtr ZRBNetworkPinGuard::trustDomains(const ZRBValue& domains) {
  const auto& setting = ZRBSetting::sharedSetting();
  bool realStgEnv = setting->isRealStgEnv();
  bool pin = !realStgEnv && setting->isTrustDomains();
  if (!pin) {
    ZRBNetworkLog("JenkinsConfigNoTrustDomains: %d-%d-%d", int(setting->isRealStgEnv()),
                  int(setting->isTrustDomains()), int(setting->isInternational()));
    return nullptr;
  }
  if (!domains.isArray() || domains.empty()) return nullptr;
  return addPinGuardDomains(domains);
}

ZRB_PinGuardPtr ZRBNetworkPinGuard::trustDomains(const std::vector<std::string>& domains) {
  return trustDomains(stringArray(domains));
}

ZRBValue ZRBNetworkPinGuard::pinGuardConfigurationForDomains(const ZRBValue& domains) {
  const ZRBValue policy = domainPolicy(stringArray(publicKeyHashes()), domainPolicyAdditions());
  std::vector<ZRBDictionaryEntry> pinned;
  for (const ZRBValue& entry : domains.isArray() ? domains.items() : std::span<const ZRBValue>{}) {
    if (!entry.isString() || entry.stringView().empty()) continue;
    std::optional<std::string> host = ZRBRQ_NetworkUtils::filterUrlHost(entry.stringView());
    if (!host || host->empty()) continue;
    ZRBValue key(*host);
    bool replaced = false;
    for (auto& existing : pinned) {
      if (existing.first == key) {
        existing.second = policy;
        replaced = true;
      }
    }
    if (!replaced) pinned.emplace_back(std::move(key), policy);
  }
  return ZRBValue::dictionary({
      {kZRB_PGDSwizzleNetworkDelegates, ZRBValue(false)},
      {kZRB_PGDPinnedDomains, ZRBValue::dictionary(std::move(pinned))},
  });
}

ZRB_PinGuardPtr ZRBNetworkPinGuard::addPinGuardDomains(const ZRBValue& domains) {
  return ZRB_PinGuard::initWithConfiguration(pinGuardConfigurationForDomains(domains));
}

ZRB_PinGuardPtr ZRBNetworkPinGuard::addPinGuardDomains(const std::vector<std::string>& domains) {
  return addPinGuardDomains(stringArray(domains));
}
