#pragma once
// The platform number: one value of a signed or unsigned 64-bit integer, a double or a boolean.
// A number made from a boolean remembers it, so that it turns back into JSON true/false and prints as
// a boolean; arithmetic readers treat it as 0 or 1.
#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>

class OrvNumber {
 public:
  enum class Kind { signedInteger, unsignedInteger, floatingPoint, boolean };

  OrvNumber() noexcept : OrvNumber(std::int64_t{0}) {}
  explicit OrvNumber(std::int64_t value) noexcept : kind_(Kind::signedInteger) { storage_.s = value; }
  explicit OrvNumber(std::uint64_t value) noexcept : kind_(Kind::unsignedInteger) { storage_.u = value; }
  explicit OrvNumber(double value) noexcept : kind_(Kind::floatingPoint) { storage_.d = value; }
  explicit OrvNumber(bool value) noexcept : kind_(Kind::boolean) { storage_.b = value; }
  // Plain int literals would otherwise be ambiguous between the two integer kinds.
  explicit OrvNumber(int value) noexcept : OrvNumber(std::int64_t{value}) {}

  static OrvNumber numberWithLongLong(std::int64_t value) noexcept { return OrvNumber(value); }
  static OrvNumber numberWithUnsignedLongLong(std::uint64_t value) noexcept { return OrvNumber(value); }
  static OrvNumber numberWithDouble(double value) noexcept { return OrvNumber(value); }
  static OrvNumber numberWithBool(bool value) noexcept { return OrvNumber(value); }

  // A JSON number keeps its kind (int64, uint64, double); a JSON boolean becomes a boolean number.
  // Anything else (and nullptr) gives nothing.
  static std::optional<OrvNumber> fromJSON(const boost::json::value& value) noexcept;
  static std::optional<OrvNumber> fromJSON(const boost::json::value* value) noexcept;
  boost::json::value toJSON() const;

  Kind kind() const noexcept { return kind_; }
  bool isBoolean() const noexcept { return kind_ == Kind::boolean; }

  // Conversions as the platform does them, without undefined behaviour: fractions are dropped,
  // a negative value wraps as a signed-to-unsigned conversion, values beyond the target's range
  // saturate, and NaN reads as 0.
  std::int64_t longLongValue() const noexcept;
  std::uint64_t unsignedLongLongValue() const noexcept;
  double doubleValue() const noexcept;
  bool boolValue() const noexcept;

  // The platform's rendering: integers in decimal, doubles in their shortest exact form, booleans as 1/0.
  std::string description() const;

  // Same kind and same value; a boolean true is not the integer 1, and a NaN equals nothing.
  friend bool operator==(const OrvNumber& a, const OrvNumber& b) noexcept;

 private:
  Kind kind_;
  union {
    std::int64_t s;
    std::uint64_t u;
    double d;
    bool b;
  } storage_{};
};

inline std::string OrvDescription(const OrvNumber& value) { return value.description(); }
