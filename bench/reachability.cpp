// Reachability against real network changes, in a private network namespace that the program makes
// for itself at start (it needs root; without, it says so and exits). Nothing outside the namespace
// is touched.
//
// - ChangeToCallback: the time from a link change (the veth peer taken down or up, so the watched
//   link loses or regains its carrier) to the status block on the main queue, over 200 changes,
//   with 1 and with 100 managers watching (for 100: until the last of them has its report). Beside
//   it, the baseline: when a bare libmnl listener in the same process received the change's first
//   message, and how far apart a change's messages arrive (what the coalescing delay must cover).
//   Target: p99 under 100 ms.
// - RouteFlood: 10,000 route changes (5,000 routes added, then deleted) and the CPU time the
//   library spends per netlink message (its watcher thread plus the main queue), against the bare
//   listener's CPU time per message in the same run. Target: the same figure for 1 and 100 managers.
#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "http/network_reachability_manager.h"
#include "platform/net/netlink_route.h"
#include "platform/runtime/dispatch.h"

namespace {

using Clock = std::chrono::steady_clock;
using Manager = ZRBHS_NetworkReachabilityManager;

double milliseconds(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(index, values.size() - 1)];
}

std::chrono::nanoseconds threadCpu(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// A bare listener on the same groups: the arrival time of every datagram and the messages in it,
// with nothing else done. The baseline of both benchmarks.
class RawListener {
 public:
  RawListener() {
    socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    mnl_socket_bind(socket_, ZRBNetlinkChangeGroups(), MNL_SOCKET_AUTOPID);
    int size = 4 << 20;
    setsockopt(mnl_socket_get_fd(socket_), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    std::thread thread([this] { run(); });
    pthread_getcpuclockid(thread.native_handle(), &cpuClock_);
    thread.detach();
  }
  std::uint64_t messages() const { return messages_.load(); }
  std::chrono::nanoseconds cpu() const { return threadCpu(cpuClock_); }
  // Arrival times from `since` on.
  std::vector<Clock::time_point> arrivals(Clock::time_point since) {
    std::lock_guard lock(mutex_);
    std::vector<Clock::time_point> found;
    for (auto time : arrivals_) {
      if (time >= since) found.push_back(time);
    }
    return found;
  }
  void keepArrivals(bool keep) {
    std::lock_guard lock(mutex_);
    keep_ = keep;
    arrivals_.clear();
  }

 private:
  static int count(const nlmsghdr*, void* data) {
    ++*static_cast<std::uint64_t*>(data);
    return MNL_CB_OK;
  }
  void run() {
    alignas(nlmsghdr) static std::array<char, 64 * 1024> buffer;
    for (;;) {
      ssize_t received = mnl_socket_recvfrom(socket_, buffer.data(), buffer.size());
      if (received <= 0) continue;
      auto now = Clock::now();
      std::uint64_t n = 0;
      mnl_cb_run(buffer.data(), static_cast<std::size_t>(received), 0, 0, count, &n);
      messages_ += n;
      std::lock_guard lock(mutex_);
      if (keep_) arrivals_.push_back(now);
    }
  }

  mnl_socket* socket_ = nullptr;
  clockid_t cpuClock_{};
  std::atomic<std::uint64_t> messages_{0};
  std::mutex mutex_;
  bool keep_ = false;
  std::vector<Clock::time_point> arrivals_;
};

RawListener* listener = nullptr;
mnl_socket* control = nullptr;  // the bench's own requests: link changes and routes
unsigned peerIndex = 0, linkIndex = 0;
std::uint32_t sequence = 0;

void setPeerUp(bool up) {
  alignas(nlmsghdr) std::array<char, 512> buffer{};
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_NEWLINK;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  request->nlmsg_seq = ++sequence;
  auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
  info->ifi_index = static_cast<int>(peerIndex);
  info->ifi_change = IFF_UP;
  info->ifi_flags = up ? IFF_UP : 0;
  mnl_socket_sendto(control, request, request->nlmsg_len);
  mnl_socket_recvfrom(control, buffer.data(), buffer.size());  // the acknowledgement
}

// Adds or deletes `count` host routes through the gateway, 100 requests per datagram.
void routes(std::uint16_t type, int count) {
  alignas(nlmsghdr) static std::array<char, 100 * 128> buffer;
  int i = 0;
  while (i < count) {
    mnl_nlmsg_batch* batch = mnl_nlmsg_batch_start(buffer.data(), buffer.size());
    for (int n = 0; n < 100 && i < count; ++n, ++i) {
      nlmsghdr* request = mnl_nlmsg_put_header(mnl_nlmsg_batch_current(batch));
      request->nlmsg_type = type;
      request->nlmsg_flags = NLM_F_REQUEST | (type == RTM_NEWROUTE ? NLM_F_CREATE | NLM_F_EXCL : 0);
      request->nlmsg_seq = ++sequence;
      auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
      route->rtm_family = AF_INET;
      route->rtm_dst_len = 32;
      route->rtm_table = RT_TABLE_MAIN;
      route->rtm_protocol = RTPROT_STATIC;
      route->rtm_scope = RT_SCOPE_UNIVERSE;
      route->rtm_type = RTN_UNICAST;
      mnl_attr_put_u32(request, RTA_DST, htonl(0x0a640000u + static_cast<unsigned>(i)));  // 10.100.x.y
      mnl_attr_put_u32(request, RTA_GATEWAY, htonl(0x0a090001u));                         // 10.9.0.1
      mnl_attr_put_u32(request, RTA_OIF, linkIndex);
      mnl_nlmsg_batch_next(batch);
    }
    mnl_socket_sendto(control, mnl_nlmsg_batch_head(batch), mnl_nlmsg_batch_size(batch));
    mnl_nlmsg_batch_stop(batch);
  }
}

std::chrono::nanoseconds mainQueueCpu() {
  std::chrono::nanoseconds cpu{};
  ZRBDispatch::mainQueue()->sync([&] { cpu = threadCpu(CLOCK_THREAD_CPUTIME_ID); });
  return cpu;
}

// Managers for the internet in general, each recording when it reported the awaited status.
class Watchers {
 public:
  explicit Watchers(int count) : reported_(static_cast<std::size_t>(count)) {
    for (int i = 0; i < count; ++i) {
      auto manager = Manager::manager();
      manager->setReachabilityStatusChangeBlock([this, i](ZRBHS_NetworkReachabilityStatus status) {
        std::lock_guard lock(mutex_);
        if (status != awaited_ || reported_[static_cast<std::size_t>(i)]) return;
        reported_[static_cast<std::size_t>(i)] = true;
        last_ = Clock::now();
        if (++count_ == reported_.size()) done_.notify_all();
      });
      managers_.push_back(manager);
    }
  }
  ~Watchers() {
    for (auto& manager : managers_) manager->stopMonitoring();
    ZRBDispatch::mainQueue()->sync([] {});  // no block still queued refers to this object
    managers_.clear();
    ZRBDispatch::mainQueue()->sync([] {});
  }
  void expect(ZRBHS_NetworkReachabilityStatus status) {
    std::lock_guard lock(mutex_);
    awaited_ = status;
    std::fill(reported_.begin(), reported_.end(), false);
    count_ = 0;
  }
  void start() {
    for (auto& manager : managers_) manager->startMonitoring();
  }
  // The time of the last manager's report; nullopt after 10 s.
  std::optional<Clock::time_point> wait() {
    std::unique_lock lock(mutex_);
    if (!done_.wait_for(lock, std::chrono::seconds(10), [&] { return count_ == reported_.size(); }))
      return std::nullopt;
    return last_;
  }

 private:
  std::vector<ZRBHS_NetworkReachabilityManagerPtr> managers_;
  std::mutex mutex_;
  std::condition_variable done_;
  ZRBHS_NetworkReachabilityStatus awaited_ = ZRBHS_NetworkReachabilityStatusReachableViaWiFi;
  std::vector<bool> reported_;
  std::size_t count_ = 0;
  Clock::time_point last_;
};

void BM_ChangeToCallback(benchmark::State& state) {
  Watchers watchers(static_cast<int>(state.range(0)));
  watchers.expect(ZRBHS_NetworkReachabilityStatusReachableViaWiFi);
  watchers.start();
  if (!watchers.wait()) {
    state.SkipWithError("no initial report");
    return;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  listener->keepArrivals(true);
  std::vector<double> latencies, firstMessage, spans;
  bool up = true;
  for (auto _ : state) {
    up = !up;
    watchers.expect(up ? ZRBHS_NetworkReachabilityStatusReachableViaWiFi
                       : ZRBHS_NetworkReachabilityStatusNotReachable);
    auto changed = Clock::now();
    setPeerUp(up);
    auto reported = watchers.wait();
    if (!reported) {
      state.SkipWithError("a change was not reported");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(*reported - changed).count());
    latencies.push_back(milliseconds(*reported - changed));
    auto arrivals = listener->arrivals(changed);
    if (!arrivals.empty()) {
      firstMessage.push_back(milliseconds(arrivals.front() - changed));
      spans.push_back(milliseconds(arrivals.back() - arrivals.front()));
    }
    listener->keepArrivals(true);
  }
  listener->keepArrivals(false);
  if (!up) setPeerUp(true);
  state.counters["p50_ms"] = percentile(latencies, 0.5);
  state.counters["p99_ms"] = percentile(latencies, 0.99);
  state.counters["max_ms"] = percentile(latencies, 1.0);
  state.counters["raw_p50_ms"] = percentile(firstMessage, 0.5);
  state.counters["raw_p99_ms"] = percentile(firstMessage, 0.99);
  state.counters["burst_p50_ms"] = percentile(spans, 0.5);
  state.counters["burst_p99_ms"] = percentile(spans, 0.99);
  state.counters["burst_max_ms"] = percentile(spans, 1.0);
}

void BM_RouteFlood(benchmark::State& state) {
  Watchers watchers(static_cast<int>(state.range(0)));
  watchers.start();
  watchers.wait();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  for (auto _ : state) {
    auto before = ZRBNetworkReachability::statistics();
    auto mainBefore = mainQueueCpu();
    auto rawCpuBefore = listener->cpu();
    auto rawBefore = listener->messages();
    routes(RTM_NEWROUTE, 5000);
    routes(RTM_DELROUTE, 5000);
    auto deadline = Clock::now() + std::chrono::seconds(30);
    while ((ZRBNetworkReachability::statistics().messages - before.messages < 10000 ||
            listener->messages() - rawBefore < 10000) &&
           Clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // Let the last burst's re-evaluation and deliveries finish.
    std::this_thread::sleep_for(ZRBNetworkReachability::coalescingDelay() * 10);
    auto after = ZRBNetworkReachability::statistics();
    double messages = static_cast<double>(after.messages - before.messages);
    double raw = static_cast<double>(listener->messages() - rawBefore);
    auto ours = (after.cpuTime - before.cpuTime) + (mainQueueCpu() - mainBefore);
    auto baseline = listener->cpu() - rawCpuBefore;
    state.counters["messages"] = messages;
    state.counters["reevaluations"] = static_cast<double>(after.reevaluations - before.reevaluations);
    state.counters["overruns"] = static_cast<double>(after.overruns - before.overruns);
    state.counters["ns_per_msg"] = static_cast<double>(ours.count()) / std::max(messages, 1.0);
    state.counters["raw_ns_per_msg"] = static_cast<double>(baseline.count()) / std::max(raw, 1.0);
    state.counters["ratio"] = static_cast<double>(ours.count()) / std::max(messages, 1.0) /
                              std::max(1.0, static_cast<double>(baseline.count()) / std::max(raw, 1.0));
  }
}

BENCHMARK(BM_ChangeToCallback)
    ->ArgName("managers")
    ->Arg(1)
    ->Arg(100)
    ->Iterations(200)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RouteFlood)->ArgName("managers")->Arg(1)->Arg(100)->Iterations(1)->Unit(benchmark::kMillisecond);

bool makeNetwork() {
  // The namespace has nothing: loopback, then a veth pair whose peer the benchmark switches, with an
  // address and a default route. IPv6 off, so that only the changes made here produce messages.
  const char* commands[] = {
      "ip link set lo up",
      "if [ -w /proc/sys/net/ipv6/conf/all/disable_ipv6 ]; then echo 1 > "
      "/proc/sys/net/ipv6/conf/all/disable_ipv6;"
      " echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6; fi",
      "ip link add v0 type veth peer name v1",
      "ip link set v1 up && ip addr add 10.9.0.2/24 dev v0 && ip link set v0 up",
      "ip route add default via 10.9.0.1",
  };
  for (const char* command : commands) {
    if (std::system(command) != 0) {
      std::fprintf(stderr, "bench_reachability: failed: %s\n", command);
      return false;
    }
  }
  peerIndex = if_nametoindex("v1");
  linkIndex = if_nametoindex("v0");
  control = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
  return peerIndex != 0 && linkIndex != 0 && control != nullptr &&
         mnl_socket_bind(control, 0, MNL_SOCKET_AUTOPID) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  // Before any thread exists, so that every thread of the program lives in the new namespace.
  if (unshare(CLONE_NEWNET) != 0) {
    std::printf("bench_reachability: skipped, a private network namespace needs root (CAP_SYS_ADMIN)\n");
    return 0;
  }
  if (!makeNetwork()) return 1;
  listener = new RawListener;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("coalescing delay: %.1f ms\n",
              std::chrono::duration<double, std::milli>(ZRBNetworkReachability::coalescingDelay()).count());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
