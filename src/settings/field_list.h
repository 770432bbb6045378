// Builds the "one field per line" descriptions of the settings singletons.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/value.h"

class ZRBFieldList {
 public:
  explicit ZRBFieldList(std::string header) : text_(std::move(header)) {}

  ZRBFieldList& add(const char* name, const ZRBValue& value) {
    text_ += "\n    ";
    text_ += name;
    text_ += " = ";
    // Multi-line containers stay readable under the field name.
    value.appendDescription(text_, 1);
    return *this;
  }
  ZRBFieldList& add(const char* name, const std::optional<std::string>& value) {
    return add(name, value ? ZRBValue(*value) : ZRBValue());
  }
  template <typename Map>
  ZRBFieldList& add(const char* name, const std::shared_ptr<Map>& map) {
    if (!map) return add(name, ZRBValue());
    ZRBDictionaryBuilder builder;
    for (const auto& [key, value] : *map) builder.set(key, ZRBValue(value));
    return add(name, builder.build());
  }

  std::string text() { return std::move(text_); }

 private:
  std::string text_;
};
