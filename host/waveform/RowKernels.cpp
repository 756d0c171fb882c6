// Integer passes over one waveform row (see header). Short rows (a few dozen samples) take
// AVX2 code written out with intrinsics when the processor has it, a row's end read with
// masked loads: the compiler's own vector loops spend more steps on their set-up and tails
// than on such rows' samples. Long rows take plain loops. Both give the same integers.
#include "waveform/RowKernels.hpp"

#include "waveform/NoiseSteps.hpp"

#include <algorithm>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define QUILLO_ROW_AVX2 1
#endif

namespace FullWaveform {

namespace {

SampleRange widenPlain(const std::uint16_t* in, std::size_t n, std::int32_t* out) {
  std::int32_t lowest = in[0], highest = in[0];
  for (std::size_t i = 0; i < n; ++i) {
    const std::int32_t v = in[i];
    out[i] = v;
    lowest = std::min(lowest, v);
    highest = std::max(highest, v);
  }
  return {lowest, highest};
}

bool rankPlain(const std::int32_t* y, std::size_t n, std::int32_t lowest, std::size_t rank,
               int steps, std::int32_t& value) {
  for (int step = 0; step < steps; ++step) {
    std::size_t atOrBelow = 0;
    for (std::size_t i = 0; i < n; ++i) atOrBelow += y[i] <= lowest + step;
    if (atOrBelow > rank) {
      value = lowest + step;
      return true;
    }
  }
  return false;
}

void smoothPlain(const std::int32_t* y, std::size_t n, std::int32_t limit, std::int32_t* smooth,
                 std::uint64_t* marks) {
  smooth[0] = 3 * y[0] + y[1];
  for (std::size_t i = 1; i + 1 < n; ++i) smooth[i] = y[i - 1] + 2 * y[i] + y[i + 1];
  smooth[n - 1] = y[n - 2] + 3 * y[n - 1];
  std::fill(marks, marks + markWords(n), 0);
  for (std::size_t i = 0; i < n; ++i) marks[i / 64] |= std::uint64_t(smooth[i] > limit) << (i % 64);
}

ExcessSums excessPlain(const std::int32_t* y, std::size_t n, std::int32_t background,
                       std::size_t split) {
  ExcessSums sums;
  for (std::size_t i = 0; i < split; ++i) sums.before += std::max(0, y[i] - background);
  for (std::size_t i = split; i < n; ++i) sums.after += std::max(0, y[i] - background);
  return sums;
}

#ifdef QUILLO_ROW_AVX2

bool haveAvx2() {
  static const bool have = __builtin_cpu_supports("avx2");
  return have;
}

__attribute__((target("avx2"))) std::int32_t horizontalMin(__m256i v) {
  __m128i m = _mm_min_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  m = _mm_min_epi32(m, _mm_shuffle_epi32(m, 0x4e));
  m = _mm_min_epi32(m, _mm_shuffle_epi32(m, 0xb1));
  return _mm_cvtsi128_si32(m);
}

__attribute__((target("avx2"))) std::int32_t horizontalMax(__m256i v) {
  __m128i m = _mm_max_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  m = _mm_max_epi32(m, _mm_shuffle_epi32(m, 0x4e));
  m = _mm_max_epi32(m, _mm_shuffle_epi32(m, 0xb1));
  return _mm_cvtsi128_si32(m);
}

// Sum of eight 32-bit lanes, each below 2^31 in the uses here.
__attribute__((target("avx2"))) std::int64_t horizontalSum(__m256i v) {
  const __m256i wide = _mm256_add_epi64(_mm256_cvtepu32_epi64(_mm256_castsi256_si128(v)),
                                        _mm256_cvtepu32_epi64(_mm256_extracti128_si256(v, 1)));
  __m128i s = _mm_add_epi64(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
  s = _mm_add_epi64(s, _mm_unpackhi_epi64(s, s));
  return _mm_cvtsi128_si64(s);
}

// The first `count` lanes set (all ones), the others zero.
__attribute__((target("avx2"))) __m256i firstLanes(std::size_t count) {
  const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  return _mm256_cmpgt_epi32(_mm256_set1_epi32(std::int32_t(std::min<std::size_t>(count, 8))),
                            lanes);
}

// Eight values from p, of which the first `count` are there to read; the others read as 0
// without touching memory.
__attribute__((target("avx2"))) __m256i loadFirst(const std::int32_t* p, std::size_t count) {
  if (count >= 8) return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  return _mm256_maskload_epi32(reinterpret_cast<const int*>(p), firstLanes(count));
}

__attribute__((target("avx2"))) SampleRange widenAvx2(const std::uint16_t* in, std::size_t n,
                                                      std::int32_t* out) {
  __m256i lowest = _mm256_set1_epi32(in[0]), highest = lowest;
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256i v =
        _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), v);
    lowest = _mm256_min_epi32(lowest, v);
    highest = _mm256_max_epi32(highest, v);
  }
  SampleRange range{horizontalMin(lowest), horizontalMax(highest)};
  for (; i < n; ++i) {
    out[i] = in[i];
    range.lowest = std::min(range.lowest, out[i]);
    range.highest = std::max(range.highest, out[i]);
  }
  return range;
}

