#include "OrvNumber.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>

namespace orv::detail {
namespace {

// 2^63 and 2^64 are exact doubles; comparing against them keeps the casts below defined.
constexpr double twoPow63 = 9223372036854775808.0;
constexpr double twoPow64 = 18446744073709551616.0;

std::int64_t saturatingInt64(double value) noexcept {
  if (std::isnan(value)) return 0;
  if (value >= twoPow63) return std::numeric_limits<std::int64_t>::max();
  if (value < -twoPow63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);  // truncates toward zero
}

std::uint64_t wrappingUInt64(double value) noexcept {
  if (std::isnan(value)) return 0;
  // Non-negative values that fit convert directly (the int64 route would lose [2^63, 2^64)).
  if (value >= 0) return value >= twoPow64 ? std::numeric_limits<std::uint64_t>::max() : static_cast<std::uint64_t>(value);
  return static_cast<std::uint64_t>(saturatingInt64(value));
}

std::string shortestDouble(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  std::array<char, 64> buffer{};
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  return std::string(buffer.data(), result.ptr);
}

}  // namespace
}  // namespace orv::detail

std::optional<OrvNumber> OrvNumber::fromJSON(const boost::json::value& value) noexcept {
  switch (value.kind()) {
    case boost::json::kind::int64:
      return OrvNumber(value.get_int64());
    case boost::json::kind::uint64:
      return OrvNumber(value.get_uint64());
    case boost::json::kind::double_:
      return OrvNumber(value.get_double());
    case boost::json::kind::bool_:
      return OrvNumber(value.get_bool());
    default:
      return std::nullopt;
  }
}

std::optional<OrvNumber> OrvNumber::fromJSON(const boost::json::value* value) noexcept {
  return value ? fromJSON(*value) : std::nullopt;
}

boost::json::value OrvNumber::toJSON() const {
  switch (kind_) {
    case Kind::signedInteger:
      return boost::json::value(storage_.s);
    case Kind::unsignedInteger:
      return boost::json::value(storage_.u);
    case Kind::floatingPoint:
      return boost::json::value(storage_.d);
    case Kind::boolean:
      return boost::json::value(storage_.b);
  }
  return boost::json::value();
}

std::int64_t OrvNumber::longLongValue() const noexcept {
  switch (kind_) {
    case Kind::signedInteger:
      return storage_.s;
    case Kind::unsignedInteger:
      return static_cast<std::int64_t>(storage_.u);  // modular since C++20
    case Kind::floatingPoint:
      return orv::detail::saturatingInt64(storage_.d);
    case Kind::boolean:
      return storage_.b ? 1 : 0;
  }
  return 0;
}

std::uint64_t OrvNumber::unsignedLongLongValue() const noexcept {
  switch (kind_) {
    case Kind::signedInteger:
      return static_cast<std::uint64_t>(storage_.s);
    case Kind::unsignedInteger:
      return storage_.u;
    case Kind::floatingPoint:
      return orv::detail::wrappingUInt64(storage_.d);
    case Kind::boolean:
      return storage_.b ? 1 : 0;
  }
  return 0;
}

double OrvNumber::doubleValue() const noexcept {
  switch (kind_) {
    case Kind::signedInteger:
      return static_cast<double>(storage_.s);
    case Kind::unsignedInteger:
      return static_cast<double>(storage_.u);
    case Kind::floatingPoint:
      return storage_.d;
    case Kind::boolean:
      return storage_.b ? 1.0 : 0.0;
  }
  return 0.0;
}

bool OrvNumber::boolValue() const noexcept {
  switch (kind_) {
    case Kind::signedInteger:
      return storage_.s != 0;
    case Kind::unsignedInteger:
      return storage_.u != 0;
    case Kind::floatingPoint:
      return storage_.d != 0.0;  // NaN is non-zero, as on the platform
    case Kind::boolean:
      return storage_.b;
  }
  return false;
}

std::string OrvNumber::description() const {
  switch (kind_) {
    case Kind::signedInteger:
      return std::to_string(storage_.s);
    case Kind::unsignedInteger:
      return std::to_string(storage_.u);
    case Kind::floatingPoint:
      return orv::detail::shortestDouble(storage_.d);
    case Kind::boolean:
      return storage_.b ? "1" : "0";
  }
  return {};
}

bool operator==(const OrvNumber& a, const OrvNumber& b) noexcept {
  if (a.kind_ != b.kind_) return false;
  switch (a.kind_) {
    case OrvNumber::Kind::signedInteger:
      return a.storage_.s == b.storage_.s;
    case OrvNumber::Kind::unsignedInteger:
      return a.storage_.u == b.storage_.u;
    case OrvNumber::Kind::floatingPoint:
      return a.storage_.d == b.storage_.d;
    case OrvNumber::Kind::boolean:
      return a.storage_.b == b.storage_.b;
  }
  return false;
}
