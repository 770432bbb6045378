#include "request/network_agent.h"

#include <exception>
#include <utility>

#include "http/json_request_serializer.h"
#include "http/response_serializer.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/exception.h"
#include "platform/foundation/url.h"
#include "platform/net/url_authentication.h"
#include "platform/runtime/notification_center.h"
#include "platform/system/file_manager.h"
#include "request/network_log.h"
#include "request/network_pin_guard.h"
#include "request/network_utils.h"
#include "settings/error_domains.h"
#include "settings/sdk_config.h"
#include "settings/setting.h"

namespace {

const char* methodName(ZRBRQ_RequestMethod method) {
  switch (method) {
    case ZRBRQ_RequestMethodGET: return "GET";
    case ZRBRQ_RequestMethodPOST: return "POST";
    case ZRBRQ_RequestMethodHEAD: return "HEAD";
    case ZRBRQ_RequestMethodPUT: return "PUT";
    case ZRBRQ_RequestMethodDELETE: return "DELETE";
    case ZRBRQ_RequestMethodPATCH: return "PATCH";
  }
  return nullptr;
}

float taskPriority(ZRBRQ_RequestPriority priority) {
  switch (priority) {
    case ZRBRQ_RequestPriorityLow: return ZRBURLSessionTaskPriorityLow;
    case ZRBRQ_RequestPriorityHigh: return ZRBURLSessionTaskPriorityHigh;
    default: return ZRBURLSessionTaskPriorityDefault;
  }
}

// The session layer completes a download whose file could not be moved into place as a success and
// only posts the move error; a download request must fail instead. Watches one task for that post.
class DownloadMoveWatch {
 public:
  static ZRBErrorPtr errorFromUserInfo(const ZRBValue& userInfo) {
    // The post carries the user info alone; its system error and path give back the move's record.
    const auto underlying = userInfo[ZRBUnderlyingErrorKey].objectAs<ZRBError>();
    const ZRBValue& path = userInfo[ZRBFilePathErrorKey];
    if (underlying && underlying->domain() == ZRBPOSIXErrorDomain && path.isString())
      return ZRBFileErrorFromErrno(static_cast<int>(underlying->code()), path.string(), true);
    return ZRBError::make(ZRBCocoaErrorDomain, ZRBFileWriteUnknownError, userInfo);
  }

  static void watch(const std::shared_ptr<DownloadMoveWatch>& self, const ZRBURLSessionTaskPtr& task) {
    std::weak_ptr<DownloadMoveWatch> weak = self;
    auto observer = ZRBNotificationCenter::defaultCenter()->addObserver(
        ZRBHS_URLSessionDownloadTaskDidFailToMoveFileNotification, ZRBValue(task), nullptr,
        [weak](const ZRBNotificationPtr& notification) {
          if (auto watch = weak.lock()) {
            std::lock_guard lock(watch->mutex_);
            watch->error_ = errorFromUserInfo(notification->userInfo());
          }
        });
    std::lock_guard lock(self->mutex_);
    self->observer_ = std::move(observer);
  }

  // Called once, from the task's completion: the move error, if there was one.
  ZRBErrorPtr finish() {
    ZRBNotificationObserverPtr observer;
    ZRBErrorPtr error;
    {
      std::lock_guard lock(mutex_);
      observer = std::move(observer_);
      error = std::move(error_);
    }
    if (observer) ZRBNotificationCenter::defaultCenter()->removeObserver(observer);
    return error;
  }

