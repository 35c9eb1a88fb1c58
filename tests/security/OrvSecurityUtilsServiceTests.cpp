#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <atomic>
#include <cstdlib>
#include <map>
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

constexpr const char* kRS256Header = R"({"alg":"RS256","typ":"JOSE"})";

std::string header(std::string_view algorithm) { return R"({"alg":")" + std::string(algorithm) + R"("})"; }

// Sets the unused low bits of the last base64url character, which a strict decoder must refuse.
std::string nonCanonical(std::string text) {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  text.back() = alphabet[alphabet.find(text.back()) + 1];
  return text;
}

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

// Completions from whichever threads deliver them; shared with the blocks, which may outlive a failed wait.
struct CompletionLog {
  struct Completion {
    std::int64_t result;
    bool hasError;
    std::thread::id thread;
  };
  std::mutex mutex;
  std::map<int, Completion> byTag;
  std::atomic<std::size_t> count{0};

  static OrvJWTValidationCompletionBlock recorder(const std::shared_ptr<CompletionLog>& log, int tag) {
    return [log, tag](std::int64_t result, std::optional<OrvError> error) {
      std::lock_guard lock(log->mutex);
      log->byTag.insert_or_assign(tag, Completion{result, error.has_value(), std::this_thread::get_id()});
      ++log->count;
    };
  }
  // Exactly count completions, each delivered once.
  std::map<int, Completion> waitForCount(std::size_t expected) {
    EXPECT_TRUE(pollUntil([&] { return count >= expected; }, 120s));
    std::lock_guard lock(mutex);
    EXPECT_EQ(count, expected);
    EXPECT_EQ(byTag.size(), expected);
    return byTag;
  }
};

std::shared_ptr<const AdditionalCertificateValidationOptions> issuerOptions() {
  auto options = std::make_shared<AdditionalCertificateValidationOptions>();
  options->setRequiredIssuerName(kRequiredIssuer);
  return options;
}

class SecurityUtilsServiceTest : public ::testing::Test {
 protected:
  const SecurityMaterial& m = securityMaterial();
  std::shared_ptr<OrvSecurityUtilsService> service = serviceAt(m.now);
  std::shared_ptr<OrvSecurityUtilsService> anchored = serviceAt(m.now, true);

  std::int64_t check(const DetachedJws& jws, const OrvCertificateRef& certificate, std::string_view payload = kPayload,
                     std::optional<std::string> issuer = kRequiredIssuer) {
    return verifyResult(*service, jws, certificate, payload, std::move(issuer));
  }
};

TEST_F(SecurityUtilsServiceTest, AcceptsEveryAlgorithmWithAndWithoutTrustAnchors) {
  struct Case {
    const char* algorithm;
    const emulator::PrivateKey& key;
    OrvCertificateRef certificate;
  };
  const Case cases[] = {
      {"RS256", m.rsaKey, m.rsaLeaf},         {"RS384", m.rsaKey, m.rsaLeaf},   {"RS512", m.rsaKey, m.rsaLeaf},
      {"PS256", m.rsaKey, m.rsaLeaf},         {"PS384", m.rsaKey, m.rsaLeaf},   {"PS512", m.rsaKey, m.rsaLeaf},
      {"ES256", m.p256Key, m.p256Leaf},       {"ES384", m.p384Key, m.p384Leaf}, {"ES512", m.p521Key, m.p521Leaf},
      {"EdDSA", m.ed25519Key, m.ed25519Leaf},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.algorithm);
    const auto jws = signJws(c.key, c.algorithm, header(c.algorithm));
    ASSERT_TRUE(jws.header && jws.signature);
    EXPECT_EQ(check(jws, c.certificate), OrvSecurityUtilsResultSuccess);
    EXPECT_EQ(verifyResult(*anchored, jws, c.certificate), OrvSecurityUtilsResultSuccess);
  }
  // A certificate authority never signs answers itself, not even a configured anchor.
  const auto byRoot = signJws(m.rootKey, "ES256", header("ES256"), "");
  EXPECT_EQ(verifyResult(*anchored, byRoot, m.root, ""), OrvSecurityUtilsResultCertificateIsAuthority);
  EXPECT_EQ(verifyResult(*anchored, signJws(m.p256Key, "ES256", header("ES256"), ""), m.p256Leaf, ""),
            OrvSecurityUtilsResultSuccess)
      << "an empty payload is still a payload";
}

