// `orvel pinning-config` and `orvel suffix`: what the pinning configuration parser and the domain
// registry answer, as the program prints it.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "pinning/configuration.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/property_list_serialization.h"
#include "run_command.h"
#include "support/test_pki.h"

namespace {

// The base64 text of 32 bytes of `fill`.
std::string pin(std::uint8_t fill) { return ZRBBase64Encode(std::vector<std::uint8_t>(32, fill)); }

TEST(OrvelPinningCommandsTest, PrintTheNormalisedConfigurationOrTheFirstErrorAndSuffixes) {
  auto directory = ZRBTestPKI::makeTemporaryDirectory();
  ZRBValue policy =
      ZRBValue::dictionary({{kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({kZRB_PGDAlgorithmRsa2048})},
                            {kZRB_PGDPublicKeyHashes, ZRBValue::array({pin(1), pin(2)})}});
  std::ofstream(directory / "good.json")
      << "{\"PGDPinnedDomains\": {\"example.com\": {\"PGDPublicKeyAlgorithms\": [\"PGDAlgorithmRsa4096\"], "
      << "\"PGDPublicKeyHashes\": [\"" << pin(1) << "\", \"" << pin(2) << "\"]}}}";
  auto plist = ZRBPropertyListSerialization::dataWithPropertyList(
      ZRBValue::dictionary({{"PGDConfiguration",
                             ZRBValue::dictionary({{kZRB_PGDPinnedDomains,
                                                    ZRBValue::dictionary({{"example.notatld", policy}})}})}}),
      ZRBPropertyListBinaryFormat_v1_0);
  ASSERT_TRUE(plist);
  std::ofstream(directory / "Info.plist") << std::string(plist->begin(), plist->end());
  auto good = runOrvel("pinning-config " + (directory / "good.json").string());
  EXPECT_EQ(good.status, 0);
  for (const std::string& line : {std::string("PGDSwizzleNetworkDelegates: false\n"),
                                  std::string("      PGDAlgorithmRsa4096\n"), "      " + pin(2) + "\n"}) {
    EXPECT_NE(good.output.find(line), std::string::npos) << good.output;
  }
  auto bad = runOrvel("pinning-config " + (directory / "Info.plist").string());
  EXPECT_NE(bad.status, 0);
  EXPECT_NE(bad.output.find("PinGuard was initialized with an invalid domain example.notatld"),
            std::string::npos)
      << bad.output;
  std::filesystem::remove_all(directory);

  auto suffixes =
      runOrvel("suffix WWW.Example.CO.uk com. printer.lan bucket.amazonaws.com a.b.foo.ck x..co.uk");
  EXPECT_EQ(suffixes.output,
            "WWW.Example.CO.uk 5 example.co.uk\ncom. 3 -\nprinter.lan 0 -\nbucket.amazonaws.com 0 -\n"
            "a.b.foo.ck 6 b.foo.ck\nx..co.uk 5 -\n");
  EXPECT_EQ(suffixes.status, 0);
}

}  // namespace
