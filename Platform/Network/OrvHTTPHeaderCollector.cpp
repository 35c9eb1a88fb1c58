#include "OrvHTTPHeaderCollector.h"

#include <algorithm>

namespace orv::detail {
namespace {

// A discovery answer carries eight or so fields: the server's usual ones and the signature.
constexpr std::size_t kUsualFieldCount = 12;

bool isFieldWhitespace(char c) noexcept { return c == ' ' || c == '\t'; }

}  // namespace

bool HTTPHeaderCollector::refuse(Refusal refusal, std::string reason) noexcept {
  try {
    refusal_ = Refused{refusal, std::move(reason)};
  } catch (...) {
    refusal_ = Refused{Refusal::outOfMemory, std::string()};
  }
  return false;
}

bool HTTPHeaderCollector::addLine(std::string_view line) noexcept {
  if (refusal_) return false;
  receivedAnything_ = true;
  if (line.starts_with("HTTP/")) {
    // A new response: the next hop of a redirect, or the final answer after an interim 1xx.
    fields_.clear();
    bytes_ = 0;
    blockComplete_ = false;
  } else if (blockComplete_) {
    // Trailers come after the body was already streamed; they are not part of the answer.
    return true;
  }
  bytes_ += line.size();
  if (bytes_ > maxBytes_) {
    return refuse(Refusal::tooManyBytes, "response header block exceeds " + std::to_string(maxBytes_) + " bytes");
  }
  if (line.ends_with("\r\n")) {
    line.remove_suffix(2);
  } else if (line.ends_with('\n')) {
    line.remove_suffix(1);
  }
  if (line.find('\0') != std::string_view::npos) return refuse(Refusal::malformed, "response header contains a NUL byte");
  if (line.find('\r') != std::string_view::npos) return refuse(Refusal::malformed, "response header contains a bare CR");
  if (line.empty()) {
    blockComplete_ = true;
    return true;
  }
  if (line.starts_with("HTTP/")) return true;
  if (isFieldWhitespace(line.front())) return refuse(Refusal::malformed, "response header uses obsolete line folding");
  const std::size_t colon = line.find(':');
  if (colon == 0 || colon == std::string_view::npos) {
    return refuse(Refusal::malformed, "response header line has no field name");
  }
  if (fields_.size() >= maxFields_) {
    return refuse(Refusal::tooManyFields, "response has more than " + std::to_string(maxFields_) + " header fields");
  }
  std::string_view value = line.substr(colon + 1);
  while (!value.empty() && isFieldWhitespace(value.front())) value.remove_prefix(1);
  while (!value.empty() && isFieldWhitespace(value.back())) value.remove_suffix(1);
  try {
    // Room for a usual response's fields at the first one, rather than growing through 1, 2, 4 and 8.
    if (fields_.empty()) fields_.reserve(std::min<std::size_t>(maxFields_, kUsualFieldCount));
    fields_.emplace_back(std::string(line.substr(0, colon)), std::string(value));
  } catch (...) {
    return refuse(Refusal::outOfMemory, "response header could not be stored");
  }
  return true;
}

}  // namespace orv::detail
