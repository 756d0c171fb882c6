// Integer passes over one waveform row of 16-bit samples for peak detection: widening the
// stored samples, the sample of a rank, the smoothed row with its samples above a limit, the
// excess over the background on either side of a position, the noise estimate's sums. Rows of the
// usual lengths take AVX2 code when the processor has it; all give the same integers.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace FullWaveform {

struct SampleRange {
  std::int32_t lowest = 0, highest = 0;
};

// Copies n >= 1 samples into out as 32-bit integers and gives their extremes.
SampleRange widenRow(const std::uint16_t* in, std::size_t n, std::int32_t* out);

// The sample of rank `rank` in sorted order (rank < n, lowest the smallest sample), when it is
// at most lowest + steps - 1 (steps up to 255): the smallest v from lowest up with more than
// `rank` samples at or below it. False when it lies further up, or for rows longer than
// kRankRowMax.
constexpr std::size_t kRankRowMax = 128;
bool rankWithinSteps(const std::int32_t* y, std::size_t n, std::int32_t lowest, std::size_t rank,
                     int steps, std::int32_t& value);

// Words of marks for a row of n samples, one bit a sample.
constexpr std::size_t markWords(std::size_t n) {
  return (n + 63) / 64;
}

// smooth = four times the 1-2-1 smoothing of y (n >= 3, the end samples repeated beyond the
// row); bit i of marks (markWords(n) words) set where smooth[i] > limit.
void smoothAndMark(const std::int32_t* y, std::size_t n, std::int32_t limit, std::int32_t* smooth,
                   std::uint64_t* marks);

// The first i in [from, end) whose bit is set, else end.
inline std::size_t nextMarked(const std::uint64_t* marks, std::size_t from, std::size_t end) {
  for (std::size_t word = from / 64; word * 64 < end; ++word) {
    std::uint64_t bits = marks[word];
    if (word == from / 64) bits &= ~std::uint64_t(0) << (from % 64);
    if (bits != 0) return std::min(end, word * 64 + std::size_t(__builtin_ctzll(bits)));
  }
  return end;
}

struct ExcessSums {
  std::int64_t before = 0, after = 0;  // of max(0, y - background) over [0, split), [split, n)
};
// split <= n.
ExcessSums excessOverBackground(const std::int32_t* y, std::size_t n, std::int32_t background,
                                std::size_t split);

// The noise estimate's sums for rows of 16-bit samples: sum |y - background|, and the squares
// and count of the deviations within +-limit. These take only short rows (and limits up to
// kNearLimitMax) on processors with AVX2; false: not taken, sum them otherwise.
constexpr std::int64_t kNearLimitMax = 4095;
bool shortAbsoluteDeviation(const std::int32_t* y, std::size_t n, std::int32_t background,
                            std::uint64_t& sum);
bool shortNearDeviation(const std::int32_t* y, std::size_t n, std::int32_t background,
                        std::int64_t limit, std::int64_t& squares, std::int64_t& count);
// The whole noise estimate of such a row (noiseSigmaAround) in one call: the same sums and
// steps; false when not taken (a limit beyond kNearLimitMax too).
bool shortNoiseSigma(const std::int32_t* y, std::size_t n, std::int32_t background, double& sigma);

}  // namespace FullWaveform
