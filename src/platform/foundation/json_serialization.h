// ZRBJSONSerialization: JSON text <-> ZRBValue, with the platform's options and error records.
//
// Reading maps JSON onto ZRBValue as follows: objects become dictionaries (keys in document order;
// when a key repeats, the later value wins), arrays become arrays, strings become strings, true and
// false become booleans, null becomes the null object. Integers that fit 64 bits stay exact (Int,
// or UInt above INT64_MAX); any other number becomes a double. A number beyond the double range is
// malformed input. Input is UTF-8 (a leading byte-order mark is skipped); UTF-16 and UTF-32 are
// recognised by their byte-order mark or by the zero bytes of the first characters and converted.
//
// Every failure to read yields an absent value and, when `error` is given, a record in
// ZRBCocoaErrorDomain with code ZRBPropertyListReadCorruptError (3840), a localized description and
// a ZRBDebugDescriptionErrorKey entry telling what was wrong and where ("Invalid value around line 1,
// column 5."). Lines count from 1, columns count the characters before the position on its line.
// Arrays and dictionaries nest at most kMaximumNestingDepth deep; deeper input is refused.
//
// All operations are thread-safe. Reading keeps one parser per thread and reuses its buffers; the
// buffers of a document larger than a few megabytes are released after it has been read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

// Values of this library are immutable, so the two mutable options are accepted for compatibility
// and change nothing: every container and string read is immutable and shared.
enum ZRBJSONReadingOptions : unsigned long {
  ZRBJSONReadingMutableContainers = 1,
  ZRBJSONReadingMutableLeaves = 2,
  // Accept a scalar (number, string, true, false, null) as the whole document.
  ZRBJSONReadingFragmentsAllowed = 4,
};

enum ZRBJSONWritingOptions : unsigned long {
  // Two-space indentation, one item per line, " : " between key and value. Empty containers are
  // written as an opening and a closing bracket with an empty line between them, as the platform does.
  ZRBJSONWritingPrettyPrinted = 1,
  // Dictionary keys in ascending order of their UTF-8 bytes (otherwise in insertion order).
  ZRBJSONWritingSortedKeys = 2,
  // Allow a scalar as the whole document.
  ZRBJSONWritingFragmentsAllowed = 4,
  // Write "/" as is instead of "\/".
  ZRBJSONWritingWithoutEscapingSlashes = 8,
};

constexpr ZRBJSONReadingOptions operator|(ZRBJSONReadingOptions a, ZRBJSONReadingOptions b) {
  return static_cast<ZRBJSONReadingOptions>(static_cast<unsigned long>(a) | static_cast<unsigned long>(b));
}
constexpr ZRBJSONWritingOptions operator|(ZRBJSONWritingOptions a, ZRBJSONWritingOptions b) {
  return static_cast<ZRBJSONWritingOptions>(static_cast<unsigned long>(a) | static_cast<unsigned long>(b));
}

class ZRBJSONSerialization {
 public:
  ZRBJSONSerialization() = delete;

  // Deepest nesting of arrays and dictionaries that is read or written.
  static constexpr std::size_t kMaximumNestingDepth = 512;

  // Whether `object` can be written without the fragments option: the top level is an array or a
  // dictionary, and everything inside is the null object, a boolean, a finite number, a valid UTF-8
  // string, an array or a dictionary, nested at most kMaximumNestingDepth deep. Dates, data, sets,
  // objects, class tags and absent values are not JSON.
  static bool isValidJSONObject(const ZRBValue& object);

  // Writes `object` as UTF-8 JSON. Integers are written exactly, doubles in their shortest
  // round-trip form (2.0 as "2"), control characters as \n, \t, \r, \b, \f or \u00XX, other
  // characters as UTF-8. On failure (an invalid object, or a scalar without the fragments option)
  // returns nullopt and sets `error` to a ZRBCocoaErrorDomain record with code
  // ZRBPropertyListWriteInvalidError (3852).
  static std::optional<std::vector<std::uint8_t>> dataWithJSONObject(const ZRBValue& object,
                                                                     ZRBJSONWritingOptions options = {},
                                                                     ZRBErrorPtr* error = nullptr);
  // The same text as a string.
  static std::optional<std::string> stringWithJSONObject(const ZRBValue& object,
                                                         ZRBJSONWritingOptions options = {},
                                                         ZRBErrorPtr* error = nullptr);

  // Reads one JSON document (surrounded by optional whitespace). Returns absent on failure.
  static ZRBValue JSONObjectWithData(std::span<const std::uint8_t> data, ZRBJSONReadingOptions options = {},
                                     ZRBErrorPtr* error = nullptr);
  static ZRBValue JSONObjectWithData(std::string_view data, ZRBJSONReadingOptions options = {},
                                     ZRBErrorPtr* error = nullptr);
};
