#include "request/base_request.h"

#include <type_traits>
#include <typeinfo>
#include <utility>

#include "platform/foundation/string_format.h"
#include "request/network_agent.h"
#include "request/network_log.h"
#include "request/network_utils.h"

// ---- stored fields ----

#define ZRBRQ_FIELD(Type, getter, setter, member) \
  Type ZRBRQ_BaseRequest::getter() const {        \
    std::lock_guard lock(mutex_);                 \
    return member;                                \
  }                                               \
  void ZRBRQ_BaseRequest::setter(Type value) {    \
    std::lock_guard lock(mutex_);                 \
    member = std::move(value);                    \
  }

ZRBRQ_FIELD(ZRBURLSessionTaskPtr, requestTask, setRequestTask, requestTask_)
ZRBRQ_FIELD(ZRBValue, responseObject, setResponseObject, responseObject_)
ZRBRQ_FIELD(ZRBValue, responseJSONObject, setResponseJSONObject, responseJSONObject_)
ZRBRQ_FIELD(ZRBErrorPtr, error, setError, error_)
ZRBRQ_FIELD(long, tag, setTag, tag_)
ZRBRQ_FIELD(ZRBValue, userInfo, setUserInfo, userInfo_)
ZRBRQ_FIELD(ZRBRQ_BaseRequest::CompletionBlock, successCompletionBlock, setSuccessCompletionBlock,
            successCompletionBlock_)
ZRBRQ_FIELD(ZRBRQ_BaseRequest::CompletionBlock, failureCompletionBlock, setFailureCompletionBlock,
            failureCompletionBlock_)
ZRBRQ_FIELD(ZRBRQ_BaseRequest::ConstructingBodyBlock, constructingBodyBlock, setConstructingBodyBlock,
            constructingBodyBlock_)
ZRBRQ_FIELD(std::optional<std::string>, resumableDownloadPath, setResumableDownloadPath,
            resumableDownloadPath_)
ZRBRQ_FIELD(ZRBRQ_BaseRequest::ProgressBlock, resumableDownloadProgressBlock,
            setResumableDownloadProgressBlock, resumableDownloadProgressBlock_)
ZRBRQ_FIELD(ZRBRQ_RequestPriority, requestPriority, setRequestPriority, requestPriority_)
ZRBRQ_FIELD(std::optional<std::string>, requestUrlss, setRequestUrlss, requestUrlss_)
ZRBRQ_FIELD(std::optional<ZRBRQ_BaseRequest::HeaderMap>, requestHeaderDictionary, setRequestHeaderDictionary,
            requestHeaderDictionary_)

#undef ZRBRQ_FIELD

std::optional<std::vector<ZRBRQ_RequestAccessoryPtr>> ZRBRQ_BaseRequest::requestAccessories() const {
  std::lock_guard lock(mutex_);
  return requestAccessories_;
}

void ZRBRQ_BaseRequest::setRequestAccessories(
    std::optional<std::vector<ZRBRQ_RequestAccessoryPtr>> accessories) {
  std::lock_guard lock(mutex_);
  requestAccessories_ = std::move(accessories);
  hasAccessories_.store(requestAccessories_ && !requestAccessories_->empty(), std::memory_order_release);
}

ZRBValue ZRBRQ_BaseRequest::responseData() const {
  std::lock_guard lock(mutex_);
  return responseData_;
}

void ZRBRQ_BaseRequest::setResponseData(ZRBValue data) {
  std::lock_guard lock(mutex_);
  decodePendingResponseString();  // the string stays that of the body it came with
  responseData_ = std::move(data);
}

void ZRBRQ_BaseRequest::decodePendingResponseString() const {
  if (!responseStringPending_) return;
  responseString_ = ZRBRQ_NetworkUtils::stringFromResponseData(responseData_, responseStringSource_);
  responseStringSource_.reset();
  responseStringPending_ = false;
}

std::optional<std::string> ZRBRQ_BaseRequest::responseString() const {
  std::lock_guard lock(mutex_);
  decodePendingResponseString();
  return responseString_;
}

void ZRBRQ_BaseRequest::setResponseString(std::optional<std::string> string) {
  std::lock_guard lock(mutex_);
  responseString_ = std::move(string);
  responseStringSource_.reset();
  responseStringPending_ = false;
}

void ZRBRQ_BaseRequest::setResponseFields(ZRBValue data, ZRBURLResponsePtr response, ZRBValue object,
                                          const ZRBValue* json) {
  std::lock_guard lock(mutex_);
  responseData_ = std::move(data);
  responseString_.reset();
  responseStringSource_ = std::move(response);
  responseStringPending_ = true;
  if (json) responseJSONObject_ = *json;
  responseObject_ = std::move(object);
}

