// ZRBURLSessionTask and its kinds: one load run by a URL session.
//
// A task is created suspended by its session and starts with resume(). Its state moves
//   suspended (1) -> running (0) <-> suspended (1) -> canceling (2) -> completed (3)
// (running or suspended may also go straight to completed). Suspending a running task really pauses
// the transfer, and its timeouts do not run while it is paused. cancel() ends the task with
// ZRBURLErrorCancelled (-999) unless it has completed already. Every task completes exactly once.
//
// resume() and suspend() run through replaceable slots (ZRBMethodReplacement) so that an observer
// can wrap them for every task kind at once.
//
// The four byte counters are updated on the session's transport thread as bytes move; expected
// sizes are ZRBURLSessionTransferSizeUnknown (-1) while unknown. Counter observers run on that thread
// too, so they must be quick and must not wait for another queue.
//
// Every operation is thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"
#include "platform/net/url_request.h"
#include "platform/runtime/method_replacement.h"

class ZRBURLSession;
class ZRBURLSessionTaskDriver;
class ZRBURLSessionTask;
class ZRBURLSessionDataTask;
class ZRBURLSessionUploadTask;
class ZRBURLSessionDownloadTask;
using ZRBURLSessionTaskPtr = std::shared_ptr<ZRBURLSessionTask>;
using ZRBURLSessionDataTaskPtr = std::shared_ptr<ZRBURLSessionDataTask>;
using ZRBURLSessionUploadTaskPtr = std::shared_ptr<ZRBURLSessionUploadTask>;
using ZRBURLSessionDownloadTaskPtr = std::shared_ptr<ZRBURLSessionDownloadTask>;

enum ZRBURLSessionTaskState : long {
  ZRBURLSessionTaskStateRunning = 0,
  ZRBURLSessionTaskStateSuspended = 1,
  ZRBURLSessionTaskStateCanceling = 2,
  ZRBURLSessionTaskStateCompleted = 3,
};

inline constexpr std::int64_t ZRBURLSessionTransferSizeUnknown = -1;

inline constexpr float ZRBURLSessionTaskPriorityLow = 0.25f;
inline constexpr float ZRBURLSessionTaskPriorityDefault = 0.5f;
inline constexpr float ZRBURLSessionTaskPriorityHigh = 0.75f;

enum class ZRBURLSessionTaskCounter {
  BytesReceived,
  BytesExpectedToReceive,
  BytesSent,
  BytesExpectedToSend,
};

class ZRBURLSessionTask : public ZRBObject {
 public:
  ~ZRBURLSessionTask() override;

  // Unique within the session, increasing in creation order, from 1.
  unsigned long taskIdentifier() const { return identifier_; }
  ZRBURLRequestPtr originalRequest() const { return originalRequest_; }
  // The request being loaded: after redirects, the redirected one.
  ZRBURLRequestPtr currentRequest() const;
  // The response of the load, once its header has arrived (the last one after redirects).
  ZRBURLResponsePtr response() const;
  // The error the task completed with; null while running and on success.
  ZRBErrorPtr error() const;
  std::optional<std::string> taskDescription() const;
  void setTaskDescription(std::optional<std::string> description);
  ZRBURLSessionTaskState state() const { return state_.load(std::memory_order_acquire); }

  // 0.0 to 1.0; ZRBURLSessionTaskPriorityDefault unless set. Over HTTP/2 it becomes the stream's
  // weight (1 + priority x 255); it takes effect for transfers that start after it is set.
  float priority() const { return priority_.load(std::memory_order_relaxed); }
  void setPriority(float priority);

  std::int64_t countOfBytesReceived() const { return received_.load(std::memory_order_relaxed); }
  std::int64_t countOfBytesExpectedToReceive() const {
    return expectedReceive_.load(std::memory_order_relaxed);
  }
  std::int64_t countOfBytesSent() const { return sent_.load(std::memory_order_relaxed); }
  std::int64_t countOfBytesExpectedToSend() const { return expectedSend_.load(std::memory_order_relaxed); }

  using CounterObserver = std::function<void(ZRBURLSessionTaskCounter counter, std::int64_t newValue)>;
  using ObserverToken = std::uint64_t;
  ObserverToken addCounterObserver(CounterObserver observer);
  void removeCounterObserver(ObserverToken token);

