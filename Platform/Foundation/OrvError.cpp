#include "OrvError.h"

#include <utility>

OrvError::OrvError(std::string domain, std::int64_t code, OrvErrorUserInfo userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

std::string OrvError::localizedDescription() const {
  if (const auto it = userInfo_.find(OrvLocalizedDescriptionKey); it != userInfo_.end()) return it->second;
  return "The operation couldn\u2019t be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

std::string OrvError::description() const {
  std::string text =
      "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" + localizedDescription() + "\" UserInfo={";
  bool first = true;
  for (const auto& [key, value] : userInfo_) {
    if (!first) text += ", ";
    first = false;
    text += key;
    text += '=';
    text += value;
  }
  text += '}';
  return text;
}
