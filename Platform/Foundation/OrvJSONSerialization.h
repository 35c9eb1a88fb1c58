#pragma once
// Strict JSON (RFC 8259) on Boost.JSON. Booleans are never numbers. The default options want an
// object or an array at the top level; fragmentsAllowed also takes a bare scalar.
#include <boost/json/value.hpp>
#include <cstddef>
#include <optional>
#include <string_view>

#include "OrvError.h"

// Error domain and codes of the parser's errors.
inline constexpr const char* OrvJSONSerializationErrorDomain = "com.varnel.OrvFoundation.JSONSerialization";
inline constexpr std::int64_t OrvJSONSerializationErrorInvalidJSON = 3840;
// Objects and arrays may nest this deep and no deeper. Room for a setting whose value is itself deep
// JSON, and still well inside what a settings record may hold when archived.
inline constexpr std::size_t OrvJSONSerializationMaximumDepth = 64;

enum class OrvJSONReadingOptions { none, fragmentsAllowed };

class OrvJSONSerialization {
 public:
  // std::nullopt and an error for empty input, malformed text, invalid UTF-8, numbers out of range,
  // nesting deeper than OrvJSONSerializationMaximumDepth and, without fragmentsAllowed, a top-level
  // scalar. The document lives in one arena of its own, freed with the last value that uses it: copy
  // a part you keep past the document with the default storage (`json::value(part, {})`).
  static std::optional<boost::json::value> JSONObjectWithData(std::string_view data, OrvJSONReadingOptions options,
                                                              std::optional<OrvError>* error = nullptr);
};