  void resume();
  void suspend();
  void cancel();

  // The slots resume() and suspend() go through; their original implementations are
  // resumeImplementation() and suspendImplementation().
  static ZRBURLSessionTaskStateSlot& resumeSlot();
  static ZRBURLSessionTaskStateSlot& suspendSlot();

  std::string className() const override { return "ZRBURLSessionTask"; }
  // "LocalDataTask <identifier>.<description>"-like: "<ZRBURLSessionDataTask: 0x...> { taskIdentifier:
  // 3, state: running, URL: ... }".
  std::string description() const override;

  // ---- for the session ----
  enum class Kind { Data, Upload, Download };
  struct Private {};
  ZRBURLSessionTask(Private, Kind kind, unsigned long identifier, ZRBURLRequestPtr request);
  Kind kind() const { return kind_; }
  const std::shared_ptr<ZRBURLSessionTaskDriver>& driver() const { return driver_; }
  void setDriver(std::shared_ptr<ZRBURLSessionTaskDriver> driver) { driver_ = std::move(driver); }
  void setCurrentRequest(ZRBURLRequestPtr request);
  void setResponse(ZRBURLResponsePtr response);
  void setError(ZRBErrorPtr error);
  // Compare-and-set; false when the state was not `expected`.
  bool moveState(ZRBURLSessionTaskState expected, ZRBURLSessionTaskState next);
  void setState(ZRBURLSessionTaskState state) { state_.store(state, std::memory_order_release); }
  // Counters have one writer at a time: the task's maker until it resumes, then the transport.
  void setCounter(ZRBURLSessionTaskCounter counter, std::int64_t value);
  void addToCounter(ZRBURLSessionTaskCounter counter, std::int64_t delta);

 protected:
  void resumeImplementation();
  void suspendImplementation();
  // Running or suspended -> canceling; false when the task is canceling or completed already.
  bool beginCanceling();

 private:
  Kind kind_;
  unsigned long identifier_;
  ZRBURLRequestPtr originalRequest_;
  std::shared_ptr<ZRBURLSessionTaskDriver> driver_;

  mutable std::mutex mutex_;
  ZRBURLRequestPtr currentRequest_;
  ZRBURLResponsePtr response_;
  ZRBErrorPtr error_;
  std::optional<std::string> description_;

  std::atomic<ZRBURLSessionTaskState> state_{ZRBURLSessionTaskStateSuspended};
  std::atomic<float> priority_{ZRBURLSessionTaskPriorityDefault};
  std::atomic<std::int64_t> received_{0};
  std::atomic<std::int64_t> expectedReceive_{ZRBURLSessionTransferSizeUnknown};
  std::atomic<std::int64_t> sent_{0};
  std::atomic<std::int64_t> expectedSend_{0};

  std::atomic<bool> hasObservers_{false};
  mutable std::mutex observersMutex_;
  std::vector<std::pair<ObserverToken, std::shared_ptr<const CounterObserver>>> observers_;
  ObserverToken nextToken_ = 1;
  void notifyObservers(ZRBURLSessionTaskCounter counter, std::int64_t value);
};

class ZRBURLSessionDataTask : public ZRBURLSessionTask {
 public:
  using ZRBURLSessionTask::ZRBURLSessionTask;
  std::string className() const override { return "ZRBURLSessionDataTask"; }
};

class ZRBURLSessionUploadTask final : public ZRBURLSessionDataTask {
 public:
  using ZRBURLSessionDataTask::ZRBURLSessionDataTask;
  std::string className() const override { return "ZRBURLSessionUploadTask"; }
};

class ZRBURLSessionDownloadTask final : public ZRBURLSessionTask {
 public:
  using ZRBURLSessionTask::ZRBURLSessionTask;

  // Cancels the task and hands resume data to `completion` (on the session's delegate queue), or an
  // absent value when the download cannot be resumed: no response yet, no ETag or Last-Modified, a
  // method other than GET, or nothing received. The resume data is a property list: the URL, the
  // validators, the bytes received and the path of the kept partial file.
  void cancelByProducingResumeData(std::function<void(ZRBValue resumeData)> completion);

  std::string className() const override { return "ZRBURLSessionDownloadTask"; }
};
