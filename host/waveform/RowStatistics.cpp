// Row statistics for peak detection (background, noise, threshold, clipping); see header.
#include "waveform/RowStatistics.hpp"

#include "vorlap/CpuClones.hpp"
#include "waveform/NoiseSteps.hpp"
#include "waveform/RowKernels.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>

namespace FullWaveform {

namespace {

constexpr std::size_t kFewSamples = 128;

// A short row's median is rarely more than a few counts above its minimum: counting the
// samples at or below each value from the minimum up finds it in a few vector passes.
constexpr int kRankSteps = 16;

// A clipped pulse shows as neighbouring samples at the row's maximum (noise may repeat the
// maximum too, but rarely side by side and far above the threshold).
bool adjacentAt(const std::int32_t* y, std::size_t n, std::int32_t value) {
  for (std::size_t i = 0; i + 1 < n; ++i)
    if (y[i] == value && y[i + 1] == value) return true;
  return false;
}

// Sum of |y - background| (rows of at most 65535 samples of 16 bits: blocks of 65536
// deviations fit 32 bits, which lets the loop vectorise).
QUILLO_AVX2_CLONES std::uint64_t absoluteDeviationSum(const std::int32_t* y, std::size_t n,
                                                      std::int32_t background) {
  std::uint64_t total = 0;
  for (std::size_t start = 0; start < n; start += 65536) {
    const std::size_t end = std::min(n, start + 65536);
    std::uint32_t block = 0;
    for (std::size_t i = start; i < end; ++i) block += std::uint32_t(std::abs(y[i] - background));
    total += block;
  }
  return total;
}

struct NearSums {
  std::int64_t squares = 0, count = 0;  // of the deviations within the limit
};

// Sums of d and d * d over the deviations d = y - background with |d| <= limit. Samples are
// 16-bit, so a deviation within a limit below 65536 squares into 32 bits; blocks whose sum
// fits 32 bits let the loop vectorise. The same integers as summing in 64 bits.
QUILLO_AVX2_CLONES NearSums nearSums(const std::int32_t* y, std::size_t n, std::int32_t background,
                                     std::int64_t limit) {
  NearSums sums;
  if (limit < 0) return sums;
  if (limit > 65535) {
    for (std::size_t i = 0; i < n; ++i) {
      const std::int64_t d = std::int64_t(y[i]) - background;
      const bool near = d <= limit && -d <= limit;
      sums.squares += near ? d * d : 0;
      sums.count += near;
    }
    return sums;
  }
  const auto lim = std::uint32_t(limit);
  const std::size_t block = std::max<std::uint64_t>(
      1, 0xffffffffull / std::max<std::uint64_t>(1, std::uint64_t(lim) * lim));
  for (std::size_t start = 0; start < n; start += block) {
    const std::size_t end = std::min(n, start + block);
    std::uint32_t squares = 0, count = 0;
    for (std::size_t i = start; i < end; ++i) {
      const auto a = std::uint32_t(std::abs(y[i] - background));
      const bool near = a <= lim;
      squares += near ? a * a : 0u;
      count += near;
    }
    sums.squares += squares;
    sums.count += count;
  }
  return sums;
}

// Starts from the mean absolute deviation (scaled to a normal's sigma) and clips twice at
// 3.5 sigmas. sumsWithin(limit) gives the sums for |deviation| <= limit, or nothing when it
// cannot; then the result is negative.
template <class SumsWithin>
double clippedSigma(std::uint64_t absSum, std::size_t n, SumsWithin sumsWithin) {
  double sigma = sigmaOfAbsoluteSum(absSum, n);
  for (int pass = 0; pass < kClipPasses; ++pass) {
    const std::optional<NearSums> near = sumsWithin(clipLimit(sigma));
    if (!near) return -1.0;
    if (near->count) sigma = sigmaOfNearSums(near->squares, near->count);
  }
  return sigma;
}

}  // namespace

// Counting by height above the minimum finds the median in one pass for any row whose lower
// half lies within 256 counts of its minimum, which is every row with a usable background.
std::int32_t RowStatistics::median(const std::int32_t* y, std::size_t n, std::int32_t lowest) {
  const std::size_t rank = n / 2;
  counts_.fill(0);
  heightSum_ = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const auto above = std::uint32_t(y[i] - lowest);
    heightSum_ += above;
    if (above < counts_.size()) ++counts_[above];
  }
  std::size_t seen = 0;
  for (std::size_t b = 0; b < counts_.size(); ++b) {
    seen += counts_[b];
    if (seen > rank) return counted_ = true, lowest + std::int32_t(b);
  }
  counted_ = false;
  if (scratch_.size() < n) scratch_.resize(n);
  std::copy(y, y + n, scratch_.begin());
  const auto mid = scratch_.begin() + std::ptrdiff_t(rank);
  std::nth_element(scratch_.begin(), mid, scratch_.begin() + std::ptrdiff_t(n));
  return *mid;
}

