#include "item/PlatformDate.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>

namespace hvfp {
namespace {

struct CivilDate {
  int64_t year;
  unsigned month;
  unsigned day;
};

// Days since 1970-01-01 to a proleptic Gregorian date (H. Hinnant's
// algorithm): exact over the whole 64-bit range a record's time can reach,
// where gmtime_r gives up past the year 2^31.
CivilDate civilFromDays(int64_t days) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto dayOfEra = static_cast<uint64_t>(days - era * 146097);
  const uint64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const uint64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const uint64_t monthIndex = (5 * dayOfYear + 2) / 153;
  const auto day = static_cast<unsigned>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
  const auto month = static_cast<unsigned>(monthIndex < 10 ? monthIndex + 3 : monthIndex - 9);
  const int64_t year = static_cast<int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);
  return {year, month, day};
}

int64_t wholeSeconds(Date seconds) {
  // Held inside the range whose day count cannot overflow civilFromDays.
  constexpr double kLimit = 9.0e15;
  if (std::isnan(seconds)) return 0;
  return static_cast<int64_t>(std::floor(std::clamp(seconds, -kLimit, kLimit)));
}

void putDigits(char* at, unsigned value, int width) {
  for (int i = width - 1; i >= 0; --i) {
    at[i] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
}

}  // namespace

// Digits are written by hand: every listed item prints three dates to the
// log, and a general formatter costs more than the rest of the line.
void appendPlatformDate(std::string& out, Date seconds) {
  const int64_t total = wholeSeconds(seconds);
  int64_t days = total / 86400;
  int64_t secondOfDay = total % 86400;
  if (secondOfDay < 0) {
    secondOfDay += 86400;
    --days;
  }
  const CivilDate date = civilFromDays(days);
  if (date.year < 0 || date.year > 9999) {
    fmt::format_to(std::back_inserter(out), "{:04}", date.year);
  } else {
    out.resize(out.size() + 4);
    putDigits(out.data() + out.size() - 4, static_cast<unsigned>(date.year), 4);
  }
  const size_t at = out.size();
  out.append("-MM-DD hh:mm:ss +0000");
  char* p = out.data() + at;
  putDigits(p + 1, date.month, 2);
  putDigits(p + 4, date.day, 2);
  putDigits(p + 7, static_cast<unsigned>(secondOfDay / 3600), 2);
  putDigits(p + 10, static_cast<unsigned>(secondOfDay / 60 % 60), 2);
  putDigits(p + 13, static_cast<unsigned>(secondOfDay % 60), 2);
}

std::string formatPlatformDate(Date seconds) {
  std::string out;
  appendPlatformDate(out, seconds);
  return out;
}

}  // namespace hvfp
