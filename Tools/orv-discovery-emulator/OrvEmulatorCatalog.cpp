#include "OrvEmulatorCatalog.h"

#include <fmt/format.h>
#include <boost/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

#include "OrvDiscoveryEmulator.h"

namespace orv::emulator::detail {

namespace json = boost::json;

namespace {

enum class Kind { string, number, array, object };

// One node of the catalog's shape, the same tree catalog.schema.json spells out. Containers are
// typed all the way down to the objects the client reads; leaf values are left alone so that a
// catalog can still hold answers the client has to refuse (a URL that is not a string, say).
struct Shape {
  Kind kind = Kind::object;
  // Members with a shape of their own; other members are allowed unless the object is closed.
  std::vector<std::pair<std::string_view, const Shape*>> members;
  // For maps: every other member has this shape and a non-empty name.
  const Shape* eachMember = nullptr;
  const Shape* eachItem = nullptr;
  bool closed = false;
};

const Shape& catalogShape() {
  static const Shape string{Kind::string};
  static const Shape number{Kind::number};
  static const Shape object{Kind::object};
  static const Shape array{Kind::array};
  static const Shape objects{.kind = Kind::array, .eachItem = &object};

  static const Shape domainKaleth{Kind::object, {{"serviceUrls", &objects}, {"allowedWebStoreURLs", &objects}}};
  static const Shape domainAnswer{Kind::object,
                                  {{"domain", &object}, {"kaleth", &domainKaleth}, {"iat", &number}, {"exp", &number}}};

  static const Shape settingGroup{Kind::object, {{"settings", &objects}, {"assignedTo", &array}}};
  static const Shape settingGroups{.kind = Kind::array, .eachItem = &settingGroup};
  static const Shape appSettings{Kind::object, {{"ios", &settingGroups}, {"macos", &settingGroups}}};
  static const Shape settingsKaleth{Kind::object, {{"appSettings", &appSettings}}};
  static const Shape storeURL{Kind::object, {{"migrationUrl", &objects}}};
  static const Shape settingsAnswer{
      Kind::object,
      {{"kaleth", &settingsKaleth}, {"url", &storeURL}, {"settingsChannel", &object}, {"iat", &number}, {"exp", &number}}};

  static const Shape platforms{
      .kind = Kind::object, .members = {{"ios", &settingsAnswer}, {"macos", &settingsAnswer}}, .closed = true};
  static const Shape channels{.kind = Kind::object, .eachMember = &platforms};
  static const Shape store{.kind = Kind::object,
                           .members = {{"ios", &settingsAnswer}, {"macos", &settingsAnswer}, {"channels", &channels}},
                           .closed = true};
  static const Shape stores{.kind = Kind::object, .eachMember = &store};
  static const Shape domains{.kind = Kind::object, .eachMember = &domainAnswer};
  // "$schema" lets an editor find catalog.schema.json.
  static const Shape catalog{
      .kind = Kind::object, .members = {{"$schema", &string}, {"domains", &domains}, {"stores", &stores}}, .closed = true};
  return catalog;
}

// One reference token of a JSON Pointer.
std::string pointerToken(std::string_view name) {
  std::string token;
  for (const char c : name) {
    if (c == '~') {
      token += "~0";
    } else if (c == '/') {
      token += "~1";
    } else {
      token += c;
    }
  }
  return token;
}

bool fail(const std::string& pointer, std::string_view message, std::string* error) {
  if (error) *error = pointer.empty() ? fmt::format("catalog: {}", message) : fmt::format("catalog: {}: {}", pointer, message);
  return false;
}

bool check(const json::value& value, const Shape& shape, const std::string& pointer, std::string* error) {
  switch (shape.kind) {
    case Kind::string:
      return value.is_string() || fail(pointer, "expected a string", error);
    case Kind::number:
      return value.is_number() || fail(pointer, "expected a number", error);
    case Kind::array: {
      if (!value.is_array()) return fail(pointer, "expected an array", error);
      if (!shape.eachItem) return true;
      const auto& items = value.get_array();
      for (std::size_t i = 0; i < items.size(); ++i) {
        if (!check(items[i], *shape.eachItem, fmt::format("{}/{}", pointer, i), error)) return false;
      }
      return true;
    }
    case Kind::object:
      break;
  }
  if (!value.is_object()) return fail(pointer, "expected an object", error);
  for (const auto& [name, member] : value.get_object()) {
    const std::string at = pointer + "/" + pointerToken(name);
    const auto known = std::find_if(shape.members.begin(), shape.members.end(), [&](const auto& m) { return m.first == name; });
    const Shape* memberShape = known != shape.members.end() ? known->second : shape.eachMember;
    // A map's names become path segments, and an empty segment reaches nothing.
    if (known == shape.members.end() && shape.eachMember && name.empty()) return fail(at, "expected a non-empty name", error);
    if (!memberShape) {
      if (!shape.closed) continue;
      std::string allowed;
      for (const auto& listed : shape.members) allowed += (allowed.empty() ? "" : ", ") + std::string(listed.first);
      return fail(at, fmt::format("unexpected member (allowed: {})", allowed), error);
    }
    if (!check(member, *memberShape, at, error)) return false;
  }
  return true;
}

std::string asciiLower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : char(c); });
  return out;
}

