#include "platform/foundation/property_list_serialization.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr int kMaxDepth = ZRBPropertyListSerialization::kMaximumNestingDepth;
constexpr std::string_view kBinaryMagic = "bplist00";

ZRBErrorPtr readError(std::string_view reason) {
  return ZRBError::make(
      ZRBCocoaErrorDomain, ZRBPropertyListReadCorruptError,
      ZRBValue::dictionary(
          {{ZRBLocalizedDescriptionKey,
            ZRBValue("The data couldn\u2019t be read because it isn\u2019t in the correct format.")},
           {ZRBDebugDescriptionErrorKey, ZRBValue(reason)}}));
}

ZRBErrorPtr writeError(std::string_view reason) {
  return ZRBError::make(
      ZRBCocoaErrorDomain, ZRBPropertyListWriteInvalidError,
      ZRBValue::dictionary(
          {{ZRBLocalizedDescriptionKey,
            ZRBValue("The data couldn\u2019t be written because it isn\u2019t in the correct format.")},
           {ZRBDebugDescriptionErrorKey, ZRBValue(reason)}}));
}

struct PlistDeleter {
  void operator()(void* node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

bool isValidUTF8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    unsigned c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    int extra;
    unsigned min;
    if ((c & 0xE0) == 0xC0) {
      extra = 1, min = 0x80, c &= 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2, min = 0x800, c &= 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3, min = 0x10000, c &= 0x07;
    } else {
      return false;
    }
    if (end - p <= extra) return false;
    for (int i = 1; i <= extra; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      c = (c << 6) | (p[i] & 0x3F);
    }
    if (c < min || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
    p += extra + 1;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Input checks that run before the bytes reach the parser.

// XML: counts open and close tags of arrays and dictionaries outside comments, CDATA sections and
// declarations. A tag ends at the first '>', as the parser ends it. Returns the reason to refuse,
// or an empty string.
std::string checkXMLNesting(std::span<const std::uint8_t> d) {
  const std::size_t n = d.size();
  auto startsAt = [&](std::size_t i, std::string_view s) {
    return n - i >= s.size() && std::memcmp(d.data() + i, s.data(), s.size()) == 0;
  };
  auto find = [&](std::size_t from, std::string_view s) -> std::size_t {
    for (std::size_t i = from; i + s.size() <= n; ++i) {
      if (d[i] == static_cast<std::uint8_t>(s[0]) && std::memcmp(d.data() + i, s.data(), s.size()) == 0)
        return i;
    }
    return std::string_view::npos;
  };
  auto isNameChar = [](std::uint8_t c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == ':' || c == '.';
  };
  auto nameIs = [&](std::size_t from, std::size_t to, std::string_view want) {
    if (to - from != want.size()) return false;
    for (std::size_t k = 0; k < want.size(); ++k) {
      std::uint8_t c = d[from + k];
      if (c >= 'A' && c <= 'Z') c = static_cast<std::uint8_t>(c - 'A' + 'a');
      if (c != static_cast<std::uint8_t>(want[k])) return false;
    }
    return true;
  };

  // XML has no NUL characters, and the parser would let one into a dictionary key.
  if (std::memchr(d.data(), 0, n) != nullptr) return "NUL character in XML";
  int depth = 0, plistOpen = 0;
  std::size_t i = 0;
  while (i < n) {
    if (d[i] != '<') {
      ++i;
      continue;
    }
    if (startsAt(i, "<!--")) {
      std::size_t e = find(i + 4, "-->");
      if (e == std::string_view::npos) return "unterminated comment";
      i = e + 3;
      continue;
    }
    if (startsAt(i, "<![CDATA[")) {
      std::size_t e = find(i + 9, "]]>");
      if (e == std::string_view::npos) return "unterminated CDATA section";
      i = e + 3;
      continue;
    }
    if (startsAt(i, "<!") || startsAt(i, "<?")) {
      // A document type may carry an internal subset in brackets, with '>' inside it.
      std::size_t j = i + 2;
      int brackets = 0;
      while (j < n && !(d[j] == '>' && brackets == 0)) {
        if (d[j] == '[') ++brackets;
        if (d[j] == ']' && brackets > 0) --brackets;
        ++j;
      }
      if (j >= n) return "unterminated declaration";
      i = j + 1;
      continue;
    }
    const bool closing = i + 1 < n && d[i + 1] == '/';
    const std::size_t nameStart = i + (closing ? 2 : 1);
    std::size_t nameEnd = nameStart;
    while (nameEnd < n && isNameChar(d[nameEnd])) ++nameEnd;
    std::size_t close = nameEnd;
    while (close < n && d[close] != '>') ++close;
    if (close >= n) return "unterminated tag";
    if (nameIs(nameStart, nameEnd, "array") || nameIs(nameStart, nameEnd, "dict")) {
      if (closing) {
        if (--depth < 0) return "unbalanced closing tag";
      } else if (d[close - 1] != '/') {
        if (++depth > kMaxDepth)
          return "containers nested deeper than " + std::to_string(kMaxDepth) + " levels";
      }
    }
    if (nameIs(nameStart, nameEnd, "plist") && d[close - 1] != '/') {
      // The parser forgives a missing end tag; a truncated document must not pass for whole.
      plistOpen += closing ? -1 : 1;
    }
    i = close + 1;
  }
  if (depth != 0 || plistOpen > 0) return "document ends before its elements are closed";
  return {};
}

std::uint64_t readBigEndian(const std::uint8_t* p, std::size_t size) {
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < size; ++i) v = (v << 8) | p[i];
  return v;
}

// Binary: validates the trailer and offset table, then walks every reference from the top object
// with an explicit stack, so the parser later sees only in-range, acyclic, shallow input whose
// expanded size (shared references are expanded by the parser) is bounded.
class BinaryChecker {
 public:
  explicit BinaryChecker(std::span<const std::uint8_t> d) : d_(d) {}

  std::string check() {
    const std::uint64_t size = d_.size();
    if (size < kBinaryMagic.size() + 1 + 1 + kTrailerSize) return "too short for a binary property list";
    const std::uint8_t* trailer = d_.data() + size - kTrailerSize;
    offsetSize_ = trailer[6];
    refSize_ = trailer[7];
    numObjects_ = readBigEndian(trailer + 8, 8);
    const std::uint64_t top = readBigEndian(trailer + 16, 8);
    tableOffset_ = readBigEndian(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8)
      return "bad trailer integer sizes";
    const std::uint64_t tableLimit = size - kTrailerSize;
    if (tableOffset_ <= kBinaryMagic.size() || tableOffset_ >= tableLimit) return "offset table out of range";
    if (numObjects_ == 0 || numObjects_ > (tableLimit - tableOffset_) / offsetSize_)
      return "bad object count";
    if (top >= numObjects_) return "top object out of range";

    // Every reference the parser follows becomes a node; a file without shared containers has
    // fewer references than bytes, so this only stops deliberate amplification.
    const std::uint64_t budget = 4 * size + 4096;
    std::uint64_t visits = 1;
    std::vector<bool> onPath(numObjects_, false);
    struct Frame {
      std::uint64_t object, refsAt, count, next;
      bool dict;
    };
    std::vector<Frame> stack;

    Info info;
    if (std::string why = inspect(top, info); !why.empty()) return why;
    if (info.container) {
      onPath[top] = true;
      stack.push_back({top, info.refsAt, info.refCount, 0, info.dict});
    }
    while (!stack.empty()) {
      Frame& frame = stack.back();
      if (frame.next == frame.count) {
        onPath[frame.object] = false;
        stack.pop_back();
        continue;
      }
      const bool isKey = frame.dict && frame.next < frame.count / 2;
      const std::uint64_t ref = readBigEndian(d_.data() + frame.refsAt + frame.next * refSize_, refSize_);
      ++frame.next;
      if (ref >= numObjects_) return "object reference out of range";
      if (++visits > budget) return "too many objects";
      if (std::string why = inspect(ref, info); !why.empty()) return why;
      if (isKey && (!info.string || keyHasNul(info))) return "dictionary key is not a valid string";
      if (!info.container) continue;
      if (onPath[ref]) return "object references form a cycle";
      if (stack.size() >= static_cast<std::size_t>(kMaxDepth)) {
        return "containers nested deeper than " + std::to_string(kMaxDepth) + " levels";
      }
      onPath[ref] = true;
      stack.push_back({ref, info.refsAt, info.refCount, 0, info.dict});  // `frame` is dead from here
    }
    return {};
  }

 private:
  static constexpr std::uint64_t kTrailerSize = 32;

  struct Info {
    bool container = false, dict = false, string = false, utf16 = false;
    std::uint64_t refsAt = 0, refCount = 0, payloadAt = 0, payloadSize = 0;
  };

  // The parser asserts (and aborts) on dictionary keys with an embedded NUL character.
  bool keyHasNul(const Info& info) const {
    const std::uint8_t* p = d_.data() + info.payloadAt;
    if (!info.utf16) return std::memchr(p, 0, info.payloadSize) != nullptr;
    for (std::uint64_t i = 0; i + 1 < info.payloadSize; i += 2) {
      if (p[i] == 0 && p[i + 1] == 0) return true;
    }
    return false;
  }

  // Checks that the object's header and payload lie between the magic and the offset table.
  std::string inspect(std::uint64_t index, Info& info) {
    info = Info{};
    const std::uint64_t offset = readBigEndian(d_.data() + tableOffset_ + index * offsetSize_, offsetSize_);
    const std::uint64_t end = tableOffset_;
    if (offset < kBinaryMagic.size() || offset >= end) return "object offset out of range";
    const std::uint8_t marker = d_[offset];
    const unsigned type = marker >> 4, low = marker & 0x0F;
    std::uint64_t pos = offset + 1;
    auto fits = [&](std::uint64_t count, std::uint64_t unit) { return count <= (end - pos) / unit; };
    auto length = [&](std::uint64_t& count) {
      if (low != 0x0F) {
        count = low;
        return true;
      }
      if (pos >= end) return false;
      const std::uint8_t m = d_[pos];
      if ((m >> 4) != 0x1 || (m & 0x0F) > 3) return false;
      const std::uint64_t bytes = std::uint64_t{1} << (m & 0x0F);
      ++pos;
      if (!fits(bytes, 1)) return false;
      count = readBigEndian(d_.data() + pos, bytes);
      pos += bytes;
      return true;
    };
    std::uint64_t count = 0;
    switch (type) {
      case 0x0:
        if (low == 0x0 || low == 0x8 || low == 0x9 || low == 0xF) return {};
        break;
      case 0x1:
        if (low <= 4 && fits(std::uint64_t{1} << low, 1)) return {};
        break;
      case 0x2:
        if ((low == 2 || low == 3) && fits(std::uint64_t{1} << low, 1)) return {};
        break;
      case 0x3:
        if (low == 3 && fits(8, 1)) return {};
        break;
      case 0x4:
        if (length(count) && fits(count, 1)) return {};
        break;
      case 0x5:
      case 0x6:
        info.string = true;
        if (length(count) && fits(count, type == 0x5 ? 1 : 2)) {
          info.payloadAt = pos;
          info.payloadSize = type == 0x5 ? count : 2 * count;
          info.utf16 = type == 0x6;
          return {};
        }
        break;
      case 0x8:
        if (low <= 7 && fits(low + 1, 1)) return {};
        break;
      case 0xA:
      case 0xC:
      case 0xD:
        if (!length(count)) break;
        info.container = true;
        info.dict = type == 0xD;
        if (info.dict && count > std::numeric_limits<std::uint64_t>::max() / 2) break;
        info.refCount = info.dict ? 2 * count : count;
        info.refsAt = pos;
        if (fits(info.refCount, refSize_)) return {};
        break;
      default: break;
    }
    return "malformed object " + std::to_string(index);
  }

  std::span<const std::uint8_t> d_;
  std::uint64_t offsetSize_ = 0, refSize_ = 0, numObjects_ = 0, tableOffset_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Node -> value.

struct ReadFailure {
  std::string reason;
};

ZRBValue integerFromNode(plist_t node) {
  std::uint64_t v = 0;
  plist_get_uint_val(node, &v);
  if (v <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return ZRBValue(static_cast<long long>(v));
  }
  // The node keeps whether the bits are a negative number or a large unsigned one; a fresh node
  // made from the same bits is always the signed kind, so equality tells the two apart.
  PlistPtr probe(plist_new_uint(v));
  if (plist_compare_node_value(node, probe.get())) return ZRBValue(static_cast<long long>(v));
  return ZRBValue(static_cast<unsigned long long>(v));
}

ZRBValue valueFromNode(plist_t node, int depth) {
  const plist_type type = plist_get_node_type(node);
  if ((type == PLIST_ARRAY || type == PLIST_DICT) && depth > kMaxDepth) {
    throw ReadFailure{"containers nested too deep"};
  }
  switch (type) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return ZRBValue(b != 0);
    }
    case PLIST_UINT: return integerFromNode(node);
    case PLIST_REAL: {
      double v = 0;
      plist_get_real_val(node, &v);
      return ZRBValue(v);
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      std::string_view view(text ? text : "", text ? length : 0);
      if (!isValidUTF8(view)) throw ReadFailure{"string is not valid UTF-8"};
      return ZRBValue(view);
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      return ZRBValue::data(bytes, bytes ? length : 0);
    }
    case PLIST_DATE: {
      std::int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      // The library truncates to a 32-bit count; the minimum is what an overflow leaves behind.
      if (sec == std::numeric_limits<std::int32_t>::min())
        throw ReadFailure{"date out of the supported range"};
      const double fraction = static_cast<double>(usec) / 1e6;
      return ZRBValue(ZRBDate::fromReferenceDate(sec < 0 ? sec - fraction : sec + fraction));
    }
    case PLIST_UID: {
      std::uint64_t uid = 0;
      plist_get_uid_val(node, &uid);
      return ZRBValue::dictionary({{"CF$UID", ZRBValue(static_cast<unsigned long long>(uid))}});
    }
    case PLIST_ARRAY: {
      ZRBArrayBuilder builder;
      builder.reserve(plist_array_get_size(node));
      plist_array_iter iter = nullptr;
      plist_array_new_iter(node, &iter);
      std::unique_ptr<void, decltype(&std::free)> iterOwner(iter, &std::free);
      for (;;) {
        plist_t item = nullptr;
        plist_array_next_item(node, iter, &item);
        if (!item) break;
        builder.add(valueFromNode(item, depth + 1));
      }
      return builder.build();
    }
    case PLIST_DICT: {
      ZRBDictionaryBuilder builder;
      builder.reserve(plist_dict_get_size(node));
      plist_dict_iter iter = nullptr;
      plist_dict_new_iter(node, &iter);
      std::unique_ptr<void, decltype(&std::free)> iterOwner(iter, &std::free);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iter, &key, &item);
        std::unique_ptr<char, decltype(&std::free)> keyOwner(key, &std::free);
        if (!item) break;
        if (!key || !isValidUTF8(key)) throw ReadFailure{"dictionary key is not valid UTF-8"};
        builder.append(ZRBValue(std::string_view(key)), valueFromNode(item, depth + 1));
      }
      return builder.build();
    }
    default: throw ReadFailure{"unexpected node type"};
  }
}

