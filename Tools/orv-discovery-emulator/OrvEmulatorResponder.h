#pragma once
// What the emulator answers, apart from the wire: the catalog, the routes, the signatures and the
// fault knobs. The HTTPS server asks it for one answer per request.
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "OrvDiscoveryEmulator.h"
#include "OrvEmulatorCrypto.h"
#include "OrvTypes.h"

namespace orv::emulator::detail {

struct EmulatorMaterial {
  std::string algorithm;
  PrivateKey signingKey;
  std::string signingCertificatePEM;
  std::string tlsCertificatePEM;
  std::string tlsPrivateKeyPEM;
  std::string tlsCAFile;
};

// The keys and certificates of a material directory for the algorithm ("RS256" or "ES256"); under a
// certificate fault the TLS certificate is one issued now for the material's TLS key.
std::optional<EmulatorMaterial> loadMaterial(const std::string& dir, const std::string& algorithm, TLSFault tlsFault,
                                             std::string* error);

// A TLS server certificate for the key in serverKeyPEM that a client must refuse in the way the
// fault names (otherName, expired or untrustedAuthority); the CA is the material's TLS CA.
std::optional<std::string> faultyTLSCertificate(TLSFault fault, const std::string& serverKeyPEM, const std::string& caPEM,
                                                const std::string& caKeyPEM, std::string* error);

struct HttpAnswer {
  unsigned status = 200;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  // The path's fault as set; the server acts on what concerns the wire (delay, raw bytes, endings).
  FaultSpec fault;
};

struct Catalog;

class Responder {
 public:
  static std::unique_ptr<Responder> create(EmulatorMaterial material, std::string_view catalogJSON, std::string* error);
  static std::unique_ptr<Responder> create(EmulatorMaterial material, std::shared_ptr<const Catalog> catalog);
  ~Responder();
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

  HttpAnswer answer(std::string_view method, std::string_view target, OrvDate now) const;

  bool setCatalogJSON(std::string_view text, std::string* error);
  bool setFault(const std::string& path, FaultSpec fault);
  void clearFaults();

  void record(RecordedRequest request);
  std::vector<RecordedRequest> requests() const;
  void clearRequests();

  const EmulatorMaterial& material() const noexcept { return material_; }

 private:
  Responder(EmulatorMaterial material, std::shared_ptr<const Catalog> catalog);
  std::string sign(std::string_view body, bool corrupt) const;

  EmulatorMaterial material_;
  std::string protectedHeader_;
  mutable std::mutex mutex_;
  std::shared_ptr<const Catalog> catalog_;
  std::map<std::string, FaultSpec> faults_;
  std::vector<RecordedRequest> requests_;
};

}  // namespace orv::emulator::detail
