// Auto-discovery from user input to a validated record, against the emulator over TLS on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <strings.h>

#include <boost/json.hpp>

#include "EmulatorHarness.h"
#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvEmulatorCrypto.h"
#include "OrvSDKStringUtils.h"
#include "TestSupport.h"

using namespace orv::test;
using ::testing::HasSubstr;

namespace {

const char* kCatalog = R"({
  "domains": {
    "example.com": {"domain": {"name": "example.com"},
                    "kaleth": {"serviceUrls": [{"url": "https://store.example.com/Store"}], "allowedWebStoreURLs": []}},
    "upper.example": {"domain": {"name": "UPPER.Example"}, "kaleth": {"serviceUrls": [{"url": "https://store.upper.example"}]}},
    "sub.example": {"domain": {"name": "a.sub.example"}, "kaleth": {"serviceUrls": [{"url": "https://store.sub.example"}]}},
    "nourl.example": {"domain": {"name": "nourl.example"}, "kaleth": {"serviceUrls": [{"url": 5}]}},
    "webonly.example": {"domain": {"name": "webonly.example"},
                        "kaleth": {"serviceUrls": [{"url": 5}], "allowedWebStoreURLs": [{"url": "https://web.webonly.example"}]}},
    "stale.example": {"domain": {"name": "stale.example"}, "kaleth": {"serviceUrls": [{"url": "https://s.stale.example"}]},
                      "iat": 1000, "exp": 2000},
    "window.example": {"domain": {"name": "window.example"}, "kaleth": {"serviceUrls": [{"url": "https://s.window.example"}]},
                       "iat": 1700000000, "exp": 1700003600},
    "portal.eu.example.org": {"domain": {"name": "portal.eu.example.org"},
                              "kaleth": {"serviceUrls": [{"url": "https://portal.eu.example.org/store"}]}}
  },
  "stores": {}
})";

using AutoCapture =
    Capture<OrvAppConfigServiceCompletionStatus, std::shared_ptr<OrvAppConfigAutoDiscoverRecord>, std::optional<OrvError>>;

struct Outcome {
  OrvAppConfigServiceCompletionStatus status = 99;
  std::shared_ptr<OrvAppConfigAutoDiscoverRecord> record;
  std::optional<OrvError> error;
  bool onMainQueue = false;
};

Outcome discover(const std::shared_ptr<OrvAppConfigService>& service, std::string input, std::uint64_t hostType = 0) {
  AutoCapture capture;
  service->asyncStartAutodiscoveryForUserInput(std::move(input), hostType, capture.block());
  EXPECT_TRUE(capture.wait());
  EXPECT_EQ(capture.calls, 1);
  return {std::get<0>(capture.values), std::get<1>(capture.values), std::get<2>(capture.values), capture.onMainQueue};
}

std::size_t countPaths(const std::vector<std::string>& paths, std::string_view prefix) {
  return static_cast<std::size_t>(
      std::count_if(paths.begin(), paths.end(), [&](const auto& p) { return p.starts_with(prefix); }));
}

// Replaces the emulator's signing certificate, keeping its key, by one from a CA of the given name. The
// emulator names the new certificate in "x5t#S256", so only the certificate checks can refuse it.
struct SigningCertificateChange {
  std::string caName = "Varnel Systems, Inc.";
  std::chrono::hours notAfter{1};
  std::vector<std::string> additionalCAOrganizations;
  bool leafIsCA = false;
};

