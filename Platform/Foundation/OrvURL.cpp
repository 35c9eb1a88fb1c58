#include "OrvURL.h"

#include <boost/url/encode.hpp>
#include <boost/url/grammar/lut_chars.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <boost/url/url_view.hpp>

namespace urls = boost::urls;

namespace {

// What a path may hold unescaped; ';' is escaped too, so a segment never grows parameters.
constexpr urls::grammar::lut_chars kPathChars("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$&'()*+,-./:=@_~");

// The stored text was accepted by URLWithString, so it parses again; an empty view guards the
// impossible case rather than asserting.
urls::url_view view(const std::string& text) noexcept {
  auto parsed = urls::parse_uri_reference(text);
  return parsed ? *parsed : urls::url_view();
}

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

}  // namespace

std::optional<OrvURL> OrvURL::URLWithString(std::string_view string) {
  if (string.empty()) return std::nullopt;
  try {
    auto parsed = urls::parse_uri_reference(string);
    if (!parsed) return std::nullopt;
    // After an authority the path must be empty or begin with "/"; Boost 1.81 lets "h:8a/" through
    // as port 8 and path "a/".
    if (parsed->has_authority() && !parsed->encoded_path().empty() && parsed->encoded_path().front() != '/') {
      return std::nullopt;
    }
    if (parsed->has_port() && !portValue(parsed->port())) return std::nullopt;
    return OrvURL(std::string(string));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<std::string> OrvURL::scheme() const {
  const auto u = view(string_);
  if (!u.has_scheme()) return std::nullopt;
  return std::string(u.scheme());
}

std::optional<std::string> OrvURL::host() const {
  const auto u = view(string_);
  if (!u.has_authority() || u.encoded_host().empty()) return std::nullopt;
  return std::string(u.host_address());
}

std::optional<std::uint16_t> OrvURL::port() const {
  const auto u = view(string_);
  if (!u.has_port() || u.port().empty()) return std::nullopt;
  const auto value = portValue(u.port());
  if (!value) return std::nullopt;
  return static_cast<std::uint16_t>(*value);
}

std::optional<std::string> OrvURL::user() const {
  const auto u = view(string_);
  if (!u.has_userinfo()) return std::nullopt;
  return std::string(u.user());
}

std::optional<std::string> OrvURL::password() const {
  const auto u = view(string_);
  if (!u.has_password()) return std::nullopt;
  return std::string(u.password());
}

std::string OrvURL::path() const {
  const auto u = view(string_);
  return decoded(withoutTrailingSlash(u.encoded_path()));
}

std::optional<std::string> OrvURL::query() const {
  const auto u = view(string_);
  if (!u.has_query()) return std::nullopt;
  return std::string(u.encoded_query());
}

std::optional<std::string> OrvURL::fragment() const {
  const auto u = view(string_);
  if (!u.has_fragment()) return std::nullopt;
  return std::string(u.encoded_fragment());
}

std::string OrvURL::lastPathComponent() const {
  const auto u = view(string_);
  const std::string_view path = withoutTrailingSlash(u.encoded_path());
  const auto slash = path.rfind('/');
  return decoded(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::optional<OrvURL> OrvURL::URLByAppendingPathComponent(std::string_view component) const {
  try {
    urls::url u(string_);
    std::string path(u.encoded_path());
    std::string segment = urls::encode(component, kPathChars);
    if (path.empty()) {
      // push_back rather than assigning a literal: g++ 12 at -O2 misreads the assignment (-Wrestrict).
      if (u.has_authority() && (segment.empty() || segment.front() != '/')) path.push_back('/');
    } else if (path.back() != '/') {
      path += '/';
    }
    // One slash joins the two, however many the caller brought.
    if (!path.empty() && path.back() == '/' && !segment.empty() && segment.front() == '/') segment.erase(0, 1);
    path += segment;
    u.set_encoded_path(path);
    return URLWithString(u.buffer());
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<OrvURL> OrvURL::URLBySettingPort(std::uint16_t port) const {
  try {
    urls::url u(string_);
    if (!u.has_authority()) return std::nullopt;
    u.set_port_number(port);
    return URLWithString(u.buffer());
  } catch (const std::exception&) {
    return std::nullopt;
  }
}
