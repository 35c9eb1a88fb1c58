// The emulator's own contract, where the client's tests do not reach it: what it refuses to load or to
// start with, how strictly it matches request paths, and that misbehaving clients cannot break it.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "EmulatorTestSupport.h"
#include "OrvCurlURLSession.h"
#include "OrvSDKStringUtils.h"

using namespace orv::test;
using orv::emulator::DiscoveryEmulator;
using orv::emulator::FaultSpec;

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
      {R"({"domains": []})", "catalog: /domains: expected an object"},
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
  std::string error;
  EXPECT_FALSE(
      DiscoveryEmulator::start({.materialDir = generatedMaterialDir(), .catalogFile = scratch.file("catalog.json")}, &error));
  EXPECT_EQ(error, cases[0].second);

  // The schema that documents this shape is JSON itself.
  boost::system::error_code ec;
  const auto schema = boost::json::parse(readFile(ORV_CATALOG_SCHEMA), ec);
  ASSERT_FALSE(ec) << ec.message();
  EXPECT_EQ(schema.at("$schema"), "https://json-schema.org/draft/2020-12/schema");
}

TEST(DiscoveryEmulatorOptions, RefusesWhatItCannotServe) {
  std::string error;
  EXPECT_FALSE(orv::emulator::generateMaterial("/proc/orv-cannot-write-here", &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(DiscoveryEmulator::start({.materialDir = generatedMaterialDir(), .algorithm = "HS256"}, &error));
  EXPECT_NE(error.find("HS256"), std::string::npos);
  EXPECT_FALSE(startEmulator()->setFault("/p", {.status = 42}));

  // Faults given on the command line add up per path; a colon inside the path or the body splits neither.
  std::map<std::string, FaultSpec> faults;
  for (const char* argument :
       {"/ads/root/publickey:status=500", "/ads/root/publickey:delay=250", "/a:b/c:body={\"x\":\"1:2\"}", "/p:nosig"}) {
    EXPECT_TRUE(orv::emulator::addFaultArgument(faults, argument)) << argument;
  }
  ASSERT_EQ(faults.size(), 3u);
  EXPECT_EQ(faults["/ads/root/publickey"].status, 500u);
  EXPECT_EQ(faults["/ads/root/publickey"].delay, std::chrono::milliseconds(250));
  EXPECT_EQ(faults["/a:b/c"].body, "{\"x\":\"1:2\"}");
  EXPECT_TRUE(faults["/p"].omitSignature);
  for (const char* bad : {"/p", "/p:status=99", "/p:status=abc", "p:drop", "/p:explode", "/p:body=@/nonexistent/file"}) {
    error.clear();
    EXPECT_FALSE(orv::emulator::addFaultArgument(faults, bad, &error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

// The client's tests only ever ask for what exists; a lenient emulator would let a client that builds
// its URLs wrongly pass them.
TEST(DiscoveryEmulatorEndpoints, MatchesPathsStrictly) {
  auto emulator = startEmulator();
  ASSERT_TRUE(emulator);
  OrvCurlURLSessionConfiguration configuration;
  configuration.caFile = emulator->tlsCAFile();
  auto session = OrvCurlURLSession::create(configuration);
  const auto settings = [](const std::string& store, const char* os, bool padded = false) {
    auto encoded = *OrvBase64URLEncodedStringFromString(store);
    if (padded) encoded.append((4 - encoded.size() % 4) % 4, '=');
    return "/ads/root/url/" + encoded + "/product/kaleth/os/" + os;
  };
  const std::string store = "https://store.example.com:443/Store";
  const std::pair<std::string, std::int64_t> cases[] = {
      // Domains match ignoring case, percent-decoded; store URLs come in base64url with or without padding.
      {"/ads/root/domain/Example%2ECOM/", 200},
      {settings(store, "macos", true) + "/channel/beta", 200},
      {"/ads/root/domain/unknown.example/", 404},
      {"/ads/root/domain/example.com", 404},
      {settings("https://store.example.com/Store", "ios"), 404},
      {settings(store, "ios") + "/channel/gamma", 404},
      {settings(store, "android"), 404},
      {"/ads/root/publickey/extra", 404},
      {"/", 404},
      {"/ads/root/url/not*base64/product/kaleth/os/ios", 400},
  };
  for (const auto& [path, status] : cases) {
    auto outcome = fetch(*session, emulator->baseURL() + path);
    EXPECT_EQ(outcome->status(), status) << path;
    EXPECT_EQ(outcome->response && outcome->response->valueForHTTPHeaderField("Varnel-Signature"), status == 200) << path;
  }
  auto wrongMethod = requestFor(emulator->baseURL() + "/ads/root/publickey");
  wrongMethod.setHTTPMethod("DELETE");
  EXPECT_EQ(fetch(*session, wrongMethod)->status(), 405);
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

// Everything the server sends until it closes the connection; nullopt when it keeps it open.
std::optional<std::string> receiveUntilClosed(CURL* easy) {
  std::string received;
  const bool closed = pollUntil(
      [&] {
        char buffer[4096];
        std::size_t got = 0;
        const CURLcode code = curl_easy_recv(easy, buffer, sizeof buffer, &got);
        if (code == CURLE_AGAIN) return false;
        received.append(buffer, got);
        return code != CURLE_OK || got == 0;
      },
      std::chrono::seconds(5));
  return closed ? std::optional(received) : std::nullopt;
}

}  // namespace

TEST(DiscoveryEmulatorRobustness, RefusesBadRequestsAndSurvivesBrokenClients) {
  auto emulator = startEmulator({.idleTimeout = std::chrono::milliseconds(300), .maxHeaderBytes = 2048});
  ASSERT_TRUE(emulator);
  // What the client sends, and how the emulator's answer begins before it closes the connection; a
  // connection that says nothing is closed for idleness.
  const std::pair<std::string, std::string> cases[] = {
      {"NOT AN HTTP REQUEST\r\n\r\n", "HTTP/1.1 400"},
      {"GET /ads/root/publickey HTTP/1.1\r\nHost: x\r\nX-Big: " + std::string(4096, 'a') + "\r\n\r\n", "HTTP/1.1 431"},
      {"", ""},
  };
  for (const auto& [request, answer] : cases) {
    auto connection = rawConnection(*emulator);
    sendAll(connection.get(), request);
    const auto received = receiveUntilClosed(connection.get());
    ASSERT_TRUE(received) << "left open: " << request.substr(0, 30);
    EXPECT_EQ(answer.empty() ? *received : received->substr(0, answer.size()), answer) << request.substr(0, 30);
  }
  // Half a request, then the client gives up.
  { sendAll(rawConnection(*emulator).get(), "GET /ads/root/publickey HTTP/1.1\r\nHo"); }

  OrvCurlURLSessionConfiguration configuration;
  configuration.caFile = emulator->tlsCAFile();
  EXPECT_EQ(fetch(*OrvCurlURLSession::create(configuration), emulator->baseURL() + "/ads/root/publickey")->status(), 200);
}
