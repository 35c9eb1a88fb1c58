#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "EmulatorHarness.h"
#include "OrvOpenSSLHandles.h"
#include "OrvSDKStringUtils.h"
#include "SecurityTestMaterial.h"
#include "TestSupport.h"

namespace orv::test {
namespace {

using namespace std::chrono_literals;

std::string header(std::string_view algorithm) { return R"({"alg":")" + std::string(algorithm) + R"("})"; }

std::string derFromRaw(std::string_view raw) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(raw.data());
  const int half = static_cast<int>(raw.size() / 2);
  detail::EcdsaSigPtr signature(ECDSA_SIG_new());
  ECDSA_SIG_set0(signature.get(), BN_bin2bn(bytes, half, nullptr), BN_bin2bn(bytes + half, half, nullptr));
  unsigned char* der = nullptr;
  const int length = i2d_ECDSA_SIG(signature.get(), &der);
  detail::OpenSSLBytesPtr owner(der);
  return std::string(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
}

DetachedJws withSignature(const DetachedJws& jws, std::string_view rawSignature) {
  return {jws.header, emulator::base64UrlEncode(rawSignature)};
}

// A certificate for a fresh 1024-bit RSA key, which no signature may be trusted with.
std::pair<emulator::PrivateKey, OrvCertificateRef> weakRSA(const SecurityMaterial& m) {
  detail::EvpPkeyPtr weak(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(1024)));
  detail::BioPtr bio = detail::newMemoryBio();
  PEM_write_bio_PrivateKey(bio.get(), weak.get(), nullptr, nullptr, 0, nullptr, nullptr);  // else fromPEM finds no key
  auto key = emulator::PrivateKey::fromPEM(detail::bioContents(bio.get())).value();
  auto certificate = SecurityMaterial::issue(m.leaf(kRequiredIssuer), key);
  return {std::move(key), std::move(certificate)};
}

// One input to the verifier; the tables below group inputs by the verdict they must get.
struct Input {
  std::string what;
  DetachedJws jws;
  OrvCertificateRef certificate;
  std::optional<std::string> issuer = kRequiredIssuer;
  std::string payload = std::string(kPayload);
};

class SecurityUtilsServiceTest : public ::testing::Test {
 protected:
  const SecurityMaterial& m = securityMaterial();
  std::shared_ptr<OrvSecurityUtilsService> service = serviceAt(m.now);
  std::shared_ptr<OrvSecurityUtilsService> anchored = serviceAt(m.now, true);
  // "typ" makes both pieces' lengths leave room for base64 padding.
  const DetachedJws rs256 = signJws(m.rsaKey, "RS256", R"({"alg":"RS256","typ":"JOSE"})");

