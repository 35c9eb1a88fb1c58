// A whole auto-discovery (query, certificate fetch, verification, delivery on the main queue) against
// the floor of the same work done bare: the same two GETs on a kept-alive connection to the same local
// emulator, one after the other as the flow makes them, and one check of the answer's signature with
// the key of the certificate just fetched. The floor parses that certificate only when its bytes
// differ from the last one it parsed: decoding a certificate costs OpenSSL 3.0 several signature
// checks, and a bare client need not repeat it for the same bytes. Time and CPU (every thread of the
// process) are each reported against the floor's.
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <boost/json.hpp>

#include <condition_variable>
#include <mutex>

#include "BenchFloor.h"
#include "EmulatorHarness.h"
#include "OrvEmulatorCrypto.h"
#include "OrvMainQueue.h"
#include "OrvSDKStringUtils.h"

namespace {

// ES256 on the emulator's side: an RSA signature costs the server ~0.7 ms per answer, which would
// hide the client's own costs. The client then verifies ES256, the slower of the two to verify.
orv::test::EmulatorHarness& harness() {
  static auto* instance = [] {
    orv::test::HarnessOptions options;
    options.algorithm = "ES256";
    return new orv::test::EmulatorHarness(options);
  }();
  return *instance;
}

struct Answer {
  std::string body;
  std::string signature;
};

// One GET over the harness's session, waited for.
Answer getOnce(OrvURLSession& session, const OrvURL& url) {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  Answer answer;
  auto task = session.dataTaskWithRequest(OrvURLRequest(url), [&](auto data, auto response, auto) {
    std::lock_guard lock(mutex);
    answer.body = data.value_or("");
    if (response) answer.signature = response->valueForHTTPHeaderField("Varnel-Signature").value_or("");
    finished = true;
    done.notify_one();
  });
  task->resume();
  std::unique_lock lock(mutex);
  done.wait(lock, [&] { return finished; });
  return answer;
}

// The key of the certificate in {"certificate": "<PEM>"}; parsed again only when the PEM changes.
EVP_PKEY* keyOf(const Answer& publicKey) {
  static std::string parsedPEM;
  static EVP_PKEY* key = nullptr;
  const auto certificate = boost::json::parse(publicKey.body).as_object().at("certificate").as_string();
  if (key && parsedPEM == certificate) return key;
  BIO* bio = BIO_new_mem_buf(certificate.data(), int(certificate.size()));
  X509* x509 = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  EVP_PKEY_free(key);
  key = x509 ? X509_get_pubkey(x509) : nullptr;
  X509_free(x509);
  parsedPEM = certificate;
  return key;
}

// The bare check: ES256 over base64url(header) "." base64url(body) with the fetched certificate's key.
bool verifyBare(const Answer& answer, const Answer& publicKey) {
  EVP_PKEY* key = keyOf(publicKey);

  const auto dot = answer.signature.find('.');
  const std::string raw = OrvBase64URLDecode(std::string_view(answer.signature).substr(dot + 1)).value_or("");
  const std::string signingInput = answer.signature.substr(0, dot) + "." + orv::emulator::base64UrlEncode(answer.body);
  // JWS carries r||s; OpenSSL wants DER.
  ECDSA_SIG* signature = ECDSA_SIG_new();
  ECDSA_SIG_set0(signature, BN_bin2bn(reinterpret_cast<const unsigned char*>(raw.data()), 32, nullptr),
                 BN_bin2bn(reinterpret_cast<const unsigned char*>(raw.data()) + 32, 32, nullptr));
  unsigned char* der = nullptr;
  const int derLength = i2d_ECDSA_SIG(signature, &der);
  ECDSA_SIG_free(signature);

  EVP_MD_CTX* context = EVP_MD_CTX_new();
  const bool ok = key && EVP_DigestVerifyInit_ex(context, nullptr, "SHA256", nullptr, nullptr, key, nullptr) == 1 &&
                  EVP_DigestVerify(context, der, std::size_t(derLength),
                                   reinterpret_cast<const unsigned char*>(signingInput.data()), signingInput.size()) == 1;
  EVP_MD_CTX_free(context);
  OPENSSL_free(der);
  return ok;
}

orv::bench::FloorCost discoveryFloor() {
  auto& h = harness();
  const auto query = *OrvURL::URLWithString(h.emulator().baseURL() + "/ads/root/domain/example.com/");
  const auto publicKey = *OrvURL::URLWithString(h.emulator().baseURL() + "/ads/root/publickey");
  const auto flow = [&] {
    const Answer answer = getOnce(*h.session, query);
    if (!verifyBare(answer, getOnce(*h.session, publicKey))) std::abort();
  };
  flow();  // opens the connection, and proves the floor checks what the flow checks
  return orv::bench::measureFloorCost(flow, 11, 20);
}

void BM_AutoDiscoveryRoundTrip(benchmark::State& state) {
  auto& h = harness();
  static const orv::bench::FloorCost floor = discoveryFloor();
  orv::bench::FloorRatio ratio(state, floor);
  for (auto _ : state) {
    bool done = false;
    h.service->asyncStartAutodiscoveryForUserInput("user@example.com", 0, [&](auto status, auto, auto) {
      if (status != 0) state.SkipWithError("auto-discovery failed");
      done = true;
    });
    OrvMainQueue::runUntil([&] { return done; }, std::chrono::seconds(30));
  }
}
BENCHMARK(BM_AutoDiscoveryRoundTrip)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

}  // namespace
