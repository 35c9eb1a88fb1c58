#include "OrvString.h"

#include <cstdint>

namespace orv::detail {
namespace {

// Decodes the code point at `i` strictly; returns its length in bytes, or 0 for an invalid sequence.
std::size_t decodeUTF8(std::string_view s, std::size_t i, char32_t& cp) noexcept {
  const auto b0 = static_cast<std::uint8_t>(s[i]);
  if (b0 < 0x80) {
    cp = b0;
    return 1;
  }
  std::size_t len;
  char32_t min;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    len = 2, min = 0x80, cp = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    len = 3, min = 0x800, cp = b0 & 0x0F;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    len = 4, min = 0x10000, cp = b0 & 0x07;
  } else {
    return 0;
  }
  if (s.size() - i < len) return 0;
  for (std::size_t k = 1; k < len; ++k) {
    const auto b = static_cast<std::uint8_t>(s[i + k]);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return len;
}

}  // namespace

bool isWhitespaceOrNewline(char32_t c) noexcept {
  switch (c) {
    case 0x0009:
    case 0x000A:
    case 0x000B:
    case 0x000C:
    case 0x000D:
    case 0x0020:
    case 0x0085:
    case 0x00A0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
      return true;
    default:
      return c >= 0x2000 && c <= 0x200A;
  }
}

std::string trimWhitespaceAndNewlines(std::string_view text) {
  // Walk forward once, remembering where the first and the last non-blank code point lie; an
  // invalid byte counts as non-blank so it is never trimmed away.
  std::size_t begin = text.size(), end = 0;
  for (std::size_t i = 0; i < text.size();) {
    char32_t cp = 0;
    std::size_t len = decodeUTF8(text, i, cp);
    const bool blank = len != 0 && isWhitespaceOrNewline(cp);
    if (len == 0) len = 1;
    if (!blank) {
      if (begin == text.size()) begin = i;
      end = i + len;
    }
    i += len;
  }
  if (begin >= end) return {};
  return std::string(text.substr(begin, end - begin));
}

std::optional<std::string> trimWhitespaceAndNewlines(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  return trimWhitespaceAndNewlines(std::string_view(*text));
}

bool containsWhitespaceOrNewline(std::string_view text) noexcept {
  for (std::size_t i = 0; i < text.size();) {
    char32_t cp = 0;
    const std::size_t len = decodeUTF8(text, i, cp);
    if (len != 0 && isWhitespaceOrNewline(cp)) return true;
    i += len == 0 ? 1 : len;
  }
  return false;
}

bool isURLPathAllowedCharacter(char32_t c) noexcept {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '!':
    case '$':
    case '&':
    case '\'':
    case '(':
    case ')':
    case '*':
    case '+':
    case ',':
    case '-':
    case '.':
    case '/':
    case ':':
    case '=':
    case '@':
    case '_':
    case '~':
      return true;
    default:
      return false;
  }
}

bool containsOnlyURLPathAllowedCharacters(std::string_view text) noexcept {
  for (const char c : text) {
    if (!isURLPathAllowedCharacter(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

bool isValidUTF8(std::string_view bytes) noexcept {
  for (std::size_t i = 0; i < bytes.size();) {
    char32_t cp = 0;
    const std::size_t len = decodeUTF8(bytes, i, cp);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

std::vector<std::string> componentsSeparatedByString(std::string_view text, std::string_view separator) {
  std::vector<std::string> pieces;
  if (separator.empty()) {
    pieces.emplace_back(text);
    return pieces;
  }
  std::size_t start = 0;
  for (std::size_t found; (found = text.find(separator, start)) != std::string_view::npos; start = found + separator.size()) {
    pieces.emplace_back(text.substr(start, found - start));
  }
  pieces.emplace_back(text.substr(start));
  return pieces;
}

}  // namespace orv::detail
