// ZRBStringTransform: text through an ICU transform ("Any-Latin; Latin-ASCII; [:^ASCII:] Remove"
// romanises every script, then spells it in ASCII and drops what is left over).
//
// Thread-safe. Each transform is compiled once per process and kept.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// The UTF-8 text transformed; nullopt when ICU does not accept the transform (the caller keeps its
// text then) or the text is not valid UTF-8.
std::optional<std::string> ZRBStringTransform(std::string_view text, std::string_view transform);
