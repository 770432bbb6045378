#include "pinning/configuration.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "pinning/domain_lookup.h"
#include "pinning/registry/registry.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/exception.h"
#include "platform/foundation/string_format.h"

void zrb_raisePinGuardConfigurationInvalid(std::string reason) {
  throw ZRBException(std::string(kZRB_PGDConfigurationInvalidException), std::move(reason));
}

// ---- normalised configuration ----

namespace {

template <typename T>
bool sameObjects(const std::optional<std::vector<std::shared_ptr<T>>>& a,
                 const std::optional<std::vector<std::shared_ptr<T>>>& b) {
  if (a.has_value() != b.has_value()) return false;
  if (!a) return true;
  return std::equal(a->begin(), a->end(), b->begin(), b->end(),
                    [](const auto& x, const auto& y) { return x == y || (x && y && x->isEqual(*y)); });
}

ZRBDate toDate(std::chrono::system_clock::time_point time) {
  return {std::chrono::duration<double>(time.time_since_epoch()).count()};
}

// The clock counts nanoseconds and so spans only about 1678 to 2261; dates beyond that are
// clamped to the ends of its range, which keeps every comparison with the present right.
std::chrono::system_clock::time_point timePointFromSeconds(double secondsSince1970) {
  using Clock = std::chrono::system_clock;
  // A second inside the range, so that rounding cannot overflow the conversion.
  constexpr double kLatest = std::chrono::duration<double>(Clock::duration::max()).count() - 1;
  constexpr double kEarliest = std::chrono::duration<double>(Clock::duration::min()).count() + 1;
  if (secondsSince1970 != secondsSince1970) return Clock::time_point();  // NaN
  if (secondsSince1970 >= kLatest) return Clock::time_point::max();
  if (secondsSince1970 <= kEarliest) return Clock::time_point::min();
  return Clock::time_point(
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(secondsSince1970)));
}

}  // namespace

bool operator==(const ZRB_PGDDomainPolicy& a, const ZRB_PGDDomainPolicy& b) {
  return a.excludeSubdomainFromParentPolicy == b.excludeSubdomainFromParentPolicy &&
         a.includeSubdomains == b.includeSubdomains && a.expirationDate == b.expirationDate &&
         a.enforcePinning == b.enforcePinning && a.disableDefaultReportUri == b.disableDefaultReportUri &&
         sameObjects(a.additionalTrustAnchors, b.additionalTrustAnchors) &&
         a.publicKeyAlgorithms == b.publicKeyAlgorithms && sameObjects(a.reportUris, b.reportUris) &&
         a.publicKeyHashes == b.publicKeyHashes;
}

ZRBValue ZRB_PGDDomainPolicy::toValue() const {
  ZRBDictionaryBuilder policy;
  if (excludeSubdomainFromParentPolicy) {
    policy.set(kZRB_PGDExcludeSubdomainFromParentPolicy, true);
    return policy.build();
  }
  policy.set(kZRB_PGDExcludeSubdomainFromParentPolicy, false);
  policy.set(kZRB_PGDIncludeSubdomains, includeSubdomains);
  if (expirationDate) policy.set(kZRB_PGDExpirationDate, toDate(*expirationDate));
  policy.set(kZRB_PGDEnforcePinning, enforcePinning);
  policy.set(kZRB_PGDDisableDefaultReportUri, disableDefaultReportUri);
  if (additionalTrustAnchors) {
    ZRBArrayBuilder anchors;
    for (const auto& certificate : *additionalTrustAnchors) anchors.add(certificate);
    policy.set(kZRB_PGDAdditionalTrustAnchors, anchors.build());
  }
  ZRBArrayBuilder algorithms;
  for (auto algorithm : publicKeyAlgorithms) algorithms.add(static_cast<long>(algorithm));
  policy.set(kZRB_PGDPublicKeyAlgorithms, algorithms.build());
  if (reportUris) {
    ZRBArrayBuilder uris;
    for (const auto& url : *reportUris) uris.add(url);
    policy.set(kZRB_PGDReportUris, uris.build());
  }
  ZRBSetBuilder hashes;
  for (const auto& pin : publicKeyHashes) hashes.add(ZRBValue::data(pin.data(), pin.size()));
  policy.set(kZRB_PGDPublicKeyHashes, hashes.build());
  return policy.build();
}

