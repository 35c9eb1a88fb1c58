// Archive bytes come from disk, where anyone may have edited them: decoding must refuse with an error
// or give an object of the type asked for, and whatever it gives must archive again stably.
#include <boost/json/parse.hpp>
#include <map>
#include <optional>
#include <string>

#include "FuzzSupport.h"
#include "OrvAppConfigCommonSettings.h"
#include "OrvAppConfigSettingsRecord.h"
#include "OrvKeyedArchiver.h"

using orv::detail::fuzzRequire;

// Decoded objects nest no deeper than archives allow and hold only valid text, so the archiver must take
// them; decoding that archive and archiving again must reproduce it byte for byte.
template <class T>
static OrvDecoded<T> decodeAs(const std::string& bytes) {
  std::optional<OrvError> error = OrvError("stale", 1);
  auto object = OrvKeyedUnarchiver::unarchivedObjectOfType<T>(bytes, &error);
  // An archived nil root is the one outcome with neither an object nor an error.
  fuzzRequire(!(object && error), "a decoded object comes without an error");
  fuzzRequire(!error || (error->domain() == OrvKeyedArchiverErrorDomain && error->code() != OrvKeyedArchiverErrorInvalidValue),
              "decoding reports a decoding error of the archiver's domain");
  if (!object) return object;
  const auto first = OrvKeyedArchiver::archivedDataWithRootObject(object, &error);
  fuzzRequire(first.has_value() && !error, "a decoded object archives again");
  const auto back = OrvKeyedUnarchiver::unarchivedObjectOfType<T>(*first, &error);
  fuzzRequire(back && !error, "a re-archived object decodes");
  fuzzRequire(OrvKeyedArchiver::archivedDataWithRootObject(back, &error) == first, "archiving is stable across a round trip");
  return object;
}

ORV_FUZZ_TARGET(bytes) {
  decodeAs<std::shared_ptr<OrvAppConfigSettingsRecord>>(bytes);
  // The shape the command-line tool stores: a dictionary from store URL to record.
  decodeAs<std::map<std::string, std::shared_ptr<OrvAppConfigSettingsRecord>>>(bytes);
  // A settings group alone, where a subclass must come back as itself.
  if (const auto group = decodeAs<std::shared_ptr<OrvAppConfigCommonSettings>>(bytes)) {
    boost::json::parse_options options;
    options.max_depth = 2 * OrvKeyedArchiveMaximumDepth + 1;
    fuzzRequire(
        std::string_view(boost::json::parse(bytes, {}, options).at("$root").at("$class").as_string()) == group->className(),
        "a group comes back as the class it was archived as");
  }
  // Plain values, for the containers and scalars nested anywhere.
  decodeAs<boost::json::value>(bytes);
  decodeAs<std::vector<OrvDate>>(bytes);
}
