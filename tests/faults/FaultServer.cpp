#include "FaultServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include "OrvEmulatorCrypto.h"
#include "OrvOpenSSLHandles.h"

namespace orv::test {

using SslContextPtr = std::unique_ptr<SSL_CTX, orv::detail::OpenSSLDeleter<SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, orv::detail::OpenSSLDeleter<SSL_free>>;

struct FaultServer::State {
  int listener = -1;
  int refused = -1;
  std::uint16_t port = 0;
  std::uint16_t refusedPort = 0;
  std::map<FaultCertificate, SslContextPtr> contexts;
  SslContextPtr tls10;

  mutable std::mutex mutex;
  std::condition_variable wake;
  bool stopping = false;
  std::shared_ptr<const FaultSetup> setup = std::make_shared<const FaultSetup>();
  std::vector<std::string> targets;
  // Descriptors of the connections being served: a stop shuts them down to wake whatever is blocked.
  std::set<int> open;
  std::vector<std::thread> connections;
};

namespace {

constexpr std::size_t kMaxHeadBytes = 64 * 1024;

int loopbackSocket(std::uint16_t& port, bool listening) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const int reuse = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || (listening && ::listen(fd, 16) != 0) ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(fd);
    return -1;
  }
  port = ntohs(address.sin_port);
  return fd;
}

SslContextPtr serverContext(const std::string& certificatePEM, const std::string& keyPEM, bool tls10Only) {
  SslContextPtr context(SSL_CTX_new(TLS_server_method()));
  orv::detail::BioPtr certificateBio(BIO_new_mem_buf(certificatePEM.data(), static_cast<int>(certificatePEM.size())));
  orv::detail::BioPtr keyBio(BIO_new_mem_buf(keyPEM.data(), static_cast<int>(keyPEM.size())));
  if (!context || !certificateBio || !keyBio) return nullptr;
  orv::detail::X509Ptr certificate(PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr));
  orv::detail::EvpPkeyPtr key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
  if (!certificate || !key || SSL_CTX_use_certificate(context.get(), certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1) {
    return nullptr;
  }
  // Level 0, or OpenSSL 3 will not offer TLS 1.0 at all and the client would meet no server.
  if (tls10Only && (SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION) != 1 ||
                    SSL_CTX_set_max_proto_version(context.get(), TLS1_VERSION) != 1)) {
    return nullptr;
  }
  if (tls10Only) SSL_CTX_set_security_level(context.get(), 0);
  return context;
}

// Every variant shares one server key; only the certificates differ, each in a single way.
bool makeMaterial(FaultServer::State& state, const std::string& caFile) {
  using namespace orv::emulator;
  const auto now = std::chrono::system_clock::now();
  const auto profile = [&](std::string name, bool isCA, OrvDate notAfter) {
    CertificateProfile p;
    p.organization = "Orv Fault Server";
    p.commonName = std::move(name);
    p.isCA = isCA;
    p.notBefore = now - std::chrono::hours(48);
    p.notAfter = notAfter;
    return p;
  };
  const auto later = now + std::chrono::hours(48);
  auto caKey = PrivateKey::generate(KeyKind::ecP256);
  auto strangerKey = PrivateKey::generate(KeyKind::ecP256);
  auto serverKey = PrivateKey::generate(KeyKind::ecP256);
  if (!caKey || !strangerKey || !serverKey) return false;
  const auto caPEM = issueCertificate(profile("Orv Fault CA", true, later), *caKey, nullptr, *caKey);
  const auto strangerPEM = issueCertificate(profile("Orv Stranger CA", true, later), *strangerKey, nullptr, *strangerKey);
  if (!caPEM || !strangerPEM) return false;
  const auto ca = OrvCertificate::certificateWithContent(*caPEM);
  const auto stranger = OrvCertificate::certificateWithContent(*strangerPEM);
  if (!ca || !stranger) return false;

  auto loopback = profile("localhost", false, later);
  loopback.dnsNames = {"localhost"};
  loopback.ipAddresses = {"127.0.0.1"};
  auto otherName = profile("other.invalid", false, later);
  otherName.dnsNames = {"other.invalid"};
  auto expired = loopback;
  expired.notAfter = now - std::chrono::hours(1);
  const std::pair<FaultCertificate, std::optional<std::string>> leaves[] = {
      {FaultCertificate::trusted, issueCertificate(loopback, *serverKey, ca.get(), *caKey)},
      {FaultCertificate::otherName, issueCertificate(otherName, *serverKey, ca.get(), *caKey)},
      {FaultCertificate::expired, issueCertificate(expired, *serverKey, ca.get(), *caKey)},
      {FaultCertificate::untrustedAuthority, issueCertificate(loopback, *serverKey, stranger.get(), *strangerKey)},
  };
  const std::string keyPEM = serverKey->privateKeyPEM();
  for (const auto& [kind, pem] : leaves) {
    if (!pem || !(state.contexts[kind] = serverContext(*pem, keyPEM, false))) return false;
  }
  state.tls10 = serverContext(*leaves[0].second, keyPEM, true);
  writeFile(caFile, *caPEM);
  return state.tls10 != nullptr && readFile(caFile) == *caPEM;
}