std::map<std::string, json::object> platformsOf(const json::object& from) {
  std::map<std::string, json::object> platforms;
  for (const char* platform : {"ios", "macos"}) {
    if (const auto* value = from.if_contains(platform)) platforms[platform] = value->get_object();
  }
  return platforms;
}

}  // namespace

std::shared_ptr<const Catalog> parseCatalog(std::string_view text, std::string* error) {
  json::stream_parser parser;
  boost::system::error_code ec;
  const std::size_t consumed = parser.write(text.data(), text.size(), ec);
  if (!ec) parser.finish(ec);
  if (ec) {
    // Where the parser stopped, so that a hand-edited catalog can be fixed without guessing.
    const auto before = text.substr(0, std::min(consumed, text.size()));
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const auto lineStart = before.rfind('\n');
    const auto column = before.size() - (lineStart == std::string_view::npos ? 0 : lineStart + 1) + 1;
    if (error) *error = fmt::format("catalog: not JSON (line {}, column {}): {}", line, column, ec.message());
    return nullptr;
  }
  const json::value root = parser.release();
  if (!check(root, catalogShape(), "", error)) return nullptr;

  auto catalog = std::make_shared<Catalog>();
  const auto& top = root.get_object();
  if (const auto* domains = top.if_contains("domains")) {
    for (const auto& [name, answer] : domains->get_object()) {
      // The emulator matches domains ignoring case, so two that differ only in case would shadow
      // each other without a word.
      if (!catalog->domains.emplace(asciiLower(name), answer.get_object()).second) {
        fail("/domains/" + pointerToken(name), "the same domain as an earlier one (domains ignore letter case)", error);
        return nullptr;
      }
    }
  }
  if (const auto* stores = top.if_contains("stores")) {
    for (const auto& [url, entry] : stores->get_object()) {
      Catalog::Store store;
      store.platforms = platformsOf(entry.get_object());
      if (const auto* channels = entry.get_object().if_contains("channels")) {
        for (const auto& [channel, platforms] : channels->get_object()) {
          store.channels[std::string(channel)] = platformsOf(platforms.get_object());
        }
      }
      catalog->stores[std::string(url)] = std::move(store);
    }
  }
  return catalog;
}

void stampValidity(json::object& answer, OrvDate now, std::chrono::seconds lifetime) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(now.time_since_epoch());
  if (!answer.contains("iat")) answer["iat"] = std::int64_t((seconds - std::chrono::seconds(60)).count());
  if (!answer.contains("exp")) answer["exp"] = std::int64_t((seconds + lifetime).count());
}

std::optional<std::string> catalogText(const std::string& materialDir, const std::optional<std::string>& catalogFile,
                                       const std::optional<std::string>& catalogJSON, std::string* error) {
  if (catalogJSON) return *catalogJSON;
  std::optional<std::string> file = catalogFile;
  if (!file) {
    const auto fallback = std::filesystem::path(materialDir) / kCatalogFile;
    if (!std::filesystem::exists(fallback)) return std::string(R"({"domains":{},"stores":{}})");
    file = fallback.string();
  }
  std::ifstream in(*file, std::ios::binary);
  if (!in) {
    if (error) *error = "cannot read the catalog " + *file;
    return std::nullopt;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace orv::emulator::detail
