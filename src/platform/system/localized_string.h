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

// The lookup a bundle offers: the translation of `key` in `table`; without one, `value`, or the
// key itself when `value` is empty. An empty key gives `value`; an empty table means the table
// "Localizable". Tables are process-wide text domains, bound as above, whichever bundle asks.
std::string ZRBLocalizedString(std::string_view key, std::string_view value, std::string_view table);
