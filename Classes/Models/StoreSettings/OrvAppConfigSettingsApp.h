#pragma once
// The per-platform settings groups of one store. nil and empty lists differ: nil means the answer
// published nothing for that platform.
#include <boost/json/object.hpp>
#include <memory>
#include <optional>

#include "OrvAppConfigCommonSettings.h"
#include "OrvKeyedArchiver.h"

class OrvAppConfigSettingsApp : public OrvSecureCoding {
 public:
  OrvAppConfigSettingsApp(std::optional<OrvAppConfigSettingsMacOSList> macos, std::optional<OrvAppConfigSettingsIosList> ios)
      : ios_(std::move(ios)), macos_(std::move(macos)) {}

  static std::shared_ptr<OrvAppConfigSettingsApp> initWithMacOSSettings(std::optional<OrvAppConfigSettingsMacOSList> macos,
                                                                        std::optional<OrvAppConfigSettingsIosList> ios);
  static std::shared_ptr<OrvAppConfigSettingsApp> initWithJSONDictionary(const boost::json::object* jsonDictionary);

  const std::optional<OrvAppConfigSettingsIosList>& ios() const noexcept { return ios_; }
  void setIos(std::optional<OrvAppConfigSettingsIosList> ios) { ios_ = std::move(ios); }
  const std::optional<OrvAppConfigSettingsMacOSList>& macos() const noexcept { return macos_; }
  void setMacos(std::optional<OrvAppConfigSettingsMacOSList> macos) { macos_ = std::move(macos); }

  static constexpr std::string_view orvClassName = "OrvAppConfigSettingsApp";
  static constexpr bool supportsSecureCoding() noexcept { return true; }
  static std::shared_ptr<OrvAppConfigSettingsApp> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
  void encodeWithCoder(OrvKeyedArchiver& coder) const override;

  friend bool operator==(const OrvAppConfigSettingsApp& a, const OrvAppConfigSettingsApp& b);

 private:
  std::optional<OrvAppConfigSettingsIosList> ios_;
  std::optional<OrvAppConfigSettingsMacOSList> macos_;
};
