#include "http/network_reachability_manager.h"

#include <netinet/in.h>

#include <cstring>
#include <set>

#include "platform/foundation/value.h"
#include "platform/runtime/dispatch.h"
#include "platform/runtime/notification_center.h"
#include "platform/system/bundle.h"
#include "platform/system/localized_string.h"

namespace {

// What the reachability object's callback context carries: the manager's change handler.
using ReachabilityHandler = std::function<void(ZRBHS_NetworkReachabilityStatus status)>;
using ReachabilityHandlerPtr = std::shared_ptr<const ReachabilityHandler>;

const void* ZRBHS_NetworkReachabilityRetainCallback(const void* info) {
  return new ReachabilityHandlerPtr(*static_cast<const ReachabilityHandlerPtr*>(info));
}

void ZRBHS_NetworkReachabilityReleaseCallback(const void* info) {
  delete static_cast<const ReachabilityHandlerPtr*>(info);
}

// Reports flags: the status they stand for goes to the handler and then to the notification, on
// the main queue, whether or not it changed.
void ZRBHS_PostReachabilityStatusChange(ZRBNetworkReachabilityFlags flags, ReachabilityHandlerPtr handler) {
  ZRBHS_NetworkReachabilityStatus status = ZRBHS_NetworkReachabilityStatusForFlags(flags);
  ZRBDispatch::mainQueue()->async([handler = std::move(handler), status] {
    if (handler && *handler) (*handler)(status);
    ZRBNotificationCenter::defaultCenter()->post(
        std::string(kZRBHS_NetworkingReachabilityDidChangeNotification), ZRBValue(),
        ZRBValue::dictionary({{kZRBHS_NetworkingReachabilityNotificationStatusItem,
                               ZRBValue(static_cast<long long>(status))}}));
  });
}

void ZRBHS_NetworkReachabilityCallback(ZRBNetworkReachability&, ZRBNetworkReachabilityFlags flags,
                                       void* info) {
  ZRBHS_PostReachabilityStatusChange(flags, *static_cast<const ReachabilityHandlerPtr*>(info));
}

const char* statusKey(std::int64_t status) {
  switch (status) {
    case ZRBHS_NetworkReachabilityStatusNotReachable: return "Not Reachable";
    case ZRBHS_NetworkReachabilityStatusReachableViaWWAN: return "Reachable via WWAN";
    case ZRBHS_NetworkReachabilityStatusReachableViaWiFi: return "Reachable via WiFi";
    default: return "Unknown";
  }
}

}  // namespace

extern "C" const char* ZRBHS_StringFromNetworkReachabilityStatus(std::int64_t status) {
  std::string text =
      ZRBBundle::mainBundle()->localizedStringForKey(statusKey(status), "", ZRBNetworkingStringTable);
  // Every distinct text is kept for the process, so the pointer handed out stays valid.
  static std::mutex mutex;
  static auto* texts = new std::set<std::string>;
  std::lock_guard lock(mutex);
  return texts->insert(std::move(text)).first->c_str();
}

ZRBHS_NetworkReachabilityStatus ZRBHS_NetworkReachabilityStatusForFlags(ZRBNetworkReachabilityFlags flags) {
  bool isReachable = (flags & ZRBNetworkReachabilityFlagsReachable) != 0;
  bool needsConnection = (flags & ZRBNetworkReachabilityFlagsConnectionRequired) != 0;
  bool canConnectAutomatically = (flags & (ZRBNetworkReachabilityFlagsConnectionOnDemand |
                                           ZRBNetworkReachabilityFlagsConnectionOnTraffic)) != 0;
  bool canConnectWithoutUserInteraction =
      canConnectAutomatically && (flags & ZRBNetworkReachabilityFlagsInterventionRequired) == 0;
  bool isNetworkReachable = isReachable && (!needsConnection || canConnectWithoutUserInteraction);
  if (!isNetworkReachable) return ZRBHS_NetworkReachabilityStatusNotReachable;
  if ((flags & ZRBNetworkReachabilityFlagsIsWWAN) != 0)
    return ZRBHS_NetworkReachabilityStatusReachableViaWWAN;
  return ZRBHS_NetworkReachabilityStatusReachableViaWiFi;
}

struct ZRBHS_NetworkReachabilityManager::Private {
  static void setStatus(ZRBHS_NetworkReachabilityManager& manager, ZRBHS_NetworkReachabilityStatus status) {
    manager.setNetworkReachabilityStatus(status);
  }
};

ZRBHS_NetworkReachabilityManager::ZRBHS_NetworkReachabilityManager(const Private&,
                                                                   ZRBNetworkReachabilityPtr reachability)
    : networkReachability_(std::move(reachability)) {}

const ZRBHS_NetworkReachabilityManagerPtr& ZRBHS_NetworkReachabilityManager::sharedManager() {
  // Immortal: the shared manager lives for the process.
  static const auto* shared = new ZRBHS_NetworkReachabilityManagerPtr(manager());
  return *shared;
}

