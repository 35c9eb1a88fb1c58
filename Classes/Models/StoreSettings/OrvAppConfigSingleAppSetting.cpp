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
  if (const boost::json::value* raw = jsonDictionary->if_contains("value")) value = *raw;
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

const OrvClass& OrvAppConfigSingleAppSetting::orvClass() {
  static const OrvClass& cls =
      OrvClass::registerClass("OrvAppConfigSingleAppSetting", nullptr, supportsSecureCoding(),
                              [](OrvKeyedUnarchiver& coder) -> std::shared_ptr<OrvSecureCoding> { return initWithCoder(coder); });
  return cls;
}

void OrvAppConfigSingleAppSetting::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encodeString(name_, "name");
  coder.encodeJSONValue(value_, "value");
}

std::shared_ptr<OrvAppConfigSingleAppSetting> OrvAppConfigSingleAppSetting::initWithCoder(OrvKeyedUnarchiver& coder) {
  auto name = coder.decodeStringForKey("name");
  // A JSON null archives as the null object, which this list leaves out on purpose: such a setting
  // can be stored but not read back.
  auto value = coder.decodeJSONValueOfClasses(
      {&OrvClass::number(), &OrvClass::string(), &OrvClass::array(), &OrvClass::dictionary()}, "value");
  if (coder.error()) return nullptr;
  return initWithName(std::move(name), std::move(value));
}
