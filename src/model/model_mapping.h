// The machinery behind ZRBMDModel (model.h): per-type converters between C++ members and JSON,
// and the mapping plan of each model class. Not for direct use.
//
// A plan is built once per class from its registered metadata and options: the properties that
// map, each with type-specific functions to read it from a JSON document or value tree, reset it,
// and write it; and a tree of JSON keys (key paths are chains of nested keys) pointing at them.
// Mapping an object then walks its members once in document order, looks each key up (the key
// after the last match is tried first, since objects of one kind usually list keys in one order)
// and moves the value straight from the reader into the member.
#pragma once

#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model/class_info.h"
#include "model/class_registration.h"
#include "platform/foundation/json_serialization.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"

namespace zrbmd_detail {

namespace od = simdjson::ondemand;

// Models and values nested deeper than this are left at their defaults.
inline constexpr int kMaximumDepth = 512;

struct Context {
  int depth = 0;
  // The document is malformed: stop, and answer no model.
  bool failed = false;
};

// ---- helpers compiled into the library ----

// ISO 8601 date and time ("2024-05-01", "2024-05-01T12:00:00Z", "2024-05-01 12:00:00.250+02:00",
// "...+0200"); without an offset the time is UTC. False for anything else.
bool parseISO8601(std::string_view text, double& secondsSince1970);
// "2024-05-01T12:00:00Z", with up to six fraction digits when the time has a fraction.
void appendISO8601(std::string& out, double secondsSince1970);
// A JSON string literal: quotes, backslash escapes, control characters as \n... or \u00XX.
void appendJSONString(std::string& out, std::string_view text);
void appendJSONDouble(std::string& out, double value);
// The JSON text of a value tree (null for what JSON cannot hold).
void appendJSONValue(std::string& out, const ZRBValue& value);

// One reader per nesting level and thread, so a hook that maps JSON while another document is read
// on the same thread gets its own. The input is copied into a padded buffer that the reader keeps.
class DocumentLease {
 public:
  DocumentLease();
  ~DocumentLease();
  DocumentLease(const DocumentLease&) = delete;
  DocumentLease& operator=(const DocumentLease&) = delete;
  // False (with `error` set to the JSON reader's error record) when the bytes cannot be read.
  bool open(std::string_view json, od::document& document, ZRBErrorPtr* error);

  struct Reader;

 private:
  Reader* reader_;
};

ZRBErrorPtr malformedJSONError(std::string_view reason);
ZRBErrorPtr malformedJSONError(simdjson::error_code code);

// ---- scalars from either source ----

struct Scalar {
  enum Kind : std::uint8_t { Null, Bool, Int, UInt, Double, String, Other } kind = Other;
  bool b = false;
  std::int64_t i = 0;
  std::uint64_t u = 0;
  double d = 0;
  // String contents, or the literal of a number.
  std::string_view text;
};

// Asks the type rather than is_null(), which the reader allows only below the root; an unread null
// is skipped by the reader like any other unread value.
inline bool isNullValue(od::value& v) {
  od::json_type type;
  return v.type().get(type) == simdjson::SUCCESS && type == od::json_type::null;
}
inline bool isNullValue(const ZRBValue& v) { return v.isNull(); }

inline bool isLocalError(simdjson::error_code e) {
  return e == simdjson::INCORRECT_TYPE || e == simdjson::NUMBER_OUT_OF_RANGE;
}

inline Scalar scalarOf(const ZRBValue& v) {
  Scalar s;
  switch (v.kind()) {
    case ZRBValueKind::Null: s.kind = Scalar::Null; break;
    case ZRBValueKind::Bool: s.kind = Scalar::Bool, s.b = v.boolValue(); break;
    case ZRBValueKind::Int: s.kind = Scalar::Int, s.i = v.intValue(); break;
    case ZRBValueKind::UInt: s.kind = Scalar::UInt, s.u = v.uintValue(); break;
    case ZRBValueKind::Double: s.kind = Scalar::Double, s.d = v.doubleValue(); break;
    case ZRBValueKind::String: s.kind = Scalar::String, s.text = v.stringView(); break;
    case ZRBValueKind::Date: s.kind = Scalar::Double, s.d = v.dateValue().secondsSince1970; break;
    default: break;
  }
  return s;
}

inline Scalar scalarOf(od::value& v, Context& c) {
  Scalar s;
  od::json_type type;
  if (v.type().get(type)) {
    c.failed = true;
    return s;
  }
  simdjson::error_code e = simdjson::SUCCESS;
  switch (type) {
    case od::json_type::null: s.kind = Scalar::Null; break;
    case od::json_type::boolean:
      if (!(e = v.get_bool().get(s.b))) s.kind = Scalar::Bool;
      break;
    case od::json_type::string:
      if (!(e = v.get_string().get(s.text))) s.kind = Scalar::String;
      break;
    case od::json_type::number: {
      std::string_view literal = v.raw_json_token();
      while (!literal.empty() && (literal.back() == ' ' || literal.back() == '\n' || literal.back() == '\r' ||
                                  literal.back() == '\t'))
        literal.remove_suffix(1);
      s.text = literal;
      od::number n;
      if ((e = v.get_number().get(n))) break;
      switch (n.get_number_type()) {
        case od::number_type::signed_integer: s.kind = Scalar::Int, s.i = n.get_int64(); break;
        case od::number_type::unsigned_integer: s.kind = Scalar::UInt, s.u = n.get_uint64(); break;
        default: s.kind = Scalar::Double, s.d = n.get_double(); break;
      }
      break;
    }
    default: break;
  }
  if (e && !isLocalError(e)) c.failed = true;
  return s;
}

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return (x | 0x20) == (y | 0x20); });
}

