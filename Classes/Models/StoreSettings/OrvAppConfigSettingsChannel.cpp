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

void OrvAppConfigSettingsChannel::encodeWithCoder(OrvKeyedArchiver& coder) const { coder.encode(channelName_, "channelName"); }

std::shared_ptr<OrvAppConfigSettingsChannel> OrvAppConfigSettingsChannel::initWithCoder(OrvKeyedUnarchiver& coder) {
  return initWithChannelName(coder.decode<std::string>("channelName"));
}
