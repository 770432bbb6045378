#include "http/http_session_manager.h"

#include "http/json_response_serializer.h"
#include "http/response_serializer.h"
#include "http/security_policy.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/string_format.h"

ZRBHS_HTTPSessionManager::ZRBHS_HTTPSessionManager(Private, ZRBURLPtr baseURL,
                                                   ZRBURLSessionConfigurationPtr configuration)
    : ZRBHS_URLSessionManager(Private{}, std::move(configuration)) {
  // Relative URL strings resolve below a base URL's last path segment only when it ends in "/".
  if (baseURL && !baseURL->path().empty() && !baseURL->absoluteString().ends_with('/')) {
    baseURL = baseURL->URLByAppendingPathComponent("");
  }
  baseURL_ = std::move(baseURL);
}

ZRBHS_HTTPSessionManagerPtr ZRBHS_HTTPSessionManager::initWithBaseURL(
    ZRBURLPtr baseURL, ZRBURLSessionConfigurationPtr configuration) {
  auto manager =
      std::make_shared<ZRBHS_HTTPSessionManager>(Private{}, std::move(baseURL), std::move(configuration));
  manager->setUp();
  manager->requestSerializer_ = ZRBHS_HTTPRequestSerializer::serializer();
  manager->setResponseSerializer(ZRBHS_JSONResponseSerializer::serializer());
  return manager;
}

ZRBHS_HTTPRequestSerializerPtr ZRBHS_HTTPSessionManager::requestSerializer() const {
  std::lock_guard lock(serializerMutex_);
  return requestSerializer_;
}

void ZRBHS_HTTPSessionManager::setRequestSerializer(ZRBHS_HTTPRequestSerializerPtr serializer) {
  ZRBAssertNamed(serializer, "requestSerializer");
  if (!serializer) return;
  std::lock_guard lock(serializerMutex_);
  requestSerializer_ = std::move(serializer);
}

std::string_view ZRBHS_HTTPSessionManager::resolve(std::string_view URLString, std::string& storage) const {
  // Without a base the string resolves to itself; the serializer parses it once, not twice.
  if (!baseURL_) return URLString;
  ZRBURLPtr url = ZRBURL::URLWithString(URLString, baseURL_);
  // An unparsable string goes to the serializer as it is, which reports it.
  if (!url) return URLString;
  storage = url->absoluteString();
  return storage;
}

void ZRBHS_HTTPSessionManager::failLater(Failure failure, ZRBErrorPtr error) const {
  if (!failure) return;
  ZRBDispatchQueuePtr queue = completionQueue();
  if (!queue) queue = ZRBDispatch::mainQueue();
  queue->async([failure = std::move(failure), error = std::move(error)] { failure(nullptr, error); });
}

