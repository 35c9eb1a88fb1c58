#include "OrvOperationQueue.h"
#include "OrvOperationQueueTesting.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "OrvOperationQueueState.h"
#include "OrvWorkerPool.h"

namespace orv::detail {
namespace {

// Set while a worker runs a turn (one task, or one share of a batch): actions for the turn's end, and
// work for the pool that the turn handed over.
thread_local std::vector<std::function<void()>>* tlsDeferred = nullptr;
thread_local std::vector<std::function<void()>>* tlsDeferredPosts = nullptr;

void runCatchingEverything(std::function<void()>& task) noexcept {
  try {
    if (task) task();
  } catch (...) {
    // A task that throws must not take its neighbours in the batch with it.
  }
  // Whatever the task captured goes now, not when the whole batch is done.
  task = nullptr;
}

// Throws when the pool cannot take the tasks; `tasks` then still holds them all.
void shareOut(std::vector<std::function<void()>>& tasks, bool keepOneShareHere);
void stopAndJoinLoopThreads() noexcept;

// Runs every `stride`-th task from `first`; then what the turn deferred to its end; then the work it
// handed to the pool, of which this thread keeps a share rather than sleep while another wakes for it.
void runTurn(std::vector<std::function<void()>>& tasks, std::size_t first, std::size_t stride) noexcept {
  std::vector<std::function<void()>> deferred;
  std::vector<std::function<void()>> posts;
  tlsDeferred = &deferred;
  tlsDeferredPosts = &posts;
  for (std::size_t i = first; i < tasks.size(); i += stride) runCatchingEverything(tasks[i]);
  tlsDeferred = nullptr;
  tlsDeferredPosts = nullptr;
  for (auto& action : deferred) runCatchingEverything(action);
  if (posts.empty()) return;
  try {
    shareOut(posts, true);
  } catch (...) {
    // No memory to hand them over: they run here, late rather than never.
    for (auto& task : posts) runCatchingEverything(task);
  }
}

// One pool for the process. Its threads are joined when the process exits (after main returns, before
// OpenSSL's own clean-up, which is set up first for that reason): work still queued then, such as the
// cancelled transfers of a service released just before, runs to its end first, so that no curl or
// OpenSSL state is ever freed by a thread nobody waits for. The object itself stays allocated: a
// static destroyed after it may still hand it work, which is then dropped.
class WorkerPool {
 public:
  static WorkerPool& shared() {
    static WorkerPool* const pool = [] {
      OPENSSL_init_crypto(0, nullptr);
      return new WorkerPool(std::max<std::size_t>(4, 2 * std::thread::hardware_concurrency()));
    }();
    static const ExitJoiner joiner{*pool};
    return *pool;
  }

  void post(std::function<void()> task) {
    if (failuresToInject_.load(std::memory_order_relaxed) > 0 && failuresToInject_.fetch_sub(1) > 0) throw std::bad_alloc();
    {
      std::lock_guard lock(mutex_);
      if (joined_) return;
      tasks_.push_back(std::move(task));
    }
    available_.notify_one();
  }

  void postAll(std::vector<std::function<void()>> tasks) {
    if (tasks.empty()) return;
    if (failuresToInject_.load(std::memory_order_relaxed) > 0 && failuresToInject_.fetch_sub(1) > 0) throw std::bad_alloc();
    {
      std::lock_guard lock(mutex_);
      if (joined_) return;
      for (auto& task : tasks) tasks_.push_back(std::move(task));
    }
    for (std::size_t i = 0; i < tasks.size(); ++i) available_.notify_one();
  }

  std::size_t workerCount() const noexcept { return threads_.size(); }

  // A session's I/O thread may run a turn of its own (runAsTurn), and that turn may hold the last
  // references of a request whose result main() has already received. Exit waits for such turns as
  // it waits for the workers' tasks, so that what they release is released before the process ends.
  void beginOutsideTurn() {
    std::lock_guard lock(mutex_);
    ++outsideTurns_;
  }
  void endOutsideTurn() {
    {
      std::lock_guard lock(mutex_);
      --outsideTurns_;
    }
    outsideTurnsEnded_.notify_all();
  }

