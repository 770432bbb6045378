// ZRBMDModel: typed models from JSON and back, and the everyday operations on models (copy,
// equality, hashing, description, keyed archiving), all driven by the class metadata.
//
// A model is a default-constructible class declared with Boost.Describe and ZRBMD_MODEL
// (class_registration.h), optionally with modelOptions (model_options.h). Mapping from JSON:
// - each mapped property is read from its key (or key path, or the first present candidate key);
//   keys that no property wants are skipped;
// - values convert as API clients need: numbers from numeric text and text from numbers; booleans
//   from true/false, "true"/"false", "yes"/"no" (any case) and the numbers 0 and 1; dates
//   (ZRBDate) from ISO 8601 text or seconds since 1970; URLs (ZRBURLPtr) from URL text; nested
//   models from objects; arrays, sets and string-keyed maps element by element; any JSON into a
//   ZRBValue member;
// - null sets the property to its empty default; a value that does not convert (text that is not a
//   number for an integer, a number outside the property's range, a string where a model or an
//   array is declared) leaves the property as it was, silently; elements of a container that do
//   not convert are left out; fractions are dropped when a number goes into an integer;
// - a model whose willMapJSON hook answers absent, or whose didMapModel hook answers false, is not
//   made; as a nested property it leaves the property as it was;
// - models nested deeper than 512 levels are not read.
// There is no model when the JSON is not an object (for one model) or an array (for several), when
// the text is not well-formed JSON (then `error`, when given, receives an error record of
// ZRBCocoaErrorDomain, code 3840), or when a hook refuses the top-level model. Reading from text
// expects UTF-8 (a byte-order mark is skipped) and walks the document once without building a
// value tree; well-formedness is checked for the whole document's structure and for every value
// that is read.
//
// Writing to JSON puts each mapped property under its (first) key or key path: numbers, booleans,
// strings, dates as ISO 8601 text in UTC, URLs as text, nested models as objects, empty optionals
// and null pointers as null.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "model/model_mapping.h"
#include "platform/foundation/keyed_archiver.h"

namespace zrbmd_detail {

template <typename M>
bool equalMember(const M& a, const M& b);
template <typename M>
std::size_t hashMember(const M& a);
template <typename M>
M copyMember(const M& a);

template <typename T, typename F>
void forEachMember(F&& f) {
  namespace bd = boost::describe;
  boost::mp11::mp_for_each<bd::describe_members<T, bd::mod_any_access | bd::mod_inherited>>(f);
}

inline std::size_t mix(std::size_t seed, std::size_t h) {
  return seed ^ (h + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2));
}

template <typename M>
bool equalMember(const M& a, const M& b) {
  if constexpr (ZRBMDModelType<M>) {
    bool equal = true;
    forEachMember<M>([&](auto d) { equal = equal && equalMember(a.*d.pointer, b.*d.pointer); });
    return equal;
  } else if constexpr (isSpecialization<M, std::shared_ptr>) {
    using E = std::remove_cv_t<typename M::element_type>;
    if constexpr (ZRBMDModelType<E>)
      return a == b || (a && b && equalMember<E>(*a, *b));
    else if constexpr (std::is_base_of_v<ZRBObject, E>)
      return a == b || (a && b && a->isEqual(*b));
    else
      return a == b;
  } else if constexpr (isSpecialization<M, std::weak_ptr>) {
    return !a.owner_before(b) && !b.owner_before(a);
  } else if constexpr (isSpecialization<M, std::function>) {
    return true;  // behaviour, not state
  } else if constexpr (isSpecialization<M, std::optional>) {
    return a.has_value() == b.has_value() && (!a || equalMember(*a, *b));
  } else if constexpr (isSequence<M> || isSpecialization<M, std::set>) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](const auto& x, const auto& y) { return equalMember(x, y); });
  } else if constexpr (isSpecialization<M, std::unordered_set>) {
    if (a.size() != b.size()) return false;
    for (const auto& x : a)
      if (!b.count(x)) return false;
    return true;
  } else if constexpr (isMap<M>) {
    if (a.size() != b.size()) return false;
    for (const auto& [key, x] : a) {
      auto found = b.find(key);
      if (found == b.end() || !equalMember(x, found->second)) return false;
    }
    return true;
  } else if constexpr (requires { a == b; }) {
    return a == b;
  } else {
    return true;  // nothing comparable
  }
}

