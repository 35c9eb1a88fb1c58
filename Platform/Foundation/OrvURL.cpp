#include "OrvURL.h"

#include <array>

#include <boost/url/encode.hpp>
#include <boost/url/grammar/alnum_chars.hpp>
#include <boost/url/grammar/alpha_chars.hpp>
#include <boost/url/grammar/digit_chars.hpp>
#include <boost/url/grammar/lut_chars.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <boost/url/url_view.hpp>

namespace urls = boost::urls;

namespace {

// What a path may hold unescaped; ';' is escaped too, so a segment never grows parameters.
constexpr urls::grammar::lut_chars kPathChars("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$&'()*+,-./:=@_~");

// Boost.URL reads an over-long port as 0; the decimal value is checked here instead.
std::optional<std::uint32_t> portValue(std::string_view digits) {
  std::uint32_t value = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + std::uint32_t(c - '0');
    if (value > 0xFFFF) return std::nullopt;
  }
  return value;
}

std::string_view withoutTrailingSlash(std::string_view path) {
  if (!path.empty() && path.back() == '/') path.remove_suffix(1);
  return path;
}

std::string decoded(std::string_view encoded) {
  auto pct = urls::make_pct_string_view(encoded);
  return pct ? std::string(pct->decode()) : std::string(encoded);
}

// The plain shape below, in the grammar's own character sets: a scheme, a host of letters, digits,
// dots and hyphens, and a path that needs no escape (what kPathChars allows unescaped, plus ";").
constexpr urls::grammar::lut_chars kSchemeChars = urls::grammar::alnum_chars + urls::grammar::lut_chars("+-.");
constexpr urls::grammar::lut_chars kPlainHostChars = urls::grammar::alnum_chars + urls::grammar::lut_chars("-.");
constexpr urls::grammar::lut_chars kPlainPathChars = kPathChars + urls::grammar::lut_chars(';');
constexpr urls::grammar::lut_chars kDigitChars = urls::grammar::digit_chars;

// The same sets as one byte per character with a bit for each: the scan below reads every character of
// every URL in a long answer, and one table load and test per character is about half the work of
// testing the grammar's bit sets.
enum PlainClass : std::uint8_t { kSchemeClass = 1, kHostClass = 2, kPathClass = 4, kDigitClass = 8 };
constexpr auto kPlainClasses = [] {
  std::array<std::uint8_t, 256> classes{};
  for (std::size_t c = 0; c < classes.size(); ++c) {
    const char ch = static_cast<char>(c);
    classes[c] = static_cast<std::uint8_t>((kSchemeChars(ch) ? kSchemeClass : 0) | (kPlainHostChars(ch) ? kHostClass : 0) |
                                           (kPlainPathChars(ch) ? kPathClass : 0) | (kDigitChars(ch) ? kDigitClass : 0));
  }
  return classes;
}();

}  // namespace

// Nearly every URL here is `scheme://host[:port][/path]` with a host of letters, digits, dots and
// hyphens and a path that needs no escaping; a long answer lists a thousand of them. That shape is
// read here directly, with the parts the full grammar would find; anything else (user info, an IP
// literal, escapes, a query or fragment, a relative reference) goes through Boost.URL.
std::optional<OrvURL::Parts> OrvURL::plainParts(std::string_view s) noexcept {
  if (s.empty() || !urls::grammar::alpha_chars(s[0]) || s.size() > 0xFFFFFFFFu) return std::nullopt;
  const auto skip = [&](std::size_t i, PlainClass wanted) {
    while (i < s.size() && (kPlainClasses[static_cast<unsigned char>(s[i])] & wanted) != 0) ++i;
    return i;
  };
  std::size_t i = skip(1, kSchemeClass);
  if (s.substr(i, 3) != "://") return std::nullopt;
  const auto part = [](std::size_t begin, std::size_t end) {
    // As the full grammar reports them: an empty part sits at offset 0.
    return Part{static_cast<std::uint32_t>(begin == end ? 0 : begin), static_cast<std::uint32_t>(end - begin), true};
  };
  Parts parts;
  parts.scheme = part(0, i);
  const std::size_t hostBegin = i += 3;
  i = skip(i, kHostClass);
  if (i == hostBegin) return std::nullopt;
  parts.hostAddress = part(hostBegin, i);
  if (i < s.size() && s[i] == ':') {
    const std::size_t portBegin = ++i;
    i = skip(i, kDigitClass);
    const auto value = i == portBegin ? std::nullopt : portValue(s.substr(portBegin, i - portBegin));
    if (!value) return std::nullopt;
    parts.port = static_cast<std::uint16_t>(*value);
  }
  const std::size_t pathBegin = i;
  if (i < s.size() && s[i] != '/') return std::nullopt;
  if (skip(i, kPathClass) != s.size()) return std::nullopt;
  parts.path = part(pathBegin, s.size());
  return parts;
}

