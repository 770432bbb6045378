#include "platform/system/mime_type.h"

#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <unordered_map>

namespace {

constexpr const char* kDefaultMIMETypesPath = "/etc/mime.types";

// Used when the system file is missing or does not know an extension.
constexpr std::pair<const char*, const char*> kBuiltInTypes[] = {
    {"json", "application/json"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"gif", "image/gif"},
    {"txt", "text/plain"},
    {"html", "text/html"},
    {"htm", "text/html"},
    {"xml", "application/xml"},
    {"pdf", "application/pdf"},
    {"zip", "application/zip"},
    {"mp4", "video/mp4"},
    {"mov", "video/quicktime"},
    {"css", "text/css"},
    {"js", "text/javascript"},
    {"csv", "text/csv"},
    {"svg", "image/svg+xml"},
    {"webp", "image/webp"},
    {"heic", "image/heic"},
    {"bmp", "image/bmp"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"ico", "image/x-icon"},
    {"mp3", "audio/mpeg"},
    {"m4a", "audio/mp4"},
    {"wav", "audio/wav"},
    {"aac", "audio/aac"},
    {"m4v", "video/x-m4v"},
    {"avi", "video/x-msvideo"},
    {"webm", "video/webm"},
    {"plist", "application/x-plist"},
    {"gz", "application/gzip"},
    {"tar", "application/x-tar"},
    {"bin", "application/octet-stream"},
};

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return out;
}

struct Table {
  std::unordered_map<std::string, std::string> typeForExtension;
  std::unordered_map<std::string, std::string> extensionForType;

  void add(const std::string& type, const std::string& extension) {
    typeForExtension.emplace(extension, type);
    extensionForType.emplace(type, extension);
  }
};

std::shared_ptr<const Table> loadTable(const std::string& path) {
  auto table = std::make_shared<Table>();
  std::ifstream in(path);
  std::string line;
  while (in && std::getline(in, line)) {
    line = line.substr(0, line.find('#'));
    std::istringstream words(line);
    std::string type, extension;
    if (!(words >> type) || type.find('/') == std::string::npos) continue;
    type = lower(type);
    while (words >> extension) table->add(type, lower(extension));
  }
  for (auto [extension, type] : kBuiltInTypes) table->add(type, extension);
  return table;
}

std::mutex& tableMutex() {
  static std::mutex mutex;
  return mutex;
}

std::optional<std::string>& tablePath() {
  static std::optional<std::string> path;
  return path;
}

std::shared_ptr<const Table>& cachedTable() {
  static std::shared_ptr<const Table> table;
  return table;
}

std::shared_ptr<const Table> table() {
  std::lock_guard lock(tableMutex());
  if (!cachedTable()) cachedTable() = loadTable(tablePath().value_or(kDefaultMIMETypesPath));
  return cachedTable();
}

}  // namespace

std::string ZRBMIMETypeForPathExtension(std::string_view pathExtension) {
  auto t = table();
  auto it = t->typeForExtension.find(lower(pathExtension));
  return it == t->typeForExtension.end() ? std::string("application/octet-stream") : it->second;
}

std::optional<std::string> ZRBPreferredPathExtensionForMIMEType(std::string_view mimeType) {
  std::string_view bare = mimeType.substr(0, mimeType.find(';'));
  while (!bare.empty() && (bare.back() == ' ' || bare.back() == '\t')) bare.remove_suffix(1);
  while (!bare.empty() && (bare.front() == ' ' || bare.front() == '\t')) bare.remove_prefix(1);
  auto t = table();
  auto it = t->extensionForType.find(lower(bare));
  if (it == t->extensionForType.end()) return std::nullopt;
  return it->second;
}

void ZRBSetMIMETypesFilePath(std::optional<std::string> path) {
  std::lock_guard lock(tableMutex());
  tablePath() = std::move(path);
  cachedTable().reset();
}
