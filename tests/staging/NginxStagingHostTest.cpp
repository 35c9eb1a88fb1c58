// An exported catalog on stock nginx, used by the client exactly as it uses the discovery service:
// over TLS and HTTP/2, with the answers' signatures checked against the signing CA.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/json.hpp>

#include <csignal>
#include <filesystem>
#include <set>
#include <sstream>

#include "EmulatorHarness.h"
#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvAppConfigSettingsRecord.h"
#include "OrvDiscoveryEmulator.h"
#include "TestSupport.h"

using namespace orv::test;

namespace {

constexpr const char* kNginx = "/usr/sbin/nginx";

bool acceptsConnections(std::uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

// nginx on an exported directory, kept in the foreground as our child so that it can be reaped; it is
// stopped the documented way, SIGQUIT to the PID in its pid file, however the test ends.
class NginxProcess {
 public:
  explicit NginxProcess(const std::filesystem::path& prefix) : prefix_(prefix) {
    const std::string prefixArgument = prefix.string(), errorLog = (prefix / "error.log").string();
    const char* argv[] = {kNginx,           "-p", prefixArgument.c_str(), "-c",   "nginx.conf", "-e",
                          errorLog.c_str(), "-g", "daemon off;",          nullptr};
    pid_ = fork();
    if (pid_ == 0) {
      // Should the test process die first, nginx goes with it rather than holding the port.
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      execv(kNginx, const_cast<char* const*>(argv));
      _exit(127);
    }
  }

  ~NginxProcess() {
    if (pid_ <= 0 || exited()) return;
    pid_t master = 0;
    std::istringstream(readFile((prefix_ / "nginx.pid").string())) >> master;
    kill(master > 0 ? master : pid_, SIGQUIT);
    if (!pollUntil([this] { return exited(); }, std::chrono::seconds(10))) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  bool exited() {
    if (reaped_) return true;
    reaped_ = waitpid(pid_, nullptr, WNOHANG) == pid_;
    return reaped_;
  }

  bool waitUntilAccepting(std::uint16_t port) {
    return pollUntil([&] { return exited() || acceptsConnections(port); }, std::chrono::seconds(10)) && !exited();
  }

 private:
  std::filesystem::path prefix_;
  pid_t pid_ = -1;
  bool reaped_ = false;
};

// Serves an exported catalog from nginx on a free loopback port, with the discovery hosts pointed at it.
class NginxStagingHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kNginx, X_OK) != 0) GTEST_SKIP() << kNginx << " is not installed (Debian's nginx package provides it)";
    std::string error;
    ASSERT_TRUE(orv::emulator::generateMaterial(material.path().string(), &error)) << error;
  }

  // The emulator's demo catalog unless another is given.
  void serve(std::optional<std::string> catalogJSON = std::nullopt) {
    const orv::emulator::ExportOptions options{.materialDir = material.path().string(),
                                               .catalogJSON = std::move(catalogJSON),
                                               .port = orv::emulator::freeLoopbackPort()};
    ASSERT_NE(options.port, 0);
    std::string error;
    ASSERT_TRUE(orv::emulator::exportCatalog(options, out.path().string(), &error)) << error;
    nginx = std::make_unique<NginxProcess>(out.path());
    ASSERT_TRUE(nginx->waitUntilAccepting(options.port)) << readFile(out.file("error.log"));
    hosts.emplace("127.0.0.1:" + std::to_string(options.port));
  }

  std::shared_ptr<OrvAppConfigService> makeService(bool trustSigningCA) {
    OrvCurlURLSessionConfiguration configuration;
    configuration.caFile = material.file(orv::emulator::kTLSCAFile);
    OrvSecurityUtilsService::Configuration security;
    if (trustSigningCA) {
      security.trustAnchors = OrvSecurityUtilsService::loadCertificatesFromPEMFile(material.file(orv::emulator::kSigningCAFile))
                                  .value_or(std::vector<OrvCertificateRef>{});
      EXPECT_FALSE(security.trustAnchors.empty());
    }
    return OrvAppConfigService::initWithURLSession(OrvCurlURLSession::create(configuration),
                                                   std::make_shared<OrvHttpHeaderProviderService>(),
                                                   OrvSecurityUtilsService::create(security), nullptr);
  }

  std::vector<std::string> accessLog() const {
    std::istringstream log(readFile(out.file("access.log")));
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);) lines.push_back(line);
    return lines;
  }

  TemporaryDirectory material, out;
  std::unique_ptr<NginxProcess> nginx;
  std::optional<DiscoveryHostsOverride> hosts;
};

}  // namespace

