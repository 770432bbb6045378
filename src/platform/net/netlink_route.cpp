#include "platform/net/netlink_route.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <mutex>

namespace {

// Walks the whole messages of a datagram. `visit` returns false to stop early. Returns false when
// bytes are left over that do not make a whole message (a truncated or garbled datagram). The
// lengths are checked here rather than with mnl_nlmsg_ok, whose signed comparison takes a length
// above 2 GiB for a valid one; a message must fit with its padding, as the kernel sends them, so
// that attribute walks up to its padded end stay inside the bytes.
template <typename Visit>
bool forEachMessage(const void* data, std::size_t length, Visit&& visit) {
  if (data == nullptr) return true;
  const auto* bytes = static_cast<const char*>(data);
  std::size_t offset = 0;
  while (length - offset >= sizeof(nlmsghdr)) {
    const auto* message = reinterpret_cast<const nlmsghdr*>(bytes + offset);
    std::size_t padded =
        (std::size_t{message->nlmsg_len} + NLMSG_ALIGNTO - 1) & ~std::size_t{NLMSG_ALIGNTO - 1};
    if (message->nlmsg_len < sizeof(nlmsghdr) || padded > length - offset) return false;
    if (!visit(message)) return true;
    offset += padded;
  }
  return offset == length;
}

// The fixed header after the netlink header, when the message is long enough to hold it.
template <typename Header>
const Header* fixedHeader(const nlmsghdr* message) {
  if (mnl_nlmsg_get_payload_len(message) < sizeof(Header)) return nullptr;
  return static_cast<const Header*>(mnl_nlmsg_get_payload(message));
}

// The kernel's error code of an NLMSG_ERROR message (0 for an acknowledgement); EPROTO when the
// message is too short to carry one.
int errorCode(const nlmsghdr* message) {
  const auto* error = fixedHeader<nlmsgerr>(message);
  if (error == nullptr) return EPROTO;
  return error->error == INT_MIN ? EPROTO : -error->error;
}

// ---- route answers ----

struct RouteAttributes {
  ZRBRouteLookup* lookup;
  bool malformed = false;
};

int readRouteAttribute(const nlattr* attribute, void* data) {
  auto& state = *static_cast<RouteAttributes*>(data);
  switch (mnl_attr_get_type(attribute)) {
    case RTA_OIF:
      if (mnl_attr_validate(attribute, MNL_TYPE_U32) < 0) {
        state.malformed = true;
        return MNL_CB_ERROR;
      }
      state.lookup->outputInterface = mnl_attr_get_u32(attribute);
      break;
    case RTA_GATEWAY:
    case RTA_VIA: state.lookup->viaGateway = true; break;
    default: break;  // unknown and unused attributes
  }
  return MNL_CB_OK;
}

// ---- link answers ----

struct LinkAttributes {
  ZRBLinkState* link;
  bool malformed = false;
};

int readLinkAttribute(const nlattr* attribute, void* data) {
  auto& state = *static_cast<LinkAttributes*>(data);
  switch (mnl_attr_get_type(attribute)) {
    case IFLA_IFNAME:
      if (mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) < 0) {
        state.malformed = true;
        return MNL_CB_ERROR;
      }
      state.link->name = mnl_attr_get_str(attribute);
      break;
    case IFLA_OPERSTATE:
      if (mnl_attr_validate(attribute, MNL_TYPE_U8) < 0) {
        state.malformed = true;
        return MNL_CB_ERROR;
      }
      state.link->operState = mnl_attr_get_u8(attribute);
      break;
    default: break;
  }
  return MNL_CB_OK;
}

// ---- change notifications ----

int findWireless(const nlattr* attribute, void* data) {
  if (mnl_attr_get_type(attribute) == IFLA_WIRELESS) {
    *static_cast<bool*>(data) = true;
    return MNL_CB_STOP;
  }
  return MNL_CB_OK;
}

