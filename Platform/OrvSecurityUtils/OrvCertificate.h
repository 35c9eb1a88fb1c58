#pragma once
// An X.509 certificate, the stand-in for the platform certificate reference. It owns its OpenSSL
// handle; no raw pointer leaves the security library.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "OrvTypes.h"

class OrvCertificate;
using OrvCertificateRef = std::shared_ptr<const OrvCertificate>;

namespace orv::detail {
struct CertificateHandle;
}

class OrvCertificate {
 public:
  // PEM text (one CERTIFICATE block; leading and trailing white space allowed) or base64 DER (white
  // space inside allowed). Anything else, or trailing garbage after the certificate, gives nullptr.
  static OrvCertificateRef certificateWithContent(std::string_view content);
  static OrvCertificateRef certificateWithDER(std::string_view der);

  ~OrvCertificate();
  OrvCertificate(const OrvCertificate&) = delete;
  OrvCertificate& operator=(const OrvCertificate&) = delete;

  std::string derData() const;
  std::string pemString() const;
  std::optional<std::string> subjectOrganization() const;
  std::optional<std::string> subjectCommonName() const;
  std::optional<std::string> issuerOrganization() const;
  std::optional<std::string> issuerCommonName() const;
  OrvDate notValidBefore() const;
  OrvDate notValidAfter() const;
  // SHA-256 of the DER encoding (the "x5t#S256" thumbprint before base64url).
  std::string sha256Thumbprint() const;

  // For the security library only.
  const orv::detail::CertificateHandle& handle() const noexcept { return *handle_; }

 private:
  explicit OrvCertificate(std::unique_ptr<orv::detail::CertificateHandle> handle);
  std::unique_ptr<orv::detail::CertificateHandle> handle_;
};
