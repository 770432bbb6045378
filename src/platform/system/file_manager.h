// ZRBFileManager: the program's standard directories and the file operations the library needs,
// with failures reported as error records.
//
// Directories (none is created by asking for it; the host can set each one):
// - Library:   $XDG_DATA_HOME/<app>, default ~/.local/share/<app>
// - Caches:    $XDG_CACHE_HOME/<app>, default ~/.cache/<app>
// - Temporary: $TMPDIR, default /tmp
// where <app> is the main bundle's identifier, else the executable's name.
//
// Errors are in ZRBCocoaErrorDomain with the platform's file codes (no such file 4, reading
// 256/257/260, writing 512/513/516/640), the path under ZRBFilePathErrorKey and the system's
// error (ZRBPOSIXErrorDomain, errno) under ZRBUnderlyingErrorKey.
//
// Every operation is safe from any thread; the directory settings are guarded by a lock.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"

class ZRBFileManager;
using ZRBFileManagerPtr = std::shared_ptr<ZRBFileManager>;

class ZRBFileManager final : public ZRBObject {
 public:
  static const ZRBFileManagerPtr& defaultManager();

  std::string libraryDirectory() const;
  std::string cachesDirectory() const;
  std::string temporaryDirectory() const;
  // nullopt returns to the default above.
  void setLibraryDirectory(std::optional<std::string> path);
  void setCachesDirectory(std::optional<std::string> path);
  void setTemporaryDirectory(std::optional<std::string> path);

  // Creates the directory (and, when asked, the missing folders above it) with mode 0755 less the
  // umask. An existing directory is success only with intermediates, as on the platform.
  bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                             ZRBErrorPtr* error = nullptr) const;
  // Whether something exists there (symbolic links are followed); `isDirectory` gets whether it
  // is a directory.
  bool fileExistsAtPath(const std::string& path, bool* isDirectory = nullptr) const;
  // The size in bytes of a file; nullopt (and an error) when it cannot be found.
  std::optional<std::uint64_t> fileSizeAtPath(const std::string& path, ZRBErrorPtr* error = nullptr) const;
  // Removes a file, or a directory with everything in it.
  bool removeItemAtPath(const std::string& path, ZRBErrorPtr* error = nullptr) const;
  // Moves a file or directory; the destination must not exist (code 516). Works across file
  // systems by copying and then removing.
  bool moveItemAtPath(const std::string& from, const std::string& to, ZRBErrorPtr* error = nullptr) const;
  // Copies a file or directory; the destination must not exist (code 516).
  bool copyItemAtPath(const std::string& from, const std::string& to, ZRBErrorPtr* error = nullptr) const;
  // The whole content of a file; nullopt (and an error) when it cannot be read.
  std::optional<std::vector<std::uint8_t>> contentsAtPath(const std::string& path,
                                                          ZRBErrorPtr* error = nullptr) const;
  // Writes the bytes to a file. Atomically: written to a temporary file in the same directory,
  // flushed to disk and renamed over the target, so readers see the old or the new content and
  // never a part. The file gets mode 0666 less the umask.
  bool writeData(std::span<const std::uint8_t> bytes, const std::string& path, bool atomically,
                 ZRBErrorPtr* error = nullptr) const;

  // Marks a directory, or the directory holding a file, as not to be backed up: writes the
  // standard CACHEDIR.TAG file (https://bford.info/cachedir/) that backup tools skip folders by.
  // An existing valid tag is left alone.
  bool setExcludedFromBackup(const std::string& path, ZRBErrorPtr* error = nullptr) const;
  // Whether the directory (or a file's directory) carries a valid CACHEDIR.TAG.
  bool isExcludedFromBackup(const std::string& path) const;

  std::string className() const override { return "ZRBFileManager"; }

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> library_;
  std::optional<std::string> caches_;
  std::optional<std::string> temporary_;
};

// The first line a CACHEDIR.TAG file must start with.
inline constexpr std::string_view ZRBCacheDirectoryTagSignature =
    "Signature: 8a477f597d28d172789f06886806bc55";

// A file error record as described above, for an errno value met while reading or writing.
ZRBErrorPtr ZRBFileErrorFromErrno(int errnoValue, const std::string& path, bool writing);
