#include "AppConfigCommands.h"

#include <fmt/format.h>

#include <boost/json.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <sstream>

#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvAppConfigService.h"
#include "OrvAppConfigSettingsRecord+JSON.h"
#include "OrvAppConfigSettingsRecord.h"
#include "OrvCurlURLSession.h"
#include "OrvDiscoveryEmulator.h"
#include "OrvMainQueue.h"
#include "OrvSecurityUtilsService.h"

namespace orv::cli {
namespace {

// Streams log lines to stderr when asked, and remembers the last failure so that a result without an
// error value can still say why.
class CommandLogger : public OrvSdkLoggerDelegate {
 public:
  explicit CommandLogger(bool verbose) : verbose_(verbose) {}
  void logWithModule(std::string_view module, std::int64_t logLevel, std::string_view, std::string_view, std::int64_t,
                     std::string_view message) override {
    std::lock_guard lock(mutex_);
    if (verbose_) {
      fmt::print(stderr, "[{}] {} {}\n", module, logLevel == OrvSdkLogLevelError ? "error" : "info ", message);
    }
    if (logLevel == OrvSdkLogLevelError || message.starts_with("Failed")) lastFailure_ = std::string(message);
  }
  std::optional<std::string> lastFailure() const {
    std::lock_guard lock(mutex_);
    return lastFailure_;
  }

