#include "OrvJSONSerialization.h"

#include <algorithm>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/error.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value_stack.hpp>
#include <cmath>
#include <memory>
#include <string>
#include <string_view>
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

  StrictHandler() {
    // Room for what a typical answer needs, so that the scan state grows only for unusual ones.
    objects_.reserve(16);
    keySpans_.reserve(64);
    keyText_.reserve(1024);
  }

 private:
  // The value stack's own working stack starts here rather than on the heap.
  unsigned char workingStack_[4096];

 public:
  json::value_stack stack{{}, workingStack_, sizeof workingStack_};
  std::string problem;

  bool on_document_begin(json::error_code&) { return true; }
  bool on_document_end(json::error_code&) { return true; }

  bool on_object_begin(json::error_code&) {
    objects_.push_back({keySpans_.size(), nullptr});
    return true;
  }
  bool on_object_end(std::size_t n, json::error_code&) {
    const std::size_t first = objects_.back().firstKey;
    if (first < keySpans_.size()) keyText_.resize(keySpans_[first].first);
    keySpans_.resize(first);
    objects_.pop_back();
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
    std::string_view key(s.data(), s.size());
    if (!key_.empty()) key = key_.append(s.data(), s.size());
    const bool fresh = rememberKey(key);
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

  // False when the innermost open object has the key already. The keys of the open objects lie back
  // to back in one buffer, so a small object costs no allocation per key and is checked by a scan;
  // one that grows past a few dozen keys moves to a set, so that no answer can make this quadratic.
  bool rememberKey(std::string_view key) {
    constexpr std::size_t kScannedKeys = 32;
    auto& object = objects_.back();
    if (object.manyKeys) return object.manyKeys->emplace(key).second;
    const auto text = [this](const std::pair<std::size_t, std::size_t>& span) {
      return std::string_view(keyText_).substr(span.first, span.second);
    };
    for (std::size_t i = object.firstKey; i < keySpans_.size(); ++i) {
      if (text(keySpans_[i]) == key) return false;
    }
    if (keySpans_.size() - object.firstKey < kScannedKeys) {
      keySpans_.emplace_back(keyText_.size(), key.size());
      keyText_.append(key);
      return true;
    }
    object.manyKeys = std::make_unique<std::unordered_set<std::string>>();
    for (std::size_t i = object.firstKey; i < keySpans_.size(); ++i) object.manyKeys->emplace(text(keySpans_[i]));
    return object.manyKeys->emplace(key).second;
  }

  struct OpenObject {
    std::size_t firstKey;
    std::unique_ptr<std::unordered_set<std::string>> manyKeys;
  };
  std::vector<OpenObject> objects_;
  std::string keyText_;
  std::vector<std::pair<std::size_t, std::size_t>> keySpans_;
  // A key that arrives in parts (it holds escapes) is put together here.
  std::string key_;
};

std::optional<OrvError> parseError(std::string message) {
  return OrvError(OrvJSONSerializationErrorDomain, OrvJSONSerializationErrorInvalidJSON,
                  {{OrvLocalizedDescriptionKey,
                    "The data couldn\u2019t be read because it isn\u2019t in the correct format: " + std::move(message) + "."}});
}

// A long answer is thousands of small strings and objects that are read once and dropped together:
// one arena instead of an allocation and a free for each. Its first block fits a typical answer whole;
// a large document grows it as it goes, so that text which builds little (padding, say) does not
// reserve twice its size up front.
std::size_t firstArenaBlock(std::string_view data) {
  constexpr std::size_t kLargestFirstBlock = 64 * 1024;
  return std::min(2 * data.size() + 1024, kLargestFirstBlock);
}

std::optional<boost::json::value> parse(std::string_view data, OrvJSONReadingOptions options, std::optional<OrvError>* error,
                                        boost::json::storage_ptr storage) {
  namespace json = boost::json;
  auto fail = [error](std::string message) -> std::optional<json::value> {
    if (error) *error = parseError(std::move(message));
    return std::nullopt;
  };
  try {
    json::parse_options limits;
    limits.max_depth = OrvJSONSerializationMaximumDepth;
    json::basic_parser<StrictHandler> parser(limits);
    parser.handler().stack.reset(std::move(storage));
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

}  // namespace

std::optional<JSONDocument> parseJSONDocument(std::string_view data, OrvJSONReadingOptions options,
                                              std::optional<OrvError>* error) {
  std::unique_ptr<boost::json::monotonic_resource> arena;
  try {
    arena = std::make_unique<boost::json::monotonic_resource>(firstArenaBlock(data));
  } catch (const std::exception& e) {
    if (error) *error = parseError(e.what());
    return std::nullopt;
  }
  // A plain pointer to the arena: no value counts on it, and none is destroyed one by one.
  auto value = parse(data, options, error, boost::json::storage_ptr(arena.get()));
  if (!value) return std::nullopt;
  return JSONDocument(std::move(arena), std::move(*value));
}

}  // namespace orv::detail

std::optional<boost::json::value> OrvJSONSerialization::JSONObjectWithData(std::string_view data, OrvJSONReadingOptions options,
                                                                           std::optional<OrvError>* error) {
  std::optional<boost::json::storage_ptr> arena;
  try {
    arena = boost::json::make_shared_resource<boost::json::monotonic_resource>(orv::detail::firstArenaBlock(data));
  } catch (const std::exception& e) {
    if (error) *error = orv::detail::parseError(e.what());
    return std::nullopt;
  }
  // The values returned may be kept anywhere, so each holds a count on the arena that frees it.
  return orv::detail::parse(data, options, error, std::move(*arena));
}
