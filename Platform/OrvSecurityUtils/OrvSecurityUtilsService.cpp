#include "OrvSecurityUtilsService.h"
#include "OrvSecurityUtilsTesting.h"

#include <cstdlib>

#include <boost/json.hpp>

#include <algorithm>
#include <chrono>
#include <deque>
#include <exception>
#include <fstream>
#include <iterator>
#include <mutex>
#include <set>
#include <sstream>
#include <variant>

#include "OrvCertificateHandle.h"
#include "OrvJSONSerialization.h"
#include "OrvKeptByBytes.h"
#include "OrvOperationQueue.h"
#include "OrvSDKStringUtils.h"
#include "OrvWorkerPool.h"

namespace orv::detail {

struct SecurityServiceConfiguration {
  // Kept so that the store's certificates stay the ones the host configured.
  std::vector<OrvCertificateRef> trustAnchors;
  // X509_STORE locks internally; verifications share it.
  X509StorePtr trustStore;
  bool requiresChain = false;
  // The anchors' thumbprints, sorted: services that trust the same anchors reach the same verdict on a
  // chain, so they share what was verified.
  std::string anchorsKey;
  OrvSecurityUtilsService::Clock clock;
};

}  // namespace orv::detail

namespace {

using namespace orv::detail;

// Kept for the whole process, shared by every service, and never destroyed: a certificate freed after
// OpenSSL's own clean-up at exit would touch freed state. Both are keyed by exact bytes and hold only
// what those bytes determine, so a service created later (another account, say) finds its signing
// certificate parsed and its chain checked, and a rotated certificate, being other bytes, is not.
struct ProcessCertificateCaches {
  static constexpr std::size_t kKept = 8;

  // The signing certificate is fetched afresh for every validation, but it is almost always the same
  // text: parsing it costs about ten signature checks.
  KeptByBytes<OrvCertificateRef> parsed{kKept};

  // Chains already built, with the period in which all their links are valid. Every answer of a
  // request is signed by the same certificate; building its chain again for each one cost more than
  // checking the signature itself.
  struct VerifiedChain {
    std::string anchorsKey;
    X509Ptr certificate;
    CertificateTime validFrom;
    CertificateTime validUntil;
  };
  std::mutex verifiedMutex;
  std::deque<VerifiedChain> verified;

  static ProcessCertificateCaches& shared() {
    static auto* const caches = new ProcessCertificateCaches;
    return *caches;
  }
};

using Verdict = OrvJWTValidationResult;

Verdict reject(OrvSecurityUtilsResult result, std::string reason) {
  return {result, OrvError(OrvSecurityUtilsErrorDomain, result, {{OrvLocalizedDescriptionKey, std::move(reason)}})};
}

Verdict accept() { return {OrvSecurityUtilsResultSuccess, std::nullopt}; }

bool equalsIgnoringASCIICase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(x) == lower(y);
  });
}

// The header parameters whose meaning this library implements and may therefore be marked critical.
bool isUnderstoodCriticalParameter(std::string_view name) { return name == "b64"; }

struct ParsedHeader {
  const JwsAlgorithm* algorithm = nullptr;
  bool unencodedPayload = false;
  std::optional<std::string> thumbprint;  // decoded "x5t#S256"
};

