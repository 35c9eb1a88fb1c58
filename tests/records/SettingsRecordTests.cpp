#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <functional>
#include <map>
#include <stdexcept>

#include "EmulatorHarness.h"
#include "OrvAppConfigSettingsRecord+JSON.h"
#include "OrvAppConfigSettingsRecord.h"

namespace {

namespace json = boost::json;
using std::chrono::seconds;

// What record_full.json holds, as a settings answer says it, with entries of the wrong type among them.
constexpr const char* fullAnswer = R"({"kaleth": {"appSettings": {
    "ios": [{"settings": [{"name": "ServerName", "value": "beta.store.example.com"}, {"name": "Limits", "value":
      {"max": [1, 2.5, true], "label": "caf\u00e9"}}, {"name": "Ratio", "value": 0.1}, {"name": "Enabled", "value": false},
      {"name": "Tags", "value": ["a", "b"]}, {"name": "Unset"}], "category": "network", "userOverride": true,
      "assignedTo": ["group-a", 5, "group-b"], "assignmentPriority": 3}, "not a group"],
    "macos": [{"settings": [], "assignmentPriority": 18446744073709551615, "category": "mac", "assignedTo": []}, {}]},
    "name": "Store", "description": "Published settings", "useForAppConfig": true},
  "url": {"name": "https://store.example.com/Store", "migrationUrl": [{"dovrinValidUntil": 1700000000123,
    "url": "https://new.example.com/Store"}, {"url": "https://other.example.com"}, 7]},
  "settingsChannel": {"channelName": "beta"}, "exp": 1000.9, "iat": 500})";

// Archives written by version 1 of the archiver, checked in byte for byte: they must keep decoding to
// the same values, and archiving what they decode to must give the same bytes again.
OrvData fixture(const std::string& name) { return orv::test::readFile(std::string(ORV_RECORD_ARCHIVES_DIR) + "/" + name); }

// Decodes the fixture as a T (or as Decoded when that is not a T's shared pointer).
template <class T, class Decoded = std::shared_ptr<T>>
OrvDecoded<Decoded> load(const std::string& name) {
  const OrvData data = fixture(name);
  std::optional<OrvError> error;
  auto object = OrvKeyedUnarchiver::unarchivedObjectOfType<Decoded>(data, &error);
  EXPECT_FALSE(error) << name << ": " << error->description();
  if (!object) throw std::runtime_error(name + " does not decode");
  EXPECT_EQ(OrvKeyedArchiver::archivedDataWithRootObject(object), data) << name;
  return object;
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

std::shared_ptr<OrvAppConfigSettingsRecord> parse(const std::string& body) {
  std::optional<OrvError> error = OrvError("stale", 9);
  auto record = OrvAppConfigSettingsRecord::createFromData(body, &error);
  EXPECT_FALSE(error) << error->description();
  return record;
}

// The archive with one edit applied to the fields of the object at path below the root record.
using Edit = std::function<void(json::object& fields)>;
OrvData edited(const OrvData& data, const std::vector<std::string_view>& path, const Edit& edit) {
  json::value document = json::parse(data);
  json::object* fields = &document.at("$root").at("$fields").as_object();
  for (std::string_view key : path) fields = &fields->at(key).at("$fields").as_object();
  edit(*fields);
  return json::serialize(document);
}

template <class T = OrvAppConfigSettingsRecord>
std::int64_t refusal(const OrvData& data) {
  std::optional<OrvError> error;
  EXPECT_FALSE(OrvKeyedUnarchiver::unarchivedObjectOfClass<T>(data, &error));
  EXPECT_EQ(error.value_or(OrvError("none", 0)).domain(), OrvKeyedArchiverErrorDomain);
  return error ? error->code() : 0;
}

}  // namespace

TEST(OrvAppConfigSettingsRecord, NonObjectBodiesFailWithTheRecordError) {
  for (const char* body : {"[]", "5", "\"text\"", "null", "not json", "", "{\"a\":"}) {
    std::optional<OrvError> error;
    EXPECT_FALSE(OrvAppConfigSettingsRecord::createFromData(body, &error)) << body;
    ASSERT_TRUE(error) << body;
    EXPECT_EQ(error->domain(), "com.varnel.orvappconfigservice.OrvAppConfigSettingsRecord");
    EXPECT_EQ(error->code(), 0);
  }
  EXPECT_FALSE(OrvAppConfigSettingsRecord::createFromData("[]", nullptr));
  EXPECT_FALSE(OrvAppConfigSettingsRecord::initWithJSONDictionary(nullptr));
}

