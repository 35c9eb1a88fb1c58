// The emulator refuses a catalog it could not serve as meant, naming the field, instead of answering
// 404 later; the workflow tests exercise everything it serves.
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "EmulatorHarness.h"

using namespace orv::test;

TEST(DiscoveryEmulatorCatalog, RefusesMistypedCatalogsNamingTheField) {
  EmulatorHarness harness;
  const std::pair<const char*, const char*> cases[] = {
      {R"({"stores": {"https://store.example.com:443/Store": {"ios": {"kaleth": []}}}})",
       "catalog: /stores/https:~1~1store.example.com:443~1Store/ios/kaleth: expected an object"},
      {R"({"domains": {"a~b.example": {"kaleth": {"serviceUrls": ["https://store.a.example"]}}}})",
       "catalog: /domains/a~0b.example/kaleth/serviceUrls/0: expected an object"},
      {R"({"stores": {"s": {"channels": {"beta": {"ios": {"settingsChannel": "beta"}}}}}})",
       "catalog: /stores/s/channels/beta/ios/settingsChannel: expected an object"},
      {R"({"domains": {"x.example": {"exp": "1700000000"}}})", "catalog: /domains/x.example/exp: expected a number"},
      {R"({"domains": []})", "catalog: /domains: expected an object"},
      // Mistakes that would otherwise only show as a 404 later.
      {R"({"stores": {"s": {"iOS": {}}}})", "catalog: /stores/s/iOS: unexpected member (allowed: ios, macos, channels)"},
      {R"({"domain": {}})", "catalog: /domain: unexpected member (allowed: $schema, domains, stores)"},
      {R"({"stores": {"s": {"channels": {"": {"ios": {}}}}}})", "catalog: /stores/s/channels/: expected a non-empty name"},
      {R"({"domains": {"Example.com": {}, "example.COM": {}}})",
       "catalog: /domains/example.COM: the same domain as an earlier one (domains ignore letter case)"},
      {"[]", "catalog: expected an object"},
      {"{\"domains\": {\n  \"x\": }}", "catalog: not JSON (line 2, column 8): syntax error"},
  };
  for (const auto& [catalog, expected] : cases) {
    std::string error;
    EXPECT_FALSE(harness.emulator().setCatalogJSON(catalog, &error)) << catalog;
    EXPECT_EQ(error, expected) << catalog;
  }
  // The schema that documents this shape is JSON itself.
  boost::system::error_code ec;
  const auto schema = boost::json::parse(readFile(ORV_CATALOG_SCHEMA), ec);
  ASSERT_FALSE(ec) << ec.message();
  EXPECT_EQ(schema.at("$schema"), "https://json-schema.org/draft/2020-12/schema");
}
