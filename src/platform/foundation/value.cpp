#include "platform/foundation/value.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <functional>
#include <limits>
#include <new>
#include <unordered_set>

namespace zrb_detail {

// Nodes whose payload follows them in the same allocation: made with room for `extra` bytes
// after the node, and destroyed to match.
template <typename Node>
Node* makeWithTrailing(std::size_t extra) {
  return new (::operator new(sizeof(Node) + extra)) Node;
}
template <typename Node>
void destroyWithTrailing(Node* node) {
  node->~Node();
  ::operator delete(node);
}

// Long strings: the characters follow the header in the same allocation.
struct StringNode : ValueNode {
  std::size_t size = 0;
  char* chars() { return reinterpret_cast<char*>(this + 1); }

  static StringNode* make(std::string_view text) {
    auto* node = makeWithTrailing<StringNode>(text.size() + 1);
    node->size = text.size();
    std::memcpy(node->chars(), text.data(), text.size());
    node->chars()[text.size()] = '\0';
    return node;
  }
};

// Data: bytes copied in follow the header in the same allocation; a vector handed over is kept
// as it is, without a copy.
struct DataNode : ValueNode {
  std::span<const std::uint8_t> bytes;
  std::vector<std::uint8_t> adopted;

  static DataNode* copying(const void* bytes, std::size_t length) {
    auto* node = makeWithTrailing<DataNode>(length);
    auto* trailing = reinterpret_cast<std::uint8_t*>(node + 1);
    if (length) std::memcpy(trailing, bytes, length);
    node->bytes = {trailing, length};
    return node;
  }
  static DataNode* adopting(std::vector<std::uint8_t> bytes) {
    auto* node = makeWithTrailing<DataNode>(0);
    node->adopted = std::move(bytes);
    node->bytes = node->adopted;
    return node;
  }
};

// Arrays and dictionaries: the elements follow the header in the same allocation.
template <typename Node, typename Element>
Node* makeMovingFrom(std::span<Element> source) {
  auto* node = makeWithTrailing<Node>(source.size() * sizeof(Element));
  Element* out = node->begin();
  for (Element& element : source) new (out++) Element(std::move(element));
  node->count = source.size();
  return node;
}
template <typename Node>
void destroyElements(Node* node) {
  std::destroy_n(node->begin(), node->count);
  destroyWithTrailing(node);
}

struct ArrayNode : ValueNode {
  std::size_t count = 0;
  ZRBValue* begin() { return reinterpret_cast<ZRBValue*>(this + 1); }
  std::span<ZRBValue> items() { return {begin(), count}; }
};

struct SetNode : ValueNode {
  std::vector<ZRBValue> items;
};

// Dictionaries up to kLinearLimit entries are searched linearly; larger ones carry an
// open-addressing index of entry positions built once at construction.
struct DictionaryNode : ValueNode {
  static constexpr std::size_t kLinearLimit = 8;
  std::size_t count = 0;
  std::vector<std::uint32_t> index;  // slot -> entry position + 1; 0 is empty
  std::size_t mask = 0;
  ZRBDictionaryEntry* begin() { return reinterpret_cast<ZRBDictionaryEntry*>(this + 1); }
  std::span<ZRBDictionaryEntry> entries() { return {begin(), count}; }
};
static_assert(sizeof(ArrayNode) % alignof(ZRBValue) == 0 && sizeof(DictionaryNode) % alignof(ZRBValue) == 0);

struct ObjectNode : ValueNode {
  ZRBObjectPtr object;
};

}  // namespace zrb_detail

using namespace zrb_detail;