std::variant<ParsedHeader, Verdict> parseHeader(std::string_view headerJson) {
  std::optional<OrvError> parseError;
  const auto document = orv::detail::parseJSONDocument(headerJson, OrvJSONReadingOptions::none, &parseError);
  if (!document) {
    return reject(
        OrvSecurityUtilsResultInvalidHeader,
        "The JWT header is not valid JSON" + (parseError ? " (" + parseError->localizedDescription() + ")" : std::string()));
  }
  if (!document->value().is_object()) return reject(OrvSecurityUtilsResultInvalidHeader, "The JWT header is not a JSON object");
  const boost::json::object& header = document->value().get_object();

  ParsedHeader parsed;
  const auto* alg = header.if_contains("alg");
  if (!alg || !alg->is_string()) {
    return reject(OrvSecurityUtilsResultInvalidHeader, "The JWT header has no \"alg\" string");
  }
  const std::string_view algorithmName = alg->get_string();
  if (equalsIgnoringASCIICase(algorithmName, "none")) {
    return reject(OrvSecurityUtilsResultUnsupportedAlgorithm, "The JWT header names no algorithm (\"none\")");
  }
  if (algorithmName.size() >= 2 && equalsIgnoringASCIICase(algorithmName.substr(0, 2), "HS")) {
    return reject(OrvSecurityUtilsResultUnsupportedAlgorithm,
                  "The JWT header names an HMAC algorithm, which a certificate cannot verify");
  }
  parsed.algorithm = findJwsAlgorithm(algorithmName);
  if (!parsed.algorithm) {
    return reject(OrvSecurityUtilsResultUnsupportedAlgorithm,
                  "The JWT header names an unsupported algorithm \"" + std::string(algorithmName) + "\"");
  }

  bool b64Critical = false;
  if (const auto* crit = header.if_contains("crit")) {
    if (!crit->is_array() || crit->get_array().empty()) {
      return reject(OrvSecurityUtilsResultInvalidHeader, "The JWT header's \"crit\" is not a non-empty array");
    }
    std::set<std::string_view> seen;
    for (const auto& entry : crit->get_array()) {
      if (!entry.is_string()) {
        return reject(OrvSecurityUtilsResultInvalidHeader, "The JWT header's \"crit\" holds a value that is not a name");
      }
      const std::string_view name = entry.get_string();
      if (!isUnderstoodCriticalParameter(name)) {
        return reject(OrvSecurityUtilsResultUnknownCritical,
                      "The JWT header marks the unsupported parameter \"" + std::string(name) + "\" critical");
      }
      if (!seen.insert(name).second) {
        return reject(OrvSecurityUtilsResultInvalidHeader, "The JWT header's \"crit\" names \"" + std::string(name) + "\" twice");
      }
      if (!header.contains(name)) {
        return reject(OrvSecurityUtilsResultInvalidHeader,
                      "The JWT header marks \"" + std::string(name) + "\" critical but does not carry it");
      }
    }
    b64Critical = seen.contains("b64");
  }
  if (const auto* b64 = header.if_contains("b64")) {
    if (!b64->is_bool()) return reject(OrvSecurityUtilsResultInvalidHeader, "The JWT header's \"b64\" is not a boolean");
    // "b64" changes what was signed. Unless it is critical, a verifier that does not know it checks
    // another input than one that does; whichever reading is taken, someone is fooled. So "b64" is
    // honoured only as a critical parameter and refused otherwise, even as true.
    if (!b64Critical) {
      return reject(OrvSecurityUtilsResultUncriticalUnencodedPayload,
                    "The JWT header carries \"b64\" without listing it in \"crit\"");
    }
    parsed.unencodedPayload = !b64->get_bool();
  }
  if (const auto* x5t = header.if_contains("x5t#S256")) {
    if (!x5t->is_string()) {
      return reject(OrvSecurityUtilsResultInvalidHeader, "The JWT header's \"x5t#S256\" is not a string");
    }
    parsed.thumbprint = OrvBase64URLDecode(x5t->get_string());
    if (!parsed.thumbprint) {
      return reject(OrvSecurityUtilsResultMalformedEncoding, "The JWT header's \"x5t#S256\" is not canonical unpadded base64url");
    }
  }
  return parsed;
}

// Every answer of a service carries the same JWS header, and reading it (base64url, then JSON) cost
// about a fiftieth of an RS256 check per store. Only headers that were read without objection are kept.
KeptByBytes<ParsedHeader>& headersRead() {
  // Never destroyed: verifications may still run during exit.
  static auto* const headers = new KeptByBytes<ParsedHeader>(4);
  return *headers;
}

bool carriesName(const std::vector<std::string>& values, const std::string& name) {
  return std::find(values.begin(), values.end(), name) != values.end();
}

