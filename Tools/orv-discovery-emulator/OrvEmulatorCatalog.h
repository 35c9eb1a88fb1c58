#pragma once
// The catalog: which answer goes out for which domain, store, platform and channel. Its shape is
// documented in catalog.schema.json beside this file, and parseCatalog checks exactly that shape, so
// that a mistyped catalog fails at load time instead of as a puzzling 404 or a refused answer later.
#include <boost/json/object.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "OrvTypes.h"

namespace orv::emulator::detail {

struct Catalog {
  struct Store {
    // "ios" / "macos" to the settings answer.
    std::map<std::string, boost::json::object> platforms;
    // Channel name to its platforms.
    std::map<std::string, std::map<std::string, boost::json::object>> channels;
  };
  // Keyed by the lower-case domain.
  std::map<std::string, boost::json::object> domains;
  // Keyed by the store URL exactly as the client encodes it.
  std::map<std::string, Store> stores;
};

// The catalog in text, or nullptr with the reason in error: "catalog: JSON-POINTER: what is wrong".
std::shared_ptr<const Catalog> parseCatalog(std::string_view text, std::string* error);

// Gives an answer without "iat" or "exp" a validity in whole seconds from a minute before now (a
// little slack for clocks behind ours) to now + lifetime. Values already there are left alone.
void stampValidity(boost::json::object& answer, OrvDate now, std::chrono::seconds lifetime);

// The catalog text to use: catalogJSON, else the file, else materialDir/catalog.json when it exists,
// else an empty catalog. Nothing, with the reason in error, when the file cannot be read.
std::optional<std::string> catalogText(const std::string& materialDir, const std::optional<std::string>& catalogFile,
                                       const std::optional<std::string>& catalogJSON, std::string* error);

}  // namespace orv::emulator::detail
