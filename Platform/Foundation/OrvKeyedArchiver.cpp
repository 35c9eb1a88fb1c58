#include "OrvKeyedArchiver.h"

#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <charconv>
#include <chrono>
#include <map>
#include <mutex>
#include <system_error>

#include "OrvString.h"

namespace orv::detail {
namespace {

namespace json = boost::json;

constexpr std::string_view archiverKey = "$archiver";
constexpr std::string_view archiverName = "OrvKeyedArchiver";
constexpr std::string_view versionKey = "$version";
constexpr std::string_view rootKey = "$root";
constexpr std::string_view classKey = "$class";
constexpr std::string_view valueKey = "$value";
constexpr std::string_view typeKey = "$type";
constexpr std::string_view itemsKey = "$items";
constexpr std::string_view entriesKey = "$entries";
constexpr std::string_view fieldsKey = "$fields";

// Each archived object costs two JSON levels (the node and its container member); the margin covers
// the envelope. Anything the parser refuses for depth is deeper than we would accept anyway.
constexpr std::size_t maximumJSONDepth = 2 * OrvKeyedArchiveMaximumDepth + 8;

class DepthScope {
 public:
  explicit DepthScope(std::size_t& depth) : depth_(depth) { ++depth_; }
  ~DepthScope() { --depth_; }
  DepthScope(const DepthScope&) = delete;
  DepthScope& operator=(const DepthScope&) = delete;
  bool exceeded() const noexcept { return depth_ > OrvKeyedArchiveMaximumDepth; }

 private:
  std::size_t& depth_;
};

class PathScope {
 public:
  PathScope(std::vector<std::string>& path, std::string component) : path_(path) { path_.push_back(std::move(component)); }
  ~PathScope() { path_.pop_back(); }
  PathScope(const PathScope&) = delete;
  PathScope& operator=(const PathScope&) = delete;

 private:
  std::vector<std::string>& path_;
};

template <class T>
class RestoreOnExit {
 public:
  explicit RestoreOnExit(T& slot) : slot_(slot), saved_(slot) {}
  ~RestoreOnExit() { slot_ = saved_; }
  RestoreOnExit(const RestoreOnExit&) = delete;
  RestoreOnExit& operator=(const RestoreOnExit&) = delete;

 private:
  T& slot_;
  T saved_;
};

std::string indexComponent(std::size_t index) { return "[" + std::to_string(index) + "]"; }

std::string pathString(const std::vector<std::string>& path) {
  if (path.empty()) return "the root object";
  std::string text = "key path \"";
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (i > 0 && path[i].front() != '[') text += '.';
    text += path[i];
  }
  return text + "\"";
}

OrvError makeError(std::int64_t code, const std::string& message) {
  return OrvError(OrvKeyedArchiverErrorDomain, code, {{OrvLocalizedDescriptionKey, message}});
}

bool isAllowed(const OrvClass& objectClass, const OrvClassSet& classes) {
  for (const OrvClass* allowed : classes) {
    if (allowed && objectClass.isSubclassOfClass(*allowed)) return true;
  }
  return false;
}

std::string classNames(const OrvClassSet& classes) {
  std::string text;
  for (const OrvClass* allowed : classes) {
    if (!allowed) continue;
    if (!text.empty()) text += ", ";
    text += allowed->name();
  }
  return text.empty() ? std::string("none") : text;
}

struct ClassRegistry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<OrvClass>, std::less<>> classes;
};

ClassRegistry& classRegistry() {
  static ClassRegistry registry;
  return registry;
}