  void expectVerdict(std::int64_t expected, const std::vector<Input>& inputs) {
    for (const auto& input : inputs) {
      SCOPED_TRACE(input.what);
      EXPECT_EQ(verifyResult(*service, input.jws, input.certificate, input.payload, input.issuer), expected);
    }
  }
};

TEST_F(SecurityUtilsServiceTest, AcceptsEveryAlgorithmWithAndWithoutTrustAnchors) {
  const std::tuple<const char*, const emulator::PrivateKey&, OrvCertificateRef> cases[] = {
      {"RS256", m.rsaKey, m.rsaLeaf},         {"RS384", m.rsaKey, m.rsaLeaf},   {"RS512", m.rsaKey, m.rsaLeaf},
      {"PS256", m.rsaKey, m.rsaLeaf},         {"PS384", m.rsaKey, m.rsaLeaf},   {"PS512", m.rsaKey, m.rsaLeaf},
      {"ES256", m.p256Key, m.p256Leaf},       {"ES384", m.p384Key, m.p384Leaf}, {"ES512", m.p521Key, m.p521Leaf},
      {"EdDSA", m.ed25519Key, m.ed25519Leaf},
  };
  for (const auto& [algorithm, key, certificate] : cases) {
    SCOPED_TRACE(algorithm);
    const auto jws = signJws(key, algorithm, header(algorithm));
    EXPECT_EQ(verifyResult(*service, jws, certificate), OrvSecurityUtilsResultSuccess);
    EXPECT_EQ(verifyResult(*anchored, jws, certificate), OrvSecurityUtilsResultSuccess);
  }
  // A certificate authority never signs answers itself, not even a configured anchor.
  const auto byRoot = signJws(m.rootKey, "ES256", header("ES256"), "");
  EXPECT_EQ(verifyResult(*anchored, byRoot, m.root, ""), OrvSecurityUtilsResultCertificateIsAuthority);
  EXPECT_EQ(verifyResult(*anchored, signJws(m.p256Key, "ES256", header("ES256"), ""), m.p256Leaf, ""),
            OrvSecurityUtilsResultSuccess)
      << "an empty payload is still a payload";
}

TEST_F(SecurityUtilsServiceTest, RefusesHeadersAndEncodingsItCannotReadOneWay) {
  for (const char* algorithm :
       {"none", "None", "NONE", "nOnE", "HS256", "HS384", "HS512", "hs256", "RS1", "rs256", "ES256K", "Ed25519", ""}) {
    SCOPED_TRACE(algorithm);
    EXPECT_EQ(verifyResult(*service, forgedJws(header(algorithm), ""), m.rsaLeaf), OrvSecurityUtilsResultUnsupportedAlgorithm);
  }
  for (const char* json : {"[]", R"(["alg","RS256"])", R"("RS256")", "1", "null", R"({"alg":)", "", "{}", R"({"alg":256})",
                           R"({"alg":"RS256","alg":"RS256"})", R"({"alg":"RS256","crit":[]})",
                           R"({"alg":"RS256","crit":"b64","b64":false})", R"({"alg":"RS256","crit":["b64",1],"b64":false})",
                           R"({"alg":"RS256","crit":["b64"]})", R"({"alg":"RS256","crit":["b64","b64"],"b64":false})",
                           R"({"alg":"RS256","b64":"false"})", R"({"alg":"RS256","x5t#S256":1})"}) {
    SCOPED_TRACE(json);
    EXPECT_EQ(verifyResult(*service, forgedJws(json, "sig"), m.rsaLeaf), OrvSecurityUtilsResultInvalidHeader);
  }
  const auto padded = [](const std::string& text) { return text + std::string(4 - text.size() % 4, '='); };
  constexpr const char* critical = R"({"alg":"ES256","b64":false,"crit":["b64"]})";
  expectVerdict(OrvSecurityUtilsResultMalformedEncoding,
                {{"padded header", {padded(*rs256.header), rs256.signature}, m.rsaLeaf},
                 {"padded signature", {rs256.header, padded(*rs256.signature)}, m.rsaLeaf}});
  expectVerdict(OrvSecurityUtilsResultUnknownCritical,
                {{"crit names exp", signJws(m.rsaKey, "RS256", R"({"alg":"RS256","crit":["exp"],"exp":1})"), m.rsaLeaf},
                 {"crit names alg", signJws(m.rsaKey, "RS256", R"({"alg":"RS256","crit":["alg"]})"), m.rsaLeaf},
                 {"crit names kid", signJws(m.rsaKey, "RS256", R"({"alg":"RS256","crit":["b64","kid"],"b64":true,"kid":"k"})"),
                  m.rsaLeaf}});
  // "b64" only as a critical parameter: without "crit" verifiers could disagree on what was signed.
  expectVerdict(
      OrvSecurityUtilsResultSuccess,
      {{"b64 false, critical", signJws(m.p256Key, "ES256", critical, kPayload, true), m.p256Leaf},
       {"b64 true, critical", signJws(m.p256Key, "ES256", R"({"alg":"ES256","b64":true,"crit":["b64"]})"), m.p256Leaf}});
  expectVerdict(OrvSecurityUtilsResultSignatureMismatch, {{"b64 false, critical, encoded input signed",
                                                           signJws(m.p256Key, "ES256", critical, kPayload, false), m.p256Leaf}});
  expectVerdict(
      OrvSecurityUtilsResultUncriticalUnencodedPayload,
      {{"b64 false, not critical", signJws(m.p256Key, "ES256", R"({"alg":"ES256","b64":false})", kPayload, true), m.p256Leaf}});
  expectVerdict(OrvSecurityUtilsResultMissingInput, {{"no header", {std::nullopt, rs256.signature}, m.rsaLeaf},
                                                     {"no signature", {rs256.header, std::nullopt}, m.rsaLeaf},
                                                     {"no certificate", rs256, nullptr}});
  EXPECT_EQ(OrvSecurityUtilsResultDescription(-1), "Unknown OrvSecurityUtilsResult of -1");
}

// A header read once is kept by its exact bytes: every later check still runs, in its order, and a
// header that differs in a single byte is read afresh.
TEST_F(SecurityUtilsServiceTest, AHeaderReadBeforeStillMeetsEveryCheck) {
  const auto padded = std::string(*rs256.signature) + std::string(4 - rs256.signature->size() % 4, '=');
  expectVerdict(OrvSecurityUtilsResultSuccess, {{"read", rs256, m.rsaLeaf}, {"kept", rs256, m.rsaLeaf}});
  expectVerdict(OrvSecurityUtilsResultMalformedEncoding, {{"kept header, padded signature", {rs256.header, padded}, m.rsaLeaf}});
  expectVerdict(OrvSecurityUtilsResultAlgorithmKeyMismatch, {{"kept header, EC certificate", rs256, m.p256Leaf}});
  // The same length as the kept header, one letter apart.
  expectVerdict(OrvSecurityUtilsResultUnsupportedAlgorithm,
                {{"HS256 after RS256", forgedJws(R"({"alg":"HS256","typ":"JOSE"})", "sig"), m.rsaLeaf}});
  expectVerdict(
      OrvSecurityUtilsResultSignatureMismatch,
      {{"PS256 after RS256", {emulator::base64UrlEncode(R"({"alg":"PS256","typ":"JOSE"})"), rs256.signature}, m.rsaLeaf}});
}

TEST_F(SecurityUtilsServiceTest, RefusesKeysAndSignaturesThatDoNotFit) {
  const auto rsaSignature = *emulator::signRaw(m.rsaKey, "RS256", "x");
  const auto es256 = signJws(m.p256Key, "ES256", header("ES256"));
  const auto esRaw = *OrvBase64URLDecode(*es256.signature);
  const auto ed = signJws(m.ed25519Key, "EdDSA", header("EdDSA"));
  const auto ps256 = signJws(m.rsaKey, "PS256", header("PS256"));
  const auto [weakKey, weakCertificate] = weakRSA(m);
  const auto thumbprint = [&](const OrvCertificateRef& named, std::string suffix = "") {
    const auto value = emulator::base64UrlEncode(named->sha256Thumbprint()) + suffix;
    return signJws(m.rsaKey, "RS256", R"({"alg":"RS256","x5t#S256":")" + value + R"("})");
  };
  expectVerdict(OrvSecurityUtilsResultAlgorithmKeyMismatch,
                {{"RS256 on a P-256 key", forgedJws(header("RS256"), rsaSignature), m.p256Leaf},
                 {"PS256 on an Ed25519 key", forgedJws(header("PS256"), rsaSignature), m.ed25519Leaf},
                 {"EdDSA on an RSA key", forgedJws(header("EdDSA"), std::string(64, 'x')), m.rsaLeaf},
                 // The curve counts, not only the key type.
                 {"ES256 on a P-384 key", signJws(m.p384Key, "ES384", header("ES256")), m.p384Leaf}});
  expectVerdict(OrvSecurityUtilsResultKeyTooWeak,
                {{"RSA key of 1024 bits", signJws(weakKey, "RS256", header("RS256")), weakCertificate}});
  // ECDSA and EdDSA signatures have exactly one length.
  expectVerdict(OrvSecurityUtilsResultMalformedSignature,
                {{"ES256 as DER", withSignature(es256, derFromRaw(esRaw)), m.p256Leaf},
                 {"ES256 one byte long", withSignature(es256, esRaw + '\0'), m.p256Leaf},
                 {"ES256 one byte short", withSignature(es256, esRaw.substr(1)), m.p256Leaf},
                 {"ES256 empty", withSignature(es256, ""), m.p256Leaf},
                 {"EdDSA one byte short", withSignature(ed, OrvBase64URLDecode(*ed.signature)->substr(1)), m.ed25519Leaf}});
  expectVerdict(OrvSecurityUtilsResultThumbprintMismatch, {{"thumbprint of another", thumbprint(m.noKeyUsage), m.rsaLeaf}});
  expectVerdict(OrvSecurityUtilsResultMalformedEncoding, {{"padded thumbprint", thumbprint(m.rsaLeaf, "="), m.rsaLeaf}});
  // Altered signatures, and PKCS#1 v1.5 under a PSS name, are the published vectors' to refuse.
  expectVerdict(OrvSecurityUtilsResultSignatureMismatch,
                {{"payload extended", ps256, m.rsaLeaf, kRequiredIssuer, std::string(kPayload) + " "},
                 {"signed by another key", signJws(m.rsaOtherKey, "PS256", header("PS256")), m.rsaLeaf},
                 {"header changed after signing",
                  {emulator::base64UrlEncode(R"({"alg":"PS256","kid":"x"})"), ps256.signature},
                  m.rsaLeaf}});
}

TEST_F(SecurityUtilsServiceTest, JudgesTheCertificateItIsGiven) {
  // An issuer named by its organisation, a certificate without key usage and one judged without anchors
  // pass in AcceptsEveryAlgorithmWithAndWithoutTrustAnchors, the published vectors' certificate and the
  // default-anchor test.
  expectVerdict(OrvSecurityUtilsResultSuccess, {{"issuer's common name is the required name", rs256, m.issuerByCommonName},
                                                // No required name: the issuer is not looked at.
                                                {"no required name", rs256, m.issuerPrefix, std::nullopt}});
  expectVerdict(OrvSecurityUtilsResultIssuerMismatch,
                {{"issuer name is a prefix", rs256, m.issuerPrefix},
                 {"issuer name in other case", rs256, m.issuerOtherCase},
                 {"required name with a space", rs256, m.selfSigned, "Varnel Systems, Inc. "},
                 {"required name is a prefix", rs256, m.selfSigned, "Varnel Systems"},
                 // The leaf's own organisation is not its issuer's.
                 {"required name is the subject's", rs256, m.rsaLeaf, "Varnel Signing"}});
  expectVerdict(OrvSecurityUtilsResultKeyUsageForbidsSignature, {{"no digitalSignature", rs256, m.noDigitalSignature}});
  // One organisation could satisfy the name check while the issuer means the other.
  expectVerdict(OrvSecurityUtilsResultAmbiguousIssuer, {{"two issuer organisations", rs256, m.twoIssuerOrganizations}});
  EXPECT_EQ(service->validateJWT(kPayload, rs256.header, rs256.signature, m.issuerPrefix, nullptr).result,
            OrvSecurityUtilsResultSuccess);
}

TEST_F(SecurityUtilsServiceTest, ValidityPeriodIncludesBothEnds) {
  const auto at = [&](OrvDate now) { return verifyResult(*serviceAt(now, true), rs256, m.rsaLeaf); };
  EXPECT_EQ(at(m.leafNotBefore), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(at(m.leafNotAfter), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(at(m.leafNotBefore - 1ms), OrvSecurityUtilsResultCertificateNotYetValid);
  EXPECT_EQ(at(m.leafNotAfter + 1ms), OrvSecurityUtilsResultCertificateExpired);

  // One anchored service whose clock moves: a chain it has already built does not carry a verdict past
  // the period in which it was good.
  OrvDate now = m.leafNotAfter;
  const auto moving = serviceWith([&now] { return now; }, {m.root});
  EXPECT_EQ(verifyResult(*moving, rs256, m.rsaLeaf), OrvSecurityUtilsResultSuccess);
  now = m.leafNotAfter + 1ms;
  EXPECT_EQ(verifyResult(*moving, rs256, m.rsaLeaf), OrvSecurityUtilsResultCertificateExpired);
}

TEST_F(SecurityUtilsServiceTest, TrustAnchorsRefuseCertificatesThatOnlyCarryTheRightName) {
  // Self-signed under the required name. A leaf of another CA of that name is the last check here, with
  // the anchors the other way round.
  EXPECT_EQ(verifyResult(*anchored, rs256, m.selfSigned), OrvSecurityUtilsResultUntrustedChain);
  const auto clock = [now = m.now] { return now; };
  const auto expiredAnchor = serviceWith(clock, {nullptr, m.expiredRoot});
  EXPECT_EQ(expiredAnchor->trustAnchorCount(), 1u);
  EXPECT_EQ(verifyResult(*expiredAnchor, rs256, m.leafOfExpiredRoot), OrvSecurityUtilsResultUntrustedChain);
  EXPECT_EQ(verifyResult(*serviceWith(clock, {nullptr}), rs256, m.rsaLeaf), OrvSecurityUtilsResultUntrustedChain);
  // Verified chains are kept for the whole process, but only for services that trust the same anchors.
  ASSERT_EQ(verifyResult(*anchored, rs256, m.rsaLeaf), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(verifyResult(*serviceWith(clock, {m.otherRoot}), rs256, m.rsaLeaf), OrvSecurityUtilsResultUntrustedChain);
}

TEST_F(SecurityUtilsServiceTest, DefaultTrustAnchorsComeFromTheHostTheEnvironmentOrNowhere) {
  const auto withDefaults = [&](bool useDefaults = true) { return serviceWith([now = m.now] { return now; }, {}, useDefaults); };
  const TemporaryDirectory files;
  // Comments may stand between a bundle's blocks; a block cut short spoils the whole bundle.
  writeFile(files.file("roots.pem"), "# roots\n" + m.root->pemString() + "comment between\n" + m.expiredRoot->pemString());
  writeFile(files.file("garbage.pem"), m.root->pemString() + "-----BEGIN CERTIFICATE-----\nAAAA");

  EXPECT_EQ(OrvSecurityUtilsService::defaultTrustAnchors().origin, "none");
  EXPECT_EQ(verifyResult(*withDefaults(), rs256, m.leafOfOtherRoot), OrvSecurityUtilsResultSuccess);

  ::setenv("ORV_APPCONFIG_TRUST_ANCHORS", files.file("roots.pem").c_str(), 1);
  const auto bundle = OrvSecurityUtilsService::defaultTrustAnchors().anchors.value_or(std::vector<OrvCertificateRef>{});
  ASSERT_EQ(bundle.size(), 2u);
  EXPECT_EQ(bundle[1]->derData(), m.expiredRoot->derData());
  EXPECT_EQ(verifyResult(*withDefaults(), rs256, m.rsaLeaf), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(verifyResult(*withDefaults(), rs256, m.leafOfOtherRoot), OrvSecurityUtilsResultUntrustedChain);
  EXPECT_EQ(verifyResult(*withDefaults(false), rs256, m.leafOfOtherRoot), OrvSecurityUtilsResultSuccess);

  // A bundle that cannot be read, or is not there, trusts nothing, and says so, rather than falling back
  // to trusting names.
  for (const std::string& unreadable : {files.file("garbage.pem"), files.file("missing.pem")}) {
    ::setenv("ORV_APPCONFIG_TRUST_ANCHORS", unreadable.c_str(), 1);
    const auto broken = OrvSecurityUtilsService::defaultTrustAnchors();
    ASSERT_TRUE(broken.anchors && broken.problem);
    EXPECT_NE(broken.problem->find(unreadable), std::string::npos);
    EXPECT_EQ(verifyResult(*withDefaults(), rs256, m.rsaLeaf), OrvSecurityUtilsResultUntrustedChain);
  }

  // The host's list wins over the environment until it is taken back.
  OrvSecurityUtilsService::setDefaultTrustAnchors(std::vector<OrvCertificateRef>{m.otherRoot});
  EXPECT_EQ(OrvSecurityUtilsService::defaultTrustAnchors().origin, "host");
  EXPECT_EQ(verifyResult(*withDefaults(), rs256, m.leafOfOtherRoot), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(verifyResult(*withDefaults(), rs256, m.rsaLeaf), OrvSecurityUtilsResultUntrustedChain);
  OrvSecurityUtilsService::setDefaultTrustAnchors(std::nullopt);
  ::unsetenv("ORV_APPCONFIG_TRUST_ANCHORS");
  EXPECT_EQ(OrvSecurityUtilsService::defaultTrustAnchors().anchors, std::nullopt);
}

// Callers on several threads share one certificate; the service is gone before the last verifications
// complete. Each completion comes once, on a worker thread, with its own verdict.
TEST_F(SecurityUtilsServiceTest, ParallelVerificationsCompleteOnWorkersEvenAfterTheServiceIsGone) {
  const std::pair<DetachedJws, OrvCertificateRef> signatures[] = {
      {signJws(m.rsaKey, "PS256", header("PS256")), m.rsaLeaf},
      {signJws(m.p256Key, "ES256", header("ES256")), m.p256Leaf},
      {signJws(m.ed25519Key, "EdDSA", header("EdDSA")), m.ed25519Leaf}};
  constexpr int kCallers = 4, kPerCaller = 48, kTotal = kCallers * kPerCaller;
  auto options = std::make_shared<AdditionalCertificateValidationOptions>();
  options->setRequiredIssuerName(kRequiredIssuer);
  // Per tag: verdict, whether an error came, whether it ran on the calling thread, and how often. Shared
  // with the blocks, which may outlive a failed wait.
  struct Log {
    std::mutex mutex;
    std::vector<std::tuple<std::int64_t, bool, bool, int>> byTag = decltype(byTag)(kTotal);
    std::atomic<int> count{0};
  };
  auto log = std::make_shared<Log>();
  auto transient = serviceAt(m.now, true);
  std::vector<std::thread> callers;
  for (int caller = 0; caller < kCallers; ++caller) {
    callers.emplace_back([&, caller] {
      for (int i = 0, tag = caller * kPerCaller; i < kPerCaller; ++i, ++tag) {
        const auto& [jws, certificate] = signatures[(caller + i) % 3];
        transient->asyncValidateJWTWithJwtPayload(
            i % 4 == 0 ? "tampered" : std::string(kPayload), jws.header, jws.signature, certificate, options,
            [log, tag, self = std::this_thread::get_id()](auto result, auto error) {
              std::lock_guard lock(log->mutex);
              auto& [verdict, hasError, onCaller, calls] = log->byTag[tag];
              std::tie(verdict, hasError, onCaller) = std::tuple(result, error.has_value(), std::this_thread::get_id() == self);
              ++calls;
              ++log->count;
            });
      }
    });
  }
  for (auto& thread : callers) thread.join();
  transient->asyncValidateJWTWithJwtPayload(std::string(kPayload), rs256.header, rs256.signature, m.rsaLeaf, options, {});
  transient.reset();
  EXPECT_TRUE(pollUntil([&] { return log->count >= kTotal; }, 120s));
  std::lock_guard lock(log->mutex);
  for (int tag = 0; tag < kTotal; ++tag) {
    const bool tampered = tag % kPerCaller % 4 == 0;
    EXPECT_EQ(log->byTag[tag],
              std::tuple(tampered ? OrvSecurityUtilsResultSignatureMismatch : OrvSecurityUtilsResultSuccess, tampered, false, 1))
        << tag;
  }
}

}  // namespace
}  // namespace orv::test
