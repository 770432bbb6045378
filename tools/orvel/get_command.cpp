// orvel get [OPTIONS] URL: one request through the library's request layer, the way curl would
// make it. See orvelGetUsage() for the options and get_resume.h for how -C picks up an interrupted
// download. Which path an option takes:
//   network agent (a request object, get_request.h): the URL, -X with GET, POST, HEAD, PUT, DELETE
//     or PATCH, -H, -d (-G with GET or HEAD), --json, -u, --timeout, -o FILE of a GET as the
//     agent's resumable download, -C, -f (the request's status rule), -k (the agent's staging
//     switch), --decode (the response serializers over the body the agent hands back), --cache (the
//     request's response cache, which answers without the agent while its entry is valid);
//   the agent's session manager (get_transfer.h): -F with its upload progress, another -X method,
//     -H "Name:" removing a field, -G with a method whose fields the agent would put in the body;
//     and on either path -L (its redirect hook), --cacert (its challenge hook), the progress bars
//     (its byte-counter hooks);
//   the session as the platform makes it: --resolve (the agent's session configuration),
//     --pinning-config (the shared pin guard's delegate proxy on the agent's session).
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "commands.h"
#include "get_decode.h"
#include "get_options.h"
#include "get_output.h"
#include "get_output_target.h"
#include "get_pinning.h"
#include "get_request.h"
#include "get_resume.h"
#include "get_transfer.h"
#include "platform/net/url_session_task.h"
#include "platform/system/file_manager.h"
#include "request/network_utils.h"

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
  // One line of help: the whole option list would bury the message it follows.
  std::fprintf(stderr, "orvel: %s\nusage: orvel get [OPTIONS] URL ('orvel get -h' lists the options)\n",
               message.c_str());
  return 2;
}

void complain(const std::string& message) { std::fprintf(stderr, "orvel: %s\n", message.c_str()); }

std::string hostOf(const std::string& url) {
  auto parsed = ZRBURL::URLWithString(url);
  auto host = parsed ? parsed->host() : std::nullopt;
  return host.value_or(url);
}

