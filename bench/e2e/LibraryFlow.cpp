// The library's end-to-end flows against nginx serving the exported catalog, as a host runs them:
// a session, a service with the signing CA as its trust anchor, the request, and its completion
// delivered on the main queue, which this thread drains. One JSON line per run on stdout.
#include "E2ECommon.h"
#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvAppConfigService.h"
#include "OrvCurlURLSession.h"
#include "OrvMainQueue.h"
#include "OrvSecurityUtilsService.h"

namespace {

using orv::e2e::Options;

class Client {
 public:
  Client(const Options& options, const std::vector<OrvCertificateRef>& anchors) {
    OrvCurlURLSessionConfiguration configuration;
    configuration.caFile = options.caFile;
    session_ = OrvCurlURLSession::create(configuration);
    OrvSecurityUtilsService::Configuration securityConfiguration;
    securityConfiguration.trustAnchors = anchors;
    service_ = OrvAppConfigService::initWithURLSession(session_, std::make_shared<OrvHttpHeaderProviderService>(),
                                                       OrvSecurityUtilsService::create(securityConfiguration), nullptr);
  }

  // Releases the service before its session, as a host tearing down would.
  ~Client() {
    service_.reset();
    session_.reset();
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool discover(const std::string& input, std::size_t expectedStores) {
    bool done = false, ok = false;
    service_->asyncStartAutodiscoveryForUserInput(input, 0, [&](auto status, auto record, auto) {
      const auto* urls = record && record->kaleth() ? &record->kaleth()->serviceUrls() : nullptr;
      ok = status == 0 && urls && *urls && (*urls)->size() == expectedStores;
      done = true;
    });
    return OrvMainQueue::runUntil([&] { return done; }, std::chrono::seconds(60)) && ok;
  }

  bool settings(const OrvAppConfigStoreURLSet& stores) {
    bool done = false, ok = false;
    service_->asyncStartSettingsRetrievalForStoreUrls(stores, 0, 0, [&](auto status, auto settings, auto) {
      ok = status == 0 && settings && settings->size() == stores.size();
      done = true;
    });
    return OrvMainQueue::runUntil([&] { return done; }, std::chrono::seconds(60)) && ok;
  }

 private:
  std::shared_ptr<OrvCurlURLSession> session_;
  std::shared_ptr<OrvAppConfigService> service_;
};

}  // namespace

int main(int argc, char** argv) {
  std::string error;
  const auto parsed = Options::parse(argc, argv, &error);
  if (!parsed) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 64;
  }
  const Options& options = *parsed;
  std::vector<OrvCertificateRef> anchors;
  if (!options.anchorsFile.empty()) {
    anchors = OrvSecurityUtilsService::loadCertificatesFromPEMFile(options.anchorsFile).value_or(anchors);
    if (anchors.empty()) {
      std::fprintf(stderr, "no certificate in %s\n", options.anchorsFile.c_str());
      return 64;
    }
  }
  OrvAppConfigDiscoveryHosts::setProductionHost(options.host);

  const std::string input = "user@" + orv::e2e::domainForStores(options.stores);
  OrvAppConfigStoreURLSet stores;
  for (int i = 0; i < options.stores; ++i) stores.insert(*OrvURL::URLWithString(orv::e2e::storeURL(i, false)));

  std::unique_ptr<Client> client;
  if (!options.fresh()) client = std::make_unique<Client>(options, anchors);
  const auto flow = [&] {
    if (options.fresh()) client = std::make_unique<Client>(options, anchors);
    return options.settings() ? client->settings(stores) : client->discover(input, std::size_t(options.stores));
  };
  const auto after = [&] {
    if (options.fresh()) client.reset();
  };
  const auto measurement = orv::e2e::measure(options, flow, after, &error);
  if (!measurement) {
    std::fprintf(stderr, "library: %s\n", error.c_str());
    return 1;
  }
  orv::e2e::printReport("library", options, *measurement);
  client.reset();
  OrvAppConfigDiscoveryHosts::setProductionHost(std::nullopt);
  return 0;
}
