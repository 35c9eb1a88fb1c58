// A settings answer body as the network delivers it, then kept the way a host keeps it: every parsed
// record must archive, and the archive must decode to an equal record that archives to the same bytes.
// The one exception is a setting whose value holds a JSON null, which decoding refuses by design.
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "FuzzSupport.h"
#include "OrvAppConfigCommonSettings.h"
#include "OrvAppConfigSettingsApp.h"
#include "OrvAppConfigSettingsRecord+JSON.h"
#include "OrvAppConfigSettingsRecord.h"
#include "OrvAppConfigSingleAppSetting.h"
#include "OrvKeyedArchiver.h"

namespace {

using orv::detail::fuzzRequire;

bool containsNull(const boost::json::value& value) {
  if (value.is_null()) return true;
  if (const auto* array = value.if_array()) {
    for (const auto& element : *array) {
      if (containsNull(element)) return true;
    }
  }
  if (const auto* object = value.if_object()) {
    for (const auto& member : *object) {
      if (containsNull(member.value())) return true;
    }
  }
  return false;
}

template <class GroupList>
bool groupsHoldNull(const std::optional<GroupList>& groups) {
  if (!groups) return false;
  for (const auto& group : *groups) {
    if (!group || !group->settings()) continue;
    for (const auto& setting : *group->settings()) {
      if (setting && setting->value() && containsNull(*setting->value())) return true;
    }
  }
  return false;
}

bool holdsNullSettingValue(const OrvAppConfigSettingsRecord& record) {
  const auto& kaleth = record.kaleth();
  if (!kaleth || !kaleth->appSettings()) return false;
  return groupsHoldNull(kaleth->appSettings()->ios()) || groupsHoldNull(kaleth->appSettings()->macos());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orv::detail::installFuzzLogger();
  std::optional<OrvError> error = OrvError("stale", 1);
  const auto record = OrvAppConfigSettingsRecord::createFromData(orv::detail::fuzzBytes(data, size), &error);
  fuzzRequire(!record == error.has_value(), "a record comes without an error and a refusal with one");
  if (!record) return 0;

  // What the command-line tool prints must be valid JSON text.
  const auto printed = boost::json::serialize(OrvAppConfigSettingsRecordJSONObject(*record));
  fuzzRequire(!printed.empty(), "a record prints as a JSON object");

  const auto archive = OrvKeyedArchiver::archivedDataWithRootObject(record, &error);
  fuzzRequire(archive.has_value() && !error, "a parsed record always archives");

  const auto decoded = OrvKeyedUnarchiver::unarchivedObjectOfClass<OrvAppConfigSettingsRecord>(*archive, &error);
  if (holdsNullSettingValue(*record)) {
    fuzzRequire(!decoded && error && error->domain() == OrvKeyedArchiverErrorDomain &&
                    error->code() == OrvKeyedArchiverErrorClassNotAllowed,
                "a JSON-null setting value is refused when decoded");
    return 0;
  }
  fuzzRequire(decoded != nullptr && !error, "the archive of a parsed record decodes");
  fuzzRequire(*decoded == *record, "the decoded record equals the parsed one");
  const auto again = OrvKeyedArchiver::archivedDataWithRootObject(decoded, &error);
  fuzzRequire(again == archive, "the decoded record archives to the same bytes");
  return 0;
}
