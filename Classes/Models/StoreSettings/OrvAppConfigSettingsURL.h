#pragma once
// The store URL a settings answer is about, as the service spelled it, with its migration targets.
#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <string>

#include "OrvAppConfigSettingsMigrationURL.h"
#include "OrvKeyedArchiver.h"

class OrvAppConfigSettingsURL : public OrvSecureCoding {
 public:
  OrvAppConfigSettingsURL(std::optional<std::string> name, std::optional<OrvAppConfigSettingsMigrationURLList> migrationURLs)
      : name_(std::move(name)), migrationUrl_(std::move(migrationURLs)) {}

  static std::shared_ptr<OrvAppConfigSettingsURL> initWithName(std::optional<std::string> name,
                                                               std::optional<OrvAppConfigSettingsMigrationURLList> migrationURLs);
  static std::shared_ptr<OrvAppConfigSettingsURL> initWithJSONDictionary(const boost::json::object* jsonDictionary);

  const std::optional<std::string>& name() const noexcept { return name_; }
  void setName(std::optional<std::string> name) { name_ = std::move(name); }
  const std::optional<OrvAppConfigSettingsMigrationURLList>& migrationUrl() const noexcept { return migrationUrl_; }
  void setMigrationUrl(std::optional<OrvAppConfigSettingsMigrationURLList> migrationUrl) {
    migrationUrl_ = std::move(migrationUrl);
  }

  static constexpr std::string_view orvClassName = "OrvAppConfigSettingsURL";
  static constexpr bool supportsSecureCoding() noexcept { return true; }
  static std::shared_ptr<OrvAppConfigSettingsURL> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
  void encodeWithCoder(OrvKeyedArchiver& coder) const override;

  friend bool operator==(const OrvAppConfigSettingsURL& a, const OrvAppConfigSettingsURL& b);

 private:
  std::optional<std::string> name_;
  std::optional<OrvAppConfigSettingsMigrationURLList> migrationUrl_;
};
