// Arbitrary bytes mapped onto the device-list models, from text and from a decoded value, as one
// model and as a list. Whatever comes in, mapping must answer a model or none without crashing or
// undefined behaviour, and a model it answers must write JSON that maps again.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "model/model.h"
#include "platform/foundation/json_serialization.h"
#include "support/device_list_models.h"

using namespace bench_model;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  ZRBErrorPtr error;
  auto page = ZRBMDModel::modelWithJSON<BenchPage>(text, &error);
  if (page) {
    std::string written = ZRBMDModel::JSONString(*page);
    auto again = ZRBMDModel::modelWithJSON<BenchPage>(written);
    if (!again) __builtin_trap();
    (void)ZRBMDModel::description(*page);
    (void)ZRBMDModel::hash(*page);
  } else if (!error && text.find_first_not_of(" \t\r\n") != std::string_view::npos && text[0] == '{') {
    // An object that is well-formed JSON always maps (no hooks refuse here).
    auto value = ZRBJSONSerialization::JSONObjectWithData(text);
    if (value.isDictionary() && !ZRBMDModel::modelWithValue<BenchPage>(value)) __builtin_trap();
  }
  (void)ZRBMDModel::modelsWithJSON<BenchDevice>(text);
  (void)ZRBMDModel::modelWithValue<BenchDevice>(ZRBJSONSerialization::JSONObjectWithData(text));
  return 0;
}
