// An auto-discover answer body as the network delivers it: parsing must give a record or an error,
// never both and never neither, and whatever URLs it yields must be usable by the next steps.
#include "FuzzSupport.h"
#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvAppConfigService.h"
#include "OrvAppConfigServiceUtils.h"
#include "OrvAppConfigSettingsQueryURLGenerator.h"

using orv::detail::fuzzRequire;

static void useURLs(const std::optional<OrvAppConfigURLList>& list) {
  for (const auto& entry : list.value_or(OrvAppConfigURLList{})) {
    fuzzRequire(entry != nullptr, "a URL list holds no null entries");
    if (!entry->url()) continue;
    const OrvURL& url = *entry->url();
    // A discovered store is what a host passes on to the settings request next.
    const auto store = OrvAppConfigServiceUtils::addPortAndSchemeIfNotPresent(url);
    OrvAppConfigServiceUtils::requestedStoreURL(url, store);
    OrvAppConfigSettingsQueryURLGenerator::generateSettingsQueryURLForStoreURL(store, 0, 0, std::nullopt);
  }
}

static bool sameURLs(const std::optional<OrvAppConfigURLList>& a, const std::optional<OrvAppConfigURLList>& b) {
  if (a.has_value() != b.has_value()) return false;
  if (!a) return true;
  if (a->size() != b->size()) return false;
  for (std::size_t i = 0; i < a->size(); ++i) {
    if (((*a)[i] == nullptr) != ((*b)[i] == nullptr)) return false;
    if ((*a)[i] && (*a)[i]->url() != (*b)[i]->url()) return false;
  }
  return true;
}

// The same bytes read again may be answered from what was kept of the first reading: it must be a
// record of its own with the same content, or the same refusal.
static void requireSameReading(const std::string& bytes, const std::shared_ptr<OrvAppConfigAutoDiscoverRecord>& first) {
  std::optional<OrvError> error;
  const auto again = OrvAppConfigAutoDiscoverRecord::createFromData(bytes, &error);
  fuzzRequire((again != nullptr) == (first != nullptr), "the same bytes are read the same way twice");
  if (!first) return;
  fuzzRequire(again != first && !error, "a second reading gives a record of its own");
  const auto name = [](const auto& record) { return record->domain() ? record->domain()->name() : std::nullopt; };
  fuzzRequire((first->domain() == nullptr) == (again->domain() == nullptr) && name(first) == name(again), "same domain");
  fuzzRequire(first->notValidBefore() == again->notValidBefore() && first->notValidAfter() == again->notValidAfter(),
              "same dates");
  fuzzRequire((first->kaleth() == nullptr) == (again->kaleth() == nullptr), "same kaleth");
  if (first->kaleth()) {
    fuzzRequire(sameURLs(first->kaleth()->serviceUrls(), again->kaleth()->serviceUrls()) &&
                    sameURLs(first->kaleth()->allowedWebStoreUrls(), again->kaleth()->allowedWebStoreUrls()),
                "same URL lists");
  }
}

ORV_FUZZ_TARGET(bytes) {
  std::optional<OrvError> error = OrvError("stale", 1);
  const auto record = OrvAppConfigAutoDiscoverRecord::createFromData(bytes, &error);
  orv::detail::fuzzRequireResultOrError(record != nullptr, error);
  OrvAppConfigService::storeListRecordsContainAtLeastOneValidURL(record);
  requireSameReading(bytes, record);
  if (!record) return;
  if (record->domain() && record->domain()->name()) {
    OrvAppConfigServiceUtils::isValidEmailAddressComponent(*record->domain()->name());
  }
  if (const auto& kaleth = record->kaleth()) {
    useURLs(kaleth->serviceUrls());
    useURLs(kaleth->allowedWebStoreUrls());
  }
}
