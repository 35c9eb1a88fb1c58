#pragma once
// The subcommands of orv-appconfig, apart from argument parsing.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orv::cli {

struct ConnectionOptions {
  std::uint64_t hostType = 0;
  std::optional<std::string> productionHost;
  std::optional<std::string> stagingHost;
  std::optional<std::string> caFile;
  std::vector<std::string> trustAnchorFiles;
  bool json = false;
  bool verbose = false;
  // Print each request's trace: URLs, HTTP statuses, transport errors, refusing rules, timings.
  bool explain = false;
};

struct SettingsOptions {
  std::vector<std::string> storeURLs;
  std::uint64_t platform = 0;
  std::optional<std::string> channel;
  std::optional<std::string> archiveFile;
};

// Each returns the process exit code: the service completion status, or 64 and up for the tool's
// own failures (bad arguments, unreadable files).
int runDiscover(const std::string& input, const ConnectionOptions& options);
int runSettings(const SettingsOptions& settings, const ConnectionOptions& options);
int runShowArchive(const std::string& file);
int runDemo(bool json, bool verbose, bool explain);

// Exit codes of the tool itself.
inline constexpr int kExitUsage = 64;
inline constexpr int kExitInput = 66;
inline constexpr int kExitSoftware = 70;

}  // namespace orv::cli
