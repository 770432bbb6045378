#include "model/class_member_info.h"

#include <cctype>

std::shared_ptr<const ZRBMDClassIvarInfo> ZRBMDClassIvarInfo::initWithIvar(const ZRBMDIvar* ivar) {
  if (!ivar) return nullptr;
  auto info = std::make_shared<ZRBMDClassIvarInfo>();
  info->ivar_ = ivar;
  info->name_ = ivar->name;
  info->offset_ = ivar->offset;
  info->typeEncoding_ = ivar->typeEncoding;
  info->type_ = ZRBMDEncodingGetType(info->typeEncoding_);
  return info;
}

std::shared_ptr<const ZRBMDClassMethodInfo> ZRBMDClassMethodInfo::initWithMethod(const ZRBMDMethod* method) {
  if (!method) return nullptr;
  auto info = std::make_shared<ZRBMDClassMethodInfo>();
  info->method_ = method;
  info->sel_ = method->name;
  info->imp_ = method->imp;
  info->name_ = method->name;
  info->typeEncoding_ = method->typeEncoding();
  info->returnTypeEncoding_ = method->returnTypeEncoding;
  info->argumentTypeEncodings_ = method->argumentTypeEncodings;
  return info;
}

std::shared_ptr<const ZRBMDClassPropertyInfo> ZRBMDClassPropertyInfo::initWithProperty(
    const ZRBMDProperty* property) {
  if (!property) return nullptr;
  auto info = std::make_shared<ZRBMDClassPropertyInfo>();
  info->property_ = property;
  info->name_ = property->name;
  ZRBMDEncodingType& type = info->type_;
  for (const auto& attribute : property->attributes) {
    switch (attribute.key) {
      case 'T':
        info->typeEncoding_ = attribute.value;
        type |= ZRBMDEncodingGetType(attribute.value);
        if ((type & ZRBMDEncodingTypeMask) == ZRBMDEncodingTypeObject && !attribute.value.empty())
          info->parseObjectType();
        break;
      case 'V': info->ivarName_ = attribute.value; break;
      case 'R': type |= ZRBMDEncodingTypePropertyReadonly; break;
      case 'C': type |= ZRBMDEncodingTypePropertyCopy; break;
      case '&': type |= ZRBMDEncodingTypePropertyRetain; break;
      case 'N': type |= ZRBMDEncodingTypePropertyNonatomic; break;
      case 'D': type |= ZRBMDEncodingTypePropertyDynamic; break;
      case 'W': type |= ZRBMDEncodingTypePropertyWeak; break;
      case 'G':
        type |= ZRBMDEncodingTypePropertyCustomGetter;
        info->getter_ = attribute.value;
        break;
      case 'S':
        type |= ZRBMDEncodingTypePropertyCustomSetter;
        info->setter_ = attribute.value;
        break;
      default: break;
    }
  }
  const std::string& name = info->name_;
  if (!name.empty()) {
    if (info->getter_.empty()) info->getter_ = name;
    if (info->setter_.empty())
      info->setter_ = "set" +
                      std::string(1, static_cast<char>(std::toupper(static_cast<unsigned char>(name[0])))) +
                      name.substr(1) + ":";
  }
  return info;
}

// @"Name<P1><P2>": the class name up to the first quote or '<', then each <...> a protocol.
void ZRBMDClassPropertyInfo::parseObjectType() {
  std::string_view text = typeEncoding_;
  std::size_t i = text.find('@');
  if (i == std::string_view::npos) return;
  ++i;
  if (i < text.size() && text[i] == '"') ++i;
  std::size_t end = text.find_first_of("\"<", i);
  if (end == std::string_view::npos) end = text.size();
  if (end > i) cls_ = ZRBMDClass::named(text.substr(i, end - i));
  i = end;
  while (i < text.size() && text[i] == '<') {
    std::size_t close = text.find('>', i + 1);
    if (close == std::string_view::npos) break;
    if (!protocols_) protocols_.emplace();
    protocols_->emplace_back(text.substr(i + 1, close - i - 1));
    i = close + 1;
  }
}
