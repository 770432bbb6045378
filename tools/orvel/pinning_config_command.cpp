// orvel pinning-config FILE: checks a pinning configuration and prints its normalised form.
//
// FILE is JSON or a property list (XML or binary; "-" reads standard input) holding the
// configuration map, or an Info.plist whose "PGDConfiguration" entry holds it. On success the
// normalised configuration is printed (every default filled in, dates as local time, pins in
// base64) and the status is 0. A configuration the library refuses prints the exception's reason
// to standard error with status 1; an unreadable file also gives 1, a usage error 2.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

#include "commands.h"
#include "pinning/configuration.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/exception.h"
#include "platform/foundation/json_serialization.h"
#include "platform/foundation/property_list_serialization.h"

namespace {

// Property lists start with "bplist" or an XML tag; everything else is taken for JSON.
ZRBValue decode(const std::string& contents, ZRBErrorPtr* error) {
  std::size_t start = contents.find_first_not_of(" \t\r\n");
  bool plist = contents.starts_with("bplist") || (start != std::string::npos && contents[start] == '<');
  if (plist) {
    auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(contents.data()), contents.size());
    return ZRBPropertyListSerialization::propertyListWithData(bytes, ZRBPropertyListImmutable, nullptr,
                                                              error);
  }
  return ZRBJSONSerialization::JSONObjectWithData(contents, {}, error);
}

std::string errorText(const ZRBErrorPtr& error) {
  if (!error) return "unreadable";
  const ZRBValue& detail = error->userInfo()[ZRBDebugDescriptionErrorKey];
  return detail.isString() ? detail.string() : error->localizedDescription();
}

void complain(std::string_view path, const std::string& message) {
  std::fprintf(stderr, "orvel pinning-config: %.*s: %s\n", static_cast<int>(path.size()), path.data(),
               message.c_str());
}

const char* yesNo(bool value) { return value ? "true" : "false"; }

std::string localTime(std::chrono::system_clock::time_point time) {
  std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm local{};
  char text[64] = "";
  if (localtime_r(&seconds, &local)) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &local);
  return text;
}

const char* algorithmName(PGDPublicKeyAlgorithm algorithm) {
  switch (algorithm) {
    case PGDPublicKeyAlgorithmRsa2048: return kZRB_PGDAlgorithmRsa2048.data();
    case PGDPublicKeyAlgorithmRsa4096: return kZRB_PGDAlgorithmRsa4096.data();
    case PGDPublicKeyAlgorithmEcDsaSecp256r1: return kZRB_PGDAlgorithmEcDsaSecp256r1.data();
    case PGDPublicKeyAlgorithmEcDsaSecp384r1: return kZRB_PGDAlgorithmEcDsaSecp384r1.data();
  }
  return "?";
}

void printPolicy(const std::string& domain, const ZRB_PGDDomainPolicy& policy) {
  std::printf("  %s\n", domain.c_str());
  std::printf("    kPGExcludeSubdomainFromParentPolicy: %s\n",
              yesNo(policy.excludeSubdomainFromParentPolicy));
  if (policy.excludeSubdomainFromParentPolicy) return;
  std::printf("    PGDIncludeSubdomains: %s\n", yesNo(policy.includeSubdomains));
  if (policy.expirationDate)
    std::printf("    PGDExpirationDate: %s\n", localTime(*policy.expirationDate).c_str());
  std::printf("    PGDEnforcePinning: %s\n", yesNo(policy.enforcePinning));
  std::printf("    PGDDisableDefaultReportUri: %s\n", yesNo(policy.disableDefaultReportUri));
  if (policy.additionalTrustAnchors) {
    std::printf("    PGDAdditionalTrustAnchors:%s\n",
                policy.additionalTrustAnchors->empty() ? " (none)" : "");
    for (const auto& certificate : *policy.additionalTrustAnchors) {
      std::printf("      s: %s i: %s\n", certificate->copySubjectSummary().value_or("(none)").c_str(),
                  certificate->copyIssuerSummary().value_or("(none)").c_str());
    }
  }
  std::printf("    PGDPublicKeyAlgorithms:%s\n", policy.publicKeyAlgorithms.empty() ? " (none)" : "");
  for (auto algorithm : policy.publicKeyAlgorithms) std::printf("      %s\n", algorithmName(algorithm));
  if (policy.reportUris) {
    std::printf("    PGDReportUris:%s\n", policy.reportUris->empty() ? " (none)" : "");
    for (const auto& url : *policy.reportUris) std::printf("      %s\n", url->absoluteString().c_str());
  }
  std::printf("    PGDPublicKeyHashes:\n");
  for (const auto& pin : policy.publicKeyHashes) std::printf("      %s\n", ZRBBase64Encode(pin).c_str());
}

}  // namespace

ZRBValue orvelReadPinningConfiguration(std::string_view path, std::string& problem) {
  errno = 0;
  auto contents = orvelReadFile(path);
  if (!contents) {
    problem = std::string("cannot read: ") + std::strerror(errno != 0 ? errno : EIO);
    return ZRBValue();
  }
  ZRBErrorPtr error;
  ZRBValue configuration = decode(*contents, &error);
  if (configuration.isAbsent()) {
    problem = "not JSON or a property list: " + errorText(error);
    return ZRBValue();
  }
  // An application's Info.plist carries the configuration under this entry.
  if (!configuration.contains(kZRB_PGDPinnedDomains) && configuration["PGDConfiguration"].isDictionary()) {
    configuration = configuration["PGDConfiguration"];
  }
  return configuration;
}

int orvelPinningConfigCommand(OrvelArguments arguments) {
  if (arguments.size() != 1) {
    std::fprintf(stderr, "usage: orvel pinning-config FILE\n");
    return 2;
  }
  std::string_view path = arguments.front();
  std::string problem;
  ZRBValue configuration = orvelReadPinningConfiguration(path, problem);
  if (configuration.isAbsent()) {
    complain(path, problem);
    return 1;
  }

  ZRB_PGDConfigurationPtr parsed;
  try {
    parsed = zrb_parsePinGuardConfiguration(configuration);
  } catch (const ZRBException& exception) {
    complain(path, exception.reason());
    return 1;
  }
  std::printf("PGDSwizzleNetworkDelegates: %s\n", yesNo(parsed->swizzleNetworkDelegates));
  std::printf("PGDPinnedDomains:\n");
  for (const auto& [domain, policy] : parsed->pinnedDomains) printPolicy(domain, *policy);
  std::fflush(stdout);
  return 0;
}
