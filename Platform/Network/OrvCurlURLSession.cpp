#include "OrvCurlURLSession.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "OrvCurlURLSessionTesting.h"
#include "OrvHTTPHeaderCollector.h"
#include "OrvOperationQueue.h"
#include "OrvWorkerPool.h"

namespace orv::detail {
namespace {

struct CurlEasyDeleter {
  void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
struct CurlMultiDeleter {
  void operator()(CURLM* handle) const noexcept { curl_multi_cleanup(handle); }
};
struct CurlShareDeleter {
  void operator()(CURLSH* handle) const noexcept { curl_share_cleanup(handle); }
};
struct CurlSlistDeleter {
  void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};
using CurlEasyHandle = std::unique_ptr<CURL, CurlEasyDeleter>;
using CurlMultiHandle = std::unique_ptr<CURLM, CurlMultiDeleter>;
using CurlShareHandle = std::unique_ptr<CURLSH, CurlShareDeleter>;
using CurlSlistHandle = std::unique_ptr<curl_slist, CurlSlistDeleter>;

// The I/O thread sleeps at most this long when curl has no earlier deadline of its own, and a quarter
// of the inactivity time-out at most, so that a silent transfer is caught close to its deadline.
constexpr int kPollIntervalMilliseconds = 1000;
std::atomic<int> idlePollIntervalMilliseconds{kPollIntervalMilliseconds};
// While transfers are in curl the I/O thread looks at least this often: curl 7.88 can leave a transfer
// it let out of its pending list with no timer armed, and the thread would sleep a whole interval.
constexpr int kBusyPollIntervalMilliseconds = 20;
// Answers found in one pass up to this many are handled on the I/O thread even while other transfers
// are in flight: waking workers for them costs more than handling them (warm settings of ten stores:
// 7.6 context switches per flow with them handed on, 4.5 with them handled here, and about a tenth
// less wall and CPU time). More are shared out, so that long answers do not hold up the transfers.
constexpr std::size_t kAnswersHandledHere = 16;
// Streams the session opens on one HTTP/2 connection (curl's own default, and below the 128 common
// servers allow): enough to keep a connection busy, few enough that a server's limit is rarely lower.
constexpr long kStreamsPerConnection = 100;
constexpr long kIdleConnectionsKept = 8;
// Easy handles kept for the next requests: setting one up again costs more than resetting it. As
// many as one connection's streams, so that a burst of that size needs no new ones next time.
constexpr std::size_t kIdleEasyHandlesKept = kStreamsPerConnection;

// Set on an I/O thread while it works through curl's news: completions found then are gathered and
// handed to the worker pool together, instead of one wake-up of a worker per answer.
thread_local std::vector<std::function<void()>>* tlsCompletionBatch = nullptr;

bool curlReady() {
  static std::once_flag once;
  static CURLcode result = CURLE_FAILED_INIT;
  std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
  return result == CURLE_OK;
}

OrvError cancelledError() {
  return OrvError(OrvURLErrorDomain, OrvURLErrorCancelled, {{OrvLocalizedDescriptionKey, "cancelled"}});
}

OrvError transportError(CURLcode code, std::string_view detail) {
  std::string text = curl_easy_strerror(code);
  if (!detail.empty() && detail != text) {
    text += ": ";
    text += detail;
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return OrvError(OrvURLErrorDomain, static_cast<std::int64_t>(code), {{OrvLocalizedDescriptionKey, std::move(text)}});
}

bool isTokenCharacter(unsigned char c) noexcept {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::strchr("!#$%&'*+-.^_`|~", c) != nullptr && c != '\0';
}

// A field that could smuggle a second header line or break the request line is refused outright.
bool isSendableField(std::string_view name, std::string_view value) noexcept {
  if (name.empty()) return false;
  for (const unsigned char c : name) {
    if (!isTokenCharacter(c)) return false;
  }
  for (const unsigned char c : value) {
    if (c == '\r' || c == '\n' || c == '\0') return false;
  }
  return true;
}

// "scheme://authority" of an absolute URL, host in lower case: transfers with the same key can share
// connections. Read off the text the URL was validated as, rather than parsed again per request.
std::string originOf(std::string_view url) {
  const std::size_t schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos) return std::string(url);
  const std::size_t authorityEnd = url.find_first_of("/?#", schemeEnd + 3);
  std::string origin(url.substr(0, authorityEnd));
  for (char& c : origin) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return origin;
}

}  // namespace

class CurlDataTask;

// One request on the wire. Lives on the I/O thread only.
struct CurlTransfer {
  CurlTransfer(CURLM* multi, std::shared_ptr<CurlDataTask> owner, const OrvCurlURLSessionConfiguration& configuration)
      : multi(multi),
        task(std::move(owner)),
        bodyLimit(configuration.maxResponseBytes),
        received(configuration.maxHeaderCount, configuration.maxHeaderBytes) {}
  ~CurlTransfer() {
    if (easy && attached) curl_multi_remove_handle(multi, easy.get());
  }
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  CURLM* multi;
  std::shared_ptr<CurlDataTask> task;
  std::size_t bodyLimit;
  std::string body;
  // The answer's header fields as they arrive.
  HTTPHeaderCollector received;
  bool retried = false;
  // Inactivity is counted from when the request goes out, then from each byte received.
  bool requestSent = false;
  std::chrono::steady_clock::time_point added;
  std::chrono::steady_clock::time_point lastActivity;
  bool overflowed = false;
  // Handed to curl; until then it waits for a place among its origin's transfers.
  bool attached = false;
  std::string origin;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  CurlSlistHandle headers;
  // Declared last so that it goes first: curl may still point at the buffers above.
  CurlEasyHandle easy;
};

class CurlSessionCore : public std::enable_shared_from_this<CurlSessionCore> {
 public:
  explicit CurlSessionCore(OrvCurlURLSessionConfiguration configuration) : configuration_(std::move(configuration)) {}
  ~CurlSessionCore() { shutdown(); }
  CurlSessionCore(const CurlSessionCore&) = delete;
  CurlSessionCore& operator=(const CurlSessionCore&) = delete;

