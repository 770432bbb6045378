#include "get_delegate.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "http/multipart_body_stream.h"
#include "platform/net/url_session_task.h"
#include "platform/security/sec_trust.h"

namespace {

// The N of "bytes */N" or "bytes A-B/N"; nullopt when the value is not one of those.
std::optional<std::uint64_t> completeLength(const std::optional<std::string>& contentRange) {
  if (!contentRange) return std::nullopt;
  auto slash = contentRange->rfind('/');
  if (slash == std::string::npos) return std::nullopt;
  std::uint64_t length = 0;
  const char* begin = contentRange->data() + slash + 1;
  const char* end = contentRange->data() + contentRange->size();
  auto [at, failure] = std::from_chars(begin, end, length);
  if (failure != std::errc() || at != end) return std::nullopt;
  return length;
}

// The A of "bytes A-B/N".
std::optional<std::uint64_t> rangeStart(const std::optional<std::string>& contentRange) {
  if (!contentRange || !contentRange->starts_with("bytes ")) return std::nullopt;
  std::uint64_t start = 0;
  const char* begin = contentRange->data() + 6;
  auto [at, failure] = std::from_chars(begin, contentRange->data() + contentRange->size(), start);
  if (failure != std::errc() || at == begin || *at != '-') return std::nullopt;
  return start;
}

}  // namespace

OrvelGetDelegate::OrvelGetDelegate(Settings settings)
    : settings_(std::move(settings)),
      downloadBar_(settings_.showProgress, ""),
      uploadBar_(settings_.showProgress, "upload") {}

void OrvelGetDelegate::waitForCompletion(const std::function<bool()>& interrupted,
                                         const std::function<void()>& onInterrupt) {
  bool interruptHandled = false;
  std::unique_lock lock(mutex_);
  while (!done_) {
    completed_.wait_for(lock, std::chrono::milliseconds(100));
    if (!done_ && !interruptHandled && interrupted()) {
      interruptHandled = true;
      lock.unlock();
      onInterrupt();
      lock.lock();
    }
  }
}

ZRBErrorPtr OrvelGetDelegate::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

ZRBHTTPURLResponsePtr OrvelGetDelegate::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

bool OrvelGetDelegate::rejectedStatus() const {
  std::lock_guard lock(mutex_);
  return rejectedStatus_;
}

bool OrvelGetDelegate::alreadyComplete() const {
  std::lock_guard lock(mutex_);
  return alreadyComplete_;
}

std::string OrvelGetDelegate::localFailure() const {
  std::lock_guard lock(mutex_);
  return localFailure_;
}

void OrvelGetDelegate::fail(std::string message) {
  if (localFailure_.empty()) localFailure_ = std::move(message);
}

bool OrvelGetDelegate::respondsToOperation(ZRBURLSessionDelegateOperation operation) const {
  switch (operation) {
    // Without --cacert or -k the system's own checks decide, as for any other program.
    case ZRBURLSessionDelegateOperation::SessionDidReceiveChallenge:
      return settings_.insecure || !settings_.anchors.empty();
    case ZRBURLSessionDelegateOperation::TaskWillPerformHTTPRedirection:
    case ZRBURLSessionDelegateOperation::TaskNeedNewBodyStream:
    case ZRBURLSessionDelegateOperation::DataTaskDidReceiveResponse: return true;
    default: return ZRBURLSessionDelegate::respondsToOperation(operation);
  }
}