void registerValueClasses() {
  static const bool done = [] {
    (void)OrvClass::number();
    (void)OrvClass::string();
    (void)OrvClass::mutableArray();
    (void)OrvClass::mutableDictionary();
    (void)OrvClass::null();
    (void)OrvClass::date();
    return true;
  }();
  (void)done;
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

json::value numberNode(const OrvNumber& number) {
  json::object node;
  node[classKey] = OrvClass::number().name();
  switch (number.kind()) {
    case OrvNumber::Kind::signedInteger:
      node[typeKey] = "int";
      node[valueKey] = number.longLongValue();
      break;
    case OrvNumber::Kind::unsignedInteger:
      node[typeKey] = "uint";
      node[valueKey] = number.unsignedLongLongValue();
      break;
    case OrvNumber::Kind::floatingPoint:
      node[typeKey] = "double";
      node[valueKey] = doubleText(number.doubleValue());
      break;
    case OrvNumber::Kind::boolean:
      node[typeKey] = "bool";
      node[valueKey] = number.boolValue();
      break;
  }
  return node;
}

std::optional<OrvNumber> numberFromNode(const json::object& node) {
  const json::value* type = node.if_contains(typeKey);
  const json::value* value = node.if_contains(valueKey);
  if (!type || !type->is_string() || !value) return std::nullopt;
  const std::string_view tag = type->get_string();
  if (tag == "int") {
    if (value->is_int64()) return OrvNumber(value->get_int64());
  } else if (tag == "uint") {
    if (value->is_uint64()) return OrvNumber(value->get_uint64());
    if (value->is_int64() && value->get_int64() >= 0) return OrvNumber(static_cast<std::uint64_t>(value->get_int64()));
  } else if (tag == "double") {
    if (value->is_string()) {
      if (auto parsed = doubleFromText(value->get_string())) return OrvNumber(*parsed);
    }
  } else if (tag == "bool") {
    if (value->is_bool()) return OrvNumber(value->get_bool());
  }
  return std::nullopt;
}

json::value dateNode(OrvDate date) {
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
  return json::object{{classKey, OrvClass::date().name()}, {valueKey, static_cast<std::int64_t>(nanoseconds)}};
}

std::optional<OrvDate> dateFromNode(const json::object& node) {
  const json::value* value = node.if_contains(valueKey);
  if (!value || !value->is_int64()) return std::nullopt;
  const std::chrono::nanoseconds sinceEpoch(value->get_int64());
  return OrvDate(std::chrono::duration_cast<OrvDate::duration>(sinceEpoch));
}

}  // namespace
}  // namespace orv::detail

using namespace orv::detail;

// MARK: - OrvClass

OrvClass::OrvClass(std::string name, const OrvClass* superclass, bool supportsSecureCoding, Decoder decoder)
    : name_(std::move(name)),
      superclass_(superclass),
      supportsSecureCoding_(supportsSecureCoding),
      decoder_(std::move(decoder)) {}

bool OrvClass::isSubclassOfClass(const OrvClass& other) const noexcept {
  for (const OrvClass* cls = this; cls; cls = cls->superclass_) {
    if (cls == &other) return true;
  }
  return false;
}

const OrvClass& OrvClass::registerClass(std::string name, const OrvClass* superclass, bool supportsSecureCoding,
                                        Decoder decoder) {
  auto& registry = classRegistry();
  std::lock_guard lock(registry.mutex);
  auto found = registry.classes.find(name);
  if (found != registry.classes.end()) return *found->second;
  auto descriptor = std::make_unique<OrvClass>(name, superclass, supportsSecureCoding, std::move(decoder));
  const OrvClass& result = *descriptor;
  registry.classes.emplace(std::move(name), std::move(descriptor));
  return result;
}

const OrvClass* OrvClass::classNamed(std::string_view name) {
  registerValueClasses();
  auto& registry = classRegistry();
  std::lock_guard lock(registry.mutex);
  auto found = registry.classes.find(name);
  return found == registry.classes.end() ? nullptr : found->second.get();
}

const OrvClass& OrvClass::number() {
  static const OrvClass& cls = registerClass("OrvNumber", nullptr, true, nullptr);
  return cls;
}
const OrvClass& OrvClass::string() {
  static const OrvClass& cls = registerClass("OrvString", nullptr, true, nullptr);
  return cls;
}
const OrvClass& OrvClass::array() {
  static const OrvClass& cls = registerClass("OrvArray", nullptr, true, nullptr);
  return cls;
}
const OrvClass& OrvClass::mutableArray() {
  static const OrvClass& cls = registerClass("OrvMutableArray", &array(), true, nullptr);
  return cls;
}
const OrvClass& OrvClass::dictionary() {
  static const OrvClass& cls = registerClass("OrvDictionary", nullptr, true, nullptr);
  return cls;
}
const OrvClass& OrvClass::mutableDictionary() {
  static const OrvClass& cls = registerClass("OrvMutableDictionary", &dictionary(), true, nullptr);
  return cls;
}
const OrvClass& OrvClass::null() {
  static const OrvClass& cls = registerClass("OrvNull", nullptr, true, nullptr);
  return cls;
}
const OrvClass& OrvClass::date() {
  static const OrvClass& cls = registerClass("OrvDate", nullptr, true, nullptr);
  return cls;
}

// MARK: - OrvObject

