// Signatures made by others: Wycheproof's vectors through the verifier's signature step, and the JWS
// examples of RFC 7515 (ES256, ES512) through the whole verifier. A signer we did not write is the only
// check that our signing input and encodings are the ones everybody else uses. RS256 from an outside
// signer is Wycheproof's; the HMAC example of RFC 7797 is refused for its algorithm, as the security
// tests' header rows refuse HS256.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/pem.h>

#include <boost/algorithm/hex.hpp>
#include <boost/json.hpp>

#include <cstdio>
#include <map>

#include "EmulatorHarness.h"
#include "OrvOpenSSLHandles.h"
#include "OrvSDKStringUtils.h"
#include "OrvSecurityUtilsTesting.h"
#include "SecurityTestMaterial.h"

namespace orv::test {
namespace {

using detail::EvpPkeyPtr;

std::string fromHex(std::string_view hex) { return boost::algorithm::unhex(std::string(hex)); }

constexpr std::pair<const char*, const char*> kVectorFiles[] = {
    {"rsa_signature_2048_sha256_test.json", "RS256"},
    {"rsa_pss_2048_sha256_mgf1_32_test.json", "PS256"},
    {"ecdsa_secp256r1_sha256_p1363_test.json", "ES256"},
    {"ecdsa_secp384r1_sha384_p1363_test.json", "ES384"},
    {"ed25519_test.json", "EdDSA"},
};

// "acceptable" marks signatures that are not well formed but that some libraries take for compatibility;
// the vectors leave that verdict to the verifier, so they are counted and reported, not judged. What this
// verifier does with them is written down in the README beside the vectors.
TEST(PublishedVectorsTest, WycheproofValidAcceptedInvalidRefused) {
  for (const auto& [name, algorithm] : kVectorFiles) {
    SCOPED_TRACE(name);
    boost::system::error_code error;
    const auto document = boost::json::parse(readFile(std::string(ORV_VECTORS_DIR) + "/wycheproof/" + name), error);
    ASSERT_FALSE(error);
    std::map<std::string, int> counts;
    int acceptableAccepted = 0;
    for (const auto& group : document.at("testGroups").as_array()) {
      const auto& pem = group.at("publicKeyPem").as_string();
      const detail::BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
      const EvpPkeyPtr key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
      ASSERT_TRUE(key);
      for (const auto& test : group.at("tests").as_array()) {
        const std::string result(test.at("result").as_string());
        const bool accepted = detail::verifyJwsSignatureForTesting(algorithm, key.get(), fromHex(test.at("msg").as_string()),
                                                                   fromHex(test.at("sig").as_string()));
        ++counts[result];
        if (result == "acceptable") {
          acceptableAccepted += accepted;
        } else {
          EXPECT_EQ(accepted, result == "valid")
              << "tcId " << test.at("tcId").as_int64() << ": " << std::string_view(test.at("comment").as_string());
        }
      }
    }
    // Every test run, and none with a verdict other than the three known ones.
    EXPECT_EQ(counts["valid"] + counts["invalid"] + counts["acceptable"], document.at("numberOfTests").to_number<int>());
    std::printf("[ vectors  ] %s (%s): %d valid, %d invalid, %d acceptable, of which %d accepted\n", name, algorithm,
                counts["valid"], counts["invalid"], counts["acceptable"], acceptableAccepted);
  }
}

// The RFC gives its keys as JWK members, of which only the public point is needed.
EvpPkeyPtr publicKey(const char* curve, std::string_view x, std::string_view y) {
  std::string point = '\x04' + OrvBase64URLDecode(x).value_or("") + OrvBase64URLDecode(y).value_or("");
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char*>(curve), 0),
                         OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()),
                         OSSL_PARAM_construct_end()};
  const detail::EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* key = nullptr;
  if (context && EVP_PKEY_fromdata_init(context.get()) == 1) EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params);
  return EvpPkeyPtr(key);
}