void OrvelGetDelegate::sessionDidReceiveChallenge(const ZRBURLSessionPtr&,
                                                  const ZRBURLAuthenticationChallengePtr& challenge,
                                                  ZRBURLSessionChallengeCompletion completion) {
  const auto& space = challenge->protectionSpace();
  if (space->authenticationMethod() != ZRBURLAuthenticationMethodServerTrust || !space->serverTrust()) {
    completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
    return;
  }
  const auto& trust = space->serverTrust();
  if (settings_.insecure) {
    completion(ZRBURLSessionAuthChallengeUseCredential, ZRBURLCredential::credentialForTrust(trust));
    return;
  }
  // The trust already carries the SSL policy for the host, so this checks names and dates too.
  ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
  bool trusted = trust->setAnchorCertificates(settings_.anchors) == ZRBErrSecSuccess &&
                 trust->evaluate(&result) == ZRBErrSecSuccess &&
                 (result == ZRBSecTrustResultUnspecified || result == ZRBSecTrustResultProceed);
  if (trusted) {
    completion(ZRBURLSessionAuthChallengeUseCredential, ZRBURLCredential::credentialForTrust(trust));
  } else {
    trustRejected_ = true;
    completion(ZRBURLSessionAuthChallengeCancelAuthenticationChallenge, nullptr);
  }
}

void OrvelGetDelegate::taskWillPerformHTTPRedirection(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                                                      const ZRBHTTPURLResponsePtr&, ZRBURLRequestPtr request,
                                                      std::function<void(ZRBURLRequestPtr)> completion) {
  // Without -L the 3xx response itself is the answer, as curl prints it.
  completion(settings_.followRedirects ? std::move(request) : nullptr);
}

void OrvelGetDelegate::taskNeedNewBodyStream(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr& task,
                                             std::function<void(ZRBInputStreamPtr)> completion) {
  const auto& original = task->originalRequest()->HTTPBodyStream();
  ZRBInputStreamPtr fresh = original ? original->copyStream() : nullptr;
  // A copy of a multipart body does not keep the throttling of --throttle.
  auto multipart = std::dynamic_pointer_cast<ZRBHS_MultipartBodyStream>(original);
  auto multipartCopy = std::dynamic_pointer_cast<ZRBHS_MultipartBodyStream>(fresh);
  if (multipart && multipartCopy) {
    multipartCopy->setNumberOfBytesInPacket(multipart->numberOfBytesInPacket());
    multipartCopy->setDelay(multipart->delay());
  }
  completion(fresh);
}

void OrvelGetDelegate::taskDidSendBodyData(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, std::int64_t,
                                           std::int64_t totalBytesSent,
                                           std::int64_t totalBytesExpectedToSend) {
  drawProgress(uploadBar_, totalBytesSent, totalBytesExpectedToSend);
}

void OrvelGetDelegate::taskDidComplete(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr& task,
                                       ZRBErrorPtr error) {
  for (auto* bar : {&uploadBar_, &downloadBar_}) {
    if (auto text = bar->finish()) std::fputs(text->c_str(), stderr);
  }
  if (std::fflush(settings_.body) != 0) {
    std::lock_guard lock(mutex_);
    fail("cannot write " + settings_.bodyName + ": " + std::strerror(errno));
  }
  std::lock_guard lock(mutex_);
  if (!response_) response_ = std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(task->response());
  error_ = std::move(error);
  done_ = true;
  completed_.notify_all();
}

bool OrvelGetDelegate::acceptStatus(const ZRBHTTPURLResponse& response) {
  long status = response.statusCode();
  if (settings_.rangeOffset) {
    // A resumed file takes only the rest of itself, or the whole resource anew.
    auto contentRange = response.valueForHTTPHeaderField("Content-Range");
    if (status == 206 && rangeStart(contentRange) == settings_.rangeOffset) return true;
    if (status == 200) return true;
    std::lock_guard lock(mutex_);
    if (status == 416 && completeLength(contentRange) == settings_.rangeOffset) {
      alreadyComplete_ = true;
    } else {
      rejectedStatus_ = true;
    }
    return false;
  }
  if (settings_.resuming && (status < 200 || status >= 300)) {
    std::lock_guard lock(mutex_);
    rejectedStatus_ = true;
    return false;
  }
  if (settings_.failOnHTTPError && status >= 400) {
    std::lock_guard lock(mutex_);
    rejectedStatus_ = true;
    return false;
  }
  return true;
}