 private:
  std::mutex mutex_;
  ZRBNotificationObserverPtr observer_;
  ZRBErrorPtr error_;
};

// What URL building needs of a request URL string. Callers send many requests to one URL, so the
// last string parsed on a thread is remembered with its facts.
struct RequestUrlFacts {
  std::string url;
  std::optional<std::string> host;
  bool absolute = false;  // both a host and a scheme
  bool known = false;
};

const RequestUrlFacts& requestUrlFacts(const std::string& url) {
  __attribute__((tls_model("initial-exec"))) thread_local RequestUrlFacts last;
  if (!last.known || last.url != url) {
    const ZRBURLPtr parsed = ZRBURL::URLWithString(url);
    last.url = url;
    last.host = parsed ? parsed->host() : std::nullopt;
    last.absolute = parsed && last.host && parsed->scheme();
    last.known = true;
  }
  return last;
}

// The base URL relative request URLs resolve against. Without the trailing "/" the base's last
// path segment would be replaced, not extended.
ZRBURLPtr resolutionBase(const std::string& base) {
  ZRBURLPtr url = ZRBURL::URLWithString(base);
  if (url && !base.empty() && base.back() != '/') {
    if (auto extended = url->URLByAppendingPathComponent("")) url = std::move(extended);
  }
  return url;
}

// The absolute string of `detail` resolved against `base`, remembered per thread for the last pair
// (resolving costs far more than the rest of a request's URL building): callers send many requests
// to one path under one base. An unresolvable URL string goes on as it is; the serializer rejects
// it.
std::string resolveAgainstBase(const std::string& detail, const std::string& base) {
  struct Last {
    std::string detail;
    std::string base;
    std::string result;
    bool known = false;
  };
  __attribute__((tls_model("initial-exec"))) thread_local Last last;
  if (!last.known || last.detail != detail || last.base != base) {
    const ZRBURLPtr resolved = ZRBURL::URLWithString(detail, resolutionBase(base));
    last.result = resolved ? resolved->absoluteString() : detail;
    last.detail = detail;
    last.base = base;
    last.known = true;
  }
  return last.result;
}

// Table entries kept for reuse once their requests are done.
constexpr std::size_t kMaxSpareRecords = 64;

}  // namespace

const ZRBRQ_NetworkAgentPtr& ZRBRQ_NetworkAgent::sharedAgent() {
  static const ZRBRQ_NetworkAgentPtr agent = init();
  return agent;
}

ZRBRQ_NetworkAgentPtr ZRBRQ_NetworkAgent::init() {
  auto agent = std::make_shared<ZRBRQ_NetworkAgent>();
  agent->pinGuard_ = ZRBNetworkPinGuard::trustDomains(ZRBSetting::sharedSetting()->allDomains());
  agent->pinGuardDomains_ = ZRBSetting::sharedSetting()->allDomains();
  agent->config_ = ZRBRQ_NetworkConfig::sharedConfig();
  const ZRBHS_HTTPSessionManagerPtr manager =
      ZRBHS_HTTPSessionManager::initWithSessionConfiguration(agent->config_->sessionConfiguration());
  agent->manager_.store(manager);
  std::weak_ptr<ZRBRQ_NetworkAgent> weak = agent;
  // Runs on the transport thread inside the handshake.
  manager->setSessionDidReceiveAuthenticationChallengeBlock(
      [weak](const ZRBURLSessionPtr&, const ZRBURLAuthenticationChallengePtr& challenge,
             ZRBURLCredentialPtr* credential) {
        const auto& space = challenge ? challenge->protectionSpace() : nullptr;
        if (credential)
          *credential = ZRBURLCredential::credentialForTrust(space ? space->serverTrust() : nullptr);
        if (ZRBSetting::sharedSetting()->isRealStgEnv()) return ZRBURLSessionAuthChallengeUseCredential;
        auto self = weak.lock();
        return self ? self->answerChallenge(challenge) : ZRBURLSessionAuthChallengePerformDefaultHandling;
      });
  agent->processingQueue_ = ZRBDispatchQueue::concurrent("com.velkit.networkagent.processing");
  agent->allStatusCodes_ = ZRBIndexSet::indexSetWithIndexesInRange(100, 500);
  manager->setSecurityPolicy(agent->config_->securityPolicy());
  auto responseSerializer = ZRBHS_HTTPResponseSerializer::serializer();
  responseSerializer->setAcceptableStatusCodes(agent->allStatusCodes_);
  manager->setResponseSerializer(responseSerializer);
  manager->setCompletionQueue(agent->processingQueue_);
  return agent;
}

// Runs on the transport thread inside the handshake; the validator answers synchronously.
ZRBURLSessionAuthChallengeDisposition ZRBRQ_NetworkAgent::answerChallenge(
    const ZRBURLAuthenticationChallengePtr& challenge) {
  const ZRB_PinGuardPtr guard = pinGuard();
  const auto& validator = guard ? guard->pinningValidator() : nullptr;
  if (!validator) return ZRBURLSessionAuthChallengePerformDefaultHandling;
  ZRBURLSessionAuthChallengeDisposition disposition = ZRBURLSessionAuthChallengePerformDefaultHandling;
  const bool handled =
      validator->handleChallenge(challenge, [&disposition](ZRBURLSessionAuthChallengeDisposition given,
                                                           ZRBURLCredentialPtr) { disposition = given; });
  return handled ? disposition : ZRBURLSessionAuthChallengePerformDefaultHandling;
}

