// Type codes: what a type encoding text says about a value's type, its qualifiers and, for
// properties, its attributes, packed into one 32-bit number of three bit fields.
//
// Encodings use one character per type ("i" int, "d" double, "@" object, ...), led by qualifier
// characters ("r" const, ...). "l" and "L" always mean the 32-bit integers, whatever the width of
// long on the platform that wrote them.
#pragma once

#include <cstdint>
#include <string_view>

using ZRBMDEncodingType = std::uint32_t;

enum : ZRBMDEncodingType {
  ZRBMDEncodingTypeMask = 0xFF,
  ZRBMDEncodingTypeUnknown = 0,
  ZRBMDEncodingTypeVoid = 1,
  ZRBMDEncodingTypeBool = 2,
  ZRBMDEncodingTypeInt8 = 3,
  ZRBMDEncodingTypeUInt8 = 4,
  ZRBMDEncodingTypeInt16 = 5,
  ZRBMDEncodingTypeUInt16 = 6,
  ZRBMDEncodingTypeInt32 = 7,
  ZRBMDEncodingTypeUInt32 = 8,
  ZRBMDEncodingTypeInt64 = 9,
  ZRBMDEncodingTypeUInt64 = 10,
  ZRBMDEncodingTypeFloat = 11,
  ZRBMDEncodingTypeDouble = 12,
  ZRBMDEncodingTypeLongDouble = 13,
  ZRBMDEncodingTypeObject = 14,
  ZRBMDEncodingTypeClass = 15,
  ZRBMDEncodingTypeSEL = 16,
  ZRBMDEncodingTypeBlock = 17,
  ZRBMDEncodingTypePointer = 18,
  ZRBMDEncodingTypeStruct = 19,
  ZRBMDEncodingTypeUnion = 20,
  ZRBMDEncodingTypeCString = 21,
  ZRBMDEncodingTypeCArray = 22,

  ZRBMDEncodingTypeQualifierMask = 0xFF00,
  ZRBMDEncodingTypeQualifierConst = 0x100,
  ZRBMDEncodingTypeQualifierIn = 0x200,
  ZRBMDEncodingTypeQualifierInout = 0x400,
  ZRBMDEncodingTypeQualifierOut = 0x800,
  ZRBMDEncodingTypeQualifierBycopy = 0x1000,
  ZRBMDEncodingTypeQualifierByref = 0x2000,
  ZRBMDEncodingTypeQualifierOneway = 0x4000,

  ZRBMDEncodingTypePropertyMask = 0xFF0000,
  ZRBMDEncodingTypePropertyReadonly = 0x10000,
  ZRBMDEncodingTypePropertyCopy = 0x20000,
  ZRBMDEncodingTypePropertyRetain = 0x40000,
  ZRBMDEncodingTypePropertyNonatomic = 0x80000,
  ZRBMDEncodingTypePropertyWeak = 0x100000,
  ZRBMDEncodingTypePropertyCustomGetter = 0x200000,
  ZRBMDEncodingTypePropertyCustomSetter = 0x400000,
  ZRBMDEncodingTypePropertyDynamic = 0x800000,
};

// Qualifiers from the leading qualifier characters, then the type of the next character; "@" is a
// block only when the whole rest is "@?". Empty text gives 0, qualifiers alone give no type.
ZRBMDEncodingType ZRBMDEncodingGetType(std::string_view typeEncoding) noexcept;
// A null pointer is treated as empty text.
ZRBMDEncodingType ZRBMDEncodingGetType(const char* typeEncoding) noexcept;
