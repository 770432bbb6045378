// ZRBLocale: the user's preferred languages, as BCP 47 tags.
//
// The list comes from the environment, in the order gettext consults it: every entry of LANGUAGE
// (colon-separated), then the first set one of LC_ALL, LC_MESSAGES and LANG. POSIX locale names
// are turned into language tags ("en_US.UTF-8" -> "en-US", "sr_RS@latin" -> "sr-Latn-RS");
// "C" and "POSIX" stand for English and count only when nothing else is named. Duplicates are
// dropped. The list is never empty: "en" when nothing usable is set. The host may set the list
// itself (tests do).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class ZRBLocale {
 public:
  // Read on every call (the environment is cheap to ask), unless the host set a list.
  static std::vector<std::string> preferredLanguages();
  // A non-empty list replaces the environment's; nullopt or an empty list returns to it.
  static void setPreferredLanguages(std::optional<std::vector<std::string>> languages);
  // Counts setPreferredLanguages calls, so that values derived from the list once per process
  // (the serializers' "Accept-Language") know when to derive them again.
  static std::uint64_t overrideGeneration();

  // The language tag of a POSIX locale name; nullopt for an empty or unusable name. "C" and
  // "POSIX" (with any codeset) give "en".
  static std::optional<std::string> languageTagFromPOSIXLocale(std::string_view name);
};