ZRB_PinGuardPtr ZRBRQ_NetworkAgent::pinGuard() const {
  std::lock_guard lock(pinMutex_);
  return pinGuard_;
}

std::vector<std::string> ZRBRQ_NetworkAgent::pinGuardDomains() const {
  std::lock_guard lock(pinMutex_);
  return pinGuardDomains_;
}

void ZRBRQ_NetworkAgent::widenPinGuardDomains(const std::string& host) {
  std::lock_guard lock(pinMutex_);
  for (const auto& domain : pinGuardDomains_) {
    if (domain == host) return;
  }
  // Only the current host joins the settings' list: an extra host from before drops out.
  std::vector<std::string> domains = ZRBSetting::sharedSetting()->allDomains();
  domains.push_back(host);
  pinGuard_ = ZRBNetworkPinGuard::trustDomains(domains);
  pinGuardDomains_ = std::move(domains);
}

ZRBHS_HTTPSessionManagerPtr ZRBRQ_NetworkAgent::manager() const { return manager_.load(); }

void ZRBRQ_NetworkAgent::resetURLSessionManager() { manager_.store(ZRBHS_HTTPSessionManager::manager()); }

void ZRBRQ_NetworkAgent::resetURLSessionManagerWithConfiguration(
    ZRBURLSessionConfigurationPtr configuration) {
  manager_.store(ZRBHS_HTTPSessionManager::initWithSessionConfiguration(std::move(configuration)));
}

const ZRBHS_JSONResponseSerializerPtr& ZRBRQ_NetworkAgent::jsonResponseSerializer() {
  std::call_once(jsonOnce_, [this] {
    auto serializer = ZRBHS_JSONResponseSerializer::serializer();
    serializer->setAcceptableStatusCodes(allStatusCodes_);
    serializer->setAcceptableContentTypes(ZRBHS_HTTPResponseSerializer::ContentTypes{
        "application/json", "text/json", "text/javascript", "text/html", "text/plain",
        "application/octet-stream", "text/xml"});
    jsonResponseSerializer_ = std::move(serializer);
  });
  return jsonResponseSerializer_;
}

const ZRBHS_XMLParserResponseSerializerPtr& ZRBRQ_NetworkAgent::xmlParserResponseSerialzier() {
  std::call_once(xmlOnce_, [this] {
    auto serializer = ZRBHS_XMLParserResponseSerializer::serializer();
    serializer->setAcceptableStatusCodes(allStatusCodes_);
    xmlParserResponseSerialzier_ = std::move(serializer);
  });
  return xmlParserResponseSerialzier_;
}

// ---- URL and serializer ----

std::string ZRBRQ_NetworkAgent::buildRequestUrl(const ZRBRQ_BaseRequestPtr& request) {
  ZRBAssertNamed(request != nullptr, "request != nil");
  if (!request) return "";
  std::string detailUrl = request->requestUrl();
  bool absolute = false;
  {
    const RequestUrlFacts& facts = requestUrlFacts(detailUrl);
    if (facts.host) widenPinGuardDomains(*facts.host);
    absolute = facts.absolute;
  }
  // Absolute URLs bypass the filters and the base URLs.
  if (absolute) return detailUrl;

  // The configuration is set up before requests run: one look serves the whole building.
  const ZRBRQ_NetworkConfig::UrlSettings settings = config_->urlSettings();
  for (const auto& filter : *settings.urlFilters) {
    if (filter) detailUrl = filter->filterUrl(detailUrl, request);
  }
  const bool cdn = request->useCDN();
  const std::string own = cdn ? request->cdnUrl() : request->baseUrl();
  if (!own.empty()) return resolveAgainstBase(detailUrl, own);
  return resolveAgainstBase(detailUrl, cdn ? *settings.cdnUrl : *settings.baseUrl);
}

ZRBRQ_NetworkAgent::SerializerSettings ZRBRQ_NetworkAgent::serializerSettings(
    const ZRBRQ_BaseRequestPtr& request) {
  return SerializerSettings{.kind = request->requestSerializerType(),
                            .isDelete = request->requestMethod() == ZRBRQ_RequestMethodDELETE,
                            .timeout = request->requestTimeoutInterval(),
                            .cellular = request->allowsCellularAccess(),
                            .authorization = request->requestAuthorizationHeaderFieldArray(),
                            .headers = request->requestHeaderFieldValueDictionary()};
}