bool changesReachability(const nlmsghdr* message) {
  switch (message->nlmsg_type) {
    case RTM_NEWLINK: {
      // Wireless drivers report scans and similar events as link messages; the link itself is
      // unchanged by them.
      if (fixedHeader<ifinfomsg>(message) == nullptr) return true;
      bool wireless = false;
      mnl_attr_parse(message, sizeof(ifinfomsg), findWireless, &wireless);
      return !wireless;
    }
    case RTM_NEWROUTE:
    case RTM_DELROUTE: {
      // Cached routes (path MTU and redirect exceptions) come and go with traffic.
      const auto* route = fixedHeader<rtmsg>(message);
      return route == nullptr || (route->rtm_flags & RTM_F_CLONED) == 0;
    }
    case RTM_DELLINK:
    case RTM_NEWADDR:
    case RTM_DELADDR:
    case NLMSG_OVERRUN: return true;
    default: return false;
  }
}

// ---- the query socket ----

constexpr std::size_t kAnswerBufferSize = 32 * 1024;

class QuerySocket {
 public:
  // Sends the request and reads until `read` finds the answer to it. Failed on any socket error.
  template <typename Answer, typename Read>
  Answer exchange(nlmsghdr* request, Read&& read) {
    std::lock_guard lock(mutex_);
    if (!open()) return Answer{};
    request->nlmsg_seq = ++sequence_;
    request->nlmsg_flags |= NLM_F_REQUEST;
    if (mnl_socket_sendto(socket_, request, request->nlmsg_len) < 0) return fail<Answer>();
    for (;;) {
      ssize_t received = mnl_socket_recvfrom(socket_, buffer_.data(), buffer_.size());
      if (received < 0) {
        if (errno == EINTR) continue;
        return fail<Answer>();
      }
      if (auto answer = read(buffer_.data(), static_cast<std::size_t>(received), sequence_)) return *answer;
    }
  }

 private:
  bool open() {
    if (socket_ != nullptr) return true;
    socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (socket_ == nullptr) return false;
    // The kernel answers at once; the timeout only keeps a broken socket from hanging a caller.
    timeval timeout{2, 0};
    int one = 1;
    if (mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) < 0 ||
        setsockopt(mnl_socket_get_fd(socket_), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) < 0) {
      close();
      return false;
    }
    // Error answers without a copy of the request: smaller, and nothing here reads them.
    mnl_socket_setsockopt(socket_, NETLINK_CAP_ACK, &one, sizeof one);
    return true;
  }
  void close() {
    if (socket_ != nullptr) mnl_socket_close(socket_);
    socket_ = nullptr;
  }
  // Drops the socket, so stray answers of this request cannot be taken for the next one's.
  template <typename Answer>
  Answer fail() {
    close();
    return Answer{};
  }

  std::mutex mutex_;
  mnl_socket* socket_ = nullptr;
  std::uint32_t sequence_ = 0;
  alignas(nlmsghdr) std::array<char, kAnswerBufferSize> buffer_{};
};

QuerySocket& querySocket() {
  // Immortal: lookups may run on other threads while static destructors run at exit.
  static auto* socket = new QuerySocket;
  return *socket;
}

}  // namespace

std::optional<ZRBRouteLookup> ZRBNetlinkReadRouteAnswer(const void* data, std::size_t length,
                                                        std::uint32_t sequence) {
  std::optional<ZRBRouteLookup> answer;
  bool whole = forEachMessage(data, length, [&](const nlmsghdr* message) {
    if (message->nlmsg_seq != sequence) return true;
    ZRBRouteLookup lookup;
    if (message->nlmsg_type == NLMSG_ERROR) {
      int code = errorCode(message);
      lookup.outcome = code == EPROTO ? ZRBRouteLookup::Failed : ZRBRouteLookup::NoRoute;
      answer = lookup;
      return false;
    }
    if (message->nlmsg_type != RTM_NEWROUTE) return true;
    const auto* route = fixedHeader<rtmsg>(message);
    if (route == nullptr) {
      answer = lookup;
      return false;
    }
    lookup.type = route->rtm_type;
    RouteAttributes attributes{&lookup};
    mnl_attr_parse(message, sizeof(rtmsg), readRouteAttribute, &attributes);
    lookup.outcome = attributes.malformed ? ZRBRouteLookup::Failed : ZRBRouteLookup::Found;
    if (attributes.malformed) lookup = ZRBRouteLookup{};
    answer = lookup;
    return false;
  });
  if (!answer && !whole) return ZRBRouteLookup{};
  return answer;
}

