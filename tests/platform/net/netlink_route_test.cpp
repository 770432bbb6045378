// The rtnetlink readers given kernel-shaped bytes, well-formed and not: what they answer, and
// that nothing is read beyond the bytes given.
#include "platform/net/netlink_route.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace {

// A datagram of netlink messages built with libmnl.
class Datagram {
 public:
  nlmsghdr* add(std::uint16_t type, std::uint32_t sequence = 1) {
    bytes_.resize(bytes_.size() + 4096);
    auto* message = mnl_nlmsg_put_header(bytes_.data() + used_);
    message->nlmsg_type = type;
    message->nlmsg_seq = sequence;
    last_ = used_;
    return message;
  }
  // Call after filling the last message added.
  void close() { used_ = last_ + ((last()->nlmsg_len + 3u) & ~3u); }
  nlmsghdr* last() { return reinterpret_cast<nlmsghdr*>(bytes_.data() + last_); }
  // The bytes, cut to `length` when given.
  std::vector<char> bytes(std::size_t length = SIZE_MAX) const {
    return std::vector<char>(bytes_.begin(),
                             bytes_.begin() + static_cast<std::ptrdiff_t>(std::min(length, used_)));
  }

 private:
  std::vector<char> bytes_;
  std::size_t used_ = 0;
  std::size_t last_ = 0;
};

// Hands the reader a heap copy as long as the bytes (rounded up to whole words) and aligned for a
// netlink header, so that reading past them is caught by the sanitizer builds.
template <typename Reader>
auto readExactly(const std::vector<char>& bytes, Reader&& reader) {
  std::unique_ptr<std::uint32_t[]> copy(new std::uint32_t[(bytes.size() + 3) / 4]);
  std::memcpy(copy.get(), bytes.data(), bytes.size());
  return reader(static_cast<const void*>(copy.get()), bytes.size());
}

void addRoute(Datagram& datagram, std::uint8_t type, std::uint32_t interface, bool gateway,
              std::uint32_t sequence = 1, std::uint32_t flags = 0) {
  nlmsghdr* message = datagram.add(RTM_NEWROUTE, sequence);
  auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
  route->rtm_family = AF_INET;
  route->rtm_type = type;
  route->rtm_flags = flags;
  mnl_attr_put_u32(message, RTA_TABLE, RT_TABLE_MAIN);
  if (gateway) mnl_attr_put_u32(message, RTA_GATEWAY, htonl(0x0a000001));
  if (interface != 0) mnl_attr_put_u32(message, RTA_OIF, interface);
  mnl_attr_put_u16(message, 0x7ff0, 1);  // an attribute type from the future
  datagram.close();
}

void addError(Datagram& datagram, int error, std::uint32_t sequence = 1) {
  nlmsghdr* message = datagram.add(NLMSG_ERROR, sequence);
  auto* answer = static_cast<nlmsgerr*>(mnl_nlmsg_put_extra_header(message, sizeof(nlmsgerr)));
  answer->error = -error;
  datagram.close();
}

void addLink(Datagram& datagram, std::uint16_t type, const char* name, std::uint32_t sequence = 1,
             bool wireless = false) {
  nlmsghdr* message = datagram.add(RTM_NEWLINK, sequence);
  mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
  if (name != nullptr) mnl_attr_put_strz(message, IFLA_IFNAME, name);
  if (wireless) mnl_attr_put(message, IFLA_WIRELESS, 4, "\0\0\0\0");
  message->nlmsg_type = type;
  datagram.close();
}

std::optional<ZRBRouteLookup> routeAnswer(const std::vector<char>& bytes, std::uint32_t sequence = 1) {
  return readExactly(bytes, [&](const void* data, std::size_t length) {
    return ZRBNetlinkReadRouteAnswer(data, length, sequence);
  });
}

