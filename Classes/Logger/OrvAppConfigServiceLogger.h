#pragma once
// The library's one logging path. Every message is formatted once, here, and handed to the shared
// SDK logger as the argument of a fixed "%@" format, so a percent sign or brace inside a URL or an
// error text reaches the host's delegate unchanged.
#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "OrvDescription.h"
#include "OrvSdkLogger.h"

class OrvAppConfigServiceLogger {
 public:
  OrvAppConfigServiceLogger() = delete;
  // Created on first use, without a delegate, once for the life of the process.
  static const std::shared_ptr<OrvSdkLogger>& sharedInstance();
};

// Module name of every log line of the library.
inline constexpr const char* OrvAppConfigServiceLogModule = "OrvAppConfigService";

namespace orv::detail {
// False while the host has set no log delegate: a line nobody receives is then not formatted at all.
bool appConfigLogEnabled();
void appConfigCoreLog(std::string_view module, std::int64_t level, std::string_view fileName, std::string_view functionName,
                      std::int64_t lineNumber, std::string_view format, std::span<const std::string> arguments);
}  // namespace orv::detail

// format is in the platform's string-format syntax ("%@", "%lu", "%ld"); each argument is shown by
// its OrvDescription.
template <typename... Args>
void ORVAPPCONFIGCORELOG(std::string_view module, std::int64_t level, std::string_view fileName, std::string_view functionName,
                         std::int64_t lineNumber, std::string_view format, const Args&... args) {
  if (!orv::detail::appConfigLogEnabled()) return;
  const std::array<std::string, sizeof...(Args)> described{OrvDescription(args)...};
  orv::detail::appConfigCoreLog(module, level, fileName, functionName, lineNumber, format, described);
}

namespace orv::detail {
// Call sites report their file relative to the source tree. Absolute paths are mapped by the
// compiler (-fmacro-prefix-map); a build that passes relative paths (ccache's base directory does)
// leaves "../" in front, which this strips.
constexpr const char* sourceRelativePath(const char* path) {
  while (path[0] == '.' && (path[1] == '/' || (path[1] == '.' && path[2] == '/'))) path += path[1] == '/' ? 2 : 3;
  return path;
}
// A line logged from inside a lambda names the method around it, like every other line, rather than
// the closure the compiler reports there ("X::method(int)::<lambda()>").
constexpr std::string_view enclosingMethodName(std::string_view function) {
  while (function.ends_with('>')) {
    const std::size_t closure = function.rfind("::<lambda");
    if (closure == std::string_view::npos) break;
    function.remove_suffix(function.size() - closure);
  }
  return function;
}
}  // namespace orv::detail

// Fills in the module, the calling file, method and line.
#define ORV_APPCONFIG_LOG(level, ...)                                                                   \
  ORVAPPCONFIGCORELOG(OrvAppConfigServiceLogModule, (level), orv::detail::sourceRelativePath(__FILE__), \
                      orv::detail::enclosingMethodName(__PRETTY_FUNCTION__), __LINE__, __VA_ARGS__)
#define ORV_LOG_ERROR(...) ORV_APPCONFIG_LOG(OrvSdkLogLevelError, __VA_ARGS__)
#define ORV_LOG_INFO(...) ORV_APPCONFIG_LOG(OrvSdkLogLevelInfo, __VA_ARGS__)
