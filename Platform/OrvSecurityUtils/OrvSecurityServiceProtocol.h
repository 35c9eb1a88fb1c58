#pragma once
// What the service needs of the security library: certificates from text, and detached-JWS
// verification with certificate checks.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "OrvCertificate.h"
#include "OrvError.h"

class AdditionalCertificateValidationOptions {
 public:
  AdditionalCertificateValidationOptions() = default;
  void setRequiredIssuerName(std::optional<std::string> name) { requiredIssuerName_ = std::move(name); }
  const std::optional<std::string>& requiredIssuerName() const noexcept { return requiredIssuerName_; }

 private:
  std::optional<std::string> requiredIssuerName_;
};

// (result, error or nothing): result 0 accepts; any other value rejects.
using OrvJWTValidationCompletionBlock = std::function<void(std::int64_t result, std::optional<OrvError> error)>;

class OrvSecurityServiceProtocol {
 public:
  virtual ~OrvSecurityServiceProtocol() = default;

  virtual OrvCertificateRef createCertificateFromCertificateContent(std::string_view certificateContent) = 0;

  // The completion runs later, on one of the security service's threads; completions of several
  // calls may overlap.
  virtual void asyncValidateJWTWithJwtPayload(
      std::string jwtPayload, std::optional<std::string> base64URLEncodedJWTHeader,
      std::optional<std::string> base64URLEncodedJWTSignature, OrvCertificateRef verificationCertificate,
      std::shared_ptr<const AdditionalCertificateValidationOptions> additionalValidationOptions,
      OrvJWTValidationCompletionBlock completionBlock) = 0;
};
