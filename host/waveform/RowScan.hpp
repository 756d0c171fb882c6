// Small exact shortcuts for peak detection's per-row work: each gives the very result of the
// plain expression it replaces (std::lround, std::log of a count, a threshold), in fewer
// steps.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace FullWaveform {

// std::lround(x) (half away from zero) without the library call. The split into whole and
// fraction is exact below 2^52; larger or non-finite values take std::lround.
inline long roundHalfAway(double x) {
  constexpr double kExact = 4503599627370496.0;  // 2^52
  if (!(x > -kExact && x < kExact)) return std::lround(x);
  const auto whole = static_cast<long>(x);  // towards zero
  const double fraction = x - static_cast<double>(whole);
  if (fraction >= 0.5) return whole + 1;
  if (fraction <= -0.5) return whole - 1;
  return whole;
}

// std::log of the counts 1 to kSize - 1 from a table filled with std::log itself; other
// values (fractions, larger counts) are computed.
class CountLogs {
 public:
  static constexpr std::size_t kSize = 4096;
  CountLogs() {
    for (std::size_t i = 1; i < kSize; ++i) table_[i] = std::log(double(i));
  }
  double operator()(double x) const {
    if (x >= 1.0 && x < double(kSize)) {
      const auto i = static_cast<std::size_t>(x);
      if (double(i) == x) return table_[i];
    }
    return std::log(x);
  }

 private:
  std::array<double, kSize> table_{};
};

// The largest integer limit with limit <= above, so that for any int32 v, v <= above exactly
// when v <= limit. False when there is none (above not a number or below every int32).
inline bool integerLimit(double above, std::int32_t& limit) {
  if (!(above >= double(std::numeric_limits<std::int32_t>::min()))) return false;
  limit = above >= double(std::numeric_limits<std::int32_t>::max())
              ? std::numeric_limits<std::int32_t>::max()
              : static_cast<std::int32_t>(std::floor(above));
  return true;
}

}  // namespace FullWaveform