  void injectFailures(int count) { failuresToInject_.store(count); }

 private:
  struct ExitJoiner {
    WorkerPool& pool;
    // Loop threads after the workers: the last work of a session's loop holds exit like a worker's
    // task, and only once it is done are the threads it leaves idle asked to end.
    ~ExitJoiner() {
      pool.stopAndJoin();
      stopAndJoinLoopThreads();
    }
  };

  explicit WorkerPool(std::size_t workers) {
    for (std::size_t i = 0; i < workers; ++i) {
      try {
        threads_.emplace_back([this] { work(); });
      } catch (const std::system_error&) {
        // Fewer workers than asked for still drain the queue.
      }
    }
  }

  void stopAndJoin() {
    {
      std::unique_lock lock(mutex_);
      outsideTurnsEnded_.wait(lock, [this] { return outsideTurns_ == 0; });
      stopping_ = true;
    }
    available_.notify_all();
    for (auto& thread : threads_) {
      if (thread.joinable() && thread.get_id() != std::this_thread::get_id()) thread.join();
    }
    std::deque<std::function<void()>> dropped;
    {
      std::lock_guard lock(mutex_);
      joined_ = true;
      dropped.swap(tasks_);
    }
  }

  void work() {
    for (;;) {
      std::function<void()> task;
      {
        std::unique_lock lock(mutex_);
        available_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
        // Stopping drains first: what was queued is owed to someone.
        if (tasks_.empty()) return;
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
      std::vector<std::function<void()>> turn;
      turn.push_back(std::move(task));
      runTurn(turn, 0, 1);
    }
  }

  std::mutex mutex_;
  std::condition_variable available_;
  std::deque<std::function<void()>> tasks_;
  std::vector<std::thread> threads_;
  bool stopping_ = false;
  bool joined_ = false;
  std::size_t outsideTurns_ = 0;
  std::condition_variable outsideTurnsEnded_;
  std::atomic<int> failuresToInject_{0};
};

// Threads for loops that run as long as their owner wants (a session's I/O loop), kept for the next
// such loop once theirs has returned: a thread of its own cost every new session a thread's start and
// the first use of TLS state on it, about 0.2 ms of a fresh request here. At most kIdleKept wait; the
// others end. Never destroyed; the worker pool's exit joins the idle and ended ones after its own
// workers. A loop still running then (a session nobody released) keeps its thread until the process
// ends, as it always did.
class LoopThreads {
 public:
  static LoopThreads& shared() {
    static LoopThreads* const threads = [] {
      WorkerPool::shared();  // its exit, which ends these threads too, must be set up first
      auto* made = new LoopThreads;
      created_.store(made, std::memory_order_release);
      return made;
    }();
    return *threads;
  }
  static LoopThreads* ifCreated() noexcept { return created_.load(std::memory_order_acquire); }

  bool run(std::function<void()>& loop, std::function<void()>& then) {
    std::vector<std::thread> ended;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return false;
      if (!idle_.empty()) {
        Thread* thread = idle_.back();
        idle_.pop_back();
        thread->loop = std::move(loop);
        thread->then = std::move(then);
        thread->wake.notify_one();
      } else {
        // Throws before anything changed hands, or not at all.
        all_.push_back(std::make_unique<Thread>());
        Thread* thread = all_.back().get();
        try {
          thread->thread = std::thread([this, thread] { serve(thread); });
        } catch (...) {
          all_.pop_back();
          return false;
        }
        thread->loop = std::move(loop);
        thread->then = std::move(then);
      }
      ended.swap(ended_);
    }
    // Threads that ended have left their loop, so these joins do not wait on anything of ours.
    for (auto& thread : ended) thread.join();
    return true;
  }

  void stopAndJoin() noexcept {
    std::vector<std::thread> joining;
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      joining.swap(ended_);
      for (Thread* thread : idle_) {
        thread->stop = true;
        thread->wake.notify_one();
        try {
          joining.push_back(std::move(thread->thread));
        } catch (...) {
          // No room to keep the handle: the thread is about to end, and is let go.
          thread->thread.detach();
        }
      }
      idle_.clear();
    }
    for (auto& thread : joining) {
      if (thread.joinable() && thread.get_id() != std::this_thread::get_id()) thread.join();
    }
  }