// ---------------------------------------------------------------------------------------------
// Value -> node.

struct WriteFailure {
  std::string reason;
};

const char* kindName(ZRBValueKind kind) {
  switch (kind) {
    case ZRBValueKind::Absent: return "absent";
    case ZRBValueKind::Null: return "the null object";
    case ZRBValueKind::Set: return "set";
    case ZRBValueKind::Object: return "object";
    case ZRBValueKind::Class: return "class tag";
    default: return "value";
  }
}

void checkText(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) throw WriteFailure{"string contains a NUL character"};
  if (!isValidUTF8(text)) throw WriteFailure{"string is not valid UTF-8"};
}

PlistPtr nodeFromValue(const ZRBValue& value, int depth, ZRBPropertyListFormat format) {
  switch (value.kind()) {
    case ZRBValueKind::Bool: return PlistPtr(plist_new_bool(value.boolValue() ? 1 : 0));
    case ZRBValueKind::Int: return PlistPtr(plist_new_uint(static_cast<std::uint64_t>(value.intValue())));
    case ZRBValueKind::UInt: {
      const unsigned long long v = value.uintValue();
      if (v <= static_cast<unsigned long long>(std::numeric_limits<std::int64_t>::max())) {
        return PlistPtr(plist_new_uint(v));
      }
      // The public constructor always makes the signed kind; the XML reader makes the unsigned
      // kind for values above INT64_MAX, and the writers keep it.
      char xml[96];
      const int length = std::snprintf(xml, sizeof xml, "<plist><integer>%llu</integer></plist>", v);
      plist_t node = nullptr;
      plist_from_xml(xml, static_cast<std::uint32_t>(length), &node);
      if (!node) throw WriteFailure{"cannot represent unsigned integer"};
      return PlistPtr(node);
    }
    case ZRBValueKind::Double: return PlistPtr(plist_new_real(value.doubleValue()));
    case ZRBValueKind::String: {
      const std::string text = value.string();
      checkText(text);
      return PlistPtr(plist_new_string(text.c_str()));
    }
    case ZRBValueKind::Data: {
      auto bytes = value.bytes();
      return PlistPtr(plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }
    case ZRBValueKind::Date: {
      const double seconds = value.dateValue().secondsSinceReferenceDate();
      constexpr double kMin = std::numeric_limits<std::int32_t>::min();
      constexpr double kMax = std::numeric_limits<std::int32_t>::max();
      if (!std::isfinite(seconds) || seconds <= kMin || seconds >= kMax) {
        throw WriteFailure{"date out of the supported range"};
      }
      auto sec = static_cast<std::int32_t>(std::trunc(seconds));
      auto usec = static_cast<std::int32_t>(std::llround((seconds - sec) * 1e6));
      return PlistPtr(plist_new_date(sec, usec));
    }
    case ZRBValueKind::Array:
    case ZRBValueKind::Dictionary: {
      if (depth > kMaxDepth) {
        throw WriteFailure{"containers nested deeper than " + std::to_string(kMaxDepth) + " levels"};
      }
      if (value.isArray()) {
        PlistPtr node(plist_new_array());
        for (const ZRBValue& item : value.items()) {
          PlistPtr child = nodeFromValue(item, depth + 1, format);
          plist_array_append_item(node.get(), child.release());
        }
        return node;
      }
      PlistPtr node(plist_new_dict());
      for (const auto& [key, item] : value.entries()) {
        const std::string keyText = key.string();
        checkText(keyText);
        PlistPtr child = nodeFromValue(item, depth + 1, format);
        plist_dict_set_item(node.get(), keyText.c_str(), child.release());
      }
      return node;
    }
    default:
      throw WriteFailure{std::string("property lists cannot contain ") + kindName(value.kind()) +
                         " (format " + std::to_string(format) + ")"};
  }
}

bool validForOpenStep(const ZRBValue& value, int depth) {
  if (depth > kMaxDepth) return false;
  switch (value.kind()) {
    case ZRBValueKind::String:
    case ZRBValueKind::Data: return true;
    case ZRBValueKind::Array:
      for (const ZRBValue& item : value.items()) {
        if (!validForOpenStep(item, depth + 1)) return false;
      }
      return true;
    case ZRBValueKind::Dictionary:
      for (const auto& entry : value.entries()) {
        if (!validForOpenStep(entry.second, depth + 1)) return false;
      }
      return true;
    default: return false;
  }
}

}  // namespace

