#include "get_transfer.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <mutex>

#include "get_output.h"
#include "platform/net/url_authentication.h"
#include "platform/security/sec_trust.h"
#include "request/network_config.h"
#include "settings/setting.h"

struct OrvelTransfer::State {
  explicit State(bool showProgress) : downloadBar(showProgress, ""), uploadBar(showProgress, "upload") {}

  void draw(OrvelProgressBar& bar, std::int64_t done, std::int64_t total) {
    std::lock_guard lock(mutex);
    if (auto text = bar.update(done, total)) {
      std::fputs(text->c_str(), stderr);
      std::fflush(stderr);
    }
  }
  void finishBars() {
    std::lock_guard lock(mutex);
    for (auto* bar : {&uploadBar, &downloadBar}) {
      if (auto text = bar->finish()) std::fputs(text->c_str(), stderr);
    }
  }

  std::atomic<bool> trustRejected{false};
  std::mutex mutex;  // over the bars: drawn from the delegate queue, finished by the waiting thread
  OrvelProgressBar downloadBar;
  OrvelProgressBar uploadBar;
};

namespace {

// Runs on the transport thread inside the handshake.
ZRBURLSessionAuthChallengeDisposition answerWithAnchors(const std::vector<ZRBSecCertificatePtr>& anchors,
                                                        const ZRBURLAuthenticationChallengePtr& challenge,
                                                        ZRBURLCredentialPtr* credential,
                                                        std::atomic<bool>& rejected) {
  const auto& space = challenge->protectionSpace();
  if (space->authenticationMethod() != ZRBURLAuthenticationMethodServerTrust || !space->serverTrust())
    return ZRBURLSessionAuthChallengePerformDefaultHandling;
  const auto& trust = space->serverTrust();
  // The trust already carries the SSL policy for the host, so this checks names and dates too.
  ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
  bool trusted = trust->setAnchorCertificates(anchors) == ZRBErrSecSuccess &&
                 trust->evaluate(&result) == ZRBErrSecSuccess &&
                 (result == ZRBSecTrustResultUnspecified || result == ZRBSecTrustResultProceed);
  if (!trusted) {
    rejected = true;
    return ZRBURLSessionAuthChallengeCancelAuthenticationChallenge;
  }
  *credential = ZRBURLCredential::credentialForTrust(trust);
  return ZRBURLSessionAuthChallengeUseCredential;
}

}  // namespace

OrvelTransfer::OrvelTransfer(Settings settings) : state_(std::make_shared<State>(settings.showProgress)) {
  auto configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  configuration->setResolveEntries(std::move(settings.resolve));
  ZRBRQ_NetworkConfig::sharedConfig()->setSessionConfiguration(configuration);
  if (settings.insecure) ZRBSetting::sharedSetting()->setIsRealStgEnv(true);
  agent_ = ZRBRQ_NetworkAgent::init();

  const auto manager = agent_->manager();
  if (!settings.followRedirects) {
    manager->setTaskWillPerformHTTPRedirectionBlock([](auto&&...) { return ZRBURLRequestPtr(); });
  }
  if (!settings.insecure && !settings.anchors.empty()) {
    manager->setSessionDidReceiveAuthenticationChallengeBlock(
        [anchors = std::move(settings.anchors), state = state_](
            const ZRBURLSessionPtr&, const ZRBURLAuthenticationChallengePtr& challenge,
            ZRBURLCredentialPtr* credential) {
          return answerWithAnchors(anchors, challenge, credential, state->trustRejected);
        });
  }
  if (!settings.showProgress) return;
  std::weak_ptr<State> weak = state_;
  manager->setTaskDidSendBodyDataBlock([weak](const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&,
                                              std::int64_t, std::int64_t sent, std::int64_t expected) {
    if (auto state = weak.lock()) state->draw(state->uploadBar, sent, expected);
  });
  manager->setDataTaskDidReceiveDataBlock([weak](const ZRBURLSessionPtr&,
                                                 const ZRBURLSessionDataTaskPtr& task, const ZRBValue&) {
    if (auto state = weak.lock())
      state->draw(state->downloadBar, task->countOfBytesReceived(), task->countOfBytesExpectedToReceive());
  });
  manager->setDownloadTaskDidWriteDataBlock([weak](const ZRBURLSessionPtr&,
                                                   const ZRBURLSessionDownloadTaskPtr&, std::int64_t,
                                                   std::int64_t done, std::int64_t total) {
    if (auto state = weak.lock()) state->draw(state->downloadBar, done, total);
  });
}

