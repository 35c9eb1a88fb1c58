// A detached JWS as the network delivers it: the Varnel-Signature pieces and the body. The first byte
// picks how the rest is used, so that the fuzzer reaches the checks behind a valid signature too:
//   bits 0-1: 0 header and signature taken as they stand (base64url text)
//             1 header given as JSON text and encoded here, signature as it stands
//             2 header given as JSON text, signed here over the encoded body
//             3 header given as JSON text, signed here over the raw body (unencoded payload)
//   bit 2:    the RSA certificate instead of the P-256 one
//   bit 3:    a service with trust anchors instead of one judging the certificate alone
//   bit 4:    require the issuer name (every ASCII digit has this bit set)
// After the mode byte (and one optional newline): header line, signature line, then the body.
// Certificates from outside are the certificate_content harness's.
#include <boost/json/parse.hpp>
#include <chrono>

#include "FuzzSupport.h"
#include "OrvEmulatorCrypto.h"

namespace {

using orv::detail::fuzzRequire;
using orv::emulator::PrivateKey;

constexpr const char* kIssuerName = "Varnel Systems, Inc.";

struct SigningIdentity {
  PrivateKey key;
  OrvCertificateRef certificate;
};

// Made once per process: key generation is far slower than one verification.
struct Material {
  OrvDate now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  SigningIdentity ec = identity(orv::emulator::KeyKind::ecP256), rsa = identity(orv::emulator::KeyKind::rsa2048);
  // A fixed clock keeps a long run from drifting out of the certificates' periods.
  std::shared_ptr<OrvSecurityUtilsService> alone = OrvSecurityUtilsService::create({.clock = [now = now] { return now; }});
  std::shared_ptr<OrvSecurityUtilsService> anchored =
      OrvSecurityUtilsService::create({.trustAnchors = {ec.certificate, rsa.certificate}, .clock = [now = now] { return now; }});

  SigningIdentity identity(orv::emulator::KeyKind kind) const {
    auto key = PrivateKey::generate(kind);
    fuzzRequire(key.has_value(), "the harness key is generated");
    const auto pem = orv::emulator::issueCertificate({.organization = kIssuerName,
                                                      .commonName = kIssuerName,
                                                      .notBefore = now - std::chrono::hours(1),
                                                      .notAfter = now + std::chrono::hours(24 * 365)},
                                                     *key, nullptr, *key);
    auto certificate = pem ? OrvCertificate::certificateWithContent(*pem) : nullptr;
    fuzzRequire(certificate != nullptr, "the harness certificate is issued");
    return {std::move(*key), std::move(certificate)};
  }
};

// Signed with the header's own algorithm, so that RS/PS variants get valid signatures too; a header
// whose "alg" the key cannot make is refused before its signature matters, so it is not signed.
std::optional<std::string> signHere(const SigningIdentity& identity, std::string_view headerJson, std::string_view payload,
                                    bool unencoded) {
  boost::system::error_code code;
  const auto header = boost::json::parse(headerJson, code);
  const auto* alg = !code && header.is_object() ? header.get_object().if_contains("alg") : nullptr;
  if (!alg || !alg->is_string()) return std::nullopt;
  return orv::emulator::signDetachedJws(identity.key, alg->get_string(), headerJson, payload, unencoded);
}

}  // namespace

ORV_FUZZ_TARGET(bytes) {
  if (bytes.empty()) return;
  static const Material m;
  const auto mode = static_cast<std::uint8_t>(bytes.front());
  std::string_view rest = std::string_view(bytes).substr(1);
  if (!rest.empty() && rest.front() == '\n') rest.remove_prefix(1);
  const auto pieces = orv::detail::fuzzSplitLines(rest, 2);
  std::optional<std::string> header = std::string(pieces[0]), signature;
  if (pieces.size() > 1) signature = std::string(pieces[1]);
  const std::string payload = pieces.size() > 2 ? std::string(pieces[2]) : std::string();

  const SigningIdentity& identity = (mode & 4) ? m.rsa : m.ec;
  if ((mode & 3) == 1) header = orv::emulator::base64UrlEncode(*header);
  if ((mode & 3) >= 2) {
    const auto jws = signHere(identity, *header, payload, (mode & 3) == 3);
    if (!jws) return;  // refused to sign (the key or algorithm did not fit): nothing to verify
    header = jws->substr(0, jws->find('.'));
    signature = jws->substr(jws->find('.') + 1);
  }
  AdditionalCertificateValidationOptions options;
  options.setRequiredIssuerName(kIssuerName);
  orv::detail::fuzzRequireVerdictShape(
      ((mode & 8) ? m.anchored : m.alone)
          ->validateJWT(payload, header, signature, identity.certificate, (mode & 16) ? &options : nullptr));
}
