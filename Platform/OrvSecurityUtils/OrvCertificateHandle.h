#pragma once
// What a certificate holds inside the security library. Internal: everything that verification reads
// is worked out once when the certificate is parsed, so that verifying many payloads against one
// certificate costs only the signature checks.
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "OrvOpenSSLHandles.h"
#include "OrvTypes.h"

namespace orv::detail {

// Certificate times in whole seconds: a certificate may run to the year 9999, beyond what a date holds.
using CertificateTime = std::chrono::sys_seconds;

struct CertificateHandle {
  X509Ptr certificate;
  EvpPkeyPtr publicKey;
  KeyTraits keyTraits;
  std::string der;
  std::string sha256Thumbprint;
  std::vector<std::string> subjectOrganizations;
  std::vector<std::string> subjectCommonNames;
  std::vector<std::string> issuerOrganizations;
  std::vector<std::string> issuerCommonNames;
  CertificateTime notBefore;
  CertificateTime notAfter;
  bool hasKeyUsage = false;
  std::uint32_t keyUsage = 0;
  // basicConstraints says cA=TRUE.
  bool isCertificateAuthority = false;
  // Checks with publicKey, kept with the certificate they belong to.
  mutable PreparedVerifications preparedVerifications;
};

// The time of an ASN1_TIME, or nothing when it does not parse.
std::optional<CertificateTime> certificateTimeOf(const ASN1_TIME* time);
// Inclusive at both ends: a date equal to either end is inside the period.
bool isDateBefore(OrvDate date, CertificateTime time);
bool isDateAfter(OrvDate date, CertificateTime time);
// The date of a certificate time, clamped to what a date can hold.
OrvDate dateOf(CertificateTime time);

}  // namespace orv::detail