TEST_F(SecurityUtilsServiceTest, RefusesAlgorithmsThatAreNotAsymmetricSignatures) {
  for (const char* algorithm :
       {"none", "None", "NONE", "nOnE", "HS256", "HS384", "HS512", "hs256", "RS1", "rs256", "ES256K", "Ed25519", ""}) {
    SCOPED_TRACE(algorithm);
    EXPECT_EQ(check(forgedJws(header(algorithm), ""), m.rsaLeaf), OrvSecurityUtilsResultUnsupportedAlgorithm);
  }
}

TEST_F(SecurityUtilsServiceTest, RefusesAnAlgorithmThatDoesNotFitTheKey) {
  const auto rsaSignature = *emulator::signRaw(m.rsaKey, "RS256", "x");
  EXPECT_EQ(check(forgedJws(header("RS256"), rsaSignature), m.p256Leaf), OrvSecurityUtilsResultAlgorithmKeyMismatch);
  EXPECT_EQ(check(forgedJws(header("PS256"), rsaSignature), m.ed25519Leaf), OrvSecurityUtilsResultAlgorithmKeyMismatch);
  EXPECT_EQ(check(forgedJws(header("EdDSA"), std::string(64, 'x')), m.rsaLeaf), OrvSecurityUtilsResultAlgorithmKeyMismatch);
  // The curve counts, not only the key type.
  EXPECT_EQ(check(signJws(m.p384Key, "ES384", header("ES256")), m.p384Leaf), OrvSecurityUtilsResultAlgorithmKeyMismatch);
  EXPECT_EQ(check(signJws(m.p256Key, "ES256", header("ES256")), m.p384Leaf), OrvSecurityUtilsResultAlgorithmKeyMismatch);
  EXPECT_FALSE(emulator::signRaw(m.p256Key, "RS256", "x").has_value());
}

TEST_F(SecurityUtilsServiceTest, RefusesRSAKeysShorterThan2048Bits) {
  detail::EvpPkeyPtr weak(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(1024)));
  ASSERT_TRUE(weak);
  detail::BioPtr bio = detail::newMemoryBio();
  ASSERT_EQ(PEM_write_bio_PrivateKey(bio.get(), weak.get(), nullptr, nullptr, 0, nullptr, nullptr), 1);
  const auto key = emulator::PrivateKey::fromPEM(detail::bioContents(bio.get()));
  ASSERT_TRUE(key);
  emulator::CertificateProfile profile;
  profile.organization = kRequiredIssuer;
  profile.notBefore = m.leafNotBefore;
  profile.notAfter = m.leafNotAfter;
  const auto certificate = OrvCertificate::certificateWithContent(*emulator::issueCertificate(profile, *key, nullptr, *key));
  EXPECT_EQ(check(signJws(*key, "RS256", header("RS256")), certificate), OrvSecurityUtilsResultKeyTooWeak);
}

