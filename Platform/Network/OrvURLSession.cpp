#include "OrvURLSession.h"

#include <algorithm>

namespace {

// Field names are HTTP tokens, which are ASCII; a locale-free comparison is both right and cheap.
bool fieldNamesEqual(std::string_view a, std::string_view b) noexcept {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    const auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; };
    return lower(x) == lower(y);
  });
}

std::optional<std::string> firstValue(const std::vector<std::pair<std::string, std::string>>& fields, std::string_view field) {
  const auto it =
      std::find_if(fields.begin(), fields.end(), [&](const auto& entry) { return fieldNamesEqual(entry.first, field); });
  if (it == fields.end()) return std::nullopt;
  return it->second;
}

}  // namespace

void OrvURLRequest::setValueForHTTPHeaderField(std::optional<std::string> value, std::string_view field) {
  // Setting nothing removes the field, as the platform request does.
  const auto it =
      std::find_if(fields_.begin(), fields_.end(), [&](const auto& entry) { return fieldNamesEqual(entry.first, field); });
  if (!value) {
    if (it != fields_.end()) fields_.erase(it);
    return;
  }
  if (it != fields_.end()) {
    it->second = std::move(*value);
  } else {
    fields_.emplace_back(std::string(field), std::move(*value));
  }
}

std::optional<std::string> OrvURLRequest::valueForHTTPHeaderField(std::string_view field) const {
  return firstValue(fields_, field);
}

// Fields the dictionary does not name stay as they are; a named field takes the dictionary's value,
// so that a later dictionary wins over an earlier one (the transaction id over the monitoring set).
void OrvURLRequest::setHeaders(const OrvHTTPHeaderDictionary& headers) {
  for (const auto& [name, value] : headers) setValueForHTTPHeaderField(value, name);
}

std::optional<std::string> OrvHTTPURLResponse::valueForHTTPHeaderField(std::string_view field) const {
  std::optional<std::string> combined;
  for (const auto& [name, value] : headerFields_) {
    if (!fieldNamesEqual(name, field)) continue;
    if (combined) {
      combined->append(", ").append(value);
    } else {
      combined = value;
    }
  }
  return combined;
}