 private:
  static constexpr std::size_t kIdleKept = 2;

  struct Thread {
    std::thread thread;
    std::function<void()> loop, then;
    bool stop = false;
    std::condition_variable wake;
  };

  LoopThreads() = default;

  void serve(Thread* self) noexcept {
    std::unique_lock lock(mutex_);
    for (;;) {
      self->wake.wait(lock, [self] { return self->loop || self->stop; });
      if (!self->loop) break;
      auto loop = std::move(self->loop);
      auto then = std::move(self->then);
      self->loop = nullptr;
      self->then = nullptr;
      lock.unlock();
      runCatchingEverything(loop);
      lock.lock();
      // Back among the idle before `then` says the loop is over, so that whoever was waiting for that
      // and starts the next loop finds this thread.
      bool staying = !stopping_ && idle_.size() < kIdleKept;
      if (staying) {
        try {
          idle_.push_back(self);
        } catch (...) {
          staying = false;  // no room to wait among the idle: end instead
        }
      }
      lock.unlock();
      runCatchingEverything(then);
      lock.lock();
      if (!staying) break;
    }
    // Leaving: the handle goes to whoever joins next (a later run, or exit). When exit took it
    // already, it is empty, and nothing is owed.
    const auto it = std::find_if(all_.begin(), all_.end(), [self](const auto& thread) { return thread.get() == self; });
    if (it != all_.end()) {
      if ((*it)->thread.joinable()) {
        try {
          ended_.push_back(std::move((*it)->thread));
        } catch (...) {
          (*it)->thread.detach();
        }
      }
      all_.erase(it);
    }
  }

  static inline std::atomic<LoopThreads*> created_{nullptr};
  std::mutex mutex_;
  std::vector<std::unique_ptr<Thread>> all_;
  std::vector<Thread*> idle_;
  std::vector<std::thread> ended_;
  bool stopping_ = false;
};

void stopAndJoinLoopThreads() noexcept {
  if (auto* threads = LoopThreads::ifCreated()) threads->stopAndJoin();
}

}  // namespace

bool runOnLoopThread(std::function<void()>& loop, std::function<void()>& then) { return LoopThreads::shared().run(loop, then); }

void dispatchToWorkerPool(std::function<void()> task) { WorkerPool::shared().post(std::move(task)); }

bool isInWorkerTurn() noexcept { return tlsDeferredPosts != nullptr; }

void runAsTurn(std::vector<std::function<void()>>& tasks) noexcept {
  const ExitHold hold;
  runTurn(tasks, 0, 1);
}

namespace {
void shareOut(std::vector<std::function<void()>>& tasks, bool keepOneShareHere) {
  if (tasks.empty()) return;
  auto& pool = WorkerPool::shared();
  // More shares than cores only adds switching. Asking the system costs a read of /sys each time.
  static const std::size_t cores = std::max<std::size_t>(1, std::thread::hardware_concurrency());
  const std::size_t shares = std::min({tasks.size(), cores, std::max<std::size_t>(1, pool.workerCount())});
  auto all = std::make_shared<std::vector<std::function<void()>>>(std::move(tasks));
  tasks.clear();
  try {
    std::vector<std::function<void()>> posted;
    posted.reserve(shares);
    // Interleaved, so that each share gets early and late tasks alike and all finish at about one time.
    for (std::size_t share = keepOneShareHere ? 1 : 0; share < shares; ++share) {
      posted.emplace_back([all, share, shares] { runTurn(*all, share, shares); });
    }
    pool.postAll(std::move(posted));
  } catch (...) {
    tasks = std::move(*all);
    throw;
  }
  if (keepOneShareHere) runTurn(*all, 0, shares);
}
}  // namespace

ExitHold::ExitHold() { WorkerPool::shared().beginOutsideTurn(); }
ExitHold::~ExitHold() { WorkerPool::shared().endOutsideTurn(); }

void runSharedAsTurn(std::vector<std::function<void()>>& tasks) noexcept {
  const ExitHold hold;
  try {
    shareOut(tasks, true);
  } catch (...) {
    // No memory to hand shares over: all of them run here.
    runTurn(tasks, 0, 1);
  }
}

