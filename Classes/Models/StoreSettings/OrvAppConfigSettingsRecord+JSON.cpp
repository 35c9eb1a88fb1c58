#include "OrvAppConfigSettingsRecord+JSON.h"

#include <cmath>

namespace orv::detail {
namespace {

namespace json = boost::json;

json::value stringValue(const std::optional<std::string>& text) { return text ? json::value(*text) : json::value(nullptr); }

json::value numberValue(const std::optional<OrvNumber>& number) {
  if (!number) return nullptr;
  // JSON has no spelling for infinities and NaN.
  if (number->kind() == OrvNumber::Kind::floatingPoint && !std::isfinite(number->doubleValue())) return nullptr;
  return number->toJSON();
}

json::value dateValue(const std::optional<OrvDate>& date) {
  return date ? json::value(OrvDateISO8601String(*date)) : json::value(nullptr);
}

template <class T, class Convert>
json::value listValue(const std::optional<std::vector<std::shared_ptr<T>>>& list, Convert convert) {
  if (!list) return nullptr;
  json::array result;
  result.reserve(list->size());
  for (const auto& element : *list) result.push_back(element ? convert(*element) : json::value(nullptr));
  return result;
}

json::value settingValue(const OrvAppConfigSingleAppSetting& setting) {
  return json::object{{"name", stringValue(setting.name())},
                      {"value", setting.value() ? *setting.value() : json::value(nullptr)}};
}

json::value groupValue(const OrvAppConfigCommonSettings& group) {
  json::value assignedTo = nullptr;
  if (group.assignedTo()) assignedTo = json::array(group.assignedTo()->begin(), group.assignedTo()->end());
  return json::object{{"settings", listValue(group.settings(), settingValue)},
                      {"assignmentPriority", numberValue(group.assignmentPriority())},
                      {"isUserOverride", group.isUserOverride()},
                      {"category", stringValue(group.category())},
                      {"assignedTo", std::move(assignedTo)}};
}

json::value appValue(const std::shared_ptr<OrvAppConfigSettingsApp>& app) {
  if (!app) return nullptr;
  return json::object{{"ios", listValue(app->ios(), groupValue)}, {"macos", listValue(app->macos(), groupValue)}};
}

json::value kalethValue(const std::shared_ptr<OrvAppConfigSettingsKaleth>& kaleth) {
  if (!kaleth) return nullptr;
  return json::object{{"appSettings", appValue(kaleth->appSettings())},
                      {"name", stringValue(kaleth->name())},
                      {"theDescription", stringValue(kaleth->theDescription())},
                      {"isUseForAppConfig", kaleth->isUseForAppConfig()}};
}

json::value migrationValue(const OrvAppConfigSettingsMigrationURL& migration) {
  return json::object{{"dovrinValidUntil", numberValue(migration.dovrinValidUntil())},
                      {"dovrinValidUntilDate", dateValue(migration.dovrinValidUntilDate())},
                      {"url", stringValue(migration.url())}};
}

json::value urlValue(const std::shared_ptr<OrvAppConfigSettingsURL>& url) {
  if (!url) return nullptr;
  return json::object{{"name", stringValue(url->name())}, {"migrationUrl", listValue(url->migrationUrl(), migrationValue)}};
}

json::value channelValue(const std::shared_ptr<OrvAppConfigSettingsChannel>& channel) {
  if (!channel) return nullptr;
  return json::object{{"channelName", stringValue(channel->channelName())}};
}

}  // namespace
}  // namespace orv::detail

boost::json::object OrvAppConfigSettingsRecordJSONObject(const OrvAppConfigSettingsRecord& record) {
  using namespace orv::detail;
  return boost::json::object{{"kaleth", kalethValue(record.kaleth())},
                             {"url", urlValue(record.url())},
                             {"settingsChannel", channelValue(record.settingsChannel())},
                             {"exp", numberValue(record.exp())},
                             {"iat", numberValue(record.iat())},
                             {"notValidBefore", dateValue(record.notValidBefore())},
                             {"notValidAfter", dateValue(record.notValidAfter())}};
}