std::function<void(const TemporaryDirectory&)> replaceSigningCertificate(SigningCertificateChange change) {
  return [=](const TemporaryDirectory& material) {
    using namespace orv::emulator;
    auto signingKey = PrivateKey::fromPEM(readFile(material.file(kSigningRSAKeyFile)));
    auto caKey = PrivateKey::generate(KeyKind::ecP256);
    ASSERT_TRUE(signingKey && caKey);
    const auto now = std::chrono::system_clock::now();
    CertificateProfile ca;
    ca.organization = ca.commonName = change.caName;
    ca.additionalOrganizations = change.additionalCAOrganizations;
    ca.isCA = true;
    ca.notBefore = now - std::chrono::hours(48);
    ca.notAfter = now + std::chrono::hours(48);
    CertificateProfile leaf;
    leaf.organization = "Varnel Systems, Inc.";
    leaf.commonName = "Varnel AppConfig Signing";
    leaf.isCA = change.leafIsCA;
    leaf.notBefore = now - std::chrono::hours(48);
    leaf.notAfter = now + change.notAfter;
    const auto caPEM = issueCertificate(ca, *caKey, nullptr, *caKey);
    ASSERT_TRUE(caPEM);
    const auto pem = issueCertificate(leaf, *signingKey, OrvCertificate::certificateWithContent(*caPEM).get(), *caKey);
    ASSERT_TRUE(pem);
    writeFile(material.file(kSigningRSAFile), *pem);
  };
}

// Rewrites every auto-discover answer after it was received, the way a man in the middle (or a
// confused proxy) could.
class RewritingSession : public OrvURLSession {
 public:
  using Rewrite = std::function<void(OrvData& body, std::vector<std::pair<std::string, std::string>>& fields)>;
  RewritingSession(std::shared_ptr<OrvURLSession> inner, Rewrite rewrite)
      : inner_(std::move(inner)), rewrite_(std::move(rewrite)) {}
  std::shared_ptr<OrvURLSessionDataTask> dataTaskWithRequest(const OrvURLRequest& request,
                                                             OrvURLSessionDataTaskCompletionHandler handler) override {
    if (!request.URL().path().starts_with("/ads/root/domain/")) return inner_->dataTaskWithRequest(request, std::move(handler));
    return inner_->dataTaskWithRequest(
        request, [rewrite = rewrite_, handler = std::move(handler)](auto data, auto response, auto error) {
          if (data && response) {
            auto fields = response->allHeaderFields();
            rewrite(*data, fields);
            response = std::make_shared<const OrvHTTPURLResponse>(response->URL(), response->statusCode(), std::move(fields));
          }
          handler(std::move(data), std::move(response), std::move(error));
        });
  }

 private:
  std::shared_ptr<OrvURLSession> inner_;
  Rewrite rewrite_;
};

}  // namespace

TEST(AutoDiscoveryWorkflowTest, EmailInputYieldsAValidatedRecordOnTheMainQueue) {
  auto log = LogCollector::install();
  EmulatorHarness harness({kCatalog});
  const auto outcome = discover(harness.service, "  user@example.com\n");
  EXPECT_EQ(outcome.status, 0u);
  EXPECT_EQ(outcome.error, std::nullopt);
  EXPECT_TRUE(outcome.onMainQueue);
  ASSERT_NE(outcome.record, nullptr);
  EXPECT_EQ(outcome.record->domain()->name(), "example.com");
  EXPECT_EQ(outcome.record->kaleth()->serviceUrls()->at(0)->url()->absoluteString(), "https://store.example.com/Store");
  EXPECT_TRUE(outcome.record->notValidBefore() && outcome.record->notValidAfter());
  EXPECT_THAT(harness.requestPaths(), ::testing::ElementsAre("/ads/root/domain/example.com/", "/ads/root/publickey"));
  for (const char* message :
       {"Scheduling AutoDiscover operation using URL generator mode  Two domain elements for URL input only",
        "At least one valid store or webstore URL was returned", "Starting payload validation - fetching public certificate",
        "Successfully validate the payload", "Payload date validation succeeded",
        "The requested domain was successfully validated as being the same as the returned domain"}) {
    EXPECT_TRUE(log->contains(message)) << message;
  }
  // The same with ES256 signatures and trust anchors configured.
  EmulatorHarness anchored({kCatalog, "ES256", /*useTrustAnchors=*/true});
  EXPECT_EQ(discover(anchored.service, "user@example.com", 1).status, 0u);
}

