// orv-appconfig as scripts use it: exit codes, JSON output and archives, against the emulator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <boost/json.hpp>

#include "EmulatorHarness.h"
#include "TestSupport.h"

using namespace orv::test;

namespace {

struct ToolRun {
  int exitCode = -1;
  std::string out;
  std::string err;
  boost::json::value json() const { return boost::json::parse(out); }
};

class AppConfigToolTest : public ::testing::Test {
 protected:
  static constexpr const char* kCatalog = R"({
    "domains": {
      "example.com": {"domain": {"name": "example.com"}, "kaleth": {"serviceUrls": [{"url": "https://store.example.com/Store"}]}},
      "stale.example": {"domain": {"name": "stale.example"}, "kaleth": {"serviceUrls": [{"url": "https://s.stale.example"}]},
                        "iat": 1000, "exp": 2000}
    },
    "stores": {
      "https://store.example.com:443/Store": {"ios": {
        "kaleth": {"name": "Store", "description": "d", "useForAppConfig": true,
                   "appSettings": {"ios": [{"category": "General", "userOverride": true, "assignedTo": ["all", 3],
                                            "assignmentPriority": 2.5,
                                            "settings": [{"name": "A", "value": {"nested": [1, true, "x"]}}]}]}},
        "url": {"name": "https://store.example.com:443/Store", "migrationUrl": [{"url": "https://old.example.com", "dovrinValidUntil": 5000}]},
        "settingsChannel": {"channelName": "default"}}},
      "https://substitute.example.com:443/S": {"ios": {
        "kaleth": {"appSettings": {"ios": [{"settings": []}]}}, "url": {"name": "https://other.example.com:443/S"}}}
    }
  })";

  EmulatorHarness harness{HarnessOptions{kCatalog}};
  TemporaryDirectory scratch;

  ToolRun run(const std::string& arguments, bool connect = true) {
    std::string command = std::string(ORV_APPCONFIG_BINARY) + " " + arguments;
    if (connect) {
      command += " --production-host " + harness.emulator().hostAndPort() + " --staging-host " +
                 harness.emulator().hostAndPort() + " --ca-file " + harness.emulator().tlsCAFile() + " --trust-anchor " +
                 harness.material().file(orv::emulator::kSigningCAFile);
    }
    const std::string out = scratch.file("out"), err = scratch.file("err");
    const int status = std::system((command + " >" + out + " 2>" + err).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
  }
};

}  // namespace

