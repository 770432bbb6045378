#include "platform/foundation/json_serialization.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <system_error>

namespace {

constexpr std::string_view kReadFailureText =
    "The data couldn’t be read because it isn’t in the correct format.";
constexpr std::string_view kWriteFailureText =
    "The data couldn’t be written because it isn’t in the correct format.";

ZRBErrorPtr makeError(long code, std::string_view description, std::string debugDescription) {
  return ZRBError::make(ZRBCocoaErrorDomain, code,
                        ZRBValue::dictionary({{ZRBLocalizedDescriptionKey, ZRBValue(description)},
                                              {ZRBDebugDescriptionErrorKey, ZRBValue(debugDescription)}}));
}

ZRBErrorPtr readError(std::string debugDescription) {
  return makeError(ZRBPropertyListReadCorruptError, kReadFailureText, std::move(debugDescription));
}

// "around line L, column C." for a byte offset: lines count from 1, columns count the characters
// (not the UTF-8 continuation bytes) before the offset on its line.
std::string locate(std::string_view text, std::size_t offset) {
  offset = std::min(offset, text.size());
  std::size_t line = 1, column = 0;
  for (std::size_t i = 0; i < offset; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\n') {
      ++line;
      column = 0;
    } else if ((c & 0xC0) != 0x80) {
      ++column;
    }
  }
  return " around line " + std::to_string(line) + ", column " + std::to_string(column) + ".";
}

bool isJSONWhitespace(unsigned char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

// ---------------------------------------------------------------------------------------------
// Input encodings

enum class Encoding { UTF8, UTF16BE, UTF16LE, UTF32BE, UTF32LE };

// The encoding of the input and the length of its byte-order mark. Without a mark, the zero bytes
// of the first (ASCII) characters give UTF-16 or UTF-32 away.
Encoding detectEncoding(std::string_view in, std::size_t& markLength) {
  auto at = [&](std::size_t i) { return static_cast<unsigned char>(in[i]); };
  std::size_t n = in.size();
  markLength = 0;
  if (n >= 3 && at(0) == 0xEF && at(1) == 0xBB && at(2) == 0xBF) {
    markLength = 3;
    return Encoding::UTF8;
  }
  if (n >= 4 && at(0) == 0 && at(1) == 0 && at(2) == 0xFE && at(3) == 0xFF) {
    markLength = 4;
    return Encoding::UTF32BE;
  }
  if (n >= 4 && at(0) == 0xFF && at(1) == 0xFE && at(2) == 0 && at(3) == 0) {
    markLength = 4;
    return Encoding::UTF32LE;
  }
  if (n >= 2 && at(0) == 0xFE && at(1) == 0xFF) {
    markLength = 2;
    return Encoding::UTF16BE;
  }
  if (n >= 2 && at(0) == 0xFF && at(1) == 0xFE) {
    markLength = 2;
    return Encoding::UTF16LE;
  }
  if (n >= 4 && at(0) == 0 && at(1) == 0 && at(2) == 0 && at(3) != 0) return Encoding::UTF32BE;
  if (n >= 4 && at(0) != 0 && at(1) == 0 && at(2) == 0 && at(3) == 0) return Encoding::UTF32LE;
  if (n >= 2 && at(0) == 0 && at(1) != 0) return Encoding::UTF16BE;
  if (n >= 2 && at(0) != 0 && at(1) == 0) return Encoding::UTF16LE;
  return Encoding::UTF8;
}

void appendUTF8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// UTF-16 or UTF-32 to UTF-8; nullopt when the units are not well-formed.
std::optional<std::string> transcode(std::string_view in, Encoding encoding) {
  const bool wide = encoding == Encoding::UTF32BE || encoding == Encoding::UTF32LE;
  const bool big = encoding == Encoding::UTF16BE || encoding == Encoding::UTF32BE;
  const std::size_t unit = wide ? 4 : 2;
  if (in.size() % unit != 0) return std::nullopt;
  auto read = [&](std::size_t i) {
    char32_t v = 0;
    for (std::size_t k = 0; k < unit; ++k) {
      auto byte = static_cast<unsigned char>(in[i + (big ? k : unit - 1 - k)]);
      v = (v << 8) | byte;
    }
    return v;
  };
  std::string out;
  out.reserve(in.size());
  for (std::size_t i = 0; i < in.size(); i += unit) {
    char32_t c = read(i);
    if (!wide && c >= 0xD800 && c < 0xDC00) {
      if (i + unit >= in.size()) return std::nullopt;
      char32_t low = read(i + unit);
      if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
      c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
      i += unit;
    } else if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) {
      return std::nullopt;
    }
    appendUTF8(out, c);
  }
  return out;
}

