// ZRBBundle: the program's (or the library's) folder and its information map.
//
// The main bundle is the program. Its information map comes from an Info.plist, XML or binary:
// the file named by the ORVELKIT_INFO_PLIST environment variable, else "Info.plist" beside the
// executable. It is read on first use; the host may instead set the map itself. A missing,
// unreadable or malformed file, or one whose top level is not a dictionary, gives an empty map.
// The map is the file's content, nothing is added to it.
//
// The library bundle is the folder of liborvelkit.so, or ORVELKIT_RESOURCE_DIR when that is set;
// its translations live in its "locale" folder. It has an information map too, read from an
// Info.plist in that folder when there is one.
//
// All operations are safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

class ZRBBundle;
using ZRBBundlePtr = std::shared_ptr<ZRBBundle>;

class ZRBBundle final : public ZRBObject {
 public:
  static const ZRBBundlePtr& mainBundle();
  static const ZRBBundlePtr& libraryBundle();

  // A bundle for a folder whose information map is read from `infoPlistPath` on first use.
  ZRBBundle(std::string bundlePath, std::string infoPlistPath);

  // The folder: for the main bundle, the executable's.
  const std::string& bundlePath() const { return bundlePath_; }
  // The file the information map is read from.
  std::string infoPlistPath() const;
  // The folder's "locale" folder when it exists.
  std::optional<std::string> localePath() const;
  // `name` with ".type" (when given) inside the folder, when such a file exists.
  std::optional<std::string> pathForResource(std::string_view name, std::string_view type = {}) const;

  // A dictionary, possibly empty; never absent.
  ZRBValue infoDictionary() const;
  // Absent when the key is missing.
  ZRBValue objectForInfoDictionaryKey(std::string_view key) const;
  // The "CFBundleIdentifier" string.
  std::optional<std::string> bundleIdentifier() const;
  // The "CFBundleExecutable" string, else the executable's file name (for the main bundle) or
  // "orvelkit" (for the library bundle).
  std::string executableName() const;

  // The translation of `key` in the strings table `table`; without one, `value`, or the key
  // itself when `value` is empty (see ZRBLocalizedString in localized_string.h).
  std::string localizedStringForKey(std::string_view key, std::string_view value,
                                    std::string_view table) const;

  // Sets the map (a non-dictionary counts as empty); it is kept until reset.
  void setInfoDictionary(ZRBValue dictionary);
  // Forgets the map, also one set by the host, so the next use reads the file again. For the
  // main bundle the file's path is looked up again too (ORVELKIT_INFO_PLIST may have changed).
  void resetInfoDictionary();
  // Counts the calls of the two above on any bundle, so that values derived from a map once per
  // process (the serializers' "User-Agent") know when to derive them again.
  static std::uint64_t infoGeneration();

  std::string className() const override { return "ZRBBundle"; }
  // "ZRBBundle <path> (loaded)", as the platform words it.
  std::string description() const override;

 private:
  std::string bundlePath_;
  std::string defaultExecutableName_;
  bool followsEnvironment_ = false;
  mutable std::mutex mutex_;
  std::string infoPlistPath_;
  mutable std::optional<ZRBValue> info_;
};

// Reads an Info.plist; an empty dictionary for a missing, unreadable or malformed file.
ZRBValue ZRBReadInfoPlist(const std::string& path);
