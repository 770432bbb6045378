// orvel get [OPTIONS] URL: one request over a URL session, the way curl would make it. See
// orvelGetUsage() for the options and get_resume.h for how -C picks up an interrupted download.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>

#include "commands.h"
#include "get_decode.h"
#include "get_delegate.h"
#include "get_options.h"
#include "get_output_target.h"
#include "get_pinning.h"
#include "get_request.h"
#include "get_resume.h"
#include "platform/foundation/exception.h"
#include "platform/net/url_session.h"

namespace {

volatile std::sig_atomic_t gInterrupted = 0;

void noteInterrupt(int) { gInterrupted = 1; }

// SIGINT becomes a flag for the duration of the transfer (a second Ctrl-C kills, as usual), and a
// closed standard output becomes a write error instead of a silent death.
class SignalScope {
 public:
  SignalScope() {
    gInterrupted = 0;
    struct sigaction action {};
    action.sa_handler = noteInterrupt;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previousInterrupt_);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, &previousPipe_);
  }
  ~SignalScope() {
    sigaction(SIGINT, &previousInterrupt_, nullptr);
    sigaction(SIGPIPE, &previousPipe_, nullptr);
  }
  SignalScope(const SignalScope&) = delete;
  SignalScope& operator=(const SignalScope&) = delete;

 private:
  struct sigaction previousInterrupt_ {};
  struct sigaction previousPipe_ {};
};

int usageError(const std::string& message) {
  std::fprintf(stderr, "orvel: %s\n\n%s", message.c_str(), orvelGetUsage());
  return 2;
}

void complain(const std::string& message) { std::fprintf(stderr, "orvel: %s\n", message.c_str()); }

std::string hostOf(const std::string& url) {
  auto parsed = ZRBURL::URLWithString(url);
  auto host = parsed ? parsed->host() : std::nullopt;
  return host.value_or(url);
}

}  // namespace