// Rows up to kRankRowMax; steps at most 255. The heights above the lowest sample, capped at
// 255 (lanes past the row too, which no step reaches), are packed into bytes: a step then
// counts 32 samples at once.
__attribute__((target("avx2"))) bool rankAvx2(const std::int32_t* y, std::size_t n,
                                              std::int32_t lowest, std::size_t rank, int steps,
                                              std::int32_t& value) {
  constexpr std::size_t kBlocks = kRankRowMax / 32;
  __m256i height[kBlocks];
  const std::size_t blocks = (n + 31) / 32;
  const __m256i base = _mm256_set1_epi32(lowest), cap = _mm256_set1_epi32(255);
  for (std::size_t b = 0; b < blocks; ++b) {
    __m256i part[4];
    for (std::size_t q = 0; q < 4; ++q) {
      const std::size_t i = 32 * b + 8 * q;
      if (i >= n) {
        part[q] = cap;
        continue;
      }
      const __m256i inside = firstLanes(n - i);
      const __m256i h = _mm256_min_epi32(_mm256_sub_epi32(loadFirst(y + i, n - i), base), cap);
      part[q] = _mm256_blendv_epi8(cap, h, inside);
    }
    // The packs keep heights of 0 to 255, with the lanes in an order that counting does not
    // see.
    height[b] = _mm256_packus_epi16(_mm256_packus_epi32(part[0], part[1]),
                                    _mm256_packus_epi32(part[2], part[3]));
  }
  for (int step = 0; step < steps; ++step) {
    const __m256i limit = _mm256_set1_epi8(static_cast<char>(step));
    __m256i count = _mm256_setzero_si256();
    for (std::size_t b = 0; b < blocks; ++b) {
      const __m256i atOrBelow = _mm256_cmpeq_epi8(_mm256_min_epu8(height[b], limit), height[b]);
      count = _mm256_sub_epi8(count, atOrBelow);  // -1 per sample counted
    }
    const __m256i sums = _mm256_sad_epu8(count, _mm256_setzero_si256());
    __m128i s = _mm_add_epi64(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
    s = _mm_add_epi64(s, _mm_unpackhi_epi64(s, s));
    if (std::size_t(_mm_cvtsi128_si64(s)) > rank) {
      value = lowest + step;
      return true;
    }
  }
  return false;
}

// n >= 3. The inner samples' neighbours are read in place; the ends repeat their sample.
__attribute__((target("avx2"))) void smoothAvx2(const std::int32_t* y, std::size_t n,
                                                std::int32_t limit, std::int32_t* smooth,
                                                std::uint64_t* marks) {
  std::fill(marks, marks + markWords(n), 0);
  const __m256i bound = _mm256_set1_epi32(limit);
  const __m256i shiftRight = _mm256_setr_epi32(0, 0, 1, 2, 3, 4, 5, 6);
  for (std::size_t i = 0; i < n; i += 8) {
    const __m256i inside = firstLanes(n - i);
    const __m256i middle = loadFirst(y + i, n - i);
    // Sample 0's left neighbour is itself; elsewhere the sample before.
    const __m256i left =
        i == 0 ? _mm256_permutevar8x32_epi32(middle, shiftRight) : loadFirst(y + i - 1, n - i);
    // The last sample's right neighbour reads 0 here: it is put right below.
    const __m256i right = loadFirst(y + i + 1, n - 1 - i);
    const __m256i sum =
        _mm256_add_epi32(_mm256_add_epi32(left, right), _mm256_add_epi32(middle, middle));
    if (i + 8 <= n)
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(smooth + i), sum);
    else
      _mm256_maskstore_epi32(reinterpret_cast<int*>(smooth + i), inside, sum);
    const __m256i over = _mm256_and_si256(_mm256_cmpgt_epi32(sum, bound), inside);
    const auto bits = unsigned(_mm256_movemask_ps(_mm256_castsi256_ps(over)));
    marks[i / 64] |= std::uint64_t(bits) << (i % 64);
  }
  const std::size_t last = n - 1;
  smooth[last] = y[last - 1] + 3 * y[last];
  const std::uint64_t bit = std::uint64_t(1) << (last % 64);
  marks[last / 64] = smooth[last] > limit ? marks[last / 64] | bit : marks[last / 64] & ~bit;
}

