// ZRBStringWithFormat: printf-style formatting with the platform's %@ directive.
//
// The format takes the C conversions (d i u o x X c e E f F g G a A s p %) with their flags, width,
// precision ("*" included) and length modifiers, which are accepted and ignored since every
// argument carries its own type. %@ inserts the argument's description: a ZRBValue's description(),
// an object's description(), a string as itself, a number in decimal; a null object, an empty
// optional string or a null C string print "(null)".
//
// Arguments are type-checked at the call (ZRBFormatArgument accepts only the kinds above), never
// read through a va_list, so a mismatch cannot crash: a number given for %@ or %s prints as its
// description, a string given for a numeric conversion prints as itself, and a directive without
// an argument prints nothing.
#pragma once

#include <concepts>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

class ZRBFormatArgument {
 public:
  enum class Kind { Signed, Unsigned, Double, Text, NullText, Value, Object, Pointer };

  template <std::signed_integral T>
  ZRBFormatArgument(T value) noexcept : kind_(Kind::Signed), signed_(value) {}
  template <std::unsigned_integral T>
  ZRBFormatArgument(T value) noexcept : kind_(Kind::Unsigned), unsigned_(value) {}
  template <std::floating_point T>
  ZRBFormatArgument(T value) noexcept : kind_(Kind::Double), double_(static_cast<double>(value)) {}
  template <typename T>
  requires std::is_enum_v<T> ZRBFormatArgument(T value)
  noexcept : ZRBFormatArgument(static_cast<std::underlying_type_t<T>>(value)) {}

  ZRBFormatArgument(const char* text) noexcept
      : kind_(text ? Kind::Text : Kind::NullText), text_(text ? text : "") {}
  ZRBFormatArgument(std::string_view text) noexcept : kind_(Kind::Text), text_(text) {}
  ZRBFormatArgument(const std::string& text) noexcept : kind_(Kind::Text), text_(text) {}
  ZRBFormatArgument(const std::optional<std::string>& text) noexcept
      : kind_(text ? Kind::Text : Kind::NullText),
        text_(text ? std::string_view(*text) : std::string_view()) {}

  ZRBFormatArgument(const ZRBValue& value) noexcept : kind_(Kind::Value), value_(&value) {}
  template <typename T>
  requires std::is_base_of_v<ZRBObject, T> ZRBFormatArgument(const std::shared_ptr<T>& object)
  noexcept : kind_(Kind::Object), object_(object.get()) {}
  template <typename T>
  requires std::is_base_of_v<ZRBObject, T> ZRBFormatArgument(const T& object)
  noexcept : kind_(Kind::Object), object_(&object) {}

  // Any other pointer, for %p.
  ZRBFormatArgument(const void* pointer) noexcept : kind_(Kind::Pointer), pointer_(pointer) {}
  ZRBFormatArgument(std::nullptr_t) noexcept : kind_(Kind::NullText) {}

  Kind kind() const noexcept { return kind_; }
  long long signedValue() const noexcept;
  unsigned long long unsignedValue() const noexcept;
  double doubleValue() const noexcept;
  // Numbers, and values holding a number: what the numeric conversions print as numbers.
  bool isNumeric() const noexcept;
  const void* pointerValue() const noexcept { return kind_ == Kind::Pointer ? pointer_ : nullptr; }
  // What %@ prints.
  std::string description() const;

 private:
  Kind kind_;
  union {
    long long signed_ = 0;
    unsigned long long unsigned_;
    double double_;
    const ZRBValue* value_;
    const ZRBObject* object_;
    const void* pointer_;
  };
  std::string_view text_{};
};

// Arguments are only referenced: keep them alive for the call, as a full expression does.
std::string ZRBStringWithFormatArguments(std::string_view format,
                                         std::span<const ZRBFormatArgument> arguments);

template <typename... Args>
std::string ZRBStringWithFormat(std::string_view format, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    return ZRBStringWithFormatArguments(format, {});
  } else {
    const ZRBFormatArgument arguments[] = {ZRBFormatArgument(args)...};
    return ZRBStringWithFormatArguments(format, arguments);
  }
}
