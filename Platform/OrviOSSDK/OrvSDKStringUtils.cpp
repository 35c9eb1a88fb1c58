#include "OrvSDKStringUtils.h"

#include <array>
#include <cstdint>
#include <cstring>

#include "OrvString.h"

namespace {

constexpr char kBase64URLAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Two characters for each 12 bits, so that three bytes take two table reads rather than four. The
// second character of entries 0 to 63 is the alphabet itself, which the last one or two bytes use.
using PairTable = std::array<std::array<char, 2>, 4096>;
constexpr PairTable pairTable(const char* alphabet) {
  PairTable pairs{};
  for (std::size_t n = 0; n < pairs.size(); ++n) pairs[n] = {alphabet[n >> 6], alphabet[n & 63]};
  return pairs;
}
constexpr PairTable kBase64URLPairs = pairTable(kBase64URLAlphabet);
constexpr PairTable kBase64Pairs = pairTable(kBase64Alphabet);

// Every signed answer is encoded once to rebuild its signing input, so this runs over whole bodies:
// written straight into the caller's buffer, grown once to its final size.
void encodeInto(std::string& out, std::string_view bytes, const PairTable& pairs, bool pad) {
  const auto letter = [&pairs](std::uint32_t sextet) { return pairs[sextet & 63][1]; };
  const std::size_t whole = bytes.size() / 3, rest = bytes.size() % 3;
  const std::size_t start = out.size();
  out.resize(start + whole * 4 + (rest == 0 ? 0 : pad ? 4 : rest + 1));
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  char* o = out.data() + start;
  for (std::size_t i = 0; i < whole; ++i, in += 3, o += 4) {
    const std::uint32_t n = (std::uint32_t(in[0]) << 16) | (std::uint32_t(in[1]) << 8) | in[2];
    std::memcpy(o, pairs[n >> 12].data(), 2);
    std::memcpy(o + 2, pairs[n & 0xFFF].data(), 2);
  }
  if (rest != 0) {
    const std::uint32_t n = (std::uint32_t(in[0]) << 16) | (rest == 2 ? std::uint32_t(in[1]) << 8 : 0);
    o[0] = letter(n >> 18);
    o[1] = letter(n >> 12);
    if (rest == 2) o[2] = letter(n >> 6);
    if (pad) {
      if (rest == 1) o[2] = '=';
      o[3] = '=';
    }
  }
}

std::string encode(std::string_view bytes, const PairTable& pairs, bool pad) {
  std::string out;
  encodeInto(out, bytes, pairs, pad);
  return out;
}

constexpr auto kBase64URLValues = [] {
  std::array<std::int8_t, 256> values{};
  values.fill(-1);
  for (int i = 0; i < 64; ++i) values[static_cast<unsigned char>(kBase64URLAlphabet[i])] = static_cast<std::int8_t>(i);
  return values;
}();

}  // namespace

std::optional<std::string> OrvBase64URLEncodedStringFromString(const std::optional<std::string>& string) {
  if (!string) return std::nullopt;
  return encode(*string, kBase64URLPairs, false);
}

std::string OrvBase64URLEncode(std::string_view bytes) { return encode(bytes, kBase64URLPairs, false); }

void orv::detail::appendBase64URL(std::string& out, std::string_view bytes) { encodeInto(out, bytes, kBase64URLPairs, false); }

std::string OrvBase64Encode(std::string_view bytes) { return encode(bytes, kBase64Pairs, true); }

std::optional<std::string> OrvBase64URLDecode(std::string_view text) {
  if (text.size() % 4 == 1) return std::nullopt;
  std::string out(text.size() / 4 * 3 + (text.size() % 4 == 0 ? 0 : text.size() % 4 - 1), '\0');
  char* o = out.data();
  const auto value = [](char c) { return kBase64URLValues[static_cast<unsigned char>(c)]; };
  // Whole groups of four characters first: three bytes each, no bit bookkeeping.
  std::size_t i = 0;
  for (; i + 4 <= text.size(); i += 4) {
    const int a = value(text[i]), b = value(text[i + 1]), c = value(text[i + 2]), d = value(text[i + 3]);
    if ((a | b | c | d) < 0) return std::nullopt;
    const std::uint32_t n = (std::uint32_t(a) << 18) | (std::uint32_t(b) << 12) | (std::uint32_t(c) << 6) | std::uint32_t(d);
    o[0] = char(n >> 16);
    o[1] = char((n >> 8) & 0xFF);
    o[2] = char(n & 0xFF);
    o += 3;
  }
  std::uint32_t buffer = 0;
  int bits = 0;
  for (const char c : text.substr(i)) {
    const int v = value(c);
    if (v < 0) return std::nullopt;
    buffer = (buffer << 6) | std::uint32_t(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      *o++ = char((buffer >> bits) & 0xFF);
    }
  }
  // Left-over bits must be zero, or two texts would decode to the same bytes.
  if (bits > 0 && (buffer & ((1u << bits) - 1)) != 0) return std::nullopt;
  return out;
}

bool OrvIsCaseInsensitiveEqualToString(const std::optional<std::string>& receiver, const std::optional<std::string>& other) {
  if (!receiver || !other) return false;
  const std::string_view a = *receiver, b = *other;
  if (a == b) return true;
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
