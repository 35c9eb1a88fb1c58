#include "OrvUrlSessionTaskOperationObjC.h"

#include <utility>

OrvUrlSessionTaskOperationObjC::OrvUrlSessionTaskOperationObjC(std::shared_ptr<OrvURLSession> urlSession)
    : urlSession_(std::move(urlSession)) {}

std::shared_ptr<OrvURLSession> OrvUrlSessionTaskOperationObjC::urlSession() const {
  std::lock_guard lock(mutex_);
  return urlSession_;
}

void OrvUrlSessionTaskOperationObjC::coreCompleteOperation() {
  std::shared_ptr<OrvURLSession> session;
  std::shared_ptr<OrvURLSessionDataTask> task;
  {
    std::lock_guard lock(mutex_);
    session.swap(urlSession_);
    task.swap(task_);
  }
  moveToFinishedState();
}

void OrvUrlSessionTaskOperationObjC::setSessionTaskOperationHandle(std::shared_ptr<OrvURLSessionDataTask> task) {
  bool cancelNow = false;
  {
    std::lock_guard lock(mutex_);
    task_ = task;
    cancelNow = cancelSeen_ && !isFinished();
  }
  // A cancel that raced with building the request still reaches the task.
  if (cancelNow && task) task->cancel();
}

std::shared_ptr<OrvURLSessionDataTask> OrvUrlSessionTaskOperationObjC::sessionTaskOperationHandle() const {
  std::lock_guard lock(mutex_);
  return task_;
}

void OrvUrlSessionTaskOperationObjC::setCompletionError(std::optional<OrvError> error) {
  std::lock_guard lock(mutex_);
  completionError_ = std::move(error);
}

std::optional<OrvError> OrvUrlSessionTaskOperationObjC::completionError() const {
  std::lock_guard lock(mutex_);
  return completionError_;
}

void OrvUrlSessionTaskOperationObjC::didCancel() {
  std::shared_ptr<OrvURLSessionDataTask> task;
  {
    std::lock_guard lock(mutex_);
    cancelSeen_ = true;
    if (!isFinished()) task = task_;
  }
  // The task's cancel may complete it on another thread; no lock of ours is held meanwhile.
  if (task) task->cancel();
}
