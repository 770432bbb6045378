// ZRBNotificationCenter: named, process-wide broadcasts.
//
// An observer names the notification it wants (or all), optionally the object it wants them from
// (compared by identity), and optionally the queue its block runs on. A post delivers to every
// matching observer: synchronously on the posting thread for observers without a queue, and
// asynchronously on the observer's queue otherwise (the poster does not wait for those).
//
// Thread-safety: every operation may be called from any thread, including from inside an
// observer's block (adding observers, removing any observer including itself, posting again).
//
// What holds around removal:
// - A post delivers to the observers registered when it starts; an observer added during a post
//   sees later posts only.
// - Once removeObserver() has returned, no delivery starts calling the block any more, whether it
//   was still to come in the same post or already queued on the observer's queue. This includes an
//   observer that removes itself from inside its block.
// - Removal does not wait for other threads: a delivery on another thread that had already taken
//   the block when removeObserver() was called may still be running it, or about to, when
//   removeObserver() returns. (Waiting would deadlock an observer whose block waits for the thread
//   that removes it.) Code that must be sure holds its own flag or lock. The center releases the
//   block, and whatever it captures, when the last such call is over.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/runtime/dispatch.h"

class ZRBNotification final : public ZRBObject {
 public:
  ZRBNotification(std::string name, ZRBValue object = {}, ZRBValue userInfo = {})
      : name_(std::move(name)), object_(std::move(object)), userInfo_(std::move(userInfo)) {}

  const std::string& name() const { return name_; }
  // The posting object: usually an object value (a task, a session), absent when none was given.
  const ZRBValue& object() const { return object_; }
  template <typename T>
  std::shared_ptr<T> objectAs() const {
    return object_.objectAs<T>();
  }
  // A dictionary whose values may be any value or object; absent when none was given.
  const ZRBValue& userInfo() const { return userInfo_; }

  std::string className() const override { return "ZRBNotification"; }
  // "<ZRBNotification: 0x...> {name = N; object = O; userInfo = U}".
  std::string description() const override;

 private:
  std::string name_;
  ZRBValue object_;
  ZRBValue userInfo_;
};
using ZRBNotificationPtr = std::shared_ptr<const ZRBNotification>;
using ZRBNotificationBlock = std::function<void(const ZRBNotificationPtr& notification)>;

// The token of one registration. The center keeps the registration until removeObserver(); dropping
// the token does not remove it.
class ZRBNotificationObserver final : public ZRBObject {
 public:
  std::string className() const override { return "ZRBNotificationObserver"; }

  struct Record;

 private:
  friend class ZRBNotificationCenter;
  explicit ZRBNotificationObserver(std::shared_ptr<Record> record) : record_(std::move(record)) {}
  std::shared_ptr<Record> record_;
};
using ZRBNotificationObserverPtr = std::shared_ptr<ZRBNotificationObserver>;

class ZRBNotificationCenter final : public ZRBObject {
 public:
  ZRBNotificationCenter();
  ~ZRBNotificationCenter() override;
  static const std::shared_ptr<ZRBNotificationCenter>& defaultCenter();

  // `name`: empty for every name. `object`: absent for every sender; an object value matches that
  // very object (identity; the center does not keep it alive, and once it is gone the observer
  // matches nothing), any other value matches equal values. `queue`: null to run the block
  // synchronously on the posting thread.
  ZRBNotificationObserverPtr addObserver(std::string_view name, const ZRBValue& object,
                                         ZRBDispatchQueuePtr queue, ZRBNotificationBlock block);
  // Removing a token twice, or a token of another center, does nothing.
  void removeObserver(const ZRBNotificationObserverPtr& observer);

  // Whether any observer would see a notification of that name (a catch-all observer counts). What
  // costs something to post (a queue hop, a user-info map) can be skipped when nobody listens.
  bool hasObservers(const std::string& name) const;
  // How many registrations would see a notification of that name (catch-all ones included).
  std::size_t observerCount(const std::string& name) const;

  // observerCount() for a name asked about on every request: the count is remembered and worked
  // out again only after observers were added or removed, so asking costs two atomic reads. Use
  // one per name (a function-local static), always with the same center. Counts above 65535 are
  // remembered as 65535.
  class ObservedName {
   public:
    explicit ObservedName(std::string name) : name_(std::move(name)) {}
    const std::string& name() const { return name_; }
    std::size_t observerCount(const ZRBNotificationCenter& center) const;
    bool hasObservers(const ZRBNotificationCenter& center) const { return observerCount(center) != 0; }

   private:
    static constexpr unsigned kCountBits = 16;
    const std::string name_;
    // (the center's generation + 1) << kCountBits | the count then (capped); 0 before the first.
    mutable std::atomic<std::uint64_t> remembered_{0};
  };

  void post(const ZRBNotificationPtr& notification);
  void post(std::string name, ZRBValue object = {}, ZRBValue userInfo = {});

  std::string className() const override { return "ZRBNotificationCenter"; }

 private:
  using RecordPtr = std::shared_ptr<ZRBNotificationObserver::Record>;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::vector<RecordPtr>> byName_;
  std::vector<RecordPtr> anyName_;
  std::uint64_t nextOrder_ = 0;
  // The registrations in byName_ and anyName_ (changed under mutex_): with none, asking and posting
  // take no lock.
  std::atomic<std::size_t> observerCount_{0};
  // Counts additions and removals (changed under mutex_), for ObservedName.
  std::atomic<std::uint64_t> generation_{0};
};
