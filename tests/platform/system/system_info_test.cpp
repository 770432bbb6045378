#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "platform/foundation/locale.h"
#include "platform/foundation/property_list_serialization.h"
#include "platform/system/bundle.h"
#include "platform/system/device.h"
#include "platform/system/file_manager.h"
#include "platform/system/localized_string.h"
#include "platform/system/mime_type.h"
#include "platform/system/process_info.h"
#include "support/temporary_directory.h"

namespace {

namespace fs = std::filesystem;

// Sets (or, with a null value, unsets) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    set(value);
  }
  ~ScopedEnv() { set(old_ ? old_->c_str() : nullptr); }

 private:
  void set(const char* value) const { value ? setenv(name_, value, 1) : unsetenv(name_); }
  const char* name_;
  std::optional<std::string> old_;
};

std::string plistBytes(const ZRBValue& value, ZRBPropertyListFormat format) {
  auto bytes = ZRBPropertyListSerialization::dataWithPropertyList(value, format);
  return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

class BundleTest : public testing::Test {
 protected:
  void TearDown() override { ZRBBundle::mainBundle()->resetInfoDictionary(); }
  ZRBTestTemporaryDirectory folder_;
};

// Bad, missing or non-dictionary files give an empty map.
TEST_F(BundleTest, MainBundleReadsTheInfoPlistNamedByTheEnvironment) {
  const ZRBValue info = ZRBValue::dictionary(
      {{"CFBundleIdentifier", "com.example.app"}, {"CFBundleShortVersionString", "2.1"}, {"Build", 7}});
  const ZRBValue empty = ZRBValue::dictionary({});
  const std::tuple<const char*, std::string, ZRBValue> files[] = {
      {"xml.plist", plistBytes(info, ZRBPropertyListXMLFormat_v1_0), info},
      {"binary.plist", plistBytes(info, ZRBPropertyListBinaryFormat_v1_0), info},
      {"missing.plist", "", empty},
      {"garbage.plist", "<?xml version=\"1.0\"?><plist><dict><key>a</key>", empty},
      {"binary-junk.plist", std::string("bplist00\xff\xff\x01", 10), empty},
      {"array.plist", plistBytes(ZRBValue::array({1, 2}), ZRBPropertyListXMLFormat_v1_0), empty},
  };
  auto bundle = ZRBBundle::mainBundle();
  for (const auto& [name, content, expected] : files) {
    const std::string path = content.empty() ? folder_ / name : folder_.write(name, content);
    ScopedEnv env("ORVELKIT_INFO_PLIST", path.c_str());
    bundle->resetInfoDictionary();
    EXPECT_EQ(bundle->infoPlistPath(), path);
    EXPECT_EQ(bundle->infoDictionary(), expected) << name;
    EXPECT_EQ(bundle->bundleIdentifier().value_or("none"), expected.empty() ? "none" : "com.example.app");
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("Build"), expected.empty() ? ZRBValue() : ZRBValue(7));
    EXPECT_TRUE(bundle->objectForInfoDictionaryKey("Missing").isAbsent());
  }
  // The host may set the map; without an executable name in it, the file's name is used.
  EXPECT_FALSE(bundle->executableName().empty());
  bundle->setInfoDictionary(ZRBValue::dictionary({{"CFBundleExecutable", "App"}}));
  EXPECT_EQ(bundle->executableName(), "App");
}

TEST_F(BundleTest, LibraryBundleFollowsTheResourceDirectory) {
  // The library bundle is made once, so check what it became rather than re-pointing it.
  auto library = ZRBBundle::libraryBundle();
  const char* dir = std::getenv("ORVELKIT_RESOURCE_DIR");
  if (dir && *dir) {
    EXPECT_EQ(library->bundlePath(), dir);
  } else {
    EXPECT_TRUE(fs::exists(fs::path(library->bundlePath()) / "liborvelkit.so.1")) << library->bundlePath();
  }
  ZRBBundle bundle(folder_.path.string(), folder_ / "Info.plist");
  EXPECT_FALSE(bundle.localePath());
  fs::create_directories(folder_ / "locale");
  EXPECT_EQ(bundle.localePath(), folder_ / "locale");
  folder_.write("strings.txt", "x");
  EXPECT_EQ(bundle.pathForResource("strings", "txt"), folder_ / "strings.txt");
  EXPECT_FALSE(bundle.pathForResource("strings", "json"));
}

