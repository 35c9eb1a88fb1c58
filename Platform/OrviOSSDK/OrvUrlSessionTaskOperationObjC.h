#pragma once
// An asynchronous operation that owns a URL session and one session task. Cancelling a running
// operation cancels its task.
#include <memory>
#include <mutex>
#include <optional>

#include "OrvError.h"
#include "OrvOperation.h"
#include "OrvURLSession.h"

class OrvUrlSessionTaskOperationObjC : public OrvOperation {
 public:
  explicit OrvUrlSessionTaskOperationObjC(std::shared_ptr<OrvURLSession> urlSession);

  bool isAsynchronous() const override { return true; }

  // Nothing once the operation has finished: a finished operation that someone still holds must not
  // keep the session (and its I/O thread) alive.
  std::shared_ptr<OrvURLSession> urlSession() const;

  void setSessionTaskOperationHandle(std::shared_ptr<OrvURLSessionDataTask> task);
  std::shared_ptr<OrvURLSessionDataTask> sessionTaskOperationHandle() const;

  void setCompletionError(std::optional<OrvError> error);
  std::optional<OrvError> completionError() const;

  using OrvOperation::moveToExecutingState;

 protected:
  // Marks the operation finished, which releases it from its queue and runs its completion block.
  // Marks the operation finished and lets go of the session and the task.
  void coreCompleteOperation();
  void didCancel() override;

 private:
  std::shared_ptr<OrvURLSession> urlSession_;
  mutable std::mutex mutex_;
  std::shared_ptr<OrvURLSessionDataTask> task_;
  std::optional<OrvError> completionError_;
  // Set by didCancel(), so that a task stored after the cancel is cancelled as it arrives.
  bool cancelSeen_ = false;
};
