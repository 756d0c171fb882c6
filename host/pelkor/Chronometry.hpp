// Date utility: a DDMMYY text to calendar year, GPS week number and day of week.
#pragma once

#include <cstdint>
#include <string>

namespace Pelkor {

class Chronometry {
 public:
  // Two-digit years 80 to 99 are 1980 to 1999, 00 to 79 are 2000 to 2079 (GPS time starts
  // on 6 January 1980). An impossible date leaves every member 0.
  explicit Chronometry(const std::string& ddmmyy);

  std::uint32_t year = 0;        // four digits
  std::uint32_t month = 0;       // 1 to 12
  std::uint32_t day = 0;         // 1 to 31
  std::uint32_t weekNumber = 0;  // full GPS week (no 1024 rollover)
  std::uint16_t weekDay = 0;     // 0 = Sunday

  bool valid() const { return year != 0; }
};

}  // namespace Pelkor
