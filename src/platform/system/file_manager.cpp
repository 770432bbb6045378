#include "platform/system/file_manager.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/foundation/crypto.h"
#include "platform/system/bundle.h"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kCacheDirectoryTag =
    "Signature: 8a477f597d28d172789f06886806bc55\n"
    "# This file is a cache directory tag created by ORVELKIT.\n"
    "# For information about cache directory tags, see:\n"
    "#\thttps://bford.info/cachedir/\n";

std::string homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  struct passwd pw;
  struct passwd* result = nullptr;
  char buffer[4096];
  if (::getpwuid_r(::getuid(), &pw, buffer, sizeof buffer, &result) == 0 && result && result->pw_dir) {
    return result->pw_dir;
  }
  return "/tmp";
}

// The XDG base directory from `variable` (only an absolute path counts), else ~/`fallback`.
std::string xdgDirectory(const char* variable, const char* fallback) {
  if (const char* value = std::getenv(variable); value && value[0] == '/') return value;
  return homeDirectory() + "/" + fallback;
}

std::string applicationFolderName() {
  const auto& bundle = ZRBBundle::mainBundle();
  if (auto identifier = bundle->bundleIdentifier();
      identifier && !identifier->empty() && identifier->find('/') == std::string::npos) {
    return *identifier;
  }
  return bundle->executableName();
}

std::string parentOf(const std::string& path) {
  auto slash = path.find_last_not_of('/');
  if (slash == std::string::npos) return "/";
  slash = path.rfind('/', slash);
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string fileNameOf(const std::string& path) {
  auto end = path.find_last_not_of('/');
  if (end == std::string::npos) return "/";
  auto slash = path.rfind('/', end);
  return path.substr(slash == std::string::npos ? 0 : slash + 1,
                     end - (slash == std::string::npos ? 0 : slash + 1) + 1);
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool fail(ZRBErrorPtr* error, int errnoValue, const std::string& path, bool writing) {
  ZRBSetError(error, ZRBFileErrorFromErrno(errnoValue, path, writing));
  return false;
}

bool writeAll(int fd, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

ZRBErrorPtr ZRBFileErrorFromErrno(int errnoValue, const std::string& path, bool writing) {
  long code;
  std::string what;
  if (writing) {
    switch (errnoValue) {
      case ENOENT:
      case ENOTDIR: code = ZRBFileNoSuchFileError; break;
      case EACCES:
      case EPERM:
      case EROFS: code = ZRBFileWriteNoPermissionError; break;
      case EEXIST:
      case ENOTEMPTY: code = ZRBFileWriteFileExistsError; break;
      case ENOSPC:
      case EDQUOT: code = ZRBFileWriteOutOfSpaceError; break;
      default: code = ZRBFileWriteUnknownError; break;
    }
    what = "couldn\u2019t be written";
  } else {
    switch (errnoValue) {
      case ENOENT:
      case ENOTDIR: code = ZRBFileReadNoSuchFileError; break;
      case EACCES:
      case EPERM: code = ZRBFileReadNoPermissionError; break;
      default: code = ZRBFileReadUnknownError; break;
    }
    what = "couldn\u2019t be read";
  }
  ZRBDictionaryBuilder info;
  info.set(ZRBLocalizedDescriptionKey, ZRBValue("The file \u201c" + fileNameOf(path) + "\u201d " + what +
                                                ": " + std::strerror(errnoValue)));
  info.set(ZRBFilePathErrorKey, ZRBValue(path));
  info.set(ZRBUnderlyingErrorKey, ZRBValue(ZRBError::fromErrno(errnoValue, path)));
  return ZRBError::make(ZRBCocoaErrorDomain, code, info.build());
}

const ZRBFileManagerPtr& ZRBFileManager::defaultManager() {
  static const ZRBFileManagerPtr manager = std::make_shared<ZRBFileManager>();
  return manager;
}

std::string ZRBFileManager::libraryDirectory() const {
  {
    std::lock_guard lock(mutex_);
    if (library_) return *library_;
  }
  return xdgDirectory("XDG_DATA_HOME", ".local/share") + "/" + applicationFolderName();
}

std::string ZRBFileManager::cachesDirectory() const {
  {
    std::lock_guard lock(mutex_);
    if (caches_) return *caches_;
  }
  return xdgDirectory("XDG_CACHE_HOME", ".cache") + "/" + applicationFolderName();
}

std::string ZRBFileManager::temporaryDirectory() const {
  {
    std::lock_guard lock(mutex_);
    if (temporary_) return *temporary_;
  }
  if (const char* tmp = std::getenv("TMPDIR"); tmp && *tmp) {
    std::string path = tmp;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
  }
  return "/tmp";
}

void ZRBFileManager::setLibraryDirectory(std::optional<std::string> path) {
  std::lock_guard lock(mutex_);
  library_ = std::move(path);
}

void ZRBFileManager::setCachesDirectory(std::optional<std::string> path) {
  std::lock_guard lock(mutex_);
  caches_ = std::move(path);
}

void ZRBFileManager::setTemporaryDirectory(std::optional<std::string> path) {
  std::lock_guard lock(mutex_);
  temporary_ = std::move(path);
}

bool ZRBFileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                           ZRBErrorPtr* error) const {
  if (path.empty()) return fail(error, ENOENT, path, true);
  if (!withIntermediateDirectories) {
    if (::mkdir(path.c_str(), 0755) != 0) return fail(error, errno, path, true);
    return true;
  }
  if (isDirectory(path)) return true;
  std::string parent = parentOf(path);
  if (parent != path && !isDirectory(parent) && !createDirectoryAtPath(parent, true, error)) return false;
  // Another thread or process may have created it meanwhile; that is fine.
  if (::mkdir(path.c_str(), 0755) != 0 && !(errno == EEXIST && isDirectory(path))) {
    return fail(error, errno, path, true);
  }
  return true;
}

bool ZRBFileManager::fileExistsAtPath(const std::string& path, bool* isDirectoryOut) const {
  struct stat st;
  if (path.empty() || ::stat(path.c_str(), &st) != 0) return false;
  if (isDirectoryOut) *isDirectoryOut = S_ISDIR(st.st_mode);
  return true;
}

std::optional<std::uint64_t> ZRBFileManager::fileSizeAtPath(const std::string& path,
                                                            ZRBErrorPtr* error) const {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    fail(error, errno, path, false);
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(st.st_size);
}

bool ZRBFileManager::removeItemAtPath(const std::string& path, ZRBErrorPtr* error) const {
  if (path.empty() || !exists(path)) return fail(error, ENOENT, path, true);
  std::error_code ec;
  fs::remove_all(path, ec);
  if (ec) return fail(error, ec.value(), path, true);
  return true;
}

bool ZRBFileManager::moveItemAtPath(const std::string& from, const std::string& to,
                                    ZRBErrorPtr* error) const {
  if (!exists(from)) return fail(error, ENOENT, from, true);
  if (exists(to)) return fail(error, EEXIST, to, true);
  if (::rename(from.c_str(), to.c_str()) == 0) return true;
  if (errno != EXDEV) return fail(error, errno, to, true);
  if (!copyItemAtPath(from, to, error)) return false;
  return removeItemAtPath(from, error);
}

bool ZRBFileManager::copyItemAtPath(const std::string& from, const std::string& to,
                                    ZRBErrorPtr* error) const {
  if (!exists(from)) return fail(error, ENOENT, from, false);
  if (exists(to)) return fail(error, EEXIST, to, true);
  std::error_code ec;
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
  if (ec) {
    int code = ec.value();
    fs::remove_all(to, ec);  // no half copy is left behind
    return fail(error, code, to, true);
  }
  return true;
}

std::optional<std::vector<std::uint8_t>> ZRBFileManager::contentsAtPath(const std::string& path,
                                                                        ZRBErrorPtr* error) const {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    fail(error, errno, path, false);
    return std::nullopt;
  }
  std::vector<std::uint8_t> bytes;
  struct stat st;
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(fd);
    fail(error, EISDIR, path, false);
    return std::nullopt;
  }
  if (st.st_size > 0) bytes.reserve(static_cast<std::size_t>(st.st_size));
  std::uint8_t chunk[65536];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int saved = errno;
      ::close(fd);
      fail(error, saved, path, false);
      return std::nullopt;
    }
    if (n == 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  ::close(fd);
  return bytes;
}

