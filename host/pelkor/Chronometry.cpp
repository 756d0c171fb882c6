// Date utility: DDMMYY text to year, GPS week number and day of week.
#include "pelkor/Chronometry.hpp"

#include <cctype>
#include <chrono>

namespace Pelkor {

namespace {

bool twoDigits(const std::string& s, std::size_t at, unsigned& out) {
  if (!std::isdigit(static_cast<unsigned char>(s[at])) ||
      !std::isdigit(static_cast<unsigned char>(s[at + 1])))
    return false;
  out = unsigned(s[at] - '0') * 10 + unsigned(s[at + 1] - '0');
  return true;
}

}  // namespace

Chronometry::Chronometry(const std::string& ddmmyy) {
  unsigned d = 0, m = 0, y = 0;
  if (ddmmyy.size() != 6 || !twoDigits(ddmmyy, 0, d) || !twoDigits(ddmmyy, 2, m) ||
      !twoDigits(ddmmyy, 4, y))
    return;
  const int fullYear = int(y) + (y >= 80 ? 1900 : 2000);
  using namespace std::chrono;
  const year_month_day date{std::chrono::year(fullYear), std::chrono::month(m),
                            std::chrono::day(d)};
  if (!date.ok()) return;
  const sys_days gpsEpoch = sys_days{std::chrono::year(1980) / January / 6};
  const auto days = (sys_days{date} - gpsEpoch).count();
  if (days < 0) return;
  year = std::uint32_t(fullYear);
  month = m;
  day = d;
  weekNumber = std::uint32_t(days / 7);
  weekDay = std::uint16_t(days % 7);  // the GPS epoch was a Sunday
}

}  // namespace Pelkor
