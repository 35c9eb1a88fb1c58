// Signatures made by others: Wycheproof's vectors through the verifier's signature step, and the JWS
// examples of RFC 7515 and RFC 7797 through the whole verifier (the RFC 7797 form signed here, with and
// without "crit", is among the security tests' header rows). A signer we did not write is the only
// check that our signing input and encodings are the ones everybody else uses.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <boost/json.hpp>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include "OrvOpenSSLHandles.h"
#include "OrvSDKStringUtils.h"
#include "OrvSecurityUtilsTesting.h"
#include "SecurityTestMaterial.h"

namespace orv::test {
namespace {

using detail::EvpPkeyPtr;
using ParamBuilderPtr = std::unique_ptr<OSSL_PARAM_BLD, detail::OpenSSLDeleter<OSSL_PARAM_BLD_free>>;
using ParamsPtr = std::unique_ptr<OSSL_PARAM, detail::OpenSSLDeleter<OSSL_PARAM_free>>;

std::string fromHex(std::string_view hex) {
  std::string bytes(hex.size() / 2, '\0');
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    unsigned value = 0;
    std::from_chars(hex.data() + 2 * index, hex.data() + 2 * index + 2, value, 16);
    bytes[index] = static_cast<char>(value);
  }
  return bytes;
}

EvpPkeyPtr publicKeyFromPem(std::string_view pem) {
  detail::BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return EvpPkeyPtr(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

struct VectorFile {
  const char* name;
  const char* algorithm;
};

constexpr VectorFile kVectorFiles[] = {
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
    std::ifstream file(std::string(ORV_VECTORS_DIR) + "/wycheproof/" + name, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    boost::system::error_code error;
    const auto document = boost::json::parse(text.str(), error);
    ASSERT_TRUE(file && !error);
    std::map<std::string, int> counts;
    int acceptableAccepted = 0;
    for (const auto& group : document.at("testGroups").as_array()) {
      const EvpPkeyPtr key = publicKeyFromPem(group.at("publicKeyPem").as_string());
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

EvpPkeyPtr publicKeyFromParams(const char* type, OSSL_PARAM_BLD* builder) {
  const ParamsPtr params(builder ? OSSL_PARAM_BLD_to_param(builder) : nullptr);
  const detail::EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY* key = nullptr;
  if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return nullptr;
  }
  return EvpPkeyPtr(key);
}

detail::BignumPtr bignumFromBase64Url(std::string_view text) {
  const std::string bytes = OrvBase64URLDecode(text).value_or("");
  return detail::BignumPtr(
      BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), nullptr));
}

// The RFC gives its keys as JWK members; only their public halves are needed.
EvpPkeyPtr rsaPublicKey(std::string_view n, std::string_view e) {
  const ParamBuilderPtr builder(OSSL_PARAM_BLD_new());
  const auto modulus = bignumFromBase64Url(n), exponent = bignumFromBase64Url(e);
  if (!builder || OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get()) != 1) {
    return nullptr;
  }
  return publicKeyFromParams("RSA", builder.get());
}

EvpPkeyPtr ecPublicKey(const char* curve, std::string_view x, std::string_view y) {
  const ParamBuilderPtr builder(OSSL_PARAM_BLD_new());
  const std::string point = '\x04' + OrvBase64URLDecode(x).value_or("") + OrvBase64URLDecode(y).value_or("");
  if (!builder || OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve, 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()) != 1) {
    return nullptr;
  }
  return publicKeyFromParams("EC", builder.get());
}

// The RFC's signers hold their private keys, so the certificate for their public key is issued by a CA
// made here, under the name the verifier requires: valid for an hour either side of now, for signing.
OrvCertificateRef issuedCertificateFor(EVP_PKEY* key) {
  static const EvpPkeyPtr caKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  const auto name = reinterpret_cast<const unsigned char*>(kRequiredIssuer);
  detail::X509Ptr certificate(X509_new());
  const detail::X509NamePtr issuer(X509_NAME_new());
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, nullptr, certificate.get(), nullptr, nullptr, 0);
  const detail::X509ExtensionPtr usage(X509V3_EXT_conf_nid(nullptr, &context, NID_key_usage, "critical,digitalSignature"));
  const detail::BioPtr pem = detail::newMemoryBio();
  if (!key || !caKey || !certificate || !issuer || !usage || !pem || X509_set_version(certificate.get(), X509_VERSION_3) != 1 ||
      ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 7515) != 1 ||
      X509_NAME_add_entry_by_txt(issuer.get(), "O", MBSTRING_UTF8, name, -1, -1, 0) != 1 ||
      X509_NAME_add_entry_by_txt(issuer.get(), "CN", MBSTRING_UTF8, name, -1, -1, 0) != 1 ||
      X509_set_issuer_name(certificate.get(), issuer.get()) != 1 ||
      X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>("RFC example signer"), -1, -1, 0) != 1 ||
      !X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600) ||
      !X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600) || X509_set_pubkey(certificate.get(), key) != 1 ||
      X509_add_ext(certificate.get(), usage.get(), -1) != 1 || X509_sign(certificate.get(), caKey.get(), EVP_sha256()) <= 0 ||
      PEM_write_bio_X509(pem.get(), certificate.get()) != 1) {
    return nullptr;
  }
  return OrvCertificate::certificateWithContent(detail::bioContents(pem.get()));
}

struct RfcCase {
  std::string name, header, signature, payload;
  OrvCertificateRef certificate;
  std::int64_t expected;
};

// A compact JWS made detached: its header and signature as they stand, its payload decoded.
RfcCase detachedFromCompact(std::string name, const EvpPkeyPtr& key, std::string_view compact) {
  const auto first = compact.find('.'), last = compact.rfind('.');
  return {std::move(name),
          std::string(compact.substr(0, first)),
          std::string(compact.substr(last + 1)),
          OrvBase64URLDecode(compact.substr(first + 1, last - first - 1)).value_or(""),
          issuedCertificateFor(key.get()),
          OrvSecurityUtilsResultSuccess};
}

