#include "platform/foundation/string_format.h"

#include <cstdio>
#include <string>
#include <vector>

long long ZRBFormatArgument::signedValue() const noexcept {
  switch (kind_) {
    case Kind::Signed: return signed_;
    case Kind::Unsigned: return static_cast<long long>(unsigned_);
    // Out-of-range doubles would be undefined to convert.
    case Kind::Double: return double_ > -9.2e18 && double_ < 9.2e18 ? static_cast<long long>(double_) : 0;
    case Kind::Value: return value_->intValue();
    default: return 0;
  }
}

unsigned long long ZRBFormatArgument::unsignedValue() const noexcept {
  switch (kind_) {
    case Kind::Signed: return static_cast<unsigned long long>(signed_);
    case Kind::Unsigned: return unsigned_;
    case Kind::Double: return double_ >= 0 && double_ < 1.8e19 ? static_cast<unsigned long long>(double_) : 0;
    case Kind::Value: return value_->uintValue();
    default: return 0;
  }
}

double ZRBFormatArgument::doubleValue() const noexcept {
  switch (kind_) {
    case Kind::Signed: return static_cast<double>(signed_);
    case Kind::Unsigned: return static_cast<double>(unsigned_);
    case Kind::Double: return double_;
    case Kind::Value: return value_->doubleValue();
    default: return 0;
  }
}

bool ZRBFormatArgument::isNumeric() const noexcept {
  switch (kind_) {
    case Kind::Signed:
    case Kind::Unsigned:
    case Kind::Double: return true;
    case Kind::Value: return value_->isNumber();
    default: return false;
  }
}

std::string ZRBFormatArgument::description() const {
  switch (kind_) {
    case Kind::Signed: return std::to_string(signed_);
    case Kind::Unsigned: return std::to_string(unsigned_);
    // Shortest round-trip form, as values describe doubles.
    case Kind::Double: return ZRBValue(double_).description();
    case Kind::Text: return std::string(text_);
    case Kind::NullText: return "(null)";
    case Kind::Value: return value_->description();
    case Kind::Object: return object_ ? object_->description() : "(null)";
    case Kind::Pointer: return ZRBFormatPointer(pointer_);
  }
  return {};
}

namespace {

bool isFlag(char c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\''; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLengthModifier(char c) {
  return c == 'h' || c == 'l' || c == 'q' || c == 'L' || c == 'z' || c == 't' || c == 'j';
}

// One conversion through snprintf: `directive` is "%", flags, width and precision with the "*"s
// already resolved, followed by the length modifier and conversion that fit the value.
template <typename T>
void appendPrintf(std::string& out, const std::string& directive, T value) {
  char small[128];
  int needed = std::snprintf(small, sizeof small, directive.c_str(), value);
  if (needed < 0) return;
  if (static_cast<std::size_t>(needed) < sizeof small) {
    out.append(small, static_cast<std::size_t>(needed));
    return;
  }
  std::vector<char> large(static_cast<std::size_t>(needed) + 1);
  std::snprintf(large.data(), large.size(), directive.c_str(), value);
  out.append(large.data(), static_cast<std::size_t>(needed));
}

}  // namespace

std::string ZRBStringWithFormatArguments(std::string_view format,
                                         std::span<const ZRBFormatArgument> arguments) {
  std::string out;
  out.reserve(format.size() + 16 * arguments.size());
  std::size_t next = 0;
  auto take = [&]() -> const ZRBFormatArgument* {
    return next < arguments.size() ? &arguments[next++] : nullptr;
  };

  std::size_t i = 0;
  while (i < format.size()) {
    std::size_t percent = format.find('%', i);
    if (percent == std::string_view::npos) {
      out.append(format.substr(i));
      break;
    }
    out.append(format.substr(i, percent - i));
    std::size_t start = percent;
    i = percent + 1;

    // Flags, width and precision, kept for snprintf; "*" takes its number from the arguments.
    std::string directive = "%";
    while (i < format.size() && isFlag(format[i])) directive += format[i++];
    auto number = [&]() {
      if (i < format.size() && format[i] == '*') {
        ++i;
        const ZRBFormatArgument* argument = take();
        directive += std::to_string(argument ? argument->signedValue() : 0);
        return;
      }
      while (i < format.size() && isDigit(format[i])) directive += format[i++];
    };
    number();
    if (i < format.size() && format[i] == '.') {
      directive += format[i++];
      number();
    }
    while (i < format.size() && isLengthModifier(format[i])) ++i;
    if (i >= format.size()) {
      out.append(format.substr(start));  // an unfinished directive stays as written
      break;
    }
    char conversion = format[i++];
    if (conversion == '%') {
      out += '%';
      continue;
    }

    const ZRBFormatArgument* argument = take();
    if (!argument) continue;
    bool numeric = argument->isNumeric();
    switch (conversion) {
      case '@': out += argument->description(); break;
      case 's':
      case 'S': appendPrintf(out, directive + "s", argument->description().c_str()); break;
      case 'd':
      case 'i':
      case 'D':
        if (!numeric) {
          out += argument->description();
        } else {
          appendPrintf(out, directive + "lld", argument->signedValue());
        }
        break;
      case 'u':
      case 'U':
      case 'o':
      case 'O':
      case 'x':
      case 'X':
        if (!numeric) {
          out += argument->description();
        } else {
          char c = conversion == 'U' ? 'u' : conversion == 'O' ? 'o' : conversion;
          appendPrintf(out, directive + "ll" + c, argument->unsignedValue());
        }
        break;
      case 'c':
      case 'C': {
        unsigned long long code = argument->unsignedValue();
        if (numeric && code < 0x80) {
          out += static_cast<char>(code);
        } else {
          out += argument->description();
        }
        break;
      }
      case 'e':
      case 'E':
      case 'f':
      case 'F':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        if (!numeric) {
          out += argument->description();
        } else {
          appendPrintf(out, directive + conversion, argument->doubleValue());
        }
        break;
      case 'p': appendPrintf(out, directive + "p", argument->pointerValue()); break;
      default:
        // Unknown conversion: keep the directive, and do not consume its argument.
        --next;
        out.append(format.substr(start, i - start));
        break;
    }
  }
  return out;
}
