// Verifying one signed answer against the floor of a bare RSA signature check with the same key.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

#include "BenchFloor.h"
#include "OrvEmulatorCrypto.h"
#include "OrvSecurityUtilsService.h"

namespace {

struct Material {
  Material() {
    using namespace orv::emulator;
    auto key = PrivateKey::generate(KeyKind::rsa2048);
    CertificateProfile profile;
    profile.organization = "Varnel Systems, Inc.";
    profile.commonName = "Varnel Systems, Inc.";
    profile.notBefore = std::chrono::system_clock::now() - std::chrono::hours(1);
    profile.notAfter = std::chrono::system_clock::now() + std::chrono::hours(1);
    pem = *issueCertificate(profile, *key, nullptr, *key);
    certificate = OrvCertificate::certificateWithContent(pem);
    payload = R"({"domain":{"name":"example.com"},"kaleth":{"serviceUrls":[{"url":"https://store.example.com/Store"}]}})";
    const auto jws = *signDetachedJws(*key, "RS256", R"({"alg":"RS256","typ":"JWT"})", payload);
    header = jws.substr(0, jws.find('.'));
    signature = jws.substr(jws.find('.') + 1);
    signingInput = header + "." + base64UrlEncode(payload);
    rawSignature = *signRaw(*key, "RS256", signingInput);
  }
  std::string pem, payload, header, signature, signingInput, rawSignature;
  OrvCertificateRef certificate;
};

const Material& material() {
  static const Material instance;
  return instance;
}

struct PkeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
struct X509Deleter {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

// The floor: an RS256 check of the same signing input with an already-parsed key, nothing else.
double rsaVerifyFloor() {
  const auto& m = material();
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new_mem_buf(m.pem.data(), static_cast<int>(m.pem.size())));
  std::unique_ptr<X509, X509Deleter> x509(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  std::unique_ptr<EVP_PKEY, PkeyDeleter> key(X509_get_pubkey(x509.get()));
  return orv::bench::measureFloor([&] {
    std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> context(EVP_MD_CTX_new());
    EVP_DigestVerifyInit_ex(context.get(), nullptr, "SHA256", nullptr, nullptr, key.get(), nullptr);
    const int ok =
        EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(m.rawSignature.data()), m.rawSignature.size(),
                         reinterpret_cast<const unsigned char*>(m.signingInput.data()), m.signingInput.size());
    benchmark::DoNotOptimize(ok);
  });
}

void BM_VerifyDetachedJws(benchmark::State& state) {
  const auto& m = material();
  static const double floor = rsaVerifyFloor();
  auto service = OrvSecurityUtilsService::create();
  AdditionalCertificateValidationOptions options;
  options.setRequiredIssuerName("Varnel Systems, Inc.");
  orv::bench::FloorRatio ratio(state, floor);
  for (auto _ : state) {
    auto result = service->validateJWT(m.payload, m.header, m.signature, m.certificate, &options);
    if (result.result != 0) state.SkipWithError("verification failed");
    benchmark::DoNotOptimize(result);
  }
}
BENCHMARK(BM_VerifyDetachedJws);

void BM_ParseCertificate(benchmark::State& state) {
  const auto& m = material();
  static const double floor = rsaVerifyFloor();
  orv::bench::FloorRatio ratio(state, floor);
  for (auto _ : state) benchmark::DoNotOptimize(OrvCertificate::certificateWithContent(m.pem));
}
BENCHMARK(BM_ParseCertificate);

}  // namespace