TEST(AutoDiscoveryWorkflowTest, OutcomeTable) {
  EmulatorHarness harness({kCatalog});
  // A domain the service does not know: the query fails (404, no transport error).
  auto unknown = discover(harness.service, "user@unknown.example");
  EXPECT_EQ(unknown.status, 2u);
  EXPECT_EQ(unknown.error, std::nullopt);
  EXPECT_EQ(unknown.record, nullptr);

  // A record without any usable URL fails before any certificate fetch.
  harness.emulator().clearRequests();
  auto noURL = discover(harness.service, "user@nourl.example");
  EXPECT_EQ(noURL.status, 2u);
  EXPECT_EQ(noURL.error, std::nullopt);
  EXPECT_EQ(countPaths(harness.requestPaths(), "/ads/root/publickey"), 0u);
  EXPECT_EQ(discover(harness.service, "user@webonly.example").status, 0u) << "a web-store URL is enough";

  // Domain checks: letter case is ignored, a sub-domain is not the domain.
  EXPECT_EQ(discover(harness.service, "user@upper.example").status, 0u);
  auto other = discover(harness.service, "user@sub.example");
  EXPECT_EQ(other.status, 2u);
  EXPECT_EQ(other.error, std::nullopt);
  EXPECT_EQ(other.record, nullptr) << "a received record is not handed out on failure";

  // A stale payload: signature fine, dates not.
  auto stale = discover(harness.service, "user@stale.example");
  EXPECT_EQ(stale.status, 2u);
  EXPECT_EQ(stale.error, std::nullopt);

  // A transport failure passes the session's error on.
  orv::emulator::FaultSpec drop;
  drop.dropMidBody = true;
  harness.emulator().setFault("/ads/root/domain/example.com/", drop);
  auto dropped = discover(harness.service, "user@example.com");
  EXPECT_EQ(dropped.status, 2u);
  ASSERT_TRUE(dropped.error);
  EXPECT_EQ(dropped.error->domain(), OrvURLErrorDomain);
}

