// Archive bytes come from disk, where anyone may have edited them: decoding must refuse with an error
// or give objects of the classes asked for, and whatever it gives must archive again stably.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "FuzzSupport.h"
#include "OrvAppConfigCommonSettings.h"
#include "OrvAppConfigSettingsRecord.h"
#include "OrvKeyedArchiver.h"

namespace {

using orv::detail::fuzzRequire;

void requireConsistentOutcome(bool decoded, const std::optional<OrvError>& error) {
  // An archived nil root is the one outcome with neither an object nor an error.
  fuzzRequire(!(decoded && error), "a decoded object comes without an error");
  if (error) {
    fuzzRequire(error->domain() == OrvKeyedArchiverErrorDomain, "decoding errors are of the archiver's domain");
    fuzzRequire(error->code() >= OrvKeyedArchiverErrorCorrupt && error->code() <= OrvKeyedArchiverErrorVersion,
                "decoding reports a decoding error code");
  }
}

// Decoded objects nest no deeper than archives allow and hold only valid text, so the archiver must take
// them; decoding that archive and archiving again must reproduce it byte for byte.
void requireStableArchive(const OrvObject& object, const OrvClassSet& classes) {
  std::optional<OrvError> error;
  const auto first = OrvKeyedArchiver::archivedDataWithRootObject(object, &error);
  fuzzRequire(first.has_value() && !error, "a decoded object archives again");
  const auto back = OrvKeyedUnarchiver::unarchivedObjectOfClasses(classes, *first, &error);
  fuzzRequire(back.has_value() && !error, "a re-archived object decodes");
  const auto second = OrvKeyedArchiver::archivedDataWithRootObject(*back, &error);
  fuzzRequire(second == first, "archiving is stable across a round trip");
}

void decodeAs(const OrvClassSet& classes, const std::string& bytes) {
  std::optional<OrvError> error = OrvError("stale", 1);
  const auto object = OrvKeyedUnarchiver::unarchivedObjectOfClasses(classes, bytes, &error);
  requireConsistentOutcome(object.has_value(), error);
  if (!object) return;
  const OrvClass& rootClass = object->objectClass();
  bool allowed = false;
  for (const OrvClass* cls : classes) allowed = allowed || rootClass.isSubclassOfClass(*cls);
  fuzzRequire(allowed, "the root is of an allowed class");
  requireStableArchive(*object, classes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orv::detail::installFuzzLogger();
  const std::string bytes = orv::detail::fuzzBytes(data, size);

  std::optional<OrvError> error = OrvError("stale", 1);
  const auto record = OrvKeyedUnarchiver::unarchivedObjectOfClass<OrvAppConfigSettingsRecord>(bytes, &error);
  requireConsistentOutcome(record != nullptr, error);

  // The shape the command-line tool stores: a dictionary from store URL to record.
  decodeAs({&OrvClass::dictionary(), &OrvClass::string(), &OrvAppConfigSettingsRecord::orvClass()}, bytes);
  // A settings group alone, where a subclass must come back as itself.
  decodeAs({&OrvAppConfigCommonSettings::orvClass()}, bytes);
  // Every value class, for the containers and scalars nested anywhere.
  decodeAs({&OrvClass::number(), &OrvClass::string(), &OrvClass::array(), &OrvClass::dictionary(), &OrvClass::null(),
            &OrvClass::date()},
           bytes);
  return 0;
}
