#include "support/network_namespace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

extern char** environ;

namespace {

constexpr const char* kInsideVariable = "ORVELKIT_TEST_IN_NETNS";
// The child's exit status when the namespace cannot be made.
constexpr int kCannotUnshare = 77;

}  // namespace

bool ZRBTestInPrivateNetworkNamespace() {
  const auto* test = testing::UnitTest::GetInstance()->current_test_info();
  std::string filter = std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
  if (const char* inside = std::getenv(kInsideVariable); inside != nullptr && filter.ends_with(inside))
    return true;

  // Everything the child needs is made before fork: after it only system calls run.
  std::string marker = std::string(kInsideVariable) + "=" + test->test_suite_name() + "." + test->name();
  std::vector<char*> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, kInsideVariable, std::strlen(kInsideVariable)) != 0)
      environment.push_back(*entry);
  }
  environment.push_back(marker.data());
  environment.push_back(nullptr);
  std::string program = "/proc/self/exe";
  std::string name = "network-namespace-child";
  std::vector<char*> arguments{name.data(), filter.data(), nullptr};

  int output[2];
  if (pipe2(output, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe: " << std::strerror(errno);
    return false;
  }
  pid_t child = fork();
  if (child == 0) {
    dup2(output[1], STDOUT_FILENO);
    dup2(output[1], STDERR_FILENO);
    if (unshare(CLONE_NEWNET) != 0) _exit(kCannotUnshare);
    execve(program.c_str(), arguments.data(), environment.data());
    _exit(127);
  }
  close(output[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(output[0], buffer, sizeof buffer)) != 0;) {
    if (n > 0)
      text.append(buffer, static_cast<std::size_t>(n));
    else if (errno != EINTR)
      break;
  }
  close(output[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) {
    ADD_FAILURE() << "could not run the test in a network namespace: " << std::strerror(errno);
    return false;
  }
  // GTEST_SKIP returns from the function it is used in, hence the lambdas.
  if (WIFEXITED(status) && WEXITSTATUS(status) == kCannotUnshare) {
    [] { GTEST_SKIP() << "a private network namespace cannot be made here (needs root or CAP_SYS_ADMIN)"; }();
    return false;
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "in the network namespace:\n" << text;
  if (text.find("[  SKIPPED ]") != std::string::npos) [&] { GTEST_SKIP() << text; }();
  return false;
}

void ZRBTestShell(const std::string& command) {
  ASSERT_NE(std::getenv(kInsideVariable), nullptr) << "only inside a private network namespace: " << command;
  int status = std::system((command + " 2>&1").c_str());
  ASSERT_EQ(status, 0) << command;
}

ZRBTestTunDevice::ZRBTestTunDevice(const std::string& name) {
  descriptor_ = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  if (descriptor_ < 0) return;
  ifreq request{};
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
  if (ioctl(descriptor_, TUNSETIFF, &request) != 0) {
    close(descriptor_);
    descriptor_ = -1;
  }
}

ZRBTestTunDevice::~ZRBTestTunDevice() {
  if (descriptor_ >= 0) close(descriptor_);
}
