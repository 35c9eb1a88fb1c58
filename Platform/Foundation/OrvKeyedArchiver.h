#pragma once
// Keyed archiving with secure decoding. Every archived object records its class name and writes each
// property under its own key; decoding asks for a C++ type at every key, and that type is the set of
// classes the key accepts: anything else is refused with an error value. The container is JSON; its
// layout is described in OrvKeyedArchiveFormat.md next to this file.
//
// The types an archive holds, and the classes they accept when decoded:
//   OrvNumber                      OrvNumber
//   bool                           OrvNumber (written as a number made from the boolean)
//   std::string                    OrvString
//   OrvDate                        OrvDate
//   std::vector<T>                 OrvArray, OrvMutableArray, each element as T
//   std::map<std::string, T>       OrvDictionary, OrvMutableDictionary, each value as T
//   boost::json::value             OrvNumber, OrvString and arrays and dictionaries of those. JSON null
//                                  archives as OrvNull, which is accepted nowhere.
//   std::shared_ptr<T>             T, or a subclass named by OrvCoderSubclasses<T>, for an archivable class T
//
// The conversions are overloads chosen at compile time by the type, composing through the containers
// the way Boost.JSON's value_from/value_to do; they are not those functions because every value here
// travels in a node that names its class, and the standard types already have plain JSON conversions.
//
// An archivable class derives from OrvSecureCoding and provides:
//   static constexpr std::string_view orvClassName = "...";          // its name in archives
//   static constexpr bool supportsSecureCoding() noexcept { return true; }
//   static std::shared_ptr<T> initWithCoder(OrvKeyedUnarchiver&);    // through the designated initialiser
// and, to have its subclasses accepted where it is asked for, a specialisation of OrvCoderSubclasses.
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "OrvError.h"
#include "OrvNumber.h"
#include "OrvTypes.h"

inline constexpr const char* OrvKeyedArchiverErrorDomain = "com.varnel.OrvFoundation.KeyedArchiver";
// The data is not an archive, is truncated, nests too deep, or holds a node of the wrong shape.
inline constexpr std::int64_t OrvKeyedArchiverErrorCorrupt = 1;
// A value's class is outside the classes the decoder allowed for its key. Code 3 is retired: a class
// name nothing carries is refused with this code as well.
inline constexpr std::int64_t OrvKeyedArchiverErrorClassNotAllowed = 2;
// The archive was written in a format version this reader does not understand.
inline constexpr std::int64_t OrvKeyedArchiverErrorVersion = 4;
// Archiving refused a value (invalid UTF-8, a nil array element, nesting too deep).
inline constexpr std::int64_t OrvKeyedArchiverErrorInvalidValue = 5;

inline constexpr std::int64_t OrvKeyedArchiveFormatVersion = 1;
// Objects nest at most this deep (the root is level 1); deeper archives are refused both ways.
inline constexpr std::size_t OrvKeyedArchiveMaximumDepth = 128;

class OrvKeyedArchiver;
class OrvKeyedUnarchiver;

class OrvSecureCoding {
 public:
  virtual ~OrvSecureCoding() = default;
  // The name the instance archives under: that of its own class, also through a superclass pointer.
  virtual std::string_view className() const = 0;
  virtual void encodeWithCoder(OrvKeyedArchiver& coder) const = 0;
};

template <class... Classes>
struct OrvClassList {};
// The subclasses whose archives a key asking for T accepts as well; a class hierarchy specialises it.
template <class T>
struct OrvCoderSubclasses {
  using type = OrvClassList<>;
};

// What decoding gives for a T: nothing is nullptr for archivable objects and std::nullopt otherwise.
template <class T>
struct OrvDecodedType {
  using type = std::optional<T>;
};
template <class T>
struct OrvDecodedType<std::shared_ptr<T>> {
  using type = std::shared_ptr<T>;
};
template <class T>
using OrvDecoded = typename OrvDecodedType<T>::type;

