#include <curl/curl.h>
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "EmulatorTestSupport.h"
#include "OrvCertificate.h"
#include "OrvCurlURLSession.h"
#include "OrvEmulatorCrypto.h"
#include "OrvSDKStringUtils.h"
#include "OrvSecurityUtilsService.h"
#include "OrvString.h"

using namespace orv::test;
using orv::emulator::DiscoveryEmulator;
using orv::emulator::FaultSpec;

namespace {

constexpr const char* kIssuer = "Varnel Systems, Inc.";
const std::string kStore = "https://store.example.com:443/Store";

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::shared_ptr<OrvCurlURLSession> trustingSession(const DiscoveryEmulator& emulator) {
  OrvCurlURLSessionConfiguration configuration;
  configuration.caFile = emulator.tlsCAFile();
  auto session = OrvCurlURLSession::create(configuration);
  EXPECT_TRUE(session);
  return session;
}

std::string settingsPath(const std::string& store, const std::string& os, bool padded = false) {
  auto encoded = *OrvBase64URLEncodedStringFromString(store);
  if (padded) encoded.append((4 - encoded.size() % 4) % 4, '=');
  return "/ads/root/url/" + encoded + "/product/kaleth/os/" + os;
}

// The signature header's two pieces and the verdict of the client's own verifier over the body.
struct SignatureCheck {
  std::size_t pieces = 0;
  boost::json::object header;
  std::int64_t result = -1;
};

SignatureCheck checkSignature(TaskOutcome& outcome, const std::string& certificatePEM) {
  SignatureCheck check;
  const auto signature = outcome.response ? outcome.response->valueForHTTPHeaderField("Varnel-Signature") : std::nullopt;
  if (!signature || !outcome.data) return check;
  const auto pieces = orv::detail::componentsSeparatedByString(*signature, ".");
  check.pieces = pieces.size();
  if (pieces.size() != 2) return check;
  if (const auto header = OrvBase64URLDecode(pieces[0])) {
    boost::system::error_code ec;
    auto value = boost::json::parse(*header, ec);
    if (!ec && value.is_object()) check.header = value.get_object();
  }
  AdditionalCertificateValidationOptions options;
  options.setRequiredIssuerName(kIssuer);
  auto service = OrvSecurityUtilsService::create();
  check.result = service
                     ->validateJWT(*outcome.data, pieces[0], pieces[1],
                                   service->createCertificateFromCertificateContent(certificatePEM), &options)
                     .first;
  return check;
}

boost::json::object bodyObject(TaskOutcome& outcome) {
  boost::system::error_code ec;
  auto value = boost::json::parse(outcome.data.value_or(""), ec);
  return !ec && value.is_object() ? value.get_object() : boost::json::object();
}

}  // namespace

TEST(DiscoveryEmulatorMaterial, GeneratesCertificatesWithTheRequiredNames) {
  const std::string& dir = GeneratedMaterial::dir();
  const auto signingCA = OrvCertificate::certificateWithContent(readFile(dir + "/signing-ca.pem"));
  ASSERT_TRUE(signingCA);
  EXPECT_EQ(signingCA->subjectOrganization(), kIssuer);
  EXPECT_EQ(signingCA->subjectCommonName(), kIssuer);

  for (const char* leaf : {"/signing.pem", "/signing-ec.pem"}) {
    const auto certificate = OrvCertificate::certificateWithContent(readFile(dir + leaf));
    ASSERT_TRUE(certificate) << leaf;
    EXPECT_EQ(certificate->issuerOrganization(), kIssuer) << leaf;
    EXPECT_EQ(certificate->issuerCommonName(), kIssuer) << leaf;
    // Valid from an hour ago, for about two years.
    EXPECT_LT(certificate->notValidBefore(), std::chrono::system_clock::now());
    EXPECT_GT(certificate->notValidAfter(), std::chrono::system_clock::now() + std::chrono::hours(24 * 700));
  }

  const auto tlsCA = OrvCertificate::certificateWithContent(readFile(dir + "/tls-ca.pem"));
  const auto tlsServer = OrvCertificate::certificateWithContent(readFile(dir + "/tls-server.pem"));
  ASSERT_TRUE(tlsCA && tlsServer);
  EXPECT_EQ(tlsServer->issuerCommonName(), tlsCA->subjectCommonName());
  EXPECT_NE(tlsCA->subjectCommonName(), signingCA->subjectCommonName());
  for (const char* key :
       {"/signing-key.pem", "/signing-ec-key.pem", "/tls-server-key.pem", "/signing-ca-key.pem", "/tls-ca-key.pem"}) {
    EXPECT_NE(readFile(dir + key).find("PRIVATE KEY"), std::string::npos) << key;
  }

  // The demo catalog on disk is one the emulator accepts.
  auto emulator = startEmulator();
  ASSERT_TRUE(emulator);
  EXPECT_TRUE(emulator->setCatalogJSON(readFile(dir + "/catalog.json")));

  std::string error;
  EXPECT_FALSE(orv::emulator::generateMaterial("/proc/orv-cannot-write-here", &error));
  EXPECT_FALSE(error.empty());

  orv::emulator::EmulatorOptions badAlgorithm;
  badAlgorithm.algorithm = "HS256";
  badAlgorithm.materialDir = dir;
  EXPECT_FALSE(DiscoveryEmulator::start(badAlgorithm, &error));
  EXPECT_NE(error.find("HS256"), std::string::npos);
}

