// ZRBRQ_NetworkAgent: the process-wide object that runs requests.
//
// For each ZRBRQ_BaseRequest it builds the full URL (an absolute request URL as it is; a relative
// one through the configuration's URL filters, then resolved against the request's or the
// configuration's base or CDN URL), chooses and configures a request serializer, creates a data or
// download task on its HTTP session manager, keeps the request in a table keyed by task identifier
// and resumes the task. When the task completes, the result is handled on the processing queue
// ("com.velkit.networkagent.processing", the session manager's completion queue): the body is
// decoded for the request's response serializer kind under the agent's lock, the status code and
// the JSON body are validated, and exactly one success or failure goes to the request's
// accessories, delegate and callbacks on the main queue (see base_request.h), followed there by
// the clean-up that removes the request from the table and clears its callbacks (in the same
// main-queue block, right after the callbacks, also when one of them throws).
//
// The session layer accepts every status from 100 to 599; the request's statusCodeValidator()
// decides success. A rejected status code fails with a null error; a JSON body that its validator
// rejects fails with "com.velkit.request.validation" code -9, "Invalid JSON format".
//
// Per-request work that does not depend on the request is done once: requests that set no header
// fields and no authorization share one configured serializer per (serializer kind, DELETE or not,
// timeout, cellular access), since serializers build requests concurrently; the last request URL
// and base URL parsed on a thread are remembered; log arguments are only gathered when the log is
// on. The lock guards the table and is held while a result's response fields are written and its
// body decoded (decoding of different results is serialised); a table entry also keeps its task,
// so that the finished run is cleaned up without asking the request again.
//
// Resumable downloads keep partial data in the temporary directory's "Incomplete" folder, under the
// MD5 of the download path; resume data are written there when a download fails or is cancelled
// and used by the next download to the same path when they are valid.
//
// Pinning: the agent keeps a pin guard built by ZRBNetworkPinGuard::trustDomains from the domain
// list it was made for (at first the settings' allDomains). A request URL with a host that the list
// lacks rebuilds both from allDomains plus that host, so an extra host added earlier drops out when
// another unknown one arrives. The server-trust challenge is answered by the agent's session-level
// hook: with the settings' isRealStgEnv the trust is accepted without evaluation; otherwise the pin
// guard's validator judges it (blocked, allowed, or left to default handling when not pinned), and
// without a pin guard the session's default handling applies.
//
// Threads: addRequest, cancelRequest and buildRequestUrl run on the caller's thread; results on the
// processing queue; callbacks and clean-up on the main queue. The lock is never held while calling
// out to request callbacks or stop(). A null request is a programming error ("request != nil").
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "http/http_session_manager.h"
#include "http/json_response_serializer.h"
#include "http/xml_parser_response_serializer.h"
#include "pinning/pin_guard.h"
#include "platform/foundation/index_set.h"
#include "platform/foundation/object.h"
#include "platform/runtime/dispatch.h"
#include "request/base_request.h"
#include "request/network_config.h"

class ZRBRQ_NetworkAgent;
using ZRBRQ_NetworkAgentPtr = std::shared_ptr<ZRBRQ_NetworkAgent>;

class ZRBRQ_NetworkAgent final : public ZRBObject {
 public:
  // The single agent, created on first use (thread-safe) and kept for the process.
  static const ZRBRQ_NetworkAgentPtr& sharedAgent();
  // A fresh agent set up as the shared one is (tests and hosts that want their own).
  static ZRBRQ_NetworkAgentPtr init();

  void addRequest(const ZRBRQ_BaseRequestPtr& request);
  void cancelRequest(const ZRBRQ_BaseRequestPtr& request);
  void cancelAllRequests();
  std::string buildRequestUrl(const ZRBRQ_BaseRequestPtr& request);