TEST(NetlinkRouteTest, RouteAnswers) {
  Datagram found;
  addRoute(found, RTN_UNICAST, 7, true);
  auto answer = routeAnswer(found.bytes());
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->outcome, ZRBRouteLookup::Found);
  EXPECT_EQ(answer->type, RTN_UNICAST);
  EXPECT_EQ(answer->outputInterface, 7u);
  EXPECT_TRUE(answer->viaGateway);

  // Another request's answer first, then ours.
  Datagram mixed;
  addRoute(mixed, RTN_UNICAST, 3, true, 9);
  addRoute(mixed, RTN_LOCAL, 1, false, 2);
  answer = routeAnswer(mixed.bytes(), 2);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->type, RTN_LOCAL);
  EXPECT_EQ(answer->outputInterface, 1u);
  EXPECT_FALSE(answer->viaGateway);
  EXPECT_FALSE(routeAnswer(mixed.bytes(), 5)) << "no answer to request 5 yet: read on";

  struct Case {
    const char* what;
    std::vector<char> bytes;
    std::optional<ZRBRouteLookup::Outcome> outcome;
  };
  Datagram unreachable, errorTooShort, wrongWidth, headerOnly, unknownOnly;
  addError(unreachable, ENETUNREACH);
  addError(errorTooShort, EHOSTUNREACH);
  errorTooShort.last()->nlmsg_len = sizeof(nlmsghdr) + 2;
  nlmsghdr* message = wrongWidth.add(RTM_NEWROUTE);
  mnl_nlmsg_put_extra_header(message, sizeof(rtmsg));
  mnl_attr_put_u16(message, RTA_OIF, 3);
  wrongWidth.close();
  headerOnly.add(RTM_NEWROUTE);
  headerOnly.close();
  unknownOnly.add(0x3ff)->nlmsg_len += 8;
  unknownOnly.close();
  Case cases[] = {
      {"kernel error", unreachable.bytes(), ZRBRouteLookup::NoRoute},
      {"error without its code", errorTooShort.bytes(), ZRBRouteLookup::Failed},
      {"interface attribute of the wrong width", wrongWidth.bytes(), ZRBRouteLookup::Failed},
      {"route message without its header", headerOnly.bytes(), ZRBRouteLookup::Failed},
      {"message cut short", found.bytes(found.bytes().size() - 6), ZRBRouteLookup::Failed},
      {"half a netlink header", found.bytes(10), ZRBRouteLookup::Failed},
      {"unknown message type only", unknownOnly.bytes(), std::nullopt},
      {"nothing", {}, std::nullopt},
  };
  for (const auto& c : cases) {
    auto result = routeAnswer(c.bytes);
    ASSERT_EQ(result.has_value(), c.outcome.has_value()) << c.what;
    if (result) {
      EXPECT_EQ(result->outcome, *c.outcome) << c.what;
    }
  }
}

TEST(NetlinkRouteTest, LinkNameWithoutItsNulIsNotReadOn) {
  Datagram unterminated;
  nlmsghdr* message = unterminated.add(RTM_NEWLINK);
  mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
  mnl_attr_put(message, IFLA_IFNAME, 4, "eth0");
  unterminated.close();
  auto link = readExactly(unterminated.bytes(), [](const void* data, std::size_t length) {
    return ZRBNetlinkReadLinkAnswer(data, length, 1);
  });
  ASSERT_TRUE(link);
  EXPECT_EQ(link->outcome, ZRBLinkState::Failed);
}

TEST(NetlinkRouteTest, WhichNotificationsAreChanges) {
  struct Case {
    const char* what;
    std::function<void(Datagram&)> build;
    std::size_t cut;  // bytes taken off the end
    std::size_t messages;
    bool relevant;
  } cases[] = {
      {"link", [](Datagram& d) { addLink(d, RTM_NEWLINK, "v0"); }, 0, 1, true},
      {"link removed", [](Datagram& d) { addLink(d, RTM_DELLINK, "v0"); }, 0, 1, true},
      {"wireless event", [](Datagram& d) { addLink(d, RTM_NEWLINK, "wl0", 0, true); }, 0, 1, false},
      {"route", [](Datagram& d) { addRoute(d, RTN_UNICAST, 2, true); }, 0, 1, true},
      {"cached route", [](Datagram& d) { addRoute(d, RTN_UNICAST, 2, true, 0, RTM_F_CLONED); }, 0, 1, false},
      {"address removed",
       [](Datagram& d) {
         mnl_nlmsg_put_extra_header(d.add(RTM_DELADDR), sizeof(ifaddrmsg));
         d.close();
       },
       0, 1, true},
      {"neighbour and unknown types",
       [](Datagram& d) {
         mnl_nlmsg_put_extra_header(d.add(RTM_NEWNEIGH), sizeof(ndmsg));
         d.close();
         d.add(0x7777);
         d.close();
       },
       0, 2, false},
      {"unknown, then a cut-off route",
       [](Datagram& d) {
         d.add(0x7777);
         d.close();
         addRoute(d, RTN_UNICAST, 2, true);
       },
       5, 1, true},
      {"route message too short for its header",
       [](Datagram& d) {
         d.add(RTM_NEWROUTE);
         d.close();
       },
       0, 1, true},
      {"length above 2 GiB",
       [](Datagram& d) {
         d.add(RTM_NEWLINK)->nlmsg_len += 4;
         d.close();
         d.last()->nlmsg_len = 0xffff0000u;
       },
       0, 0, true},
      {"unpadded last message",
       [](Datagram& d) {
         addLink(d, RTM_NEWLINK, "v0");
         d.last()->nlmsg_len -= 1;  // and one byte cut: a whole message whose padding is missing
       },
       1, 0, true},
      {"nothing", [](Datagram&) {}, 0, 0, false},
  };
  for (const auto& c : cases) {
    Datagram datagram;
    c.build(datagram);
    auto bytes = datagram.bytes();
    bytes.resize(bytes.size() - std::min(c.cut, bytes.size()));
    auto changes = readExactly(bytes, ZRBNetlinkReadChanges);
    EXPECT_EQ(changes.messages, c.messages) << c.what;
    EXPECT_EQ(changes.relevant, c.relevant) << c.what;
  }
}

}  // namespace
