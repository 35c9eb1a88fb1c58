#include "OrvJSONSerialization.h"

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/error.hpp>
#include <boost/json/value_stack.hpp>
#include <cmath>
#include <string>
#include <unordered_set>
#include <vector>

namespace orv::detail {
namespace {

namespace json = boost::json;

// Builds values the way Boost's own parser does, and also refuses what a signed document must not
// contain: a key twice in one object (readers could disagree on its meaning) and numbers that
// overflow to infinity (they would serialise as invalid JSON).
class StrictHandler {
 public:
  static constexpr std::size_t max_object_size = json::object::max_size();
  static constexpr std::size_t max_array_size = json::array::max_size();
  static constexpr std::size_t max_key_size = json::string::max_size();
  static constexpr std::size_t max_string_size = json::string::max_size();

  json::value_stack stack;
  std::string problem;

  bool on_document_begin(json::error_code&) { return true; }
  bool on_document_end(json::error_code&) { return true; }

  bool on_object_begin(json::error_code&) {
    keys_.emplace_back();
    return true;
  }
  bool on_object_end(std::size_t n, json::error_code&) {
    keys_.pop_back();
    stack.push_object(n);
    return true;
  }
  bool on_array_begin(json::error_code&) { return true; }
  bool on_array_end(std::size_t n, json::error_code&) {
    stack.push_array(n);
    return true;
  }

  bool on_key_part(json::string_view s, std::size_t, json::error_code&) {
    key_.append(s.data(), s.size());
    stack.push_chars(s);
    return true;
  }
  bool on_key(json::string_view s, std::size_t, json::error_code& ec) {
    key_.append(s.data(), s.size());
    const bool fresh = keys_.back().insert(std::move(key_)).second;
    key_.clear();
    if (!fresh) return fail(ec, "Duplicate key in JSON object");
    stack.push_key(s);
    return true;
  }

  bool on_string_part(json::string_view s, std::size_t, json::error_code&) {
    stack.push_chars(s);
    return true;
  }
  bool on_string(json::string_view s, std::size_t, json::error_code&) {
    stack.push_string(s);
    return true;
  }

  bool on_number_part(json::string_view, json::error_code&) { return true; }
  bool on_int64(std::int64_t i, json::string_view, json::error_code&) {
    stack.push_int64(i);
    return true;
  }
  bool on_uint64(std::uint64_t u, json::string_view, json::error_code&) {
    stack.push_uint64(u);
    return true;
  }
  bool on_double(double d, json::string_view, json::error_code& ec) {
    if (!std::isfinite(d)) return fail(ec, "Number out of range");
    stack.push_double(d);
    return true;
  }
  bool on_bool(bool b, json::error_code&) {
    stack.push_bool(b);
    return true;
  }
  bool on_null(json::error_code&) {
    stack.push_null();
    return true;
  }
  bool on_comment_part(json::string_view, json::error_code&) { return true; }
  bool on_comment(json::string_view, json::error_code&) { return true; }

 private:
  bool fail(json::error_code& ec, const char* why) {
    problem = why;
    ec = json::error::exception;  // any error stops the parser; `problem` says what it was
    return false;
  }

  std::vector<std::unordered_set<std::string>> keys_;
  std::string key_;
};

std::optional<OrvError> parseError(std::string message) {
  return OrvError(OrvJSONSerializationErrorDomain, OrvJSONSerializationErrorInvalidJSON,
                  {{OrvLocalizedDescriptionKey,
                    "The data couldn\u2019t be read because it isn\u2019t in the correct format: " + std::move(message) + "."}});
}

}  // namespace
}  // namespace orv::detail

std::optional<boost::json::value> OrvJSONSerialization::JSONObjectWithData(std::string_view data, OrvJSONReadingOptions options,
                                                                           std::optional<OrvError>* error) {
  namespace json = boost::json;
  auto fail = [error](std::string message) -> std::optional<json::value> {
    if (error) *error = orv::detail::parseError(std::move(message));
    return std::nullopt;
  };
  try {
    json::parse_options limits;
    limits.max_depth = OrvJSONSerializationMaximumDepth;
    json::basic_parser<orv::detail::StrictHandler> parser(limits);
    parser.handler().stack.reset();
    json::error_code ec;
    const std::size_t consumed = parser.write_some(false, data.data(), data.size(), ec);
    if (!ec && consumed < data.size()) ec = json::error::extra_data;
    if (ec == json::error::too_deep) {
      return fail("Objects and arrays nest deeper than " + std::to_string(OrvJSONSerializationMaximumDepth) + " levels");
    }
    if (ec) {
      const std::string& problem = parser.handler().problem;
      return fail(problem.empty() ? ec.message() : problem);
    }
    json::value value = parser.handler().stack.release();
    if (options != OrvJSONReadingOptions::fragmentsAllowed && !value.is_object() && !value.is_array()) {
      return fail("Top-level value is neither an object nor an array");
    }
    return value;
  } catch (const std::exception& e) {
    return fail(e.what());
  }
}
