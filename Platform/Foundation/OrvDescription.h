#pragma once
// How values print inside log messages: the platform's "%@" shows an object by its description,
// a nil object as "(null)".
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "OrvError.h"
#include "OrvTypes.h"
#include "OrvURL.h"

inline std::string OrvDescription(std::string_view value) { return std::string(value); }
inline std::string OrvDescription(const std::string& value) { return value; }
inline std::string OrvDescription(const char* value) { return value ? std::string(value) : std::string("(null)"); }
inline std::string OrvDescription(bool value) { return value ? "YES" : "NO"; }
template <std::integral T>
requires(!std::same_as<T, bool>) std::string OrvDescription(T value) { return std::to_string(value); }
std::string OrvDescription(double value);
inline std::string OrvDescription(const OrvError& value) { return value.description(); }
inline std::string OrvDescription(const OrvURL& value) { return value.absoluteString(); }
// The platform's date description: 2026-11-22 07:05:56 +0000
std::string OrvDescription(OrvDate value);
inline std::string OrvDescription(std::nullptr_t) { return "(null)"; }

template <typename T>
std::string OrvDescription(const std::optional<T>& value) {
  return value ? OrvDescription(*value) : std::string("(null)");
}
template <typename T>
std::string OrvDescription(const std::shared_ptr<T>& value) {
  return value ? OrvDescription(*value) : std::string("(null)");
}

namespace orv::detail {
// Fills a platform format string: each conversion (%@, %d, %ld, %lu, %u, %s, %f, ...) takes the next
// already-described argument; "%%" is a percent sign. The arguments are data: a percent sign inside
// one is copied as it stands. Missing arguments print as "(null)".
std::string formatPlatformString(std::string_view format, std::span<const std::string> arguments);
}  // namespace orv::detail
