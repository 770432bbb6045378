#include "platform/net/network_reachability.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

#include "platform/net/netlink_route.h"

namespace {

// Measured with bench/reachability.cpp (veth peer taken down and up, 200 times): the messages of
// one link change arrive within 0.05 ms of each other at the median, but the kernel sends some of
// them from deferred work, and on a loaded machine (2 cores, load 12) that came up to 8 ms later
// at the 99th percentile. 10 ms takes in such a burst whole while a change still reaches its
// callback in about 11 ms.
constexpr std::chrono::microseconds kCoalescingDelay{10000};

// A name resolution that takes longer than this is given up by a caller that waits for it.
constexpr std::chrono::seconds kResolutionWait{30};

// At most this many of a name's addresses are judged.
constexpr std::size_t kMaxAddresses = 8;

// ---- flags from the kernel's answers ----

// Whether the interface is a modem's. Link types decide first; otherwise its sysfs DEVTYPE, read
// only when the sysfs entry of that name is the same interface (sysfs shows the interfaces of the
// namespace that mounted it).
bool isWWAN(const ZRBLinkState& link, std::uint32_t index) {
  if (link.type == ARPHRD_NONE || link.type == ARPHRD_RAWIP || link.type == ARPHRD_PPP) return true;
  if (link.name.empty() || link.name == "." || link.name == ".." || link.name.find('/') != std::string::npos)
    return false;
  std::string folder = "/sys/class/net/" + link.name + "/";
  std::ifstream indexFile(folder + "ifindex");
  std::uint32_t sysfsIndex = 0;
  if (!(indexFile >> sysfsIndex) || sysfsIndex != index) return false;
  std::ifstream uevent(folder + "uevent");
  for (std::string line; std::getline(uevent, line);) {
    if (line == "DEVTYPE=wwan") return true;
  }
  return false;
}

// An IPv4-mapped IPv6 address (::ffff:a.b.c.d) is reached as the IPv4 address it carries.
const sockaddr* unmapped(const sockaddr* address, sockaddr_in& storage) {
  if (address->sa_family != AF_INET6) return address;
  const auto& bytes = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr.s6_addr;
  static constexpr std::uint8_t kPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  if (std::memcmp(bytes, kPrefix, sizeof kPrefix) != 0) return address;
  storage = sockaddr_in{};
  storage.sin_family = AF_INET;
  std::memcpy(&storage.sin_addr, bytes + 12, 4);
  return reinterpret_cast<const sockaddr*>(&storage);
}

// Flags of one address; false when the kernel could not be asked.
bool flagsForAddress(const sockaddr* address, ZRBNetworkReachabilityFlags& flags) {
  flags = 0;
  sockaddr_in v4;
  ZRBRouteLookup route = ZRBNetlinkLookupRoute(unmapped(address, v4));
  if (route.outcome == ZRBRouteLookup::Failed) return false;
  if (route.outcome == ZRBRouteLookup::NoRoute) return true;
  bool local = route.type == RTN_LOCAL;
  if (!local && route.type != RTN_UNICAST && route.type != RTN_BROADCAST && route.type != RTN_MULTICAST)
    return true;  // blackhole, unreachable, prohibit, throw
  ZRBLinkState link = ZRBNetlinkLookupLink(route.outputInterface);
  if (link.outcome == ZRBLinkState::Failed) return false;
  if (link.outcome == ZRBLinkState::NoLink) return true;
  bool carrier = (link.flags & IFF_UP) != 0 && (link.flags & IFF_RUNNING) != 0 &&
                 (link.operState == IF_OPER_UP || link.operState == IF_OPER_UNKNOWN);
  if (!carrier) return true;
  flags = ZRBNetworkReachabilityFlagsReachable;
  if (local) flags |= ZRBNetworkReachabilityFlagsIsLocalAddress | ZRBNetworkReachabilityFlagsIsDirect;
  if (!route.viaGateway) flags |= ZRBNetworkReachabilityFlagsIsDirect;
  if (isWWAN(link, route.outputInterface)) flags |= ZRBNetworkReachabilityFlagsIsWWAN;
  return true;
}

// Reachable through an interface that is not a modem's beats reachable through one that is.
int rank(ZRBNetworkReachabilityFlags flags) {
  if ((flags & ZRBNetworkReachabilityFlagsReachable) == 0) return 0;
  return (flags & ZRBNetworkReachabilityFlagsIsWWAN) != 0 ? 1 : 2;
}

// The best flags of several addresses. A failed read only fails the whole when nothing is reachable.
template <typename Addresses>
bool bestFlags(const Addresses& addresses, ZRBNetworkReachabilityFlags& flags) {
  flags = 0;
  bool failed = false;
  for (const sockaddr* address : addresses) {
    ZRBNetworkReachabilityFlags candidate = 0;
    if (!flagsForAddress(address, candidate)) {
      failed = true;
      continue;
    }
    if (rank(candidate) > rank(flags)) flags = candidate;
    if (rank(flags) == 2) break;
  }
  return !failed || rank(flags) > 0;
}

// Global unicast addresses that only a route to the internet at large (a default route, in
// practice) leads to. They are looked up in the routing table, never contacted.
struct InternetProbes {
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  InternetProbes() {
    v4.sin_family = AF_INET;
    inet_pton(AF_INET, "8.8.8.8", &v4.sin_addr);
    v6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:4860:4860::8888", &v6.sin6_addr);
  }
};

bool flagsForInternet(ZRBNetworkReachabilityFlags& flags) {
  static const InternetProbes probes;
  const sockaddr* addresses[] = {reinterpret_cast<const sockaddr*>(&probes.v4),
                                 reinterpret_cast<const sockaddr*>(&probes.v6)};
  return bestFlags(addresses, flags);
}

bool isAllZero(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET)
    return reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr == INADDR_ANY;
  const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
  return std::all_of(std::begin(v6.s6_addr), std::end(v6.s6_addr), [](std::uint8_t b) { return b == 0; });
}