std::shared_ptr<ZRBRQ_RequestDelegate> ZRBRQ_BaseRequest::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void ZRBRQ_BaseRequest::setDelegate(const std::shared_ptr<ZRBRQ_RequestDelegate>& delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

// ---- derived ----

ZRBURLRequestPtr ZRBRQ_BaseRequest::currentRequest() const {
  auto task = requestTask();
  return task ? task->currentRequest() : nullptr;
}

ZRBURLRequestPtr ZRBRQ_BaseRequest::originalRequest() const {
  auto task = requestTask();
  return task ? task->originalRequest() : nullptr;
}

ZRBHTTPURLResponsePtr ZRBRQ_BaseRequest::response() const {
  auto task = requestTask();
  if (!task) return nullptr;
  ZRBURLResponsePtr response = task->response();
  // The HTTP class is final, so its exact type is the whole cast; the library's dynamic cast walks
  // the class tree and costs several times more on every validation.
  static_assert(std::is_final_v<ZRBHTTPURLResponse>);
  if (!response || typeid(*response) != typeid(ZRBHTTPURLResponse)) return nullptr;
  return std::static_pointer_cast<const ZRBHTTPURLResponse>(std::move(response));
}

long ZRBRQ_BaseRequest::responseStatusCode() const {
  auto httpResponse = response();
  return httpResponse ? httpResponse->statusCode() : 0;
}

ZRBValue ZRBRQ_BaseRequest::responseHeaders() const {
  auto httpResponse = response();
  return httpResponse ? httpResponse->allHeaderFields() : ZRBValue();
}

bool ZRBRQ_BaseRequest::isCancelled() const {
  auto task = requestTask();
  return task && task->state() == ZRBURLSessionTaskStateCanceling;
}

bool ZRBRQ_BaseRequest::isExecuting() const {
  auto task = requestTask();
  return task && task->state() == ZRBURLSessionTaskStateRunning;
}

bool ZRBRQ_BaseRequest::statusCodeValidator() const {
  const long statusCode = responseStatusCode();
  ZRBNetworkLog("ZRBNetworkLog:(statusCode)%ld", statusCode);
  // 400 counts as valid and the rest of 2xx does not: callers rely on this narrow pair.
  return statusCode == 200 || statusCode == 400;
}

// ---- operations ----

void ZRBRQ_BaseRequest::start() { ZRBRQ_NetworkAgent::sharedAgent()->addRequest(self()); }

void ZRBRQ_BaseRequest::stop() {
  toggleAccessoriesWillStopCallBack();
  setDelegate(nullptr);
  ZRBRQ_NetworkAgent::sharedAgent()->cancelRequest(self());
  toggleAccessoriesDidStopCallBack();
}

void ZRBRQ_BaseRequest::startWithCompletionBlockWithSuccess(CompletionBlock success,
                                                            CompletionBlock failure) {
  setCompletionBlockWithSuccess(std::move(success), std::move(failure));
  start();
}

void ZRBRQ_BaseRequest::setCompletionBlockWithSuccess(CompletionBlock success, CompletionBlock failure) {
  std::lock_guard lock(mutex_);
  successCompletionBlock_ = std::move(success);
  failureCompletionBlock_ = std::move(failure);
}

void ZRBRQ_BaseRequest::clearCompletionBlock() {
  CompletionBlock success;
  CompletionBlock failure;
  {
    std::lock_guard lock(mutex_);
    success.swap(successCompletionBlock_);
    failure.swap(failureCompletionBlock_);
  }
  // The callbacks (and whatever they capture) are released here, outside the lock.
}

void ZRBRQ_BaseRequest::clearCompletionBlockOfTask(const ZRBURLSessionTaskPtr& task) {
  CompletionBlock success;
  CompletionBlock failure;
  {
    std::lock_guard lock(mutex_);
    if (requestTask_ != task) return;
    success.swap(successCompletionBlock_);
    failure.swap(failureCompletionBlock_);
  }
}

void ZRBRQ_BaseRequest::addAccessory(ZRBRQ_RequestAccessoryPtr accessory) {
  std::lock_guard lock(mutex_);
  if (!requestAccessories_) requestAccessories_.emplace();
  requestAccessories_->push_back(std::move(accessory));
  hasAccessories_.store(true, std::memory_order_release);
}

void ZRBRQ_BaseRequest::forEachAccessory(
    void (ZRBRQ_RequestAccessory::*operation)(const ZRBRQ_BaseRequestPtr&)) {
  if (!hasAccessories_.load(std::memory_order_acquire)) return;
  const auto accessories = requestAccessories();
  if (!accessories) return;
  const auto request = self();
  for (const auto& accessory : *accessories) {
    if (accessory) ((*accessory).*operation)(request);
  }
}

void ZRBRQ_BaseRequest::toggleAccessoriesWillStartCallBack() {
  forEachAccessory(&ZRBRQ_RequestAccessory::requestWillStart);
}

void ZRBRQ_BaseRequest::toggleAccessoriesWillStopCallBack() {
  forEachAccessory(&ZRBRQ_RequestAccessory::requestWillStop);
}

void ZRBRQ_BaseRequest::toggleAccessoriesDidStopCallBack() {
  forEachAccessory(&ZRBRQ_RequestAccessory::requestDidStop);
}

std::string ZRBRQ_BaseRequest::description() const {
  ZRBValue headers;
  if (auto fields = requestHeaderFieldValueDictionary()) {
    std::vector<ZRBDictionaryEntry> entries;
    entries.reserve(fields->size());
    for (const auto& [name, value] : *fields) entries.push_back({ZRBValue(name), ZRBValue(value)});
    headers = ZRBValue::dictionary(std::move(entries));
  }
  const auto request = currentRequest();
  const ZRBValue url = request && request->URL() ? ZRBValue(request->URL()) : ZRBValue();
  const ZRBValue method = request ? ZRBValue(request->HTTPMethod()) : ZRBValue();
  return ZRBStringWithFormat("<%@: %p>{ header: %@ } { URL: %@ } { method: %@ } { arguments: %@ }",
                             className(), static_cast<const void*>(this), headers, url, method,
                             requestArgument());
}