OrvObject::OrvObject(OrvObjectArray value) : storage_(std::move(value)) {}
OrvObject::OrvObject(OrvObjectDictionary value) : storage_(std::move(value)) {}

OrvObject OrvObject::fromJSON(const boost::json::value& value) {
  switch (value.kind()) {
    case boost::json::kind::null:
      return OrvObject(OrvNull{});
    case boost::json::kind::bool_:
    case boost::json::kind::int64:
    case boost::json::kind::uint64:
    case boost::json::kind::double_:
      return OrvObject(*OrvNumber::fromJSON(value));
    case boost::json::kind::string:
      return OrvObject(std::string(value.get_string()));
    case boost::json::kind::array: {
      OrvObjectArray elements;
      elements.reserve(value.get_array().size());
      for (const auto& element : value.get_array()) elements.push_back(fromJSON(element));
      return OrvObject(std::move(elements));
    }
    case boost::json::kind::object: {
      OrvObjectDictionary entries;
      entries.reserve(value.get_object().size());
      for (const auto& member : value.get_object()) {
        entries.push_back(OrvObjectDictionaryEntry{std::string(member.key()), fromJSON(member.value())});
      }
      return OrvObject(std::move(entries));
    }
  }
  return OrvObject();
}

std::optional<boost::json::value> OrvObject::toJSON() const {
  struct Visitor {
    std::optional<boost::json::value> operator()(OrvNull) const { return boost::json::value(nullptr); }
    std::optional<boost::json::value> operator()(const OrvNumber& number) const { return number.toJSON(); }
    std::optional<boost::json::value> operator()(const std::string& text) const { return boost::json::value(text); }
    std::optional<boost::json::value> operator()(OrvDate) const { return std::nullopt; }
    std::optional<boost::json::value> operator()(const OrvObjectArray& elements) const {
      boost::json::array result;
      result.reserve(elements.size());
      for (const auto& element : elements) {
        auto converted = element.toJSON();
        if (!converted) return std::nullopt;
        result.push_back(std::move(*converted));
      }
      return boost::json::value(std::move(result));
    }
    std::optional<boost::json::value> operator()(const OrvObjectDictionary& entries) const {
      boost::json::object result;
      result.reserve(entries.size());
      for (const auto& entry : entries) {
        auto converted = entry.value.toJSON();
        if (!converted) return std::nullopt;
        result[entry.key] = std::move(*converted);
      }
      return boost::json::value(std::move(result));
    }
    std::optional<boost::json::value> operator()(const std::shared_ptr<OrvSecureCoding>&) const { return std::nullopt; }
  };
  return std::visit(Visitor{}, storage_);
}

const OrvClass& OrvObject::objectClass() const {
  struct Visitor {
    const OrvClass& operator()(OrvNull) const { return OrvClass::null(); }
    const OrvClass& operator()(const OrvNumber&) const { return OrvClass::number(); }
    const OrvClass& operator()(const std::string&) const { return OrvClass::string(); }
    const OrvClass& operator()(OrvDate) const { return OrvClass::date(); }
    const OrvClass& operator()(const OrvObjectArray&) const { return OrvClass::array(); }
    const OrvClass& operator()(const OrvObjectDictionary&) const { return OrvClass::dictionary(); }
    const OrvClass& operator()(const std::shared_ptr<OrvSecureCoding>& object) const {
      return object ? object->classForCoder() : OrvClass::null();
    }
  };
  return std::visit(Visitor{}, storage_);
}

std::shared_ptr<OrvSecureCoding> OrvObject::archivable() const {
  const auto* object = std::get_if<std::shared_ptr<OrvSecureCoding>>(&storage_);
  return object ? *object : nullptr;
}

// MARK: - OrvKeyedArchiver

std::optional<OrvData> OrvKeyedArchiver::archivedDataWithRootObject(const std::shared_ptr<const OrvSecureCoding>& rootObject,
                                                                    std::optional<OrvError>* error) {
  OrvKeyedArchiver coder;
  boost::json::value rootNode;
  try {
    if (rootObject) rootNode = coder.nodeForArchivable(*rootObject);
  } catch (const std::exception& exception) {
    coder.fail(OrvKeyedArchiverErrorInvalidValue, std::string("archiving failed: ") + exception.what());
  }
  return coder.finish(std::move(rootNode), error);
}

