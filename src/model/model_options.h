// ZRBMDModelOptions: how one model class maps onto JSON, declared next to the class.
//
// A model class that needs more than "each property under its own name" provides
//
//   static void modelOptions(ZRBMDModelOptions<Device>& options) {
//     options.key("deviceId", "device_id")              // another JSON key
//         .key("fps", "settings.video.fps")            // a dotted key path into nested objects
//         .keys("name", {"name", "title", "label"})    // candidates, the first present wins
//         .skip({"cachedThumbnail"})                    // never read nor written
//         .readonlyProperty("serial").getter("on", "isOn")  // property attributes
//         .didMapModel([](Device& d) { return !d.deviceId.empty(); });  // refuse a model
//   }
//
// Options are read once per class, on first use. A key path's segments are separated by "."; a
// property named in skip() or missing from onlyProperties() is left alone in both directions; with
// several candidate keys, a key whose value is null does not count as present, and JSON is written
// under the first. willMapJSON reshapes the JSON object before it is mapped (answering anything but
// a dictionary refuses the model); didMapModel sees the mapped model and may refuse it. Hooks run on
// the thread that maps, possibly on several at once.
#pragma once

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/foundation/value.h"

class ZRBMDModelOptionsBase {
 public:
  // JSON keys (or key paths) by property; a property not named here uses its own name.
  std::unordered_map<std::string, std::vector<std::string>> keyPaths;
  std::unordered_set<std::string> skipped;
  std::optional<std::unordered_set<std::string>> only;
  std::unordered_set<std::string> readonly;
  std::unordered_map<std::string, std::string> getters;
  std::unordered_map<std::string, std::string> setters;
  std::function<ZRBValue(const ZRBValue&)> willMap;
  // Type-erased didMap: receives the model's address.
  std::function<bool(void*)> didMap;

  bool maps(const std::string& property) const {
    return !skipped.count(property) && (!only || only->count(property));
  }
};

template <typename T>
class ZRBMDModelOptions : public ZRBMDModelOptionsBase {
 public:
  ZRBMDModelOptions& key(std::string_view property, std::string_view jsonKey) {
    keyPaths[std::string(property)] = {std::string(jsonKey)};
    return *this;
  }
  ZRBMDModelOptions& keys(std::string_view property, std::initializer_list<std::string_view> candidates) {
    auto& list = keyPaths[std::string(property)];
    list.assign(candidates.begin(), candidates.end());
    return *this;
  }
  ZRBMDModelOptions& skip(std::initializer_list<std::string_view> properties) {
    for (auto p : properties) skipped.emplace(p);
    return *this;
  }
  ZRBMDModelOptions& onlyProperties(std::initializer_list<std::string_view> properties) {
    only.emplace();
    for (auto p : properties) only->emplace(p);
    return *this;
  }
  // Read-only properties are written to JSON but never set from it.
  ZRBMDModelOptions& readonlyProperty(std::string_view property) {
    readonly.emplace(property);
    return *this;
  }
  ZRBMDModelOptions& getter(std::string_view property, std::string_view selector) {
    getters[std::string(property)] = std::string(selector);
    return *this;
  }
  ZRBMDModelOptions& setter(std::string_view property, std::string_view selector) {
    setters[std::string(property)] = std::string(selector);
    return *this;
  }
  ZRBMDModelOptions& willMapJSON(std::function<ZRBValue(const ZRBValue&)> hook) {
    willMap = std::move(hook);
    return *this;
  }
  ZRBMDModelOptions& didMapModel(std::function<bool(T&)> hook) {
    if (hook) didMap = [hook = std::move(hook)](void* model) { return hook(*static_cast<T*>(model)); };
    return *this;
  }
};