void dispatchBatchToWorkerPool(std::vector<std::function<void()>>& tasks) {
  if (tlsDeferredPosts) {
    // No reserve of the exact size: a turn that posts one task at a time (a verification per store)
    // would then move every task already gathered at each post.
    for (auto& task : tasks) tlsDeferredPosts->push_back(std::move(task));
    tasks.clear();
    return;
  }
  shareOut(tasks, false);
}

bool deferToEndOfTurn(std::function<void()> action) {
  if (!tlsDeferred) return false;
  tlsDeferred->push_back(std::move(action));
  return true;
}

void failNextWorkerPoolDispatchesForTesting(int count) { WorkerPool::shared().injectFailures(count); }

std::vector<std::shared_ptr<OrvOperation>> OperationQueueState::add(
    const std::vector<std::shared_ptr<OrvOperation>>& operations) {
  std::vector<std::shared_ptr<OrvOperation>> accepted;
  Starts starts;
  {
    std::lock_guard lock(mutex_);
    for (const auto& operation : operations) {
      if (!operation) continue;
      {
        std::lock_guard operationLock(operation->mutex_);
        if (operation->enqueued_ || operation->isFinished()) continue;
        operation->enqueued_ = true;
        operation->queue_ = weak_from_this();
      }
      waiting_.push_back(operation);
      accepted.push_back(operation);
    }
    if (!accepted.empty() && !keepAlive_) keepAlive_ = shared_from_this();
    starts = takeWhatMayStart();
  }
  post(starts);
  return accepted;
}

OperationQueueState::Starts OperationQueueState::takeWhatMayStart() {
  Starts starts;
  while (!waiting_.empty() && (maxConcurrent_ < 0 || started_.size() < static_cast<std::size_t>(maxConcurrent_))) {
    auto operation = std::move(waiting_.front());
    waiting_.pop_front();
    started_.emplace(operation.get(), operation);
    starts.operations.push_back(std::move(operation));
  }
  if (!starts.operations.empty()) starts.executor = executor_;
  return starts;
}

// Posted once the lock is let go: the first thing a started operation often does is add the next one
// to this queue, and a worker that wakes only to wait for the lock costs a switch each way. Two adders
// racing each other get no order between them anyway; one adder's operations start in the order added.
void OperationQueueState::post(Starts& starts) {
  if (starts.operations.empty()) return;
  // A few starts go where the queue's owner said its work happens (a session's I/O thread, for the
  // service's queries): the requests they make are then ready there without waking a worker to make
  // them. Many starts are shared out to the pool instead, where they run side by side.
  constexpr std::size_t kMostStartsOnExecutor = 16;
  if (starts.executor && starts.operations.size() <= kMostStartsOnExecutor) {
    try {
      std::function<void()> run = [operations = starts.operations] {
        for (const auto& operation : operations) operation->start();
      };
      if ((*starts.executor)(run)) return;
    } catch (...) {
      // Not taken; the pool starts them.
    }
  }
  // Asynchronous operations return from start() at once, so many of them can share a worker's turn:
  // a burst of requests then costs a few wake-ups rather than one each. Any other operation gets a
  // worker of its own, as it may take its time.
  std::vector<std::function<void()>> quickStarts;
  for (auto& operation : starts.operations) {
    const bool quick = operation->isAsynchronous();
    std::function<void()> start = [operation = std::move(operation)] { operation->start(); };
    if (quick) {
      quickStarts.push_back(std::move(start));
      continue;
    }
    if (!quickStarts.empty()) dispatchBatchToWorkerPool(quickStarts);
    dispatchToWorkerPool(std::move(start));
  }
  if (!quickStarts.empty()) dispatchBatchToWorkerPool(quickStarts);
}

