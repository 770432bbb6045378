// The program's main bundle names the program and the library version, so that the default
// User-Agent of the library's serializers reads "orvel/<version> (...)" instead of falling back to
// the executable's file name and "(null)".
#include "commands.h"
#include "platform/system/bundle.h"

#ifndef ORVELKIT_PROJECT_VERSION
#define ORVELKIT_PROJECT_VERSION "0"
#endif

void orvelDescribeMainBundle() {
  const auto& bundle = ZRBBundle::mainBundle();
  // An information map the user supplied (ORVELKIT_INFO_PLIST) keeps what it says.
  ZRBDictionaryBuilder info(bundle->infoDictionary());
  if (bundle->objectForInfoDictionaryKey("CFBundleExecutable").isAbsent())
    info.set("CFBundleExecutable", "orvel");
  if (bundle->objectForInfoDictionaryKey("CFBundleShortVersionString").isAbsent())
    info.set("CFBundleShortVersionString", ORVELKIT_PROJECT_VERSION);
  bundle->setInfoDictionary(info.build());
}