// A number written as text: the whole text must be the number.
inline bool numberFromText(std::string_view text, Scalar& s) {
  if (text.empty()) return false;
  const char* first = text.data();
  const char* last = first + text.size();
  if (*first == '+') ++first;
  if (auto [p, ec] = std::from_chars(first, last, s.i); ec == std::errc() && p == last) {
    s.kind = Scalar::Int;
    return true;
  }
  if (auto [p, ec] = std::from_chars(first, last, s.u); ec == std::errc() && p == last) {
    s.kind = Scalar::UInt;
    return true;
  }
  if (auto [p, ec] = std::from_chars(first, last, s.d);
      ec == std::errc() && p == last && std::isfinite(s.d)) {
    s.kind = Scalar::Double;
    return true;
  }
  return false;
}

template <typename I>
bool integerFromScalar(I& out, const Scalar& s) {
  using L = std::numeric_limits<I>;
  switch (s.kind) {
    case Scalar::Bool: out = static_cast<I>(s.b); return true;
    case Scalar::Int:
      if (!std::in_range<I>(s.i)) return false;
      out = static_cast<I>(s.i);
      return true;
    case Scalar::UInt:
      if (!std::in_range<I>(s.u)) return false;
      out = static_cast<I>(s.u);
      return true;
    case Scalar::Double: {
      // Fractions are dropped; values outside the type's range are refused.
      double t = std::trunc(s.d);
      if (!std::isfinite(t) || t < static_cast<double>(L::min()) || t >= std::ldexp(1.0, L::digits))
        return false;
      out = static_cast<I>(t);
      return true;
    }
    case Scalar::String: {
      Scalar n;
      return numberFromText(s.text, n) && integerFromScalar(out, n);
    }
    default: return false;
  }
}

template <typename F>
bool floatingFromScalar(F& out, const Scalar& s) {
  switch (s.kind) {
    case Scalar::Bool: out = s.b ? 1 : 0; return true;
    case Scalar::Int: out = static_cast<F>(s.i); return true;
    case Scalar::UInt: out = static_cast<F>(s.u); return true;
    case Scalar::Double:
      if (std::fabs(s.d) > static_cast<double>(std::numeric_limits<F>::max())) return false;
      out = static_cast<F>(s.d);
      return true;
    case Scalar::String: {
      Scalar n;
      return numberFromText(s.text, n) && floatingFromScalar(out, n);
    }
    default: return false;
  }
}

inline bool boolFromScalar(bool& out, const Scalar& s) {
  switch (s.kind) {
    case Scalar::Bool: out = s.b; return true;
    case Scalar::Int:
    case Scalar::UInt:
    case Scalar::Double: {
      double d = s.kind == Scalar::Int    ? static_cast<double>(s.i)
                 : s.kind == Scalar::UInt ? static_cast<double>(s.u)
                                          : s.d;
      if (d != 0 && d != 1) return false;
      out = d == 1;
      return true;
    }
    case Scalar::String:
      for (std::string_view yes : {"true", "yes", "1"})
        if (equalsIgnoringCase(s.text, yes)) return out = true, true;
      for (std::string_view no : {"false", "no", "0"})
        if (equalsIgnoringCase(s.text, no)) return out = false, true;
      return false;
    default: return false;
  }
}

