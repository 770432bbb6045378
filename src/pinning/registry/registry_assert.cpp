// The domain registry's replaceable assertion handler.
#include <cstdio>
#include <cstdlib>

#include "pinning/registry/registry_tables.h"

namespace {

void DefaultAssertHandler(const char* file, int line, const char* expression) {
  std::fprintf(stderr, "%s:%d. CHECK failed: %s\n", file, line, expression);
  std::fflush(stderr);
  std::abort();
}

}  // namespace

extern "C" {

std::atomic<ZRB_DomainRegistryAssertHandler> g_assert_hander{DefaultAssertHandler};

void ZRB_SetDomainRegistryAssertHandler(ZRB_DomainRegistryAssertHandler handler) {
  g_assert_hander.store(handler != nullptr ? handler : DefaultAssertHandler, std::memory_order_release);
}

void ZRB_DoAssert(const char* file, int line, const char* expression, int condition) {
  if (!condition) g_assert_hander.load(std::memory_order_acquire)(file, line, expression);
}

}  // extern "C"