std::size_t addressLength(sa_family_t family) {
  return family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

// A name that a resolver could be asked for: no NUL, at most 253 characters (one trailing dot
// aside), labels of 1 to 63 characters.
bool isResolvableName(std::string_view name) {
  if (name.empty() || name.find('\0') != std::string_view::npos) return false;
  if (name.back() == '.') name.remove_suffix(1);
  if (name.empty() || name.size() > 253) return false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t end = name.find('.', start);
    if (end == std::string_view::npos) end = name.size();
    if (end == start || end - start > 63) return false;
    start = end + 1;
  }
  return true;
}

std::string describeAddress(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(v4.sin_port));
  }
  const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
  inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
  return "[" + std::string(text) + "]:" + std::to_string(ntohs(v6.sin6_port));
}

// ---- the change watcher ----

class Watcher {
 public:
  static Watcher& shared() {
    // Immortal: its thread runs for the life of the process.
    static auto* watcher = new Watcher;
    return *watcher;
  }

  // Registers a scheduled target, starting the watcher on first use.
  bool add(const ZRBNetworkReachabilityPtr& target) {
    std::lock_guard lock(mutex_);
    if (!started_ && !start()) return false;
    targets_[target.get()] = target;
    return true;
  }
  void remove(const ZRBNetworkReachability* target) {
    std::lock_guard lock(mutex_);
    targets_.erase(target);
  }

  bool running() const { return running_.load(std::memory_order_acquire); }
  // Counts coalesced bursts: a resolution made in an older generation may be out of date.
  std::uint64_t generation() const { return generation_.load(std::memory_order_acquire); }

  ZRBNetworkReachabilityStatistics statistics() const {
    ZRBNetworkReachabilityStatistics statistics;
    statistics.datagrams = datagrams_.load(std::memory_order_relaxed);
    statistics.messages = messages_.load(std::memory_order_relaxed);
    statistics.overruns = overruns_.load(std::memory_order_relaxed);
    statistics.reevaluations = generation();
    if (running()) {
      timespec cpu{};
      if (clock_gettime(cpuClock_, &cpu) == 0)
        statistics.cpuTime = std::chrono::seconds(cpu.tv_sec) + std::chrono::nanoseconds(cpu.tv_nsec);
    }
    return statistics;
  }

