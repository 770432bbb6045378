// ZRBURLSessionTaskDriver: runs one task of a URL session on the session's transport thread.
//
// A driver turns the task's request into one transfer per attempt and decides what happens between
// attempts: redirects (offered to the delegate), HTTP authentication (offered to the delegate, then
// retried with the credential), a streamed body that must be sent again (asked of the delegate),
// and resumed downloads. It reports to the delegate on the delegate queue, in order, and completes
// the task exactly once.
//
// Threads: the task's operations (resume, suspend, cancel) may come from any thread; they are
// handed to the transport thread, which owns every other member. Delegate answers come back the
// same way. Only the atomics below are read elsewhere (the delegate queue's flow control).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/net/http_cookie_storage.h"
#include "platform/net/transport/resume_data.h"
#include "platform/net/transport/transfer.h"
#include "platform/net/url_session.h"
#include "platform/runtime/stream.h"

class ZRBURLSessionTaskDriver final : public ZRBTransferClient,
                                      public std::enable_shared_from_this<ZRBURLSessionTaskDriver> {
 public:
  struct Body {
    enum class Kind { None, Bytes, File, Stream };
    Kind kind = Kind::None;
    ZRBValue bytes;
    std::string path;
    ZRBInputStreamPtr stream;  // may be null for Stream: the delegate is asked for one
  };

  ZRBURLSessionTaskDriver(ZRBURLSessionPtr session, ZRBURLSessionTaskPtr task, Body body);

  void setDataCompletion(ZRBURLSessionDataCompletion completion) { dataCompletion_ = std::move(completion); }
  void setDownloadCompletion(ZRBURLSessionDownloadCompletion completion) {
    downloadCompletion_ = std::move(completion);
  }
  void setResumeInfo(ZRBDownloadResumeInfo info) { resumeInfo_ = std::move(info); }

  // ---- from the task, any thread ----
  void resume();
  void suspend();
  void cancel();
  void cancelProducingResumeData(std::function<void(ZRBValue)> completion);

  // ---- ZRBTransferClient (transport thread) ----
  void transferDidReceiveResponse(ZRBTransfer& transfer, ZRBHTTPURLResponsePtr response) override;
  std::size_t transferDidReceiveData(ZRBTransfer& transfer, const char* data, std::size_t length) override;
  void transferDidSendBodyData(ZRBTransfer& transfer, std::int64_t totalSent) override;
  bool transferEvaluateServerTrust(ZRBTransfer& transfer, x509_store_ctx_st* context) override;
  void transferDidComplete(ZRBTransfer& transfer, int curlCode) override;
  void transferCheckTimeouts(ZRBTransfer& transfer, std::chrono::steady_clock::time_point now) override;

 private:
  using Clock = std::chrono::steady_clock;
  enum class Hold { None, Redirect, Authenticate };

  // What the delegate queue needs to end a task: the completion callbacks, then the clean-up.
  // Small enough to travel without an allocation; a download's or a cache's share comes apart.
  struct Completion {
    struct Extra {
      std::string path;  // a download's file
      bool removeFile = false;
      ZRBURLSessionDownloadCompletion downloadCompletion;
      std::shared_ptr<ZRBURLCache> cache;  // set when the response is offered to it
    };
    ZRBURLSessionPtr session;
    ZRBURLSessionTaskPtr task;
    ZRBErrorPtr error;
    ZRBURLResponsePtr response;
    ZRBValue body;
    ZRBURLSessionDataCompletion dataCompletion;
    std::unique_ptr<Extra> extra;
    bool isDownload = false;

    void deliver() const;
    void removeDownloadFile() const;
    void cleanUp() const;
  };

  // Transport thread.
  void post(void (ZRBURLSessionTaskDriver::*step)());
  // `call(session, delegate)` on the delegate queue, if the session still has a delegate then.
  template <typename Call>
  void toDelegate(Call call);
  bool delegateResponds(ZRBURLSessionDelegateOperation operation) const;
  void resumeNow();
  void suspendNow();
  void cancelNow();
  void beginFirstAttempt();
  void startAttempt();
  void restartAttempt();
  void deliverResponse(const ZRBHTTPURLResponsePtr& response);
  void deliverWholeResponse(const ZRBHTTPURLResponsePtr& response, std::string body);
  bool consumeBody(const char* data, std::size_t length);
  void dispositionArrived(ZRBURLSessionResponseDisposition disposition);
  void becomeDownloadTask();
  void handleRedirect();
  void redirectDecided(ZRBURLRequestPtr request);
  void handleAuthentication();
  void authenticationDecided(ZRBURLSessionAuthChallengeDisposition disposition,
                             ZRBURLCredentialPtr credential);
  void withNewBodyStream(std::function<void()> then);
  bool openDownloadFile(const ZRBHTTPURLResponse& response);
  ZRBValue makeResumeData();
  ZRBErrorPtr failureFor(ZRBTransfer& transfer, int curlCode);
  void finish(ZRBErrorPtr error);
  void unpauseIfRunnable();
  std::shared_ptr<ZRBHTTPCookieStorage> cookieStorage() const;
  ZRBURLPtr currentURL() const { return request_ ? request_->URL() : nullptr; }

  std::shared_ptr<ZRBTransport> transport_;
  ZRBURLSessionPtr session_;  // until finished
  ZRBURLSessionTaskPtr task_;
  Body body_;
  bool bodyStreamUsed_ = false;
  ZRBURLRequestPtr request_;
  ZRBURLSessionDataCompletion dataCompletion_;
  ZRBURLSessionDownloadCompletion downloadCompletion_;
  bool download_ = false;
  ZRBTransfer::Ptr transfer_;

  bool started_ = false;
  bool suspended_ = true;
  bool finished_ = false;
  Clock::time_point startedAt_{};
  Clock::time_point lastActivity_{};
  double idleTimeout_ = 60;
  double resourceTimeout_ = 604800;

  ZRBHTTPURLResponsePtr response_;
  Hold hold_ = Hold::None;
  ZRBHTTPURLResponsePtr heldResponse_;
  std::string heldBody_;
  int redirects_ = 0;
  long authenticationFailures_ = 0;
  int bodyRestarts_ = 0;
  std::optional<std::string> user_;
  std::optional<std::string> password_;
  long authenticationSchemes_ = 0;

  bool awaitingDisposition_ = false;
  bool completeAfterDisposition_ = false;
  std::string pendingBody_;
  std::vector<std::uint8_t> collected_;  // the body for a completion handler or the cache
  bool collecting_ = false;

  // Server trust.
  ZRBErrorPtr trustError_;
  bool trustCancelled_ = false;
  ZRBErrorPtr abortError_;

  // Downloads.
  std::optional<ZRBDownloadResumeInfo> resumeInfo_;
  int fd_ = -1;
  std::string downloadPath_;
  bool keepDownloadFile_ = false;
  std::int64_t written_ = 0;
  std::function<void(ZRBValue)> resumeDataCompletion_;

  // Flow control and coalesced progress, shared with the delegate queue.
  std::atomic<std::int64_t> queuedBytes_{0};
  std::atomic<bool> backpressured_{false};
  std::atomic<bool> writeReportPending_{false};
  std::atomic<bool> sendReportPending_{false};
  std::atomic<std::int64_t> latestTotal_{0};
  std::int64_t deliveredTotal_ = 0;  // delegate queue only
  std::int64_t deliveredSent_ = 0;   // delegate queue only
};
