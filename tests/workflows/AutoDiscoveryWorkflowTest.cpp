// Auto-discovery from user input to a validated record, and the trace a host's diagnostics delegate
// gets of it, against the emulator over TLS on loopback.
#include <gmock/gmock.h>

#include <boost/json.hpp>

#include "EmulatorHarness.h"
#include "OrvEmulatorCrypto.h"

using namespace orv::test;
using namespace orv::emulator;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Optional;

namespace {

const char* kCatalog = R"({
  "domains": {
    "example.com": {"domain": {"name": "example.com"},
                    "kaleth": {"serviceUrls": [{"url": "https://store.example.com/Store"}], "allowedWebStoreURLs": []}},
    "upper.example": {"domain": {"name": "UPPER.Example"}, "kaleth": {"serviceUrls": [{"url": "https://store.upper.example"}]}},
    "sub.example": {"domain": {"name": "a.sub.example"}, "kaleth": {"serviceUrls": [{"url": "https://store.sub.example"}]}},
    "nourl.example": {"domain": {"name": "nourl.example"}, "kaleth": {"serviceUrls": [{"url": 5}]}},
    "window.example": {"domain": {"name": "window.example"}, "kaleth": {"serviceUrls": [{"url": "https://s.window.example"}]},
                       "iat": 1700000000, "exp": 1700003600},
    "portal.eu.example.org": {"domain": {"name": "portal.eu.example.org"},
                              "kaleth": {"serviceUrls": [{"url": "https://portal.eu.example.org/store"}]}}
  },
  "stores": {}
})";
const std::string kPublicKey = "/ads/root/publickey";

std::size_t countPaths(const EmulatorHarness& harness, std::string_view prefix) {
  return std::ranges::count_if(harness.requestPaths(), [&](const auto& path) { return path.starts_with(prefix); });
}

// Replaces the emulator's signing certificate, keeping its key, by a self-signed one under a near miss
// of the required issuer's name. The emulator names the new certificate in "x5t#S256", so only the
// issuer check can refuse it.
void selfSignUnderAnotherName(const TemporaryDirectory& material) {
  const auto key = PrivateKey::fromPEM(readFile(material.file(kSigningRSAKeyFile)));
  ASSERT_TRUE(key);
  const auto now = std::chrono::system_clock::now();
  const CertificateProfile profile{
      .organization = "Varnel Systems Inc", .notBefore = now - std::chrono::hours(1), .notAfter = now + std::chrono::hours(1)};
  const auto pem = issueCertificate(profile, *key, nullptr, *key);
  ASSERT_TRUE(pem);
  writeFile(material.file(kSigningRSAFile), *pem);
}

}  // namespace

// What the host gets for each answer: the record, under the domain's name as the record gives it, or a
// failure without an error; and whether the signing certificate was fetched to verify the answer.
TEST(AutoDiscoveryWorkflowTest, OutcomeTableAndValidityWindowBoundaries) {
  EmulatorHarness harness({kCatalog});
  const std::tuple<const char*, OrvAppConfigServiceCompletionStatus, bool, std::optional<std::string>> rows[] = {
      {"  user@example.com\n", 0, true, "example.com"},
      {"user@upper.example", 0, true, "UPPER.Example"},  // the domain's letter case is ignored
      {"user@nourl.example", 2, false, std::nullopt},    // no usable URL: nothing worth verifying
      {"user@sub.example", 2, true, std::nullopt},       // a sub-domain is not the domain
  };
  for (const auto& [input, status, fetchesCertificate, domain] : rows) {
    harness.emulator().clearRequests();
    const auto outcome = discover(*harness.service, input);
    EXPECT_EQ(outcome.status, status) << input;
    EXPECT_EQ(outcome.error, std::nullopt) << input;
    EXPECT_EQ(outcome.result ? outcome.result->domain()->name() : std::nullopt, domain) << input;
    EXPECT_EQ(countPaths(harness, kPublicKey), fetchesCertificate ? 1u : 0u) << input;
  }

  // With an injected clock: both ends of the record's validity period belong to it.
  const auto at = [&](double seconds) {
    harness.service->setCurrentDateProvider([seconds] { return OrvDateFromTimeIntervalSince1970(seconds); });
    return discover(*harness.service, "user@window.example").status;
  };
  EXPECT_EQ(at(1700000000.0), 0u);
  EXPECT_EQ(at(1700003600.0), 0u);
  EXPECT_EQ(at(1699999999.999), 2u);
  EXPECT_EQ(at(1700003600.001), 2u);
}

// How the material that signs an answer is spoiled, and the security error the host receives. The
// verifier's rules one by one are the security tests'; these show that the service applies them to every
// answer, with the certificate it fetched and the issuer's name it requires. A corrupted signature is the
// command-line tool's test; an answer without one, the fault matrix's (refused before any certificate
// fetch, with no error).
TEST(AutoDiscoveryWorkflowTest, RefusedSignatures) {
  const auto refusal = [](EmulatorHarness& harness) {
    const auto outcome = discover(*harness.service, "user@example.com");
    EXPECT_EQ(outcome.status, 2u);
    EXPECT_EQ(outcome.result, nullptr);
    const auto error = outcome.error.value_or(OrvError("none", 0));
    EXPECT_EQ(error.domain(), OrvSecurityUtilsErrorDomain);
    return error.code();
  };
  // Another service's certificate: the signature header names the genuine one.
  EmulatorHarness harness({kCatalog});
  const TemporaryDirectory other;
  ASSERT_TRUE(generateMaterial(other.path().string()));
  const boost::json::object answer{{"certificate", readFile(other.file(kSigningRSAFile))}};
  harness.emulator().setFault(kPublicKey, {.body = boost::json::serialize(answer)});
  EXPECT_EQ(refusal(harness), OrvSecurityUtilsResultThumbprintMismatch);

  EmulatorHarness selfSigned({.catalogJSON = kCatalog, .prepareMaterial = selfSignUnderAnotherName});
  EXPECT_EQ(refusal(selfSigned), OrvSecurityUtilsResultIssuerMismatch);
}