ZRB_PGDDomainPolicyPtr ZRB_PGDPinnedDomainPolicies::find(std::string_view domain) const {
  auto found = index_.find(domain);
  return found == index_.end() ? nullptr : entries_[found->second].second;
}

void ZRB_PGDPinnedDomainPolicies::set(std::string domain, ZRB_PGDDomainPolicyPtr policy) {
  auto found = index_.find(domain);
  if (found != index_.end()) {
    entries_[found->second].second = std::move(policy);
    return;
  }
  index_.emplace(domain, entries_.size());
  entries_.emplace_back(std::move(domain), std::move(policy));
}

bool operator==(const ZRB_PGDPinnedDomainPolicies& a, const ZRB_PGDPinnedDomainPolicies& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
    return x.first == y.first && (x.second == y.second || (x.second && y.second && *x.second == *y.second));
  });
}

ZRBValue ZRB_PGDConfiguration::toValue() const {
  ZRBDictionaryBuilder domains;
  for (const auto& [domain, policy] : pinnedDomains) domains.set(domain, policy->toValue());
  ZRBDictionaryBuilder configuration;
  configuration.set(kZRB_PGDSwizzleNetworkDelegates, swizzleNetworkDelegates);
  configuration.set(kZRB_PGDPinnedDomains, domains.build());
  return configuration.build();
}

namespace {

// Reads one policy map of toValue()'s shape; false when it has another.
bool policyFromValue(const ZRBValue& value, ZRB_PGDDomainPolicy& policy) {
  if (!value.isDictionary() || !value[kZRB_PGDExcludeSubdomainFromParentPolicy].isBool()) return false;
  if (value[kZRB_PGDExcludeSubdomainFromParentPolicy].boolValue()) {
    policy.excludeSubdomainFromParentPolicy = true;
    return value.count() == 1;
  }
  std::size_t expected = 6;
  auto flag = [&value](std::string_view key, bool& out) {
    if (!value[key].isBool()) return false;
    out = value[key].boolValue();
    return true;
  };
  if (!flag(kZRB_PGDIncludeSubdomains, policy.includeSubdomains) ||
      !flag(kZRB_PGDEnforcePinning, policy.enforcePinning) ||
      !flag(kZRB_PGDDisableDefaultReportUri, policy.disableDefaultReportUri)) {
    return false;
  }
  if (const ZRBValue& date = value[kZRB_PGDExpirationDate]; !date.isAbsent()) {
    if (!date.isDate()) return false;
    policy.expirationDate = timePointFromSeconds(date.dateValue().secondsSince1970);
    ++expected;
  }
  if (const ZRBValue& anchors = value[kZRB_PGDAdditionalTrustAnchors]; !anchors.isAbsent()) {
    if (!anchors.isArray()) return false;
    policy.additionalTrustAnchors.emplace();
    for (const auto& item : anchors.items()) {
      auto certificate = item.objectAs<ZRBSecCertificate>();
      if (!certificate) return false;
      policy.additionalTrustAnchors->push_back(std::move(certificate));
    }
    ++expected;
  }
  const ZRBValue& algorithms = value[kZRB_PGDPublicKeyAlgorithms];
  if (!algorithms.isArray()) return false;
  for (const auto& item : algorithms.items()) {
    if (!item.isInteger() || item.intValue() < PGDPublicKeyAlgorithmRsa2048 ||
        item.intValue() > PGDPublicKeyAlgorithmEcDsaSecp384r1) {
      return false;
    }
    policy.publicKeyAlgorithms.push_back(static_cast<PGDPublicKeyAlgorithm>(item.intValue()));
  }
  if (const ZRBValue& uris = value[kZRB_PGDReportUris]; !uris.isAbsent()) {
    if (!uris.isArray()) return false;
    policy.reportUris.emplace();
    for (const auto& item : uris.items()) {
      auto url = item.objectAs<ZRBURL>();
      if (!url) return false;
      policy.reportUris->push_back(std::move(url));
    }
    ++expected;
  }
  const ZRBValue& hashes = value[kZRB_PGDPublicKeyHashes];
  if (!hashes.isSet()) return false;
  for (const auto& item : hashes.items()) {
    if (!item.isData() || item.bytes().size() != ZRB_PGDPin().size()) return false;
    ZRB_PGDPin pin;
    std::copy(item.bytes().begin(), item.bytes().end(), pin.begin());
    policy.publicKeyHashes.insert(pin);
  }
  return value.count() == expected;
}

}  // namespace

