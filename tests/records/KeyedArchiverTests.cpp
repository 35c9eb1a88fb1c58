#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cmath>
#include <limits>

#include "OrvKeyedArchiver.h"
#include "OrvNumber.h"

namespace {

namespace json = boost::json;

OrvData archive(const OrvObject& object) {
  std::optional<OrvError> error;
  auto data = OrvKeyedArchiver::archivedDataWithRootObject(object, &error);
  EXPECT_FALSE(error) << error->description();
  return data.value_or("");
}

std::int64_t failureCode(const OrvClassSet& classes, const OrvData& data) {
  std::optional<OrvError> error;
  auto object = OrvKeyedUnarchiver::unarchivedObjectOfClasses(classes, data, &error);
  EXPECT_FALSE(object);
  if (!error) return 0;
  EXPECT_EQ(error->domain(), "com.varnel.OrvFoundation.KeyedArchiver");
  EXPECT_FALSE(error->localizedDescription().empty());
  return error->code();
}

OrvData envelope(json::value root) {
  return json::serialize(json::object{{"$archiver", "OrvKeyedArchiver"}, {"$version", 1}, {"$root", std::move(root)}});
}

const OrvClassSet jsonClasses{&OrvClass::number(), &OrvClass::string(), &OrvClass::array(), &OrvClass::dictionary()};

}  // namespace