  ZRBHS_HTTPSessionManagerPtr manager() const;
  // Replace the session manager only: the new one keeps its own defaults (security policy,
  // response serializer, completion queue, challenge hook are not applied again).
  void resetURLSessionManager();
  void resetURLSessionManagerWithConfiguration(ZRBURLSessionConfigurationPtr configuration);

  // "<tmp>/Incomplete", created on every call; nullopt when it cannot be created.
  static std::optional<std::string> incompleteDownloadTempCacheFolder();
  // The file URL of the folder joined with the MD5 of `downloadPath`; null without a folder.
  static ZRBURLPtr incompleteDownloadTempPathForDownloadPath(const std::string& downloadPath);

  // ---- steps, public for the request layer and its tests ----
  // A new serializer configured for the request; null for an unknown serializer kind.
  ZRBHS_HTTPRequestSerializerPtr requestSerializerForRequest(const ZRBRQ_BaseRequestPtr& request);
  // Null (error set when the serializer failed) when no task could be made.
  ZRBURLSessionTaskPtr sessionTaskForRequest(const ZRBRQ_BaseRequestPtr& request, ZRBErrorPtr* error);
  bool validateResult(const ZRBRQ_BaseRequestPtr& request, ZRBErrorPtr* error);
  const ZRBHS_JSONResponseSerializerPtr& jsonResponseSerializer();
  // The spelling is the field's established name.
  const ZRBHS_XMLParserResponseSerializerPtr& xmlParserResponseSerialzier();
  const ZRBIndexSet& allStatusCodes() const { return allStatusCodes_; }
  const ZRBDispatchQueuePtr& processingQueue() const { return processingQueue_; }
  // Requests in flight.
  std::size_t requestCount() const;
  // The pin guard (null when the settings leave pinning off) and the domains it was built from.
  ZRB_PinGuardPtr pinGuard() const;
  std::vector<std::string> pinGuardDomains() const;

  std::string className() const override { return "ZRBRQ_NetworkAgent"; }

  ZRBRQ_NetworkAgent() = default;

 private:
  ZRBURLSessionTaskPtr dataTask(std::string_view method, const ZRBHS_HTTPRequestSerializerPtr& serializer,
                                const std::string& URLString, const ZRBValue& parameters,
                                const ZRBRQ_BaseRequest::ConstructingBodyBlock& block, ZRBErrorPtr* error);
  ZRBURLSessionTaskPtr downloadTask(const std::string& downloadPath,
                                    const ZRBHS_HTTPRequestSerializerPtr& serializer,
                                    const std::string& URLString, const ZRBValue& parameters,
                                    const ZRBRQ_BaseRequest::ProgressBlock& progress, ZRBErrorPtr* error);
  // What the completion of one task knows: the agent (weakly) and the task's identifier, which is
  // filled in once the task exists. One allocation, and the completion holds one pointer.
  struct PendingTask {
    std::weak_ptr<ZRBRQ_NetworkAgent> agent;
    unsigned long identifier = 0;
  };
  std::shared_ptr<PendingTask> pendingTask();
  // The completion of every task: hands the result to handleRequestResult under the identifier.
  static ZRBHS_TaskCompletionHandler completionFor(const std::shared_ptr<PendingTask>& pending);
  void handleRequestResult(unsigned long taskIdentifier, const ZRBURLResponsePtr& response,
                           const ZRBValue& responseObject, const ZRBErrorPtr& error);
  // What requestSerializerForRequest reads of a request, read once.
  struct SerializerSettings {
    ZRBRQ_RequestSerializerType kind;
    bool isDelete;
    double timeout;
    bool cellular;
    std::optional<std::vector<std::string>> authorization;
    std::optional<ZRBRQ_BaseRequest::HeaderMap> headers;
    // Nothing beyond the key fields: an equal serializer may be shared.
    bool shareable() const {
      return (!authorization || authorization->empty()) && (!headers || headers->empty());
    }
  };
  static SerializerSettings serializerSettings(const ZRBRQ_BaseRequestPtr& request);
  static ZRBHS_HTTPRequestSerializerPtr makeSerializer(const SerializerSettings& settings);
  // The serializer a task is built with: a shared one when the settings allow it.
  ZRBHS_HTTPRequestSerializerPtr taskSerializerForRequest(const ZRBRQ_BaseRequestPtr& request);
  // `finished`: the task that reported, whose run the main-queue block then cleans up (removes
  // the request from the table and clears its callbacks once they have run); null for a failure
  // before the task exists, which has no clean-up.
  void requestDidSucceedWithRequest(const ZRBRQ_BaseRequestPtr& request, ZRBURLSessionTaskPtr finished);
  void requestDidFailWithRequest(const ZRBRQ_BaseRequestPtr& request, const ZRBErrorPtr& error,
                                 ZRBURLSessionTaskPtr finished);
  // The request may run a new task by now: then only the finished task's entry goes.
  void cleanUpRequest(const ZRBRQ_BaseRequestPtr& request, const ZRBURLSessionTaskPtr& finished);
  // Runs the success or failure callbacks on the main queue, then the clean-up of `finished`
  // (also when a callback throws).
  void deliverOnMainQueue(const ZRBRQ_BaseRequestPtr& request, bool succeeded, ZRBURLSessionTaskPtr finished);
  void addRequestToRecord(const ZRBRQ_BaseRequestPtr& request, const ZRBURLSessionTaskPtr& task);
  void removeRequestFromRecord(const ZRBRQ_BaseRequestPtr& request);
  void removeRecordOfTask(const ZRBRQ_BaseRequestPtr& request, const ZRBURLSessionTaskPtr& task);
  static void writeResumeData(const ZRBValue& resumeData, const std::optional<std::string>& downloadPath);

