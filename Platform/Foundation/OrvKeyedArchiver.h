#pragma once
// Keyed archiving with secure decoding. Every archived object records its class name and writes each
// property under its own key; decoding names the class, or the set of classes, it accepts for every
// key and refuses anything else with an error value. The container is JSON; its layout is described in
// OrvKeyedArchiveFormat.md next to this file.
//
// An archivable class derives from OrvSecureCoding and provides, by convention:
//   static const OrvClass& orvClass();          // registered once through OrvClass::registerClass
//   static bool supportsSecureCoding();         // true
//   static std::shared_ptr<T> initWithCoder(OrvKeyedUnarchiver&);  // through the designated initialiser
#include <boost/json/value.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "OrvError.h"
#include "OrvNumber.h"
#include "OrvTypes.h"

inline constexpr const char* OrvKeyedArchiverErrorDomain = "com.varnel.OrvFoundation.KeyedArchiver";
// The data is not an archive, is truncated, or holds a node of the wrong shape.
inline constexpr std::int64_t OrvKeyedArchiverErrorCorrupt = 1;
// A value's class is outside the classes the decoder allowed for its key.
inline constexpr std::int64_t OrvKeyedArchiverErrorClassNotAllowed = 2;
// The archive names a class that this process does not know.
inline constexpr std::int64_t OrvKeyedArchiverErrorUnknownClass = 3;
// The archive was written in a format version this reader does not understand.
inline constexpr std::int64_t OrvKeyedArchiverErrorVersion = 4;
// Archiving refused a value (invalid UTF-8, a nil array element, nesting too deep, no secure coding).
inline constexpr std::int64_t OrvKeyedArchiverErrorInvalidValue = 5;

inline constexpr std::int64_t OrvKeyedArchiveFormatVersion = 1;
// Objects nest at most this deep (the root is level 1); deeper archives are refused both ways.
inline constexpr std::size_t OrvKeyedArchiveMaximumDepth = 128;

class OrvKeyedArchiver;
class OrvKeyedUnarchiver;
class OrvSecureCoding;

// A class as archives know it: its name, its superclass and how to rebuild an instance. Descriptors
// are unique per name and live for the whole process, so they compare by address.
class OrvClass {
 public:
  using Decoder = std::function<std::shared_ptr<OrvSecureCoding>(OrvKeyedUnarchiver&)>;

  OrvClass(std::string name, const OrvClass* superclass, bool supportsSecureCoding, Decoder decoder);
  OrvClass(const OrvClass&) = delete;
  OrvClass& operator=(const OrvClass&) = delete;

  const std::string& name() const noexcept { return name_; }
  const OrvClass* superclass() const noexcept { return superclass_; }
  bool supportsSecureCoding() const noexcept { return supportsSecureCoding_; }
  const Decoder& decoder() const noexcept { return decoder_; }
  // True for the class itself and for any class it derives from.
  bool isSubclassOfClass(const OrvClass& other) const noexcept;

  // The platform value classes. A mutable array or dictionary is a kind of its immutable class.
  static const OrvClass& number();
  static const OrvClass& string();
  static const OrvClass& array();
  static const OrvClass& mutableArray();
  static const OrvClass& dictionary();
  static const OrvClass& mutableDictionary();
  static const OrvClass& null();
  static const OrvClass& date();

  // Makes an archivable class known by its name. Registering a name again returns the first descriptor.
  static const OrvClass& registerClass(std::string name, const OrvClass* superclass, bool supportsSecureCoding, Decoder decoder);
  static const OrvClass* classNamed(std::string_view name);

 private:
  std::string name_;
  const OrvClass* superclass_;
  bool supportsSecureCoding_;
  Decoder decoder_;
};

using OrvClassSet = std::vector<const OrvClass*>;

class OrvSecureCoding {
 public:
  virtual ~OrvSecureCoding() = default;
  // The class an instance archives as.
  virtual const OrvClass& classForCoder() const = 0;
  virtual void encodeWithCoder(OrvKeyedArchiver& coder) const = 0;
  const std::string& className() const { return classForCoder().name(); }
};

// The platform's null object, distinct from nothing.
struct OrvNull {
  friend bool operator==(OrvNull, OrvNull) noexcept { return true; }
};

class OrvObject;
struct OrvObjectDictionaryEntry;
using OrvObjectArray = std::vector<OrvObject>;
using OrvObjectDictionary = std::vector<OrvObjectDictionaryEntry>;  // in insertion order

