// orvel pin-check HOST[:PORT] --config FILE [--report] [--resolve HOST:PORT:ADDRESS]... [-v]
//
// Connects to HOST (port 443 by default), hands the server's chain to the pinning validator of the
// configuration in FILE (JSON or a property list, as `orvel pinning-config` reads it) and prints
// the decision, the evaluation result and, per certificate of the chain (leaf first), its subject
// and pin. No request is sent: the connection is dropped once the chain is judged. --report sends
// a failure report to the policy's report URIs; --resolve connects to ADDRESS instead of looking
// HOST up, while HOST still names the server for SNI, the certificate check and pinning; -v prints
// the pinning log on standard error.
//
// Exit status: 0 the connection may go on, 1 it must be blocked, 3 the domain is not pinned,
// 2 usage or an invalid configuration, 4 no TLS connection could be made.
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "pinning/background_reporter.h"
#include "pinning/configuration.h"
#include "pinning/pgd_log.h"
#include "pinning/pinning_validator.h"
#include "pinning/spki_hash_cache.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/exception.h"
#include "platform/net/url_session.h"
#include "platform/net/url_session_configuration.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitNoConnection = 4;

void usage() {
  std::fprintf(
      stderr,
      "usage: orvel pin-check HOST[:PORT] --config FILE [--report] [--resolve HOST:PORT:ADDRESS]... [-v]\n");
}

void complain(const std::string& message) { std::fprintf(stderr, "orvel pin-check: %s\n", message.c_str()); }

struct Target {
  std::string host;
  long port = 443;
};

// "host", "host:port", "[v6]" or "[v6]:port".
std::optional<Target> parseTarget(std::string_view text) {
  Target target;
  std::string_view rest;
  if (text.starts_with('[')) {
    auto close = text.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    target.host = std::string(text.substr(1, close - 1));
    rest = text.substr(close + 1);
    if (!rest.empty() && !rest.starts_with(':')) return std::nullopt;
  } else {
    auto colon = text.rfind(':');
    target.host = std::string(text.substr(0, colon));
    if (colon != std::string_view::npos) rest = text.substr(colon);
  }
  if (target.host.empty()) return std::nullopt;
  if (!rest.empty()) {
    rest.remove_prefix(1);
    auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), target.port);
    if (error != std::errc() || end != rest.data() + rest.size() || target.port < 1 || target.port > 65535)
      return std::nullopt;
  }
  return target;
}

}  // namespace

bool orvelIsResolveEntry(std::string_view entry) {
  auto first = entry.find(':');
  if (first == 0 || first == std::string_view::npos) return false;
  auto second = entry.find(':', first + 1);
  if (second == std::string_view::npos || second + 1 >= entry.size()) return false;
  long port = 0;
  auto [end, error] = std::from_chars(entry.data() + first + 1, entry.data() + second, port);
  return error == std::errc() && end == entry.data() + second && port >= 1 && port <= 65535;
}

namespace {

const char* decisionName(PGDTrustDecision decision) {
  switch (decision) {
    case PGDTrustDecisionShouldAllowConnection: return "allow";
    case PGDTrustDecisionShouldBlockConnection: return "block";
    case PGDTrustDecisionDomainNotPinned: return "not pinned";
  }
  return "?";
}

const char* resultName(PGDTrustEvaluationResult result) {
  switch (result) {
    case PGDTrustEvaluationResultSuccess: return "a pin matched";
    case PGDTrustEvaluationResultFailedNoMatchingPin: return "no certificate matches a pin";
    case PGDTrustEvaluationResultFailedInvalidCertificateChain:
      return "the default validation rejected the chain";
    case PGDTrustEvaluationResultErrorInvalidParameters: return "the chain could not be evaluated";
    case PGDTrustEvaluationResultErrorCouldNotGenerateSpkiHash: return "a key could not be hashed";
  }
  return "?";
}

// Judges the first server-trust challenge with the validator, then drops the connection.
class PinCheckDelegate final : public ZRBURLSessionDelegate {
 public:
  explicit PinCheckDelegate(ZRB_PGDPinningValidatorPtr validator) : validator_(std::move(validator)) {}

