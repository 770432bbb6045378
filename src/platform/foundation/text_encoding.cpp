#include "platform/foundation/text_encoding.h"

#include <iconv.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

namespace {

enum class Codec : std::uint8_t {
  ASCII,
  UTF8,
  Latin1,
  UTF16,  // byte order from a byte-order mark, else big-endian
  UTF16BE,
  UTF16LE,
  UTF32,
  UTF32BE,
  UTF32LE,
  NonLossyASCII,
  Iconv,
  None,  // known code, no converter on this system
};

struct EncodingInfo {
  ZRBStringEncoding code;
  Codec codec;
  const char* ianaName;  // lower case; null when the platform has none
  const char* iconvName;
  const char* displayName;
};

constexpr EncodingInfo kEncodings[] = {
    {ZRBASCIIStringEncoding, Codec::ASCII, "us-ascii", nullptr, "Western (ASCII)"},
    {ZRBNEXTSTEPStringEncoding, Codec::None, "x-nextstep", nullptr, "Western (NextStep)"},
    {ZRBJapaneseEUCStringEncoding, Codec::Iconv, "euc-jp", "EUC-JP", "Japanese (EUC)"},
    {ZRBUTF8StringEncoding, Codec::UTF8, "utf-8", nullptr, "Unicode (UTF-8)"},
    {ZRBISOLatin1StringEncoding, Codec::Latin1, "iso-8859-1", nullptr, "Western (ISO Latin 1)"},
    {ZRBSymbolStringEncoding, Codec::None, "x-mac-symbol", nullptr, "Symbol (Mac OS)"},
    {ZRBNonLossyASCIIStringEncoding, Codec::NonLossyASCII, nullptr, nullptr, "Non-lossy ASCII"},
    {ZRBShiftJISStringEncoding, Codec::Iconv, "cp932", "CP932", "Japanese (Windows, DOS)"},
    {ZRBISOLatin2StringEncoding, Codec::Iconv, "iso-8859-2", "ISO-8859-2", "Central European (ISO Latin 2)"},
    {ZRBUnicodeStringEncoding, Codec::UTF16, "utf-16", nullptr, "Unicode (UTF-16)"},
    {ZRBWindowsCP1251StringEncoding, Codec::Iconv, "windows-1251", "CP1251", "Cyrillic (Windows)"},
    {ZRBWindowsCP1252StringEncoding, Codec::Iconv, "windows-1252", "CP1252", "Western (Windows Latin 1)"},
    {ZRBWindowsCP1253StringEncoding, Codec::Iconv, "windows-1253", "CP1253", "Greek (Windows)"},
    {ZRBWindowsCP1254StringEncoding, Codec::Iconv, "windows-1254", "CP1254", "Turkish (Windows Latin 5)"},
    {ZRBWindowsCP1250StringEncoding, Codec::Iconv, "windows-1250", "CP1250",
     "Central European (Windows Latin 2)"},
    {ZRBISO2022JPStringEncoding, Codec::Iconv, "iso-2022-jp", "ISO-2022-JP", "Japanese (ISO 2022-JP)"},
    {ZRBMacOSRomanStringEncoding, Codec::Iconv, "macintosh", "MACINTOSH", "Western (Mac OS Roman)"},
    {ZRBUTF16BigEndianStringEncoding, Codec::UTF16BE, "utf-16be", nullptr, "Unicode (UTF-16BE)"},
    {ZRBUTF16LittleEndianStringEncoding, Codec::UTF16LE, "utf-16le", nullptr, "Unicode (UTF-16LE)"},
    {ZRBUTF32StringEncoding, Codec::UTF32, "utf-32", nullptr, "Unicode (UTF-32)"},
    {ZRBUTF32BigEndianStringEncoding, Codec::UTF32BE, "utf-32be", nullptr, "Unicode (UTF-32BE)"},
    {ZRBUTF32LittleEndianStringEncoding, Codec::UTF32LE, "utf-32le", nullptr, "Unicode (UTF-32LE)"},
    {ZRBISOLatin3StringEncoding, Codec::Iconv, "iso-8859-3", "ISO-8859-3", "Western (ISO Latin 3)"},
    {ZRBISOLatin4StringEncoding, Codec::Iconv, "iso-8859-4", "ISO-8859-4", "Central European (ISO Latin 4)"},
    {ZRBISOLatinCyrillicStringEncoding, Codec::Iconv, "iso-8859-5", "ISO-8859-5", "Cyrillic (ISO 8859-5)"},
    {ZRBISOLatinArabicStringEncoding, Codec::Iconv, "iso-8859-6", "ISO-8859-6", "Arabic (ISO 8859-6)"},
    {ZRBISOLatinGreekStringEncoding, Codec::Iconv, "iso-8859-7", "ISO-8859-7", "Greek (ISO 8859-7)"},
    {ZRBISOLatinHebrewStringEncoding, Codec::Iconv, "iso-8859-8", "ISO-8859-8", "Hebrew (ISO 8859-8)"},
    {ZRBISOLatin5StringEncoding, Codec::Iconv, "iso-8859-9", "ISO-8859-9", "Turkish (ISO Latin 5)"},
    {ZRBISOLatin6StringEncoding, Codec::Iconv, "iso-8859-10", "ISO-8859-10", "Nordic (ISO Latin 6)"},
    {ZRBISOLatinThaiStringEncoding, Codec::Iconv, "iso-8859-11", "ISO-8859-11", "Thai (ISO 8859-11)"},
    {ZRBISOLatin7StringEncoding, Codec::Iconv, "iso-8859-13", "ISO-8859-13", "Baltic (ISO Latin 7)"},
    {ZRBISOLatin8StringEncoding, Codec::Iconv, "iso-8859-14", "ISO-8859-14", "Celtic (ISO Latin 8)"},
    {ZRBISOLatin9StringEncoding, Codec::Iconv, "iso-8859-15", "ISO-8859-15", "Western (ISO Latin 9)"},
    {ZRBISOLatin10StringEncoding, Codec::Iconv, "iso-8859-16", "ISO-8859-16", "Romanian (ISO Latin 10)"},
    {ZRBDOSLatinUSStringEncoding, Codec::Iconv, "cp437", "CP437", "Latin-US (DOS)"},
    {ZRBDOSRussianStringEncoding, Codec::Iconv, "cp866", "CP866", "Russian (DOS)"},
    {ZRBDOSThaiStringEncoding, Codec::Iconv, "windows-874", "CP874", "Thai (Windows, DOS)"},
    {ZRBDOSChineseSimplifiedStringEncoding, Codec::Iconv, "gbk", "CP936", "Simplified Chinese (GBK)"},
    {ZRBDOSKoreanStringEncoding, Codec::Iconv, "cp949", "CP949", "Korean (Windows, DOS)"},
    {ZRBDOSChineseTraditionalStringEncoding, Codec::Iconv, "cp950", "CP950",
     "Traditional Chinese (Windows, DOS)"},
    {ZRBWindowsHebrewStringEncoding, Codec::Iconv, "windows-1255", "CP1255", "Hebrew (Windows)"},
    {ZRBWindowsArabicStringEncoding, Codec::Iconv, "windows-1256", "CP1256", "Arabic (Windows)"},
    {ZRBWindowsBalticRimStringEncoding, Codec::Iconv, "windows-1257", "CP1257", "Baltic (Windows)"},
    {ZRBWindowsVietnameseStringEncoding, Codec::Iconv, "windows-1258", "CP1258", "Vietnamese (Windows)"},
    {ZRBGB18030StringEncoding, Codec::Iconv, "gb18030", "GB18030", "Chinese (GB 18030)"},
    {ZRBISO2022CNStringEncoding, Codec::Iconv, "iso-2022-cn", "ISO-2022-CN", "Chinese (ISO 2022-CN)"},
    {ZRBISO2022KRStringEncoding, Codec::Iconv, "iso-2022-kr", "ISO-2022-KR", "Korean (ISO 2022-KR)"},
    {ZRBEUCCNStringEncoding, Codec::Iconv, "gb2312", "EUC-CN", "Simplified Chinese (GB 2312)"},
    {ZRBEUCTWStringEncoding, Codec::Iconv, "euc-tw", "EUC-TW", "Traditional Chinese (EUC)"},
    {ZRBEUCKRStringEncoding, Codec::Iconv, "euc-kr", "EUC-KR", "Korean (EUC)"},
    {ZRBJapaneseShiftJISStringEncoding, Codec::Iconv, "shift_jis", "SHIFT_JIS", "Japanese (Shift JIS)"},
    {ZRBKOI8RStringEncoding, Codec::Iconv, "koi8-r", "KOI8-R", "Cyrillic (KOI8-R)"},
    {ZRBBig5StringEncoding, Codec::Iconv, "big5", "BIG5", "Traditional Chinese (Big 5)"},
    {ZRBBig5HKSCSStringEncoding, Codec::Iconv, "big5-hkscs", "BIG5-HKSCS",
     "Traditional Chinese (Big 5 HKSCS)"},
    {ZRBKOI8UStringEncoding, Codec::Iconv, "koi8-u", "KOI8-U", "Ukrainian (KOI8-U)"},
    {ZRBUTF7StringEncoding, Codec::Iconv, "utf-7", "UTF-7", "Unicode (UTF-7)"},
};

// Other names in use for the encodings above (each encoding's own IANA name matches too).
struct Alias {
  std::string_view name;  // lower case
  ZRBStringEncoding code;
};

constexpr Alias kAliases[] = {
    {"ascii", ZRBASCIIStringEncoding},
    {"us", ZRBASCIIStringEncoding},
    {"ansi_x3.4-1968", ZRBASCIIStringEncoding},
    {"iso646-us", ZRBASCIIStringEncoding},
    {"csascii", ZRBASCIIStringEncoding},
    {"utf8", ZRBUTF8StringEncoding},
    {"unicode-1-1-utf-8", ZRBUTF8StringEncoding},
    {"x-unicode20utf8", ZRBUTF8StringEncoding},
    {"iso8859-1", ZRBISOLatin1StringEncoding},
    {"iso_8859-1", ZRBISOLatin1StringEncoding},
    {"iso_8859-1:1987", ZRBISOLatin1StringEncoding},
    {"latin1", ZRBISOLatin1StringEncoding},
    {"l1", ZRBISOLatin1StringEncoding},
    {"iso-ir-100", ZRBISOLatin1StringEncoding},
    {"ibm819", ZRBISOLatin1StringEncoding},
    {"cp819", ZRBISOLatin1StringEncoding},
    {"csisolatin1", ZRBISOLatin1StringEncoding},
    {"iso8859-2", ZRBISOLatin2StringEncoding},
    {"iso_8859-2", ZRBISOLatin2StringEncoding},
    {"latin2", ZRBISOLatin2StringEncoding},
    {"l2", ZRBISOLatin2StringEncoding},
    {"csisolatin2", ZRBISOLatin2StringEncoding},
    {"iso_8859-3", ZRBISOLatin3StringEncoding},
    {"latin3", ZRBISOLatin3StringEncoding},
    {"iso_8859-4", ZRBISOLatin4StringEncoding},
    {"latin4", ZRBISOLatin4StringEncoding},
    {"iso_8859-5", ZRBISOLatinCyrillicStringEncoding},
    {"cyrillic", ZRBISOLatinCyrillicStringEncoding},
    {"iso_8859-6", ZRBISOLatinArabicStringEncoding},
    {"arabic", ZRBISOLatinArabicStringEncoding},
    {"iso_8859-7", ZRBISOLatinGreekStringEncoding},
    {"greek", ZRBISOLatinGreekStringEncoding},
    {"iso_8859-8", ZRBISOLatinHebrewStringEncoding},
    {"hebrew", ZRBISOLatinHebrewStringEncoding},
    {"iso_8859-9", ZRBISOLatin5StringEncoding},
    {"latin5", ZRBISOLatin5StringEncoding},
    {"latin6", ZRBISOLatin6StringEncoding},
    {"latin7", ZRBISOLatin7StringEncoding},
    {"latin8", ZRBISOLatin8StringEncoding},
    {"iso_8859-15", ZRBISOLatin9StringEncoding},
    {"latin9", ZRBISOLatin9StringEncoding},
    {"l9", ZRBISOLatin9StringEncoding},
    {"latin10", ZRBISOLatin10StringEncoding},
    {"windows-31j", ZRBShiftJISStringEncoding},
    {"ms932", ZRBShiftJISStringEncoding},
    {"shift-jis", ZRBJapaneseShiftJISStringEncoding},
    {"sjis", ZRBJapaneseShiftJISStringEncoding},
    {"x-sjis", ZRBJapaneseShiftJISStringEncoding},
    {"ms_kanji", ZRBJapaneseShiftJISStringEncoding},
    {"csshiftjis", ZRBJapaneseShiftJISStringEncoding},
    {"eucjp", ZRBJapaneseEUCStringEncoding},
    {"x-euc-jp", ZRBJapaneseEUCStringEncoding},
    {"cseucpkdfmtjapanese", ZRBJapaneseEUCStringEncoding},
    {"csiso2022jp", ZRBISO2022JPStringEncoding},
    {"mac", ZRBMacOSRomanStringEncoding},
    {"macroman", ZRBMacOSRomanStringEncoding},
    {"x-mac-roman", ZRBMacOSRomanStringEncoding},
    {"csmacintosh", ZRBMacOSRomanStringEncoding},
    {"cp1250", ZRBWindowsCP1250StringEncoding},
    {"x-cp1250", ZRBWindowsCP1250StringEncoding},
    {"cp1251", ZRBWindowsCP1251StringEncoding},
    {"x-cp1251", ZRBWindowsCP1251StringEncoding},
    {"cp1252", ZRBWindowsCP1252StringEncoding},
    {"x-cp1252", ZRBWindowsCP1252StringEncoding},
    {"cp1253", ZRBWindowsCP1253StringEncoding},
    {"cp1254", ZRBWindowsCP1254StringEncoding},
    {"cp1255", ZRBWindowsHebrewStringEncoding},
    {"cp1256", ZRBWindowsArabicStringEncoding},
    {"cp1257", ZRBWindowsBalticRimStringEncoding},
    {"cp1258", ZRBWindowsVietnameseStringEncoding},
    {"cp874", ZRBDOSThaiStringEncoding},
    {"ibm437", ZRBDOSLatinUSStringEncoding},
    {"ibm866", ZRBDOSRussianStringEncoding},
    {"cp936", ZRBDOSChineseSimplifiedStringEncoding},
    {"ms936", ZRBDOSChineseSimplifiedStringEncoding},
    {"windows-936", ZRBDOSChineseSimplifiedStringEncoding},
    {"x-gbk", ZRBDOSChineseSimplifiedStringEncoding},
    {"euc-cn", ZRBEUCCNStringEncoding},
    {"x-euc-cn", ZRBEUCCNStringEncoding},
    {"csgb2312", ZRBEUCCNStringEncoding},
    {"csbig5", ZRBBig5StringEncoding},
    {"cn-big5", ZRBBig5StringEncoding},
    {"x-x-big5", ZRBBig5StringEncoding},
    {"cseuckr", ZRBEUCKRStringEncoding},
    {"cskoi8r", ZRBKOI8RStringEncoding},
    {"utf16", ZRBUTF16StringEncoding},
    {"utf32", ZRBUTF32StringEncoding},
};

const EncodingInfo* infoFor(ZRBStringEncoding encoding) {
  for (const auto& info : kEncodings) {
    if (info.code == encoding) return &info;
  }
  return nullptr;
}

// ---- UTF-8 ----

// Length of the well-formed sequence at p (1-4), or 0 when it is not one.
std::size_t utf8SequenceLength(const unsigned char* p, std::size_t available) {
  unsigned char lead = p[0];
  if (lead < 0x80) return 1;
  std::size_t length;
  unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // overlong
    if (lead == 0xED) high = 0x9F;  // surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // overlong
    if (lead == 0xF4) high = 0x8F;  // past U+10FFFF
  } else {
    return 0;
  }
  if (available < length || p[1] < low || p[1] > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
  }
  return length;
}

