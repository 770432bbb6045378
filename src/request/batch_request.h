// ZRBRQ_BatchRequest: several cached requests run as one unit that reports once.
//
// Every member is a ZRBRQ_Request (or derived); the initializer refuses anything else. start()
// makes the batch the delegate of every member and discards the members' own callbacks, so only
// the batch hears of their results:
//   - when the last member has finished successfully: accessories' will-stop, the delegate's
//     batchRequestFinished, the success callback, the callbacks cleared, accessories' did-stop;
//   - at the first failure: failedRequest is set, accessories' will-stop, stop() on every member
//     (which silences the rest), the delegate's batchRequestFailed, the failure callback, the
//     callbacks cleared, accessories' did-stop.
// Either way the shared ZRBRQ_BatchRequestAgent then lets go of the batch, which holds it while it
// runs so the caller need not. stop() reports nothing; destroying a batch stops its members.
//
// finishedCount is never reset: a batch in which a member has succeeded refuses to start again
// (logging "Error! Batch request has already started."); one that failed first may be restarted.
// An empty batch starts nothing and never reports (the agent keeps it until stop()).
//
// Threads: member results arrive on the main queue, so the reports, delegate and accessory calls
// run there; start() and stop() may be called from any thread. Fields are guarded by the batch's
// own lock, which is never held while calling out.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/foundation/object.h"
#include "request/base_request.h"
#include "request/request.h"

class ZRBRQ_BatchRequest;
using ZRBRQ_BatchRequestPtr = std::shared_ptr<ZRBRQ_BatchRequest>;

// The batch's result receiver. Both operations are optional: the defaults do nothing.
class ZRBRQ_BatchRequestDelegate {
 public:
  virtual ~ZRBRQ_BatchRequestDelegate() = default;
  virtual void batchRequestFinished(const ZRBRQ_BatchRequestPtr& batchRequest) { (void)batchRequest; }
  virtual void batchRequestFailed(const ZRBRQ_BatchRequestPtr& batchRequest) { (void)batchRequest; }
};

// The request accessory's three operations, told about a batch instead of a single request. An
// object that observes both derives from both and overrides each pair.
class ZRBRQ_BatchRequestAccessory {
 public:
  virtual ~ZRBRQ_BatchRequestAccessory() = default;
  virtual void requestWillStart(const ZRBRQ_BatchRequestPtr& batchRequest) { (void)batchRequest; }
  virtual void requestWillStop(const ZRBRQ_BatchRequestPtr& batchRequest) { (void)batchRequest; }
  virtual void requestDidStop(const ZRBRQ_BatchRequestPtr& batchRequest) { (void)batchRequest; }
};

using ZRBRQ_BatchRequestAccessoryPtr = std::shared_ptr<ZRBRQ_BatchRequestAccessory>;

class ZRBRQ_BatchRequest final : public ZRBObject, public ZRBRQ_RequestDelegate {
 public:
  using CompletionBlock = std::function<void(const ZRBRQ_BatchRequestPtr& batchRequest)>;

  // initWithRequestArray: a batch over a copy of `requestArray`, or null (after logging "Error,
  // request item must be KVRequest instance.") when an element is null or not a ZRBRQ_Request.
  static ZRBRQ_BatchRequestPtr initWithRequestArray(const std::vector<ZRBRQ_BaseRequestPtr>& requestArray);

  // Stops every member and clears the callbacks.
  ~ZRBRQ_BatchRequest() override;

  // ---- fields ----
  // Fixed for the batch's life.
  const std::vector<ZRBRQ_RequestPtr>& requestArray() const { return requestArray_; }
  // Held weakly.
  std::shared_ptr<ZRBRQ_BatchRequestDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<ZRBRQ_BatchRequestDelegate>& delegate);
  CompletionBlock successCompletionBlock() const;
  void setSuccessCompletionBlock(CompletionBlock block);
  CompletionBlock failureCompletionBlock() const;
  void setFailureCompletionBlock(CompletionBlock block);
  long tag() const;
  void setTag(long tag);
  // Null until the first addAccessory().
  std::optional<std::vector<ZRBRQ_BatchRequestAccessoryPtr>> requestAccessories() const;
  void setRequestAccessories(std::optional<std::vector<ZRBRQ_BatchRequestAccessoryPtr>> accessories);
  // The member whose failure ended the batch; null until then and again at each start.
  ZRBRQ_RequestPtr failedRequest() const;
  // Members that have finished successfully, over every start.
  long finishedCount() const;

  // ---- operations ----
  void start();
  // Reports nothing: accessories' will-stop, delegate cleared, clearRequest(), accessories'
  // did-stop, and the agent lets go of the batch.
  void stop();
  void startWithCompletionBlockWithSuccess(CompletionBlock success, CompletionBlock failure);
  void setCompletionBlockWithSuccess(CompletionBlock success, CompletionBlock failure);
  void clearCompletionBlock();
  void addAccessory(ZRBRQ_BatchRequestAccessoryPtr accessory);
  // True when every member answered from its cache (an empty batch included); stops asking at the
  // first member that did not.
  bool isDataFromCache() const;
  void toggleAccessoriesWillStartCallBack();
  void toggleAccessoriesWillStopCallBack();
  void toggleAccessoriesDidStopCallBack();

  // ---- as the members' delegate ----
  void requestFinished(const ZRBRQ_BaseRequestPtr& request) override;
  void requestFailed(const ZRBRQ_BaseRequestPtr& request) override;

  ZRBRQ_BatchRequestPtr self() { return std::static_pointer_cast<ZRBRQ_BatchRequest>(shared_from_this()); }
  std::string className() const override { return "ZRBRQ_BatchRequest"; }

 private:
  explicit ZRBRQ_BatchRequest(std::vector<ZRBRQ_RequestPtr> requestArray);

  // Stops every member in order, then clears the batch's callbacks.
  void clearRequest();
  void forEachAccessory(void (ZRBRQ_BatchRequestAccessory::*operation)(const ZRBRQ_BatchRequestPtr&));

  const std::vector<ZRBRQ_RequestPtr> requestArray_;
  mutable std::mutex mutex_;
  std::weak_ptr<ZRBRQ_BatchRequestDelegate> delegate_;
  CompletionBlock successCompletionBlock_;
  CompletionBlock failureCompletionBlock_;
  long tag_ = 0;
  std::optional<std::vector<ZRBRQ_BatchRequestAccessoryPtr>> requestAccessories_;
  ZRBRQ_RequestPtr failedRequest_;
  long finishedCount_ = 0;
};
