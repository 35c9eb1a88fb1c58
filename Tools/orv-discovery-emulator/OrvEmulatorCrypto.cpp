#include "OrvEmulatorCrypto.h"

#include <openssl/pem.h>
#include <openssl/rand.h>

#include <chrono>
#include <climits>
#include <exception>
#include <string>

#include "OrvOpenSSLHandles.h"
#include "OrvSDKStringUtils.h"

namespace orv::emulator {
namespace detail {
struct KeyHandle {
  orv::detail::EvpPkeyPtr key;
};
}  // namespace detail

namespace {

using namespace orv::detail;

EvpPkeyPtr generateKey(KeyKind kind) {
  switch (kind) {
    case KeyKind::rsa2048:
      return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(2048)));
    case KeyKind::rsa3072:
      return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(3072)));
    case KeyKind::ecP256:
      return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    case KeyKind::ecP384:
      return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384"));
    case KeyKind::ecP521:
      return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-521"));
    case KeyKind::ed25519:
      return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
  }
  return nullptr;
}

bool addNameEntry(X509_NAME* name, const char* field, const std::optional<std::string>& value) {
  if (!value) return true;
  if (value->size() > INT_MAX) return false;
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value->data()),
                                    static_cast<int>(value->size()), -1, 0) == 1;
}

bool setTime(ASN1_TIME* field, OrvDate date) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
  return ASN1_TIME_set(field, static_cast<time_t>(seconds)) != nullptr;
}

bool addExtension(X509* certificate, X509V3_CTX* context, int nid, const std::string& value) {
  X509ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, context, nid, value.c_str()));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

// Certificates are signed with a digest that matches the key's strength; Ed25519 takes none.
const EVP_MD* certificateDigestFor(const EVP_PKEY* key) {
  const KeyTraits traits = keyTraitsOf(key);
  if (traits.type == KeyTraits::Type::ed25519) return nullptr;
  if (traits.type == KeyTraits::Type::ec && traits.curve == "secp384r1") return EVP_sha384();
  if (traits.type == KeyTraits::Type::ec && traits.curve == "secp521r1") return EVP_sha512();
  return EVP_sha256();
}

std::optional<std::string> derSignatureToRaw(std::string_view der, std::size_t coordinateSize) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
  EcdsaSigPtr signature(d2i_ECDSA_SIG(nullptr, &cursor, static_cast<long>(der.size())));
  if (!signature) return std::nullopt;
  const BIGNUM* r = nullptr;
  const BIGNUM* s = nullptr;
  ECDSA_SIG_get0(signature.get(), &r, &s);
  std::string raw(coordinateSize * 2, '\0');
  auto* out = reinterpret_cast<unsigned char*>(raw.data());
  if (BN_bn2binpad(r, out, static_cast<int>(coordinateSize)) < 0 ||
      BN_bn2binpad(s, out + coordinateSize, static_cast<int>(coordinateSize)) < 0) {
    return std::nullopt;
  }
  return raw;
}

std::optional<std::string> signWith(EVP_PKEY* key, const JwsAlgorithm& algorithm, std::string_view input) {
  EvpMdCtxPtr context(EVP_MD_CTX_new());
  if (!context) return std::nullopt;
  EVP_PKEY_CTX* keyContext = nullptr;  // owned by context
  if (EVP_DigestSignInit_ex(context.get(), &keyContext, algorithm.digest, nullptr, nullptr, key, nullptr) != 1) {
    return std::nullopt;
  }
  if (algorithm.family == JwsKeyFamily::rsaPss && !configurePss(keyContext, algorithm)) return std::nullopt;
  const auto* data = reinterpret_cast<const unsigned char*>(input.data());
  std::size_t length = 0;
  if (EVP_DigestSign(context.get(), nullptr, &length, data, input.size()) != 1) return std::nullopt;
  std::string signature(length, '\0');
  if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length, data, input.size()) != 1) {
    return std::nullopt;
  }
  signature.resize(length);
  if (algorithm.family == JwsKeyFamily::ecdsa) return derSignatureToRaw(signature, algorithm.coordinateSize);
  return signature;
}

}  // namespace

PrivateKey::PrivateKey(std::unique_ptr<detail::KeyHandle> handle) : handle_(std::move(handle)) {}
PrivateKey::PrivateKey(PrivateKey&&) noexcept = default;
PrivateKey& PrivateKey::operator=(PrivateKey&&) noexcept = default;
PrivateKey::~PrivateKey() = default;

std::optional<PrivateKey> PrivateKey::generate(KeyKind kind) {
  EvpPkeyPtr key = generateKey(kind);
  drainOpenSSLErrors();
  if (!key) return std::nullopt;
  return PrivateKey(std::make_unique<detail::KeyHandle>(detail::KeyHandle{std::move(key)}));
}

std::optional<PrivateKey> PrivateKey::fromPEM(std::string_view pem) {
  if (pem.empty() || pem.size() > INT_MAX) return std::nullopt;
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) return std::nullopt;
  EvpPkeyPtr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
  drainOpenSSLErrors();
  if (!key) return std::nullopt;
  return PrivateKey(std::make_unique<detail::KeyHandle>(detail::KeyHandle{std::move(key)}));
}