namespace orv::detail {
// Thrown inside the conversions only; the coders turn it into an error value that names the key path.
struct KeyedArchiveRefusal {
  std::int64_t code;
  std::string message;
  std::string path;
};
}  // namespace orv::detail

class OrvKeyedArchiver {
 public:
  // A nil root (nullptr, std::nullopt) archives as nil. On failure: nothing, and the error when asked
  // for; on success the error is set to nothing.
  template <class T>
  static std::optional<OrvData> archivedDataWithRootObject(const T& rootObject, std::optional<OrvError>* error = nullptr) {
    return archive([&] { return isNil(rootObject) ? boost::json::value() : toNode(rootObject, 1); }, error);
  }

  // Nothing (nullptr, std::nullopt) writes nothing, so that it decodes as a missing key.
  template <class T>
  void encode(const T& value, std::string_view key) {
    if (!isNil(value)) store(key, [&] { return toNode(value, depth_ + 1); });
  }

 private:
  OrvKeyedArchiver(boost::json::object& fields, std::size_t depth) : fields_(fields), depth_(depth) {}
  static std::optional<OrvData> archive(const std::function<boost::json::value()>& rootNode, std::optional<OrvError>* error);
  void store(std::string_view key, const std::function<boost::json::value()>& node);

  template <class T>
  static bool isNil(const T& value) {
    if constexpr (requires { value.has_value(); }) return !value.has_value();
    if constexpr (requires { value.get(); }) return !value;
    return false;
  }
  // The node of a value at a depth in the archive, where the root is at 1.
  static boost::json::value toNode(const OrvNumber& number, std::size_t depth);
  static boost::json::value toNode(bool value, std::size_t depth);
  static boost::json::value toNode(const std::string& text, std::size_t depth);
  static boost::json::value toNode(const OrvDate& date, std::size_t depth);
  static boost::json::value toNode(const boost::json::value& value, std::size_t depth);
  static boost::json::value toNode(const OrvSecureCoding* object, std::size_t depth);
  template <class T>
  static boost::json::value toNode(const std::shared_ptr<T>& object, std::size_t depth) {
    return toNode(static_cast<const OrvSecureCoding*>(object.get()), depth);
  }
  template <class T>
  static boost::json::value toNode(const std::optional<T>& value, std::size_t depth) {
    return toNode(*value, depth);
  }
  template <class T>
  static boost::json::value toNode(const std::vector<T>& elements, std::size_t depth) {
    if (!elements.empty()) requireDepth(depth + 1);
    boost::json::array items;
    items.reserve(elements.size());
    for (const T& element : elements) items.push_back(toNode(element, depth + 1));
    return collectionNode("OrvArray", "$items", std::move(items));
  }
  template <class T>
  static boost::json::value toNode(const std::map<std::string, T>& entries, std::size_t depth) {
    if (!entries.empty()) requireDepth(depth + 1);
    boost::json::object members;
    for (const auto& [key, value] : entries) {
      requireKey(key);
      members[key] = toNode(value, depth + 1);
    }
    return collectionNode("OrvDictionary", "$entries", std::move(members));
  }
  static boost::json::value collectionNode(std::string_view className, std::string_view member, boost::json::value content);
  static void requireDepth(std::size_t depth);
  static void requireKey(std::string_view key);

  boost::json::object& fields_;
  std::size_t depth_;
  std::optional<orv::detail::KeyedArchiveRefusal> refusal_;
};

class OrvKeyedUnarchiver {
 public:
  // Nothing and an error for anything that is not a well-formed archive whose root is a T; nothing and
  // no error for an archived nil root.
  template <class T>
  static OrvDecoded<T> unarchivedObjectOfType(const OrvData& data, std::optional<OrvError>* error = nullptr) {
    OrvDecoded<T> result{};
    unarchive(data, error, [&](const boost::json::value& root) { result = fromNode(root, std::type_identity<T>{}); });
    return result;
  }
  template <class T>
  static std::shared_ptr<T> unarchivedObjectOfClass(const OrvData& data, std::optional<OrvError>* error = nullptr) {
    return unarchivedObjectOfType<std::shared_ptr<T>>(data, error);
  }

