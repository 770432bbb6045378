// ZRBNetworkReachability: whether a host name or an address can be reached from this machine now,
// and through what kind of interface, read from the kernel's routing state.
//
// Flags. A read asks the kernel for the route to the address (RTM_GETROUTE) and for the state of
// the route's outgoing interface. The address is reachable when the kernel has a unicast, local,
// broadcast or multicast route to it and the interface is up with a carrier (IFF_UP, IFF_RUNNING,
// operational state up or unknown); then the flags are Reachable, plus IsDirect when the route has
// no gateway, IsLocalAddress (and IsDirect) when the address is one of this machine's, and IsWWAN
// when the interface is a modem's: its sysfs DEVTYPE is "wwan" or its link type is one that modems
// use (ARPHRD_NONE, ARPHRD_RAWIP, ARPHRD_PPP). Anything else is 0. The connection-required,
// on-traffic, on-demand and intervention bits are never set: Linux has no dial-on-demand links.
//
// The all-zero address (IPv6 or IPv4) stands for the internet in general: reachable when a route
// to a global address exists in either family, which is what a default route gives. A host name
// is resolved (getaddrinfo, on a thread of its own) and its addresses judged as above; the best
// answer counts (an interface that is not a modem's before one that is). A name that does not
// resolve is not reachable (0), and so is one that cannot be a host name (longer than 253
// characters, an empty or over-long label, a NUL byte): it is never looked up.
//
// getFlags() fails (returns false) only when the kernel could not be asked; "no route" is a
// successful read of 0. On the main queue it never waits for name resolution: a name that has not
// been resolved yet reads as 0 while the resolution starts; elsewhere the read waits for the
// resolution (up to 30 s, then 0).
//
// Changes. Every scheduled object is watched through one rtnetlink socket per process (libmnl),
// subscribed to link, address and route changes of IPv4 and IPv6, read on a thread of its own. A
// burst of messages coalesces into one re-evaluation coalescingDelay() after its first message;
// every scheduled object then re-reads its flags (objects with the same address share one read; a
// name is resolved again first) and gets its callback on its queue, whether or not the flags
// changed. Messages of unknown types, cached routes and wireless events are ignored; a datagram
// that cannot be read whole counts as a change.
//
// Thread-safety: every operation may be called from any thread. A callback never runs after the
// object has been unscheduled from (or rescheduled on another queue) on its queue's thread, or once
// setCallback() replaced it there.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/object.h"
#include "platform/runtime/dispatch.h"

using ZRBNetworkReachabilityFlags = std::uint32_t;
enum : ZRBNetworkReachabilityFlags {
  ZRBNetworkReachabilityFlagsTransientConnection = 1u << 0,
  ZRBNetworkReachabilityFlagsReachable = 1u << 1,
  ZRBNetworkReachabilityFlagsConnectionRequired = 1u << 2,
  ZRBNetworkReachabilityFlagsConnectionOnTraffic = 1u << 3,
  ZRBNetworkReachabilityFlagsInterventionRequired = 1u << 4,
  ZRBNetworkReachabilityFlagsConnectionOnDemand = 1u << 5,
  ZRBNetworkReachabilityFlagsIsLocalAddress = 1u << 16,
  ZRBNetworkReachabilityFlagsIsDirect = 1u << 17,
  ZRBNetworkReachabilityFlagsIsWWAN = 1u << 18,
};

class ZRBNetworkReachability;
using ZRBNetworkReachabilityPtr = std::shared_ptr<ZRBNetworkReachability>;

// Called on the scheduling queue with the flags just read and the context's `info`.
using ZRBNetworkReachabilityCallBack = void (*)(ZRBNetworkReachability& target,
                                                ZRBNetworkReachabilityFlags flags, void* info);

// The caller's data for the callback. `retain` is called when the context is set and must return
// the pointer to keep (null keeps `info` as it is); `release` is called for the kept pointer when
// the context is replaced or the object goes away. Either may be null.
struct ZRBNetworkReachabilityContext {
  void* info = nullptr;
  const void* (*retain)(const void* info) = nullptr;
  void (*release)(const void* info) = nullptr;
};

// What the process's change watcher has done so far (for measurements).
struct ZRBNetworkReachabilityStatistics {
  std::uint64_t datagrams = 0;          // datagrams read from the netlink socket
  std::uint64_t messages = 0;           // whole messages in them
  std::uint64_t overruns = 0;           // times the socket's queue overflowed (messages were lost)
  std::uint64_t reevaluations = 0;      // coalesced bursts, each one re-read of every scheduled object
  std::chrono::nanoseconds cpuTime{0};  // CPU time of the watcher's thread
};

class ZRBNetworkReachability final : public ZRBObject {
 public:
  // A target for a host name (UTF-8); null for an empty name.
  static ZRBNetworkReachabilityPtr createWithName(std::string_view name);
  // A target for an IPv4 (sockaddr_in) or IPv6 (sockaddr_in6) socket address, copied; null for a
  // null pointer or another family. An IPv4-mapped IPv6 address is judged as the IPv4 address.
  static ZRBNetworkReachabilityPtr createWithAddress(const sockaddr* address);

  ~ZRBNetworkReachability() override;

  bool getFlags(ZRBNetworkReachabilityFlags& flags);

  // Sets (null callout: removes) the callback. Always succeeds.
  bool setCallback(ZRBNetworkReachabilityCallBack callout, const ZRBNetworkReachabilityContext* context);
  // Schedules the object on `queue`, or unschedules it for null. Scheduling starts the process's
  // change watcher on first use; false when its socket cannot be opened.
  bool setDispatchQueue(ZRBDispatchQueuePtr queue);
  bool isScheduled() const;

  // The host name, or empty for an address target.
  const std::string& name() const { return name_; }

  // The wait between the first message of a burst and the re-evaluation it leads to.
  static std::chrono::microseconds coalescingDelay();
  static ZRBNetworkReachabilityStatistics statistics();

  std::string className() const override { return "ZRBNetworkReachability"; }
  // "<ZRBNetworkReachability: 0x...> name = example.com" or "... address = [::]:0".
  std::string description() const override;

  // The construction tag (only the factories make one) and the change watcher's access.
  struct Private;
  enum class Kind { Address, Internet, Name };
  ZRBNetworkReachability(const Private&, Kind kind, std::string name, const sockaddr_storage* address);

 private:
  void deliver(ZRBNetworkReachabilityFlags flags, std::uint64_t schedule);
  bool readAddressFlags(ZRBNetworkReachabilityFlags& flags) const;
  // Starts a resolution unless one runs; `forWatcher`: its result goes to the scheduled callback.
  void resolve(std::unique_lock<std::mutex>& lock, bool forWatcher);
  void resolved(std::vector<sockaddr_storage> addresses, std::uint64_t networkGeneration);

  const Kind kind_;
  const std::string name_;
  const bool nameResolvable_;
  sockaddr_storage address_{};

  mutable std::mutex mutex_;
  ZRBNetworkReachabilityCallBack callout_ = nullptr;
  ZRBNetworkReachabilityContext context_{};
  ZRBDispatchQueuePtr queue_;
  std::uint64_t schedule_ = 0;  // counts schedulings; a delivery of an older one is dropped

  // Name targets: the last resolution and the one running.
  std::condition_variable resolvedCondition_;
  std::vector<sockaddr_storage> addresses_;
  bool hasResolution_ = false;
  std::uint64_t resolutionGeneration_ = 0;  // network generation the last resolution started in
  std::uint64_t resolutionsFinished_ = 0;
  bool resolving_ = false;
  bool resolveAgain_ = false;
  bool deliverResolution_ = false;
};
