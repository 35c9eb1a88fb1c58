// An exported catalog on stock nginx, used by the client exactly as it uses the discovery service:
// over TLS and HTTP/2, with the answers' signatures checked against the signing CA.
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/json.hpp>

#include <atomic>
#include <csignal>
#include <set>
#include <sstream>

#include "EmulatorHarness.h"

using namespace orv::test;

namespace {

constexpr const char* kNginx = "/usr/sbin/nginx";

// nginx kept in the foreground as our child so that it can be reaped, and stopped the documented way
// (SIGQUIT to its master, which in the foreground is the child itself) however the test ends.
struct NginxProcess {
  explicit NginxProcess(const TemporaryDirectory& prefix) : pid(fork()) {
    if (pid != 0) return;
    // Should the test process die first, nginx goes with it rather than holding the port.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    execl(kNginx, kNginx, "-p", prefix.path().c_str(), "-c", "nginx.conf", "-e", prefix.file("error.log").c_str(), "-g",
          "daemon off;", nullptr);
    _exit(127);
  }
  ~NginxProcess() {
    if (exited()) return;
    kill(pid, SIGQUIT);
    if (!pollUntil([this] { return exited(); }, std::chrono::seconds(10))) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  bool exited() { return reaped = reaped || pid <= 0 || waitpid(pid, nullptr, WNOHANG) == pid; }

  const pid_t pid;
  bool reaped = false;
};

}  // namespace

// Discovery, then a burst of stores (more than one connection's streams) asked twice on one session:
// everything rides one TLS connection over HTTP/2, the certificate fetches included; streams the
// server does not allow yet wait on that connection rather than open others, and a server that ends
// connections after so many requests gets one new connection each time, never several at once.
struct ServerBehaviour {
  const char* name;
  const char* directives;  // added to the server block
  std::size_t requestsPerConnection;
};

void PrintTo(const ServerBehaviour& behaviour, std::ostream* out) { *out << behaviour.name; }

class NginxStagingHostTest : public ::testing::TestWithParam<ServerBehaviour> {};

INSTANTIATE_TEST_SUITE_P(Servers, NginxStagingHostTest,
                         ::testing::Values(ServerBehaviour{"AsExported", "", 1000},
                                           ServerBehaviour{"OneStreamAtATime", "http2_max_concurrent_streams 1;", 1000},
                                           ServerBehaviour{"ClosesEvery100Requests", "keepalive_requests 100;", 100}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(NginxStagingHostTest, DiscoveryAndManyStoresRideOneHTTP2ConnectionAtATime) {
  if (access(kNginx, X_OK) != 0) GTEST_SKIP() << kNginx << " is not installed (Debian's nginx package provides it)";
  constexpr std::size_t kStores = 300;
  TemporaryDirectory material, out;
  ASSERT_TRUE(orv::emulator::generateMaterial(material.path().string()));
  boost::json::object stores;
  OrvAppConfigStoreURLSet urls;
  for (std::size_t i = 0; i < kStores; ++i) {
    const std::string name = "https://s" + std::to_string(i) + ".example.com:443/Store";
    auto answer = boost::json::parse(
        R"({"kaleth": {"name": "Store", "appSettings": {"ios": [{"category": "General", "settings": [{"name": "A", "value": 1}]}]}}})");
    answer.as_object()["url"] = boost::json::object{{"name", name}};
    stores[name] = boost::json::object{{"ios", std::move(answer)}};
    urls.insert(*OrvURL::URLWithString(name));
  }
  const auto domains = boost::json::parse(
      R"({"example.com": {"domain": {"name": "example.com"}, "kaleth": {"serviceUrls": [{"url": "https://s0.example.com/Store"}]}}})");
  const orv::emulator::ExportOptions options{
      .materialDir = material.path().string(),
      .catalogJSON = boost::json::serialize(boost::json::object{{"domains", domains}, {"stores", stores}}),
      .port = orv::emulator::freeLoopbackPort()};
  std::string error;
  ASSERT_TRUE(orv::emulator::exportCatalog(options, out.path().string(), &error)) << error;
  std::string conf = readFile(out.file("nginx.conf"));
  conf.replace(conf.find("ssl http2;") + 10, 0, std::string("\n    ") + GetParam().directives);
  writeFile(out.file("nginx.conf"), conf);
  NginxProcess nginx(out);
  // nginx writes its pid file once its sockets listen.
  ASSERT_TRUE(
      pollUntil([&] { return nginx.exited() || readFile(out.file("nginx.pid")).ends_with('\n'); }, std::chrono::seconds(10)) &&
      !nginx.exited())
      << readFile(out.file("error.log"));
  const DiscoveryHostsOverride hosts("127.0.0.1:" + std::to_string(options.port));

  OrvSecurityUtilsService::Configuration security;
  security.trustAnchors = OrvSecurityUtilsService::loadCertificatesFromPEMFile(material.file(orv::emulator::kSigningCAFile))
                              .value_or(std::vector<OrvCertificateRef>{});
  ASSERT_FALSE(security.trustAnchors.empty());
  const auto session = OrvCurlURLSession::create({.caFile = material.file(orv::emulator::kTLSCAFile)});
  // An origin that never answers says nothing about protocols: it must not keep the limit of six.
  std::atomic<bool> refused{false};
  session
      ->dataTaskWithRequest(OrvURLRequest(*OrvURL::URLWithString("https://127.0.0.1:1/")),
                            [&](auto, auto, auto) { refused = true; })
      ->resume();
  ASSERT_TRUE(pollUntil([&] { return refused.load(); }));
  const auto service = OrvAppConfigService::initWithURLSession(session, std::make_shared<OrvHttpHeaderProviderService>(),
                                                               OrvSecurityUtilsService::create(security), nullptr);
  // The domain as a user may type it: nginx has to match it ignoring case, as the emulator does.
  const auto discovered = discover(*service, "user@Example.COM");
  EXPECT_EQ(discovered.status, 0u) << readFile(out.file("access.log"));
  for (int round = 0; round < 2; ++round) {
    const auto settings = retrieve(*service, urls, std::nullopt, 0, std::chrono::seconds(60));
    EXPECT_EQ(settings.status, 0u);
    EXPECT_EQ(settings.result.value_or(OrvAppConfigStoreSettingsDictionary{}).size(), kStores);
  }

  std::istringstream log(readFile(out.file("access.log")));
  std::set<std::string> connections;
  std::size_t requests = 0;
  for (std::string line; std::getline(log, line); ++requests) {
    EXPECT_NE(line.find(" HTTP/2.0 \"GET "), std::string::npos) << line;
    connections.insert(line.substr(line.rfind("connection=")));
  }
  EXPECT_EQ(requests, 2u + 2u * (kStores + 1));
  const std::size_t perConnection = GetParam().requestsPerConnection;
  EXPECT_EQ(connections.size(), (requests + perConnection - 1) / perConnection) << "TLS connections opened";
}