// ---------------------------------------------------------------------------------------------
// Fast reading: simdjson validates the document into its tape, then the tape becomes ZRBValues.

// simdjson counts nesting so that `limit` non-empty containers nest when given limit + 1.
constexpr std::size_t kParserDepth = ZRBJSONSerialization::kMaximumNestingDepth + 1;
// Parser buffers grow to the largest document read; beyond this input size they are dropped after
// the document has been read, so one huge response does not pin its memory to the thread.
constexpr std::size_t kRetainedInputSize = std::size_t{2} << 20;

struct ThreadParser {
  std::unique_ptr<simdjson::dom::parser> parser;

  simdjson::dom::parser* get() {
    if (!parser) {
      auto fresh = std::make_unique<simdjson::dom::parser>();
      if (fresh->allocate(64 * 1024, kParserDepth) != simdjson::SUCCESS) return nullptr;
      parser = std::move(fresh);
    }
    return parser.get();
  }
};

// Children of the containers being built wait on one stack per thread, so a container's
// elements are allocated once, together with the container, and never through a growing vector.
struct BuildStacks {
  std::vector<ZRBValue> items;
  std::vector<ZRBDictionaryEntry> entries;
};
thread_local BuildStacks threadBuildStacks;

// Drops what a container pushed, also when building a child throws.
template <typename Element>
struct StackMark {
  std::vector<Element>& stack;
  std::size_t base = stack.size();
  ~StackMark() { stack.resize(base); }
  std::span<Element> pushed() { return {stack.data() + base, stack.size() - base}; }
};

ZRBValue build(simdjson::dom::element element, BuildStacks& stacks) {
  using simdjson::dom::element_type;
  switch (element.type()) {
    case element_type::ARRAY: {
      StackMark<ZRBValue> mark{stacks.items};
      simdjson::dom::array array = element.get_array().value_unsafe();
      for (simdjson::dom::element child : array) {
        ZRBValue item = build(child, stacks);
        mark.stack.push_back(std::move(item));
      }
      return ZRBValue::arrayMovingFrom(mark.pushed());
    }
    case element_type::OBJECT: {
      StackMark<ZRBDictionaryEntry> mark{stacks.entries};
      simdjson::dom::object object = element.get_object().value_unsafe();
      for (simdjson::dom::key_value_pair field : object) {
        ZRBValue value = build(field.value, stacks);
        mark.stack.emplace_back(field.key, std::move(value));
      }
      return ZRBValue::dictionaryMovingFrom(mark.pushed());
    }
    case element_type::STRING: return ZRBValue(element.get_string().value_unsafe());
    case element_type::INT64: return ZRBValue(static_cast<long long>(element.get_int64().value_unsafe()));
    case element_type::UINT64:
      return ZRBValue(static_cast<unsigned long long>(element.get_uint64().value_unsafe()));
    case element_type::DOUBLE: return ZRBValue(element.get_double().value_unsafe());
    case element_type::BOOL: return ZRBValue(element.get_bool().value_unsafe());
    case element_type::NULL_VALUE: return ZRBValue::null();
  }
  return ZRBValue::null();
}

// ---------------------------------------------------------------------------------------------
// Exact reading: a plain recursive-descent reader for the inputs the fast path refuses. It reads
// integers beyond 64 bits (as doubles, which simdjson will not do) and, for malformed input, tells
// what is wrong and where. It accepts exactly what the fast path accepts otherwise.

class ExactReader {
 public:
  explicit ExactReader(std::string_view text)
      : text_(text),
        begin_(reinterpret_cast<const unsigned char*>(text.data())),
        p_(begin_),
        end_(begin_ + text.size()) {}

  bool read(ZRBValue& out) {
    if (!value(out, 0)) return false;
    skipWhitespace();
    if (p_ != end_) return fail("Garbage at end");
    return true;
  }

  std::string message() const {
    if (atEnd_) return "Unexpected end of file during JSON parse.";
    return message_ + locate(text_, static_cast<std::size_t>(p_ - begin_));
  }

