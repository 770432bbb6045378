// ZRBObject: the root of every reference-counted object in the library.
//
// Objects are held by std::shared_ptr; a weak reference is a std::weak_ptr. Every object can
// describe itself (the text used wherever a value is formatted with %@) and compare itself to
// another object; the defaults are identity-based, as for the platform's root object.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

class ZRBObject : public std::enable_shared_from_this<ZRBObject> {
 public:
  ZRBObject() = default;
  ZRBObject(const ZRBObject&) = delete;
  ZRBObject& operator=(const ZRBObject&) = delete;
  virtual ~ZRBObject() = default;

  // The class name as the platform would print it ("ZRBError"); used by descriptions.
  virtual std::string className() const;

  // "<ClassName: 0x...>" unless a subclass says more.
  virtual std::string description() const;

  // Identity unless a subclass defines value equality; hash() must agree with isEqual().
  virtual bool isEqual(const ZRBObject& other) const { return this == &other; }
  virtual std::size_t hash() const;
};

using ZRBObjectPtr = std::shared_ptr<ZRBObject>;

// "0x7f..." as the platform's %p prints an address.
std::string ZRBFormatPointer(const void* pointer);
