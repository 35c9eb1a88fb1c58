#pragma once
// Owners of the OpenSSL handles used by the security library and the signing side. Internal: include
// only from .cpp files, never from a header that a host sees.
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstddef>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace orv::detail {

template <auto FreeFunction>
struct OpenSSLDeleter {
  template <typename T>
  void operator()(T* pointer) const noexcept {
    FreeFunction(pointer);
  }
};

using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSSLDeleter<EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, OpenSSLDeleter<EVP_PKEY_CTX_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, OpenSSLDeleter<EVP_MD_CTX_free>>;
using X509Ptr = std::unique_ptr<X509, OpenSSLDeleter<X509_free>>;
using X509StorePtr = std::unique_ptr<X509_STORE, OpenSSLDeleter<X509_STORE_free>>;
using X509StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, OpenSSLDeleter<X509_STORE_CTX_free>>;
using X509ExtensionPtr = std::unique_ptr<X509_EXTENSION, OpenSSLDeleter<X509_EXTENSION_free>>;
using X509NamePtr = std::unique_ptr<X509_NAME, OpenSSLDeleter<X509_NAME_free>>;
using BioPtr = std::unique_ptr<BIO, OpenSSLDeleter<BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, OpenSSLDeleter<BN_free>>;
using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, OpenSSLDeleter<ECDSA_SIG_free>>;
using Asn1IntegerPtr = std::unique_ptr<ASN1_INTEGER, OpenSSLDeleter<ASN1_INTEGER_free>>;
inline void freeOpenSSLBytes(unsigned char* bytes) noexcept { OPENSSL_free(bytes); }
using OpenSSLBytesPtr = std::unique_ptr<unsigned char, OpenSSLDeleter<freeOpenSSLBytes>>;

// A memory BIO whose contents are copied out with bioContents.
inline BioPtr newMemoryBio() { return BioPtr(BIO_new(BIO_s_mem())); }

inline std::string bioContents(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  return length > 0 && data ? std::string(data, static_cast<std::size_t>(length)) : std::string();
}

// The error queue is per thread, and worker threads live long: whatever a failed call left there must
// not surface in an unrelated later call on the same thread.
inline std::string drainOpenSSLErrors() {
  std::string text;
  while (const unsigned long code = ERR_get_error()) {
    char buffer[256];
    ERR_error_string_n(code, buffer, sizeof buffer);
    if (!text.empty()) text += "; ";
    text += buffer;
  }
  return text;
}

// One JWS algorithm and what it asks of the key.
enum class JwsKeyFamily { rsaPkcs1, rsaPss, ecdsa, eddsa };

struct JwsAlgorithm {
  std::string_view name;
  JwsKeyFamily family;
  const char* digest;          // nullptr for EdDSA, which hashes internally
  const char* curve;           // OpenSSL group name for ECDSA, nullptr otherwise
  std::size_t coordinateSize;  // bytes of r and of s for ECDSA; the signature is r||s
};

inline constexpr JwsAlgorithm kJwsAlgorithms[] = {
    {"RS256", JwsKeyFamily::rsaPkcs1, "SHA256", nullptr, 0},    {"RS384", JwsKeyFamily::rsaPkcs1, "SHA384", nullptr, 0},
    {"RS512", JwsKeyFamily::rsaPkcs1, "SHA512", nullptr, 0},    {"PS256", JwsKeyFamily::rsaPss, "SHA256", nullptr, 0},
    {"PS384", JwsKeyFamily::rsaPss, "SHA384", nullptr, 0},      {"PS512", JwsKeyFamily::rsaPss, "SHA512", nullptr, 0},
    {"ES256", JwsKeyFamily::ecdsa, "SHA256", "prime256v1", 32}, {"ES384", JwsKeyFamily::ecdsa, "SHA384", "secp384r1", 48},
    {"ES512", JwsKeyFamily::ecdsa, "SHA512", "secp521r1", 66},  {"EdDSA", JwsKeyFamily::eddsa, nullptr, nullptr, 0},
};

// Algorithm names are case-sensitive ("rs256" is unknown).
inline const JwsAlgorithm* findJwsAlgorithm(std::string_view name) noexcept {
  for (const auto& algorithm : kJwsAlgorithms) {
    if (algorithm.name == name) return &algorithm;
  }
  return nullptr;
}

// Signature checks with one key, set up once per JWS algorithm on first use and copied for each
// payload: setting one up fetches the digest and prepares the key for the provider, about 30 K
// instructions or a tenth of an RSA-2048 check. Each is written once under its flag and only read
// (copied) after.
struct PreparedVerifications {
  std::array<std::once_flag, std::size(kJwsAlgorithms)> made;
  std::array<EvpMdCtxPtr, std::size(kJwsAlgorithms)> checks;
};

// What a key can do, worked out once per key.
struct KeyTraits {
  enum class Type { other, rsa, ec, ed25519 } type = Type::other;
  int bits = 0;
  std::string curve;  // OpenSSL group name of an EC key
};

inline KeyTraits keyTraitsOf(const EVP_PKEY* key) {
  KeyTraits traits;
  if (!key) return traits;
  traits.bits = EVP_PKEY_get_bits(key);
  // An RSA-PSS key carries its own parameter restrictions; JWS has no use for it, so it stays "other".
  if (EVP_PKEY_is_a(key, "RSA")) {
    traits.type = KeyTraits::Type::rsa;
  } else if (EVP_PKEY_is_a(key, "EC")) {
    traits.type = KeyTraits::Type::ec;
    char group[80] = {};
    std::size_t length = 0;
    if (EVP_PKEY_get_utf8_string_param(key, "group", group, sizeof group, &length) == 1) {
      traits.curve.assign(group, length);
    }
  } else if (EVP_PKEY_is_a(key, "ED25519")) {
    traits.type = KeyTraits::Type::ed25519;
  }
  return traits;
}

inline bool keyFitsAlgorithm(const KeyTraits& key, const JwsAlgorithm& algorithm) {
  switch (algorithm.family) {
    case JwsKeyFamily::rsaPkcs1:
    case JwsKeyFamily::rsaPss:
      return key.type == KeyTraits::Type::rsa;
    case JwsKeyFamily::ecdsa:
      return key.type == KeyTraits::Type::ec && key.curve == algorithm.curve;
    case JwsKeyFamily::eddsa:
      return key.type == KeyTraits::Type::ed25519;
  }
  return false;
}

// JWA wants the PSS salt as long as the digest, with MGF1 over the same digest.
inline bool configurePss(EVP_PKEY_CTX* context, const JwsAlgorithm& algorithm) {
  return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) > 0 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) > 0 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md_name(context, algorithm.digest, nullptr) > 0;
}

}  // namespace orv::detail
