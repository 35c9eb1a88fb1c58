#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cmath>
#include <limits>
#include <map>

#include "OrvKeyedArchiver.h"
#include "OrvNumber.h"

namespace {

namespace json = boost::json;
using Strings = std::vector<std::string>;
using Lists = std::map<std::string, Strings>;

// The archive, or nothing and the error code refusedWith.
template <class T>
OrvData archive(const T& object, std::int64_t refusedWith = 0) {
  std::optional<OrvError> error;
  auto data = OrvKeyedArchiver::archivedDataWithRootObject(object, &error);
  EXPECT_EQ(error ? error->code() : 0, refusedWith);
  EXPECT_EQ(data.has_value(), refusedWith == 0);
  return data.value_or("");
}

template <class T>
std::int64_t refusal(const OrvData& data) {
  std::optional<OrvError> error;
  EXPECT_FALSE(OrvKeyedUnarchiver::unarchivedObjectOfType<T>(data, &error)) << data;
  EXPECT_EQ(error.value_or(OrvError(OrvKeyedArchiverErrorDomain, 0)).domain(), "com.varnel.OrvFoundation.KeyedArchiver");
  return error ? error->code() : 0;
}

OrvData envelope(const std::string& root) { return R"({"$archiver":"OrvKeyedArchiver","$version":1,"$root":)" + root + "}"; }

// Array nodes nested that deep around the innermost node, built as text so that no deep tree has to exist.
std::string nestedArrays(std::size_t levels, const char* innermost = "") {
  std::string text;
  for (std::size_t i = 0; i < levels; ++i) text += R"({"$class":"OrvArray","$items":[)";
  text += innermost;
  for (std::size_t i = 0; i < levels; ++i) text += "]}";
  return text;
}

}  // namespace

TEST(OrvNumber, ConvertsLikeThePlatformWithoutUndefinedBehaviour) {
  constexpr std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
  // Beyond 2^63 a double still converts directly; beyond 2^64 and below -2^63 it saturates.
  // clang-format off
  const std::pair<OrvNumber, std::uint64_t> unsignedValues[] = {
      {OrvNumber(1000.9), 1000u}, {OrvNumber(-1.0), max}, {OrvNumber(std::int64_t{-2}), max - 1}, {OrvNumber(-0.5), 0u},
      {OrvNumber(1e19), 10000000000000000000ull}, {OrvNumber(1e30), max}, {OrvNumber(-1e30), std::uint64_t{1} << 63},
      {OrvNumber(std::nan("")), 0u}, {OrvNumber(true), 1u}};
  // clang-format on
  for (const auto& [number, expected] : unsignedValues)
    EXPECT_EQ(number.unsignedLongLongValue(), expected) << number.description();
  EXPECT_EQ(OrvNumber(-INFINITY).longLongValue(), std::numeric_limits<std::int64_t>::min());
  EXPECT_TRUE(OrvNumber(0.25).boolValue());
  // A boolean remembers it was one; equality goes by kind as well as value.
  EXPECT_NE(OrvNumber(true), OrvNumber(1));
  EXPECT_NE(OrvNumber(std::uint64_t{5}), OrvNumber(5));
  EXPECT_FALSE(OrvNumber::fromJSON(json::value("5")));
  EXPECT_EQ(OrvNumber(true).description(), "1");
}

TEST(OrvKeyedArchiver, ValuesRoundTripExactly) {
  const OrvNumber numbers[] = {OrvNumber(0.1 + 0.2), OrvNumber(std::numeric_limits<std::uint64_t>::max()),
                               OrvNumber(std::numeric_limits<std::int64_t>::min()), OrvNumber(INFINITY), OrvNumber(false)};
  for (const OrvNumber& number : numbers)
    EXPECT_EQ(OrvKeyedUnarchiver::unarchivedObjectOfType<OrvNumber>(archive(number)), number) << number.description();
  const std::vector<OrvDate> dates{OrvDate(std::chrono::nanoseconds(1'700'000'000'123'456'789LL)), OrvDate()};
  EXPECT_EQ(OrvKeyedUnarchiver::unarchivedObjectOfType<std::vector<OrvDate>>(archive(dates)), dates);
  // Dictionaries keep the order of their entries; booleans stay booleans.
  const json::value value = json::parse(R"({"z":[1,-2,2.5,true,"caf\u00e9",[],{}],"a":{"b":18446744073709551615}})");
  const auto decoded = OrvKeyedUnarchiver::unarchivedObjectOfType<json::value>(archive(value));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(json::serialize(*decoded), json::serialize(value));

  // An archived nil root decodes as nothing, without an error.
  std::optional<OrvError> error = OrvError("stale", 1);
  EXPECT_FALSE(OrvKeyedUnarchiver::unarchivedObjectOfType<std::string>(archive(std::optional<std::string>()), &error));
  EXPECT_FALSE(error);
}