std::optional<OrvData> OrvKeyedArchiver::archivedDataWithRootObject(const OrvObject& rootObject, std::optional<OrvError>* error) {
  OrvKeyedArchiver coder;
  boost::json::value rootNode;
  try {
    rootNode = coder.nodeForObject(rootObject);
  } catch (const std::exception& exception) {
    coder.fail(OrvKeyedArchiverErrorInvalidValue, std::string("archiving failed: ") + exception.what());
  }
  return coder.finish(std::move(rootNode), error);
}

std::optional<OrvData> OrvKeyedArchiver::finish(boost::json::value rootNode, std::optional<OrvError>* error) {
  std::optional<OrvData> data;
  if (!error_) {
    try {
      boost::json::object envelope;
      envelope[archiverKey] = archiverName;
      envelope[versionKey] = OrvKeyedArchiveFormatVersion;
      envelope[rootKey] = std::move(rootNode);
      data = boost::json::serialize(envelope);
    } catch (const std::exception& exception) {
      fail(OrvKeyedArchiverErrorInvalidValue, std::string("archiving failed: ") + exception.what());
    }
  }
  if (error) *error = error_;
  return error_ ? std::nullopt : data;
}

void OrvKeyedArchiver::failWithError(OrvError error) {
  if (!error_) error_ = std::move(error);
}

void OrvKeyedArchiver::fail(std::int64_t code, const std::string& message) {
  failWithError(makeError(code, message + " (at " + pathString(path_) + ")"));
}

// A value without children still takes a level when it is decoded.
bool OrvKeyedArchiver::leafFits() {
  if (depth_ + 1 <= OrvKeyedArchiveMaximumDepth) return true;
  fail(OrvKeyedArchiverErrorInvalidValue, "objects nest deeper than the archive allows");
  return false;
}

void OrvKeyedArchiver::store(std::string_view key, boost::json::value node) {
  if (error_ || !fields_) return;
  (*fields_)[key] = std::move(node);
}

boost::json::value OrvKeyedArchiver::nodeForString(const std::string& string) {
  // The container is JSON text, which cannot carry arbitrary bytes.
  if (!isValidUTF8(string)) {
    fail(OrvKeyedArchiverErrorInvalidValue, "a string is not valid UTF-8");
    return {};
  }
  return boost::json::object{{classKey, OrvClass::string().name()}, {valueKey, string}};
}

boost::json::value OrvKeyedArchiver::nodeForArchivable(const OrvSecureCoding& object) {
  DepthScope depth(depth_);
  if (depth.exceeded()) {
    fail(OrvKeyedArchiverErrorInvalidValue, "objects nest deeper than the archive allows");
    return {};
  }
  const OrvClass& objectClass = object.classForCoder();
  if (!objectClass.supportsSecureCoding()) {
    fail(OrvKeyedArchiverErrorInvalidValue, "class \"" + objectClass.name() + "\" does not support secure coding");
    return {};
  }
  boost::json::object node;
  node[classKey] = objectClass.name();
  boost::json::object& fields = node[fieldsKey].emplace_object();
  {
    RestoreOnExit<boost::json::object*> restore(fields_);
    fields_ = &fields;
    object.encodeWithCoder(*this);
  }
  return node;
}

boost::json::value OrvKeyedArchiver::nodeForObject(const OrvObject& object) {
  if (auto archivable = object.archivable()) return nodeForArchivable(*archivable);
  DepthScope depth(depth_);
  if (depth.exceeded()) {
    fail(OrvKeyedArchiverErrorInvalidValue, "objects nest deeper than the archive allows");
    return {};
  }
  struct Visitor {
    OrvKeyedArchiver& coder;
    boost::json::value operator()(OrvNull) const { return boost::json::object{{classKey, OrvClass::null().name()}}; }
    boost::json::value operator()(const OrvNumber& number) const { return numberNode(number); }
    boost::json::value operator()(const std::string& text) const { return coder.nodeForString(text); }
    boost::json::value operator()(OrvDate date) const { return dateNode(date); }
    boost::json::value operator()(const OrvObjectArray& elements) const {
      boost::json::array items;
      items.reserve(elements.size());
      for (std::size_t i = 0; i < elements.size() && !coder.error_; ++i) {
        PathScope path(coder.path_, indexComponent(i));
        items.push_back(coder.nodeForObject(elements[i]));
      }
      return boost::json::object{{classKey, OrvClass::array().name()}, {itemsKey, std::move(items)}};
    }
    boost::json::value operator()(const OrvObjectDictionary& entries) const {
      boost::json::object members;
      members.reserve(entries.size());
      for (const auto& entry : entries) {
        if (coder.error_) break;
        PathScope path(coder.path_, entry.key);
        if (!isValidUTF8(entry.key)) {
          coder.fail(OrvKeyedArchiverErrorInvalidValue, "a dictionary key is not valid UTF-8");
          break;
        }
        members[entry.key] = coder.nodeForObject(entry.value);
      }
      return boost::json::object{{classKey, OrvClass::dictionary().name()}, {entriesKey, std::move(members)}};
    }
    boost::json::value operator()(const std::shared_ptr<OrvSecureCoding>&) const {
      return boost::json::object{{classKey, OrvClass::null().name()}};  // only a nil instance gets here
    }
  };
  return std::visit(Visitor{*this}, object.storage());
}