inline bool stringFromScalar(std::string& out, const Scalar& s) {
  char buffer[32];
  switch (s.kind) {
    case Scalar::String: out.assign(s.text); return true;
    case Scalar::Bool: out = s.b ? "true" : "false"; return true;
    case Scalar::Int:
    case Scalar::UInt:
    case Scalar::Double:
      if (!s.text.empty()) {
        out.assign(s.text);
      } else if (s.kind == Scalar::Int) {
        out.assign(buffer, std::to_chars(buffer, buffer + sizeof buffer, s.i).ptr);
      } else if (s.kind == Scalar::UInt) {
        out.assign(buffer, std::to_chars(buffer, buffer + sizeof buffer, s.u).ptr);
      } else {
        out.clear();
        appendJSONDouble(out, s.d);
      }
      return true;
    default: return false;
  }
}

// Dates: ISO 8601 text, or seconds since 1970 as a number or numeric text.
inline bool dateFromScalar(ZRBDate& out, const Scalar& s) {
  switch (s.kind) {
    case Scalar::Int: out.secondsSince1970 = static_cast<double>(s.i); return true;
    case Scalar::UInt: out.secondsSince1970 = static_cast<double>(s.u); return true;
    case Scalar::Double:
      if (!std::isfinite(s.d)) return false;
      out.secondsSince1970 = s.d;
      return true;
    case Scalar::String: {
      Scalar n;
      if (numberFromText(s.text, n) && n.kind != Scalar::String) return dateFromScalar(out, n);
      return parseISO8601(s.text, out.secondsSince1970);
    }
    default: return false;
  }
}

// ---- converters ----

template <typename M>
struct Codec;

template <typename M>
concept Mappable = requires {
  Codec<M>::kMappable;
}
&&Codec<M>::kMappable;

template <typename T>
struct Plan;
template <typename T>
const Plan<T>& planFor();
template <typename T>
bool readModel(T& model, od::value& v, Context& c);
template <typename T>
bool readModel(T& model, const ZRBValue& v, Context& c);
template <typename T>
void writeModel(const T& model, std::string& out, int depth);
template <typename T>
ZRBValue modelValue(const T& model, bool archive, int depth);

struct IntegerConversion {
  template <typename I>
  bool operator()(I& out, const Scalar& s) const {
    return integerFromScalar(out, s);
  }
};
struct FloatingConversion {
  template <typename F>
  bool operator()(F& out, const Scalar& s) const {
    return floatingFromScalar(out, s);
  }
};
struct BoolConversion {
  bool operator()(bool& out, const Scalar& s) const { return boolFromScalar(out, s); }
};
struct StringConversion {
  bool operator()(std::string& out, const Scalar& s) const { return stringFromScalar(out, s); }
};
struct DateConversion {
  bool operator()(ZRBDate& out, const Scalar& s) const { return dateFromScalar(out, s); }
};
struct URLConversion {
  bool operator()(ZRBURLPtr& out, const Scalar& s) const {
    if (s.kind != Scalar::String) return false;
    ZRBURLPtr url = ZRBURL::URLWithString(s.text);
    if (!url) return false;
    out = std::move(url);
    return true;
  }
};

// Scalars read the same way from both sources; null resets to the default.
template <typename M, typename Convert>
struct ScalarCodec {
  static constexpr bool kMappable = true;
  static bool fromScalar(M& out, const Scalar& s) {
    if (s.kind == Scalar::Null) {
      out = M{};
      return true;
    }
    return Convert{}(out, s);
  }
  static bool read(M& out, od::value& v, Context& c) { return fromScalar(out, scalarOf(v, c)); }
  static bool read(M& out, const ZRBValue& v, Context&) { return fromScalar(out, scalarOf(v)); }
};

