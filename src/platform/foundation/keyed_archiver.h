// Keyed archiving: objects write themselves into a ZRBKeyedArchiver under string keys and are
// rebuilt from a ZRBKeyedUnarchiver by a factory registered under their class name.
//
// An archive is a binary property list of this shape:
//
//   { "$archiver": "ZRBKeyedArchiver", "$version": 1,
//     "$top": { "root": { "$class": "MyClass", "name": "...", "child": { "$class": ... } } } }
//
// "$top" holds what was encoded on the archiver itself (archivedDataWithRootObject encodes the
// root object under ZRBKeyedArchiveRootObjectKey). Every archived object is a dictionary with a
// "$class" key plus the keys it encoded. Keys starting with "$" are reserved for markers; caller
// keys that start with "$" are stored with one more "$" and read back unchanged. Values that a
// property list cannot hold directly are stored as marker dictionaries:
//   the null object   { "$null": true }
//   a date            { "$date": <seconds since 2001-01-01 as a double> }  (exact, any range)
//   a set             { "$set": [items] }
// Objects are stored as a tree: an object reachable twice is archived twice and decoded as two
// copies, and a cycle is an encoding error.
//
// Secure coding: a class is decodable only when registered; with requiresSecureCoding (the default
// on both sides) it must also have been registered as supporting secure coding, on encoding as on
// decoding. Decoding never throws: failures give absent values or null objects, and the ones that
// mean the archive is wrong or unsafe (unknown class, class mismatch, corrupt marker) also record
// an error (ZRBCocoaErrorDomain, ZRBCoderReadCorruptError 4864).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

class ZRBKeyedArchiver;
class ZRBKeyedUnarchiver;

// The key under which archivedDataWithRootObject stores the root object.
inline constexpr std::string_view ZRBKeyedArchiveRootObjectKey = "root";

// Implemented by objects that can be archived. A decodable class also registers a factory with
// ZRBKeyedUnarchiver::registerClass under the same name that codingClassName() returns (see
// ZRBCodingRegistrar).
class ZRBCoding {
 public:
  virtual ~ZRBCoding() = default;
  virtual void encodeWithCoder(ZRBKeyedArchiver& coder) const = 0;
  virtual std::string codingClassName() const = 0;
};

class ZRBKeyedArchiver {
 public:
  explicit ZRBKeyedArchiver(bool requiresSecureCoding = true);
  ZRBKeyedArchiver(const ZRBKeyedArchiver&) = delete;
  ZRBKeyedArchiver& operator=(const ZRBKeyedArchiver&) = delete;

  bool requiresSecureCoding() const { return requiresSecureCoding_; }
  void setRequiresSecureCoding(bool value) { requiresSecureCoding_ = value; }

  // Each call stores under `key` in the object being encoded (or at the top level); a later call
  // with the same key replaces the earlier value. Calls after finishEncoding, or after a failure,
  // are ignored.
  void encodeBool(bool value, std::string_view key);
  void encodeInteger(std::int64_t value, std::string_view key);
  void encodeDouble(double value, std::string_view key);
  void encodeString(std::string_view value, std::string_view key);
  // Property-list values plus the null object, dates of any range, sets, and objects that
  // implement ZRBCoding, nested at any level. Absent stores nothing. Anything else (other objects,
  // class tags) fails the archive with ZRBCoderInvalidValueError (4866).
  void encodeValue(const ZRBValue& value, std::string_view key);
  // A null object is stored as the null marker and decodes as a null pointer.
  void encodeObject(const ZRBCoding* object, std::string_view key);
  void encodeObject(const ZRBCoding& object, std::string_view key) { encodeObject(&object, key); }
  template <typename T>
  requires std::is_base_of_v<ZRBCoding, T>
  void encodeObject(const std::shared_ptr<T>& object, std::string_view key) {
    encodeObject(static_cast<const ZRBCoding*>(object.get()), key);
  }

  // Lets an object's encodeWithCoder refuse to be archived; the first error is kept.
  void failWithError(ZRBErrorPtr error);
  // The first failure (ZRBCoderInvalidValueError), or null.
  ZRBErrorPtr error() const { return error_; }

  // Serializes what was encoded. Idempotent.
  void finishEncoding();
  // The archive bytes (finishing first); empty after a failure.
  const std::vector<std::uint8_t>& encodedData();

  static std::optional<std::vector<std::uint8_t>> archivedDataWithRootObject(const ZRBCoding& root,
                                                                             bool requiringSecureCoding,
                                                                             ZRBErrorPtr* error = nullptr);
  // Archives without requiring secure coding and replaces the file atomically.
  static bool archiveRootObjectToFile(const ZRBCoding& root, const std::string& path,
                                      ZRBErrorPtr* error = nullptr);

 private:
  ZRBValue encodeObjectDictionary(const ZRBCoding& object);
  ZRBValue archivedValue(const ZRBValue& value, int depth);
  void store(std::string_view key, ZRBValue value);
  void fail(std::string_view reason);

  bool requiresSecureCoding_;
  bool finished_ = false;
  std::vector<ZRBDictionaryBuilder> stack_;  // [0] is the top level
  std::unordered_set<const ZRBCoding*> inProgress_;
  std::vector<std::uint8_t> data_;
  ZRBErrorPtr error_;
};