TEST_F(NginxStagingHostTest, ClientDiscoversAndRetrievesSettingsFromAnExportedCatalogOverHTTP2) {
  ASSERT_NO_FATAL_FAILURE(serve());
  // Static files cannot be stamped per request: their validity was fixed at export.
  const auto answer = boost::json::parse(readFile(out.file("root/ads/root/domain/example.com/answer.json"))).as_object();
  EXPECT_EQ(answer.at("exp").to_number<std::int64_t>() - answer.at("iat").to_number<std::int64_t>(), 30 * 24 * 3600 + 60);
  auto service = makeService(/*trustSigningCA=*/true);

  // The domain as a user may type it: nginx has to match it ignoring case, as the emulator does.
  const auto discovered = discover(*service, "user@Example.COM");
  EXPECT_EQ(discovered.status, 0u) << readFile(out.file("access.log"));
  ASSERT_TRUE(discovered.result);
  EXPECT_EQ(discovered.result->domain()->name(), "example.com");
  EXPECT_EQ(discovered.result->kaleth()->serviceUrls()->size(), 2u);

  const auto storeURL = *OrvURL::URLWithString("https://store.example.com/Store");
  const auto macos = retrieve(*service, {storeURL, *OrvURL::URLWithString("https://apps.example.com/Store")}, std::nullopt,
                              OrvAppConfigPlatformMacOS);
  EXPECT_EQ(macos.status, 0u);
  ASSERT_TRUE(macos.result);
  ASSERT_EQ(macos.result->size(), 2u);
  EXPECT_EQ(macos.result->at(storeURL)->kaleth()->name(), "Example Store");

  const auto beta = retrieve(*service, {storeURL}, "beta");
  EXPECT_EQ(beta.status, 0u);
  ASSERT_TRUE(beta.result && beta.result->contains(storeURL));
  EXPECT_EQ(beta.result->at(storeURL)->settingsChannel()->channelName(), "beta");

  // Every request went over HTTP/2, the certificate fetch included.
  const auto lines = accessLog();
  EXPECT_GE(lines.size(), 5u);
  for (const auto& line : lines) EXPECT_NE(line.find(" HTTP/2.0 \"GET "), std::string::npos) << line;
  const auto requested = [&](std::string_view path) {
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.find(path) != std::string::npos; });
  };
  EXPECT_TRUE(requested("/ads/root/publickey"));
  EXPECT_TRUE(requested("/channel/beta HTTP/2.0\" 200"));
}

// A burst of stores, more than one connection's streams, asked twice on one session: everything rides
// one TLS connection, the second request included.
TEST_F(NginxStagingHostTest, ManyStoresRepeatedShareOneConnection) {
  constexpr std::size_t kStores = 300;
  boost::json::object stores;
  OrvAppConfigStoreURLSet urls;
  for (std::size_t i = 0; i < kStores; ++i) {
    const std::string name = "https://s" + std::to_string(i) + ".example.com:443/Store";
    boost::json::object answer;
    answer["kaleth"] = boost::json::parse(
        R"({"name": "Store", "appSettings": {"ios": [{"category": "General", "settings": [{"name": "A", "value": 1}]}]}})");
    answer["url"] = boost::json::object{{"name", name}};
    stores[name] = boost::json::object{{"ios", std::move(answer)}};
    urls.insert(*OrvURL::URLWithString(name));
  }
  ASSERT_NO_FATAL_FAILURE(
      serve(boost::json::serialize(boost::json::object{{"domains", boost::json::object{}}, {"stores", stores}})));
  auto service = makeService(/*trustSigningCA=*/false);
  for (int round = 0; round < 2; ++round) {
    const auto settings = retrieve(*service, urls, std::nullopt, 0, std::chrono::seconds(60));
    EXPECT_EQ(settings.status, 0u);
    EXPECT_EQ(settings.result.value_or(OrvAppConfigStoreSettingsDictionary{}).size(), kStores);
  }

  std::set<std::string> connections;
  const auto lines = accessLog();
  for (const auto& line : lines) connections.insert(line.substr(line.rfind("connection=")));
  EXPECT_EQ(lines.size(), 2u * (kStores + 1));
  EXPECT_EQ(connections.size(), 1u) << "TLS connections opened";
}