std::optional<OrvURL> OrvURL::URLWithString(std::string_view string) {
  if (string.empty()) return std::nullopt;
  try {
    if (const auto plain = plainParts(string)) return OrvURL(std::string(string), *plain);
    auto parsed = urls::parse_uri_reference(string);
    if (!parsed) return std::nullopt;
    const urls::url_view u = *parsed;
    // After an authority the path must be empty or begin with "/"; Boost 1.81 lets "h:8a/" through
    // as port 8 and path "a/".
    if (u.has_authority() && !u.encoded_path().empty() && u.encoded_path().front() != '/') return std::nullopt;
    Parts parts;
    if (u.has_port() && !u.port().empty()) {
      const auto value = portValue(u.port());
      if (!value) return std::nullopt;
      parts.port = static_cast<std::uint16_t>(*value);
    }
    // The views Boost hands out point into `string`, so their offsets hold for the copy kept.
    const auto part = [base = string.data()](bool present, std::string_view piece) {
      Part p;
      p.present = present;
      if (present && !piece.empty()) {
        p.offset = static_cast<std::uint32_t>(piece.data() - base);
        p.length = static_cast<std::uint32_t>(piece.size());
      }
      return p;
    };
    parts.scheme = part(u.has_scheme(), u.scheme());
    parts.user = part(u.has_userinfo(), u.encoded_user());
    parts.password = part(u.has_password(), u.encoded_password());
    parts.hostAddress = part(u.has_authority() && !u.encoded_host().empty(), u.encoded_host_address());
    parts.path = part(true, u.encoded_path());
    parts.query = part(u.has_query(), u.encoded_query());
    parts.fragment = part(u.has_fragment(), u.encoded_fragment());
    return OrvURL(std::string(string), parts);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<std::string> OrvURL::scheme() const {
  if (!parts_.scheme.present) return std::nullopt;
  return std::string(text(parts_.scheme));
}

std::optional<std::string> OrvURL::host() const {
  if (!parts_.hostAddress.present) return std::nullopt;
  return decoded(text(parts_.hostAddress));
}

std::optional<std::uint16_t> OrvURL::port() const { return parts_.port; }

std::optional<std::string> OrvURL::user() const {
  if (!parts_.user.present) return std::nullopt;
  return decoded(text(parts_.user));
}

std::optional<std::string> OrvURL::password() const {
  if (!parts_.password.present) return std::nullopt;
  return decoded(text(parts_.password));
}

std::string OrvURL::path() const { return decoded(withoutTrailingSlash(text(parts_.path))); }

std::optional<std::string> OrvURL::query() const {
  if (!parts_.query.present) return std::nullopt;
  return std::string(text(parts_.query));
}

std::optional<std::string> OrvURL::fragment() const {
  if (!parts_.fragment.present) return std::nullopt;
  return std::string(text(parts_.fragment));
}

std::string OrvURL::lastPathComponent() const {
  const std::string_view path = withoutTrailingSlash(text(parts_.path));
  const auto slash = path.rfind('/');
  return decoded(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::optional<OrvURL> OrvURL::URLByAppendingPathComponent(std::string_view component) const {
  try {
    std::string segment = urls::encode(component, kPathChars);
    // One slash joins the two, however many the caller brought.
    const auto join = [&segment](std::string& path, bool hasAuthority) {
      if (path.empty()) {
        // push_back rather than assigning a literal: g++ 12 at -O2 misreads the assignment (-Wrestrict).
        if (hasAuthority && (segment.empty() || segment.front() != '/')) path.push_back('/');
      } else if (path.back() != '/') {
        path += '/';
      }
      if (!path.empty() && path.back() == '/' && !segment.empty() && segment.front() == '/') segment.erase(0, 1);
      path += segment;
    };
    // With a host and nothing after the path, the path ends the text and is joined there, without
    // taking the URL apart and putting it together again (every auto-discovery builds its request URL
    // here).
    if (parts_.hostAddress.present && !parts_.query.present && !parts_.fragment.present) {
      std::string path(text(parts_.path));
      join(path, true);
      return URLWithString(string_->substr(0, string_->size() - parts_.path.length) + path);
    }
    urls::url u(*string_);
    std::string path(u.encoded_path());
    join(path, u.has_authority());
    u.set_encoded_path(path);
    return URLWithString(u.buffer());
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<OrvURL> OrvURL::URLBySettingPort(std::uint16_t port) const {
  // The common case, a registered name or IPv4 host with no port at all, is a splice of the text: the
  // parts after the host move along and nothing is parsed again. Every store URL of every request
  // comes through here on its way to normal form.
  const std::size_t hostEnd = std::size_t(parts_.hostAddress.offset) + parts_.hostAddress.length;
  if (parts_.hostAddress.present && !parts_.port &&
      (hostEnd == string_->size() || (*string_)[hostEnd] == '/' || (*string_)[hostEnd] == '?' || (*string_)[hostEnd] == '#')) {
    try {
      const std::string digits = ":" + std::to_string(port);
      std::string spliced = *string_;
      spliced.insert(hostEnd, digits);
      Parts parts = parts_;
      parts.port = port;
      for (Part* moved : {&parts.path, &parts.query, &parts.fragment}) {
        if (moved->length > 0 && moved->offset >= hostEnd) moved->offset += static_cast<std::uint32_t>(digits.size());
      }
      return OrvURL(std::move(spliced), parts);
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }
  try {
    urls::url u(*string_);
    if (!u.has_authority()) return std::nullopt;
    u.set_port_number(port);
    return URLWithString(u.buffer());
  } catch (const std::exception&) {
    return std::nullopt;
  }
}