 private:
  bool fail(const char* message) {
    message_ = message;
    atEnd_ = false;
    return false;
  }
  bool failAtEnd() {
    atEnd_ = true;
    return false;
  }
  void skipWhitespace() {
    while (p_ != end_ && isJSONWhitespace(*p_)) ++p_;
  }

  bool value(ZRBValue& out, std::size_t depth) {
    skipWhitespace();
    if (p_ == end_) return failAtEnd();
    switch (*p_) {
      case '[': return array(out, depth + 1);
      case '{': return object(out, depth + 1);
      case '"': {
        std::string s;
        if (!string(s)) return false;
        out = ZRBValue(std::string_view(s));
        return true;
      }
      case 't': return literal("true", ZRBValue(true), out);
      case 'f': return literal("false", ZRBValue(false), out);
      case 'n': return literal("null", ZRBValue::null(), out);
      default:
        if (*p_ == '-' || (*p_ >= '0' && *p_ <= '9')) return number(out);
        return fail("Invalid value");
    }
  }

  bool literal(std::string_view word, ZRBValue value, ZRBValue& out) {
    std::size_t available = static_cast<std::size_t>(end_ - p_);
    std::size_t n = std::min(word.size(), available);
    if (std::memcmp(p_, word.data(), n) != 0) return fail("Invalid value");
    if (n < word.size()) return failAtEnd();
    p_ += word.size();
    out = std::move(value);
    return true;
  }

  // Opens a container at nesting `level`; an empty one is fine at any level.
  bool tooDeep(std::size_t level, char closing) {
    skipWhitespace();
    return level > ZRBJSONSerialization::kMaximumNestingDepth && p_ != end_ && *p_ != closing;
  }

  bool array(ZRBValue& out, std::size_t level) {
    const unsigned char* start = p_++;
    if (tooDeep(level, ']')) {
      p_ = start;
      return fail("Too many nested arrays or dictionaries");
    }
    std::vector<ZRBValue> items;
    if (p_ != end_ && *p_ == ']') {
      ++p_;
      out = ZRBValue::array(std::move(items));
      return true;
    }
    for (;;) {
      ZRBValue item;
      if (!value(item, level)) return false;
      items.push_back(std::move(item));
      skipWhitespace();
      if (p_ == end_) return failAtEnd();
      if (*p_ == ']') break;
      if (*p_ != ',') return fail("Badly formed array");
      ++p_;
    }
    ++p_;
    out = ZRBValue::array(std::move(items));
    return true;
  }

  bool object(ZRBValue& out, std::size_t level) {
    const unsigned char* start = p_++;
    if (tooDeep(level, '}')) {
      p_ = start;
      return fail("Too many nested arrays or dictionaries");
    }
    std::vector<ZRBDictionaryEntry> entries;
    if (p_ != end_ && *p_ == '}') {
      ++p_;
      out = ZRBValue::dictionary(std::move(entries));
      return true;
    }
    for (;;) {
      skipWhitespace();
      if (p_ == end_) return failAtEnd();
      if (*p_ != '"') return fail("No string key for value in object");
      std::string key;
      if (!string(key)) return false;
      skipWhitespace();
      if (p_ == end_) return failAtEnd();
      if (*p_ != ':') return fail("No ':' after key in object");
      ++p_;
      ZRBValue item;
      if (!value(item, level)) return false;
      entries.emplace_back(ZRBValue(std::string_view(key)), std::move(item));
      skipWhitespace();
      if (p_ == end_) return failAtEnd();
      if (*p_ == '}') break;
      if (*p_ != ',') return fail("Badly formed object");
      ++p_;
    }
    ++p_;
    out = ZRBValue::dictionary(std::move(entries));
    return true;
  }

  bool hex4(char32_t& out) {
    out = 0;
    for (int i = 0; i < 4; ++i, ++p_) {
      if (p_ == end_) return failAtEnd();
      unsigned char c = *p_;
      int digit = c >= '0' && c <= '9'   ? c - '0'
                  : c >= 'a' && c <= 'f' ? c - 'a' + 10
                  : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                         : -1;
      if (digit < 0) return fail("Invalid escape sequence");
      out = (out << 4) | static_cast<char32_t>(digit);
    }
    return true;
  }

