// The reachability manager against real routing state: each namespace test builds its network
// (veth pairs, a tun device, addresses, routes) in a private network namespace of its own.
#include "http/network_reachability_manager.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/runtime/dispatch.h"
#include "platform/runtime/notification_center.h"
#include "support/inbox.h"
#include "support/network_namespace.h"

namespace {

using Manager = ZRBHS_NetworkReachabilityManager;
using namespace std::chrono_literals;

// The reports of one manager, in order, and how many arrived off the main queue.
struct Reports : ZRBTestInbox<ZRBHS_NetworkReachabilityStatus> {
  // Waits for a report of `status` at position `from` or later.
  bool waitFor(ZRBHS_NetworkReachabilityStatus status, std::size_t from = 0) {
    return waitUntil([&](const auto& items) {
      return std::find(items.begin() + std::ptrdiff_t(std::min(from, items.size())), items.end(), status) !=
             items.end();
    });
  }
  std::vector<ZRBHS_NetworkReachabilityStatus> since(std::size_t from) const {
    auto items = now();
    items.erase(items.begin(), items.begin() + std::ptrdiff_t(std::min(from, items.size())));
    return items;
  }
  std::atomic<int> offMainQueue{0};
};

// Long enough for any straggling burst to have been reported: many coalescing delays, then
// whatever the main queue still holds.
void settle() {
  std::this_thread::sleep_for(ZRBNetworkReachability::coalescingDelay() * 40);
  ZRBDispatch::mainQueue()->sync([] {});
}

void prepareNamespace() {
  // IPv6 off: it configures addresses seconds after a link comes up, which would add reports.
  ZRBTestShell(
      "if [ -w /proc/sys/net/ipv6/conf/all/disable_ipv6 ]; then echo 1 > /proc/sys/net/ipv6/conf/all/"
      "disable_ipv6; echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6; fi");
  ZRBTestShell("ip link set lo up");
}

void addEthernetWithDefaultRoute() {
  ZRBTestShell(
      "ip link add v0 type veth peer name v1 && ip link set v1 up && ip addr add 10.9.0.2/24 dev v0 && "
      "ip link set v0 up && ip route add default via 10.9.0.1");
  // The kernel announces a veth's carrier from deferred work, up to a second later on a busy
  // machine; wait for it so that its messages do not land in the middle of a test's reports.
  ZRBTestShell(
      "for i in $(seq 100); do ip -o link show v0 | grep -q 'state UP' && exit 0; sleep 0.05; done; "
      "exit 1");
  settle();
}

std::shared_ptr<Reports> startWithReports(const ZRBHS_NetworkReachabilityManagerPtr& manager) {
  auto reports = std::make_shared<Reports>();
  manager->setReachabilityStatusChangeBlock([reports](ZRBHS_NetworkReachabilityStatus status) {
    if (!ZRBDispatch::isMainQueue()) ++reports->offMainQueue;
    reports->put(status);
  });
  manager->startMonitoring();
  return reports;
}

TEST(NetworkReachabilityManagerTest, StatusFromFlags) {
  constexpr ZRBNetworkReachabilityFlags R = ZRBNetworkReachabilityFlagsReachable;
  constexpr ZRBNetworkReachabilityFlags C = ZRBNetworkReachabilityFlagsConnectionRequired;
  constexpr ZRBNetworkReachabilityFlags T = ZRBNetworkReachabilityFlagsConnectionOnTraffic;
  constexpr ZRBNetworkReachabilityFlags D = ZRBNetworkReachabilityFlagsConnectionOnDemand;
  constexpr ZRBNetworkReachabilityFlags I = ZRBNetworkReachabilityFlagsInterventionRequired;
  constexpr ZRBNetworkReachabilityFlags W = ZRBNetworkReachabilityFlagsIsWWAN;
  struct Case {
    ZRBNetworkReachabilityFlags flags;
    ZRBHS_NetworkReachabilityStatus status;
  } cases[] = {
      {0, ZRBHS_NetworkReachabilityStatusNotReachable},
      {W | T | D, ZRBHS_NetworkReachabilityStatusNotReachable},  // not reachable whatever else is set
      {R, ZRBHS_NetworkReachabilityStatusReachableViaWiFi},
      {R | W, ZRBHS_NetworkReachabilityStatusReachableViaWWAN},
      {R | C, ZRBHS_NetworkReachabilityStatusNotReachable},
      {R | C | T | I, ZRBHS_NetworkReachabilityStatusNotReachable},
      {R | C | D | I, ZRBHS_NetworkReachabilityStatusNotReachable},
      {R | C | T, ZRBHS_NetworkReachabilityStatusReachableViaWiFi},
      {R | C | D, ZRBHS_NetworkReachabilityStatusReachableViaWiFi},
      {R | C | T | W, ZRBHS_NetworkReachabilityStatusReachableViaWWAN},
      {R | I, ZRBHS_NetworkReachabilityStatusReachableViaWiFi},  // intervention only matters for a connection
      {R | ZRBNetworkReachabilityFlagsIsDirect | ZRBNetworkReachabilityFlagsIsLocalAddress,
       ZRBHS_NetworkReachabilityStatusReachableViaWiFi},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ZRBHS_NetworkReachabilityStatusForFlags(c.flags), c.status) << c.flags;
}

TEST(NetworkReachabilityManagerTest, StatusTextsAreKeptForTheProcess) {
  struct Case {
    std::int64_t status;
    const char* text;
  } cases[] = {{-1, "Unknown"}, {0, "Not Reachable"}, {1, "Reachable via WWAN"}, {2, "Reachable via WiFi"},
               {7, "Unknown"},  {-2, "Unknown"},      {INT64_MIN, "Unknown"}};
  for (const auto& c : cases)
    EXPECT_STREQ(ZRBHS_StringFromNetworkReachabilityStatus(c.status), c.text) << c.status;
  // The texts live as long as the process: the same pointer every time.
  EXPECT_EQ(ZRBHS_StringFromNetworkReachabilityStatus(2), ZRBHS_StringFromNetworkReachabilityStatus(2));
}

TEST(NetworkReachabilityManagerTest, BadTargetsGiveUnknownOrNotReachableManagers) {
  // Nothing here is looked up: the targets are refused, or are names no resolver is asked about.
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  sockaddr unspecified{};
  for (const auto& manager : {Manager::managerForAddress(nullptr), Manager::managerForAddress(&local),
                              Manager::managerForAddress(&unspecified), Manager::managerForDomain(""),
                              Manager::initWithReachability(nullptr)}) {
    EXPECT_EQ(manager->networkReachability(), nullptr);
    manager->startMonitoring();
    manager->stopMonitoring();
    EXPECT_EQ(manager->networkReachabilityStatus(), ZRBHS_NetworkReachabilityStatusUnknown);
  }
  for (const std::string& name : {std::string(300, 'a'), std::string("host\0name", 9),
                                  std::string(64, 'b') + ".com", std::string("a..b"), std::string(".")}) {
    auto manager = Manager::managerForDomain(name);
    ASSERT_NE(manager->networkReachability(), nullptr);
    auto reports = startWithReports(manager);
    ASSERT_GE(reports->wait(1).size(), 1u) << name;
    EXPECT_EQ(reports->since(0).front(), ZRBHS_NetworkReachabilityStatusNotReachable) << name;
  }
}

TEST(NetworkReachabilityManagerNamespaceTest, StatusFollowsRoutesLinksAndModems) {
  if (!ZRBTestInPrivateNetworkNamespace()) return;
  prepareNamespace();
  {
    // Names and addresses before there is any route; their managers go before the network changes.
    struct Case {
      ZRBHS_NetworkReachabilityManagerPtr manager;
      ZRBHS_NetworkReachabilityStatus status;
      ZRBNetworkReachabilityFlags flags;
    };
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 mapped{};  // ::ffff:127.0.0.1
    mapped.sin6_family = AF_INET6;
    mapped.sin6_addr.s6_addr[10] = mapped.sin6_addr.s6_addr[11] = 0xff;
    std::memcpy(&mapped.sin6_addr.s6_addr[12], &loopback.sin_addr, 4);
    sockaddr_in elsewhere = loopback;
    elsewhere.sin_addr.s_addr = htonl(0x0a090005);  // no route leads there
    constexpr ZRBNetworkReachabilityFlags local = ZRBNetworkReachabilityFlagsReachable |
                                                  ZRBNetworkReachabilityFlagsIsLocalAddress |
                                                  ZRBNetworkReachabilityFlagsIsDirect;
    // With no route out, the resolver cannot reach a name server, so nothing leaves the namespace.
    Case cases[] = {
        {Manager::managerForDomain("no-such-host.invalid"), ZRBHS_NetworkReachabilityStatusNotReachable, 0},
        {Manager::managerForDomain("localhost"), ZRBHS_NetworkReachabilityStatusReachableViaWiFi, local},
        {Manager::managerForAddress(&loopback), ZRBHS_NetworkReachabilityStatusReachableViaWiFi, local},
        {Manager::managerForAddress(&mapped), ZRBHS_NetworkReachabilityStatusReachableViaWiFi, local},
        {Manager::managerForAddress(&elsewhere), ZRBHS_NetworkReachabilityStatusNotReachable, 0},
    };
    std::vector<std::shared_ptr<Reports>> reports;
    for (const auto& c : cases) reports.push_back(startWithReports(c.manager));
    for (std::size_t i = 0; i < std::size(cases); ++i) {
      ASSERT_GE(reports[i]->wait(1).size(), 1u) << i;
      EXPECT_EQ(reports[i]->since(0).front(), cases[i].status) << i;
      ZRBNetworkReachabilityFlags flags = 0xffffffff;
      ASSERT_TRUE(cases[i].manager->networkReachability()->getFlags(flags)) << i;
      EXPECT_EQ(flags, cases[i].flags) << i;
    }
  }
  settle();  // nothing of theirs may reach the observers below
  auto manager = Manager::manager();
  std::vector<std::string> keyPaths;  // touched on the main queue only
  manager->addChangeObserver([&keyPaths](std::string_view keyPath) { keyPaths.emplace_back(keyPath); });
  // Each notification's user info, or "off the main queue" when posted elsewhere.
  ZRBTestInbox<ZRBValue> posted;
  auto center = ZRBNotificationCenter::defaultCenter();
  auto observer = center->addObserver(
      kZRBHS_NetworkingReachabilityDidChangeNotification, ZRBValue(), nullptr,
      [&posted](const ZRBNotificationPtr& notification) {
        posted.put(ZRBDispatch::isMainQueue() ? notification->userInfo() : ZRBValue("off the main queue"));
      });
  auto reports = startWithReports(manager);

  // No route at all.
  ASSERT_GE(reports->wait(1).size(), 1u);
  EXPECT_EQ(reports->since(0), std::vector{ZRBHS_NetworkReachabilityStatusNotReachable});
  ZRBDispatch::mainQueue()->sync([&] {
    EXPECT_EQ(keyPaths, (std::vector<std::string>{"networkReachabilityStatus", "reachable",
                                                  "reachableViaWWAN", "reachableViaWiFi"}));
  });

  // An Ethernet link with an address and a default route.
  addEthernetWithDefaultRoute();
  ASSERT_TRUE(reports->waitFor(ZRBHS_NetworkReachabilityStatusReachableViaWiFi));
  settle();
  EXPECT_TRUE(manager->isReachable());
  EXPECT_TRUE(manager->isReachableViaWiFi());
  ZRBNetworkReachabilityFlags flags = 0;
  ASSERT_TRUE(manager->networkReachability()->getFlags(flags));
  EXPECT_EQ(flags, ZRBNetworkReachabilityFlagsReachable);  // through a gateway

  // Taking the link down: every report after it says not reachable.
  std::size_t before = reports->now().size();
  ZRBTestShell("ip link set v0 down");
  ASSERT_TRUE(reports->waitFor(ZRBHS_NetworkReachabilityStatusNotReachable, before));
  settle();
  for (auto status : reports->since(before)) EXPECT_EQ(status, ZRBHS_NetworkReachabilityStatusNotReachable);

  // A default route over a tun device, whose link type is a modem's.
  ZRBTestTunDevice tun("wwan0");
  ASSERT_TRUE(tun.isOpen());
  before = reports->now().size();
  ZRBTestShell("ip link set wwan0 up && ip route add default dev wwan0");
  ASSERT_TRUE(reports->waitFor(ZRBHS_NetworkReachabilityStatusReachableViaWWAN, before));
  settle();
  EXPECT_TRUE(manager->isReachableViaWWAN());
  ASSERT_TRUE(manager->networkReachability()->getFlags(flags));
  EXPECT_EQ(flags, ZRBNetworkReachabilityFlagsReachable | ZRBNetworkReachabilityFlagsIsDirect |
                       ZRBNetworkReachabilityFlagsIsWWAN);
  EXPECT_EQ(manager->localizedNetworkReachabilityStatusString(), "Reachable via WWAN");

  // Taking the tun link down is announced by one report. (A veth's carrier messages come from the
  // kernel's deferred work, on a busy machine sometimes after the burst was reported; a tun's
  // all come at once.)
  before = reports->now().size();
  ZRBTestShell("ip link set wwan0 down");
  ASSERT_TRUE(reports->waitFor(ZRBHS_NetworkReachabilityStatusNotReachable, before));
  settle();
  EXPECT_EQ(reports->since(before), std::vector{ZRBHS_NetworkReachabilityStatusNotReachable});

  manager->stopMonitoring();
  settle();
  center->removeObserver(observer);
  EXPECT_EQ(reports->offMainQueue, 0);
  // One notification per report, with the same status.
  std::vector<ZRBValue> expected;
  for (auto status : reports->since(0)) {
    expected.push_back(ZRBValue::dictionary(
        {{kZRBHS_NetworkingReachabilityNotificationStatusItem, ZRBValue(static_cast<long long>(status))}}));
  }
  EXPECT_EQ(posted.now(), expected);
}

// A second start reads the flags again but leaves one registration, so one change gives one report;
// a manager released while monitoring hears nothing more.
TEST(NetworkReachabilityManagerNamespaceTest, StartingTwiceAndReleasingWhileMonitoring) {
  if (!ZRBTestInPrivateNetworkNamespace()) return;
  prepareNamespace();
  auto released = Manager::manager();
  auto twice = Manager::manager();
  auto releasedReports = startWithReports(released);
  auto reports = startWithReports(twice);
  twice->startMonitoring();
  ASSERT_GE(releasedReports->wait(1).size(), 1u);
  ASSERT_GE(reports->wait(2).size(), 2u);
  settle();
  EXPECT_EQ(reports->since(0), std::vector(2, ZRBHS_NetworkReachabilityStatusNotReachable));
  std::weak_ptr<Manager> gone = released;
  released.reset();
  EXPECT_TRUE(gone.expired());

  addEthernetWithDefaultRoute();
  ASSERT_TRUE(reports->waitFor(ZRBHS_NetworkReachabilityStatusReachableViaWiFi, 2));
  settle();
  EXPECT_EQ(releasedReports->now().size(), 1u);
  const std::size_t before = reports->now().size();
  ZRBTestShell("ip route del default");  // one message, so one report
  ASSERT_TRUE(reports->waitFor(ZRBHS_NetworkReachabilityStatusNotReachable, before));
  settle();
  EXPECT_EQ(reports->since(before), std::vector{ZRBHS_NetworkReachabilityStatusNotReachable});
}

}  // namespace