std::optional<Verdict> checkCertificate(const SecurityServiceConfiguration& configuration, const CertificateHandle& certificate,
                                        const std::optional<std::string>& issuer, OrvDate now) {
  // An issuer with two organisations (or two common names) could satisfy the name check with one
  // entry while meaning the other.
  if (certificate.issuerOrganizations.size() > 1 || certificate.issuerCommonNames.size() > 1) {
    return reject(OrvSecurityUtilsResultAmbiguousIssuer,
                  "The certificate's issuer names more than one organisation or more than one common name");
  }
  if (issuer && !carriesName(certificate.issuerOrganizations, *issuer) && !carriesName(certificate.issuerCommonNames, *issuer)) {
    return reject(OrvSecurityUtilsResultIssuerMismatch,
                  "The certificate's issuer is not \"" + *issuer + "\" (neither its organisation nor its common name)");
  }
  if (isDateBefore(now, certificate.notBefore)) {
    return reject(OrvSecurityUtilsResultCertificateNotYetValid, "The certificate is not valid yet");
  }
  if (isDateAfter(now, certificate.notAfter)) {
    return reject(OrvSecurityUtilsResultCertificateExpired, "The certificate has expired");
  }
  if (certificate.isCertificateAuthority) {
    return reject(OrvSecurityUtilsResultCertificateIsAuthority,
                  "The signing certificate is a certificate authority (basicConstraints cA=TRUE)");
  }
  if (certificate.hasKeyUsage && !(certificate.keyUsage & KU_DIGITAL_SIGNATURE)) {
    return reject(OrvSecurityUtilsResultKeyUsageForbidsSignature,
                  "The certificate's key usage does not allow digital signatures");
  }
  if (!configuration.requiresChain) return std::nullopt;

  auto& caches = ProcessCertificateCaches::shared();
  {
    std::lock_guard lock(caches.verifiedMutex);
    for (const auto& known : caches.verified) {
      if (known.anchorsKey != configuration.anchorsKey || X509_cmp(known.certificate.get(), certificate.certificate.get()) != 0)
        continue;
      if (!isDateBefore(now, known.validFrom) && !isDateAfter(now, known.validUntil)) return std::nullopt;
      break;
    }
  }

  X509StoreCtxPtr context(X509_STORE_CTX_new());
  if (!context || !configuration.trustStore ||
      X509_STORE_CTX_init(context.get(), configuration.trustStore.get(), certificate.certificate.get(), nullptr) != 1) {
    return reject(OrvSecurityUtilsResultInternalError, "The certificate chain could not be checked");
  }
  // Validity is judged below with the service's clock and inclusive ends, the same rule as for the
  // certificate itself. Anchors need not be self-signed roots.
  X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_PARTIAL_CHAIN | X509_V_FLAG_NO_CHECK_TIME);
  if (X509_verify_cert(context.get()) != 1) {
    const int error = X509_STORE_CTX_get_error(context.get());
    return reject(OrvSecurityUtilsResultUntrustedChain,
                  std::string("The certificate does not chain to a trusted root (") + X509_verify_cert_error_string(error) + ")");
  }
  const STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context.get());
  // The certificate's own period was checked above; the chain is good while every link is valid.
  CertificateTime validFrom = certificate.notBefore, validUntil = certificate.notAfter;
  for (int index = 1; index < sk_X509_num(chain); ++index) {
    const X509* link = sk_X509_value(chain, index);
    const auto notBefore = certificateTimeOf(X509_get0_notBefore(link));
    const auto notAfter = certificateTimeOf(X509_get0_notAfter(link));
    if (!notBefore || !notAfter || isDateBefore(now, *notBefore) || isDateAfter(now, *notAfter)) {
      return reject(OrvSecurityUtilsResultUntrustedChain,
                    "The certificate chains to a trusted certificate that is outside its validity period");
    }
    validFrom = std::max(validFrom, *notBefore);
    validUntil = std::min(validUntil, *notAfter);
  }
  // A certificate too large to be kept parsed is not kept chained either.
  if (certificate.der.size() <= kLargestKeptText && X509_up_ref(certificate.certificate.get()) == 1) {
    X509Ptr kept(certificate.certificate.get());
    std::lock_guard lock(caches.verifiedMutex);
    caches.verified.push_front({configuration.anchorsKey, std::move(kept), validFrom, validUntil});
    if (caches.verified.size() > ProcessCertificateCaches::kKept) caches.verified.pop_back();
  }
  return std::nullopt;
}