TEST(MIMETypeTest, SystemFileFirstThenBuiltInTableThenOctetStream) {
  ZRBTestTemporaryDirectory folder;
  ZRBSetMIMETypesFilePath(folder.write("mime.types",
                                       "# comment line\n"
                                       "application/x-custom\t\tcst CST2\n"
                                       "image/png  png  # a trailing comment\n"
                                       "text/x-first  dup\n"
                                       "text/x-second dup\n"
                                       "not-a-type  nope\n"));
  const std::pair<const char*, std::vector<const char*>> cases[] = {
      {"application/x-custom", {"cst", "CST2"}},
      {"image/png", {"PNG"}},
      {"text/x-first", {"dup"}},
      {"application/json", {"json"}},
      {"image/jpeg", {"jpeg"}},
      {"application/octet-stream", {"nope", "", "no-such-extension"}},
  };
  for (const auto& [type, extensions] : cases) {
    for (const char* extension : extensions)
      EXPECT_EQ(ZRBMIMETypeForPathExtension(extension), type) << extension;
  }
  EXPECT_EQ(ZRBPreferredPathExtensionForMIMEType("Application/X-Custom; q=1"), "cst");
  EXPECT_FALSE(ZRBPreferredPathExtensionForMIMEType("application/x-unheard-of"));

  ZRBSetMIMETypesFilePath(folder / "missing.types");
  EXPECT_EQ(ZRBMIMETypeForPathExtension("mov"), "video/quicktime");
  EXPECT_EQ(ZRBMIMETypeForPathExtension("cst"), "application/octet-stream");
  ZRBSetMIMETypesFilePath(std::nullopt);
}

TEST(LocaleTest, POSIXLocaleNamesBecomeLanguageTags) {
  const std::pair<std::optional<std::string>, std::vector<const char*>> cases[] = {
      {"en-US", {"en_US.UTF-8"}},
      {"fr", {"fr"}},
      {"en", {"C", "POSIX", "C.UTF-8"}},
      {"sr-Latn-RS", {"sr_RS@latin"}},
      {"zh-Hant-TW", {"zh_Hant_TW.Big5"}},
      {"pt-BR", {"PT-br"}},
      {"es-419", {"es_419"}},
      {std::nullopt, {"", "x", "en_US_toolong", "12_34"}},
  };
  for (const auto& [tag, names] : cases) {
    for (const char* name : names) EXPECT_EQ(ZRBLocale::languageTagFromPOSIXLocale(name), tag) << name;
  }
}

TEST(LocaleTest, PreferredLanguagesComeFromTheEnvironmentInGettextOrder) {
  struct Case {
    const char *language, *lcAll, *lcMessages, *lang;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"de_DE:fr::en_GB", nullptr, nullptr, "ja_JP.UTF-8", {"de-DE", "fr", "en-GB", "ja-JP"}},
      {nullptr, "it_IT.UTF-8", "es_ES", "pt_BR", {"it-IT"}},
      {"fr:fr_FR", nullptr, nullptr, "fr", {"fr", "fr-FR"}},
      {nullptr, nullptr, nullptr, "C.UTF-8", {"en"}},
      {nullptr, nullptr, nullptr, nullptr, {"en"}},
  };
  for (const auto& c : cases) {
    ScopedEnv a("LANGUAGE", c.language), b("LC_ALL", c.lcAll), m("LC_MESSAGES", c.lcMessages),
        l("LANG", c.lang);
    EXPECT_EQ(ZRBLocale::preferredLanguages(), c.expected)
        << (c.language ? c.language : "") << " " << (c.lang ? c.lang : "");
  }
}

// Without translations: the default value when there is one, else the key.
TEST(LocalizedStringTest, FallsBackToTheDefaultValueThenTheKey) {
  EXPECT_EQ(ZRBLocalizedString("Request failed: %@"), "Request failed: %@");
  EXPECT_EQ(ZRBLocalizedString("text", "NoSuchTable"), "text");
  const auto& bundle = ZRBBundle::mainBundle();
  EXPECT_EQ(bundle->localizedStringForKey("Not Reachable", "", ZRBNetworkingStringTable), "Not Reachable");
  EXPECT_EQ(bundle->localizedStringForKey("Not Reachable", "default", ZRBNetworkingStringTable), "default");
  EXPECT_EQ(bundle->localizedStringForKey("", "default", ZRBNetworkingStringTable), "default");
  EXPECT_EQ(bundle->localizedStringForKey("key", "", ""), "key");
}

