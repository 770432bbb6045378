// ZRBValue: the one dynamic value type of the library.
//
// A ZRBValue stands for every loosely typed object that travels through the system: request
// parameters, decoded JSON and property lists, user-info maps, cache validators. It is 16 bytes,
// copies cheaply (scalars and strings of up to 14 bytes are stored inline, everything else is an
// immutable node shared by reference count) and is safe to read from many threads at once.
//
// Two "nothing" values are distinct: absent (no object at all; what a missing key yields) and the
// null object (a JSON null, an explicit placeholder). Containers are immutable; build them with
// ZRBArrayBuilder / ZRBDictionaryBuilder / ZRBSetBuilder, or take a mutable copy of an existing one.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/foundation/object.h"

enum class ZRBValueKind : std::uint8_t {
  Absent,
  Null,
  Bool,
  Int,
  UInt,
  Double,
  String,
  Data,
  Date,
  Array,
  Dictionary,
  Set,
  Object,
  Class,  // a class tag: the leaf of a JSON validator tree ("must be a string")
};

// The classes a class tag can name. Number covers booleans too, as the platform's number class
// does; Bool names booleans only.
enum class ZRBValueClass : std::uint8_t {
  Null,
  Bool,
  Number,
  String,
  Data,
  Date,
  Array,
  Dictionary,
  Set,
  Object,
};

// A point in time as the platform's date object holds it: seconds, with fractions.
struct ZRBDate {
  // Seconds between 1970-01-01 and the platform's reference date, 2001-01-01 (UTC).
  static constexpr double kReferenceDateOffset = 978307200.0;

  double secondsSince1970 = 0;

  static ZRBDate now();
  static ZRBDate fromReferenceDate(double seconds) { return {seconds + kReferenceDateOffset}; }
  double secondsSinceReferenceDate() const { return secondsSince1970 - kReferenceDateOffset; }
  // "2001-01-01 00:00:00 +0000", as the platform describes dates.
  std::string description() const;
  friend bool operator==(ZRBDate a, ZRBDate b) { return a.secondsSince1970 == b.secondsSince1970; }
};

namespace zrb_detail {
// Every shared payload starts with its reference count; the value's kind tells which node type
// follows, so nodes need no virtual table.
struct ValueNode {
  std::atomic<std::uint32_t> refs{1};
};
}  // namespace zrb_detail

class ZRBValue;
using ZRBDictionaryEntry = std::pair<ZRBValue, ZRBValue>;

class ZRBValue {
 public:
  // Absent.
  ZRBValue() noexcept { kind_ = ZRBValueKind::Absent; }
  ~ZRBValue() { release(); }
  ZRBValue(const ZRBValue& other) noexcept : kind_(other.kind_) {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    retain();
  }
  ZRBValue(ZRBValue&& other) noexcept : kind_(other.kind_) {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    other.kind_ = ZRBValueKind::Absent;
  }
  // `other` may live inside the node this value is about to release (v = v["key"]), so both
  // assignments take what they need from it before releasing anything.
  ZRBValue& operator=(const ZRBValue& other) noexcept { return *this = ZRBValue(other); }
  ZRBValue& operator=(ZRBValue&& other) noexcept {
    if (this != &other) {
      alignas(8) unsigned char taken[sizeof bytes_];
      std::memcpy(taken, other.bytes_, sizeof bytes_);
      ZRBValueKind takenKind = other.kind_;
      other.kind_ = ZRBValueKind::Absent;
      release();
      std::memcpy(bytes_, taken, sizeof bytes_);
      kind_ = takenKind;
    }
    return *this;
  }