// ECDSA signatures travel as r||s of fixed width; OpenSSL wants them DER-encoded.
std::optional<std::string> rawToDerSignature(std::string_view raw, std::size_t coordinateSize) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(raw.data());
  BignumPtr r(BN_bin2bn(bytes, static_cast<int>(coordinateSize), nullptr));
  BignumPtr s(BN_bin2bn(bytes + coordinateSize, static_cast<int>(coordinateSize), nullptr));
  EcdsaSigPtr signature(ECDSA_SIG_new());
  if (!r || !s || !signature || ECDSA_SIG_set0(signature.get(), r.get(), s.get()) != 1) return std::nullopt;
  r.release();  // owned by signature now
  s.release();
  unsigned char* der = nullptr;
  const int length = i2d_ECDSA_SIG(signature.get(), &der);
  if (length <= 0) return std::nullopt;
  OpenSSLBytesPtr owner(der);
  return std::string(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
}

EvpMdCtxPtr newVerification(const JwsAlgorithm& algorithm, EVP_PKEY* key) {
  EvpMdCtxPtr context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* keyContext = nullptr;  // owned by context
  if (!context || EVP_DigestVerifyInit_ex(context.get(), &keyContext, algorithm.digest, nullptr, nullptr, key, nullptr) != 1 ||
      (algorithm.family == JwsKeyFamily::rsaPss && !configurePss(keyContext, algorithm))) {
    return nullptr;
  }
  return context;
}

// A copy of the check `prepared` keeps for `algorithm`, made with `key` on first use; nullptr when
// there is none to copy (the key or the algorithm does not allow it), and the caller sets one up.
EvpMdCtxPtr preparedVerification(PreparedVerifications& prepared, const JwsAlgorithm& algorithm, EVP_PKEY* key) {
  std::size_t index = 0;
  while (index < std::size(kJwsAlgorithms) && &kJwsAlgorithms[index] != &algorithm) ++index;
  if (index == std::size(kJwsAlgorithms)) return nullptr;
  std::call_once(prepared.made[index], [&] { prepared.checks[index] = newVerification(algorithm, key); });
  const EvpMdCtxPtr& check = prepared.checks[index];
  if (!check) return nullptr;
  EvpMdCtxPtr copy(EVP_MD_CTX_new());
  if (!copy || EVP_MD_CTX_copy_ex(copy.get(), check.get()) != 1) {
    ERR_clear_error();
    return nullptr;
  }
  return copy;
}

Verdict verifySignature(const JwsAlgorithm& algorithm, EVP_PKEY* key, std::string_view signingInput, std::string_view signature,
                        PreparedVerifications& prepared) {
  std::string derSignature;
  if (algorithm.family == JwsKeyFamily::ecdsa) {
    if (signature.size() != 2 * algorithm.coordinateSize) {
      return reject(OrvSecurityUtilsResultMalformedSignature, "The signature is not the " +
                                                                  std::to_string(2 * algorithm.coordinateSize) +
                                                                  "-byte r||s that " + std::string(algorithm.name) + " requires");
    }
    auto converted = rawToDerSignature(signature, algorithm.coordinateSize);
    if (!converted) return reject(OrvSecurityUtilsResultInternalError, "The signature could not be prepared");
    derSignature = std::move(*converted);
    signature = derSignature;
  } else if (algorithm.family == JwsKeyFamily::eddsa && signature.size() != 64) {
    return reject(OrvSecurityUtilsResultMalformedSignature, "The signature is not the 64 bytes that EdDSA requires");
  }

  EvpMdCtxPtr context = preparedVerification(prepared, algorithm, key);
  if (!context) context = newVerification(algorithm, key);
  if (!context) return reject(OrvSecurityUtilsResultInternalError, "The signature check could not be set up");
  const int verified = EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
                                        reinterpret_cast<const unsigned char*>(signingInput.data()), signingInput.size());
  if (verified != 1) {
    return reject(OrvSecurityUtilsResultSignatureMismatch, "The signature does not match the payload");
  }
  return accept();
}