__attribute__((target("avx2"))) ExcessSums excessAvx2(const std::int32_t* y, std::size_t n,
                                                      std::int32_t background, std::size_t split) {
  const __m256i zero = _mm256_setzero_si256(), base = _mm256_set1_epi32(background);
  const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const __m256i cut = _mm256_set1_epi32(std::int32_t(split));
  __m256i before = zero, after = zero;
  for (std::size_t i = 0; i < n; i += 8) {
    const __m256i inside = firstLanes(n - i);
    const __m256i v = loadFirst(y + i, n - i);
    const __m256i excess =
        _mm256_and_si256(_mm256_max_epi32(_mm256_sub_epi32(v, base), zero), inside);
    const __m256i index = _mm256_add_epi32(lanes, _mm256_set1_epi32(std::int32_t(i)));
    const __m256i isBefore = _mm256_cmpgt_epi32(cut, index);
    before = _mm256_add_epi32(before, _mm256_and_si256(isBefore, excess));
    after = _mm256_add_epi32(after, _mm256_andnot_si256(isBefore, excess));
  }
  return {horizontalSum(before), horizontalSum(after)};
}

// Sum of |y - background|; lanes past the row add 0.
__attribute__((target("avx2"))) std::int64_t absoluteDeviationAvx2(const std::int32_t* y,
                                                                   std::size_t n,
                                                                   std::int32_t background) {
  const __m256i base = _mm256_set1_epi32(background);
  __m256i sum = _mm256_setzero_si256();
  for (std::size_t i = 0; i < n; i += 8) {
    const __m256i d = _mm256_abs_epi32(_mm256_sub_epi32(loadFirst(y + i, n - i), base));
    sum = _mm256_add_epi32(sum, _mm256_and_si256(d, firstLanes(n - i)));
  }
  return horizontalSum(sum);
}

// Squares and count of the deviations d = y - background with |d| <= limit (limit at most
// kNearLimitMax, so each lane's sum of squares stays below 2^31).
__attribute__((target("avx2"))) void nearDeviationAvx2(const std::int32_t* y, std::size_t n,
                                                       std::int32_t background, std::int32_t limit,
                                                       std::int64_t& squares, std::int64_t& count) {
  const __m256i base = _mm256_set1_epi32(background), bound = _mm256_set1_epi32(limit);
  __m256i sum = _mm256_setzero_si256(), counted = _mm256_setzero_si256();
  for (std::size_t i = 0; i < n; i += 8) {
    const __m256i a = _mm256_abs_epi32(_mm256_sub_epi32(loadFirst(y + i, n - i), base));
    const __m256i near = _mm256_andnot_si256(_mm256_cmpgt_epi32(a, bound), firstLanes(n - i));
    sum = _mm256_add_epi32(sum, _mm256_and_si256(_mm256_mullo_epi32(a, a), near));
    counted = _mm256_sub_epi32(counted, near);
  }
  squares = horizontalSum(sum);
  count = horizontalSum(counted);
}