 private:
  bool start();
  void run();
  void drain(bool& pending, std::chrono::steady_clock::time_point& deadline);
  void reevaluate();

  std::mutex mutex_;
  bool started_ = false;
  std::unordered_map<const ZRBNetworkReachability*, std::weak_ptr<ZRBNetworkReachability>> targets_;
  mnl_socket* socket_ = nullptr;
  clockid_t cpuClock_{};
  std::atomic<bool> running_{false};
  std::atomic<std::uint64_t> generation_{0};
  std::atomic<std::uint64_t> datagrams_{0};
  std::atomic<std::uint64_t> messages_{0};
  std::atomic<std::uint64_t> overruns_{0};
};

bool Watcher::start() {
  socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (socket_ == nullptr) return false;
  if (mnl_socket_bind(socket_, ZRBNetlinkChangeGroups(), MNL_SOCKET_AUTOPID) < 0) {
    mnl_socket_close(socket_);
    socket_ = nullptr;
    return false;
  }
  // A flood of route changes must not overflow the queue while a re-evaluation runs; beyond the
  // default limit only with the privilege to force it.
  int size = 4 << 20;
  if (setsockopt(mnl_socket_get_fd(socket_), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0)
    setsockopt(mnl_socket_get_fd(socket_), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  std::thread thread([this] { run(); });
  pthread_setname_np(thread.native_handle(), "zrb-reachability");
  if (pthread_getcpuclockid(thread.native_handle(), &cpuClock_) != 0) cpuClock_ = CLOCK_THREAD_CPUTIME_ID;
  thread.detach();
  started_ = true;
  running_.store(true, std::memory_order_release);
  return true;
}

void Watcher::run() {
  pollfd descriptor{mnl_socket_get_fd(socket_), POLLIN, 0};
  bool pending = false;
  auto deadline = std::chrono::steady_clock::time_point::max();
  for (;;) {
    timespec wait{};
    if (pending) {
      auto left =
          std::max(deadline - std::chrono::steady_clock::now(), std::chrono::steady_clock::duration::zero());
      auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
      wait.tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
      wait.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    }
    int ready = ppoll(&descriptor, 1, pending ? &wait : nullptr, nullptr);
    if (ready > 0) drain(pending, deadline);
    if (pending && std::chrono::steady_clock::now() >= deadline) {
      pending = false;
      generation_.fetch_add(1, std::memory_order_acq_rel);
      reevaluate();
    }
  }
}

void Watcher::drain(bool& pending, std::chrono::steady_clock::time_point& deadline) {
  alignas(nlmsghdr) static thread_local std::array<char, 64 * 1024> buffer;
  auto changed = [&] {
    if (pending) return;
    pending = true;
    deadline = std::chrono::steady_clock::now() + kCoalescingDelay;
  };
  for (;;) {
    ssize_t received = mnl_socket_recvfrom(socket_, buffer.data(), buffer.size());
    if (received < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {  // the queue overflowed: whatever was lost may have mattered
        overruns_.fetch_add(1, std::memory_order_relaxed);
        changed();
        continue;
      }
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        // A socket error that poll keeps reporting: re-read the state rather than spin on it.
        changed();
        std::this_thread::sleep_for(kCoalescingDelay);
      }
      return;
    }
    datagrams_.fetch_add(1, std::memory_order_relaxed);
    ZRBNetlinkChanges changes = ZRBNetlinkReadChanges(buffer.data(), static_cast<std::size_t>(received));
    messages_.fetch_add(changes.messages, std::memory_order_relaxed);
    if (changes.relevant) changed();
  }
}

}  // namespace

