// A settings answer body as the network delivers it, then kept the way a host keeps it: every parsed
// record must archive, and the archive must decode to an equal record that archives to the same bytes.
// The one exception is a setting whose value holds a JSON null, which decoding refuses by design. Read
// twice, the bytes must give two equal records of their own.
#include <algorithm>

#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include "FuzzSupport.h"
#include "OrvAppConfigCommonSettings.h"
#include "OrvAppConfigSettingsApp.h"
#include "OrvAppConfigSettingsRecord+JSON.h"
#include "OrvAppConfigSettingsRecord.h"
#include "OrvAppConfigSingleAppSetting.h"
#include "OrvKeyedArchiver.h"

using orv::detail::fuzzRequire;

static bool containsNull(const boost::json::value& value) {
  if (const auto* array = value.if_array()) return std::any_of(array->begin(), array->end(), containsNull);
  const auto* object = value.if_object();
  return value.is_null() ||
         (object && std::any_of(object->begin(), object->end(), [](const auto& member) { return containsNull(member.value()); }));
}

template <class GroupList>
static bool groupsHoldNull(const std::optional<GroupList>& groups) {
  for (const auto& group : groups.value_or(GroupList{})) {
    if (!group || !group->settings()) continue;
    for (const auto& setting : *group->settings())
      if (setting && setting->value() && containsNull(*setting->value())) return true;
  }
  return false;
}

ORV_FUZZ_TARGET(bytes) {
  std::optional<OrvError> error = OrvError("stale", 1);
  const auto record = OrvAppConfigSettingsRecord::createFromData(bytes, &error);
  orv::detail::fuzzRequireResultOrError(record != nullptr, error);
  if (!record) return;

  // What the command-line tool prints must be valid JSON text.
  fuzzRequire(!boost::json::serialize(OrvAppConfigSettingsRecordJSONObject(*record)).empty(), "a record prints as JSON");
  const auto archive = OrvKeyedArchiver::archivedDataWithRootObject(record, &error);
  fuzzRequire(archive.has_value() && !error, "a parsed record always archives");

  // The same bytes read again may be answered from what was kept of the first reading: a record of its
  // own, equal to the first down to each group's class.
  const auto again = OrvAppConfigSettingsRecord::createFromData(bytes, &error);
  fuzzRequire(again != nullptr && again != record && !error, "a second reading gives a record of its own");
  fuzzRequire(*again == *record && OrvKeyedArchiver::archivedDataWithRootObject(again) == archive,
              "a second reading gives the same record");

  const auto decoded = OrvKeyedUnarchiver::unarchivedObjectOfClass<OrvAppConfigSettingsRecord>(*archive, &error);
  const auto apps = record->kaleth() ? record->kaleth()->appSettings() : nullptr;
  if (apps && (groupsHoldNull(apps->ios()) || groupsHoldNull(apps->macos()))) {
    fuzzRequire(!decoded && error && error->domain() == OrvKeyedArchiverErrorDomain &&
                    error->code() == OrvKeyedArchiverErrorClassNotAllowed,
                "a JSON-null setting value is refused when decoded");
    return;
  }
  fuzzRequire(decoded != nullptr && !error, "the archive of a parsed record decodes");
  fuzzRequire(*decoded == *record, "the decoded record equals the parsed one");
  fuzzRequire(OrvKeyedArchiver::archivedDataWithRootObject(decoded, &error) == archive,
              "the decoded record archives to the same bytes");
}