template <typename M>
requires std::is_integral_v<M> &&
    (!std::is_same_v<M, bool>)struct Codec<M> : ScalarCodec<M, IntegerConversion> {
  static void write(const M& in, std::string& out, int) {
    char buffer[24];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, in).ptr);
  }
  static ZRBValue value(const M& in, bool, int) { return ZRBValue(in); }
};

template <typename M>
requires std::is_enum_v<M>
struct Codec<M> {
  using U = std::underlying_type_t<M>;
  static constexpr bool kMappable = true;
  template <typename Source>
  static bool read(M& out, Source& v, Context& c) {
    U raw = static_cast<U>(out);
    if (!Codec<U>::read(raw, v, c)) return false;
    out = static_cast<M>(raw);
    return true;
  }
  static void write(const M& in, std::string& out, int d) { Codec<U>::write(static_cast<U>(in), out, d); }
  static ZRBValue value(const M& in, bool, int) { return ZRBValue(static_cast<U>(in)); }
};

template <typename M>
requires std::is_floating_point_v<M>
struct Codec<M> : ScalarCodec<M, FloatingConversion> {
  static void write(const M& in, std::string& out, int) { appendJSONDouble(out, static_cast<double>(in)); }
  static ZRBValue value(const M& in, bool, int) {
    return std::isfinite(in) ? ZRBValue(static_cast<double>(in)) : ZRBValue::null();
  }
};

template <>
struct Codec<bool> : ScalarCodec<bool, BoolConversion> {
  static void write(const bool& in, std::string& out, int) { out += in ? "true" : "false"; }
  static ZRBValue value(const bool& in, bool, int) { return ZRBValue(in); }
};

template <>
struct Codec<std::string> : ScalarCodec<std::string, StringConversion> {
  static void write(const std::string& in, std::string& out, int) { appendJSONString(out, in); }
  static ZRBValue value(const std::string& in, bool, int) { return ZRBValue(in); }
};

template <>
struct Codec<ZRBDate> : ScalarCodec<ZRBDate, DateConversion> {
  static void write(const ZRBDate& in, std::string& out, int) {
    out += '"';
    appendISO8601(out, in.secondsSince1970);
    out += '"';
  }
  static ZRBValue value(const ZRBDate& in, bool archive, int) {
    if (archive) return ZRBValue(in);
    std::string text;
    appendISO8601(text, in.secondsSince1970);
    return ZRBValue(text);
  }
};

template <>
struct Codec<ZRBURLPtr> : ScalarCodec<ZRBURLPtr, URLConversion> {
  static void write(const ZRBURLPtr& in, std::string& out, int) {
    if (in)
      appendJSONString(out, in->absoluteString());
    else
      out += "null";
  }
  static ZRBValue value(const ZRBURLPtr& in, bool, int) {
    return in ? ZRBValue(in->absoluteString()) : ZRBValue::null();
  }
};

// Any JSON, kept as a value tree.
template <>
struct Codec<ZRBValue> {
  static constexpr bool kMappable = true;
  static bool read(ZRBValue& out, od::value& v, Context& c) {
    od::json_type type;
    if (v.type().get(type)) return c.failed = true, false;
    std::string_view raw;
    simdjson::error_code e = simdjson::SUCCESS;
    if (type == od::json_type::object) {
      od::object object;
      if (!(e = v.get_object().get(object))) e = object.raw_json().get(raw);
    } else if (type == od::json_type::array) {
      od::array array;
      if (!(e = v.get_array().get(array))) e = array.raw_json().get(raw);
    } else {
      Scalar s = scalarOf(v, c);
      switch (s.kind) {
        case Scalar::Null: out = ZRBValue(); return true;
        case Scalar::Bool: out = ZRBValue(s.b); return true;
        case Scalar::Int: out = ZRBValue(static_cast<long long>(s.i)); return true;
        case Scalar::UInt: out = ZRBValue(static_cast<unsigned long long>(s.u)); return true;
        case Scalar::Double: out = ZRBValue(s.d); return true;
        case Scalar::String: out = ZRBValue(s.text); return true;
        default: return false;
      }
    }
    if (e) return c.failed = true, false;
    // Containers are rare in typed models; the value reader builds their trees.
    ZRBValue parsed = ZRBJSONSerialization::JSONObjectWithData(raw);
    if (parsed.isAbsent()) return c.failed = true, false;
    out = std::move(parsed);
    return true;
  }
  static bool read(ZRBValue& out, const ZRBValue& v, Context&) {
    out = v.isNull() ? ZRBValue() : v;
    return true;
  }
  static void write(const ZRBValue& in, std::string& out, int) { appendJSONValue(out, in); }
  static ZRBValue value(const ZRBValue& in, bool, int) { return in.isAbsent() ? ZRBValue::null() : in; }
};