  bool start();
  void shutdown();
  std::uint64_t nextTaskIdentifier() noexcept { return nextTaskIdentifier_.fetch_add(1, std::memory_order_relaxed); }
  void submit(std::shared_ptr<CurlDataTask> task);
  void cancel(std::uint64_t taskIdentifier);
  bool perform(std::function<void()>& work);

 private:
  struct Command {
    std::shared_ptr<CurlDataTask> startTask;
    std::uint64_t cancelIdentifier = 0;
  };

  void post(Command command);
  void wakeIfPolling(std::unique_lock<std::mutex>& lock);
  void run();
  void handOver(std::vector<std::function<void()>>& completions) noexcept;
  CurlEasyHandle takeEasyHandle();
  void recycleEasyHandle(CurlTransfer& transfer) noexcept;

  void startTransfer(const std::shared_ptr<CurlDataTask>& task);
  void finishTransfer(CURL* easy, CURLcode result);
  bool retryOnFreshConnection(CurlTransfer& transfer, CURLcode result);
  void expireSilentTransfers();
  int pollInterval() const;

  // Transfers in curl per origin are capped by the session, not by curl: with more than a connection's
  // streams in flight, curl opens further connections (up to the host limit) and later trims its cache,
  // so a burst of stores would spread over several TLS handshakes. Below the cap one HTTP/2 connection
  // carries everything, and the rest wait here in order.
  struct Origin {
    std::size_t inFlight = 0;
    // Unknown until an answer shows what the origin's connections speak.
    std::optional<bool> multiplexes;
    std::deque<std::uint64_t> waiting;
  };
  void placeTransfer(std::unique_ptr<CurlTransfer> transfer);
  bool attach(CurlTransfer& transfer);
  bool configureEasyHandle(CurlTransfer& transfer);
  void dropTransfer(std::map<std::uint64_t, std::unique_ptr<CurlTransfer>>::iterator it, bool reuseHandle = false);
  void admitWaiting(const std::string& origin);
  void limitConnectionsPerHost();
  std::size_t capacity(const Origin& origin) const noexcept;
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user);
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user);

  const OrvCurlURLSessionConfiguration configuration_;
  std::atomic<std::uint64_t> nextTaskIdentifier_{1};

  std::mutex mutex_;
  std::vector<Command> commands_;
  // Work handed to the thread, and one hold on process exit for all of it until it has run: the
  // operations it starts belong to the pool's work as much as if they had been handed to the pool.
  std::vector<std::function<void()>> work_;
  std::unique_ptr<ExitHold> workHold_;
  bool stopping_ = false;
  // Set, under the mutex, by the I/O thread when it has found nothing queued and is about to poll;
  // cleared by the first command that wakes it, or when it next takes the queue. Only then does a new
  // command need a wake-up: otherwise the thread is still to look at the queue, and the write, the
  // poll it cuts short and the extra turn of the loop are spent for nothing.
  bool polling_ = false;
  // Told when the loop has returned and let go of the core: shutdown waits for it where it would join
  // a thread of the session's own. Shared with the loop, which outlives the core when it holds the last
  // reference. Set once the loop has a thread.
  struct LoopEnd {
    std::mutex mutex;
    std::condition_variable reached;
    bool ended = false;
    // Held when the loop ends on its own thread's say (the last reference went there): process exit
    // then waits for the core's clean-up, as it waits for the turn that let go.
    std::unique_ptr<ExitHold> exitHold;
  };
  std::shared_ptr<LoopEnd> loopEnd_;
  std::atomic<std::thread::id> ioThread_{};
  std::once_flag shutdownOnce_;