std::string PrivateKey::privateKeyPEM() const {
  if (!handle_) return {};
  BioPtr bio = newMemoryBio();
  if (!bio || PEM_write_bio_PrivateKey(bio.get(), handle_->key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    drainOpenSSLErrors();
    return {};
  }
  return bioContents(bio.get());
}

std::optional<std::string> issueCertificate(const CertificateProfile& profile, const PrivateKey& subjectKey,
                                            const OrvCertificate* issuer, const PrivateKey& issuerKey) {
  try {
    EVP_PKEY* subjectPkey = subjectKey.handle().key.get();
    EVP_PKEY* issuerPkey = issuerKey.handle().key.get();
    X509Ptr issuerCertificate;
    if (issuer) {
      const std::string der = issuer->derData();
      const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
      issuerCertificate.reset(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
      if (!issuerCertificate) return std::nullopt;
    }

    X509Ptr certificate(X509_new());
    if (!certificate || X509_set_version(certificate.get(), X509_VERSION_3) != 1) return std::nullopt;

    // A random positive 127-bit serial, so that certificates issued in one run never collide.
    unsigned char serialBytes[16];
    if (RAND_bytes(serialBytes, sizeof serialBytes) != 1) return std::nullopt;
    serialBytes[0] &= 0x7F;
    BignumPtr serialNumber(BN_bin2bn(serialBytes, sizeof serialBytes, nullptr));
    if (!serialNumber || !BN_to_ASN1_INTEGER(serialNumber.get(), X509_get_serialNumber(certificate.get()))) {
      return std::nullopt;
    }

    X509_NAME* subject = X509_get_subject_name(certificate.get());
    if (!addNameEntry(subject, "O", profile.organization) || !addNameEntry(subject, "CN", profile.commonName)) {
      return std::nullopt;
    }
    for (const auto& organization : profile.additionalOrganizations) {
      if (!addNameEntry(subject, "O", organization)) return std::nullopt;
    }
    const X509_NAME* issuerName = issuerCertificate ? X509_get_subject_name(issuerCertificate.get()) : subject;
    if (X509_set_issuer_name(certificate.get(), issuerName) != 1) return std::nullopt;
    if (!setTime(X509_getm_notBefore(certificate.get()), profile.notBefore) ||
        !setTime(X509_getm_notAfter(certificate.get()), profile.notAfter)) {
      return std::nullopt;
    }
    if (X509_set_pubkey(certificate.get(), subjectPkey) != 1) return std::nullopt;

    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuerCertificate ? issuerCertificate.get() : certificate.get(), certificate.get(), nullptr, nullptr,
                   0);
    if (!addExtension(certificate.get(), &context, NID_basic_constraints,
                      profile.isCA ? "critical,CA:TRUE" : "critical,CA:FALSE") ||
        !addExtension(certificate.get(), &context, NID_subject_key_identifier, "hash")) {
      return std::nullopt;
    }
    if (issuerCertificate && !addExtension(certificate.get(), &context, NID_authority_key_identifier, "keyid:always")) {
      return std::nullopt;
    }
    if (profile.addKeyUsage) {
      std::string usage;
      if (profile.digitalSignature) usage = "digitalSignature";
      if (profile.isCA) usage += usage.empty() ? "keyCertSign,cRLSign" : ",keyCertSign,cRLSign";
      // A key-usage extension must name at least one use; a leaf without digitalSignature gets one
      // that does not allow signing data.
      if (usage.empty()) usage = "nonRepudiation";
      if (!addExtension(certificate.get(), &context, NID_key_usage, "critical," + usage)) return std::nullopt;
    }
    std::string alternativeNames;
    for (const auto& name : profile.dnsNames) alternativeNames += (alternativeNames.empty() ? "DNS:" : ",DNS:") + name;
    for (const auto& ip : profile.ipAddresses) alternativeNames += (alternativeNames.empty() ? "IP:" : ",IP:") + ip;
    if (!alternativeNames.empty() && !addExtension(certificate.get(), &context, NID_subject_alt_name, alternativeNames)) {
      return std::nullopt;
    }

    if (X509_sign(certificate.get(), issuerPkey, certificateDigestFor(issuerPkey)) <= 0) return std::nullopt;

    BioPtr bio = newMemoryBio();
    if (!bio || PEM_write_bio_X509(bio.get(), certificate.get()) != 1) return std::nullopt;
    drainOpenSSLErrors();
    return bioContents(bio.get());
  } catch (const std::exception&) {
    drainOpenSSLErrors();
    return std::nullopt;
  }
}

std::optional<std::string> signRaw(const PrivateKey& key, std::string_view algorithmName, std::string_view signingInput) {
  try {
    const JwsAlgorithm* algorithm = findJwsAlgorithm(algorithmName);
    EVP_PKEY* pkey = key.handle().key.get();
    if (!algorithm || !keyFitsAlgorithm(keyTraitsOf(pkey), *algorithm)) return std::nullopt;
    auto signature = signWith(pkey, *algorithm, signingInput);
    drainOpenSSLErrors();
    return signature;
  } catch (const std::exception&) {
    drainOpenSSLErrors();
    return std::nullopt;
  }
}

std::optional<std::string> signDetachedJws(const PrivateKey& key, std::string_view algorithm,
                                           std::string_view protectedHeaderJson, std::string_view payload,
                                           bool unencodedPayload) {
  const std::string encodedHeader = base64UrlEncode(protectedHeaderJson);
  const std::string signingInput = encodedHeader + "." + (unencodedPayload ? std::string(payload) : base64UrlEncode(payload));
  const auto signature = signRaw(key, algorithm, signingInput);
  if (!signature) return std::nullopt;
  return encodedHeader + "." + base64UrlEncode(*signature);
}

std::string base64UrlEncode(std::string_view bytes) {
  return OrvBase64URLEncodedStringFromString(std::string(bytes)).value_or(std::string());
}

}  // namespace orv::emulator