// The noise estimate's passes and steps with nothing between them but registers: each
// pass's limit waits on the divide and square root of the one before.
__attribute__((target("avx2"), flatten)) bool noiseSigmaAvx2(const std::int32_t* y, std::size_t n,
                                                             std::int32_t background,
                                                             double& sigma) {
  double s = sigmaOfAbsoluteSum(std::uint64_t(absoluteDeviationAvx2(y, n, background)), n);
  for (int pass = 0; pass < kClipPasses; ++pass) {
    const std::int64_t limit = clipLimit(s);
    if (limit < 0 || limit > kNearLimitMax) return false;
    std::int64_t squares = 0, count = 0;
    nearDeviationAvx2(y, n, background, std::int32_t(limit), squares, count);
    if (count) s = sigmaOfNearSums(squares, count);
  }
  sigma = s;
  return true;
}

#endif

// 16-bit samples in rows this short keep every 32-bit lane sum of the vector code below 2^31
// (32 samples a lane at most).
constexpr std::size_t kVectorRowMax = 256;

bool vectorRow(std::size_t n) {
#ifdef QUILLO_ROW_AVX2
  return n >= 3 && n <= kVectorRowMax && haveAvx2();
#else
  (void)n;
  return false;
#endif
}

}  // namespace

SampleRange widenRow(const std::uint16_t* in, std::size_t n, std::int32_t* out) {
#ifdef QUILLO_ROW_AVX2
  if (vectorRow(n)) return widenAvx2(in, n, out);
#endif
  return widenPlain(in, n, out);
}

bool rankWithinSteps(const std::int32_t* y, std::size_t n, std::int32_t lowest, std::size_t rank,
                     int steps, std::int32_t& value) {
  if (n > kRankRowMax || steps > 255) return false;
#ifdef QUILLO_ROW_AVX2
  if (vectorRow(n)) return rankAvx2(y, n, lowest, rank, steps, value);
#endif
  return rankPlain(y, n, lowest, rank, steps, value);
}

void smoothAndMark(const std::int32_t* y, std::size_t n, std::int32_t limit, std::int32_t* smooth,
                   std::uint64_t* marks) {
#ifdef QUILLO_ROW_AVX2
  if (vectorRow(n)) return smoothAvx2(y, n, limit, smooth, marks);
#endif
  smoothPlain(y, n, limit, smooth, marks);
}

ExcessSums excessOverBackground(const std::int32_t* y, std::size_t n, std::int32_t background,
                                std::size_t split) {
#ifdef QUILLO_ROW_AVX2
  if (vectorRow(n)) return excessAvx2(y, n, background, std::min(split, n));
#endif
  return excessPlain(y, n, background, split);
}

bool shortAbsoluteDeviation(const std::int32_t* y, std::size_t n, std::int32_t background,
                            std::uint64_t& sum) {
#ifdef QUILLO_ROW_AVX2
  if (vectorRow(n)) return sum = std::uint64_t(absoluteDeviationAvx2(y, n, background)), true;
#endif
  (void)y, (void)background, (void)sum;
  return false;
}

bool shortNoiseSigma(const std::int32_t* y, std::size_t n, std::int32_t background, double& sigma) {
#ifdef QUILLO_ROW_AVX2
  if (vectorRow(n)) return noiseSigmaAvx2(y, n, background, sigma);
#endif
  (void)y, (void)background, (void)sigma;
  return false;
}

bool shortNearDeviation(const std::int32_t* y, std::size_t n, std::int32_t background,
                        std::int64_t limit, std::int64_t& squares, std::int64_t& count) {
#ifdef QUILLO_ROW_AVX2
  if (vectorRow(n) && limit >= 0 && limit <= kNearLimitMax) {
    nearDeviationAvx2(y, n, background, std::int32_t(limit), squares, count);
    return true;
  }
#endif
  (void)y, (void)background, (void)limit, (void)squares, (void)count;
  return false;
}

}  // namespace FullWaveform