// One accepted connection, owned by the thread that serves it.
class Connection {
 public:
  Connection(FaultServer::State& state, int fd) : state_(state), fd_(fd) {}
  ~Connection() { close(false); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool handshake(SSL_CTX* context) {
    ssl_.reset(context ? SSL_new(context) : nullptr);
    if (ssl_ && SSL_set_fd(ssl_.get(), fd_) == 1 && SSL_accept(ssl_.get()) == 1) return true;
    ssl_.reset();  // a failed handshake gets no close_notify
    return false;
  }

  // The next request head (without its blank line); bytes read past it stay in pending.
  std::optional<std::string> readHead() {
    for (;;) {
      if (const auto end = pending_.find("\r\n\r\n"); end != std::string::npos) {
        std::string head = pending_.substr(0, end);
        pending_.erase(0, end + 4);
        return head;
      }
      char chunk[4096];
      const int received = pending_.size() < kMaxHeadBytes ? SSL_read(ssl_.get(), chunk, sizeof chunk) : 0;
      if (received <= 0) return std::nullopt;
      pending_.append(chunk, static_cast<std::size_t>(received));
    }
  }

  bool write(const std::string& bytes) {
    return bytes.empty() || (ssl_ && SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())) > 0);
  }

  // Reads and drops whatever arrives until the peer goes or the server stops.
  void drain() {
    char chunk[4096];
    if (ssl_) {
      while (SSL_read(ssl_.get(), chunk, sizeof chunk) > 0) {
      }
    } else {
      while (::recv(fd_, chunk, sizeof chunk, 0) > 0) {
      }
    }
  }

  // The descriptor leaves the stop list before it is closed, so that a stop never shuts down a
  // number the system has already handed out again.
  void close(bool abortive) {
    if (fd_ < 0) return;
    if (ssl_ && !abortive) SSL_shutdown(ssl_.get());
    ssl_.reset();
    {
      std::lock_guard lock(state_.mutex);
      state_.open.erase(fd_);
    }
    if (abortive) {
      const linger immediate{1, 0};
      ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &immediate, sizeof immediate);
    }
    ::close(fd_);
    fd_ = -1;
  }

 private:
  FaultServer::State& state_;
  int fd_;
  SslPtr ssl_;
  std::string pending_;
};

std::string withPort(std::string bytes, std::uint16_t port) {
  const std::string text = std::to_string(port);
  for (auto at = bytes.find("{port}"); at != std::string::npos; at = bytes.find("{port}", at + text.size())) {
    bytes.replace(at, 6, text);
  }
  return bytes;
}

// False when the connection is over.
bool play(FaultServer::State& state, Connection& connection, const FaultScript& script, std::size_t served) {
  for (const auto& step : script) {
    switch (step.kind) {
      case FaultStep::Kind::write:
        if (!connection.write(withPort(step.bytes, state.port))) return false;
        break;
      case FaultStep::Kind::pause: {
        std::unique_lock lock(state.mutex);
        if (state.wake.wait_for(lock, step.delay, [&] { return state.stopping; })) return false;
        break;
      }
      case FaultStep::Kind::reset:
        connection.close(true);
        return false;
      case FaultStep::Kind::close:
        connection.close(false);
        return false;
      case FaultStep::Kind::silence:
        connection.drain();
        return false;
      case FaultStep::Kind::closeIfReused:
        if (served == 0) break;
        connection.close(false);
        return false;
    }
  }
  return true;
}

