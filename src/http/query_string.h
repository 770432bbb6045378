// Percent escaping and query strings: the one place where the library decides how parameters are
// written into a URL query or a form body.
//
// Parameters are a ZRBValue tree. Dictionaries become "key[nested]" names, arrays "key[]" names
// repeated once per element, sets repeat the plain key once per element; everything else is a
// leaf written by its description. Dictionary keys and set elements are emitted in ascending order
// of their descriptions, compared literally and case-sensitively in UTF-16 code-unit order (so "B"
// comes before "a"); array elements keep their order. A leaf that is absent or the null object is
// written as its escaped name alone, without "=".
//
// Parameters that are an array at the top level have no key: the missing key prints as "(null)",
// so the names come out as "(null)[]". Servers we talk to rely on this, so it stays.
//
// All functions are pure and safe from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/value.h"

// One (field, value) pair of a query. The field is usually a string; both are written by their
// descriptions. A value that is absent or the null object makes a pair without "=".
//
// A plain value type rather than a shared object: queries are built in bulk and pairs never
// outlive the call that made them.
class ZRBHS_QueryStringPair {
 public:
  ZRBHS_QueryStringPair(ZRBValue field, ZRBValue value)
      : field_(std::move(field)), value_(std::move(value)) {}

  const ZRBValue& field() const { return field_; }
  const ZRBValue& value() const { return value_; }

  // "field=value" with both sides percent-escaped, or the escaped field alone when the value is
  // absent or the null object.
  std::string URLEncodedStringValue() const;
  // The same text appended to `out`.
  void appendURLEncodedStringValue(std::string& out) const;

 private:
  ZRBValue field_;
  ZRBValue value_;
};

// Escapes every UTF-8 byte except ASCII letters, digits and "-._~/?" as "%XX" (upper-case hex).
// That is the URL query's allowed set without the delimiters ":#[]@!$&'()*+,;=", which would
// otherwise change the meaning of a query.
//
// The text is processed in batches of at most 50 UTF-16 code units. A batch is widened so that it
// never ends inside a code point (for a character outside the BMP: between its two surrogates)
// nor between a base character and the combining marks that follow it (U+0300-U+036F,
// U+1AB0-U+1AFF, U+1DC0-U+1DFF, U+20D0-U+20FF, U+FE20-U+FE2F). Escaping is byte-wise, so batching
// does not change the result; it keeps the work piecewise on long input and is what
// ZRBHS_PercentEscapingBatchLength() reports. Bytes that are not valid UTF-8 count as one code unit
// each and are escaped like any other byte. The result is built in one allocation.
std::string ZRBHS_PercentEscapedStringFromString(std::string_view string);
// The same escaping appended to `out`.
void ZRBHS_AppendPercentEscapedString(std::string& out, std::string_view string);
// The length in bytes of the batch that starts at the beginning of `rest` (0 for empty input).
std::size_t ZRBHS_PercentEscapingBatchLength(std::string_view rest);

// The query of `parameters`: the URL-encoded pairs of ZRBHS_QueryStringPairsFromDictionary joined
// with "&". Example: {b: [1, 2], a: {y: "1 2", x: null}} gives
// "a%5Bx%5D&a%5By%5D=1%202&b%5B%5D=1&b%5B%5D=2".
std::string ZRBHS_QueryStringFromParameters(const ZRBValue& parameters);

// ZRBHS_QueryStringPairsFromKeyAndValue with an absent key.
std::vector<ZRBHS_QueryStringPair> ZRBHS_QueryStringPairsFromDictionary(const ZRBValue& dictionary);

// The pairs of `value` under `key` (absent for none), following the naming rules above.
std::vector<ZRBHS_QueryStringPair> ZRBHS_QueryStringPairsFromKeyAndValue(const ZRBValue& key,
                                                                         const ZRBValue& value);
