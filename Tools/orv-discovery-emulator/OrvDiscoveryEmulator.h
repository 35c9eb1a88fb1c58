#pragma once
// A local stand-in for the discovery service: an HTTPS server that answers the auto-discover,
// settings and public-key endpoints from a JSON catalog and signs its answers. Tests start it
// in-process; the orv-discovery-emulator program wraps it for the command line.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orv::emulator {

// File names inside a material directory.
inline constexpr const char* kSigningCAFile = "signing-ca.pem";
inline constexpr const char* kSigningCAKeyFile = "signing-ca-key.pem";
inline constexpr const char* kSigningRSAFile = "signing.pem";
inline constexpr const char* kSigningRSAKeyFile = "signing-key.pem";
inline constexpr const char* kSigningECFile = "signing-ec.pem";
inline constexpr const char* kSigningECKeyFile = "signing-ec-key.pem";
inline constexpr const char* kTLSCAFile = "tls-ca.pem";
inline constexpr const char* kTLSCAKeyFile = "tls-ca-key.pem";
inline constexpr const char* kTLSServerFile = "tls-server.pem";
inline constexpr const char* kTLSServerKeyFile = "tls-server-key.pem";
inline constexpr const char* kCatalogFile = "catalog.json";

// Organisation and common name of the signing CA, the issuer the client requires.
inline constexpr const char* kSigningIssuerName = "Varnel Systems, Inc.";
inline constexpr const char* kSignatureHeaderName = "Varnel-Signature";

// Writes a fresh set of keys, certificates and a demo catalog into dir (created when missing).
// False with a reason in error when something cannot be made or written.
bool generateMaterial(const std::string& dir, std::string* error = nullptr);

// The demo catalog that generateMaterial writes, as JSON text.
std::string demoCatalogJSON();

// How a faulty exchange leaves its connection.
enum class FaultEnding {
  keepOpen,  // as the request asked
  close,     // TLS close_notify, then an orderly close
  reset,     // an abortive close: the client sees a reset, not an end of stream
  silence,   // say nothing more and keep the connection open until the client goes
};

// What to do to the answers of one exact request path (query string excluded).
struct FaultSpec {
  // Answer with this status instead of the natural one.
  std::optional<unsigned> status;
  // Wait this long before answering.
  std::chrono::milliseconds delay{0};
  // Announce the whole body, send half of it and close the connection.
  bool dropMidBody = false;
  // Leave out the signature header.
  bool omitSignature = false;
  // Send a well-formed signature header whose signature does not verify.
  bool corruptSignature = false;
  // Serve this body instead; it is signed like a catalog answer and goes out with status 200 unless
  // status says otherwise.
  std::optional<std::string> body;
  // Write these bytes instead of an answer, exactly as given but for "{port}", which becomes the
  // server's port: for framing, floods and redirects that no well-behaved server sends.
  std::optional<std::string> raw;
  // Send what follows the first blank line of the answer one byte at a time, this far apart.
  std::chrono::milliseconds drip{0};
  // Anything but keepOpen ends the exchange in place of the answer, or after raw when it is given.
  FaultEnding ending = FaultEnding::keepOpen;
  // On a connection that has served a request before, close it without answering: a client must
  // then retry on a fresh connection.
  bool hangUpIfReused = false;
};

// How the server meets a TLS handshake, for clients that must refuse what they meet. Applies to the
// whole server, from start.
enum class TLSFault {
  none,                // the material's certificate, TLS 1.2 and newer
  otherName,           // a certificate for other.invalid only, from the material's TLS CA
  expired,             // the right names and CA, validity over an hour ago
  untrustedAuthority,  // the right names, from a CA made up at start that no client was given
  tls10Only,           // the material's certificate over TLS 1.0 and nothing newer
  noHandshake,         // accept the TCP connection and never answer the handshake
};

// Reads a --tls-fault value: other-name, expired, untrusted, tls1.0, no-handshake.
std::optional<TLSFault> tlsFaultNamed(std::string_view name);