Verdict verify(const SecurityServiceConfiguration& configuration, std::string_view payload,
               const std::optional<std::string>& encodedHeader, const std::optional<std::string>& encodedSignature,
               const OrvCertificateRef& certificateRef, const AdditionalCertificateValidationOptions* options) {
  if (!encodedHeader) return reject(OrvSecurityUtilsResultMissingInput, "The JWT header is missing");
  if (!encodedSignature) return reject(OrvSecurityUtilsResultMissingInput, "The JWT signature is missing");
  if (!certificateRef) return reject(OrvSecurityUtilsResultMissingInput, "The verification certificate is missing");
  const CertificateHandle& certificate = certificateRef->handle();

  // A header kept once decoded and read without objection; the checks still run in their order.
  std::optional<ParsedHeader> keptHeader = headersRead().find(*encodedHeader);
  std::optional<std::string> headerJson;
  if (!keptHeader) {
    headerJson = OrvBase64URLDecode(*encodedHeader);
    if (!headerJson) {
      return reject(OrvSecurityUtilsResultMalformedEncoding, "The JWT header is not canonical unpadded base64url");
    }
  }
  const auto signature = OrvBase64URLDecode(*encodedSignature);
  if (!signature) {
    return reject(OrvSecurityUtilsResultMalformedEncoding, "The JWT signature is not canonical unpadded base64url");
  }
  if (!keptHeader) {
    auto parsedOrVerdict = parseHeader(*headerJson);
    if (auto* verdict = std::get_if<Verdict>(&parsedOrVerdict)) return std::move(*verdict);
    keptHeader = std::move(std::get<ParsedHeader>(parsedOrVerdict));
    headersRead().keep(*encodedHeader, *keptHeader);
  }
  const ParsedHeader& header = *keptHeader;

  if (!keyFitsAlgorithm(certificate.keyTraits, *header.algorithm)) {
    return reject(OrvSecurityUtilsResultAlgorithmKeyMismatch,
                  "The algorithm " + std::string(header.algorithm->name) + " does not fit the certificate's key");
  }
  if (certificate.keyTraits.type == KeyTraits::Type::rsa && certificate.keyTraits.bits < 2048) {
    return reject(OrvSecurityUtilsResultKeyTooWeak, "The certificate's RSA key is shorter than 2048 bits");
  }
  if (header.thumbprint && *header.thumbprint != certificate.sha256Thumbprint) {
    return reject(OrvSecurityUtilsResultThumbprintMismatch, "The JWT header's \"x5t#S256\" names another certificate");
  }
  const OrvDate now = configuration.clock ? configuration.clock() : std::chrono::system_clock::now();
  const std::optional<std::string> noIssuer;
  if (auto verdict = checkCertificate(configuration, certificate, options ? options->requiredIssuerName() : noIssuer, now)) {
    return std::move(*verdict);
  }

  std::string signingInput;
  if (header.unencodedPayload) {
    signingInput.reserve(encodedHeader->size() + 1 + payload.size());
    signingInput.append(*encodedHeader).append(1, '.').append(payload);
  } else {
    signingInput.reserve(encodedHeader->size() + 1 + (payload.size() + 2) / 3 * 4);
    signingInput.append(*encodedHeader).append(1, '.');
    orv::detail::appendBase64URL(signingInput, payload);
  }
  return verifySignature(*header.algorithm, certificate.publicKey.get(), signingInput, *signature,
                         certificate.preparedVerifications);
}