// Sum of |y - background| of the last median()'s n samples without another pass over the row:
// sum(h - m) over all heights h above the minimum, plus twice the shortfall of those below the
// background height m (all of them counted, since m lies within the counts).
std::uint64_t RowStatistics::absoluteDeviationFromCounts(std::size_t n, std::int64_t m) const {
  std::int64_t below = 0;
  for (std::int64_t b = 0; b < m; ++b) below += std::int64_t(counts_[std::size_t(b)]) * (m - b);
  return std::uint64_t(std::int64_t(heightSum_) - std::int64_t(n) * m + 2 * below);
}

// The clipped sums come from the few bins near the background instead of passes over the row.
double RowStatistics::noiseSigmaFromCounts(std::size_t n, std::int32_t background,
                                           std::int32_t lowest) const {
  if (!counted_) return -1.0;
  const std::int64_t m = background - lowest;
  return clippedSigma(
      absoluteDeviationFromCounts(n, m), n, [&](std::int64_t limit) -> std::optional<NearSums> {
        if (m + limit >= std::int64_t(counts_.size())) return std::nullopt;
        NearSums sums;
        for (std::int64_t b = std::max<std::int64_t>(0, m - limit); b <= m + limit; ++b) {
          sums.squares += counts_[std::size_t(b)] * (b - m) * (b - m);
          sums.count += counts_[std::size_t(b)];
        }
        return sums;
      });
}

double noiseSigmaAround(const std::int32_t* y, std::size_t n, std::int32_t background) {
  double sigma = 0.0;
  if (shortNoiseSigma(y, n, background, sigma)) return sigma;
  std::uint64_t absSum = 0;
  if (!shortAbsoluteDeviation(y, n, background, absSum))
    absSum = absoluteDeviationSum(y, n, background);
  return clippedSigma(absSum, n, [&](std::int64_t limit) -> std::optional<NearSums> {
    NearSums sums;
    if (shortNearDeviation(y, n, background, limit, sums.squares, sums.count)) return sums;
    return nearSums(y, n, background, limit);
  });
}

RowStats RowStatistics::compute(const std::int32_t* y, std::size_t n, std::int32_t lowest,
                                std::int32_t highest, std::int32_t noiseLevel,
                                const PeakSettings& settings) {
  RowStats s;
  // A short row's median lies mostly a few counts above its minimum: found in a few vector
  // passes there, else by median()'s counts.
  if (n > kFewSamples || !rankWithinSteps(y, n, lowest, n / 2, kRankSteps, s.background))
    s.background = median(y, n, lowest);
  // Both give the same integer sums; a short row is summed over its samples in fewer steps
  // than over the bins near its background.
  s.noiseSigma = n <= kFewSamples ? -1.0 : noiseSigmaFromCounts(n, s.background, lowest);
  if (s.noiseSigma < 0) s.noiseSigma = noiseSigmaAround(y, n, s.background);
  s.threshold = noiseLevel > 0
                    ? double(noiseLevel)
                    : std::max(settings.thresholdSigmas * s.noiseSigma, settings.minimumThreshold);
  if (settings.saturationLevel > 0) {
    s.clipLevel = settings.saturationLevel;
    s.clipped = double(highest) >= settings.saturationLevel;
  } else {
    s.clipLevel = double(highest);
    s.clipped = highest - s.background > 4 * s.threshold && adjacentAt(y, n, highest);
  }
  return s;
}

}  // namespace FullWaveform