  // One UTF-8 sequence starting at p_ (a byte >= 0x80), copied when well-formed.
  bool utf8Sequence(std::string& out) {
    unsigned char c = *p_;
    std::size_t length = c >= 0xC2 && c <= 0xDF   ? 2
                         : c >= 0xE0 && c <= 0xEF ? 3
                         : c >= 0xF0 && c <= 0xF4 ? 4
                                                  : 0;
    if (length == 0) return fail("Unable to convert data to string");
    if (static_cast<std::size_t>(end_ - p_) < length) return failAtEnd();
    unsigned char lo = 0x80, hi = 0xBF;  // the second byte excludes overlong forms and surrogates
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
    if (p_[1] < lo || p_[1] > hi) return fail("Unable to convert data to string");
    for (std::size_t i = 2; i < length; ++i) {
      if ((p_[i] & 0xC0) != 0x80) return fail("Unable to convert data to string");
    }
    out.append(reinterpret_cast<const char*>(p_), length);
    p_ += length;
    return true;
  }

  bool string(std::string& out) {
    ++p_;  // the opening quote
    for (;;) {
      if (p_ == end_) return failAtEnd();
      unsigned char c = *p_;
      if (c == '"') {
        ++p_;
        return true;
      }
      if (c < 0x20) return fail("Unescaped control character");
      if (c >= 0x80) {
        if (!utf8Sequence(out)) return false;
        continue;
      }
      if (c != '\\') {
        out += static_cast<char>(c);
        ++p_;
        continue;
      }
      if (++p_ == end_) return failAtEnd();
      switch (*p_++) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '/': out += '/'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': {
          char32_t unit;
          if (!hex4(unit)) return false;
          if (unit >= 0xDC00 && unit <= 0xDFFF) return fail("Invalid unicode surrogate");
          if (unit >= 0xD800 && unit < 0xDC00) {
            char32_t low;
            if (p_ == end_) return failAtEnd();
            if (*p_++ != '\\') return fail("Invalid unicode surrogate");
            if (p_ == end_) return failAtEnd();
            if (*p_++ != 'u') return fail("Invalid unicode surrogate");
            if (!hex4(low)) return false;
            if (low < 0xDC00 || low > 0xDFFF) return fail("Invalid unicode surrogate");
            unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
          }
          appendUTF8(out, unit);
          break;
        }
        default: --p_; return fail("Invalid escape sequence");
      }
    }
  }

  bool number(ZRBValue& out) {
    const unsigned char* start = p_;
    auto digits = [&] {
      const unsigned char* from = p_;
      while (p_ != end_ && *p_ >= '0' && *p_ <= '9') ++p_;
      return p_ != from;
    };
    bool negative = *p_ == '-';
    if (negative) ++p_;
    const unsigned char* integerStart = p_;
    if (!digits()) return p_ == end_ ? failAtEnd() : fail("Invalid number");
    if (*integerStart == '0' && p_ - integerStart > 1) {
      p_ = integerStart;
      return fail("Leading zeros are not allowed in numbers");
    }
    std::size_t integerDigits = static_cast<std::size_t>(p_ - integerStart);
    bool integral = true;
    if (p_ != end_ && *p_ == '.') {
      ++p_;
      integral = false;
      if (!digits()) return p_ == end_ ? failAtEnd() : fail("Invalid number");
    }
    long long exponent = 0;
    if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
      ++p_;
      integral = false;
      bool negativeExponent = false;
      if (p_ != end_ && (*p_ == '+' || *p_ == '-')) negativeExponent = *p_++ == '-';
      const unsigned char* exponentStart = p_;
      if (!digits()) return p_ == end_ ? failAtEnd() : fail("Invalid number");
      for (const unsigned char* d = exponentStart; d != p_ && exponent < 100000; ++d)
        exponent = exponent * 10 + (*d - '0');
      if (negativeExponent) exponent = -exponent;
    }
    const char* first = reinterpret_cast<const char*>(start);
    const char* last = reinterpret_cast<const char*>(p_);
    if (integral) {
      if (negative) {
        long long v;
        if (std::from_chars(first, last, v).ec == std::errc()) {
          out = ZRBValue(v);
          return true;
        }
      } else {
        unsigned long long v;
        if (std::from_chars(first, last, v).ec == std::errc()) {
          out = v <= static_cast<unsigned long long>(std::numeric_limits<long long>::max())
                    ? ZRBValue(static_cast<long long>(v))
                    : ZRBValue(v);
          return true;
        }
      }
    }
    double d;
    auto result = std::from_chars(first, last, d);
    if (result.ec == std::errc()) {
      out = ZRBValue(d);
      return true;
    }
    // Out of range: too small rounds to zero, too large is an error. The decimal exponent of the
    // first significant digit tells which.
    const unsigned char* digit = integerStart;
    long long position = static_cast<long long>(integerDigits);
    while (digit != p_ && (*digit == '0' || *digit == '.')) {
      if (*digit == '0') --position;
      ++digit;
    }
    if (digit == p_ || *digit == 'e' || *digit == 'E' || position + exponent <= 0) {
      out = ZRBValue(negative ? -0.0 : 0.0);
      return true;
    }
    p_ = start;
    return fail("Number out of range");
  }

  std::string_view text_;
  const unsigned char* begin_;
  const unsigned char* p_;
  const unsigned char* end_;
  std::string message_;
  bool atEnd_ = false;
};

