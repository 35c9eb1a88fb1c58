#include <gtest/gtest.h>

#include <atomic>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <functional>
#include <thread>

#include "OrvAppConfigServiceConstants.h"
#include "OrvAppConfigSettingsRecord+JSON.h"
#include "OrvAppConfigSettingsRecord.h"

namespace {

namespace json = boost::json;
using std::chrono::seconds;

constexpr const char* fullAnswer = R"({
  "kaleth": {
    "appSettings": {
      "ios": [
        {"settings": [{"name": "a", "value": {"k": [1, true, 2.5]}}, {"name": "b", "value": "s"}, {"name": "c"}],
         "category": "cat", "userOverride": true, "assignedTo": ["x", 5, "y"], "assignmentPriority": 3},
        "not a group"
      ],
      "macos": [{"settings": []}]
    },
    "name": "Store", "description": "Desc", "useForAppConfig": true
  },
  "url": {"name": "https://store.example.com/Store",
          "migrationUrl": [{"dovrinValidUntil": 5000, "url": "https://new.example.com"}, 7]},
  "settingsChannel": {"channelName": "beta"},
  "exp": 1000.9,
  "iat": 500
})";

std::shared_ptr<OrvAppConfigSettingsRecord> parse(const std::string& body) {
  std::optional<OrvError> error = OrvError("stale", 9);
  auto record = OrvAppConfigSettingsRecord::createFromData(body, &error);
  EXPECT_FALSE(error) << error->description();
  return record;
}

OrvData archive(const std::shared_ptr<const OrvSecureCoding>& object) {
  std::optional<OrvError> error;
  auto data = OrvKeyedArchiver::archivedDataWithRootObject(object, &error);
  EXPECT_FALSE(error) << error->description();
  return data.value_or("");
}

std::shared_ptr<OrvAppConfigSettingsRecord> unarchive(const OrvData& data, std::optional<OrvError>* error) {
  return OrvKeyedUnarchiver::unarchivedObjectOfClass<OrvAppConfigSettingsRecord>(data, error);
}

// The archive with one edit applied to the fields of the root record.
OrvData edited(const OrvData& data, const std::function<void(json::object& fields)>& edit) {
  json::value document = json::parse(data);
  edit(document.at("$root").at("$fields").as_object());
  return json::serialize(document);
}

json::object& fieldsAt(json::object& fields, std::initializer_list<std::string_view> path) {
  json::object* current = &fields;
  for (std::string_view key : path) current = &current->at(key).at("$fields").as_object();
  return *current;
}

std::int64_t refusal(const OrvData& data) {
  std::optional<OrvError> error;
  EXPECT_FALSE(unarchive(data, &error));
  if (!error) return 0;
  EXPECT_EQ(error->domain(), OrvKeyedArchiverErrorDomain);
  return error->code();
}

}  // namespace

TEST(OrvAppConfigSettingsRecord, NonObjectBodiesFailWithTheRecordError) {
  for (const char* body : {"[]", "5", "\"text\"", "null", "not json", "", "{\"a\":"}) {
    std::optional<OrvError> error;
    EXPECT_FALSE(OrvAppConfigSettingsRecord::createFromData(body, &error)) << body;
    ASSERT_TRUE(error) << body;
    EXPECT_EQ(error->domain(), "com.varnel.orvappconfigservice.OrvAppConfigSettingsRecord");
    EXPECT_EQ(error->code(), 0);
    EXPECT_EQ(error->localizedDescription(), "A non-dictionary JSON object was provided as the settings response.");
  }
  EXPECT_FALSE(OrvAppConfigSettingsRecord::createFromData("[]", nullptr));
  EXPECT_FALSE(OrvAppConfigSettingsRecord::initWithJSONDictionary(nullptr));

  auto empty = parse("{}");
  ASSERT_TRUE(empty);
  EXPECT_EQ(*empty, OrvAppConfigSettingsRecord());  // all seven properties nil
}