// Everything after the transfer: messages, the head for -i, the body where it goes, the exit status.
int finish(OrvelGetRequest& request, const OrvelGetOptions& options, const OrvelResumePlan& plan,
           bool download, OrvelOutputTarget& output, const OrvelTransfer& transfer,
           const OrvelTransfer::Outcome& outcome, const std::string& pinRefusal) {
  if (outcome.interrupted) {
    if (download && orvelSaveResumeData(output.name(), outcome.resumeData)) {
      complain("interrupted; run again with -C to continue (" + orvelResumeDataPath(output.name()) + ")");
    } else if (plan.kind == OrvelResumePlan::Range) {
      complain("interrupted; run again with -C to continue " + output.name());
    } else if (download) {
      complain("interrupted; the server gave nothing to resume from");
    } else {
      complain("interrupted");
    }
    return 130;
  }
  if (outcome.fromCache) complain("answered from the request cache (" + request.cacheFilePath() + ")");
  const auto& response = outcome.response;
  auto verdict =
      response ? orvelJudgeStatus(*response, plan, options.failOnHTTPError) : OrvelStatusVerdict::Take;
  if (!outcome.error && verdict == OrvelStatusVerdict::AlreadyComplete) {
    complain(output.name() + " is complete already");
    orvelDiscardResumeData(output.name());
    return 0;
  }
  if (!outcome.error && verdict == OrvelStatusVerdict::Refuse) {
    long status = response->statusCode();
    std::string answer = std::to_string(status) + " " + orvelReasonPhrase(status);
    complain(plan.kind != OrvelResumePlan::Fresh
                 ? "cannot resume " + output.name() + ": the server answered " + answer
                 : "the requested URL returned error: " + answer);
    return status >= 400 ? 22 : 1;
  }
  if (transfer.trustRejected()) {
    complain("the certificate of " + hostOf(options.url) + " does not chain to a certificate in " +
             *options.caCertificatePath);
    return 1;
  }
  if (outcome.error && !pinRefusal.empty()) {
    complain(pinRefusal);
    return 1;
  }
  if (const auto& error = outcome.error) {
    complain(orvelTransferErrorMessage(*error));
    if (download &&
        orvelSaveResumeData(output.name(), error->userInfo()[ZRBURLSessionDownloadTaskResumeData])) {
      complain("run again with -C to continue (" + orvelResumeDataPath(output.name()) + ")");
    } else if (plan.kind == OrvelResumePlan::Range) {
      complain("run again with -C to continue " + output.name());
    }
    return 1;
  }

  if (options.includeHead && response) {
    // Always standard output: with -o the body goes to the file and the head stays on the terminal.
    auto head = orvelResponseHead(*response);
    std::fwrite(head.data(), 1, head.size(), stdout);
    std::fflush(stdout);
  }
  if (options.decode) return orvelPrintDecodedBody(response, outcome.body, stdout, stderr);
  std::string problem;
  if (outcome.file) {
    if (!output.commitDownload(outcome.file->path(), problem)) {
      complain(problem);
      return 1;
    }
  } else {
    std::FILE* stream = output.stream();
    // The server ignored the range: the file starts over.
    bool restart = plan.kind == OrvelResumePlan::Range && response && response->statusCode() == 200;
    auto bytes = outcome.body.bytes();
    if ((restart && ftruncate(fileno(stream), 0) != 0) ||
        std::fwrite(bytes.data(), 1, bytes.size(), stream) != bytes.size() || !output.commitStream(problem)) {
      complain(problem.empty() ? "cannot write " + output.name() + ": " + std::strerror(errno) : problem);
      return 1;
    }
  }
  if (options.outputPath) orvelDiscardResumeData(*options.outputPath);
  return 0;
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

  OrvelTransfer::Settings settings;
  settings.followRedirects = options->followRedirects;
  settings.insecure = options->insecure;
  settings.resolve = options->resolve;
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

  auto request = OrvelGetRequest::make(*options, problem);
  if (!request) {
    complain(problem);
    return 2;
  }
  OrvelResumePlan plan;
  if (options->resume) plan = orvelPlanResume(*options->outputPath);
  if (plan.kind == OrvelResumePlan::Range) request->setHeader("Range", orvelRangeHeaderValue(plan.offset));
  OrvelTransfer transfer(std::move(settings));
  ZRBURLRequestPtr sessionRequest;
  if (options->cacheSeconds && request->needsSessionManager()) {
    complain(
        "--cache: this request goes through the session manager, which keeps no cache (another method, "
        "-H 'Name:', or -G with a method that sends a body)");
    return 2;
  }
  if (request->needsSessionManager() &&
      !(sessionRequest = request->sessionRequest(transfer.agent(), problem))) {
    complain(problem);
    return 2;
  }

  // Where the body goes (get_output_target.h): a file to replace is fetched by a GET as the agent's
  // resumable download into the temporary directory, then moved into place; everything else arrives
  // whole and is written to standard output, the device or FIFO named by -o, the staging file or,
  // for a Range resume, the file itself.
  OrvelOutputTarget output;
  if (!output.prepare(options->outputPath, plan.kind == OrvelResumePlan::Range, problem)) {
    complain(problem);
    return 1;
  }
  bool download = output.kind() == OrvelOutputTarget::Kind::ReplacedFile && !sessionRequest &&
                  request->method() == "GET" && !options->cacheSeconds;
  std::string downloadPath;
  ZRBURLPtr agentResumeData;
  if (download) {
    downloadPath =
        ZRBFileManager::defaultManager()->temporaryDirectory() + "/orvel-get-" + std::to_string(getpid());
    request->setResumableDownloadPath(downloadPath);
    if (plan.kind == OrvelResumePlan::ResumeData &&
        !ZRBRQ_NetworkUtils::validateResumeData(plan.resumeData)) {
      complain("the resume data in " + orvelResumeDataPath(*options->outputPath) +
               " cannot be used; downloading from the start");
      orvelDiscardResumeData(*options->outputPath);
      plan = {};
    }
    // The agent continues from what its "Incomplete" folder holds for the path: what -C continues
    // from, or nothing. orvel keeps its own copy beside the output, so the agent's goes afterwards.
    agentResumeData = ZRBRQ_NetworkAgent::incompleteDownloadTempPathForDownloadPath(downloadPath);
    if (agentResumeData) {
      const auto& files = ZRBFileManager::defaultManager();
      files->removeItemAtPath(agentResumeData->path());
      if (plan.kind == OrvelResumePlan::ResumeData)
        files->writeData(plan.resumeData.bytes(), agentResumeData->path(), true);
    }
  }
  request->setAcceptsStatus([&plan, fail = options->failOnHTTPError](const ZRBHTTPURLResponse& response) {
    return orvelJudgeStatus(response, plan, fail) == OrvelStatusVerdict::Take;
  });

  OrvelTransfer::Outcome outcome;
  {
    SignalScope signals;
    outcome = transfer.run(request, sessionRequest, [] { return gInterrupted != 0; });
  }
  std::error_code ignored;
  if (agentResumeData) std::filesystem::remove(agentResumeData->path(), ignored);
  // Also waits for the reports of failed validations, so they are out before the program ends.
  std::string pinRefusal = pinning ? pinning->explainRefusal(hostOf(options->url)) : "";

  int status = finish(*request, *options, plan, download, output, transfer, outcome, pinRefusal);
  if (download) std::filesystem::remove(downloadPath, ignored);
  return status;
}
