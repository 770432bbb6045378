// Text encodings: the platform's string-encoding codes, their IANA charset names, and conversion
// between bytes in an encoding and the library's UTF-8 strings.
//
// Codes keep the platform's values so that they survive a round trip through settings and
// archives. Conversions are safe from any thread: UTF-8, ASCII, Latin-1, UTF-16 and UTF-32 are
// converted here, everything else through iconv with handles cached per thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

enum ZRBStringEncoding : unsigned long {
  ZRBASCIIStringEncoding = 1,
  ZRBNEXTSTEPStringEncoding = 2,
  ZRBJapaneseEUCStringEncoding = 3,
  ZRBUTF8StringEncoding = 4,
  ZRBISOLatin1StringEncoding = 5,
  ZRBSymbolStringEncoding = 6,
  ZRBNonLossyASCIIStringEncoding = 7,
  // Despite the name, Windows code page 932 (Shift JIS with the vendor extensions); the IANA name
  // "Shift_JIS" gives ZRBJapaneseShiftJISStringEncoding below.
  ZRBShiftJISStringEncoding = 8,
  ZRBISOLatin2StringEncoding = 9,
  ZRBUnicodeStringEncoding = 10,
  ZRBWindowsCP1251StringEncoding = 11,
  ZRBWindowsCP1252StringEncoding = 12,
  ZRBWindowsCP1253StringEncoding = 13,
  ZRBWindowsCP1254StringEncoding = 14,
  ZRBWindowsCP1250StringEncoding = 15,
  ZRBISO2022JPStringEncoding = 21,
  ZRBMacOSRomanStringEncoding = 30,
  ZRBUTF16StringEncoding = ZRBUnicodeStringEncoding,
  ZRBUTF16BigEndianStringEncoding = 0x90000100,
  ZRBUTF16LittleEndianStringEncoding = 0x94000100,
  ZRBUTF32StringEncoding = 0x8c000100,
  ZRBUTF32BigEndianStringEncoding = 0x98000100,
  ZRBUTF32LittleEndianStringEncoding = 0x9c000100,

  // Codes the platform derives from its lower-level encoding numbers (0x80000000 | number) for
  // charsets without a code of their own above.
  ZRBISOLatin3StringEncoding = 0x80000203,              // ISO-8859-3
  ZRBISOLatin4StringEncoding = 0x80000204,              // ISO-8859-4
  ZRBISOLatinCyrillicStringEncoding = 0x80000205,       // ISO-8859-5
  ZRBISOLatinArabicStringEncoding = 0x80000206,         // ISO-8859-6
  ZRBISOLatinGreekStringEncoding = 0x80000207,          // ISO-8859-7
  ZRBISOLatinHebrewStringEncoding = 0x80000208,         // ISO-8859-8
  ZRBISOLatin5StringEncoding = 0x80000209,              // ISO-8859-9
  ZRBISOLatin6StringEncoding = 0x8000020A,              // ISO-8859-10
  ZRBISOLatinThaiStringEncoding = 0x8000020B,           // ISO-8859-11
  ZRBISOLatin7StringEncoding = 0x8000020D,              // ISO-8859-13
  ZRBISOLatin8StringEncoding = 0x8000020E,              // ISO-8859-14
  ZRBISOLatin9StringEncoding = 0x8000020F,              // ISO-8859-15
  ZRBISOLatin10StringEncoding = 0x80000210,             // ISO-8859-16
  ZRBDOSLatinUSStringEncoding = 0x80000400,             // code page 437
  ZRBDOSRussianStringEncoding = 0x8000041B,             // code page 866
  ZRBDOSThaiStringEncoding = 0x8000041D,                // windows-874
  ZRBDOSChineseSimplifiedStringEncoding = 0x80000421,   // GBK, code page 936
  ZRBDOSKoreanStringEncoding = 0x80000422,              // code page 949
  ZRBDOSChineseTraditionalStringEncoding = 0x80000423,  // code page 950
  ZRBWindowsHebrewStringEncoding = 0x80000505,          // windows-1255
  ZRBWindowsArabicStringEncoding = 0x80000506,          // windows-1256
  ZRBWindowsBalticRimStringEncoding = 0x80000507,       // windows-1257
  ZRBWindowsVietnameseStringEncoding = 0x80000508,      // windows-1258
  ZRBGB18030StringEncoding = 0x80000632,
  ZRBISO2022CNStringEncoding = 0x80000830,
  ZRBISO2022KRStringEncoding = 0x80000840,
  ZRBEUCCNStringEncoding = 0x80000930,  // what the name "GB2312" denotes
  ZRBEUCTWStringEncoding = 0x80000931,
  ZRBEUCKRStringEncoding = 0x80000940,
  ZRBJapaneseShiftJISStringEncoding = 0x80000A01,
  ZRBKOI8RStringEncoding = 0x80000A02,
  ZRBBig5StringEncoding = 0x80000A03,
  ZRBBig5HKSCSStringEncoding = 0x80000A06,
  ZRBKOI8UStringEncoding = 0x80000A08,
  ZRBUTF7StringEncoding = 0x84000100,
};

// The encoding an IANA charset name (as found in a Content-Type header) stands for. Names and
// their common aliases match case-insensitively, surrounding whitespace ignored; an unknown name
// gives 0, no encoding.
ZRBStringEncoding ZRBStringEncodingFromIANACharsetName(std::string_view name);

// The lower-case IANA name of an encoding ("utf-8", "iso-8859-1"); nullopt for codes without one.
std::optional<std::string> ZRBIANACharsetNameFromStringEncoding(ZRBStringEncoding encoding);

// The English display name ("Unicode (UTF-8)", "Western (ISO Latin 1)"); empty for unknown codes.
std::string ZRBLocalizedNameOfStringEncoding(ZRBStringEncoding encoding);

// Whether this system can convert text in the encoding (both directions).
bool ZRBStringEncodingIsSupported(ZRBStringEncoding encoding);

// The text of bytes in an encoding, as UTF-8; nullopt when the bytes are not valid in it or the
// encoding is unknown or unsupported. UTF-8 input may start with a byte-order mark, which is dropped.
// UTF-16 and UTF-32 without explicit byte order read a leading byte-order mark (and drop it) and
// default to big-endian; unpaired surrogates are refused.
std::optional<std::string> ZRBStringFromBytes(std::span<const std::uint8_t> bytes,
                                              ZRBStringEncoding encoding);
std::optional<std::string> ZRBStringFromBytes(std::string_view bytes, ZRBStringEncoding encoding);

// The bytes of UTF-8 text in an encoding; nullopt when the text is not valid UTF-8, the encoding is
// unsupported, or a character cannot be represented and allowLossyConversion is off (on, such a
// character becomes '?'). UTF-16 and UTF-32 without explicit byte order are written in host order
// after a byte-order mark, as the platform does.
std::optional<std::vector<std::uint8_t>> ZRBBytesFromString(std::string_view utf8, ZRBStringEncoding encoding,
                                                            bool allowLossyConversion = false);

// Whether the bytes are well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool ZRBIsValidUTF8(std::string_view bytes);
