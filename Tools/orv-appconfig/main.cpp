// orv-appconfig: configure from one line of input, from the command line. Argument parsing only; the
// work is in AppConfigCommands.cpp (CLI11 is slow to compile, so it stays in this one unit).
#include <CLI/CLI.hpp>

#include "AppConfigCommands.h"

namespace {

std::uint64_t parsePlatform(const std::string& text) {
  if (text == "ios") return 0;
  if (text == "macos") return 1;
  return std::stoull(text);
}

void addConnectionOptions(CLI::App* command, orv::cli::ConnectionOptions& options, bool& staging,
                          std::optional<std::uint64_t>& hostType) {
  auto* stagingFlag = command->add_flag("--staging", staging, "Ask the staging discovery service (host type 1)");
  command->add_option("--host-type", hostType, "Host type: 0 production, any other value staging")->excludes(stagingFlag);
  command->add_option("--production-host", options.productionHost, "Production discovery host, HOST[:PORT]");
  command->add_option("--staging-host", options.stagingHost, "Staging discovery host, HOST[:PORT]");
  command->add_option("--ca-file", options.caFile, "PEM bundle of the certificate authorities to trust for TLS")
      ->check(CLI::ExistingFile);
  command
      ->add_option("--trust-anchor", options.trustAnchorFiles,
                   "PEM root certificate the signing certificate must chain to (repeatable)")
      ->check(CLI::ExistingFile);
  command->add_flag("--json", options.json, "Print the result as one JSON object");
  command->add_flag("--verbose", options.verbose, "Stream the library's log lines to stderr");
  command->add_flag("--explain", options.explain,
                    "Explain the request step by step: URLs, HTTP statuses, transport errors, refusing rules, timings");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"orv-appconfig: discover a corporate domain's stores and their signed settings"};
  app.require_subcommand(1);

  orv::cli::ConnectionOptions discoverOptions;
  bool discoverStaging = false;
  std::optional<std::uint64_t> discoverHostType;
  std::string input;
  auto* discover = app.add_subcommand("discover", "Auto-discover the stores of an e-mail address or URL");
  discover->add_option("INPUT", input, "E-mail address or URL")->required();
  addConnectionOptions(discover, discoverOptions, discoverStaging, discoverHostType);

  orv::cli::ConnectionOptions settingsConnection;
  orv::cli::SettingsOptions settingsOptions;
  bool settingsStaging = false;
  std::optional<std::uint64_t> settingsHostType;
  std::string platform = "ios";
  auto* settings = app.add_subcommand("settings", "Fetch the signed settings of one or more stores");
  settings->add_option("STORE_URL", settingsOptions.storeURLs, "Store URLs")->required();
  settings->add_option("--platform", platform, "ios, macos or a platform number")->capture_default_str();
  settings->add_option("--channel", settingsOptions.channel, "Settings channel");
  settings->add_option("--archive", settingsOptions.archiveFile, "Write the delivered records to this archive file");
  addConnectionOptions(settings, settingsConnection, settingsStaging, settingsHostType);

  std::string archive;
  auto* showArchive = app.add_subcommand("show-archive", "Decode an archive of settings records and print it as JSON");
  showArchive->add_option("FILE", archive, "Archive file")->required()->check(CLI::ExistingFile);

  bool demoJSON = false, demoVerbose = false, demoExplain = false;
  auto* demo = app.add_subcommand("demo", "Run discovery and settings against an in-process discovery emulator");
  demo->add_flag("--json", demoJSON, "Print the results as JSON");
  demo->add_flag("--verbose", demoVerbose, "Stream the library's log lines to stderr");
  demo->add_flag("--explain", demoExplain, "Explain each request step by step");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : orv::cli::kExitUsage;
  }

  const auto resolveHostType = [](bool staging, const std::optional<std::uint64_t>& hostType) -> std::uint64_t {
    return staging ? 1 : hostType.value_or(0);
  };
  if (discover->parsed()) {
    discoverOptions.hostType = resolveHostType(discoverStaging, discoverHostType);
    return orv::cli::runDiscover(input, discoverOptions);
  }
  if (settings->parsed()) {
    settingsConnection.hostType = resolveHostType(settingsStaging, settingsHostType);
    try {
      settingsOptions.platform = parsePlatform(platform);
    } catch (const std::exception&) {
      std::fprintf(stderr, "--platform: expected ios, macos or a number, got %s\n", platform.c_str());
      return orv::cli::kExitUsage;
    }
    return orv::cli::runSettings(settingsOptions, settingsConnection);
  }
  if (showArchive->parsed()) return orv::cli::runShowArchive(archive);
  return orv::cli::runDemo(demoJSON, demoVerbose, demoExplain);
}
