// ZRBHS_HTTPSessionManager: a session manager with a base URL, a request serializer and one call
// per HTTP method.
//
// Each convenience (GET, HEAD, POST, PUT, PATCH, DELETE) resolves the URL string against the base
// URL, builds the request with the request serializer, makes a data task (a streamed upload task
// for multipart POST), resumes it and returns it. Success gets (task, response object), HEAD's
// success only the task; failure gets (task, error). When the request cannot be built, failure
// gets (null, error) later on the completion queue, and no task is made (null is returned).
//
// Base URL: a URL with a path that does not end in "/" is stored with a "/" added, so relative URL
// strings resolve below it ("/api" + "users" is "/api/users", not "/users").
#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "http/request_serializer.h"
#include "http/url_session_manager.h"

class ZRBHS_HTTPSessionManager;
using ZRBHS_HTTPSessionManagerPtr = std::shared_ptr<ZRBHS_HTTPSessionManager>;

class ZRBHS_HTTPSessionManager : public ZRBHS_URLSessionManager {
 public:
  using Success = std::function<void(const ZRBURLSessionDataTaskPtr& task, const ZRBValue& responseObject)>;
  using HeadSuccess = std::function<void(const ZRBURLSessionDataTaskPtr& task)>;
  using Failure = std::function<void(const ZRBURLSessionDataTaskPtr& task, const ZRBErrorPtr& error)>;
  using ConstructingBlock = ZRBHS_HTTPRequestSerializer::MultipartFormConstructingBlock;

  // ---- making one ----
  static ZRBHS_HTTPSessionManagerPtr manager() { return initWithBaseURL(nullptr, nullptr); }
  static ZRBHS_HTTPSessionManagerPtr make() { return initWithBaseURL(nullptr, nullptr); }
  static ZRBHS_HTTPSessionManagerPtr initWithBaseURL(ZRBURLPtr baseURL) {
    return initWithBaseURL(std::move(baseURL), nullptr);
  }
  static ZRBHS_HTTPSessionManagerPtr initWithSessionConfiguration(
      ZRBURLSessionConfigurationPtr configuration) {
    return initWithBaseURL(nullptr, std::move(configuration));
  }
  static ZRBHS_HTTPSessionManagerPtr initWithBaseURL(ZRBURLPtr baseURL,
                                                     ZRBURLSessionConfigurationPtr configuration);

  // ---- fields ----
  const ZRBURLPtr& baseURL() const { return baseURL_; }
  ZRBHS_HTTPRequestSerializerPtr requestSerializer() const;
  // Null is an assertion failure naming "requestSerializer" (and changes nothing).
  void setRequestSerializer(ZRBHS_HTTPRequestSerializerPtr serializer);

  // ---- conveniences (resumed) ----
  ZRBURLSessionDataTaskPtr GET(std::string_view URLString, const ZRBValue& parameters, Success success,
                               Failure failure);
  ZRBURLSessionDataTaskPtr GET(std::string_view URLString, const ZRBValue& parameters,
                               ZRBHS_ProgressBlock downloadProgress, Success success, Failure failure);
  ZRBURLSessionDataTaskPtr HEAD(std::string_view URLString, const ZRBValue& parameters, HeadSuccess success,
                                Failure failure);
  ZRBURLSessionDataTaskPtr POST(std::string_view URLString, const ZRBValue& parameters, Success success,
                                Failure failure);
  ZRBURLSessionDataTaskPtr POST(std::string_view URLString, const ZRBValue& parameters,
                                ZRBHS_ProgressBlock uploadProgress, Success success, Failure failure);
  ZRBURLSessionDataTaskPtr POST(std::string_view URLString, const ZRBValue& parameters,
                                ConstructingBlock block, Success success, Failure failure);
  ZRBURLSessionDataTaskPtr POST(std::string_view URLString, const ZRBValue& parameters,
                                ConstructingBlock block, ZRBHS_ProgressBlock uploadProgress, Success success,
                                Failure failure);
  ZRBURLSessionDataTaskPtr PUT(std::string_view URLString, const ZRBValue& parameters, Success success,
                               Failure failure);
  ZRBURLSessionDataTaskPtr PATCH(std::string_view URLString, const ZRBValue& parameters, Success success,
                                 Failure failure);
  ZRBURLSessionDataTaskPtr DELETE(std::string_view URLString, const ZRBValue& parameters, Success success,
                                  Failure failure);

  // Made, not resumed; null when the request could not be built.
  ZRBURLSessionDataTaskPtr dataTaskWithHTTPMethod(std::string_view method, std::string_view URLString,
                                                  const ZRBValue& parameters,
                                                  ZRBHS_ProgressBlock uploadProgress,
                                                  ZRBHS_ProgressBlock downloadProgress, Success success,
                                                  Failure failure);

  // ---- copying, coding, description ----
  // Carries copies of the serializers and the security policy.
  ZRBHS_URLSessionManagerPtr copy() const override;
  std::string codingClassName() const override { return "ZRBHS_HTTPSessionManager"; }
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  static ZRBHS_HTTPSessionManagerPtr initWithCoder(ZRBKeyedUnarchiver& coder);
  std::string className() const override { return "ZRBHS_HTTPSessionManager"; }
  // "<ZRBHS_HTTPSessionManager: 0x..., baseURL: ..., session: ..., operationQueue: ...>".
  std::string description() const override;

  ZRBHS_HTTPSessionManager(Private, ZRBURLPtr baseURL, ZRBURLSessionConfigurationPtr configuration);

 private:
  // The absolute URL string for `URLString`, resolved against the base URL; kept in `storage`
  // when it differs from `URLString`.
  std::string_view resolve(std::string_view URLString, std::string& storage) const;
  // Failure later on the completion queue: the request could not be built.
  void failLater(Failure failure, ZRBErrorPtr error) const;
  // The completion that sorts an outcome into success or failure.
  static ZRBHS_TaskCompletionHandler outcome(const std::shared_ptr<ZRBURLSessionDataTaskPtr>& task,
                                             Success success, Failure failure);

  ZRBURLPtr baseURL_;
  mutable std::mutex serializerMutex_;
  ZRBHS_HTTPRequestSerializerPtr requestSerializer_;
};
