#include "OrvString.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace orv::detail {
namespace {

// Runs of code points that fold by the same offset, sorted by code point. A run whose offset is +1 or
// -1 alternates (upper, lower, upper, ...): only every second code point from its first one folds.
// Generated from the Unicode 14 case folding data, statuses C and S.
struct FoldRun {
  char32_t first, last;
  std::int32_t delta;
};
// clang-format off
constexpr FoldRun kFoldRuns[] = {
  {0x0041, 0x005A, 32}, {0x00B5, 0x00B5, 775}, {0x00C0, 0x00D6, 32}, {0x00D8, 0x00DE, 32}, {0x0100, 0x012E, 1},
  {0x0132, 0x0136, 1}, {0x0139, 0x0147, 1}, {0x014A, 0x0176, 1}, {0x0178, 0x0178, -121}, {0x0179, 0x017D, 1},
  {0x017F, 0x017F, -268}, {0x0181, 0x0181, 210}, {0x0182, 0x0184, 1}, {0x0186, 0x0186, 206}, {0x0187, 0x0187, 1},
  {0x0189, 0x018A, 205}, {0x018B, 0x018B, 1}, {0x018E, 0x018E, 79}, {0x018F, 0x018F, 202}, {0x0190, 0x0190, 203},
  {0x0191, 0x0191, 1}, {0x0193, 0x0193, 205}, {0x0194, 0x0194, 207}, {0x0196, 0x0196, 211}, {0x0197, 0x0197, 209},
  {0x0198, 0x0198, 1}, {0x019C, 0x019C, 211}, {0x019D, 0x019D, 213}, {0x019F, 0x019F, 214}, {0x01A0, 0x01A4, 1},
  {0x01A6, 0x01A6, 218}, {0x01A7, 0x01A7, 1}, {0x01A9, 0x01A9, 218}, {0x01AC, 0x01AC, 1}, {0x01AE, 0x01AE, 218},
  {0x01AF, 0x01AF, 1}, {0x01B1, 0x01B2, 217}, {0x01B3, 0x01B5, 1}, {0x01B7, 0x01B7, 219}, {0x01B8, 0x01B8, 1},
  {0x01BC, 0x01BC, 1}, {0x01C4, 0x01C4, 2}, {0x01C5, 0x01C5, 1}, {0x01C7, 0x01C7, 2}, {0x01C8, 0x01C8, 1}, {0x01CA, 0x01CA, 2},
  {0x01CB, 0x01DB, 1}, {0x01DE, 0x01EE, 1}, {0x01F1, 0x01F1, 2}, {0x01F2, 0x01F4, 1}, {0x01F6, 0x01F6, -97},
  {0x01F7, 0x01F7, -56}, {0x01F8, 0x021E, 1}, {0x0220, 0x0220, -130}, {0x0222, 0x0232, 1}, {0x023A, 0x023A, 10795},
  {0x023B, 0x023B, 1}, {0x023D, 0x023D, -163}, {0x023E, 0x023E, 10792}, {0x0241, 0x0241, 1}, {0x0243, 0x0243, -195},
  {0x0244, 0x0244, 69}, {0x0245, 0x0245, 71}, {0x0246, 0x024E, 1}, {0x0345, 0x0345, 116}, {0x0370, 0x0372, 1},
  {0x0376, 0x0376, 1}, {0x037F, 0x037F, 116}, {0x0386, 0x0386, 38}, {0x0388, 0x038A, 37}, {0x038C, 0x038C, 64},
  {0x038E, 0x038F, 63}, {0x0391, 0x03A1, 32}, {0x03A3, 0x03AB, 32}, {0x03C2, 0x03C2, 1}, {0x03CF, 0x03CF, 8},
  {0x03D0, 0x03D0, -30}, {0x03D1, 0x03D1, -25}, {0x03D5, 0x03D5, -15}, {0x03D6, 0x03D6, -22}, {0x03D8, 0x03EE, 1},
  {0x03F0, 0x03F0, -54}, {0x03F1, 0x03F1, -48}, {0x03F4, 0x03F4, -60}, {0x03F5, 0x03F5, -64}, {0x03F7, 0x03F7, 1},
  {0x03F9, 0x03F9, -7}, {0x03FA, 0x03FA, 1}, {0x03FD, 0x03FF, -130}, {0x0400, 0x040F, 80}, {0x0410, 0x042F, 32},
  {0x0460, 0x0480, 1}, {0x048A, 0x04BE, 1}, {0x04C0, 0x04C0, 15}, {0x04C1, 0x04CD, 1}, {0x04D0, 0x052E, 1}, {0x0531, 0x0556, 48},
  {0x10A0, 0x10C5, 7264}, {0x10C7, 0x10C7, 7264}, {0x10CD, 0x10CD, 7264}, {0x13F8, 0x13FD, -8}, {0x1C80, 0x1C80, -6222},
  {0x1C81, 0x1C81, -6221}, {0x1C82, 0x1C82, -6212}, {0x1C83, 0x1C84, -6210}, {0x1C85, 0x1C85, -6211}, {0x1C86, 0x1C86, -6204},
  {0x1C87, 0x1C87, -6180}, {0x1C88, 0x1C88, 35267}, {0x1C90, 0x1CBA, -3008}, {0x1CBD, 0x1CBF, -3008}, {0x1E00, 0x1E94, 1},
  {0x1E9B, 0x1E9B, -58}, {0x1E9E, 0x1E9E, -7615}, {0x1EA0, 0x1EFE, 1}, {0x1F08, 0x1F0F, -8}, {0x1F18, 0x1F1D, -8},
  {0x1F28, 0x1F2F, -8}, {0x1F38, 0x1F3F, -8}, {0x1F48, 0x1F4D, -8}, {0x1F59, 0x1F59, -8}, {0x1F5B, 0x1F5B, -8},
  {0x1F5D, 0x1F5D, -8}, {0x1F5F, 0x1F5F, -8}, {0x1F68, 0x1F6F, -8}, {0x1F88, 0x1F8F, -8}, {0x1F98, 0x1F9F, -8},
  {0x1FA8, 0x1FAF, -8}, {0x1FB8, 0x1FB9, -8}, {0x1FBA, 0x1FBB, -74}, {0x1FBC, 0x1FBC, -9}, {0x1FBE, 0x1FBE, -7173},
  {0x1FC8, 0x1FCB, -86}, {0x1FCC, 0x1FCC, -9}, {0x1FD8, 0x1FD9, -8}, {0x1FDA, 0x1FDB, -100}, {0x1FE8, 0x1FE9, -8},
  {0x1FEA, 0x1FEB, -112}, {0x1FEC, 0x1FEC, -7}, {0x1FF8, 0x1FF9, -128}, {0x1FFA, 0x1FFB, -126}, {0x1FFC, 0x1FFC, -9},
  {0x2126, 0x2126, -7517}, {0x212A, 0x212A, -8383}, {0x212B, 0x212B, -8262}, {0x2132, 0x2132, 28}, {0x2160, 0x216F, 16},
  {0x2183, 0x2183, 1}, {0x24B6, 0x24CF, 26}, {0x2C00, 0x2C2F, 48}, {0x2C60, 0x2C60, 1}, {0x2C62, 0x2C62, -10743},
  {0x2C63, 0x2C63, -3814}, {0x2C64, 0x2C64, -10727}, {0x2C67, 0x2C6B, 1}, {0x2C6D, 0x2C6D, -10780}, {0x2C6E, 0x2C6E, -10749},
  {0x2C6F, 0x2C6F, -10783}, {0x2C70, 0x2C70, -10782}, {0x2C72, 0x2C72, 1}, {0x2C75, 0x2C75, 1}, {0x2C7E, 0x2C7F, -10815},
  {0x2C80, 0x2CE2, 1}, {0x2CEB, 0x2CED, 1}, {0x2CF2, 0x2CF2, 1}, {0xA640, 0xA66C, 1}, {0xA680, 0xA69A, 1}, {0xA722, 0xA72E, 1},
  {0xA732, 0xA76E, 1}, {0xA779, 0xA77B, 1}, {0xA77D, 0xA77D, -35332}, {0xA77E, 0xA786, 1}, {0xA78B, 0xA78B, 1},
  {0xA78D, 0xA78D, -42280}, {0xA790, 0xA792, 1}, {0xA796, 0xA7A8, 1}, {0xA7AA, 0xA7AA, -42308}, {0xA7AB, 0xA7AB, -42319},
  {0xA7AC, 0xA7AC, -42315}, {0xA7AD, 0xA7AD, -42305}, {0xA7AE, 0xA7AE, -42308}, {0xA7B0, 0xA7B0, -42258},
  {0xA7B1, 0xA7B1, -42282}, {0xA7B2, 0xA7B2, -42261}, {0xA7B3, 0xA7B3, 928}, {0xA7B4, 0xA7C2, 1}, {0xA7C4, 0xA7C4, -48},
  {0xA7C5, 0xA7C5, -42307}, {0xA7C6, 0xA7C6, -35384}, {0xA7C7, 0xA7C9, 1}, {0xA7D0, 0xA7D0, 1}, {0xA7D6, 0xA7D8, 1},
  {0xA7F5, 0xA7F5, 1}, {0xAB70, 0xABBF, -38864}, {0xFF21, 0xFF3A, 32}, {0x10400, 0x10427, 40}, {0x104B0, 0x104D3, 40},
  {0x10570, 0x1057A, 39}, {0x1057C, 0x1058A, 39}, {0x1058C, 0x10592, 39}, {0x10594, 0x10595, 39}, {0x10C80, 0x10CB2, 64},
  {0x118A0, 0x118BF, 32}, {0x16E40, 0x16E5F, 32}, {0x1E900, 0x1E921, 34}
};
// clang-format on

}  // namespace

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

char32_t simpleCaseFold(char32_t c) noexcept {
  if (c < 0x80) return c >= 'A' && c <= 'Z' ? c + 32 : c;
  const auto run = std::upper_bound(std::begin(kFoldRuns), std::end(kFoldRuns), c,
                                    [](char32_t value, const FoldRun& r) { return value < r.first; });
  if (run == std::begin(kFoldRuns)) return c;
  const FoldRun& r = *std::prev(run);
  if (c > r.last || ((r.delta == 1 || r.delta == -1) && (c - r.first) % 2 != 0)) return c;
  return static_cast<char32_t>(static_cast<std::int32_t>(c) + r.delta);
}

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
    // Runs of ASCII, nearly all of every answer, are checked eight bytes at a time.
    std::uint64_t word = 0;
    if (i + sizeof word <= bytes.size() &&
        (std::memcpy(&word, bytes.data() + i, sizeof word), (word & 0x8080808080808080u) == 0)) {
      i += sizeof word;
      continue;
    }
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
