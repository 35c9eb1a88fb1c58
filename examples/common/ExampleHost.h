#pragma once
// What every example shares: its command line, wiring the service to its three collaborators, and the
// discovery-then-settings flow with its report. Each example's main.cpp keeps only its loop and bridge.
#include <OrvAppConfigService/OrvAppConfigAutoDiscoverRecord.h>
#include <OrvAppConfigService/OrvAppConfigDiscoveryHosts.h>
#include <OrvAppConfigService/OrvAppConfigService.h>
#include <OrvAppConfigService/OrvAppConfigSettingsRecord.h>
#include <OrvAppConfigService/OrvCurlURLSession.h>
#include <OrvAppConfigService/OrvMainQueue.h>
#include <OrvAppConfigService/OrvSecurityUtilsService.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace example {

struct Options {
  std::string input;
  std::optional<std::string> host;         // else the deployment's production host
  std::optional<std::string> caFile;       // else the system CA store
  std::optional<std::string> trustAnchor;  // else the library's default anchors, if any, apply
};

inline std::optional<Options> parseArguments(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    std::optional<std::string>* value = arg == "--host"           ? &options.host
                                        : arg == "--ca-file"      ? &options.caFile
                                        : arg == "--trust-anchor" ? &options.trustAnchor
                                                                  : nullptr;
    if (value && i + 1 < argc) {
      *value = argv[++i];
    } else if (!value && !arg.starts_with("--") && options.input.empty()) {
      options.input = arg;
    } else {
      options.input.clear();
      break;
    }
  }
  if (options.input.empty()) {
    std::fprintf(stderr, "usage: %s INPUT [--host HOST:PORT] [--ca-file FILE] [--trust-anchor FILE]\n", argv[0]);
    return std::nullopt;
  }
  return options;
}

// The library's own account of a failure (a status may come without an error value).
struct StderrLogger : OrvSdkLoggerDelegate {
  void logWithModule(std::string_view module, std::int64_t level, std::string_view, std::string_view, std::int64_t,
                     std::string_view message) override {
    if (level == OrvSdkLogLevelError) {
      std::fprintf(stderr, "[%.*s] %.*s\n", int(module.size()), module.data(), int(message.size()), message.data());
    }
  }
};

inline std::shared_ptr<OrvAppConfigService> makeService(const Options& options) {
  OrvAppConfigService::setLoggerDelegate(std::make_shared<StderrLogger>());
  if (options.host) OrvAppConfigDiscoveryHosts::setProductionHost(options.host);
  OrvSecurityUtilsService::Configuration security;
  if (options.trustAnchor) {
    auto anchors = OrvSecurityUtilsService::loadCertificatesFromPEMFile(*options.trustAnchor);
    if (!anchors) {
      std::fprintf(stderr, "no certificate in %s\n", options.trustAnchor->c_str());
      return nullptr;
    }
    security.trustAnchors = std::move(*anchors);
  }
  OrvCurlURLSessionConfiguration sessionConfiguration;
  sessionConfiguration.caFile = options.caFile;
  auto session = OrvCurlURLSession::create(sessionConfiguration);
  if (!session) return nullptr;
  return OrvAppConfigService::initWithURLSession(session, std::make_shared<OrvHttpHeaderProviderService>(),
                                                 OrvSecurityUtilsService::create(std::move(security)), nullptr);
}

inline void printFailure(const char* step, OrvAppConfigServiceCompletionStatus status, const std::optional<OrvError>& error) {
  std::fprintf(stderr, "%s: status %llu (%s)%s%s\n", step, static_cast<unsigned long long>(status),
               OrvAppConfigService::descriptionForCompletionStatus(status).c_str(), error ? ": " : "",
               error ? error->description().c_str() : "");
}

// Discovery for the input, then the settings of every store it names. finished gets the exit code, on
// the main queue: 0 only when both steps succeed and at least one settings record arrived. Requests hold
// the service weakly, so the caller keeps it until then.
inline void discoverThenRetrieveSettings(const std::shared_ptr<OrvAppConfigService>& service, const std::string& input,
                                         std::function<void(int)> finished) {
  std::weak_ptr<OrvAppConfigService> weakService = service;
  service->asyncStartAutodiscoveryForUserInput(input, 0, [weakService, finished](auto status, auto record, auto error) {
    if (status != OrvAppConfigServiceCompletionStatusSuccess || !record) {
      printFailure("discovery", status, error);
      return finished(1);
    }
    OrvAppConfigStoreURLSet stores;
    if (record->kaleth() && record->kaleth()->serviceUrls()) {
      for (const auto& entry : *record->kaleth()->serviceUrls()) {
        if (entry && entry->url()) stores.insert(*entry->url());
      }
    }
    const auto domain = record->domain() && record->domain()->name() ? *record->domain()->name() : "(none)";
    std::printf("discovery: domain %s, %zu store(s)\n", domain.c_str(), stores.size());
    auto service = weakService.lock();
    if (stores.empty() || !service) return finished(1);
    service->asyncStartSettingsRetrievalForStoreUrls(
        stores, 0, OrvAppConfigPlatformIos, [finished](auto status, auto settings, auto error) {
          if (status != OrvAppConfigServiceCompletionStatusSuccess || !settings) {
            printFailure("settings", status, error);
            return finished(1);
          }
          std::printf("settings: %zu record(s)\n", settings->size());
          for (const auto& [url, record] : *settings) {
            const auto* name = record && record->kaleth() && record->kaleth()->name() ? record->kaleth()->name()->c_str() : "";
            std::printf("  %s %s\n", url.absoluteString().c_str(), name);
          }
          finished(settings->empty() ? 1 : 0);
        });
  });
}

}  // namespace example
