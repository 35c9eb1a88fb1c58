// Archives written by version 1 of the archiver, checked in byte for byte: they must keep decoding to
// the same values, and archiving what they decode to must give the same bytes again.
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "OrvAppConfigSettingsRecord+JSON.h"
#include "OrvAppConfigSettingsRecord.h"

namespace {

OrvData fixture(const std::string& name) {
  std::ifstream in(std::string(ORV_RECORD_ARCHIVES_DIR) + "/" + name, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  EXPECT_TRUE(in) << name;
  return bytes.str();
}

// Decodes the fixture as a T and archives the result again, which must give the same bytes.
template <class T>
OrvDecoded<T> loadAs(const std::string& name) {
  const OrvData data = fixture(name);
  std::optional<OrvError> error;
  auto object = OrvKeyedUnarchiver::unarchivedObjectOfType<T>(data, &error);
  EXPECT_FALSE(error) << name << ": " << error->description();
  if (!object) throw std::runtime_error(name + " does not decode");
  EXPECT_EQ(OrvKeyedArchiver::archivedDataWithRootObject(object), data) << name;
  return object;
}

template <class T>
std::shared_ptr<T> load(const std::string& name) {
  return loadAs<std::shared_ptr<T>>(name);
}

// What the records hold, as the tool prints them; dates are rebuilt from "iat"/"exp" on decoding.
const std::pair<const char*, const char*> recordFixtures[] = {
    {"record_full.json", R"({"kaleth":{"appSettings":{
       "ios":[{"settings":[{"name":"ServerName","value":"beta.store.example.com"},
                           {"name":"Limits","value":{"max":[1,2.5,true],"label":"café"}},{"name":"Ratio","value":0.1},
                           {"name":"Enabled","value":false},{"name":"Tags","value":["a","b"]},{"name":"Unset","value":null}],
               "assignmentPriority":3,"isUserOverride":true,"category":"network","assignedTo":["group-a","group-b"]}],
       "macos":[{"settings":[],"assignmentPriority":18446744073709551615,"isUserOverride":false,"category":"mac","assignedTo":[]},
                {"settings":null,"assignmentPriority":null,"isUserOverride":false,"category":null,"assignedTo":null}]},
       "name":"Store","theDescription":"Published settings","isUseForAppConfig":true},
     "url":{"name":"https://store.example.com/Store","migrationUrl":[
       {"dovrinValidUntil":1700000000123,"dovrinValidUntilDate":"2023-11-14T22:13:20.122Z","url":"https://new.example.com/Store"},
       {"dovrinValidUntil":null,"dovrinValidUntilDate":null,"url":"https://other.example.com"}]},
     "settingsChannel":{"channelName":"beta"},"exp":1000.9,"iat":500,
     "notValidBefore":"1970-01-01T00:08:20Z","notValidAfter":"1970-01-01T00:16:40Z"})"},
    {"record_sparse.json", R"({"kaleth":{"appSettings":null,"name":"Only a name","theDescription":null,"isUseForAppConfig":false},
     "url":{"name":"https://apps.example.com:443/Store","migrationUrl":null},"settingsChannel":{"channelName":null},
     "exp":4102444800,"iat":null,"notValidBefore":null,"notValidAfter":"2100-01-01T00:00:00Z"})"},
    {"record_empty.json", R"({"kaleth":null,"url":null,"settingsChannel":null,"exp":null,"iat":null,
     "notValidBefore":null,"notValidAfter":null})"},
};

}  // namespace

TEST(KeyedArchiveFixtures, RecordsDecodeToTheirValues) {
  for (const auto& [name, expected] : recordFixtures) {
    EXPECT_EQ(OrvAppConfigSettingsRecordJSONObject(*load<OrvAppConfigSettingsRecord>(name)), boost::json::parse(expected))
        << name;
  }
  // The shape the command-line tool stores: store URL to record.
  const auto tool =
      *loadAs<std::map<std::string, std::shared_ptr<OrvAppConfigSettingsRecord>>>("tool_dictionary_of_records.json");
  ASSERT_EQ(tool.size(), 2u);
  EXPECT_EQ(*tool.at("https://store.example.com/Store"), *load<OrvAppConfigSettingsRecord>("record_full.json"));
  EXPECT_EQ(*tool.at("https://apps.example.com:443/Store"), *load<OrvAppConfigSettingsRecord>("record_sparse.json"));
}

TEST(KeyedArchiveFixtures, EveryRecordKindDecodesAsItself) {
  const auto full = load<OrvAppConfigSettingsRecord>("record_full.json");
  const auto& app = *full->kaleth()->appSettings();
  const auto& ios = *app.ios()->at(0);
  EXPECT_EQ(*load<OrvAppConfigSettingsKaleth>("kaleth.json"), *full->kaleth());
  EXPECT_EQ(*load<OrvAppConfigSettingsApp>("app.json"), app);
  EXPECT_EQ(*load<OrvAppConfigSettingsIos>("group_ios.json"), ios);
  EXPECT_EQ(*load<OrvAppConfigSettingsMacOS>("group_macos.json"), *app.macos()->at(0));
  EXPECT_EQ(*load<OrvAppConfigCommonSettings>("group_common.json"),
            OrvAppConfigCommonSettings(ios.settings(), ios.assignmentPriority(), ios.isUserOverride(), ios.category(),
                                       ios.assignedTo()));
  EXPECT_EQ(*load<OrvAppConfigSingleAppSetting>("setting.json"), *ios.settings()->at(1));
  EXPECT_EQ(*load<OrvAppConfigSettingsURL>("url.json"), *full->url());
  EXPECT_EQ(*load<OrvAppConfigSettingsMigrationURL>("migration_url.json"), *full->url()->migrationUrl()->at(0));
  EXPECT_EQ(*load<OrvAppConfigSettingsChannel>("channel.json"), *full->settingsChannel());
}
