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
  auto settings = coder.decode<OrvAppConfigSingleAppSettingList>("settings");
  auto priority = coder.decode<OrvNumber>("assignmentPriority");
  const bool userOverride = coder.decode<bool>("isUserOverride").value_or(false);
  auto category = coder.decode<std::string>("category");
  auto assignedTo = coder.decode<std::vector<std::string>>("assignedTo");
  return Group::initWithAppSettings(std::move(settings), priority, userOverride, std::move(category), std::move(assignedTo));
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

std::shared_ptr<OrvAppConfigCommonSettings> OrvAppConfigCommonSettings::initWithCoder(OrvKeyedUnarchiver& coder) {
  return groupFromCoder<OrvAppConfigCommonSettings>(coder);
}

void OrvAppConfigCommonSettings::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encode(settings_, "settings");
  coder.encode(assignmentPriority_, "assignmentPriority");
  coder.encode(isUserOverride_, "isUserOverride");
  coder.encode(category_, "category");
  coder.encode(assignedTo_, "assignedTo");
}

bool operator==(const OrvAppConfigCommonSettings& a, const OrvAppConfigCommonSettings& b) {
  return a.className() == b.className() && orv::detail::sameObjects(a.settings_, b.settings_) &&
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

std::shared_ptr<OrvAppConfigSettingsIos> OrvAppConfigSettingsIos::initWithCoder(OrvKeyedUnarchiver& coder) {
  return groupFromCoder<OrvAppConfigSettingsIos>(coder);
}