ZRBHS_NetworkReachabilityManagerPtr ZRBHS_NetworkReachabilityManager::manager() {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  return managerForAddress(&address);
}

ZRBHS_NetworkReachabilityManagerPtr ZRBHS_NetworkReachabilityManager::managerForDomain(
    std::string_view domain) {
  return initWithReachability(ZRBNetworkReachability::createWithName(domain));
}

ZRBHS_NetworkReachabilityManagerPtr ZRBHS_NetworkReachabilityManager::managerForAddress(const void* address) {
  return initWithReachability(
      ZRBNetworkReachability::createWithAddress(static_cast<const sockaddr*>(address)));
}

ZRBHS_NetworkReachabilityManagerPtr ZRBHS_NetworkReachabilityManager::initWithReachability(
    ZRBNetworkReachabilityPtr reachability) {
  return std::make_shared<ZRBHS_NetworkReachabilityManager>(Private{}, std::move(reachability));
}

ZRBHS_NetworkReachabilityManager::~ZRBHS_NetworkReachabilityManager() { stopMonitoring(); }

void ZRBHS_NetworkReachabilityManager::startMonitoring() {
  stopMonitoring();
  if (!networkReachability_) return;

  std::weak_ptr<ZRBHS_NetworkReachabilityManager> weakSelf =
      std::static_pointer_cast<ZRBHS_NetworkReachabilityManager>(shared_from_this());
  auto handler =
      std::make_shared<const ReachabilityHandler>([weakSelf](ZRBHS_NetworkReachabilityStatus status) {
        auto self = weakSelf.lock();
        if (!self) return;
        Private::setStatus(*self, status);
        if (auto block = self->networkReachabilityStatusBlock()) block(status);
      });

  ZRBNetworkReachabilityContext context{&handler, ZRBHS_NetworkReachabilityRetainCallback,
                                        ZRBHS_NetworkReachabilityReleaseCallback};
  networkReachability_->setCallback(ZRBHS_NetworkReachabilityCallback, &context);
  networkReachability_->setDispatchQueue(ZRBDispatch::mainQueue());

  ZRBDispatch::globalQueue(ZRBQoSBackground)->async([reachability = networkReachability_, handler] {
    ZRBNetworkReachabilityFlags flags = 0;
    if (reachability->getFlags(flags)) ZRBHS_PostReachabilityStatusChange(flags, handler);
  });
}

void ZRBHS_NetworkReachabilityManager::stopMonitoring() {
  if (networkReachability_) networkReachability_->setDispatchQueue(nullptr);
}

ZRBHS_NetworkReachabilityManager::StatusBlock
ZRBHS_NetworkReachabilityManager::networkReachabilityStatusBlock() const {
  std::lock_guard lock(mutex_);
  return networkReachabilityStatusBlock_;
}

void ZRBHS_NetworkReachabilityManager::setReachabilityStatusChangeBlock(StatusBlock block) {
  std::lock_guard lock(mutex_);
  networkReachabilityStatusBlock_ = std::move(block);
}

std::string ZRBHS_NetworkReachabilityManager::localizedNetworkReachabilityStatusString() const {
  return ZRBHS_StringFromNetworkReachabilityStatus(networkReachabilityStatus());
}

void ZRBHS_NetworkReachabilityManager::setNetworkReachabilityStatus(ZRBHS_NetworkReachabilityStatus status) {
  networkReachabilityStatus_.store(status, std::memory_order_release);
  std::vector<ChangeObserver> observers;
  {
    std::lock_guard lock(mutex_);
    if (observers_.empty()) return;
    for (const auto& entry : observers_) observers.push_back(entry.second);
  }
  // The derived properties change together with the status.
  for (std::string_view keyPath :
       {"networkReachabilityStatus", "reachable", "reachableViaWWAN", "reachableViaWiFi"}) {
    for (const auto& observer : observers) observer(keyPath);
  }
}

ZRBHS_NetworkReachabilityManager::ObserverToken ZRBHS_NetworkReachabilityManager::addChangeObserver(
    ChangeObserver observer) {
  std::lock_guard lock(mutex_);
  ObserverToken token = nextToken_++;
  if (observer) observers_.emplace_back(token, std::move(observer));
  return token;
}

void ZRBHS_NetworkReachabilityManager::removeChangeObserver(ObserverToken token) {
  std::lock_guard lock(mutex_);
  std::erase_if(observers_, [token](const auto& entry) { return entry.first == token; });
}

std::string ZRBHS_NetworkReachabilityManager::description() const {
  return ZRBObject::description() + " status: " + localizedNetworkReachabilityStatusString() +
         ", reachability: " + (networkReachability_ ? networkReachability_->description() : "(null)");
}
