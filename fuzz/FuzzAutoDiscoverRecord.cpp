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

ORV_FUZZ_TARGET(bytes) {
  std::optional<OrvError> error = OrvError("stale", 1);
  const auto record = OrvAppConfigAutoDiscoverRecord::createFromData(bytes, &error);
  orv::detail::fuzzRequireResultOrError(record != nullptr, error);
  OrvAppConfigService::storeListRecordsContainAtLeastOneValidURL(record);
  if (!record) return;
  if (record->domain() && record->domain()->name()) {
    OrvAppConfigServiceUtils::isValidEmailAddressComponent(*record->domain()->name());
  }
  if (const auto& kaleth = record->kaleth()) {
    useURLs(kaleth->serviceUrls());
    useURLs(kaleth->allowedWebStoreUrls());
  }
}