int orvelGetCommand(OrvelArguments arguments) {
  for (auto argument : arguments) {
    if (argument == "-h" || argument == "--help") {
      std::fputs(orvelGetUsage(), stdout);
      return 0;
    }
    if (argument == "--") break;
  }
  std::string problem;
  auto options = orvelParseGetArguments(arguments, problem);
  if (!options) return usageError(problem);

  OrvelGetDelegate::Settings settings;
  settings.includeHead = options->includeHead;
  settings.failOnHTTPError = options->failOnHTTPError;
  settings.followRedirects = options->followRedirects;
  settings.insecure = options->insecure;
  // Like curl, no bar when the body itself goes to the same terminal.
  bool bodyOnTerminal = !options->outputPath && isatty(fileno(stdout)) != 0;
  settings.showProgress = !options->silent && isatty(fileno(stderr)) != 0 && !bodyOnTerminal;
  if (options->caCertificatePath) {
    const std::string& path = *options->caCertificatePath;
    errno = 0;
    auto pem = orvelReadFile(path);
    if (!pem) {
      complain("--cacert " + path + ": cannot read it" +
               (errno ? std::string(": ") + std::strerror(errno) : ""));
      return 2;
    }
    settings.anchors = ZRBSecCertificate::createAllWithPEM(*pem);
    if (settings.anchors.empty()) {
      complain("--cacert " + path + ": no PEM certificate in it");
      return 2;
    }
  }

  std::unique_ptr<OrvelGetPinning> pinning;
  if (options->pinningConfigPath) {
    pinning = OrvelGetPinning::setUp(*options->pinningConfigPath, problem);
    if (!pinning) {
      complain(problem);
      return 2;
    }
  }

  auto built = orvelBuildGetRequest(*options, problem);
  if (!built) {
    complain(problem);
    return 2;
  }
  auto request = built->request;

  // Where the body goes (get_output_target.h): a file to replace is fetched by a download task
  // whose file is moved into place, unless the body is an upload's answer; everything else streams
  // into standard output, the device or FIFO named by -o, or, for a Range resume, the file itself.
  OrvelResumePlan plan;
  if (options->resume) plan = orvelPlanResume(*options->outputPath);
  OrvelOutputTarget output;
  if (!output.prepare(options->outputPath, plan.kind == OrvelResumePlan::Range, problem)) {
    complain(problem);
    return 1;
  }
  bool download = output.kind() == OrvelOutputTarget::Kind::ReplacedFile && !built->streamedBody;
  settings.body = output.stream();
  settings.bodyName = output.name();
  // --decode collects the body first: it is printed once decoded.
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> decodeBuffer(nullptr, std::fclose);
  if (options->decode) {
    decodeBuffer.reset(std::tmpfile());
    if (!decodeBuffer) {
      complain(std::string("cannot buffer the body: ") + std::strerror(errno));
      return 1;
    }
    settings.body = decodeBuffer.get();
    settings.bodyName = "the body buffer";
  }
  if (download) {
    settings.moveDownload = [&output](const std::string& location, std::string& failure) {
      return output.commitDownload(location, failure);
    };
  }
  settings.resuming = plan.kind == OrvelResumePlan::ResumeData;
  if (plan.kind == OrvelResumePlan::Range) {
    settings.rangeOffset = plan.offset;
    request->setValue(orvelRangeHeaderValue(plan.offset), "Range");
  }

  auto delegate = std::make_shared<OrvelGetDelegate>(std::move(settings));
  auto configuration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  configuration->setResolveEntries(options->resolve);
  auto session =
      ZRBURLSession::sessionWithConfiguration(configuration, delegate, ZRBDispatchQueue::serial("orvel.get"));
  ZRBURLSessionTaskPtr task;
  ZRBURLSessionDownloadTaskPtr downloadTask;
  if (built->streamedBody) {
    task = session->uploadTaskWithStreamedRequest(request);
  } else if (download) {
    if (plan.kind == OrvelResumePlan::ResumeData) {
      try {
        downloadTask = session->downloadTaskWithResumeData(plan.resumeData);
      } catch (const ZRBException&) {
        complain("the resume data in " + orvelResumeDataPath(*options->outputPath) +
                 " cannot be used; downloading from the start");
        orvelDiscardResumeData(*options->outputPath);
      }
    }
    if (!downloadTask) downloadTask = session->downloadTaskWithRequest(request);
    task = downloadTask;
  } else {
    task = session->dataTaskWithRequest(request);
  }

  // Ctrl-C during a download keeps what has arrived as resume data; other transfers just stop (a
  // Range resume has been writing into the output file, which is its own resume point).
  // The promise is shared: the resume data may come after this function has stopped waiting.
  auto resumeDataKept = std::make_shared<std::promise<bool>>();
  auto resumeDataDone = resumeDataKept->get_future();
  bool interrupted = false;
  auto onInterrupt = [&] {
    interrupted = true;
    if (!downloadTask) {
      resumeDataKept->set_value(false);
      task->cancel();
      return;
    }
    downloadTask->cancelByProducingResumeData([resumeDataKept, output = *options->outputPath](ZRBValue data) {
      resumeDataKept->set_value(orvelSaveResumeData(output, data));
    });
  };
  {
    SignalScope signals;
    task->resume();
    delegate->waitForCompletion([] { return gInterrupted != 0; }, onInterrupt);
  }
  bool keptOnInterrupt = interrupted &&
                         resumeDataDone.wait_for(std::chrono::seconds(10)) == std::future_status::ready &&
                         resumeDataDone.get();
  session->invalidateAndCancel();
  // Also waits for the reports of failed validations, so they are out before the program ends.
  std::string pinRefusal = pinning ? pinning->explainRefusal(hostOf(options->url)) : "";

  if (interrupted) {
    if (keptOnInterrupt) {
      complain("interrupted; run again with -C to continue (" + orvelResumeDataPath(*options->outputPath) +
               ")");
    } else if (plan.kind == OrvelResumePlan::Range) {
      complain("interrupted; run again with -C to continue " + *options->outputPath);
    } else if (downloadTask) {
      complain("interrupted; the server gave nothing to resume from");
    } else {
      complain("interrupted");
    }
    return 130;
  }
  if (auto failure = delegate->localFailure(); !failure.empty()) {
    complain(failure);
    return 1;
  }
  if (delegate->alreadyComplete()) {
    complain(*options->outputPath + " is complete already");
    orvelDiscardResumeData(*options->outputPath);
    return 0;
  }
  if (delegate->rejectedStatus()) {
    auto response = delegate->response();
    long status = response ? response->statusCode() : 0;
    std::string answer = std::to_string(status) + " " + orvelReasonPhrase(status);
    complain(plan.kind != OrvelResumePlan::Fresh
                 ? "cannot resume " + *options->outputPath + ": the server answered " + answer
                 : "the requested URL returned error: " + answer);
    return status >= 400 ? 22 : 1;
  }
  if (delegate->trustRejected()) {
    complain("the certificate of " + hostOf(options->url) + " does not chain to a certificate in " +
             *options->caCertificatePath);
    return 1;
  }
  if (delegate->error() && !pinRefusal.empty()) {
    complain(pinRefusal);
    return 1;
  }
  if (auto error = delegate->error()) {
    complain(orvelTransferErrorMessage(*error));
    const auto& resumeData = error->userInfo()[ZRBURLSessionDownloadTaskResumeData];
    if (downloadTask && orvelSaveResumeData(*options->outputPath, resumeData)) {
      complain("run again with -C to continue (" + orvelResumeDataPath(*options->outputPath) + ")");
    } else if (plan.kind == OrvelResumePlan::Range) {
      complain("run again with -C to continue " + *options->outputPath);
    }
    return 1;
  }
  if (decodeBuffer) {
    std::string bytes;
    std::rewind(decodeBuffer.get());
    char chunk[65536];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, decodeBuffer.get())) > 0;)
      bytes.append(chunk, n);
    return orvelPrintDecodedBody(delegate->response(), ZRBValue::data(bytes), stdout, stderr);
  }
  if (!download && !output.commitStream(problem)) {
    complain(problem);
    return 1;
  }
  if (options->outputPath) orvelDiscardResumeData(*options->outputPath);
  return 0;
}