// Decodes the sequence at p, which must be well-formed; advances p.
char32_t nextCodePoint(const unsigned char*& p) {
  unsigned char lead = *p++;
  if (lead < 0x80) return lead;
  int trail = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
  char32_t cp = lead & (0x3F >> trail);
  while (trail--) cp = (cp << 6) | (*p++ & 0x3F);
  return cp;
}

void appendUTF8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

bool isSurrogate(char32_t cp) { return cp >= 0xD800 && cp <= 0xDFFF; }

// Calls visit(code point) for each character of valid UTF-8 text.
template <typename Visit>
void forEachCodePoint(std::string_view utf8, Visit visit) {
  auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  auto* end = p + utf8.size();
  while (p < end) visit(nextCodePoint(p));
}

std::string_view asChars(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// ---- UTF-16 and UTF-32 ----

std::uint32_t readUnit(const std::uint8_t* p, int width, bool bigEndian) {
  std::uint32_t v = 0;
  for (int i = 0; i < width; ++i)
    v |= std::uint32_t{p[bigEndian ? i : width - 1 - i]} << (8 * (width - 1 - i));
  return v;
}

void writeUnit(std::vector<std::uint8_t>& out, std::uint32_t v, int width, bool bigEndian) {
  for (int i = 0; i < width; ++i) {
    int shift = bigEndian ? 8 * (width - 1 - i) : 8 * i;
    out.push_back(static_cast<std::uint8_t>(v >> shift));
  }
}

std::optional<std::string> decodeWide(std::span<const std::uint8_t> bytes, int width,
                                      std::optional<bool> bigEndian) {
  std::size_t start = 0;
  if (!bigEndian) {
    // No explicit order: a byte-order mark decides and is dropped, big-endian otherwise.
    bigEndian = true;
    if (bytes.size() >= static_cast<std::size_t>(width)) {
      if (readUnit(bytes.data(), width, true) == 0xFEFF) {
        start = static_cast<std::size_t>(width);
      } else if (readUnit(bytes.data(), width, false) == 0xFEFF) {
        bigEndian = false;
        start = static_cast<std::size_t>(width);
      }
    }
  }
  if ((bytes.size() - start) % static_cast<std::size_t>(width)) return std::nullopt;

  std::string out;
  out.reserve(bytes.size() - start);
  for (std::size_t i = start; i < bytes.size(); i += static_cast<std::size_t>(width)) {
    char32_t cp = readUnit(bytes.data() + i, width, *bigEndian);
    if (width == 2 && cp >= 0xD800 && cp <= 0xDBFF) {
      i += 2;
      if (i >= bytes.size()) return std::nullopt;
      char32_t low = readUnit(bytes.data() + i, 2, *bigEndian);
      if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
      cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
    } else if (isSurrogate(cp) || cp > 0x10FFFF) {
      return std::nullopt;
    }
    appendUTF8(out, cp);
  }
  return out;
}

std::vector<std::uint8_t> encodeWide(std::string_view utf8, int width, std::optional<bool> bigEndian) {
  std::vector<std::uint8_t> out;
  out.reserve(utf8.size() * static_cast<std::size_t>(width) + 4);
  if (!bigEndian) {
    bigEndian = std::endian::native == std::endian::big;
    writeUnit(out, 0xFEFF, width, *bigEndian);
  }
  forEachCodePoint(utf8, [&](char32_t cp) {
    if (width == 2 && cp >= 0x10000) {
      writeUnit(out, 0xD800 + ((cp - 0x10000) >> 10), 2, *bigEndian);
      writeUnit(out, 0xDC00 + ((cp - 0x10000) & 0x3FF), 2, *bigEndian);
    } else {
      writeUnit(out, cp, width, *bigEndian);
    }
  });
  return out;
}

// ---- non-lossy ASCII: ASCII with backslash escapes, \ooo (octal) up to U+00FF, \uXXXX above ----

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<std::string> decodeNonLossy(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  auto readU = [&](std::size_t at) -> int {  // the unit of "\uXXXX" at `at`, or -1
    if (at + 6 > text.size() || text[at] != '\\' || text[at + 1] != 'u') return -1;
    int v = 0;
    for (std::size_t k = at + 2; k < at + 6; ++k) {
      int h = hexValue(text[k]);
      if (h < 0) return -1;
      v = v << 4 | h;
    }
    return v;
  };
  for (std::size_t i = 0; i < text.size();) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) return std::nullopt;
    if (c != '\\') {
      out.push_back(static_cast<char>(c));
      ++i;
    } else if (i + 1 < text.size() && text[i + 1] == '\\') {
      out.push_back('\\');
      i += 2;
    } else if (int unit = readU(i); unit >= 0) {
      char32_t cp = static_cast<char32_t>(unit);
      i += 6;
      if (cp >= 0xD800 && cp <= 0xDBFF) {
        int low = readU(i);
        if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
        cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<char32_t>(low) - 0xDC00);
        i += 6;
      } else if (isSurrogate(cp)) {
        return std::nullopt;
      }
      appendUTF8(out, cp);
    } else if (i + 3 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '3' && text[i + 2] >= '0' &&
               text[i + 2] <= '7' && text[i + 3] >= '0' && text[i + 3] <= '7') {
      appendUTF8(out, static_cast<char32_t>((text[i + 1] - '0') << 6 | (text[i + 2] - '0') << 3 |
                                            (text[i + 3] - '0')));
      i += 4;
    } else {
      out.push_back('\\');  // not an escape: the backslash stands for itself
      ++i;
    }
  }
  return out;
}

