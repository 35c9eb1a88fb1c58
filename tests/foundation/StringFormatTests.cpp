#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "OrvDescription.h"
#include "OrvError.h"
#include "OrvSDKStringUtils.h"
#include "OrvString.h"
#include "OrvTypes.h"

using orv::detail::componentsSeparatedByString;
using orv::detail::containsWhitespaceOrNewline;
using orv::detail::formatPlatformString;
using orv::detail::isValidUTF8;
using orv::detail::trimWhitespaceAndNewlines;

namespace {

TEST(OrvStringTest, TrimsTheWhiteSpaceSetAtBothEndsOnly) {
  EXPECT_EQ(trimWhitespaceAndNewlines("  user@example.com\n"), "user@example.com");
  // NBSP, ideographic space, paragraph separator, NEL, thin space, vertical tab.
  EXPECT_EQ(trimWhitespaceAndNewlines("\u00A0\u3000a \u2009b\u2029\u0085\u2009\v"), "a \u2009b");
  EXPECT_EQ(trimWhitespaceAndNewlines(" \t\r\n\f\u1680\u202F\u205F "), "");
  // Zero-width space and BOM are not in category Z.
  EXPECT_EQ(trimWhitespaceAndNewlines("\u200Bx\uFEFF"), "\u200Bx\uFEFF");
  EXPECT_EQ(trimWhitespaceAndNewlines(std::optional<std::string>()), std::nullopt);
  EXPECT_EQ(trimWhitespaceAndNewlines(std::optional<std::string>(" ")), "");
}

TEST(OrvStringTest, InvalidUTF8IsNeitherTrimmedNorTrimmedThrough) {
  EXPECT_EQ(trimWhitespaceAndNewlines(" \xFF "), "\xFF");
  EXPECT_EQ(trimWhitespaceAndNewlines("\xC2 a"), "\xC2 a");  // truncated sequence stops the trim
  EXPECT_EQ(trimWhitespaceAndNewlines("a \xE2\x80"), "a \xE2\x80");
  EXPECT_EQ(trimWhitespaceAndNewlines("\xC2\xA0"), "");  // the same bytes, complete, are a blank
  EXPECT_FALSE(containsWhitespaceOrNewline("\xC2"));
  EXPECT_TRUE(containsWhitespaceOrNewline("a\u3000b"));
  EXPECT_FALSE(containsWhitespaceOrNewline("user@example.com"));
}

TEST(OrvStringTest, StrictUTF8) {
  EXPECT_TRUE(isValidUTF8(""));
  EXPECT_TRUE(isValidUTF8("a\u00e9\u20ac\U0001F600"));
  for (const char* bad : {"\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80",
                          "\x80", "\xE2\x82"}) {
    EXPECT_FALSE(isValidUTF8(bad)) << bad;
  }
}

TEST(OrvStringTest, SplitsKeepingEmptyPieces) {
  EXPECT_EQ(componentsSeparatedByString("a..b", "."), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(componentsSeparatedByString("a@@b", "@"), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(componentsSeparatedByString("", "@"), (std::vector<std::string>{""}));
  EXPECT_EQ(componentsSeparatedByString("@", "@"), (std::vector<std::string>{"", ""}));
  EXPECT_TRUE(orv::detail::containsOnlyURLPathAllowedCharacters("/a-b_c.d~e:f@g!$&'()*+,="));
  EXPECT_FALSE(orv::detail::containsOnlyURLPathAllowedCharacters("a;b"));
  EXPECT_FALSE(orv::detail::containsOnlyURLPathAllowedCharacters("a b"));
  EXPECT_FALSE(orv::detail::containsOnlyURLPathAllowedCharacters("\xC3\xA9"));
}

TEST(OrvFormatTest, ArgumentsAreDataNeverFormats) {
  const std::array<std::string, 2> args{"https://h/%41%d%@%n", "200"};
  EXPECT_EQ(formatPlatformString("%@", args), "https://h/%41%d%@%n");
  EXPECT_EQ(formatPlatformString("URL %@ failed with status code: %ld", args),
            "URL https://h/%41%d%@%n failed with status code: 200");
  EXPECT_EQ(formatPlatformString("100%% of %@", args), "100% of https://h/%41%d%@%n");
  // Flags, width, precision and length modifiers all belong to the one conversion.
  const std::array<std::string, 6> many{"a", "b", "c", "d", "e", "f"};
  EXPECT_EQ(formatPlatformString("%-5.2f|%lld|%zu|%08X|%hhd|%s", many), "a|b|c|d|e|f");
  EXPECT_EQ(formatPlatformString("%2$@ %1$@ %2$@", many), "b a b");
  EXPECT_EQ(formatPlatformString("%@ %@ %@", std::span<const std::string>(many.data(), 1)), "a (null) (null)");
  EXPECT_EQ(formatPlatformString("rate 5%y, 7%", {}), "rate 5%y, 7%");  // not conversions
  EXPECT_EQ(formatPlatformString("", many), "");
}

TEST(OrvDescriptionTest, PlatformStyleDescriptions) {
  EXPECT_EQ(OrvDescription(OrvDateFromTimeIntervalSince1970(1795331156.25)), "2026-11-22 07:05:56 +0000");
  EXPECT_EQ(OrvDescription(OrvDateFromTimeIntervalSince1970(-1)), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(OrvDescription(1.5), "1.5");
  EXPECT_EQ(OrvDescription(true), "YES");
  EXPECT_EQ(OrvDescription(std::optional<std::string>()), "(null)");
  EXPECT_EQ(OrvDescription(std::int64_t{-3}), "-3");
}

TEST(OrvTypesTest, DatesFromEpochValues) {
  EXPECT_EQ(OrvDateISO8601String(OrvDateFromTimeIntervalSince1970(1795331156)), "2026-11-22T07:05:56Z");
  EXPECT_EQ(OrvDateISO8601String(OrvDateFromTimeIntervalSince1970(1795331156.5)), "2026-11-22T07:05:56.500Z");
  EXPECT_DOUBLE_EQ(OrvTimeIntervalSince1970(OrvDateFromTimeIntervalSince1970(12.25)), 12.25);
  // Out-of-range seconds saturate instead of overflowing: far future stays after now.
  const auto farFuture = OrvDateFromTimeIntervalSince1970(1e300);
  const auto farPast = OrvDateFromTimeIntervalSince1970(-1e300);
  EXPECT_GT(farFuture, std::chrono::system_clock::now());
  EXPECT_LT(farPast, OrvDateFromTimeIntervalSince1970(0));
  EXPECT_EQ(OrvDateFromTimeIntervalSince1970(std::nan("")), OrvDate{});
}

TEST(OrvErrorTest, Descriptions) {
  const OrvError plain("com.example.domain", 7);
  EXPECT_EQ(plain.localizedDescription(), "The operation couldn\u2019t be completed. (com.example.domain error 7.)");
  const OrvError rich("d", -1, {{OrvLocalizedDescriptionKey, "Broken"}, {"error", "x"}});
  EXPECT_EQ(rich.localizedDescription(), "Broken");
  EXPECT_EQ(rich.description(), "Error Domain=d Code=-1 \"Broken\" UserInfo={OrvLocalizedDescription=Broken, error=x}");
  EXPECT_EQ(OrvDescription(std::optional<OrvError>()), "(null)");
}

TEST(OrvSDKStringUtilsTest, Base64URLAndCaseFolding) {
  EXPECT_EQ(OrvBase64URLEncodedStringFromString(std::string("https://h/?a=\xFB\xFF")), "aHR0cHM6Ly9oLz9hPfv_");
  EXPECT_EQ(OrvBase64URLEncodedStringFromString(std::string()), "");
  EXPECT_EQ(OrvBase64URLEncodedStringFromString(std::nullopt), std::nullopt);
  EXPECT_EQ(OrvBase64URLDecode("aHR0cHM6Ly9oLz9hPfv_"), "https://h/?a=\xFB\xFF");
  EXPECT_EQ(OrvBase64URLDecode("Zg"), "f");
  for (const char* bad : {"Zh", "Zg==", "Z", "Zg+", "Z g", "Zm9v/"}) EXPECT_FALSE(OrvBase64URLDecode(bad)) << bad;
  EXPECT_EQ(OrvBase64Encode("\xFB\xFF"), "+/8=");

  EXPECT_TRUE(OrvIsCaseInsensitiveEqualToString(std::string("HTTPS"), std::string("https")));
  EXPECT_TRUE(OrvIsCaseInsensitiveEqualToString(std::string("\xC3\x84Store"), std::string("\xC3\xA4store")));
  EXPECT_FALSE(OrvIsCaseInsensitiveEqualToString(std::string("store"), std::string("stores")));
  EXPECT_FALSE(OrvIsCaseInsensitiveEqualToString(std::nullopt, std::nullopt));
  EXPECT_FALSE(OrvIsCaseInsensitiveEqualToString(std::string("\xFF"), std::string("\xFE")));
  EXPECT_TRUE(OrvIsCaseInsensitiveEqualToString(std::string("\xFF"), std::string("\xFF")));
}

}  // namespace
