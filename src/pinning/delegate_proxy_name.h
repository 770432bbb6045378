// Which delegates the pinning proxies leave alone: those of the pinning library itself, the
// proxies among them. Their class names begin with "PGD", after the library's "ZRB_" prefix when
// they carry it ("ZRB_PGDNSURLSessionDelegateProxy"), so a proxy is never wrapped in another one.
#pragma once

#include <string_view>

inline bool ZRB_PGDIsPinGuardClassName(std::string_view className) {
  if (className.starts_with("ZRB_")) className.remove_prefix(4);
  return className.starts_with("PGD");
}
