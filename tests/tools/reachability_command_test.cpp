// `orvel reachability`: one line for a target, and with --watch a line per report, against the
// routing state of a private network namespace when it changes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "run_command.h"
#include "support/network_namespace.h"

namespace {

TEST(OrvelReachabilityTest, OneLinePerTargetAndStatusesForScripts) {
  struct Case {
    const char* arguments;
    const char* output;
    int status;
  } cases[] = {
      // Loopback is local in every namespace; neither line needs anything beyond reading routes.
      {"127.0.0.1", "Reachable via WiFi flags=0x00030002 reachable,is-local-address,is-direct\n", 0},
      {"[127.0.0.1] --watch -h", "usage: orvel reachability [HOST|ADDRESS] [--watch]", 0},
      {"a..b", "Not Reachable flags=0x00000000\n", 1},  // never looked up
      {"--later", "usage: orvel reachability", 2},
      {"one two", "usage: orvel reachability", 2},
  };
  for (const auto& c : cases) {
    auto [output, status] = runOrvel(std::string("reachability ") + c.arguments);
    EXPECT_EQ(output.substr(0, std::string(c.output).size()), c.output) << c.arguments;
    EXPECT_EQ(status, c.status) << c.arguments;
  }
}

TEST(OrvelReachabilityNamespaceTest, WatchPrintsATimeStampedLinePerReport) {
  if (!ZRBTestInPrivateNetworkNamespace()) return;
  ZRBTestShell("ip link set lo up");
  auto idle = runOrvel("reachability");
  EXPECT_EQ(idle.output, "Not Reachable flags=0x00000000\n");
  EXPECT_EQ(idle.status, 1);

  // The first line is the pid to interrupt; timeout passes the interrupt on, and ends the program
  // itself should the test stop early.
  FILE* watching = popen(("sh -c 'echo $$; exec timeout --preserve-status -s INT 20 " +
                          std::string(ORVEL_PROGRAM_PATH) + " reachability --watch'")
                             .c_str(),
                         "r");
  ASSERT_NE(watching, nullptr);
  char text[256];
  ASSERT_NE(fgets(text, sizeof text, watching), nullptr);
  pid_t pid = std::atoi(text);
  const std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (.*)\n)");
  std::vector<std::string> reports;
  auto next = [&] {
    std::cmatch match;
    if (fgets(text, sizeof text, watching) == nullptr) return false;
    EXPECT_TRUE(std::regex_match(text, match, line)) << text;
    reports.push_back(match[1]);
    return true;
  };
  ASSERT_TRUE(next());
  ZRBTestShell(
      "ip link add v0 type veth peer name v1 && ip link set v1 up && ip addr add 10.9.0.2/24 dev v0 && "
      "ip link set v0 up && ip route add default via 10.9.0.1");
  while (reports.back() == "Not Reachable flags=0x00000000" && next()) {
  }
  kill(pid, SIGINT);
  while (fgets(text, sizeof text, watching) != nullptr) {
  }
  int exit = pclose(watching);
  EXPECT_TRUE(WIFEXITED(exit) && WEXITSTATUS(exit) == 0) << exit;
  EXPECT_EQ(reports.front(), "Not Reachable flags=0x00000000");
  EXPECT_EQ(reports.back(), "Reachable via WiFi flags=0x00000002 reachable");
}

}  // namespace