template <typename V>
requires Mappable<V>
struct Codec<std::optional<V>> {
  static constexpr bool kMappable = true;
  template <typename Source>
  static bool read(std::optional<V>& out, Source& v, Context& c) {
    if (isNullValue(v)) {
      out.reset();
      return true;
    }
    V item{};
    if (!Codec<V>::read(item, v, c)) return false;
    out = std::move(item);
    return true;
  }
  static void write(const std::optional<V>& in, std::string& out, int d) {
    if (in)
      Codec<V>::write(*in, out, d);
    else
      out += "null";
  }
  static ZRBValue value(const std::optional<V>& in, bool archive, int d) {
    return in ? Codec<V>::value(*in, archive, d) : ZRBValue::null();
  }
};

// Containers: elements that do not convert are left out.
template <typename Container, typename Add>
bool readElements(Container& out, od::value& v, Context& c, Add add) {
  if (isNullValue(v)) {
    out = Container{};
    return true;
  }
  od::array array;
  if (auto e = v.get_array().get(array)) {
    if (!isLocalError(e)) c.failed = true;
    return false;
  }
  if (++c.depth > kMaximumDepth) {
    --c.depth;
    return false;
  }
  out = Container{};
  for (auto element : array) {
    od::value item;
    if (std::move(element).get(item)) {
      c.failed = true;
      break;
    }
    add(out, item);
    if (c.failed) break;
  }
  --c.depth;
  return !c.failed;
}

template <typename Container, typename Add>
bool readElements(Container& out, const ZRBValue& v, Context& c, Add add) {
  if (v.isNull()) {
    out = Container{};
    return true;
  }
  if (!v.isArray() && !v.isSet()) return false;
  if (++c.depth > kMaximumDepth) {
    --c.depth;
    return false;
  }
  out = Container{};
  for (const ZRBValue& item : v.items()) add(out, item);
  --c.depth;
  return true;
}

template <typename C>
requires(isSequence<C> || isSet<C>) && Mappable<typename C::value_type> struct Codec<C> {
  using V = typename C::value_type;
  static constexpr bool kMappable = true;
  template <typename Source>
  static bool read(C& out, Source& v, Context& c) {
    return readElements(out, v, c, [&c](C& container, auto& item) {
      V element{};
      if (!Codec<V>::read(element, item, c)) return;
      if constexpr (isSequence<C>)
        container.push_back(std::move(element));
      else
        container.insert(std::move(element));
    });
  }
  static void write(const C& in, std::string& out, int d) {
    out += '[';
    bool first = true;
    for (const V& item : in) {
      if (!first) out += ',';
      first = false;
      Codec<V>::write(item, out, d + 1);
    }
    out += ']';
  }
  static ZRBValue value(const C& in, bool archive, int d) {
    std::vector<ZRBValue> items;
    items.reserve(in.size());
    for (const V& item : in) items.push_back(Codec<V>::value(item, archive, d + 1));
    if constexpr (isSet<C>)
      if (archive) return ZRBValue::set(std::move(items));
    return ZRBValue::array(std::move(items));
  }
};