// The watcher's and the resolver's way into the object.
struct ZRBNetworkReachability::Private {
  static bool isName(const ZRBNetworkReachability& target) { return target.kind_ == Kind::Name; }
  static std::string key(const ZRBNetworkReachability& target) {
    if (target.kind_ == Kind::Internet) return "internet";
    return std::string(reinterpret_cast<const char*>(&target.address_),
                       addressLength(target.address_.ss_family));
  }
  static std::uint64_t schedule(ZRBNetworkReachability& target, ZRBDispatchQueuePtr& queue) {
    std::lock_guard lock(target.mutex_);
    queue = target.queue_;
    return target.schedule_;
  }
  static bool readAddressFlags(const ZRBNetworkReachability& target, ZRBNetworkReachabilityFlags& flags) {
    return target.readAddressFlags(flags);
  }
  static void refreshName(ZRBNetworkReachability& target) {
    std::unique_lock lock(target.mutex_);
    target.resolve(lock, true);
  }
  static void deliver(ZRBNetworkReachability& target, ZRBNetworkReachabilityFlags flags,
                      std::uint64_t schedule) {
    target.deliver(flags, schedule);
  }
  static void resolved(ZRBNetworkReachability& target, std::vector<sockaddr_storage> addresses,
                       std::uint64_t generation) {
    target.resolved(std::move(addresses), generation);
  }
};

namespace {

void Watcher::reevaluate() {
  std::vector<ZRBNetworkReachabilityPtr> targets;
  {
    std::lock_guard lock(mutex_);
    targets.reserve(targets_.size());
    for (auto it = targets_.begin(); it != targets_.end();) {
      if (auto target = it->second.lock()) {
        targets.push_back(std::move(target));
        ++it;
      } else {
        it = targets_.erase(it);
      }
    }
  }
  using Private = ZRBNetworkReachability::Private;
  struct Delivery {
    ZRBNetworkReachabilityPtr target;
    ZRBNetworkReachabilityFlags flags;
    std::uint64_t schedule;
  };
  // Objects with the same address share one read; one block per queue delivers to all of them.
  std::map<std::string, std::pair<bool, ZRBNetworkReachabilityFlags>> reads;
  std::map<const ZRBDispatchQueue*, std::pair<ZRBDispatchQueuePtr, std::vector<Delivery>>> deliveries;
  for (auto& target : targets) {
    ZRBDispatchQueuePtr queue;
    std::uint64_t schedule = Private::schedule(*target, queue);
    if (!queue) continue;
    if (Private::isName(*target)) {
      Private::refreshName(*target);  // delivered once resolved
      continue;
    }
    auto [read, fresh] = reads.try_emplace(Private::key(*target));
    if (fresh) read->second.first = Private::readAddressFlags(*target, read->second.second);
    if (!read->second.first) continue;  // the kernel could not be asked: nothing was re-read
    auto& batch = deliveries[queue.get()];
    batch.first = queue;
    batch.second.push_back({std::move(target), read->second.second, schedule});
  }
  for (auto& [key, batch] : deliveries) {
    batch.first->async([batch = std::move(batch.second)] {
      for (const auto& delivery : batch)
        Private::deliver(*delivery.target, delivery.flags, delivery.schedule);
    });
  }
}

// ---- name resolution ----

// One lookup. It runs on a thread of its own: a slow name server must hold up neither the caller
// nor a queue. (getaddrinfo_a would do the same on threads that glibc starts internally, which the
// thread sanitizer cannot follow.)
struct Resolution {
  std::weak_ptr<ZRBObject> target;
  std::string name;
  std::uint64_t generation = 0;
};
std::vector<sockaddr_storage> addressesOf(const addrinfo* list) {
  std::vector<sockaddr_storage> addresses;
  for (const addrinfo* entry = list; entry != nullptr && addresses.size() < kMaxAddresses;
       entry = entry->ai_next) {
    if (entry->ai_addr == nullptr) continue;
    sa_family_t family = entry->ai_addr->sa_family;
    if ((family != AF_INET && family != AF_INET6) || entry->ai_addrlen < addressLength(family)) continue;
    sockaddr_storage address{};
    std::memcpy(&address, entry->ai_addr, addressLength(family));
    bool seen = std::any_of(addresses.begin(), addresses.end(), [&](const sockaddr_storage& other) {
      return std::memcmp(&other, &address, sizeof address) == 0;
    });
    if (!seen) addresses.push_back(address);
  }
  return addresses;
}

void finishResolution(const Resolution& resolution, std::vector<sockaddr_storage> addresses) {
  if (auto target = std::static_pointer_cast<ZRBNetworkReachability>(resolution.target.lock()))
    ZRBNetworkReachability::Private::resolved(*target, std::move(addresses), resolution.generation);
}

void runResolution(const Resolution& resolution) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  std::vector<sockaddr_storage> addresses;
  if (getaddrinfo(resolution.name.c_str(), nullptr, &hints, &list) == 0) addresses = addressesOf(list);
  if (list != nullptr) freeaddrinfo(list);
  finishResolution(resolution, std::move(addresses));
}

}  // namespace

