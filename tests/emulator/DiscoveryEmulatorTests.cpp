#include <curl/curl.h>
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "EmulatorTestSupport.h"
#include "OrvCertificate.h"
#include "OrvCurlURLSession.h"
#include "OrvSDKStringUtils.h"
#include "OrvSecurityUtilsService.h"
#include "OrvString.h"

using namespace orv::test;
using orv::emulator::DiscoveryEmulator;
using orv::emulator::FaultSpec;

namespace {

constexpr const char* kIssuer = "Varnel Systems, Inc.";
const std::string kStore = "https://store.example.com:443/Store";

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

// Expects a signature header of exactly two pieces that the client's own verifier accepts for the body.
void expectSigned(TaskOutcome& outcome, const std::string& certificatePEM) {
  ASSERT_EQ(outcome.status(), 200);
  const auto signature = outcome.response->valueForHTTPHeaderField("Varnel-Signature");
  ASSERT_TRUE(signature && outcome.data);
  const auto pieces = orv::detail::componentsSeparatedByString(*signature, ".");
  ASSERT_EQ(pieces.size(), 2u) << *signature;
  AdditionalCertificateValidationOptions options;
  options.setRequiredIssuerName(kIssuer);
  auto service = OrvSecurityUtilsService::create();
  EXPECT_EQ(service
                ->validateJWT(*outcome.data, pieces[0], pieces[1],
                              service->createCertificateFromCertificateContent(certificatePEM), &options)
                .first,
            0);
}

}  // namespace

TEST(DiscoveryEmulatorMaterial, GeneratesCertificatesWithTheRequiredNames) {
  const std::string& dir = generatedMaterialDir();
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
  FaultSpec invalid;
  invalid.status = 42;
  EXPECT_FALSE(emulator->setFault("/p", invalid));
  error.clear();
  EXPECT_FALSE(emulator->setCatalogJSON(R"({"domains": []})", &error));
  EXPECT_FALSE(error.empty());
}

TEST(DiscoveryEmulatorCatalog, RefusesMistypedCatalogsNamingTheField) {
  auto emulator = startEmulator();
  ASSERT_TRUE(emulator);
  const std::pair<const char*, const char*> cases[] = {
      {R"({"stores": {"https://store.example.com:443/Store": {"ios": {"kaleth": []}}}})",
       "catalog: /stores/https:~1~1store.example.com:443~1Store/ios/kaleth: expected an object"},
      {R"({"domains": {"a~b.example": {"kaleth": {"serviceUrls": ["https://store.a.example"]}}}})",
       "catalog: /domains/a~0b.example/kaleth/serviceUrls/0: expected an object"},
      {R"({"stores": {"s": {"channels": {"beta": {"ios": {"settingsChannel": "beta"}}}}}})",
       "catalog: /stores/s/channels/beta/ios/settingsChannel: expected an object"},
      {R"({"domains": {"x.example": {"exp": "1700000000"}}})", "catalog: /domains/x.example/exp: expected a number"},
      // Mistakes that would otherwise only show as a 404 later.
      {R"({"stores": {"s": {"iOS": {}}}})", "catalog: /stores/s/iOS: unexpected member (allowed: ios, macos, channels)"},
      {R"({"domain": {}})", "catalog: /domain: unexpected member (allowed: $schema, domains, stores)"},
      {R"({"stores": {"s": {"channels": {"": {"ios": {}}}}}})", "catalog: /stores/s/channels/: expected a non-empty name"},
      {R"({"domains": {"Example.com": {}, "example.COM": {}}})",
       "catalog: /domains/example.COM: the same domain as an earlier one (domains ignore letter case)"},
      {"[]", "catalog: expected an object"},
      {"{\"domains\": {\n  \"x\": }}", "catalog: not JSON (line 2, column 8): syntax error"},
  };
  for (const auto& [catalog, expected] : cases) {
    std::string error;
    EXPECT_FALSE(emulator->setCatalogJSON(catalog, &error)) << catalog;
    EXPECT_EQ(error, expected) << catalog;
  }

  // The same check when the emulator starts from a file.
  TemporaryDirectory scratch;
  writeFile(scratch.file("catalog.json"), cases[0].first);
  orv::emulator::EmulatorOptions options;
  options.materialDir = generatedMaterialDir();
  options.catalogFile = scratch.file("catalog.json");
  std::string error;
  EXPECT_FALSE(DiscoveryEmulator::start(options, &error));
  EXPECT_EQ(error, cases[0].second);

  // The schema that documents this shape is JSON itself.
  boost::system::error_code ec;
  const auto schema = boost::json::parse(readFile(ORV_CATALOG_SCHEMA), ec);
  ASSERT_FALSE(ec) << ec.message();
  EXPECT_EQ(schema.at("$schema"), "https://json-schema.org/draft/2020-12/schema");
}

TEST(DiscoveryEmulatorEndpoints, AnswersAndRefusals) {
  auto emulator = startEmulator();
  ASSERT_TRUE(emulator);
  auto session = trustingSession(*emulator);
  const std::string base = emulator->baseURL();
  const std::string pem = emulator->signingCertificatePEM();

  // Domains match case-insensitively and percent-decoded; store URLs in base64url with or without padding.
  expectSigned(*fetch(*session, base + "/ads/root/domain/Example%2ECOM/"), pem);
  expectSigned(*fetch(*session, base + settingsPath(kStore, "ios")), pem);
  expectSigned(*fetch(*session, base + settingsPath(kStore, "macos", true) + "/channel/beta"), pem);

  for (const std::string& path :
       {std::string("/ads/root/domain/unknown.example/"), std::string("/ads/root/domain/example.com"),
        settingsPath("https://store.example.com/Store", "ios"), settingsPath(kStore, "ios") + "/channel/gamma",
        settingsPath(kStore, "android"), std::string("/ads/root/publickey/extra"), std::string("/")}) {
    auto missing = fetch(*session, base + path);
    EXPECT_EQ(missing->status(), 404) << path;
    EXPECT_FALSE(missing->response && missing->response->valueForHTTPHeaderField("Varnel-Signature")) << path;
  }
  EXPECT_EQ(fetch(*session, base + "/ads/root/url/not*base64/product/kaleth/os/ios")->status(), 400);
  auto wrongMethod = requestFor(base + "/ads/root/publickey");
  wrongMethod.setHTTPMethod("DELETE");
  EXPECT_EQ(fetch(*session, wrongMethod)->status(), 405);
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
  pollUntil([&] {
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
