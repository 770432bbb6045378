#include "platform/system/localized_string.h"

#include <libintl.h>

#include <mutex>
#include <set>

#include "platform/system/bundle.h"

namespace {

// Binds a text domain the first time it is used.
void bindTable(const std::string& table) {
  static std::mutex mutex;
  static std::set<std::string> bound;
  std::lock_guard lock(mutex);
  if (!bound.insert(table).second) return;
  if (auto folder = ZRBBundle::libraryBundle()->localePath())
    ::bindtextdomain(table.c_str(), folder->c_str());
  ::bind_textdomain_codeset(table.c_str(), "UTF-8");
}

}  // namespace

std::string ZRBLocalizedString(std::string_view key, std::string_view table) {
  // gettext answers the empty key with the catalogue's header, never what a caller wants.
  if (key.empty() || table.empty()) return std::string(key);
  std::string tableName(table);
  std::string keyText(key);
  bindTable(tableName);
  return ::dgettext(tableName.c_str(), keyText.c_str());
}