TEST(ProcessInfoTest, GloballyUniqueStringsDifferAndSuitFileNames) {
  auto& info = *ZRBProcessInfo::processInfo();
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    std::string unique = info.globallyUniqueString();
    EXPECT_EQ(unique.find_first_not_of("0123456789ABCDEF-"), std::string::npos) << unique;
    EXPECT_NE(unique.find("-" + std::to_string(::getpid()) + "-"), std::string::npos) << unique;
    seen.insert(unique);
  }
  EXPECT_EQ(seen.size(), 100u);
}

class DeviceTest : public testing::Test {
 protected:
  void TearDown() override {
    device_.setDMIProductNamePath(std::nullopt);
    device_.setOSReleasePath(std::nullopt);
  }
  ZRBDevice device_;
  ZRBTestTemporaryDirectory folder_;
};

TEST_F(DeviceTest, ModelAndSystemFromDMIAndOSRelease) {
  device_.setDMIProductNamePath(folder_.write("product_name", "ThinkPad X1 Carbon\n"));
  device_.setOSReleasePath(folder_.write("os-release",
                                         "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"
                                         "NAME=\"Debian GNU/Linux\"\n"
                                         "VERSION_ID='12'\n"
                                         "ID=debian\n"));
  EXPECT_EQ(device_.model(), "ThinkPad X1 Carbon");
  EXPECT_EQ(device_.systemName(), "Debian GNU/Linux");
  EXPECT_EQ(device_.systemVersion(), "12");

  // Placeholders and missing files fall back to uname's answers.
  device_.setDMIProductNamePath(folder_.write("placeholder", "To Be Filled By O.E.M."));
  device_.setOSReleasePath(folder_ / "missing");
  struct utsname uts;
  ASSERT_EQ(uname(&uts), 0);
  EXPECT_EQ(device_.model(), uts.machine);
  EXPECT_EQ(device_.systemName(), "Linux");
  EXPECT_EQ(device_.systemVersion(), uts.release);
}

TEST_F(DeviceTest, ScreenScaleIgnoresNonPositiveValues) {
  for (double scale : {2.0, 0.0, -3.0}) device_.setScreenScale(scale);
  EXPECT_EQ(device_.screenScale(), 2.0);
}

class FileManagerTest : public testing::Test {
 protected:
  void TearDown() override { ZRBBundle::mainBundle()->resetInfoDictionary(); }
  ZRBFileManager manager_;
  ZRBTestTemporaryDirectory folder_;
};

TEST_F(FileManagerTest, StandardDirectoriesFollowXDGAndTheBundle) {
  auto bundle = ZRBBundle::mainBundle();
  bundle->setInfoDictionary(ZRBValue::dictionary({{"CFBundleIdentifier", "com.example.app"}}));
  {
    ScopedEnv data("XDG_DATA_HOME", "/data"), cache("XDG_CACHE_HOME", "/cache"), tmp("TMPDIR", "/scratch/");
    EXPECT_EQ(manager_.libraryDirectory(), "/data/com.example.app");
    EXPECT_EQ(manager_.cachesDirectory(), "/cache/com.example.app");
    EXPECT_EQ(manager_.temporaryDirectory(), "/scratch");
  }
  {
    ScopedEnv home("HOME", "/home/u"), data("XDG_DATA_HOME", "relative/ignored"),
        cache("XDG_CACHE_HOME", nullptr), tmp("TMPDIR", nullptr);
    EXPECT_EQ(manager_.libraryDirectory(), "/home/u/.local/share/com.example.app");
    EXPECT_EQ(manager_.cachesDirectory(), "/home/u/.cache/com.example.app");
    EXPECT_EQ(manager_.temporaryDirectory(), "/tmp");
    bundle->setInfoDictionary(ZRBValue::dictionary({}));
    EXPECT_EQ(manager_.libraryDirectory(), "/home/u/.local/share/" + bundle->executableName());
  }
}

