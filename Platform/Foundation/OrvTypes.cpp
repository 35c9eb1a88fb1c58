#include "OrvTypes.h"

#include <cmath>
#include <cstdio>

namespace {

using Clock = std::chrono::system_clock;

// The clock counts in an integer type; seconds beyond its range would overflow the conversion,
// so they saturate at the representable ends (a far future stays in the future).
Clock::duration saturatingDuration(double seconds) {
  using Rep = Clock::duration::rep;
  const double ticks = seconds * double(Clock::period::den) / double(Clock::period::num);
  constexpr double maxTicks = 9.2e18;  // just below the largest 64-bit value, exactly representable
  static_assert(sizeof(Rep) >= 8);
  if (ticks >= maxTicks) return Clock::duration::max();
  if (ticks <= -maxTicks) return Clock::duration::min();
  return Clock::duration(static_cast<Rep>(std::llround(ticks)));
}

}  // namespace

OrvDate OrvDateFromTimeIntervalSince1970(double seconds) {
  if (std::isnan(seconds)) return OrvDate{};
  return OrvDate(saturatingDuration(seconds));
}

double OrvTimeIntervalSince1970(OrvDate date) { return std::chrono::duration<double>(date.time_since_epoch()).count(); }

std::string OrvDateISO8601String(OrvDate date) {
  using namespace std::chrono;
  const auto millis = floor<milliseconds>(date);
  const auto days = floor<std::chrono::days>(millis);
  const year_month_day ymd{days};
  const hh_mm_ss<milliseconds> time{millis - days};
  char buffer[64];
  const long long ms = time.subseconds().count();
  if (ms != 0) {
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02lld:%02lld:%02lld.%03lldZ", int(ymd.year()), unsigned(ymd.month()),
                  unsigned(ymd.day()), static_cast<long long>(time.hours().count()),
                  static_cast<long long>(time.minutes().count()), static_cast<long long>(time.seconds().count()), ms);
  } else {
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02lld:%02lld:%02lldZ", int(ymd.year()), unsigned(ymd.month()),
                  unsigned(ymd.day()), static_cast<long long>(time.hours().count()),
                  static_cast<long long>(time.minutes().count()), static_cast<long long>(time.seconds().count()));
  }
  return buffer;
}