template <typename C>
requires isMap<C> && std::is_same_v<typename C::key_type, std::string> && Mappable<typename C::mapped_type>
struct Codec<C> {
  using V = typename C::mapped_type;
  static constexpr bool kMappable = true;
  static bool read(C& out, od::value& v, Context& c) {
    if (isNullValue(v)) {
      out = C{};
      return true;
    }
    od::object object;
    if (auto e = v.get_object().get(object)) {
      if (!isLocalError(e)) c.failed = true;
      return false;
    }
    if (++c.depth > kMaximumDepth) return --c.depth, false;
    out = C{};
    for (auto result : object) {
      od::field field;
      std::string_view key;
      if (std::move(result).get(field) || field.unescaped_key().get(key)) {
        c.failed = true;
        break;
      }
      std::string name(key);
      V element{};
      if (Codec<V>::read(element, field.value(), c))
        out.insert_or_assign(std::move(name), std::move(element));
      if (c.failed) break;
    }
    --c.depth;
    return !c.failed;
  }
  static bool read(C& out, const ZRBValue& v, Context& c) {
    if (v.isNull()) {
      out = C{};
      return true;
    }
    if (!v.isDictionary()) return false;
    if (++c.depth > kMaximumDepth) return --c.depth, false;
    out = C{};
    for (const auto& [key, item] : v.entries()) {
      V element{};
      if (Codec<V>::read(element, item, c)) out.insert_or_assign(key.string(), std::move(element));
    }
    --c.depth;
    return true;
  }
  static void write(const C& in, std::string& out, int d) {
    out += '{';
    bool first = true;
    for (const auto& [key, item] : in) {
      if (!first) out += ',';
      first = false;
      appendJSONString(out, key);
      out += ':';
      Codec<V>::write(item, out, d + 1);
    }
    out += '}';
  }
  static ZRBValue value(const C& in, bool archive, int d) {
    std::vector<ZRBDictionaryEntry> entries;
    entries.reserve(in.size());
    for (const auto& [key, item] : in)
      entries.emplace_back(ZRBValue(key), Codec<V>::value(item, archive, d + 1));
    return ZRBValue::dictionary(std::move(entries));
  }
};

template <typename T>
requires ZRBMDModelType<T>
struct Codec<T> {
  static constexpr bool kMappable = true;
  template <typename Source>
  static bool read(T& out, Source& v, Context& c) {
    if (isNullValue(v)) {
      out = T{};
      return true;
    }
    T model{};
    if (!readModel(model, v, c)) return false;
    out = std::move(model);
    return true;
  }
  static void write(const T& in, std::string& out, int d) { writeModel(in, out, d + 1); }
  static ZRBValue value(const T& in, bool archive, int d) { return modelValue(in, archive, d + 1); }
};

template <typename T>
requires ZRBMDModelType<T>
struct Codec<std::shared_ptr<T>> {
  static constexpr bool kMappable = true;
  template <typename Source>
  static bool read(std::shared_ptr<T>& out, Source& v, Context& c) {
    if (isNullValue(v)) {
      out.reset();
      return true;
    }
    auto model = std::make_shared<T>();
    if (!readModel(*model, v, c)) return false;
    out = std::move(model);
    return true;
  }
  static void write(const std::shared_ptr<T>& in, std::string& out, int d) {
    if (in)
      writeModel(*in, out, d + 1);
    else
      out += "null";
  }
  static ZRBValue value(const std::shared_ptr<T>& in, bool archive, int d) {
    return in ? modelValue(*in, archive, d + 1) : ZRBValue::null();
  }
};

// ---- plans ----

using ReadDocument = bool (*)(void* model, od::value& v, Context& c);
using ReadValue = bool (*)(void* model, const ZRBValue& v, Context& c);
using Reset = void (*)(void* model);
using WriteJSON = void (*)(const void* model, std::string& out, int depth);
using MakeValue = ZRBValue (*)(const void* model, bool archive, int depth);

struct PropertySlot {
  std::string name;
  bool writable = true;
  bool candidates = false;  // several keys claim it
  ReadDocument readDocument;
  ReadValue readValue;
  Reset reset;
  WriteJSON writeJSON;
  MakeValue makeValue;
};

struct KeyNode;

struct KeyTarget {
  std::uint16_t property;
  std::uint8_t rank;  // position in the property's candidate list
};

struct KeyEntry {
  std::string key;
  std::vector<KeyTarget> targets;
  std::unique_ptr<KeyNode> child;  // the rest of key paths through this key
  // Whether the value is read once into a tree and handed to several consumers.
  bool shared() const { return targets.size() + (child ? 1 : 0) > 1; }
};

struct KeyNode {
  std::vector<KeyEntry> entries;
  std::vector<std::int16_t> table;  // open addressing over entry indexes, -1 empty
  std::size_t mask = 0;

