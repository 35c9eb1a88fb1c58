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

const OrvClass& OrvAppConfigSettingsURL::orvClass() {
  static const OrvClass& cls =
      OrvClass::registerClass("OrvAppConfigSettingsURL", nullptr, supportsSecureCoding(),
                              [](OrvKeyedUnarchiver& coder) -> std::shared_ptr<OrvSecureCoding> { return initWithCoder(coder); });
  return cls;
}

void OrvAppConfigSettingsURL::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encodeString(name_, "name");
  coder.encodeObjects(migrationUrl_, "migrationUrl");
}

std::shared_ptr<OrvAppConfigSettingsURL> OrvAppConfigSettingsURL::initWithCoder(OrvKeyedUnarchiver& coder) {
  auto name = coder.decodeStringForKey("name");
  auto migrationURLs = coder.decodeArrayOfObjectsOfClasses<OrvAppConfigSettingsMigrationURL>(
      {&OrvClass::array(), &OrvClass::mutableArray(), &OrvAppConfigSettingsMigrationURL::orvClass()}, "migrationUrl");
  if (coder.error()) return nullptr;
  return initWithName(std::move(name), std::move(migrationURLs));
}

bool operator==(const OrvAppConfigSettingsURL& a, const OrvAppConfigSettingsURL& b) {
  return a.name_ == b.name_ && orv::detail::sameObjects(a.migrationUrl_, b.migrationUrl_);
}