  CurlMultiHandle multi_;
  CurlShareHandle share_;
  // I/O thread only.
  std::map<std::uint64_t, std::unique_ptr<CurlTransfer>> transfers_;
  std::map<std::string, Origin> origins_;
  std::vector<CurlEasyHandle> idleEasyHandles_;
  std::chrono::steady_clock::time_point nextExpiryCheck_;
};

class CurlDataTask final : public OrvURLSessionDataTask, public std::enable_shared_from_this<CurlDataTask> {
 public:
  CurlDataTask(std::uint64_t identifier, OrvURLRequest request, OrvURLSessionDataTaskCompletionHandler handler,
               std::weak_ptr<CurlSessionCore> core)
      : identifier_(identifier), request_(std::move(request)), handler_(std::move(handler)), core_(std::move(core)) {}

  void resume() override {
    if (resumed_.exchange(true, std::memory_order_acq_rel) || isFinished()) return;
    if (auto core = core_.lock()) {
      core->submit(shared_from_this());
    } else {
      complete(std::nullopt, nullptr, cancelledError());
    }
  }

  void cancel() override {
    if (!complete(std::nullopt, nullptr, cancelledError())) return;
    // The transfer, if it has one, is dropped by the I/O thread; the handler has already been sent off.
    if (resumed_.load(std::memory_order_acquire)) {
      if (auto core = core_.lock()) core->cancel(identifier_);
    }
  }

  std::uint64_t taskIdentifier() const override { return identifier_; }
  const OrvURLRequest& request() const noexcept { return request_; }
  bool isFinished() const noexcept { return finished_.load(std::memory_order_acquire); }

  // Claims the task's single completion and hands the handler to the worker pool; false when the task
  // had already completed (a cancel racing with the answer, for instance).
  bool complete(std::optional<OrvData> data, std::shared_ptr<const OrvHTTPURLResponse> response,
                std::optional<OrvError> error) noexcept {
    if (finished_.exchange(true, std::memory_order_acq_rel)) return false;
    auto handler = std::move(handler_);
    if (!handler) return true;
    try {
      std::function<void()> invoke = [handler, data = std::move(data), response = std::move(response),
                                      error = std::move(error)]() mutable {
        handler(std::move(data), std::move(response), std::move(error));
      };
      if (tlsCompletionBatch) {
        tlsCompletionBatch->push_back(std::move(invoke));
      } else {
        dispatchToWorkerPool(std::move(invoke));
      }
    } catch (...) {
      // The hand-off itself could not be allocated. A late answer on this thread beats none at all:
      // the caller is owed exactly one completion, and it says what went wrong.
      try {
        handler(std::nullopt, nullptr, transportError(CURLE_OUT_OF_MEMORY, "the completion could not be scheduled"));
      } catch (...) {
      }
    }
    return true;
  }

 private:
  const std::uint64_t identifier_;
  const OrvURLRequest request_;
  OrvURLSessionDataTaskCompletionHandler handler_;
  const std::weak_ptr<CurlSessionCore> core_;
  std::atomic<bool> resumed_{false};
  std::atomic<bool> finished_{false};
};

bool CurlSessionCore::start() {
  if (!curlReady()) return false;
  multi_.reset(curl_multi_init());
  share_.reset(curl_share_init());
  if (!multi_ || !share_) return false;
  // TLS sessions are resumed across the session's transfers; all of them run on the I/O thread, so
  // the share needs no lock callbacks.
  curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  curl_multi_setopt(multi_.get(), CURLMOPT_PIPELINING, long(CURLPIPE_MULTIPLEX));
  curl_multi_setopt(multi_.get(), CURLMOPT_MAX_CONCURRENT_STREAMS, kStreamsPerConnection);
  // curl sizes its connection cache by the transfers it holds; between two requests it holds none and
  // would close the connection the next request wants. Keep a few idle ones.
  curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, kIdleConnectionsKept);
  if (configuration_.maxConnectionsPerHost > 0) {
    curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, configuration_.maxConnectionsPerHost);
  }
  // The loop keeps the core (and with it the multi handle) alive until run() has returned, so that
  // whoever lets go of the session last never frees curl state under the thread's feet. It lets go
  // before it says it has ended, so that the core is never cleaned up after its owner moved on.
  loopEnd_ = std::make_shared<LoopEnd>();
  std::function<void()> loop = [self = shared_from_this()]() mutable {
    self->run();
    self.reset();
  };
  std::function<void()> then = [end = loopEnd_] {
    std::unique_ptr<ExitHold> hold;
    {
      std::lock_guard lock(end->mutex);
      end->ended = true;
      hold = std::move(end->exitHold);
    }
    end->reached.notify_all();
  };
  if (!runOnLoopThread(loop, then)) {
    loopEnd_ = nullptr;
    return false;
  }
  return true;
}