std::vector<std::uint8_t> encodeNonLossy(std::string_view utf8) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::vector<std::uint8_t> out;
  out.reserve(utf8.size());
  auto putUnit = [&](char32_t unit) {
    for (char c : {'\\', 'u', kHex[(unit >> 12) & 0xF], kHex[(unit >> 8) & 0xF], kHex[(unit >> 4) & 0xF],
                   kHex[unit & 0xF]})
      out.push_back(static_cast<std::uint8_t>(c));
  };
  forEachCodePoint(utf8, [&](char32_t cp) {
    if (cp == '\\') {
      out.insert(out.end(), {'\\', '\\'});
    } else if (cp < 0x80) {
      out.push_back(static_cast<std::uint8_t>(cp));
    } else if (cp < 0x100) {
      out.insert(out.end(), {'\\', static_cast<std::uint8_t>('0' + (cp >> 6)),
                             static_cast<std::uint8_t>('0' + ((cp >> 3) & 7)),
                             static_cast<std::uint8_t>('0' + (cp & 7))});
    } else if (cp < 0x10000) {
      putUnit(cp);
    } else {
      putUnit(0xD800 + ((cp - 0x10000) >> 10));
      putUnit(0xDC00 + ((cp - 0x10000) & 0x3FF));
    }
  });
  return out;
}