TEST(DiscoveryEmulatorEndpoints, ServesSignedAnswersForTheCatalog) {
  auto emulator = startEmulator();
  ASSERT_TRUE(emulator);
  auto session = trustingSession(*emulator);
  const std::string base = emulator->baseURL();
  EXPECT_EQ(base, "https://127.0.0.1:" + std::to_string(emulator->port()));

  auto key = fetch(*session, base + "/ads/root/publickey");
  ASSERT_EQ(key->status(), 200);
  EXPECT_EQ(bodyObject(*key)["certificate"].as_string(), emulator->signingCertificatePEM());
  EXPECT_FALSE(key->response->valueForHTTPHeaderField("Varnel-Signature"));

  // Domains match case-insensitively and percent-decoded; the answer is stamped with a current validity.
  auto domainRequest = requestFor(base + "/ads/root/domain/Example%2ECOM/");
  domainRequest.setValueForHTTPHeaderField("txn-42", "X-Transaction-Id");
  auto domain = fetch(*session, domainRequest);
  ASSERT_EQ(domain->status(), 200);
  auto answer = bodyObject(*domain);
  EXPECT_EQ(answer["domain"].as_object()["name"].as_string(), "example.com");
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
  ASSERT_TRUE(answer["iat"].is_int64() && answer["exp"].is_int64());
  EXPECT_LE(answer["iat"].as_int64(), now);
  EXPECT_GT(answer["exp"].as_int64(), now);
  auto check = checkSignature(*domain, emulator->signingCertificatePEM());
  EXPECT_EQ(check.pieces, 2u);
  EXPECT_EQ(check.header["alg"].as_string(), "RS256");
  EXPECT_EQ(check.header["typ"].as_string(), "JWT");
  EXPECT_EQ(check.header["x5t#S256"].as_string(),
            orv::emulator::base64UrlEncode(
                OrvCertificate::certificateWithContent(emulator->signingCertificatePEM())->sha256Thumbprint()));
  EXPECT_EQ(check.result, 0);

  // Settings by base64url of the store URL, with or without padding, and by channel.
  auto ios = fetch(*session, base + settingsPath(kStore, "ios"));
  ASSERT_EQ(ios->status(), 200);
  EXPECT_TRUE(bodyObject(*ios)["kaleth"].as_object()["appSettings"].as_object().contains("ios"));
  EXPECT_EQ(checkSignature(*ios, emulator->signingCertificatePEM()).result, 0);
  auto beta = fetch(*session, base + settingsPath(kStore, "macos", true) + "/channel/beta");
  ASSERT_EQ(beta->status(), 200);
  EXPECT_EQ(bodyObject(*beta)["settingsChannel"].as_object()["channelName"].as_string(), "beta");
  EXPECT_EQ(checkSignature(*beta, emulator->signingCertificatePEM()).result, 0);

  for (const std::string& path :
       {std::string("/ads/root/domain/unknown.example/"), std::string("/ads/root/domain/example.com"),
        settingsPath("https://store.example.com/Store", "ios"), settingsPath(kStore, "ios") + "/channel/gamma",
        settingsPath(kStore, "android"), std::string("/ads/root/publickey/extra"), std::string("/")}) {
    auto missing = fetch(*session, base + path);
    EXPECT_EQ(missing->status(), 404) << path;
    EXPECT_FALSE(missing->response && missing->response->valueForHTTPHeaderField("Varnel-Signature")) << path;
  }
  EXPECT_EQ(fetch(*session, base + "/ads/root/url/not*base64/product/kaleth/os/ios")->status(), 400);

  auto head = requestFor(base + "/ads/root/publickey");
  head.setHTTPMethod("DELETE");
  EXPECT_EQ(fetch(*session, head)->status(), 405);

  const auto log = emulator->requests();
  const auto recorded =
      std::find_if(log.begin(), log.end(), [](const auto& r) { return r.target == "/ads/root/domain/Example%2ECOM/"; });
  ASSERT_NE(recorded, log.end());
  EXPECT_EQ(recorded->method, "GET");
  EXPECT_EQ(recorded->header("x-transaction-id"), "txn-42");
}