std::shared_ptr<const ZRB_PGDConfiguration> ZRB_PGDConfiguration::fromValue(const ZRBValue& value) {
  const ZRBValue& swizzle = value[kZRB_PGDSwizzleNetworkDelegates];
  const ZRBValue& domains = value[kZRB_PGDPinnedDomains];
  if (!value.isDictionary() || value.count() != 2 || !swizzle.isBool() || !domains.isDictionary())
    return nullptr;
  auto configuration = std::make_shared<ZRB_PGDConfiguration>();
  configuration->swizzleNetworkDelegates = swizzle.boolValue();
  for (const auto& [domain, policyValue] : domains.entries()) {
    auto policy = std::make_shared<ZRB_PGDDomainPolicy>();
    if (!policyFromValue(policyValue, *policy)) return nullptr;
    configuration->pinnedDomains.set(domain.string(), std::move(policy));
  }
  return configuration;
}

// ---- PEM ----

ZRBSecCertificatePtr certificateFromPEM(std::string_view pem) {
  constexpr std::string_view kWhiteSpace = " \t\n\r\v\f";
  constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
  constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
  std::size_t first = pem.find_first_not_of(kWhiteSpace);
  pem = first == std::string_view::npos ? std::string_view()
                                        : pem.substr(first, pem.find_last_not_of(kWhiteSpace) + 1 - first);
  if (pem.starts_with(kBegin)) pem.remove_prefix(kBegin.size());
  if (pem.ends_with(kEnd)) pem.remove_suffix(kEnd.size());
  // Line breaks, and anything else outside the alphabet, are skipped.
  auto der = ZRBBase64Decode(pem, ZRBBase64DecodingIgnoreUnknownCharacters);
  ZRBSecCertificatePtr certificate = der ? ZRBSecCertificate::createWithData(*der) : nullptr;
  if (!certificate) zrb_raisePinGuardConfigurationInvalid("Failed to parse PEM certificate");
  return certificate;
}

// ---- parser ----