Verdict verifyCatchingEverything(const SecurityServiceConfiguration& configuration, std::string_view payload,
                                 const std::optional<std::string>& encodedHeader,
                                 const std::optional<std::string>& encodedSignature, const OrvCertificateRef& certificate,
                                 const AdditionalCertificateValidationOptions* options) {
  Verdict verdict;
  try {
    verdict = verify(configuration, payload, encodedHeader, encodedSignature, certificate, options);
  } catch (const std::exception& exception) {
    verdict = reject(OrvSecurityUtilsResultInternalError, std::string("The verification failed: ") + exception.what());
  }
  drainOpenSSLErrors();
  return verdict;
}

}  // namespace

std::string OrvSecurityUtilsResultDescription(std::int64_t result) {
  switch (result) {
    case OrvSecurityUtilsResultSuccess:
      return "OrvSecurityUtilsResultSuccess";
    case OrvSecurityUtilsResultMissingInput:
      return "OrvSecurityUtilsResultMissingInput";
    case OrvSecurityUtilsResultMalformedEncoding:
      return "OrvSecurityUtilsResultMalformedEncoding";
    case OrvSecurityUtilsResultInvalidHeader:
      return "OrvSecurityUtilsResultInvalidHeader";
    case OrvSecurityUtilsResultUnsupportedAlgorithm:
      return "OrvSecurityUtilsResultUnsupportedAlgorithm";
    case OrvSecurityUtilsResultUnknownCritical:
      return "OrvSecurityUtilsResultUnknownCritical";
    case OrvSecurityUtilsResultAlgorithmKeyMismatch:
      return "OrvSecurityUtilsResultAlgorithmKeyMismatch";
    case OrvSecurityUtilsResultKeyTooWeak:
      return "OrvSecurityUtilsResultKeyTooWeak";
    case OrvSecurityUtilsResultThumbprintMismatch:
      return "OrvSecurityUtilsResultThumbprintMismatch";
    case OrvSecurityUtilsResultIssuerMismatch:
      return "OrvSecurityUtilsResultIssuerMismatch";
    case OrvSecurityUtilsResultCertificateNotYetValid:
      return "OrvSecurityUtilsResultCertificateNotYetValid";
    case OrvSecurityUtilsResultCertificateExpired:
      return "OrvSecurityUtilsResultCertificateExpired";
    case OrvSecurityUtilsResultKeyUsageForbidsSignature:
      return "OrvSecurityUtilsResultKeyUsageForbidsSignature";
    case OrvSecurityUtilsResultUntrustedChain:
      return "OrvSecurityUtilsResultUntrustedChain";
    case OrvSecurityUtilsResultMalformedSignature:
      return "OrvSecurityUtilsResultMalformedSignature";
    case OrvSecurityUtilsResultSignatureMismatch:
      return "OrvSecurityUtilsResultSignatureMismatch";
    case OrvSecurityUtilsResultInternalError:
      return "OrvSecurityUtilsResultInternalError";
    case OrvSecurityUtilsResultUncriticalUnencodedPayload:
      return "OrvSecurityUtilsResultUncriticalUnencodedPayload";
    case OrvSecurityUtilsResultCertificateIsAuthority:
      return "OrvSecurityUtilsResultCertificateIsAuthority";
    case OrvSecurityUtilsResultAmbiguousIssuer:
      return "OrvSecurityUtilsResultAmbiguousIssuer";
    default:
      return "Unknown OrvSecurityUtilsResult of " + std::to_string(result);
  }
}

OrvSecurityUtilsService::OrvSecurityUtilsService(std::shared_ptr<const SecurityServiceConfiguration> configuration)
    : configuration_(std::move(configuration)) {}

OrvSecurityUtilsService::~OrvSecurityUtilsService() = default;

