// ZRBRQ_BaseRequest: one HTTP exchange as a caller describes it, and its outcome.
//
// A caller subclasses it and overrides the description operations (path, method, arguments,
// serializer kinds, headers, validators), optionally sets a delegate, success and failure
// callbacks and accessories, and calls start(). The request does no networking itself: start()
// hands it to the shared network agent (network_agent.h), which creates its task, fills in the
// response fields and delivers exactly one success or failure on the main queue:
//   success: requestCompletePreprocessor (processing queue), then on the main queue
//            requestWillStop: on accessories, requestCompleteFilter, delegate requestFinished:,
//            the success callback, and requestDidStop: only when the SDK log level is 3 or more;
//   failure: requestFailedPreprocessor (processing queue), then on the main queue
//            requestWillStop:, requestFailedFilter, delegate requestFailed:, the failure callback,
//            requestDidStop:.
// Afterwards the callbacks are cleared, so that callbacks capturing the caller are released.
// stop() clears the delegate and cancels the task; the agent then delivers nothing for it.
//
// Default status rule: only 200 and 400 are valid (the code is logged as
// "ZRBNetworkLog:(statusCode)%ld"); every other code, the rest of 2xx included, fails the request
// with a null error.
//
// Requests are always held by shared_ptr (start() and stop() use shared_from_this()). Every stored
// field is guarded by the request's own lock, so the agent, the main queue and the caller may read
// and write them from their threads.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "http/request_serializer.h"
#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"
#include "platform/net/url_request.h"
#include "platform/net/url_session_task.h"
#include "platform/runtime/progress.h"

enum ZRBRQ_RequestMethod : long {
  ZRBRQ_RequestMethodGET = 0,
  ZRBRQ_RequestMethodPOST = 1,
  ZRBRQ_RequestMethodHEAD = 2,
  ZRBRQ_RequestMethodPUT = 3,
  ZRBRQ_RequestMethodDELETE = 4,
  ZRBRQ_RequestMethodPATCH = 5,
};

enum ZRBRQ_RequestSerializerType : long {
  ZRBRQ_RequestSerializerTypeHTTP = 0,
  ZRBRQ_RequestSerializerTypeJSON = 1,
};

enum ZRBRQ_ResponseSerializerType : long {
  ZRBRQ_ResponseSerializerTypeHTTP = 0,
  ZRBRQ_ResponseSerializerTypeJSON = 1,
  ZRBRQ_ResponseSerializerTypeXMLParser = 2,
};

enum ZRBRQ_RequestPriority : long {
  ZRBRQ_RequestPriorityLow = -4,
  ZRBRQ_RequestPriorityDefault = 0,
  ZRBRQ_RequestPriorityHigh = 4,
};

class ZRBRQ_BaseRequest;
using ZRBRQ_BaseRequestPtr = std::shared_ptr<ZRBRQ_BaseRequest>;

// The result receiver. Both operations are optional: the defaults do nothing, which is what an
// unimplemented operation amounts to (the agent calls them only while the delegate is set).
class ZRBRQ_RequestDelegate {
 public:
  virtual ~ZRBRQ_RequestDelegate() = default;
  virtual void requestFinished(const ZRBRQ_BaseRequestPtr& request) { (void)request; }
  virtual void requestFailed(const ZRBRQ_BaseRequestPtr& request) { (void)request; }
};

// Observes a request's start and stop. All three operations are optional; an accessory that does
// not override one is not affected by it.
class ZRBRQ_RequestAccessory {
 public:
  virtual ~ZRBRQ_RequestAccessory() = default;
  virtual void requestWillStart(const ZRBRQ_BaseRequestPtr& request) { (void)request; }
  virtual void requestWillStop(const ZRBRQ_BaseRequestPtr& request) { (void)request; }
  virtual void requestDidStop(const ZRBRQ_BaseRequestPtr& request) { (void)request; }
};

using ZRBRQ_RequestAccessoryPtr = std::shared_ptr<ZRBRQ_RequestAccessory>;

class ZRBRQ_BaseRequest : public ZRBObject {
 public:
  using CompletionBlock = std::function<void(const ZRBRQ_BaseRequestPtr& request)>;
  using ConstructingBodyBlock = ZRBHS_HTTPRequestSerializer::MultipartFormConstructingBlock;
  using ProgressBlock = std::function<void(const ZRBProgressPtr& progress)>;
  using HeaderMap = std::map<std::string, std::string>;