template <typename M>
std::size_t hashMember(const M& a) {
  if constexpr (ZRBMDModelType<M>) {
    std::size_t seed = 0;
    forEachMember<M>([&](auto d) { seed = mix(seed, hashMember(a.*d.pointer)); });
    return seed;
  } else if constexpr (std::is_floating_point_v<M>) {
    return a == 0 ? 0 : std::hash<M>{}(a);  // 0.0 and -0.0 are equal
  } else if constexpr (isSpecialization<M, std::shared_ptr>) {
    using E = std::remove_cv_t<typename M::element_type>;
    if constexpr (ZRBMDModelType<E>)
      return a ? hashMember<E>(*a) : 0;
    else if constexpr (std::is_base_of_v<ZRBObject, E>)
      return a ? a->hash() : 0;
    else
      return std::hash<M>{}(a);
  } else if constexpr (isSpecialization<M, std::optional>) {
    return a ? mix(1, hashMember(*a)) : 0;
  } else if constexpr (isSequence<M> || isSpecialization<M, std::set> || isSpecialization<M, std::map>) {
    std::size_t seed = a.size();
    for (const auto& x : a) seed = mix(seed, hashMember(x));
    return seed;
  } else if constexpr (isSpecialization<M, std::unordered_set> || isSpecialization<M, std::unordered_map>) {
    std::size_t sum = a.size();
    for (const auto& x : a) sum += hashMember(x);  // order-independent
    return sum;
  } else if constexpr (isSpecialization<M, std::pair>) {
    return mix(hashMember(a.first), hashMember(a.second));
  } else if constexpr (std::is_same_v<M, ZRBValue>) {
    return a.hash();
  } else if constexpr (std::is_same_v<M, ZRBDate>) {
    return hashMember(a.secondsSince1970);
  } else if constexpr (requires { std::hash<M>{}(a); } && !std::is_pointer_v<M>) {
    return std::hash<M>{}(a);
  } else {
    return 0;
  }
}

template <typename M>
M copyMember(const M& a) {
  if constexpr (ZRBMDModelType<M>) {
    M out{};
    forEachMember<M>([&](auto d) {
      using V = decltype(memberType(d.pointer));
      if constexpr (!std::is_const_v<V>) out.*d.pointer = copyMember(a.*d.pointer);
    });
    return out;
  } else if constexpr (isSpecialization<M, std::shared_ptr>) {
    using E = std::remove_cv_t<typename M::element_type>;
    if constexpr (ZRBMDModelType<E>)
      return a ? std::make_shared<E>(copyMember<E>(*a)) : nullptr;
    else
      return a;
  } else if constexpr (isSpecialization<M, std::optional>) {
    return a ? M(copyMember(*a)) : M();
  } else if constexpr (isSequence<M>) {
    M out;
    for (const auto& x : a) out.push_back(copyMember(x));
    return out;
  } else {
    return a;
  }
}

// Archives a model as an object of its class: each mapped property under its name.
template <typename T>
class ArchivedModel final : public ZRBObject, public ZRBCoding {
 public:
  T model{};

  std::string className() const override { return planFor<T>().className; }
  std::string codingClassName() const override { return planFor<T>().className; }
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override {
    for (const PropertySlot& slot : planFor<T>().properties)
      coder.encodeValue(slot.makeValue(&model, true, 0), slot.name);
  }
  static std::shared_ptr<ArchivedModel> initWithCoder(ZRBKeyedUnarchiver& coder) {
    auto archived = std::make_shared<ArchivedModel>();
    Context c;
    for (const PropertySlot& slot : planFor<T>().properties) {
      ZRBValue v = coder.decodeValue(slot.name, ZRBValueClass::Object);
      if (!v.isAbsent()) slot.readValue(&archived->model, v, c);
    }
    return archived;
  }
  static void registerForDecoding() {
    static const bool registered = [] {
      ZRBKeyedUnarchiver::registerClass(
          planFor<T>().className,
          [](ZRBKeyedUnarchiver& coder) -> ZRBObjectPtr { return initWithCoder(coder); });
      return true;
    }();
    (void)registered;
  }
};

}  // namespace zrbmd_detail

class ZRBMDModel {
 public:
  ZRBMDModel() = delete;

  // ---- JSON to models ----
  template <ZRBMDModelType T>
  static std::optional<T> modelWithJSON(std::string_view json, ZRBErrorPtr* error = nullptr) {
    std::optional<T> out;
    bool ok = readDocument(json, error, [&](zrbmd_detail::od::value& root, zrbmd_detail::Context& c) {
      T model{};
      if (!zrbmd_detail::readModel(model, root, c)) return false;
      out = std::move(model);
      return true;
    });
    if (!ok) out.reset();
    return out;
  }
  template <ZRBMDModelType T>
  static std::optional<T> modelWithJSON(std::span<const std::uint8_t> json, ZRBErrorPtr* error = nullptr) {
    return modelWithJSON<T>(std::string_view(reinterpret_cast<const char*>(json.data()), json.size()), error);
  }
  // From an already decoded value (a dictionary).
  template <ZRBMDModelType T>
  static std::optional<T> modelWithValue(const ZRBValue& value) {
    zrbmd_detail::Context c;
    T model{};
    if (!zrbmd_detail::readModel(model, value, c)) return std::nullopt;
    return model;
  }
  // From a JSON array: one model per element that maps (others are left out).
  template <ZRBMDModelType T>
  static std::optional<std::vector<T>> modelsWithJSON(std::string_view json, ZRBErrorPtr* error = nullptr) {
    std::optional<std::vector<T>> out;
    bool ok = readDocument(json, error, [&](zrbmd_detail::od::value& root, zrbmd_detail::Context& c) {
      std::vector<T> models;
      if (!zrbmd_detail::Codec<std::vector<T>>::read(models, root, c)) return false;
      out = std::move(models);
      return true;
    });
    if (!ok) out.reset();
    return out;
  }
  template <ZRBMDModelType T>
  static std::optional<std::vector<T>> modelsWithJSON(std::span<const std::uint8_t> json,
                                                      ZRBErrorPtr* error = nullptr) {
    return modelsWithJSON<T>(std::string_view(reinterpret_cast<const char*>(json.data()), json.size()),
                             error);
  }
  template <ZRBMDModelType T>
  static std::optional<std::vector<T>> modelsWithValue(const ZRBValue& value) {
    if (!value.isArray()) return std::nullopt;
    zrbmd_detail::Context c;
    std::vector<T> models;
    zrbmd_detail::Codec<std::vector<T>>::read(models, value, c);
    return models;
  }

