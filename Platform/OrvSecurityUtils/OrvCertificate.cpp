#include "OrvCertificate.h"

#include <openssl/pem.h>

#include <climits>
#include <ctime>
#include <exception>

#include "OrvCertificateHandle.h"
#include "OrvSDKStringUtils.h"

namespace orv::detail {

std::optional<CertificateTime> certificateTimeOf(const ASN1_TIME* time) {
  std::tm parts{};
  if (!time || ASN1_TIME_to_tm(time, &parts) != 1) return std::nullopt;
  using namespace std::chrono;
  const year_month_day day{year{parts.tm_year + 1900}, month{static_cast<unsigned>(parts.tm_mon + 1)},
                           std::chrono::day{static_cast<unsigned>(parts.tm_mday)}};
  if (!day.ok()) return std::nullopt;
  return sys_days{day} + hours{parts.tm_hour} + minutes{parts.tm_min} + seconds{parts.tm_sec};
}

bool isDateBefore(OrvDate date, CertificateTime time) { return std::chrono::floor<std::chrono::seconds>(date) < time; }

bool isDateAfter(OrvDate date, CertificateTime time) { return std::chrono::ceil<std::chrono::seconds>(date) > time; }

OrvDate dateOf(CertificateTime time) {
  using namespace std::chrono;
  constexpr auto latest = floor<seconds>(OrvDate::max()).time_since_epoch().count();
  constexpr auto earliest = ceil<seconds>(OrvDate::min()).time_since_epoch().count();
  const auto count = time.time_since_epoch().count();
  if (count >= latest) return OrvDate::max();
  if (count <= earliest) return OrvDate::min();
  return OrvDate(duration_cast<OrvDate::duration>(time.time_since_epoch()));
}

}  // namespace orv::detail