// ---- iconv ----

// iconv descriptors carry conversion state, so each thread keeps its own few, opened on first use
// and closed when the thread ends.
class IconvCache {
 public:
  ~IconvCache() {
    for (auto& entry : entries_) iconv_close(entry.cd);
  }

  // A descriptor in its initial state, or null when iconv cannot convert this pair.
  iconv_t get(const EncodingInfo& info, bool toUTF8) {
    for (auto& entry : entries_) {
      if (entry.code == info.code && entry.toUTF8 == toUTF8) {
        iconv(entry.cd, nullptr, nullptr, nullptr, nullptr);
        return entry.cd;
      }
    }
    iconv_t cd = toUTF8 ? iconv_open("UTF-8", info.iconvName) : iconv_open(info.iconvName, "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1)) return nullptr;
    if (entries_.size() == kCapacity) {
      iconv_close(entries_.front().cd);
      entries_.erase(entries_.begin());
    }
    entries_.push_back({info.code, toUTF8, cd});
    return cd;
  }

 private:
  static constexpr std::size_t kCapacity = 8;
  struct Entry {
    ZRBStringEncoding code;
    bool toUTF8;
    iconv_t cd;
  };
  std::vector<Entry> entries_;
};

iconv_t threadIconv(const EncodingInfo& info, bool toUTF8) {
  thread_local IconvCache cache;
  return cache.get(info, toUTF8);
}

// Runs one iconv step into `out` starting at `used`, growing `out` as needed. Returns false on an
// unconvertible or incomplete input sequence (errno tells which); a null `in` flushes the shift state.
template <typename Buffer>
bool iconvStep(iconv_t cd, const char** in, std::size_t* inLeft, Buffer& out, std::size_t& used,
               bool& irreversible) {
  for (;;) {
    if (out.size() - used < 16) out.resize(std::max<std::size_t>(out.size() * 2, 64));
    char* outPtr = reinterpret_cast<char*>(out.data()) + used;
    std::size_t outLeft = out.size() - used;
    std::size_t rc = iconv(cd, const_cast<char**>(in), inLeft, &outPtr, &outLeft);
    used = out.size() - outLeft;
    if (rc == static_cast<std::size_t>(-1)) {
      if (errno == E2BIG) continue;
      return false;
    }
    if (rc > 0) irreversible = true;
    return true;
  }
}

std::optional<std::string> decodeIconv(const EncodingInfo& info, std::span<const std::uint8_t> bytes) {
  iconv_t cd = threadIconv(info, true);
  if (!cd) return std::nullopt;
  std::string out;
  out.resize(bytes.size() + bytes.size() / 2 + 16);
  std::size_t used = 0;
  bool irreversible = false;
  const char* in = reinterpret_cast<const char*>(bytes.data());
  std::size_t inLeft = bytes.size();
  if (!iconvStep(cd, &in, &inLeft, out, used, irreversible)) return std::nullopt;
  out.resize(used);
  return out;
}

std::optional<std::vector<std::uint8_t>> encodeIconv(const EncodingInfo& info, std::string_view utf8,
                                                     bool lossy) {
  iconv_t cd = threadIconv(info, false);
  if (!cd) return std::nullopt;
  std::vector<std::uint8_t> out(utf8.size() + 16);
  std::size_t used = 0;
  bool irreversible = false;
  const char* in = utf8.data();
  std::size_t inLeft = utf8.size();
  while (!iconvStep(cd, &in, &inLeft, out, used, irreversible)) {
    if (!lossy || errno != EILSEQ) return std::nullopt;
    // Replace the character iconv stopped at; "?" goes through iconv so that stateful encodings
    // switch back to ASCII first.
    std::size_t skip = utf8SequenceLength(reinterpret_cast<const unsigned char*>(in), inLeft);
    in += skip ? skip : 1;
    inLeft -= skip ? skip : 1;
    const char* question = "?";
    std::size_t questionLeft = 1;
    if (!iconvStep(cd, &question, &questionLeft, out, used, irreversible)) return std::nullopt;
  }
  if (!iconvStep(cd, nullptr, nullptr, out, used, irreversible)) return std::nullopt;
  if (irreversible && !lossy) return std::nullopt;
  out.resize(used);
  return out;
}

// ---- single-byte fast paths ----

std::optional<std::vector<std::uint8_t>> encodeSingleByte(std::string_view utf8, char32_t limit, bool lossy) {
  std::vector<std::uint8_t> out;
  out.reserve(utf8.size());
  bool ok = true;
  forEachCodePoint(utf8, [&](char32_t cp) {
    if (cp < limit) {
      out.push_back(static_cast<std::uint8_t>(cp));
    } else if (lossy) {
      out.push_back('?');
    } else {
      ok = false;
    }
  });
  if (!ok) return std::nullopt;
  return out;
}

}  // namespace

