#include "SecurityTestMaterial.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace orv::test {

using namespace std::chrono_literals;
using emulator::CertificateProfile;
using emulator::KeyKind;
using emulator::PrivateKey;

namespace {

PrivateKey key(KeyKind kind) {
  auto generated = PrivateKey::generate(kind);
  if (!generated) throw std::runtime_error("key generation failed");
  return std::move(*generated);
}

OrvCertificateRef issue(const CertificateProfile& profile, const PrivateKey& subjectKey, const OrvCertificateRef& issuer,
                        const PrivateKey& issuerKey) {
  const auto pem = emulator::issueCertificate(profile, subjectKey, issuer.get(), issuerKey);
  auto certificate = pem ? OrvCertificate::certificateWithContent(*pem) : nullptr;
  if (!certificate) throw std::runtime_error("certificate issuing failed");
  return certificate;
}

OrvDate wholeSecondsNow() { return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()); }

}  // namespace

SecurityMaterial::SecurityMaterial()
    : now(wholeSecondsNow()),
      leafNotBefore(now - 1h),
      leafNotAfter(now + 1h),
      rootKey(key(KeyKind::ecP256)),
      otherRootKey(key(KeyKind::ecP256)),
      rsaKey(key(KeyKind::rsa2048)),
      rsaOtherKey(key(KeyKind::rsa2048)),
      p256Key(key(KeyKind::ecP256)),
      p384Key(key(KeyKind::ecP384)),
      p521Key(key(KeyKind::ecP521)),
      ed25519Key(key(KeyKind::ed25519)) {
  const auto ca = [&](OrvDate from, OrvDate to) {
    return CertificateProfile{
        .organization = kRequiredIssuer, .commonName = "Varnel Root", .notBefore = from, .notAfter = to, .isCA = true};
  };
  const auto leaf = [&](std::optional<std::string> organization = "Varnel Signing") {
    return CertificateProfile{.organization = std::move(organization),
                              .commonName = "discovery signing",
                              .notBefore = leafNotBefore,
                              .notAfter = leafNotAfter};
  };
  root = issue(ca(now - 240h, now + 240h), rootKey, nullptr, rootKey);
  otherRoot = issue(ca(now - 240h, now + 240h), otherRootKey, nullptr, otherRootKey);
  expiredRoot = issue(ca(now - 240h, now - 2h), otherRootKey, nullptr, otherRootKey);
  rsaLeaf = issue(leaf(), rsaKey, root, rootKey);
  p256Leaf = issue(leaf(), p256Key, root, rootKey);
  p384Leaf = issue(leaf(), p384Key, root, rootKey);
  p521Leaf = issue(leaf(), p521Key, root, rootKey);
  ed25519Leaf = issue(leaf(), ed25519Key, root, rootKey);
  leafOfOtherRoot = issue(leaf(), rsaKey, otherRoot, otherRootKey);
  leafOfExpiredRoot = issue(leaf(), rsaKey, expiredRoot, otherRootKey);
  selfSigned = issue(leaf(kRequiredIssuer), rsaKey, nullptr, rsaKey);
  auto profile = leaf();
  profile.digitalSignature = false;
  noDigitalSignature = issue(profile, rsaKey, root, rootKey);
  profile.addKeyUsage = false;
  noKeyUsage = issue(profile, rsaKey, root, rootKey);
  profile = leaf(std::nullopt);
  profile.commonName = kRequiredIssuer;
  issuerByCommonName = issue(profile, rsaKey, nullptr, rsaKey);
  issuerPrefix = issue(leaf("Varnel Systems"), rsaKey, nullptr, rsaKey);
  issuerOtherCase = issue(leaf("varnel systems, inc."), rsaKey, nullptr, rsaKey);
  profile = leaf(kRequiredIssuer);
  profile.additionalOrganizations = {"Someone Else Ltd"};
  twoIssuerOrganizations = issue(profile, rsaKey, nullptr, rsaKey);
}

const SecurityMaterial& securityMaterial() {
  static const SecurityMaterial material;
  return material;
}

DetachedJws signJws(const emulator::PrivateKey& key, std::string_view algorithm, std::string_view headerJson,
                    std::string_view payload, bool unencodedPayload) {
  const auto jws = emulator::signDetachedJws(key, algorithm, headerJson, payload, unencodedPayload);
  if (!jws) return {};
  const auto dot = jws->find('.');
  return {jws->substr(0, dot), jws->substr(dot + 1)};
}

DetachedJws forgedJws(std::string_view headerJson, std::string_view signature) {
  return {emulator::base64UrlEncode(headerJson), emulator::base64UrlEncode(signature)};
}

std::shared_ptr<OrvSecurityUtilsService> serviceWith(std::function<OrvDate()> clock, std::vector<OrvCertificateRef> anchors,
                                                     bool useDefaultTrustAnchors) {
  OrvSecurityUtilsService::Configuration configuration;
  configuration.clock = std::move(clock);
  configuration.trustAnchors = std::move(anchors);
  configuration.useDefaultTrustAnchors = useDefaultTrustAnchors;
  return OrvSecurityUtilsService::create(std::move(configuration));
}

std::shared_ptr<OrvSecurityUtilsService> serviceAt(OrvDate now, bool withAnchors) {
  return serviceWith([now] { return now; },
                     withAnchors ? std::vector{securityMaterial().root} : std::vector<OrvCertificateRef>{});
}

std::int64_t verifyResult(const OrvSecurityUtilsService& service, const DetachedJws& jws, const OrvCertificateRef& certificate,
                          std::string_view payload, std::optional<std::string> requiredIssuer) {
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