// The requests of one service run one after the other, and each one's trace reaches the delegate on the
// main queue just before its completion, with the same status. The probe of the whole host is its own
// step in that trace, beside the query that found nothing.
TEST(AutoDiscoveryWorkflowTest, WholeHostFallbackProbeRequestsInTurnAndTheirTraces) {
  EmulatorHarness harness({kCatalog});
  harness.emulator().setFault("/ads/root/domain/example.org/", {.delay = std::chrono::milliseconds(300)});
  const auto collector = std::make_shared<TraceCollector>();
  harness.service->setDiagnosticsDelegate(collector);
  std::vector<OrvAppConfigServiceCompletionStatus> completed;
  for (const char* input : {"https://portal.eu.example.org/x", "user@unknown.example"}) {
    harness.service->asyncStartAutodiscoveryForUserInput(input, 0, [&](auto status, auto, auto) {
      completed.push_back(status);
      EXPECT_EQ(collector->traces.size(), completed.size());
      EXPECT_TRUE(!collector->traces.empty() && collector->traces.back()->status == status);
    });
  }
  ASSERT_TRUE(runMainQueueUntil([&] { return completed.size() == 2; }));
  EXPECT_THAT(completed, ElementsAre(0u, 2u));
  EXPECT_TRUE(collector->onMainQueue);
  // The second request's query went out only after the first request had fetched its certificate.
  EXPECT_THAT(harness.requestPaths(), ElementsAre("/ads/root/domain/example.org/", "/ads/root/domain/portal.eu.example.org/",
                                                  kPublicKey, "/ads/root/domain/unknown.example/"));
  std::map<std::string, OrvAppConfigTraceStep> steps;
  for (const auto& step : collector->traces.at(0)->steps) steps.emplace(step.name, step);
  EXPECT_THAT(steps["auto-discover query"].url, Optional(EndsWith("/domain/example.org/")));
  EXPECT_EQ(steps["auto-discover query"].httpStatus, 404);
  EXPECT_THAT(steps["fallback probe query"].url, Optional(EndsWith("/domain/portal.eu.example.org/")));
  EXPECT_TRUE(steps["domain match"].passed);

  // No probe for e-mail input, for a two-label host, nor with the feature off; and at most one. Nor any
  // trace once the delegate is gone.
  harness.service->setDiagnosticsDelegate(nullptr);
  const auto queries = [&](const char* input) {
    harness.emulator().clearRequests();
    EXPECT_EQ(discover(*harness.service, input).status, 2u) << input;
    return countPaths(harness, "/ads/root/domain/");
  };
  EXPECT_EQ(queries("user@portal.eu.nowhere.example"), 1u);
  EXPECT_EQ(queries("https://nowhere.example/x"), 1u);
  EXPECT_EQ(queries("https://a.b.nowhere.example"), 2u);
  EXPECT_EQ(collector->traces.size(), 2u);
  harness.rebuildService(std::make_shared<FixedFeatureFlags>(false, true));
  EXPECT_EQ(queries("https://portal.eu.example.org/x"), 1u);
}

TEST(AutoDiscoveryWorkflowTest, ReleasingTheServiceCancelsItsRequestsWithoutCompletion) {
  EmulatorHarness harness({kCatalog});
  // The first request has its answer and waits for the signing certificate when the service goes. The
  // other answers are held back too: one that came before the release would rightly be delivered.
  for (const auto& path :
       {kPublicKey, std::string("/ads/root/domain/example.org/"), settingsPath("https://store.example.com:443/Store")})
    harness.emulator().setFault(path, {.delay = std::chrono::seconds(30)});
  std::weak_ptr<OrvAppConfigService> weak = harness.service;
  std::weak_ptr<OrvURLSession> weakSession = harness.session;
  std::atomic<int> calls{0};
  // Traces are delivered like completions: not at all once the service is gone.
  const auto collector = std::make_shared<TraceCollector>();
  harness.service->setDiagnosticsDelegate(collector);
  // One request in flight (the emulator holds its answer back), one waiting for its turn, one settings
  // request running beside them.
  const auto count = [&](auto, auto, auto) { ++calls; };
  harness.service->asyncStartAutodiscoveryForUserInput("user@example.com", 0, count);
  harness.service->asyncStartAutodiscoveryForUserInput("user@example.org", 0, count);
  harness.service->asyncStartSettingsRetrievalForStoreUrls({*OrvURL::URLWithString("https://store.example.com/Store")}, 0, 0,
                                                           count);
  ASSERT_TRUE(pollUntil([&] { return countPaths(harness, kPublicKey) > 0; }));
  harness.session.reset();
  harness.service.reset();
  EXPECT_TRUE(weak.expired()) << "a pending request does not keep the service alive";
  // The transfer is aborted, not left to the server's 30 s: the session and its I/O thread go with it.
  EXPECT_TRUE(pollUntil([&] { return weakSession.expired(); }, std::chrono::seconds(10)));
  EXPECT_FALSE(runMainQueueUntil([&] { return calls > 0 || !collector->traces.empty(); }, std::chrono::milliseconds(300)));
}
