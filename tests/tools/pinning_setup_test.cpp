// Pinning set up from outside the code: a program whose Info.plist carries "PGDConfiguration"
// (applied when the library loads) and `orvel get --pinning-config`. Both reach a loopback TLS
// server under a name with a public suffix through a tunnelling proxy; pins and anchors come from
// the test PKI, and failure reports go to a loopback collector.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "pinned_site.h"
#include "pinning/configuration.h"
#include "platform/foundation/property_list_serialization.h"
#include "run_command.h"
#include "support/test_connect_proxy.h"

namespace {

class PinningSetUpTest : public PinnedSiteTest {
 protected:
  std::string url() const { return "https://api.example.com:" + port() + "/hello"; }

  // An Info.plist whose "PGDConfiguration" pins example.com and its subdomains (the test root an
  // extra anchor, reports to the collector), or holds `broken` instead when it is given.
  std::string infoPlist(const std::vector<std::string>& pins, bool enforce, const ZRBValue& broken = {}) {
    std::vector<ZRBValue> hashes(pins.begin(), pins.end());
    ZRBValue policy = ZRBValue::dictionary({
        {kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({ZRBValue(kZRB_PGDAlgorithmEcDsaSecp256r1)})},
        {kZRB_PGDPublicKeyHashes, ZRBValue::array(std::move(hashes))},
        {kZRB_PGDEnforcePinning, ZRBValue(enforce)},
        {kZRB_PGDIncludeSubdomains, ZRBValue(true)},
        {kZRB_PGDAdditionalTrustAnchors, ZRBValue::array({ZRBValue(chain_.rootPEM())})},
        {kZRB_PGDReportUris, ZRBValue::array({ZRBValue(reports_.url("/report"))})},
        {kZRB_PGDDisableDefaultReportUri, ZRBValue(true)},
    });
    ZRBValue configuration =
        broken ? broken
               : ZRBValue::dictionary(
                     {{kZRB_PGDSwizzleNetworkDelegates, ZRBValue(true)},
                      {kZRB_PGDPinnedDomains, ZRBValue::dictionary({{"example.com", policy}})}});
    auto bytes = ZRBPropertyListSerialization::dataWithPropertyList(
        ZRBValue::dictionary(
            {{"CFBundleIdentifier", ZRBValue("com.example.pinned")}, {"PGDConfiguration", configuration}}),
        ZRBPropertyListXMLFormat_v1_0);
    auto path = directory_ / ("Info" + std::to_string(++plists_) + ".plist");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes->data()), std::streamsize(bytes->size()));
    return path.string();
  }

  // The environment of a child: the proxy, and a cache directory of the test's own.
  std::string environment() const {
    return "https_proxy=" + proxy_.url() + " XDG_CACHE_HOME=" + directory_.string() + " ";
  }

  ZRBTestConnectProxy proxy_;
  int plists_ = 0;
};

TEST_F(PinningSetUpTest, InfoPlistConfigurationPinsEverySessionAndConnectionOfAProgram) {
  struct Case {
    std::vector<std::string> pins;
    bool enforce;
    std::string expected;
    std::size_t reports;  // the same failure is reported once a day
  };
  const std::vector<std::string> foreign = {ZRBBase64Encode(std::string(32, 'a')),
                                            ZRBBase64Encode(std::string(32, 'b'))};
  const Case cases[] = {
      {{foreign[0], pinOf(chain_.leaf)}, true, "shared: yes\nsession: ok\nconnection: ok\n", 0},
      {{pinOf(chain_.root), foreign[1]}, true, "shared: yes\nsession: ok\nconnection: ok\n", 0},
      {foreign, true, "shared: yes\nsession: error -999\nconnection: error -1012\n", 1},
      {foreign, false, "shared: yes\nsession: ok\nconnection: ok\n", 1},
  };
  for (const auto& c : cases) {
    reports_.clearRequests();
    server_->clearRequests();
    std::string plist = infoPlist(c.pins, c.enforce);
    auto [output, status] = runCommand(environment() + "ORVELKIT_INFO_PLIST=" + plist + " " +
                                       PIN_GUARD_PROGRAM_PATH + " " + url());
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output, c.expected);
    EXPECT_EQ(reports_.requestCount(), c.reports) << output;
    EXPECT_EQ(server_->requestCount(), c.expected.find("error") == std::string::npos ? 2u : 0u);
  }
}

TEST_F(PinningSetUpTest, MalformedInfoPlistConfigurationLeavesTheProgramUnpinnedAndSaysWhy) {
  std::string plist =
      infoPlist({}, true, ZRBValue::dictionary({{kZRB_PGDSwizzleNetworkDelegates, ZRBValue(true)}}));
  auto [output, status] =
      runCommand(environment() + "ORVELKIT_INFO_PLIST=" + plist + " " + PIN_GUARD_PROGRAM_PATH + " " + url());
  EXPECT_EQ(status, 0);
  EXPECT_NE(output.find("PinGuard configuration invalid: PinGuard was initialized with no pinned domains"),
            std::string::npos)
      << output;
  // Without pinning the system's own checks decide, and the test root is no system anchor.
  EXPECT_NE(output.find("shared: no\nsession: error -1202\nconnection: error -1202\n"), std::string::npos)
      << output;
}

TEST_F(PinningSetUpTest, OrvelGetPinsByTheConfigurationAndNamesARefusal) {
  const std::string foreign = ZRBBase64Encode(std::string(32, 'a'));
  struct Case {
    std::vector<std::string> pins;
    bool enforce;
    int status;
    std::string output;
    std::size_t reports;
  };
  const std::string refused =
      "orvel: refused the connection to api.example.com: its certificate chain carries none "
      "of the pins that ";
  const Case cases[] = {
      {{foreign, pinOf(chain_.intermediate)}, true, 0, "hello", 0},
      {{foreign, ZRBBase64Encode(std::string(32, 'b'))}, true, 1, refused, 1},
      {{foreign}, false, 0, "hello", 1},
  };
  for (const auto& c : cases) {
    reports_.clearRequests();
    std::string plist = infoPlist(c.pins, c.enforce);
    auto [output, status] =
        runCommand(environment() + ORVEL_PROGRAM_PATH + " get -s --pinning-config " + plist + " " + url());
    EXPECT_EQ(status, c.status) << output;
    EXPECT_TRUE(output.starts_with(c.output)) << output;
    if (c.status) {
      EXPECT_NE(output.find(plist + " configures for example.com"), std::string::npos) << output;
    }
    EXPECT_EQ(reports_.requestCount(), c.reports) << output;
  }
  auto [output, status] = runCommand(std::string(ORVEL_PROGRAM_PATH) + " get --pinning-config " +
                                     (directory_ / "missing").string() + " " + url());
  EXPECT_EQ(status, 2);
  EXPECT_NE(output.find("cannot read it"), std::string::npos) << output;
}

}  // namespace
