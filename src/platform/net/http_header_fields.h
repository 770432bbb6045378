// ZRBHTTPHeaderFields: HTTP header fields with case-insensitive names, in the order they were
// first set.
//
// A name keeps the spelling it was first set with; later writes under another case change the
// value, not the name. Used by URL requests and HTTP responses alike.
//
// Copies share the fields until one of them changes (the change copies them first), so a request
// copied on its way to the wire, or handed the same default fields as every other request, costs
// no string copies. Copies of one object may be used from any threads, as with any value type.
#pragma once

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/value.h"

// Whether two header names are equal, ignoring ASCII case. Inline: response heads call it for
// every field they read.
inline bool ZRBHTTPHeaderNameEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x == y) continue;
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x + 32);
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y + 32);
    if (x != y) return false;
  }
  return true;
}

class ZRBHTTPHeaderFields {
 public:
  using Field = std::pair<std::string, std::string>;

  ZRBHTTPHeaderFields() = default;
  // From (name, value) pairs; repeated names are joined as add() joins them.
  ZRBHTTPHeaderFields(std::initializer_list<Field> fields);
  ZRBHTTPHeaderFields(const ZRBHTTPHeaderFields&) = default;
  ZRBHTTPHeaderFields(ZRBHTTPHeaderFields&&) noexcept = default;
  ZRBHTTPHeaderFields& operator=(const ZRBHTTPHeaderFields&) = default;
  ZRBHTTPHeaderFields& operator=(ZRBHTTPHeaderFields&&) noexcept = default;
  // From a dictionary value: string keys; string values are taken as they are, numbers and other
  // values by their description, absent and null entries are skipped. Anything else gives none.
  static ZRBHTTPHeaderFields fromDictionary(const ZRBValue& dictionary);

  std::optional<std::string> value(std::string_view name) const;
  // The value without a copy; null when the field is absent.
  const std::string* lookup(std::string_view name) const {
    const Field* field = find(name);
    return field ? &field->second : nullptr;
  }
  bool contains(std::string_view name) const { return find(name) != nullptr; }
  // Replaces the value (keeping the first spelling and position of the name); nullopt removes.
  void set(std::string_view name, std::optional<std::string> value);
  // Appends to an existing value after ", ", or sets it when the name is new.
  void add(std::string_view name, std::string_view value);
  bool remove(std::string_view name);
  void clear() { storage_.reset(); }
  void reserve(std::size_t count) { writable().fields.reserve(count); }

  const std::vector<Field>& fields() const { return storage_ ? storage_->fields : noFields(); }
  std::size_t size() const { return fields().size(); }
  bool empty() const { return fields().empty(); }
  // The fields as a dictionary value of strings, in order.
  ZRBValue dictionary() const;

  // Whether the two share their fields: then they are equal, field for field and in order.
  bool sharesFieldsWith(const ZRBHTTPHeaderFields& other) const { return storage_ == other.storage_; }

  // Same names (ignoring case) with the same values, in any order.
  friend bool operator==(const ZRBHTTPHeaderFields& a, const ZRBHTTPHeaderFields& b);

 private:
  // The counter's reads are acquire loads, so a copy that finds itself alone may change the fields
  // after another thread's last read of them.
  struct Storage : boost::intrusive_ref_counter<Storage, boost::thread_safe_counter> {
    std::vector<Field> fields;
  };

  static const std::vector<Field>& noFields();
  // The fields, made this object's own first when they are shared.
  Storage& writable();
  const Field* find(std::string_view name) const;
  Field* findWritable(std::string_view name);

  boost::intrusive_ptr<Storage> storage_;  // null when there are no fields
};

// Header fields the way a transport collects them off the wire, without a map: one line
// "Name:value\n" per field, in the order received. Names hold no ':' and values no '\n' (the
// transport splits lines at '\n' and names at the first ':'). Cheap to build, and turned into
// ZRBHTTPHeaderFields only when somebody asks for the fields. Where the two fields every response
// reads, Content-Type and Content-Length, are is noted as the lines come in.
class ZRBHTTPHeaderLines {
 public:
  void add(std::string_view name, std::string_view value) {
    text_.append(name).push_back(':');
    std::size_t offset = text_.size();
    text_.append(value).push_back('\n');
    if (ZRBHTTPHeaderNameEquals(name, "Content-Type")) note(contentType_, offset, value.size());
    if (ZRBHTTPHeaderNameEquals(name, "Content-Length")) note(contentLength_, offset, value.size());
  }
  void reserve(std::size_t bytes) { text_.reserve(bytes); }
  bool empty() const { return text_.empty(); }

  // Calls visit(name, value) for every field, in order.
  template <typename Visit>
  void forEach(Visit visit) const {
    std::string_view rest = text_;
    while (!rest.empty()) {
      // The first ':' ends the name; the line's '\n' ends the value.
      std::size_t colon = rest.find(':');
      std::size_t end = rest.find('\n', colon);
      if (colon == std::string_view::npos || end == std::string_view::npos) return;
      visit(rest.substr(0, colon), rest.substr(colon + 1, end - colon - 1));
      rest.remove_prefix(end + 1);
    }
  }
  // The value of `name` (case ignored), repeated fields joined with ", " as ZRBHTTPHeaderFields
  // joins them; a joined value lives in `joined`. nullopt when the field is absent.
  std::optional<std::string_view> value(std::string_view name, std::string& joined) const;
  std::optional<std::string_view> contentType(std::string& joined) const {
    return noted(contentType_, "Content-Type", joined);
  }
  std::optional<std::string_view> contentLength(std::string& joined) const {
    return noted(contentLength_, "Content-Length", joined);
  }
  ZRBHTTPHeaderFields fields() const;

 private:
  // Where a field's first value is, and how many lines had its name.
  struct Noted {
    std::size_t offset = 0;
    std::size_t length = 0;
    int lines = 0;
  };
  static void note(Noted& noted, std::size_t offset, std::size_t length) {
    if (noted.lines++ == 0) {
      noted.offset = offset;
      noted.length = length;
    }
  }
  std::optional<std::string_view> noted(const Noted& noted, std::string_view name,
                                        std::string& joined) const {
    if (noted.lines == 0) return std::nullopt;
    if (noted.lines == 1) return std::string_view(text_).substr(noted.offset, noted.length);
    return value(name, joined);  // repeated: joined as the fields would join it
  }

  std::string text_;
  Noted contentType_;
  Noted contentLength_;
};
