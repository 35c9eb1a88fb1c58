#pragma once
// One settings group: the settings themselves plus what the host needs to pick between groups
// (category, priority, override flag, assignment). The library only stores these. The two platform
// subclasses add nothing; they exist so that a group's platform is told by its class, also inside an
// archive.
#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OrvAppConfigSingleAppSetting.h"
#include "OrvKeyedArchiver.h"
#include "OrvNumber.h"

class OrvAppConfigCommonSettings : public OrvSecureCoding {
 public:
  OrvAppConfigCommonSettings(std::optional<OrvAppConfigSingleAppSettingList> settings,
                             std::optional<OrvNumber> assignmentPriority, bool userOverride, std::optional<std::string> category,
                             std::optional<std::vector<std::string>> assignedTo)
      : settings_(std::move(settings)),
        assignmentPriority_(assignmentPriority),
        category_(std::move(category)),
        assignedTo_(std::move(assignedTo)),
        isUserOverride_(userOverride) {}

  static std::shared_ptr<OrvAppConfigCommonSettings> initWithAppSettings(std::optional<OrvAppConfigSingleAppSettingList> settings,
                                                                         std::optional<OrvNumber> assignmentPriority,
                                                                         bool userOverride, std::optional<std::string> category,
                                                                         std::optional<std::vector<std::string>> assignedTo);
  static std::shared_ptr<OrvAppConfigCommonSettings> initWithJSONDictionary(const boost::json::object* jsonDictionary);

  const std::optional<OrvAppConfigSingleAppSettingList>& settings() const noexcept { return settings_; }
  void setSettings(std::optional<OrvAppConfigSingleAppSettingList> settings) { settings_ = std::move(settings); }
  const std::optional<OrvNumber>& assignmentPriority() const noexcept { return assignmentPriority_; }
  void setAssignmentPriority(std::optional<OrvNumber> priority) { assignmentPriority_ = priority; }
  const std::optional<std::string>& category() const noexcept { return category_; }
  void setCategory(std::optional<std::string> category) { category_ = std::move(category); }
  const std::optional<std::vector<std::string>>& assignedTo() const noexcept { return assignedTo_; }
  void setAssignedTo(std::optional<std::vector<std::string>> assignedTo) { assignedTo_ = std::move(assignedTo); }
  bool isUserOverride() const noexcept { return isUserOverride_; }
  void setIsUserOverride(bool userOverride) noexcept { isUserOverride_ = userOverride; }

  static constexpr std::string_view orvClassName = "OrvAppConfigCommonSettings";
  static constexpr bool supportsSecureCoding() noexcept { return true; }
  static std::shared_ptr<OrvAppConfigCommonSettings> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
  void encodeWithCoder(OrvKeyedArchiver& coder) const override;

  // A group of one platform never equals the same group of the other platform.
  friend bool operator==(const OrvAppConfigCommonSettings& a, const OrvAppConfigCommonSettings& b);

 protected:
  // The subclasses build through the same reading and decoding steps, only into their own class.
  template <class Group>
  static std::shared_ptr<Group> groupFromJSON(const boost::json::object* jsonDictionary);
  template <class Group>
  static std::shared_ptr<Group> groupFromCoder(OrvKeyedUnarchiver& coder);

 private:
  std::optional<OrvAppConfigSingleAppSettingList> settings_;
  std::optional<OrvNumber> assignmentPriority_;
  std::optional<std::string> category_;
  std::optional<std::vector<std::string>> assignedTo_;
  bool isUserOverride_ = false;
};

class OrvAppConfigSettingsMacOS final : public OrvAppConfigCommonSettings {
 public:
  using OrvAppConfigCommonSettings::OrvAppConfigCommonSettings;

  static std::shared_ptr<OrvAppConfigSettingsMacOS> initWithAppSettings(std::optional<OrvAppConfigSingleAppSettingList> settings,
                                                                        std::optional<OrvNumber> assignmentPriority,
                                                                        bool userOverride, std::optional<std::string> category,
                                                                        std::optional<std::vector<std::string>> assignedTo);
  static std::shared_ptr<OrvAppConfigSettingsMacOS> initWithJSONDictionary(const boost::json::object* jsonDictionary);

  static constexpr std::string_view orvClassName = "OrvAppConfigSettingsMacOS";
  static std::shared_ptr<OrvAppConfigSettingsMacOS> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
};

class OrvAppConfigSettingsIos final : public OrvAppConfigCommonSettings {
 public:
  using OrvAppConfigCommonSettings::OrvAppConfigCommonSettings;

  static std::shared_ptr<OrvAppConfigSettingsIos> initWithAppSettings(std::optional<OrvAppConfigSingleAppSettingList> settings,
                                                                      std::optional<OrvNumber> assignmentPriority,
                                                                      bool userOverride, std::optional<std::string> category,
                                                                      std::optional<std::vector<std::string>> assignedTo);
  static std::shared_ptr<OrvAppConfigSettingsIos> initWithJSONDictionary(const boost::json::object* jsonDictionary);

  static constexpr std::string_view orvClassName = "OrvAppConfigSettingsIos";
  static std::shared_ptr<OrvAppConfigSettingsIos> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
};

// Where a group is asked for, a platform's group comes back as itself.
template <>
struct OrvCoderSubclasses<OrvAppConfigCommonSettings> {
  using type = OrvClassList<OrvAppConfigSettingsMacOS, OrvAppConfigSettingsIos>;
};

using OrvAppConfigSettingsMacOSList = std::vector<std::shared_ptr<OrvAppConfigSettingsMacOS>>;
using OrvAppConfigSettingsIosList = std::vector<std::shared_ptr<OrvAppConfigSettingsIos>>;
