#pragma once
// What the harnesses share: a broken invariant must look like a crash to libFuzzer and to the corpus
// replay alike, and log lines must really be formatted, because the library only formats a line
// when someone listens and network text travels into those lines.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrvAppConfigServiceLogger.h"
#include "OrvSdkLogger.h"
#include "OrvSecurityUtilsService.h"

namespace orv::detail {

inline void fuzzRequire(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "fuzz invariant broken: %s\n", what);  // stderr is unbuffered: no flush before abort
  std::abort();
}

// Touches every byte of every line so that the formatting cannot be optimised away.
struct FuzzConsumingLoggerDelegate final : OrvSdkLoggerDelegate {
  void logWithModule(std::string_view module, std::int64_t, std::string_view fileName, std::string_view functionName,
                     std::int64_t lineNumber, std::string_view message) override {
    std::size_t sum = module.size() + fileName.size() + functionName.size() + static_cast<std::size_t>(lineNumber);
    for (const char c : message) sum += static_cast<unsigned char>(c);
    checksum.fetch_add(sum, std::memory_order_relaxed);
  }
  std::atomic<std::size_t> checksum{0};
};

// Takes what accessors return when only running them matters: the sanitizers watch what they read.
inline void fuzzTouch(const auto&...) {}

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

// A parser's outcome: a result without an error, or a described error without a result.
inline void fuzzRequireResultOrError(bool hasResult, const std::optional<OrvError>& error) {
  fuzzRequire(hasResult != error.has_value(), "a result comes without an error and a refusal with one");
  fuzzRequire(!error || !error->description().empty(), "a refusal describes itself");
}

// A verifier's verdict: 0 exactly when there is no error, and the error names the result.
inline void fuzzRequireVerdictShape(const OrvJWTValidationResult& verdict) {
  const auto& [result, error] = verdict;
  fuzzRequire((result == OrvSecurityUtilsResultSuccess) == !error, "only a rejection carries an error");
  fuzzRequire(!error || (error->domain() == OrvSecurityUtilsErrorDomain && error->code() == result),
              "a rejection's error names the result");
}

}  // namespace orv::detail

// Defines the entry point libFuzzer and the replay call, around a body that receives the input as
// one string, with the consuming logger installed once:  ORV_FUZZ_TARGET(bytes) { ... }
#define ORV_FUZZ_TARGET(bytes)                                                                                                   \
  static void orvFuzzOneInput(const std::string& bytes);                                                                         \
  extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {                                            \
    [[maybe_unused]] static const bool logging =                                                                                 \
        (OrvAppConfigServiceLogger::sharedInstance()->setDelegate(std::make_shared<orv::detail::FuzzConsumingLoggerDelegate>()), \
         true);                                                                                                                  \
    orvFuzzOneInput(size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data), size));                         \
    return 0;                                                                                                                    \
  }                                                                                                                              \
  static void orvFuzzOneInput(const std::string& bytes)