void CurlSessionCore::shutdown() {
  std::call_once(shutdownOnce_, [this] {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    if (multi_) curl_multi_wakeup(multi_.get());
    if (!loopEnd_) return;
    if (std::this_thread::get_id() != ioThread_.load(std::memory_order_relaxed)) {
      std::unique_lock lock(loopEnd_->mutex);
      loopEnd_->reached.wait(lock, [this] { return loopEnd_->ended; });
      return;
    }
    // The last reference went on the I/O thread itself (a handler run there let go of the session): the
    // loop ends once that handler has returned, and the core is cleaned up there. That handler runs in
    // a turn that holds process exit; this hold carries it on to the clean-up. Without memory for it,
    // exit may overtake the clean-up, as it may a session nobody released.
    try {
      auto hold = std::make_unique<ExitHold>();
      std::lock_guard lock(loopEnd_->mutex);
      loopEnd_->exitHold = std::move(hold);
    } catch (...) {
    }
  });
}

void CurlSessionCore::post(Command command) {
  std::unique_lock lock(mutex_);
  if (stopping_) {
    lock.unlock();
    if (command.startTask) command.startTask->complete(std::nullopt, nullptr, cancelledError());
    return;
  }
  commands_.push_back(std::move(command));
  wakeIfPolling(lock);
}

bool CurlSessionCore::perform(std::function<void()>& work) {
  std::unique_lock lock(mutex_);
  if (stopping_ || !work) return false;
  // Room and hold first, so that a failed allocation leaves the work with its owner.
  if (work_.size() == work_.capacity()) work_.reserve(std::max<std::size_t>(8, 2 * work_.capacity()));
  if (!workHold_) workHold_ = std::make_unique<ExitHold>();
  work_.push_back(std::move(work));
  wakeIfPolling(lock);
  return true;
}

void CurlSessionCore::wakeIfPolling(std::unique_lock<std::mutex>& lock) {
  // Only a thread that found the queue empty needs waking, and only once: the first command after
  // that takes the flag, and the thread takes them all at once. curl remembers a wake-up sent before
  // its poll begins, so none is lost. Requests started together wake the thread once their batch is
  // done, and go out in one write.
  const bool polling = std::exchange(polling_, false);
  lock.unlock();
  if (!polling) return;
  // Posted by the I/O thread itself (a workflow going on from an answer it handled): it looks at the
  // commands before it sleeps again.
  if (std::this_thread::get_id() == ioThread_.load(std::memory_order_relaxed)) return;
  bool deferred = false;
  try {
    deferred = deferToEndOfTurn([core = shared_from_this()] { curl_multi_wakeup(core->multi_.get()); });
  } catch (...) {
  }
  if (!deferred) curl_multi_wakeup(multi_.get());
}

void CurlSessionCore::submit(std::shared_ptr<CurlDataTask> task) {
  try {
    post(Command{std::move(task), 0});
  } catch (...) {
    // Could not queue it: the task still owes its caller one completion.
    if (task) task->complete(std::nullopt, nullptr, transportError(CURLE_OUT_OF_MEMORY, {}));
  }
}

void CurlSessionCore::cancel(std::uint64_t taskIdentifier) {
  try {
    post(Command{nullptr, taskIdentifier});
  } catch (...) {
    // The task has completed already; its transfer then runs to its end unheard.
  }
}

void CurlSessionCore::run() {
  ioThread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  for (;;) {
    std::vector<Command> commands;
    // Work handed to this thread runs first, as one turn: the requests it makes are then among the
    // commands seen before the thread sleeps again. When stopping it still runs, so that every
    // operation it starts hears that the session is gone. Its hold goes once it has run.
    std::vector<std::function<void()>> work;
    std::unique_ptr<ExitHold> workHold;
    bool stopping;
    {
      std::lock_guard lock(mutex_);
      commands.swap(commands_);
      work.swap(work_);
      workHold = std::move(workHold_);
      stopping = stopping_;
      polling_ = false;
    }
    if (stopping) {
      for (auto& command : commands) {
        if (command.startTask) command.startTask->complete(std::nullopt, nullptr, cancelledError());
      }
      if (!work.empty()) runAsTurn(work);
      break;
    }
    if (!work.empty()) runAsTurn(work);
    std::vector<std::function<void()>> completions;
    tlsCompletionBatch = &completions;
    for (auto& command : commands) {
      if (command.startTask) {
        startTransfer(command.startTask);
      } else if (const auto it = transfers_.find(command.cancelIdentifier); it != transfers_.end()) {
        dropTransfer(it);
      }
    }

    int running = 0;
    curl_multi_perform(multi_.get(), &running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) {
      if (message->msg == CURLMSG_DONE) finishTransfer(message->easy_handle, message->data.result);
    }
    expireSilentTransfers();
    tlsCompletionBatch = nullptr;
    handOver(completions);
    bool commandsWaiting;
    {
      std::lock_guard lock(mutex_);
      commandsWaiting = !commands_.empty() || !work_.empty() || stopping_;
      polling_ = !commandsWaiting;
    }
    if (!commandsWaiting) curl_multi_poll(multi_.get(), nullptr, 0, pollInterval(), nullptr);
  }

  for (auto& [identifier, transfer] : transfers_) transfer->task->complete(std::nullopt, nullptr, cancelledError());
  transfers_.clear();
  // The thread goes on to other sessions' loops; nothing it does there is this session's.
  ioThread_.store(std::thread::id{}, std::memory_order_relaxed);
}

