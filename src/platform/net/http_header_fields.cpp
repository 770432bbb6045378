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

const std::vector<ZRBHTTPHeaderFields::Field>& ZRBHTTPHeaderFields::noFields() {
  static const std::vector<Field> none;
  return none;
}

ZRBHTTPHeaderFields::Storage& ZRBHTTPHeaderFields::writable() {
  if (!storage_) {
    storage_ = new Storage;
  } else if (storage_->use_count() > 1) {
    boost::intrusive_ptr<Storage> own(new Storage);
    own->fields = storage_->fields;
    storage_ = std::move(own);
  }
  return *storage_;
}

const ZRBHTTPHeaderFields::Field* ZRBHTTPHeaderFields::find(std::string_view name) const {
  const std::vector<Field>& all = fields();
  auto it = std::find_if(all.begin(), all.end(),
                         [name](const Field& f) { return ZRBHTTPHeaderNameEquals(f.first, name); });
  return it == all.end() ? nullptr : &*it;
}

ZRBHTTPHeaderFields::Field* ZRBHTTPHeaderFields::findWritable(std::string_view name) {
  const Field* field = find(name);
  if (!field) return nullptr;
  const std::size_t index = static_cast<std::size_t>(field - fields().data());
  return &writable().fields[index];
}

std::optional<std::string> ZRBHTTPHeaderFields::value(std::string_view name) const {
  const Field* field = find(name);
  if (!field) return std::nullopt;
  return field->second;
}

void ZRBHTTPHeaderFields::set(std::string_view name, std::optional<std::string> value) {
  if (!value) {
    remove(name);
  } else if (Field* field = findWritable(name)) {
    field->second = std::move(*value);
  } else {
    writable().fields.emplace_back(std::string(name), std::move(*value));
  }
}

void ZRBHTTPHeaderFields::add(std::string_view name, std::string_view value) {
  if (Field* field = findWritable(name)) {
    field->second.append(", ").append(value);
  } else {
    writable().fields.emplace_back(std::string(name), std::string(value));
  }
}

bool ZRBHTTPHeaderFields::remove(std::string_view name) {
  const Field* field = find(name);
  if (!field) return false;
  const std::size_t index = static_cast<std::size_t>(field - fields().data());
  std::vector<Field>& all = writable().fields;
  all.erase(all.begin() + static_cast<std::ptrdiff_t>(index));
  return true;
}

ZRBValue ZRBHTTPHeaderFields::dictionary() const {
  std::vector<ZRBDictionaryEntry> entries;
  entries.reserve(size());
  for (const auto& [name, value] : fields()) entries.emplace_back(ZRBValue(name), ZRBValue(value));
  return ZRBValue::dictionary(std::move(entries));
}

bool operator==(const ZRBHTTPHeaderFields& a, const ZRBHTTPHeaderFields& b) {
  if (a.sharesFieldsWith(b)) return true;
  if (a.size() != b.size()) return false;
  return std::all_of(a.fields().begin(), a.fields().end(), [&b](const ZRBHTTPHeaderFields::Field& f) {
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