std::shared_ptr<OrvSecurityUtilsService> OrvSecurityUtilsService::create(Configuration configuration) {
  auto state = std::make_shared<SecurityServiceConfiguration>();
  state->clock = std::move(configuration.clock);
  // Decided from what the host asked for, not from what could be used: a list of only null entries, an
  // unreadable bundle or a store that could not be made must refuse every certificate rather than wave
  // them all through.
  state->requiresChain = !configuration.trustAnchors.empty();
  if (!state->requiresChain && configuration.useDefaultTrustAnchors) {
    auto defaults = defaultTrustAnchors();
    if (defaults.anchors.has_value()) {
      state->requiresChain = true;
      configuration.trustAnchors.swap(defaults.anchors.value());
    }
  }
  for (auto& anchor : configuration.trustAnchors) {
    if (anchor) state->trustAnchors.push_back(std::move(anchor));
  }
  if (state->requiresChain) {
    std::vector<std::string> thumbprints;
    for (const auto& anchor : state->trustAnchors) thumbprints.push_back(anchor->handle().sha256Thumbprint);
    std::sort(thumbprints.begin(), thumbprints.end());
    for (const auto& thumbprint : thumbprints) state->anchorsKey += thumbprint;
    state->trustStore.reset(X509_STORE_new());
    if (state->trustStore) {
      for (const auto& anchor : state->trustAnchors) {
        X509_STORE_add_cert(state->trustStore.get(), anchor->handle().certificate.get());
      }
    }
    drainOpenSSLErrors();
  }
  return std::shared_ptr<OrvSecurityUtilsService>(new OrvSecurityUtilsService(std::move(state)));
}

namespace orv::detail {
// The bundle given to the build with -DORV_TRUST_ANCHORS, empty without one.
extern const char* const builtInTrustAnchorsPEM;
}  // namespace orv::detail

namespace {
std::mutex& defaultAnchorsMutex() {
  static std::mutex mutex;
  return mutex;
}
std::optional<std::vector<OrvCertificateRef>> hostDefaultAnchors;
}  // namespace

void OrvSecurityUtilsService::setDefaultTrustAnchors(std::optional<std::vector<OrvCertificateRef>> anchors) {
  std::lock_guard lock(defaultAnchorsMutex());
  hostDefaultAnchors = std::move(anchors);
}

OrvSecurityUtilsService::DefaultTrustAnchors OrvSecurityUtilsService::defaultTrustAnchors() {
  {
    std::lock_guard lock(defaultAnchorsMutex());
    if (hostDefaultAnchors) return {hostDefaultAnchors, "host", std::nullopt};
  }
  // Read at every service creation, so that a corrected file takes effect without a restart.
  if (const char* path = std::getenv("ORV_APPCONFIG_TRUST_ANCHORS"); path && *path) {
    if (auto anchors = loadCertificatesFromPEMFile(path)) return {std::move(anchors), "environment", std::nullopt};
    return {std::vector<OrvCertificateRef>{}, "environment",
            std::string("ORV_APPCONFIG_TRUST_ANCHORS names ") + path +
                ", which could not be read as a PEM bundle of certificates; every signing certificate is refused until it "
                "can"};
  }
  const std::string_view builtIn = orv::detail::builtInTrustAnchorsPEM;
  if (!builtIn.empty()) {
    if (auto anchors = certificatesFromPEMBundle(builtIn)) return {std::move(anchors), "built in", std::nullopt};
    return {std::vector<OrvCertificateRef>{}, "built in",
            std::string("the trust anchors built into the library could not be read; every signing certificate is refused")};
  }
  return {std::nullopt, "none", std::nullopt};
}

std::optional<std::vector<OrvCertificateRef>> OrvSecurityUtilsService::certificatesFromPEMBundle(std::string_view pem) {
  constexpr std::string_view begin = "-----BEGIN CERTIFICATE-----";
  constexpr std::string_view end = "-----END CERTIFICATE-----";
  std::vector<OrvCertificateRef> certificates;
  std::size_t position = 0;
  while ((position = pem.find(begin, position)) != std::string_view::npos) {
    const std::size_t blockEnd = pem.find(end, position + begin.size());
    if (blockEnd == std::string_view::npos) return std::nullopt;
    auto certificate = OrvCertificate::certificateWithContent(pem.substr(position, blockEnd + end.size() - position));
    if (!certificate) return std::nullopt;
    certificates.push_back(std::move(certificate));
    position = blockEnd + end.size();
  }
  if (certificates.empty()) return std::nullopt;
  return certificates;
}

