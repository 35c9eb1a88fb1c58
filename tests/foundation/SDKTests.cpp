#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <regex>
#include <tuple>

#include "OrvHttpHeaderProviderServiceProtocol.h"
#include "OrvSDKStringUtils.h"
#include "OrvUrlSessionTaskOperationObjC.h"

namespace {

TEST(OrvHttpHeaderProviderServiceTest, FreshVersion4TransactionIds) {
  OrvHttpHeaderProviderService provider;
  const auto first = provider.uniqueTransactionIdHeader(), second = provider.uniqueTransactionIdHeader();
  ASSERT_TRUE(first.contains("X-Transaction-Id") && second.contains("X-Transaction-Id"));
  EXPECT_NE(first.at("X-Transaction-Id"), second.at("X-Transaction-Id"));
  const std::regex v4("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  EXPECT_TRUE(std::regex_match(first.at("X-Transaction-Id"), v4)) << first.at("X-Transaction-Id");
  EXPECT_TRUE(OrvHttpHeaderProviderService(OrvHTTPHeaderDictionary{}, "").uniqueTransactionIdHeader().empty());
}

// In the plain C locale, as in a process that never chose one: folding must not need a UTF-8 locale.
// Simple folding maps one code point to one and leaves the gaps between its runs alone; invalid UTF-8
// compares byte-wise.
TEST(OrvSDKStringUtilsTest, CaseInsensitiveEqualityFoldsWithoutALocale) {
  ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
  // clang-format off
  const std::vector<std::tuple<std::optional<std::string>, std::optional<std::string>, bool>> cases = {
      {"HTTPS", "https", true}, {"ÄRGER", "ärger", true}, {"ŁÓDŹ ŻÓŁW", "łódź żółw", true}, {"ЁЛКА ѠѢ", "ёлка ѡѣ", true},
      {"ΣΟΦΊΑΣ", "σοφίας", true}, {"Ÿ", "ÿ", true}, {"µ", "Μ", true}, {"\u212A", "k", true}, {"ǅ", "Ǆ", true}, {"", "", true},
      {"×", "÷", false}, {"İ", "i", false}, {"ß", "SS", false}, {"a", "ab", false}, {"\xC3\x84\xFF", "\xC3\xA4\xFF", false},
      {"\xFF", "\xFF", true}, {std::nullopt, "a", false}, {std::nullopt, std::nullopt, false}};
  // clang-format on
  for (const auto& [a, b, equal] : cases) {
    EXPECT_EQ(OrvIsCaseInsensitiveEqualToString(a, b), equal) << a.value_or("nil") << " / " << b.value_or("nil");
    EXPECT_EQ(OrvIsCaseInsensitiveEqualToString(b, a), equal) << b.value_or("nil") << " / " << a.value_or("nil");
  }
}

// RFC 4648's vectors in both alphabets, and what a strict base64url reader refuses.
TEST(OrvSDKStringUtilsTest, Base64BothWaysAndOnlyCanonicalBase64URLIn) {
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""}, {"f", "Zg"}, {"fo", "Zm8"}, {"foo", "Zm9v"}, {"foob", "Zm9vYg"}, {"fooba", "Zm9vYmE"}, {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, url] : vectors) {
    EXPECT_EQ(OrvBase64URLEncode(plain), url);
    EXPECT_EQ(OrvBase64URLDecode(url), plain);
    EXPECT_EQ(OrvBase64Encode(plain), std::string(url) + std::string((4 - std::strlen(url) % 4) % 4, '='));
  }
  EXPECT_EQ(OrvBase64URLEncode("\xFB\xFF"), "-_8");
  EXPECT_EQ(OrvBase64Encode("\xFB\xFF"), "+/8=");
  // Every byte value through the path that encodes whole groups, and a signing input's tail appended
  // after the text already there.
  std::string everyByte;
  for (int b = 0; b < 256; ++b) everyByte.push_back(static_cast<char>(b));
  EXPECT_EQ(OrvBase64URLDecode(OrvBase64URLEncode(everyByte)), everyByte);
  std::string signingInput = "eyJ9.";
  orv::detail::appendBase64URL(signingInput, "foobar\xFB\xFF");
  EXPECT_EQ(signingInput, "eyJ9.Zm9vYmFy-_8");
  for (const char* refused : {"Zg==", "Zh", "Zm9vY", "+/8", "Zm 9v", "Z"})
    EXPECT_EQ(OrvBase64URLDecode(refused), std::nullopt) << refused;
}

class FakeTask : public OrvURLSessionDataTask {
 public:
  void resume() override {}
  void cancel() override { ++cancels; }
  std::uint64_t taskIdentifier() const override { return 1; }
  std::atomic<int> cancels{0};
};

class TaskOperation : public OrvUrlSessionTaskOperationObjC {
 public:
  TaskOperation() : OrvUrlSessionTaskOperationObjC(nullptr) {}
  void start() override {
    moveToExecutingState();
    setSessionTaskOperationHandle(task);
  }
  std::shared_ptr<FakeTask> task = std::make_shared<FakeTask>();
};

TEST(OrvUrlSessionTaskOperationObjCTest, CancellingARunningOperationCancelsItsTask) {
  const auto running = std::make_shared<TaskOperation>(), early = std::make_shared<TaskOperation>();
  running->start();
  running->cancel();
  EXPECT_EQ(running->task->cancels.load(), 1);
  EXPECT_TRUE(running->isExecuting());  // it ends when its task reports back
  // A cancel that races ahead of storing the task still reaches the task.
  early->moveToExecutingState();
  early->cancel();
  early->setSessionTaskOperationHandle(early->task);
  EXPECT_EQ(early->task->cancels.load(), 1);
}

}  // namespace