  bool respondsToOperation(ZRBURLSessionDelegateOperation operation) const override {
    return operation == ZRBURLSessionDelegateOperation::SessionDidReceiveChallenge ||
           ZRBURLSessionDelegate::respondsToOperation(operation);
  }
  void sessionDidReceiveChallenge(const ZRBURLSessionPtr&, const ZRBURLAuthenticationChallengePtr& challenge,
                                  ZRBURLSessionChallengeCompletion completion) override {
    const auto& space = challenge->protectionSpace();
    if (space->authenticationMethod() != ZRBURLAuthenticationMethodServerTrust || !space->serverTrust()) {
      completion(ZRBURLSessionAuthChallengePerformDefaultHandling, nullptr);
      return;
    }
    PGDTrustDecision decision = validator_->evaluateTrust(space->serverTrust(), space->host());
    {
      std::lock_guard lock(mutex_);
      trust_ = space->serverTrust();
      decision_ = decision;
    }
    completion(ZRBURLSessionAuthChallengeCancelAuthenticationChallenge, nullptr);
  }
  void taskDidComplete(const ZRBURLSessionPtr&, const ZRBURLSessionTaskPtr&, ZRBErrorPtr error) override {
    std::lock_guard lock(mutex_);
    error_ = std::move(error);
    done_ = true;
    changed_.notify_all();
  }
  void sessionDidBecomeInvalid(const ZRBURLSessionPtr&, ZRBErrorPtr) override {
    std::lock_guard lock(mutex_);
    invalid_ = true;
    changed_.notify_all();
  }

  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return done_; });
  }
  void waitUntilInvalid() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return invalid_; });
  }
  ZRBSecTrustPtr trust() {
    std::lock_guard lock(mutex_);
    return trust_;
  }
  std::optional<PGDTrustDecision> decision() {
    std::lock_guard lock(mutex_);
    return decision_;
  }
  ZRBErrorPtr error() {
    std::lock_guard lock(mutex_);
    return error_;
  }

 private:
  ZRB_PGDPinningValidatorPtr validator_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
  bool invalid_ = false;
  ZRBSecTrustPtr trust_;
  std::optional<PGDTrustDecision> decision_;
  ZRBErrorPtr error_;
};

struct Observation {
  ZRB_PGDPinningValidatorResultPtr result;
  std::string notedHostname;
  ZRB_PGDDomainPolicyPtr policy;
};

int sendReport(const Target& target, const Observation& observed) {
  const ZRB_PGDDomainPolicy& policy = *observed.policy;
  auto reporter = ZRB_PGDBackgroundReporter::initAndRateLimitReports(false);
  std::optional<ZRBDate> expiration;
  if (policy.expirationDate) {
    expiration = ZRBDate{std::chrono::duration<double>(policy.expirationDate->time_since_epoch()).count()};
  }
  try {
    reporter->pinValidationFailedForHostname(
        target.host, target.port, observed.result->certificateChain(), observed.notedHostname,
        policy.reportUris, policy.includeSubdomains, policy.enforcePinning, policy.publicKeyHashes,
        observed.result->evaluationResult(), expiration);
  } catch (const ZRBException& exception) {
    complain("no report sent: " + exception.reason());
    return 1;
  }
  if (!reporter->waitForUploads(std::chrono::seconds(60))) {
    complain("the report uploads did not finish within 60 seconds");
    return 1;
  }
  std::printf("report: sent to %zu URI(s)\n", policy.reportUris->size());
  return 0;
}

}  // namespace