boost::json::value OrvKeyedArchiver::nodeForJSON(const boost::json::value& value) {
  DepthScope depth(depth_);
  if (depth.exceeded()) {
    fail(OrvKeyedArchiverErrorInvalidValue, "objects nest deeper than the archive allows");
    return {};
  }
  switch (value.kind()) {
    case boost::json::kind::null:
      return boost::json::object{{classKey, OrvClass::null().name()}};
    case boost::json::kind::bool_:
    case boost::json::kind::int64:
    case boost::json::kind::uint64:
    case boost::json::kind::double_:
      return numberNode(*OrvNumber::fromJSON(value));
    case boost::json::kind::string:
      return nodeForString(std::string(value.get_string()));
    case boost::json::kind::array: {
      boost::json::array items;
      items.reserve(value.get_array().size());
      std::size_t index = 0;
      for (const auto& element : value.get_array()) {
        if (error_) break;
        PathScope path(path_, indexComponent(index++));
        items.push_back(nodeForJSON(element));
      }
      return boost::json::object{{classKey, OrvClass::array().name()}, {itemsKey, std::move(items)}};
    }
    case boost::json::kind::object: {
      boost::json::object members;
      members.reserve(value.get_object().size());
      for (const auto& member : value.get_object()) {
        if (error_) break;
        PathScope path(path_, std::string(member.key()));
        if (!isValidUTF8(member.key())) {
          fail(OrvKeyedArchiverErrorInvalidValue, "a dictionary key is not valid UTF-8");
          break;
        }
        members[member.key()] = nodeForJSON(member.value());
      }
      return boost::json::object{{classKey, OrvClass::dictionary().name()}, {entriesKey, std::move(members)}};
    }
  }
  return {};
}

void OrvKeyedArchiver::encodeObject(const std::shared_ptr<const OrvSecureCoding>& object, std::string_view key) {
  if (!object || error_) return;
  PathScope path(path_, std::string(key));
  auto node = nodeForArchivable(*object);
  store(key, std::move(node));
}

void OrvKeyedArchiver::encodeObject(const OrvObject& object, std::string_view key) {
  if (error_) return;
  PathScope path(path_, std::string(key));
  auto node = nodeForObject(object);
  store(key, std::move(node));
}

void OrvKeyedArchiver::encodeString(const std::optional<std::string>& string, std::string_view key) {
  if (!string || error_) return;
  PathScope path(path_, std::string(key));
  if (!leafFits()) return;
  auto node = nodeForString(*string);
  store(key, std::move(node));
}

void OrvKeyedArchiver::encodeNumber(const std::optional<OrvNumber>& number, std::string_view key) {
  if (!number || error_) return;
  PathScope path(path_, std::string(key));
  if (!leafFits()) return;
  store(key, numberNode(*number));
}

void OrvKeyedArchiver::encodeBool(bool value, std::string_view key) { encodeNumber(OrvNumber(value), key); }

void OrvKeyedArchiver::encodeDate(const std::optional<OrvDate>& date, std::string_view key) {
  if (!date || error_) return;
  PathScope path(path_, std::string(key));
  if (!leafFits()) return;
  store(key, dateNode(*date));
}

void OrvKeyedArchiver::encodeStrings(const std::optional<std::vector<std::string>>& strings, std::string_view key) {
  if (!strings || error_) return;
  PathScope path(path_, std::string(key));
  DepthScope depth(depth_);
  if (depth.exceeded() || (!strings->empty() && !leafFits())) {
    fail(OrvKeyedArchiverErrorInvalidValue, "objects nest deeper than the archive allows");
    return;
  }
  boost::json::array items;
  items.reserve(strings->size());
  for (std::size_t i = 0; i < strings->size() && !error_; ++i) {
    PathScope element(path_, indexComponent(i));
    items.push_back(nodeForString((*strings)[i]));
  }
  store(key, boost::json::object{{classKey, OrvClass::array().name()}, {itemsKey, std::move(items)}});
}

