#pragma once
// The error value: a domain, a code and a user-info dictionary. Errors travel as values
// (std::optional<OrvError>); nothing in the library throws across its API.
#include <cstdint>
#include <map>
#include <string>

using OrvErrorUserInfo = std::map<std::string, std::string>;

// User-info key of the human-readable description.
inline constexpr const char* OrvLocalizedDescriptionKey = "OrvLocalizedDescription";
// User-info key of the description of the error that caused this one.
inline constexpr const char* OrvUnderlyingErrorKey = "OrvUnderlyingError";

class OrvError {
 public:
  OrvError(std::string domain, std::int64_t code, OrvErrorUserInfo userInfo = {});

  static OrvError errorWithDomain(std::string domain, std::int64_t code, OrvErrorUserInfo userInfo = {}) {
    return OrvError(std::move(domain), code, std::move(userInfo));
  }

  const std::string& domain() const noexcept { return domain_; }
  std::int64_t code() const noexcept { return code_; }
  const OrvErrorUserInfo& userInfo() const noexcept { return userInfo_; }

  // The localized-description entry when there is one, otherwise a generic sentence naming domain and code.
  std::string localizedDescription() const;
  // Everything in one line: Error Domain=<domain> Code=<code> "<description>" UserInfo={k=v, ...}
  std::string description() const;

  friend bool operator==(const OrvError&, const OrvError&) = default;

 private:
  std::string domain_;
  std::int64_t code_;
  OrvErrorUserInfo userInfo_;
};
