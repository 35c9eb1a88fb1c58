#include "OrvAppConfigAutoDiscoverRecord.h"

#include "OrvAppConfigServiceConstants.h"
#include "OrvAppConfigServiceLogger.h"
#include "OrvJSONAccessors.h"
#include "OrvJSONSerialization.h"
#include "OrvKeptByBytes.h"

namespace {
constexpr const char* kInvalidJSONObject = "Invalid JSON object - expecting a dictionary";
constexpr std::int64_t kInvalidJSONObjectCode = 3842;

// A domain's answer comes back with the same bytes until it is signed again, and for a thousand
// stores reading it takes longer than fetching and verifying it. Records can be changed by whoever
// holds them, so the kept record is never handed out: each caller gets a copy of its own. Two, for a
// host that asks about its user's domain and once more about the whole host.
using KeptRecord = std::shared_ptr<const OrvAppConfigAutoDiscoverRecord>;
orv::detail::KeptByBytes<KeptRecord>& answersRead() {
  // Never destroyed: a request may still be parsing on its I/O thread while the process exits.
  static auto* const answers = new orv::detail::KeptByBytes<KeptRecord>(2);
  return *answers;
}

std::optional<OrvAppConfigURLList> copyOf(const std::optional<OrvAppConfigURLList>& list) {
  if (!list) return std::nullopt;
  // The entries share one allocation, each still an object of its own: a thousand make_shared calls,
  // and as many frees on the thread that lets the record go, were most of the copy's cost.
  std::vector<OrvAppConfigURL> urls;
  urls.reserve(list->size());
  for (const auto& entry : *list) urls.emplace_back(entry ? entry->url() : std::nullopt);
  const auto block = std::make_shared<std::vector<OrvAppConfigURL>>(std::move(urls));
  OrvAppConfigURLList copy;
  copy.reserve(list->size());
  for (std::size_t i = 0; i < list->size(); ++i) {
    copy.push_back((*list)[i] ? std::shared_ptr<OrvAppConfigURL>(block, &(*block)[i]) : nullptr);
  }
  return copy;
}

std::shared_ptr<OrvAppConfigAutoDiscoverRecord> copyOf(const OrvAppConfigAutoDiscoverRecord& record) {
  auto domain = record.domain() ? OrvAppConfigDomain::initWithName(record.domain()->name()) : nullptr;
  const auto& kaleth = record.kaleth();
  auto kalethCopy =
      kaleth ? OrvAppConfigKaleth::initWithServiceURLs(copyOf(kaleth->serviceUrls()), copyOf(kaleth->allowedWebStoreUrls()))
             : nullptr;
  return OrvAppConfigAutoDiscoverRecord::initWithDomain(std::move(domain), std::move(kalethCopy), record.notValidBefore(),
                                                        record.notValidAfter());
}
}  // namespace

std::shared_ptr<OrvAppConfigDomain> OrvAppConfigDomain::initWithJSONDictionary(const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  return initWithName(OrvJSON::jsonStringForKey(jsonDictionary, "name"));
}

std::shared_ptr<OrvAppConfigURL> OrvAppConfigURL::initWithJSONDictionary(const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  return initWithURL(OrvJSON::jsonUrlForKey(jsonDictionary, "url"));
}

std::shared_ptr<OrvAppConfigKaleth> OrvAppConfigKaleth::initWithJSONDictionary(const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  auto serviceURLs = appConfigUrlsForKeyName("serviceUrls", jsonDictionary);
  // The key is spelt with upper-case "URLs" in the answer, unlike "serviceUrls".
  auto allowedWebStoreURLs = appConfigUrlsForKeyName("allowedWebStoreURLs", jsonDictionary);
  return initWithServiceURLs(std::move(serviceURLs), std::move(allowedWebStoreURLs));
}

std::optional<OrvAppConfigURLList> OrvAppConfigKaleth::appConfigUrlsForKeyName(std::string_view keyName,
                                                                               const boost::json::object* jsonDictionary) {
  const auto elements = OrvJSON::subArrayOfDictionaries(OrvJSON::jsonArrayForKey(jsonDictionary, keyName));
  if (!elements) return std::nullopt;
  OrvAppConfigURLList urls;
  urls.reserve(elements->size());
  for (const boost::json::object* element : *elements) {
    // Built twice on purpose, keeping the second: the entry must be a fresh object per element.
    if (OrvAppConfigURL::initWithJSONDictionary(element)) urls.push_back(OrvAppConfigURL::initWithJSONDictionary(element));
  }
  return urls;
}

std::shared_ptr<OrvAppConfigAutoDiscoverRecord> OrvAppConfigAutoDiscoverRecord::initWithJSONDictionary(
    const boost::json::object* jsonDictionary) {
  if (!jsonDictionary) return nullptr;
  auto domain = OrvAppConfigDomain::initWithJSONDictionary(OrvJSON::jsonDictionaryForKey(jsonDictionary, "domain"));
  auto kaleth = OrvAppConfigKaleth::initWithJSONDictionary(OrvJSON::jsonDictionaryForKey(jsonDictionary, "kaleth"));
  const auto notValidBefore = OrvJSON::jsonDateFromEpochValueForKey(jsonDictionary, "iat");
  const auto notValidAfter = OrvJSON::jsonDateFromEpochValueForKey(jsonDictionary, "exp");
  return initWithDomain(std::move(domain), std::move(kaleth), notValidBefore, notValidAfter);
}

std::shared_ptr<OrvAppConfigAutoDiscoverRecord> OrvAppConfigAutoDiscoverRecord::createFromData(const OrvData& data,
                                                                                               std::optional<OrvError>* error) {
  // Only answers read without objection are kept, so a refused one is read, and logged, each time.
  if (const auto kept = answersRead().find(data)) {
    if (error) *error = std::nullopt;
    return copyOf(**kept);
  }
  std::optional<OrvError> parseError;
  const auto document = orv::detail::parseJSONDocument(data, OrvJSONReadingOptions::none, &parseError);
  if (!document) {
    ORV_LOG_ERROR("Failed to parse JSON object - error: %@", parseError);
    if (error) *error = std::move(parseError);
    return nullptr;
  }
  if (const auto* object = document->value().if_object()) {
    if (error) *error = std::nullopt;
    auto record = initWithJSONDictionary(object);
    if (data.size() <= orv::detail::kLargestKeptText) answersRead().keep(data, copyOf(*record));
    return record;
  }
  ORV_LOG_ERROR("%@", kInvalidJSONObject);
  if (error) *error = OrvError(OrvAppConfigServiceJSONErrorDomain, kInvalidJSONObjectCode, {{"error", kInvalidJSONObject}});
  return nullptr;
}
