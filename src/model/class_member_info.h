// The metadata records of one instance variable, method or property, decoded from the run-time
// registry: names, type encodings and their type codes, and for properties the attributes, the
// class and protocols of an object type, and the getter and setter selectors.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/runtime.h"
#include "model/type_encoding.h"

class ZRBMDClassIvarInfo {
 public:
  // Null for a null handle.
  static std::shared_ptr<const ZRBMDClassIvarInfo> initWithIvar(const ZRBMDIvar* ivar);

  const ZRBMDIvar* ivar() const { return ivar_; }
  const std::string& name() const { return name_; }
  std::ptrdiff_t offset() const { return offset_; }
  const std::string& typeEncoding() const { return typeEncoding_; }
  ZRBMDEncodingType type() const { return type_; }

 private:
  const ZRBMDIvar* ivar_ = nullptr;
  std::string name_;
  std::ptrdiff_t offset_ = 0;
  std::string typeEncoding_;
  ZRBMDEncodingType type_ = 0;
};

class ZRBMDClassMethodInfo {
 public:
  // Null for a null handle.
  static std::shared_ptr<const ZRBMDClassMethodInfo> initWithMethod(const ZRBMDMethod* method);

  const ZRBMDMethod* method() const { return method_; }
  const std::string& name() const { return name_; }
  const ZRBMDSEL& sel() const { return sel_; }
  ZRBMDIMP imp() const { return imp_; }
  const std::string& typeEncoding() const { return typeEncoding_; }
  const std::string& returnTypeEncoding() const { return returnTypeEncoding_; }
  // One entry per argument, the receiver and selector included; a missing encoding is "".
  const std::vector<std::string>& argumentTypeEncodings() const { return argumentTypeEncodings_; }

 private:
  const ZRBMDMethod* method_ = nullptr;
  std::string name_;
  ZRBMDSEL sel_;
  ZRBMDIMP imp_ = nullptr;
  std::string typeEncoding_;
  std::string returnTypeEncoding_;
  std::vector<std::string> argumentTypeEncodings_;
};

class ZRBMDClassPropertyInfo {
 public:
  // Null for a null handle.
  static std::shared_ptr<const ZRBMDClassPropertyInfo> initWithProperty(const ZRBMDProperty* property);

  const ZRBMDProperty* property() const { return property_; }
  const std::string& name() const { return name_; }
  // The type code with the property attributes in its upper bits.
  ZRBMDEncodingType type() const { return type_; }
  const std::string& typeEncoding() const { return typeEncoding_; }
  const std::string& ivarName() const { return ivarName_; }
  // The class named by an object type (@"Name"), or null (plain "@", a protocol-only type, a class
  // that is not registered).
  const ZRBMDClass* cls() const { return cls_; }
  // The protocols of an object type (@"Name<P1><P2>"), or nullopt when it names none.
  const std::optional<std::vector<std::string>>& protocols() const { return protocols_; }
  const ZRBMDSEL& getter() const { return getter_; }
  const ZRBMDSEL& setter() const { return setter_; }

 private:
  void parseObjectType();

  const ZRBMDProperty* property_ = nullptr;
  std::string name_;
  ZRBMDEncodingType type_ = 0;
  std::string typeEncoding_;
  std::string ivarName_;
  const ZRBMDClass* cls_ = nullptr;
  std::optional<std::vector<std::string>> protocols_;
  ZRBMDSEL getter_;
  ZRBMDSEL setter_;
};
