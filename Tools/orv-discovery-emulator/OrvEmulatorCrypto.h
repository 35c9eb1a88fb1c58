#pragma once
// The signing side of the discovery service: keys, certificates and detached JWS. The emulator uses
// it to generate its material and sign its answers; tests use it to make their own vectors.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrvCertificate.h"
#include "OrvTypes.h"

namespace orv::emulator {

enum class KeyKind { rsa2048, rsa3072, ecP256, ecP384, ecP521, ed25519 };

namespace detail {
struct KeyHandle;
}

// Owns one private key (an EVP_PKEY). Move-only.
class PrivateKey {
 public:
  static std::optional<PrivateKey> generate(KeyKind kind);
  static std::optional<PrivateKey> fromPEM(std::string_view pem);
  PrivateKey(PrivateKey&&) noexcept;
  PrivateKey& operator=(PrivateKey&&) noexcept;
  ~PrivateKey();

  std::string privateKeyPEM() const;
  const detail::KeyHandle& handle() const noexcept { return *handle_; }

 private:
  explicit PrivateKey(std::unique_ptr<detail::KeyHandle> handle);
  std::unique_ptr<detail::KeyHandle> handle_;
};

struct CertificateProfile {
  std::optional<std::string> organization;
  std::optional<std::string> commonName;
  // Further organisation entries after the first, for names a careful verifier must refuse.
  std::vector<std::string> additionalOrganizations;
  OrvDate notBefore;
  OrvDate notAfter;
  bool isCA = false;
  // Without a key-usage extension when false.
  bool addKeyUsage = true;
  // digitalSignature, plus keyCertSign|cRLSign for CAs; false leaves digitalSignature out (a leaf then
  // gets nonRepudiation only).
  bool digitalSignature = true;
  std::vector<std::string> dnsNames;
  std::vector<std::string> ipAddresses;
};

// A certificate for subjectKey, signed with issuerKey under issuer's name; issuer == nullptr makes it
// self-signed (issuerKey must then be subjectKey). PEM text, or nothing when OpenSSL refuses.
std::optional<std::string> issueCertificate(const CertificateProfile& profile, const PrivateKey& subjectKey,
                                            const OrvCertificate* issuer, const PrivateKey& issuerKey);

// The JWS signature of signingInput with the algorithm (RS256/384/512, PS256/384/512, ES256/384/512 as
// raw r||s, EdDSA); nothing when the algorithm does not fit the key.
std::optional<std::string> signRaw(const PrivateKey& key, std::string_view algorithm, std::string_view signingInput);

// A detached JWS for the payload: base64url(protectedHeaderJson) "." base64url(signature). The signing
// input is base64url(header) "." base64url(payload), or header "." raw payload when the header asks
// for an unencoded payload ("b64": false) and unencodedPayload is set.
std::optional<std::string> signDetachedJws(const PrivateKey& key, std::string_view algorithm,
                                           std::string_view protectedHeaderJson, std::string_view payload,
                                           bool unencodedPayload = false);

std::string base64UrlEncode(std::string_view bytes);

}  // namespace orv::emulator
