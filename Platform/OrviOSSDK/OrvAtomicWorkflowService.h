#pragma once
// A service base class that runs workflows one at a time. A workflow begins with the operation given
// to startAtomicWorkflowWithOperation and lasts until endAtomicWorkflow, across any number of
// operations it adds to operationQueue meanwhile; those never wait behind the next workflow.
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "OrvOperationQueue.h"

class OrvAtomicWorkflowService {
 public:
  explicit OrvAtomicWorkflowService(std::string operationQueueName);
  // Cancels every operation of the queue, running ones included; workflows still waiting end cancelled.
  virtual ~OrvAtomicWorkflowService();

  // Starts the operation now if no workflow is active, otherwise after the workflows queued before it.
  void startAtomicWorkflowWithOperation(std::shared_ptr<OrvOperation> operation);
  // Ends the active workflow and starts the next queued one. From any thread; without an active
  // workflow it does nothing.
  void endAtomicWorkflow();

  OrvOperationQueue& operationQueue() noexcept { return *operationQueue_; }

 private:
  std::unique_ptr<OrvOperationQueue> operationQueue_;
  std::mutex mutex_;
  std::deque<std::shared_ptr<OrvOperation>> pendingWorkflows_;
  bool workflowActive_ = false;
};
