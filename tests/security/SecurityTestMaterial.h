#pragma once
// Keys and certificates shared by the security tests, generated once per test run: key generation is
// the slow part, and the tests only read the material.
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "OrvEmulatorCrypto.h"
#include "OrvSecurityUtilsService.h"

namespace orv::test {

inline constexpr const char* kRequiredIssuer = "Varnel Systems, Inc.";
inline constexpr std::string_view kPayload = R"({"domain":"example.com","serviceUrls":["https://store.example.com"]})";

struct SecurityMaterial {
  SecurityMaterial();

  // Whole seconds, as certificates store them, so that boundaries can be hit exactly.
  OrvDate now;
  OrvDate leafNotBefore;
  OrvDate leafNotAfter;

  emulator::PrivateKey rootKey, otherRootKey, rsaKey, rsaOtherKey, p256Key, p384Key, p521Key, ed25519Key;
  OrvCertificateRef root;         // CA named kRequiredIssuer
  OrvCertificateRef otherRoot;    // another CA with the same name, not configured as anchor
  OrvCertificateRef expiredRoot;  // CA named kRequiredIssuer whose period ended before now
  OrvCertificateRef rsaLeaf, p256Leaf, p384Leaf, p521Leaf, ed25519Leaf;  // issued by root
  OrvCertificateRef leafOfOtherRoot, leafOfExpiredRoot;                  // rsaKey, right issuer name
  OrvCertificateRef selfSigned;                                          // rsaKey, subject (and so issuer) kRequiredIssuer
  OrvCertificateRef noDigitalSignature, noKeyUsage;                      // rsaKey, issued by root
  OrvCertificateRef issuerByCommonName, issuerPrefix, issuerOtherCase;   // self-signed, rsaKey
  OrvCertificateRef twoIssuerOrganizations;  // self-signed, rsaKey, kRequiredIssuer first and another organisation
};

const SecurityMaterial& securityMaterial();

// A detached JWS split into its two pieces.
struct DetachedJws {
  std::optional<std::string> header;
  std::optional<std::string> signature;
};

DetachedJws signJws(const emulator::PrivateKey& key, std::string_view algorithm, std::string_view headerJson,
                    std::string_view payload = kPayload, bool unencodedPayload = false);
// A JWS whose pieces are given as they stand (header JSON, raw signature bytes), for headers no signer makes.
DetachedJws forgedJws(std::string_view headerJson, std::string_view signature);

std::shared_ptr<OrvSecurityUtilsService> serviceWith(std::function<OrvDate()> clock, std::vector<OrvCertificateRef> anchors = {},
                                                     bool useDefaultTrustAnchors = false);
std::shared_ptr<OrvSecurityUtilsService> serviceAt(OrvDate now, bool withAnchors = false);

// The verification result; for a rejection also checks that the error carries the result and a text.
std::int64_t verifyResult(const OrvSecurityUtilsService& service, const DetachedJws& jws, const OrvCertificateRef& certificate,
                          std::string_view payload = kPayload, std::optional<std::string> requiredIssuer = kRequiredIssuer);

}  // namespace orv::test
