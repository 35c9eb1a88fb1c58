// What the emulator is handed, and what it refuses. A catalog it could not serve as meant is refused,
// naming the field, instead of answering 404 later; the workflow tests exercise everything it serves.
// The command line's fault knobs reach the same FaultSpec fields a host sets in code; the fault matrix
// shows what each field does on the wire.
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "EmulatorHarness.h"

using namespace orv::test;
using namespace std::chrono_literals;
namespace emulator = orv::emulator;

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
  // The schema that documents this shape is JSON itself (parse throws, failing the test, if not).
  EXPECT_EQ(boost::json::parse(readFile(ORV_CATALOG_SCHEMA)).at("$schema"), "https://json-schema.org/draft/2020-12/schema");
}

TEST(DiscoveryEmulatorFaults, KnobsFoldIntoOneSpecPerPathAndRefuseWhatTheyCannotRead) {
  const TemporaryDirectory files;
  writeFile(files.file("bytes"), "HTTP/1.1 200 OK\r\n\r\n");
  std::map<std::string, emulator::FaultSpec> faults;
  for (const std::string& knob : std::vector<std::string>{"status=503", "delay=5", "drip=7", "drop", "nosig", "badsig", "body=a",
                                                          "raw=@" + files.file("bytes"), "reset", "hangup-reused"})
    ASSERT_TRUE(emulator::addFaultArgument(faults, "/a:b:" + knob)) << knob;
  ASSERT_TRUE(emulator::addFaultArgument(faults, "/c:silence"));
  ASSERT_EQ(faults.size(), 2u);
  const auto& a = faults.at("/a:b");
  EXPECT_EQ(std::tuple(a.status, a.delay, a.drip, a.dropMidBody, a.omitSignature, a.corruptSignature, a.hangUpIfReused),
            std::tuple(503u, 5ms, 7ms, true, true, true, true));
  EXPECT_EQ(std::tuple(a.body, a.raw, a.ending), std::tuple("a", "HTTP/1.1 200 OK\r\n\r\n", emulator::FaultEnding::reset));
  EXPECT_EQ(faults.at("/c").ending, emulator::FaultEnding::silence);

  for (const char* bad :
       {"/a:status=199", "/a:delay=3600001", "/a:drip=x", "/a:raw=@/nonexistent/file", "/a:bogus", "a:reset", ":reset"}) {
    std::string error;
    EXPECT_FALSE(emulator::addFaultArgument(faults, bad, &error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
  EXPECT_EQ(emulator::tlsFaultNamed("untrusted"), emulator::TLSFault::untrustedAuthority);
  EXPECT_EQ(emulator::tlsFaultNamed("none"), std::nullopt);
}
