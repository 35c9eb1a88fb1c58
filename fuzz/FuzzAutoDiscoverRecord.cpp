// An auto-discover answer body as the network delivers it: parsing must give a record or an error,
// never both and never neither, and whatever URLs it yields must be usable by the next steps.
#include <cstddef>
#include <cstdint>
#include <optional>

#include "FuzzSupport.h"
#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvAppConfigService.h"
#include "OrvAppConfigServiceUtils.h"
#include "OrvAppConfigSettingsQueryURLGenerator.h"

namespace {

using orv::detail::fuzzRequire;

void useURLs(const std::optional<OrvAppConfigURLList>& list) {
  if (!list) return;
  for (const auto& entry : *list) {
    fuzzRequire(entry != nullptr, "a URL list holds no null entries");
    if (!entry->url()) continue;
    const OrvURL& url = *entry->url();
    fuzzRequire(OrvURL::URLWithString(url.absoluteString()) == url, "a parsed URL reads back as itself");
    // A discovered store is what a host passes on to the settings request next.
    const auto store = OrvAppConfigServiceUtils::addPortAndSchemeIfNotPresent(url);
    OrvAppConfigServiceUtils::requestedStoreURL(url, store);
    OrvAppConfigSettingsQueryURLGenerator::generateSettingsQueryURLForStoreURL(store, 0, 0, std::nullopt);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orv::detail::installFuzzLogger();
  std::optional<OrvError> error = OrvError("stale", 1);
  const auto record = OrvAppConfigAutoDiscoverRecord::createFromData(orv::detail::fuzzBytes(data, size), &error);
  fuzzRequire(!record == error.has_value(), "a record comes without an error and a refusal with one");
  if (error) {
    fuzzRequire(!error->description().empty(), "a refusal describes itself");
  }
  OrvAppConfigService::storeListRecordsContainAtLeastOneValidURL(record);
  if (!record) return 0;

  if (record->domain() && record->domain()->name()) {
    OrvAppConfigServiceUtils::isValidEmailAddressComponent(*record->domain()->name());
  }
  if (const auto& kaleth = record->kaleth()) {
    useURLs(kaleth->serviceUrls());
    useURLs(kaleth->allowedWebStoreUrls());
  }
  return 0;
}
