#include "request/batch_request_agent.h"

#include <algorithm>
#include <utility>

#include "platform/foundation/assert.h"
#include "request/batch_request.h"

const ZRBRQ_BatchRequestAgentPtr& ZRBRQ_BatchRequestAgent::sharedAgent() {
  // Never destroyed: batches still held at exit would otherwise stop their members while the
  // network agent's own static may already be gone.
  static const auto* agent = new ZRBRQ_BatchRequestAgentPtr(std::make_shared<ZRBRQ_BatchRequestAgent>());
  return *agent;
}

void ZRBRQ_BatchRequestAgent::addBatchRequest(const std::shared_ptr<ZRBRQ_BatchRequest>& request) {
  ZRBAssertNamed(request != nullptr, "request != nil");
  if (!request) return;
  std::lock_guard lock(mutex_);
  requestArray_.push_back(request);
}

void ZRBRQ_BatchRequestAgent::removeBatchRequest(const std::shared_ptr<ZRBRQ_BatchRequest>& request) {
  std::vector<std::shared_ptr<ZRBRQ_BatchRequest>> removed;  // destroyed outside the lock
  std::lock_guard lock(mutex_);
  const auto end = std::stable_partition(requestArray_.begin(), requestArray_.end(),
                                         [&](const auto& held) { return held != request; });
  std::move(end, requestArray_.end(), std::back_inserter(removed));
  requestArray_.erase(end, requestArray_.end());
}

std::vector<std::shared_ptr<ZRBRQ_BatchRequest>> ZRBRQ_BatchRequestAgent::requestArray() const {
  std::lock_guard lock(mutex_);
  return requestArray_;
}
