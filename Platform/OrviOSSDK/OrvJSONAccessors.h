#pragma once
// Typed accessors on JSON objects and arrays. Each returns the value under the key only when it has
// the asked-for JSON type, else nothing; applied to nothing, each yields nothing. A boolean is never a
// number and a number never a boolean.
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrvTypes.h"
#include "OrvURL.h"

namespace OrvJSON {

const boost::json::object* jsonDictionaryForKey(const boost::json::object* object, std::string_view key);
const boost::json::array* jsonArrayForKey(const boost::json::object* object, std::string_view key);
std::optional<std::string> jsonStringForKey(const boost::json::object* object, std::string_view key);
// Any JSON number (integer or floating point).
const boost::json::value* jsonNumberForKey(const boost::json::object* object, std::string_view key);
// A string that parses as a URL; other strings and other types give nothing.
std::optional<OrvURL> jsonUrlForKey(const boost::json::object* object, std::string_view key);
// false when missing or not a boolean.
bool jsonBoolForKey(const boost::json::object* object, std::string_view key);
// A number of seconds / milliseconds since 1970-01-01 UTC; non-finite numbers give nothing.
std::optional<OrvDate> jsonDateFromEpochValueForKey(const boost::json::object* object, std::string_view key);
std::optional<OrvDate> jsonDateFromEpochMillisecondsValueForKey(const boost::json::object* object, std::string_view key);

// The elements that are JSON objects / strings, in their order; nothing for nothing.
std::optional<std::vector<const boost::json::object*>> subArrayOfDictionaries(const boost::json::array* array);
std::optional<std::vector<std::string>> subArrayOfStrings(const boost::json::array* array);

}  // namespace OrvJSON
