#pragma once
// The settings channel an answer belongs to.
#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <string>

#include "OrvKeyedArchiver.h"

class OrvAppConfigSettingsChannel : public OrvSecureCoding {
 public:
  explicit OrvAppConfigSettingsChannel(std::optional<std::string> channelName) : channelName_(std::move(channelName)) {}

  static std::shared_ptr<OrvAppConfigSettingsChannel> initWithChannelName(std::optional<std::string> channelName);
  static std::shared_ptr<OrvAppConfigSettingsChannel> initWithJSONDictionary(const boost::json::object* jsonDictionary);

  const std::optional<std::string>& channelName() const noexcept { return channelName_; }
  void setChannelName(std::optional<std::string> channelName) { channelName_ = std::move(channelName); }

  static constexpr std::string_view orvClassName = "OrvAppConfigSettingsChannel";
  static constexpr bool supportsSecureCoding() noexcept { return true; }
  static std::shared_ptr<OrvAppConfigSettingsChannel> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
  void encodeWithCoder(OrvKeyedArchiver& coder) const override;

  friend bool operator==(const OrvAppConfigSettingsChannel& a, const OrvAppConfigSettingsChannel& b) {
    return a.channelName_ == b.channelName_;
  }

 private:
  std::optional<std::string> channelName_;
};
