#pragma once
// String operations of the SDK.
#include <optional>
#include <string>
#include <string_view>

// base64url (RFC 4648 section 5) of the string's bytes, without "=" padding.
std::optional<std::string> OrvBase64URLEncodedStringFromString(const std::optional<std::string>& string);
// Equal under simple Unicode case folding of each code point, whatever locale is installed; false
// when either side is missing, or is not valid UTF-8 and differs byte-wise.
bool OrvIsCaseInsensitiveEqualToString(const std::optional<std::string>& receiver, const std::optional<std::string>& other);

// Strict base64url decoding: alphabet A-Z a-z 0-9 - _ only, no "=" padding, no white space, and the
// unused low bits of the last character must be zero (one text per byte string). Nothing otherwise.
std::optional<std::string> OrvBase64URLDecode(std::string_view text);
// base64url without padding, of bytes the caller already holds (no copy into an optional first).
std::string OrvBase64URLEncode(std::string_view bytes);
// Standard base64 (RFC 4648 section 4) with padding.
std::string OrvBase64Encode(std::string_view bytes);

namespace orv::detail {
// base64url without padding, appended to `out`: a signing input is built in one buffer.
void appendBase64URL(std::string& out, std::string_view bytes);
}  // namespace orv::detail
