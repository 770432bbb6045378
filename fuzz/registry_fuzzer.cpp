// Fuzzes ZRB_GetRegistryLength and its allow-unknown variant with arbitrary bytes, checking the
// properties every answer must have rather than only surviving the input: the suffix ends the
// host and starts at a label, case and one trailing dot change nothing, and the variants agree.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "pinning/registry/registry.h"

namespace {

void check(bool condition, const char* what, const std::string& host) {
  if (condition) return;
  std::fprintf(stderr, "registry fuzzer: %s for host \"%s\" (%zu bytes)\n", what, host.c_str(), host.size());
  std::abort();
}

std::string lowered(std::string host) {
  for (char& c : host) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return host;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool initialized = (ZRB_InitializeDomainRegistry(), true);
  (void)initialized;
  // The host ends at the first NUL, as a C string does.
  std::string host(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));

  size_t length = ZRB_GetRegistryLength(host.c_str());
  size_t lengthAllowingUnknown = ZRB_GetRegistryLengthAllowUnknownRegistries(host.c_str());
  size_t end = host.size();
  if (end > 0 && host[end - 1] == '.') --end;

  check(length <= end, "suffix longer than the host", host);
  if (length > 0) {
    check(host.size() <= 255, "answer for an over-long host", host);
    size_t start = end - length;
    check(start == 0 || host[start - 1] == '.', "suffix does not start at a label", host);
    check(host[start] != '.', "suffix starts with an empty label", host);
    check(lengthAllowingUnknown == length, "variants disagree on a known suffix", host);
  } else if (lengthAllowingUnknown > 0) {
    check(lengthAllowingUnknown <= end, "unknown suffix longer than the host", host);
    size_t start = end - lengthAllowingUnknown;
    check(start == 0 || host[start - 1] == '.', "unknown suffix does not start at a label", host);
    check(host.find('.', start) >= end, "unknown suffix spans more than one label", host);
  }
  check(ZRB_GetRegistryLength(lowered(host).c_str()) == length, "case changes the answer", host);
  if (host.size() < 255 && (host.empty() || host.back() != '.')) {
    check(ZRB_GetRegistryLength((host + ".").c_str()) == length, "a trailing dot changes the answer", host);
  }
  return 0;
}
