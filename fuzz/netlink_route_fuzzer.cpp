// Fuzzes the rtnetlink readers with arbitrary datagrams, as a hostile or broken kernel peer could
// send them: every reader must stay inside the bytes (the sanitizers check) and answer in a way
// the bytes allow.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/net/netlink_route.h"

namespace {

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "netlink route fuzzer: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The first four bytes pick the request an answer is looked for; the rest is the datagram, in a
  // block of its own size (whole words) aligned as the socket's buffer is.
  if (size < 4) return 0;
  std::uint32_t sequence = 0;
  std::memcpy(&sequence, data, 4);
  data += 4;
  size -= 4;
  std::unique_ptr<std::uint32_t[]> datagram(new std::uint32_t[(size + 3) / 4]);
  if (size > 0) std::memcpy(datagram.get(), data, size);

  ZRBNetlinkChanges changes = ZRBNetlinkReadChanges(datagram.get(), size);
  check(changes.messages * 16 <= size, "more messages than headers fit in the bytes");
  check(size > 0 || (changes.messages == 0 && !changes.relevant), "a change read from nothing");

  if (auto route = ZRBNetlinkReadRouteAnswer(datagram.get(), size, sequence)) {
    check(route->outcome == ZRBRouteLookup::Found || route->outputInterface == 0,
          "an interface without a route");
  }
  if (auto link = ZRBNetlinkReadLinkAnswer(datagram.get(), size, sequence)) {
    check(link->name.size() < 4096 && link->name.size() <= size, "a name longer than the bytes");
    check(link->outcome == ZRBLinkState::Found || link->name.empty(), "a name without a link");
  }
  return 0;
}