bool ZRBIsValidUTF8(std::string_view bytes) {
  auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t left = bytes.size();
  while (left) {
    // Skip ASCII eight bytes at a time: most text on the wire is mostly ASCII.
    while (left >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      if (word & 0x8080808080808080ULL) break;
      p += 8;
      left -= 8;
    }
    if (!left) break;
    std::size_t length = utf8SequenceLength(p, left);
    if (!length) return false;
    p += length;
    left -= length;
  }
  return true;
}

ZRBStringEncoding ZRBStringEncodingFromIANACharsetName(std::string_view name) {
  while (!name.empty() && (name.front() == ' ' || name.front() == '\t')) name.remove_prefix(1);
  while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.remove_suffix(1);
  char lower[32];
  if (name.empty() || name.size() > sizeof lower) return ZRBStringEncoding{0};
  std::transform(name.begin(), name.end(), lower,
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  std::string_view key(lower, name.size());
  for (const auto& info : kEncodings) {
    if (info.ianaName && key == info.ianaName) return info.code;
  }
  for (const auto& alias : kAliases) {
    if (key == alias.name) return alias.code;
  }
  return ZRBStringEncoding{0};
}

std::optional<std::string> ZRBIANACharsetNameFromStringEncoding(ZRBStringEncoding encoding) {
  const EncodingInfo* info = infoFor(encoding);
  if (!info || !info->ianaName) return std::nullopt;
  return std::string(info->ianaName);
}

std::string ZRBLocalizedNameOfStringEncoding(ZRBStringEncoding encoding) {
  const EncodingInfo* info = infoFor(encoding);
  return info ? info->displayName : "";
}

bool ZRBStringEncodingIsSupported(ZRBStringEncoding encoding) {
  const EncodingInfo* info = infoFor(encoding);
  if (!info || info->codec == Codec::None) return false;
  return info->codec != Codec::Iconv || threadIconv(*info, true) != nullptr;
}

std::optional<std::string> ZRBStringFromBytes(std::span<const std::uint8_t> bytes,
                                              ZRBStringEncoding encoding) {
  const EncodingInfo* info = infoFor(encoding);
  if (!info) return std::nullopt;
  switch (info->codec) {
    case Codec::UTF8: {
      std::string_view text = asChars(bytes);
      if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
      if (!ZRBIsValidUTF8(text)) return std::nullopt;
      return std::string(text);
    }
    case Codec::ASCII:
      if (std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b >= 0x80; }))
        return std::nullopt;
      return std::string(asChars(bytes));
    case Codec::Latin1: {
      std::string out;
      out.reserve(bytes.size() + bytes.size() / 4);
      for (std::uint8_t b : bytes) appendUTF8(out, b);
      return out;
    }
    case Codec::UTF16: return decodeWide(bytes, 2, std::nullopt);
    case Codec::UTF16BE: return decodeWide(bytes, 2, true);
    case Codec::UTF16LE: return decodeWide(bytes, 2, false);
    case Codec::UTF32: return decodeWide(bytes, 4, std::nullopt);
    case Codec::UTF32BE: return decodeWide(bytes, 4, true);
    case Codec::UTF32LE: return decodeWide(bytes, 4, false);
    case Codec::NonLossyASCII: return decodeNonLossy(asChars(bytes));
    case Codec::Iconv: return decodeIconv(*info, bytes);
    case Codec::None: return std::nullopt;
  }
  return std::nullopt;
}

