// Model classes enter the run-time registry from their Boost.Describe declaration:
//
//   struct Camera {
//     std::string name;
//     int fps = 0;
//     std::vector<Storage> storages;
//     bool isOnline() const;
//   };
//   BOOST_DESCRIBE_STRUCT(Camera, (), (name, fps, storages, isOnline))
//   ZRBMD_MODEL(Camera);
//
// ZRBMD_MODEL goes beside the declaration (same namespace, unqualified name). It names the class
// and registers it when the program (or library) is loaded, so it can be looked up by name. Each
// described data member becomes an instance variable and a property whose type encoding follows
// the member's C++ type; each described member function becomes a method (static ones on the
// metaclass). The first described base that is itself a model becomes the superclass; other
// models descend from the root class. Property attributes come from the type (strings, containers
// and models are copies, shared_ptr strong, weak_ptr weak; all are non-atomic) and from the class's
// modelOptions (read-only, custom getter and setter).
//
// Encodings: bool "B", char "c", unsigned char "C", 16/32/64-bit integers "s"/"S", "i"/"I",
// "q"/"Q", float "f", double "d", long double "D", enums as their underlying type, std::string
// @"ZRBString", optional numbers @"ZRBNumber", ZRBDate @"ZRBDate", ZRBURLPtr @"ZRBURL", sequences
// @"ZRBArray", sets @"ZRBSet", string-keyed maps @"ZRBDictionary", models (by value, optional or
// through shared_ptr / weak_ptr) @"Name", a pointer to a ZRBMD_PROTOCOL type @"<Name>", ZRBValue and
// other objects "@", std::function "@?", C strings "*", other pointers "^" and the pointee, a class
// handle "#", ZRBMDSelector ":", other structs "{?}".
#pragma once

#include <bit>
#include <boost/describe.hpp>
#include <boost/mp11/algorithm.hpp>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "model/model_options.h"
#include "model/runtime.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"

// A member whose type is a selector (encoded ":").
struct ZRBMDSelector {
  std::string name;
  friend bool operator==(const ZRBMDSelector&, const ZRBMDSelector&) = default;
};