void serve(FaultServer::State& state, int fd, const std::shared_ptr<const FaultSetup>& setup) {
  Connection connection(state, fd);
  if (setup->transport == FaultTransport::tcpOnly) {
    connection.drain();
    return;
  }
  const auto certificate = state.contexts.find(setup->certificate);
  SSL_CTX* context = setup->transport == FaultTransport::tls10Only ? state.tls10.get()
                     : certificate != state.contexts.end()         ? certificate->second.get()
                                                                   : nullptr;
  if (!connection.handshake(context)) {
    ERR_clear_error();
    return;
  }
  static const FaultScript notFound{sendBytes("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n")};
  for (std::size_t served = 0;; ++served) {
    const auto head = connection.readHead();
    if (!head) break;
    const auto targetStart = head->find(' ') + 1;
    std::string target = head->substr(targetStart, head->find(' ', targetStart) - targetStart);
    {
      std::lock_guard lock(state.mutex);
      state.targets.push_back(target);
    }
    const auto script = setup->scripts.find(target);
    if (!play(state, connection, script != setup->scripts.end() ? script->second : notFound, served)) break;
  }
  ERR_clear_error();
}

void acceptConnections(FaultServer::State& state) {
  // A peer that leaves mid-write must cost an EPIPE, not the test process. Threads started from here
  // inherit the mask; a pending SIGPIPE dies with its thread.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  for (;;) {
    const int fd = ::accept4(state.listener, nullptr, nullptr, SOCK_CLOEXEC);
    const int error = errno;
    std::lock_guard lock(state.mutex);
    if (state.stopping || (fd < 0 && error != EINTR && error != ECONNABORTED)) {
      if (fd >= 0) ::close(fd);
      return;
    }
    if (fd < 0) continue;
    state.open.insert(fd);
    try {
      state.connections.emplace_back([&state, fd, setup = state.setup] { serve(state, fd, setup); });
    } catch (...) {
      state.open.erase(fd);
      ::close(fd);
    }
  }
}

}  // namespace

FaultServer::FaultServer() : state_(std::make_unique<State>()) {
  if (!makeMaterial(*state_, caFile())) return;
  state_->refused = loopbackSocket(state_->refusedPort, false);
  state_->listener = loopbackSocket(state_->port, true);
  if (state_->refused < 0 || state_->listener < 0) return;
  try {
    acceptor_ = std::thread([state = state_.get()] { acceptConnections(*state); });
  } catch (...) {
    state_->port = 0;
  }
}

FaultServer::~FaultServer() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    for (const int fd : state_->open) ::shutdown(fd, SHUT_RDWR);
  }
  state_->wake.notify_all();
  // Wakes the blocked accept(); no connection starts after this.
  if (state_->listener >= 0) ::shutdown(state_->listener, SHUT_RDWR);
  if (acceptor_.joinable()) acceptor_.join();
  std::vector<std::thread> connections;
  {
    std::lock_guard lock(state_->mutex);
    connections.swap(state_->connections);
  }
  for (auto& connection : connections) connection.join();
  if (state_->listener >= 0) ::close(state_->listener);
  if (state_->refused >= 0) ::close(state_->refused);
}

bool FaultServer::isListening() const noexcept { return acceptor_.joinable() && state_->port != 0; }
std::uint16_t FaultServer::port() const noexcept { return state_->port; }
std::uint16_t FaultServer::refusedPort() const noexcept { return state_->refusedPort; }

void FaultServer::configure(FaultSetup setup) {
  auto shared = std::make_shared<const FaultSetup>(std::move(setup));
  std::lock_guard lock(state_->mutex);
  state_->setup = std::move(shared);
  state_->targets.clear();
}

std::vector<std::string> FaultServer::targets() const {
  std::lock_guard lock(state_->mutex);
  return state_->targets;
}

}  // namespace orv::test