constexpr const char* kA2A3Payload =
    "eyJpc3MiOiJqb2UiLA0KICJleHAiOjEzMDA4MTkzODAsDQogImh0dHA6Ly9leGFt"
    "cGxlLmNvbS9pc19yb290Ijp0cnVlfQ";
constexpr const char* kUnencodedPayload = "$.02";

TEST(PublishedVectorsTest, RfcExamplesAsDetachedJws) {
  const SecurityMaterial& m = securityMaterial();
  const std::vector<RfcCase> cases = {
      detachedFromCompact("RFC 7515 A.2 (RS256)",
                          rsaPublicKey("ofgWCuLjybRlzo0tZWJjNiuSfb4p4fAkd_wWJcyQoTbji9k0l8W26mPddx"
                                       "HmfHQp-Vaw-4qPCJrcS2mJPMEzP1Pt0Bm4d4QlL-yRT-SFd2lZS-pCgNMs"
                                       "D1W_YpRPEwOWvG6b32690r2jZ47soMZo9wGzjb_7OMg0LOL-bSf63kpaSH"
                                       "SXndS5z5rexMdbBYUsLA9e-KXBdQOS-UTo7WTBEMa2R2CapHg665xsmtdV"
                                       "MTBQY4uDZlxvb3qCo5ZwKh9kG4LT6_I5IhlJH7aGhyxXFvUK-DWNmoudF8"
                                       "NAco9_h9iaGNj8q2ethFkMLs91kzk2PAcDTW9gb54h4FRWyuXpoQ",
                                       "AQAB"),
                          std::string("eyJhbGciOiJSUzI1NiJ9.") + kA2A3Payload +
                              ".cC4hiUPoj9Eetdgtv3hF80EGrhuB__dzERat0XF9g2VtQgr9PJbu3XOiZj5RZmh7"
                              "AAuHIm4Bh-0Qc_lF5YKt_O8W2Fp5jujGbds9uJdbF9CUAr7t1dnZcAcQjbKBYNX4"
                              "BAynRFdiuB--f_nZLgrnbyTyWzO75vRK5h6xBArLIARNPvkSjtQBMHlb1L07Qe7K"
                              "0GarZRmB_eSN9383LcOLn6_dO--xi12jzDwusC-eOkHWEsqtFZESc6BfI7noOPqv"
                              "hJ1phCnvWh6IeYI2w9QOYEUipUTI8np6LbgGY9Fs98rqVt5AXLIhWkWywlVmtVrB"
                              "p0igcN_IoypGlUPQGe77Rw"),
      detachedFromCompact(
          "RFC 7515 A.3 (ES256)",
          ecPublicKey("P-256", "f83OJ3D2xF1Bg8vub9tLe1gHMzV76e8Tus9uPHvRVEU", "x_FEzRu9m36HLN_tue659LNpXW6pCyStikYjKIWI5a0"),
          std::string("eyJhbGciOiJFUzI1NiJ9.") + kA2A3Payload +
              ".DtEhU3ljbEg8L38VWAfUAqOyKAM6-Xx-F4GawxaepmXFCgfTjDxw5djxLa8ISlSA"
              "pmWQxfKTUJqPP3-Kg6NU1Q"),
      detachedFromCompact("RFC 7515 A.4 (ES512)",
                          ecPublicKey("P-521",
                                      "AekpBQ8ST8a8VcfVOTNl353vSrDCLLJXmPk06wTjxrrjcBpXp5EOnYG_"
                                      "NjFZ6OvLFV1jSfS9tsz4qUxcWceqwQGk",
                                      "ADSmRA43Z1DSNx_RvcLI87cdL07l6jQyyBXMoxVg_l2Th-x3S1WDhjDl"
                                      "y79ajL4Kkd0AZMaZmh9ubmf63e3kyMj2"),
                          "eyJhbGciOiJFUzUxMiJ9.UGF5bG9hZA."
                          "AdwMgeerwtHoh-l192l60hp9wAHZFVJbLfD_UxMi70cwnZOYaRI1bKPWROc-mZZq"
                          "wqT2SI-KGDKB34XO0aw_7XdtAG8GaSwFKdCAPZgoXD2YBJZCPEX3xKpRwcdOO8Kp"
                          "EHwJjyqOgzDO7iKvU8vcnwNrmxYbSW9ERBXukOXolLzeO_Jn"),
      // HMAC needs the shared secret, which a certificate never carries: refused whatever the signature.
      {"RFC 7797 section 4 (HS256)", "eyJhbGciOiJIUzI1NiIsImI2NCI6ZmFsc2UsImNyaXQiOlsiYjY0Il19",
       "A5dxf2s96_n5FLueVuW1Z_vh161FwXZC4YLPff6dmDY", kUnencodedPayload, m.p256Leaf, OrvSecurityUtilsResultUnsupportedAlgorithm},
  };
  const auto service = OrvSecurityUtilsService::create();
  for (const auto& example : cases) {
    SCOPED_TRACE(example.name);
    ASSERT_TRUE(example.certificate);
    const DetachedJws jws{example.header, example.signature};
    EXPECT_EQ(verifyResult(*service, jws, example.certificate, example.payload), example.expected);
    if (example.expected != OrvSecurityUtilsResultSuccess) continue;
    std::string altered = example.payload;
    altered.back() ^= 0x01;
    EXPECT_EQ(verifyResult(*service, jws, example.certificate, altered), OrvSecurityUtilsResultSignatureMismatch);
  }
}

}  // namespace
}  // namespace orv::test