// After BOOST_DESCRIBE_STRUCT / BOOST_DESCRIBE_CLASS, in the class's namespace.
#define ZRBMD_MODEL(Type)                                                                            \
  [[maybe_unused]] inline constexpr std::string_view zrbmd_class_name(const Type*) { return #Type; } \
  [[maybe_unused]] inline const bool zrbmd_registered_##Type = (ZRBMDClassFor<Type>(), true)

// Marks an interface type as a protocol: a pointer to it is encoded @"<Name>".
#define ZRBMD_PROTOCOL(Type) \
  [[maybe_unused]] inline constexpr std::string_view zrbmd_protocol_name(const Type*) { return #Type; }

template <typename T>
concept ZRBMDModelType = requires(const T* p) {
  zrbmd_class_name(p);
}
&&boost::describe::has_describe_members<T>::value;

template <typename T>
concept ZRBMDProtocolType = requires(const T* p) {
  zrbmd_protocol_name(p);
};

template <ZRBMDModelType T>
const ZRBMDClass* ZRBMDClassFor();

template <typename T>
const ZRBMDModelOptionsBase& ZRBMDModelOptionsFor() {
  static const ZRBMDModelOptions<T> options = [] {
    ZRBMDModelOptions<T> o;
    if constexpr (requires { T::modelOptions(o); }) T::modelOptions(o);
    return o;
  }();
  return options;
}

namespace zrbmd_detail {

template <typename T, template <typename...> class Template>
struct IsSpecialization : std::false_type {};
template <template <typename...> class Template, typename... Args>
struct IsSpecialization<Template<Args...>, Template> : std::true_type {};
template <typename T, template <typename...> class Template>
inline constexpr bool isSpecialization = IsSpecialization<std::remove_cv_t<T>, Template>::value;

template <typename T>
inline constexpr bool isSequence =
    isSpecialization<T, std::vector> || isSpecialization<T, std::deque> || isSpecialization<T, std::list>;
template <typename T>
inline constexpr bool isSet = isSpecialization<T, std::set> || isSpecialization<T, std::unordered_set>;
template <typename T>
inline constexpr bool isMap = isSpecialization<T, std::map> || isSpecialization<T, std::unordered_map>;

template <typename T>
std::string encodingOf();

template <typename T>
std::string objectEncodingOf() {
  if constexpr (ZRBMDModelType<T>)
    return "@\"" + std::string(zrbmd_class_name(static_cast<const T*>(nullptr))) + "\"";
  else if constexpr (ZRBMDProtocolType<T>)
    return "@\"<" + std::string(zrbmd_protocol_name(static_cast<const T*>(nullptr))) + ">\"";
  else if constexpr (std::is_same_v<T, ZRBURL>)
    return "@\"ZRBURL\"";
  else
    return "@";
}

template <typename T>
std::string encodingOf() {
  using U = std::remove_cv_t<T>;
  if constexpr (std::is_void_v<U>)
    return "v";
  else if constexpr (std::is_same_v<U, bool>)
    return "B";
  else if constexpr (std::is_same_v<U, char> || std::is_same_v<U, signed char>)
    return "c";
  else if constexpr (std::is_same_v<U, unsigned char>)
    return "C";
  else if constexpr (std::is_enum_v<U>)
    return encodingOf<std::underlying_type_t<U>>();
  else if constexpr (std::is_integral_v<U>) {
    constexpr bool s = std::is_signed_v<U>;
    if constexpr (sizeof(U) == 2)
      return s ? "s" : "S";
    else if constexpr (sizeof(U) == 4)
      return s ? "i" : "I";
    else
      return s ? "q" : "Q";
  } else if constexpr (std::is_same_v<U, float>)
    return "f";
  else if constexpr (std::is_same_v<U, double>)
    return "d";
  else if constexpr (std::is_same_v<U, long double>)
    return "D";
  else if constexpr (std::is_same_v<U, const ZRBMDClass*> || std::is_same_v<U, ZRBMDClass*>)
    return "#";
  else if constexpr (std::is_same_v<U, ZRBMDSelector>)
    return ":";
  else if constexpr (isSpecialization<U, std::function>)
    return "@?";
  else if constexpr (std::is_same_v<U, const char*> || std::is_same_v<U, char*>)
    return "*";
  else if constexpr (std::is_pointer_v<U>)
    return "^" + encodingOf<std::remove_pointer_t<U>>();
  else if constexpr (std::is_same_v<U, std::string>)
    return "@\"ZRBString\"";
  else if constexpr (std::is_same_v<U, ZRBDate>)
    return "@\"ZRBDate\"";
  else if constexpr (std::is_same_v<U, ZRBValue>)
    return "@";
  else if constexpr (isSpecialization<U, std::optional>) {
    using V = typename U::value_type;
    if constexpr (std::is_arithmetic_v<V>)
      return "@\"ZRBNumber\"";
    else
      return encodingOf<V>();
  } else if constexpr (isSequence<U>)
    return "@\"ZRBArray\"";
  else if constexpr (isSet<U>)
    return "@\"ZRBSet\"";
  else if constexpr (isMap<U>)
    return "@\"ZRBDictionary\"";
  else if constexpr (isSpecialization<U, std::shared_ptr> || isSpecialization<U, std::weak_ptr>)
    return objectEncodingOf<std::remove_cv_t<typename U::element_type>>();
  else if constexpr (ZRBMDModelType<U>)
    return objectEncodingOf<U>();
  else if constexpr (std::is_array_v<U>)
    return "[" + std::to_string(std::extent_v<U>) + encodingOf<std::remove_extent_t<U>>() + "]";
  else if constexpr (std::is_union_v<U>)
    return "(?)";
  else
    return "{?}";
}

template <typename C, typename M>
M memberType(M C::*);

template <typename F>
struct FunctionTraits;
template <typename R, typename C, typename... A>
struct FunctionTraits<R (C::*)(A...)> {
  using Return = R;
  using Arguments = boost::mp11::mp_list<A...>;
};
template <typename R, typename C, typename... A>
struct FunctionTraits<R (C::*)(A...) const> : FunctionTraits<R (C::*)(A...)> {};
template <typename R, typename C, typename... A>
struct FunctionTraits<R (C::*)(A...) noexcept> : FunctionTraits<R (C::*)(A...)> {};
template <typename R, typename C, typename... A>
struct FunctionTraits<R (C::*)(A...) const noexcept> : FunctionTraits<R (C::*)(A...)> {};
template <typename R, typename... A>
struct FunctionTraits<R (*)(A...)> {
  using Return = R;
  using Arguments = boost::mp11::mp_list<A...>;
};
template <typename R, typename... A>
struct FunctionTraits<R (*)(A...) noexcept> : FunctionTraits<R (*)(A...)> {};

// One distinct address per described function: the method's implementation handle.
template <auto Pointer>
struct ImplementationTag {
  static constexpr char value = 0;
};

template <typename Descriptor>
ZRBMDMethod methodOf() {
  using Traits = FunctionTraits<std::remove_cv_t<decltype(Descriptor::pointer)>>;
  ZRBMDMethod method;
  method.name = Descriptor::name;
  method.imp = &ImplementationTag<Descriptor::pointer>::value;
  method.returnTypeEncoding = encodingOf<std::remove_cvref_t<typename Traits::Return>>();
  method.argumentTypeEncodings = {"@", ":"};
  boost::mp11::mp_for_each<boost::mp11::mp_transform<std::type_identity, typename Traits::Arguments>>(
      [&](auto argument) {
        method.argumentTypeEncodings.push_back(
            encodingOf<std::remove_cvref_t<typename decltype(argument)::type>>());
      });
  return method;
}

template <typename M>
void addTypeAttributes(std::vector<ZRBMDPropertyAttribute>& attributes) {
  if constexpr (isSpecialization<M, std::weak_ptr>)
    attributes.push_back({'W', ""});
  else if constexpr (isSpecialization<M, std::shared_ptr>)
    attributes.push_back({'&', ""});
  else if constexpr (!std::is_scalar_v<M> && !isSpecialization<M, std::function>)
    attributes.push_back({'C', ""});
}

template <typename T>
const ZRBMDClass* registerModelClass() {
  namespace bd = boost::describe;
  const ZRBMDClass* superclass = nullptr;
  boost::mp11::mp_for_each<bd::describe_bases<T, bd::mod_public>>([&](auto base) {
    using B = typename decltype(base)::type;
    if constexpr (ZRBMDModelType<B>)
      if (!superclass) superclass = ZRBMDClassFor<B>();
  });
  const ZRBMDModelOptionsBase& options = ZRBMDModelOptionsFor<T>();
  ZRBMDClassMembers members;

  boost::mp11::mp_for_each<bd::describe_members<T, bd::mod_any_access>>([&](auto member) {
    using D = decltype(member);
    using M = decltype(memberType(D::pointer));
    static_assert(sizeof(D::pointer) == sizeof(std::ptrdiff_t));
    std::string name = D::name;
    std::string encoding = encodingOf<M>();
    // A data member pointer holds the member's offset on the platforms this library builds for.
    members.ivars.push_back({name, std::bit_cast<std::ptrdiff_t>(D::pointer), encoding});
    std::vector<ZRBMDPropertyAttribute> attributes{{'T', encoding}};
    if (options.readonly.count(name)) attributes.push_back({'R', ""});
    addTypeAttributes<M>(attributes);
    attributes.push_back({'N', ""});
    if (auto g = options.getters.find(name); g != options.getters.end())
      attributes.push_back({'G', g->second});
    if (auto s = options.setters.find(name); s != options.setters.end())
      attributes.push_back({'S', s->second});
    attributes.push_back({'V', name});
    members.properties.push_back({name, std::move(attributes)});
  });
  boost::mp11::mp_for_each<bd::describe_members<T, bd::mod_any_access | bd::mod_function>>(
      [&](auto method) { members.methods.push_back(methodOf<decltype(method)>()); });
  boost::mp11::mp_for_each<bd::describe_members<T, bd::mod_any_access | bd::mod_function | bd::mod_static>>(
      [&](auto method) { members.classMethods.push_back(methodOf<decltype(method)>()); });
  // Entered whole, so that nobody sees the class before its members.
  return ZRBMDClass::registerClass(zrbmd_class_name(static_cast<const T*>(nullptr)), superclass,
                                   std::move(members));
}

}  // namespace zrbmd_detail

// The registered class of a model type (registered on first use).
template <ZRBMDModelType T>
const ZRBMDClass* ZRBMDClassFor() {
  static const ZRBMDClass* cls = zrbmd_detail::registerModelClass<T>();
  return cls;
}
