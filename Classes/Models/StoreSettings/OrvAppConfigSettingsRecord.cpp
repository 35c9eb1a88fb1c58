#include "OrvAppConfigSettingsRecord.h"

#include "OrvAppConfigServiceConstants.h"
#include "OrvAppConfigSettingsComparison.h"
#include "OrvJSONAccessors.h"
#include "OrvJSONSerialization.h"

namespace orv::detail {
namespace {

// The value read as an unsigned count of seconds, as the platform reads it: a fraction is dropped and
// a negative value wraps to a far future rather than a past instant.
OrvDate dateFromEpochSeconds(const OrvNumber& seconds) {
  return OrvDateFromTimeIntervalSince1970(static_cast<double>(seconds.unsignedLongLongValue()));
}

}  // namespace
}  // namespace orv::detail

std::shared_ptr<OrvAppConfigSettingsRecord> OrvAppConfigSettingsRecord::initWithKaleth(
    std::shared_ptr<OrvAppConfigSettingsKaleth> kaleth, std::shared_ptr<OrvAppConfigSettingsURL> url,
    std::shared_ptr<OrvAppConfigSettingsChannel> settingsChannel, std::optional<OrvNumber> expiry,
    std::optional<OrvNumber> notValidBefore) {
  auto record = std::make_shared<OrvAppConfigSettingsRecord>();
  // Through the setters, so that the dates are derived here too.
  record->setKaleth(std::move(kaleth));
  record->setUrl(std::move(url));
  record->setSettingsChannel(std::move(settingsChannel));
  record->setExp(expiry);
  record->setIat(notValidBefore);
  return record;
}

std::shared_ptr<OrvAppConfigSettingsRecord> OrvAppConfigSettingsRecord::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  auto kaleth = OrvAppConfigSettingsKaleth::initWithJSONDictionary(OrvJSON::jsonDictionaryForKey(jsonDictionary, "kaleth"));
  auto url = OrvAppConfigSettingsURL::initWithJSONDictionary(OrvJSON::jsonDictionaryForKey(jsonDictionary, "url"));
  auto channel =
      OrvAppConfigSettingsChannel::initWithJSONDictionary(OrvJSON::jsonDictionaryForKey(jsonDictionary, "settingsChannel"));
  auto exp = OrvNumber::fromJSON(OrvJSON::jsonNumberForKey(jsonDictionary, "exp"));
  auto iat = OrvNumber::fromJSON(OrvJSON::jsonNumberForKey(jsonDictionary, "iat"));
  return initWithKaleth(std::move(kaleth), std::move(url), std::move(channel), exp, iat);
}

std::shared_ptr<OrvAppConfigSettingsRecord> OrvAppConfigSettingsRecord::createFromData(const OrvData& data,
                                                                                       std::optional<OrvError>* error) {
  // Fragments are allowed so that a bare scalar is not a parse error; it still fails below, with the
  // same error as every other body that is not an object.
  std::optional<OrvError> parseError;
  const auto document = orv::detail::parseJSONDocument(data, OrvJSONReadingOptions::fragmentsAllowed, &parseError);
  if (document && document->value().is_object()) {
    if (error) *error = parseError;
    return initWithJSONDictionary(&document->value().get_object());
  }
  if (error) {
    *error = OrvError(OrvAppConfigSettingsRecordErrorDomain, 0,
                      {{OrvLocalizedDescriptionKey, "A non-dictionary JSON object was provided as the settings response."}});
  }
  return nullptr;
}

void OrvAppConfigSettingsRecord::setExp(std::optional<OrvNumber> exp) {
  exp_ = exp;
  notValidAfter_ = exp ? std::optional<OrvDate>(orv::detail::dateFromEpochSeconds(*exp)) : std::nullopt;
}

void OrvAppConfigSettingsRecord::setIat(std::optional<OrvNumber> iat) {
  iat_ = iat;
  notValidBefore_ = iat ? std::optional<OrvDate>(orv::detail::dateFromEpochSeconds(*iat)) : std::nullopt;
}

void OrvAppConfigSettingsRecord::encodeWithCoder(OrvKeyedArchiver& coder) const {
  coder.encode(kaleth_, "kaleth");
  coder.encode(url_, "url");
  coder.encode(exp_, "exp");
  coder.encode(iat_, "iat");
  coder.encode(settingsChannel_, "settingsChannel");
}

std::shared_ptr<OrvAppConfigSettingsRecord> OrvAppConfigSettingsRecord::initWithCoder(OrvKeyedUnarchiver& coder) {
  auto kaleth = coder.decode<std::shared_ptr<OrvAppConfigSettingsKaleth>>("kaleth");
  auto url = coder.decode<std::shared_ptr<OrvAppConfigSettingsURL>>("url");
  auto channel = coder.decode<std::shared_ptr<OrvAppConfigSettingsChannel>>("settingsChannel");
  auto exp = coder.decode<OrvNumber>("exp");
  return initWithKaleth(std::move(kaleth), std::move(url), std::move(channel), exp, coder.decode<OrvNumber>("iat"));
}

bool operator==(const OrvAppConfigSettingsRecord& a, const OrvAppConfigSettingsRecord& b) {
  return orv::detail::sameObject(a.kaleth_, b.kaleth_) && orv::detail::sameObject(a.url_, b.url_) &&
         orv::detail::sameObject(a.settingsChannel_, b.settingsChannel_) && a.exp_ == b.exp_ && a.iat_ == b.iat_ &&
         a.notValidBefore_ == b.notValidBefore_ && a.notValidAfter_ == b.notValidAfter_;
}
