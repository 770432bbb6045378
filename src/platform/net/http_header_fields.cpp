#include "platform/net/http_header_fields.h"

#include <algorithm>

ZRBHTTPHeaderFields::ZRBHTTPHeaderFields(std::initializer_list<Field> fields) {
  for (const auto& [name, value] : fields) add(name, value);
}

ZRBHTTPHeaderFields ZRBHTTPHeaderFields::fromDictionary(const ZRBValue& dictionary) {
  ZRBHTTPHeaderFields result;
  for (const auto& [key, value] : dictionary.entries()) {
    if (value.isNothing()) continue;
    result.add(key.stringView(), value.isString() ? value.string() : value.description());
  }
  return result;
}

const ZRBHTTPHeaderFields::Field* ZRBHTTPHeaderFields::find(std::string_view name) const {
  auto it = std::find_if(fields_.begin(), fields_.end(),
                         [name](const Field& f) { return ZRBHTTPHeaderNameEquals(f.first, name); });
  return it == fields_.end() ? nullptr : &*it;
}

ZRBHTTPHeaderFields::Field* ZRBHTTPHeaderFields::find(std::string_view name) {
  return const_cast<Field*>(std::as_const(*this).find(name));
}

std::optional<std::string> ZRBHTTPHeaderFields::value(std::string_view name) const {
  const Field* field = find(name);
  if (!field) return std::nullopt;
  return field->second;
}

void ZRBHTTPHeaderFields::set(std::string_view name, std::optional<std::string> value) {
  if (!value) {
    remove(name);
  } else if (Field* field = find(name)) {
    field->second = std::move(*value);
  } else {
    fields_.emplace_back(std::string(name), std::move(*value));
  }
}

void ZRBHTTPHeaderFields::add(std::string_view name, std::string_view value) {
  if (Field* field = find(name)) {
    field->second.append(", ").append(value);
  } else {
    fields_.emplace_back(std::string(name), std::string(value));
  }
}

bool ZRBHTTPHeaderFields::remove(std::string_view name) {
  auto it = std::find_if(fields_.begin(), fields_.end(),
                         [name](const Field& f) { return ZRBHTTPHeaderNameEquals(f.first, name); });
  if (it == fields_.end()) return false;
  fields_.erase(it);
  return true;
}

ZRBValue ZRBHTTPHeaderFields::dictionary() const {
  std::vector<ZRBDictionaryEntry> entries;
  entries.reserve(fields_.size());
  for (const auto& [name, value] : fields_) entries.emplace_back(ZRBValue(name), ZRBValue(value));
  return ZRBValue::dictionary(std::move(entries));
}

bool operator==(const ZRBHTTPHeaderFields& a, const ZRBHTTPHeaderFields& b) {
  if (a.size() != b.size()) return false;
  return std::all_of(a.fields_.begin(), a.fields_.end(), [&b](const ZRBHTTPHeaderFields::Field& f) {
    const auto* other = b.find(f.first);
    return other && other->second == f.second;
  });
}

std::optional<std::string_view> ZRBHTTPHeaderLines::value(std::string_view name, std::string& joined) const {
  std::optional<std::string_view> found;
  bool isJoined = false;
  forEach([&](std::string_view fieldName, std::string_view fieldValue) {
    if (!ZRBHTTPHeaderNameEquals(fieldName, name)) return;
    if (!found) {
      found = fieldValue;
      return;
    }
    if (!isJoined) joined.assign(*found);
    isJoined = true;
    joined.append(", ").append(fieldValue);
  });
  if (isJoined) found = joined;
  return found;
}

ZRBHTTPHeaderFields ZRBHTTPHeaderLines::fields() const {
  ZRBHTTPHeaderFields fields;
  forEach([&fields](std::string_view name, std::string_view value) { fields.add(name, value); });
  return fields;
}
