#pragma once
// What the harnesses share: a broken invariant must look like a crash to libFuzzer and to the corpus
// replay alike, and log lines must really be formatted, because the library only formats a line
// when someone listens and network text travels into those lines.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "OrvAppConfigServiceLogger.h"
#include "OrvSdkLogger.h"

namespace orv::detail {

[[noreturn]] inline void fuzzInvariantBroken(const char* what) {
  std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
  std::fflush(stderr);
  std::abort();
}

inline void fuzzRequire(bool holds, const char* what) {
  if (!holds) fuzzInvariantBroken(what);
}

// Touches every byte of every line so that the formatting cannot be optimised away.
class FuzzConsumingLoggerDelegate final : public OrvSdkLoggerDelegate {
 public:
  void logWithModule(std::string_view module, std::int64_t, std::string_view fileName, std::string_view functionName,
                     std::int64_t lineNumber, std::string_view message) override {
    std::size_t sum = module.size() + fileName.size() + functionName.size() + static_cast<std::size_t>(lineNumber);
    for (const char c : message) sum += static_cast<unsigned char>(c);
    checksum_.fetch_add(sum, std::memory_order_relaxed);
  }

 private:
  std::atomic<std::size_t> checksum_{0};
};

inline void installFuzzLogger() {
  static const bool installed = [] {
    OrvAppConfigServiceLogger::sharedInstance()->setDelegate(std::make_shared<FuzzConsumingLoggerDelegate>());
    return true;
  }();
  (void)installed;
}

inline std::string fuzzBytes(const std::uint8_t* data, std::size_t size) {
  return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

// Cuts the text at its first `count` newlines; pieces that are not there stay empty in the result.
inline std::vector<std::string_view> fuzzSplitLines(std::string_view text, std::size_t count) {
  std::vector<std::string_view> pieces;
  while (pieces.size() < count) {
    const std::size_t newline = text.find('\n');
    if (newline == std::string_view::npos) break;
    pieces.push_back(text.substr(0, newline));
    text.remove_prefix(newline + 1);
  }
  pieces.push_back(text);
  return pieces;
}

}  // namespace orv::detail