  // Scalars. Every integer type keeps its signedness, so large unsigned values stay exact.
  ZRBValue(bool value) noexcept;
  ZRBValue(int value) noexcept : ZRBValue(static_cast<long long>(value)) {}
  ZRBValue(long value) noexcept : ZRBValue(static_cast<long long>(value)) {}
  ZRBValue(long long value) noexcept;
  ZRBValue(unsigned value) noexcept : ZRBValue(static_cast<unsigned long long>(value)) {}
  ZRBValue(unsigned long value) noexcept : ZRBValue(static_cast<unsigned long long>(value)) {}
  ZRBValue(unsigned long long value) noexcept;
  ZRBValue(double value) noexcept;
  ZRBValue(float value) noexcept : ZRBValue(static_cast<double>(value)) {}

  // Strings are UTF-8.
  ZRBValue(const char* text);  // a null pointer gives absent
  ZRBValue(std::string_view text);
  ZRBValue(const std::string& text) : ZRBValue(std::string_view(text)) {}
  // A pointer that is not text must not silently become a boolean.
  template <typename T>
  requires(!std::is_same_v<std::remove_cv_t<T>, char>) ZRBValue(T*)
  = delete;
  ZRBValue(std::nullptr_t) = delete;

  ZRBValue(ZRBDate date) noexcept;
  // Any object (a URL, an error, a certificate...). An empty pointer gives absent.
  ZRBValue(ZRBObjectPtr object);
  template <typename T>
  requires std::is_base_of_v<ZRBObject, T> ZRBValue(std::shared_ptr<T> object)
      : ZRBValue(ZRBObjectPtr(std::move(object))) {}
  // Objects held by a value are never changed through it, so const objects (errors) fit too.
  template <typename T>
  requires std::is_base_of_v<ZRBObject, T> ZRBValue(std::shared_ptr<const T> object)
      : ZRBValue(ZRBObjectPtr(std::const_pointer_cast<T>(std::move(object)))) {}

  static ZRBValue null() noexcept;
  static ZRBValue absent() noexcept { return ZRBValue(); }
  static ZRBValue data(std::vector<std::uint8_t> bytes);
  static ZRBValue data(const void* bytes, std::size_t length);
  static ZRBValue data(std::string_view bytes) { return data(bytes.data(), bytes.size()); }
  static ZRBValue array(std::vector<ZRBValue> items);
  static ZRBValue array(std::initializer_list<ZRBValue> items);
  // The items are moved out of `items` (left absent) into the value's single allocation.
  static ZRBValue arrayMovingFrom(std::span<ZRBValue> items);
  // Later duplicates of a key replace earlier ones in place; insertion order is kept otherwise.
  static ZRBValue dictionary(std::vector<ZRBDictionaryEntry> entries);
  static ZRBValue dictionary(std::initializer_list<std::pair<std::string_view, ZRBValue>> entries);
  // As dictionary(), moving the entries out of `entries` (left absent) into the value's single
  // allocation.
  static ZRBValue dictionaryMovingFrom(std::span<ZRBDictionaryEntry> entries);
  // Duplicates (by equality) are dropped; the first one stays.
  static ZRBValue set(std::vector<ZRBValue> items);
  static ZRBValue set(std::initializer_list<ZRBValue> items);
  static ZRBValue classTag(ZRBValueClass cls) noexcept;

  // ---- inspection ----
  ZRBValueKind kind() const noexcept { return kind_; }
  bool isAbsent() const noexcept { return kind_ == ZRBValueKind::Absent; }
  bool isNull() const noexcept { return kind_ == ZRBValueKind::Null; }
  // Absent or the null object: the two ways of saying "nothing".
  bool isNothing() const noexcept { return isAbsent() || isNull(); }
  bool isBool() const noexcept { return kind_ == ZRBValueKind::Bool; }
  bool isNumber() const noexcept;
  bool isInteger() const noexcept { return kind_ == ZRBValueKind::Int || kind_ == ZRBValueKind::UInt; }
  bool isString() const noexcept { return kind_ == ZRBValueKind::String; }
  bool isData() const noexcept { return kind_ == ZRBValueKind::Data; }
  bool isDate() const noexcept { return kind_ == ZRBValueKind::Date; }
  bool isArray() const noexcept { return kind_ == ZRBValueKind::Array; }
  bool isDictionary() const noexcept { return kind_ == ZRBValueKind::Dictionary; }
  bool isSet() const noexcept { return kind_ == ZRBValueKind::Set; }
  bool isObject() const noexcept { return kind_ == ZRBValueKind::Object; }
  bool isClassTag() const noexcept { return kind_ == ZRBValueKind::Class; }
  // Whether this value is an instance of the class: what a validator leaf asks.
  bool isKindOf(ZRBValueClass cls) const noexcept;
  explicit operator bool() const noexcept { return !isAbsent(); }

