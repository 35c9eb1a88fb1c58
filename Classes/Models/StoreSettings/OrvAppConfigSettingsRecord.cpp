#include "OrvAppConfigSettingsRecord.h"

#include "OrvAppConfigServiceConstants.h"
#include "OrvAppConfigSettingsComparison.h"
#include "OrvJSONAccessors.h"
#include "OrvJSONSerialization.h"
#include "OrvKeptByBytes.h"

namespace orv::detail {
namespace {

// The value read as an unsigned count of seconds, as the platform reads it: a fraction is dropped and
// a negative value wraps to a far future rather than a past instant.
OrvDate dateFromEpochSeconds(const OrvNumber& seconds) {
  return OrvDateFromTimeIntervalSince1970(static_cast<double>(seconds.unsignedLongLongValue()));
}

// A store's answer comes back with the same bytes until it is signed again, and reading it into a
// record takes about a tenth of the work of checking its signature, for every store of every request.
// Records can be changed by whoever holds them, so a kept record is never handed out: each caller gets
// a copy of its own, built object by object as the parse would have built it. Up to 2,048 answers and
// 4 MiB of their text: every store of a 2,000-store request whose answers average 2 KiB.
using KeptRecord = std::shared_ptr<const OrvAppConfigSettingsRecord>;
KeptByBytes<KeptRecord>& answersRead() {
  // Never destroyed: a request may still be parsing on its I/O thread while the process exits.
  static auto* const answers = new KeptByBytes<KeptRecord>(2048, 4 * 1024 * 1024);
  return *answers;
}

template <class T, class Copy>
std::optional<std::vector<std::shared_ptr<T>>> copyOf(const std::optional<std::vector<std::shared_ptr<T>>>& list, Copy copy) {
  if (!list) return std::nullopt;
  std::vector<std::shared_ptr<T>> result;
  result.reserve(list->size());
  for (const auto& element : *list) result.push_back(element ? copy(*element) : nullptr);
  return result;
}

std::shared_ptr<OrvAppConfigSingleAppSetting> copyOf(const OrvAppConfigSingleAppSetting& setting) {
  std::optional<boost::json::value> value;
  // Into the default storage, whatever storage the kept value has.
  if (setting.value()) value.emplace(*setting.value(), boost::json::storage_ptr());
  return OrvAppConfigSingleAppSetting::initWithName(setting.name(), std::move(value));
}

// The platform is the group's class, so a group is copied as what it is.
template <class Group>
std::shared_ptr<Group> copyOfGroup(const Group& group) {
  return std::make_shared<Group>(copyOf(group.settings(), [](const auto& s) { return copyOf(s); }), group.assignmentPriority(),
                                 group.isUserOverride(), group.category(), group.assignedTo());
}

std::shared_ptr<OrvAppConfigSettingsApp> copyOf(const std::shared_ptr<OrvAppConfigSettingsApp>& app) {
  if (!app) return nullptr;
  return OrvAppConfigSettingsApp::initWithMacOSSettings(copyOf(app->macos(), copyOfGroup<OrvAppConfigSettingsMacOS>),
                                                        copyOf(app->ios(), copyOfGroup<OrvAppConfigSettingsIos>));
}

std::shared_ptr<OrvAppConfigSettingsKaleth> copyOf(const std::shared_ptr<OrvAppConfigSettingsKaleth>& kaleth) {
  if (!kaleth) return nullptr;
  return OrvAppConfigSettingsKaleth::initWithAppSettings(copyOf(kaleth->appSettings()), kaleth->name(), kaleth->theDescription(),
                                                         kaleth->isUseForAppConfig());
}

std::shared_ptr<OrvAppConfigSettingsURL> copyOf(const std::shared_ptr<OrvAppConfigSettingsURL>& url) {
  if (!url) return nullptr;
  const auto copyMigration = [](const OrvAppConfigSettingsMigrationURL& migration) {
    return OrvAppConfigSettingsMigrationURL::initWithDovrinValidUntil(migration.dovrinValidUntil(),
                                                                      migration.dovrinValidUntilDate(), migration.url());
  };
  return OrvAppConfigSettingsURL::initWithName(url->name(), copyOf(url->migrationUrl(), copyMigration));
}

std::shared_ptr<OrvAppConfigSettingsRecord> copyOf(const OrvAppConfigSettingsRecord& record) {
  auto channel = record.settingsChannel()
                     ? OrvAppConfigSettingsChannel::initWithChannelName(record.settingsChannel()->channelName())
                     : nullptr;
  // The dates follow from exp and iat, as they did when the kept record was read.
  return OrvAppConfigSettingsRecord::initWithKaleth(copyOf(record.kaleth()), copyOf(record.url()), std::move(channel),
                                                    record.exp(), record.iat());
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
  using namespace orv::detail;
  // Only answers read without objection are kept, so a refused one is read each time.
  if (const auto kept = answersRead().find(data)) {
    if (error) *error = std::nullopt;
    return copyOf(**kept);
  }
  // Fragments are allowed so that a bare scalar is not a parse error; it still fails below, with the
  // same error as every other body that is not an object.
  std::optional<OrvError> parseError;
  const auto document = parseJSONDocument(data, OrvJSONReadingOptions::fragmentsAllowed, &parseError);
  if (document && document->value().is_object()) {
    if (error) *error = parseError;
    auto record = initWithJSONDictionary(&document->value().get_object());
    if (!parseError && data.size() <= kLargestKeptText) answersRead().keep(data, copyOf(*record));
    return record;
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