ZRBHS_HTTPRequestSerializerPtr ZRBRQ_NetworkAgent::makeSerializer(const SerializerSettings& settings) {
  ZRBHS_HTTPRequestSerializerPtr serializer;
  switch (settings.kind) {
    case ZRBRQ_RequestSerializerTypeHTTP: serializer = ZRBHS_HTTPRequestSerializer::serializer(); break;
    case ZRBRQ_RequestSerializerTypeJSON: serializer = ZRBHS_JSONRequestSerializer::serializer(); break;
  }
  if (!serializer) return nullptr;
  // The lower-case "head" is deliberate: with this set a DELETE's arguments travel in the body.
  if (settings.isDelete) serializer->setHTTPMethodsEncodingParametersInURI({"GET", "head"});
  serializer->setTimeoutInterval(settings.timeout);
  serializer->setAllowsCellularAccess(settings.cellular);
  if (settings.authorization && !settings.authorization->empty()) {
    serializer->setAuthorizationHeaderFieldWithUsername(settings.authorization->front(),
                                                        settings.authorization->back());
  }
  if (settings.headers) {
    for (const auto& [field, value] : *settings.headers) serializer->setValueForHTTPHeaderField(value, field);
  }
  return serializer;
}

ZRBHS_HTTPRequestSerializerPtr ZRBRQ_NetworkAgent::requestSerializerForRequest(
    const ZRBRQ_BaseRequestPtr& request) {
  return makeSerializer(serializerSettings(request));
}

ZRBHS_HTTPRequestSerializerPtr ZRBRQ_NetworkAgent::taskSerializerForRequest(
    const ZRBRQ_BaseRequestPtr& request) {
  const SerializerSettings settings = serializerSettings(request);
  if (!settings.shareable()) return makeSerializer(settings);
  const auto matches = [&settings](const SharedSerializer& shared) {
    return shared.kind == settings.kind && shared.isDelete == settings.isDelete &&
           shared.timeout == settings.timeout && shared.cellular == settings.cellular;
  };
  // Published entries never change, so looking needs no lock.
  const std::size_t published = sharedSerializerCount_.load(std::memory_order_acquire);
  for (std::size_t i = 0; i < published; ++i) {
    if (matches(sharedSerializers_[i])) return sharedSerializers_[i].serializer;
  }
  auto serializer = makeSerializer(settings);
  if (!serializer) return nullptr;
  std::lock_guard lock(serializersMutex_);
  const std::size_t count = sharedSerializerCount_.load(std::memory_order_relaxed);
  for (std::size_t i = published; i < count; ++i) {
    if (matches(sharedSerializers_[i])) return sharedSerializers_[i].serializer;  // another thread was first
  }
  if (count < sharedSerializers_.size()) {
    sharedSerializers_[count] = {settings.kind, settings.isDelete, settings.timeout, settings.cellular,
                                 serializer};
    sharedSerializerCount_.store(count + 1, std::memory_order_release);
  }
  return serializer;
}

// ---- tasks ----

std::shared_ptr<ZRBRQ_NetworkAgent::PendingTask> ZRBRQ_NetworkAgent::pendingTask() {
  return std::make_shared<PendingTask>(
      PendingTask{std::static_pointer_cast<ZRBRQ_NetworkAgent>(shared_from_this()), 0});
}

ZRBHS_TaskCompletionHandler ZRBRQ_NetworkAgent::completionFor(const std::shared_ptr<PendingTask>& pending) {
  // The identifier is filled in before the task resumes, so it is set by the time this runs.
  return [pending](ZRBURLResponsePtr response, ZRBValue responseObject, ZRBErrorPtr error) {
    if (auto agent = pending->agent.lock())
      agent->handleRequestResult(pending->identifier, response, responseObject, error);
  };
}

ZRBURLSessionTaskPtr ZRBRQ_NetworkAgent::sessionTaskForRequest(const ZRBRQ_BaseRequestPtr& request,
                                                               ZRBErrorPtr* error) {
  const ZRBRQ_RequestMethod method = request->requestMethod();
  const std::string url = buildRequestUrl(request);
  const ZRBValue parameters = request->requestArgument();
  auto serializer = taskSerializerForRequest(request);
  // Without a serializer no URL request can be made.
  if (!serializer) return nullptr;
  switch (method) {
    case ZRBRQ_RequestMethodGET:
      if (auto path = request->resumableDownloadPath()) {
        return downloadTask(*path, serializer, url, parameters, request->resumableDownloadProgressBlock(),
                            error);
      }
      return dataTask("GET", serializer, url, parameters, nullptr, error);
    case ZRBRQ_RequestMethodPOST:
      // Only POST ever sends the body callback.
      return dataTask("POST", serializer, url, parameters, request->constructingBodyBlock(), error);
    case ZRBRQ_RequestMethodHEAD:
    case ZRBRQ_RequestMethodPUT:
    case ZRBRQ_RequestMethodDELETE:
    case ZRBRQ_RequestMethodPATCH:
      return dataTask(methodName(method), serializer, url, parameters, nullptr, error);
  }
  return nullptr;
}