  static std::size_t hashKey(std::string_view key) {
    std::size_t n = key.size();
    if (n == 0) return 0;
    return n * 0x9E3779B1u ^ static_cast<unsigned char>(key[0]) * 31u ^
           static_cast<unsigned char>(key[n - 1]) * 131u ^ static_cast<unsigned char>(key[n / 2]) * 7u;
  }
  KeyEntry& entry(std::string_view key);  // finds or adds (while building)
  void index();
  const KeyEntry* find(std::string_view key, std::size_t& cursor) const {
    if (cursor < entries.size() && entries[cursor].key == key) return &entries[cursor++];
    if (table.empty()) return nullptr;
    for (std::size_t i = hashKey(key) & mask;; i = (i + 1) & mask) {
      std::int16_t slot = table[i];
      if (slot < 0) return nullptr;
      if (entries[static_cast<std::size_t>(slot)].key == key) {
        cursor = static_cast<std::size_t>(slot) + 1;
        return &entries[static_cast<std::size_t>(slot)];
      }
    }
  }
};

struct PlanBase {
  std::vector<PropertySlot> properties;
  KeyNode root;
  bool hasCandidates = false;
  std::function<ZRBValue(const ZRBValue&)> willMap;
  std::function<bool(void*)> didMap;
  std::string className;

  // Enters a property under its keys (built from the class's options).
  void add(PropertySlot slot, const ZRBMDModelOptionsBase& options);
  void finish();
};

template <typename T>
struct Plan : PlanBase {};

// Per-object state of a read: which candidate rank set each property.
struct Ranks {
  std::uint8_t inline_[64];
  std::vector<std::uint8_t> heap;
  std::uint8_t* data;
  explicit Ranks(std::size_t n) {
    if (n <= sizeof inline_) {
      data = inline_;
    } else {
      heap.resize(n);
      data = heap.data();
    }
    std::fill(data, data + n, 0xFF);
  }
};

// Whether the target may take this value: a candidate yields to a better-ranked one already taken.
inline bool claim(const PlanBase& plan, const KeyTarget& t, void* model, Ranks* ranks) {
  const PropertySlot& slot = plan.properties[t.property];
  if (!slot.writable) return false;
  if (!slot.candidates) return true;
  std::uint8_t& taken = ranks->data[t.property];
  if (t.rank > taken) return false;
  if (taken != 0xFF && t.rank < taken) slot.reset(model);
  taken = t.rank;
  return true;
}

bool readNode(const PlanBase& plan, const KeyNode& node, const ZRBValue& object, void* model, Context& c,
              Ranks* ranks);

inline std::string_view keyOf(od::field& field, Context& c) {
  // Keys without escapes are read in place; the rest are unescaped.
  const char* raw = field.key().raw();
  const char* end = raw;
  while (*end != '"' && *end != '\\') ++end;
  if (*end == '"') return {raw, static_cast<std::size_t>(end - raw)};
  std::string_view key;
  if (field.unescaped_key().get(key)) c.failed = true;
  return key;
}

inline bool readNode(const PlanBase& plan, const KeyNode& node, od::object& object, void* model, Context& c,
                     Ranks* ranks) {
  std::size_t cursor = 0;
  for (auto result : object) {
    od::field field;
    if (std::move(result).get(field)) {
      c.failed = true;
      return false;
    }
    std::string_view key = keyOf(field, c);
    if (c.failed) return false;
    const KeyEntry* entry = node.find(key, cursor);
    if (!entry) continue;
    od::value& v = field.value();
    if (!entry->shared()) {
      if (entry->child) {
        od::object inner;
        if (auto e = v.get_object().get(inner)) {
          if (!isLocalError(e)) c.failed = true;
        } else {
          readNode(plan, *entry->child, inner, model, c, ranks);
        }
      } else {
        const KeyTarget& t = entry->targets.front();
        if (plan.properties[t.property].candidates && isNullValue(v)) continue;
        if (claim(plan, t, model, ranks)) plan.properties[t.property].readDocument(model, v, c);
      }
    } else {
      ZRBValue tree;
      if (!Codec<ZRBValue>::read(tree, v, c)) continue;
      for (const KeyTarget& t : entry->targets) {
        if (plan.properties[t.property].candidates && tree.isAbsent()) continue;
        if (claim(plan, t, model, ranks))
          plan.properties[t.property].readValue(model, tree.isAbsent() ? ZRBValue::null() : tree, c);
      }
      if (entry->child && tree.isDictionary()) readNode(plan, *entry->child, tree, model, c, ranks);
    }
    if (c.failed) return false;
  }
  return true;
}