void OrvKeyedArchiver::encodeArchivableArray(const std::vector<const OrvSecureCoding*>& elements, std::string_view key) {
  if (error_) return;
  PathScope path(path_, std::string(key));
  DepthScope depth(depth_);
  if (depth.exceeded()) {
    fail(OrvKeyedArchiverErrorInvalidValue, "objects nest deeper than the archive allows");
    return;
  }
  boost::json::array items;
  items.reserve(elements.size());
  for (std::size_t i = 0; i < elements.size() && !error_; ++i) {
    PathScope element(path_, indexComponent(i));
    // An array cannot hold nil; archiving it anyway would only move the failure to decoding.
    if (!elements[i]) {
      fail(OrvKeyedArchiverErrorInvalidValue, "an array holds nil");
      return;
    }
    items.push_back(nodeForArchivable(*elements[i]));
  }
  store(key, boost::json::object{{classKey, OrvClass::array().name()}, {itemsKey, std::move(items)}});
}

void OrvKeyedArchiver::encodeJSONValue(const std::optional<boost::json::value>& value, std::string_view key) {
  if (!value || error_) return;
  PathScope path(path_, std::string(key));
  auto node = nodeForJSON(*value);
  store(key, std::move(node));
}

// MARK: - OrvKeyedUnarchiver

std::optional<OrvObject> OrvKeyedUnarchiver::unarchivedObjectOfClasses(const OrvClassSet& classes, const OrvData& data,
                                                                       std::optional<OrvError>* error) {
  OrvKeyedUnarchiver coder;
  std::optional<OrvObject> result;
  try {
    result = coder.decodeRoot(classes, data);
  } catch (const std::exception& exception) {
    coder.fail(OrvKeyedArchiverErrorCorrupt, std::string("the archive could not be read: ") + exception.what());
  }
  if (error) *error = coder.error_;
  if (coder.error_) return std::nullopt;
  return result;
}

std::optional<OrvObject> OrvKeyedUnarchiver::unarchivedObjectOfClass(const OrvClass& objectClass, const OrvData& data,
                                                                     std::optional<OrvError>* error) {
  return unarchivedObjectOfClasses(OrvClassSet{&objectClass}, data, error);
}

std::optional<OrvObject> OrvKeyedUnarchiver::decodeRoot(const OrvClassSet& classes, const OrvData& data) {
  boost::json::parse_options options;
  options.max_depth = maximumJSONDepth;
  boost::system::error_code code;
  const boost::json::value document = boost::json::parse(data, code, {}, options);
  if (code) {
    fail(OrvKeyedArchiverErrorCorrupt, "the data is not an archive (" + code.message() + ")");
    return std::nullopt;
  }
  const boost::json::object* envelope = document.if_object();
  const boost::json::value* archiver = envelope ? envelope->if_contains(archiverKey) : nullptr;
  if (!archiver || !archiver->is_string() || archiver->get_string() != archiverName) {
    fail(OrvKeyedArchiverErrorCorrupt, "the data is not a keyed archive");
    return std::nullopt;
  }
  const boost::json::value* version = envelope->if_contains(versionKey);
  if (!version || !(version->is_int64() || version->is_uint64())) {
    fail(OrvKeyedArchiverErrorCorrupt, "the archive has no format version");
    return std::nullopt;
  }
  if (!version->is_int64() || version->get_int64() != OrvKeyedArchiveFormatVersion) {
    fail(OrvKeyedArchiverErrorVersion, "the archive's format version " + boost::json::serialize(*version) +
                                           " is not supported (this reader knows version " +
                                           std::to_string(OrvKeyedArchiveFormatVersion) + ")");
    return std::nullopt;
  }
  const boost::json::value* root = envelope->if_contains(rootKey);
  if (!root) {
    fail(OrvKeyedArchiverErrorCorrupt, "the archive has no root object");
    return std::nullopt;
  }
  if (root->is_null()) return std::nullopt;  // an archived nil
  return decodeNode(*root, classes);
}

