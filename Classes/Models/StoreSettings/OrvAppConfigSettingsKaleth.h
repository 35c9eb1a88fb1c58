#pragma once
// The "kaleth" part of a settings answer: what an administrator published for a store. The JSON key
// "description" is held in theDescription and archived under that name.
#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <string>

#include "OrvAppConfigSettingsApp.h"
#include "OrvKeyedArchiver.h"

class OrvAppConfigSettingsKaleth : public OrvSecureCoding {
 public:
  OrvAppConfigSettingsKaleth(std::shared_ptr<OrvAppConfigSettingsApp> appSettings, std::optional<std::string> name,
                             std::optional<std::string> description, bool useForAppConfig)
      : appSettings_(std::move(appSettings)),
        name_(std::move(name)),
        theDescription_(std::move(description)),
        isUseForAppConfig_(useForAppConfig) {}

  static std::shared_ptr<OrvAppConfigSettingsKaleth> initWithAppSettings(std::shared_ptr<OrvAppConfigSettingsApp> appSettings,
                                                                         std::optional<std::string> name,
                                                                         std::optional<std::string> description,
                                                                         bool useForAppConfig);
  static std::shared_ptr<OrvAppConfigSettingsKaleth> initWithJSONDictionary(const boost::json::object* jsonDictionary);

  const std::shared_ptr<OrvAppConfigSettingsApp>& appSettings() const noexcept { return appSettings_; }
  void setAppSettings(std::shared_ptr<OrvAppConfigSettingsApp> appSettings) { appSettings_ = std::move(appSettings); }
  const std::optional<std::string>& name() const noexcept { return name_; }
  void setName(std::optional<std::string> name) { name_ = std::move(name); }
  const std::optional<std::string>& theDescription() const noexcept { return theDescription_; }
  void setTheDescription(std::optional<std::string> description) { theDescription_ = std::move(description); }
  bool isUseForAppConfig() const noexcept { return isUseForAppConfig_; }
  void setIsUseForAppConfig(bool useForAppConfig) noexcept { isUseForAppConfig_ = useForAppConfig; }

  static constexpr std::string_view orvClassName = "OrvAppConfigSettingsKaleth";
  static constexpr bool supportsSecureCoding() noexcept { return true; }
  static std::shared_ptr<OrvAppConfigSettingsKaleth> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
  void encodeWithCoder(OrvKeyedArchiver& coder) const override;

  friend bool operator==(const OrvAppConfigSettingsKaleth& a, const OrvAppConfigSettingsKaleth& b);

 private:
  std::shared_ptr<OrvAppConfigSettingsApp> appSettings_;
  std::optional<std::string> name_;
  std::optional<std::string> theDescription_;
  bool isUseForAppConfig_ = false;
};
