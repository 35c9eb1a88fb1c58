#include "OrvAppConfigSettingsKaleth.h"

#include "OrvAppConfigSettingsComparison.h"
#include "OrvJSONAccessors.h"

std::shared_ptr<OrvAppConfigSettingsKaleth> OrvAppConfigSettingsKaleth::initWithAppSettings(
    std::shared_ptr<OrvAppConfigSettingsApp> appSettings, std::optional<std::string> name, std::optional<std::string> description,
    bool useForAppConfig) {
  return std::make_shared<OrvAppConfigSettingsKaleth>(std::move(appSettings), std::move(name), std::move(description),
                                                      useForAppConfig);
}

std::shared_ptr<OrvAppConfigSettingsKaleth> OrvAppConfigSettingsKaleth::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  return initWithAppSettings(
      OrvAppConfigSettingsApp::initWithJSONDictionary(OrvJSON::jsonDictionaryForKey(jsonDictionary, "appSettings")),
      OrvJSON::jsonStringForKey(jsonDictionary, "name"), OrvJSON::jsonStringForKey(jsonDictionary, "description"),
      OrvJSON::jsonBoolForKey(jsonDictionary, "useForAppConfig"));
}

void OrvAppConfigSettingsKaleth::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encode(appSettings_, "appSettings");
  coder.encode(name_, "name");
  coder.encode(theDescription_, "theDescription");
  coder.encode(isUseForAppConfig_, "isUseForAppConfig");
}

std::shared_ptr<OrvAppConfigSettingsKaleth> OrvAppConfigSettingsKaleth::initWithCoder(OrvKeyedUnarchiver& coder) {
  auto appSettings = coder.decode<std::shared_ptr<OrvAppConfigSettingsApp>>("appSettings");
  auto name = coder.decode<std::string>("name");
  auto description = coder.decode<std::string>("theDescription");
  const bool useForAppConfig = coder.decode<bool>("isUseForAppConfig").value_or(false);
  return initWithAppSettings(std::move(appSettings), std::move(name), std::move(description), useForAppConfig);
}

bool operator==(const OrvAppConfigSettingsKaleth& a, const OrvAppConfigSettingsKaleth& b) {
  return orv::detail::sameObject(a.appSettings_, b.appSettings_) && a.name_ == b.name_ &&
         a.theDescription_ == b.theDescription_ && a.isUseForAppConfig_ == b.isUseForAppConfig_;
}
