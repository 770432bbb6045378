#include "http/query_string.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <numeric>

namespace {

constexpr std::size_t kBatchUnits = 50;

// Bytes that stay as they are: ASCII letters, digits and "-._~/?".
constexpr std::array<bool, 256> makeAllowedTable() {
  std::array<bool, 256> table{};
  for (int c = 'a'; c <= 'z'; ++c) table[c] = true;
  for (int c = 'A'; c <= 'Z'; ++c) table[c] = true;
  for (int c = '0'; c <= '9'; ++c) table[c] = true;
  for (unsigned char c : std::string_view("-._~/?")) table[c] = true;
  return table;
}
constexpr std::array<bool, 256> kAllowed = makeAllowedTable();
constexpr char kHexDigits[] = "0123456789ABCDEF";

struct CodePoint {
  char32_t value;
  std::size_t length;  // bytes
  bool valid;
};

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Decodes the code point at `i`; a malformed sequence yields its first byte alone, marked invalid.
CodePoint decodeAt(std::string_view s, std::size_t i) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  std::size_t n = s.size();
  unsigned char b0 = p[i];
  if (b0 < 0x80) return {b0, 1, true};
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    if (i + 1 < n && isContinuation(p[i + 1]))
      return {char32_t((b0 & 0x1F) << 6 | (p[i + 1] & 0x3F)), 2, true};
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    if (i + 2 < n && isContinuation(p[i + 1]) && isContinuation(p[i + 2])) {
      char32_t cp = char32_t((b0 & 0x0F) << 12 | (p[i + 1] & 0x3F) << 6 | (p[i + 2] & 0x3F));
      if (cp >= 0x800 && (cp < 0xD800 || cp > 0xDFFF)) return {cp, 3, true};
    }
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    if (i + 3 < n && isContinuation(p[i + 1]) && isContinuation(p[i + 2]) && isContinuation(p[i + 3])) {
      char32_t cp =
          char32_t((b0 & 0x07) << 18 | (p[i + 1] & 0x3F) << 12 | (p[i + 2] & 0x3F) << 6 | (p[i + 3] & 0x3F));
      if (cp >= 0x10000 && cp <= 0x10FFFF) return {cp, 4, true};
    }
  }
  return {b0, 1, false};
}

bool isCombiningMark(char32_t cp) {
  return (cp >= 0x0300 && cp <= 0x036F) || (cp >= 0x1AB0 && cp <= 0x1AFF) || (cp >= 0x1DC0 && cp <= 0x1DFF) ||
         (cp >= 0x20D0 && cp <= 0x20FF) || (cp >= 0xFE20 && cp <= 0xFE2F);
}

void escapeInto(char*& out, std::string_view bytes) {
  for (unsigned char byte : bytes) {
    if (kAllowed[byte]) {
      *out++ = static_cast<char>(byte);
    } else {
      *out++ = '%';
      *out++ = kHexDigits[byte >> 4];
      *out++ = kHexDigits[byte & 0x0F];
    }
  }
}

// The position of a code point in UTF-16 code-unit order: the BMP above the surrogates sorts after
// every supplementary character, whose UTF-16 form starts with a surrogate.
std::uint32_t utf16OrderKey(char32_t cp) { return cp >= 0xE000 && cp <= 0xFFFF ? cp + 0x200000 : cp; }

// Literal, case-sensitive comparison of two UTF-8 texts in UTF-16 code-unit order.
bool utf16Less(std::string_view a, std::string_view b) {
  auto [ia, ib] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  if (ia == a.end() || ib == b.end()) return a.size() < b.size() && ia == a.end();
  std::size_t i = static_cast<std::size_t>(ia - a.begin());
  // Both texts agree up to i, so the code point that differs starts at the same place in both.
  std::size_t start = i;
  while (start > 0 && isContinuation(static_cast<unsigned char>(a[start]))) --start;
  CodePoint ca = decodeAt(a, start);
  CodePoint cb = decodeAt(b, start);
  if (ca.valid && cb.valid && ca.value != cb.value) return utf16OrderKey(ca.value) < utf16OrderKey(cb.value);
  return static_cast<unsigned char>(*ia) < static_cast<unsigned char>(*ib);
}

// A value's description, without a copy when it is a string.
class Description {
 public:
  explicit Description(const ZRBValue& value) {
    if (value.isString()) {
      view_ = value.stringView();
    } else {
      owned_ = true;
      storage_ = value.description();
      view_ = storage_;
    }
  }
  Description(Description&& other) noexcept
      : owned_(other.owned_), storage_(std::move(other.storage_)), view_(owned_ ? storage_ : other.view_) {}
  Description(const Description&) = delete;
  std::string_view view() const { return view_; }

 private:
  bool owned_ = false;
  std::string storage_;
  std::string_view view_;
};