  // ---- scalars (numbers convert between each other; anything else gives 0) ----
  bool boolValue() const noexcept;
  long long intValue() const noexcept;
  unsigned long long uintValue() const noexcept;
  double doubleValue() const noexcept;
  ZRBDate dateValue() const noexcept;
  ZRBValueClass classValue() const noexcept;

  // ---- strings and bytes (empty when the value is of another kind) ----
  std::string_view stringView() const noexcept;
  std::string string() const { return std::string(stringView()); }
  // The string, or nullopt for any other kind.
  std::optional<std::string> optionalString() const;
  std::span<const std::uint8_t> bytes() const noexcept;

  // ---- containers ----
  // Number of items of an array, set or dictionary; 0 for anything else.
  std::size_t count() const noexcept;
  bool empty() const noexcept { return count() == 0; }
  // Items of an array or set (in order for arrays).
  std::span<const ZRBValue> items() const noexcept;
  // Entries of a dictionary in insertion order; keys are string values.
  std::span<const ZRBDictionaryEntry> entries() const noexcept;
  // Array element; absent when out of range or not an array.
  const ZRBValue& operator[](std::size_t index) const noexcept;
  const ZRBValue& operator[](int index) const noexcept { return (*this)[static_cast<std::size_t>(index)]; }
  // Dictionary lookup; absent when the key is missing or this is not a dictionary.
  const ZRBValue& operator[](std::string_view key) const noexcept;
  const ZRBValue& operator[](const char* key) const noexcept { return (*this)[std::string_view(key)]; }
  const ZRBValue& operator[](const std::string& key) const noexcept { return (*this)[std::string_view(key)]; }
  bool contains(std::string_view key) const noexcept { return !(*this)[key].isAbsent(); }
  // Sets and arrays: whether an equal item is held.
  bool containsItem(const ZRBValue& item) const noexcept;

  // ---- objects ----
  ZRBObjectPtr object() const noexcept;
  template <typename T>
  std::shared_ptr<T> objectAs() const noexcept {
    return std::dynamic_pointer_cast<T>(object());
  }

  // ---- text ----
  // The platform's description: integers in decimal, booleans 1/0, doubles shortest round-trip,
  // "<null>", "(null)" for absent, strings as themselves, containers in multi-line form.
  std::string description() const;
  void appendDescription(std::string& out, int indent = 0) const;

  // ---- equality ----
  // Numbers compare by numeric value across kinds (1 == 1.0 == true); containers by content
  // (dictionaries and sets regardless of order); objects through ZRBObject::isEqual.
  friend bool operator==(const ZRBValue& a, const ZRBValue& b) noexcept;
  std::size_t hash() const noexcept;

  // Identity of the shared node, for tests that check copies are cheap.
  const void* storageIdentity() const noexcept;

 private:
  friend struct zrb_detail::ValueNode;
  friend class ZRBArrayBuilder;
  friend class ZRBDictionaryBuilder;
  friend class ZRBSetBuilder;

  static constexpr std::size_t kInlineCapacity = 14;
  static constexpr std::uint8_t kHeapString = 0xFF;

