#include "OrvJSONAccessors.h"

#include <cmath>

namespace OrvJSON {
namespace {

const boost::json::value* valueForKey(const boost::json::object* object, std::string_view key) {
  if (!object) return nullptr;
  return object->if_contains(key);
}

std::optional<double> finiteNumberForKey(const boost::json::object* object, std::string_view key) {
  const boost::json::value* value = jsonNumberForKey(object, key);
  if (!value) return std::nullopt;
  const double number = value->to_number<double>();
  if (!std::isfinite(number)) return std::nullopt;
  return number;
}

}  // namespace

const boost::json::object* jsonDictionaryForKey(const boost::json::object* object, std::string_view key) {
  const auto* value = valueForKey(object, key);
  return value ? value->if_object() : nullptr;
}

const boost::json::array* jsonArrayForKey(const boost::json::object* object, std::string_view key) {
  const auto* value = valueForKey(object, key);
  return value ? value->if_array() : nullptr;
}

std::optional<std::string> jsonStringForKey(const boost::json::object* object, std::string_view key) {
  const auto* value = valueForKey(object, key);
  if (!value || !value->is_string()) return std::nullopt;
  return std::string(value->get_string());
}

const boost::json::value* jsonNumberForKey(const boost::json::object* object, std::string_view key) {
  const auto* value = valueForKey(object, key);
  // kind() keeps bool_ apart from the numeric kinds, so true never reads as 1.
  return value && value->is_number() ? value : nullptr;
}

std::optional<OrvURL> jsonUrlForKey(const boost::json::object* object, std::string_view key) {
  // Parsed from the document's own text: the URL keeps the one copy it needs.
  const auto* value = valueForKey(object, key);
  if (!value || !value->is_string()) return std::nullopt;
  return OrvURL::URLWithString(value->get_string());
}

bool jsonBoolForKey(const boost::json::object* object, std::string_view key) {
  const auto* value = valueForKey(object, key);
  return value && value->is_bool() && value->get_bool();
}

std::optional<OrvDate> jsonDateFromEpochValueForKey(const boost::json::object* object, std::string_view key) {
  const auto seconds = finiteNumberForKey(object, key);
  if (!seconds) return std::nullopt;
  return OrvDateFromTimeIntervalSince1970(*seconds);
}

std::optional<OrvDate> jsonDateFromEpochMillisecondsValueForKey(const boost::json::object* object, std::string_view key) {
  const auto milliseconds = finiteNumberForKey(object, key);
  if (!milliseconds) return std::nullopt;
  return OrvDateFromTimeIntervalSince1970(*milliseconds / 1000.0);
}

std::optional<std::vector<const boost::json::object*>> subArrayOfDictionaries(const boost::json::array* array) {
  if (!array) return std::nullopt;
  std::vector<const boost::json::object*> objects;
  for (const auto& element : *array) {
    if (const auto* object = element.if_object()) objects.push_back(object);
  }
  return objects;
}

std::optional<std::vector<std::string>> subArrayOfStrings(const boost::json::array* array) {
  if (!array) return std::nullopt;
  std::vector<std::string> strings;
  for (const auto& element : *array) {
    if (const auto* string = element.if_string()) strings.emplace_back(*string);
  }
  return strings;
}

}  // namespace OrvJSON
