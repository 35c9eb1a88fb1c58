#pragma once
// The SDK logger: formats nothing itself beyond its format string and hands every line to a
// delegate, which decides where lines go.
#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

// The two levels of the SDK's scale that the library uses.
inline constexpr std::int64_t OrvSdkLogLevelError = 2;
inline constexpr std::int64_t OrvSdkLogLevelInfo = 4;

class OrvSdkLoggerDelegate {
 public:
  virtual ~OrvSdkLoggerDelegate() = default;
  // May be called from any thread, also concurrently.
  virtual void logWithModule(std::string_view module, std::int64_t logLevel, std::string_view fileName,
                             std::string_view functionName, std::int64_t lineNumber, std::string_view message) = 0;
};

class OrvSdkLogger {
 public:
  explicit OrvSdkLogger(std::shared_ptr<OrvSdkLoggerDelegate> delegate);  // may be nullptr
  static std::shared_ptr<OrvSdkLogger> initWithLoggerDelegate(std::shared_ptr<OrvSdkLoggerDelegate> delegate) {
    return std::make_shared<OrvSdkLogger>(std::move(delegate));
  }

  void setDelegate(std::shared_ptr<OrvSdkLoggerDelegate> delegate);
  std::shared_ptr<OrvSdkLoggerDelegate> delegate() const;
  // Lock-free: lets callers skip describing their arguments when nobody listens, which is the
  // common case and happens on every step of every request.
  bool hasDelegate() const { return hasDelegate_.load(std::memory_order_acquire); }

  // Fills formatString (platform syntax) with the arguments and passes the result to the delegate.
  void logWithModule(std::string_view module, std::int64_t logLevel, const char* fileName, const char* functionName,
                     std::int64_t lineNumber, std::string_view formatString, std::initializer_list<std::string_view> arguments);

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<OrvSdkLoggerDelegate> delegate_;
  std::atomic<bool> hasDelegate_{false};
};