TEST_F(FileManagerTest, DirectoriesAndFileOperationsReportErrorRecords) {
  std::string deep = folder_ / "a/b/c";
  ZRBErrorPtr error;
  EXPECT_FALSE(manager_.createDirectoryAtPath(deep, false, &error));
  EXPECT_EQ(error->code(), ZRBFileNoSuchFileError);
  EXPECT_TRUE(manager_.createDirectoryAtPath(deep, true));
  EXPECT_FALSE(manager_.createDirectoryAtPath(deep, false, &error));
  EXPECT_EQ(error->code(), ZRBFileWriteFileExistsError);
  bool isDirectory = false;
  EXPECT_TRUE(manager_.fileExistsAtPath(deep, &isDirectory) && isDirectory);

  std::string file = folder_.write("a/file.bin", "12345");
  EXPECT_TRUE(manager_.fileExistsAtPath(file, &isDirectory) && !isDirectory);
  EXPECT_FALSE(manager_.createDirectoryAtPath(file + "/sub", true, &error));
  EXPECT_FALSE(manager_.moveItemAtPath(file, deep, &error));
  EXPECT_EQ(error->code(), ZRBFileWriteFileExistsError);
  EXPECT_TRUE(manager_.moveItemAtPath(file, folder_ / "moved.bin"));
  EXPECT_FALSE(manager_.fileExistsAtPath(file));
  EXPECT_TRUE(manager_.copyItemAtPath(folder_ / "a", folder_ / "copy"));
  EXPECT_TRUE(manager_.fileExistsAtPath(folder_ / "copy/b/c"));

  error.reset();
  EXPECT_FALSE(manager_.fileSizeAtPath(folder_ / "missing", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZRBCocoaErrorDomain);
  EXPECT_EQ(error->code(), ZRBFileReadNoSuchFileError);
  EXPECT_EQ(error->userInfo()[ZRBFilePathErrorKey], ZRBValue(folder_ / "missing"));
  EXPECT_EQ(error->underlyingError()->code(), ENOENT);
  EXPECT_FALSE(manager_.removeItemAtPath(folder_ / "missing", &error));
  EXPECT_EQ(error->code(), ZRBFileNoSuchFileError);
  EXPECT_TRUE(manager_.removeItemAtPath(folder_ / "a"));
}

TEST_F(FileManagerTest, WritesReplaceTheTargetAndLeaveNoTemporaryFiles) {
  std::string target = folder_ / "data.bin";
  const std::vector<std::uint8_t> first{1, 2, 3}, second(100000, 0xAB);
  for (bool atomically : {true, false}) {
    for (const auto& content : {first, second}) {
      EXPECT_TRUE(manager_.writeData(content, target, atomically));
      EXPECT_EQ(manager_.contentsAtPath(target), content);
    }
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_.path), fs::directory_iterator()), 1);

  ZRBErrorPtr error;
  EXPECT_FALSE(manager_.writeData(first, folder_ / "no/such/dir/file", true, &error));
  EXPECT_EQ(error->code(), ZRBFileNoSuchFileError);
  if (geteuid() != 0) {
    fs::create_directories(folder_ / "readonly");
    fs::permissions(folder_ / "readonly", fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_FALSE(manager_.writeData(first, folder_ / "readonly/file", true, &error));
    EXPECT_EQ(error->code(), ZRBFileWriteNoPermissionError);
    fs::permissions(folder_ / "readonly", fs::perms::owner_all);
  }
}

TEST_F(FileManagerTest, DoNotBackUpMarkerIsACacheDirectoryTag) {
  std::string dir = folder_ / "cache";
  fs::create_directories(dir);
  std::string file = folder_.write("cache/entry", "x");
  EXPECT_FALSE(manager_.isExcludedFromBackup(dir));
  EXPECT_TRUE(manager_.setExcludedFromBackup(file));  // a file marks its directory
  EXPECT_TRUE(manager_.isExcludedFromBackup(dir));
  EXPECT_TRUE(manager_.isExcludedFromBackup(file));
  std::string line;
  std::getline(std::ifstream(dir + "/CACHEDIR.TAG"), line);
  EXPECT_EQ(line, ZRBCacheDirectoryTagSignature);

  folder_.write("cache/CACHEDIR.TAG", "Signature: wrong\n");
  EXPECT_FALSE(manager_.isExcludedFromBackup(dir));
  EXPECT_TRUE(manager_.setExcludedFromBackup(dir));
  EXPECT_TRUE(manager_.isExcludedFromBackup(dir));

  EXPECT_FALSE(manager_.setExcludedFromBackup(folder_ / "missing"));
}

}  // namespace