namespace {

const ZRBValue kAbsent;

std::size_t hashString(std::string_view s) noexcept { return std::hash<std::string_view>{}(s); }

// A well-mixed hash of an integer, shared by every numeric kind so equal numbers hash alike.
std::size_t hashInteger(std::uint64_t bits) noexcept {
  bits ^= bits >> 33;
  bits *= 0xff51afd7ed558ccdULL;
  bits ^= bits >> 33;
  bits *= 0xc4ceb9fe1a85ec53ULL;
  bits ^= bits >> 33;
  return static_cast<std::size_t>(bits);
}

std::size_t combine(std::size_t seed, std::size_t h) noexcept {
  return seed ^ (h + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

// A number reduced to a comparable form: an exact integer (sign and magnitude) or a double that
// is not an integer value.
struct Numeric {
  bool integral;
  bool negative;
  std::uint64_t magnitude;
  double real;
};

Numeric numericOf(const ZRBValue& v) noexcept {
  switch (v.kind()) {
    case ZRBValueKind::Bool: return {true, false, v.boolValue() ? 1u : 0u, 0};
    case ZRBValueKind::Int: {
      long long i = v.intValue();
      std::uint64_t mag = i < 0 ? 0 - static_cast<std::uint64_t>(i) : static_cast<std::uint64_t>(i);
      return {true, i < 0, mag, 0};
    }
    case ZRBValueKind::UInt: return {true, false, v.uintValue(), 0};
    default: {
      double d = v.doubleValue();
      // 2^64 is exactly representable; anything at or beyond it is no 64-bit integer.
      if (std::isfinite(d) && std::trunc(d) == d && std::fabs(d) < 18446744073709551616.0) {
        bool negative = d < 0;
        return {true, negative && d != 0, static_cast<std::uint64_t>(std::fabs(d)), 0};
      }
      return {false, false, 0, d};
    }
  }
}

bool numbersEqual(const ZRBValue& a, const ZRBValue& b) noexcept {
  Numeric x = numericOf(a), y = numericOf(b);
  if (x.integral != y.integral) return false;
  if (x.integral) return x.magnitude == y.magnitude && (x.negative == y.negative || x.magnitude == 0);
  return x.real == y.real;
}

std::size_t hashNumber(const ZRBValue& v) noexcept {
  Numeric n = numericOf(v);
  if (n.integral) return hashInteger(n.negative ? ~n.magnitude : n.magnitude);
  std::uint64_t bits;
  std::memcpy(&bits, &n.real, sizeof bits);
  return hashInteger(bits);
}

void appendIndent(std::string& out, int indent) { out.append(static_cast<std::size_t>(indent) * 4, ' '); }

void appendDouble(std::string& out, double d) {
  if (std::isnan(d)) {
    out += "nan";
    return;
  }
  if (std::isinf(d)) {
    out += d < 0 ? "-inf" : "inf";
    return;
  }
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
  out.append(buffer, result.ptr);
}

template <typename Int>
void appendInteger(std::string& out, Int i) {
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, i);
  out.append(buffer, result.ptr);
}

const char* className(ZRBValueClass cls) {
  switch (cls) {
    case ZRBValueClass::Null: return "Null";
    case ZRBValueClass::Bool: return "Bool";
    case ZRBValueClass::Number: return "Number";
    case ZRBValueClass::String: return "String";
    case ZRBValueClass::Data: return "Data";
    case ZRBValueClass::Date: return "Date";
    case ZRBValueClass::Array: return "Array";
    case ZRBValueClass::Dictionary: return "Dictionary";
    case ZRBValueClass::Set: return "Set";
    case ZRBValueClass::Object: return "Object";
  }
  return "?";
}

// Open-addressing index over the entries; returns the position of an earlier equal key when one
// is met while inserting, so the caller can resolve duplicates.
void buildIndex(DictionaryNode& node) {
  std::size_t capacity = 16;
  while (capacity < node.count * 2) capacity <<= 1;
  node.index.assign(capacity, 0);
  node.mask = capacity - 1;
  for (std::size_t i = 0; i < node.count; ++i) {
    std::size_t slot = hashString(node.begin()[i].first.stringView()) & node.mask;
    while (node.index[slot] != 0) slot = (slot + 1) & node.mask;
    node.index[slot] = static_cast<std::uint32_t>(i + 1);
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// ZRBDate

ZRBDate ZRBDate::now() {
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::duration<double>(since).count()};
}

std::string ZRBDate::description() const {
  double whole = std::floor(secondsSince1970);
  std::time_t t = static_cast<std::time_t>(whole);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buffer[64];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &tm);
  return buffer;
}

// ---------------------------------------------------------------------------------------------
// Construction, copying and release

void ZRBValue::releaseNode() noexcept {
  ValueNode* n = node();
  if (n->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  switch (kind_) {
    case ZRBValueKind::String: destroyWithTrailing(static_cast<StringNode*>(n)); break;
    case ZRBValueKind::Data: destroyWithTrailing(static_cast<DataNode*>(n)); break;
    case ZRBValueKind::Array: destroyElements(static_cast<ArrayNode*>(n)); break;
    case ZRBValueKind::Dictionary: destroyElements(static_cast<DictionaryNode*>(n)); break;
    case ZRBValueKind::Set: delete static_cast<SetNode*>(n); break;
    case ZRBValueKind::Object: delete static_cast<ObjectNode*>(n); break;
    default: break;
  }
}

ZRBValue ZRBValue::fromNode(ZRBValueKind kind, ValueNode* n) noexcept {
  ZRBValue v;
  v.kind_ = kind;
  v.setNode(n);
  if (kind == ZRBValueKind::String) v.bytes_[kInlineCapacity] = kHeapString;
  return v;
}

ZRBValue::ZRBValue(bool value) noexcept {
  kind_ = ZRBValueKind::Bool;
  setScalar(value);
}
ZRBValue::ZRBValue(long long value) noexcept {
  kind_ = ZRBValueKind::Int;
  setScalar(value);
}
ZRBValue::ZRBValue(unsigned long long value) noexcept {
  kind_ = ZRBValueKind::UInt;
  setScalar(value);
}
ZRBValue::ZRBValue(double value) noexcept {
  kind_ = ZRBValueKind::Double;
  setScalar(value);
}
ZRBValue::ZRBValue(ZRBDate date) noexcept {
  kind_ = ZRBValueKind::Date;
  setScalar(date.secondsSince1970);
}

ZRBValue::ZRBValue(const char* text) {
  kind_ = ZRBValueKind::Absent;
  if (text) *this = ZRBValue(std::string_view(text));
}

ZRBValue::ZRBValue(std::string_view text) {
  kind_ = ZRBValueKind::String;
  if (text.size() <= kInlineCapacity) {
    std::memcpy(bytes_, text.data(), text.size());
    bytes_[kInlineCapacity] = static_cast<unsigned char>(text.size());
  } else {
    setNode(StringNode::make(text));
    bytes_[kInlineCapacity] = kHeapString;
  }
}

ZRBValue::ZRBValue(ZRBObjectPtr object) {
  if (!object) {
    kind_ = ZRBValueKind::Absent;
    return;
  }
  auto* n = new ObjectNode;
  n->object = std::move(object);
  kind_ = ZRBValueKind::Object;
  setNode(n);
}

ZRBValue ZRBValue::null() noexcept {
  ZRBValue v;
  v.kind_ = ZRBValueKind::Null;
  return v;
}

ZRBValue ZRBValue::classTag(ZRBValueClass cls) noexcept {
  ZRBValue v;
  v.kind_ = ZRBValueKind::Class;
  v.setScalar(cls);
  return v;
}

ZRBValue ZRBValue::data(std::vector<std::uint8_t> bytes) {
  return fromNode(ZRBValueKind::Data, DataNode::adopting(std::move(bytes)));
}

ZRBValue ZRBValue::data(const void* bytes, std::size_t length) {
  return fromNode(ZRBValueKind::Data, DataNode::copying(bytes, length));
}

ZRBValue ZRBValue::array(std::vector<ZRBValue> items) { return arrayMovingFrom(items); }

ZRBValue ZRBValue::arrayMovingFrom(std::span<ZRBValue> items) {
  return fromNode(ZRBValueKind::Array, makeMovingFrom<ArrayNode>(items));
}

ZRBValue ZRBValue::array(std::initializer_list<ZRBValue> items) {
  return array(std::vector<ZRBValue>(items));
}

ZRBValue ZRBValue::dictionary(std::vector<ZRBDictionaryEntry> entries) {
  return dictionaryMovingFrom(entries);
}

ZRBValue ZRBValue::dictionaryMovingFrom(std::span<ZRBDictionaryEntry> entries) {
  // Keys are strings; any other key stands for its description.
  for (auto& entry : entries) {
    if (!entry.first.isString()) entry.first = ZRBValue(entry.first.description());
  }
  auto* n = makeMovingFrom<DictionaryNode>(entries);
  // Owned from here on, so a failure building the index releases it.
  ZRBValue result = fromNode(ZRBValueKind::Dictionary, n);
  std::span<ZRBDictionaryEntry> list = n->entries();
  bool removed = false;
  if (list.size() <= DictionaryNode::kLinearLimit) {
    // Every key is a string by now (a dropped one is absent, whose view is empty), so the keys'
    // texts are compared directly rather than through the general equality.
    for (std::size_t i = 1; i < list.size(); ++i) {
      const std::string_view key = list[i].first.stringView();
      for (std::size_t j = 0; j < i; ++j) {
        if (list[j].first.stringView() == key && !list[j].first.isAbsent()) {
          list[j].second = std::move(list[i].second);
          list[i].first = ZRBValue();
          removed = true;
          break;
        }
      }
    }
  } else {
    std::size_t capacity = 16;
    while (capacity < list.size() * 2) capacity <<= 1;
    n->index.assign(capacity, 0);
    n->mask = capacity - 1;
    for (std::size_t i = 0; i < list.size(); ++i) {
      std::string_view key = list[i].first.stringView();
      std::size_t slot = hashString(key) & n->mask;
      bool duplicate = false;
      while (std::uint32_t at = n->index[slot]) {
        if (list[at - 1].first.stringView() == key) {
          list[at - 1].second = std::move(list[i].second);
          list[i].first = ZRBValue();
          removed = duplicate = true;
          break;
        }
        slot = (slot + 1) & n->mask;
      }
      if (!duplicate) n->index[slot] = static_cast<std::uint32_t>(i + 1);
    }
  }
  if (removed) {
    auto kept = std::remove_if(list.begin(), list.end(),
                               [](const ZRBDictionaryEntry& e) { return e.first.isAbsent(); });
    std::destroy(kept, list.end());
    n->count = static_cast<std::size_t>(kept - list.begin());
    if (n->count > DictionaryNode::kLinearLimit) {
      buildIndex(*n);
    } else {
      n->index.clear();
    }
  }
  return result;
}

ZRBValue ZRBValue::dictionary(std::initializer_list<std::pair<std::string_view, ZRBValue>> entries) {
  std::vector<ZRBDictionaryEntry> list;
  list.reserve(entries.size());
  for (const auto& [key, value] : entries) list.emplace_back(ZRBValue(key), value);
  return dictionary(std::move(list));
}

ZRBValue ZRBValue::set(std::vector<ZRBValue> items) {
  auto* n = new SetNode;
  if (items.size() <= 8) {
    for (auto& item : items) {
      if (std::find(n->items.begin(), n->items.end(), item) == n->items.end()) {
        n->items.push_back(std::move(item));
      }
    }
  } else {
    n->items.reserve(items.size());
    auto hash = [&](std::size_t i) { return n->items[i].hash(); };
    auto equal = [&](std::size_t a, std::size_t b) { return n->items[a] == n->items[b]; };
    std::unordered_set<std::size_t, decltype(hash), decltype(equal)> seen(items.size(), hash, equal);
    for (auto& item : items) {
      n->items.push_back(std::move(item));
      if (!seen.insert(n->items.size() - 1).second) n->items.pop_back();
    }
  }
  return fromNode(ZRBValueKind::Set, n);
}

ZRBValue ZRBValue::set(std::initializer_list<ZRBValue> items) { return set(std::vector<ZRBValue>(items)); }

// ---------------------------------------------------------------------------------------------
// Inspection

bool ZRBValue::isNumber() const noexcept {
  return kind_ == ZRBValueKind::Bool || kind_ == ZRBValueKind::Int || kind_ == ZRBValueKind::UInt ||
         kind_ == ZRBValueKind::Double;
}

bool ZRBValue::isKindOf(ZRBValueClass cls) const noexcept {
  switch (cls) {
    case ZRBValueClass::Null: return isNull();
    case ZRBValueClass::Bool: return isBool();
    case ZRBValueClass::Number: return isNumber();
    case ZRBValueClass::String: return isString();
    case ZRBValueClass::Data: return isData();
    case ZRBValueClass::Date: return isDate();
    case ZRBValueClass::Array: return isArray();
    case ZRBValueClass::Dictionary: return isDictionary();
    case ZRBValueClass::Set: return isSet();
    case ZRBValueClass::Object: return !isAbsent();
  }
  return false;
}

bool ZRBValue::boolValue() const noexcept {
  switch (kind_) {
    case ZRBValueKind::Bool: return scalar<bool>();
    case ZRBValueKind::Int: return scalar<long long>() != 0;
    case ZRBValueKind::UInt: return scalar<unsigned long long>() != 0;
    case ZRBValueKind::Double: return scalar<double>() != 0;
    default: return false;
  }
}

long long ZRBValue::intValue() const noexcept {
  switch (kind_) {
    case ZRBValueKind::Bool: return scalar<bool>() ? 1 : 0;
    case ZRBValueKind::Int: return scalar<long long>();
    case ZRBValueKind::UInt: return static_cast<long long>(scalar<unsigned long long>());
    case ZRBValueKind::Double: {
      double d = scalar<double>();
      if (!(d == d)) return 0;
      if (d >= 9.2233720368547758e18) return std::numeric_limits<long long>::max();
      if (d <= -9.2233720368547758e18) return std::numeric_limits<long long>::min();
      return static_cast<long long>(d);
    }
    default: return 0;
  }
}

unsigned long long ZRBValue::uintValue() const noexcept {
  switch (kind_) {
    case ZRBValueKind::UInt: return scalar<unsigned long long>();
    case ZRBValueKind::Double: {
      double d = scalar<double>();
      if (!(d > 0)) return static_cast<unsigned long long>(static_cast<long long>(d == d ? d : 0));
      if (d >= 18446744073709551616.0) return std::numeric_limits<unsigned long long>::max();
      return static_cast<unsigned long long>(d);
    }
    default: return static_cast<unsigned long long>(intValue());
  }
}

double ZRBValue::doubleValue() const noexcept {
  switch (kind_) {
    case ZRBValueKind::Bool: return scalar<bool>() ? 1.0 : 0.0;
    case ZRBValueKind::Int: return static_cast<double>(scalar<long long>());
    case ZRBValueKind::UInt: return static_cast<double>(scalar<unsigned long long>());
    case ZRBValueKind::Double:
    case ZRBValueKind::Date: return scalar<double>();
    default: return 0;
  }
}

ZRBDate ZRBValue::dateValue() const noexcept {
  return kind_ == ZRBValueKind::Date ? ZRBDate{scalar<double>()} : ZRBDate{};
}

ZRBValueClass ZRBValue::classValue() const noexcept {
  return kind_ == ZRBValueKind::Class ? scalar<ZRBValueClass>() : ZRBValueClass::Object;
}

std::string_view ZRBValue::stringView() const noexcept {
  if (kind_ != ZRBValueKind::String) return {};
  if (bytes_[kInlineCapacity] == kHeapString) {
    auto* n = static_cast<StringNode*>(node());
    return {n->chars(), n->size};
  }
  return {reinterpret_cast<const char*>(bytes_), bytes_[kInlineCapacity]};
}

std::optional<std::string> ZRBValue::optionalString() const {
  if (!isString()) return std::nullopt;
  return string();
}

std::span<const std::uint8_t> ZRBValue::bytes() const noexcept {
  if (kind_ != ZRBValueKind::Data) return {};
  return static_cast<DataNode*>(node())->bytes;
}

std::size_t ZRBValue::count() const noexcept {
  switch (kind_) {
    case ZRBValueKind::Array: return static_cast<ArrayNode*>(node())->count;
    case ZRBValueKind::Set: return static_cast<SetNode*>(node())->items.size();
    case ZRBValueKind::Dictionary: return static_cast<DictionaryNode*>(node())->count;
    default: return 0;
  }
}

std::span<const ZRBValue> ZRBValue::items() const noexcept {
  if (kind_ == ZRBValueKind::Array) return static_cast<ArrayNode*>(node())->items();
  if (kind_ == ZRBValueKind::Set) return static_cast<SetNode*>(node())->items;
  return {};
}

std::span<const ZRBDictionaryEntry> ZRBValue::entries() const noexcept {
  if (kind_ != ZRBValueKind::Dictionary) return {};
  return static_cast<DictionaryNode*>(node())->entries();
}

const ZRBValue& ZRBValue::operator[](std::size_t index) const noexcept {
  if (kind_ != ZRBValueKind::Array) return kAbsent;
  auto* n = static_cast<ArrayNode*>(node());
  return index < n->count ? n->items()[index] : kAbsent;
}

const ZRBValue& ZRBValue::operator[](std::string_view key) const noexcept {
  if (kind_ != ZRBValueKind::Dictionary) return kAbsent;
  auto* n = static_cast<DictionaryNode*>(node());
  if (n->index.empty()) {
    for (const auto& entry : n->entries()) {
      if (entry.first.stringView() == key) return entry.second;
    }
    return kAbsent;
  }
  std::size_t slot = hashString(key) & n->mask;
  while (std::uint32_t at = n->index[slot]) {
    const auto& entry = n->begin()[at - 1];
    if (entry.first.stringView() == key) return entry.second;
    slot = (slot + 1) & n->mask;
  }
  return kAbsent;
}

bool ZRBValue::containsItem(const ZRBValue& item) const noexcept {
  for (const auto& candidate : items()) {
    if (candidate == item) return true;
  }
  return false;
}

ZRBObjectPtr ZRBValue::object() const noexcept {
  if (kind_ != ZRBValueKind::Object) return nullptr;
  return static_cast<ObjectNode*>(node())->object;
}

const void* ZRBValue::storageIdentity() const noexcept { return hasNode() ? node() : nullptr; }

// ---------------------------------------------------------------------------------------------
// Descriptions

std::string ZRBQuotedDescriptionString(std::string_view text) {
  bool bare = !text.empty();
  for (unsigned char c : text) {
    if (!(std::isalnum(c) || c == '_' || c == '.' || c == '$')) {
      bare = false;
      break;
    }
  }
  if (bare) return std::string(text);
  std::string out;
  out.reserve(text.size() + 2);
  out += '"';
  for (char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
  out += '"';
  return out;
}

namespace {

// Inside a container a string item or key is quoted unless it is a plain word.
void appendItem(std::string& out, const ZRBValue& item, int indent) {
  if (item.isString()) {
    out += ZRBQuotedDescriptionString(item.stringView());
  } else if (item.isNull()) {
    out += "\"<null>\"";  // the platform quotes the null object inside containers
  } else {
    item.appendDescription(out, indent);
  }
}

}  // namespace

std::string ZRBValue::description() const {
  std::string out;
  appendDescription(out, 0);
  return out;
}

void ZRBValue::appendDescription(std::string& out, int indent) const {
  switch (kind_) {
    case ZRBValueKind::Absent: out += "(null)"; return;
    case ZRBValueKind::Null: out += "<null>"; return;
    case ZRBValueKind::Bool: out += scalar<bool>() ? '1' : '0'; return;
    case ZRBValueKind::Int: appendInteger(out, scalar<long long>()); return;
    case ZRBValueKind::UInt: appendInteger(out, scalar<unsigned long long>()); return;
    case ZRBValueKind::Double: appendDouble(out, scalar<double>()); return;
    case ZRBValueKind::String: out += stringView(); return;
    case ZRBValueKind::Date: out += dateValue().description(); return;
    case ZRBValueKind::Class: out += className(classValue()); return;
    case ZRBValueKind::Object: out += object()->description(); return;
    case ZRBValueKind::Data: {
      static const char hex[] = "0123456789abcdef";
      auto b = bytes();
      out += "{length = ";
      appendInteger(out, b.size());
      out += ", bytes = 0x";
      auto appendHex = [&](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i) {
          out += hex[b[i] >> 4];
          out += hex[b[i] & 15];
        }
      };
      // Long data shows its first and last bytes, as the platform does.
      if (b.size() <= 24) {
        appendHex(0, b.size());
      } else {
        appendHex(0, 8);
        out += " ... ";
        appendHex(b.size() - 8, b.size());
      }
      out += '}';
      return;
    }
    case ZRBValueKind::Array:
    case ZRBValueKind::Set: {
      bool isSetKind = kind_ == ZRBValueKind::Set;
      out += isSetKind ? "{(\n" : "(\n";
      auto list = items();
      for (std::size_t i = 0; i < list.size(); ++i) {
        appendIndent(out, indent + 1);
        appendItem(out, list[i], indent + 1);
        out += i + 1 < list.size() ? ",\n" : "\n";
      }
      appendIndent(out, indent);
      out += isSetKind ? ")}" : ")";
      return;
    }
    case ZRBValueKind::Dictionary: {
      // The platform lists string keys in ascending order.
      std::vector<const ZRBDictionaryEntry*> sorted;
      for (const auto& entry : entries()) sorted.push_back(&entry);
      std::sort(sorted.begin(), sorted.end(),
                [](auto* a, auto* b) { return a->first.stringView() < b->first.stringView(); });
      out += "{\n";
      for (const auto* entry : sorted) {
        appendIndent(out, indent + 1);
        out += ZRBQuotedDescriptionString(entry->first.stringView());
        out += " = ";
        appendItem(out, entry->second, indent + 1);
        out += ";\n";
      }
      appendIndent(out, indent);
      out += '}';
      return;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Equality and hashing

bool operator==(const ZRBValue& a, const ZRBValue& b) noexcept {
  if (a.isNumber() && b.isNumber()) {
    if (a.kind_ == b.kind_ && a.kind_ != ZRBValueKind::Double) {
      return std::memcmp(a.bytes_, b.bytes_, 8) == 0;
    }
    return numbersEqual(a, b);
  }
  if (a.kind_ != b.kind_) return false;
  if (a.hasNode() && b.hasNode() && a.node() == b.node()) return true;
  switch (a.kind_) {
    case ZRBValueKind::Absent:
    case ZRBValueKind::Null: return true;
    case ZRBValueKind::String: return a.stringView() == b.stringView();
    case ZRBValueKind::Date: return a.scalar<double>() == b.scalar<double>();
    case ZRBValueKind::Class: return a.classValue() == b.classValue();
    case ZRBValueKind::Data: {
      auto x = a.bytes(), y = b.bytes();
      return x.size() == y.size() && std::equal(x.begin(), x.end(), y.begin());
    }
    case ZRBValueKind::Array: {
      auto x = a.items(), y = b.items();
      return x.size() == y.size() && std::equal(x.begin(), x.end(), y.begin());
    }
    case ZRBValueKind::Set: {
      if (a.count() != b.count()) return false;
      for (const auto& item : a.items()) {
        if (!b.containsItem(item)) return false;
      }
      return true;
    }
    case ZRBValueKind::Dictionary: {
      if (a.count() != b.count()) return false;
      for (const auto& [key, value] : a.entries()) {
        const ZRBValue& other = b[key.stringView()];
        if (other.isAbsent() || !(other == value)) return false;
      }
      return true;
    }
    case ZRBValueKind::Object: {
      auto x = a.object(), y = b.object();
      return x == y || x->isEqual(*y);
    }
    default: return false;
  }
}

std::size_t ZRBValue::hash() const noexcept {
  if (isNumber()) return hashNumber(*this);
  std::size_t seed = static_cast<std::size_t>(kind_) * 0x9e3779b97f4a7c15ULL;
  switch (kind_) {
    case ZRBValueKind::String: return hashString(stringView());
    case ZRBValueKind::Date: return combine(seed, std::hash<double>{}(scalar<double>()));
    case ZRBValueKind::Class: return combine(seed, static_cast<std::size_t>(classValue()));
    case ZRBValueKind::Data: {
      auto b = bytes();
      return combine(seed, hashString({reinterpret_cast<const char*>(b.data()), b.size()}));
    }
    case ZRBValueKind::Array:
      for (const auto& item : items()) seed = combine(seed, item.hash());
      return seed;
    case ZRBValueKind::Set: {
      std::size_t sum = 0;  // order-independent
      for (const auto& item : items()) sum += item.hash();
      return combine(seed, sum);
    }
    case ZRBValueKind::Dictionary: {
      std::size_t sum = 0;  // order-independent
      for (const auto& [key, value] : entries()) sum += combine(key.hash(), value.hash());
      return combine(seed, sum);
    }
    case ZRBValueKind::Object: return combine(seed, object()->hash());
    default: return seed;
  }
}

// ---------------------------------------------------------------------------------------------
// Builders

ZRBArrayBuilder::ZRBArrayBuilder(const ZRBValue& array) {
  auto list = array.items();
  items_.assign(list.begin(), list.end());
}

ZRBValue ZRBArrayBuilder::build() { return ZRBValue::array(std::move(items_)); }

ZRBDictionaryBuilder::ZRBDictionaryBuilder(const ZRBValue& dictionary) {
  auto list = dictionary.entries();
  entries_.assign(list.begin(), list.end());
}

ZRBDictionaryBuilder& ZRBDictionaryBuilder::set(std::string_view key, ZRBValue value) {
  for (auto& entry : entries_) {
    if (entry.first.stringView() == key) {
      entry.second = std::move(value);
      return *this;
    }
  }
  entries_.emplace_back(ZRBValue(key), std::move(value));
  return *this;
}

bool ZRBDictionaryBuilder::remove(std::string_view key) {
  auto it = std::find_if(entries_.begin(), entries_.end(),
                         [&](const ZRBDictionaryEntry& e) { return e.first.stringView() == key; });
  if (it == entries_.end()) return false;
  entries_.erase(it);
  return true;
}

const ZRBValue& ZRBDictionaryBuilder::get(std::string_view key) const {
  for (const auto& entry : entries_) {
    if (entry.first.stringView() == key) return entry.second;
  }
  return kAbsent;
}

ZRBValue ZRBDictionaryBuilder::build() { return ZRBValue::dictionary(std::move(entries_)); }

ZRBSetBuilder::ZRBSetBuilder(const ZRBValue& set) {
  auto list = set.items();
  items_.assign(list.begin(), list.end());
}
