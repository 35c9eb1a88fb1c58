#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include "OrvJSONAccessors.h"
#include "OrvJSONSerialization.h"

namespace {

OrvError parseFailure(std::string_view text) {
  std::optional<OrvError> error;
  EXPECT_FALSE(OrvJSONSerialization::JSONObjectWithData(text, OrvJSONReadingOptions::none, &error)) << text;
  EXPECT_TRUE(error && error->domain() == OrvJSONSerializationErrorDomain &&
              error->code() == OrvJSONSerializationErrorInvalidJSON)
      << text;
  return error.value_or(OrvError("none", 0));
}

TEST(OrvJSONSerializationTest, StrictParsing) {
  const auto duplicate = parseFailure(R"({"domain":{"name":"a.com","name":"b.com"}})");
  EXPECT_NE(duplicate.localizedDescription().find("Duplicate key"), std::string::npos);
  EXPECT_NE(parseFailure(R"({"exp":1e400})").localizedDescription().find("out of range"), std::string::npos);
  // The same key through an escape; numbers out of range, text that is not UTF-8 or not one document.
  for (const char* bad : {R"({"a":1,"\u0061":2})", "[-1e400]", "{\"s\":\"\xFF\"}", R"({"s":"\ud800"})", R"({"a":1,})", "{} // c",
                          "{} {}", "", "  \n"})
    parseFailure(bad);
  // Keys may repeat across objects, only not within one: also in objects past the few dozen keys that
  // are checked by a scan, and after an inner object closed.
  EXPECT_TRUE(OrvJSONSerialization::JSONObjectWithData(R"({"a":{"n":1},"b":{"n":2},"n":3})", OrvJSONReadingOptions::none));
  std::string wide = R"({"inner":{"k0":0,"k1":1})";
  for (int key = 0; key < 100; ++key) wide += ",\"k" + std::to_string(key) + "\":" + std::to_string(key);
  EXPECT_TRUE(OrvJSONSerialization::JSONObjectWithData(wide + "}", OrvJSONReadingOptions::none));
  for (const char* again : {"k5", "k99", "inner"}) parseFailure(wide + ",\"" + again + "\":0}");
  for (const char* scalar : {"1", "true", "null", "\"s\""}) {
    parseFailure(scalar);
    EXPECT_TRUE(OrvJSONSerialization::JSONObjectWithData(scalar, OrvJSONReadingOptions::fragmentsAllowed)) << scalar;
  }
  // Objects and arrays count alike; a setting's value may itself be deep JSON, up to the bound.
  std::string deep = "1";
  for (std::size_t level = 0; level < OrvJSONSerializationMaximumDepth; ++level)
    deep = level % 2 ? "[" + deep + "]" : "{\"v\":" + deep + "}";
  EXPECT_TRUE(OrvJSONSerialization::JSONObjectWithData(deep, OrvJSONReadingOptions::none));
  EXPECT_NE(parseFailure("[" + deep + "]").localizedDescription().find("nest deeper than 64 levels"), std::string::npos);
}

// Numbers versus booleans and strings, arrays versus objects, and absent lists are checked through the
// records; what remains is what no record field reaches.
TEST(OrvJSONAccessorsTest, WhatNoRecordFieldReaches) {
  const auto value =
      boost::json::parse(R"({"url": "https://h/x", "emptyUrl": "", "badUrl": "a b", "one": 1, "iatMs": 1700000000500})");
  using namespace OrvJSON;
  const auto* o = &value.as_object();
  EXPECT_EQ(jsonUrlForKey(o, "url")->absoluteString(), "https://h/x");
  for (const char* key : {"emptyUrl", "badUrl", "one", "missing"}) EXPECT_FALSE(jsonUrlForKey(o, key)) << key;
  EXPECT_EQ(jsonDateFromEpochMillisecondsValueForKey(o, "iatMs"), OrvDateFromTimeIntervalSince1970(1700000000.5));
  EXPECT_FALSE(jsonDictionaryForKey(nullptr, "k"));
  EXPECT_FALSE(jsonBoolForKey(o, "one"));
}

}  // namespace