std::optional<ZRBLinkState> ZRBNetlinkReadLinkAnswer(const void* data, std::size_t length,
                                                     std::uint32_t sequence) {
  std::optional<ZRBLinkState> answer;
  bool whole = forEachMessage(data, length, [&](const nlmsghdr* message) {
    if (message->nlmsg_seq != sequence) return true;
    ZRBLinkState link;
    if (message->nlmsg_type == NLMSG_ERROR) {
      link.outcome = errorCode(message) == EPROTO ? ZRBLinkState::Failed : ZRBLinkState::NoLink;
      answer = link;
      return false;
    }
    if (message->nlmsg_type != RTM_NEWLINK) return true;
    const auto* info = fixedHeader<ifinfomsg>(message);
    if (info == nullptr) {
      answer = link;
      return false;
    }
    link.flags = info->ifi_flags;
    link.type = info->ifi_type;
    LinkAttributes attributes{&link};
    mnl_attr_parse(message, sizeof(ifinfomsg), readLinkAttribute, &attributes);
    if (attributes.malformed) {
      answer = ZRBLinkState{};
    } else {
      link.outcome = ZRBLinkState::Found;
      answer = std::move(link);
    }
    return false;
  });
  if (!answer && !whole) return ZRBLinkState{};
  return answer;
}

ZRBNetlinkChanges ZRBNetlinkReadChanges(const void* data, std::size_t length) {
  ZRBNetlinkChanges changes;
  bool whole = forEachMessage(data, length, [&](const nlmsghdr* message) {
    ++changes.messages;
    if (!changes.relevant && changesReachability(message)) changes.relevant = true;
    return true;
  });
  if (!whole) changes.relevant = true;
  return changes;
}

unsigned ZRBNetlinkChangeGroups() {
  return RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
}

ZRBRouteLookup ZRBNetlinkLookupRoute(const sockaddr* address) {
  if (address == nullptr || (address->sa_family != AF_INET && address->sa_family != AF_INET6))
    return ZRBRouteLookup{ZRBRouteLookup::NoRoute, 0, 0, false};
  alignas(nlmsghdr) std::array<char, 256> buffer{};
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETROUTE;
  auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
  route->rtm_family = address->sa_family;
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    route->rtm_dst_len = 32;
    mnl_attr_put(request, RTA_DST, sizeof v4->sin_addr, &v4->sin_addr);
  } else {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    route->rtm_dst_len = 128;
    mnl_attr_put(request, RTA_DST, sizeof v6->sin6_addr, &v6->sin6_addr);
    // A link-local address means the one on that interface.
    if (v6->sin6_scope_id != 0) mnl_attr_put_u32(request, RTA_OIF, v6->sin6_scope_id);
  }
  return querySocket().exchange<ZRBRouteLookup>(request, ZRBNetlinkReadRouteAnswer);
}

ZRBLinkState ZRBNetlinkLookupLink(std::uint32_t index) {
  if (index == 0 || index > INT_MAX) {
    ZRBLinkState none;
    none.outcome = ZRBLinkState::NoLink;
    return none;
  }
  alignas(nlmsghdr) std::array<char, 256> buffer{};
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETLINK;
  auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
  info->ifi_family = AF_UNSPEC;
  info->ifi_index = static_cast<int>(index);
  // Counters are most of a link answer and nothing here reads them.
  mnl_attr_put_u32(request, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  return querySocket().exchange<ZRBLinkState>(request, ZRBNetlinkReadLinkAnswer);
}