TEST(OrvAppConfigSettingsRecord, ReadsEveryFieldAndDerivesTheDates) {
  auto record = parse(fullAnswer);
  ASSERT_TRUE(record && record->kaleth() && record->url() && record->settingsChannel());

  EXPECT_EQ(record->exp(), OrvNumber(1000.9));
  EXPECT_EQ(record->notValidAfter(), OrvDate(seconds(1000)));  // fraction dropped
  EXPECT_EQ(record->iat(), OrvNumber(500));
  EXPECT_EQ(record->notValidBefore(), OrvDate(seconds(500)));
  EXPECT_EQ(record->settingsChannel()->channelName(), "beta");

  const auto& migrations = record->url()->migrationUrl();
  ASSERT_TRUE(migrations);
  ASSERT_EQ(migrations->size(), 1u);  // the non-object element is skipped
  EXPECT_EQ(migrations->at(0)->dovrinValidUntil(), OrvNumber(5000));
  EXPECT_EQ(migrations->at(0)->dovrinValidUntilDate(), OrvDate(seconds(5)));  // milliseconds, unlike exp
  EXPECT_EQ(migrations->at(0)->url(), "https://new.example.com");

  const auto& kaleth = *record->kaleth();
  EXPECT_EQ(kaleth.name(), "Store");
  EXPECT_EQ(kaleth.theDescription(), "Desc");
  EXPECT_TRUE(kaleth.isUseForAppConfig());
  const auto& ios = kaleth.appSettings()->ios();
  ASSERT_TRUE(ios);
  ASSERT_EQ(ios->size(), 1u);  // the string element is dropped
  const auto& group = *ios->at(0);
  EXPECT_EQ(group.category(), "cat");
  EXPECT_TRUE(group.isUserOverride());
  EXPECT_EQ(group.assignedTo(), (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(group.assignmentPriority(), OrvNumber(3));
  ASSERT_EQ(group.settings()->size(), 3u);
  EXPECT_EQ(group.settings()->at(0)->value(), json::parse(R"({"k": [1, true, 2.5]})"));
  EXPECT_FALSE(group.settings()->at(2)->value());
  EXPECT_EQ(kaleth.appSettings()->macos()->size(), 1u);
  EXPECT_TRUE(kaleth.appSettings()->macos()->at(0)->settings()->empty());

  // The setters keep the dates in step; a negative number wraps to the far future.
  record->setExp(std::nullopt);
  EXPECT_FALSE(record->notValidAfter());
  record->setIat(OrvNumber(-1));
  EXPECT_GT(record->notValidBefore(), OrvDate(seconds(4'000'000'000LL)));
}

TEST(OrvAppConfigSettingsRecord, MissingAndMistypedFieldsStayEmpty) {
  auto record = parse(R"({"iat": "500", "exp": true, "url": {"migrationUrl": []}, "settingsChannel": "beta",
                          "kaleth": {}})");
  ASSERT_TRUE(record);
  EXPECT_FALSE(record->iat());
  EXPECT_FALSE(record->notValidBefore());
  EXPECT_FALSE(record->exp());
  EXPECT_FALSE(record->settingsChannel());
  ASSERT_TRUE(record->url()->migrationUrl());
  EXPECT_TRUE(record->url()->migrationUrl()->empty());
  EXPECT_FALSE(parse(R"({"url": {}})")->url()->migrationUrl());
  const auto& kaleth = *record->kaleth();
  EXPECT_FALSE(kaleth.appSettings());
  EXPECT_FALSE(kaleth.name());
  EXPECT_FALSE(kaleth.theDescription());
  EXPECT_FALSE(kaleth.isUseForAppConfig());

  auto app = parse(R"({"kaleth": {"appSettings": {"macos": [{}], "ios": {}}}})")->kaleth()->appSettings();
  EXPECT_FALSE(app->ios());  // not an array: nil, not empty
  ASSERT_EQ(app->macos()->size(), 1u);
  const auto& group = *app->macos()->at(0);
  EXPECT_FALSE(group.settings());
  EXPECT_FALSE(group.isUserOverride());
  EXPECT_FALSE(group.assignedTo());
  EXPECT_FALSE(group.assignmentPriority());
}

TEST(OrvAppConfigSettingsRecord, ArchiveRoundTripRebuildsTheDates) {
  auto record = parse(fullAnswer);
  ASSERT_TRUE(record);
  record->kaleth()->appSettings()->macos()->at(0)->setIsUserOverride(false);
  record->setNotValidBefore(OrvDate(seconds(1)));  // not archived: rebuilt from iat
  const OrvData data = archive(record);

  std::optional<OrvError> error = OrvError("stale", 9);
  auto decoded = unarchive(data, &error);
  EXPECT_FALSE(error);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->notValidBefore(), OrvDate(seconds(500)));
  record->setIat(record->iat());
  EXPECT_EQ(*decoded, *record);
  EXPECT_FALSE(decoded->kaleth()->appSettings()->ios()->at(0)->settings()->at(2)->value());

  // Booleans are numbers made from the boolean, under the property names.
  const json::value document = json::parse(data);
  const json::object& kaleth = document.at("$root").at("$fields").at("kaleth").at("$fields").as_object();
  EXPECT_FALSE(kaleth.contains("description"));
  EXPECT_EQ(kaleth.at("isUseForAppConfig"), json::parse(R"({"$class":"OrvNumber","$type":"bool","$value":true})"));
  const json::value& macosGroup = kaleth.at("appSettings").at("$fields").at("macos").at("$items").at(0);
  EXPECT_EQ(macosGroup.at("$class"), "OrvAppConfigSettingsMacOS");
  EXPECT_EQ(macosGroup.at("$fields").at("isUserOverride").at("$value"), false);

  // Another root class than the record's is refused.
  EXPECT_FALSE(OrvKeyedUnarchiver::unarchivedObjectOfClass<OrvAppConfigSettingsKaleth>(data, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), OrvKeyedArchiverErrorClassNotAllowed);
}

TEST(OrvAppConfigSettingsRecord, NullSettingValueArchivesButIsRefusedWhenDecoded) {
  auto record = parse(R"({"kaleth": {"appSettings": {"ios": [{"settings": [{"name": "n", "value": null}]}]}}})");
  ASSERT_TRUE(record->kaleth()->appSettings()->ios()->at(0)->settings()->at(0)->value()->is_null());
  std::optional<OrvError> error;
  auto data = OrvKeyedArchiver::archivedDataWithRootObject(record, &error);
  ASSERT_TRUE(data) << error->description();
  EXPECT_EQ(refusal(*data), OrvKeyedArchiverErrorClassNotAllowed);
}

TEST(OrvAppConfigSettingsRecord, HandEditedArchivesAreRefused) {
  const OrvData data = archive(parse(fullAnswer));
  ASSERT_TRUE(unarchive(data, nullptr));

  // The description under the JSON key instead of the property name is simply not found.
  const auto renamed = unarchive(edited(data,
                                        [](json::object& fields) {
                                          auto& kaleth = fieldsAt(fields, {"kaleth"});
                                          kaleth["description"] = json::value(kaleth.at("theDescription"));
                                          kaleth.erase("theDescription");
                                        }),
                                 nullptr);
  ASSERT_TRUE(renamed);
  EXPECT_FALSE(renamed->kaleth()->theDescription());

  using Edit = std::function<void(json::object & fields)>;
  const std::pair<Edit, std::int64_t> refused[] = {
      // A group cannot change platform inside the archive.
      {[](json::object& fields) {
         fieldsAt(fields, {"kaleth", "appSettings"})["ios"].at("$items").at(0).as_object()["$class"] =
             "OrvAppConfigSettingsMacOS";
       },
       OrvKeyedArchiverErrorClassNotAllowed},
      // A single group where a list is expected is no list, although its class is in the set.
      {[](json::object& fields) {
         auto& app = fieldsAt(fields, {"kaleth", "appSettings"});
         app["ios"] = json::value(app["ios"].at("$items").at(0));
       },
       OrvKeyedArchiverErrorClassNotAllowed},
      // A string where a number is allowed; a sub-record under the wrong key; an unknown class.
      {[](json::object& fields) { fields["exp"] = json::value(fields.at("url").at("$fields").at("name")); },
       OrvKeyedArchiverErrorClassNotAllowed},
      {[](json::object& fields) { fields["url"] = json::value(fields.at("settingsChannel")); },
       OrvKeyedArchiverErrorClassNotAllowed},
      {[](json::object& fields) { fields["url"].as_object()["$class"] = "OrvEvil"; }, OrvKeyedArchiverErrorUnknownClass},
      {[](json::object& fields) { fields["kaleth"].as_object().erase("$fields"); }, OrvKeyedArchiverErrorCorrupt},
  };
  for (std::size_t i = 0; i < std::size(refused); ++i) {
    EXPECT_EQ(refusal(edited(data, refused[i].first)), refused[i].second) << "edit " << i;
  }
  EXPECT_EQ(refusal(data.substr(0, data.size() / 2)), OrvKeyedArchiverErrorCorrupt);

  // A missing key is nil, not an error.
  auto withoutURL = unarchive(edited(data, [](json::object& fields) { fields.erase("url"); }), nullptr);
  ASSERT_TRUE(withoutURL);
  EXPECT_FALSE(withoutURL->url());
}

TEST(OrvAppConfigSettingsRecord, PrintsEveryFieldAsJSON) {
  const json::object printed = OrvAppConfigSettingsRecordJSONObject(*parse(fullAnswer));
  EXPECT_EQ(printed.at("notValidAfter"), "1970-01-01T00:16:40Z");
  EXPECT_EQ(printed.at("exp"), 1000.9);
  EXPECT_EQ(printed.at("url").at("migrationUrl").at(0).at("dovrinValidUntilDate"), "1970-01-01T00:00:05Z");
  const json::value& group = printed.at("kaleth").at("appSettings").at("ios").at(0);
  EXPECT_EQ(group.at("assignedTo"), json::parse(R"(["x","y"])"));
  EXPECT_TRUE(group.at("settings").at(2).at("value").is_null());
  EXPECT_EQ(printed.at("kaleth").at("theDescription"), "Desc");

  const json::object empty = OrvAppConfigSettingsRecordJSONObject(OrvAppConfigSettingsRecord());
  EXPECT_EQ(empty.size(), 7u);
  for (const auto& member : empty) EXPECT_TRUE(member.value().is_null()) << member.key();
}

TEST(OrvAppConfigSettingsRecord, GroupsKeepTheirPlatformClass) {
  auto ios = OrvAppConfigSettingsIos::initWithAppSettings(std::nullopt, OrvNumber(2.5), true, "c", std::vector<std::string>{});
  auto macos =
      OrvAppConfigSettingsMacOS::initWithAppSettings(std::nullopt, OrvNumber(2.5), true, "c", std::vector<std::string>{});
  EXPECT_FALSE(*ios == *macos);  // same content, other platform

  // A subclass satisfies its superclass, and comes back as itself.
  std::optional<OrvError> error;
  auto decoded = OrvKeyedUnarchiver::unarchivedObjectOfClass<OrvAppConfigCommonSettings>(archive(ios), &error);
  ASSERT_TRUE(decoded) << error->description();
  EXPECT_EQ(decoded->className(), "OrvAppConfigSettingsIos");
  EXPECT_EQ(*decoded, *ios);  // the other way round: the hand-edited archives
}

TEST(OrvAppConfigSettingsRecord, ArchivingRefusesWhatCouldNotBeReadBack) {
  std::optional<OrvError> error;
  auto badName = OrvAppConfigSettingsRecord::initWithKaleth(
      nullptr, OrvAppConfigSettingsURL::initWithName("\xC0\x80", std::nullopt), nullptr, std::nullopt, std::nullopt);
  EXPECT_FALSE(OrvKeyedArchiver::archivedDataWithRootObject(badName, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), OrvKeyedArchiverErrorInvalidValue);

  auto holey = OrvAppConfigSettingsURL::initWithName("n", OrvAppConfigSettingsMigrationURLList{nullptr});
  EXPECT_FALSE(OrvKeyedArchiver::archivedDataWithRootObject(holey, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), OrvKeyedArchiverErrorInvalidValue);

  // A string smuggled into the migration list is outside its class set.
  const OrvData data = archive(parse(fullAnswer));
  EXPECT_EQ(refusal(edited(data,
                           [](json::object& fields) {
                             fieldsAt(fields, {"url"})["migrationUrl"].at("$items").as_array().push_back(
                                 json::parse(R"({"$class":"OrvString","$value":"https://x"})"));
                           })),
            OrvKeyedArchiverErrorClassNotAllowed);
}

TEST(OrvAppConfigSettingsRecord, ArchivesConcurrently) {
  const OrvData data = archive(parse(fullAnswer));
  std::atomic<int> matches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        auto record = unarchive(data, nullptr);
        if (record && OrvKeyedArchiver::archivedDataWithRootObject(record) == data) ++matches;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(matches.load(), 100);
}
