#include "platform/system/localized_string.h"

#include <libintl.h>

#include <mutex>
#include <set>

#include "platform/system/bundle.h"

namespace {

// Binds a text domain the first time it is used. The record is immortal: the main queue's thread
// may still look texts up while an exiting process runs its static destructors.
void bindTable(const std::string& table) {
  static auto* mutex = new std::mutex;
  static auto* bound = new std::set<std::string>;
  std::lock_guard lock(*mutex);
  if (!bound->insert(table).second) return;
  if (auto folder = ZRBBundle::libraryBundle()->localePath())
    ::bindtextdomain(table.c_str(), folder->c_str());
  ::bind_textdomain_codeset(table.c_str(), "UTF-8");
}

}  // namespace

namespace {

// The translation, or null when the table has none for the key.
const char* translation(const std::string& table, const std::string& key) {
  bindTable(table);
  // gettext hands back the key's own pointer when it has no translation.
  const char* found = ::dgettext(table.c_str(), key.c_str());
  return found == key.c_str() ? nullptr : found;
}

}  // namespace

std::string ZRBLocalizedString(std::string_view key, std::string_view table) {
  // gettext answers the empty key with the catalogue's header, never what a caller wants.
  if (key.empty() || table.empty()) return std::string(key);
  std::string keyText(key);
  const char* found = translation(std::string(table), keyText);
  return found ? std::string(found) : keyText;
}

std::string ZRBLocalizedString(std::string_view key, std::string_view value, std::string_view table) {
  if (key.empty()) return std::string(value);
  std::string keyText(key);
  if (const char* found =
          translation(table.empty() ? std::string("Localizable") : std::string(table), keyText))
    return found;
  return value.empty() ? keyText : std::string(value);
}