void CurlSessionCore::handOver(std::vector<std::function<void()>>& completions) noexcept {
  if (completions.empty()) return;
  // A few answers are handled here, where their bytes are, and the workflow goes on from here (the next
  // request of it included) without waking anyone.
  if (completions.size() <= kAnswersHandledHere) {
    runAsTurn(completions);
    completions.clear();
    return;
  }
  // With nothing else in flight, handling many answers here delays nobody either: this thread takes a
  // share of them, with one worker woken fewer.
  if (transfers_.empty()) {
    runSharedAsTurn(completions);
    completions.clear();
    return;
  }
  try {
    dispatchBatchToWorkerPool(completions);
  } catch (...) {
    // No memory for the hand-off: the answers are delivered late, from this thread, rather than never.
    runAsTurn(completions);
  }
  completions.clear();
}

CurlEasyHandle CurlSessionCore::takeEasyHandle() {
  if (idleEasyHandles_.empty()) return CurlEasyHandle(curl_easy_init());
  auto easy = std::move(idleEasyHandles_.back());
  idleEasyHandles_.pop_back();
  return easy;
}

void CurlSessionCore::recycleEasyHandle(CurlTransfer& transfer) noexcept {
  if (!transfer.easy || idleEasyHandles_.size() >= kIdleEasyHandlesKept) return;
  if (transfer.attached) curl_multi_remove_handle(multi_.get(), transfer.easy.get());
  transfer.attached = false;
  // Reset at once: the handle still points at the transfer's buffers and header list, which go now.
  curl_easy_reset(transfer.easy.get());
  try {
    idleEasyHandles_.push_back(std::move(transfer.easy));
  } catch (...) {
    // Not kept; the transfer frees it.
  }
}

int CurlSessionCore::pollInterval() const {
  if (transfers_.empty()) return idlePollIntervalMilliseconds.load(std::memory_order_relaxed);
  const auto quarter = configuration_.inactivityTimeout.count() / 4;
  return static_cast<int>(std::clamp<std::int64_t>(quarter, 10, kBusyPollIntervalMilliseconds));
}

// curl's own low-speed check averages the rate over several seconds, so a server that sends headers
// and falls silent outlives a short time-out by seconds. Counting silence per transfer is exact.
void CurlSessionCore::expireSilentTransfers() {
  const auto now = std::chrono::steady_clock::now();
  // The I/O thread wakes for every socket event; walking every transfer each time would make a burst
  // of many stores quadratic. Once per poll interval is as exact as the poll itself.
  if (transfers_.empty() || now < nextExpiryCheck_) return;
  nextExpiryCheck_ = now + std::chrono::milliseconds(std::clamp<std::int64_t>(configuration_.inactivityTimeout.count() / 4, 10,
                                                                              kPollIntervalMilliseconds));
  std::vector<std::uint64_t> expired;
  for (auto& [identifier, transfer] : transfers_) {
    if (!transfer->attached) continue;
    if (!transfer->requestSent) {
      // curl's clock of the transfer says when the request went out, however late we look.
      curl_off_t pretransfer = 0;
      curl_easy_getinfo(transfer->easy.get(), CURLINFO_PRETRANSFER_TIME_T, &pretransfer);
      if (pretransfer <= 0) continue;
      transfer->requestSent = true;
      transfer->lastActivity = std::max(transfer->lastActivity, transfer->added + std::chrono::microseconds(pretransfer));
    }
    if (now - transfer->lastActivity >= configuration_.inactivityTimeout) expired.push_back(identifier);
  }
  for (const auto identifier : expired) {
    const auto it = transfers_.find(identifier);
    it->second->task->complete(
        std::nullopt, nullptr,
        transportError(CURLE_OPERATION_TIMEDOUT,
                       "no byte received for " + std::to_string(configuration_.inactivityTimeout.count()) + " ms"));
    dropTransfer(it);
  }
}

std::size_t CurlSessionCore::onBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<CurlTransfer*>(user);
  const std::size_t bytes = size * count;
  transfer->lastActivity = std::chrono::steady_clock::now();
  if (bytes > transfer->bodyLimit - transfer->body.size()) {
    transfer->overflowed = true;
    return 0;
  }
  try {
    transfer->body.append(data, bytes);
  } catch (...) {
    return 0;
  }
  return bytes;
}

