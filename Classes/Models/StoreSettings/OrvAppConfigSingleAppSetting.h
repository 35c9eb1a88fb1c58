#pragma once
// One name/value setting of a settings group. The value keeps whatever JSON type the service sent,
// including null; std::nullopt means the answer had no value at all.
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OrvKeyedArchiver.h"

class OrvAppConfigSingleAppSetting : public OrvSecureCoding {
 public:
  OrvAppConfigSingleAppSetting(std::optional<std::string> name, std::optional<boost::json::value> value)
      : name_(std::move(name)), value_(std::move(value)) {}

  static std::shared_ptr<OrvAppConfigSingleAppSetting> initWithName(std::optional<std::string> name,
                                                                    std::optional<boost::json::value> value);
  static std::shared_ptr<OrvAppConfigSingleAppSetting> initWithJSONDictionary(const boost::json::object* jsonDictionary);
  // One setting per JSON-object element, in order; nothing for nothing.
  static std::optional<std::vector<std::shared_ptr<OrvAppConfigSingleAppSetting>>> collectionFromJSONObjects(
      const boost::json::array* jsonObjects);

  const std::optional<std::string>& name() const noexcept { return name_; }
  void setName(std::optional<std::string> name) { name_ = std::move(name); }
  const std::optional<boost::json::value>& value() const noexcept { return value_; }
  void setValue(std::optional<boost::json::value> value) { value_ = std::move(value); }

  static constexpr std::string_view orvClassName = "OrvAppConfigSingleAppSetting";
  static constexpr bool supportsSecureCoding() noexcept { return true; }
  static std::shared_ptr<OrvAppConfigSingleAppSetting> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
  void encodeWithCoder(OrvKeyedArchiver& coder) const override;

  friend bool operator==(const OrvAppConfigSingleAppSetting& a, const OrvAppConfigSingleAppSetting& b) {
    return a.name_ == b.name_ && a.value_ == b.value_;
  }

 private:
  std::optional<std::string> name_;
  std::optional<boost::json::value> value_;
};

using OrvAppConfigSingleAppSettingList = std::vector<std::shared_ptr<OrvAppConfigSingleAppSetting>>;