std::optional<std::string> ZRBStringFromBytes(std::string_view bytes, ZRBStringEncoding encoding) {
  return ZRBStringFromBytes(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()),
                            encoding);
}

std::optional<std::vector<std::uint8_t>> ZRBBytesFromString(std::string_view utf8, ZRBStringEncoding encoding,
                                                            bool allowLossyConversion) {
  const EncodingInfo* info = infoFor(encoding);
  if (!info || !ZRBIsValidUTF8(utf8)) return std::nullopt;
  switch (info->codec) {
    case Codec::UTF8: return std::vector<std::uint8_t>(utf8.begin(), utf8.end());
    case Codec::ASCII: return encodeSingleByte(utf8, 0x80, allowLossyConversion);
    case Codec::Latin1: return encodeSingleByte(utf8, 0x100, allowLossyConversion);
    case Codec::UTF16: return encodeWide(utf8, 2, std::nullopt);
    case Codec::UTF16BE: return encodeWide(utf8, 2, true);
    case Codec::UTF16LE: return encodeWide(utf8, 2, false);
    case Codec::UTF32: return encodeWide(utf8, 4, std::nullopt);
    case Codec::UTF32BE: return encodeWide(utf8, 4, true);
    case Codec::UTF32LE: return encodeWide(utf8, 4, false);
    case Codec::NonLossyASCII: return encodeNonLossy(utf8);
    case Codec::Iconv: return encodeIconv(*info, utf8, allowLossyConversion);
    case Codec::None: return std::nullopt;
  }
  return std::nullopt;
}