TEST(DiscoveryEmulatorEndpoints, SignsWithES256WhenAsked) {
  orv::emulator::EmulatorOptions options;
  options.algorithm = "ES256";
  auto emulator = startEmulator(options);
  ASSERT_TRUE(emulator);
  auto session = trustingSession(*emulator);
  auto key = fetch(*session, emulator->baseURL() + "/ads/root/publickey");
  const std::string pem(bodyObject(*key)["certificate"].as_string());
  EXPECT_EQ(pem, readFile(GeneratedMaterial::dir() + "/signing-ec.pem"));

  auto domain = fetch(*session, emulator->baseURL() + "/ads/root/domain/example.com/");
  auto check = checkSignature(*domain, pem);
  EXPECT_EQ(check.header["alg"].as_string(), "ES256");
  EXPECT_EQ(check.result, 0);
}

TEST(DiscoveryEmulatorFaults, KnobsChangeTheAnswerOfOnePath) {
  auto emulator = startEmulator();
  ASSERT_TRUE(emulator);
  auto session = trustingSession(*emulator);
  const std::string path = "/ads/root/domain/example.com/";
  const std::string url = emulator->baseURL() + path;
  const std::string pem = emulator->signingCertificatePEM();

  FaultSpec status;
  status.status = 503;
  ASSERT_TRUE(emulator->setFault(path, status));
  EXPECT_EQ(fetch(*session, url)->status(), 503);
  // Other paths are untouched.
  EXPECT_EQ(fetch(*session, emulator->baseURL() + "/ads/root/domain/example.net/")->status(), 200);

  FaultSpec unsignedAnswer;
  unsignedAnswer.omitSignature = true;
  unsignedAnswer.delay = std::chrono::milliseconds(20);
  emulator->setFault(path, unsignedAnswer);
  auto missing = fetch(*session, url);
  EXPECT_EQ(missing->status(), 200);
  EXPECT_FALSE(missing->response->valueForHTTPHeaderField("Varnel-Signature"));

  FaultSpec corrupt;
  corrupt.corruptSignature = true;
  emulator->setFault(path, corrupt);
  auto corrupted = checkSignature(*fetch(*session, url), pem);
  EXPECT_EQ(corrupted.pieces, 2u);
  EXPECT_EQ(corrupted.result, OrvSecurityUtilsResultSignatureMismatch);

  FaultSpec body;
  body.body = R"({"domain":{"name":"other.example"}})";
  emulator->setFault("/custom", body);
  auto overridden = fetch(*session, emulator->baseURL() + "/custom?x=1");
  EXPECT_EQ(overridden->status(), 200);
  EXPECT_EQ(overridden->data, *body.body);
  EXPECT_EQ(checkSignature(*overridden, pem).result, 0);

  FaultSpec drop;
  drop.dropMidBody = true;
  emulator->setFault(path, drop);
  auto dropped = fetch(*session, url);
  ASSERT_TRUE(dropped->error);
  EXPECT_EQ(dropped->error->domain(), OrvURLErrorDomain);

  FaultSpec invalid;
  invalid.status = 42;
  EXPECT_FALSE(emulator->setFault(path, invalid));
  emulator->clearFaults();
  EXPECT_EQ(checkSignature(*fetch(*session, url), pem).result, 0);

  // Explicit validity in the catalog is served as it stands; a bad catalog leaves the old one in place.
  std::string error;
  EXPECT_FALSE(emulator->setCatalogJSON(R"({"domains": []})", &error));
  EXPECT_FALSE(error.empty());
  ASSERT_TRUE(emulator->setCatalogJSON(
      R"({"domains": {"stale.example": {"domain": {"name": "stale.example"}, "iat": 1000, "exp": 2000}}})"));
  auto stale = bodyObject(*fetch(*session, emulator->baseURL() + "/ads/root/domain/stale.example/"));
  EXPECT_EQ(stale["iat"].as_int64(), 1000);
  EXPECT_EQ(stale["exp"].as_int64(), 2000);
  EXPECT_EQ(fetch(*session, url)->status(), 404);
}