ZRBURLSessionTaskPtr ZRBRQ_NetworkAgent::dataTask(std::string_view method,
                                                  const ZRBHS_HTTPRequestSerializerPtr& serializer,
                                                  const std::string& URLString, const ZRBValue& parameters,
                                                  const ZRBRQ_BaseRequest::ConstructingBodyBlock& block,
                                                  ZRBErrorPtr* error) {
  ZRBErrorPtr serializationError;
  ZRBURLRequestPtr urlRequest =
      block ? serializer->multipartFormRequestWithMethod(method, URLString, parameters, block,
                                                         &serializationError)
            : serializer->requestWithMethod(method, URLString, parameters, &serializationError);
  // A serializer may hand back a request without the body it could not encode, error set: that
  // request is not sent.
  if (!urlRequest || serializationError) {
    ZRBSetError(error, serializationError);
    return nullptr;
  }
  ZRBNetworkLog("ZRBNetwork:%@", urlRequest);
  auto pending = pendingTask();
  auto task = manager()->dataTaskWithRequest(urlRequest, completionFor(pending));
  if (task) pending->identifier = task->taskIdentifier();
  return task;
}

ZRBURLSessionTaskPtr ZRBRQ_NetworkAgent::downloadTask(const std::string& downloadPath,
                                                      const ZRBHS_HTTPRequestSerializerPtr& serializer,
                                                      const std::string& URLString,
                                                      const ZRBValue& parameters,
                                                      const ZRBRQ_BaseRequest::ProgressBlock& progress,
                                                      ZRBErrorPtr* error) {
  ZRBErrorPtr serializationError;
  ZRBURLRequestPtr urlRequest =
      serializer->requestWithMethod("GET", URLString, parameters, &serializationError);
  if (!urlRequest || serializationError) {
    ZRBSetError(error, serializationError);
    return nullptr;
  }
  const auto& files = ZRBFileManager::defaultManager();
  bool isDirectory = false;
  std::string target = downloadPath;
  if (files->fileExistsAtPath(downloadPath, &isDirectory) && isDirectory) {
    const std::string name = urlRequest->URL() ? urlRequest->URL()->lastPathComponent() : std::string();
    target = (downloadPath.ends_with('/') ? downloadPath : downloadPath + "/") + name;
  }
  if (files->fileExistsAtPath(target)) files->removeItemAtPath(target);

  ZRBValue resumeData;
  bool canResume = false;
  if (auto partial = incompleteDownloadTempPathForDownloadPath(downloadPath)) {
    if (files->fileExistsAtPath(partial->path())) {
      if (auto bytes = files->contentsAtPath(partial->path())) {
        resumeData = ZRBValue::data(std::move(*bytes));
        canResume = ZRBRQ_NetworkUtils::validateResumeData(resumeData);
      }
    }
  }

  const ZRBURLPtr destinationURL = ZRBURL::fileURLWithPath(target, false);
  auto destination = [destinationURL](const ZRBURLPtr&, const ZRBURLResponsePtr&) { return destinationURL; };
  auto pending = pendingTask();
  auto moveWatch = std::make_shared<DownloadMoveWatch>();
  ZRBHS_TaskCompletionHandler completion = [handle = completionFor(pending), moveWatch](
                                               ZRBURLResponsePtr response, ZRBValue object,
                                               ZRBErrorPtr taskError) {
    ZRBErrorPtr moveError = moveWatch->finish();
    handle(std::move(response), std::move(object), taskError ? std::move(taskError) : std::move(moveError));
  };
  ZRBURLSessionDownloadTaskPtr task;
  if (canResume) {
    try {
      task = manager()->downloadTaskWithResumeData(resumeData, progress, destination, completion);
    } catch (const ZRBException& exception) {
      ZRBNetworkLog("Resume download failed, reason = %@", exception.reason());
    }
  }
  if (!task) task = manager()->downloadTaskWithRequest(urlRequest, progress, destination, completion);
  if (task) {
    pending->identifier = task->taskIdentifier();
    // Before the task resumes, so the post cannot be missed.
    DownloadMoveWatch::watch(moveWatch, task);
  }
  return task;
}

