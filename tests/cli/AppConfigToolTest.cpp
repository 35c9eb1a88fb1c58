// orv-appconfig as scripts use it: arguments, exit codes, JSON output and archives, against the emulator.
// What each refusal means is the workflow tests' business; here only how the tool reports it.
#include <gmock/gmock.h>

#include <sys/wait.h>
#include <boost/json.hpp>

#include "EmulatorHarness.h"

using namespace orv::test;
using ::testing::HasSubstr;

namespace {

struct ToolRun {
  int exitCode = -1;
  std::string out, err;
  boost::json::value json() const { return boost::json::parse(out); }
};

class AppConfigToolTest : public ::testing::Test {
 protected:
  static constexpr const char* kCatalog = R"({
    "domains": {
      "example.com": {"domain": {"name": "example.com"}, "kaleth": {"serviceUrls": [{"url": "https://store.example.com/Store"}]}}
    },
    "stores": {
      "https://store.example.com:443/Store": {"ios": {
        "kaleth": {"name": "Store", "description": "d", "useForAppConfig": true,
                   "appSettings": {"ios": [{"category": "General", "userOverride": true, "assignedTo": ["all", 3],
                                            "assignmentPriority": 2.5,
                                            "settings": [{"name": "A", "value": {"nested": [1, true, "x"]}}]}]}},
        "url": {"name": "https://store.example.com:443/Store", "migrationUrl": [{"url": "https://old.example.com", "dovrinValidUntil": 5000}]},
        "settingsChannel": {"channelName": "default"}}}
    }
  })";

  EmulatorHarness harness{HarnessOptions{kCatalog}};
  TemporaryDirectory scratch;

  // Options that point the tool at the emulator and trust the signing CA in the given material file
  // (none: names alone).
  std::string connect(const char* anchor = orv::emulator::kSigningCAFile) {
    const std::string host = harness.emulator().hostAndPort();
    return " --production-host " + host + " --staging-host " + host + " --ca-file " + harness.emulator().tlsCAFile() +
           (anchor ? " --trust-anchor " + harness.material().file(anchor) : "");
  }

  ToolRun run(const std::string& arguments) {
    const std::string out = scratch.file("out"), err = scratch.file("err");
    const int status = std::system((std::string(ORV_APPCONFIG_BINARY) + " " + arguments + " >" + out + " 2>" + err).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
  }
};

}  // namespace

// Usage errors are 64 and go nowhere; otherwise the exit code is the completion status.
TEST_F(AppConfigToolTest, ExitCodesAndWhatDiscoverReports) {
  const std::string store = "settings https://store.example.com/Store";
  const std::pair<std::string, int> cases[] = {
      {"discover", 64},
      {"discover user@example.com --host-type x", 64},
      {store + " --platform tvos", 64},
      {store + " --channel 'be ta'" + connect(), 1},
      {store + " --platform 7" + connect(), 3},
  };
  for (const auto& [arguments, exitCode] : cases) EXPECT_EQ(run(arguments).exitCode, exitCode) << arguments;
  EXPECT_TRUE(harness.emulator().requests().empty());

  const auto good = run("discover user@example.com --json" + connect());
  ASSERT_EQ(good.exitCode, 0) << good.err;
  const auto json = good.json();
  EXPECT_EQ(json.at("status"), 0);
  EXPECT_EQ(json.at("statusName"), "OrvAppConfigServiceCompletionStatusSuccess");
  const auto& record = json.at("record");
  EXPECT_EQ(record.at("domain").at("name"), "example.com");
  EXPECT_EQ(record.at("kaleth").at("serviceUrls").at(0).at("url"), "https://store.example.com/Store");
  EXPECT_THAT(std::string(record.at("notValidAfter").as_string()), ::testing::MatchesRegex("[0-9-]+T[0-9:]+Z"));

  const auto unknown = run("discover user@unknown.example --json" + connect());
  EXPECT_EQ(unknown.exitCode, 2);
  EXPECT_EQ(unknown.json().at("error"), nullptr);

  harness.emulator().setFault("/ads/root/domain/example.com/", {.corruptSignature = true});
  const auto forged = run("discover user@example.com --json" + connect());
  EXPECT_EQ(forged.exitCode, 2);
  EXPECT_EQ(forged.json().at("error").at("domain"), "com.varnel.OrvSecurityUtils.errorDomain");
  EXPECT_EQ(forged.json().at("error").at("code"), OrvSecurityUtilsResultSignatureMismatch);
  EXPECT_EQ(forged.json().at("trace").at("steps").as_array().back().at("rule"), 15);
  // --explain names the URL whose answer was refused and the rule that refused it; without anchors the
  // tool says that it trusts names alone.
  const auto explained = run("discover user@example.com --explain" + connect(nullptr));
  EXPECT_EQ(explained.exitCode, 2);
  EXPECT_THAT(explained.out,
              ::testing::ContainsRegex("signature: FAILED  https://127.0.0.1:[0-9]+/ads/root/domain/example.com/"));
  EXPECT_THAT(explained.out, HasSubstr("rule 15 OrvSecurityUtilsResultSignatureMismatch"));
  EXPECT_THAT(explained.err, HasSubstr("warning: no trust anchors"));
  harness.emulator().clearFaults();

  // Trusting another root (the one that issued the TLS certificate): the genuine answer no longer chains
  // to a trusted certificate.
  const auto untrusted = run("discover user@example.com --json" + connect(orv::emulator::kTLSCAFile));
  EXPECT_EQ(untrusted.exitCode, 2);
  EXPECT_EQ(untrusted.json().at("error").at("code"), 13);
}

TEST_F(AppConfigToolTest, SettingsArchiveReadsBackAndRefusesHandEditing) {
  const std::string archive = scratch.file("settings.archive");
  const auto settings = run("settings https://store.example.com/Store --platform ios --json --archive " + archive + connect());
  ASSERT_EQ(settings.exitCode, 0) << settings.err;
  const auto parsed = settings.json();
  const auto& delivered = parsed.at("settings").as_object();
  ASSERT_TRUE(delivered.contains("https://store.example.com/Store")) << "keyed by the URL as given";
  EXPECT_EQ(delivered.at("https://store.example.com/Store").at("settingsChannel").at("channelName"), "default");

  const auto shown = run("show-archive " + archive);
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  EXPECT_EQ(shown.json().as_object(), delivered);

  // A spoiled archive is refused, and the tool says so. Which hand edits the decoder refuses (a group
  // swapped to another platform's class among them) is the records tests' business.
  writeFile(archive, readFile(archive).substr(1));
  const auto edited = run("show-archive " + archive);
  EXPECT_NE(edited.exitCode, 0);
  EXPECT_THAT(edited.err, HasSubstr("not an archive of settings records"));
}