TEST(AutoDiscoveryWorkflowTest, SignatureFailures) {
  const auto expectRefused = [](EmulatorHarness& harness, const char* what, std::optional<std::int64_t> code) {
    auto outcome = discover(harness.service, "user@example.com");
    EXPECT_EQ(outcome.status, 2u) << what;
    EXPECT_EQ(outcome.record, nullptr) << what;
    if (code) {
      ASSERT_TRUE(outcome.error) << what;
      EXPECT_EQ(outcome.error->domain(), OrvSecurityUtilsErrorDomain) << what;
      EXPECT_EQ(outcome.error->code(), *code) << what << ": " << outcome.error->description();
    } else {
      EXPECT_EQ(outcome.error, std::nullopt) << what;
    }
  };

  {
    EmulatorHarness harness({kCatalog, "RS256", /*useTrustAnchors=*/true});
    orv::emulator::FaultSpec noSignature;
    noSignature.omitSignature = true;
    harness.emulator().setFault("/ads/root/domain/example.com/", noSignature);
    expectRefused(harness, "missing signature", std::nullopt);
    EXPECT_EQ(countPaths(harness.requestPaths(), "/ads/root/publickey"), 0u) << "refused before any certificate fetch";

    orv::emulator::FaultSpec badSignature;
    badSignature.corruptSignature = true;
    harness.emulator().setFault("/ads/root/domain/example.com/", badSignature);
    expectRefused(harness, "corrupted signature", OrvSecurityUtilsResultSignatureMismatch);
    harness.emulator().clearFaults();

    // Another service's certificate: the signature header names the genuine one.
    TemporaryDirectory other;
    ASSERT_TRUE(orv::emulator::generateMaterial(other.path().string()));
    orv::emulator::FaultSpec foreign;
    foreign.body = boost::json::serialize(boost::json::object{{"certificate", readFile(other.file("signing.pem"))}});
    harness.emulator().setFault("/ads/root/publickey", foreign);
    expectRefused(harness, "foreign certificate", OrvSecurityUtilsResultThumbprintMismatch);
    harness.emulator().clearFaults();

    // The body changed after signing.
    const auto rewriteWith = [&](RewritingSession::Rewrite rewrite) {
      harness.rebuildService(std::make_shared<RewritingSession>(harness.session, std::move(rewrite)), harness.security);
    };
    rewriteWith([](OrvData& body, auto&) { body[body.size() / 2] ^= 0x01; });
    expectRefused(harness, "tampered body", OrvSecurityUtilsResultSignatureMismatch);

    // A second signature field: the two combine into one value that does not split, so neither is
    // trusted, whichever of them is genuine.
    harness.emulator().clearRequests();
    rewriteWith([](OrvData&, auto& fields) {
      const auto genuine = std::find_if(fields.begin(), fields.end(), [](const auto& field) {
        return strcasecmp(field.first.c_str(), "Varnel-Signature") == 0;
      });
      ASSERT_NE(genuine, fields.end());
      fields.emplace_back("varnel-signature", genuine->second);
    });
    expectRefused(harness, "duplicate signature fields", std::nullopt);
    EXPECT_EQ(countPaths(harness.requestPaths(), "/ads/root/publickey"), 0u);

    // A genuine signature under a header whose "b64" is not critical.
    const auto key = orv::emulator::PrivateKey::fromPEM(readFile(harness.material().file(orv::emulator::kSigningRSAKeyFile)));
    ASSERT_TRUE(key);
    rewriteWith([&key](OrvData& body, auto& fields) {
      for (auto& [name, value] : fields) {
        if (strcasecmp(name.c_str(), "Varnel-Signature") == 0) {
          auto jws = orv::emulator::signDetachedJws(*key, "RS256", R"({"alg":"RS256","b64":true})",
                                                    std::string(body.begin(), body.end()));
          value = jws.value_or("");
        }
      }
    });
    expectRefused(harness, "b64 not critical", OrvSecurityUtilsResultUncriticalUnencodedPayload);
  }

  // The service asks for the issuer's name and checks the period, the signer's role and the issuer's
  // ambiguity (bad keys and chains: the security tests).
  for (const auto& [what, code, change] : {
           std::tuple{"wrong issuer", OrvSecurityUtilsResultIssuerMismatch, SigningCertificateChange{"Varnel Systems Inc"}},
           std::tuple{"expired certificate", OrvSecurityUtilsResultCertificateExpired,
                      SigningCertificateChange{.notAfter = std::chrono::hours(-1)}},
           std::tuple{"signer is a CA", OrvSecurityUtilsResultCertificateIsAuthority, SigningCertificateChange{.leafIsCA = true}},
           std::tuple{"two issuer organisations", OrvSecurityUtilsResultAmbiguousIssuer,
                      SigningCertificateChange{.additionalCAOrganizations = {"Someone Else Ltd"}}},
       }) {
    HarnessOptions options{kCatalog};
    options.prepareMaterial = replaceSigningCertificate(change);
    EmulatorHarness harness(options);
    expectRefused(harness, what, code);
  }
}

TEST(AutoDiscoveryWorkflowTest, ValidityWindowBoundariesWithAnInjectedClock) {
  EmulatorHarness harness({kCatalog});
  const auto at = [&](double seconds) {
    harness.service->setCurrentDateProvider([seconds] { return OrvDateFromTimeIntervalSince1970(seconds); });
    return discover(harness.service, "user@window.example").status;
  };
  EXPECT_EQ(at(1700000000.0), 0u) << "the first instant belongs to the period";
  EXPECT_EQ(at(1700003600.0), 0u) << "so does the last";
  EXPECT_EQ(at(1699999999.999), 2u);
  EXPECT_EQ(at(1700003600.001), 2u);
}

TEST(AutoDiscoveryWorkflowTest, WholeHostFallbackProbe) {
  auto log = LogCollector::install();
  EmulatorHarness harness({kCatalog});
  auto outcome = discover(harness.service, "https://portal.eu.example.org/x");
  EXPECT_EQ(outcome.status, 0u);
  EXPECT_THAT(harness.requestPaths(), ::testing::ElementsAre("/ads/root/domain/example.org/",
                                                             "/ads/root/domain/portal.eu.example.org/", "/ads/root/publickey"));
  EXPECT_TRUE(
      log->contains("Failed to obtain the records for the provided email address with status "
                    "OrvAppConfigQueryOperationCompletionStatusInvalidResponse - attempting probe of full domain for URL input"));

  // No probe for e-mail input, for a two-label host, nor with the feature off; and at most one.
  const auto probes = [&](std::shared_ptr<OrvAppConfigService> service, const char* input) {
    harness.emulator().clearRequests();
    EXPECT_EQ(discover(service, input).status, 2u) << input;
    return countPaths(harness.requestPaths(), "/ads/root/domain/");
  };
  EXPECT_EQ(probes(harness.service, "user@portal.eu.nowhere.example"), 1u);
  EXPECT_EQ(probes(harness.service, "https://nowhere.example/x"), 1u);
  EXPECT_EQ(probes(harness.service, "https://a.b.nowhere.example"), 2u);
  harness.rebuildService(harness.session, harness.security, std::make_shared<FixedFeatureFlags>(false, true));
  EXPECT_EQ(probes(harness.service, "https://portal.eu.example.org/x"), 1u);
}

