#pragma once
// String operations the library takes from the platform: UTF-8 decoding, simple case folding,
// white-space trimming with the platform's character set, and the URL-path-allowed character set.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orv::detail {

// The library's one UTF-8 decoder. Decodes the code point that starts at byte `at` (which must lie
// inside the text) strictly: no overlongs, no surrogates, nothing above U+10FFFF. Returns its length
// in bytes, or 0 for an invalid or cut-off sequence.
std::size_t decodeUTF8(std::string_view text, std::size_t at, char32_t& codePoint) noexcept;

// Unicode simple case folding (one code point to one; the Turkic dotted and dotless i are not
// special). Table-driven over all cased scripts, so it answers the same whatever locale is installed.
char32_t simpleCaseFold(char32_t codePoint) noexcept;

// Unicode general category Z, U+0009, U+000A to U+000D and U+0085.
bool isWhitespaceOrNewline(char32_t codePoint) noexcept;

// Removes white space and newlines at both ends, never inside. Invalid UTF-8 is left untouched
// (it is neither white space nor trimmed through).
std::string trimWhitespaceAndNewlines(std::string_view text);
std::optional<std::string> trimWhitespaceAndNewlines(const std::optional<std::string>& text);
// Exact matches, so that a std::string or a literal does not find both overloads above equally good.
inline std::string trimWhitespaceAndNewlines(const std::string& text) {
  return trimWhitespaceAndNewlines(std::string_view(text));
}
inline std::string trimWhitespaceAndNewlines(const char* text) { return trimWhitespaceAndNewlines(std::string_view(text)); }

// True when some code point of the UTF-8 text is white space or a newline.
bool containsWhitespaceOrNewline(std::string_view text) noexcept;

// ASCII letters and digits and ! $ & ' ( ) * + , - . / : = @ _ ~
bool isURLPathAllowedCharacter(char32_t codePoint) noexcept;
bool containsOnlyURLPathAllowedCharacters(std::string_view text) noexcept;

// Strict UTF-8 validation (no overlongs, no surrogates, nothing above U+10FFFF).
bool isValidUTF8(std::string_view bytes) noexcept;

// Splits at every occurrence of the separator, keeping empty pieces ("a..b" gives a, "", b).
std::vector<std::string> componentsSeparatedByString(std::string_view text, std::string_view separator);

}  // namespace orv::detail
