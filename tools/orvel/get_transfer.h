// How `orvel get` runs its one request (get_request.h says which path it takes): through a network
// agent of its own, or as a task of that agent's session manager. The manager is set up for what
// the agent leaves to its host: without -L a redirect is answered by the 3xx response itself;
// --cacert answers server-trust challenges with its anchors instead of the agent's handler; the
// progress bars follow the session's byte counters. -k is the agent's own staging switch (the
// settings' isRealStgEnv), under which it accepts any certificate.
//
// The agent is made with the transfer, after the session configuration (--resolve) and any
// pinning are in place, so that its session is covered; its session is invalidated when the
// transfer goes, which waits until the session has let go of its manager and transport thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "get_request.h"
#include "platform/security/sec_certificate.h"

class OrvelTransfer {
 public:
  struct Settings {
    bool followRedirects = false;
    bool insecure = false;
    // --cacert: the only anchors a server chain may end at; empty for the system's own checks.
    std::vector<ZRBSecCertificatePtr> anchors;
    std::vector<std::string> resolve;
    bool showProgress = false;
  };
  struct Outcome {
    ZRBHTTPURLResponsePtr response;
    ZRBValue body;      // what arrived, unless it went to a file
    ZRBURLPtr file;     // a download's finished file
    ZRBErrorPtr error;  // null when only the status was refused
    bool interrupted = false;
    ZRBValue resumeData;  // what an interrupted download left to continue from
    bool fromCache = false;
  };

  explicit OrvelTransfer(Settings settings);
  ~OrvelTransfer();
  OrvelTransfer(const OrvelTransfer&) = delete;
  OrvelTransfer& operator=(const OrvelTransfer&) = delete;

  ZRBRQ_NetworkAgent& agent() { return *agent_; }
  // --cacert did not trust the server's chain.
  bool trustRejected() const;

  // Sends `request` through the agent, or `sessionRequest` when there is one through the session
  // manager, and waits until it has ended. A request with a cache time is answered from the
  // request cache when that holds a valid entry (the body only: no response). `interrupted` is asked every
  // 100 ms; the first time it answers true the transfer is cancelled (a download producing resume data) and
  // the wait goes on.
  Outcome run(const std::shared_ptr<OrvelGetRequest>& request, const ZRBURLRequestPtr& sessionRequest,
              const std::function<bool()>& interrupted);

 private:
  struct State;
  std::shared_ptr<State> state_;  // shared with the manager's hooks
  ZRBRQ_NetworkAgentPtr agent_;
};
