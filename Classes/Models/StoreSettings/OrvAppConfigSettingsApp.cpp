#include "OrvAppConfigSettingsApp.h"

#include "OrvAppConfigSettingsComparison.h"
#include "OrvJSONAccessors.h"

namespace orv::detail {
namespace {

template <class Group>
std::optional<std::vector<std::shared_ptr<Group>>> groupsForKey(const boost::json::object* jsonDictionary, std::string_view key) {
  auto dictionaries = OrvJSON::subArrayOfDictionaries(OrvJSON::jsonArrayForKey(jsonDictionary, key));
  if (!dictionaries) return std::nullopt;
  std::vector<std::shared_ptr<Group>> groups;
  groups.reserve(dictionaries->size());
  for (const boost::json::object* dictionary : *dictionaries) {
    if (auto group = Group::initWithJSONDictionary(dictionary)) groups.push_back(std::move(group));
  }
  return groups;
}

}  // namespace
}  // namespace orv::detail

std::shared_ptr<OrvAppConfigSettingsApp> OrvAppConfigSettingsApp::initWithMacOSSettings(
    std::optional<OrvAppConfigSettingsMacOSList> macos, std::optional<OrvAppConfigSettingsIosList> ios) {
  return std::make_shared<OrvAppConfigSettingsApp>(std::move(macos), std::move(ios));
}

std::shared_ptr<OrvAppConfigSettingsApp> OrvAppConfigSettingsApp::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  auto ios = orv::detail::groupsForKey<OrvAppConfigSettingsIos>(jsonDictionary, "ios");
  auto macos = orv::detail::groupsForKey<OrvAppConfigSettingsMacOS>(jsonDictionary, "macos");
  return initWithMacOSSettings(std::move(macos), std::move(ios));
}

void OrvAppConfigSettingsApp::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encode(ios_, "ios");
  coder.encode(macos_, "macos");
}

std::shared_ptr<OrvAppConfigSettingsApp> OrvAppConfigSettingsApp::initWithCoder(OrvKeyedUnarchiver& coder) {
  // Each list admits only its own platform's class, so a group cannot change platform inside an archive.
  auto macos = coder.decode<OrvAppConfigSettingsMacOSList>("macos");
  return initWithMacOSSettings(std::move(macos), coder.decode<OrvAppConfigSettingsIosList>("ios"));
}

bool operator==(const OrvAppConfigSettingsApp& a, const OrvAppConfigSettingsApp& b) {
  return orv::detail::sameObjects(a.ios_, b.ios_) && orv::detail::sameObjects(a.macos_, b.macos_);
}
