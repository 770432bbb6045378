#include "platform/system/bundle.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "platform/foundation/property_list_serialization.h"
#include "platform/system/localized_string.h"

namespace {

std::atomic<std::uint64_t> infoChanges{0};

// An information map is small; anything larger than this is not one.
constexpr std::streamsize kMaximumInfoPlistSize = 16 << 20;

std::string directoryOf(const std::string& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string fileNameOf(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string executablePath() {
  std::vector<char> buffer(4096);
  ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (length <= 0) return {};
  return std::string(buffer.data(), static_cast<std::size_t>(length));
}

std::string mainInfoPlistPath(const std::string& bundlePath) {
  if (const char* path = std::getenv("ORVELKIT_INFO_PLIST"); path && *path) return path;
  return bundlePath + "/Info.plist";
}

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isRegularFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string libraryFolder() {
  if (const char* dir = std::getenv("ORVELKIT_RESOURCE_DIR"); dir && *dir) return dir;
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&ZRBReadInfoPlist), &info) && info.dli_fname) {
    std::string path = info.dli_fname;
    if (char* real = ::realpath(path.c_str(), nullptr)) {
      path = real;
      std::free(real);
    }
    return directoryOf(path);
  }
  return ".";
}

}  // namespace

ZRBValue ZRBReadInfoPlist(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return ZRBValue::dictionary({});
  std::vector<std::uint8_t> bytes;
  char chunk[8192];
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
    bytes.insert(bytes.end(), chunk, chunk + in.gcount());
    if (static_cast<std::streamsize>(bytes.size()) > kMaximumInfoPlistSize) return ZRBValue::dictionary({});
  }
  ZRBValue plist = ZRBPropertyListSerialization::propertyListWithData(bytes);
  return plist.isDictionary() ? plist : ZRBValue::dictionary({});
}

const ZRBBundlePtr& ZRBBundle::mainBundle() {
  static const ZRBBundlePtr bundle = [] {
    std::string exe = executablePath();
    std::string folder = exe.empty() ? std::string(".") : directoryOf(exe);
    auto b = std::make_shared<ZRBBundle>(folder, mainInfoPlistPath(folder));
    b->followsEnvironment_ = true;
    b->defaultExecutableName_ = exe.empty() ? std::string(program_invocation_short_name) : fileNameOf(exe);
    return b;
  }();
  return bundle;
}

const ZRBBundlePtr& ZRBBundle::libraryBundle() {
  static const ZRBBundlePtr bundle = [] {
    std::string folder = libraryFolder();
    return std::make_shared<ZRBBundle>(folder, folder + "/Info.plist");
  }();
  return bundle;
}

ZRBBundle::ZRBBundle(std::string bundlePath, std::string infoPlistPath)
    : bundlePath_(std::move(bundlePath)),
      defaultExecutableName_("orvelkit"),
      infoPlistPath_(std::move(infoPlistPath)) {}

std::string ZRBBundle::infoPlistPath() const {
  std::lock_guard lock(mutex_);
  return infoPlistPath_;
}

std::optional<std::string> ZRBBundle::localePath() const {
  std::string path = bundlePath_ + "/locale";
  if (!isDirectory(path)) return std::nullopt;
  return path;
}

std::string ZRBBundle::localizedStringForKey(std::string_view key, std::string_view value,
                                             std::string_view table) const {
  return ZRBLocalizedString(key, value, table);
}

std::optional<std::string> ZRBBundle::pathForResource(std::string_view name, std::string_view type) const {
  if (name.empty()) return std::nullopt;
  std::string path = bundlePath_ + "/" + std::string(name);
  if (!type.empty()) path += "." + std::string(type);
  if (!isRegularFile(path)) return std::nullopt;
  return path;
}

ZRBValue ZRBBundle::infoDictionary() const {
  std::string path;
  {
    std::lock_guard lock(mutex_);
    if (info_) return *info_;
    path = infoPlistPath_;
  }
  // Read outside the lock; if two threads race, both read the same file and the first result stays.
  ZRBValue loaded = ZRBReadInfoPlist(path);
  std::lock_guard lock(mutex_);
  if (!info_) info_ = std::move(loaded);
  return *info_;
}

ZRBValue ZRBBundle::objectForInfoDictionaryKey(std::string_view key) const { return infoDictionary()[key]; }

std::optional<std::string> ZRBBundle::bundleIdentifier() const {
  return objectForInfoDictionaryKey("CFBundleIdentifier").optionalString();
}

std::string ZRBBundle::executableName() const {
  auto name = objectForInfoDictionaryKey("CFBundleExecutable").optionalString();
  return name && !name->empty() ? *name : defaultExecutableName_;
}

void ZRBBundle::setInfoDictionary(ZRBValue dictionary) {
  std::lock_guard lock(mutex_);
  info_ = dictionary.isDictionary() ? std::move(dictionary) : ZRBValue::dictionary({});
  infoChanges.fetch_add(1, std::memory_order_release);
}

void ZRBBundle::resetInfoDictionary() {
  std::lock_guard lock(mutex_);
  info_.reset();
  if (followsEnvironment_) infoPlistPath_ = mainInfoPlistPath(bundlePath_);
  infoChanges.fetch_add(1, std::memory_order_release);
}

std::uint64_t ZRBBundle::infoGeneration() { return infoChanges.load(std::memory_order_acquire); }

std::string ZRBBundle::description() const { return "ZRBBundle <" + bundlePath_ + "> (loaded)"; }
