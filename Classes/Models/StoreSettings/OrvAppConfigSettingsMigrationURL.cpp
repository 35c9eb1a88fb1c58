#include "OrvAppConfigSettingsMigrationURL.h"

#include "OrvJSONAccessors.h"

std::shared_ptr<OrvAppConfigSettingsMigrationURL> OrvAppConfigSettingsMigrationURL::initWithDovrinValidUntil(
    std::optional<OrvNumber> dovrinValidUntil, std::optional<OrvDate> dovrinValidUntilDate,
    std::optional<std::string> urlString) {
  return std::make_shared<OrvAppConfigSettingsMigrationURL>(dovrinValidUntil, dovrinValidUntilDate, std::move(urlString));
}

std::shared_ptr<OrvAppConfigSettingsMigrationURL> OrvAppConfigSettingsMigrationURL::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  // The same value twice: kept as sent, and as the instant it names (milliseconds, unlike "exp"/"iat").
  return initWithDovrinValidUntil(OrvNumber::fromJSON(OrvJSON::jsonNumberForKey(jsonDictionary, "dovrinValidUntil")),
                                  OrvJSON::jsonDateFromEpochMillisecondsValueForKey(jsonDictionary, "dovrinValidUntil"),
                                  OrvJSON::jsonStringForKey(jsonDictionary, "url"));
}

std::optional<OrvAppConfigSettingsMigrationURLList> OrvAppConfigSettingsMigrationURL::migrationUrlsFromJSONObjects(
    const boost::json::array* jsonObjects) {
  if (!jsonObjects) return std::nullopt;
  OrvAppConfigSettingsMigrationURLList entries;
  entries.reserve(jsonObjects->size());
  for (const boost::json::value& element : *jsonObjects) {
    // An element that is not an object describes no migration; it is skipped rather than failing
    // the whole answer, which the workflows judge on other grounds.
    if (auto entry = initWithJSONDictionary(element.if_object())) entries.push_back(std::move(entry));
  }
  return entries;
}

void OrvAppConfigSettingsMigrationURL::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encode(dovrinValidUntil_, "dovrinValidUntil");
  coder.encode(dovrinValidUntilDate_, "dovrinValidUntilDate");
  coder.encode(url_, "url");
}

std::shared_ptr<OrvAppConfigSettingsMigrationURL> OrvAppConfigSettingsMigrationURL::initWithCoder(OrvKeyedUnarchiver& coder) {
  auto validUntil = coder.decode<OrvNumber>("dovrinValidUntil");
  auto validUntilDate = coder.decode<OrvDate>("dovrinValidUntilDate");
  return initWithDovrinValidUntil(validUntil, validUntilDate, coder.decode<std::string>("url"));
}