// The RFC's signers hold their private keys, so the certificate for their public key is issued by a CA
// made here, under the name the verifier requires, valid for an hour either side of now. It carries no
// key usage, which the verifier reads as any use.
OrvCertificateRef issuedCertificateFor(EVP_PKEY* key) {
  static const EvpPkeyPtr caKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  const auto name = reinterpret_cast<const unsigned char*>(kRequiredIssuer);
  detail::X509Ptr certificate(X509_new());
  const detail::X509NamePtr issuer(X509_NAME_new());
  const detail::BioPtr pem = detail::newMemoryBio();
  if (!key || !caKey || !certificate || !issuer || !pem || X509_set_version(certificate.get(), X509_VERSION_3) != 1 ||
      ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 7515) != 1 ||
      X509_NAME_add_entry_by_txt(issuer.get(), "O", MBSTRING_UTF8, name, -1, -1, 0) != 1 ||
      X509_NAME_add_entry_by_txt(issuer.get(), "CN", MBSTRING_UTF8, name, -1, -1, 0) != 1 ||
      X509_set_issuer_name(certificate.get(), issuer.get()) != 1 || X509_set_subject_name(certificate.get(), issuer.get()) != 1 ||
      !X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600) ||
      !X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600) || X509_set_pubkey(certificate.get(), key) != 1 ||
      X509_sign(certificate.get(), caKey.get(), EVP_sha256()) <= 0 || PEM_write_bio_X509(pem.get(), certificate.get()) != 1) {
    return nullptr;
  }
  return OrvCertificate::certificateWithContent(detail::bioContents(pem.get()));
}

// The examples as the RFC prints them, each string cut to fit the page.
constexpr const char* kA3Compact =
    "eyJhbGciOiJFUzI1NiJ9.eyJpc3MiOiJqb2UiLA0KICJleHAiOjEzMDA4MTkzODAsDQogImh0dHA6Ly9leGFtcGxlLmNvbS9pc19yb290Ijp0cnVlfQ."
    "DtEhU3ljbEg8L38VWAfUAqOyKAM6-Xx-F4GawxaepmXFCgfTjDxw5djxLa8ISlSApmWQxfKTUJqPP3-Kg6NU1Q";
constexpr const char* kA4PointX = "AekpBQ8ST8a8VcfVOTNl353vSrDCLLJXmPk06wTjxrrjcBpXp5EOnYG_NjFZ6OvLFV1jSfS9tsz4qUxcWceqwQGk";
constexpr const char* kA4PointY = "ADSmRA43Z1DSNx_RvcLI87cdL07l6jQyyBXMoxVg_l2Th-x3S1WDhjDly79ajL4Kkd0AZMaZmh9ubmf63e3kyMj2";
constexpr const char* kA4Compact =
    "eyJhbGciOiJFUzUxMiJ9.UGF5bG9hZA.AdwMgeerwtHoh-l192l60hp9wAHZFVJbLfD_UxMi70cwnZOYaRI1bKPWROc-mZZqwqT2SI-KGDKB34XO0aw_7X"
    "dtAG8GaSwFKdCAPZgoXD2YBJZCPEX3xKpRwcdOO8KpEHwJjyqOgzDO7iKvU8vcnwNrmxYbSW9ERBXukOXolLzeO_Jn";

// Each compact JWS made detached: its header and signature as they stand, its payload decoded.
TEST(PublishedVectorsTest, RfcExamplesAsDetachedJws) {
  const struct {
    const char* name;
    EvpPkeyPtr key;
    std::string_view compact;
  } examples[] = {
      {"RFC 7515 A.3 (ES256)",
       publicKey("P-256", "f83OJ3D2xF1Bg8vub9tLe1gHMzV76e8Tus9uPHvRVEU", "x_FEzRu9m36HLN_tue659LNpXW6pCyStikYjKIWI5a0"),
       kA3Compact},
      {"RFC 7515 A.4 (ES512)", publicKey("P-521", kA4PointX, kA4PointY), kA4Compact},
  };
  const auto service = OrvSecurityUtilsService::create();
  for (const auto& [name, key, compact] : examples) {
    SCOPED_TRACE(name);
    const auto certificate = issuedCertificateFor(key.get());
    ASSERT_TRUE(certificate);
    const auto first = compact.find('.'), last = compact.rfind('.');
    const DetachedJws jws{std::string(compact.substr(0, first)), std::string(compact.substr(last + 1))};
    const std::string payload = OrvBase64URLDecode(compact.substr(first + 1, last - first - 1)).value_or("");
    EXPECT_EQ(verifyResult(*service, jws, certificate, payload), OrvSecurityUtilsResultSuccess);
  }
}

}  // namespace
}  // namespace orv::test