std::size_t CurlSessionCore::onHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto& transfer = *static_cast<CurlTransfer*>(user);
  const std::size_t bytes = size * count;
  transfer.lastActivity = std::chrono::steady_clock::now();
  // Zero ends the transfer at once and closes its connection or stream.
  return transfer.received.addLine(std::string_view(data, bytes)) ? bytes : 0;
}

void CurlSessionCore::startTransfer(const std::shared_ptr<CurlDataTask>& task) {
  if (task->isFinished()) return;
  try {
    auto transfer = std::make_unique<CurlTransfer>(multi_.get(), task, configuration_);
    const OrvURLRequest& request = task->request();
    curl_slist* headers = nullptr;
    for (const auto& [name, value] : request.allHTTPHeaderFields()) {
      if (!isSendableField(name, value)) {
        curl_slist_free_all(headers);
        task->complete(std::nullopt, nullptr,
                       transportError(CURLE_BAD_FUNCTION_ARGUMENT, "header field \"" + name + "\" cannot be sent"));
        return;
      }
      // "Name;" is curl's spelling of a field with an empty value ("Name:" would remove it).
      const std::string line = value.empty() ? name + ";" : name + ": " + value;
      curl_slist* extended = curl_slist_append(headers, line.c_str());
      if (!extended) {
        curl_slist_free_all(headers);
        task->complete(std::nullopt, nullptr, transportError(CURLE_OUT_OF_MEMORY, {}));
        return;
      }
      headers = extended;
    }
    transfer->headers.reset(headers);
    transfer->origin = originOf(request.URL().absoluteString());
    placeTransfer(std::move(transfer));
  } catch (...) {
    task->complete(std::nullopt, nullptr, transportError(CURLE_OUT_OF_MEMORY, {}));
  }
}

