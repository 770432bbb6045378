#include "platform/foundation/error.h"

#include <cstring>

ZRBError::ZRBError(std::string domain, long code, ZRBValue userInfo)
    : domain_(std::move(domain)),
      code_(code),
      userInfo_(userInfo.isDictionary() ? std::move(userInfo) : ZRBValue::dictionary({})) {}

ZRBErrorPtr ZRBError::make(std::string_view domain, long code, ZRBValue userInfo) {
  return std::make_shared<const ZRBError>(std::string(domain), code, std::move(userInfo));
}

ZRBErrorPtr ZRBError::withDescription(std::string_view domain, long code, std::string_view description) {
  return make(domain, code, ZRBValue::dictionary({{ZRBLocalizedDescriptionKey, ZRBValue(description)}}));
}

ZRBErrorPtr ZRBError::fromErrno(int errnoValue, std::string_view path) {
  ZRBDictionaryBuilder info;
  info.set(ZRBLocalizedDescriptionKey, ZRBValue(std::strerror(errnoValue)));
  if (!path.empty()) info.set(ZRBFilePathErrorKey, ZRBValue(path));
  return make(ZRBPOSIXErrorDomain, errnoValue, info.build());
}

std::string ZRBError::localizedDescription() const {
  const ZRBValue& text = userInfo_[ZRBLocalizedDescriptionKey];
  if (text.isString()) return text.string();
  return "The operation couldn\u2019t be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

std::optional<std::string> ZRBError::localizedFailureReason() const {
  return userInfo_[ZRBLocalizedFailureReasonErrorKey].optionalString();
}

ZRBErrorPtr ZRBError::underlyingError() const {
  return std::dynamic_pointer_cast<const ZRBError>(userInfo_[ZRBUnderlyingErrorKey].object());
}

bool ZRBError::hasCodeInChain(std::string_view domain, long code) const {
  for (const ZRBError* e = this; e;) {
    if (e->code_ == code && e->domain_ == domain) return true;
    auto next = e->underlyingError();
    e = next.get();  // the chain stays alive through this record's user info
  }
  return false;
}

std::string ZRBError::description() const {
  std::string out = "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" +
                    localizedDescription() + "\" UserInfo=";
  // The user info on one line, as the platform prints it inside an error.
  out += '{';
  bool first = true;
  for (const auto& [key, value] : userInfo_.entries()) {
    if (!first) out += ", ";
    first = false;
    out += key.stringView();
    out += '=';
    out += value.description();
  }
  out += '}';
  return out;
}

bool ZRBError::isEqual(const ZRBObject& other) const {
  const auto* e = dynamic_cast<const ZRBError*>(&other);
  return e && e->code_ == code_ && e->domain_ == domain_ && e->userInfo_ == userInfo_;
}

std::size_t ZRBError::hash() const {
  return std::hash<std::string>{}(domain_) ^ static_cast<std::size_t>(code_);
}