ZRBValue ZRBPropertyListSerialization::propertyListWithData(std::span<const std::uint8_t> data,
                                                            ZRBPropertyListReadOptions /*options*/,
                                                            ZRBPropertyListFormat* format,
                                                            ZRBErrorPtr* error) {
  try {
    if (data.empty()) {
      ZRBSetError(error, readError("empty data"));
      return {};
    }
    if (data.size() > std::numeric_limits<std::uint32_t>::max()) {
      ZRBSetError(error, readError("data too large"));
      return {};
    }
    const auto length = static_cast<std::uint32_t>(data.size());
    const char* bytes = reinterpret_cast<const char*>(data.data());
    plist_t root = nullptr;
    ZRBPropertyListFormat found;
    std::string_view head(bytes, std::min<std::size_t>(data.size(), kBinaryMagic.size()));
    if (head == kBinaryMagic) {
      found = ZRBPropertyListBinaryFormat_v1_0;
      if (std::string why = BinaryChecker(data).check(); !why.empty()) {
        ZRBSetError(error, readError(why));
        return {};
      }
      plist_from_bin(bytes, length, &root);
    } else if (head.starts_with("bplist")) {
      ZRBSetError(error, readError("unsupported binary property list version"));
      return {};
    } else {
      std::size_t i = head.starts_with("\xEF\xBB\xBF") ? 3 : 0;
      while (i < data.size() && (data[i] == ' ' || data[i] == '\t' || data[i] == '\r' || data[i] == '\n'))
        ++i;
      if (i == data.size() || data[i] != '<') {
        ZRBSetError(error,
                    readError("not an XML or binary property list (old-style text lists are not supported)"));
        return {};
      }
      found = ZRBPropertyListXMLFormat_v1_0;
      if (std::string why = checkXMLNesting(data); !why.empty()) {
        ZRBSetError(error, readError(why));
        return {};
      }
      plist_from_xml(bytes, length, &root);
    }
    if (!root) {
      ZRBSetError(error, readError("the property list could not be parsed"));
      return {};
    }
    PlistPtr owner(root);
    ZRBValue value = valueFromNode(root, 1);
    if (format) *format = found;
    return value;
  } catch (const ReadFailure& failure) {
    ZRBSetError(error, readError(failure.reason));
  } catch (const std::exception& e) {
    ZRBSetError(error, readError(e.what()));
  }
  return {};
}

