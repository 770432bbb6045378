#include <orvelkit/platform/foundation/value.h>
#include <orvelkit/settings/exported_symbols.h>

#include <cstdio>

int main() {
  ZRBValue value = ZRBValue::dictionary({{"version", ORVELKITVersionNumber}});
  std::printf("%s\n", value["version"].description().c_str());
  return value["version"].doubleValue() == 1.0 ? 0 : 1;
}