std::optional<std::string> ZRBRQ_NetworkAgent::incompleteDownloadTempCacheFolder() {
  static std::mutex mutex;
  static std::optional<std::string> folder;
  std::lock_guard lock(mutex);
  const auto& files = ZRBFileManager::defaultManager();
  if (!folder) {
    const std::string temporary = files->temporaryDirectory();
    folder = (temporary.ends_with('/') ? temporary : temporary + "/") + "Incomplete";
  }
  ZRBErrorPtr error;
  if (!files->createDirectoryAtPath(*folder, true, &error)) {
    ZRBNetworkLog("Failed to create cache directory at %@", *folder);
    folder.reset();  // the next call tries again
  }
  return folder;
}

ZRBURLPtr ZRBRQ_NetworkAgent::incompleteDownloadTempPathForDownloadPath(const std::string& downloadPath) {
  const auto folder = incompleteDownloadTempCacheFolder();
  if (!folder) return nullptr;
  return ZRBURL::fileURLWithPath(*folder + "/" + ZRBRQ_NetworkUtils::md5StringFromString(downloadPath));
}

void ZRBRQ_NetworkAgent::writeResumeData(const ZRBValue& resumeData,
                                         const std::optional<std::string>& downloadPath) {
  if (!resumeData.isData() || !downloadPath) return;
  if (auto partial = incompleteDownloadTempPathForDownloadPath(*downloadPath)) {
    ZRBFileManager::defaultManager()->writeData(resumeData.bytes(), partial->path(), true);
  }
}

// ---- requests ----

void ZRBRQ_NetworkAgent::addRequest(const ZRBRQ_BaseRequestPtr& request) {
  ZRBAssertNamed(request != nullptr, "request != nil");
  if (!request) return;
  ZRBErrorPtr error;
  ZRBURLSessionTaskPtr task;
  if (auto custom = request->buildCustomUrlRequest()) {
    auto pending = pendingTask();
    task = manager()->dataTaskWithRequest(custom, completionFor(pending));
    if (task) pending->identifier = task->taskIdentifier();
  } else {
    task = sessionTaskForRequest(request, &error);
  }
  request->setRequestTask(task);
  if (error) {
    // Not in the table yet: no clean-up on this path.
    requestDidFailWithRequest(request, error, nullptr);
    return;
  }
  ZRBAssertNamed(task != nullptr, "requestTask should not be nil");
  if (!task) return;
  task->setPriority(taskPriority(request->requestPriority()));
  request->toggleAccessoriesWillStartCallBack();
  ZRBNetworkLog("ZRBNetwork Add request:  %@", request);  // described only when logged
  addRequestToRecord(request, task);
  task->resume();
}

void ZRBRQ_NetworkAgent::addRequestToRecord(const ZRBRQ_BaseRequestPtr& request,
                                            const ZRBURLSessionTaskPtr& task) {
  if (!task) return;
  const unsigned long identifier = task->taskIdentifier();
  std::lock_guard lock(lock_);
  if (spareRecords_.empty()) {
    requestsRecord_[identifier] = Record{request, task};
    return;
  }
  RecordTable::node_type node = std::move(spareRecords_.back());
  spareRecords_.pop_back();
  node.key() = identifier;
  node.mapped() = Record{request, task};
  auto inserted = requestsRecord_.insert(std::move(node));
  if (!inserted.inserted) inserted.position->second = std::move(inserted.node.mapped());
}

void ZRBRQ_NetworkAgent::removeRequestFromRecord(const ZRBRQ_BaseRequestPtr& request) {
  removeRecordOfTask(request, request->requestTask());
}

void ZRBRQ_NetworkAgent::removeRecordOfTask(const ZRBRQ_BaseRequestPtr& request,
                                            const ZRBURLSessionTaskPtr& task) {
  Record removed;  // released outside the lock
  std::lock_guard lock(lock_);
  if (task) {
    auto found = requestsRecord_.find(task->taskIdentifier());
    if (found != requestsRecord_.end() && found->second.request == request) {
      RecordTable::node_type node = requestsRecord_.extract(found);
      removed = std::move(node.mapped());
      // As many spares as requests usually run at once; beyond that entries are freed.
      if (spareRecords_.size() < kMaxSpareRecords) spareRecords_.push_back(std::move(node));
    }
  }
  ZRBNetworkLog("Request queue size = %lu", static_cast<unsigned long>(requestsRecord_.size()));
}