  // A missing key decodes as nothing without an error. A value outside T's classes fails the whole
  // archive: this call and every later one give nothing, and the unarchiver reports the error.
  template <class T>
  OrvDecoded<T> decode(std::string_view key) {
    OrvDecoded<T> result{};
    load(key, [&](const boost::json::value& node) { result = fromNode(node, std::type_identity<T>{}); });
    return result;
  }

 private:
  explicit OrvKeyedUnarchiver(const boost::json::object& fields) : fields_(fields) {}
  static void unarchive(const OrvData& data, std::optional<OrvError>* error,
                        const std::function<void(const boost::json::value&)>& decodeRoot);
  void load(std::string_view key, const std::function<void(const boost::json::value&)>& decodeNode);

  // The value of a node as a T; anything else is refused.
  static OrvNumber fromNode(const boost::json::value& node, std::type_identity<OrvNumber>);
  static bool fromNode(const boost::json::value& node, std::type_identity<bool>);
  static std::string fromNode(const boost::json::value& node, std::type_identity<std::string>);
  static OrvDate fromNode(const boost::json::value& node, std::type_identity<OrvDate>);
  static boost::json::value fromNode(const boost::json::value& node, std::type_identity<boost::json::value>);
  template <class T>
  static std::vector<T> fromNode(const boost::json::value& node, std::type_identity<std::vector<T>>) {
    const boost::json::array& items = archivedItems(node);
    std::vector<T> elements;
    elements.reserve(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
      atPath(i, [&] { elements.push_back(fromNode(items[i], std::type_identity<T>{})); });
    }
    return elements;
  }
  template <class T>
  static std::map<std::string, T> fromNode(const boost::json::value& node, std::type_identity<std::map<std::string, T>>) {
    std::map<std::string, T> entries;
    for (const auto& member : archivedEntries(node)) {
      const std::string key(member.key());
      atPath(key, [&] { entries[key] = fromNode(member.value(), std::type_identity<T>{}); });
    }
    return entries;
  }
  template <class T>
  static std::shared_ptr<T> fromNode(const boost::json::value& node, std::type_identity<std::shared_ptr<T>>) {
    return fromObjectNode<T>(node, typename OrvCoderSubclasses<T>::type{});
  }
  template <class T, class... Subclasses>
  static std::shared_ptr<T> fromObjectNode(const boost::json::value& node, OrvClassList<Subclasses...>) {
    static_assert(T::supportsSecureCoding(), "only classes that support secure coding are decoded");
    const std::string_view name = archivedClassName(node);
    std::shared_ptr<T> object;
    const auto decodeAs = [&]<class C>(const C*) {
      if (name != C::orvClassName) return false;
      decodeFields(node, [&](OrvKeyedUnarchiver& coder) { object = C::initWithCoder(coder); });
      return true;
    };
    if (!decodeAs(static_cast<const T*>(nullptr)) && !(decodeAs(static_cast<const Subclasses*>(nullptr)) || ...)) {
      refuseClass(name, {T::orvClassName, Subclasses::orvClassName...});
    }
    return object;
  }
  // The node's class name, and the member holding the elements of an array or the entries of a dictionary.
  static std::string_view archivedClassName(const boost::json::value& node);
  static const boost::json::array& archivedItems(const boost::json::value& node);
  static const boost::json::object& archivedEntries(const boost::json::value& node);
  [[noreturn]] static void refuseClass(std::string_view name, std::vector<std::string_view> allowed);
  // Decodes the node's fields; a failure inside comes out as a refusal.
  static void decodeFields(const boost::json::value& node, const std::function<void(OrvKeyedUnarchiver&)>& decode);
  // Runs body; a refusal from it gets the key or "[index]" put in front of its path.
  static void atPath(std::string_view key, const std::function<void()>& body);
  static void atPath(std::size_t index, const std::function<void()>& body);

  const boost::json::object& fields_;
  std::optional<orv::detail::KeyedArchiveRefusal> refusal_;
};