void OrvelGetDelegate::printHead(const ZRBHTTPURLResponse& response) {
  if (!settings_.includeHead || headPrinted_) return;
  headPrinted_ = true;
  // Always standard output: with -o the body goes to the file and the head stays on the terminal.
  auto head = orvelResponseHead(response);
  std::fwrite(head.data(), 1, head.size(), stdout);
  std::fflush(stdout);
}

void OrvelGetDelegate::dataTaskDidReceiveResponse(
    const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr&, const ZRBURLResponsePtr& response,
    std::function<void(ZRBURLSessionResponseDisposition)> completion) {
  auto http = std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(response);
  {
    std::lock_guard lock(mutex_);
    response_ = http;
  }
  if (!http) {
    completion(ZRBURLSessionResponseAllow);
    return;
  }
  if (!acceptStatus(*http)) {
    completion(ZRBURLSessionResponseCancel);
    return;
  }
  printHead(*http);
  if (settings_.rangeOffset && http->statusCode() == 200) {
    // The server ignored the range: the file starts over.
    if (ftruncate(fileno(settings_.body), 0) != 0) {
      std::lock_guard lock(mutex_);
      fail("cannot write " + settings_.bodyName + ": " + std::strerror(errno));
      completion(ZRBURLSessionResponseCancel);
      return;
    }
    std::rewind(settings_.body);
  }
  bodyBytes_ = settings_.rangeOffset && http->statusCode() == 206
                   ? static_cast<std::int64_t>(*settings_.rangeOffset)
                   : 0;
  expectedBodyBytes_ = http->expectedContentLength() < 0 ? -1 : bodyBytes_ + http->expectedContentLength();
  completion(ZRBURLSessionResponseAllow);
}

void OrvelGetDelegate::dataTaskDidReceiveData(const ZRBURLSessionPtr&, const ZRBURLSessionDataTaskPtr& task,
                                              const ZRBValue& data) {
  auto bytes = data.bytes();
  if (std::fwrite(bytes.data(), 1, bytes.size(), settings_.body) != bytes.size()) {
    {
      std::lock_guard lock(mutex_);
      fail("cannot write " + settings_.bodyName + ": " + std::strerror(errno));
    }
    task->cancel();
    return;
  }
  bodyBytes_ += static_cast<std::int64_t>(bytes.size());
  drawProgress(downloadBar_, bodyBytes_, expectedBodyBytes_);
}

void OrvelGetDelegate::downloadTaskDidFinishDownloading(const ZRBURLSessionPtr&,
                                                        const ZRBURLSessionDownloadTaskPtr& task,
                                                        const ZRBURLPtr& location) {
  auto http = std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(task->response());
  {
    std::lock_guard lock(mutex_);
    response_ = http;
  }
  if (http) {
    if (!acceptStatus(*http)) return;  // the temporary file goes away with it
    printHead(*http);
  }
  if (!settings_.moveDownload) return;
  std::string failure;
  if (!settings_.moveDownload(location->path(), failure)) {
    std::lock_guard lock(mutex_);
    fail(std::move(failure));
  }
}

void OrvelGetDelegate::downloadTaskDidWriteData(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&,
                                                std::int64_t, std::int64_t totalBytesWritten,
                                                std::int64_t totalBytesExpectedToWrite) {
  drawProgress(downloadBar_, totalBytesWritten, totalBytesExpectedToWrite);
}

void OrvelGetDelegate::downloadTaskDidResume(const ZRBURLSessionPtr&, const ZRBURLSessionDownloadTaskPtr&,
                                             std::int64_t fileOffset, std::int64_t expectedTotalBytes) {
  drawProgress(downloadBar_, fileOffset, expectedTotalBytes);
}

void OrvelGetDelegate::drawProgress(OrvelProgressBar& bar, std::int64_t done, std::int64_t total) {
  if (auto text = bar.update(done, total)) {
    std::fputs(text->c_str(), stderr);
    std::fflush(stderr);
  }
}
