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
#include <map>

#include "EmulatorHarness.h"
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
    boost::system::error_code error;
    const auto document = boost::json::parse(readFile(std::string(ORV_VECTORS_DIR) + "/wycheproof/" + name), error);
    ASSERT_FALSE(error);
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

// The RFC gives its keys as JWK members, of which only the public halves are needed: an RSA modulus
// and exponent (curve null), or the coordinates of a point on the curve.
EvpPkeyPtr publicKey(const char* curve, std::string_view first, std::string_view second) {
  const std::string a = OrvBase64URLDecode(first).value_or(""), b = OrvBase64URLDecode(second).value_or(""),
                    point = '\x04' + a + b;
  const auto bignum = [](const std::string& bytes) {
    return detail::BignumPtr(
        BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), nullptr));
  };
  const auto modulus = bignum(a), exponent = bignum(b);
  const ParamBuilderPtr builder(OSSL_PARAM_BLD_new());
  const bool pushed =
      builder &&
      (curve ? OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve, 0) == 1 &&
                   OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()) == 1
             : OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get()) == 1 &&
                   OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get()) == 1);
  const ParamsPtr params(pushed ? OSSL_PARAM_BLD_to_param(builder.get()) : nullptr);
  const detail::EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, curve ? "EC" : "RSA", nullptr));
  EVP_PKEY* key = nullptr;
  if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return nullptr;
  }
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

// The examples as the RFCs print them, each string cut to fit the page.
constexpr const char* kA2A3Payload =
    "eyJpc3MiOiJqb2UiLA0KICJleHAiOjEzMDA4MTkzODAsDQogImh0dHA6Ly9leGFtcGxlLmNvbS9pc19yb290Ijp0cnVlfQ";
constexpr const char* kA2Modulus =
    "ofgWCuLjybRlzo0tZWJjNiuSfb4p4fAkd_wWJcyQoTbji9k0l8W26mPddxHmfHQp-Vaw-4qPCJrcS2mJPMEzP1Pt0Bm4d4QlL-yRT-SFd2lZS-pCgNMsD1"
    "W_YpRPEwOWvG6b32690r2jZ47soMZo9wGzjb_7OMg0LOL-bSf63kpaSHSXndS5z5rexMdbBYUsLA9e-KXBdQOS-UTo7WTBEMa2R2CapHg665xsmtdVMTBQ"
    "Y4uDZlxvb3qCo5ZwKh9kG4LT6_I5IhlJH7aGhyxXFvUK-DWNmoudF8NAco9_h9iaGNj8q2ethFkMLs91kzk2PAcDTW9gb54h4FRWyuXpoQ";
constexpr const char* kA2Signature =
    "cC4hiUPoj9Eetdgtv3hF80EGrhuB__dzERat0XF9g2VtQgr9PJbu3XOiZj5RZmh7AAuHIm4Bh-0Qc_lF5YKt_O8W2Fp5jujGbds9uJdbF9CUAr7t1dnZcA"
    "cQjbKBYNX4BAynRFdiuB--f_nZLgrnbyTyWzO75vRK5h6xBArLIARNPvkSjtQBMHlb1L07Qe7K0GarZRmB_eSN9383LcOLn6_dO--xi12jzDwusC-eOkHW"
    "EsqtFZESc6BfI7noOPqvhJ1phCnvWh6IeYI2w9QOYEUipUTI8np6LbgGY9Fs98rqVt5AXLIhWkWywlVmtVrBp0igcN_IoypGlUPQGe77Rw";
constexpr const char* kA3Signature = "DtEhU3ljbEg8L38VWAfUAqOyKAM6-Xx-F4GawxaepmXFCgfTjDxw5djxLa8ISlSApmWQxfKTUJqPP3-Kg6NU1Q";
constexpr const char* kA4PointX = "AekpBQ8ST8a8VcfVOTNl353vSrDCLLJXmPk06wTjxrrjcBpXp5EOnYG_NjFZ6OvLFV1jSfS9tsz4qUxcWceqwQGk";
constexpr const char* kA4PointY = "ADSmRA43Z1DSNx_RvcLI87cdL07l6jQyyBXMoxVg_l2Th-x3S1WDhjDly79ajL4Kkd0AZMaZmh9ubmf63e3kyMj2";
constexpr const char* kA4Compact =
    "eyJhbGciOiJFUzUxMiJ9.UGF5bG9hZA.AdwMgeerwtHoh-l192l60hp9wAHZFVJbLfD_UxMi70cwnZOYaRI1bKPWROc-mZZqwqT2SI-KGDKB34XO0aw_7X"
    "dtAG8GaSwFKdCAPZgoXD2YBJZCPEX3xKpRwcdOO8KpEHwJjyqOgzDO7iKvU8vcnwNrmxYbSW9ERBXukOXolLzeO_Jn";
constexpr const char* kUnencodedPayload = "$.02";

TEST(PublishedVectorsTest, RfcExamplesAsDetachedJws) {
  const SecurityMaterial& m = securityMaterial();
  const std::vector<RfcCase> cases = {
      detachedFromCompact("RFC 7515 A.2 (RS256)", publicKey(nullptr, kA2Modulus, "AQAB"),
                          std::string("eyJhbGciOiJSUzI1NiJ9.") + kA2A3Payload + "." + kA2Signature),
      detachedFromCompact(
          "RFC 7515 A.3 (ES256)",
          publicKey("P-256", "f83OJ3D2xF1Bg8vub9tLe1gHMzV76e8Tus9uPHvRVEU", "x_FEzRu9m36HLN_tue659LNpXW6pCyStikYjKIWI5a0"),
          std::string("eyJhbGciOiJFUzI1NiJ9.") + kA2A3Payload + "." + kA3Signature),
      detachedFromCompact("RFC 7515 A.4 (ES512)", publicKey("P-521", kA4PointX, kA4PointY), kA4Compact),
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