TEST_F(AppConfigToolTest, DiscoverPrintsTheRecordAndExitsWithTheStatus) {
  const auto good = run("discover user@example.com --json");
  ASSERT_EQ(good.exitCode, 0) << good.err;
  const auto parsed = good.json();
  const auto& json = parsed.as_object();
  EXPECT_EQ(json.at("status"), 0);
  EXPECT_EQ(json.at("statusName"), "OrvAppConfigServiceCompletionStatusSuccess");
  const auto& record = json.at("record").as_object();
  EXPECT_EQ(record.at("domain").at("name"), "example.com");
  EXPECT_EQ(record.at("kaleth").at("serviceUrls").at(0).at("url"), "https://store.example.com/Store");
  EXPECT_THAT(std::string(record.at("notValidAfter").as_string()), ::testing::MatchesRegex("[0-9-]+T[0-9:]+Z"));

  const auto unknown = run("discover user@unknown.example --json");
  EXPECT_EQ(unknown.exitCode, 2);
  EXPECT_EQ(unknown.json().at("error"), nullptr);
  EXPECT_THAT(unknown.err, ::testing::HasSubstr("failing permanently"));

  const auto stale = run("discover user@stale.example");
  EXPECT_EQ(stale.exitCode, 2);
  EXPECT_THAT(stale.err, ::testing::HasSubstr("OrvPayloadValidationStatusDateValidationFailed"));

  orv::emulator::FaultSpec forged;
  forged.corruptSignature = true;
  harness.emulator().setFault("/ads/root/domain/example.com/", forged);
  const auto badSignature = run("discover user@example.com --json");
  EXPECT_EQ(badSignature.exitCode, 2);
  EXPECT_EQ(badSignature.json().at("error").at("domain"), "com.varnel.OrvSecurityUtils.errorDomain");
  EXPECT_THAT(std::string(badSignature.json().at("error").at("description").as_string()), ::testing::HasSubstr("signature"));
  EXPECT_EQ(badSignature.json().at("trace").at("steps").as_array().back().at("rule"), 15);
  // --explain names the URL whose answer was refused and the rule that refused it; without anchors the
  // tool says that it trusts names alone.
  const auto explained = run("discover user@example.com --explain --production-host " + harness.emulator().hostAndPort() +
                                 " --ca-file " + harness.emulator().tlsCAFile(),
                             /*connect=*/false);
  EXPECT_EQ(explained.exitCode, 2);
  EXPECT_THAT(explained.out,
              ::testing::ContainsRegex("signature: FAILED  https://127.0.0.1:[0-9]+/ads/root/domain/example.com/"));
  EXPECT_THAT(explained.out, ::testing::HasSubstr("rule 15 OrvSecurityUtilsResultSignatureMismatch"));
  EXPECT_THAT(explained.err, ::testing::HasSubstr("warning: no trust anchors"));
  harness.emulator().clearFaults();

  // Trusting another root: the genuine answer no longer chains to a trusted certificate.
  TemporaryDirectory other;
  ASSERT_TRUE(orv::emulator::generateMaterial(other.path().string()));
  const auto untrusted =
      run("discover user@example.com --json --production-host " + harness.emulator().hostAndPort() + " --ca-file " +
              harness.emulator().tlsCAFile() + " --trust-anchor " + other.file("signing-ca.pem"),
          /*connect=*/false);
  EXPECT_EQ(untrusted.exitCode, 2);
  EXPECT_EQ(untrusted.json().at("error").at("code"), 13);

  EXPECT_EQ(run("discover", false).exitCode, 64);
  EXPECT_EQ(run("discover user@example.com --host-type x", false).exitCode, 64);
}

TEST_F(AppConfigToolTest, SettingsArchiveReadsBackAndRefusesHandEditing) {
  const std::string archive = scratch.file("settings.archive");
  const auto settings = run("settings https://store.example.com/Store --platform ios --json --archive " + archive);
  ASSERT_EQ(settings.exitCode, 0) << settings.err;
  const auto parsed = settings.json();
  const auto& delivered = parsed.at("settings").as_object();
  ASSERT_TRUE(delivered.contains("https://store.example.com/Store")) << "keyed by the URL as given";
  EXPECT_EQ(delivered.at("https://store.example.com/Store").at("settingsChannel").at("channelName"), "default");

  const auto shown = run("show-archive " + archive, false);
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  EXPECT_EQ(shown.json().as_object(), delivered);

  // Swap a class inside the archive: decoding refuses it instead of handing out another class.
  std::string text = readFile(archive);
  const auto at = text.find("OrvAppConfigSettingsIos");
  ASSERT_NE(at, std::string::npos);
  text.replace(at, std::string("OrvAppConfigSettingsIos").size(), "OrvAppConfigSettingsMacOS");
  writeFile(archive, text);
  const auto edited = run("show-archive " + archive, false);
  EXPECT_NE(edited.exitCode, 0);
  EXPECT_THAT(edited.err, ::testing::HasSubstr("not an archive of settings records"));
  writeFile(archive, text.substr(0, text.size() / 2));
  EXPECT_NE(run("show-archive " + archive, false).exitCode, 0);

  EXPECT_EQ(run("settings https://store.example.com/Store https://substitute.example.com/S").exitCode, 3);
  EXPECT_EQ(run("settings https://store.example.com/Store --channel beta").exitCode, 3);
  EXPECT_EQ(run("settings https://store.example.com/Store --channel 'be ta'").exitCode, 1);
  EXPECT_EQ(run("settings https://store.example.com/Store --platform 7").exitCode, 3);
  EXPECT_EQ(run("settings https://store.example.com/Store --platform tvos", false).exitCode, 64);
}
