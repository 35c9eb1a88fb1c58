#include "OrvKeyedArchiver.h"

#include <algorithm>
#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <charconv>
#include <chrono>
#include <system_error>

#include "OrvString.h"

namespace json = boost::json;

namespace orv::detail {
namespace {

// An archived object costs at most two JSON levels (its node and the member holding its contents) and
// the envelope one, so this bound on the parser is exactly the archive's and decoding needs no count.
constexpr std::size_t maximumJSONDepth = 2 * OrvKeyedArchiveMaximumDepth + 1;

[[noreturn]] void refuse(std::int64_t code, std::string message) { throw KeyedArchiveRefusal{code, std::move(message), {}}; }

[[noreturn]] void refuseMalformed(std::string_view className) {
  refuse(OrvKeyedArchiverErrorCorrupt, "a value of class \"" + std::string(className) + "\" is malformed");
}

// Runs body; a refusal from it gets the path component put in front of its path.
void atPathComponent(std::string_view component, const std::function<void()>& body) {
  try {
    body();
  } catch (KeyedArchiveRefusal& refusal) {
    const bool adjoining = refusal.path.empty() || refusal.path.front() == '[';
    refusal.path = std::string(component) + (adjoining ? "" : ".") + refusal.path;
    throw;
  }
}

OrvError errorFor(const KeyedArchiveRefusal& refusal) {
  const std::string where = refusal.path.empty() ? "the root object" : "key path \"" + refusal.path + "\"";
  return OrvError(OrvKeyedArchiverErrorDomain, refusal.code,
                  {{OrvLocalizedDescriptionKey, refusal.message + " (at " + where + ")"}});
}

// Doubles travel as text: the shortest form that reads back to the same bits (Boost.JSON 1.81 does
// not promise correctly rounded parsing), and it spells the non-finite values JSON has no room for.
std::string doubleText(double value) {
  std::array<char, 64> buffer{};
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  return std::string(buffer.data(), result.ptr);
}

std::optional<double> doubleFromText(std::string_view text) {
  double value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string_view classNameOf(const json::value& node) {
  const json::object* object = node.if_object();
  const json::value* name = object ? object->if_contains("$class") : nullptr;
  if (!name || !name->is_string()) refuse(OrvKeyedArchiverErrorCorrupt, "a value is not an archived object");
  return name->get_string();
}

[[noreturn]] void refuseClassName(std::string_view name, const std::vector<std::string_view>& allowed) {
  std::string names;
  for (const std::string_view allowedName : allowed) names += (names.empty() ? "" : ", ") + std::string(allowedName);
  refuse(OrvKeyedArchiverErrorClassNotAllowed,
         "a value of class \"" + std::string(name) + "\" is not allowed here (allowed: " + names + ")");
}

// The member of a node of one of the classes, once it has the JSON kind it must have.
const json::value& archivedMember(const json::value& node, const std::vector<std::string_view>& classes, std::string_view key,
                                  bool (json::value::*hasKind)() const noexcept) {
  const std::string_view name = classNameOf(node);
  if (std::find(classes.begin(), classes.end(), name) == classes.end()) refuseClassName(name, classes);
  const json::value* member = node.get_object().if_contains(key);
  if (!member || !(member->*hasKind)()) refuseMalformed(name);
  return *member;
}

OrvNumber numberFromNode(const json::value& node) {
  const json::value& type = archivedMember(node, {"OrvNumber"}, "$type", &json::value::is_string);
  if (const json::value* value = node.get_object().if_contains("$value")) {
    if (type == "int" && value->is_int64()) return OrvNumber(value->get_int64());
    if (type == "uint" && value->is_uint64()) return OrvNumber(value->get_uint64());
    if (type == "uint" && value->is_int64() && value->get_int64() >= 0) {
      return OrvNumber(static_cast<std::uint64_t>(value->get_int64()));
    }
    if (type == "bool" && value->is_bool()) return OrvNumber(value->get_bool());
    if (type == "double" && value->is_string()) {
      if (auto parsed = doubleFromText(value->get_string())) return OrvNumber(*parsed);
    }
  }
  refuseMalformed("OrvNumber");
}

}  // namespace
}  // namespace orv::detail

using namespace orv::detail;

// MARK: - OrvKeyedArchiver

std::optional<OrvData> OrvKeyedArchiver::archive(const std::function<json::value()>& rootNode, std::optional<OrvError>* error) {
  std::optional<OrvData> data;
  std::optional<OrvError> failure;
  try {
    data = json::serialize(
        json::object{{"$archiver", "OrvKeyedArchiver"}, {"$version", OrvKeyedArchiveFormatVersion}, {"$root", rootNode()}});
  } catch (const KeyedArchiveRefusal& refusal) {
    failure = errorFor(refusal);
  } catch (const std::exception& exception) {
    failure = errorFor({OrvKeyedArchiverErrorInvalidValue, std::string("archiving failed: ") + exception.what(), {}});
  }
  if (error) *error = failure;
  return failure ? std::nullopt : data;
}

void OrvKeyedArchiver::store(std::string_view key, const std::function<json::value()>& node) {
  if (refusal_) return;
  try {
    atPathComponent(key, [&] {
      requireDepth(depth_ + 1);
      fields_[key] = node();
    });
  } catch (KeyedArchiveRefusal& refusal) {
    refusal_ = std::move(refusal);
  }
}

json::value OrvKeyedArchiver::toNode(const OrvNumber& number, std::size_t) {
  static constexpr const char* types[] = {"int", "uint", "double", "bool"};  // in the order of OrvNumber::Kind
  json::value value =
      number.kind() == OrvNumber::Kind::floatingPoint ? json::value(doubleText(number.doubleValue())) : number.toJSON();
  return json::object{{"$class", "OrvNumber"}, {"$type", types[static_cast<int>(number.kind())]}, {"$value", std::move(value)}};
}

json::value OrvKeyedArchiver::toNode(bool value, std::size_t depth) { return toNode(OrvNumber(value), depth); }

json::value OrvKeyedArchiver::toNode(const std::string& text, std::size_t) {
  // The container is JSON text, which cannot carry arbitrary bytes.
  if (!isValidUTF8(text)) refuse(OrvKeyedArchiverErrorInvalidValue, "a string is not valid UTF-8");
  return json::object{{"$class", "OrvString"}, {"$value", text}};
}

json::value OrvKeyedArchiver::toNode(const OrvDate& date, std::size_t) {
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
  return json::object{{"$class", "OrvDate"}, {"$value", static_cast<std::int64_t>(nanoseconds)}};
}

json::value OrvKeyedArchiver::toNode(const json::value& value, std::size_t depth) {
  switch (value.kind()) {
    case json::kind::null:
      return json::object{{"$class", "OrvNull"}};
    case json::kind::string:
      return toNode(std::string(value.get_string()), depth);
    case json::kind::array: {
      if (!value.get_array().empty()) requireDepth(depth + 1);
      json::array items;
      for (const json::value& element : value.get_array()) items.push_back(toNode(element, depth + 1));
      return collectionNode("OrvArray", "$items", std::move(items));
    }
    case json::kind::object: {
      if (!value.get_object().empty()) requireDepth(depth + 1);
      json::object members;
      for (const auto& member : value.get_object()) {
        requireKey(member.key());
        members[member.key()] = toNode(member.value(), depth + 1);
      }
      return collectionNode("OrvDictionary", "$entries", std::move(members));
    }
    default:
      return toNode(*OrvNumber::fromJSON(value), depth);
  }
}

json::value OrvKeyedArchiver::toNode(const OrvSecureCoding* object, std::size_t depth) {
  // A collection cannot hold nil; archiving it anyway would only move the failure to decoding.
  if (!object) refuse(OrvKeyedArchiverErrorInvalidValue, "a collection holds nil");
  json::object node{{"$class", object->className()}, {"$fields", json::object()}};
  OrvKeyedArchiver coder(node["$fields"].as_object(), depth);
  object->encodeWithCoder(coder);
  if (coder.refusal_) throw *coder.refusal_;
  return json::value(std::move(node));
}

json::value OrvKeyedArchiver::collectionNode(std::string_view className, std::string_view member, json::value content) {
  return json::object{{"$class", className}, {member, std::move(content)}};
}

void OrvKeyedArchiver::requireDepth(std::size_t depth) {
  if (depth > OrvKeyedArchiveMaximumDepth)
    refuse(OrvKeyedArchiverErrorInvalidValue, "objects nest deeper than the archive allows");
}

void OrvKeyedArchiver::requireKey(std::string_view key) {
  if (!isValidUTF8(key)) refuse(OrvKeyedArchiverErrorInvalidValue, "a dictionary key is not valid UTF-8");
}

// MARK: - OrvKeyedUnarchiver

void OrvKeyedUnarchiver::unarchive(const OrvData& data, std::optional<OrvError>* error,
                                   const std::function<void(const json::value&)>& decodeRoot) {
  std::optional<OrvError> failure;
  try {
    json::parse_options options;
    options.max_depth = maximumJSONDepth;
    boost::system::error_code code;
    const json::value document = json::parse(data, code, {}, options);
    if (code) refuse(OrvKeyedArchiverErrorCorrupt, "the data is not an archive (" + code.message() + ")");
    const json::object* envelope = document.if_object();
    const json::value* archiver = envelope ? envelope->if_contains("$archiver") : nullptr;
    if (!archiver || *archiver != "OrvKeyedArchiver") refuse(OrvKeyedArchiverErrorCorrupt, "the data is not a keyed archive");
    const json::value* version = envelope->if_contains("$version");
    if (!version || !(version->is_int64() || version->is_uint64())) {
      refuse(OrvKeyedArchiverErrorCorrupt, "the archive has no format version");
    }
    if (*version != OrvKeyedArchiveFormatVersion) {
      refuse(OrvKeyedArchiverErrorVersion, "the archive's format version " + json::serialize(*version) +
                                               " is not supported (this reader knows version " +
                                               std::to_string(OrvKeyedArchiveFormatVersion) + ")");
    }
    const json::value* root = envelope->if_contains("$root");
    if (!root) refuse(OrvKeyedArchiverErrorCorrupt, "the archive has no root object");
    if (!root->is_null()) decodeRoot(*root);  // null is an archived nil
  } catch (const KeyedArchiveRefusal& refusal) {
    failure = errorFor(refusal);
  } catch (const std::exception& exception) {
    failure = errorFor({OrvKeyedArchiverErrorCorrupt, std::string("the archive could not be read: ") + exception.what(), {}});
  }
  if (error) *error = failure;
}

void OrvKeyedUnarchiver::load(std::string_view key, const std::function<void(const json::value&)>& decodeNode) {
  const json::value* node = fields_.if_contains(key);
  if (!node || refusal_) return;
  try {
    atPath(key, [&] { decodeNode(*node); });
  } catch (KeyedArchiveRefusal& refusal) {
    refusal_ = std::move(refusal);
  }
}

std::string_view OrvKeyedUnarchiver::archivedClassName(const json::value& node) { return classNameOf(node); }

void OrvKeyedUnarchiver::refuseClass(std::string_view name, std::vector<std::string_view> allowed) {
  refuseClassName(name, allowed);
}

const json::array& OrvKeyedUnarchiver::archivedItems(const json::value& node) {
  return archivedMember(node, {"OrvArray", "OrvMutableArray"}, "$items", &json::value::is_array).get_array();
}

const json::object& OrvKeyedUnarchiver::archivedEntries(const json::value& node) {
  return archivedMember(node, {"OrvDictionary", "OrvMutableDictionary"}, "$entries", &json::value::is_object).get_object();
}

void OrvKeyedUnarchiver::decodeFields(const json::value& node, const std::function<void(OrvKeyedUnarchiver&)>& decode) {
  const json::value* fields = node.get_object().if_contains("$fields");
  if (!fields || !fields->is_object()) refuseMalformed(classNameOf(node));
  OrvKeyedUnarchiver coder(fields->get_object());
  decode(coder);
  if (coder.refusal_) throw *coder.refusal_;
}

void OrvKeyedUnarchiver::atPath(std::string_view key, const std::function<void()>& body) { atPathComponent(key, body); }

void OrvKeyedUnarchiver::atPath(std::size_t index, const std::function<void()>& body) {
  std::string component(1, '[');
  component += std::to_string(index);
  atPathComponent(component + ']', body);
}

OrvNumber OrvKeyedUnarchiver::fromNode(const json::value& node, std::type_identity<OrvNumber>) { return numberFromNode(node); }

bool OrvKeyedUnarchiver::fromNode(const json::value& node, std::type_identity<bool>) { return numberFromNode(node).boolValue(); }

std::string OrvKeyedUnarchiver::fromNode(const json::value& node, std::type_identity<std::string>) {
  return std::string(archivedMember(node, {"OrvString"}, "$value", &json::value::is_string).get_string());
}

OrvDate OrvKeyedUnarchiver::fromNode(const json::value& node, std::type_identity<OrvDate>) {
  const std::int64_t nanoseconds = archivedMember(node, {"OrvDate"}, "$value", &json::value::is_int64).get_int64();
  return OrvDate(std::chrono::duration_cast<OrvDate::duration>(std::chrono::nanoseconds(nanoseconds)));
}

json::value OrvKeyedUnarchiver::fromNode(const json::value& node, std::type_identity<json::value>) {
  const std::string_view name = classNameOf(node);
  if (name == "OrvNumber") return numberFromNode(node).toJSON();
  if (name == "OrvString") return json::value(fromNode(node, std::type_identity<std::string>{}));
  if (name == "OrvArray" || name == "OrvMutableArray") {
    const auto elements = fromNode(node, std::type_identity<std::vector<json::value>>{});
    return json::array(elements.begin(), elements.end());
  }
  if (name == "OrvDictionary" || name == "OrvMutableDictionary") {
    // Not through a std::map: a dictionary keeps the order of its entries.
    json::object members;
    for (const auto& member : archivedEntries(node)) {
      atPath(member.key(), [&] { members[member.key()] = fromNode(member.value(), std::type_identity<json::value>{}); });
    }
    return members;
  }
  refuseClassName(name, {"OrvNumber", "OrvString", "OrvArray", "OrvDictionary"});
}