std::size_t ZRBRQ_NetworkAgent::requestCount() const {
  std::lock_guard lock(lock_);
  return requestsRecord_.size();
}

void ZRBRQ_NetworkAgent::handleRequestResult(unsigned long taskIdentifier, const ZRBURLResponsePtr& response,
                                             const ZRBValue& responseObject, const ZRBErrorPtr& error) {
  ZRBRQ_BaseRequestPtr request;
  ZRBURLSessionTaskPtr finished;
  ZRBErrorPtr serializationError;
  {
    // One hold over the look-up, the response fields, their log line and the decoding, so that
    // nothing under the lock sees a request whose raw body is set but whose decoded object is not
    // yet. `response` is the finished task's own response.
    std::lock_guard lock(lock_);
    auto found = requestsRecord_.find(taskIdentifier);
    if (found == requestsRecord_.end()) return;  // cancelled or finished already
    request = found->second.request;
    finished = found->second.task;
    if (!responseObject.isData()) {
      request->setResponseObject(responseObject);  // a download's file URL stays as it is
    } else {
      const ZRBRQ_ResponseSerializerType kind = request->responseSerializerType();
      if (ZRBNetworkLogIsOn()) {
        request->setResponseFields(responseObject, response, responseObject, nullptr);
        ZRBNetworkLog("ZRBNetwork Finished Request: %@, { URL:%@ }, \n request: %@ \n response: %@, %ld",
                      request->className(), request->requestUrl(), request, request->responseString(),
                      static_cast<long>(kind));
      }
      ZRBValue decoded = responseObject;
      bool json = false;
      if (kind == ZRBRQ_ResponseSerializerTypeJSON || kind == ZRBRQ_ResponseSerializerTypeXMLParser) {
        try {
          decoded = kind == ZRBRQ_ResponseSerializerTypeJSON
                        ? jsonResponseSerializer()->responseObjectForResponse(response, responseObject,
                                                                              &serializationError)
                        : xmlParserResponseSerialzier()->responseObjectForResponse(response, responseObject,
                                                                                   &serializationError);
          json = kind == ZRBRQ_ResponseSerializerTypeJSON;
        } catch (const std::exception& exception) {
          // A decoder that throws must not leave the request without an outcome; the raw body
          // stays its response object.
          decoded = responseObject;
          serializationError =
              ZRBError::withDescription(ZRBHS_ResponseSerializationErrorDomain, -1, exception.what());
        }
      }
      request->setResponseFields(responseObject, response, decoded, json ? &decoded : nullptr);
    }
  }

  bool succeed = false;
  ZRBErrorPtr failure;
  if (error) {
    failure = error;
  } else if (serializationError) {
    failure = serializationError;
  } else {
    succeed = validateResult(request, &failure);
  }
  // The clean-up runs on the main queue right after the callbacks.
  if (succeed) {
    requestDidSucceedWithRequest(request, std::move(finished));
  } else {
    requestDidFailWithRequest(request, failure, std::move(finished));
  }
}

bool ZRBRQ_NetworkAgent::validateResult(const ZRBRQ_BaseRequestPtr& request, ZRBErrorPtr* error) {
  bool ok = request->statusCodeValidator();
  if (!ok) return false;  // a rejected status code fails with a null error
  const ZRBValue json = request->responseJSONObject();
  const ZRBValue validator = request->jsonValidator();
  if (json && validator) {
    ok = ZRBRQ_NetworkUtils::validateJSON(json, validator);
    if (!ok) {
      ZRBSetError(error,
                  ZRBError::withDescription(ZRBRQ_RequestValidationErrorDomain, -9, "Invalid JSON format"));
    }
  }
  return ok;
}

void ZRBRQ_NetworkAgent::cleanUpRequest(const ZRBRQ_BaseRequestPtr& request,
                                        const ZRBURLSessionTaskPtr& finished) {
  if (!finished) {
    removeRequestFromRecord(request);
    request->clearCompletionBlock();
    return;
  }
  // Started again from its callbacks or right after them: only the finished task's entry goes, the
  // new run keeps its own entry and callbacks.
  removeRecordOfTask(request, finished);
  request->clearCompletionBlockOfTask(finished);
}

void ZRBRQ_NetworkAgent::requestDidSucceedWithRequest(const ZRBRQ_BaseRequestPtr& request,
                                                      ZRBURLSessionTaskPtr finished) {
  request->requestCompletePreprocessor();
  deliverOnMainQueue(request, true, std::move(finished));
}

