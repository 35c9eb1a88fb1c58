#pragma once
// A TLS server on loopback that misbehaves on purpose. After reading a request head it follows the
// script its test gave for that request target, byte for byte, so that a test can lead the real client
// into each failure a server or a network can cause: torn connections, stalls, malformed framing,
// oversized answers, redirect chains, certificates and protocol versions the client must refuse.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "EmulatorHarness.h"
#include "OrvEmulatorCrypto.h"
#include "OrvOpenSSLHandles.h"

namespace orv::test {

struct FaultStep {
  enum class Kind {
    write,          // the bytes, each "{port}" replaced by the server's port
    pause,          // wait for delay
    reset,          // abortive close: the peer sees a reset, not an end of stream
    close,          // TLS close_notify, then an orderly close
    silence,        // keep the connection open and say nothing until the peer goes
    closeIfReused,  // close without answering, but only on a connection that served a request before
  };
  Kind kind = Kind::write;
  std::string bytes;
  std::chrono::milliseconds delay{0};
};
using FaultScript = std::vector<FaultStep>;

inline FaultStep sendBytes(std::string bytes) { return {FaultStep::Kind::write, std::move(bytes)}; }
inline FaultStep pauseFor(std::chrono::milliseconds delay) { return {FaultStep::Kind::pause, {}, delay}; }
inline FaultStep resetConnection() { return {FaultStep::Kind::reset}; }
inline FaultStep closeConnection() { return {FaultStep::Kind::close}; }
inline FaultStep staySilent() { return {FaultStep::Kind::silence}; }
inline FaultStep closeIfReused() { return {FaultStep::Kind::closeIfReused}; }

enum class FaultCertificate {
  trusted,             // 127.0.0.1 and localhost, from the authority in caFile()
  otherName,           // other.invalid only, same authority
  expired,             // right names and authority, validity over
  untrustedAuthority,  // right names, from an authority the client was not given
};

enum class FaultTransport {
  tls,
  tls10Only,  // TLS 1.0 and nothing newer, at security level 0
  tcpOnly,    // accepts the connection and never answers the handshake
};

struct FaultSetup {
  FaultTransport transport = FaultTransport::tls;
  FaultCertificate certificate = FaultCertificate::trusted;
  // By exact request target. A target without a script gets an empty 404 on a connection kept open.
  std::map<std::string, FaultScript> scripts;
};

class FaultServer {
 public:
  // Generates its certificates and listens on 127.0.0.1 at a free port; check isListening().
  FaultServer() {
    if (!makeContexts()) return;
    refused_ = loopbackSocket(refusedPort_, false);
    listener_ = loopbackSocket(port_, true);
    if (refused_ >= 0 && listener_ >= 0) acceptor_ = std::thread([this] { acceptConnections(); });
  }
  // Stops accepting, wakes every connection still blocked and joins all threads.
  ~FaultServer() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      for (const int fd : open_) ::shutdown(fd, SHUT_RDWR);
    }
    // Wakes the blocked accept(); no connection starts after this.
    if (listener_ >= 0) ::shutdown(listener_, SHUT_RDWR);
    if (acceptor_.joinable()) acceptor_.join();
    for (auto& connection : connections_) connection.join();
    for (const int fd : {listener_, refused_}) {
      if (fd >= 0) ::close(fd);
    }
  }

  bool isListening() const noexcept { return acceptor_.joinable(); }
  std::uint16_t port() const noexcept { return port_; }
  // A loopback port bound by this server but never listening: a connection to it is refused.
  std::uint16_t refusedPort() const noexcept { return refusedPort_; }
  // PEM file of the authority behind the trusted, otherName and expired certificates.
  std::string caFile() const { return material_.file("ca.pem"); }

  // Applies to connections accepted from now on (those already open keep their setup) and clears
  // the record of request targets.
  void configure(FaultSetup setup) {
    auto shared = std::make_shared<const FaultSetup>(std::move(setup));
    std::lock_guard lock(mutex_);
    setup_ = std::move(shared);
    targets_.clear();
  }
  // Request targets read so far, in the order their heads arrived.
  std::vector<std::string> targets() const {
    std::lock_guard lock(mutex_);
    return targets_;
  }

 private:
  using SslContextPtr = std::unique_ptr<SSL_CTX, orv::detail::OpenSSLDeleter<SSL_CTX_free>>;
  using SslPtr = std::unique_ptr<SSL, orv::detail::OpenSSLDeleter<SSL_free>>;

  static int loopbackSocket(std::uint16_t& port, bool listening) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        (listening && ::listen(fd, 16) != 0) || ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      if (fd >= 0) ::close(fd);
      return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
  }

  // Every variant shares one server key; only the certificates differ, each in a single way. TLS 1.0
  // needs security level 0, or OpenSSL 3 will not offer it at all and the client would meet no server.
  bool makeContexts() {
    using namespace orv::emulator;
    using namespace std::chrono_literals;
    const auto now = std::chrono::system_clock::now();
    const auto profile = [&](std::string name, bool isCA, std::vector<std::string> dnsNames = {}) {
      return CertificateProfile{.organization = "Orv Fault Server",
                                .commonName = std::move(name),
                                .notBefore = now - 48h,
                                .notAfter = now + 48h,
                                .isCA = isCA,
                                .dnsNames = std::move(dnsNames)};
    };
    auto caKey = PrivateKey::generate(KeyKind::ecP256), strangerKey = PrivateKey::generate(KeyKind::ecP256);
    auto serverKey = PrivateKey::generate(KeyKind::ecP256);
    if (!caKey || !strangerKey || !serverKey) return false;
    const auto ca = OrvCertificate::certificateWithContent(
        issueCertificate(profile("Orv Fault CA", true), *caKey, nullptr, *caKey).value_or(""));
    const auto stranger = OrvCertificate::certificateWithContent(
        issueCertificate(profile("Orv Stranger CA", true), *strangerKey, nullptr, *strangerKey).value_or(""));
    if (!ca || !stranger) return false;
    writeFile(caFile(), ca->pemString());
    writeFile(material_.file("key.pem"), serverKey->privateKeyPEM());
    auto loopback = profile("localhost", false, {"localhost"});
    loopback.ipAddresses = {"127.0.0.1"};
    auto expired = loopback;
    expired.notAfter = now - 1h;
    const std::tuple<SslContextPtr*, CertificateProfile, const OrvCertificate*, const PrivateKey*, bool> leaves[] = {
        {&contexts_[FaultCertificate::trusted], loopback, ca.get(), &*caKey, false},
        {&contexts_[FaultCertificate::otherName], profile("other.invalid", false, {"other.invalid"}), ca.get(), &*caKey, false},
        {&contexts_[FaultCertificate::expired], expired, ca.get(), &*caKey, false},
        {&contexts_[FaultCertificate::untrustedAuthority], loopback, stranger.get(), &*strangerKey, false},
        {&tls10_, loopback, ca.get(), &*caKey, true},
    };
    for (const auto& [context, leaf, issuer, issuerKey, tls10Only] : leaves) {
      const std::string file = material_.file("leaf.pem");
      writeFile(file, issueCertificate(leaf, *serverKey, issuer, *issuerKey).value_or(""));
      context->reset(SSL_CTX_new(TLS_server_method()));
      if (!*context || SSL_CTX_use_certificate_file(context->get(), file.c_str(), SSL_FILETYPE_PEM) != 1 ||
          SSL_CTX_use_PrivateKey_file(context->get(), material_.file("key.pem").c_str(), SSL_FILETYPE_PEM) != 1) {
        return false;
      }
      if (!tls10Only) continue;
      SSL_CTX_set_security_level(context->get(), 0);
      if (SSL_CTX_set_min_proto_version(context->get(), TLS1_VERSION) != 1 ||
          SSL_CTX_set_max_proto_version(context->get(), TLS1_VERSION) != 1) {
        return false;
      }
    }
    return true;
  }

  // One accepted connection, owned by the thread that serves it.
  struct Connection {
    FaultServer& server;
    int fd;
    SslPtr ssl;
    std::string pending;

    ~Connection() { close(false); }

    // The descriptor leaves the stop list before it is closed, so that a stop never shuts down a
    // number the system has already handed out again.
    void close(bool abortive) {
      if (fd < 0) return;
      if (ssl && !abortive) SSL_shutdown(ssl.get());
      ssl.reset();
      {
        std::lock_guard lock(server.mutex_);
        server.open_.erase(fd);
      }
      const linger immediate{1, 0};
      if (abortive) ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &immediate, sizeof immediate);
      ::close(fd);
      fd = -1;
    }

    // Reads and drops whatever arrives until the peer goes or the server stops.
    void drain() {
      char chunk[4096];
      while (ssl ? SSL_read(ssl.get(), chunk, sizeof chunk) > 0 : ::recv(fd, chunk, sizeof chunk, 0) > 0) {
      }
    }

    // The target of the next request head; bytes read past the head stay pending.
    std::optional<std::string> nextTarget() {
      std::size_t end;
      while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
        char chunk[4096];
        const int received = pending.size() < 64 * 1024 ? SSL_read(ssl.get(), chunk, sizeof chunk) : 0;
        if (received <= 0) return std::nullopt;
        pending.append(chunk, static_cast<std::size_t>(received));
      }
      const auto start = pending.find(' ') + 1;
      std::string target = pending.substr(start, pending.find(' ', start) - start);
      pending.erase(0, end + 4);
      return target;
    }

    // False when the connection is over.
    bool play(const FaultScript& script, bool reused) {
      for (const auto& step : script) {
        std::string bytes = step.bytes;
        const std::string port = std::to_string(server.port_);
        for (auto at = bytes.find("{port}"); at != std::string::npos; at = bytes.find("{port}", at + port.size())) {
          bytes.replace(at, 6, port);
        }
        switch (step.kind) {
          case FaultStep::Kind::write:
            if (!bytes.empty() && SSL_write(ssl.get(), bytes.data(), static_cast<int>(bytes.size())) <= 0) return false;
            break;
          case FaultStep::Kind::pause:
            std::this_thread::sleep_for(step.delay);
            break;
          case FaultStep::Kind::closeIfReused:
            if (!reused) break;
            [[fallthrough]];
          case FaultStep::Kind::reset:
          case FaultStep::Kind::close:
            close(step.kind == FaultStep::Kind::reset);
            return false;
          case FaultStep::Kind::silence:
            drain();
            return false;
        }
      }
      return true;
    }
  };

  void serve(int fd, const std::shared_ptr<const FaultSetup>& setup) {
    Connection connection{*this, fd, nullptr, {}};
    if (setup->transport == FaultTransport::tcpOnly) return connection.drain();
    connection.ssl.reset(
        SSL_new(setup->transport == FaultTransport::tls10Only ? tls10_.get() : contexts_.at(setup->certificate).get()));
    if (!connection.ssl || SSL_set_fd(connection.ssl.get(), fd) != 1 || SSL_accept(connection.ssl.get()) != 1) {
      connection.ssl.reset();  // a failed handshake gets no close_notify
      ERR_clear_error();
      return;
    }
    static const FaultScript notFound{sendBytes("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n")};
    for (std::size_t served = 0;; ++served) {
      const auto target = connection.nextTarget();
      if (!target) break;
      {
        std::lock_guard lock(mutex_);
        targets_.push_back(*target);
      }
      const auto script = setup->scripts.find(*target);
      if (!connection.play(script != setup->scripts.end() ? script->second : notFound, served > 0)) break;
    }
    ERR_clear_error();
  }

  void acceptConnections() {
    // A peer that leaves mid-write must cost an EPIPE, not the test process; the client's own threads
    // keep the default, so that a library write to a closed connection would still show. Threads
    // started from here inherit the mask.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    for (;;) {
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      const int error = errno;
      std::lock_guard lock(mutex_);
      if (stopping_ || (fd < 0 && error != EINTR && error != ECONNABORTED)) {
        if (fd >= 0) ::close(fd);
        return;
      }
      if (fd < 0) continue;
      open_.insert(fd);
      connections_.emplace_back([this, fd, setup = setup_] { serve(fd, setup); });
    }
  }

  TemporaryDirectory material_;
  int listener_ = -1, refused_ = -1;
  std::uint16_t port_ = 0, refusedPort_ = 0;
  std::map<FaultCertificate, SslContextPtr> contexts_;
  SslContextPtr tls10_;

  mutable std::mutex mutex_;
  bool stopping_ = false;
  std::shared_ptr<const FaultSetup> setup_ = std::make_shared<const FaultSetup>();
  std::vector<std::string> targets_;
  // Descriptors of the connections being served: a stop shuts them down to wake whatever is blocked.
  std::set<int> open_;
  std::vector<std::thread> connections_;
  std::thread acceptor_;
};

}  // namespace orv::test