// ---- ZRBNetworkReachability ----

ZRBNetworkReachability::ZRBNetworkReachability(const Private&, Kind kind, std::string name,
                                               const sockaddr_storage* address)
    : kind_(kind), name_(std::move(name)), nameResolvable_(kind == Kind::Name && isResolvableName(name_)) {
  if (address != nullptr) address_ = *address;
}

ZRBNetworkReachabilityPtr ZRBNetworkReachability::createWithName(std::string_view name) {
  if (name.empty()) return nullptr;
  return std::make_shared<ZRBNetworkReachability>(Private{}, Kind::Name, std::string(name), nullptr);
}

ZRBNetworkReachabilityPtr ZRBNetworkReachability::createWithAddress(const sockaddr* address) {
  if (address == nullptr || (address->sa_family != AF_INET && address->sa_family != AF_INET6)) return nullptr;
  sockaddr_storage copy{};
  std::memcpy(&copy, address, addressLength(address->sa_family));
  Kind kind = isAllZero(copy) ? Kind::Internet : Kind::Address;
  return std::make_shared<ZRBNetworkReachability>(Private{}, kind, std::string(), &copy);
}

ZRBNetworkReachability::~ZRBNetworkReachability() {
  Watcher::shared().remove(this);
  if (context_.release != nullptr && context_.info != nullptr) context_.release(context_.info);
}

bool ZRBNetworkReachability::readAddressFlags(ZRBNetworkReachabilityFlags& flags) const {
  if (kind_ == Kind::Internet) return flagsForInternet(flags);
  return flagsForAddress(reinterpret_cast<const sockaddr*>(&address_), flags);
}

bool ZRBNetworkReachability::getFlags(ZRBNetworkReachabilityFlags& flags) {
  if (kind_ != Kind::Name) return readAddressFlags(flags);
  flags = 0;
  if (!nameResolvable_) return true;
  std::unique_lock lock(mutex_);
  const Watcher& watcher = Watcher::shared();
  bool fresh =
      hasResolution_ && !resolving_ && watcher.running() && resolutionGeneration_ == watcher.generation();
  if (!fresh && !ZRBDispatch::isMainQueue()) {
    std::uint64_t awaited = resolutionsFinished_ + 1;  // the running resolution, or the one started now
    if (!resolving_) resolve(lock, false);
    if (!resolvedCondition_.wait_for(lock, kResolutionWait, [&] { return resolutionsFinished_ >= awaited; }))
      return true;
  } else if (!hasResolution_ && !resolving_) {
    resolve(lock, false);
  }
  std::vector<sockaddr_storage> addresses = hasResolution_ ? addresses_ : std::vector<sockaddr_storage>();
  lock.unlock();
  std::vector<const sockaddr*> pointers;
  for (const auto& address : addresses) pointers.push_back(reinterpret_cast<const sockaddr*>(&address));
  return bestFlags(pointers, flags);
}

void ZRBNetworkReachability::resolve(std::unique_lock<std::mutex>& lock, bool forWatcher) {
  if (forWatcher) deliverResolution_ = true;
  if (!nameResolvable_) {
    // Nothing to look up: the answer is known at once.
    if (!forWatcher) return;
    lock.unlock();
    resolved({}, Watcher::shared().generation());
    lock.lock();
    return;
  }
  if (resolving_) {
    if (forWatcher) resolveAgain_ = true;  // the running one may predate the change
    return;
  }
  resolving_ = true;
  Resolution resolution{weak_from_this(), name_, Watcher::shared().generation()};
  try {
    std::thread([resolution] { runResolution(resolution); }).detach();
  } catch (const std::system_error&) {
    // No thread to be had: the name does not resolve now.
    lock.unlock();
    finishResolution(resolution, {});
    lock.lock();
  }
}

