// ZRBHS_NetworkReachabilityManager: watches whether a host, an address or the internet in general
// can be reached, and through which kind of interface.
//
// A manager owns one ZRBNetworkReachability (platform/net/network_reachability.h). It turns the
// object's flags into a four-valued status, keeps the current status, calls the caller's block
// and posts kZRBHS_NetworkingReachabilityDidChangeNotification on every report, also when the status
// did not change. Nothing is watched until startMonitoring(); the session manager holds the shared
// instance but never starts it.
//
// Threads: the status is set, the block called, observers told and the notification posted on the
// main queue, always. The first report after a start comes from a read of the flags on the
// background global queue; later ones from the object's change callback on the main queue.
//
// Lifetime: the change handler holds the manager weakly, so a manager released while monitoring
// hears nothing more. Destruction stops monitoring and releases the reachability object.
//
// Observation: addChangeObserver() tells "networkReachabilityStatus" and then "reachable",
// "reachableViaWWAN" and "reachableViaWiFi" each time the status is set, on the main queue.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/object.h"
#include "platform/net/network_reachability.h"

enum ZRBHS_NetworkReachabilityStatus : std::int64_t {
  ZRBHS_NetworkReachabilityStatusUnknown = -1,
  ZRBHS_NetworkReachabilityStatusNotReachable = 0,
  ZRBHS_NetworkReachabilityStatusReachableViaWWAN = 1,
  ZRBHS_NetworkReachabilityStatusReachableViaWiFi = 2,
};

// Posted on the main queue after every report: no object, user info
// {kZRBHS_NetworkingReachabilityNotificationStatusItem: the status as a signed integer}.
inline constexpr std::string_view kZRBHS_NetworkingReachabilityDidChangeNotification =
    "com.brontide.zrb_networking.reachability.change";
inline constexpr std::string_view kZRBHS_NetworkingReachabilityNotificationStatusItem =
    "ZRBHS_NetworkingReachabilityNotificationStatusItem";

extern "C" {
// The localized text of a status: the main bundle's string for "Unknown", "Not Reachable",
// "Reachable via WWAN" or "Reachable via WiFi" in the "ZRBNetworking" table (any value other than
// 0, 1 and 2 is "Unknown"). Exported with C linkage; the text is NUL-terminated and stays valid
// for the life of the process (each distinct answer is kept), so callers neither copy nor free it.
const char* ZRBHS_StringFromNetworkReachabilityStatus(std::int64_t status);
}

// The status that flags stand for: not reachable (0) unless the reachable bit is set and either no
// connection is required or one can be made automatically (on demand or on traffic) without user
// intervention; then WWAN (1) when the WWAN bit is set, else WiFi (2). Never unknown.
ZRBHS_NetworkReachabilityStatus ZRBHS_NetworkReachabilityStatusForFlags(ZRBNetworkReachabilityFlags flags);

class ZRBHS_NetworkReachabilityManager;
using ZRBHS_NetworkReachabilityManagerPtr = std::shared_ptr<ZRBHS_NetworkReachabilityManager>;

class ZRBHS_NetworkReachabilityManager final : public ZRBObject {
 public:
  using StatusBlock = std::function<void(ZRBHS_NetworkReachabilityStatus status)>;
  // Told the key path of a property after the status was set.
  using ChangeObserver = std::function<void(std::string_view keyPath)>;
  using ObserverToken = std::uint64_t;

  // One process-wide manager for the internet in general, made on first use with manager().
  static const ZRBHS_NetworkReachabilityManagerPtr& sharedManager();
  // A new manager for the all-zero IPv6 socket address: the internet in general.
  static ZRBHS_NetworkReachabilityManagerPtr manager();
  // A new manager for a host name (UTF-8). An empty name gives a manager without a reachability
  // object; a name that cannot be a host name one that always reports not reachable.
  static ZRBHS_NetworkReachabilityManagerPtr managerForDomain(std::string_view domain);
  // A new manager for an IPv4 or IPv6 socket address. A null address or another family gives a
  // manager without a reachability object.
  static ZRBHS_NetworkReachabilityManagerPtr managerForAddress(const void* address);
  // A new manager around `reachability` (kept); the status is unknown. A null object gives a manager
  // whose start does nothing and whose status stays unknown.
  static ZRBHS_NetworkReachabilityManagerPtr initWithReachability(ZRBNetworkReachabilityPtr reachability);

  ~ZRBHS_NetworkReachabilityManager() override;

  ZRBHS_NetworkReachabilityStatus networkReachabilityStatus() const {
    return networkReachabilityStatus_.load(std::memory_order_acquire);
  }
  const ZRBNetworkReachabilityPtr& networkReachability() const { return networkReachability_; }
  StatusBlock networkReachabilityStatusBlock() const;

  bool isReachable() const { return isReachableViaWWAN() || isReachableViaWiFi(); }
  bool isReachableViaWWAN() const {
    return networkReachabilityStatus() == ZRBHS_NetworkReachabilityStatusReachableViaWWAN;
  }
  bool isReachableViaWiFi() const {
    return networkReachabilityStatus() == ZRBHS_NetworkReachabilityStatusReachableViaWiFi;
  }

  // Stops first, then registers a change handler, schedules the object on the main queue and
  // reads the flags once on the background queue for a first report (none when the read fails).
  // Starting again re-registers and reads again.
  void startMonitoring();
  // Unschedules the object; the status keeps its last value.
  void stopMonitoring();

  // Called on the main queue with every report, after the status was set; null removes it.
  void setReachabilityStatusChangeBlock(StatusBlock block);

  // ZRBHS_StringFromNetworkReachabilityStatus() of the current status.
  std::string localizedNetworkReachabilityStatusString() const;

  ObserverToken addChangeObserver(ChangeObserver observer);
  void removeChangeObserver(ObserverToken token);

  std::string className() const override { return "ZRBHS_NetworkReachabilityManager"; }
  // "<ZRBHS_NetworkReachabilityManager: 0x...> status: Reachable via WiFi, reachability: ...".
  std::string description() const override;

  struct Private;  // the construction tag and the change handler's access
  ZRBHS_NetworkReachabilityManager(const Private&, ZRBNetworkReachabilityPtr reachability);

 private:
  void setNetworkReachabilityStatus(ZRBHS_NetworkReachabilityStatus status);

  std::atomic<ZRBHS_NetworkReachabilityStatus> networkReachabilityStatus_{
      ZRBHS_NetworkReachabilityStatusUnknown};
  const ZRBNetworkReachabilityPtr networkReachability_;
  mutable std::mutex mutex_;
  StatusBlock networkReachabilityStatusBlock_;
  std::vector<std::pair<ObserverToken, ChangeObserver>> observers_;
  ObserverToken nextToken_ = 1;
};