bool ZRBFileManager::writeData(std::span<const std::uint8_t> bytes, const std::string& path, bool atomically,
                               ZRBErrorPtr* error) const {
  if (path.empty()) return fail(error, ENOENT, path, true);
  if (!atomically) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return fail(error, errno, path, true);
    bool ok = writeAll(fd, bytes);
    int saved = errno;
    if (::close(fd) != 0 && ok) {
      ok = false;
      saved = errno;
    }
    return ok || fail(error, saved, path, true);
  }
  // The temporary file lives beside the target so that rename() stays within one file system.
  std::string directory = parentOf(path);
  std::string temporary;
  int fd = -1;
  for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
    temporary = directory + "/." + fileNameOf(path) + ".tmp-" + ZRBHexString(ZRBRandomBytes(6));
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) return fail(error, errno, path, true);
  bool ok = writeAll(fd, bytes) && ::fsync(fd) == 0;
  int saved = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    saved = errno;
  }
  if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
    ok = false;
    saved = errno;
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    return fail(error, saved, path, true);
  }
  // Make the rename itself durable; a failure here does not undo a completed write.
  if (int dirfd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dirfd >= 0) {
    ::fsync(dirfd);
    ::close(dirfd);
  }
  return true;
}

bool ZRBFileManager::setExcludedFromBackup(const std::string& path, ZRBErrorPtr* error) const {
  struct stat st;
  if (path.empty() || ::stat(path.c_str(), &st) != 0)
    return fail(error, path.empty() ? ENOENT : errno, path, true);
  if (isExcludedFromBackup(path)) return true;
  std::string directory = S_ISDIR(st.st_mode) ? path : parentOf(path);
  auto tag =
      std::span(reinterpret_cast<const std::uint8_t*>(kCacheDirectoryTag.data()), kCacheDirectoryTag.size());
  return writeData(tag, directory + "/CACHEDIR.TAG", true, error);
}

bool ZRBFileManager::isExcludedFromBackup(const std::string& path) const {
  std::string directory = isDirectory(path) ? path : parentOf(path);
  int fd = ::open((directory + "/CACHEDIR.TAG").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char head[ZRBCacheDirectoryTagSignature.size()];
  ssize_t n = ::read(fd, head, sizeof head);
  ::close(fd);
  return n == static_cast<ssize_t>(sizeof head) &&
         std::string_view(head, sizeof head) == ZRBCacheDirectoryTagSignature;
}
