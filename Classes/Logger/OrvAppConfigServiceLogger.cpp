#include "OrvAppConfigServiceLogger.h"

const std::shared_ptr<OrvSdkLogger>& OrvAppConfigServiceLogger::sharedInstance() {
  // Function-local statics are initialised once, safely against concurrent first calls; the logger
  // is never destroyed so that log calls from threads still running at exit stay valid.
  static const auto* const logger = new std::shared_ptr<OrvSdkLogger>(OrvSdkLogger::initWithLoggerDelegate(nullptr));
  return *logger;
}

namespace orv::detail {

bool appConfigLogEnabled() { return OrvAppConfigServiceLogger::sharedInstance()->hasDelegate(); }

void appConfigCoreLog(std::string_view module, std::int64_t level, std::string_view fileName, std::string_view functionName,
                      std::int64_t lineNumber, std::string_view format, std::span<const std::string> arguments) {
  const std::string message = formatPlatformString(format, arguments);
  const std::string file(fileName);
  const std::string function(functionName);
  OrvAppConfigServiceLogger::sharedInstance()->logWithModule(module, level, file.c_str(), function.c_str(), lineNumber, "%@",
                                                             {message});
}

}  // namespace orv::detail
