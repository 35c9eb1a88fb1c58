#pragma once
// Strict JSON (RFC 8259) on Boost.JSON. Booleans are never numbers. The default options want an
// object or an array at the top level; fragmentsAllowed also takes a bare scalar.
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value.hpp>
#include <cstddef>
#include <memory>
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

namespace orv::detail {

// A parsed document with the arena its values live in, for readers that build what they keep and drop
// the rest. Its values hold no count on the arena, so making and dropping them is bookkeeping-free;
// nothing of value() may outlive the document (copy a part you keep with the default storage).
class JSONDocument {
 public:
  JSONDocument(std::unique_ptr<boost::json::monotonic_resource> arena, boost::json::value value) noexcept
      : arena_(std::move(arena)), value_(std::move(value)) {}
  JSONDocument(JSONDocument&&) noexcept = default;
  JSONDocument& operator=(JSONDocument&&) = delete;

  const boost::json::value& value() const noexcept { return value_; }

 private:
  std::unique_ptr<boost::json::monotonic_resource> arena_;
  boost::json::value value_;  // declared after the arena, so that it goes first
};

// As OrvJSONSerialization::JSONObjectWithData, into a document of its own.
std::optional<JSONDocument> parseJSONDocument(std::string_view data, OrvJSONReadingOptions options,
                                              std::optional<OrvError>* error = nullptr);

}  // namespace orv::detail