OrvelTransfer::~OrvelTransfer() {
  const auto manager = agent_->manager();
  // The anchor certificates are freed here: with the manager they would go on a pool thread while
  // the exiting process cleans OpenSSL up.
  manager->setSessionDidReceiveAuthenticationChallengeBlock(nullptr);
  // The session ends its transport thread and lets go of the manager in the delegate queue's block
  // that reports it invalid. Waiting for that block keeps both from running on beside the exiting
  // process's clean-up; the bound only matters if a cancelled task never completes.
  auto invalid = std::make_shared<std::promise<void>>();
  auto reported = invalid->get_future();
  manager->setSessionDidBecomeInvalidBlock(
      [invalid](const ZRBURLSessionPtr&, const ZRBErrorPtr&) { invalid->set_value(); });
  manager->invalidateSessionCancelingTasks(true);
  if (reported.wait_for(std::chrono::seconds(5)) == std::future_status::ready)
    manager->operationQueue()->sync([] {});
}

bool OrvelTransfer::trustRejected() const { return state_->trustRejected.load(); }

OrvelTransfer::Outcome OrvelTransfer::run(const std::shared_ptr<OrvelGetRequest>& request,
                                          const ZRBURLRequestPtr& sessionRequest,
                                          const std::function<bool()>& interrupted) {
  // Exactly one of the completions below runs.
  auto ended = std::make_shared<std::promise<Outcome>>();
  auto outcome = ended->get_future();
  ZRBURLSessionTaskPtr task;
  if (sessionRequest) {
    auto completion = [ended](ZRBURLResponsePtr response, ZRBValue body, ZRBErrorPtr error) {
      ended->set_value({std::dynamic_pointer_cast<const ZRBHTTPURLResponse>(response), std::move(body),
                        nullptr, std::move(error), false, ZRBValue()});
    };
    const auto& manager = agent_->manager();
    task = sessionRequest->HTTPBodyStream()
               ? manager->uploadTaskWithStreamedRequest(sessionRequest, nullptr, completion)
               : manager->dataTaskWithRequest(sessionRequest, completion);
    if (!task) {
      Outcome failed;
      failed.error =
          ZRBError::withDescription(ZRBURLErrorDomain, ZRBURLErrorUnknown, "the session made no task");
      return failed;
    }
    task->resume();
  } else if (request->cacheTimeInSeconds() > 0 && request->loadCacheWithError()) {
    Outcome hit;
    hit.body = request->responseData();
    hit.fromCache = true;
    return hit;
  } else {
    auto completion = [ended](const ZRBRQ_BaseRequestPtr& finished) {
      // A failed download's file is gone already; its bytes are the body.
      auto file = finished->responseObject().objectAs<ZRBURL>();
      ended->set_value({finished->response(), file ? ZRBValue() : finished->responseData(), std::move(file),
                        finished->error(), false, ZRBValue()});
    };
    request->setCompletionBlockWithSuccess(completion, completion);
    agent_->addRequest(request);
    task = request->requestTask();
  }

  bool cancelled = false;
  std::future<ZRBValue> resumeData;
  while (outcome.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
    if (cancelled || !interrupted()) continue;
    cancelled = true;
    if (auto download = std::dynamic_pointer_cast<ZRBURLSessionDownloadTask>(task)) {
      auto kept = std::make_shared<std::promise<ZRBValue>>();
      resumeData = kept->get_future();
      download->cancelByProducingResumeData([kept](ZRBValue data) { kept->set_value(std::move(data)); });
    } else if (task) {
      task->cancel();
    }
  }
  state_->finishBars();
  Outcome result = outcome.get();
  result.interrupted = cancelled;
  // The resume data may come after the completion.
  if (resumeData.valid() && resumeData.wait_for(std::chrono::seconds(10)) == std::future_status::ready)
    result.resumeData = resumeData.get();
  return result;
}