namespace {

// The messages of the configuration exception, word for word: integrators search for them.
constexpr std::string_view kExcludedWithOtherKeys =
    "PinGuard was initialized with PGDExcludeSubdomainFromParentPolicy for domain %@ but detected additional "
    "configuration keys";
constexpr std::string_view kExcludedWithoutParent =
    "PinGuard was initialized with PGDExcludeSubdomainFromParentPolicy for domain %@ but could not find a "
    "policy for a parent domain";
constexpr std::string_view kTooFewPins =
    "PinGuard was initialized with less than %lu pins (ie. no backup pins) for domain %@. This might brick "
    "your App; please review the Getting Started guide in ./docs/getting-started.md";
constexpr std::string_view kNoPinnedDomains =
    "PinGuard was initialized with no pinned domains. The configuration format has changed: ensure your "
    "domain pinning policies are under the PGDPinnedDomains key within PGDConfiguration.";

[[noreturn]] void raiseInvalidValue(std::string_view key, std::string_view domain) {
  zrb_raisePinGuardConfigurationInvalid(ZRBStringWithFormat(
      "PinGuard was initialized with an invalid value for %@ for domain %@", key, domain));
}

// Booleans come as booleans from JSON and property lists; numbers are accepted as the platform's
// number objects answer boolValue (non-zero is true). Anything else is a mistake in the file.
bool booleanValue(const ZRBValue& value, std::string_view key, std::string_view domain) {
  if (!value.isBool() && !value.isNumber()) raiseInvalidValue(key, domain);
  return value.boolValue();
}

// The items of an array of strings; any other shape raises the invalid-value message.
std::span<const ZRBValue> stringItems(const ZRBValue& value, std::string_view key, std::string_view domain) {
  if (!value.isArray()) raiseInvalidValue(key, domain);
  for (const auto& item : value.items()) {
    if (!item.isString()) raiseInvalidValue(key, domain);
  }
  return value.items();
}

bool isLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// "yyyy-MM-dd" read as a date formatter with the device's time zone reads it: local midnight of that
// day. Each field is one or more digits (the year up to four, month and day up to two) and must
// name a real day; anything else, surrounding white space included, gives nothing.
std::optional<std::chrono::system_clock::time_point> parseExpirationDate(std::string_view text) {
  int fields[3] = {0, 0, 0};
  constexpr std::size_t kMaximumDigits[3] = {4, 2, 2};
  std::size_t position = 0;
  for (int field = 0; field < 3; ++field) {
    if (field > 0) {
      if (position >= text.size() || text[position] != '-') return std::nullopt;
      ++position;
    }
    std::size_t digits = 0;
    while (position < text.size() && text[position] >= '0' && text[position] <= '9') {
      if (++digits > kMaximumDigits[field]) return std::nullopt;
      fields[field] = fields[field] * 10 + (text[position++] - '0');
    }
    if (digits == 0) return std::nullopt;
  }
  if (position != text.size()) return std::nullopt;
  auto [year, month, day] = fields;
  constexpr int kDaysInMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (year < 1 || month < 1 || month > 12 || day < 1) return std::nullopt;
  if (day > kDaysInMonth[month - 1] + (month == 2 && isLeapYear(year) ? 1 : 0)) return std::nullopt;

  std::tm local{};
  local.tm_year = year - 1900;
  local.tm_mon = month - 1;
  local.tm_mday = day;
  local.tm_isdst = -1;  // whatever the zone's rule is on that day
  std::time_t seconds = std::mktime(&local);
  if (seconds == static_cast<std::time_t>(-1)) return std::nullopt;
  return timePointFromSeconds(static_cast<double>(seconds));
}

std::optional<PGDPublicKeyAlgorithm> algorithmNamed(std::string_view name) {
  if (name == kZRB_PGDAlgorithmRsa2048) return PGDPublicKeyAlgorithmRsa2048;
  if (name == kZRB_PGDAlgorithmRsa4096) return PGDPublicKeyAlgorithmRsa4096;
  if (name == kZRB_PGDAlgorithmEcDsaSecp256r1) return PGDPublicKeyAlgorithmEcDsaSecp256r1;
  if (name == kZRB_PGDAlgorithmEcDsaSecp384r1) return PGDPublicKeyAlgorithmEcDsaSecp384r1;
  return std::nullopt;
}

ZRB_PGDDomainPolicyPtr parseDomainPolicy(const std::string& domain, const ZRBValue& given) {
  auto policy = std::make_shared<ZRB_PGDDomainPolicy>();
  if (!given.isDictionary()) raiseInvalidValue(kZRB_PGDPinnedDomains, domain);

  // The key's presence alone selects the exclusion, whatever value it holds.
  if (given.contains(kZRB_PGDExcludeSubdomainFromParentPolicy)) {
    if (given.count() > 1) {
      zrb_raisePinGuardConfigurationInvalid(ZRBStringWithFormat(kExcludedWithOtherKeys, domain));
    }
    policy->excludeSubdomainFromParentPolicy = true;
    return policy;
  }

  if (const ZRBValue& include = given[kZRB_PGDIncludeSubdomains]; !include.isAbsent()) {
    policy->includeSubdomains = booleanValue(include, kZRB_PGDIncludeSubdomains, domain);
    // A bare public suffix with include-subdomains would pin a whole registry.
    if (policy->includeSubdomains && zrb_registryLengthOfHost(domain) == domain.size()) {
      zrb_raisePinGuardConfigurationInvalid(ZRBStringWithFormat(
          "PinGuard was initialized with includeSubdomains for a domain suffix %@", domain));
    }
  }

  if (const ZRBValue& date = given[kZRB_PGDExpirationDate]; !date.isAbsent()) {
    if (!date.isString()) raiseInvalidValue(kZRB_PGDExpirationDate, domain);
    policy->expirationDate = parseExpirationDate(date.stringView());
  }

  if (const ZRBValue& enforce = given[kZRB_PGDEnforcePinning]; !enforce.isAbsent()) {
    policy->enforcePinning = booleanValue(enforce, kZRB_PGDEnforcePinning, domain);
  }
  if (const ZRBValue& disable = given[kZRB_PGDDisableDefaultReportUri]; !disable.isAbsent()) {
    policy->disableDefaultReportUri = booleanValue(disable, kZRB_PGDDisableDefaultReportUri, domain);
  }

  if (const ZRBValue& anchors = given[kZRB_PGDAdditionalTrustAnchors]; !anchors.isAbsent()) {
    auto& certificates = policy->additionalTrustAnchors.emplace();
    long index = 0;
    for (const auto& pem : stringItems(anchors, kZRB_PGDAdditionalTrustAnchors, domain)) {
      // certificateFromPEM raises on its own; the null check guards against a converter that
      // reports failure by returning nothing.
      auto certificate = certificateFromPEM(pem.stringView());
      if (!certificate) {
        zrb_raisePinGuardConfigurationInvalid(ZRBStringWithFormat(
            "Failed to parse PEM-encoded certificate at index %ld for domain %@", index, domain));
      }
      certificates.push_back(std::move(certificate));
      ++index;
    }
  }

  const ZRBValue& algorithms = given[kZRB_PGDPublicKeyAlgorithms];
  if (algorithms.isAbsent()) raiseInvalidValue(kZRB_PGDPublicKeyAlgorithms, domain);
  for (const auto& name : stringItems(algorithms, kZRB_PGDPublicKeyAlgorithms, domain)) {
    auto algorithm = algorithmNamed(name.stringView());
    if (!algorithm) raiseInvalidValue(kZRB_PGDPublicKeyAlgorithms, domain);
    policy->publicKeyAlgorithms.push_back(*algorithm);
  }

  if (const ZRBValue& uris = given[kZRB_PGDReportUris]; !uris.isAbsent()) {
    auto& urls = policy->reportUris.emplace();
    for (const auto& text : stringItems(uris, kZRB_PGDReportUris, domain)) {
      auto url = ZRBURL::URLWithString(text.stringView());
      if (!url) raiseInvalidValue(kZRB_PGDReportUris, domain);
      urls.push_back(std::move(url));
    }
  }

  if (const ZRBValue& hashes = given[kZRB_PGDPublicKeyHashes]; !hashes.isAbsent()) {
    for (const auto& text : stringItems(hashes, kZRB_PGDPublicKeyHashes, domain)) {
      auto pin = ZRBBase64Decode(text.stringView());  // strict: no character is skipped
      if (!pin || pin->size() != ZRB_PGDPin().size()) {
        zrb_raisePinGuardConfigurationInvalid(ZRBStringWithFormat(
            "PinGuard was initialized with an invalid Pin %@ for domain %@", text.stringView(), domain));
      }
      ZRB_PGDPin value;
      std::copy(pin->begin(), pin->end(), value.begin());
      policy->publicKeyHashes.insert(value);
    }
  }

  // Without a backup pin, rotating the server's key would lock every installed app out.
  unsigned long minimumPins = policy->enforcePinning ? 2 : 1;
  if (policy->publicKeyHashes.size() < minimumPins) {
    zrb_raisePinGuardConfigurationInvalid(ZRBStringWithFormat(kTooFewPins, minimumPins, domain));
  }
  return policy;
}

}  // namespace