// Folds one command-line fault, "PATH:KNOB", into faults[PATH]. Knobs: status=CODE, delay=MS, drop,
// nosig, badsig, body=TEXT, body=@FILE, raw=TEXT, raw=@FILE, drip=MS, close, reset, silence,
// hangup-reused. False with the reason in error for anything else.
bool addFaultArgument(std::map<std::string, FaultSpec>& faults, std::string_view argument, std::string* error = nullptr);

struct RecordedRequest {
  std::string method;
  // The request target as received, query included.
  std::string target;
  std::vector<std::pair<std::string, std::string>> headers;

  // First header of that name, compared case-insensitively.
  std::optional<std::string> header(std::string_view name) const;
};

struct EmulatorOptions {
  std::string materialDir;
  // The catalog: catalogJSON wins over catalogFile; with neither, materialDir/catalog.json when it
  // exists, else an empty catalog.
  std::optional<std::string> catalogFile;
  std::optional<std::string> catalogJSON;
  std::string listenAddress = "127.0.0.1";
  // 0 picks a free port.
  std::uint16_t port = 0;
  // "RS256" signs with signing.pem, "ES256" with signing-ec.pem.
  std::string algorithm = "RS256";
  // Connections with nothing to do for this long are closed.
  std::chrono::milliseconds idleTimeout{std::chrono::seconds(30)};
  // Requests whose header block is larger are refused with 431.
  std::size_t maxHeaderBytes = 16 * 1024;
  TLSFault tlsFault = TLSFault::none;
};

struct ExportOptions {
  std::string materialDir;
  // Chosen as for EmulatorOptions.
  std::optional<std::string> catalogFile;
  std::optional<std::string> catalogJSON;
  std::string algorithm = "RS256";
  // Answers without their own "iat"/"exp" are valid from a minute before the export for this long:
  // a static file cannot be stamped when it is served.
  std::chrono::seconds validFor = std::chrono::days(30);
  // Where the generated nginx configuration listens; an IPv6 address goes without brackets.
  std::string listenAddress = "127.0.0.1";
  std::uint16_t port = 8443;
};

// Writes every answer of the catalog (and the public-key answer) as a static file under outDir/root,
// the server's TLS certificate and key, and outDir/nginx.conf serving them over TLS and HTTP/2 with
// the signatures the emulator would send, so that `nginx -p outDir -c nginx.conf` stands up a static
// copy of the emulator. outDir is created when missing; files of an earlier export are overwritten.
// False with the reason in error when the material or catalog is unusable or a file cannot be written.
bool exportCatalog(const ExportOptions& options, const std::string& outDir, std::string* error = nullptr);

// A loopback port free at the time of asking, for an exported configuration to listen on (nginx cannot
// report a port it picked itself); 0 when none could be found.
std::uint16_t freeLoopbackPort();

namespace detail {
class EmulatorServer;
}

class DiscoveryEmulator {
 public:
  using Options = EmulatorOptions;

  // A running server, or nullptr with the reason in error.
  static std::unique_ptr<DiscoveryEmulator> start(const Options& options, std::string* error = nullptr);

  // Stops the server, closes its connections and joins its thread.
  ~DiscoveryEmulator();
  DiscoveryEmulator(const DiscoveryEmulator&) = delete;
  DiscoveryEmulator& operator=(const DiscoveryEmulator&) = delete;

  std::uint16_t port() const;
  // "127.0.0.1:PORT" (an IPv6 address in brackets).
  std::string hostAndPort() const;
  std::string baseURL() const;
  // The CA that issued the server's TLS certificate; clients trust it to reach the emulator.
  std::string tlsCAFile() const;
  // PEM of the certificate the answers are signed with (what /ads/root/publickey serves).
  std::string signingCertificatePEM() const;

  // False (nothing changed) when the status override is outside 200-599.
  bool setFault(const std::string& path, FaultSpec fault);
  void clearFaults();
  // Replaces the catalog; false (catalog unchanged) with the reason in error when the text is not one.
  bool setCatalogJSON(const std::string& text, std::string* error = nullptr);

  std::vector<RecordedRequest> requests() const;
  void clearRequests();

 private:
  explicit DiscoveryEmulator(std::unique_ptr<detail::EmulatorServer> server);
  std::unique_ptr<detail::EmulatorServer> server_;
};

}  // namespace orv::emulator