// One decoded platform object: a value class or an archivable instance.
class OrvObject {
 public:
  using Storage = std::variant<OrvNull, OrvNumber, std::string, OrvDate, OrvObjectArray, OrvObjectDictionary,
                               std::shared_ptr<OrvSecureCoding>>;

  // Defined below OrvObjectDictionaryEntry: clang instantiates the storage's destructor here, which
  // needs the entry type complete.
  OrvObject();
  OrvObject(OrvNull value);
  OrvObject(OrvNumber value);
  OrvObject(std::string value);
  OrvObject(OrvDate value);
  OrvObject(OrvObjectArray value);
  OrvObject(OrvObjectDictionary value);
  OrvObject(std::shared_ptr<OrvSecureCoding> value);

  // JSON null is the null object and a boolean a boolean number.
  static OrvObject fromJSON(const boost::json::value& value);
  // Nothing for dates and archivable instances, which JSON cannot hold.
  std::optional<boost::json::value> toJSON() const;

  const OrvClass& objectClass() const;
  const Storage& storage() const noexcept { return storage_; }

  bool isNull() const noexcept { return std::holds_alternative<OrvNull>(storage_); }
  const OrvNumber* number() const noexcept { return std::get_if<OrvNumber>(&storage_); }
  const std::string* string() const noexcept { return std::get_if<std::string>(&storage_); }
  const OrvDate* date() const noexcept { return std::get_if<OrvDate>(&storage_); }
  const OrvObjectArray* array() const noexcept { return std::get_if<OrvObjectArray>(&storage_); }
  const OrvObjectDictionary* dictionary() const noexcept { return std::get_if<OrvObjectDictionary>(&storage_); }
  std::shared_ptr<OrvSecureCoding> archivable() const;
  template <class T>
  std::shared_ptr<T> objectAs() const {
    return std::dynamic_pointer_cast<T>(archivable());
  }

 private:
  Storage storage_;
};

struct OrvObjectDictionaryEntry {
  std::string key;
  OrvObject value;
};

inline OrvObject::OrvObject() : storage_(OrvNull{}) {}
inline OrvObject::OrvObject(OrvNull value) : storage_(value) {}
inline OrvObject::OrvObject(OrvNumber value) : storage_(value) {}
inline OrvObject::OrvObject(std::string value) : storage_(std::move(value)) {}
inline OrvObject::OrvObject(OrvDate value) : storage_(value) {}
inline OrvObject::OrvObject(std::shared_ptr<OrvSecureCoding> value) : storage_(std::move(value)) {}

class OrvKeyedArchiver {
 public:
  // A nil root archives as nil. On failure: nothing, and the error when asked for; on success the error
  // is set to nothing.
  static std::optional<OrvData> archivedDataWithRootObject(const std::shared_ptr<const OrvSecureCoding>& rootObject,
                                                           std::optional<OrvError>* error = nullptr);
  static std::optional<OrvData> archivedDataWithRootObject(const OrvObject& rootObject, std::optional<OrvError>* error = nullptr);

  // Nothing (nil, std::nullopt) writes nothing, so that it decodes as a missing key.
  void encodeObject(const std::shared_ptr<const OrvSecureCoding>& object, std::string_view key);
  void encodeObject(const OrvObject& object, std::string_view key);
  void encodeString(const std::optional<std::string>& string, std::string_view key);
  void encodeNumber(const std::optional<OrvNumber>& number, std::string_view key);
  // A number made from the boolean.
  void encodeBool(bool value, std::string_view key);
  void encodeDate(const std::optional<OrvDate>& date, std::string_view key);
  void encodeStrings(const std::optional<std::vector<std::string>>& strings, std::string_view key);
  template <class T>
  void encodeObjects(const std::optional<std::vector<std::shared_ptr<T>>>& objects, std::string_view key) {
    if (!objects) return;
    std::vector<const OrvSecureCoding*> elements;
    elements.reserve(objects->size());
    for (const auto& object : *objects) elements.push_back(object.get());
    encodeArchivableArray(elements, key);
  }
  // JSON null archives as the null object, booleans as numbers, objects as dictionaries.
  void encodeJSONValue(const std::optional<boost::json::value>& value, std::string_view key);

  // The first failure wins; later encoding calls do nothing.
  void failWithError(OrvError error);
  const std::optional<OrvError>& error() const noexcept { return error_; }