void ZRBNetworkReachability::resolved(std::vector<sockaddr_storage> addresses,
                                      std::uint64_t networkGeneration) {
  std::unique_lock lock(mutex_);
  addresses_ = std::move(addresses);
  hasResolution_ = true;
  resolutionGeneration_ = networkGeneration;
  ++resolutionsFinished_;
  resolving_ = false;
  resolvedCondition_.notify_all();
  if (resolveAgain_) {
    resolveAgain_ = false;
    resolve(lock, true);  // a change came meanwhile: the next answer is the one to deliver
    return;
  }
  bool deliver = deliverResolution_ && queue_ != nullptr;
  deliverResolution_ = false;
  if (!deliver) return;
  ZRBDispatchQueuePtr queue = queue_;
  std::uint64_t schedule = schedule_;
  std::vector<sockaddr_storage> current = addresses_;
  lock.unlock();
  std::vector<const sockaddr*> pointers;
  for (const auto& address : current) pointers.push_back(reinterpret_cast<const sockaddr*>(&address));
  ZRBNetworkReachabilityFlags flags = 0;
  if (!bestFlags(pointers, flags)) return;
  auto self = std::static_pointer_cast<ZRBNetworkReachability>(shared_from_this());
  queue->async([self, flags, schedule] { self->deliver(flags, schedule); });
}

bool ZRBNetworkReachability::setCallback(ZRBNetworkReachabilityCallBack callout,
                                         const ZRBNetworkReachabilityContext* context) {
  ZRBNetworkReachabilityContext kept;
  if (callout != nullptr && context != nullptr) {
    kept = *context;
    if (kept.retain != nullptr && kept.info != nullptr) kept.info = const_cast<void*>(kept.retain(kept.info));
  }
  ZRBNetworkReachabilityContext previous;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(context_, kept);
    callout_ = callout;
  }
  if (previous.release != nullptr && previous.info != nullptr) previous.release(previous.info);
  return true;
}

bool ZRBNetworkReachability::setDispatchQueue(ZRBDispatchQueuePtr queue) {
  auto self = std::static_pointer_cast<ZRBNetworkReachability>(shared_from_this());
  if (queue && !Watcher::shared().add(self)) return false;
  bool scheduled = queue != nullptr;
  {
    std::lock_guard lock(mutex_);
    queue_ = std::move(queue);
    ++schedule_;
    if (!scheduled) deliverResolution_ = false;
  }
  if (!scheduled) Watcher::shared().remove(this);
  return true;
}

bool ZRBNetworkReachability::isScheduled() const {
  std::lock_guard lock(mutex_);
  return queue_ != nullptr;
}

void ZRBNetworkReachability::deliver(ZRBNetworkReachabilityFlags flags, std::uint64_t schedule) {
  ZRBNetworkReachabilityCallBack callout = nullptr;
  ZRBNetworkReachabilityContext context;
  const void* info = nullptr;
  {
    std::lock_guard lock(mutex_);
    if (queue_ == nullptr || schedule_ != schedule || callout_ == nullptr) return;
    callout = callout_;
    context = context_;
    // Held for the call, so that a callback replaced meanwhile keeps its data until it returns.
    info = context.retain != nullptr && context.info != nullptr ? context.retain(context.info) : context.info;
  }
  callout(*this, flags, const_cast<void*>(info));
  if (context.release != nullptr && info != nullptr) context.release(info);
}

std::chrono::microseconds ZRBNetworkReachability::coalescingDelay() { return kCoalescingDelay; }

ZRBNetworkReachabilityStatistics ZRBNetworkReachability::statistics() {
  return Watcher::shared().statistics();
}

std::string ZRBNetworkReachability::description() const {
  std::string text = ZRBObject::description();
  if (kind_ == Kind::Name) return text + " name = " + name_;
  return text + " address = " + describeAddress(address_);
}
