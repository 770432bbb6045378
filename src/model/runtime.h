// ZRBMDRuntime: the process-wide registry of classes that model metadata is read from.
//
// C++ cannot list a class's members at run time, so classes are entered here: model classes from
// their Boost.Describe declarations (see class_registration.h), and anything else by hand. A class
// has a name, a superclass (the root class "ZRBObject" has none), a metaclass that carries its class
// operations, and its own instance variables, methods and properties. Properties carry the
// attribute list of the usual key characters: "T" type encoding, "V" instance variable, "R"
// read-only, "C" copy, "&" strong, "W" weak, "N" non-atomic, "D" dynamic, "G" getter, "S" setter.
//
// Classes can change at run time: methods and properties may be added at any time (callers that
// cached metadata are told with ZRBMDClassInfo::setNeedUpdate). Handles are never freed, so a
// handle stays valid for the life of the process. All operations are thread-safe.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class ZRBMDClass;
using ZRBMDSEL = std::string;
// What identifies a method's implementation; opaque, compared by identity.
using ZRBMDIMP = const void*;

struct ZRBMDIvar {
  std::string name;
  std::ptrdiff_t offset = 0;
  std::string typeEncoding;
};

struct ZRBMDMethod {
  ZRBMDSEL name;
  ZRBMDIMP imp = nullptr;
  // Return type, then one encoding per argument: the receiver "@" and the selector ":" first.
  std::string returnTypeEncoding;
  std::vector<std::string> argumentTypeEncodings;
  // The return type followed by the argument types.
  std::string typeEncoding() const;
};

struct ZRBMDPropertyAttribute {
  char key;
  std::string value;
};

struct ZRBMDProperty {
  std::string name;
  std::vector<ZRBMDPropertyAttribute> attributes;
};

// Everything a class declares, for registering it in one step.
struct ZRBMDClassMembers {
  std::vector<ZRBMDIvar> ivars;
  std::vector<ZRBMDMethod> methods;
  std::vector<ZRBMDProperty> properties;
  std::vector<ZRBMDMethod> classMethods;  // the metaclass's
};

class ZRBMDClass {
 public:
  ZRBMDClass(const ZRBMDClass&) = delete;
  ZRBMDClass& operator=(const ZRBMDClass&) = delete;

  const std::string& name() const { return name_; }
  const ZRBMDClass* superclass() const { return superclass_; }
  // The metaclass of a class; a metaclass answers null.
  const ZRBMDClass* metaclass() const { return metaclass_; }
  bool isMetaclass() const { return isMeta_; }

  // Snapshots of the class's own members (inherited ones are the superclass's), in the order they
  // were added.
  std::vector<const ZRBMDIvar*> copyIvarList() const;
  std::vector<const ZRBMDMethod*> copyMethodList() const;
  std::vector<const ZRBMDProperty*> copyPropertyList() const;

  // Adding a member whose name the class already has changes nothing and answers false.
  bool addIvar(ZRBMDIvar ivar);
  bool addMethod(ZRBMDMethod method);
  bool addProperty(std::string name, std::vector<ZRBMDPropertyAttribute> attributes);

  // The class of that name, or null; metaclasses are reached through their class.
  static const ZRBMDClass* named(std::string_view name);
  // Registers a class under `name` below `superclass` (null means the root class), or answers the
  // class already registered under that name.
  static ZRBMDClass* registerClass(std::string_view name, const ZRBMDClass* superclass);
  // The same, with the class's members entered before anyone can look the class up. A class
  // already registered under `name` gains the members it does not have yet.
  static ZRBMDClass* registerClass(std::string_view name, const ZRBMDClass* superclass,
                                   ZRBMDClassMembers members);
  // The root class "ZRBObject", and the classes that JSON values and other platform objects
  // belong to: "ZRBString", "ZRBNumber", "ZRBArray", "ZRBDictionary", "ZRBSet", "ZRBDate",
  // "ZRBData", "ZRBURL" (registered before any lookup).
  static const ZRBMDClass* rootClass();

 private:
  friend struct ZRBMDRuntimeTables;
  ZRBMDClass(std::string name, const ZRBMDClass* superclass, bool isMeta);

  std::string name_;
  const ZRBMDClass* superclass_;
  const ZRBMDClass* metaclass_ = nullptr;
  bool isMeta_;
  std::vector<std::unique_ptr<ZRBMDIvar>> ivars_;
  std::vector<std::unique_ptr<ZRBMDMethod>> methods_;
  std::vector<std::unique_ptr<ZRBMDProperty>> properties_;
};