// An easy handle is taken only when its transfer may go out. A burst of a thousand stores then cycles
// through as many handles as the origin has transfers in flight, all reused, instead of making (and
// faulting in) a handle with its buffers for every store that is still waiting.
bool CurlSessionCore::configureEasyHandle(CurlTransfer& transfer) {
  const auto fail = [&](CURLcode code) {
    transfer.task->complete(std::nullopt, nullptr, transportError(code, transfer.errorBuffer));
    return false;
  };
  if (!transfer.easy) transfer.easy = takeEasyHandle();
  CURL* easy = transfer.easy.get();
  if (!easy) return fail(CURLE_FAILED_INIT);
  const OrvURLRequest& request = transfer.task->request();
  const auto& config = configuration_;
  const bool automaticVersion = config.httpVersion == OrvCurlHTTPVersion::automatic;
  CURLcode code = CURLE_OK;
  const auto set = [&](CURLoption option, auto value) {
    if (code == CURLE_OK) code = curl_easy_setopt(easy, option, value);
  };
  set(CURLOPT_URL, request.URL().absoluteString().c_str());
  set(CURLOPT_PRIVATE, static_cast<void*>(&transfer));
  set(CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_PROTOCOLS_STR, "https");
  set(CURLOPT_REDIR_PROTOCOLS_STR, "https");
  set(CURLOPT_FOLLOWLOCATION, config.maxRedirects > 0 ? 1L : 0L);
  set(CURLOPT_MAXREDIRS, config.maxRedirects);
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  set(CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
  if (config.caFile) set(CURLOPT_CAINFO, config.caFile->c_str());
  set(CURLOPT_HTTP_VERSION, long(automaticVersion ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
  // Wait for a connection that may multiplex rather than open a parallel one.
  set(CURLOPT_PIPEWAIT, automaticVersion ? 1L : 0L);
  set(CURLOPT_CONNECTTIMEOUT_MS, long(config.connectTimeout.count()));
  if (config.totalTimeout) set(CURLOPT_TIMEOUT_MS, long(config.totalTimeout->count()));
  set(CURLOPT_MAXFILESIZE_LARGE, curl_off_t(config.maxResponseBytes));
  set(CURLOPT_WRITEFUNCTION, &CurlSessionCore::onBody);
  set(CURLOPT_WRITEDATA, static_cast<void*>(&transfer));
  set(CURLOPT_HEADERFUNCTION, &CurlSessionCore::onHeader);
  set(CURLOPT_HEADERDATA, static_cast<void*>(&transfer));
  set(CURLOPT_HTTPHEADER, transfer.headers.get());
  set(CURLOPT_SHARE, share_.get());
  if (request.HTTPMethod() == "GET") {
    set(CURLOPT_HTTPGET, 1L);
  } else if (request.HTTPMethod() == "HEAD") {
    set(CURLOPT_NOBODY, 1L);
  } else {
    set(CURLOPT_CUSTOMREQUEST, request.HTTPMethod().c_str());
  }
  return code == CURLE_OK || fail(code);
}

void CurlSessionCore::placeTransfer(std::unique_ptr<CurlTransfer> transfer) {
  const std::uint64_t identifier = transfer->task->taskIdentifier();
  const std::string origin = transfer->origin;
  transfers_[identifier] = std::move(transfer);
  origins_[origin].waiting.push_back(identifier);
  admitWaiting(origin);
}

std::size_t CurlSessionCore::capacity(const Origin& origin) const noexcept {
  const std::size_t hostLimit = configuration_.maxConnectionsPerHost > 0
                                    ? static_cast<std::size_t>(configuration_.maxConnectionsPerHost)
                                    : std::numeric_limits<std::size_t>::max();
  // Until an answer says whether the origin multiplexes, as many as the host limit allows: with
  // PIPEWAIT they wait for the first connection and share it when it speaks HTTP/2. (Only one would
  // avoid curl's pending list, but then a first request that stalls would hold up every other.)
  if (!origin.multiplexes) return hostLimit;
  return *origin.multiplexes ? static_cast<std::size_t>(kStreamsPerConnection) : hostLimit;
}

bool CurlSessionCore::attach(CurlTransfer& transfer) {
  if (!configureEasyHandle(transfer)) return false;
  const CURLMcode added = curl_multi_add_handle(multi_.get(), transfer.easy.get());
  if (added != CURLM_OK) {
    transfer.task->complete(std::nullopt, nullptr, transportError(CURLE_FAILED_INIT, curl_multi_strerror(added)));
    return false;
  }
  transfer.attached = true;
  transfer.added = std::chrono::steady_clock::now();
  ++origins_[transfer.origin].inFlight;
  return true;
}

// Once origins have answered and all of them over HTTP/2, one connection per host carries all of
// their streams; curl then cannot open the host limit's worth of connections at once when the server
// allows fewer streams, or closes the connection in use (nginx does after 1,000 requests) and curl
// sends again what it had refused. An origin that answers over HTTP/1.1 brings the configured limit
// back. Origins that never answered do not count: one that could not be reached says nothing.
void CurlSessionCore::limitConnectionsPerHost() {
  if (configuration_.maxConnectionsPerHost <= 1) return;
  const bool anyHTTP1 =
      std::any_of(origins_.begin(), origins_.end(), [](const auto& origin) { return origin.second.multiplexes == false; });
  curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, anyHTTP1 ? configuration_.maxConnectionsPerHost : 1L);
}

void CurlSessionCore::admitWaiting(const std::string& originKey) {
  auto& origin = origins_[originKey];
  while (origin.inFlight < capacity(origin) && !origin.waiting.empty()) {
    const std::uint64_t identifier = origin.waiting.front();
    origin.waiting.pop_front();
    const auto it = transfers_.find(identifier);
    // Cancelled while it waited.
    if (it == transfers_.end()) continue;
    if (it->second->task->isFinished() || !attach(*it->second)) transfers_.erase(it);
  }
}

void CurlSessionCore::dropTransfer(std::map<std::uint64_t, std::unique_ptr<CurlTransfer>>::iterator it, bool reuseHandle) {
  const std::string origin = it->second->origin;
  const bool wasInFlight = it->second->attached;
  if (reuseHandle) recycleEasyHandle(*it->second);
  transfers_.erase(it);
  if (!wasInFlight) return;
  auto& counts = origins_[origin];
  if (counts.inFlight > 0) --counts.inFlight;
  admitWaiting(origin);
}

// A request that died before any byte of its answer on a connection reused from an earlier request
// most likely met a connection the server had already closed (idle time-out, GOAWAY, a reset). HTTP
// lets an idempotent request be sent again, once, on a new connection; nothing else is retried.
bool CurlSessionCore::retryOnFreshConnection(CurlTransfer& transfer, CURLcode result) {
  switch (result) {
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      break;
    default:
      return false;
  }
  if (transfer.retried || transfer.received.receivedAnything() || !transfer.body.empty()) return false;
  if (transfer.task->request().HTTPMethod() != "GET" || transfer.task->isFinished()) return false;
  long newConnections = 0;
  curl_easy_getinfo(transfer.easy.get(), CURLINFO_NUM_CONNECTS, &newConnections);
  if (newConnections != 0) return false;
  transfer.retried = true;
  transfer.requestSent = false;
  transfer.added = std::chrono::steady_clock::now();
  curl_multi_remove_handle(multi_.get(), transfer.easy.get());
  transfer.attached = false;
  transfer.errorBuffer[0] = '\0';
  // No CURLOPT_FRESH_CONNECT: curl no longer offers the connection that failed (it was closed, or sent
  // GOAWAY), and when a server closes one carrying a hundred streams, their retries should share the
  // one new connection rather than open one each.
  if (curl_multi_add_handle(multi_.get(), transfer.easy.get()) != CURLM_OK) {
    // Out of curl now: it no longer holds a place among its origin's transfers.
    auto& origin = origins_[transfer.origin];
    if (origin.inFlight > 0) --origin.inFlight;
    return false;
  }
  transfer.attached = true;
  return true;
}

void CurlSessionCore::finishTransfer(CURL* easy, CURLcode result) {
  void* user = nullptr;
  curl_easy_getinfo(easy, CURLINFO_PRIVATE, &user);
  auto* transfer = static_cast<CurlTransfer*>(user);
  if (!transfer) return;
  const std::uint64_t identifier = transfer->task->taskIdentifier();
  if (result != CURLE_OK && retryOnFreshConnection(*transfer, result)) return;

  try {
    if (const auto& refusal = transfer->received.refusal()) {
      const CURLcode code = refusal->kind == HTTPHeaderCollector::Refusal::malformed     ? CURLE_WEIRD_SERVER_REPLY
                            : refusal->kind == HTTPHeaderCollector::Refusal::outOfMemory ? CURLE_OUT_OF_MEMORY
                                                                                         : CURLE_FILESIZE_EXCEEDED;
      transfer->task->complete(std::nullopt, nullptr, transportError(code, refusal->reason));
    } else if (result != CURLE_OK) {
      // Past the limit while streaming, or announced past it by Content-Length before any byte.
      if (transfer->overflowed || result == CURLE_FILESIZE_EXCEEDED) {
        transfer->task->complete(
            std::nullopt, nullptr,
            transportError(CURLE_FILESIZE_EXCEEDED, "response body exceeds " + std::to_string(transfer->bodyLimit) + " bytes"));
      } else {
        transfer->task->complete(std::nullopt, nullptr, transportError(result, transfer->errorBuffer));
      }
    } else {
      long status = 0;
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
      char* effectiveURL = nullptr;
      curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effectiveURL);
      const OrvURL& requested = transfer->task->request().URL();
      // Only a redirect makes the answer's URL another than the request's.
      std::optional<OrvURL> url = !effectiveURL || requested.absoluteString() == effectiveURL
                                      ? std::optional<OrvURL>(requested)
                                      : OrvURL::URLWithString(effectiveURL);
      if (!url) url = requested;
      auto response = std::make_shared<const OrvHTTPURLResponse>(std::move(url), status, transfer->received.takeFields());
      transfer->task->complete(std::move(transfer->body), std::move(response), std::nullopt);
    }
  } catch (...) {
    transfer->task->complete(std::nullopt, nullptr, transportError(CURLE_OUT_OF_MEMORY, {}));
  }
  // What the answer came over decides how many transfers the origin may have in curl from now on.
  long version = CURL_HTTP_VERSION_NONE;
  curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version);
  if (version != CURL_HTTP_VERSION_NONE) {
    auto& multiplexes = origins_[transfer->origin].multiplexes;
    const bool learned = multiplexes != (version >= CURL_HTTP_VERSION_2_0);
    multiplexes = version >= CURL_HTTP_VERSION_2_0;
    // Only news about an origin's protocol can change the limit; most answers bring none.
    if (learned) limitConnectionsPerHost();
  }
  // Finished by curl, so its handle holds no half-done state and may serve the next request.
  if (const auto it = transfers_.find(identifier); it != transfers_.end()) dropTransfer(it, true);
}