 private:
  bool verbose_;
  mutable std::mutex mutex_;
  std::optional<std::string> lastFailure_;
};

boost::json::value jsonString(const std::optional<std::string>& text) {
  return text ? boost::json::value(*text) : boost::json::value(nullptr);
}

boost::json::value jsonDate(const std::optional<OrvDate>& date) {
  return date ? boost::json::value(OrvDateISO8601String(*date)) : boost::json::value(nullptr);
}

boost::json::value jsonURLList(const std::optional<OrvAppConfigURLList>& list) {
  if (!list) return nullptr;
  boost::json::array array;
  for (const auto& entry : *list) {
    array.push_back(boost::json::object{
        {"url", entry && entry->url() ? boost::json::value(entry->url()->absoluteString()) : boost::json::value(nullptr)}});
  }
  return array;
}

boost::json::value recordJSON(const OrvAppConfigAutoDiscoverRecord& record) {
  boost::json::object json;
  json["domain"] = record.domain() ? boost::json::value(boost::json::object{{"name", jsonString(record.domain()->name())}})
                                   : boost::json::value(nullptr);
  if (const auto& kaleth = record.kaleth()) {
    json["kaleth"] = boost::json::object{{"serviceUrls", jsonURLList(kaleth->serviceUrls())},
                                         {"allowedWebStoreUrls", jsonURLList(kaleth->allowedWebStoreUrls())}};
  } else {
    json["kaleth"] = nullptr;
  }
  json["notValidBefore"] = jsonDate(record.notValidBefore());
  json["notValidAfter"] = jsonDate(record.notValidAfter());
  return json;
}

boost::json::value errorJSON(const std::optional<OrvError>& error) {
  if (!error) return nullptr;
  return boost::json::object{
      {"domain", error->domain()}, {"code", error->code()}, {"description", error->localizedDescription()}};
}

void printRecord(const OrvAppConfigAutoDiscoverRecord& record) {
  fmt::print("domain: {}\n", record.domain() && record.domain()->name() ? *record.domain()->name() : "(none)");
  const auto printList = [](const char* title, const std::optional<OrvAppConfigURLList>& list) {
    fmt::print("{}:\n", title);
    if (!list || list->empty()) fmt::print("  (none)\n");
    if (list) {
      for (const auto& entry : *list) fmt::print("  {}\n", entry && entry->url() ? entry->url()->absoluteString() : "(no URL)");
    }
  };
  printList("service URLs", record.kaleth() ? record.kaleth()->serviceUrls() : std::nullopt);
  printList("allowed web-store URLs", record.kaleth() ? record.kaleth()->allowedWebStoreUrls() : std::nullopt);
  fmt::print("valid from {} to {}\n", record.notValidBefore() ? OrvDateISO8601String(*record.notValidBefore()) : "(unset)",
             record.notValidAfter() ? OrvDateISO8601String(*record.notValidAfter()) : "(unset)");
}

// Keeps the trace of the request that finished last; the tool runs one request at a time.
class TraceKeeper : public OrvAppConfigDiagnosticsDelegate {
 public:
  void didFinishRequestWithTrace(std::shared_ptr<const OrvAppConfigRequestTrace> trace) override { last = std::move(trace); }
  std::shared_ptr<const OrvAppConfigRequestTrace> last;
};

// Everything a command needs to talk to one discovery service.
struct Connection {
  std::shared_ptr<CommandLogger> logger;
  std::shared_ptr<TraceKeeper> traces;
  std::shared_ptr<OrvAppConfigService> service;
  bool explain = false;
};

// With --explain the trace goes to stdout after the result; with --json it is part of the object.
void explainLastRequest(const Connection& connection, bool json, boost::json::object* out) {
  const auto& trace = connection.traces->last;
  if (!trace) return;
  if (json && out) {
    (*out)["trace"] = boost::json::parse(trace->JSONString());
  } else if (connection.explain) {
    fmt::print("\n{}", trace->explanation());
  }
}

std::optional<Connection> connect(const ConnectionOptions& options) {
  Connection connection;
  connection.logger = std::make_shared<CommandLogger>(options.verbose);
  OrvAppConfigService::setLoggerDelegate(connection.logger);
  if (options.productionHost) OrvAppConfigDiscoveryHosts::setProductionHost(options.productionHost);
  if (options.stagingHost) OrvAppConfigDiscoveryHosts::setStagingHost(options.stagingHost);

  OrvCurlURLSessionConfiguration sessionConfiguration;
  sessionConfiguration.caFile = options.caFile;
  auto session = OrvCurlURLSession::create(sessionConfiguration);
  if (!session) {
    fmt::print(stderr, "cannot set up the HTTP session\n");
    return std::nullopt;
  }
  OrvSecurityUtilsService::Configuration securityConfiguration;
  if (options.trustAnchorFiles.empty()) {
    const auto defaults = OrvSecurityUtilsService::defaultTrustAnchors();
    if (defaults.problem) {
      fmt::print(stderr, "warning: {}\n", *defaults.problem);
    } else if (!defaults.anchors) {
      fmt::print(stderr,
                 "warning: no trust anchors: a signing certificate is accepted when its issuer merely carries the required "
                 "name; give --trust-anchor FILE or set ORV_APPCONFIG_TRUST_ANCHORS\n");
    }
  }
  for (const auto& file : options.trustAnchorFiles) {
    auto anchors = OrvSecurityUtilsService::loadCertificatesFromPEMFile(file);
    if (!anchors) {
      fmt::print(stderr, "--trust-anchor {}: no certificate could be read\n", file);
      return std::nullopt;
    }
    securityConfiguration.trustAnchors.insert(securityConfiguration.trustAnchors.end(), anchors->begin(), anchors->end());
  }
  connection.service = OrvAppConfigService::initWithURLSession(session, std::make_shared<OrvHttpHeaderProviderService>(),
                                                               OrvSecurityUtilsService::create(securityConfiguration), nullptr);
  if (!connection.service) return std::nullopt;
  connection.traces = std::make_shared<TraceKeeper>();
  connection.explain = options.explain;
  connection.service->setDiagnosticsDelegate(connection.traces);
  return connection;
}

struct DiscoveryOutcome {
  OrvAppConfigServiceCompletionStatus status = OrvAppConfigServiceCompletionStatusAutodiscoveryFailed;
  std::shared_ptr<OrvAppConfigAutoDiscoverRecord> record;
  std::optional<OrvError> error;
};

DiscoveryOutcome discover(OrvAppConfigService& service, const std::string& input, std::uint64_t hostType) {
  DiscoveryOutcome outcome;
  bool done = false;
  service.asyncStartAutodiscoveryForUserInput(input, hostType, [&](auto status, auto record, auto error) {
    outcome = {status, std::move(record), std::move(error)};
    done = true;
  });
  // Every request ends: the session times out transfers that stall.
  OrvMainQueue::runUntil([&] { return done; }, std::chrono::hours(1));
  return outcome;
}

int reportDiscovery(const DiscoveryOutcome& outcome, const Connection& connection, bool json) {
  const CommandLogger& logger = *connection.logger;
  const auto statusName = OrvAppConfigService::descriptionForCompletionStatus(outcome.status);
  if (json) {
    boost::json::object out{{"status", outcome.status}, {"statusName", statusName}};
    if (outcome.status == OrvAppConfigServiceCompletionStatusSuccess && outcome.record) {
      out["record"] = recordJSON(*outcome.record);
    } else {
      out["error"] = errorJSON(outcome.error);
    }
    explainLastRequest(connection, true, &out);
    fmt::print("{}\n", boost::json::serialize(out));
  } else {
    fmt::print("status: {} ({})\n", outcome.status, statusName);
    if (outcome.status == OrvAppConfigServiceCompletionStatusSuccess && outcome.record) printRecord(*outcome.record);
    explainLastRequest(connection, false, nullptr);
  }
  if (outcome.status != OrvAppConfigServiceCompletionStatusSuccess) {
    if (outcome.error) fmt::print(stderr, "error: {}\n", outcome.error->description());
    if (auto reason = logger.lastFailure()) fmt::print(stderr, "reason: {}\n", *reason);
  }
  return static_cast<int>(outcome.status);
}

struct SettingsOutcome {
  OrvAppConfigServiceCompletionStatus status = OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed;
  std::optional<OrvAppConfigStoreSettingsDictionary> settings;
  std::optional<OrvError> error;
};

SettingsOutcome retrieveSettings(OrvAppConfigService& service, const OrvAppConfigStoreURLSet& stores, std::uint64_t hostType,
                                 std::uint64_t platform, const std::optional<std::string>& channel) {
  SettingsOutcome outcome;
  bool done = false;
  auto block = [&](auto status, auto settings, auto error) {
    outcome = {status, std::move(settings), std::move(error)};
    done = true;
  };
  if (channel) {
    service.asyncStartSettingsRetrievalForStoreUrls(stores, hostType, platform, channel, block);
  } else {
    service.asyncStartSettingsRetrievalForStoreUrls(stores, hostType, platform, block);
  }
  OrvMainQueue::runUntil([&] { return done; }, std::chrono::hours(1));
  return outcome;
}

// Sorted by store URL, so that output and archives do not depend on hash order.
std::map<std::string, std::shared_ptr<OrvAppConfigSettingsRecord>> sortedSettings(
    const OrvAppConfigStoreSettingsDictionary& settings) {
  std::map<std::string, std::shared_ptr<OrvAppConfigSettingsRecord>> sorted;
  for (const auto& [url, record] : settings) sorted.emplace(url.absoluteString(), record);
  return sorted;
}

boost::json::object settingsJSON(const std::map<std::string, std::shared_ptr<OrvAppConfigSettingsRecord>>& settings) {
  boost::json::object json;
  for (const auto& [url, record] : settings) {
    json[url] = record ? boost::json::value(OrvAppConfigSettingsRecordJSONObject(*record)) : boost::json::value(nullptr);
  }
  return json;
}

bool writeArchive(const std::string& file, const std::map<std::string, std::shared_ptr<OrvAppConfigSettingsRecord>>& settings) {
  std::optional<OrvError> error;
  const auto data = OrvKeyedArchiver::archivedDataWithRootObject(settings, &error);
  if (!data) {
    fmt::print(stderr, "cannot archive the records: {}\n", error ? error->description() : std::string("unknown error"));
    return false;
  }
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << *data;
  if (!out.flush()) {
    fmt::print(stderr, "cannot write {}\n", file);
    return false;
  }
  return true;
}

int reportSettings(const SettingsOutcome& outcome, const Connection& connection, bool json) {
  const CommandLogger& logger = *connection.logger;
  const auto statusName = OrvAppConfigService::descriptionForCompletionStatus(outcome.status);
  const bool success = outcome.status == OrvAppConfigServiceCompletionStatusSuccess && outcome.settings;
  const auto sorted = success ? sortedSettings(*outcome.settings) : decltype(sortedSettings({})){};
  if (json) {
    boost::json::object out{{"status", outcome.status}, {"statusName", statusName}};
    if (success) {
      out["settings"] = settingsJSON(sorted);
    } else {
      out["error"] = errorJSON(outcome.error);
    }
    explainLastRequest(connection, true, &out);
    fmt::print("{}\n", boost::json::serialize(out));
  } else {
    fmt::print("status: {} ({})\n", outcome.status, statusName);
    for (const auto& [url, record] : sorted) {
      fmt::print("{}:\n{}\n", url, boost::json::serialize(OrvAppConfigSettingsRecordJSONObject(*record)));
    }
    explainLastRequest(connection, false, nullptr);
  }
  if (!success) {
    if (outcome.error) fmt::print(stderr, "error: {}\n", outcome.error->description());
    if (auto reason = logger.lastFailure()) fmt::print(stderr, "reason: {}\n", *reason);
  }
  return static_cast<int>(outcome.status);
}

}  // namespace

int runDiscover(const std::string& input, const ConnectionOptions& options) {
  auto connection = connect(options);
  if (!connection) return kExitSoftware;
  const auto outcome = discover(*connection->service, input, options.hostType);
  return reportDiscovery(outcome, *connection, options.json);
}

int runDemo(bool json, bool verbose, bool explain) {
  const auto material = std::filesystem::temp_directory_path() / fmt::format("orv-appconfig-demo-{}", std::random_device{}());
  struct Cleanup {
    std::filesystem::path path;
    ~Cleanup() {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
  } cleanup{material};

  std::string error;
  if (!orv::emulator::generateMaterial(material.string(), &error)) {
    fmt::print(stderr, "cannot generate demo material: {}\n", error);
    return kExitSoftware;
  }
  orv::emulator::EmulatorOptions emulatorOptions;
  emulatorOptions.materialDir = material.string();
  auto emulator = orv::emulator::DiscoveryEmulator::start(emulatorOptions, &error);
  if (!emulator) {
    fmt::print(stderr, "cannot start the discovery emulator: {}\n", error);
    return kExitSoftware;
  }
  if (!json) fmt::print("discovery emulator listening on {}\n", emulator->baseURL());

  ConnectionOptions options;
  options.productionHost = emulator->hostAndPort();
  options.stagingHost = emulator->hostAndPort();
  options.caFile = emulator->tlsCAFile();
  options.trustAnchorFiles = {(material / orv::emulator::kSigningCAFile).string()};
  options.json = json;
  options.verbose = verbose;
  options.explain = explain;
  auto connection = connect(options);
  if (!connection) return kExitSoftware;

  const std::string input = "demo.user@example.com";
  if (!json) fmt::print("auto-discovery for {}\n", input);
  const auto outcome = discover(*connection->service, input, 0);
  const int status = reportDiscovery(outcome, *connection, json);
  if (status != 0 || !outcome.record || !outcome.record->kaleth()) return status;

  // Then the settings of every store the discovery named.
  OrvAppConfigStoreURLSet stores;
  if (const auto& services = outcome.record->kaleth()->serviceUrls()) {
    for (const auto& entry : *services) {
      if (entry && entry->url()) stores.insert(*entry->url());
    }
  }
  if (stores.empty()) return status;
  if (!json) fmt::print("\nsettings of {} discovered store(s) for ios\n", stores.size());
  const auto settings = retrieveSettings(*connection->service, stores, 0, 0, std::nullopt);
  return reportSettings(settings, *connection, json);
}

int runSettings(const SettingsOptions& settingsOptions, const ConnectionOptions& options) {
  OrvAppConfigStoreURLSet stores;
  for (const auto& text : settingsOptions.storeURLs) {
    auto url = OrvURL::URLWithString(text);
    if (!url) {
      fmt::print(stderr, "not a URL: {}\n", text);
      return kExitUsage;
    }
    stores.insert(std::move(*url));
  }
  auto connection = connect(options);
  if (!connection) return kExitSoftware;
  const auto outcome =
      retrieveSettings(*connection->service, stores, options.hostType, settingsOptions.platform, settingsOptions.channel);
  const int status = reportSettings(outcome, *connection, options.json);
  if (status == 0 && settingsOptions.archiveFile && outcome.settings &&
      !writeArchive(*settingsOptions.archiveFile, sortedSettings(*outcome.settings))) {
    return kExitSoftware;
  }
  return status;
}

int runShowArchive(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  if (!in) {
    fmt::print(stderr, "cannot read {}\n", file);
    return kExitInput;
  }
  std::optional<OrvError> error;
  using StoredSettings = std::map<std::string, std::shared_ptr<OrvAppConfigSettingsRecord>>;
  const auto records = OrvKeyedUnarchiver::unarchivedObjectOfType<StoredSettings>(bytes.str(), &error);
  if (!records) {
    fmt::print(stderr, "not an archive of settings records: {}\n", error ? error->description() : std::string("the root is nil"));
    return kExitInput;
  }
  boost::json::object json;
  for (const auto& [url, record] : *records) json[url] = OrvAppConfigSettingsRecordJSONObject(*record);
  fmt::print("{}\n", boost::json::serialize(json));
  return 0;
}

}  // namespace orv::cli
