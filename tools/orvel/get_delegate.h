// The session delegate of `orvel get`: writes the body where it belongs, prints the head for -i,
// answers server-trust challenges for --cacert and -k, draws the progress bar and tells the
// command when the one task it runs has completed.
//
// Callbacks run on the session's serial delegate queue, except the server-trust challenge, which
// runs on the transport thread; the state it touches is set before the session starts and atomics.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "get_output.h"
#include "platform/net/url_session_delegate.h"
#include "platform/security/sec_certificate.h"

class OrvelGetDelegate final : public ZRBURLSessionDelegate {
 public:
  struct Settings {
    bool includeHead = false;
    bool failOnHTTPError = false;
    bool followRedirects = false;
    bool insecure = false;
    // --cacert: the only anchors a server chain may end at; empty for the system's own checks.
    std::vector<ZRBSecCertificatePtr> anchors;
    // Data tasks write the body here (see get_output_target.h), named so in messages.
    std::FILE* body = stdout;
    std::string bodyName = "standard output";
    // Download tasks hand their finished file to this; false with a message when it cannot be put
    // into place.
    std::function<bool(const std::string& location, std::string& failure)> moveDownload;
    // A Range resume: the body continues a file of this size (the server must answer 206 from
    // there, or 200 with everything, which then replaces the file).
    std::optional<std::uint64_t> rangeOffset;
    // A download resumed from resume data: only a 2xx answer continues (or restarts) it.
    bool resuming = false;
    bool showProgress = false;
  };

  explicit OrvelGetDelegate(Settings settings);

  // Waits until the task has completed. `interrupted` is asked every 100 ms; the first time it
  // answers true, `onInterrupt` runs (on the waiting thread) and the wait goes on.
  void waitForCompletion(const std::function<bool()>& interrupted, const std::function<void()>& onInterrupt);

  // ---- outcome, read once the task has completed ----
  ZRBErrorPtr error() const;
  ZRBHTTPURLResponsePtr response() const;
  // -f (or a Range resume) met a status it does not take; the body was dropped.
  bool rejectedStatus() const;
  // --cacert did not trust the server's chain.
  bool trustRejected() const { return trustRejected_.load(); }
  // A Range resume found the file complete already (416 for exactly its size).
  bool alreadyComplete() const;
  // Writing or moving the output failed; empty otherwise.
  std::string localFailure() const;

  // ---- ZRBURLSessionDelegate ----
  bool respondsToOperation(ZRBURLSessionDelegateOperation operation) const override;
  void sessionDidReceiveChallenge(const ZRBURLSessionPtr& session,
                                  const ZRBURLAuthenticationChallengePtr& challenge,
                                  ZRBURLSessionChallengeCompletion completion) override;
  void taskWillPerformHTTPRedirection(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                                      const ZRBHTTPURLResponsePtr& response, ZRBURLRequestPtr request,
                                      std::function<void(ZRBURLRequestPtr)> completion) override;
  void taskNeedNewBodyStream(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                             std::function<void(ZRBInputStreamPtr)> completion) override;
  void taskDidSendBodyData(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                           std::int64_t bytesSent, std::int64_t totalBytesSent,
                           std::int64_t totalBytesExpectedToSend) override;
  void taskDidComplete(const ZRBURLSessionPtr& session, const ZRBURLSessionTaskPtr& task,
                       ZRBErrorPtr error) override;
  void dataTaskDidReceiveResponse(const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
                                  const ZRBURLResponsePtr& response,
                                  std::function<void(ZRBURLSessionResponseDisposition)> completion) override;
  void dataTaskDidReceiveData(const ZRBURLSessionPtr& session, const ZRBURLSessionDataTaskPtr& task,
                              const ZRBValue& data) override;
  void downloadTaskDidFinishDownloading(const ZRBURLSessionPtr& session,
                                        const ZRBURLSessionDownloadTaskPtr& task,
                                        const ZRBURLPtr& location) override;
  void downloadTaskDidWriteData(const ZRBURLSessionPtr& session, const ZRBURLSessionDownloadTaskPtr& task,
                                std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                                std::int64_t totalBytesExpectedToWrite) override;
  void downloadTaskDidResume(const ZRBURLSessionPtr& session, const ZRBURLSessionDownloadTaskPtr& task,
                             std::int64_t fileOffset, std::int64_t expectedTotalBytes) override;

 private:
  // Whether a body with this status is wanted; false cancels it.
  bool acceptStatus(const ZRBHTTPURLResponse& response);
  void printHead(const ZRBHTTPURLResponse& response);
  void drawProgress(OrvelProgressBar& bar, std::int64_t done, std::int64_t total);
  void fail(std::string message);  // with mutex_ held

  const Settings settings_;
  std::atomic<bool> trustRejected_{false};

  mutable std::mutex mutex_;
  std::condition_variable completed_;
  bool done_ = false;
  ZRBErrorPtr error_;
  ZRBHTTPURLResponsePtr response_;
  bool rejectedStatus_ = false;
  bool alreadyComplete_ = false;
  std::string localFailure_;

  // Only touched on the delegate queue.
  OrvelProgressBar downloadBar_;
  OrvelProgressBar uploadBar_;
  std::int64_t bodyBytes_ = 0;
  std::int64_t expectedBodyBytes_ = -1;
  bool headPrinted_ = false;
};
