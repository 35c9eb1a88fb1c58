#include "OrvAppConfigSettingsURL.h"

#include "OrvAppConfigSettingsComparison.h"
#include "OrvJSONAccessors.h"

std::shared_ptr<OrvAppConfigSettingsURL> OrvAppConfigSettingsURL::initWithName(
    std::optional<std::string> name, std::optional<OrvAppConfigSettingsMigrationURLList> migrationURLs) {
  return std::make_shared<OrvAppConfigSettingsURL>(std::move(name), std::move(migrationURLs));
}

std::shared_ptr<OrvAppConfigSettingsURL> OrvAppConfigSettingsURL::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  return initWithName(
      OrvJSON::jsonStringForKey(jsonDictionary, "name"),
      OrvAppConfigSettingsMigrationURL::migrationUrlsFromJSONObjects(OrvJSON::jsonArrayForKey(jsonDictionary, "migrationUrl")));
}

void OrvAppConfigSettingsURL::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encode(name_, "name");
  coder.encode(migrationUrl_, "migrationUrl");
}

std::shared_ptr<OrvAppConfigSettingsURL> OrvAppConfigSettingsURL::initWithCoder(OrvKeyedUnarchiver& coder) {
  auto name = coder.decode<std::string>("name");
  return initWithName(std::move(name), coder.decode<OrvAppConfigSettingsMigrationURLList>("migrationUrl"));
}

bool operator==(const OrvAppConfigSettingsURL& a, const OrvAppConfigSettingsURL& b) {
  return a.name_ == b.name_ && orv::detail::sameObjects(a.migrationUrl_, b.migrationUrl_);
}