TEST(OrvNumber, ConvertsLikeThePlatformWithoutUndefinedBehaviour) {
  EXPECT_EQ(OrvNumber(1000.9).unsignedLongLongValue(), 1000u);
  EXPECT_EQ(OrvNumber(-1.0).unsignedLongLongValue(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(OrvNumber(std::int64_t{-2}).unsignedLongLongValue(), std::numeric_limits<std::uint64_t>::max() - 1);
  EXPECT_EQ(OrvNumber(-0.5).unsignedLongLongValue(), 0u);
  // Beyond 2^63 a double still converts directly; beyond 2^64 and below -2^63 it saturates.
  EXPECT_EQ(OrvNumber(1e19).unsignedLongLongValue(), 10000000000000000000ull);
  EXPECT_EQ(OrvNumber(1e30).unsignedLongLongValue(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(OrvNumber(-1e30).unsignedLongLongValue(), std::uint64_t{1} << 63);
  EXPECT_EQ(OrvNumber(std::nan("")).unsignedLongLongValue(), 0u);
  EXPECT_EQ(OrvNumber(-INFINITY).longLongValue(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(OrvNumber(true).unsignedLongLongValue(), 1u);
  EXPECT_TRUE(OrvNumber(0.25).boolValue());

  // A boolean remembers it was one; equality goes by kind as well as value.
  EXPECT_NE(OrvNumber(true), OrvNumber(1));
  EXPECT_NE(OrvNumber(std::uint64_t{5}), OrvNumber(5));
  EXPECT_EQ(OrvNumber::fromJSON(json::value(true))->toJSON(), json::value(true));
  EXPECT_FALSE(OrvNumber::fromJSON(json::value("5")));
  EXPECT_FALSE(OrvNumber::fromJSON(nullptr));
  EXPECT_EQ(OrvNumber(true).description(), "1");
}

TEST(OrvKeyedArchiver, PlatformValuesRoundTripExactly) {
  const OrvDate date = OrvDate(std::chrono::nanoseconds(1'700'000'000'123'456'789LL));
  OrvObjectDictionary entries{{"pi", OrvObject(OrvNumber(0.1 + 0.2))},
                              {"max", OrvObject(OrvNumber(std::numeric_limits<std::uint64_t>::max()))},
                              {"min", OrvObject(OrvNumber(std::numeric_limits<std::int64_t>::min()))},
                              {"inf", OrvObject(OrvNumber(INFINITY))},
                              {"flag", OrvObject(OrvNumber(false))},
                              {"text", OrvObject(std::string("caf\xC3\xA9"))},
                              {"when", OrvObject(date)},
                              {"nothing", OrvObject(OrvNull{})},
                              {"list", OrvObject(OrvObjectArray{OrvObject(std::string("a")), OrvObject(OrvObjectArray{})})}};
  const OrvData data = archive(OrvObject(entries));

  std::optional<OrvError> error = OrvError("stale", 1);
  const OrvClassSet all{&OrvClass::dictionary(), &OrvClass::array(), &OrvClass::number(),
                        &OrvClass::string(),     &OrvClass::date(),  &OrvClass::null()};
  auto decoded = OrvKeyedUnarchiver::unarchivedObjectOfClasses(all, data, &error);
  EXPECT_FALSE(error);
  ASSERT_TRUE(decoded && decoded->dictionary());
  const auto& result = *decoded->dictionary();
  ASSERT_EQ(result.size(), entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) EXPECT_EQ(result[i].key, entries[i].key);
  EXPECT_EQ(*result[0].value.number(), OrvNumber(0.1 + 0.2));
  EXPECT_EQ(*result[1].value.number(), OrvNumber(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(*result[2].value.number(), OrvNumber(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(*result[3].value.number(), OrvNumber(INFINITY));
  EXPECT_EQ(*result[4].value.number(), OrvNumber(false));
  EXPECT_EQ(*result[5].value.string(), "caf\xC3\xA9");
  EXPECT_EQ(*result[6].value.date(), date);
  EXPECT_TRUE(result[7].value.isNull());
  EXPECT_EQ(result[8].value.array()->size(), 2u);

  // An archived nil root decodes as nothing, without an error.
  auto nilData = OrvKeyedArchiver::archivedDataWithRootObject(std::shared_ptr<const OrvSecureCoding>());
  ASSERT_TRUE(nilData);
  error = OrvError("stale", 1);
  EXPECT_FALSE(OrvKeyedUnarchiver::unarchivedObjectOfClass(OrvClass::string(), *nilData, &error));
  EXPECT_FALSE(error);
}

TEST(OrvKeyedArchiver, AllowListAppliesToTheValueAndEverythingInsideIt) {
  const OrvData nested = archive(OrvObject::fromJSON(json::parse(R"({"a":[1,{"b":"x"}]})")));
  EXPECT_TRUE(OrvKeyedUnarchiver::unarchivedObjectOfClasses(jsonClasses, nested));
  EXPECT_EQ(failureCode({&OrvClass::dictionary(), &OrvClass::array(), &OrvClass::number()}, nested),
            OrvKeyedArchiverErrorClassNotAllowed);  // string keys and the "x" need the string class

  const OrvData withNull = archive(OrvObject::fromJSON(json::parse(R"([1,null])")));
  EXPECT_EQ(failureCode(jsonClasses, withNull), OrvKeyedArchiverErrorClassNotAllowed);

  // A mutable array is a kind of array; the reverse does not hold.
  const OrvData mutableList =
      envelope({{"$class", "OrvMutableArray"}, {"$items", json::array{{{"$class", "OrvString"}, {"$value", "s"}}}}});
  EXPECT_TRUE(OrvKeyedUnarchiver::unarchivedObjectOfClasses({&OrvClass::array(), &OrvClass::string()}, mutableList));
  const OrvData plainList = envelope({{"$class", "OrvArray"}, {"$items", json::array{}}});
  EXPECT_EQ(failureCode({&OrvClass::mutableArray()}, plainList), OrvKeyedArchiverErrorClassNotAllowed);
}

TEST(OrvKeyedArchiver, HostileDataGivesErrorsNotCrashes) {
  const OrvData good = archive(OrvObject(std::string("hello")));
  const OrvClassSet strings{&OrvClass::string()};

  EXPECT_EQ(failureCode(strings, ""), OrvKeyedArchiverErrorCorrupt);
  EXPECT_EQ(failureCode(strings, "not an archive"), OrvKeyedArchiverErrorCorrupt);
  EXPECT_EQ(failureCode(strings, R"({"hello":"world"})"), OrvKeyedArchiverErrorCorrupt);
  EXPECT_EQ(failureCode(strings, R"({"$archiver":"OrvKeyedArchiver","$version":1})"), OrvKeyedArchiverErrorCorrupt);
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_EQ(failureCode(strings, good.substr(0, length)), OrvKeyedArchiverErrorCorrupt) << length;
  }

  json::value document = json::parse(good);
  document.as_object()["$version"] = 2;
  EXPECT_EQ(failureCode(strings, json::serialize(document)), OrvKeyedArchiverErrorVersion);
  document.as_object()["$version"] = "1";
  EXPECT_EQ(failureCode(strings, json::serialize(document)), OrvKeyedArchiverErrorCorrupt);

  EXPECT_EQ(failureCode(strings, envelope({{"$class", "NoSuchClass"}})), OrvKeyedArchiverErrorUnknownClass);
  EXPECT_EQ(failureCode(strings, envelope({{"$class", "OrvNumber"}, {"$type", "int"}, {"$value", 1}})),
            OrvKeyedArchiverErrorClassNotAllowed);
  // Known classes with members of the wrong shape.
  EXPECT_EQ(failureCode(strings, envelope({{"$class", "OrvString"}, {"$value", 5}})), OrvKeyedArchiverErrorCorrupt);
  EXPECT_EQ(failureCode(strings, envelope("hello")), OrvKeyedArchiverErrorCorrupt);
  const OrvClassSet numbers{&OrvClass::number()};
  EXPECT_EQ(failureCode(numbers, envelope({{"$class", "OrvNumber"}, {"$type", "int"}, {"$value", 1.5}})),
            OrvKeyedArchiverErrorCorrupt);
  EXPECT_EQ(failureCode(numbers, envelope({{"$class", "OrvNumber"}, {"$type", "uint"}, {"$value", -1}})),
            OrvKeyedArchiverErrorCorrupt);
  EXPECT_EQ(failureCode(numbers, envelope({{"$class", "OrvNumber"}, {"$type", "double"}, {"$value", "1e999"}})),
            OrvKeyedArchiverErrorCorrupt);
  EXPECT_EQ(failureCode(numbers, envelope({{"$class", "OrvNumber"}, {"$type", "double"}, {"$value", "1.5x"}})),
            OrvKeyedArchiverErrorCorrupt);
  EXPECT_EQ(failureCode({&OrvClass::date()}, envelope({{"$class", "OrvDate"}, {"$value", "yesterday"}})),
            OrvKeyedArchiverErrorCorrupt);
}

TEST(OrvKeyedArchiver, RefusesUnreadableStringsAndNestingBeyondTheBound) {
  const auto nestedArrays = [](std::size_t levels) {
    json::value node = json::array{};
    for (std::size_t i = 1; i < levels; ++i) node = json::array{std::move(node)};
    return node;
  };
  const OrvClassSet arrays{&OrvClass::array()};
  EXPECT_TRUE(OrvKeyedUnarchiver::unarchivedObjectOfClasses(
      arrays, archive(OrvObject::fromJSON(nestedArrays(OrvKeyedArchiveMaximumDepth)))));

  std::optional<OrvError> error;
  EXPECT_FALSE(
      OrvKeyedArchiver::archivedDataWithRootObject(OrvObject::fromJSON(nestedArrays(OrvKeyedArchiveMaximumDepth + 1)), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), OrvKeyedArchiverErrorInvalidValue);
  // Nor does a string JSON cannot carry archive.
  error.reset();
  EXPECT_FALSE(OrvKeyedArchiver::archivedDataWithRootObject(OrvObject(std::string("\xFF\xFE")), &error));
  EXPECT_EQ(error.value_or(OrvError("none", 0)).code(), OrvKeyedArchiverErrorInvalidValue);

  // Hand-made: one level too deep, and far too deep for the JSON parser itself (built as text, so
  // that no deep tree has to exist in the test).
  for (std::size_t levels : {OrvKeyedArchiveMaximumDepth + 1, std::size_t{100000}}) {
    std::string root;
    for (std::size_t i = 0; i < levels; ++i) root += R"({"$class":"OrvArray","$items":[)";
    for (std::size_t i = 0; i < levels; ++i) root += "]}";
    const OrvData data = R"({"$archiver":"OrvKeyedArchiver","$version":1,"$root":)" + root + "}";
    EXPECT_EQ(failureCode(arrays, data), OrvKeyedArchiverErrorCorrupt) << levels;
  }
}
