// The floating steps of the noise estimate (see noiseSigmaAround): from the mean absolute
// deviation to a sigma, from a sigma to the clipping limit, from the clipped sums to a sigma.
// Shared by the general code and the short rows' vector code, so both take the same steps.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace FullWaveform {

// The mean absolute deviation scaled to a normal's sigma.
inline double sigmaOfAbsoluteSum(std::uint64_t absSum, std::size_t n) {
  return 1.2533 * double(absSum) / double(n);
}

// 3.5 sigmas (at least 3.5 x 0.5) as an integer limit: for integer deviations |d| <= limit is
// |d| <= floor(limit).
inline std::int64_t clipLimit(double sigma) {
  return std::int64_t(std::floor(3.5 * std::max(sigma, 0.5)));
}

// count > 0.
inline double sigmaOfNearSums(std::int64_t squares, std::int64_t count) {
  return std::sqrt(double(squares) / double(count));
}

// Clipping passes at 3.5 sigmas.
inline constexpr int kClipPasses = 2;

}  // namespace FullWaveform