// Items in ascending order of their descriptions.
std::vector<std::size_t> sortedOrder(const std::vector<Description>& descriptions) {
  std::vector<std::size_t> order(descriptions.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) {
    return utf16Less(descriptions[x].view(), descriptions[y].view());
  });
  return order;
}

void appendPairs(std::vector<ZRBHS_QueryStringPair>& pairs, const ZRBValue& key, const ZRBValue& value) {
  if (value.isDictionary()) {
    auto entries = value.entries();
    std::vector<Description> names;
    names.reserve(entries.size());
    for (const auto& entry : entries) names.emplace_back(entry.first);
    for (std::size_t index : sortedOrder(names)) {
      const auto& [nestedKey, nested] = entries[index];
      if (nested.isAbsent()) continue;
      if (key.isAbsent()) {
        appendPairs(pairs, nestedKey, nested);
      } else {
        Description outer(key);
        std::string name;
        name.reserve(outer.view().size() + names[index].view().size() + 2);
        name.append(outer.view()).append("[").append(names[index].view()).append("]");
        appendPairs(pairs, ZRBValue(name), nested);
      }
    }
  } else if (value.isArray()) {
    // An absent key prints as "(null)", which gives the "(null)[]" names of top-level arrays.
    std::string name = key.description() + "[]";
    ZRBValue arrayKey(name);
    for (const ZRBValue& element : value.items()) appendPairs(pairs, arrayKey, element);
  } else if (value.isSet()) {
    auto items = value.items();
    std::vector<Description> descriptions;
    descriptions.reserve(items.size());
    for (const ZRBValue& item : items) descriptions.emplace_back(item);
    for (std::size_t index : sortedOrder(descriptions)) appendPairs(pairs, key, items[index]);
  } else {
    pairs.emplace_back(key, value);
  }
}

}  // namespace

std::size_t ZRBHS_PercentEscapingBatchLength(std::string_view rest) {
  std::size_t i = 0;
  std::size_t units = 0;
  const std::size_t n = rest.size();
  while (i < n && units < kBatchUnits) {
    if (static_cast<unsigned char>(rest[i]) < 0x80) {
      ++i;
      ++units;
      continue;
    }
    CodePoint cp = decodeAt(rest, i);
    // A supplementary character is two UTF-16 units and is taken whole, so a batch may reach 51.
    units += cp.value >= 0x10000 ? 2 : 1;
    i += cp.length;
  }
  // Widen to the end of the composed sequence: combining marks stay with their base character.
  while (i < n && static_cast<unsigned char>(rest[i]) >= 0x80) {
    CodePoint cp = decodeAt(rest, i);
    if (!cp.valid || !isCombiningMark(cp.value)) break;
    i += cp.length;
  }
  return i;
}

void ZRBHS_AppendPercentEscapedString(std::string& out, std::string_view string) {
  if (string.empty()) return;
  std::size_t escaped = 0;
  for (unsigned char byte : string) escaped += !kAllowed[byte];
  const std::size_t start = out.size();
  out.resize(start + string.size() + 2 * escaped);
  char* cursor = out.data() + start;
  for (std::size_t index = 0; index < string.size();) {
    std::size_t length = ZRBHS_PercentEscapingBatchLength(string.substr(index));
    escapeInto(cursor, string.substr(index, length));
    index += length;
  }
}

std::string ZRBHS_PercentEscapedStringFromString(std::string_view string) {
  std::string out;
  ZRBHS_AppendPercentEscapedString(out, string);
  return out;
}

void ZRBHS_QueryStringPair::appendURLEncodedStringValue(std::string& out) const {
  ZRBHS_AppendPercentEscapedString(out, Description(field_).view());
  if (value_.isNothing()) return;
  out.push_back('=');
  ZRBHS_AppendPercentEscapedString(out, Description(value_).view());
}

std::string ZRBHS_QueryStringPair::URLEncodedStringValue() const {
  std::string out;
  appendURLEncodedStringValue(out);
  return out;
}

std::vector<ZRBHS_QueryStringPair> ZRBHS_QueryStringPairsFromKeyAndValue(const ZRBValue& key,
                                                                         const ZRBValue& value) {
  std::vector<ZRBHS_QueryStringPair> pairs;
  appendPairs(pairs, key, value);
  return pairs;
}

std::vector<ZRBHS_QueryStringPair> ZRBHS_QueryStringPairsFromDictionary(const ZRBValue& dictionary) {
  return ZRBHS_QueryStringPairsFromKeyAndValue(ZRBValue(), dictionary);
}

std::string ZRBHS_QueryStringFromParameters(const ZRBValue& parameters) {
  std::string query;
  bool first = true;
  for (const auto& pair : ZRBHS_QueryStringPairsFromDictionary(parameters)) {
    if (!first) query.push_back('&');
    first = false;
    pair.appendURLEncodedStringValue(query);
  }
  return query;
}
