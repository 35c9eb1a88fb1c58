#pragma once
// Keys and certificates shared by the security tests, generated once per test run: key generation is
// the slow part, and the tests only read the material.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "OrvEmulatorCrypto.h"
#include "OrvSecurityUtilsService.h"

namespace orv::test {

using namespace std::chrono_literals;

inline constexpr const char* kRequiredIssuer = "Varnel Systems, Inc.";
inline constexpr std::string_view kPayload = R"({"domain":"example.com","serviceUrls":["https://store.example.com"]})";

struct SecurityMaterial {
  using KeyKind = emulator::KeyKind;
  using Profile = emulator::CertificateProfile;

  static emulator::PrivateKey key(KeyKind kind) { return emulator::PrivateKey::generate(kind).value(); }
  // Issued by issuer with issuerKey, or self-signed by subjectKey.
  static OrvCertificateRef issue(const Profile& profile, const emulator::PrivateKey& subjectKey,
                                 const OrvCertificateRef& issuer = nullptr, const emulator::PrivateKey* issuerKey = nullptr) {
    auto certificate = OrvCertificate::certificateWithContent(
        emulator::issueCertificate(profile, subjectKey, issuer.get(), issuerKey ? *issuerKey : subjectKey).value());
    if (!certificate) throw std::runtime_error("certificate issuing failed");
    return certificate;
  }
  Profile ca(OrvDate notAfter) const {
    return {.organization = kRequiredIssuer,
            .commonName = "Varnel Root",
            .notBefore = now - 240h,
            .notAfter = notAfter,
            .isCA = true};
  }
  Profile leaf(std::optional<std::string> organization = "Varnel Signing", std::function<void(Profile&)> change = {}) const {
    Profile profile{.organization = std::move(organization),
                    .commonName = "discovery signing",
                    .notBefore = leafNotBefore,
                    .notAfter = leafNotAfter};
    if (change) change(profile);
    return profile;
  }

  // Whole seconds, as certificates store them, so that boundaries can be hit exactly.
  OrvDate now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  OrvDate leafNotBefore = now - 1h, leafNotAfter = now + 1h;

  emulator::PrivateKey rootKey = key(KeyKind::ecP256), otherRootKey = key(KeyKind::ecP256), rsaKey = key(KeyKind::rsa2048),
                       rsaOtherKey = key(KeyKind::rsa2048), p256Key = key(KeyKind::ecP256), p384Key = key(KeyKind::ecP384),
                       p521Key = key(KeyKind::ecP521), ed25519Key = key(KeyKind::ed25519);
  // CAs named kRequiredIssuer: the anchor, another one not configured as anchor, one whose period ended.
  OrvCertificateRef root = issue(ca(now + 240h), rootKey);
  OrvCertificateRef otherRoot = issue(ca(now + 240h), otherRootKey);
  OrvCertificateRef expiredRoot = issue(ca(now - 2h), otherRootKey);
  // Issued by root.
  OrvCertificateRef rsaLeaf = issue(leaf(), rsaKey, root, &rootKey);
  OrvCertificateRef p256Leaf = issue(leaf(), p256Key, root, &rootKey);
  OrvCertificateRef p384Leaf = issue(leaf(), p384Key, root, &rootKey);
  OrvCertificateRef p521Leaf = issue(leaf(), p521Key, root, &rootKey);
  OrvCertificateRef ed25519Leaf = issue(leaf(), ed25519Key, root, &rootKey);
  OrvCertificateRef noDigitalSignature =
      issue(leaf("Varnel Signing", [](Profile& p) { p.digitalSignature = false; }), rsaKey, root, &rootKey);
  OrvCertificateRef noKeyUsage = issue(leaf("Varnel Signing", [](Profile& p) { p.addKeyUsage = false; }), rsaKey, root, &rootKey);
  // rsaKey under the right issuer name, from the other CAs.
  OrvCertificateRef leafOfOtherRoot = issue(leaf(), rsaKey, otherRoot, &otherRootKey);
  OrvCertificateRef leafOfExpiredRoot = issue(leaf(), rsaKey, expiredRoot, &otherRootKey);
  // Self-signed with rsaKey, so that the issuer's name is the subject's.
  OrvCertificateRef selfSigned = issue(leaf(kRequiredIssuer), rsaKey);
  OrvCertificateRef issuerPrefix = issue(leaf("Varnel Systems"), rsaKey);
  OrvCertificateRef issuerOtherCase = issue(leaf("varnel systems, inc."), rsaKey);
  OrvCertificateRef issuerByCommonName = issue(leaf(std::nullopt, [](Profile& p) { p.commonName = kRequiredIssuer; }), rsaKey);
  // kRequiredIssuer first, then another organisation.
  OrvCertificateRef twoIssuerOrganizations =
      issue(leaf(kRequiredIssuer, [](Profile& p) { p.additionalOrganizations = {"Someone Else Ltd"}; }), rsaKey);
};

inline const SecurityMaterial& securityMaterial() {
  static const SecurityMaterial material;
  return material;
}

// A detached JWS split into its two pieces.
struct DetachedJws {
  std::optional<std::string> header;
  std::optional<std::string> signature;
};

inline DetachedJws signJws(const emulator::PrivateKey& key, std::string_view algorithm, std::string_view headerJson,
                           std::string_view payload = kPayload, bool unencodedPayload = false) {
  const auto jws = emulator::signDetachedJws(key, algorithm, headerJson, payload, unencodedPayload);
  if (!jws) return {};
  const auto dot = jws->find('.');
  return {jws->substr(0, dot), jws->substr(dot + 1)};
}

// A JWS whose pieces are given as they stand (header JSON, raw signature bytes), for headers no signer makes.
inline DetachedJws forgedJws(std::string_view headerJson, std::string_view signature) {
  return {emulator::base64UrlEncode(headerJson), emulator::base64UrlEncode(signature)};
}

inline std::shared_ptr<OrvSecurityUtilsService> serviceWith(std::function<OrvDate()> clock,
                                                            std::vector<OrvCertificateRef> anchors = {},
                                                            bool useDefaultTrustAnchors = false) {
  return OrvSecurityUtilsService::create(
      {.trustAnchors = std::move(anchors), .clock = std::move(clock), .useDefaultTrustAnchors = useDefaultTrustAnchors});
}

inline std::shared_ptr<OrvSecurityUtilsService> serviceAt(OrvDate now, bool withAnchors = false) {
  return serviceWith([now] { return now; },
                     withAnchors ? std::vector{securityMaterial().root} : std::vector<OrvCertificateRef>{});
}

// The verification result; for a rejection also checks that the error carries the result and a text.
inline std::int64_t verifyResult(const OrvSecurityUtilsService& service, const DetachedJws& jws,
                                 const OrvCertificateRef& certificate, std::string_view payload = kPayload,
                                 std::optional<std::string> requiredIssuer = kRequiredIssuer) {
  AdditionalCertificateValidationOptions options;
  options.setRequiredIssuerName(std::move(requiredIssuer));
  const auto [result, error] = service.validateJWT(payload, jws.header, jws.signature, certificate, &options);
  EXPECT_EQ(error.has_value(), result != 0);
  if (error) {
    EXPECT_EQ(error->domain(), OrvSecurityUtilsErrorDomain);
    EXPECT_EQ(error->code(), result);
    EXPECT_FALSE(error->localizedDescription().empty());
  }
  return result;
}

}  // namespace orv::test