  ZRBRQ_BaseRequest() = default;
  ~ZRBRQ_BaseRequest() override = default;

  // ---- stored fields ----
  ZRBURLSessionTaskPtr requestTask() const;
  void setRequestTask(ZRBURLSessionTaskPtr task);
  // The four response getters are virtual so that a cached request can answer from its cache.
  // The raw body (for a failed download: the partial file's contents); absent when none.
  virtual ZRBValue responseData() const;
  void setResponseData(ZRBValue data);
  virtual std::optional<std::string> responseString() const;
  void setResponseString(std::optional<std::string> string);
  // The serializer's output; for a download, the downloaded file's URL.
  virtual ZRBValue responseObject() const;
  void setResponseObject(ZRBValue object);
  // Set only for JSON responses.
  virtual ZRBValue responseJSONObject() const;
  void setResponseJSONObject(ZRBValue object);
  ZRBErrorPtr error() const;
  void setError(ZRBErrorPtr error);
  long tag() const;
  void setTag(long tag);
  ZRBValue userInfo() const;
  void setUserInfo(ZRBValue userInfo);
  // Held weakly.
  std::shared_ptr<ZRBRQ_RequestDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<ZRBRQ_RequestDelegate>& delegate);
  CompletionBlock successCompletionBlock() const;
  void setSuccessCompletionBlock(CompletionBlock block);
  CompletionBlock failureCompletionBlock() const;
  void setFailureCompletionBlock(CompletionBlock block);
  // Null until the first addAccessory().
  std::optional<std::vector<ZRBRQ_RequestAccessoryPtr>> requestAccessories() const;
  void setRequestAccessories(std::optional<std::vector<ZRBRQ_RequestAccessoryPtr>> accessories);
  // Used only by POST.
  ConstructingBodyBlock constructingBodyBlock() const;
  void setConstructingBodyBlock(ConstructingBodyBlock block);
  // When set, a GET is a resumable download to this path.
  std::optional<std::string> resumableDownloadPath() const;
  void setResumableDownloadPath(std::optional<std::string> path);
  ProgressBlock resumableDownloadProgressBlock() const;
  void setResumableDownloadProgressBlock(ProgressBlock block);
  ZRBRQ_RequestPriority requestPriority() const;
  void setRequestPriority(ZRBRQ_RequestPriority priority);
  // Free slots for subclasses and callers; nothing in the library reads them (the headers sent are
  // those of requestHeaderFieldValueDictionary()).
  std::optional<std::string> requestUrlss() const;
  void setRequestUrlss(std::optional<std::string> value);
  std::optional<HeaderMap> requestHeaderDictionary() const;
  void setRequestHeaderDictionary(std::optional<HeaderMap> value);

  // ---- derived from requestTask, on every call ----
  ZRBURLRequestPtr currentRequest() const;
  ZRBURLRequestPtr originalRequest() const;
  ZRBHTTPURLResponsePtr response() const;
  // 0 without a response.
  long responseStatusCode() const;
  // Empty without a response.
  ZRBValue responseHeaders() const;
  // False without a task; else whether the task is canceling.
  bool isCancelled() const;
  // False without a task; else whether the task is running.
  bool isExecuting() const;

  // ---- description operations: override in subclasses ----
  virtual std::string requestUrl() const { return ""; }
  virtual std::string cdnUrl() const { return ""; }
  virtual std::string baseUrl() const { return ""; }
  virtual double requestTimeoutInterval() const { return 60.0; }
  // A dictionary for form or JSON bodies; absent for none.
  virtual ZRBValue requestArgument() const { return ZRBValue(); }
  virtual ZRBValue cacheFileNameFilterForRequestArgument(const ZRBValue& argument) const { return argument; }
  virtual ZRBRQ_RequestMethod requestMethod() const { return ZRBRQ_RequestMethodGET; }
  virtual ZRBRQ_RequestSerializerType requestSerializerType() const {
    return ZRBRQ_RequestSerializerTypeHTTP;
  }
  virtual ZRBRQ_ResponseSerializerType responseSerializerType() const {
    return ZRBRQ_ResponseSerializerTypeJSON;
  }
  // (user name, password); the first and the last element are used.
  virtual std::optional<std::vector<std::string>> requestAuthorizationHeaderFieldArray() const {
    return std::nullopt;
  }
  virtual std::optional<HeaderMap> requestHeaderFieldValueDictionary() const { return std::nullopt; }
  // When non-null it replaces all URL building and serialization.
  virtual ZRBURLRequestPtr buildCustomUrlRequest() const { return nullptr; }
  virtual bool useCDN() const { return false; }
  virtual bool allowsCellularAccess() const { return true; }
  // A validator tree for ZRBRQ_NetworkUtils::validateJSON; absent for none.
  virtual ZRBValue jsonValidator() const { return ZRBValue(); }
  virtual bool statusCodeValidator() const;
  virtual void requestCompletePreprocessor() {}
  virtual void requestCompleteFilter() {}
  virtual void requestFailedPreprocessor() {}
  virtual void requestFailedFilter() {}

  // ---- operations ----
  // Hands the request to the shared agent (a cached request decides about its cache first).
  virtual void start();
  // Accessories' will-stop, delegate cleared, the shared agent's cancelRequest, accessories'
  // did-stop, in this order.
  void stop();
  void startWithCompletionBlockWithSuccess(CompletionBlock success, CompletionBlock failure);
  void setCompletionBlockWithSuccess(CompletionBlock success, CompletionBlock failure);
  void clearCompletionBlock();
  void addAccessory(ZRBRQ_RequestAccessoryPtr accessory);
  void toggleAccessoriesWillStartCallBack();
  void toggleAccessoriesWillStopCallBack();
  void toggleAccessoriesDidStopCallBack();

  ZRBRQ_BaseRequestPtr self() { return std::static_pointer_cast<ZRBRQ_BaseRequest>(shared_from_this()); }

  std::string className() const override { return "ZRBRQ_BaseRequest"; }
  // "<Class: 0x...>{ header: ... } { URL: ... } { method: ... } { arguments: ... }".
  std::string description() const override;

 private:
  friend class ZRBRQ_NetworkAgent;
  // The response fields of one result in one hold of the lock; `json` null leaves
  // responseJSONObject as it is. responseString is `data` decoded in the charset that `response`
  // names (UTF-8 when none), decoded when first read: most callers never read it.
  void setResponseFields(ZRBValue data, ZRBURLResponsePtr response, ZRBValue object, const ZRBValue* json);
  // With mutex_ held: a responseString still owed by setResponseFields is decoded now.
  void decodePendingResponseString() const;
  // clearCompletionBlock when the request's task is still `task` (a request started again keeps
  // the callbacks of its new run).
  void clearCompletionBlockOfTask(const ZRBURLSessionTaskPtr& task);
  // Calls `operation` on every accessory, in insertion order, outside the lock.
  void forEachAccessory(void (ZRBRQ_RequestAccessory::*operation)(const ZRBRQ_BaseRequestPtr&));

  mutable std::mutex mutex_;
  ZRBURLSessionTaskPtr requestTask_;
  ZRBValue responseData_;
  mutable std::optional<std::string> responseString_;
  // Set while responseString_ still has to be decoded from responseData_ (see setResponseFields).
  mutable ZRBURLResponsePtr responseStringSource_;
  mutable bool responseStringPending_ = false;
  ZRBValue responseObject_;
  ZRBValue responseJSONObject_;
  ZRBErrorPtr error_;
  long tag_ = 0;
  ZRBValue userInfo_;
  std::weak_ptr<ZRBRQ_RequestDelegate> delegate_;
  CompletionBlock successCompletionBlock_;
  CompletionBlock failureCompletionBlock_;
  std::optional<std::vector<ZRBRQ_RequestAccessoryPtr>> requestAccessories_;
  // Whether requestAccessories_ holds any, so that requests without accessories skip the lock.
  std::atomic<bool> hasAccessories_{false};
  ConstructingBodyBlock constructingBodyBlock_;
  std::optional<std::string> resumableDownloadPath_;
  ProgressBlock resumableDownloadProgressBlock_;
  ZRBRQ_RequestPriority requestPriority_ = ZRBRQ_RequestPriorityDefault;
  std::optional<std::string> requestUrlss_;
  std::optional<HeaderMap> requestHeaderDictionary_;
};