void ZRBRQ_NetworkAgent::requestDidFailWithRequest(const ZRBRQ_BaseRequestPtr& request,
                                                   const ZRBErrorPtr& error, ZRBURLSessionTaskPtr finished) {
  request->setError(error);
  if (ZRBNetworkLogIsOn()) {
    ZRBNetworkLog("Request %@ { URL:%@ } failed, status code = %ld, error = %@", request->className(),
                  request->requestUrl(), request->responseStatusCode(),
                  error ? ZRBValue(error->localizedDescription()) : ZRBValue());
  }
  if (error) {
    const ZRBValue& resumeData = error->userInfo()[ZRBURLSessionDownloadTaskResumeData];
    if (resumeData) writeResumeData(resumeData, request->resumableDownloadPath());
  }
  const ZRBValue object = request->responseObject();
  if (auto url = object.objectAs<ZRBURL>()) {
    const auto& files = ZRBFileManager::defaultManager();
    if (url->isFileURL() && files->fileExistsAtPath(url->path())) {
      if (auto bytes = files->contentsAtPath(url->path())) {
        ZRBValue data = ZRBValue::data(std::move(*bytes));
        request->setResponseString(ZRBRQ_NetworkUtils::stringFromResponseData(data, request->response()));
        request->setResponseData(std::move(data));
      }
      files->removeItemAtPath(url->path());
    }
    request->setResponseObject(ZRBValue());
  }
  request->requestFailedPreprocessor();
  deliverOnMainQueue(request, false, std::move(finished));
}

void ZRBRQ_NetworkAgent::deliverOnMainQueue(const ZRBRQ_BaseRequestPtr& request, bool succeeded,
                                            ZRBURLSessionTaskPtr finished) {
  ZRBRQ_NetworkAgentPtr self;
  if (finished) self = std::static_pointer_cast<ZRBRQ_NetworkAgent>(shared_from_this());
  // Results finished together on one thread wake the main thread once, when that thread is done
  // with them; nothing on the processing queue waits for the callbacks.
  ZRBDispatch::mainQueue()->asyncDeferringWake(
      [self = std::move(self), request, finished = std::move(finished), succeeded] {
        try {
          if (succeeded) {
            request->toggleAccessoriesWillStopCallBack();
            request->requestCompleteFilter();
            if (auto delegate = request->delegate()) delegate->requestFinished(request);
            if (auto success = request->successCompletionBlock()) success(request);
            // Only at log level 3 or more: successful requests skip did-stop below that on purpose.
            if (ZRBSDKConfig::sharedInstance()->logLevel() >= 3) request->toggleAccessoriesDidStopCallBack();
          } else {
            request->toggleAccessoriesWillStopCallBack();
            request->requestFailedFilter();
            if (auto delegate = request->delegate()) delegate->requestFailed(request);
            if (auto failure = request->failureCompletionBlock()) failure(request);
            request->toggleAccessoriesDidStopCallBack();
          }
        } catch (...) {
          if (self) self->cleanUpRequest(request, finished);
          throw;
        }
        if (self) self->cleanUpRequest(request, finished);
      });
}

void ZRBRQ_NetworkAgent::cancelRequest(const ZRBRQ_BaseRequestPtr& request) {
  ZRBAssertNamed(request != nullptr, "request != nil");
  if (!request) return;
  // Let go of the request before cancelling: the cancelled task's completion may run on another
  // thread at once, and must find nothing to deliver to.
  const auto task = request->requestTask();
  removeRecordOfTask(request, task);
  request->clearCompletionBlock();
  const auto downloadPath = request->resumableDownloadPath();
  auto download = std::dynamic_pointer_cast<ZRBURLSessionDownloadTask>(task);
  if (downloadPath && download) {
    download->cancelByProducingResumeData(
        [downloadPath](ZRBValue resumeData) { writeResumeData(resumeData, downloadPath); });
  } else if (task) {
    task->cancel();
  }
}

void ZRBRQ_NetworkAgent::cancelAllRequests() {
  std::vector<unsigned long> keys;
  {
    std::lock_guard lock(lock_);
    keys.reserve(requestsRecord_.size());
    for (const auto& entry : requestsRecord_) keys.push_back(entry.first);
  }
  for (unsigned long key : keys) {
    ZRBRQ_BaseRequestPtr request;
    {
      std::lock_guard lock(lock_);
      auto found = requestsRecord_.find(key);
      if (found != requestsRecord_.end()) request = found->second.request;
    }
    if (request) request->stop();
  }
}