void writeNode(const PlanBase& plan, const KeyNode& node, const void* model, std::string& out, int depth);
ZRBValue valueOfNode(const PlanBase& plan, const KeyNode& node, const void* model, bool archive, int depth);
bool readModelValue(const PlanBase& plan, void* model, const ZRBValue& v, Context& c);

template <typename T, typename Descriptor>
PropertySlot slotFor() {
  using M = decltype(memberType(Descriptor::pointer));
  PropertySlot slot;
  slot.name = Descriptor::name;
  slot.readDocument = [](void* m, od::value& v, Context& c) {
    return Codec<M>::read(static_cast<T*>(m)->*Descriptor::pointer, v, c);
  };
  slot.readValue = [](void* m, const ZRBValue& v, Context& c) {
    return Codec<M>::read(static_cast<T*>(m)->*Descriptor::pointer, v, c);
  };
  slot.reset = [](void* m) { static_cast<T*>(m)->*Descriptor::pointer = M{}; };
  slot.writeJSON = [](const void* m, std::string& out, int d) {
    Codec<M>::write(static_cast<const T*>(m)->*Descriptor::pointer, out, d);
  };
  slot.makeValue = [](const void* m, bool archive, int d) {
    return Codec<M>::value(static_cast<const T*>(m)->*Descriptor::pointer, archive, d);
  };
  return slot;
}

template <typename T>
const Plan<T>& planFor() {
  static const Plan<T>* plan = [] {
    namespace bd = boost::describe;
    auto* p = new Plan<T>;  // kept for the process, as the class metadata is
    const ZRBMDModelOptionsBase& options = ZRBMDModelOptionsFor<T>();
    auto info = ZRBMDClassInfo::classInfoWithClass(ZRBMDClassFor<T>());
    p->className = info->name();
    auto properties = info->propertyInfos();
    // Inherited members first, as the superclass's own plan would list them.
    boost::mp11::mp_for_each<bd::describe_members<T, bd::mod_public | bd::mod_inherited>>([&](auto member) {
      using D = decltype(member);
      using M = decltype(memberType(D::pointer));
      if constexpr (Mappable<M>) {
        PropertySlot slot = slotFor<T, D>();
        if (!options.maps(slot.name)) return;
        // Read-only in the class metadata (own properties) or in the options.
        auto found = properties->find(slot.name);
        if (found != properties->end() && (found->second->type() & ZRBMDEncodingTypePropertyReadonly))
          slot.writable = false;
        if (options.readonly.count(slot.name)) slot.writable = false;
        p->add(std::move(slot), options);
      }
    });
    p->willMap = options.willMap;
    p->didMap = options.didMap;
    p->finish();
    return p;
  }();
  return *plan;
}

template <typename T>
bool readModel(T& model, od::value& v, Context& c) {
  const Plan<T>& plan = planFor<T>();
  if (plan.willMap) {
    ZRBValue tree;
    if (!Codec<ZRBValue>::read(tree, v, c)) return false;
    return readModel(model, tree, c);
  }
  od::object object;
  if (auto e = v.get_object().get(object)) {
    if (!isLocalError(e)) c.failed = true;
    return false;
  }
  if (c.depth >= kMaximumDepth) return false;
  ++c.depth;
  Ranks ranks(plan.hasCandidates ? plan.properties.size() : 0);
  bool ok = readNode(plan, plan.root, object, &model, c, &ranks);
  --c.depth;
  if (!ok || c.failed) return false;
  return !plan.didMap || plan.didMap(&model);
}

template <typename T>
bool readModel(T& model, const ZRBValue& v, Context& c) {
  return readModelValue(planFor<T>(), &model, v, c);
}

template <typename T>
void writeModel(const T& model, std::string& out, int depth) {
  if (depth > kMaximumDepth) {
    out += "null";
    return;
  }
  const Plan<T>& plan = planFor<T>();
  writeNode(plan, plan.root, &model, out, depth);
}

template <typename T>
ZRBValue modelValue(const T& model, bool archive, int depth) {
  if (depth > kMaximumDepth) return ZRBValue::null();
  const Plan<T>& plan = planFor<T>();
  return valueOfNode(plan, plan.root, &model, archive, depth);
}

}  // namespace zrbmd_detail
