// A delegate for the URL session tests that records every callback in order, checks that callbacks
// run one at a time on the delegate queue, and lets a test wait for completions.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/net/url_session.h"
#include "platform/runtime/dispatch.h"

class RecordingDelegate : public ZRBURLSessionDelegate {
 public:
  struct Completion {
    ZRBErrorPtr error;
    std::string body;  // data tasks: every chunk in order
    int count = 0;     // how many times the task completed (must be 1)
  };

  // Operations with completion handlers answered through these when set (else not implemented).
  std::function<void(const ZRBURLAuthenticationChallengePtr&, ZRBURLSessionChallengeCompletion)>
      onServerTrust;
  std::function<void(const ZRBURLAuthenticationChallengePtr&, ZRBURLSessionChallengeCompletion)>
      onTaskChallenge;
  std::function<void(const ZRBHTTPURLResponsePtr&, ZRBURLRequestPtr, std::function<void(ZRBURLRequestPtr)>)>
      onRedirect;
  std::function<void(const ZRBURLResponsePtr&, std::function<void(ZRBURLSessionResponseDisposition)>)>
      onResponse;
  std::function<void(std::function<void(ZRBInputStreamPtr)>)> onNeedBodyStream;
  // Called on the delegate queue with the downloaded file before it is removed.
  std::function<void(const ZRBURLSessionDownloadTaskPtr&, const ZRBURLPtr&)> onDownloaded;

  bool respondsToOperation(ZRBURLSessionDelegateOperation operation) const override {
    using Op = ZRBURLSessionDelegateOperation;
    switch (operation) {
      case Op::SessionDidReceiveChallenge: return static_cast<bool>(onServerTrust);
      case Op::TaskDidReceiveChallenge: return static_cast<bool>(onTaskChallenge);
      case Op::TaskWillPerformHTTPRedirection: return static_cast<bool>(onRedirect);
      case Op::DataTaskDidReceiveResponse: return static_cast<bool>(onResponse);
      case Op::TaskNeedNewBodyStream: return static_cast<bool>(onNeedBodyStream);
      default: return ZRBURLSessionDelegate::respondsToOperation(operation);
    }
  }

  void sessionDidReceiveChallenge(const ZRBURLSessionPtr&, const ZRBURLAuthenticationChallengePtr& challenge,
                                  ZRBURLSessionChallengeCompletion completion) override {
    onServerTrust(challenge, std::move(completion));
  }
  void taskDidReceiveChallenge(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                               const ZRBURLAuthenticationChallengePtr& challenge,
                               ZRBURLSessionChallengeCompletion completion) override {
    enter();
    record("challenge");
    onTaskChallenge(challenge, std::move(completion));
    leave();
  }
  void taskWillPerformHTTPRedirection(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                                      const ZRBHTTPURLResponsePtr& response, ZRBURLRequestPtr request,
                                      std::function<void(ZRBURLRequestPtr)> completion) override {
    enter();
    record("redirect " + std::to_string(response->statusCode()));
    onRedirect(response, std::move(request), std::move(completion));
    leave();
  }
  void taskNeedNewBodyStream(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                             std::function<void(ZRBInputStreamPtr)> completion) override {
    record("need body stream");
    onNeedBodyStream(std::move(completion));
  }
  void dataTaskDidReceiveResponse(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&,
                                  const ZRBURLResponsePtr& response,
                                  std::function<void(ZRBURLSessionResponseDisposition)> completion) override {
    enter();
    record("response");
    onResponse(response, std::move(completion));
    leave();
  }
  void dataTaskDidReceiveData(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr& task,
                              const ZRBValue& data) override {
    enter();
    std::lock_guard lock(mutex_);
    auto bytes = data.bytes();
    completions_[task->taskIdentifier()].body.append(reinterpret_cast<const char*>(bytes.data()),
                                                     bytes.size());
    if (events_.empty() || events_.back() != "data") events_.push_back("data");
    leave();
  }
  void dataTaskDidBecomeDownloadTask(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&,
                                     const ZRBURLSessionDownloadTaskPtr&) override {
    record("became download");
  }
  void taskDidSendBodyData(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, std::int64_t,
                           std::int64_t total, std::int64_t) override {
    sent = total;
  }
  void downloadTaskDidWriteData(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&, std::int64_t,
                                std::int64_t total, std::int64_t) override {
    written = total;
  }
  void downloadTaskDidResume(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&,
                             std::int64_t offset, std::int64_t) override {
    record("resumed at " + std::to_string(offset));
  }
  void downloadTaskDidFinishDownloading(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr& task,
                                        const ZRBURLPtr& location) override {
    enter();
    record("downloaded");
    if (onDownloaded) onDownloaded(task, location);
    leave();
  }
  void taskDidComplete(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr& task,
                       ZRBErrorPtr error) override {
    enter();
    {
      std::lock_guard lock(mutex_);
      auto& completion = completions_[task->taskIdentifier()];
      completion.error = error;
      ++completion.count;
      events_.push_back("complete");
      ++completed_;
    }
    changed_.notify_all();
    leave();
  }
  void sessionDidBecomeInvalid(const ZRBURLSessionPtr&, ZRBErrorPtr) override {
    record("invalid");
    invalidated = true;
    changed_.notify_all();
  }

  bool waitForCompletions(int count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return completed_ >= count; });
  }
  bool waitForInvalidation(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return invalidated.load(); });
  }
  Completion completion(const ZRBURLSessionTaskPtr& task) {
    std::lock_guard lock(mutex_);
    return completions_[task->taskIdentifier()];
  }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  int completedCount() {
    std::lock_guard lock(mutex_);
    return completed_;
  }

  std::atomic<std::int64_t> sent{0};
  std::atomic<std::int64_t> written{0};
  std::atomic<bool> invalidated{false};
  std::atomic<bool> overlapped{false};

 private:
  void record(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  void enter() {
    if (inside_.fetch_add(1) != 0) overlapped = true;
  }
  void leave() { inside_.fetch_sub(1); }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<unsigned long, Completion> completions_;
  std::vector<std::string> events_;
  int completed_ = 0;
  std::atomic<int> inside_{0};
};

inline ZRBMutableURLRequestPtr requestFor(const std::string& url, std::string method = "GET") {
  auto request = ZRBMutableURLRequest::requestWithURL(ZRBURL::URLWithString(url));
  request->setHTTPMethod(std::move(method));
  return request;
}
