#include "OrvSDKStringUtils.h"

#include <cstdint>

#include "OrvString.h"

namespace {

constexpr char kBase64URLAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string encode(std::string_view bytes, const char* alphabet, bool pad) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const auto n = (std::uint32_t(std::uint8_t(bytes[i])) << 16) | (std::uint32_t(std::uint8_t(bytes[i + 1])) << 8) |
                   std::uint8_t(bytes[i + 2]);
    out += alphabet[(n >> 18) & 63];
    out += alphabet[(n >> 12) & 63];
    out += alphabet[(n >> 6) & 63];
    out += alphabet[n & 63];
  }
  const std::size_t rest = bytes.size() - i;
  if (rest == 1) {
    const auto n = std::uint32_t(std::uint8_t(bytes[i])) << 16;
    out += alphabet[(n >> 18) & 63];
    out += alphabet[(n >> 12) & 63];
    if (pad) out += "==";
  } else if (rest == 2) {
    const auto n = (std::uint32_t(std::uint8_t(bytes[i])) << 16) | (std::uint32_t(std::uint8_t(bytes[i + 1])) << 8);
    out += alphabet[(n >> 18) & 63];
    out += alphabet[(n >> 12) & 63];
    out += alphabet[(n >> 6) & 63];
    if (pad) out += '=';
  }
  return out;
}

int base64URLValue(char c) noexcept {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '-') return 62;
  if (c == '_') return 63;
  return -1;
}

}  // namespace

std::optional<std::string> OrvBase64URLEncodedStringFromString(const std::optional<std::string>& string) {
  if (!string) return std::nullopt;
  return encode(*string, kBase64URLAlphabet, false);
}

std::string OrvBase64Encode(std::string_view bytes) { return encode(bytes, kBase64Alphabet, true); }

std::optional<std::string> OrvBase64URLDecode(std::string_view text) {
  if (text.size() % 4 == 1) return std::nullopt;
  std::string out;
  out.reserve(text.size() * 3 / 4);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    const int v = base64URLValue(c);
    if (v < 0) return std::nullopt;
    buffer = (buffer << 6) | std::uint32_t(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += char((buffer >> bits) & 0xFF);
    }
  }
  // Left-over bits must be zero, or two texts would decode to the same bytes.
  if (bits > 0 && (buffer & ((1u << bits) - 1)) != 0) return std::nullopt;
  return out;
}

bool OrvIsCaseInsensitiveEqualToString(const std::optional<std::string>& receiver, const std::optional<std::string>& other) {
  if (!receiver || !other) return false;
  const std::string_view a = *receiver, b = *other;
  if (!orv::detail::isValidUTF8(a) || !orv::detail::isValidUTF8(b)) return a == b;
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    char32_t ca = 0, cb = 0;
    i += orv::detail::decodeUTF8(a, i, ca);
    j += orv::detail::decodeUTF8(b, j, cb);
    if (ca != cb && orv::detail::simpleCaseFold(ca) != orv::detail::simpleCaseFold(cb)) return false;
  }
  return i == a.size() && j == b.size();
}
