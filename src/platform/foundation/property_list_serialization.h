// ZRBPropertyListSerialization: reading and writing property lists (XML and binary) as ZRBValue.
//
// Property-list values are booleans, integers, doubles, strings, data, dates, arrays and
// dictionaries with string keys. The null object, absent, sets, objects and class tags are not
// property-list values: writing them fails with ZRBPropertyListWriteInvalidError (3852).
//
// Reading never trusts its input. Before any bytes reach the underlying parser they are checked
// for nesting depth (at most kMaximumNestingDepth containers deep), and binary input is walked in
// full first: trailer, offset table, every object reference (in range, no cycles, dictionary keys
// are strings) and the total number of nodes the parse would build. Anything malformed, truncated
// or too deep gives a ZRBPropertyListReadCorruptError (3840) record.
//
// Fidelity, as far as the underlying library allows:
// - integers: signed 64-bit values and unsigned values up to UINT64_MAX are kept exact in both
//   formats; a value above INT64_MAX reads back as an unsigned integer, anything else as signed.
// - doubles: exact in both formats (XML uses 17 significant digits).
// - dates: seconds since 2001-01-01 must fit a 32-bit signed count (about 1933 to 2069); other
//   dates fail to write. Binary keeps microseconds, XML whole seconds. A date inside the last
//   second before 2001-01-01 reads back mirrored to the first second after it.
// - strings must be valid UTF-8 without NUL characters, and so must dictionary keys.
// - a binary UID (used by other archivers) reads as the dictionary { "CF$UID": n }.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

enum ZRBPropertyListFormat : unsigned long {
  // The old text format: recognised on reading and refused; never written.
  ZRBPropertyListOpenStepFormat = 1,
  ZRBPropertyListXMLFormat_v1_0 = 100,
  ZRBPropertyListBinaryFormat_v1_0 = 200,
};

// Accepted for compatibility. Values read here are always immutable ZRBValues; take a builder copy
// to change them, whichever option was given.
enum ZRBPropertyListMutabilityOptions : unsigned long {
  ZRBPropertyListImmutable = 0,
  ZRBPropertyListMutableContainers = 1,
  ZRBPropertyListMutableContainersAndLeaves = 2,
};
using ZRBPropertyListReadOptions = ZRBPropertyListMutabilityOptions;
// No write options exist; pass 0.
using ZRBPropertyListWriteOptions = unsigned long;

class ZRBPropertyListSerialization {
 public:
  // Containers nested deeper than this are refused on reading and on writing.
  static constexpr int kMaximumNestingDepth = 512;

  // Parses XML or binary property-list bytes, telling them apart by content; `format` (optional)
  // receives the format found. Returns absent and sets `error` (3840) on failure.
  static ZRBValue propertyListWithData(std::span<const std::uint8_t> data,
                                       ZRBPropertyListReadOptions options = ZRBPropertyListImmutable,
                                       ZRBPropertyListFormat* format = nullptr, ZRBErrorPtr* error = nullptr);

  // Serializes `plist` in the format (XML or binary). Returns nullopt and sets `error` (3852) when
  // the value holds something that is not a property-list value, when the format cannot be
  // written (OpenStep), or when the value is nested too deep.
  static std::optional<std::vector<std::uint8_t>> dataWithPropertyList(
      const ZRBValue& plist, ZRBPropertyListFormat format, ZRBPropertyListWriteOptions options = 0,
      ZRBErrorPtr* error = nullptr);

  // Whether dataWithPropertyList would accept the value for the format. For OpenStep this answers
  // for the kinds that format can express (strings, data, arrays, dictionaries), although this
  // library does not write it.
  static bool propertyList(const ZRBValue& plist, ZRBPropertyListFormat isValidForFormat);
};
