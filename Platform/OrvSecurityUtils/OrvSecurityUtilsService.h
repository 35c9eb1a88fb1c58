#pragma once
// The security library: certificates from text, and verification of detached JWS signatures made by
// the discovery service, with the certificate checks that decide whether the signer is acceptable.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "OrvCertificate.h"
#include "OrvError.h"
#include "OrvSecurityServiceProtocol.h"
#include "OrvTypes.h"

// Error domain of rejected verifications; the error's code is the result.
inline constexpr const char* OrvSecurityUtilsErrorDomain = "com.varnel.OrvSecurityUtils.errorDomain";

// The result of one verification. Every rejection has its own code.
enum OrvSecurityUtilsResult : std::int64_t {
  OrvSecurityUtilsResultSuccess = 0,
  // No header, no signature or no certificate.
  OrvSecurityUtilsResultMissingInput = 1,
  // Header or signature not canonical unpadded base64url.
  OrvSecurityUtilsResultMalformedEncoding = 2,
  // Header not a JSON object, duplicate members, or a member of the wrong type.
  OrvSecurityUtilsResultInvalidHeader = 3,
  // "none" in any spelling, any HMAC algorithm, or an algorithm this library does not know.
  OrvSecurityUtilsResultUnsupportedAlgorithm = 4,
  // "crit" names a header parameter this library does not understand.
  OrvSecurityUtilsResultUnknownCritical = 5,
  // The algorithm needs another kind of key (or another curve) than the certificate's.
  OrvSecurityUtilsResultAlgorithmKeyMismatch = 6,
  // An RSA key shorter than 2048 bits.
  OrvSecurityUtilsResultKeyTooWeak = 7,
  // "x5t#S256" does not name the certificate.
  OrvSecurityUtilsResultThumbprintMismatch = 8,
  // The certificate's issuer carries the required name neither as organisation nor as common name.
  OrvSecurityUtilsResultIssuerMismatch = 9,
  OrvSecurityUtilsResultCertificateNotYetValid = 10,
  OrvSecurityUtilsResultCertificateExpired = 11,
  // The certificate has a key-usage extension without digital signature.
  OrvSecurityUtilsResultKeyUsageForbidsSignature = 12,
  // Trust anchors are configured and the certificate does not chain to one of them.
  OrvSecurityUtilsResultUntrustedChain = 13,
  // A signature of the wrong length for the algorithm (ECDSA r||s, Ed25519).
  OrvSecurityUtilsResultMalformedSignature = 14,
  // The signature does not verify over the payload.
  OrvSecurityUtilsResultSignatureMismatch = 15,
  // The crypto library failed for a reason of its own (out of memory, provider missing).
  OrvSecurityUtilsResultInternalError = 16,
  // The header carries "b64" without listing it in "crit": verifiers could disagree on what was signed.
  OrvSecurityUtilsResultUncriticalUnencodedPayload = 17,
  // The signing certificate is itself a certificate authority (basicConstraints cA=TRUE).
  OrvSecurityUtilsResultCertificateIsAuthority = 18,
  // The issuer names more than one organisation or more than one common name.
  OrvSecurityUtilsResultAmbiguousIssuer = 19,
};

// What a verification concluded: result 0 (OrvSecurityUtilsResultSuccess) accepts; any other value is
// the rule that refused, and error then says why.
struct OrvJWTValidationResult {
  std::int64_t result = OrvSecurityUtilsResultSuccess;
  std::optional<OrvError> error;
};

// The enumerator's name, or "Unknown OrvSecurityUtilsResult of <value>".
std::string OrvSecurityUtilsResultDescription(std::int64_t result);

namespace orv::detail {
struct SecurityServiceConfiguration;
}

class OrvSecurityUtilsService : public OrvSecurityServiceProtocol {
 public:
  using AdditionalCertificateValidationOptions = ::AdditionalCertificateValidationOptions;
  using Clock = std::function<OrvDate()>;

  struct Configuration {
    // When not empty, a certificate must chain to one of these (a root, or any certificate trusted
    // as it stands); when empty, the default anchors below apply.
    std::vector<OrvCertificateRef> trustAnchors;
    // The time against which validity periods are judged; the system clock when empty.
    Clock clock;
    // With no anchors of its own, the service takes the default anchors when there are any. Off, a
    // certificate with no anchors listed is judged on its own.
    bool useDefaultTrustAnchors = true;
  };

  // Where the default anchors come from, in order: the host (setDefaultTrustAnchors), the PEM bundle
  // named by ORV_APPCONFIG_TRUST_ANCHORS, the bundle built into the library (-DORV_TRUST_ANCHORS=FILE).
  struct DefaultTrustAnchors {
    // nullopt: none configured anywhere. An empty list: configured but unreadable, which trusts
    // nothing rather than everything.
    std::optional<std::vector<OrvCertificateRef>> anchors;
    // "host", "environment" or "built in"; "none" without anchors.
    std::string origin;
    // Why configured anchors could not be used, in words a support engineer can act on.
    std::optional<std::string> problem;
  };
  static DefaultTrustAnchors defaultTrustAnchors();
  // nullopt goes back to the environment or the built-in bundle. Affects services created afterwards.
  static void setDefaultTrustAnchors(std::optional<std::vector<OrvCertificateRef>> anchors);

  // Never nullptr. Null entries among the trust anchors are skipped; a list of only null entries
  // trusts nothing.
  static std::shared_ptr<OrvSecurityUtilsService> create(Configuration configuration);
  static std::shared_ptr<OrvSecurityUtilsService> create() { return create(Configuration{}); }

  // All certificates of a PEM bundle (CERTIFICATE blocks, text between blocks ignored); nothing when
  // the file cannot be read, holds no certificate, or one of its blocks is not a certificate.
  static std::optional<std::vector<OrvCertificateRef>> loadCertificatesFromPEMFile(const std::string& path);
  static std::optional<std::vector<OrvCertificateRef>> certificatesFromPEMBundle(std::string_view pem);

  ~OrvSecurityUtilsService() override;

  OrvCertificateRef createCertificateFromCertificateContent(std::string_view certificateContent) override;

  // Verifies on a worker thread and calls the completion there, never on the calling thread. A pending
  // verification does not keep the service alive.
  void asyncValidateJWTWithJwtPayload(std::string jwtPayload, std::optional<std::string> base64URLEncodedJWTHeader,
                                      std::optional<std::string> base64URLEncodedJWTSignature,
                                      OrvCertificateRef verificationCertificate,
                                      std::shared_ptr<const AdditionalCertificateValidationOptions> additionalValidationOptions,
                                      OrvJWTValidationCompletionBlock completionBlock) override;

  // The same verification, done on the calling thread.
  OrvJWTValidationResult validateJWT(std::string_view jwtPayload, const std::optional<std::string>& base64URLEncodedJWTHeader,
                                     const std::optional<std::string>& base64URLEncodedJWTSignature,
                                     const OrvCertificateRef& verificationCertificate,
                                     const AdditionalCertificateValidationOptions* additionalValidationOptions) const;

  std::size_t trustAnchorCount() const noexcept;

 private:
  explicit OrvSecurityUtilsService(std::shared_ptr<const orv::detail::SecurityServiceConfiguration> configuration);
  std::shared_ptr<const orv::detail::SecurityServiceConfiguration> configuration_;
};