// ---------------------------------------------------------------------------------------------
// Writing

// For every byte: 0 when it is written as is, else the letter after the backslash ('u' for \u00XX).
constexpr auto kEscapes = [] {
  std::array<char, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[c] = 'u';
  table['\b'] = 'b';
  table['\f'] = 'f';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['"'] = '"';
  table['\\'] = '\\';
  table['/'] = '/';
  return table;
}();

constexpr char kHex[] = "0123456789abcdef";

const char* typeName(ZRBValueKind kind) {
  switch (kind) {
    case ZRBValueKind::Absent: return "absent";
    case ZRBValueKind::Data: return "Data";
    case ZRBValueKind::Date: return "Date";
    case ZRBValueKind::Set: return "Set";
    case ZRBValueKind::Object: return "Object";
    case ZRBValueKind::Class: return "Class";
    default: return "?";
  }
}

class Writer {
 public:
  Writer(std::string& out, ZRBJSONWritingOptions options)
      : out_(out),
        pretty_(options & ZRBJSONWritingPrettyPrinted),
        sorted_(options & ZRBJSONWritingSortedKeys),
        escapeSlash_(!(options & ZRBJSONWritingWithoutEscapingSlashes)) {}

  // Writes `value`; on failure leaves the reason in problem().
  bool write(const ZRBValue& value, std::size_t depth) {
    switch (value.kind()) {
      case ZRBValueKind::Null: out_ += "null"; return true;
      case ZRBValueKind::Bool: out_ += value.boolValue() ? "true" : "false"; return true;
      case ZRBValueKind::Int: return append(value.intValue());
      case ZRBValueKind::UInt: return append(value.uintValue());
      case ZRBValueKind::Double: {
        double d = value.doubleValue();
        if (!std::isfinite(d)) {
          problem_ = std::isnan(d) ? "Invalid number value (NaN) in JSON write"
                                   : "Invalid number value (infinite) in JSON write";
          return false;
        }
        return append(d);
      }
      case ZRBValueKind::String: return string(value.stringView());
      case ZRBValueKind::Array: return array(value, depth + 1);
      case ZRBValueKind::Dictionary: return dictionary(value, depth + 1);
      default:
        problem_ = std::string("Invalid type in JSON write (") + typeName(value.kind()) + ")";
        return false;
    }
  }

  const std::string& problem() const { return problem_; }

