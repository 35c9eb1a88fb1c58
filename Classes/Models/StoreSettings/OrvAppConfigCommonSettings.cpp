#include "OrvAppConfigCommonSettings.h"

#include "OrvAppConfigSettingsComparison.h"
#include "OrvJSONAccessors.h"

template <class Group>
std::shared_ptr<Group> OrvAppConfigCommonSettings::groupFromJSON(const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  auto settings = OrvAppConfigSingleAppSetting::collectionFromJSONObjects(OrvJSON::jsonArrayForKey(jsonDictionary, "settings"));
  auto category = OrvJSON::jsonStringForKey(jsonDictionary, "category");
  const bool userOverride = OrvJSON::jsonBoolForKey(jsonDictionary, "userOverride");
  auto assignedTo = OrvJSON::subArrayOfStrings(OrvJSON::jsonArrayForKey(jsonDictionary, "assignedTo"));
  auto priority = OrvNumber::fromJSON(OrvJSON::jsonNumberForKey(jsonDictionary, "assignmentPriority"));
  return Group::initWithAppSettings(std::move(settings), priority, userOverride, std::move(category), std::move(assignedTo));
}

template <class Group>
std::shared_ptr<Group> OrvAppConfigCommonSettings::groupFromCoder(OrvKeyedUnarchiver& coder) {
  auto settings = coder.decodeArrayOfObjectsOfClasses<OrvAppConfigSingleAppSetting>(
      {&OrvClass::array(), &OrvClass::mutableArray(), &OrvAppConfigSingleAppSetting::orvClass()}, "settings");
  auto priority = coder.decodeNumberForKey("assignmentPriority");
  const bool userOverride = coder.decodeBoolForKey("isUserOverride");
  auto category = coder.decodeStringForKey("category");
  auto assignedTo = coder.decodeArrayOfStringsOfClasses({&OrvClass::array(), &OrvClass::string()}, "assignedTo");
  if (coder.error()) return nullptr;
  return Group::initWithAppSettings(std::move(settings), priority, userOverride, std::move(category), std::move(assignedTo));
}

template <class Group>
const OrvClass& OrvAppConfigCommonSettings::registerGroupClass(const char* name, const OrvClass* superclass) {
  return OrvClass::registerClass(
      name, superclass, supportsSecureCoding(),
      [](OrvKeyedUnarchiver& coder) -> std::shared_ptr<OrvSecureCoding> { return groupFromCoder<Group>(coder); });
}

std::shared_ptr<OrvAppConfigCommonSettings> OrvAppConfigCommonSettings::initWithAppSettings(
    std::optional<OrvAppConfigSingleAppSettingList> settings, std::optional<OrvNumber> assignmentPriority, bool userOverride,
    std::optional<std::string> category, std::optional<std::vector<std::string>> assignedTo) {
  return std::make_shared<OrvAppConfigCommonSettings>(std::move(settings), assignmentPriority, userOverride, std::move(category),
                                                      std::move(assignedTo));
}

std::shared_ptr<OrvAppConfigCommonSettings> OrvAppConfigCommonSettings::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  return groupFromJSON<OrvAppConfigCommonSettings>(jsonDictionary);
}

const OrvClass& OrvAppConfigCommonSettings::orvClass() {
  static const OrvClass& cls = registerGroupClass<OrvAppConfigCommonSettings>("OrvAppConfigCommonSettings", nullptr);
  return cls;
}

std::shared_ptr<OrvAppConfigCommonSettings> OrvAppConfigCommonSettings::initWithCoder(OrvKeyedUnarchiver& coder) {
  return groupFromCoder<OrvAppConfigCommonSettings>(coder);
}

void OrvAppConfigCommonSettings::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encodeObjects(settings_, "settings");
  coder.encodeNumber(assignmentPriority_, "assignmentPriority");
  coder.encodeBool(isUserOverride_, "isUserOverride");
  coder.encodeString(category_, "category");
  coder.encodeStrings(assignedTo_, "assignedTo");
}

bool operator==(const OrvAppConfigCommonSettings& a, const OrvAppConfigCommonSettings& b) {
  return &a.classForCoder() == &b.classForCoder() && orv::detail::sameObjects(a.settings_, b.settings_) &&
         a.assignmentPriority_ == b.assignmentPriority_ && a.category_ == b.category_ && a.assignedTo_ == b.assignedTo_ &&
         a.isUserOverride_ == b.isUserOverride_;
}

// MARK: - OrvAppConfigSettingsMacOS

std::shared_ptr<OrvAppConfigSettingsMacOS> OrvAppConfigSettingsMacOS::initWithAppSettings(
    std::optional<OrvAppConfigSingleAppSettingList> settings, std::optional<OrvNumber> assignmentPriority, bool userOverride,
    std::optional<std::string> category, std::optional<std::vector<std::string>> assignedTo) {
  return std::make_shared<OrvAppConfigSettingsMacOS>(std::move(settings), assignmentPriority, userOverride, std::move(category),
                                                     std::move(assignedTo));
}

std::shared_ptr<OrvAppConfigSettingsMacOS> OrvAppConfigSettingsMacOS::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  return groupFromJSON<OrvAppConfigSettingsMacOS>(jsonDictionary);
}

const OrvClass& OrvAppConfigSettingsMacOS::orvClass() {
  static const OrvClass& cls =
      registerGroupClass<OrvAppConfigSettingsMacOS>("OrvAppConfigSettingsMacOS", &OrvAppConfigCommonSettings::orvClass());
  return cls;
}

std::shared_ptr<OrvAppConfigSettingsMacOS> OrvAppConfigSettingsMacOS::initWithCoder(OrvKeyedUnarchiver& coder) {
  return groupFromCoder<OrvAppConfigSettingsMacOS>(coder);
}

// MARK: - OrvAppConfigSettingsIos

std::shared_ptr<OrvAppConfigSettingsIos> OrvAppConfigSettingsIos::initWithAppSettings(
    std::optional<OrvAppConfigSingleAppSettingList> settings, std::optional<OrvNumber> assignmentPriority, bool userOverride,
    std::optional<std::string> category, std::optional<std::vector<std::string>> assignedTo) {
  return std::make_shared<OrvAppConfigSettingsIos>(std::move(settings), assignmentPriority, userOverride, std::move(category),
                                                   std::move(assignedTo));
}

std::shared_ptr<OrvAppConfigSettingsIos> OrvAppConfigSettingsIos::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  return groupFromJSON<OrvAppConfigSettingsIos>(jsonDictionary);
}

const OrvClass& OrvAppConfigSettingsIos::orvClass() {
  static const OrvClass& cls =
      registerGroupClass<OrvAppConfigSettingsIos>("OrvAppConfigSettingsIos", &OrvAppConfigCommonSettings::orvClass());
  return cls;
}

std::shared_ptr<OrvAppConfigSettingsIos> OrvAppConfigSettingsIos::initWithCoder(OrvKeyedUnarchiver& coder) {
  return groupFromCoder<OrvAppConfigSettingsIos>(coder);
}