std::optional<std::vector<OrvCertificateRef>> OrvSecurityUtilsService::loadCertificatesFromPEMFile(const std::string& path) {
  try {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    std::ostringstream contents;
    contents << file.rdbuf();
    if (file.bad()) return std::nullopt;
    return certificatesFromPEMBundle(contents.str());
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

OrvCertificateRef OrvSecurityUtilsService::createCertificateFromCertificateContent(std::string_view certificateContent) {
  auto& caches = ProcessCertificateCaches::shared();
  if (auto certificate = caches.parsed.find(certificateContent)) return *certificate;
  // Certificates are immutable, and validity is judged at each verification, so a kept parse is as
  // good as a fresh one. Refused content is not kept.
  auto certificate = OrvCertificate::certificateWithContent(certificateContent);
  if (certificate) caches.parsed.keep(certificateContent, certificate);
  return certificate;
}

void OrvSecurityUtilsService::asyncValidateJWTWithJwtPayload(
    std::string jwtPayload, std::optional<std::string> base64URLEncodedJWTHeader,
    std::optional<std::string> base64URLEncodedJWTSignature, OrvCertificateRef verificationCertificate,
    std::shared_ptr<const AdditionalCertificateValidationOptions> additionalValidationOptions,
    OrvJWTValidationCompletionBlock completionBlock) {
  if (!completionBlock) return;
  try {
    // Verifications asked for together (one per store of a request) go to the pool together.
    std::vector<std::function<void()>> verification;
    verification.emplace_back([configuration = configuration_, payload = std::move(jwtPayload),
                               header = std::move(base64URLEncodedJWTHeader), signature = std::move(base64URLEncodedJWTSignature),
                               certificate = std::move(verificationCertificate), options = std::move(additionalValidationOptions),
                               completion = std::move(completionBlock)]() mutable {
      auto [result, error] = verifyCatchingEverything(*configuration, payload, header, signature, certificate, options.get());
      // Whatever OpenSSL state this task held the last reference to is freed before the completion
      // runs, not after: a host that waits for the completion and then shuts OpenSSL down (at process
      // exit, say) must not race with this thread freeing certificates.
      certificate.reset();
      configuration.reset();
      options.reset();
      try {
        completion(result, std::move(error));
      } catch (...) {
        // A host's completion that throws must not take a worker thread down with it.
      }
    });
    orv::detail::dispatchBatchToWorkerPool(verification);
  } catch (const std::exception&) {
    // The pool could not take the task (out of memory); nothing can be delivered later either.
  }
}

OrvJWTValidationResult OrvSecurityUtilsService::validateJWT(
    std::string_view jwtPayload, const std::optional<std::string>& base64URLEncodedJWTHeader,
    const std::optional<std::string>& base64URLEncodedJWTSignature, const OrvCertificateRef& verificationCertificate,
    const AdditionalCertificateValidationOptions* additionalValidationOptions) const {
  return verifyCatchingEverything(*configuration_, jwtPayload, base64URLEncodedJWTHeader, base64URLEncodedJWTSignature,
                                  verificationCertificate, additionalValidationOptions);
}

std::size_t OrvSecurityUtilsService::trustAnchorCount() const noexcept { return configuration_->trustAnchors.size(); }

bool orv::detail::verifyJwsSignatureForTesting(std::string_view algorithm, EVP_PKEY* key, std::string_view message,
                                               std::string_view signature) {
  const JwsAlgorithm* found = findJwsAlgorithm(algorithm);
  bool accepted = false;
  try {
    // Through a check set up for this key alone and copied, as a certificate's are.
    PreparedVerifications prepared;
    accepted = found && key && keyFitsAlgorithm(keyTraitsOf(key), *found) &&
               verifySignature(*found, key, message, signature, prepared).result == OrvSecurityUtilsResultSuccess;
  } catch (const std::exception&) {
    // Refused, as the verifier itself refuses when it runs out of memory.
  }
  drainOpenSSLErrors();
  return accepted;
}