// Every field as the tool prints it: nil is null, dates are ISO 8601 in UTC. A field of the wrong type
// reads as absent, and so does an entry of the wrong type in a list.
TEST(OrvAppConfigSettingsRecord, ReadsWhatIsThereAndLeavesTheRestEmpty) {
  const std::pair<const char*, const char*> cases[] = {
      {fullAnswer, recordFixtures[0].second},
      {"{}", recordFixtures[2].second},
      {R"({"iat": "500", "exp": true, "settingsChannel": "beta", "url": {"migrationUrl": []},
          "kaleth": {"appSettings": {"macos": [{}], "ios": {}}}})",
       R"({"kaleth":{"appSettings":{"ios":null,"macos":[{"settings":null,"assignmentPriority":null,"isUserOverride":false,
       "category":null,"assignedTo":null}]},"name":null,"theDescription":null,"isUseForAppConfig":false},
       "url":{"name":null,"migrationUrl":[]},"settingsChannel":null,"exp":null,"iat":null,"notValidBefore":null,"notValidAfter":null})"},
  };
  for (const auto& [body, expected] : cases)
    EXPECT_EQ(OrvAppConfigSettingsRecordJSONObject(*parse(body)), json::parse(expected)) << body;

  auto record = parse(fullAnswer);
  EXPECT_FALSE(record->kaleth()->appSettings()->ios()->at(0)->settings()->at(5)->value());  // missing, not JSON null
  // The setters keep the dates in step; a negative number wraps to the far future.
  record->setExp(std::nullopt);
  EXPECT_FALSE(record->notValidAfter());
  record->setIat(OrvNumber(-1));
  EXPECT_GT(record->notValidBefore(), OrvDate(seconds(4'000'000'000LL)));
}

// Answers read before are found again by their bytes; what a caller gets must still be its own, at
// every level, each group still of its platform's class.
TEST(OrvAppConfigSettingsRecord, AnAnswerReadBeforeGivesEachCallerItsOwnRecord) {
  const json::value document = json::parse(fullAnswer);
  const std::optional<OrvData> readAfresh =
      OrvKeyedArchiver::archivedDataWithRootObject(OrvAppConfigSettingsRecord::initWithJSONDictionary(&document.as_object()));
  const auto changeEverything = [](OrvAppConfigSettingsRecord& record) {
    record.kaleth()->setName("changed");
    record.kaleth()->appSettings()->ios()->at(0)->setCategory("changed");
    record.kaleth()->appSettings()->ios()->at(0)->settings()->at(1)->setValue(json::value("changed"));
    record.kaleth()->appSettings()->macos()->at(0)->setAssignedTo(std::vector<std::string>{"changed"});
    record.kaleth()->appSettings()->setIos(std::nullopt);
    record.url()->migrationUrl()->at(0)->setUrl("https://changed.example.com");
    record.url()->setName("changed");
    record.settingsChannel()->setChannelName("changed");
    record.setExp(OrvNumber(1));
    record.setNotValidBefore(std::nullopt);
  };
  auto first = parse(fullAnswer);
  changeEverything(*first);
  for (int round = 0; round < 2; ++round) {
    auto again = parse(fullAnswer);
    ASSERT_NE(again, nullptr);
    ASSERT_EQ(OrvKeyedArchiver::archivedDataWithRootObject(again), readAfresh);
    changeEverything(*again);
  }

  // One byte apart is another answer; a refused answer is refused again.
  std::string other = fullAnswer;
  other.replace(other.find("beta.store"), 4, "gamma");
  EXPECT_EQ(parse(other)->kaleth()->appSettings()->ios()->at(0)->settings()->at(0)->value(),
            json::value("gamma.store.example.com"));
  for (int round = 0; round < 2; ++round) {
    std::optional<OrvError> error;
    EXPECT_FALSE(OrvAppConfigSettingsRecord::createFromData(R"({"kaleth":)", &error));
    EXPECT_TRUE(error);
  }
}

// A whole record's round trip is the fuzz harness's (parse, archive, decode, equal, same bytes) and the
// fixtures' (dates rebuilt from iat and exp, never archived themselves).
TEST(OrvAppConfigSettingsRecord, RefusesWhatDoesNotRoundTrip) {
  const OrvData data = fixture("record_full.json");
  const auto notAllowed = OrvKeyedArchiverErrorClassNotAllowed;
  const std::tuple<std::vector<std::string_view>, Edit, std::int64_t> cases[] = {
      // A group cannot change platform, and a single group is no list although its class is allowed.
      {{"kaleth", "appSettings"},
       [](auto& f) { f["ios"].at("$items").at(0).at("$class") = "OrvAppConfigSettingsMacOS"; },
       notAllowed},
      {{"kaleth", "appSettings"}, [](auto& f) { f["ios"] = json::value(f["ios"].at("$items").at(0)); }, notAllowed},
      // A string where a number is allowed; a class nothing carries.
      {{}, [](auto& f) { f["exp"] = json::value(f.at("url").at("$fields").at("name")); }, notAllowed},
      {{}, [](auto& f) { f["url"].as_object()["$class"] = "OrvEvil"; }, notAllowed},
      {{"url"}, [](auto& f) { f["migrationUrl"].at("$items").as_array().push_back(f.at("name")); }, notAllowed},
      {{}, [](auto& f) { f["kaleth"].as_object().erase("$fields"); }, OrvKeyedArchiverErrorCorrupt},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& [path, edit, code] = cases[i];
    EXPECT_EQ(refusal(edited(data, path, edit)), code) << "edit " << i;
  }

  // The description under its JSON key instead of the property's is not found.
  auto renamed = OrvKeyedUnarchiver::unarchivedObjectOfClass<OrvAppConfigSettingsRecord>(edited(data, {"kaleth"}, [](auto& f) {
    f["description"] = json::value(f.at("theDescription"));
    f.erase("theDescription");
  }));
  ASSERT_TRUE(renamed);
  EXPECT_FALSE(renamed->kaleth()->theDescription());

  // What could not be read back is not archived either: text that is not UTF-8, deep inside, or nil in a list.
  for (const std::shared_ptr<OrvSecureCoding>& object : std::initializer_list<std::shared_ptr<OrvSecureCoding>>{
           OrvAppConfigSettingsRecord::initWithKaleth(nullptr, OrvAppConfigSettingsURL::initWithName("\xC0\x80", std::nullopt),
                                                      nullptr, std::nullopt, std::nullopt),
           OrvAppConfigSettingsURL::initWithName("n", OrvAppConfigSettingsMigrationURLList{nullptr})}) {
    std::optional<OrvError> error;
    EXPECT_FALSE(OrvKeyedArchiver::archivedDataWithRootObject(object, &error));
    EXPECT_EQ(error.value_or(OrvError("none", 0)).code(), OrvKeyedArchiverErrorInvalidValue);
  }
}

TEST(KeyedArchiveFixtures, EveryRecordKindDecodesToItsValues) {
  for (const auto& [name, expected] : recordFixtures) {
    EXPECT_EQ(OrvAppConfigSettingsRecordJSONObject(*load<OrvAppConfigSettingsRecord>(name)), json::parse(expected)) << name;
  }
  const auto full = load<OrvAppConfigSettingsRecord>("record_full.json");
  // The shape the command-line tool stores: store URL to record.
  const auto tool =
      *load<void, std::map<std::string, std::shared_ptr<OrvAppConfigSettingsRecord>>>("tool_dictionary_of_records.json");
  ASSERT_EQ(tool.size(), 2u);
  EXPECT_EQ(*tool.at("https://store.example.com/Store"), *full);
  EXPECT_EQ(*tool.at("https://apps.example.com:443/Store"), *load<OrvAppConfigSettingsRecord>("record_sparse.json"));
  const auto& app = *full->kaleth()->appSettings();
  const auto& ios = *app.ios()->at(0);
  // Asked for as a group, a platform's group comes back as itself (equality goes by class too).
  EXPECT_EQ(*load<OrvAppConfigCommonSettings>("group_ios.json"), ios);
  EXPECT_EQ(*load<OrvAppConfigCommonSettings>("group_macos.json"), *app.macos()->at(0));
  const auto common = load<OrvAppConfigCommonSettings>("group_common.json");
  EXPECT_EQ(*common, OrvAppConfigCommonSettings(ios.settings(), ios.assignmentPriority(), ios.isUserOverride(), ios.category(),
                                                ios.assignedTo()));
  // Groups of both platforms with the same content differ; one of a fractional priority comes back as itself too.
  const auto fractional =
      OrvAppConfigSettingsIos::initWithAppSettings(std::nullopt, OrvNumber(2.5), true, "c", std::vector<std::string>{});
  EXPECT_FALSE(*fractional == OrvAppConfigSettingsMacOS(std::nullopt, OrvNumber(2.5), true, "c", std::vector<std::string>{}));
  const auto decoded = OrvKeyedUnarchiver::unarchivedObjectOfClass<OrvAppConfigCommonSettings>(
      OrvKeyedArchiver::archivedDataWithRootObject(fractional).value_or(""));
  EXPECT_TRUE(decoded && *decoded == *fractional);
  // A group's archive is not one of a platform's group.
  EXPECT_EQ(refusal<OrvAppConfigSettingsIos>(fixture("group_common.json")), OrvKeyedArchiverErrorClassNotAllowed);
}