TEST_F(SecurityUtilsServiceTest, ECDSAAndEdDSASignaturesMustHaveTheExactLength) {
  const auto jws = signJws(m.p256Key, "ES256", header("ES256"));
  const auto raw = *OrvBase64URLDecode(*jws.signature);
  ASSERT_EQ(raw.size(), 64u);
  const auto withSignature = [&](std::string signature) { return DetachedJws{jws.header, emulator::base64UrlEncode(signature)}; };
  EXPECT_EQ(check(withSignature(derFromRaw(raw)), m.p256Leaf), OrvSecurityUtilsResultMalformedSignature);
  EXPECT_EQ(check(withSignature(raw + '\0'), m.p256Leaf), OrvSecurityUtilsResultMalformedSignature);
  EXPECT_EQ(check(withSignature(raw.substr(1)), m.p256Leaf), OrvSecurityUtilsResultMalformedSignature);
  EXPECT_EQ(check(withSignature(""), m.p256Leaf), OrvSecurityUtilsResultMalformedSignature);
  const auto ed = signJws(m.ed25519Key, "EdDSA", header("EdDSA"));
  const auto edRaw = *OrvBase64URLDecode(*ed.signature);
  EXPECT_EQ(check({ed.header, emulator::base64UrlEncode(edRaw.substr(1))}, m.ed25519Leaf),
            OrvSecurityUtilsResultMalformedSignature);
}

TEST_F(SecurityUtilsServiceTest, RefusesPaddedOrNonCanonicalBase64URL) {
  const auto jws = signJws(m.rsaKey, "RS256", kRS256Header);
  ASSERT_NE(jws.header->size() % 4, 0u);
  ASSERT_NE(jws.signature->size() % 4, 0u);
  ASSERT_EQ(check(jws, m.rsaLeaf), OrvSecurityUtilsResultSuccess);
  const std::string padding(4 - jws.header->size() % 4, '=');
  const std::string signaturePadding(4 - jws.signature->size() % 4, '=');
  for (const DetachedJws& bad : {
           DetachedJws{*jws.header + padding, jws.signature},
           DetachedJws{jws.header, *jws.signature + signaturePadding},
           DetachedJws{nonCanonical(*jws.header), jws.signature},
           DetachedJws{jws.header, nonCanonical(*jws.signature)},
           DetachedJws{" " + *jws.header, jws.signature},
           DetachedJws{jws.header, "+/" + *jws.signature},
       }) {
    EXPECT_EQ(check(bad, m.rsaLeaf), OrvSecurityUtilsResultMalformedEncoding);
  }
}