 private:
  OrvKeyedArchiver() = default;
  void encodeArchivableArray(const std::vector<const OrvSecureCoding*>& elements, std::string_view key);
  void store(std::string_view key, boost::json::value node);
  bool leafFits();
  boost::json::value nodeForArchivable(const OrvSecureCoding& object);
  boost::json::value nodeForObject(const OrvObject& object);
  boost::json::value nodeForJSON(const boost::json::value& value);
  boost::json::value nodeForString(const std::string& string);
  std::optional<OrvData> finish(boost::json::value rootNode, std::optional<OrvError>* error);
  void fail(std::int64_t code, const std::string& message);

  boost::json::object* fields_ = nullptr;
  std::size_t depth_ = 0;
  std::vector<std::string> path_;
  std::optional<OrvError> error_;
};

class OrvKeyedUnarchiver {
 public:
  // Nothing and an error for anything that is not a well-formed archive whose root is of one of the
  // classes; nothing and no error for an archived nil root.
  static std::optional<OrvObject> unarchivedObjectOfClasses(const OrvClassSet& classes, const OrvData& data,
                                                            std::optional<OrvError>* error = nullptr);
  static std::optional<OrvObject> unarchivedObjectOfClass(const OrvClass& objectClass, const OrvData& data,
                                                          std::optional<OrvError>* error = nullptr);
  template <class T>
  static std::shared_ptr<T> unarchivedObjectOfClass(const OrvData& data, std::optional<OrvError>* error = nullptr) {
    auto object = unarchivedObjectOfClass(T::orvClass(), data, error);
    return object ? object->template objectAs<T>() : nullptr;
  }

  bool containsValueForKey(std::string_view key) const;

  // A missing key decodes as nothing without an error. A value of another class sets the error, after
  // which every decode call gives nothing.
  std::optional<OrvObject> decodeObjectOfClasses(const OrvClassSet& classes, std::string_view key);
  std::optional<OrvObject> decodeObjectOfClass(const OrvClass& objectClass, std::string_view key);
  template <class T>
  std::shared_ptr<T> decodeObjectOfClass(std::string_view key) {
    auto object = decodeObjectOfClass(T::orvClass(), key);
    return object ? object->template objectAs<T>() : nullptr;
  }
  std::optional<std::string> decodeStringForKey(std::string_view key);
  std::optional<OrvNumber> decodeNumberForKey(std::string_view key);
  // A number read as a boolean; false when missing.
  bool decodeBoolForKey(std::string_view key);
  std::optional<OrvDate> decodeDateForKey(std::string_view key);

  // The classes must admit an array; the value must then be an array whose every element is a T.
  template <class T>
  std::optional<std::vector<std::shared_ptr<T>>> decodeArrayOfObjectsOfClasses(const OrvClassSet& classes, std::string_view key) {
    auto object = decodeObjectOfClasses(classes, key);
    if (!object) return std::nullopt;
    const OrvObjectArray* elements = requireArray(*object, key);
    if (!elements) return std::nullopt;
    std::vector<std::shared_ptr<T>> result;
    result.reserve(elements->size());
    for (const auto& element : *elements) {
      auto typed = element.template objectAs<T>();
      if (!typed) {
        failWrongElement(element, T::orvClass(), key);
        return std::nullopt;
      }
      result.push_back(std::move(typed));
    }
    return result;
  }
  std::optional<std::vector<std::string>> decodeArrayOfStringsOfClasses(const OrvClassSet& classes, std::string_view key);
  // The value as JSON; a class JSON cannot hold is refused.
  std::optional<boost::json::value> decodeJSONValueOfClasses(const OrvClassSet& classes, std::string_view key);

  void failWithError(OrvError error);
  const std::optional<OrvError>& error() const noexcept { return error_; }

 private:
  OrvKeyedUnarchiver() = default;
  std::optional<OrvObject> decodeRoot(const OrvClassSet& classes, const OrvData& data);
  std::optional<OrvObject> decodeNode(const boost::json::value& node, const OrvClassSet& classes);
  std::optional<OrvObject> decodeArchivable(const OrvClass& objectClass, const boost::json::object& node);
  const OrvObjectArray* requireArray(const OrvObject& object, std::string_view key);
  void failWrongElement(const OrvObject& element, const OrvClass& expected, std::string_view key);
  void fail(std::int64_t code, const std::string& message);

  const boost::json::object* fields_ = nullptr;
  std::size_t depth_ = 0;
  std::vector<std::string> path_;
  std::optional<OrvError> error_;
};
