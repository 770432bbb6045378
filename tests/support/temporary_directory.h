// A new, empty directory for one test, removed with everything in it when the object goes away, and
// the whole-file reads and writes tests do inside it.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "platform/system/file_manager.h"
#include "support/test_pki.h"

inline std::string ZRBTestReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct ZRBTestTemporaryDirectory {
  const std::filesystem::path path = ZRBTestPKI::makeTemporaryDirectory();
  ~ZRBTestTemporaryDirectory() { std::filesystem::remove_all(path); }

  std::string operator/(const std::string& name) const { return (path / name).string(); }
  // Writes `bytes` to the file `name` (its folder must exist) and returns the file's path.
  std::string write(const std::string& name, std::string_view bytes) const {
    std::ofstream(path / name, std::ios::binary) << bytes;
    return *this / name;
  }
};

// A temporary directory that is the process's Caches directory while it lives.
struct ZRBTestCachesDirectory : ZRBTestTemporaryDirectory {
  ZRBTestCachesDirectory() { ZRBFileManager::defaultManager()->setCachesDirectory(path.string()); }
  ~ZRBTestCachesDirectory() { ZRBFileManager::defaultManager()->setCachesDirectory(std::nullopt); }
};