std::optional<OrvObject> OrvKeyedUnarchiver::decodeNode(const boost::json::value& node, const OrvClassSet& classes) {
  if (error_) return std::nullopt;
  DepthScope depth(depth_);
  if (depth.exceeded()) {
    fail(OrvKeyedArchiverErrorCorrupt, "objects nest deeper than " + std::to_string(OrvKeyedArchiveMaximumDepth) + " levels");
    return std::nullopt;
  }
  const boost::json::object* object = node.if_object();
  const boost::json::value* nameValue = object ? object->if_contains(classKey) : nullptr;
  if (!nameValue || !nameValue->is_string()) {
    fail(OrvKeyedArchiverErrorCorrupt, "a value is not an archived object");
    return std::nullopt;
  }
  const std::string_view name = nameValue->get_string();
  const OrvClass* objectClass = OrvClass::classNamed(name);
  if (!objectClass) {
    fail(OrvKeyedArchiverErrorUnknownClass, "the archive names the unknown class \"" + std::string(name) + "\"");
    return std::nullopt;
  }
  if (!isAllowed(*objectClass, classes)) {
    fail(OrvKeyedArchiverErrorClassNotAllowed,
         "a value of class \"" + objectClass->name() + "\" is not allowed here (allowed: " + classNames(classes) + ")");
    return std::nullopt;
  }
  if (!objectClass->supportsSecureCoding()) {
    fail(OrvKeyedArchiverErrorClassNotAllowed, "class \"" + objectClass->name() + "\" does not support secure coding");
    return std::nullopt;
  }

  const auto corrupt = [&](const char* what) -> std::optional<OrvObject> {
    fail(OrvKeyedArchiverErrorCorrupt, "a value of class \"" + objectClass->name() + "\" " + what);
    return std::nullopt;
  };

  if (objectClass == &OrvClass::null()) return OrvObject(OrvNull{});
  if (objectClass == &OrvClass::number()) {
    auto number = numberFromNode(*object);
    return number ? std::optional<OrvObject>(OrvObject(*number)) : corrupt("has no valid number");
  }
  if (objectClass == &OrvClass::string()) {
    const boost::json::value* value = object->if_contains(valueKey);
    if (!value || !value->is_string()) return corrupt("has no text");
    return OrvObject(std::string(value->get_string()));
  }
  if (objectClass == &OrvClass::date()) {
    auto date = dateFromNode(*object);
    return date ? std::optional<OrvObject>(OrvObject(*date)) : corrupt("has no valid time");
  }
  if (objectClass->isSubclassOfClass(OrvClass::array())) {
    const boost::json::value* items = object->if_contains(itemsKey);
    if (!items || !items->is_array()) return corrupt("has no elements");
    OrvObjectArray elements;
    elements.reserve(items->get_array().size());
    std::size_t index = 0;
    for (const auto& item : items->get_array()) {
      PathScope path(path_, indexComponent(index++));
      // The classes allowed for a collection's key apply to its contents as well.
      auto element = decodeNode(item, classes);
      if (!element) return std::nullopt;
      elements.push_back(std::move(*element));
    }
    return OrvObject(std::move(elements));
  }
  if (objectClass->isSubclassOfClass(OrvClass::dictionary())) {
    const boost::json::value* members = object->if_contains(entriesKey);
    if (!members || !members->is_object()) return corrupt("has no entries");
    if (!members->get_object().empty() && !isAllowed(OrvClass::string(), classes)) {
      fail(OrvKeyedArchiverErrorClassNotAllowed, "dictionary keys of class \"" + OrvClass::string().name() +
                                                     "\" are not allowed here (allowed: " + classNames(classes) + ")");
      return std::nullopt;
    }
    OrvObjectDictionary entries;
    entries.reserve(members->get_object().size());
    for (const auto& member : members->get_object()) {
      PathScope path(path_, std::string(member.key()));
      auto value = decodeNode(member.value(), classes);
      if (!value) return std::nullopt;
      entries.push_back(OrvObjectDictionaryEntry{std::string(member.key()), std::move(*value)});
    }
    return OrvObject(std::move(entries));
  }
  return decodeArchivable(*objectClass, *object);
}

