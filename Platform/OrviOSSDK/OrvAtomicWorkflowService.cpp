#include "OrvAtomicWorkflowService.h"

#include <utility>
#include <vector>

OrvAtomicWorkflowService::OrvAtomicWorkflowService(std::string operationQueueName)
    : operationQueue_(std::make_unique<OrvOperationQueue>(std::move(operationQueueName))) {}

OrvAtomicWorkflowService::~OrvAtomicWorkflowService() {
  // Nobody is left to hear the answers. Every operation of the queue is cancelled, which aborts
  // transfers in flight at once rather than letting them hold their session and connection until the
  // server answers or times out; workflows that never got their turn end cancelled without running,
  // so their completion blocks still see them finish.
  std::deque<std::shared_ptr<OrvOperation>> pending;
  {
    std::lock_guard lock(mutex_);
    pending.swap(pendingWorkflows_);
  }
  std::vector<std::shared_ptr<OrvOperation>> operations;
  for (auto& operation : pending) {
    operation->cancel();
    operations.push_back(std::move(operation));
  }
  operationQueue_->cancelAllOperations();
  if (!operations.empty()) operationQueue_->addOperations(std::move(operations));
}

void OrvAtomicWorkflowService::startAtomicWorkflowWithOperation(std::shared_ptr<OrvOperation> operation) {
  if (!operation) return;
  {
    std::lock_guard lock(mutex_);
    if (workflowActive_) {
      // Held here rather than in the queue: the active workflow's own operations must not queue
      // up behind it.
      pendingWorkflows_.push_back(std::move(operation));
      return;
    }
    workflowActive_ = true;
  }
  operationQueue_->addOperation(std::move(operation));
}

void OrvAtomicWorkflowService::endAtomicWorkflow() {
  std::shared_ptr<OrvOperation> next;
  {
    std::lock_guard lock(mutex_);
    if (!workflowActive_) return;
    if (pendingWorkflows_.empty()) {
      workflowActive_ = false;
      return;
    }
    next = std::move(pendingWorkflows_.front());
    pendingWorkflows_.pop_front();
  }
  operationQueue_->addOperation(std::move(next));
}
