// `orvel pinning-config` and `orvel suffix`: what the pinning configuration parser and the domain
// registry answer, as the program prints it.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "pinning/configuration.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/property_list_serialization.h"
#include "support/test_pki.h"

namespace {

// The base64 text of 32 bytes of `fill`.
std::string pin(std::uint8_t fill) { return ZRBBase64Encode(std::vector<std::uint8_t>(32, fill)); }

// The orvel program's output (standard error included) for `arguments`; its exit status in `status`.
std::string orvel(const std::string& arguments, int& status) {
  FILE* pipe = popen((std::string(ORVEL_PROGRAM_PATH) + " " + arguments + " 2>&1").c_str(), "r");
  std::string output;
  char buffer[256];
  while (size_t n = pipe ? fread(buffer, 1, sizeof buffer, pipe) : 0) output.append(buffer, n);
  status = pipe ? pclose(pipe) : -1;
  return output;
}

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
  int status = 0;
  std::string output = orvel("pinning-config " + (directory / "good.json").string(), status);
  EXPECT_EQ(status, 0);
  for (const std::string& line : {std::string("PGDSwizzleNetworkDelegates: false\n"),
                                  std::string("      PGDAlgorithmRsa4096\n"), "      " + pin(2) + "\n"}) {
    EXPECT_NE(output.find(line), std::string::npos) << output;
  }
  output = orvel("pinning-config " + (directory / "Info.plist").string(), status);
  EXPECT_NE(status, 0);
  EXPECT_NE(output.find("PinGuard was initialized with an invalid domain example.notatld"), std::string::npos)
      << output;
  std::filesystem::remove_all(directory);

  EXPECT_EQ(
      orvel("suffix WWW.Example.CO.uk com. printer.lan bucket.amazonaws.com a.b.foo.ck x..co.uk", status),
      "WWW.Example.CO.uk 5 example.co.uk\ncom. 3 -\nprinter.lan 0 -\nbucket.amazonaws.com 0 -\n"
      "a.b.foo.ck 6 b.foo.ck\nx..co.uk 5 -\n");
  EXPECT_EQ(status, 0);
}

}  // namespace
