// The request `orvel get` sends, described as a request object of the library's request layer; the
// network agent builds it with its own serializers:
// - -d fields through the HTTP serializer, escaped for the caller (as curl's --data-urlencode), into
//   the query for GET and HEAD, else a form body (the layer's rule sends DELETE's in the body too);
// - --json through the JSON serializer (Accept: application/json unless -H says otherwise);
// - -u as basic authorization, -H fields over the serializer's defaults, --timeout as the
//   request's timeout.
// What the request layer cannot express goes as a task of the agent's session manager instead,
// built by sessionRequest() from the serializer the agent chooses for this request, so both paths
// send the same fields: -F (a body stream that reads files only while sending, with upload
// progress), a method other than the layer's six, -H "Name:" removing a default field, and -G for
// a method whose fields the layer would put into the body.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "get_options.h"
#include "platform/foundation/value.h"
#include "platform/net/url_request.h"
#include "request/network_agent.h"
#include "request/request.h"

// --cache: the request layer's response cache keeps the body of a successful answer for the given
// time, under the method, URL and arguments, for the same header fields and user; a GET to -o FILE
// then arrives as data rather than as a download, which the cache does not keep.
class OrvelGetRequest final : public ZRBRQ_Request {
 public:
  // Null with `error` set when the URL or the JSON text is unusable.
  static std::shared_ptr<OrvelGetRequest> make(const OrvelGetOptions& options, std::string& error);

  const std::string& method() const { return method_; }
  bool needsSessionManager() const;
  // The URL request for the session manager. Null with `error` set when a form file cannot be read
  // or the method cannot carry the -F body.
  ZRBMutableURLRequestPtr sessionRequest(ZRBRQ_NetworkAgent& agent, std::string& error);

  // Sent as well, over -H ("Range" for a resume).
  void setHeader(const std::string& name, const std::string& value) { headers_[name] = value; }
  // Which status codes the request succeeds with; every one until set.
  void setAcceptsStatus(std::function<bool(const ZRBHTTPURLResponse&)> accepts) {
    acceptsStatus_ = std::move(accepts);
  }

  std::string requestUrl() const override { return options_.url; }
  double requestTimeoutInterval() const override { return options_.timeout; }
  ZRBValue requestArgument() const override { return arguments_; }
  ZRBRQ_RequestMethod requestMethod() const override;
  ZRBRQ_RequestSerializerType requestSerializerType() const override {
    return options_.json ? ZRBRQ_RequestSerializerTypeJSON : ZRBRQ_RequestSerializerTypeHTTP;
  }
  // The body as it came: --decode and the output decide what it is.
  ZRBRQ_ResponseSerializerType responseSerializerType() const override {
    return ZRBRQ_ResponseSerializerTypeHTTP;
  }
  std::optional<std::vector<std::string>> requestAuthorizationHeaderFieldArray() const override;
  std::optional<HeaderMap> requestHeaderFieldValueDictionary() const override { return headers_; }
  bool statusCodeValidator() const override;
  long cacheTimeInSeconds() const override { return options_.cacheSeconds.value_or(-1); }
  ZRBValue cacheSensitiveData() const override;
  // Written before the answer is handed over, so that the program never ends before its entry is in.
  bool writeCacheAsynchronously() const override { return false; }

  std::string className() const override { return "OrvelGetRequest"; }

 private:
  OrvelGetOptions options_;
  std::string method_;
  ZRBValue arguments_;
  HeaderMap headers_;
  std::set<std::string> removedHeaders_;
  std::function<bool(const ZRBHTTPURLResponse&)> acceptsStatus_;
};

// -d fields as serializer parameters: "k=v" a string, "k" alone the null object (written as a bare
// name), a repeated key a set (written as the key once per value).
ZRBValue orvelFormParameters(const std::vector<std::string>& fields);

// The method the request is sent with: -X, else GET with -G or without a body, else POST.
std::string orvelRequestMethod(const OrvelGetOptions& options);
