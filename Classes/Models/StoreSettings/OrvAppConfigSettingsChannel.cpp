#include "OrvAppConfigSettingsChannel.h"

#include "OrvJSONAccessors.h"

std::shared_ptr<OrvAppConfigSettingsChannel> OrvAppConfigSettingsChannel::initWithChannelName(
    std::optional<std::string> channelName) {
  return std::make_shared<OrvAppConfigSettingsChannel>(std::move(channelName));
}

std::shared_ptr<OrvAppConfigSettingsChannel> OrvAppConfigSettingsChannel::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  return initWithChannelName(OrvJSON::jsonStringForKey(jsonDictionary, "channelName"));
}

const OrvClass& OrvAppConfigSettingsChannel::orvClass() {
  static const OrvClass& cls =
      OrvClass::registerClass("OrvAppConfigSettingsChannel", nullptr, supportsSecureCoding(),
                              [](OrvKeyedUnarchiver& coder) -> std::shared_ptr<OrvSecureCoding> { return initWithCoder(coder); });
  return cls;
}

void OrvAppConfigSettingsChannel::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encodeString(channelName_, "channelName");
}

std::shared_ptr<OrvAppConfigSettingsChannel> OrvAppConfigSettingsChannel::initWithCoder(OrvKeyedUnarchiver& coder) {
  auto channelName = coder.decodeStringForKey("channelName");
  if (coder.error()) return nullptr;
  return initWithChannelName(std::move(channelName));
}
