// orvel suffix HOST...: one line per host,
//   HOST LENGTH REGISTRABLE
// the host as given, the byte length of its public suffix (0 when it has none known), and its
// registrable domain, the suffix with one more label to its left, lower-cased ("-" when the host
// has no suffix or is a bare suffix).
#include <cstdio>
#include <string>

#include "commands.h"
#include "pinning/registry/registry.h"

namespace {

std::string registrableDomain(std::string host, size_t suffixLength) {
  if (!host.empty() && host.back() == '.') host.pop_back();
  if (suffixLength == 0 || suffixLength >= host.size()) return "-";
  size_t dot = host.size() - suffixLength - 1;
  if (host[dot] != '.') return "-";
  size_t labelStart = host.rfind('.', dot == 0 ? 0 : dot - 1);
  labelStart = labelStart == std::string::npos ? 0 : labelStart + 1;
  if (labelStart >= dot) return "-";  // an empty label before the suffix
  std::string domain = host.substr(labelStart);
  for (char& c : domain) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return domain;
}

}  // namespace

int orvelSuffixCommand(OrvelArguments arguments) {
  if (arguments.empty()) {
    std::fprintf(stderr, "usage: orvel suffix HOST...\n");
    return 2;
  }
  ZRB_InitializeDomainRegistry();
  for (std::string_view argument : arguments) {
    std::string host(argument);
    size_t length = ZRB_GetRegistryLength(host.c_str());
    std::printf("%s %zu %s\n", host.c_str(), length, registrableDomain(host, length).c_str());
  }
  return 0;
}