int orvelPinCheckCommand(OrvelArguments arguments) {
  std::optional<std::string> configPath;
  std::optional<Target> target;
  std::vector<std::string> resolve;
  bool report = false;
  bool verbose = false;
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    std::string_view argument = arguments[index];
    auto value = [&]() -> std::optional<std::string_view> {
      if (index + 1 >= arguments.size()) return std::nullopt;
      return arguments[++index];
    };
    if (argument == "--config") {
      auto path = value();
      if (!path) return usage(), kExitUsage;
      configPath = std::string(*path);
    } else if (argument == "--resolve") {
      auto entry = value();
      if (!entry || !orvelIsResolveEntry(*entry)) {
        complain("--resolve wants HOST:PORT:ADDRESS");
        return kExitUsage;
      }
      resolve.emplace_back(*entry);
    } else if (argument == "--report") {
      report = true;
    } else if (argument == "-v" || argument == "--verbose") {
      verbose = true;
    } else if (argument == "-h" || argument == "--help") {
      usage();
      return 0;
    } else if (!argument.starts_with('-') && !target) {
      target = parseTarget(argument);
      if (!target) {
        complain("'" + std::string(argument) + "' is not HOST[:PORT]");
        return kExitUsage;
      }
    } else {
      usage();
      return kExitUsage;
    }
  }
  if (!target || !configPath) return usage(), kExitUsage;

  std::string problem;
  ZRBValue map = orvelReadPinningConfiguration(*configPath, problem);
  if (map.isAbsent()) {
    complain(*configPath + ": " + problem);
    return kExitUsage;
  }
  ZRB_PGDConfigurationPtr configuration;
  try {
    configuration = zrb_parsePinGuardConfiguration(map);
  } catch (const ZRBException& exception) {
    complain(*configPath + ": " + exception.reason());
    return kExitUsage;
  }
  if (verbose)
    ZRB_PGDSetLoggerBlock([](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });

  auto observerQueue = ZRBDispatchQueue::serial("orvel.pin-check.observer");
  auto observation = std::make_shared<Observation>();
  auto validator = ZRB_PGDPinningValidator::initWithDomainPinningPolicies(
      configuration->pinnedDomains, ZRB_PGDSPKIHashCache::initWithIdentifier("spki-hash.cache"), false,
      observerQueue,
      [observation](const ZRB_PGDPinningValidatorResultPtr& result, const std::string& noted,
                    const ZRB_PGDDomainPolicyPtr& policy) {
        *observation = {result, noted, policy};
      });

  auto sessionConfiguration = ZRBURLSessionConfiguration::ephemeralSessionConfiguration();
  sessionConfiguration->setResolveEntries(resolve);
  sessionConfiguration->setTimeoutIntervalForRequest(30);
  auto delegate = std::make_shared<PinCheckDelegate>(validator);
  auto session = ZRBURLSession::sessionWithConfiguration(sessionConfiguration, delegate, nullptr);
  bool bracket = target->host.find(':') != std::string::npos;
  auto url = ZRBURL::URLWithString("https://" + (bracket ? "[" + target->host + "]" : target->host) + ":" +
                                   std::to_string(target->port) + "/");
  if (!url) {
    complain("'" + target->host + "' is not a host name");
    return kExitUsage;
  }
  session->dataTaskWithURL(url)->resume();
  delegate->wait();
  session->invalidateAndCancel();
  // The session lets go of its delegate (the validator and the server's chain, OpenSSL objects) on
  // its delegate queue right after reporting itself invalid. Once that block is over, the last
  // references are this thread's, so they are not freed beside OpenSSL's clean-up at exit.
  delegate->waitUntilInvalid();
  session->delegateQueue()->sync([] {});
  observerQueue->sync([] {});

  std::optional<PGDTrustDecision> decision = delegate->decision();
  if (!decision) {
    ZRBErrorPtr error = delegate->error();
    complain("no TLS connection to " + target->host + ":" + std::to_string(target->port) + ": " +
             (error ? error->localizedDescription() : std::string("no server certificate")));
    return kExitNoConnection;
  }
  std::printf("host: %s:%ld\n", target->host.c_str(), target->port);
  std::printf("decision: %s (%ld)\n", decisionName(*decision), static_cast<long>(*decision));
  if (observation->result) {
    std::printf("policy: %s\n", observation->notedHostname.c_str());
    PGDTrustEvaluationResult result = observation->result->evaluationResult();
    std::printf("result: %s (%ld)\n", resultName(result), static_cast<long>(result));
  }
  std::printf("chain:\n");
  for (const ZRBSecCertificatePtr& certificate : delegate->trust()->certificates()) {
    ZRBSecKeyPtr key = certificate->copyKey();
    std::printf("  subject: %s\n", certificate->copySubjectSummary().value_or("(none)").c_str());
    std::printf("  pin: %s\n",
                key ? ZRBBase64Encode(key->subjectPublicKeyInfoSHA256()).c_str() : "(unsupported key)");
  }
  std::fflush(stdout);

  if (report && observation->result &&
      observation->result->evaluationResult() != PGDTrustEvaluationResultSuccess) {
    sendReport(*target, *observation);
  }
  ZRB_PGDSetLoggerBlock(nullptr);
  switch (*decision) {
    case PGDTrustDecisionShouldAllowConnection: return 0;
    case PGDTrustDecisionShouldBlockConnection: return 1;
    case PGDTrustDecisionDomainNotPinned: return 3;
  }
  return 1;
}
