#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include "OrvJSONAccessors.h"
#include "OrvJSONSerialization.h"

namespace {

std::optional<OrvError> parseFailure(std::string_view text,
                                     OrvJSONReadingOptions options = OrvJSONReadingOptions::none) {
  std::optional<OrvError> error;
  const auto value = OrvJSONSerialization::JSONObjectWithData(text, options, &error);
  EXPECT_FALSE(value) << text;
  EXPECT_TRUE(error) << text;
  return error;
}

TEST(OrvJSONSerializationTest, RejectsWhatASignedDocumentMustNotHold) {
  const auto duplicate = parseFailure(R"({"domain":{"name":"a.com","name":"b.com"}})");
  ASSERT_TRUE(duplicate);
  EXPECT_EQ(duplicate->domain(), OrvJSONSerializationErrorDomain);
  EXPECT_EQ(duplicate->code(), OrvJSONSerializationErrorInvalidJSON);
  EXPECT_NE(duplicate->localizedDescription().find("Duplicate key"), std::string::npos);
  // The same key spelled with an escape is still the same key.
  parseFailure(R"({"a":1,"\u0061":2})");
  const auto infinite = parseFailure(R"({"exp":1e400})");
  ASSERT_TRUE(infinite);
  EXPECT_NE(infinite->localizedDescription().find("out of range"), std::string::npos);
  parseFailure(R"([-1e400])");
  parseFailure("{\"s\":\"\xFF\"}");
  parseFailure(R"({"s":"\ud800"})");
  parseFailure(R"({"a":1,})");
  parseFailure(R"({"a":1} // c)");
  parseFailure(R"({} {})");
  parseFailure("");
  parseFailure("  \n");
  parseFailure(R"({"a":)");
  parseFailure(std::string(100, '[') + std::string(100, ']'));  // nesting beyond the parser's depth
}

TEST(OrvJSONSerializationTest, KeysRepeatOnlyAcrossObjects) {
  std::optional<OrvError> error;
  const auto value = OrvJSONSerialization::JSONObjectWithData(
      R"({"a":{"name":1},"b":{"name":2},"list":[{"url":"x"},{"url":"y"}]})", OrvJSONReadingOptions::none, &error);
  ASSERT_TRUE(value);
  EXPECT_FALSE(error);
  EXPECT_EQ(value->at("b").at("name").as_int64(), 2);
  EXPECT_EQ(value->at("list").as_array().size(), 2u);
}

TEST(OrvJSONSerializationTest, FragmentsNeedTheOption) {
  for (const char* scalar : {"1", "true", "null", "\"s\"", " 2.5 "}) {
    const auto error = parseFailure(scalar);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), OrvJSONSerializationErrorInvalidJSON);
    EXPECT_TRUE(OrvJSONSerialization::JSONObjectWithData(scalar, OrvJSONReadingOptions::fragmentsAllowed)) << scalar;
  }
  EXPECT_TRUE(OrvJSONSerialization::JSONObjectWithData("[]", OrvJSONReadingOptions::none));
  // Without an error out-parameter a failure is still just nothing.
  EXPECT_FALSE(OrvJSONSerialization::JSONObjectWithData("1", OrvJSONReadingOptions::none));
}

