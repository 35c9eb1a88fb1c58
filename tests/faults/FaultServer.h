#pragma once
// A TLS server on loopback that misbehaves on purpose. After reading a request head it follows the
// script its test gave for that request target, byte for byte, so that a test can lead the real client
// into each failure a server or a network can cause: torn connections, stalls, malformed framing,
// oversized answers, redirect chains, certificates and protocol versions the client must refuse.
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "EmulatorHarness.h"

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
  FaultServer();
  // Stops accepting, wakes every connection still blocked and joins all threads.
  ~FaultServer();
  FaultServer(const FaultServer&) = delete;
  FaultServer& operator=(const FaultServer&) = delete;

  bool isListening() const noexcept;
  std::uint16_t port() const noexcept;
  // A loopback port bound by this server but never listening: a connection to it is refused.
  std::uint16_t refusedPort() const noexcept;
  // PEM file of the authority behind the trusted, otherName and expired certificates.
  std::string caFile() const { return material_.file("ca.pem"); }

  // Applies to connections accepted from now on (those already open keep their setup) and clears
  // the record of request targets.
  void configure(FaultSetup setup);
  // Request targets read so far, in the order their heads arrived.
  std::vector<std::string> targets() const;

  struct State;

 private:
  TemporaryDirectory material_;
  std::unique_ptr<State> state_;
  std::thread acceptor_;
};

}  // namespace orv::test
