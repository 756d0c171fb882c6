// Block zone scoring. Reads candidate travel times through getLengthAccordingMTA, one walk
// per buffer entry serving both the plain and the shifted scoring; changes nothing in the
// store.
#include "zones/BlockScoring.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define QUILLO_SCORE_AVX2 1
#endif

namespace FullWaveform {

namespace {

bool contributes(const FatBoy<unsigned short>& fb, std::uint32_t w) {
  return w < fb.nWaves - 1 && fb.hasWave(w);
}

bool isValidLength(double v) {
  return v != NO_LENGTH && !std::isnan(v);
}

// Sum and count of the squared differences of successive valid entries.
struct Steps {
  double sum = 0.0, previous = 0.0;
  std::size_t n = 0;
  bool havePrevious = false;
  void add(double v) {
    if (!isValidLength(v)) return;
    if (havePrevious) {
      sum += (v - previous) * (v - previous);
      ++n;
    }
    previous = v;
    havePrevious = true;
  }
};

// Mean squared difference of successive valid entries of one zone. The column is walked
// with a pointer a row at a time; rows without a shift take a loop without its look-up.
double roughness(const CandidateRows& rows, std::size_t count, std::span<const std::int32_t> shift,
                 std::uint32_t zone) {
  Steps steps;
  const double* values = rows.values.data();
  std::size_t at = zone;
  if (shift.empty())
    for (std::size_t k = 0; k < count; ++k, at += rows.columns) steps.add(values[at]);
  else
    for (std::size_t k = 0; k < count; ++k, at += rows.columns)
      steps.add(values[std::size_t(std::ptrdiff_t(at) - shift[k])]);
  return steps.n ? steps.sum / double(steps.n) : 0.0;
}

#ifdef QUILLO_SCORE_AVX2

bool haveAvx2() {
  static const bool have = __builtin_cpu_supports("avx2");
  return have;
}

// roughness of the zones zone to zone + lanes - 1 (lanes 1 to 4) in one walk down the rows:
// a zone's entries lie side by side in a row, so each vector lane follows one zone through
// the very steps of Steps::add (no contraction: the target has no fused multiply-add).
__attribute__((target("avx2"))) void roughnessOfFour(const CandidateRows& rows, std::size_t count,
                                                     std::span<const std::int32_t> shift,
                                                     std::uint32_t zone, std::uint32_t lanes,
                                                     double* out) {
  const __m256i take =
      _mm256_cmpgt_epi64(_mm256_set1_epi64x(lanes), _mm256_setr_epi64x(0, 1, 2, 3));
  const __m256d none = _mm256_set1_pd(NO_LENGTH);
  __m256d sum = _mm256_setzero_pd(), previous = _mm256_setzero_pd(), have = _mm256_setzero_pd();
  __m256i steps = _mm256_setzero_si256();
  const double* values = rows.values.data();
  std::size_t at = zone;
  for (std::size_t k = 0; k < count; ++k, at += rows.columns) {
    const double* p = values + (shift.empty() ? at : std::size_t(std::ptrdiff_t(at) - shift[k]));
    const __m256d v = lanes == 4 ? _mm256_loadu_pd(p) : _mm256_maskload_pd(p, take);
    const __m256d valid = _mm256_cmp_pd(v, none, _CMP_NEQ_OQ);  // false for NaN too
    const __m256d step = _mm256_and_pd(valid, have);
    const __m256d d = _mm256_sub_pd(v, previous);
    sum = _mm256_blendv_pd(sum, _mm256_add_pd(sum, _mm256_mul_pd(d, d)), step);
    steps = _mm256_sub_epi64(steps, _mm256_castpd_si256(step));
    previous = _mm256_blendv_pd(previous, v, valid);
    have = _mm256_or_pd(have, valid);
  }
  alignas(32) double sums[4];
  alignas(32) std::int64_t counts[4];
  _mm256_store_pd(sums, sum);
  _mm256_store_si256(reinterpret_cast<__m256i*>(counts), steps);
  for (std::uint32_t j = 0; j < lanes; ++j) out[j] = counts[j] ? sums[j] / double(counts[j]) : 0.0;
}

#endif

// roughness of every zone in [minZone, maxZone) into out.
void roughnessOfZones(const CandidateRows& rows, std::size_t count,
                      std::span<const std::int32_t> shift, std::uint32_t minZone,
                      std::uint32_t maxZone, double* out) {
#ifdef QUILLO_SCORE_AVX2
  if (haveAvx2()) {
    for (std::uint32_t z = minZone; z < maxZone; z += 4)
      roughnessOfFour(rows, count, shift, z, std::min(4u, maxZone - z), out + (z - minZone));
    return;
  }
#endif
  for (std::uint32_t z = minZone; z < maxZone; ++z)
    out[z - minZone] = roughness(rows, count, shift, z);
}

}  // namespace

void fillCandidateRows(const std::vector<std::uint32_t>& buffer, std::uint32_t maxZone,
                       const FatBoy<unsigned short>& fb, CandidateRows& rows) {
  rows.columns = maxZone + 1;
  rows.values.assign(buffer.size() * rows.columns, NO_LENGTH);
  const double minAmplitude = fb.scannerDevice.minAmplitude;
  for (std::size_t k = 0; k < buffer.size(); ++k) {
    if (!contributes(fb, buffer[k])) continue;
    fb.getLengthAccordingMTA(buffer[k], 0, rows.columns, fb.maxTravelTime,
                             &rows.values[k * rows.columns], minAmplitude);
  }
}

void fillWaveRows(const FatBoy<unsigned short>& fb, std::uint32_t columns,
                  CandidateRows& waveRows) {
  waveRows.columns = columns;
  waveRows.values.assign(std::size_t(fb.nWaves) * columns, NO_LENGTH);
  const double minAmplitude = fb.scannerDevice.minAmplitude;
  for (std::uint32_t w = 0; w < fb.nWaves; ++w) {
    if (!contributes(fb, w)) continue;
    fb.getLengthAccordingMTA(w, 0, columns, fb.maxTravelTime,
                             &waveRows.values[std::size_t(w) * columns], minAmplitude);
  }
}

namespace {

// The first maxZone + 1 columns of each buffer wave's row: the same values a walk of that
// length gives.
void copyCandidateRows(const std::vector<std::uint32_t>& buffer, std::uint32_t maxZone,
                       const CandidateRows& waveRows, CandidateRows& rows) {
  rows.columns = maxZone + 1;
  rows.values.resize(buffer.size() * rows.columns);
  const std::size_t nWaves = waveRows.values.size() / waveRows.columns;
  double* out = rows.values.data();
  for (std::uint32_t w : buffer) {
    if (w < nWaves) {
      const double* row = &waveRows.values[std::size_t(w) * waveRows.columns];
      std::copy(row, row + rows.columns, out);
    } else {
      std::fill(out, out + rows.columns, NO_LENGTH);
    }
    out += rows.columns;
  }
}

}  // namespace

ZoneScore scoreZones(const CandidateRows& rows, std::size_t count, std::uint32_t minZone,
                     std::uint32_t maxZone, std::span<const std::int32_t> shift) {
  ZoneScore s;
  double best = 1.0e9;
  // An empty block has nothing to score: no zone, whatever the range.
  constexpr std::uint32_t kZonesAtOnce = 16;
  double scores[kZonesAtOnce];
  const bool together = count > 0 && minZone < maxZone && maxZone - minZone <= kZonesAtOnce;
  if (together) roughnessOfZones(rows, count, shift, minZone, maxZone, scores);
  for (std::uint32_t z = minZone; count > 0 && z < maxZone; ++z) {
    const double score = together ? scores[z - minZone] : roughness(rows, count, shift, z);
    if (best > score) {
      s.zone = std::int32_t(z);
      s.ratio = score / best;
      best = score;
    }
  }
  s.score = best;
  return s;
}

namespace {

// The value after the last jump of more than `threshold` between sorted neighbours of
// `values` (all within [low, high]), NaN when there is none. Values fall into buckets of the
// threshold's width in value order (the bucket index is monotonic in the value); a bucket
// whose values span no more than the threshold holds no such jump, so the jumps are between
// one filled bucket's largest value and the next one's smallest, found without a sort. Too
// many buckets (far outliers) or a wider bucket (rounding) take the sort.
double lastJump(std::vector<double>& values, double low, double high, double threshold) {
  const double none = std::numeric_limits<double>::quiet_NaN();
  const double span = (high - low) / threshold;
  if (threshold > 0.0 && span < 2.0 * double(values.size()) + 64.0) {
    thread_local std::vector<double> lowest, highest;
    lowest.assign(std::size_t(span) + 1, none);
    highest.assign(lowest.size(), none);
    for (double v : values) {
      const auto b = std::size_t((v - low) / threshold);
      lowest[b] = std::isnan(lowest[b]) ? v : std::min(lowest[b], v);
      highest[b] = std::isnan(highest[b]) ? v : std::max(highest[b], v);
    }
    bool bucketsHoldNoJump = true;
    for (std::size_t b = 0; b < lowest.size(); ++b)
      bucketsHoldNoJump = bucketsHoldNoJump && !(highest[b] - lowest[b] > threshold);
    if (bucketsHoldNoJump) {
      double above = none;  // the smallest value of the next filled bucket up
      for (std::size_t b = lowest.size(); b-- > 0;) {
        if (std::isnan(lowest[b])) continue;
        if (!std::isnan(above) && above - highest[b] > threshold) return above;
        above = lowest[b];
      }
      return none;
    }
  }
  std::sort(values.begin(), values.end());
  TransitionTest test{threshold};
  for (std::size_t p = 1; p < values.size(); ++p) test(values[p - 1], values[p], std::int32_t(p));
  return test.transition < 0 ? none : values[std::size_t(test.transition)];
}

}  // namespace

// Only the value at the last jump matters: the rows sorted below it are exactly those whose
// travel time is less than it (NaN sorts after everything and is never less).
void transitionShift(const CandidateRows& rows, std::size_t count, double threshold,
                     std::vector<double>& sortedLengths, std::vector<std::int32_t>& shift) {
  sortedLengths.clear();
  double low = 0.0, high = 0.0;
  for (std::size_t k = 0; k < count; ++k) {
    const double v = rows.at(k, 0, 0);
    if (!isValidLength(v)) continue;
    low = sortedLengths.empty() ? v : std::min(low, v);
    high = sortedLengths.empty() ? v : std::max(high, v);
    sortedLengths.push_back(v);
  }
  shift.assign(count, 0);
  // No step between sorted neighbours exceeds the whole span (rounding is monotonic): most
  // blocks lie within one zone and need no sort.
  if (high - low <= threshold) return;
  const double cut = lastJump(sortedLengths, low, high, threshold);
  if (std::isnan(cut)) return;
  for (std::size_t k = 0; k < count; ++k)
    if (rows.at(k, 0, 0) < cut) shift[k] = -1;
}

const BlockResult& evaluateBlock(const std::vector<std::uint32_t>& buffer,
                                 FatBoy<unsigned short>& fb, std::uint32_t minZone,
                                 std::uint32_t maxZone, BlockWorkspace& ws) {
  const std::size_t n = buffer.size();
  if (ws.waveRows.columns > maxZone)
    copyCandidateRows(buffer, maxZone, ws.waveRows, ws.rows);
  else
    fillCandidateRows(buffer, maxZone, fb, ws.rows);
  const ZoneScore first = scoreZones(ws.rows, n, minZone, maxZone, {});
  transitionShift(ws.rows, n, 0.2 * fb.scannerDevice.getMTALengthAsTime(), ws.sortedLengths,
                  ws.shift);
  // Most blocks lie within one zone: with no row shifted the second scoring is the first.
  const bool shifted = std::find(ws.shift.begin(), ws.shift.end(), -1) != ws.shift.end();
  const ZoneScore second = shifted ? scoreZones(ws.rows, n, minZone, maxZone, ws.shift) : first;
  const bool useSecond = first.score > second.score;
  const ZoneScore& chosen = useSecond ? second : first;
  BlockResult& r = ws.result;
  r.ratio = chosen.ratio;
  r.zone = chosen.zone;
  r.zones.assign(n, -1);
  for (std::size_t k = 0; k < n; ++k) {
    const std::int32_t s = useSecond ? ws.shift[k] : 0;
    const std::int32_t z = chosen.zone - s;
    if (z >= 0 && std::uint32_t(z) < maxZone && ws.rows.at(k, s, std::uint32_t(z)) != NO_LENGTH)
      r.zones[k] = z;
  }
  return r;
}

ZoneScore scoreMTAZones(const std::vector<std::uint32_t>& buffer, const std::uint32_t& minZone,
                        const std::uint32_t& maxZone, FatBoy<unsigned short>& fb,
                        const std::vector<std::int32_t>& shift) {
  CandidateRows rows;
  fillCandidateRows(buffer, maxZone, fb, rows);
  return scoreZones(rows, buffer.size(), minZone, maxZone, shift);
}

std::vector<std::int32_t> mtaTransition(const std::vector<std::uint32_t>& buffer,
                                        const std::int32_t&, FatBoy<unsigned short>& fb,
                                        const std::uint32_t&, const std::uint32_t&) {
  CandidateRows rows;
  fillCandidateRows(buffer, 0, fb, rows);
  std::vector<double> sorted;
  std::vector<std::int32_t> shift;
  transitionShift(rows, buffer.size(), 0.2 * fb.scannerDevice.getMTALengthAsTime(), sorted, shift);
  return shift;
}

BlockResult evaluateBlockMTA(const std::vector<std::uint32_t>& buffer, const std::int32_t&,
                             FatBoy<unsigned short>& fb, const std::uint32_t& minZone,
                             const std::uint32_t& maxZone) {
  BlockWorkspace workspace;
  return evaluateBlock(buffer, fb, minZone, maxZone, workspace);
}

}  // namespace FullWaveform