ZRB_PGDConfigurationPtr zrb_parsePinGuardConfiguration(const ZRBValue& configuration) {
  ZRB_InitializeDomainRegistry();
  auto result = std::make_shared<ZRB_PGDConfiguration>();

  if (const ZRBValue& swizzle = configuration[kZRB_PGDSwizzleNetworkDelegates]; !swizzle.isAbsent()) {
    if (!swizzle.isBool() && !swizzle.isNumber()) {
      zrb_raisePinGuardConfigurationInvalid(ZRBStringWithFormat(
          "PinGuard was initialized with an invalid value for %@", kZRB_PGDSwizzleNetworkDelegates));
    }
    result->swizzleNetworkDelegates = swizzle.boolValue();
  }

  const ZRBValue& domains = configuration[kZRB_PGDPinnedDomains];
  if (!domains.isDictionary() || domains.empty())
    zrb_raisePinGuardConfigurationInvalid(std::string(kNoPinnedDomains));

  for (const auto& [key, given] : domains.entries()) {
    std::string domain = key.string();
    if (zrb_registryLengthOfHost(domain) == 0) {
      zrb_raisePinGuardConfigurationInvalid(
          ZRBStringWithFormat("PinGuard was initialized with an invalid domain %@", domain));
    }
    result->pinnedDomains.set(domain, parseDomainPolicy(domain, given));
  }

  // An excluded subdomain only makes sense under a parent's include-subdomains policy. The extra
  // letter in front keeps the exact-name match from finding the excluded entry itself, while the
  // suffix match still finds its parent.
  for (const auto& [domain, policy] : result->pinnedDomains) {
    if (!policy->excludeSubdomainFromParentPolicy) continue;
    if (!zrb_getPinningConfigurationKeyForDomain("a" + domain, result->pinnedDomains)) {
      zrb_raisePinGuardConfigurationInvalid(ZRBStringWithFormat(kExcludedWithoutParent, domain));
    }
  }
  return result;
}
