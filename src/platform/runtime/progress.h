// ZRBProgress: the progress of one piece of work, in units (bytes for transfers).
//
// Thread-safe: any thread may read, change, cancel, pause or resume. Handlers and observers run on
// the thread that made the change, after the change took effect and outside the object's lock, so
// they may call back into the object.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/foundation/object.h"

// The platform's "size not known" for unit counts (and transfer sizes).
inline constexpr std::int64_t ZRBProgressUnknownUnitCount = -1;

enum class ZRBProgressChange {
  TotalUnitCount,
  CompletedUnitCount,
  Cancellable,
  Pausable,
  Cancelled,
  Paused,
  Resumed,
};

class ZRBProgress;
using ZRBProgressPtr = std::shared_ptr<ZRBProgress>;
// Receives the progress and what changed; reads the new values from the progress itself.
using ZRBProgressObserver = std::function<void(ZRBProgress& progress, ZRBProgressChange change)>;

class ZRBProgress final : public ZRBObject {
 public:
  // Both counts start at 0 (use the factory or setTotalUnitCount for an unknown total).
  ZRBProgress() = default;
  static ZRBProgressPtr progressWithTotalUnitCount(std::int64_t total);

  std::int64_t totalUnitCount() const;
  void setTotalUnitCount(std::int64_t total);
  std::int64_t completedUnitCount() const;
  void setCompletedUnitCount(std::int64_t completed);
  // completed / total; 0 while the total is unknown or 0, or the completed count is negative.
  // Not clamped: more units completed than expected give more than 1, as on the platform.
  double fractionCompleted() const;
  // The total is unknown, or the completed count is.
  bool isIndeterminate() const;
  // total > 0 and completed >= total.
  bool isFinished() const;

  // Whether the work may be cancelled or paused: advice for whoever shows the progress. cancel()
  // and pause() work whatever these say, as on the platform.
  bool isCancellable() const;
  void setCancellable(bool cancellable);
  bool isPausable() const;
  void setPausable(bool pausable);

  bool isCancelled() const;
  bool isPaused() const;
  // Marks the progress cancelled (once; later calls do nothing) and calls the cancellation handler.
  void cancel();
  // Marks the progress paused and calls the pausing handler; nothing when paused or cancelled.
  void pause();
  // Clears the paused state and calls the resuming handler; nothing when not paused.
  void resume();

  // A cancellation handler set on an already cancelled progress runs at once, on the setter's
  // thread. Handlers run on the thread that calls cancel(), pause() or resume().
  void setCancellationHandler(std::function<void()> handler);
  void setPausingHandler(std::function<void()> handler);
  void setResumingHandler(std::function<void()> handler);

  // Observers are called for every change of a unit count or of the state (a set that does not
  // change the value is not a change). The token removes the observer; once removeObserver() has
  // returned the observer is not called again from a change that starts afterwards.
  using ObserverToken = std::uint64_t;
  ObserverToken addObserver(ZRBProgressObserver observer);
  void removeObserver(ObserverToken token);

  std::string className() const override { return "ZRBProgress"; }
  // "<ZRBProgress: 0x...> : Fraction completed: 0.5000 / Completed: 5 of 10".
  std::string description() const override;

 private:
  void changed(ZRBProgressChange change, const std::function<void()>& handler = nullptr);

  mutable std::mutex mutex_;
  std::int64_t total_ = 0;
  std::int64_t completed_ = 0;
  bool cancellable_ = true;
  bool pausable_ = false;
  bool cancelled_ = false;
  bool paused_ = false;
  std::function<void()> cancellationHandler_;
  std::function<void()> pausingHandler_;
  std::function<void()> resumingHandler_;
  struct Observer {
    ObserverToken token;
    std::shared_ptr<const ZRBProgressObserver> function;
  };
  std::vector<Observer> observers_;
  ObserverToken nextToken_ = 1;
};
