// Reflectance prediction. Pure functions of their arguments and the built-in table.
#include "output/Reflectance.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace FullWaveform {

namespace {
constexpr double kScale = 1.0 - 3.0 / 134217728.0;  // 1 - 3 * 2^-27
constexpr double kEntriesPerRange = 7.280826222782827;
}  // namespace

const double rangeCorrectionTable[kRangeCorrectionEntries] = {
#include "output/RangeCorrectionTable.inc"
};

namespace {

// floor as a double, leaving values too large to carry a fraction as they are.
double floorOf(double x) {
  return std::fabs(x) >= 4503599627370496.0 ? x : std::floor(x);
}

template <class Table>
double interpolate(double x, const Table& t, std::int64_t lo, std::int64_t hi, float amplitude) {
  const double fl = floorOf(x);
  return ((1.0 - x) + fl) * double(t[lo]) + double(amplitude) + (x - fl) * double(t[hi]);
}

// floor(x) as an integer, saturating where the value does not fit.
std::int64_t cellOf(double x) {
  if (std::isnan(x)) return 0;
  return static_cast<std::int64_t>(std::clamp(std::floor(x), -2147483648.0, 2147483647.0));
}

}  // namespace

double predictReflectance_calibrated(const float& amplitude, const double& range) {
  if (range <= 0.0) return 0.0;
  const double x = range * kEntriesPerRange;
  const std::int64_t i = cellOf(x);
  const std::int64_t last = kRangeCorrectionEntries - 1;
  const std::int64_t lo = std::clamp<std::int64_t>(i, 0, last);
  const std::int64_t hi = std::clamp<std::int64_t>(i + 1, 0, last);
  return interpolate(x, rangeCorrectionTable, lo, hi, amplitude);
}

double predictReflectance_calibrated_from_attribute(const float& amplitude, const double& range,
                                                    const std::vector<float>& table,
                                                    const double& step) {
  if (range > 3000.0 || range <= 1.0 || table.empty()) return 0.0;
  const double x = range / step;
  const std::int64_t i = cellOf(x);
  const auto n = static_cast<std::int64_t>(table.size());
  if (n == 1) return interpolate(x, table, 0, 0, amplitude);
  std::int64_t lo = i, hi = i + 1;
  if (i < 0)
    lo = 0, hi = 1;
  else if (i + 1 >= n)
    lo = n - 2, hi = n - 1;
  return interpolate(x, table, lo, hi, amplitude);
}

}  // namespace FullWaveform