TEST(OrvKeyedArchiver, RefusesWhatIsNotAnArchiveOfTheTypeAskedFor) {
  constexpr std::int64_t corrupt = OrvKeyedArchiverErrorCorrupt, notAllowed = OrvKeyedArchiverErrorClassNotAllowed;
  const std::tuple<std::int64_t (*)(const OrvData&), OrvData, std::int64_t> cases[] = {
      {refusal<std::string>, R"({"hello":"world"})", corrupt},
      {refusal<std::string>, R"({"$archiver":"OrvKeyedArchiver","$version":1})", corrupt},
      {refusal<std::string>, R"({"$archiver":"OrvKeyedArchiver","$version":2,"$root":null})", OrvKeyedArchiverErrorVersion},
      {refusal<std::string>, R"({"$archiver":"OrvKeyedArchiver","$version":"1","$root":null})", corrupt},
      {refusal<std::string>, envelope(R"("hello")"), corrupt},
      {refusal<std::string>, envelope(R"({"$class":"OrvString","$value":5})"), corrupt},
      {refusal<std::string>, envelope(R"({"$class":"OrvNumber","$type":"int","$value":1})"), notAllowed},
      {refusal<std::string>, envelope(R"({"$class":"NoSuchClass"})"), notAllowed},
      {refusal<OrvNumber>, envelope(R"({"$class":"OrvNumber","$type":"int","$value":1.5})"), corrupt},
      {refusal<OrvNumber>, envelope(R"({"$class":"OrvNumber","$type":"uint","$value":-1})"), corrupt},
      {refusal<OrvNumber>, envelope(R"({"$class":"OrvNumber","$type":"double","$value":"1e999"})"), corrupt},
      {refusal<OrvNumber>, envelope(R"({"$class":"OrvNumber","$type":"double","$value":"1.5x"})"), corrupt},
      {refusal<OrvNumber>, envelope(R"({"$class":"OrvNumber","$type":"bool","$value":1})"), corrupt},
      {refusal<OrvDate>, envelope(R"({"$class":"OrvDate","$value":"yesterday"})"), corrupt},
      {refusal<Strings>, envelope(R"({"$class":"OrvArray","$items":{}})"), corrupt},
      // The type asked for applies to everything inside a collection too.
      {refusal<Strings>, envelope(R"({"$class":"OrvArray","$items":[{"$class":"OrvNumber","$type":"int","$value":1}]})"),
       notAllowed},
      {refusal<Strings>, envelope(R"({"$class":"OrvDictionary","$entries":{}})"), notAllowed},
      {refusal<json::value>, envelope(R"({"$class":"OrvDate","$value":0})"), notAllowed},
      // One level deeper than the bound, and far too deep for the JSON parser itself.
      {refusal<json::value>, envelope(nestedArrays(OrvKeyedArchiveMaximumDepth, R"({"$class":"OrvString","$value":"x"})")),
       corrupt},
      {refusal<json::value>, envelope(nestedArrays(100000)), corrupt},
  };
  for (const auto& [decode, data, code] : cases) EXPECT_EQ(decode(data), code) << data.substr(0, 200);

  const OrvData good = archive(std::string("hello"));
  for (std::size_t length = 0; length < good.size(); ++length) EXPECT_EQ(refusal<std::string>(good.substr(0, length)), corrupt);
  // A mutable array is a kind of array, and the error names where the refusal happened.
  EXPECT_EQ(OrvKeyedUnarchiver::unarchivedObjectOfType<Strings>(
                envelope(R"({"$class":"OrvMutableArray","$items":[{"$class":"OrvString","$value":"s"}]})")),
            Strings{"s"});
  std::optional<OrvError> error;
  OrvKeyedUnarchiver::unarchivedObjectOfType<Lists>(
      envelope(R"({"$class":"OrvDictionary","$entries":{"k":{"$class":"OrvArray","$items":[{"$class":"OrvNull"}]}}})"), &error);
  EXPECT_NE(error.value_or(OrvError("none", 0)).localizedDescription().find("key path \"k[0]\""), std::string::npos);
}

TEST(OrvKeyedArchiver, ArchivesOnlyWhatCanBeReadBack) {
  json::value deepest = json::array{};
  for (std::size_t level = 1; level < OrvKeyedArchiveMaximumDepth; ++level) deepest = json::array{std::move(deepest)};
  EXPECT_TRUE(OrvKeyedUnarchiver::unarchivedObjectOfType<json::value>(archive(deepest)));
  archive(json::value(json::array{deepest}), OrvKeyedArchiverErrorInvalidValue);
  archive(std::string("\xFF\xFE"), OrvKeyedArchiverErrorInvalidValue);
  archive(std::map<std::string, std::string>{{"\xC0\x80", "v"}}, OrvKeyedArchiverErrorInvalidValue);
}
