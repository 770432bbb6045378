#include "platform/foundation/keyed_archiver.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <shared_mutex>

#include "platform/foundation/property_list_serialization.h"

namespace {

constexpr std::string_view kArchiverKey = "$archiver";
constexpr std::string_view kVersionKey = "$version";
constexpr std::string_view kTopKey = "$top";
constexpr std::string_view kArchiverName = "ZRBKeyedArchiver";
constexpr long long kArchiveVersion = 1;

constexpr std::string_view kClassKey = "$class";
constexpr std::string_view kNullKey = "$null";
constexpr std::string_view kDateKey = "$date";
constexpr std::string_view kSetKey = "$set";

// Objects nest inside the archive's own two levels and may hold containers of their own; this
// keeps the whole tree well under the property-list nesting limit and bounds factory recursion.
constexpr std::size_t kMaxObjectDepth = 128;
constexpr int kMaxValueDepth = ZRBPropertyListSerialization::kMaximumNestingDepth - 8;

std::string escapeKey(std::string_view key) {
  std::string out;
  if (key.starts_with('$')) out += '$';
  out += key;
  return out;
}

bool isReservedKey(std::string_view key) { return key.starts_with('$') && !key.starts_with("$$"); }

// ---- class registry ----

struct Registration {
  ZRBKeyedUnarchiver::Factory factory;
  bool supportsSecureCoding = false;
};

struct Registry {
  std::shared_mutex mutex;
  std::map<std::string, Registration, std::less<>> classes;
};

Registry& registry() {
  static Registry instance;
  return instance;
}

std::optional<Registration> lookup(std::string_view name) {
  Registry& r = registry();
  std::shared_lock lock(r.mutex);
  auto it = r.classes.find(name);
  if (it == r.classes.end()) return std::nullopt;
  return it->second;
}

ZRBErrorPtr coderError(long code, std::string_view reason) {
  return ZRBError::make(
      ZRBCocoaErrorDomain, code,
      ZRBValue::dictionary({{ZRBLocalizedDescriptionKey,
                             ZRBValue(code == ZRBCoderInvalidValueError
                                          ? "The data couldn\u2019t be written because it isn\u2019t "
                                            "in the correct format."
                                          : "The data couldn\u2019t be read because it isn\u2019t in "
                                            "the correct format.")},
                            {ZRBDebugDescriptionErrorKey, ZRBValue(reason)}}));
}

struct EncodeFailure {
  std::string reason;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// ZRBKeyedArchiver

ZRBKeyedArchiver::ZRBKeyedArchiver(bool requiresSecureCoding) : requiresSecureCoding_(requiresSecureCoding) {
  stack_.emplace_back();
}

void ZRBKeyedArchiver::fail(std::string_view reason) {
  if (!error_) error_ = coderError(ZRBCoderInvalidValueError, reason);
}

void ZRBKeyedArchiver::failWithError(ZRBErrorPtr error) {
  if (!error_) error_ = error ? std::move(error) : coderError(ZRBCoderInvalidValueError, "encoding refused");
}

void ZRBKeyedArchiver::store(std::string_view key, ZRBValue value) {
  if (finished_ || error_) return;
  stack_.back().set(escapeKey(key), std::move(value));
}

void ZRBKeyedArchiver::encodeBool(bool value, std::string_view key) { store(key, ZRBValue(value)); }
void ZRBKeyedArchiver::encodeInteger(std::int64_t value, std::string_view key) {
  store(key, ZRBValue(value));
}
void ZRBKeyedArchiver::encodeDouble(double value, std::string_view key) { store(key, ZRBValue(value)); }
void ZRBKeyedArchiver::encodeString(std::string_view value, std::string_view key) {
  store(key, ZRBValue(value));
}

void ZRBKeyedArchiver::encodeValue(const ZRBValue& value, std::string_view key) {
  if (finished_ || error_ || value.isAbsent()) return;
  try {
    ZRBValue archived = archivedValue(value, 0);
    store(key, std::move(archived));
  } catch (const EncodeFailure& failure) {
    fail(failure.reason);
  }
}

void ZRBKeyedArchiver::encodeObject(const ZRBCoding* object, std::string_view key) {
  if (finished_ || error_) return;
  if (!object) {
    store(key, ZRBValue::dictionary({{kNullKey, ZRBValue(true)}}));
    return;
  }
  try {
    ZRBValue archived = encodeObjectDictionary(*object);
    store(key, std::move(archived));
  } catch (const EncodeFailure& failure) {
    fail(failure.reason);
  }
}

// Encodes one object into a dictionary of its own. Throws EncodeFailure; a failure recorded by a
// nested call (or by the object itself) surfaces through error_.
ZRBValue ZRBKeyedArchiver::encodeObjectDictionary(const ZRBCoding& object) {
  const std::string name = object.codingClassName();
  if (name.empty()) throw EncodeFailure{"an object has an empty coding class name"};
  if (requiresSecureCoding_ && !ZRBKeyedUnarchiver::classSupportsSecureCoding(name)) {
    throw EncodeFailure{"this coder requires secure coding; class '" + name + "' is not registered for it"};
  }
  if (inProgress_.contains(&object)) throw EncodeFailure{"object of class '" + name + "' contains itself"};
  if (stack_.size() > kMaxObjectDepth) throw EncodeFailure{"objects nested too deep"};

  inProgress_.insert(&object);
  stack_.emplace_back();
  stack_.back().set(kClassKey, ZRBValue(name));
  try {
    object.encodeWithCoder(*this);
  } catch (const std::exception& e) {
    fail("encoding class '" + name + "' threw: " + e.what());
  } catch (...) {
    fail("encoding class '" + name + "' threw");
  }
  ZRBValue result = stack_.back().build();
  stack_.pop_back();
  inProgress_.erase(&object);
  return result;
}

ZRBValue ZRBKeyedArchiver::archivedValue(const ZRBValue& value, int depth) {
  if (depth > kMaxValueDepth) throw EncodeFailure{"value nested too deep"};
  switch (value.kind()) {
    case ZRBValueKind::Bool:
    case ZRBValueKind::Int:
    case ZRBValueKind::UInt:
    case ZRBValueKind::Double:
    case ZRBValueKind::String:
    case ZRBValueKind::Data: return value;
    case ZRBValueKind::Null: return ZRBValue::dictionary({{kNullKey, ZRBValue(true)}});
    case ZRBValueKind::Date:
      return ZRBValue::dictionary({{kDateKey, ZRBValue(value.dateValue().secondsSinceReferenceDate())}});
    case ZRBValueKind::Array:
    case ZRBValueKind::Set: {
      ZRBArrayBuilder items;
      items.reserve(value.count());
      for (const ZRBValue& item : value.items()) items.add(archivedValue(item, depth + 1));
      if (value.isArray()) return items.build();
      return ZRBValue::dictionary({{kSetKey, items.build()}});
    }
    case ZRBValueKind::Dictionary: {
      ZRBDictionaryBuilder entries;
      entries.reserve(value.count());
      for (const auto& [key, item] : value.entries()) {
        entries.append(ZRBValue(escapeKey(key.stringView())), archivedValue(item, depth + 1));
      }
      return entries.build();
    }
    case ZRBValueKind::Object: {
      auto coding = std::dynamic_pointer_cast<const ZRBCoding>(value.object());
      if (!coding)
        throw EncodeFailure{"object of class '" + value.object()->className() + "' cannot be archived"};
      return encodeObjectDictionary(*coding);
    }
    case ZRBValueKind::Absent: throw EncodeFailure{"a container holds an absent value"};
    case ZRBValueKind::Class: throw EncodeFailure{"class tags cannot be archived"};
  }
  throw EncodeFailure{"unknown value kind"};
}

void ZRBKeyedArchiver::finishEncoding() {
  if (finished_) return;
  finished_ = true;
  if (error_) return;
  try {
    ZRBValue archive = ZRBValue::dictionary({{kArchiverKey, ZRBValue(kArchiverName)},
                                             {kVersionKey, ZRBValue(kArchiveVersion)},
                                             {kTopKey, stack_.front().build()}});
    ZRBErrorPtr plistError;
    auto bytes = ZRBPropertyListSerialization::dataWithPropertyList(archive, ZRBPropertyListBinaryFormat_v1_0,
                                                                    0, &plistError);
    if (bytes) {
      data_ = std::move(*bytes);
    } else {
      ZRBDictionaryBuilder info(coderError(ZRBCoderInvalidValueError, "")->userInfo());
      info.set(ZRBDebugDescriptionErrorKey, ZRBValue("the archive is not a valid property list"));
      info.set(ZRBUnderlyingErrorKey, ZRBValue(std::const_pointer_cast<ZRBError>(plistError)));
      error_ = ZRBError::make(ZRBCocoaErrorDomain, ZRBCoderInvalidValueError, info.build());
    }
  } catch (const std::exception& e) {
    fail(e.what());
  }
  stack_.clear();
}

const std::vector<std::uint8_t>& ZRBKeyedArchiver::encodedData() {
  finishEncoding();
  return data_;
}

std::optional<std::vector<std::uint8_t>> ZRBKeyedArchiver::archivedDataWithRootObject(
    const ZRBCoding& root, bool requiringSecureCoding, ZRBErrorPtr* error) {
  ZRBKeyedArchiver archiver(requiringSecureCoding);
  archiver.encodeObject(root, ZRBKeyedArchiveRootObjectKey);
  archiver.finishEncoding();
  if (archiver.error()) {
    ZRBSetError(error, archiver.error());
    return std::nullopt;
  }
  return std::move(archiver.data_);
}

bool ZRBKeyedArchiver::archiveRootObjectToFile(const ZRBCoding& root, const std::string& path,
                                               ZRBErrorPtr* error) {
  auto data = archivedDataWithRootObject(root, false, error);
  if (!data) return false;
  // Written beside the target and renamed over it, so readers never see half an archive.
  const std::string temporary = path + ".tmp-" + std::to_string(::getpid());
  std::FILE* file = std::fopen(temporary.c_str(), "wb");
  if (!file) {
    ZRBSetError(error, ZRBError::fromErrno(errno, path));
    return false;
  }
  const bool written = std::fwrite(data->data(), 1, data->size(), file) == data->size();
  const int savedErrno = errno;
  if (std::fclose(file) != 0 || !written) {
    ZRBSetError(error, ZRBError::fromErrno(written ? errno : savedErrno, path));
    std::remove(temporary.c_str());
    return false;
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    ZRBSetError(error, ZRBError::fromErrno(errno, path));
    std::remove(temporary.c_str());
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// ZRBKeyedUnarchiver

void ZRBKeyedUnarchiver::registerClass(std::string_view name, Factory factory, bool supportsSecureCoding) {
  Registry& r = registry();
  std::unique_lock lock(r.mutex);
  r.classes.insert_or_assign(std::string(name), Registration{std::move(factory), supportsSecureCoding});
}

bool ZRBKeyedUnarchiver::isClassRegistered(std::string_view name) { return lookup(name).has_value(); }

bool ZRBKeyedUnarchiver::classSupportsSecureCoding(std::string_view name) {
  auto registration = lookup(name);
  return registration && registration->supportsSecureCoding;
}

ZRBKeyedUnarchiver::ZRBKeyedUnarchiver(std::span<const std::uint8_t> data, ZRBErrorPtr* error) {
  ZRBErrorPtr plistError;
  archive_ = ZRBPropertyListSerialization::propertyListWithData(data, ZRBPropertyListImmutable, nullptr,
                                                                &plistError);
  const ZRBValue& version = archive_[kVersionKey];
  valid_ = archive_[kArchiverKey].stringView() == kArchiverName && version.kind() == ZRBValueKind::Int &&
           version.intValue() == kArchiveVersion && archive_[kTopKey].isDictionary();
  if (!valid_) {
    ZRBDictionaryBuilder info(coderError(ZRBCoderReadCorruptError, "")->userInfo());
    info.set(ZRBDebugDescriptionErrorKey, ZRBValue(plistError ? "the data is not a property list"
                                                              : "the property list is not a keyed archive"));
    if (plistError) info.set(ZRBUnderlyingErrorKey, ZRBValue(std::const_pointer_cast<ZRBError>(plistError)));
    error_ = ZRBError::make(ZRBCocoaErrorDomain, ZRBCoderReadCorruptError, info.build());
    ZRBSetError(error, error_);
    archive_ = ZRBValue();
    return;
  }
  stack_.push_back(&archive_[kTopKey]);
}

const ZRBValue& ZRBKeyedUnarchiver::current() const {
  static const ZRBValue kNothing;
  return stack_.empty() ? kNothing : *stack_.back();
}

void ZRBKeyedUnarchiver::fail(std::string_view reason) {
  if (!error_) error_ = coderError(ZRBCoderReadCorruptError, reason);
}

void ZRBKeyedUnarchiver::failWithError(ZRBErrorPtr error) {
  if (!error_) error_ = error ? std::move(error) : coderError(ZRBCoderReadCorruptError, "decoding refused");
}

void ZRBKeyedUnarchiver::failClassMismatch(std::string_view key, const std::string& className) {
  fail("value for key '" + std::string(key) + "' is of unexpected class '" + className + "'");
}

void ZRBKeyedUnarchiver::reportRootFailure(ZRBErrorPtr* error) const {
  ZRBSetError(error,
              error_ ? error_ : coderError(ZRBCoderValueNotFoundError, "the archive holds no root object"));
}

bool ZRBKeyedUnarchiver::containsValueForKey(std::string_view key) const {
  return current().contains(escapeKey(key));
}

std::optional<bool> ZRBKeyedUnarchiver::decodeBool(std::string_view key) const {
  const ZRBValue& v = current()[escapeKey(key)];
  if (!v.isBool()) return std::nullopt;
  return v.boolValue();
}

std::optional<std::int64_t> ZRBKeyedUnarchiver::decodeInteger(std::string_view key) const {
  const ZRBValue& v = current()[escapeKey(key)];
  if (v.kind() == ZRBValueKind::Int) return v.intValue();
  if (v.kind() == ZRBValueKind::UInt && v.uintValue() <= static_cast<unsigned long long>(INT64_MAX)) {
    return static_cast<std::int64_t>(v.uintValue());
  }
  return std::nullopt;
}

std::optional<double> ZRBKeyedUnarchiver::decodeDouble(std::string_view key) const {
  const ZRBValue& v = current()[escapeKey(key)];
  if (v.kind() == ZRBValueKind::Double || v.isInteger()) return v.doubleValue();
  return std::nullopt;
}

std::optional<std::string> ZRBKeyedUnarchiver::decodeString(std::string_view key) const {
  return current()[escapeKey(key)].optionalString();
}

ZRBValue ZRBKeyedUnarchiver::decodeValue(std::string_view key, ZRBValueClass expected) {
  const ZRBValue& archived = current()[escapeKey(key)];
  if (archived.isAbsent()) return {};
  try {
    ZRBValue value = unarchivedValue(archived, 0);
    if (value.isAbsent() || !value.isKindOf(expected)) return {};
    return value;
  } catch (const std::exception& e) {
    fail(e.what());
    return {};
  }
}

ZRBObjectPtr ZRBKeyedUnarchiver::decodeObject(std::string_view key) {
  const ZRBValue& archived = current()[escapeKey(key)];
  if (archived.isAbsent()) return nullptr;
  try {
    return objectFromArchived(archived);
  } catch (const std::exception& e) {
    fail(e.what());
    return nullptr;
  }
}

// Null for the null marker (no failure) and for anything undecodable (failure recorded).
ZRBObjectPtr ZRBKeyedUnarchiver::objectFromArchived(const ZRBValue& archived) {
  if (archived.isDictionary() && archived.count() == 1 && archived[kNullKey].isBool()) return nullptr;
  const ZRBValue& className = archived[kClassKey];
  if (!archived.isDictionary() || !className.isString()) {
    fail("the archived value is not an object");
    return nullptr;
  }
  const std::string name = className.string();
  auto registration = lookup(name);
  if (!registration || !registration->factory) {
    fail("cannot decode class '" + name + "': it is not registered");
    return nullptr;
  }
  if (requiresSecureCoding_ && !registration->supportsSecureCoding) {
    fail("this decoder requires secure coding; class '" + name + "' is not registered for it");
    return nullptr;
  }
  if (stack_.size() > kMaxObjectDepth) {
    fail("objects nested too deep");
    return nullptr;
  }
  stack_.push_back(&archived);
  ZRBObjectPtr object;
  try {
    object = registration->factory(*this);
  } catch (const std::exception& e) {
    fail("decoding class '" + name + "' threw: " + e.what());
  } catch (...) {
    fail("decoding class '" + name + "' threw");
  }
  stack_.pop_back();
  if (!object) fail("class '" + name + "' refused to decode");
  return object;
}

// The inverse of ZRBKeyedArchiver::archivedValue; absent (failure recorded) when malformed.
ZRBValue ZRBKeyedUnarchiver::unarchivedValue(const ZRBValue& archived, int depth) {
  if (depth > kMaxValueDepth) {
    fail("value nested too deep");
    return {};
  }
  switch (archived.kind()) {
    case ZRBValueKind::Array: {
      ZRBArrayBuilder items;
      items.reserve(archived.count());
      for (const ZRBValue& item : archived.items()) {
        ZRBValue value = unarchivedValue(item, depth + 1);
        if (value.isAbsent()) return {};
        items.add(std::move(value));
      }
      return items.build();
    }
    case ZRBValueKind::Dictionary: {
      if (archived.contains(kClassKey)) {
        ZRBObjectPtr object = objectFromArchived(archived);
        return object ? ZRBValue(std::move(object)) : ZRBValue();
      }
      if (archived.count() == 1) {
        const auto& [key, inner] = archived.entries()[0];
        if (key.stringView() == kNullKey && inner.isBool()) return ZRBValue::null();
        if (key.stringView() == kDateKey && inner.kind() == ZRBValueKind::Double) {
          return ZRBValue(ZRBDate::fromReferenceDate(inner.doubleValue()));
        }
        if (key.stringView() == kSetKey && inner.isArray()) {
          ZRBValue items = unarchivedValue(inner, depth + 1);
          return items.isAbsent()
                     ? ZRBValue()
                     : ZRBValue::set(std::vector<ZRBValue>(items.items().begin(), items.items().end()));
        }
      }
      ZRBDictionaryBuilder entries;
      entries.reserve(archived.count());
      for (const auto& [key, item] : archived.entries()) {
        std::string_view text = key.stringView();
        if (isReservedKey(text)) {
          fail("unknown marker '" + std::string(text) + "' in archived value");
          return {};
        }
        ZRBValue value = unarchivedValue(item, depth + 1);
        if (value.isAbsent()) return {};
        entries.append(ZRBValue(text.starts_with('$') ? text.substr(1) : text), std::move(value));
      }
      return entries.build();
    }
    default: return archived;
  }
}

ZRBObjectPtr ZRBKeyedUnarchiver::unarchiveObjectWithFile(const std::string& path, ZRBErrorPtr* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    ZRBSetError(error, ZRBError::fromErrno(errno ? errno : ENOENT, path));
    return nullptr;
  }
  std::vector<std::uint8_t> data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ZRBKeyedUnarchiver unarchiver(data, error);
  if (!unarchiver.isValid()) return nullptr;
  unarchiver.setRequiresSecureCoding(false);
  return unarchiver.finishRoot(unarchiver.decodeObject(ZRBKeyedArchiveRootObjectKey), error);
}