namespace {

using namespace orv::detail;

// Upper bound for certificate content; real certificates are a few kilobytes.
constexpr std::size_t kMaximumContentSize = 1 << 20;

constexpr std::string_view kPemBegin = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kPemEnd = "-----END CERTIFICATE-----";

bool isSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

// Standard base64 with "=" padding and white space anywhere. Decoding goes through the strict base64url
// decoder, so that stray characters, misplaced padding and non-canonical final bits are all refused.
std::optional<std::string> decodeBase64AllowingWhiteSpace(std::string_view text) {
  std::string compact;
  compact.reserve(text.size());
  for (const char c : text) {
    if (isSpace(c)) continue;
    if (c == '-' || c == '_') return std::nullopt;
    compact += c == '+' ? '-' : c == '/' ? '_' : c;
  }
  if (compact.empty() || compact.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && !compact.empty() && compact.back() == '=') {
    compact.pop_back();
    ++padding;
  }
  return OrvBase64URLDecode(compact);
}

std::vector<std::string> nameEntries(const X509_NAME* name, int nid) {
  std::vector<std::string> values;
  for (int index = X509_NAME_get_index_by_NID(name, nid, -1); index >= 0; index = X509_NAME_get_index_by_NID(name, nid, index)) {
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, data);
    if (length < 0) continue;
    OpenSSLBytesPtr owner(utf8);
    values.emplace_back(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
  }
  return values;
}

std::optional<std::string> firstOf(const std::vector<std::string>& values) {
  if (values.empty()) return std::nullopt;
  return values.front();
}

std::unique_ptr<CertificateHandle> parseDER(std::string_view der) {
  if (der.empty() || der.size() > kMaximumContentSize) return nullptr;
  const auto* begin = reinterpret_cast<const unsigned char*>(der.data());
  const auto* cursor = begin;
  X509Ptr certificate(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
  // Bytes after the certificate are garbage, not a second certificate.
  if (!certificate || cursor != begin + der.size()) return nullptr;
  // Only canonical DER: the parser is lenient (a signature's unused bits may be set, for instance),
  // and a certificate with two encodings has two thumbprints, so "x5t#S256" could name either.
  unsigned char* reencoded = nullptr;
  const int reencodedLength = i2d_X509(certificate.get(), &reencoded);
  const OpenSSLBytesPtr reencodedOwner(reencoded);
  if (reencodedLength <= 0 || std::string_view(reinterpret_cast<const char*>(reencoded), std::size_t(reencodedLength)) != der) {
    return nullptr;
  }

  auto handle = std::make_unique<CertificateHandle>();
  handle->publicKey.reset(X509_get_pubkey(certificate.get()));
  if (!handle->publicKey) return nullptr;
  handle->keyTraits = keyTraitsOf(handle->publicKey.get());

  const auto notBefore = certificateTimeOf(X509_get0_notBefore(certificate.get()));
  const auto notAfter = certificateTimeOf(X509_get0_notAfter(certificate.get()));
  if (!notBefore || !notAfter) return nullptr;
  handle->notBefore = *notBefore;
  handle->notAfter = *notAfter;

  // X509_get_extension_flags also caches the parsed extensions, so that concurrent readers later find
  // them ready.
  const std::uint32_t flags = X509_get_extension_flags(certificate.get());
  if (flags & EXFLAG_INVALID) return nullptr;
  handle->hasKeyUsage = (flags & EXFLAG_KUSAGE) != 0;
  handle->keyUsage = X509_get_key_usage(certificate.get());
  handle->isCertificateAuthority = (flags & EXFLAG_BCONS) && (flags & EXFLAG_CA);

  const X509_NAME* subject = X509_get_subject_name(certificate.get());
  const X509_NAME* issuer = X509_get_issuer_name(certificate.get());
  handle->subjectOrganizations = nameEntries(subject, NID_organizationName);
  handle->subjectCommonNames = nameEntries(subject, NID_commonName);
  handle->issuerOrganizations = nameEntries(issuer, NID_organizationName);
  handle->issuerCommonNames = nameEntries(issuer, NID_commonName);

  handle->der.assign(der);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  if (EVP_Digest(der.data(), der.size(), digest, &digestLength, EVP_sha256(), nullptr) != 1) return nullptr;
  handle->sha256Thumbprint.assign(reinterpret_cast<const char*>(digest), digestLength);

  handle->certificate = std::move(certificate);
  return handle;
}

}  // namespace

OrvCertificate::OrvCertificate(std::unique_ptr<orv::detail::CertificateHandle> handle) : handle_(std::move(handle)) {}
OrvCertificate::~OrvCertificate() = default;

OrvCertificateRef OrvCertificate::certificateWithDER(std::string_view der) {
  try {
    auto handle = parseDER(der);
    drainOpenSSLErrors();
    if (!handle) return nullptr;
    return OrvCertificateRef(new OrvCertificate(std::move(handle)));
  } catch (const std::exception&) {
    drainOpenSSLErrors();
    return nullptr;
  }
}

OrvCertificateRef OrvCertificate::certificateWithContent(std::string_view content) {
  try {
    if (content.size() > kMaximumContentSize) return nullptr;
    std::string_view text = trimmed(content);
    if (text.starts_with(kPemBegin)) {
      // Exactly one block and nothing around it: OpenSSL's own PEM reader would skip text before the
      // block and ignore text after it.
      if (!text.ends_with(kPemEnd) || text.size() < kPemBegin.size() + kPemEnd.size()) return nullptr;
      text = text.substr(kPemBegin.size(), text.size() - kPemBegin.size() - kPemEnd.size());
    }
    const auto der = decodeBase64AllowingWhiteSpace(text);
    if (!der) return nullptr;
    return certificateWithDER(*der);
  } catch (const std::exception&) {
    return nullptr;
  }
}

std::string OrvCertificate::derData() const { return handle_->der; }

std::string OrvCertificate::pemString() const {
  BioPtr bio = newMemoryBio();
  if (!bio || PEM_write_bio_X509(bio.get(), handle_->certificate.get()) != 1) {
    drainOpenSSLErrors();
    return {};
  }
  return bioContents(bio.get());
}

std::optional<std::string> OrvCertificate::subjectOrganization() const { return firstOf(handle_->subjectOrganizations); }
std::optional<std::string> OrvCertificate::subjectCommonName() const { return firstOf(handle_->subjectCommonNames); }
std::optional<std::string> OrvCertificate::issuerOrganization() const { return firstOf(handle_->issuerOrganizations); }
std::optional<std::string> OrvCertificate::issuerCommonName() const { return firstOf(handle_->issuerCommonNames); }
OrvDate OrvCertificate::notValidBefore() const { return orv::detail::dateOf(handle_->notBefore); }
OrvDate OrvCertificate::notValidAfter() const { return orv::detail::dateOf(handle_->notAfter); }
std::string OrvCertificate::sha256Thumbprint() const { return handle_->sha256Thumbprint; }
