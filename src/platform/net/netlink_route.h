// ZRBNetlinkRoute: the kernel's routing state read over rtnetlink (libmnl).
//
// Lookups ask the kernel which route it would take to an address and what state an interface is
// in. They share one process-wide query socket, guarded by a lock (a lookup is one request and one
// answer, a few microseconds); the socket is opened on first use and again after a failure.
//
// The readers below take the kernel's bytes apart without trusting them: truncated messages,
// attributes that overrun their message, unknown message or attribute types are skipped or give a
// Failed answer, never a read outside the buffer. They are separate from the socket so that any
// bytes can be handed to them.
//
// All functions are safe from any thread.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

struct ZRBRouteLookup {
  enum Outcome {
    Found,    // the kernel has a route; the fields below describe it
    NoRoute,  // the kernel answered with an error: unreachable, prohibited, no such family...
    Failed,   // no answer could be had: the socket failed or the answer made no sense
  };
  Outcome outcome = Failed;
  std::uint8_t type = 0;              // RTN_UNICAST, RTN_LOCAL, RTN_BLACKHOLE...
  std::uint32_t outputInterface = 0;  // interface index; 0 when the answer named none
  bool viaGateway = false;            // a next hop other than the destination itself
};

struct ZRBLinkState {
  enum Outcome { Found, NoLink, Failed };
  Outcome outcome = Failed;
  std::uint32_t flags = 0;     // IFF_UP, IFF_RUNNING...
  std::uint8_t operState = 0;  // IF_OPER_UP, IF_OPER_UNKNOWN...
  std::uint16_t type = 0;      // ARPHRD_ETHER, ARPHRD_NONE...
  std::string name;            // empty when the answer carried none
};

// The route the kernel would take to `address`, an IPv4 or IPv6 socket address (an IPv6 scope
// identifier is honoured). Another family, or a null address, is NoRoute.
ZRBRouteLookup ZRBNetlinkLookupRoute(const sockaddr* address);
// The state of the interface with index `index`.
ZRBLinkState ZRBNetlinkLookupLink(std::uint32_t index);

// The answer to request `sequence` among the messages in `data`: nullopt when none of them
// answers it (the caller reads on), Failed when the answer is malformed.
std::optional<ZRBRouteLookup> ZRBNetlinkReadRouteAnswer(const void* data, std::size_t length,
                                                        std::uint32_t sequence);
std::optional<ZRBLinkState> ZRBNetlinkReadLinkAnswer(const void* data, std::size_t length,
                                                     std::uint32_t sequence);

// What a datagram of change notifications holds.
struct ZRBNetlinkChanges {
  std::size_t messages = 0;  // whole messages read
  // Whether reachability may have changed: a link, address or route was added, changed or removed,
  // or the datagram could not be read whole (what was lost may have mattered). Wireless events
  // on a link and cached routes do not count; nor do unknown types.
  bool relevant = false;
};
ZRBNetlinkChanges ZRBNetlinkReadChanges(const void* data, std::size_t length);

// The multicast groups that carry those changes: links, IPv4 and IPv6 addresses and routes.
unsigned ZRBNetlinkChangeGroups();
