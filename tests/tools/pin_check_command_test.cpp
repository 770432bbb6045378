// `orvel pin-check` against the loopback TLS server, reached under a configured domain name through
// --resolve, and `orvel get --resolve`: decisions and exit statuses, the printed chain, reports.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "pinned_site.h"
#include "platform/foundation/json_serialization.h"
#include "run_command.h"

namespace {

class OrvelPinCheckTest : public PinnedSiteTest {
 protected:
  std::string resolve() const { return "api.example.com:" + port() + ":127.0.0.1"; }
  std::string target() const { return "api.example.com:" + port(); }

  // A configuration pinning "example.com" and its subdomains; the root is an extra anchor.
  std::string config(const std::string& pins, bool enforce) {
    static int count = 0;
    auto path = directory_ / ("config" + std::to_string(++count) + ".json");
    std::ofstream(path)
        << R"({"PGDPinnedDomains": {"example.com": {"PGDIncludeSubdomains": true, )"
        << R"("PGDPublicKeyAlgorithms": ["PGDAlgorithmEcDsaSecp256r1"], "PGDPublicKeyHashes": [)" << pins
        << "], \"PGDEnforcePinning\": " << (enforce ? "true" : "false") << R"(, "PGDReportUris": [")"
        << reports_.url("/report") << R"("], )"
        << R"("PGDAdditionalTrustAnchors": [")" << escaped(chain_.root.pem()) << "\"]}}}";
    return path.string();
  }
  static std::string escaped(const std::string& text) {
    std::string out;
    for (char c : text) out += c == '\n' ? std::string("\\n") : std::string(1, c);
    return out;
  }

  std::string orvel(const std::string& arguments, int& status) {
    auto run =
        runCommand("XDG_CACHE_HOME=" + directory_.string() + " " + ORVEL_PROGRAM_PATH + " " + arguments);
    status = run.status;
    return run.output;
  }
};

TEST_F(OrvelPinCheckTest, DecisionsAndExitStatuses) {
  const std::string other = "\"" + ZRBBase64Encode(std::vector<std::uint8_t>(32, 1)) + "\", \"" +
                            ZRBBase64Encode(std::vector<std::uint8_t>(32, 2)) + "\"";
  struct Case {
    std::string config;
    std::string target;
    int status;
    std::string decision;
    std::string result;
  };
  const Case cases[] = {
      {config("\"" + pinOf(chain_.root) + "\", " + other, true), target(), 0, "decision: allow (0)",
       "result: a pin matched (0)"},
      {config(other, true), target(), 1, "decision: block (1)", "result: no certificate matches a pin (1)"},
      {config(other, false), target(), 0, "decision: allow (0)", "result: no certificate matches a pin (1)"},
      // Pinned under a name the leaf is not issued for: the default validation fails first.
      {config(other, false), "www.example.com:" + port(), 1, "decision: block (1)",
       "result: the default validation rejected the chain (2)"},
  };
  for (const auto& c : cases) {
    int status = -1;
    std::string output = orvel("pin-check " + c.target + " --config " + c.config + " --resolve " + resolve() +
                                   " --resolve www.example.com:" + port() + ":127.0.0.1",
                               status);
    EXPECT_EQ(status, c.status) << output;
    EXPECT_NE(output.find(c.decision + "\n"), std::string::npos) << output;
    EXPECT_NE(output.find(c.result + "\n"), std::string::npos) << output;
    EXPECT_NE(output.find("policy: example.com\n"), std::string::npos) << output;
  }
  int status = -1;
  std::string output =
      orvel("pin-check " + target() + " --config " + cases[0].config + " --resolve " + resolve(), status);
  const std::string chain = "chain:\n  subject: api.example.com\n  pin: " + pinOf(chain_.leaf) +
                            "\n  subject: " + *chain_.intermediate.secCertificate()->copySubjectSummary() +
                            "\n  pin: " + pinOf(chain_.intermediate) +
                            "\n  subject: " + *chain_.root.secCertificate()->copySubjectSummary() +
                            "\n  pin: " + pinOf(chain_.root) + "\n";
  EXPECT_NE(output.find(chain), std::string::npos) << output;
  EXPECT_EQ(server_->requestCount(), 0u) << "pin-check sends no request";
  // The hashes went to the cache file under the Caches directory.
  EXPECT_TRUE(std::filesystem::exists(directory_ / "orvel" / "spki-hash.cache"));

  // A host outside the configuration.
  auto elsewhere = directory_ / "elsewhere.json";
  std::ofstream(elsewhere) << R"({"PGDPinnedDomains": {"example.org": {"PGDPublicKeyAlgorithms": )"
                           << R"(["PGDAlgorithmRsa2048"], "PGDPublicKeyHashes": [)" << other << "]}}}";
  output =
      orvel("pin-check " + target() + " --config " + elsewhere.string() + " --resolve " + resolve(), status);
  EXPECT_EQ(status, 3) << output;
  EXPECT_NE(output.find("decision: not pinned (2)\n"), std::string::npos) << output;

  // Usage errors and a host with nothing behind it.
  EXPECT_EQ((orvel("pin-check " + target(), status), status), 2);
  EXPECT_EQ(
      (orvel("pin-check " + target() + " --config " + elsewhere.string() + " --resolve nonsense", status),
       status),
      2);
  output = orvel(
      "pin-check api.example.com:1 --config " + elsewhere.string() + " --resolve api.example.com:1:127.0.0.1",
      status);
  EXPECT_EQ(status, 4) << output;
}

TEST_F(OrvelPinCheckTest, ReportGoesToTheConfiguredURIs) {
  const std::string other = "\"" + ZRBBase64Encode(std::vector<std::uint8_t>(32, 1)) + "\"";
  int status = -1;
  std::string output = orvel(
      "pin-check " + target() + " --report --config " + config(other, false) + " --resolve " + resolve(),
      status);
  EXPECT_EQ(status, 0) << output;
  EXPECT_NE(output.find("report: sent to 1 URI(s)"), std::string::npos) << output;
  ASSERT_TRUE(reports_.waitForRequests(1, std::chrono::seconds(10)));
  ZRBValue json = ZRBJSONSerialization::JSONObjectWithData(reports_.requests()[0].body);
  EXPECT_EQ(json["hostname"], "api.example.com");
  EXPECT_EQ(json["noted-hostname"], "example.com");
  EXPECT_EQ(json["port"], server_->port());
  EXPECT_EQ(json["validation-result"], 1);
  EXPECT_EQ(json["validated-certificate-chain"].count(), 3u);
}

// `orvel get --resolve`: the configured name reaches the loopback server and still drives the
// certificate check.
TEST_F(OrvelPinCheckTest, GetResolvesTheHostNameToTheGivenAddress) {
  auto root = directory_ / "root.pem";
  std::ofstream(root) << chain_.root.pem();
  int status = -1;
  std::string url = " https://" + target() + "/hello";
  std::string output = orvel("get -s --cacert " + root.string() + " --resolve " + resolve() + url, status);
  EXPECT_EQ(status, 0) << output;
  EXPECT_EQ(output, "hello");
  auto requests = server_->requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].header("Host"), target());
  // Under a name the leaf does not carry, the check fails.
  output = orvel("get -s --cacert " + root.string() + " --resolve www.example.com:" + port() +
                     ":127.0.0.1 https://www.example.com:" + port() + "/hello",
                 status);
  EXPECT_NE(status, 0) << output;
}

}  // namespace