  bool hasNode() const noexcept {
    constexpr unsigned kNodeKinds =
        1u << static_cast<unsigned>(ZRBValueKind::Data) | 1u << static_cast<unsigned>(ZRBValueKind::Array) |
        1u << static_cast<unsigned>(ZRBValueKind::Dictionary) |
        1u << static_cast<unsigned>(ZRBValueKind::Set) | 1u << static_cast<unsigned>(ZRBValueKind::Object);
    if (kind_ == ZRBValueKind::String) return bytes_[kInlineCapacity] == kHeapString;
    return (kNodeKinds >> static_cast<unsigned>(kind_)) & 1u;
  }
  zrb_detail::ValueNode* node() const noexcept {
    zrb_detail::ValueNode* n;
    std::memcpy(&n, bytes_, sizeof n);
    return n;
  }
  void setNode(zrb_detail::ValueNode* n) noexcept { std::memcpy(bytes_, &n, sizeof n); }
  template <typename T>
  T scalar() const noexcept {
    T v;
    std::memcpy(&v, bytes_, sizeof v);
    return v;
  }
  template <typename T>
  void setScalar(T v) noexcept {
    std::memcpy(bytes_, &v, sizeof v);
  }
  void release() noexcept {
    if (hasNode()) releaseNode();
  }
  void releaseNode() noexcept;
  void retain() const noexcept {
    if (hasNode()) node()->refs.fetch_add(1, std::memory_order_relaxed);
  }
  static ZRBValue fromNode(ZRBValueKind kind, zrb_detail::ValueNode* n) noexcept;

  // Zeroed first so that equal scalars and inline strings are equal byte for byte.
  alignas(8) unsigned char bytes_[15] = {};
  ZRBValueKind kind_;
};

static_assert(sizeof(ZRBValue) == 16);

struct ZRBValueHash {
  std::size_t operator()(const ZRBValue& v) const noexcept { return v.hash(); }
};

// Builds an array; build() hands over the items without copying them.
class ZRBArrayBuilder {
 public:
  ZRBArrayBuilder() = default;
  explicit ZRBArrayBuilder(const ZRBValue& array);  // a mutable copy of an existing array
  void reserve(std::size_t n) { items_.reserve(n); }
  ZRBArrayBuilder& add(ZRBValue item) {
    items_.push_back(std::move(item));
    return *this;
  }
  std::vector<ZRBValue>& items() { return items_; }
  std::size_t count() const { return items_.size(); }
  ZRBValue build();

 private:
  std::vector<ZRBValue> items_;
};

// Builds a dictionary with string keys; set() replaces the value of an existing key in place.
class ZRBDictionaryBuilder {
 public:
  ZRBDictionaryBuilder() = default;
  explicit ZRBDictionaryBuilder(const ZRBValue& dictionary);  // a mutable copy
  void reserve(std::size_t n) { entries_.reserve(n); }
  ZRBDictionaryBuilder& set(std::string_view key, ZRBValue value);
  // Appends without looking for an existing key; build() still resolves duplicates.
  ZRBDictionaryBuilder& append(ZRBValue key, ZRBValue value) {
    entries_.emplace_back(std::move(key), std::move(value));
    return *this;
  }
  bool remove(std::string_view key);
  const ZRBValue& get(std::string_view key) const;
  std::size_t count() const { return entries_.size(); }
  ZRBValue build();

 private:
  std::vector<ZRBDictionaryEntry> entries_;
};

class ZRBSetBuilder {
 public:
  ZRBSetBuilder() = default;
  explicit ZRBSetBuilder(const ZRBValue& set);  // a mutable copy
  ZRBSetBuilder& add(ZRBValue item) {
    items_.push_back(std::move(item));
    return *this;
  }
  ZRBValue build() { return ZRBValue::set(std::move(items_)); }

 private:
  std::vector<ZRBValue> items_;
};

// The text a string takes inside a container description: bare when it is a plain word,
// otherwise quoted with the platform's escapes.
std::string ZRBQuotedDescriptionString(std::string_view text);
