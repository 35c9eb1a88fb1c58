// Text a user types or a host passes in: the sign-in line, store URLs, channel names, and the
// Varnel-Signature header a response carries. The whole input is used as one string; its first line
// and the rest are also used as a pair where a function compares two URLs.
#include <algorithm>

#include <boost/url/parse.hpp>

#include "FuzzSupport.h"
#include "OrvAppConfigAutoDiscoverURLGenerator.h"
#include "OrvAppConfigService.h"
#include "OrvAppConfigServiceContext.h"
#include "OrvAppConfigServiceUtils.h"
#include "OrvAppConfigSettingsQueryURLGenerator.h"
#include "OrvString.h"
#include "OrvURL.h"

using orv::detail::fuzzRequire;
using orv::detail::trimWhitespaceAndNewlines;

// Every URL the library hands out must survive being written down and read again.
static void requireReadsBack(const std::optional<OrvURL>& url) {
  if (!url) return;
  fuzzRequire(OrvURL::URLWithString(url->absoluteString()) == *url, "a URL reads back as itself");
}

static void useURL(const OrvURL& url, std::string_view component) {
  requireReadsBack(url);
  // Plain URLs are read without the full grammar: the grammar must agree on every part.
  const auto grammar = boost::urls::parse_uri_reference(url.absoluteString());
  fuzzRequire(grammar && std::string(grammar->scheme()) == url.scheme().value_or("") &&
                  std::string(grammar->encoded_query()) == url.query().value_or("") &&
                  (url.port() ? grammar->port_number() == *url.port() : grammar->port().empty()),
              "a URL reads as the full grammar reads it");
  orv::detail::fuzzTouch(url.scheme(), url.host(), url.port(), url.user(), url.password(), url.path(), url.query(),
                         url.fragment(), url.lastPathComponent());
  requireReadsBack(url.URLByAppendingPathComponent(component));
  requireReadsBack(url.URLBySettingPort(443));
  requireReadsBack(OrvAppConfigServiceUtils::addPortAndSchemeIfNotPresent(url));
}

static void useUserInput(const std::string& text) {
  OrvAppConfigServiceUtils::isEmailAddress(text);
  OrvAppConfigServiceUtils::isValidEmailAddressComponent(text);
  for (std::uint64_t mode = 0; mode <= 2; ++mode) {
    for (std::uint64_t hostType = 0; hostType <= 1; ++hostType) {
      requireReadsBack(OrvAppConfigAutoDiscoverURLGenerator::generateAutoDiscoverURLForUserInput(text, hostType, mode));
    }
    OrvAppConfigAutoDiscoverURLGenerator::corporateDomainFromPossibleURLStringUserInput(text, mode);
  }
  OrvAppConfigAutoDiscoverURLGenerator::corporateDomainFromPossibleEmailAddressUserInput(text);
}

static void useChannelName(const std::string& text, const std::string& rest) {
  const auto store = OrvURL::URLWithString("https://store.example.com:443/Store");
  for (std::uint64_t platform = 0; platform <= 2; ++platform) {
    requireReadsBack(
        OrvAppConfigSettingsQueryURLGenerator::generateSettingsQueryURLForStoreURL(store, platform & 1, platform, text));
    requireReadsBack(OrvAppConfigSettingsQueryURLGenerator::settingsQueryURLWithHostType(0, platform, text, rest));
  }
  const OrvAppConfigServiceSettingsRetrievalContext context({}, 0, 0, text, nullptr);
  const auto& channel = context.channelName();
  fuzzRequire(!channel || (!channel->empty() && *channel == trimWhitespaceAndNewlines(text)),
              "a channel name is stored trimmed, and nothing left is nil");
  OrvAppConfigService::isValidFeatureChannelNameForContext(context);
}

static void useSignatureHeader(const std::string& text) {
  const OrvAppConfigServicePayloadValidationContext context(std::nullopt, text, std::nullopt, std::nullopt);
  const bool oneStop = std::count(text.begin(), text.end(), '.') == 1;
  fuzzRequire(context.varnelJWTHeader().has_value() == oneStop && context.varnelJWTSignature().has_value() == oneStop,
              "only a header with exactly one full stop splits");
  if (oneStop) {
    fuzzRequire(*context.varnelJWTHeader() + "." + *context.varnelJWTSignature() == text, "the pieces make the header");
  }
}

static void useTrimming(const std::string& text) {
  const std::string trimmed = trimWhitespaceAndNewlines(text);
  fuzzRequire(text.find(trimmed) != std::string::npos, "trimming keeps a piece of the text");
  fuzzRequire(trimWhitespaceAndNewlines(trimmed) == trimmed, "trimming twice changes nothing");
  fuzzRequire(!orv::detail::isValidUTF8(text) || orv::detail::isValidUTF8(trimmed), "trimming valid UTF-8 cuts at code points");
  orv::detail::containsWhitespaceOrNewline(text);
  orv::detail::containsOnlyURLPathAllowedCharacters(text);
}

ORV_FUZZ_TARGET(text) {
  const auto lines = orv::detail::fuzzSplitLines(text, 1);
  const std::string first(lines[0]), rest(lines.size() > 1 ? lines[1] : "");

  if (const auto url = OrvURL::URLWithString(text)) useURL(*url, rest);
  if (const auto url = OrvAppConfigServiceUtils::urlFromString(text)) useURL(*url, rest);
  const auto requested = OrvAppConfigServiceUtils::urlFromString(first);
  const auto answered = OrvAppConfigServiceUtils::urlFromString(rest);
  OrvAppConfigServiceUtils::requestedStoreURL(requested, answered);
  OrvAppConfigServiceUtils::requestedStoreURL(OrvURL::URLWithString(first), OrvURL::URLWithString(rest));

  useUserInput(text);
  useChannelName(text, rest);
  useSignatureHeader(text);
  useTrimming(text);
}