  // Answers a server-trust challenge in the handshake (transport thread).
  ZRBURLSessionAuthChallengeDisposition answerChallenge(const ZRBURLAuthenticationChallengePtr& challenge);
  // Rebuilds the pin guard when `host` is not among the pinned domains.
  void widenPinGuardDomains(const std::string& host);

  mutable std::mutex pinMutex_;  // over the pin guard and its domains, held through a rebuild
  ZRB_PinGuardPtr pinGuard_;
  std::vector<std::string> pinGuardDomains_;
  // Replaced only by the reset operations; read for every task.
  std::atomic<ZRBHS_HTTPSessionManagerPtr> manager_;
  ZRBRQ_NetworkConfigPtr config_;
  struct SharedSerializer {
    ZRBRQ_RequestSerializerType kind;
    bool isDelete;
    double timeout;
    bool cellular;
    ZRBHS_HTTPRequestSerializerPtr serializer;
  };
  // Requests that share a serializer: more distinct combinations get their own each time. Entries
  // below the count are published (written before the count's release) and never change again.
  std::mutex serializersMutex_;  // over adding entries
  std::array<SharedSerializer, 16> sharedSerializers_;
  std::atomic<std::size_t> sharedSerializerCount_{0};
  std::once_flag jsonOnce_;
  ZRBHS_JSONResponseSerializerPtr jsonResponseSerializer_;
  std::once_flag xmlOnce_;
  ZRBHS_XMLParserResponseSerializerPtr xmlParserResponseSerialzier_;
  // A request in flight and the task it was recorded with (the one whose completion finds it).
  struct Record {
    ZRBRQ_BaseRequestPtr request;
    ZRBURLSessionTaskPtr task;
  };
  using RecordTable = std::unordered_map<unsigned long, Record>;
  RecordTable requestsRecord_;
  // Entries removed from the table, kept for the next requests so that recording one allocates
  // nothing (bounded, see removeRecordOfTask).
  std::vector<RecordTable::node_type> spareRecords_;
  ZRBDispatchQueuePtr processingQueue_;
  mutable std::mutex lock_;
  ZRBIndexSet allStatusCodes_;
};