  // ---- models to JSON ----
  template <ZRBMDModelType T>
  static ZRBValue JSONValue(const T& model) {
    return zrbmd_detail::modelValue(model, false, 0);
  }
  template <ZRBMDModelType T>
  static ZRBValue JSONValue(const std::vector<T>& models) {
    return zrbmd_detail::Codec<std::vector<T>>::value(models, false, 0);
  }
  template <ZRBMDModelType T>
  static std::string JSONString(const T& model) {
    std::string out;
    zrbmd_detail::writeModel(model, out, 0);
    return out;
  }
  template <ZRBMDModelType T>
  static std::string JSONString(const std::vector<T>& models) {
    std::string out;
    zrbmd_detail::Codec<std::vector<T>>::write(models, out, 0);
    return out;
  }

  // ---- operations on any model, over all its described members ----
  // A deep copy: nested models held through shared_ptr are copied too.
  template <ZRBMDModelType T>
  static T copy(const T& model) {
    return zrbmd_detail::copyMember(model);
  }
  // Member by member; nested models by value, optionals and containers by content; floating-point
  // members as numbers (0.0 == -0.0); weak pointers by owner; callbacks do not take part.
  template <ZRBMDModelType T>
  static bool isEqual(const T& a, const T& b) {
    return zrbmd_detail::equalMember(a, b);
  }
  // Agrees with isEqual: equal models have equal hashes.
  template <ZRBMDModelType T>
  static std::size_t hash(const T& model) {
    return zrbmd_detail::hashMember(model);
  }
  // "<ClassName: 0x...> {...}": the address, then the mapped properties as a dictionary.
  template <ZRBMDModelType T>
  static std::string description(const T& model) {
    return "<" + zrbmd_detail::planFor<T>().className + ": " + ZRBFormatPointer(&model) + "> " +
           zrbmd_detail::modelValue(model, true, 0).description();
  }

  // ---- keyed archiving ----
  // The model as the root object of a keyed archive, each mapped property under its name.
  template <ZRBMDModelType T>
  static std::optional<std::vector<std::uint8_t>> archivedData(const T& model, ZRBErrorPtr* error = nullptr) {
    zrbmd_detail::ArchivedModel<T>::registerForDecoding();
    zrbmd_detail::ArchivedModel<T> archived;
    archived.model = model;
    return ZRBKeyedArchiver::archivedDataWithRootObject(archived, true, error);
  }
  // Null with `error` set when the bytes are not an archive of this class.
  template <ZRBMDModelType T>
  static std::optional<T> unarchivedModel(std::span<const std::uint8_t> data, ZRBErrorPtr* error = nullptr) {
    zrbmd_detail::ArchivedModel<T>::registerForDecoding();
    auto archived = ZRBKeyedUnarchiver::unarchivedObjectOfClass<zrbmd_detail::ArchivedModel<T>>(data, error);
    if (!archived) return std::nullopt;
    return std::move(archived->model);
  }

 private:
  // False when the text is not well-formed JSON (with `error` set). `read` answers whether it read
  // the whole root value; only then can trailing text be told from an unread root.
  template <typename Read>
  static bool readDocument(std::string_view json, ZRBErrorPtr* error, Read read) {
    zrbmd_detail::DocumentLease lease;
    zrbmd_detail::od::document document;
    if (!lease.open(json, document, error)) return false;
    zrbmd_detail::od::json_type type;
    if (auto e = document.type().get(type)) {
      if (error) *error = zrbmd_detail::malformedJSONError(e);
      return false;
    }
    // A scalar document is well-formed JSON but neither a model nor a list of them.
    if (type != zrbmd_detail::od::json_type::object && type != zrbmd_detail::od::json_type::array)
      return true;
    zrbmd_detail::od::value root;
    if (auto e = document.get_value().get(root)) {
      if (error) *error = zrbmd_detail::malformedJSONError(e);
      return false;
    }
    zrbmd_detail::Context c;
    bool consumed = read(root, c);
    if (!c.failed && consumed && document.current_location().error() != simdjson::OUT_OF_BOUNDS)
      c.failed = true;
    if (c.failed && error) *error = zrbmd_detail::malformedJSONError("The document is not well-formed JSON.");
    return !c.failed;
  }
};