TEST(OrvJSONAccessorsTest, TypesNeverBlur) {
  const auto value = boost::json::parse(R"({
    "flag": true, "zero": 0, "one": 1, "big": 18446744073709551615, "real": 2.5, "text": "5",
    "url": "https://h/x", "emptyUrl": "", "badUrl": "not a url", "numUrl": 5,
    "obj": {"k": "v"}, "arr": [{"a": 1}, "s", 3, {"b": 2}, null, "t"], "nul": null,
    "iat": 1700000000, "iatMs": 1700000000500, "iatReal": 1.5
  })");
  const auto* o = &value.as_object();
  using namespace OrvJSON;
  EXPECT_TRUE(jsonBoolForKey(o, "flag"));
  EXPECT_FALSE(jsonBoolForKey(o, "one"));  // a number is never a boolean
  EXPECT_FALSE(jsonBoolForKey(o, "text"));
  EXPECT_FALSE(jsonBoolForKey(o, "missing"));
  EXPECT_FALSE(jsonNumberForKey(o, "flag"));  // a boolean is never a number
  EXPECT_FALSE(jsonNumberForKey(o, "text"));
  EXPECT_FALSE(jsonNumberForKey(o, "nul"));
  ASSERT_TRUE(jsonNumberForKey(o, "zero"));
  EXPECT_TRUE(jsonNumberForKey(o, "big"));
  EXPECT_TRUE(jsonNumberForKey(o, "real"));
  EXPECT_EQ(jsonStringForKey(o, "text"), "5");
  EXPECT_FALSE(jsonStringForKey(o, "one"));
  EXPECT_FALSE(jsonStringForKey(o, "nul"));
  EXPECT_EQ(jsonUrlForKey(o, "url")->absoluteString(), "https://h/x");
  EXPECT_FALSE(jsonUrlForKey(o, "emptyUrl"));
  EXPECT_FALSE(jsonUrlForKey(o, "badUrl"));
  EXPECT_FALSE(jsonUrlForKey(o, "numUrl"));
  EXPECT_TRUE(jsonDictionaryForKey(o, "obj"));
  EXPECT_FALSE(jsonDictionaryForKey(o, "arr"));
  EXPECT_FALSE(jsonArrayForKey(o, "obj"));

  const auto dictionaries = subArrayOfDictionaries(jsonArrayForKey(o, "arr"));
  ASSERT_TRUE(dictionaries);
  ASSERT_EQ(dictionaries->size(), 2u);
  EXPECT_TRUE((*dictionaries)[1]->contains("b"));
  EXPECT_EQ(subArrayOfStrings(jsonArrayForKey(o, "arr")), (std::vector<std::string>{"s", "t"}));
  EXPECT_EQ(subArrayOfStrings(jsonArrayForKey(o, "missing")), std::nullopt);
  EXPECT_EQ(subArrayOfDictionaries(jsonArrayForKey(o, "obj")), std::nullopt);

  EXPECT_EQ(jsonDateFromEpochValueForKey(o, "iat"), OrvDateFromTimeIntervalSince1970(1700000000));
  EXPECT_EQ(jsonDateFromEpochValueForKey(o, "iatReal"), OrvDateFromTimeIntervalSince1970(1.5));
  EXPECT_EQ(jsonDateFromEpochMillisecondsValueForKey(o, "iatMs"), OrvDateFromTimeIntervalSince1970(1700000000.5));
  EXPECT_FALSE(jsonDateFromEpochValueForKey(o, "flag"));
  EXPECT_FALSE(jsonDateFromEpochValueForKey(o, "text"));
}

TEST(OrvJSONAccessorsTest, NothingInNothingOut) {
  using namespace OrvJSON;
  EXPECT_FALSE(jsonDictionaryForKey(nullptr, "k"));
  EXPECT_FALSE(jsonArrayForKey(nullptr, "k"));
  EXPECT_FALSE(jsonStringForKey(nullptr, "k"));
  EXPECT_FALSE(jsonNumberForKey(nullptr, "k"));
  EXPECT_FALSE(jsonUrlForKey(nullptr, "k"));
  EXPECT_FALSE(jsonBoolForKey(nullptr, "k"));
  EXPECT_FALSE(jsonDateFromEpochValueForKey(nullptr, "k"));
  EXPECT_FALSE(jsonDateFromEpochMillisecondsValueForKey(nullptr, "k"));
  EXPECT_FALSE(subArrayOfDictionaries(nullptr));
  EXPECT_FALSE(subArrayOfStrings(nullptr));
  const boost::json::array empty;
  EXPECT_EQ(subArrayOfStrings(&empty), std::vector<std::string>{});
}

}  // namespace
