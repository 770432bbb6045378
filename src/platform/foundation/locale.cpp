#include "platform/foundation/locale.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>

namespace {

std::mutex& overrideMutex() {
  static std::mutex mutex;
  return mutex;
}

std::atomic<std::uint64_t> overrideChanges{0};

std::optional<std::vector<std::string>>& overrideList() {
  static std::optional<std::vector<std::string>> list;
  return list;
}

bool isAlpha(std::string_view s) {
  return !s.empty() &&
         std::all_of(s.begin(), s.end(), [](char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; });
}

bool isAlnum(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
    return ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') || (c >= '0' && c <= '9');
  });
}

std::string cased(std::string_view s, bool upper) {
  std::string out(s);
  for (char& c : out) {
    if (upper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    if (!upper && c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return out;
}

// The script subtag a glibc locale modifier stands for.
std::optional<std::string> scriptFromModifier(std::string_view modifier) {
  std::string m = cased(modifier, false);
  if (m == "latin") return "Latn";
  if (m == "cyrillic") return "Cyrl";
  if (m == "devanagari") return "Deva";
  if (m == "arabic") return "Arab";
  return std::nullopt;
}

bool isPOSIXDefault(std::string_view name) {
  std::string_view base = name.substr(0, name.find_first_of(".@"));
  return base == "C" || base == "POSIX";
}

}  // namespace

std::optional<std::string> ZRBLocale::languageTagFromPOSIXLocale(std::string_view name) {
  if (name.empty()) return std::nullopt;
  if (isPOSIXDefault(name)) return "en";
  std::string_view modifier;
  if (auto at = name.find('@'); at != std::string_view::npos) {
    modifier = name.substr(at + 1);
    name = name.substr(0, at);
  }
  name = name.substr(0, name.find('.'));
  // Already a tag ("pt-BR") or a locale name ("pt_BR").
  std::string_view language = name.substr(0, name.find_first_of("_-"));
  if (!isAlpha(language) || language.size() < 2 || language.size() > 8) return std::nullopt;
  std::string tag = cased(language, false);
  std::string_view rest =
      language.size() < name.size() ? name.substr(language.size() + 1) : std::string_view();
  std::optional<std::string> script = scriptFromModifier(modifier);
  std::string region;
  while (!rest.empty()) {
    std::string_view part = rest.substr(0, rest.find_first_of("_-"));
    rest = part.size() < rest.size() ? rest.substr(part.size() + 1) : std::string_view();
    if (part.size() == 4 && isAlpha(part)) {
      script = cased(part.substr(0, 1), true) + cased(part.substr(1), false);
    } else if ((part.size() == 2 && isAlpha(part)) || (part.size() == 3 && isAlnum(part))) {
      region = cased(part, true);
    } else {
      return std::nullopt;
    }
  }
  if (script) tag += "-" + *script;
  if (!region.empty()) tag += "-" + region;
  return tag;
}

std::vector<std::string> ZRBLocale::preferredLanguages() {
  {
    std::lock_guard lock(overrideMutex());
    if (overrideList()) return *overrideList();
  }
  std::vector<std::string> names;
  if (const char* language = std::getenv("LANGUAGE"); language && *language) {
    std::string_view list = language;
    while (!list.empty()) {
      std::string_view entry = list.substr(0, list.find(':'));
      list = entry.size() < list.size() ? list.substr(entry.size() + 1) : std::string_view();
      if (!entry.empty()) names.emplace_back(entry);
    }
  }
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (const char* value = std::getenv(variable); value && *value) {
      names.emplace_back(value);
      break;
    }
  }
  std::vector<std::string> tags;
  for (const auto& name : names) {
    if (isPOSIXDefault(name)) continue;
    auto tag = languageTagFromPOSIXLocale(name);
    if (tag && std::find(tags.begin(), tags.end(), *tag) == tags.end()) tags.push_back(std::move(*tag));
  }
  if (tags.empty()) tags.emplace_back("en");
  return tags;
}

void ZRBLocale::setPreferredLanguages(std::optional<std::vector<std::string>> languages) {
  std::lock_guard lock(overrideMutex());
  if (languages && languages->empty()) languages.reset();
  overrideList() = std::move(languages);
  overrideChanges.fetch_add(1, std::memory_order_release);
}

std::uint64_t ZRBLocale::overrideGeneration() { return overrideChanges.load(std::memory_order_acquire); }