void OperationQueueState::operationFinished(OrvOperation* operation) {
  // Declared before the lock so they are released after it: dropping the last references may
  // destroy the operation and this state.
  std::shared_ptr<OrvOperation> released;
  std::shared_ptr<OperationQueueState> keepAlive;
  Starts starts;
  {
    std::lock_guard lock(mutex_);
    if (const auto it = started_.find(operation); it != started_.end()) {
      released = std::move(it->second);
      started_.erase(it);
    } else {
      // Finished by someone else before its turn came.
      const auto it2 =
          std::find_if(waiting_.begin(), waiting_.end(), [operation](const auto& waiting) { return waiting.get() == operation; });
      if (it2 == waiting_.end()) return;
      released = std::move(*it2);
      waiting_.erase(it2);
    }
    starts = takeWhatMayStart();
    if (waiting_.empty() && started_.empty()) keepAlive = std::move(keepAlive_);
    finished_.notify_all();
  }
  post(starts);
}

std::vector<std::shared_ptr<OrvOperation>> OperationQueueState::snapshot(bool includeStarted) const {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<OrvOperation>> operations(waiting_.begin(), waiting_.end());
  if (includeStarted) {
    for (const auto& entry : started_) operations.push_back(entry.second);
  }
  return operations;
}

// didCancel() is the operation's code, so it runs outside the lock.
void OperationQueueState::cancelAll() {
  for (const auto& operation : snapshot(true)) operation->cancel();
}

void OperationQueueState::cancelWaiting() {
  for (const auto& operation : snapshot(false)) operation->cancel();
}

void OperationQueueState::waitUntilAllFinished() {
  std::unique_lock lock(mutex_);
  finished_.wait(lock, [this] { return waiting_.empty() && started_.empty(); });
}

void OperationQueueState::waitUntilFinished(const std::vector<std::shared_ptr<OrvOperation>>& operations) {
  std::unique_lock lock(mutex_);
  finished_.wait(lock, [&operations] {
    return std::all_of(operations.begin(), operations.end(), [](const auto& op) { return op->isFinished(); });
  });
}

std::size_t OperationQueueState::count() const {
  std::lock_guard lock(mutex_);
  return waiting_.size() + started_.size();
}

void OperationQueueState::setMaxConcurrent(long count) {
  Starts starts;
  {
    std::lock_guard lock(mutex_);
    maxConcurrent_ = count < 0 ? -1 : count;
    starts = takeWhatMayStart();
  }
  post(starts);
}

long OperationQueueState::maxConcurrent() const {
  std::lock_guard lock(mutex_);
  return maxConcurrent_;
}

void OperationQueueState::setUnderlyingExecutor(std::function<bool(std::function<void()>&)> executor) {
  auto shared = executor ? std::make_shared<const std::function<bool(std::function<void()>&)>>(std::move(executor)) : nullptr;
  std::lock_guard lock(mutex_);
  executor_ = std::move(shared);
}

}  // namespace orv::detail

OrvOperationQueue::OrvOperationQueue(std::string name)
    : name_(std::move(name)), state_(std::make_shared<orv::detail::OperationQueueState>()) {}

OrvOperationQueue::~OrvOperationQueue() { state_->cancelWaiting(); }

void OrvOperationQueue::addOperation(std::shared_ptr<OrvOperation> operation) { state_->add({std::move(operation)}); }

void OrvOperationQueue::addOperations(std::vector<std::shared_ptr<OrvOperation>> operations, bool waitUntilFinished) {
  const auto accepted = state_->add(operations);
  if (waitUntilFinished) state_->waitUntilFinished(accepted);
}

void OrvOperationQueue::addOperationWithBlock(std::function<void()> block) {
  addOperation(OrvBlockOperation::blockOperationWithBlock(std::move(block)));
}

void OrvOperationQueue::cancelAllOperations() { state_->cancelAll(); }
void OrvOperationQueue::waitUntilAllOperationsAreFinished() { state_->waitUntilAllFinished(); }
std::size_t OrvOperationQueue::operationCount() const { return state_->count(); }
void OrvOperationQueue::setMaxConcurrentOperationCount(long count) { state_->setMaxConcurrent(count); }
long OrvOperationQueue::maxConcurrentOperationCount() const { return state_->maxConcurrent(); }
void OrvOperationQueue::setUnderlyingExecutor(std::function<bool(std::function<void()>&)> executor) {
  state_->setUnderlyingExecutor(std::move(executor));
}
