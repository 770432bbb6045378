#include "platform/foundation/object.h"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <typeinfo>

std::string ZRBObject::className() const {
  const char* mangled = typeid(*this).name();
  int status = 0;
  char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  std::string name = (status == 0 && demangled) ? demangled : mangled;
  std::free(demangled);
  return name;
}

std::string ZRBObject::description() const { return "<" + className() + ": " + ZRBFormatPointer(this) + ">"; }

std::size_t ZRBObject::hash() const { return std::hash<const void*>{}(this); }

std::string ZRBFormatPointer(const void* pointer) {
  char buffer[2 + 2 * sizeof(void*) + 1];
  std::snprintf(buffer, sizeof buffer, "%p", pointer);
  return buffer;
}