std::optional<OrvObject> OrvKeyedUnarchiver::decodeArchivable(const OrvClass& objectClass, const boost::json::object& node) {
  const boost::json::value* fields = node.if_contains(fieldsKey);
  if (!fields || !fields->is_object()) {
    fail(OrvKeyedArchiverErrorCorrupt, "an object of class \"" + objectClass.name() + "\" has no fields");
    return std::nullopt;
  }
  if (!objectClass.decoder()) {
    fail(OrvKeyedArchiverErrorUnknownClass, "class \"" + objectClass.name() + "\" cannot be decoded");
    return std::nullopt;
  }
  std::shared_ptr<OrvSecureCoding> instance;
  {
    RestoreOnExit<const boost::json::object*> restore(fields_);
    fields_ = &fields->get_object();
    instance = objectClass.decoder()(*this);
  }
  if (error_ || !instance) return std::nullopt;
  return OrvObject(std::move(instance));
}

bool OrvKeyedUnarchiver::containsValueForKey(std::string_view key) const { return fields_ && fields_->contains(key); }

std::optional<OrvObject> OrvKeyedUnarchiver::decodeObjectOfClasses(const OrvClassSet& classes, std::string_view key) {
  if (error_ || !fields_) return std::nullopt;
  const boost::json::value* node = fields_->if_contains(key);
  if (!node) return std::nullopt;
  PathScope path(path_, std::string(key));
  return decodeNode(*node, classes);
}

std::optional<OrvObject> OrvKeyedUnarchiver::decodeObjectOfClass(const OrvClass& objectClass, std::string_view key) {
  return decodeObjectOfClasses(OrvClassSet{&objectClass}, key);
}

std::optional<std::string> OrvKeyedUnarchiver::decodeStringForKey(std::string_view key) {
  auto object = decodeObjectOfClass(OrvClass::string(), key);
  if (!object || !object->string()) return std::nullopt;
  return *object->string();
}

std::optional<OrvNumber> OrvKeyedUnarchiver::decodeNumberForKey(std::string_view key) {
  auto object = decodeObjectOfClass(OrvClass::number(), key);
  if (!object || !object->number()) return std::nullopt;
  return *object->number();
}

bool OrvKeyedUnarchiver::decodeBoolForKey(std::string_view key) {
  auto number = decodeNumberForKey(key);
  return number && number->boolValue();
}

std::optional<OrvDate> OrvKeyedUnarchiver::decodeDateForKey(std::string_view key) {
  auto object = decodeObjectOfClass(OrvClass::date(), key);
  if (!object || !object->date()) return std::nullopt;
  return *object->date();
}

std::optional<std::vector<std::string>> OrvKeyedUnarchiver::decodeArrayOfStringsOfClasses(const OrvClassSet& classes,
                                                                                          std::string_view key) {
  auto object = decodeObjectOfClasses(classes, key);
  if (!object) return std::nullopt;
  const OrvObjectArray* elements = requireArray(*object, key);
  if (!elements) return std::nullopt;
  std::vector<std::string> result;
  result.reserve(elements->size());
  for (const auto& element : *elements) {
    if (!element.string()) {
      failWrongElement(element, OrvClass::string(), key);
      return std::nullopt;
    }
    result.push_back(*element.string());
  }
  return result;
}

std::optional<boost::json::value> OrvKeyedUnarchiver::decodeJSONValueOfClasses(const OrvClassSet& classes, std::string_view key) {
  auto object = decodeObjectOfClasses(classes, key);
  if (!object) return std::nullopt;
  auto value = object->toJSON();
  if (!value) {
    PathScope path(path_, std::string(key));
    fail(OrvKeyedArchiverErrorClassNotAllowed, "the value holds a class that JSON cannot represent");
  }
  return value;
}

const OrvObjectArray* OrvKeyedUnarchiver::requireArray(const OrvObject& object, std::string_view key) {
  if (const OrvObjectArray* elements = object.array()) return elements;
  PathScope path(path_, std::string(key));
  fail(OrvKeyedArchiverErrorClassNotAllowed,
       "a value of class \"" + object.objectClass().name() + "\" was found where an array is expected");
  return nullptr;
}

void OrvKeyedUnarchiver::failWrongElement(const OrvObject& element, const OrvClass& expected, std::string_view key) {
  PathScope path(path_, std::string(key));
  fail(OrvKeyedArchiverErrorClassNotAllowed, "an array element of class \"" + element.objectClass().name() +
                                                 "\" was found where \"" + expected.name() + "\" is expected");
}

void OrvKeyedUnarchiver::failWithError(OrvError error) {
  if (!error_) error_ = std::move(error);
}

void OrvKeyedUnarchiver::fail(std::int64_t code, const std::string& message) {
  failWithError(makeError(code, message + " (at " + pathString(path_) + ")"));
}