 private:
  template <typename Number>
  bool append(Number n) {
    char buffer[32];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, n);
    out_.append(buffer, result.ptr);
    return true;
  }

  void newline(std::size_t depth) {
    out_ += '\n';
    out_.append(depth * 2, ' ');
  }

  bool tooDeep(std::size_t depth) {
    if (depth <= ZRBJSONSerialization::kMaximumNestingDepth) return false;
    problem_ = "Too many nested arrays or dictionaries in JSON write";
    return true;
  }

  // Whether any of the eight bytes of `w` needs an escape: a control character, '"', '\\' or (when
  // slashes are escaped) '/'. Checking a word at a time lets plain text be copied in runs.
  static bool wordNeedsEscape(std::uint64_t w, bool slash) {
    constexpr std::uint64_t kOnes = 0x0101010101010101ULL, kHigh = 0x8080808080808080ULL;
    auto hasZeroByte = [](std::uint64_t v) { return (v - kOnes) & ~v & kHigh; };
    std::uint64_t control = (w - kOnes * 0x20) & ~w & kHigh;
    std::uint64_t delimiter = hasZeroByte(w ^ (kOnes * '"')) | hasZeroByte(w ^ (kOnes * '\\'));
    if (slash) delimiter |= hasZeroByte(w ^ (kOnes * '/'));
    return (control | delimiter) != 0;
  }

  bool string(std::string_view s) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(s.data());
    const std::size_t n = s.size();
    out_ += '"';
    std::uint64_t seen = 0;
    std::size_t run = 0, i = 0;
    while (i < n) {
      if (i + 8 <= n) {
        std::uint64_t w;
        std::memcpy(&w, bytes + i, sizeof w);
        seen |= w;
        if (!wordNeedsEscape(w, escapeSlash_)) {
          i += 8;
          continue;
        }
      }
      // Byte by byte through the word (or the tail) that holds something to escape.
      for (std::size_t stop = std::min(n, i + 8); i < stop; ++i) {
        unsigned char c = bytes[i];
        seen |= c;
        char escape = kEscapes[c];
        if (escape == 0 || (c == '/' && !escapeSlash_)) continue;
        out_.append(s.data() + run, i - run);
        run = i + 1;
        char sequence[6] = {'\\', escape, '0', '0', kHex[c >> 4], kHex[c & 0xF]};
        out_.append(sequence, escape == 'u' ? 6 : 2);
      }
    }
    out_.append(s.data() + run, n - run);
    out_ += '"';
    if ((seen & 0x8080808080808080ULL) && !simdjson::validate_utf8(s.data(), n)) {
      problem_ = "Invalid string (not UTF-8) in JSON write";
      return false;
    }
    return true;
  }

  bool array(const ZRBValue& value, std::size_t depth) {
    if (tooDeep(depth)) return false;
    out_ += '[';
    bool first = true;
    if (pretty_) out_ += '\n';
    for (const ZRBValue& item : value.items()) {
      if (!first) out_ += pretty_ ? ",\n" : ",";
      first = false;
      if (pretty_) out_.append(depth * 2, ' ');
      if (!write(item, depth)) return false;
    }
    if (pretty_) newline(depth - 1);
    out_ += ']';
    return true;
  }

  bool entry(const ZRBDictionaryEntry& e, std::size_t depth) {
    if (!string(e.first.stringView())) return false;
    out_ += pretty_ ? " : " : ":";
    return write(e.second, depth);
  }

  bool dictionary(const ZRBValue& value, std::size_t depth) {
    if (tooDeep(depth)) return false;
    out_ += '{';
    if (pretty_) out_ += '\n';
    auto entries = value.entries();
    std::vector<const ZRBDictionaryEntry*> order;
    if (sorted_) {
      order.reserve(entries.size());
      for (const auto& e : entries) order.push_back(&e);
      std::sort(order.begin(), order.end(), [](const ZRBDictionaryEntry* a, const ZRBDictionaryEntry* b) {
        return a->first.stringView() < b->first.stringView();
      });
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (i != 0) out_ += pretty_ ? ",\n" : ",";
      if (pretty_) out_.append(depth * 2, ' ');
      if (!entry(sorted_ ? *order[i] : entries[i], depth)) return false;
    }
    if (pretty_) newline(depth - 1);
    out_ += '}';
    return true;
  }

  std::string& out_;
  bool pretty_;
  bool sorted_;
  bool escapeSlash_;
  std::string problem_;
};

bool isContainer(const ZRBValue& v) { return v.isArray() || v.isDictionary(); }

bool validValue(const ZRBValue& value, std::size_t depth) {
  switch (value.kind()) {
    case ZRBValueKind::Null:
    case ZRBValueKind::Bool:
    case ZRBValueKind::Int:
    case ZRBValueKind::UInt: return true;
    case ZRBValueKind::Double: return std::isfinite(value.doubleValue());
    case ZRBValueKind::String: {
      auto s = value.stringView();
      return simdjson::validate_utf8(s.data(), s.size());
    }
    case ZRBValueKind::Array:
      if (depth >= ZRBJSONSerialization::kMaximumNestingDepth) return false;
      return std::all_of(value.items().begin(), value.items().end(),
                         [&](const ZRBValue& item) { return validValue(item, depth + 1); });
    case ZRBValueKind::Dictionary:
      if (depth >= ZRBJSONSerialization::kMaximumNestingDepth) return false;
      return std::all_of(value.entries().begin(), value.entries().end(), [&](const ZRBDictionaryEntry& e) {
        return validValue(e.first, depth + 1) && validValue(e.second, depth + 1);
      });
    default: return false;
  }
}

