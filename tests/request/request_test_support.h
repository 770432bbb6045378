// What the request-layer tests share: requests described by plain fields (as a caller's subclass
// describes them by overrides), a recorder of everything that reaches a request, and the waits that
// let the agent and the main queue finish their work before a test looks.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/runtime/dispatch.h"
#include "request/base_request.h"
#include "request/network_agent.h"
#include "request/request.h"
#include "settings/app_sdk_log_manager.h"
#include "support/inbox.h"

template <class Base>
class ZRBTestConfiguredRequest : public Base {
 public:
  using HeaderMap = ZRBRQ_BaseRequest::HeaderMap;
  std::string url, base, cdn;
  bool cdnOn = false;
  long method = ZRBRQ_RequestMethodGET;  // long, so that tests can name a method that does not exist
  long requestKind = ZRBRQ_RequestSerializerTypeHTTP;
  ZRBRQ_ResponseSerializerType responseKind = ZRBRQ_ResponseSerializerTypeJSON;
  ZRBValue argument, validator;
  double timeout = 60;
  bool cellular = true;
  std::optional<HeaderMap> headers;
  std::optional<std::vector<std::string>> authorization;
  bool acceptPartial = false;  // a resumed download answers 206, which the default rule rejects

  bool statusCodeValidator() const override {
    return (acceptPartial && this->responseStatusCode() == 206) || Base::statusCodeValidator();
  }
  std::string requestUrl() const override { return url; }
  std::string baseUrl() const override { return base; }
  std::string cdnUrl() const override { return cdn; }
  bool useCDN() const override { return cdnOn; }
  ZRBRQ_RequestMethod requestMethod() const override { return static_cast<ZRBRQ_RequestMethod>(method); }
  ZRBRQ_RequestSerializerType requestSerializerType() const override {
    return static_cast<ZRBRQ_RequestSerializerType>(requestKind);
  }
  ZRBRQ_ResponseSerializerType responseSerializerType() const override { return responseKind; }
  ZRBValue requestArgument() const override { return argument; }
  ZRBValue jsonValidator() const override { return validator; }
  double requestTimeoutInterval() const override { return timeout; }
  bool allowsCellularAccess() const override { return cellular; }
  std::optional<HeaderMap> requestHeaderFieldValueDictionary() const override { return headers; }
  std::optional<std::vector<std::string>> requestAuthorizationHeaderFieldArray() const override {
    return authorization;
  }
};

using ZRBTestRequest = ZRBTestConfiguredRequest<ZRBRQ_BaseRequest>;

class ZRBTestCachedRequest : public ZRBTestConfiguredRequest<ZRBRQ_Request> {
 public:
  long cacheTime = 3600;
  long long version = 0;
  ZRBValue sensitive;
  bool async = false;

  long cacheTimeInSeconds() const override { return cacheTime; }
  long long cacheVersion() const override { return version; }
  ZRBValue cacheSensitiveData() const override { return sensitive; }
  bool writeCacheAsynchronously() const override { return async; }
};

template <class Request = ZRBTestRequest>
std::shared_ptr<Request> ZRBTestMakeRequest(const std::string& url) {
  auto request = std::make_shared<Request>();
  request->url = url;
  return request;
}

// Events in the order they arrived, and those that arrived off the main queue.
class ZRBTestEventLog {
 public:
  void put(const std::string& event) {
    if (!ZRBDispatch::isMainQueue()) offMain_.put(event);
    events_.put(event);
  }
  // Waits until one of `events` has arrived; returns every event so far.
  std::vector<std::string> waitForAny(const std::vector<std::string>& events) {
    auto arrived = [&](const std::vector<std::string>& got) {
      return std::find_first_of(got.begin(), got.end(), events.begin(), events.end()) != got.end();
    };
    EXPECT_TRUE(events_.waitUntil(arrived, std::chrono::seconds(30)))
        << "none of " << testing::PrintToString(events);
    return events_.now();
  }
  std::vector<std::string> waitFor(const std::string& event) { return waitForAny({event}); }
  std::vector<std::string> events() const { return events_.now(); }
  std::vector<std::string> offMain() const { return offMain_.now(); }

 private:
  ZRBTestInbox<std::string> events_, offMain_;
};

// Everything that reaches a request as its delegate and accessory; `prefix` tells accessories apart.
class ZRBTestRecorder : public ZRBTestEventLog, public ZRBRQ_RequestDelegate, public ZRBRQ_RequestAccessory {
 public:
  explicit ZRBTestRecorder(std::string prefix = "") : prefix_(std::move(prefix)) {}
  void requestFinished(const ZRBRQ_BaseRequestPtr&) override { put("finished"); }
  void requestFailed(const ZRBRQ_BaseRequestPtr&) override { put("failed"); }
  void requestWillStart(const ZRBRQ_BaseRequestPtr&) override { put(prefix_ + "willStart"); }
  void requestWillStop(const ZRBRQ_BaseRequestPtr&) override { put(prefix_ + "willStop"); }
  void requestDidStop(const ZRBRQ_BaseRequestPtr&) override { put(prefix_ + "didStop"); }

 private:
  std::string prefix_;
};

// Wires the request's delegate, callbacks ("success", "failure") and one accessory to a recorder.
inline std::shared_ptr<ZRBTestRecorder> ZRBTestRecord(const ZRBRQ_BaseRequestPtr& request) {
  auto recorder = std::make_shared<ZRBTestRecorder>();
  request->setDelegate(recorder);
  request->addAccessory(recorder);
  request->setCompletionBlockWithSuccess(
      [recorder](const ZRBRQ_BaseRequestPtr&) { recorder->put("success"); },
      [recorder](const ZRBRQ_BaseRequestPtr&) { recorder->put("failure"); });
  return recorder;
}

// Waits until the shared agent has let go of every request and handled every result, then until the
// main queue has run what that posted (the clean-up after the callbacks included).
inline void ZRBTestSettle() {
  const auto& agent = ZRBRQ_NetworkAgent::sharedAgent();
  for (int i = 0; i < 3000 && agent->requestCount() != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  agent->processingQueue()->syncBarrier([] {});
  ZRBDispatch::mainQueue()->sync([] {});
}

// Records and starts the request, and returns its events once its callback has run and the agent
// has settled.
inline std::vector<std::string> ZRBTestRun(const ZRBRQ_BaseRequestPtr& request) {
  auto recorder = ZRBTestRecord(request);
  request->start();
  recorder->waitForAny({"success", "failure"});
  ZRBTestSettle();
  return recorder->events();
}

// Collects the SDK's log lines while it lives.
class ZRBTestLogCatcher {
 public:
  ZRBTestLogCatcher() {
    manager_->setCollector([this](long, const std::string&, const std::string& line) { lines_.put(line); });
    manager_->setCollectAppSdkLogEnable(true);
  }
  ~ZRBTestLogCatcher() {
    manager_->setCollectAppSdkLogEnable(false);
    manager_->setCollector(nullptr);
  }
  // The lines so far that start with `prefix`.
  std::vector<std::string> lines(std::string_view prefix = "") const {
    std::vector<std::string> found;
    for (auto& line : lines_.now()) {
      if (line.starts_with(prefix)) found.push_back(std::move(line));
    }
    return found;
  }
  void clear() { lines_.clear(); }

 private:
  const std::shared_ptr<ZRBAppSdkLogManager> manager_ = ZRBAppSdkLogManager::sharedInstance();
  ZRBTestInbox<std::string> lines_;
};