TEST(AutoDiscoveryWorkflowTest, RequestsOfOneServiceRunStrictlyOneAfterTheOther) {
  EmulatorHarness harness({kCatalog});
  orv::emulator::FaultSpec slow;
  slow.delay = std::chrono::milliseconds(300);
  harness.emulator().setFault("/ads/root/domain/example.com/", slow);
  std::vector<int> order;
  std::atomic<int> done{0};
  const auto completion = [&](int id) {
    return [&, id](auto status, auto, auto) {
      EXPECT_EQ(status, 0u) << id;
      order.push_back(id);
      ++done;
    };
  };
  harness.service->asyncStartAutodiscoveryForUserInput("user@example.com", 0, completion(1));
  harness.service->asyncStartAutodiscoveryForUserInput("user@upper.example", 0, completion(2));
  ASSERT_TRUE(runMainQueueUntil([&] { return done == 2; }));
  EXPECT_THAT(order, ::testing::ElementsAre(1, 2));
  // The second query went out only after the first request had fetched its certificate.
  EXPECT_THAT(harness.requestPaths(), ::testing::ElementsAre("/ads/root/domain/example.com/", "/ads/root/publickey",
                                                             "/ads/root/domain/upper.example/", "/ads/root/publickey"));
}

TEST(AutoDiscoveryWorkflowTest, ReleasingTheServiceCancelsItsRequestsWithoutCompletion) {
  EmulatorHarness harness({kCatalog});
  orv::emulator::FaultSpec slow;
  slow.delay = std::chrono::seconds(30);
  harness.emulator().setFault("/ads/root/domain/example.com/", slow);
  harness.emulator().setFault("/ads/root/domain/example.org/", slow);
  // Held back too: an answer that came before the release would rightly be delivered.
  harness.emulator().setFault(
      "/ads/root/url/" + *OrvBase64URLEncodedStringFromString("https://store.example.com:443/Store") + "/product/kaleth/os/ios",
      slow);
  std::weak_ptr<OrvAppConfigService> weak = harness.service;
  std::weak_ptr<OrvURLSession> weakSession = harness.session;
  std::atomic<int> calls{0};
  // One request in flight (the emulator holds its answer back), one waiting for its turn, one settings
  // request running beside them.
  harness.service->asyncStartAutodiscoveryForUserInput("user@example.com", 0, [&](auto, auto, auto) { ++calls; });
  harness.service->asyncStartAutodiscoveryForUserInput("user@example.org", 0, [&](auto, auto, auto) { ++calls; });
  harness.service->asyncStartSettingsRetrievalForStoreUrls({*OrvURL::URLWithString("https://store.example.com/Store")}, 0, 0,
                                                           [&](auto, auto, auto) { ++calls; });
  ASSERT_TRUE(pollUntil([&] { return !harness.emulator().requests().empty(); }));
  harness.session.reset();
  harness.service.reset();
  EXPECT_TRUE(weak.expired()) << "a pending request does not keep the service alive";
  // The transfer is aborted, not left to the server's 30 s: the session and its I/O thread go with it.
  EXPECT_TRUE(pollUntil([&] { return weakSession.expired(); }, std::chrono::seconds(10)));
  EXPECT_FALSE(runMainQueueUntil([&] { return calls > 0; }, std::chrono::milliseconds(300)));
}
