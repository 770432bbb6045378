// ZRBHTTPHeaderFields: HTTP header fields with case-insensitive names, in the order they were
// first set.
//
// A name keeps the spelling it was first set with; later writes under another case change the
// value, not the name. Used by URL requests and HTTP responses alike.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/value.h"

// Whether two header names are equal, ignoring ASCII case.
bool ZRBHTTPHeaderNameEquals(std::string_view a, std::string_view b);

class ZRBHTTPHeaderFields {
 public:
  using Field = std::pair<std::string, std::string>;

  ZRBHTTPHeaderFields() = default;
  // From (name, value) pairs; repeated names are joined as add() joins them.
  ZRBHTTPHeaderFields(std::initializer_list<Field> fields);
  // From a dictionary value: string keys; string values are taken as they are, numbers and other
  // values by their description, absent and null entries are skipped. Anything else gives none.
  static ZRBHTTPHeaderFields fromDictionary(const ZRBValue& dictionary);

  std::optional<std::string> value(std::string_view name) const;
  bool contains(std::string_view name) const { return find(name) != nullptr; }
  // Replaces the value (keeping the first spelling and position of the name); nullopt removes.
  void set(std::string_view name, std::optional<std::string> value);
  // Appends to an existing value after ", ", or sets it when the name is new.
  void add(std::string_view name, std::string_view value);
  bool remove(std::string_view name);
  void clear() { fields_.clear(); }
  void reserve(std::size_t count) { fields_.reserve(count); }

  const std::vector<Field>& fields() const { return fields_; }
  std::size_t size() const { return fields_.size(); }
  bool empty() const { return fields_.empty(); }
  // The fields as a dictionary value of strings, in order.
  ZRBValue dictionary() const;

  // Same names (ignoring case) with the same values, in any order.
  friend bool operator==(const ZRBHTTPHeaderFields& a, const ZRBHTTPHeaderFields& b);

 private:
  const Field* find(std::string_view name) const;
  Field* find(std::string_view name);

  std::vector<Field> fields_;
};