ZRBHS_TaskCompletionHandler ZRBHS_HTTPSessionManager::outcome(
    const std::shared_ptr<ZRBURLSessionDataTaskPtr>& task, Success success, Failure failure) {
  return [task, success = std::move(success), failure = std::move(failure)](
             const ZRBURLResponsePtr&, const ZRBValue& object, const ZRBErrorPtr& error) {
    // The task is let go of with the handler, which runs once.
    ZRBURLSessionDataTaskPtr finished = std::move(*task);
    if (error) {
      if (failure) failure(finished, error);
    } else if (success) {
      success(finished, object);
    }
  };
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::dataTaskWithHTTPMethod(
    std::string_view method, std::string_view URLString, const ZRBValue& parameters,
    ZRBHS_ProgressBlock uploadProgress, ZRBHS_ProgressBlock downloadProgress, Success success,
    Failure failure) {
  ZRBErrorPtr error;
  std::string resolved;
  ZRBURLRequestPtr request =
      requestSerializer()->requestWithMethod(method, resolve(URLString, resolved), parameters, &error);
  if (error || !request) {
    failLater(std::move(failure), std::move(error));
    return nullptr;
  }
  auto holder = std::make_shared<ZRBURLSessionDataTaskPtr>();
  *holder = dataTaskWithRequest(std::move(request), std::move(uploadProgress), std::move(downloadProgress),
                                outcome(holder, std::move(success), std::move(failure)));
  return *holder;
}

namespace {

ZRBURLSessionDataTaskPtr resumed(ZRBURLSessionDataTaskPtr task) {
  if (task) task->resume();
  return task;
}

}  // namespace

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::GET(std::string_view URLString, const ZRBValue& parameters,
                                                       Success success, Failure failure) {
  return GET(URLString, parameters, nullptr, std::move(success), std::move(failure));
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::GET(std::string_view URLString, const ZRBValue& parameters,
                                                       ZRBHS_ProgressBlock downloadProgress, Success success,
                                                       Failure failure) {
  return resumed(dataTaskWithHTTPMethod("GET", URLString, parameters, nullptr, std::move(downloadProgress),
                                        std::move(success), std::move(failure)));
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::HEAD(std::string_view URLString,
                                                        const ZRBValue& parameters, HeadSuccess success,
                                                        Failure failure) {
  Success withoutObject;
  if (success) {
    withoutObject = [success = std::move(success)](const ZRBURLSessionDataTaskPtr& task, const ZRBValue&) {
      success(task);
    };
  }
  return resumed(dataTaskWithHTTPMethod("HEAD", URLString, parameters, nullptr, nullptr,
                                        std::move(withoutObject), std::move(failure)));
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::POST(std::string_view URLString,
                                                        const ZRBValue& parameters, Success success,
                                                        Failure failure) {
  return POST(URLString, parameters, ZRBHS_ProgressBlock(), std::move(success), std::move(failure));
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::POST(std::string_view URLString,
                                                        const ZRBValue& parameters,
                                                        ZRBHS_ProgressBlock uploadProgress, Success success,
                                                        Failure failure) {
  return resumed(dataTaskWithHTTPMethod("POST", URLString, parameters, std::move(uploadProgress), nullptr,
                                        std::move(success), std::move(failure)));
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::POST(std::string_view URLString,
                                                        const ZRBValue& parameters, ConstructingBlock block,
                                                        Success success, Failure failure) {
  return POST(URLString, parameters, std::move(block), nullptr, std::move(success), std::move(failure));
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::POST(std::string_view URLString,
                                                        const ZRBValue& parameters, ConstructingBlock block,
                                                        ZRBHS_ProgressBlock uploadProgress, Success success,
                                                        Failure failure) {
  ZRBErrorPtr error;
  std::string resolved;
  ZRBURLRequestPtr request = requestSerializer()->multipartFormRequestWithMethod(
      "POST", resolve(URLString, resolved), parameters, block, &error);
  if (error || !request) {
    failLater(std::move(failure), std::move(error));
    return nullptr;
  }
  auto holder = std::make_shared<ZRBURLSessionDataTaskPtr>();
  *holder = uploadTaskWithStreamedRequest(std::move(request), std::move(uploadProgress),
                                          outcome(holder, std::move(success), std::move(failure)));
  return resumed(*holder);
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::PUT(std::string_view URLString, const ZRBValue& parameters,
                                                       Success success, Failure failure) {
  return resumed(dataTaskWithHTTPMethod("PUT", URLString, parameters, nullptr, nullptr, std::move(success),
                                        std::move(failure)));
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::PATCH(std::string_view URLString,
                                                         const ZRBValue& parameters, Success success,
                                                         Failure failure) {
  return resumed(dataTaskWithHTTPMethod("PATCH", URLString, parameters, nullptr, nullptr, std::move(success),
                                        std::move(failure)));
}

ZRBURLSessionDataTaskPtr ZRBHS_HTTPSessionManager::DELETE(std::string_view URLString,
                                                          const ZRBValue& parameters, Success success,
                                                          Failure failure) {
  return resumed(dataTaskWithHTTPMethod("DELETE", URLString, parameters, nullptr, nullptr, std::move(success),
                                        std::move(failure)));
}

// ---- copying, coding, description ----

ZRBHS_URLSessionManagerPtr ZRBHS_HTTPSessionManager::copy() const {
  auto copy = initWithBaseURL(baseURL_, session()->configuration());
  copy->setRequestSerializer(requestSerializer()->copy());
  copy->setResponseSerializer(responseSerializer()->copy());
  if (auto policy = securityPolicy()) copy->setSecurityPolicy(policy->copy());
  return copy;
}

void ZRBHS_HTTPSessionManager::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  if (baseURL_) coder.encodeString(baseURL_->absoluteString(), "baseURL");
  ZRBURLSessionConfigurationPtr configuration = session()->configuration();
  // Every configuration of this platform can be archived, so the identifier alone is never needed.
  coder.encodeObject(configuration, "sessionConfiguration");
  coder.encodeObject(requestSerializer(), "requestSerializer");
  coder.encodeObject(responseSerializer(), "responseSerializer");
  coder.encodeObject(securityPolicy(), "securityPolicy");
}

ZRBHS_HTTPSessionManagerPtr ZRBHS_HTTPSessionManager::initWithCoder(ZRBKeyedUnarchiver& coder) {
  std::optional<std::string> base = coder.decodeString("baseURL");
  auto configuration = coder.decodeObjectOfClass<ZRBURLSessionConfiguration>("sessionConfiguration");
  if (!configuration) {
    if (auto identifier = coder.decodeString("identifier"))
      configuration = ZRBURLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(*identifier);
  }
  auto manager = initWithBaseURL(base ? ZRBURL::URLWithString(*base) : nullptr, std::move(configuration));
  if (auto serializer = coder.decodeObjectOfClass<ZRBHS_HTTPRequestSerializer>("requestSerializer"))
    manager->setRequestSerializer(std::move(serializer));
  if (auto serializer = coder.decodeObjectOfClass<ZRBHS_HTTPResponseSerializer>("responseSerializer"))
    manager->setResponseSerializer(std::move(serializer));
  if (auto policy = coder.decodeObjectOfClass<ZRBHS_SecurityPolicy>("securityPolicy"))
    manager->setSecurityPolicy(std::move(policy));
  return manager;
}

ZRB_REGISTER_CODING_CLASS(ZRBHS_HTTPSessionManager);

std::string ZRBHS_HTTPSessionManager::description() const {
  return ZRBStringWithFormat("<%@: %p, baseURL: %@, session: %@, operationQueue: %@>", className(),
                             static_cast<const void*>(this),
                             baseURL_ ? std::optional<std::string>(baseURL_->absoluteString()) : std::nullopt,
                             session(), operationQueue());
}
