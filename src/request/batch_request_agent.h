// ZRBRQ_BatchRequestAgent: the process-wide holder of running batches.
//
// A started batch adds itself and removes itself once it has reported or been stopped, so a caller
// need not keep its own reference. Batches may be added and removed from any thread; both happen
// under the agent's lock, and a batch that removal releases is destroyed after the lock is let go.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "platform/foundation/object.h"

class ZRBRQ_BatchRequest;
class ZRBRQ_BatchRequestAgent;
using ZRBRQ_BatchRequestAgentPtr = std::shared_ptr<ZRBRQ_BatchRequestAgent>;

class ZRBRQ_BatchRequestAgent final : public ZRBObject {
 public:
  // The single agent, created on first use (thread-safe) and kept for the process.
  static const ZRBRQ_BatchRequestAgentPtr& sharedAgent();

  // Appends (a batch added twice is held twice). A null batch is a programming error.
  void addBatchRequest(const std::shared_ptr<ZRBRQ_BatchRequest>& request);
  // Removes every occurrence of that batch, by identity.
  void removeBatchRequest(const std::shared_ptr<ZRBRQ_BatchRequest>& request);
  // A snapshot of the running batches, in the order added.
  std::vector<std::shared_ptr<ZRBRQ_BatchRequest>> requestArray() const;

  std::string className() const override { return "ZRBRQ_BatchRequestAgent"; }

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<ZRBRQ_BatchRequest>> requestArray_;
};
