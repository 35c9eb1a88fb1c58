#include "OrvDescription.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

std::string OrvDescription(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  // Shortest text that reads back as the same double, as a number object prints itself.
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string OrvDescription(OrvDate value) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(value);
  const auto days = std::chrono::floor<std::chrono::days>(seconds);
  const std::chrono::year_month_day ymd{days};
  const std::chrono::hh_mm_ss<std::chrono::seconds> time{seconds - days};
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02u %02lld:%02lld:%02lld +0000", int(ymd.year()), unsigned(ymd.month()),
                unsigned(ymd.day()), static_cast<long long>(time.hours().count()), static_cast<long long>(time.minutes().count()),
                static_cast<long long>(time.seconds().count()));
  return buffer;
}

namespace orv::detail {
namespace {

constexpr std::string_view kFlags = "-+ #0'";
constexpr std::string_view kLengthModifiers = "hlqLzjtI";
constexpr std::string_view kConversions = "@dDiuUxXoOfFeEgGaAcCsSpn";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::string formatPlatformString(std::string_view format, std::span<const std::string> arguments) {
  std::string out;
  out.reserve(format.size() + 16 * arguments.size());
  std::size_t nextArgument = 0;
  std::size_t i = 0;
  while (i < format.size()) {
    const std::size_t percent = format.find('%', i);
    if (percent == std::string_view::npos) {
      out.append(format.substr(i));
      break;
    }
    out.append(format.substr(i, percent - i));
    std::size_t j = percent + 1;
    if (j < format.size() && format[j] == '%') {
      out += '%';
      i = j + 1;
      continue;
    }
    // Optional "n$" position, then flags, width, precision and length modifiers, then the conversion.
    std::size_t position = 0;
    {
      std::size_t k = j;
      while (k < format.size() && isDigit(format[k])) ++k;
      if (k > j && k < format.size() && format[k] == '$') {
        std::from_chars(format.data() + j, format.data() + k, position);
        j = k + 1;
      }
    }
    while (j < format.size() && kFlags.find(format[j]) != std::string_view::npos) ++j;
    while (j < format.size() && (isDigit(format[j]) || format[j] == '*')) ++j;
    if (j < format.size() && format[j] == '.') {
      ++j;
      while (j < format.size() && (isDigit(format[j]) || format[j] == '*')) ++j;
    }
    while (j < format.size() && kLengthModifiers.find(format[j]) != std::string_view::npos) ++j;
    if (j >= format.size() || kConversions.find(format[j]) == std::string_view::npos) {
      // Not a conversion: the text stays as written.
      out.append(format.substr(percent, j - percent));
      i = j;
      continue;
    }
    const std::size_t index = position > 0 ? position - 1 : nextArgument++;
    if (index < arguments.size()) {
      out.append(arguments[index]);
    } else {
      out.append("(null)");
    }
    i = j + 1;
  }
  return out;
}

}  // namespace orv::detail
