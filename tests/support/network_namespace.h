// Tests that change the network do it in a private network namespace of their own, never on the
// machine's real network.
//
//   TEST(Suite, Name) {
//     if (!ZRBTestInPrivateNetworkNamespace()) return;
//     ZRBTestShell("ip link add v0 type veth peer name v1");
//     ...
//   }
//
// The first call runs the same test again in a new process inside a new network namespace
// (fork, unshare(CLONE_NEWNET), exec of this test program filtered to the one test), reports that
// run's outcome and output as the test's own, and returns false. In that new process it returns
// true, and the test body runs there. Where no namespace can be made (not root), the test is
// skipped with a message.
#pragma once

#include <string>

bool ZRBTestInPrivateNetworkNamespace();

// Runs a shell command (only inside the private namespace); a non-zero status fails the test.
void ZRBTestShell(const std::string& command);

// A tun device with a carrier: an open queue keeps the link running until the object goes away.
class ZRBTestTunDevice {
 public:
  explicit ZRBTestTunDevice(const std::string& name);
  ~ZRBTestTunDevice();
  ZRBTestTunDevice(const ZRBTestTunDevice&) = delete;
  ZRBTestTunDevice& operator=(const ZRBTestTunDevice&) = delete;
  bool isOpen() const { return descriptor_ >= 0; }

 private:
  int descriptor_ = -1;
};
