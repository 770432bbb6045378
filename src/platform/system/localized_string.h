// ZRBLocalizedString: user-visible texts in the user's language.
//
// The English text is the key and the fall-back. Each table is a gettext text domain of the same
// name ("ZRBNetworking"), bound to the library bundle's "locale" folder when it has one (else
// gettext's standard folder), with UTF-8 output. As with any gettext lookup, translations apply
// only once the program has selected a locale (setlocale(LC_ALL, "")); until then, and for every
// text without a translation, the key comes back unchanged.
#pragma once

#include <string>
#include <string_view>

inline constexpr std::string_view ZRBNetworkingStringTable = "ZRBNetworking";

std::string ZRBLocalizedString(std::string_view key, std::string_view table = ZRBNetworkingStringTable);
