#include "platform/net/transport/task_driver.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/net/http_cookie_storage.h"
#include "platform/net/http_header_fields.h"
#include "platform/net/transport/body_pump.h"
#include "platform/net/transport/transport.h"
#include "platform/net/transport/transport_error.h"
#include "platform/net/url_cache.h"
#include "platform/net/url_session_configuration.h"
#include "platform/security/sec_policy.h"
#include "platform/system/file_manager.h"

namespace {
// Data waiting on the delegate queue beyond this pauses the transfer until it is down to the low mark.
constexpr std::int64_t kQueuedHighWater = 8 << 20;
constexpr std::int64_t kQueuedLowWater = 2 << 20;
// The body of a response that is not delivered (a redirect, a challenge) is kept up to this size, in
// case it becomes the final answer after all.
constexpr std::size_t kHeldBodyLimit = 1 << 20;
constexpr int kMaximumRedirects = 16;
constexpr long kDownloadBufferSize = 512 * 1024;

bool isRedirectStatus(long status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// The authentication scheme and realm of a WWW-Authenticate (or Proxy-Authenticate) value; only
// Basic and Digest are answered with credentials.
struct AuthenticationOffer {
  std::string method;
  long curlSchemes = 0;
  std::optional<std::string> realm;
};

std::optional<AuthenticationOffer> authenticationOffer(std::string_view value) {
  AuthenticationOffer offer;
  std::size_t space = value.find(' ');
  std::string_view scheme = value.substr(0, space);
  if (ZRBHTTPHeaderNameEquals(scheme, "Basic")) {
    offer.method = ZRBURLAuthenticationMethodHTTPBasic;
    offer.curlSchemes = CURLAUTH_BASIC;
  } else if (ZRBHTTPHeaderNameEquals(scheme, "Digest")) {
    offer.method = ZRBURLAuthenticationMethodHTTPDigest;
    offer.curlSchemes = CURLAUTH_DIGEST;
  } else {
    return std::nullopt;
  }
  std::size_t realm = value.find("realm=");
  if (realm != std::string_view::npos) {
    std::string_view rest = value.substr(realm + 6);
    if (rest.starts_with('"')) {
      rest.remove_prefix(1);
      offer.realm = std::string(rest.substr(0, rest.find('"')));
    } else {
      offer.realm = std::string(rest.substr(0, rest.find(',')));
    }
  }
  return offer;
}

// The start offset of "bytes START-END/TOTAL".
std::optional<std::int64_t> contentRangeStart(const std::optional<std::string>& value) {
  if (!value || !value->starts_with("bytes ")) return std::nullopt;
  std::int64_t start = -1;
  auto [end, ec] = std::from_chars(value->data() + 6, value->data() + value->size(), start);
  if (ec != std::errc() || end == value->data() + value->size() || *end != '-') return std::nullopt;
  return start;
}

bool writeAll(int fd, const char* data, std::size_t length) {
  while (length > 0) {
    ssize_t wrote = ::write(fd, data, length);
    if (wrote < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += wrote;
    length -= std::size_t(wrote);
  }
  return true;
}

// The error's user info with the resume data added.
ZRBErrorPtr withResumeData(const ZRBErrorPtr& error, const ZRBValue& resumeData) {
  if (!error || resumeData.isAbsent()) return error;
  std::vector<ZRBDictionaryEntry> entries(error->userInfo().entries().begin(),
                                          error->userInfo().entries().end());
  entries.emplace_back(ZRBValue(ZRBURLSessionDownloadTaskResumeData), resumeData);
  return ZRBError::make(error->domain(), error->code(), ZRBValue::dictionary(std::move(entries)));
}

ZRBErrorPtr trustFailure(const ZRBSecTrust& trust, const ZRBURLPtr& url) {
  long code = ZRBURLErrorServerCertificateUntrusted;
  ZRBValue details = trust.copyResult()[ZRBSecTrustResultDetailsKey];
  for (std::size_t i = 0; i < details.count(); ++i) {
    const ZRBValue& failures = details[i];
    if (failures.contains(ZRBSecTrustDetailExpired)) code = ZRBURLErrorServerCertificateHasBadDate;
    if (failures.contains(ZRBSecTrustDetailNotYetValid)) code = ZRBURLErrorServerCertificateNotYetValid;
  }
  return ZRBTransportError(code, url);
}
}  // namespace

ZRBURLSessionTaskDriver::ZRBURLSessionTaskDriver(ZRBURLSessionPtr session, ZRBURLSessionTaskPtr task,
                                                 Body body)
    : transport_(session->transport()),
      session_(std::move(session)),
      task_(std::move(task)),
      body_(std::move(body)),
      request_(task_->originalRequest()),
      download_(task_->kind() == ZRBURLSessionTask::Kind::Download) {
  const auto& configuration = session_->configurationRef();
  idleTimeout_ = configuration.timeoutIntervalForRequest();
  if (request_ && request_->timeoutInterval() > 0)
    idleTimeout_ = std::min(idleTimeout_, request_->timeoutInterval());
  resourceTimeout_ = configuration.timeoutIntervalForResource();
  switch (body_.kind) {
    case Body::Kind::Bytes:
      task_->setCounter(ZRBURLSessionTaskCounter::BytesExpectedToSend,
                        std::int64_t(body_.bytes.bytes().size()));
      break;
    case Body::Kind::File: {
      struct stat info {};
      if (::stat(body_.path.c_str(), &info) == 0) {
        task_->setCounter(ZRBURLSessionTaskCounter::BytesExpectedToSend, info.st_size);
      }
      break;
    }
    case Body::Kind::Stream:
      task_->setCounter(ZRBURLSessionTaskCounter::BytesExpectedToSend, ZRBURLSessionTransferSizeUnknown);
      break;
    case Body::Kind::None: break;
  }
}

// ---- operations from any thread ----

void ZRBURLSessionTaskDriver::post(void (ZRBURLSessionTaskDriver::*step)()) {
  transport_->post([self = shared_from_this(), step] { ((*self).*step)(); });
}

void ZRBURLSessionTaskDriver::resume() {
  // A task resumed from a delegate callback that the transport thread runs (the next request of a
  // chain, typically) starts at once: nothing of the transport is under way then.
  if (transport_->runningCallbacksHere()) {
    resumeNow();
    return;
  }
  post(&ZRBURLSessionTaskDriver::resumeNow);
}
void ZRBURLSessionTaskDriver::suspend() { post(&ZRBURLSessionTaskDriver::suspendNow); }
void ZRBURLSessionTaskDriver::cancel() { post(&ZRBURLSessionTaskDriver::cancelNow); }

void ZRBURLSessionTaskDriver::cancelProducingResumeData(std::function<void(ZRBValue)> completion) {
  transport_->post([self = shared_from_this(), completion = std::move(completion)]() mutable {
    if (self->finished_) {
      // Too late to produce anything: the answer is still given, once, on the delegate queue.
      if (completion) self->transport_->toCallbackQueue([completion] { completion(ZRBValue()); });
      return;
    }
    self->resumeDataCompletion_ = std::move(completion);
    self->cancelNow();
  });
}

// ---- delegate plumbing ----

bool ZRBURLSessionTaskDriver::delegateResponds(ZRBURLSessionDelegateOperation operation) const {
  auto delegate = session_->delegate();
  return delegate && delegate->respondsToOperation(operation);
}

template <typename Call>
void ZRBURLSessionTaskDriver::toDelegate(Call call) {
  transport_->toCallbackQueue([session = session_, call = std::move(call)] {
    if (auto* delegate = session->delegateOnDelegateQueue()) call(session, *delegate);
  });
}

// ---- state changes (transport thread) ----

void ZRBURLSessionTaskDriver::resumeNow() {
  if (finished_ || !suspended_) return;
  suspended_ = false;
  lastActivity_ = transport_->turnStart();
  if (!started_) {
    started_ = true;
    startedAt_ = lastActivity_;
    beginFirstAttempt();
    return;
  }
  unpauseIfRunnable();
}

void ZRBURLSessionTaskDriver::suspendNow() {
  if (finished_ || suspended_) return;
  suspended_ = true;
  if (transfer_) transfer_->pause();
}

void ZRBURLSessionTaskDriver::cancelNow() {
  if (finished_) return;
  ZRBValue resumeData;
  if (resumeDataCompletion_) {
    resumeData = makeResumeData();
    auto completion = std::move(resumeDataCompletion_);
    transport_->toCallbackQueue([completion, resumeData] { completion(resumeData); });
  }
  finish(withResumeData(ZRBTransportError(ZRBURLErrorCancelled, currentURL()), resumeData));
}

void ZRBURLSessionTaskDriver::unpauseIfRunnable() {
  if (transfer_ && !suspended_ && !awaitingDisposition_) transfer_->unpause();
}

// ---- attempts ----

void ZRBURLSessionTaskDriver::beginFirstAttempt() {
  const auto& configuration = session_->configurationRef();
  // Cached answers, for the policies that ask for them.
  if (auto cache = configuration.URLCache(); cache && request_ && !download_) {
    ZRBURLRequestCachePolicy policy = request_->cachePolicy() == ZRBURLRequestUseProtocolCachePolicy
                                          ? configuration.requestCachePolicy()
                                          : request_->cachePolicy();
    if (policy == ZRBURLRequestReturnCacheDataElseLoad || policy == ZRBURLRequestReturnCacheDataDontLoad) {
      auto cached = cache->cachedResponseForRequest(*request_);
      auto response =
          cached ? std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(cached->response()) : nullptr;
      if (response) {
        auto bytes = cached->data().bytes();
        deliverWholeResponse(response,
                             std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
        return;
      }
      if (policy == ZRBURLRequestReturnCacheDataDontLoad) {
        finish(ZRBTransportError(ZRBURLErrorResourceUnavailable, currentURL()));
        return;
      }
    }
  }
  if (body_.kind == Body::Kind::Stream && !body_.stream) {
    withNewBodyStream([this] { startAttempt(); });
    return;
  }
  startAttempt();
}

void ZRBURLSessionTaskDriver::startAttempt() {
  if (finished_) return;
  const auto& configuration = session_->configurationRef();
  ZRBTransferSetup setup;
  setup.request = request_.get();
  switch (body_.kind) {
    case Body::Kind::None: break;
    case Body::Kind::Bytes:
      setup.body.kind = ZRBTransferBody::Kind::Bytes;
      setup.body.bytes = body_.bytes;
      break;
    case Body::Kind::File:
      setup.body.kind = ZRBTransferBody::Kind::File;
      setup.body.path = body_.path;
      break;
    case Body::Kind::Stream:
      setup.body.kind = ZRBTransferBody::Kind::Stream;
      setup.body.pump = ZRBBodyPump::make(body_.stream);
      bodyStreamUsed_ = true;
      break;
  }
  setup.additionalHeaders = configuration.HTTPAdditionalHeaders();
  setup.connectTimeoutMilliseconds = long(idleTimeout_ * 1000);
  if (auto storage = cookieStorage(); storage && request_->URL()) {
    setup.cookieHeader = storage->cookieHeaderForURL(*request_->URL());
  }
  setup.proxyDictionary = configuration.connectionProxyDictionary();
  setup.resolveEntries = configuration.resolveEntries();
  setup.streamWeight = long(1 + task_->priority() * 255);
  setup.user = user_;
  setup.password = password_;
  setup.authenticationSchemes = authenticationSchemes_;
  if (download_) {
    setup.receiveBufferSize = kDownloadBufferSize;
    if (resumeInfo_) {
      struct stat info {};
      bool partialFileUsable = ::stat(resumeInfo_->partialFilePath.c_str(), &info) == 0 &&
                               info.st_size >= resumeInfo_->bytesReceived && resumeInfo_->bytesReceived > 0;
      if (partialFileUsable) {
        setup.overrideHeaders.set("Range", "bytes=" + std::to_string(resumeInfo_->bytesReceived) + "-");
        if (auto validator = resumeInfo_->entityTag ? resumeInfo_->entityTag : resumeInfo_->lastModified) {
          setup.overrideHeaders.set("If-Range", *validator);
        }
        // Ranges count bytes of the representation as stored, so nothing may be decoded.
        setup.decodeContent = false;
      } else {
        resumeInfo_.reset();
      }
    }
  }

  response_ = nullptr;
  hold_ = Hold::None;
  heldResponse_ = nullptr;
  heldBody_.clear();
  trustError_ = nullptr;
  trustCancelled_ = false;
  abortError_ = nullptr;
  collecting_ = false;
  collected_.clear();

  transfer_ = ZRBTransfer::make(*transport_, *this);
  if (ZRBErrorPtr error = transfer_->prepare(setup)) {
    finish(error);
    return;
  }
  if (body_.kind != Body::Kind::None) {
    task_->setCounter(ZRBURLSessionTaskCounter::BytesSent, 0);
    task_->setCounter(ZRBURLSessionTaskCounter::BytesExpectedToSend, transfer_->bodyLength());
  }
  lastActivity_ = transport_->turnStart();
  transfer_->start();
  if (suspended_) transfer_->pause();
}

void ZRBURLSessionTaskDriver::restartAttempt() {
  if (body_.kind == Body::Kind::Stream && bodyStreamUsed_) {
    withNewBodyStream([this] { startAttempt(); });
    return;
  }
  startAttempt();
}

void ZRBURLSessionTaskDriver::withNewBodyStream(std::function<void()> then) {
  auto proceed = [self = shared_from_this(), then = std::move(then)](ZRBInputStreamPtr stream) {
    self->transport_->post([self, then, stream] {
      if (self->finished_) return;
      if (!stream) {
        self->finish(ZRBTransportError(ZRBURLErrorRequestBodyStreamExhausted, self->currentURL()));
        return;
      }
      self->body_.stream = stream;
      self->bodyStreamUsed_ = false;
      then();
    });
  };
  if (delegateResponds(ZRBURLSessionDelegateOperation::TaskNeedNewBodyStream)) {
    toDelegate([task = task_, proceed](const ZRBURLSessionPtr& session, ZRBURLSessionDelegate& delegate) {
      delegate.taskNeedNewBodyStream(session, task, proceed);
    });
    return;
  }
  // Without the delegate's help only a stream that can copy itself can be sent again.
  ZRBInputStreamPtr original = request_ ? request_->HTTPBodyStream() : nullptr;
  if (!bodyStreamUsed_ && original) {
    proceed(original);
  } else {
    proceed(original ? original->copyStream() : nullptr);
  }
}

// ---- the response ----

std::shared_ptr<ZRBHTTPCookieStorage> ZRBURLSessionTaskDriver::cookieStorage() const {
  const auto& configuration = session_->configurationRef();
  bool handles = request_ && request_->HTTPShouldHandleCookies() && configuration.HTTPShouldSetCookies() &&
                 configuration.HTTPCookieAcceptPolicy() != ZRBHTTPCookieAcceptPolicyNever;
  return handles ? configuration.HTTPCookieStorage() : nullptr;
}

void ZRBURLSessionTaskDriver::transferDidReceiveResponse(ZRBTransfer& transfer,
                                                         ZRBHTTPURLResponsePtr response) {
  lastActivity_ = transport_->turnStart();
  // Cookies count from every head, redirects included.
  if (!transfer.setCookies().empty()) {
    if (auto storage = cookieStorage(); storage && currentURL()) {
      for (const auto& value : transfer.setCookies()) storage->setCookieFromHeader(*currentURL(), value);
    }
  }
  long status = response->statusCode();
  if (isRedirectStatus(status) && response->valueForHTTPHeaderField("Location")) {
    hold_ = Hold::Redirect;
    heldResponse_ = std::move(response);
    return;
  }
  if ((status == 401 || status == 407) &&
      delegateResponds(ZRBURLSessionDelegateOperation::TaskDidReceiveChallenge)) {
    auto offer = response->valueForHTTPHeaderField(status == 401 ? "WWW-Authenticate" : "Proxy-Authenticate");
    if (offer && authenticationOffer(*offer)) {
      hold_ = Hold::Authenticate;
      heldResponse_ = std::move(response);
      return;
    }
  }
  deliverResponse(response);
}

void ZRBURLSessionTaskDriver::deliverResponse(const ZRBHTTPURLResponsePtr& response) {
  response_ = response;
  task_->setResponse(response);
  std::int64_t expected = response->expectedContentLength();
  if (download_) {
    if (!openDownloadFile(*response)) return;
  } else {
    task_->setCounter(ZRBURLSessionTaskCounter::BytesReceived, 0);
    task_->setCounter(ZRBURLSessionTaskCounter::BytesExpectedToReceive, expected);
    const auto& cache = session_->configurationRef().URLCache();
    collecting_ = static_cast<bool>(dataCompletion_) ||
                  (cache && response->statusCode() == 200 && request_->HTTPMethod() == "GET" &&
                   (expected < 0 || std::size_t(expected) <= cache->maximumEntrySize()));
    collected_.clear();
    if (!dataCompletion_ && delegateResponds(ZRBURLSessionDelegateOperation::DataTaskDidReceiveResponse)) {
      awaitingDisposition_ = true;
      auto answer = [self = shared_from_this()](ZRBURLSessionResponseDisposition disposition) {
        self->transport_->post([self, disposition] { self->dispositionArrived(disposition); });
      };
      auto task = std::static_pointer_cast<ZRBURLSessionDataTask>(task_);
      toDelegate([task, response, answer](const ZRBURLSessionPtr& session, ZRBURLSessionDelegate& delegate) {
        delegate.dataTaskDidReceiveResponse(session, task, response, answer);
      });
    }
  }
}

void ZRBURLSessionTaskDriver::deliverWholeResponse(const ZRBHTTPURLResponsePtr& response, std::string body) {
  hold_ = Hold::None;
  deliverResponse(response);
  if (finished_) return;
  if (awaitingDisposition_) {
    pendingBody_ = std::move(body);
    completeAfterDisposition_ = true;
    return;
  }
  if (!body.empty() && !consumeBody(body.data(), body.size())) {
    finish(abortError_);
    return;
  }
  finish(nullptr);
}

void ZRBURLSessionTaskDriver::dispositionArrived(ZRBURLSessionResponseDisposition disposition) {
  if (finished_ || !awaitingDisposition_) return;
  awaitingDisposition_ = false;
  if (disposition == ZRBURLSessionResponseCancel) {
    cancelNow();
    return;
  }
  if (disposition == ZRBURLSessionResponseBecomeDownload) {
    becomeDownloadTask();
    if (finished_) return;
  }
  if (!pendingBody_.empty()) {
    std::string body = std::move(pendingBody_);
    pendingBody_.clear();
    if (!consumeBody(body.data(), body.size())) {
      finish(abortError_);
      return;
    }
  }
  if (completeAfterDisposition_) {
    finish(nullptr);
    return;
  }
  unpauseIfRunnable();
}

void ZRBURLSessionTaskDriver::becomeDownloadTask() {
  auto dataTask = std::static_pointer_cast<ZRBURLSessionDataTask>(task_);
  auto downloadTask = session_->adoptAsDownloadTask(task_, shared_from_this());
  if (!downloadTask) return;
  task_ = downloadTask;
  download_ = true;
  collecting_ = false;
  if (!openDownloadFile(*response_)) return;
  toDelegate([dataTask, downloadTask](const ZRBURLSessionPtr& session, ZRBURLSessionDelegate& delegate) {
    delegate.dataTaskDidBecomeDownloadTask(session, dataTask, downloadTask);
    session->taskDidFinish(*dataTask);
  });
}

// ---- the body ----

std::size_t ZRBURLSessionTaskDriver::transferDidReceiveData(ZRBTransfer&, const char* data,
                                                            std::size_t length) {
  lastActivity_ = transport_->turnStart();
  if (hold_ != Hold::None) {
    if (heldBody_.size() < kHeldBodyLimit)
      heldBody_.append(data, std::min(length, kHeldBodyLimit - heldBody_.size()));
    return length;
  }
  if (finished_) return 0;
  if (suspended_ || awaitingDisposition_) return ZRBTransfer::kPause;
  if (!download_ && !dataCompletion_ && queuedBytes_.load(std::memory_order_acquire) > kQueuedHighWater) {
    // Announce the pause before looking again, so the delegate queue cannot drain unseen.
    backpressured_.store(true, std::memory_order_release);
    if (queuedBytes_.load(std::memory_order_acquire) > kQueuedLowWater) return ZRBTransfer::kPause;
    backpressured_.store(false, std::memory_order_release);
  }
  return consumeBody(data, length) ? length : 0;
}

bool ZRBURLSessionTaskDriver::consumeBody(const char* data, std::size_t length) {
  if (download_) {
    if (fd_ < 0 || !writeAll(fd_, data, length)) {
      abortError_ = ZRBTransportError(ZRBURLErrorCannotWriteToFile, currentURL(),
                                      ZRBError::fromErrno(errno, downloadPath_));
      return false;
    }
    written_ += std::int64_t(length);
    task_->addToCounter(ZRBURLSessionTaskCounter::BytesReceived, std::int64_t(length));
    latestTotal_.store(written_, std::memory_order_release);
    if (!downloadCompletion_ && !writeReportPending_.exchange(true, std::memory_order_acq_rel)) {
      toDelegate(
          [self = shared_from_this(), task = std::static_pointer_cast<ZRBURLSessionDownloadTask>(task_)](
              const ZRBURLSessionPtr& session, ZRBURLSessionDelegate& delegate) {
            self->writeReportPending_.store(false, std::memory_order_release);
            std::int64_t total = self->latestTotal_.load(std::memory_order_acquire);
            std::int64_t delta = total - self->deliveredTotal_;
            self->deliveredTotal_ = total;
            if (delta > 0)
              delegate.downloadTaskDidWriteData(session, task, delta, total,
                                                task->countOfBytesExpectedToReceive());
          });
    }
    return true;
  }
  task_->addToCounter(ZRBURLSessionTaskCounter::BytesReceived, std::int64_t(length));
  if (collecting_) {
    auto cache = session_->configurationRef().URLCache();
    if (!dataCompletion_ && cache && collected_.size() + length > cache->maximumEntrySize()) {
      collecting_ = false;
      collected_.clear();
    } else {
      collected_.insert(collected_.end(), data, data + length);
    }
  }
  if (dataCompletion_) return true;
  queuedBytes_.fetch_add(std::int64_t(length), std::memory_order_acq_rel);
  auto value = ZRBValue::data(data, length);
  transport_->toCallbackQueue([self = shared_from_this(),
                               task = std::static_pointer_cast<ZRBURLSessionDataTask>(task_),
                               value = std::move(value), session = session_] {
    if (auto* delegate = session->delegateOnDelegateQueue())
      delegate->dataTaskDidReceiveData(session, task, value);
    std::int64_t left =
        self->queuedBytes_.fetch_sub(std::int64_t(value.bytes().size()), std::memory_order_acq_rel) -
        std::int64_t(value.bytes().size());
    if (left <= kQueuedLowWater && self->backpressured_.load(std::memory_order_acquire) &&
        self->backpressured_.exchange(false, std::memory_order_acq_rel)) {
      self->transport_->post([self] {
        if (!self->finished_) self->unpauseIfRunnable();
      });
    }
  });
  return true;
}

bool ZRBURLSessionTaskDriver::openDownloadFile(const ZRBHTTPURLResponse& response) {
  std::int64_t offset = 0;
  // An error answer is not the resource: its body goes to a file of its own, and the partial file
  // stays as the resume data describe it, for a later try.
  long status = response.statusCode();
  if (resumeInfo_ && (status < 200 || status >= 300)) resumeInfo_.reset();
  if (resumeInfo_) {
    auto start = contentRangeStart(response.valueForHTTPHeaderField("Content-Range"));
    if (status == 206 && start && *start == resumeInfo_->bytesReceived) {
      offset = *start;
    } else if (status == 206) {
      abortError_ = ZRBTransportError(ZRBURLErrorBadServerResponse, currentURL());
      return false;
    }
    // Any other answer (the server ignored the range) starts the file over.
    downloadPath_ = resumeInfo_->partialFilePath;
    fd_ = ::open(downloadPath_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ >= 0 && (::ftruncate(fd_, offset) != 0 || ::lseek(fd_, offset, SEEK_SET) < 0)) {
      ::close(fd_);
      fd_ = -1;
    }
  } else if (fd_ < 0) {
    std::string pattern =
        ZRBFileManager::defaultManager()->temporaryDirectory() + "/ZRBNetworkDownload_XXXXXX.tmp";
    fd_ = ::mkostemps(pattern.data(), 4, O_CLOEXEC);
    downloadPath_ = pattern;
  } else {
    // A later attempt of the same download (after a redirect): start the file over.
    if (::ftruncate(fd_, 0) != 0 || ::lseek(fd_, 0, SEEK_SET) < 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }
  if (fd_ < 0) {
    abortError_ = ZRBTransportError(ZRBURLErrorCannotCreateFile, currentURL(),
                                    ZRBError::fromErrno(errno, downloadPath_));
    return false;
  }
  written_ = offset;
  latestTotal_.store(offset, std::memory_order_release);
  std::int64_t expected = response.expectedContentLength();
  task_->setCounter(ZRBURLSessionTaskCounter::BytesReceived, offset);
  task_->setCounter(ZRBURLSessionTaskCounter::BytesExpectedToReceive,
                    expected < 0 ? expected : expected + offset);
  if (resumeInfo_) {
    std::int64_t total = task_->countOfBytesExpectedToReceive();
    auto task = std::static_pointer_cast<ZRBURLSessionDownloadTask>(task_);
    deliveredTotal_ = offset;  // set before any write report is queued
    if (!downloadCompletion_) {
      toDelegate([task, offset, total](const ZRBURLSessionPtr& session, ZRBURLSessionDelegate& delegate) {
        delegate.downloadTaskDidResume(session, task, offset, total);
      });
    }
    resumeInfo_.reset();
  }
  return true;
}

// ---- the request body ----

void ZRBURLSessionTaskDriver::transferDidSendBodyData(ZRBTransfer& transfer, std::int64_t totalSent) {
  lastActivity_ = transport_->turnStart();
  task_->setCounter(ZRBURLSessionTaskCounter::BytesSent, totalSent);
  if (sendReportPending_.exchange(true, std::memory_order_acq_rel)) return;
  if (!delegateResponds(ZRBURLSessionDelegateOperation::TaskDidSendBodyData)) {
    sendReportPending_.store(false, std::memory_order_release);
    return;
  }
  std::int64_t expected = transfer.bodyLength();
  toDelegate([self = shared_from_this(), task = task_, expected](const ZRBURLSessionPtr& session,
                                                                 ZRBURLSessionDelegate& delegate) {
    self->sendReportPending_.store(false, std::memory_order_release);
    std::int64_t total = task->countOfBytesSent();
    std::int64_t delta = total - self->deliveredSent_;
    self->deliveredSent_ = total;
    if (delta > 0) delegate.taskDidSendBodyData(session, task, delta, total, expected);
  });
}

// ---- server trust, in the handshake ----

bool ZRBURLSessionTaskDriver::transferEvaluateServerTrust(ZRBTransfer&, x509_store_ctx_st* context) {
  std::vector<ZRBSecCertificatePtr> chain;
  if (X509* leaf = X509_STORE_CTX_get0_cert(context))
    chain.push_back(ZRBSecCertificate::createWithX509(leaf));
  if (STACK_OF(X509)* untrusted = X509_STORE_CTX_get0_untrusted(context)) {
    for (int i = 0; i < sk_X509_num(untrusted); ++i) {
      X509* certificate = sk_X509_value(untrusted, i);
      if (certificate != X509_STORE_CTX_get0_cert(context))
        chain.push_back(ZRBSecCertificate::createWithX509(certificate));
    }
  }
  ZRBURLPtr url = currentURL();
  std::string host = url ? url->host().value_or("") : "";
  auto trust = ZRBSecTrust::createWithCertificates(std::move(chain), ZRBSecPolicy::createSSL(true, host));
  if (!trust) {
    trustError_ = ZRBTransportError(ZRBURLErrorSecureConnectionFailed, url);
    return false;
  }

  // A handler may keep the challenge and answer from another thread after it has returned; such an
  // answer comes too late for the handshake and is dropped without touching what is read below.
  struct Answer {
    std::mutex mutex;
    bool given = false;
    bool closed = false;
    ZRBURLSessionAuthChallengeDisposition disposition = ZRBURLSessionAuthChallengePerformDefaultHandling;
    ZRBURLCredentialPtr credential;
  };
  auto answer = std::make_shared<Answer>();
  ZRBURLSessionChallengeCompletion completion = [answer](ZRBURLSessionAuthChallengeDisposition disposition,
                                                         ZRBURLCredentialPtr credential) {
    std::lock_guard lock(answer->mutex);
    if (answer->given || answer->closed) return;
    answer->given = true;
    answer->disposition = disposition;
    answer->credential = std::move(credential);
  };
  auto space = std::make_shared<ZRBURLProtectionSpace>(
      host, long(url ? url->port().value_or(443) : 443), "https", std::nullopt,
      std::string(ZRBURLAuthenticationMethodServerTrust), trust);
  auto challenge = std::make_shared<ZRBURLAuthenticationChallenge>(space, nullptr, 0, nullptr, nullptr);
  auto delegate = session_->delegate();
  try {
    if (delegate &&
        delegate->respondsToOperation(ZRBURLSessionDelegateOperation::SessionDidReceiveChallenge)) {
      delegate->sessionDidReceiveChallenge(session_, challenge, completion);
    } else if (delegate &&
               delegate->respondsToOperation(ZRBURLSessionDelegateOperation::TaskDidReceiveChallenge)) {
      delegate->taskDidReceiveChallenge(session_, task_, challenge, completion);
    } else {
      completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
    }
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "ORVELKIT: server-trust challenge threw: %s\n", exception.what());
  }
  {
    std::lock_guard lock(answer->mutex);
    answer->closed = true;
    if (!answer->given) {
      // Late answers cannot be waited for inside the handshake.
      answer->given = true;
      answer->disposition = ZRBURLSessionAuthChallengeCancelAuthenticationChallenge;
      answer->credential = nullptr;
    }
  }

  switch (answer->disposition) {
    case ZRBURLSessionAuthChallengeUseCredential:
      if (answer->credential && answer->credential->serverTrust()) return true;
      [[fallthrough]];
    case ZRBURLSessionAuthChallengePerformDefaultHandling:
    case ZRBURLSessionAuthChallengeRejectProtectionSpace: {
      // The system's verification: system anchors and the host name.
      auto system =
          ZRBSecTrust::createWithCertificates(trust->certificates(), ZRBSecPolicy::createSSL(true, host));
      ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
      if (system && system->evaluate(&result) == 0 &&
          (result == ZRBSecTrustResultUnspecified || result == ZRBSecTrustResultProceed)) {
        return true;
      }
      trustError_ =
          system ? trustFailure(*system, url) : ZRBTransportError(ZRBURLErrorServerCertificateUntrusted, url);
      return false;
    }
    case ZRBURLSessionAuthChallengeCancelAuthenticationChallenge:
    default: trustCancelled_ = true; return false;
  }
}

// ---- end of an attempt ----

void ZRBURLSessionTaskDriver::transferDidComplete(ZRBTransfer& transfer, int curlCode) {
  // The transfer is dropped when this returns (or replaced by the next attempt's).
  ZRBTransfer::Ptr ended = std::move(transfer_);
  if (finished_) return;
  if (curlCode != CURLE_OK) {
    if (curlCode == CURLE_SEND_FAIL_REWIND && body_.kind == Body::Kind::Stream && bodyRestarts_ < 2) {
      // The connection failed before the server answered and the body must go again.
      ++bodyRestarts_;
      restartAttempt();
      return;
    }
    finish(failureFor(transfer, curlCode));
    return;
  }
  if (hold_ == Hold::Redirect) {
    handleRedirect();
    return;
  }
  if (hold_ == Hold::Authenticate) {
    handleAuthentication();
    return;
  }
  if (abortError_) {
    finish(abortError_);
    return;
  }
  if (!transfer.receivedResponse()) {
    finish(ZRBTransportError(ZRBURLErrorBadServerResponse, currentURL()));
    return;
  }
  if (awaitingDisposition_) {
    completeAfterDisposition_ = true;
    return;
  }
  finish(nullptr);
}

ZRBErrorPtr ZRBURLSessionTaskDriver::failureFor(ZRBTransfer& transfer, int curlCode) {
  ZRBURLPtr url = currentURL();
  if (trustCancelled_) return ZRBTransportError(ZRBURLErrorCancelled, url);
  if (trustError_) return trustError_;
  if (abortError_) return abortError_;
  auto underlying = ZRBError::withDescription(
      ZRBTransportErrorDomain, curlCode,
      *transfer.errorDetail() ? transfer.errorDetail() : curl_easy_strerror(CURLcode(curlCode)));
  if (transfer.headTooLarge()) return ZRBTransportError(ZRBURLErrorBadServerResponse, url, underlying);
  if (!transfer.receivedResponse() &&
      (curlCode == CURLE_UNSUPPORTED_PROTOCOL || curlCode == CURLE_WEIRD_SERVER_REPLY)) {
    // A status line that is not HTTP (libcurl calls it HTTP/0.9).
    return ZRBTransportError(ZRBURLErrorBadServerResponse, url, underlying);
  }
  if (curlCode == CURLE_READ_ERROR || curlCode == CURLE_ABORTED_BY_CALLBACK) {
    return ZRBTransportError(ZRBURLErrorRequestBodyStreamExhausted, url, underlying);
  }
  return ZRBTransportError(ZRBURLErrorCodeForCurlCode(curlCode), url, underlying);
}

void ZRBURLSessionTaskDriver::handleRedirect() {
  auto response = heldResponse_;
  if (++redirects_ > kMaximumRedirects) {
    finish(ZRBTransportError(ZRBURLErrorHTTPTooManyRedirects, currentURL()));
    return;
  }
  auto location = response->valueForHTTPHeaderField("Location");
  ZRBURLPtr target = location ? ZRBURL::URLWithString(*location, currentURL()) : nullptr;
  if (target) target = target->absoluteURL();
  auto scheme = target ? target->scheme().value_or("") : "";
  if (!target || (scheme != "http" && scheme != "https")) {
    // Nowhere to go: the 3xx is the answer.
    deliverWholeResponse(response, std::move(heldBody_));
    return;
  }
  auto next = request_->mutableCopy();
  next->setURL(target);
  long status = response->statusCode();
  const std::string& method = request_->HTTPMethod();
  bool becomesGET = (status == 303 && method != "HEAD" && method != "GET") ||
                    ((status == 301 || status == 302) && method == "POST");
  if (becomesGET) {
    next->setHTTPMethod("GET");
    next->setHTTPBody(ZRBValue());
    next->setHTTPBodyStream(nullptr);
    next->setValue(std::nullopt, "Content-Type");
    next->setValue(std::nullopt, "Content-Length");
  }
  ZRBURLRequestPtr proposed = next;
  if (!delegateResponds(ZRBURLSessionDelegateOperation::TaskWillPerformHTTPRedirection)) {
    redirectDecided(proposed);
    return;
  }
  auto answer = [self = shared_from_this()](ZRBURLRequestPtr request) {
    self->transport_->post([self, request] { self->redirectDecided(request); });
  };
  toDelegate([task = task_, response, proposed, answer](const ZRBURLSessionPtr& session,
                                                        ZRBURLSessionDelegate& delegate) {
    delegate.taskWillPerformHTTPRedirection(session, task, response, proposed, answer);
  });
}

void ZRBURLSessionTaskDriver::redirectDecided(ZRBURLRequestPtr request) {
  if (finished_) return;
  if (!request) {
    deliverWholeResponse(heldResponse_, std::move(heldBody_));
    return;
  }
  if (request->HTTPMethod() == "GET" || request->HTTPMethod() == "HEAD") body_ = Body{};
  request_ = std::move(request);
  task_->setCurrentRequest(request_);
  restartAttempt();
}

void ZRBURLSessionTaskDriver::handleAuthentication() {
  auto response = heldResponse_;
  bool proxy = response->statusCode() == 407;
  auto offer = authenticationOffer(
      *response->valueForHTTPHeaderField(proxy ? "Proxy-Authenticate" : "WWW-Authenticate"));
  ZRBURLPtr url = currentURL();
  std::string scheme = url->scheme().value_or("http");
  long port = url->port().value_or(scheme == "https" ? 443 : 80);
  auto space = std::make_shared<ZRBURLProtectionSpace>(url->host().value_or(""), port, scheme, offer->realm,
                                                       offer->method);
  ZRBURLCredentialPtr proposed;
  if (user_)
    proposed =
        ZRBURLCredential::credentialWithUser(*user_, password_.value_or(""), ZRBURLCredentialPersistenceNone);
  auto challenge = std::make_shared<ZRBURLAuthenticationChallenge>(space, proposed, authenticationFailures_,
                                                                   response, nullptr);
  auto answer = [self = shared_from_this()](ZRBURLSessionAuthChallengeDisposition disposition,
                                            ZRBURLCredentialPtr credential) {
    self->transport_->post(
        [self, disposition, credential] { self->authenticationDecided(disposition, credential); });
  };
  toDelegate(
      [task = task_, challenge, answer](const ZRBURLSessionPtr& session, ZRBURLSessionDelegate& delegate) {
        delegate.taskDidReceiveChallenge(session, task, challenge, answer);
      });
}

void ZRBURLSessionTaskDriver::authenticationDecided(ZRBURLSessionAuthChallengeDisposition disposition,
                                                    ZRBURLCredentialPtr credential) {
  if (finished_) return;
  if (disposition == ZRBURLSessionAuthChallengeCancelAuthenticationChallenge) {
    finish(ZRBTransportError(ZRBURLErrorCancelled, currentURL()));
    return;
  }
  if (disposition == ZRBURLSessionAuthChallengeUseCredential && credential && credential->user()) {
    bool proxy = heldResponse_->statusCode() == 407;
    auto offer = authenticationOffer(
        heldResponse_->valueForHTTPHeaderField(proxy ? "Proxy-Authenticate" : "WWW-Authenticate")
            .value_or(""));
    authenticationSchemes_ = offer ? offer->curlSchemes : long(CURLAUTH_BASIC);
    user_ = credential->user();
    password_ = credential->password();
    ++authenticationFailures_;
    restartAttempt();
    return;
  }
  deliverWholeResponse(heldResponse_, std::move(heldBody_));
}

// ---- timeouts ----

void ZRBURLSessionTaskDriver::transferCheckTimeouts(ZRBTransfer&, Clock::time_point now) {
  if (finished_) return;
  bool waiting = suspended_ || awaitingDisposition_ || backpressured_.load(std::memory_order_acquire);
  if (waiting) {
    // A pause that is not the server's doing does not count as idle time.
    lastActivity_ = now;
    return;
  }
  using Seconds = std::chrono::duration<double>;
  if (Seconds(now - lastActivity_).count() > idleTimeout_ ||
      Seconds(now - startedAt_).count() > resourceTimeout_) {
    finish(ZRBTransportError(ZRBURLErrorTimedOut, currentURL()));
  }
}

// ---- completion ----

ZRBValue ZRBURLSessionTaskDriver::makeResumeData() {
  if (!download_ || fd_ < 0 || written_ <= 0 || !response_ || !request_ || request_->HTTPMethod() != "GET")
    return {};
  long status = response_->statusCode();
  if (status != 200 && status != 206) return {};
  ZRBDownloadResumeInfo info;
  info.entityTag = response_->valueForHTTPHeaderField("ETag");
  info.lastModified = response_->valueForHTTPHeaderField("Last-Modified");
  // A weak validator cannot promise that the bytes on both sides of the cut match.
  if (info.entityTag && info.entityTag->starts_with("W/")) info.entityTag.reset();
  if (!info.entityTag && !info.lastModified) return {};
  info.URL = currentURL()->absoluteString();
  info.bytesReceived = written_;
  if (task_->countOfBytesExpectedToReceive() >= 0)
    info.expectedTotal = task_->countOfBytesExpectedToReceive();
  info.partialFilePath = downloadPath_;
  ZRBValue data = ZRBEncodeResumeData(info);
  if (!data.isAbsent()) keepDownloadFile_ = true;
  return data;
}

void ZRBURLSessionTaskDriver::finish(ZRBErrorPtr error) {
  if (finished_) return;
  finished_ = true;
  if (error && download_ && !keepDownloadFile_ && error->code() != ZRBURLErrorCancelled) {
    // A failed download can be resumed later when the server gave validators.
    error = withResumeData(error, makeResumeData());
  }
  transfer_.reset();
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  if (resumeDataCompletion_) {
    auto completion = std::move(resumeDataCompletion_);
    transport_->toCallbackQueue([completion] { completion(ZRBValue()); });
  }

  ZRBURLSessionPtr session = std::move(session_);
  ZRBURLSessionTaskPtr task = std::move(task_);
  task->setError(error);
  task->setState(ZRBURLSessionTaskStateCompleted);

  Completion completion;
  // The task's response is the one delivered; a task that became a download got it from here too.
  completion.response = std::move(response_);
  completion.isDownload = download_;
  // Handed over whole: the body is not copied again.
  if (!download_ && (dataCompletion_ || collecting_) && !error)
    completion.body = ZRBValue::data(std::move(collected_));
  collected_ = {};
  const auto& cache = session->configurationRef().URLCache();
  bool offerToCache = cache && collecting_ && !error && !download_ && completion.response;
  if (download_ || offerToCache) {
    completion.extra = std::make_unique<Completion::Extra>();
    completion.extra->path = downloadPath_;
    completion.extra->removeFile = !downloadPath_.empty() && !keepDownloadFile_;
    completion.extra->downloadCompletion = std::move(downloadCompletion_);
    if (offerToCache) completion.extra->cache = cache;
  }
  completion.dataCompletion = std::move(dataCompletion_);
  static_assert(sizeof(Completion) <= ZRBTransportWork::kInlineSize,
                "a completion travels without allocating");
  completion.session = std::move(session);
  completion.task = std::move(task);
  completion.error = std::move(error);
  transport_->toCallbackQueue([completion = std::move(completion)] {
    // The clean-up runs even when a callback throws, so that neither the task nor the session's
    // invalidation waits for ever.
    try {
      completion.deliver();
    } catch (...) {
      completion.removeDownloadFile();  // a callback threw before it went
      completion.cleanUp();
      throw;
    }
    completion.cleanUp();
  });
}

void ZRBURLSessionTaskDriver::Completion::deliver() const {
  auto* delegate = session->delegateOnDelegateQueue();
  if (isDownload) {
    auto downloadTask = std::static_pointer_cast<ZRBURLSessionDownloadTask>(task);
    ZRBURLPtr location = !error && !extra->path.empty() ? ZRBURL::fileURLWithPath(extra->path) : nullptr;
    // The file goes as soon as the one who could move it has returned, before the task is
    // reported complete, as on the platform.
    if (extra->downloadCompletion) {
      extra->downloadCompletion(location, response, error);
      removeDownloadFile();
      return;
    }
    if (delegate && location) delegate->downloadTaskDidFinishDownloading(session, downloadTask, location);
    removeDownloadFile();
    if (delegate) delegate->taskDidComplete(session, task, error);
    return;
  }
  if (extra && extra->cache) {
    auto dataTask = std::static_pointer_cast<ZRBURLSessionDataTask>(task);
    auto proposed = std::make_shared<ZRBCachedURLResponse>(response, body);
    auto request = task->currentRequest();
    auto store = [cache = extra->cache, request](ZRBCachedURLResponsePtr chosen) {
      if (chosen && request) cache->storeCachedResponse(std::move(chosen), *request);
    };
    if (!dataCompletion && delegate &&
        delegate->respondsToOperation(ZRBURLSessionDelegateOperation::DataTaskWillCacheResponse)) {
      delegate->dataTaskWillCacheResponse(session, dataTask, proposed, store);
    } else {
      store(proposed);
    }
  }
  if (dataCompletion) {
    dataCompletion(error ? ZRBValue() : body, response, error);
  } else if (delegate) {
    delegate->taskDidComplete(session, task, error);
  }
}

void ZRBURLSessionTaskDriver::Completion::removeDownloadFile() const {
  if (!extra || !extra->removeFile) return;
  // A file the delegate moved away is gone already; removing looks for it itself.
  ZRBFileManager::defaultManager()->removeItemAtPath(extra->path);
}

void ZRBURLSessionTaskDriver::Completion::cleanUp() const { session->taskDidFinish(*task); }
