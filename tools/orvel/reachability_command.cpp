// orvel reachability [HOST|ADDRESS] [--watch]: whether the internet in general (no argument), a
// host name or an IPv4/IPv6 address can be reached from here, as one line:
//   Reachable via WiFi flags=0x00020002 reachable,is-direct
// With --watch, one time-stamped line per report of a reachability manager until SIGINT or SIGTERM:
//   2026-05-04T10:11:12.345Z Not Reachable flags=0x00000000
// Exit status: 0 reachable, 1 not reachable, 2 usage error, 3 the flags could not be read; 0 after
// watching.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

#include "commands.h"
#include "http/network_reachability_manager.h"
#include "platform/runtime/dispatch.h"

namespace {

void printUsage(std::FILE* out) {
  std::fprintf(out,
               "usage: orvel reachability [HOST|ADDRESS] [--watch]\n"
               "  Without HOST or ADDRESS: the internet in general (a default route).\n"
               "  --watch  print a time-stamped line per report until interrupted\n");
}

std::string flagsText(ZRBNetworkReachabilityFlags flags) {
  static constexpr std::pair<ZRBNetworkReachabilityFlags, const char*> kNames[] = {
      {ZRBNetworkReachabilityFlagsTransientConnection, "transient-connection"},
      {ZRBNetworkReachabilityFlagsReachable, "reachable"},
      {ZRBNetworkReachabilityFlagsConnectionRequired, "connection-required"},
      {ZRBNetworkReachabilityFlagsConnectionOnTraffic, "connection-on-traffic"},
      {ZRBNetworkReachabilityFlagsInterventionRequired, "intervention-required"},
      {ZRBNetworkReachabilityFlagsConnectionOnDemand, "connection-on-demand"},
      {ZRBNetworkReachabilityFlagsIsLocalAddress, "is-local-address"},
      {ZRBNetworkReachabilityFlagsIsDirect, "is-direct"},
      {ZRBNetworkReachabilityFlagsIsWWAN, "is-wwan"},
  };
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08x", flags);
  std::string text = std::string("flags=") + hex;
  const char* separator = " ";
  for (const auto& [bit, name] : kNames) {
    if ((flags & bit) == 0) continue;
    text += separator;
    text += name;
    separator = ",";
  }
  return text;
}

// "2026-05-04T10:11:12.345Z"
std::string timestamp() {
  auto now = std::chrono::system_clock::now();
  std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03lldZ", static_cast<long long>(milliseconds));
  return text;
}

// A manager for the argument: an address when it reads as one (brackets around IPv6 allowed),
// else a host name.
ZRBHS_NetworkReachabilityManagerPtr managerFor(std::string_view target) {
  if (target.empty()) return ZRBHS_NetworkReachabilityManager::manager();
  std::string text(target);
  if (text.size() > 2 && text.front() == '[' && text.back() == ']') text = text.substr(1, text.size() - 2);
  sockaddr_in v4{};
  if (inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    return ZRBHS_NetworkReachabilityManager::managerForAddress(&v4);
  }
  sockaddr_in6 v6{};
  if (inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1) {
    v6.sin6_family = AF_INET6;
    return ZRBHS_NetworkReachabilityManager::managerForAddress(&v6);
  }
  return ZRBHS_NetworkReachabilityManager::managerForDomain(target);
}

int watch(const ZRBHS_NetworkReachabilityManagerPtr& manager) {
  // Blocked before the manager starts any thread, so that only sigwait below receives them.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  std::weak_ptr<ZRBHS_NetworkReachabilityManager> weakManager = manager;
  manager->setReachabilityStatusChangeBlock([weakManager](ZRBHS_NetworkReachabilityStatus status) {
    auto self = weakManager.lock();
    if (!self) return;
    // Re-read for the flags: on the main queue this never waits for a name server. The report may
    // predate a change that the re-read already sees (its own report follows), so the status is
    // taken from the flags printed beside it.
    ZRBNetworkReachabilityFlags flags = 0;
    if (self->networkReachability()->getFlags(flags)) status = ZRBHS_NetworkReachabilityStatusForFlags(flags);
    std::printf("%s %s %s\n", timestamp().c_str(), ZRBHS_StringFromNetworkReachabilityStatus(status),
                flagsText(flags).c_str());
    std::fflush(stdout);
  });
  manager->startMonitoring();
  int received = 0;
  sigwait(&stop, &received);
  manager->stopMonitoring();
  // A report already queued still prints; the program ends only after it, not beside it.
  ZRBDispatch::mainQueue()->sync([] {});
  return 0;
}

}  // namespace

int orvelReachabilityCommand(OrvelArguments arguments) {
  std::string_view target;
  bool watching = false;
  for (std::string_view argument : arguments) {
    if (argument == "--watch" || argument == "-w") {
      watching = true;
    } else if (argument == "-h" || argument == "--help") {
      printUsage(stdout);
      return 0;
    } else if (argument.starts_with("-") || !target.empty()) {
      printUsage(stderr);
      return 2;
    } else {
      target = argument;
    }
  }
  auto manager = managerFor(target);
  if (!manager->networkReachability()) {
    std::fprintf(stderr, "orvel reachability: '%.*s' is not a host name or an address\n",
                 static_cast<int>(target.size()), target.data());
    return 2;
  }
  if (watching) return watch(manager);

  ZRBNetworkReachabilityFlags flags = 0;
  if (!manager->networkReachability()->getFlags(flags)) {
    std::fprintf(stderr, "orvel reachability: the kernel's routing state could not be read\n");
    return 3;
  }
  ZRBHS_NetworkReachabilityStatus status = ZRBHS_NetworkReachabilityStatusForFlags(flags);
  std::printf("%s %s\n", ZRBHS_StringFromNetworkReachabilityStatus(status), flagsText(flags).c_str());
  return status == ZRBHS_NetworkReachabilityStatusNotReachable ? 1 : 0;
}