bool writeJSON(const ZRBValue& object, ZRBJSONWritingOptions options, std::string& out, ZRBErrorPtr* error) {
  if (!(options & ZRBJSONWritingFragmentsAllowed) && !isContainer(object)) {
    if (error)
      *error = makeError(ZRBPropertyListWriteInvalidError, kWriteFailureText,
                         "Invalid top-level type in JSON write");
    return false;
  }
  Writer writer(out, options);
  out.reserve(256);
  if (writer.write(object, 0)) return true;
  if (error) *error = makeError(ZRBPropertyListWriteInvalidError, kWriteFailureText, writer.problem());
  return false;
}

ZRBValue readJSON(std::string_view text, ZRBJSONReadingOptions options, ZRBErrorPtr* error) {
  auto failWith = [&](std::string debug) {
    if (error) *error = readError(std::move(debug));
    return ZRBValue();
  };
  if (text.empty()) return failWith("Unable to parse empty data.");

  std::size_t markLength = 0;
  Encoding encoding = detectEncoding(text, markLength);
  text.remove_prefix(markLength);
  std::optional<std::string> converted;
  if (encoding != Encoding::UTF8) {
    converted = transcode(text, encoding);
    if (!converted) return failWith("Unable to convert data to string around line 1, column 0.");
    text = *converted;
  }

  // Refuse a scalar document before doing any work on it.
  if (!(options & ZRBJSONReadingFragmentsAllowed)) {
    std::size_t first = 0;
    while (first < text.size() && isJSONWhitespace(static_cast<unsigned char>(text[first]))) ++first;
    if (first < text.size() && text[first] != '[' && text[first] != '{') {
      return failWith("JSON text did not start with array or object and option to allow fragments not set." +
                      locate(text, first));
    }
  }

  thread_local ThreadParser threadParser;
  simdjson::error_code failure = simdjson::MEMALLOC;
  if (simdjson::dom::parser* parser = threadParser.get()) {
    auto parsed = parser->parse(text.data(), text.size(), true);
    failure = parsed.error();
    if (!failure) {
      ZRBValue value = build(parsed.value_unsafe(), threadBuildStacks);
      if (text.size() > kRetainedInputSize) {
        threadParser.parser.reset();
        threadBuildStacks = {};
      }
      return value;
    }
    if (text.size() > kRetainedInputSize) threadParser.parser.reset();
  }

  // Integers beyond 64 bits fail the fast path but are valid; any other failure is read again only
  // to say where it is.
  bool numberFailure = failure == simdjson::NUMBER_ERROR;
  if (!numberFailure && !error) return ZRBValue();
  ExactReader reader(text);
  ZRBValue value;
  if (reader.read(value)) {
    if (numberFailure) return value;
    return failWith(std::string(simdjson::error_message(failure)) + ".");
  }
  return failWith(reader.message());
}

}  // namespace

bool ZRBJSONSerialization::isValidJSONObject(const ZRBValue& object) {
  return isContainer(object) && validValue(object, 0);
}

std::optional<std::string> ZRBJSONSerialization::stringWithJSONObject(const ZRBValue& object,
                                                                      ZRBJSONWritingOptions options,
                                                                      ZRBErrorPtr* error) {
  std::string out;
  if (!writeJSON(object, options, out, error)) return std::nullopt;
  return out;
}

std::optional<std::vector<std::uint8_t>> ZRBJSONSerialization::dataWithJSONObject(
    const ZRBValue& object, ZRBJSONWritingOptions options, ZRBErrorPtr* error) {
  std::string out;
  if (!writeJSON(object, options, out, error)) return std::nullopt;
  return std::vector<std::uint8_t>(out.begin(), out.end());
}

ZRBValue ZRBJSONSerialization::JSONObjectWithData(std::span<const std::uint8_t> data,
                                                  ZRBJSONReadingOptions options, ZRBErrorPtr* error) {
  return readJSON(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()), options, error);
}

ZRBValue ZRBJSONSerialization::JSONObjectWithData(std::string_view data, ZRBJSONReadingOptions options,
                                                  ZRBErrorPtr* error) {
  return readJSON(data, options, error);
}