TEST_F(SecurityUtilsServiceTest, RefusesHeadersThatAreNotAProperJSONObject) {
  for (const char* json : {"[]", R"(["alg","RS256"])", R"("RS256")", "1", "null", R"({"alg":)", "", "{}", R"({"alg":256})",
                           R"({"alg":"RS256","alg":"RS256"})", R"({"alg":"RS256","crit":[]})",
                           R"({"alg":"RS256","crit":"b64","b64":false})", R"({"alg":"RS256","crit":["b64",1],"b64":false})",
                           R"({"alg":"RS256","crit":["b64"]})", R"({"alg":"RS256","crit":["b64","b64"],"b64":false})",
                           R"({"alg":"RS256","b64":"false"})", R"({"alg":"RS256","x5t#S256":1})"}) {
    SCOPED_TRACE(json);
    EXPECT_EQ(check(forgedJws(json, "sig"), m.rsaLeaf), OrvSecurityUtilsResultInvalidHeader);
  }
  // The duplicate must not let a later member override an earlier one.
  EXPECT_EQ(check(signJws(m.rsaKey, "RS256", R"({"alg":"none","alg":"RS256"})"), m.rsaLeaf), OrvSecurityUtilsResultInvalidHeader);
}

TEST_F(SecurityUtilsServiceTest, RefusesCriticalParametersItDoesNotUnderstand) {
  for (const char* json : {R"({"alg":"RS256","crit":["exp"],"exp":1})", R"({"alg":"RS256","crit":["alg"]})",
                           R"({"alg":"RS256","crit":["b64","kid"],"b64":true,"kid":"k"})"}) {
    SCOPED_TRACE(json);
    EXPECT_EQ(check(signJws(m.rsaKey, "RS256", json), m.rsaLeaf), OrvSecurityUtilsResultUnknownCritical);
  }
}

TEST_F(SecurityUtilsServiceTest, B64OnlyAsACriticalParameter) {
  constexpr const char* critical = R"({"alg":"ES256","b64":false,"crit":["b64"]})";
  constexpr const char* notCritical = R"({"alg":"ES256","b64":false})";
  EXPECT_EQ(check(signJws(m.p256Key, "ES256", critical, kPayload, true), m.p256Leaf), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(check(signJws(m.p256Key, "ES256", critical, kPayload, false), m.p256Leaf), OrvSecurityUtilsResultSignatureMismatch);
  // Without "crit", "b64" is refused whichever input was signed: verifiers could disagree on it.
  for (const bool unencoded : {true, false}) {
    EXPECT_EQ(check(signJws(m.p256Key, "ES256", notCritical, kPayload, unencoded), m.p256Leaf),
              OrvSecurityUtilsResultUncriticalUnencodedPayload);
  }
  // "b64": true in "crit" keeps the ordinary form.
  EXPECT_EQ(verifyResult(*service, signJws(m.p256Key, "ES256", R"({"alg":"ES256","b64":true,"crit":["b64"]})", kPayload, false),
                         m.p256Leaf),
            OrvSecurityUtilsResultSuccess);
}

TEST_F(SecurityUtilsServiceTest, ThumbprintMustNameTheCertificate) {
  const auto withThumbprint = [&](const std::string& thumbprint) {
    return signJws(m.rsaKey, "RS256", R"({"alg":"RS256","x5t#S256":")" + thumbprint + R"("})");
  };
  EXPECT_EQ(check(withThumbprint(emulator::base64UrlEncode(m.rsaLeaf->sha256Thumbprint())), m.rsaLeaf),
            OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(check(withThumbprint(emulator::base64UrlEncode(m.noKeyUsage->sha256Thumbprint())), m.rsaLeaf),
            OrvSecurityUtilsResultThumbprintMismatch);
  EXPECT_EQ(check(withThumbprint(emulator::base64UrlEncode(m.rsaLeaf->sha256Thumbprint()) + "="), m.rsaLeaf),
            OrvSecurityUtilsResultMalformedEncoding);
}

TEST_F(SecurityUtilsServiceTest, RefusesSignaturesThatDoNotMatch) {
  const auto jws = signJws(m.rsaKey, "PS256", header("PS256"));
  std::string tampered(kPayload);
  tampered[10] ^= 1;
  EXPECT_EQ(check(jws, m.rsaLeaf, tampered), OrvSecurityUtilsResultSignatureMismatch);
  EXPECT_EQ(check(jws, m.rsaLeaf, std::string(kPayload) + " "), OrvSecurityUtilsResultSignatureMismatch);
  auto signature = *OrvBase64URLDecode(*jws.signature);
  signature[0] ^= 0x80;
  EXPECT_EQ(check({jws.header, emulator::base64UrlEncode(signature)}, m.rsaLeaf), OrvSecurityUtilsResultSignatureMismatch);
  EXPECT_EQ(check(signJws(m.rsaOtherKey, "PS256", header("PS256")), m.rsaLeaf), OrvSecurityUtilsResultSignatureMismatch);
  // A PKCS#1 v1.5 signature presented as PSS, and the header changed after signing.
  EXPECT_EQ(check({emulator::base64UrlEncode(header("PS256")), signJws(m.rsaKey, "RS256", header("PS256")).signature}, m.rsaLeaf),
            OrvSecurityUtilsResultSignatureMismatch);
  EXPECT_EQ(check({emulator::base64UrlEncode(R"({"alg":"PS256","kid":"x"})"), jws.signature}, m.rsaLeaf),
            OrvSecurityUtilsResultSignatureMismatch);
}

TEST_F(SecurityUtilsServiceTest, IssuerMustCarryTheRequiredNameExactly) {
  const auto jws = signJws(m.rsaKey, "RS256", header("RS256"));
  EXPECT_EQ(check(jws, m.selfSigned), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(check(jws, m.issuerByCommonName), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(check(jws, m.issuerPrefix), OrvSecurityUtilsResultIssuerMismatch);
  EXPECT_EQ(check(jws, m.issuerOtherCase), OrvSecurityUtilsResultIssuerMismatch);
  EXPECT_EQ(check(jws, m.selfSigned, kPayload, "Varnel Systems, Inc. "), OrvSecurityUtilsResultIssuerMismatch);
  EXPECT_EQ(check(jws, m.selfSigned, kPayload, "Varnel Systems"), OrvSecurityUtilsResultIssuerMismatch);
  // The leaf's own organisation is not its issuer's.
  EXPECT_EQ(check(jws, m.rsaLeaf, kPayload, "Varnel Signing"), OrvSecurityUtilsResultIssuerMismatch);
  // No required name: the issuer is not looked at.
  EXPECT_EQ(check(jws, m.issuerPrefix, kPayload, std::nullopt), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(service->validateJWT(kPayload, jws.header, jws.signature, m.issuerPrefix, nullptr).first,
            OrvSecurityUtilsResultSuccess);
}

TEST_F(SecurityUtilsServiceTest, ValidityPeriodIncludesBothEnds) {
  const auto jws = signJws(m.rsaKey, "RS256", header("RS256"));
  const auto at = [&](OrvDate now) { return verifyResult(*serviceAt(now, true), jws, m.rsaLeaf); };
  EXPECT_EQ(at(m.leafNotBefore), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(at(m.leafNotAfter), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(at(m.leafNotBefore - 1ms), OrvSecurityUtilsResultCertificateNotYetValid);
  EXPECT_EQ(at(m.leafNotAfter + 1ms), OrvSecurityUtilsResultCertificateExpired);
  EXPECT_EQ(at(m.leafNotAfter + 1s), OrvSecurityUtilsResultCertificateExpired);
  EXPECT_EQ(m.rsaLeaf->notValidBefore(), m.leafNotBefore);
  EXPECT_EQ(m.rsaLeaf->notValidAfter(), m.leafNotAfter);

  // One anchored service whose clock moves: a chain it has already built does not carry a verdict past
  // the period in which it was good.
  OrvDate now = m.leafNotAfter;
  OrvSecurityUtilsService::Configuration configuration;
  configuration.clock = [&now] { return now; };
  configuration.trustAnchors = {m.root};
  const auto moving = OrvSecurityUtilsService::create(configuration);
  EXPECT_EQ(verifyResult(*moving, jws, m.rsaLeaf), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(verifyResult(*moving, jws, m.rsaLeaf), OrvSecurityUtilsResultSuccess);
  now = m.leafNotAfter + 1ms;
  EXPECT_EQ(verifyResult(*moving, jws, m.rsaLeaf), OrvSecurityUtilsResultCertificateExpired);
}

TEST_F(SecurityUtilsServiceTest, KeyUsageMustAllowDigitalSignature) {
  const auto jws = signJws(m.rsaKey, "RS256", header("RS256"));
  EXPECT_EQ(check(jws, m.noDigitalSignature), OrvSecurityUtilsResultKeyUsageForbidsSignature);
  EXPECT_EQ(check(jws, m.noKeyUsage), OrvSecurityUtilsResultSuccess);
}

TEST_F(SecurityUtilsServiceTest, TrustAnchorsRefuseCertificatesThatOnlyCarryTheRightName) {
  const auto jws = signJws(m.rsaKey, "RS256", header("RS256"));
  EXPECT_EQ(verifyResult(*anchored, jws, m.rsaLeaf), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(verifyResult(*anchored, jws, m.selfSigned), OrvSecurityUtilsResultUntrustedChain);
  EXPECT_EQ(verifyResult(*anchored, jws, m.leafOfOtherRoot), OrvSecurityUtilsResultUntrustedChain);
  // Without anchors the same certificates are judged on their own (the self-signed one: above).
  EXPECT_EQ(check(jws, m.leafOfOtherRoot), OrvSecurityUtilsResultSuccess);

  OrvSecurityUtilsService::Configuration configuration;
  configuration.clock = [now = m.now] { return now; };
  configuration.trustAnchors = {nullptr, m.expiredRoot};
  const auto expiredAnchor = OrvSecurityUtilsService::create(configuration);
  EXPECT_EQ(expiredAnchor->trustAnchorCount(), 1u);
  EXPECT_EQ(verifyResult(*expiredAnchor, jws, m.leafOfExpiredRoot), OrvSecurityUtilsResultUntrustedChain);
  configuration.trustAnchors = {nullptr};
  EXPECT_EQ(verifyResult(*OrvSecurityUtilsService::create(configuration), jws, m.rsaLeaf), OrvSecurityUtilsResultUntrustedChain);
}

TEST_F(SecurityUtilsServiceTest, DefaultTrustAnchorsComeFromTheHostTheEnvironmentOrNowhere) {
  const auto jws = signJws(m.rsaKey, "RS256", header("RS256"));
  const auto withDefaults = [&](bool useDefaults = true) {
    OrvSecurityUtilsService::Configuration configuration;
    configuration.clock = [now = m.now] { return now; };
    configuration.useDefaultTrustAnchors = useDefaults;
    return OrvSecurityUtilsService::create(configuration);
  };
  const TemporaryDirectory files;
  writeFile(files.file("root.pem"), m.root->pemString());
  writeFile(files.file("garbage.pem"), "not a certificate");

  EXPECT_EQ(OrvSecurityUtilsService::defaultTrustAnchors().origin, "none");
  EXPECT_EQ(verifyResult(*withDefaults(), jws, m.leafOfOtherRoot), OrvSecurityUtilsResultSuccess);

  ::setenv("ORV_APPCONFIG_TRUST_ANCHORS", files.file("root.pem").c_str(), 1);
  EXPECT_EQ(verifyResult(*withDefaults(), jws, m.rsaLeaf), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(verifyResult(*withDefaults(), jws, m.leafOfOtherRoot), OrvSecurityUtilsResultUntrustedChain);
  EXPECT_EQ(verifyResult(*withDefaults(false), jws, m.leafOfOtherRoot), OrvSecurityUtilsResultSuccess);

  // A bundle that cannot be read trusts nothing, and says so, rather than falling back to trusting names.
  ::setenv("ORV_APPCONFIG_TRUST_ANCHORS", files.file("garbage.pem").c_str(), 1);
  const auto broken = OrvSecurityUtilsService::defaultTrustAnchors();
  ASSERT_TRUE(broken.anchors && broken.problem);
  EXPECT_NE(broken.problem->find(files.file("garbage.pem")), std::string::npos);
  EXPECT_EQ(verifyResult(*withDefaults(), jws, m.rsaLeaf), OrvSecurityUtilsResultUntrustedChain);

  // The host's list wins over the environment until it is taken back.
  OrvSecurityUtilsService::setDefaultTrustAnchors(std::vector<OrvCertificateRef>{m.otherRoot});
  EXPECT_EQ(OrvSecurityUtilsService::defaultTrustAnchors().origin, "host");
  EXPECT_EQ(verifyResult(*withDefaults(), jws, m.leafOfOtherRoot), OrvSecurityUtilsResultSuccess);
  EXPECT_EQ(verifyResult(*withDefaults(), jws, m.rsaLeaf), OrvSecurityUtilsResultUntrustedChain);
  OrvSecurityUtilsService::setDefaultTrustAnchors(std::nullopt);
  ::unsetenv("ORV_APPCONFIG_TRUST_ANCHORS");
  EXPECT_EQ(OrvSecurityUtilsService::defaultTrustAnchors().anchors, std::nullopt);
}

TEST_F(SecurityUtilsServiceTest, MissingInputAndResultNames) {
  const auto jws = signJws(m.rsaKey, "RS256", header("RS256"));
  EXPECT_EQ(check({std::nullopt, jws.signature}, m.rsaLeaf), OrvSecurityUtilsResultMissingInput);
  EXPECT_EQ(check({jws.header, std::nullopt}, m.rsaLeaf), OrvSecurityUtilsResultMissingInput);
  EXPECT_EQ(check(jws, nullptr), OrvSecurityUtilsResultMissingInput);
  EXPECT_EQ(OrvSecurityUtilsResultDescription(OrvSecurityUtilsResultUntrustedChain), "OrvSecurityUtilsResultUntrustedChain");
  EXPECT_EQ(OrvSecurityUtilsResultDescription(-1), "Unknown OrvSecurityUtilsResult of -1");
}

TEST_F(SecurityUtilsServiceTest, CompletesOnAWorkerThreadEvenAfterTheServiceIsGone) {
  const auto jws = signJws(m.rsaKey, "RS256", header("RS256"));
  auto log = std::make_shared<CompletionLog>();
  auto transient = serviceAt(m.now);
  transient->asyncValidateJWTWithJwtPayload(std::string(kPayload), jws.header, jws.signature, m.rsaLeaf, issuerOptions(),
                                            CompletionLog::recorder(log, 0));
  transient->asyncValidateJWTWithJwtPayload("other", jws.header, jws.signature, m.rsaLeaf, issuerOptions(),
                                            CompletionLog::recorder(log, 1));
  transient->asyncValidateJWTWithJwtPayload(std::string(kPayload), jws.header, jws.signature, m.rsaLeaf, issuerOptions(), {});
  transient.reset();
  const auto completions = log->waitForCount(2);
  ASSERT_EQ(completions.size(), 2u);
  EXPECT_EQ(completions.at(0).result, OrvSecurityUtilsResultSuccess);
  EXPECT_FALSE(completions.at(0).hasError);
  EXPECT_EQ(completions.at(1).result, OrvSecurityUtilsResultSignatureMismatch);
  EXPECT_TRUE(completions.at(1).hasError);
  for (const auto& [tag, completion] : completions) EXPECT_NE(completion.thread, std::this_thread::get_id());
}

TEST_F(SecurityUtilsServiceTest, ManyVerificationsInParallelShareOneCertificate) {
  const DetachedJws signatures[] = {signJws(m.rsaKey, "PS256", header("PS256")), signJws(m.p256Key, "ES256", header("ES256")),
                                    signJws(m.ed25519Key, "EdDSA", header("EdDSA"))};
  const OrvCertificateRef certificates[] = {m.rsaLeaf, m.p256Leaf, m.ed25519Leaf};
  constexpr int kCallers = 4;
  constexpr int kPerCaller = 48;
  auto log = std::make_shared<CompletionLog>();
  std::vector<std::thread> callers;
  for (int caller = 0; caller < kCallers; ++caller) {
    callers.emplace_back([&, caller] {
      for (int i = 0; i < kPerCaller; ++i) {
        const int which = (caller + i) % 3;
        anchored->asyncValidateJWTWithJwtPayload(i % 4 == 0 ? "tampered" : std::string(kPayload), signatures[which].header,
                                                 signatures[which].signature, certificates[which], issuerOptions(),
                                                 CompletionLog::recorder(log, caller * kPerCaller + i));
      }
    });
  }
  for (auto& thread : callers) thread.join();
  for (const auto& [tag, completion] : log->waitForCount(kCallers * kPerCaller)) {
    EXPECT_EQ(completion.result,
              tag % kPerCaller % 4 == 0 ? OrvSecurityUtilsResultSignatureMismatch : OrvSecurityUtilsResultSuccess)
        << tag;
  }
}

}  // namespace
}  // namespace orv::test
