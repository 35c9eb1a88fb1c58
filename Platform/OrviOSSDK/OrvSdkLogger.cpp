#include "OrvSdkLogger.h"

#include <string>
#include <vector>

#include "OrvDescription.h"

OrvSdkLogger::OrvSdkLogger(std::shared_ptr<OrvSdkLoggerDelegate> delegate)
    : delegate_(std::move(delegate)), hasDelegate_(delegate_ != nullptr) {}

void OrvSdkLogger::setDelegate(std::shared_ptr<OrvSdkLoggerDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
  hasDelegate_.store(delegate_ != nullptr, std::memory_order_release);
}

std::shared_ptr<OrvSdkLoggerDelegate> OrvSdkLogger::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

void OrvSdkLogger::logWithModule(std::string_view module, std::int64_t logLevel, const char* fileName, const char* functionName,
                                 std::int64_t lineNumber, std::string_view formatString,
                                 std::initializer_list<std::string_view> arguments) {
  if (!hasDelegate()) return;
  // The delegate is called outside the lock: it may log again or replace itself.
  const auto target = delegate();
  if (!target) return;
  const std::vector<std::string> described(arguments.begin(), arguments.end());
  const std::string message = orv::detail::formatPlatformString(formatString, described);
  try {
    target->logWithModule(module, logLevel, fileName ? fileName : "", functionName ? functionName : "", lineNumber, message);
  } catch (...) {
    // A failing log sink must not break the step that logged.
  }
}