void setIdlePollIntervalForTesting(std::chrono::milliseconds interval) {
  idlePollIntervalMilliseconds.store(
      static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(interval.count(), 1, std::numeric_limits<int>::max())));
}

}  // namespace orv::detail

OrvCurlURLSession::OrvCurlURLSession(OrvCurlURLSessionConfiguration configuration,
                                     std::shared_ptr<orv::detail::CurlSessionCore> core)
    : configuration_(std::move(configuration)), core_(std::move(core)) {}

OrvCurlURLSession::~OrvCurlURLSession() { core_->shutdown(); }

void OrvCurlURLSession::invalidateAndCancel() { core_->shutdown(); }

std::shared_ptr<OrvCurlURLSession> OrvCurlURLSession::create(OrvCurlURLSessionConfiguration configuration) {
  try {
    auto core = std::make_shared<orv::detail::CurlSessionCore>(configuration);
    if (!core->start()) return nullptr;
    return std::shared_ptr<OrvCurlURLSession>(new OrvCurlURLSession(std::move(configuration), std::move(core)));
  } catch (...) {
    return nullptr;
  }
}

bool OrvCurlURLSession::performOnCallbackThread(std::function<void()>& task) {
  try {
    return core_->perform(task);
  } catch (...) {
    return false;
  }
}

std::shared_ptr<OrvURLSessionDataTask> OrvCurlURLSession::dataTaskWithRequest(
    const OrvURLRequest& request, OrvURLSessionDataTaskCompletionHandler completionHandler) {
  try {
    return std::make_shared<orv::detail::CurlDataTask>(core_->nextTaskIdentifier(), request, std::move(completionHandler), core_);
  } catch (...) {
    return nullptr;
  }
}