std::optional<std::vector<std::uint8_t>> ZRBPropertyListSerialization::dataWithPropertyList(
    const ZRBValue& plist, ZRBPropertyListFormat format, ZRBPropertyListWriteOptions /*options*/,
    ZRBErrorPtr* error) {
  try {
    if (format != ZRBPropertyListXMLFormat_v1_0 && format != ZRBPropertyListBinaryFormat_v1_0) {
      ZRBSetError(error, writeError("format " + std::to_string(format) + " cannot be written"));
      return std::nullopt;
    }
    PlistPtr root = nodeFromValue(plist, 1, format);
    char* out = nullptr;
    std::uint32_t length = 0;
    std::vector<std::uint8_t> bytes;
    if (format == ZRBPropertyListXMLFormat_v1_0) {
      plist_to_xml(root.get(), &out, &length);
      if (out) bytes.assign(out, out + length);
      plist_to_xml_free(out);
    } else {
      plist_to_bin(root.get(), &out, &length);
      if (out) bytes.assign(out, out + length);
      plist_to_bin_free(out);
    }
    if (bytes.empty()) {
      ZRBSetError(error, writeError("the property list could not be serialized"));
      return std::nullopt;
    }
    return bytes;
  } catch (const WriteFailure& failure) {
    ZRBSetError(error, writeError(failure.reason));
  } catch (const std::exception& e) {
    ZRBSetError(error, writeError(e.what()));
  }
  return std::nullopt;
}

bool ZRBPropertyListSerialization::propertyList(const ZRBValue& plist,
                                                ZRBPropertyListFormat isValidForFormat) {
  if (isValidForFormat == ZRBPropertyListOpenStepFormat) return validForOpenStep(plist, 1);
  if (isValidForFormat != ZRBPropertyListXMLFormat_v1_0 &&
      isValidForFormat != ZRBPropertyListBinaryFormat_v1_0) {
    return false;
  }
  try {
    nodeFromValue(plist, 1, isValidForFormat);
    return true;
  } catch (...) {
    return false;
  }
}
