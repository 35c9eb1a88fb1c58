#pragma once
// The HTTP session on libcurl: one multi handle driven by one I/O thread, connections kept alive and
// reused, HTTP/2 multiplexing when the server offers it. Peer and host verification are always on.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "OrvURLSession.h"

enum class OrvCurlHTTPVersion {
  // HTTP/2 when TLS negotiates it, HTTP/1.1 otherwise.
  automatic,
  http1_1,
};

struct OrvCurlURLSessionConfiguration {
  // PEM bundle of the certificate authorities to trust instead of the system store.
  std::optional<std::string> caFile;
  OrvCurlHTTPVersion httpVersion = OrvCurlHTTPVersion::automatic;
  // A transfer that receives no byte for this long, once its request is on its way, fails (the
  // platform's request time-out). Waiting for a free connection does not count.
  std::chrono::milliseconds inactivityTimeout{std::chrono::seconds(60)};
  std::chrono::milliseconds connectTimeout{std::chrono::seconds(30)};
  // Upper bound of a whole transfer; none by default, as the platform's resource time-out is days.
  std::optional<std::chrono::milliseconds> totalTimeout;
  // A body longer than this fails the task with a transport error and is never buffered past it.
  std::size_t maxResponseBytes = 8u * 1024u * 1024u;
  // Header fields and header bytes of one response (each redirect hop counted afresh). A response past
  // either fails at once with a transport error that names the limit.
  std::size_t maxHeaderCount = 100;
  std::size_t maxHeaderBytes = 64u * 1024u;
  long maxRedirects = 3;
  // Connections per host; HTTP/2 streams share one connection and are not counted here.
  long maxConnectionsPerHost = 6;
};

namespace orv::detail {
class CurlSessionCore;
}

class OrvCurlURLSession final : public OrvURLSession {
 public:
  // nullptr when curl or its I/O thread cannot be set up.
  static std::shared_ptr<OrvCurlURLSession> create(OrvCurlURLSessionConfiguration configuration = {});

  // Completes the tasks still in flight with the cancel error; returns once the I/O loop has ended.
  ~OrvCurlURLSession() override;

  // Aborts every task of the session (each completes with the cancel error; their connections are
  // closed or their streams reset), refuses new ones the same way, and returns once the I/O loop has
  // ended. Blocking; safe to call more than once and from any thread but the session's own.
  void invalidateAndCancel();
  OrvCurlURLSession(const OrvCurlURLSession&) = delete;
  OrvCurlURLSession& operator=(const OrvCurlURLSession&) = delete;

  std::shared_ptr<OrvURLSessionDataTask> dataTaskWithRequest(const OrvURLRequest& request,
                                                             OrvURLSessionDataTaskCompletionHandler completionHandler) override;
  // On the I/O thread, between two rounds of curl.
  bool performOnCallbackThread(std::function<void()>& task) override;

  const OrvCurlURLSessionConfiguration& configuration() const noexcept { return configuration_; }

 private:
  OrvCurlURLSession(OrvCurlURLSessionConfiguration configuration, std::shared_ptr<orv::detail::CurlSessionCore> core);

  OrvCurlURLSessionConfiguration configuration_;
  std::shared_ptr<orv::detail::CurlSessionCore> core_;
};