class ZRBKeyedUnarchiver {
 public:
  // Rebuilds an object from the unarchiver positioned on it; returns null to refuse. It reads its
  // keys with the decode operations and may call failWithError.
  using Factory = std::function<ZRBObjectPtr(ZRBKeyedUnarchiver&)>;

  // Thread-safe; usually called at load time through ZRBCodingRegistrar. Registering a name again
  // replaces the earlier factory.
  static void registerClass(std::string_view name, Factory factory, bool supportsSecureCoding = true);
  static bool isClassRegistered(std::string_view name);
  static bool classSupportsSecureCoding(std::string_view name);

  // Bytes that are not an archive leave the unarchiver invalid (every decode yields nothing) and
  // set `error` to ZRBCoderReadCorruptError (4864).
  explicit ZRBKeyedUnarchiver(std::span<const std::uint8_t> data, ZRBErrorPtr* error = nullptr);
  ZRBKeyedUnarchiver(const ZRBKeyedUnarchiver&) = delete;
  ZRBKeyedUnarchiver& operator=(const ZRBKeyedUnarchiver&) = delete;

  bool isValid() const { return valid_; }
  bool requiresSecureCoding() const { return requiresSecureCoding_; }
  void setRequiresSecureCoding(bool value) { requiresSecureCoding_ = value; }

  // Keys are looked up in the object being decoded (or at the top level).
  bool containsValueForKey(std::string_view key) const;
  // Each typed decode yields nullopt when the key is missing or holds another kind:
  // decodeBool wants a boolean, decodeInteger an integer within int64, decodeDouble any number
  // except a boolean, decodeString a string.
  std::optional<bool> decodeBool(std::string_view key) const;
  std::optional<std::int64_t> decodeInteger(std::string_view key) const;
  std::optional<double> decodeDouble(std::string_view key) const;
  std::optional<std::string> decodeString(std::string_view key) const;
  // The value stored by encodeValue (objects inside it decoded through their factories); absent
  // when missing, undecodable or not of class `expected`.
  ZRBValue decodeValue(std::string_view key, ZRBValueClass expected);
  // The object stored by encodeObject; null when missing, encoded as null, or undecodable.
  ZRBObjectPtr decodeObject(std::string_view key);
  // As decodeObject, and null (with an error recorded) when the object is not a T. The class
  // check follows construction, so the registry (and secure coding) is what keeps unexpected
  // classes from being built at all.
  template <typename T>
  std::shared_ptr<T> decodeObjectOfClass(std::string_view key) {
    ZRBObjectPtr object = decodeObject(key);
    auto typed = std::dynamic_pointer_cast<T>(object);
    if (object && !typed) failClassMismatch(key, object->className());
    return typed;
  }

  // Lets a factory report why it refused; the first error is kept.
  void failWithError(ZRBErrorPtr error);
  ZRBErrorPtr error() const { return error_; }

  // Decodes the root object with secure coding. Null, with `error` set, when the bytes are not
  // an archive, the root is missing (4865), or any failure was recorded while decoding it.
  template <typename T>
  static std::shared_ptr<T> unarchivedObjectOfClass(std::span<const std::uint8_t> data,
                                                    ZRBErrorPtr* error = nullptr) {
    ZRBKeyedUnarchiver unarchiver(data, error);
    if (!unarchiver.isValid()) return nullptr;
    auto object = unarchiver.decodeObjectOfClass<T>(ZRBKeyedArchiveRootObjectKey);
    return unarchiver.finishRoot(std::move(object), error);
  }
  // Reads an archive file without requiring secure coding; null with `error` set on failure.
  static ZRBObjectPtr unarchiveObjectWithFile(const std::string& path, ZRBErrorPtr* error = nullptr);

 private:
  const ZRBValue& current() const;
  ZRBObjectPtr objectFromArchived(const ZRBValue& archived);
  ZRBValue unarchivedValue(const ZRBValue& archived, int depth);
  void fail(std::string_view reason);
  void failClassMismatch(std::string_view key, const std::string& className);
  template <typename T>
  std::shared_ptr<T> finishRoot(std::shared_ptr<T> object, ZRBErrorPtr* error) {
    if (object && !error_) return object;
    reportRootFailure(error);
    return nullptr;
  }
  void reportRootFailure(ZRBErrorPtr* error) const;

  ZRBValue archive_;
  bool valid_ = false;
  bool requiresSecureCoding_ = true;
  std::vector<const ZRBValue*> stack_;  // the object dictionaries being decoded; [0] is the top level
  ZRBErrorPtr error_;
};

// Registers T for decoding at load time. T provides
//   static std::shared_ptr<T> initWithCoder(ZRBKeyedUnarchiver&);   // null to refuse
// and its codingClassName() returns the registered name.
template <typename T>
class ZRBCodingRegistrar {
 public:
  explicit ZRBCodingRegistrar(std::string_view name, bool supportsSecureCoding = true) {
    ZRBKeyedUnarchiver::registerClass(
        name, [](ZRBKeyedUnarchiver& coder) -> ZRBObjectPtr { return T::initWithCoder(coder); },
        supportsSecureCoding);
  }
};

// At namespace scope in the class's source file: ZRB_REGISTER_CODING_CLASS(ZRBCacheMetadata);
#define ZRB_REGISTER_CODING_CLASS(Type) \
  static const ZRBCodingRegistrar<Type> zrbCodingRegistrar_##Type { #Type }
