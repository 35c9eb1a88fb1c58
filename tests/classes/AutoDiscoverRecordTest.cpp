#include <gtest/gtest.h>

#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvAppConfigService.h"
#include "OrvAppConfigServiceConstants.h"

namespace {
std::shared_ptr<OrvAppConfigAutoDiscoverRecord> parse(const char* body, std::optional<OrvError>* error = nullptr) {
  return OrvAppConfigAutoDiscoverRecord::createFromData(OrvData(body), error);
}
}  // namespace

TEST(OrvAppConfigAutoDiscoverRecordTest, TopLevelShapesFieldsAndLists) {
  const auto empty = parse("{}");
  ASSERT_NE(empty, nullptr);
  EXPECT_TRUE(!empty->domain() && !empty->kaleth() && !empty->notValidBefore() && !empty->notValidAfter());

  // JSON that is no object is the record's error; text that is no JSON keeps the parser's own.
  for (const char* body : {"[]", "\"text\"", "", "5", "true", "{\"a\":1,\"a\":2}"}) {
    std::optional<OrvError> error;
    EXPECT_EQ(parse(body, &error), nullptr) << body;
    ASSERT_TRUE(error) << body;
    const bool notAnObject = body == std::string_view("[]");
    EXPECT_EQ(error->domain() == OrvAppConfigServiceJSONErrorDomain, notAnObject) << body;
    EXPECT_TRUE(!notAnObject || error->code() == 3842);
  }

  auto record = parse(R"({
    "domain": {"name": "Example.com"},
    "kaleth": {
      "serviceUrls": [{"url": 5}, {"url": "https://svc.example.com/a"}, "https://ignored", {"other": 1}],
      "allowedWebStoreUrls": [{"url": "https://lower-case-key.example.com"}]
    },
    "iat": 1700000000, "exp": 1700003600.5})");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->domain()->name(), "Example.com");
  const auto& services = record->kaleth()->serviceUrls();
  ASSERT_EQ(services.value_or(OrvAppConfigURLList{}).size(), 3u);
  EXPECT_EQ((*services)[0]->url(), std::nullopt);
  EXPECT_EQ((*services)[1]->url()->absoluteString(), "https://svc.example.com/a");
  EXPECT_EQ((*services)[2]->url(), std::nullopt);
  EXPECT_EQ(record->kaleth()->allowedWebStoreUrls(), std::nullopt) << "only allowedWebStoreURLs is read";
  EXPECT_EQ(OrvTimeIntervalSince1970(*record->notValidBefore()), 1700000000.0);
  EXPECT_EQ(OrvTimeIntervalSince1970(*record->notValidAfter()), 1700003600.5);

  // Members of the wrong type read as absent; an empty kaleth has nil lists, not empty ones.
  auto shapes = parse(R"({"domain": "example.com", "kaleth": {}, "iat": true, "exp": "1700000000"})");
  EXPECT_TRUE(!shapes->domain() && !shapes->notValidBefore() && !shapes->notValidAfter());
  ASSERT_NE(shapes->kaleth(), nullptr);
  EXPECT_EQ(shapes->kaleth()->serviceUrls(), std::nullopt);

  auto lists = parse(R"({"kaleth": {"serviceUrls": [], "allowedWebStoreURLs": ["a", "b"]}})");
  EXPECT_EQ(lists->kaleth()->serviceUrls(), OrvAppConfigURLList{});
  EXPECT_EQ(lists->kaleth()->allowedWebStoreUrls(), OrvAppConfigURLList{});
}

TEST(OrvAppConfigAutoDiscoverRecordTest, UsableURLRule) {
  using S = OrvAppConfigService;
  EXPECT_FALSE(S::storeListRecordsContainAtLeastOneValidURL(nullptr));
  EXPECT_FALSE(S::storeListRecordsContainAtLeastOneValidURL(parse("{}")));
  EXPECT_TRUE(S::storeListRecordsContainAtLeastOneValidURL(
      parse(R"({"kaleth": {"serviceUrls": [{"url": 1}], "allowedWebStoreURLs": [{"url": "https://web.example.com"}]}})")));
  EXPECT_TRUE(S::storeListRecordsContainAtLeastOneValidURL(parse(R"({"kaleth": {"serviceUrls": [{}, {"url": "x"}]}})")));
}

// Answers read before are found again by their bytes; what a caller gets must still be its own.
TEST(OrvAppConfigAutoDiscoverRecordTest, AnAnswerReadBeforeGivesEachCallerItsOwnRecord) {
  const char* body = R"({"domain": {"name": "again.example.com"}, "iat": 1700000000,
    "kaleth": {"serviceUrls": [{"url": "https://a.example.com/s"}, {"url": 1}], "allowedWebStoreURLs": []}})";
  auto first = parse(body);
  ASSERT_NE(first, nullptr);
  first->domain()->setName("changed.example.com");
  first->kaleth()->setServiceUrls(std::nullopt);
  first->setNotValidBefore(std::nullopt);

  for (int round = 0; round < 2; ++round) {
    std::optional<OrvError> error = OrvError("stale", 1, {});
    auto again = parse(body, &error);
    ASSERT_TRUE(again && !error);
    EXPECT_NE(again, first);
    EXPECT_EQ(again->domain()->name(), "again.example.com");
    ASSERT_EQ(again->kaleth()->serviceUrls().value_or(OrvAppConfigURLList{}).size(), 2u);
    EXPECT_EQ((*again->kaleth()->serviceUrls())[0]->url()->absoluteString(), "https://a.example.com/s");
    EXPECT_EQ((*again->kaleth()->serviceUrls())[1]->url(), std::nullopt);
    EXPECT_EQ(again->kaleth()->allowedWebStoreUrls(), OrvAppConfigURLList{});
    EXPECT_EQ(OrvTimeIntervalSince1970(again->notValidBefore().value_or(OrvDate{})), 1700000000.0);
    EXPECT_EQ(again->notValidAfter(), std::nullopt);
    (*again->kaleth()->serviceUrls())[0]->setUrl(std::nullopt);
  }

  // One byte apart is another answer; a refused answer is refused again.
  std::string other = body;
  other.replace(other.find("a.example"), 1, "b");
  EXPECT_EQ((*parse(other.c_str())->kaleth()->serviceUrls())[0]->url()->absoluteString(), "https://b.example.com/s");
  for (int round = 0; round < 2; ++round) {
    std::optional<OrvError> error;
    EXPECT_EQ(parse("[]", &error), nullptr);
    EXPECT_TRUE(error);
  }
}