TEST(DiscoveryEmulatorFaults, CommandLineFaultsFoldIntoOneSpecPerPath) {
  std::map<std::string, FaultSpec> faults;
  EXPECT_TRUE(orv::emulator::addFaultArgument(faults, "/ads/root/publickey:status=500"));
  EXPECT_TRUE(orv::emulator::addFaultArgument(faults, "/ads/root/publickey:delay=250"));
  EXPECT_TRUE(orv::emulator::addFaultArgument(faults, "/a:b/c:body={\"x\":\"1:2\"}"));
  EXPECT_TRUE(orv::emulator::addFaultArgument(faults, "/p:nosig"));
  ASSERT_EQ(faults.size(), 3u);
  EXPECT_EQ(faults["/ads/root/publickey"].status, 500u);
  EXPECT_EQ(faults["/ads/root/publickey"].delay, std::chrono::milliseconds(250));
  EXPECT_EQ(faults["/a:b/c"].body, "{\"x\":\"1:2\"}");
  EXPECT_TRUE(faults["/p"].omitSignature);
  for (const char* bad : {"/p", "/p:status=99", "/p:status=abc", "p:drop", "/p:explode", "/p:body=@/nonexistent/file"}) {
    std::string error;
    EXPECT_FALSE(orv::emulator::addFaultArgument(faults, bad, &error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

namespace {

struct CurlEasyDeleter {
  void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyDeleter>;

// A TLS connection to the emulator on which raw bytes can be sent, for requests no client would make.
CurlEasy rawConnection(const DiscoveryEmulator& emulator) {
  CurlEasy easy(curl_easy_init());
  curl_easy_setopt(easy.get(), CURLOPT_URL, emulator.baseURL().c_str());
  curl_easy_setopt(easy.get(), CURLOPT_CAINFO, emulator.tlsCAFile().c_str());
  curl_easy_setopt(easy.get(), CURLOPT_CONNECT_ONLY, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
  EXPECT_EQ(curl_easy_perform(easy.get()), CURLE_OK);
  return easy;
}

void sendAll(CURL* easy, std::string_view bytes) {
  while (!bytes.empty()) {
    std::size_t sent = 0;
    const CURLcode code = curl_easy_send(easy, bytes.data(), bytes.size(), &sent);
    if (code == CURLE_AGAIN) continue;
    ASSERT_EQ(code, CURLE_OK);
    bytes.remove_prefix(sent);
  }
}

// Everything the server sends until it closes the connection (or the wait runs out).
std::string receiveUntilClosed(CURL* easy) {
  std::string received;
  eventually([&] {
    char buffer[4096];
    std::size_t got = 0;
    const CURLcode code = curl_easy_recv(easy, buffer, sizeof buffer, &got);
    if (code == CURLE_AGAIN) return false;
    received.append(buffer, got);
    return code != CURLE_OK || got == 0;
  });
  return received;
}

}  // namespace

TEST(DiscoveryEmulatorRobustness, RefusesBadRequestsAndSurvivesBrokenClients) {
  orv::emulator::EmulatorOptions options;
  options.idleTimeout = std::chrono::milliseconds(300);
  options.maxHeaderBytes = 2048;
  auto emulator = startEmulator(options);
  ASSERT_TRUE(emulator);

  auto garbage = rawConnection(*emulator);
  sendAll(garbage.get(), "NOT AN HTTP REQUEST\r\n\r\n");
  EXPECT_EQ(receiveUntilClosed(garbage.get()).rfind("HTTP/1.1 400", 0), 0u);

  auto huge = rawConnection(*emulator);
  sendAll(huge.get(), "GET /ads/root/publickey HTTP/1.1\r\nHost: x\r\nX-Big: " + std::string(4096, 'a') + "\r\n\r\n");
  EXPECT_EQ(receiveUntilClosed(huge.get()).rfind("HTTP/1.1 431", 0), 0u);

  // Half a request, then the client gives up; and a connection that says nothing is closed for idleness.
  { sendAll(rawConnection(*emulator).get(), "GET /ads/root/publickey HTTP/1.1\r\nHo"); }
  auto idle = rawConnection(*emulator);
  EXPECT_EQ(receiveUntilClosed(idle.get()), "");

  auto session = trustingSession(*emulator);
  EXPECT_EQ(fetch(*session, emulator->baseURL() + "/ads/root/publickey")->status(), 200);
}
