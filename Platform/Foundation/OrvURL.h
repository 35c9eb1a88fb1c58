#pragma once
// A URL value on RFC 3986 (Boost.URL). Like the platform type it also holds relative references
// ("store.example.com/Store" has a path but no scheme or host). Equality and hashing go by the
// absolute string, so URLs can key sets and maps.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

class OrvURL {
 public:
  // Parses an RFC 3986 URI reference; std::nullopt for text the grammar rejects (blanks, bad escapes,
  // a port that does not fit 16 bits) and for the empty string.
  static std::optional<OrvURL> URLWithString(std::string_view string);

  // A URL never changes once made, so copies share its text: a record handed to each caller as a copy
  // of its own (a thousand store URLs) then costs no allocation per URL. A move copies too, so that no
  // URL, moved from or not, is ever without its text.
  OrvURL(const OrvURL&) noexcept = default;
  OrvURL(OrvURL&& other) noexcept : OrvURL(std::as_const(other)) {}
  OrvURL& operator=(const OrvURL&) noexcept = default;
  OrvURL& operator=(OrvURL&& other) noexcept { return *this = std::as_const(other); }
  ~OrvURL() = default;

  const std::string& absoluteString() const noexcept { return *string_; }
  std::optional<std::string> scheme() const;
  // Percent-decoded; an IP literal without its brackets.
  std::optional<std::string> host() const;
  std::optional<std::uint16_t> port() const;
  std::optional<std::string> user() const;
  std::optional<std::string> password() const;
  // Percent-decoded path without a trailing slash ("/" and "" both read as "").
  std::string path() const;
  std::optional<std::string> query() const;
  std::optional<std::string> fragment() const;
  // Last segment of the path, percent-decoded, ignoring a trailing slash; empty when there is none.
  std::string lastPathComponent() const;

  // Appends one component to the path. Characters a path segment may not hold are percent-encoded;
  // a "/" inside the component is kept, so "example.com/" adds a segment and a trailing slash.
  std::optional<OrvURL> URLByAppendingPathComponent(std::string_view component) const;
  // The same URL with an explicit port; std::nullopt when the URL has no authority to carry one.
  std::optional<OrvURL> URLBySettingPort(std::uint16_t port) const;

  friend bool operator==(const OrvURL& a, const OrvURL& b) noexcept { return a.string_ == b.string_ || *a.string_ == *b.string_; }

 private:
  // Where each part lies in the text, found when the URL is made, so that reading a part parses
  // nothing again. Offsets into absoluteString(); parts are still percent-encoded.
  struct Part {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    bool present = false;
  };
  struct Parts {
    Part scheme, user, password, hostAddress, path, query, fragment;
    std::optional<std::uint16_t> port;
  };

  static std::optional<Parts> plainParts(std::string_view string) noexcept;
  OrvURL(std::string string, const Parts& parts)
      : string_(std::make_shared<const std::string>(std::move(string))), parts_(parts) {}
  std::string_view text(const Part& part) const noexcept { return std::string_view(*string_).substr(part.offset, part.length); }
  std::shared_ptr<const std::string> string_;
  Parts parts_;
};

template <>
struct std::hash<OrvURL> {
  std::size_t operator()(const OrvURL& url) const noexcept { return std::hash<std::string>{}(url.absoluteString()); }
};
