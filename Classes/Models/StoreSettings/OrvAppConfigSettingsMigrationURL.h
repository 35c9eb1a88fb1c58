#pragma once
// One migration target of a store URL, valid until an instant given in milliseconds since 1970.
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OrvKeyedArchiver.h"
#include "OrvNumber.h"
#include "OrvTypes.h"

class OrvAppConfigSettingsMigrationURL : public OrvSecureCoding {
 public:
  OrvAppConfigSettingsMigrationURL(std::optional<OrvNumber> dovrinValidUntil, std::optional<OrvDate> dovrinValidUntilDate,
                                   std::optional<std::string> urlString)
      : dovrinValidUntil_(dovrinValidUntil), dovrinValidUntilDate_(dovrinValidUntilDate), url_(std::move(urlString)) {}

  static std::shared_ptr<OrvAppConfigSettingsMigrationURL> initWithDovrinValidUntil(std::optional<OrvNumber> dovrinValidUntil,
                                                                                    std::optional<OrvDate> dovrinValidUntilDate,
                                                                                    std::optional<std::string> urlString);
  static std::shared_ptr<OrvAppConfigSettingsMigrationURL> initWithJSONDictionary(const boost::json::object* jsonDictionary);
  // One entry per JSON-object element, in order; nothing for nothing.
  static std::optional<std::vector<std::shared_ptr<OrvAppConfigSettingsMigrationURL>>> migrationUrlsFromJSONObjects(
      const boost::json::array* jsonObjects);

  const std::optional<OrvNumber>& dovrinValidUntil() const noexcept { return dovrinValidUntil_; }
  void setDovrinValidUntil(std::optional<OrvNumber> validUntil) { dovrinValidUntil_ = validUntil; }
  const std::optional<OrvDate>& dovrinValidUntilDate() const noexcept { return dovrinValidUntilDate_; }
  void setDovrinValidUntilDate(std::optional<OrvDate> date) { dovrinValidUntilDate_ = date; }
  const std::optional<std::string>& url() const noexcept { return url_; }
  void setUrl(std::optional<std::string> url) { url_ = std::move(url); }

  static constexpr std::string_view orvClassName = "OrvAppConfigSettingsMigrationURL";
  static constexpr bool supportsSecureCoding() noexcept { return true; }
  static std::shared_ptr<OrvAppConfigSettingsMigrationURL> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
  void encodeWithCoder(OrvKeyedArchiver& coder) const override;

  friend bool operator==(const OrvAppConfigSettingsMigrationURL& a, const OrvAppConfigSettingsMigrationURL& b) {
    return a.dovrinValidUntil_ == b.dovrinValidUntil_ && a.dovrinValidUntilDate_ == b.dovrinValidUntilDate_ && a.url_ == b.url_;
  }

 private:
  std::optional<OrvNumber> dovrinValidUntil_;
  std::optional<OrvDate> dovrinValidUntilDate_;
  std::optional<std::string> url_;
};

using OrvAppConfigSettingsMigrationURLList = std::vector<std::shared_ptr<OrvAppConfigSettingsMigrationURL>>;
