#include <gtest/gtest.h>

#include <array>

#include "OrvDescription.h"
#include "OrvString.h"
#include "OrvTypes.h"

using orv::detail::formatPlatformString;
using orv::detail::trimWhitespaceAndNewlines;

namespace {

TEST(OrvStringTest, TrimsTheWhiteSpaceSetAtTheEdgesOnly) {
  // NBSP, ideographic space, paragraph separator, NEL, thin space, vertical tab; inner blanks stay.
  EXPECT_EQ(trimWhitespaceAndNewlines("\u00A0\u3000a \u2009b\u2029\u0085\u2009\v"), "a \u2009b");
  EXPECT_EQ(trimWhitespaceAndNewlines(" \t\r\n\f\u1680\u202F\u205F "), "");
  EXPECT_EQ(trimWhitespaceAndNewlines("\u200Bx\uFEFF"), "\u200Bx\uFEFF");  // not category Z
  EXPECT_EQ(trimWhitespaceAndNewlines(std::optional<std::string>()), std::nullopt);
  // Invalid UTF-8 is neither trimmed nor trimmed through.
  EXPECT_EQ(trimWhitespaceAndNewlines(" \xFF "), "\xFF");
  EXPECT_EQ(trimWhitespaceAndNewlines("\xC2 a"), "\xC2 a");
  EXPECT_EQ(trimWhitespaceAndNewlines("\xC2\xA0"), "");
  EXPECT_FALSE(orv::detail::containsWhitespaceOrNewline("\xC2"));
  EXPECT_TRUE(orv::detail::containsWhitespaceOrNewline("a\u3000b"));
}

TEST(OrvStringTest, StrictUTF8AndSplitting) {
  EXPECT_TRUE(orv::detail::isValidUTF8("a\u00e9\u20ac\U0001F600"));
  for (const char* bad : {"\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80", "\xE2\x82"})
    EXPECT_FALSE(orv::detail::isValidUTF8(bad)) << bad;
  using V = std::vector<std::string>;
  EXPECT_EQ(orv::detail::componentsSeparatedByString("a@@b", "@"), (V{"a", "", "b"}));
  EXPECT_EQ(orv::detail::componentsSeparatedByString("@", "@"), (V{"", ""}));
}

TEST(OrvFormatTest, ArgumentsAreDataNeverFormats) {
  const std::array<std::string, 2> args{"https://h/%41%d%@%n", "200"};
  EXPECT_EQ(formatPlatformString("URL %@ failed with status code: %ld", args),
            "URL https://h/%41%d%@%n failed with status code: 200");
  EXPECT_EQ(formatPlatformString("100%% of %@", args), "100% of https://h/%41%d%@%n");
  const std::array<std::string, 6> many{"a", "b", "c", "d", "e", "f"};
  EXPECT_EQ(formatPlatformString("%-5.2f|%lld|%zu|%08X|%hhd|%s", many), "a|b|c|d|e|f");
  EXPECT_EQ(formatPlatformString("%2$@ %1$@", many), "b a");
  EXPECT_EQ(formatPlatformString("%@ %@", std::span<const std::string>(many.data(), 1)), "a (null)");
  EXPECT_EQ(formatPlatformString("rate 5%y, 7%", {}), "rate 5%y, 7%");  // not conversions
}

TEST(OrvTypesTest, EpochSecondsSaturateAndPrint) {
  EXPECT_EQ(OrvDescription(OrvDateFromTimeIntervalSince1970(1795331156.25)), "2026-11-22 07:05:56 +0000");
  EXPECT_EQ(OrvDateISO8601String(OrvDateFromTimeIntervalSince1970(1795331156.5)), "2026-11-22T07:05:56.500Z");
  EXPECT_GT(OrvDateFromTimeIntervalSince1970(1e300), std::chrono::system_clock::now());
  EXPECT_LT(OrvDateFromTimeIntervalSince1970(-1e300), OrvDate{});
}

}  // namespace
