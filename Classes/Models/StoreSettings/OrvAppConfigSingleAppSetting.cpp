#include "OrvAppConfigSingleAppSetting.h"

#include "OrvJSONAccessors.h"

std::shared_ptr<OrvAppConfigSingleAppSetting> OrvAppConfigSingleAppSetting::initWithName(
    std::optional<std::string> name, std::optional<boost::json::value> value) {
  return std::make_shared<OrvAppConfigSingleAppSetting>(std::move(name), std::move(value));
}

std::shared_ptr<OrvAppConfigSingleAppSetting> OrvAppConfigSingleAppSetting::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  // The name must be a string, but the value is taken as it comes: the host decides what a value means.
  std::optional<boost::json::value> value;
  // Copied out of the document's arena, which would otherwise live as long as this setting.
  if (const boost::json::value* raw = jsonDictionary->if_contains("value")) value.emplace(*raw, boost::json::storage_ptr());
  return initWithName(OrvJSON::jsonStringForKey(jsonDictionary, "name"), std::move(value));
}

std::optional<OrvAppConfigSingleAppSettingList> OrvAppConfigSingleAppSetting::collectionFromJSONObjects(
    const boost::json::array* jsonObjects) {
  auto dictionaries = OrvJSON::subArrayOfDictionaries(jsonObjects);
  if (!dictionaries) return std::nullopt;
  OrvAppConfigSingleAppSettingList settings;
  settings.reserve(dictionaries->size());
  for (const boost::json::object* dictionary : *dictionaries) settings.push_back(initWithJSONDictionary(dictionary));
  return settings;
}

void OrvAppConfigSingleAppSetting::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encode(name_, "name");
  coder.encode(value_, "value");
}

std::shared_ptr<OrvAppConfigSingleAppSetting> OrvAppConfigSingleAppSetting::initWithCoder(OrvKeyedUnarchiver& coder) {
  auto name = coder.decode<std::string>("name");
  // A JSON value admits numbers, strings, arrays and dictionaries but not the null object, so a
  // setting holding a JSON null can be stored but not read back.
  return initWithName(std::move(name), coder.decode<boost::json::value>("value"));
}
