#include "model/type_encoding.h"

ZRBMDEncodingType ZRBMDEncodingGetType(std::string_view text) noexcept {
  ZRBMDEncodingType qualifiers = 0;
  std::size_t i = 0;
  for (; i < text.size(); ++i) {
    ZRBMDEncodingType bit = 0;
    switch (text[i]) {
      case 'r': bit = ZRBMDEncodingTypeQualifierConst; break;
      case 'n': bit = ZRBMDEncodingTypeQualifierIn; break;
      case 'N': bit = ZRBMDEncodingTypeQualifierInout; break;
      case 'o': bit = ZRBMDEncodingTypeQualifierOut; break;
      case 'O': bit = ZRBMDEncodingTypeQualifierBycopy; break;
      case 'R': bit = ZRBMDEncodingTypeQualifierByref; break;
      case 'V': bit = ZRBMDEncodingTypeQualifierOneway; break;
      default: break;
    }
    if (!bit) break;
    qualifiers |= bit;
  }
  if (i == text.size()) return qualifiers;
  std::string_view rest = text.substr(i);
  ZRBMDEncodingType type = ZRBMDEncodingTypeUnknown;
  switch (rest[0]) {
    case 'v': type = ZRBMDEncodingTypeVoid; break;
    case 'B': type = ZRBMDEncodingTypeBool; break;
    case 'c': type = ZRBMDEncodingTypeInt8; break;
    case 'C': type = ZRBMDEncodingTypeUInt8; break;
    case 's': type = ZRBMDEncodingTypeInt16; break;
    case 'S': type = ZRBMDEncodingTypeUInt16; break;
    case 'i': type = ZRBMDEncodingTypeInt32; break;
    case 'I': type = ZRBMDEncodingTypeUInt32; break;
    case 'l': type = ZRBMDEncodingTypeInt32; break;
    case 'L': type = ZRBMDEncodingTypeUInt32; break;
    case 'q': type = ZRBMDEncodingTypeInt64; break;
    case 'Q': type = ZRBMDEncodingTypeUInt64; break;
    case 'f': type = ZRBMDEncodingTypeFloat; break;
    case 'd': type = ZRBMDEncodingTypeDouble; break;
    case 'D': type = ZRBMDEncodingTypeLongDouble; break;
    case '#': type = ZRBMDEncodingTypeClass; break;
    case ':': type = ZRBMDEncodingTypeSEL; break;
    case '*': type = ZRBMDEncodingTypeCString; break;
    case '^': type = ZRBMDEncodingTypePointer; break;
    case '[': type = ZRBMDEncodingTypeCArray; break;
    case '(': type = ZRBMDEncodingTypeUnion; break;
    case '{': type = ZRBMDEncodingTypeStruct; break;
    case '@': type = rest == "@?" ? ZRBMDEncodingTypeBlock : ZRBMDEncodingTypeObject; break;
    default: break;
  }
  return qualifiers | type;
}

ZRBMDEncodingType ZRBMDEncodingGetType(const char* text) noexcept {
  return text ? ZRBMDEncodingGetType(std::string_view(text)) : 0;
}
