// Along-line runs: reads every echo's recording shot, one-way time and current zone and the
// shots' times and scan lines; writes new zones, emitters and one-way times (before the
// surface test). A run of echoes the block method put in wrong zones, with no right
// neighbour in the lines either side (the far end of every line of a swath), forms a ghost
// surface across the lines, but not along its own line: there the pulse-position jitter
// makes successive ranges jump by metres. Given one zone for all of them, the true zone
// makes the run smooth again, to a few centimetres. An echo whose range does not continue
// its neighbours along its line moves when, in that zone, it and enough echoes recorded
// near it in its line continue each other; a single echo smooth by chance cannot, nor can
// a right echo at a cliff or a wall, which continues the echoes on its own side.
#include <algorithm>
#include <cmath>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "classify/NoiseClassification.hpp"
#include "refine/ParallelChunks.hpp"
#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

namespace {

using Sample = RunSample;

// Whether `self` continues `needed` pairs of `others` (shots on either side or both on one
// side): its range lies within `tolerance` of the straight line through theirs.
bool continues(const Sample& self, const Sample* others, int count, double tolerance, int needed) {
  for (int a = 0; a < count; ++a) {
    // Fewer pairs left than still needed: most zones tried are rough, and end here.
    if (needed > (count - a) * (count - a - 1) / 2) return false;
    for (int b = a + 1; b < count; ++b) {
      const Sample &p = others[a], &q = others[b];
      if (p.shot == q.shot) continue;
      const double at = double(self.shot - p.shot) / double(q.shot - p.shot);
      needed -= std::abs(self.range - (p.range + (q.range - p.range) * at)) < tolerance;
      if (needed <= 0) return true;
    }
  }
  return false;
}

}  // namespace

// Two pairs at once: whether the count gets there does not depend on the order the pairs are
// counted in (it only grows), and each lane rounds as continues() does (shot differences are
// exact in doubles). Counted row by row, a row being every pair with one echo.
bool continuesPairs(double selfShot, double selfRange, const RunOthers& o, double tolerance,
                    int needed) {
  const int count = o.count;
#if defined(__SSE2__)
  const __m128d s = _mm_set1_pd(selfShot), r = _mm_set1_pd(selfRange);
  const __m128d limit = _mm_set1_pd(tolerance);
  const __m128d magnitude = _mm_castsi128_pd(_mm_set1_epi64x(0x7fffffffffffffffLL));
  for (int a = 0; a < count; ++a) {
    if (needed > (count - a) * (count - a - 1) / 2) return false;
    const __m128d ps = _mm_set1_pd(o.shot[a]), pr = _mm_set1_pd(o.range[a]);
    const __m128d along = _mm_sub_pd(s, ps);
    for (int b = a + 1; b < count; b += 2) {
      const __m128d qs = _mm_loadu_pd(o.shot + b), qr = _mm_loadu_pd(o.range + b);
      const __m128d at = _mm_div_pd(along, _mm_sub_pd(qs, ps));
      const __m128d off =
          _mm_and_pd(_mm_sub_pd(r, _mm_add_pd(pr, _mm_mul_pd(_mm_sub_pd(qr, pr), at))), magnitude);
      const int lanes =
          _mm_movemask_pd(_mm_and_pd(_mm_cmplt_pd(off, limit), _mm_cmpneq_pd(qs, ps)));
      needed -= (lanes & 1) + (b + 1 < count ? lanes >> 1 : 0);
    }
    if (needed <= 0) return true;
  }
  return false;
#else
  for (int a = 0; a < count; ++a) {
    if (needed > (count - a) * (count - a - 1) / 2) return false;
    for (int b = a + 1; b < count; ++b) {
      if (o.shot[a] == o.shot[b]) continue;
      const double at = (selfShot - o.shot[a]) / (o.shot[b] - o.shot[a]);
      needed -= std::abs(selfRange - (o.range[a] + (o.range[b] - o.range[a]) * at)) < tolerance;
    }
    if (needed <= 0) return true;
  }
  return false;
#endif
}

// The echoes recorded within the reach of echo k's recording shot, but after other shots
// than its own, in recording order: those before its shot and those after it. Found once,
// they serve the tests of every zone.
Refiner::AlongLine Refiner::alongLineOf(std::size_t k) const {
  const std::int64_t reach = settings_.runShotReach, record = inRecord_.record[k];
  const std::vector<std::int32_t>& at = inRecord_.record;
  AlongLine span{k, k, k + 1, k + 1};
  while (span.own > 0 && at[span.own - 1] == record) --span.own;
  span.before = span.own;
  while (span.before > 0 && at[span.before - 1] >= record - reach) --span.before;
  while (span.after < at.size() && at[span.after] == record) ++span.after;
  span.end = span.after;
  while (span.end < at.size() && at[span.end] <= record + reach) ++span.end;
  return span;
}

// The same for echo k from the span of echo k - 1: the bounds only move on, so a chunk of
// echoes walks each echo once instead of every echo's reach again.
Refiner::AlongLine Refiner::nextAlongLine(std::size_t k, const AlongLine& previous) const {
  const std::int64_t reach = settings_.runShotReach, record = inRecord_.record[k];
  const std::vector<std::int32_t>& at = inRecord_.record;
  if (at[k - 1] == record) return previous;
  AlongLine span{previous.before, k, k + 1, std::max(previous.end, k + 1)};
  while (at[span.before] < record - reach) ++span.before;
  while (span.after < at.size() && at[span.after] == record) ++span.after;
  span.end = std::max(span.end, span.after);
  while (span.end < at.size() && at[span.end] <= record + reach) ++span.end;
  return span;
}

// Places the echoes [lo, hi) (recording order) under `zone` (-1: each in its current zone)
// into out[0, hi - lo).
void Refiner::placeAlongLine(std::size_t lo, std::size_t hi, int zone, AlongPlacement* out) const {
  const std::int64_t lastShot = std::int64_t(shots_.time.size());
  for (std::size_t j = lo; j < hi; ++j) {
    AlongPlacement& at = out[j - lo];
    at.shot = zone < 0 ? inRecord_.emitter[j] : inRecord_.record[j] - zone;
    at.line = AlongPlacement::kNotPlaced;
    if (at.shot < 0 || at.shot >= lastShot) continue;
    const double oneWay =
        oneWayTimeFrom(inRecord_.oneWay[j], inRecord_.emitTime[j], shots_.time[at.shot]);
    if (!(oneWay > kNearRangeLimit)) continue;
    at.range = oneWay * shots_.lightSpeed;
    at.line = cells_.line[std::size_t(at.shot)];
  }
}

// Whether echo k (in recording order) continues the echoes along its line (`span`), all
// placed under one assignment of zones (`placed[j - base]` for echo j): the first kRunSamples
// of them in its line, the nearer before first, then those after.
bool Refiner::smoothAlongLine(std::size_t k, const AlongLine& span, const AlongPlacement* placed,
                              std::size_t base, double tolerance, int pairs) {
  const AlongPlacement& self = placed[k - base];
  if (self.line == AlongPlacement::kNotPlaced) return false;
  if (pairs <= 0) {  // any pair of two shots will do: the test as first written
    Sample others[kRunSamples];
    int count = 0;
    const auto take = [&](const AlongPlacement& at) {
      if (at.line == self.line) others[count++] = {at.shot, at.range};
    };
    for (std::size_t j = span.own; j-- > span.before && count < kRunSamples;)
      take(placed[j - base]);
    for (std::size_t j = span.after; j < span.end && count < kRunSamples; ++j)
      take(placed[j - base]);
    return continues({self.shot, self.range}, others, count, tolerance, pairs);
  }
  RunOthers others;
  const auto take = [&](const AlongPlacement& at) {
    if (at.line != self.line) return;
    others.shot[others.count] = double(at.shot), others.range[others.count] = at.range;
    ++others.count;
  };
  for (std::size_t j = span.own; j-- > span.before && others.count < kRunSamples;)
    take(placed[j - base]);
  for (std::size_t j = span.after; j < span.end && others.count < kRunSamples; ++j)
    take(placed[j - base]);
  // The spare lane is read, never counted: any value will do.
  others.shot[others.count] = 0.0, others.range[others.count] = 0.0;
  return continuesPairs(double(self.shot), self.range, others, tolerance, pairs);
}

// The echoes (a prefix of the recording order) that share no run with an echo still to be
// judged. A run lies in one line under its zone, and for a zone the line grows with the
// recording shot: echoes recorded before the first shot of the line the earliest judged echo
// reaches under any zone tested are final (settled lines) and in runs of their own alone.
std::size_t Refiner::aloneInRuns() const {
  const std::size_t n = byRecord_.size();
  std::size_t k = 0;
  while (k < n && byRecord_[k] < settled_) ++k;
  if (k == n) return n;
  const std::int64_t reached =
      std::max<std::int64_t>(0, inRecord_.record[k] - std::min(maxZone_, 31));
  std::int64_t lineStart = std::min<std::int64_t>(reached, std::int64_t(shots_.time.size()) - 1);
  while (lineStart > 0 &&
         cells_.line[std::size_t(lineStart - 1)] == cells_.line[std::size_t(lineStart)])
    --lineStart;
  std::size_t alone = 0;
  while (alone < k && inRecord_.record[alone] < lineStart) ++alone;
  return alone;
}

// Per echo (recording order) the zones it is smooth in along its line, each with all its
// neighbours; 0 where it is smooth in its current zone already (nothing to do), where it
// shares no run with an echo to judge, or where too few rough echoes follow each other around
// it to make a run.
void Refiner::smoothZones(std::vector<std::uint32_t>& zones) const {
  const std::size_t n = byRecord_.size(), first = aloneInRuns();
  zones.assign(n, 0);
  std::vector<std::uint8_t>& rough = work_.rough;
  rough.assign(n, 0);
  const std::size_t chunks = chunkCount(n - first);
  forEachChunk(n - first, chunks, settings_.threads,
               [&](std::size_t, std::size_t lo, std::size_t hi) {
                 markRough(first + lo, first + hi, rough);
               });
  dropShortRoughChains(first, rough);
  forEachChunk(n - first, chunks, settings_.threads,
               [&](std::size_t, std::size_t lo, std::size_t hi) {
                 smoothZonesOf(first + lo, first + hi, rough, zones);
               });
}

// Whether the echoes recorded within reach of `record` lie in the table under every zone
// tested: then what they give is the same in any window holding them.
bool Refiner::inTableInEveryZone(std::int64_t record) const {
  const std::int64_t reach = settings_.runShotReach;
  return record - reach - zoneLimit() >= 0 && record + reach < std::int64_t(shots_.time.size());
}

// Whether echo k's (recording order) finding `what` is carried from the block before: it read
// the same echoes then (as many, none of them settled since, all in its table as in this one).
bool Refiner::carried(std::size_t k, const AlongLine& span, std::uint8_t what) const {
  if (!given_) return false;
  const std::uint32_t i = byRecord_[k];
  const std::int64_t record = inRecord_.record[k];
  return (given_->state[i] & what) && given_->span[i] == span.end - span.before &&
         (what != AlongLineMemo::kZonesKnown || given_->zoneLimit == zoneLimit()) &&
         record - settings_.runShotReach > lastSettledRecord_ && inTableInEveryZone(record);
}

// Keeps a context echo's finding (rough, or the zones it is smooth in) for the next block.
void Refiner::carryOut(std::size_t k, const AlongLine& span, std::uint8_t what,
                       std::uint32_t zones) const {
  const std::uint32_t i = byRecord_[k];
  if (!found_ || i < kept_ || span.end - span.before > 0xffff ||
      !inTableInEveryZone(inRecord_.record[k]))
    return;
  found_->state[i] |= what, found_->span[i] = std::uint16_t(span.end - span.before);
  if (what & AlongLineMemo::kZonesKnown) found_->zones[i] = zones;
}

// Marks the echoes [lo, hi) (recording order) that do not continue their line in their
// current zones. Every echo within their reach is placed once (each echo is a sample of the
// echoes around it); those carried from the block before are not tested again.
void Refiner::markRough(std::size_t lo, std::size_t hi, std::vector<std::uint8_t>& rough) const {
  if (lo >= hi) return;
  // Carried marks first (per echo: 1 where carried); the rest are tested after.
  std::vector<std::uint8_t> carriedHere(hi - lo, 0);
  std::size_t first = hi, last = lo;
  AlongLine span{};
  for (std::size_t k = lo; k < hi; ++k) {
    span = k == lo ? alongLineOf(k) : nextAlongLine(k, span);
    if (!carried(k, span, AlongLineMemo::kKnown)) {
      first = std::min(first, k), last = k;
      continue;
    }
    carriedHere[k - lo] = 1;
    rough[k] = (given_->state[byRecord_[k]] & AlongLineMemo::kRough) != 0;
    carryOut(k, span, AlongLineMemo::kKnown | (rough[k] ? AlongLineMemo::kRough : 0), 0);
  }
  if (first > last) return;
  span = alongLineOf(first);
  const std::size_t reachLo = span.before, reachHi = alongLineOf(last).end;
  std::vector<AlongPlacement> placed(reachHi - reachLo);
  placeAlongLine(reachLo, reachHi, -1, placed.data());
  for (std::size_t k = first; k <= last; ++k) {
    if (k > first) span = nextAlongLine(k, span);
    if (carriedHere[k - lo]) continue;
    rough[k] = !smoothAlongLine(k, span, placed.data(), reachLo, settings_.runTolerance,
                                settings_.runPairs);
    carryOut(k, span, AlongLineMemo::kKnown | (rough[k] ? AlongLineMemo::kRough : 0), 0);
  }
}

// Clears the rough marks of echoes [first, n) that can be in no run long enough to move: a
// run's members are rough echoes recorded within the reach of each other, counted by shot, so
// a chain of such echoes with fewer shots than a run needs holds none (most rough echoes are
// a canopy's or dust's few, alone along their line). Testing them in every zone would be
// wasted.
void Refiner::dropShortRoughChains(std::size_t first, std::vector<std::uint8_t>& rough) const {
  const std::vector<std::int32_t>& record = inRecord_.record;
  const std::size_t n = rough.size();
  const std::int64_t reach = settings_.runShotReach;
  for (std::size_t k = first; k < n;) {
    if (!rough[k]) {
      ++k;
      continue;
    }
    std::size_t last = k, end = k + 1;
    std::uint32_t shots = 1;
    for (; end < n && record[end] - record[last] <= reach; ++end)
      if (rough[end]) shots += record[end] != record[last], last = end;
    if (shots < std::uint32_t(settings_.runMinEchoes))
      for (std::size_t j = k; j <= last; ++j) rough[j] = 0;
    k = last + 1;
  }
}

// The zones the rough echoes of [lo, hi) (recording order) are smooth in: every echo within
// their reach is placed once per zone, then each rough echo is tested.
void Refiner::smoothZonesOf(std::size_t lo, std::size_t hi, const std::vector<std::uint8_t>& rough,
                            std::vector<std::uint32_t>& zones) const {
  while (lo < hi && !rough[lo]) ++lo;
  while (hi > lo && !rough[hi - 1]) --hi;
  if (lo >= hi) return;
  std::vector<std::pair<std::size_t, AlongLine>> roughSpans;
  AlongLine span{};
  for (std::size_t k = lo; k < hi; ++k) {
    span = k == lo ? alongLineOf(k) : nextAlongLine(k, span);
    if (!rough[k]) continue;
    if (!carried(k, span, AlongLineMemo::kZonesKnown)) {
      roughSpans.emplace_back(k, span);
      continue;
    }
    zones[k] = given_->zones[byRecord_[k]];
    carryOut(k, span, AlongLineMemo::kZonesKnown, zones[k]);
  }
  if (roughSpans.empty()) return;
  const std::size_t reachLo = roughSpans.front().second.before;
  const std::size_t reachHi = roughSpans.back().second.end;
  std::vector<AlongPlacement> placed(reachHi - reachLo);
  for (int z = 0; z <= zoneLimit(); ++z) {
    placeAlongLine(reachLo, reachHi, z, placed.data());
    for (const auto& [k, roughSpan] : roughSpans)
      if (smoothAlongLine(k, roughSpan, placed.data(), reachLo, settings_.runTolerance,
                          settings_.runPairs))
        zones[k] |= 1u << z;
  }
  for (const auto& [k, roughSpan] : roughSpans)
    carryOut(k, roughSpan, AlongLineMemo::kZonesKnown, zones[k]);
}

// The active echoes in recording order, with what the along-line tests read of each.
void Refiner::orderByRecord() {
  // Counted by recording shot (a stable sort: echo order within a shot).
  std::vector<std::uint32_t>& first = work_.recordCounts;
  first.assign(shots_.time.size() + 256 + 1, 0);
  std::size_t n = 0;
  for (std::uint32_t i = 0; i < echoes_.size(); ++i)
    if (active(i)) ++first[std::size_t(recordOf(i)) + 1], ++n;
  for (std::size_t r = 1; r < first.size(); ++r) first[r] += first[r - 1];
  byRecord_.resize(n);
  for (std::uint32_t i = 0; i < echoes_.size(); ++i)
    if (active(i)) byRecord_[first[std::size_t(recordOf(i))]++] = i;
  inRecord_.record.resize(n), inRecord_.emitter.resize(n);
  inRecord_.oneWay.resize(n), inRecord_.emitTime.resize(n);
  for (std::size_t k = 0; k < n; ++k) {
    const std::uint32_t i = byRecord_[k];
    inRecord_.record[k] = std::int32_t(recordOf(i)),
    inRecord_.emitter[k] = std::int32_t(emitter_[i]);
    inRecord_.oneWay[k] = oneWay_[i], inRecord_.emitTime[k] = shots_.time[emitter_[i]];
  }
}

// The echoes (recording order) of each run smooth in one zone: consecutive members recorded
// within the reach of each other in one line. A run of enough echoes that are rough where
// they are moves to that zone; the longest run wins where an echo is in two.
void Refiner::shiftRoughRuns() {
  orderByRecord();
  lastSettledRecord_ = -1;
  for (std::size_t i = 0; i < settled_; ++i)
    if (active(i)) lastSettledRecord_ = std::max(lastSettledRecord_, recordOf(i));
  if (found_) {
    found_->state.assign(echoes_.size(), 0);
    found_->span.resize(echoes_.size()), found_->zones.resize(echoes_.size());
    found_->zoneLimit = zoneLimit();
  }
  std::vector<std::uint32_t>& zones = work_.smoothIn;
  smoothZones(zones);
  const std::size_t n = byRecord_.size();
  std::vector<std::uint32_t>& bestRun = work_.bestRun;
  std::vector<std::int8_t>& bestZone = work_.bestZone;
  bestRun.assign(n, 0), bestZone.assign(n, -1);
  for (int z = 0; z <= std::min(maxZone_, 31); ++z)
    for (std::size_t k = 0; k < n;) {
      if (!(zones[k] >> z & 1u)) {
        ++k;
        continue;
      }
      std::size_t end = k + 1, last = k;
      const std::uint32_t line = cells_.line[std::size_t(inRecord_.record[k] - z)];
      for (; end < n && inRecord_.record[end] - inRecord_.record[last] <= settings_.runShotReach;
           ++end)
        if (zones[end] >> z & 1u) {
          if (cells_.line[std::size_t(inRecord_.record[end] - z)] != line) break;
          last = end;
        }
      // Members counted by their recording shots: several echoes of one shot (vegetation)
      // make no run.
      std::uint32_t members = 0, agreeing = 0;
      std::int64_t lastShot = -1;
      for (std::size_t j = k; j <= last; ++j) {
        const bool member = zones[j] >> z & 1u;
        members += member && inRecord_.record[j] != lastShot;
        lastShot = member ? inRecord_.record[j] : lastShot;
        agreeing += member || result_.zone[byRecord_[j]] == z;
      }
      // Among many echoes of a shot (vegetation) some continue each other by chance, in any
      // zone: a run must hold most of the echoes it spans.
      if (double(agreeing) < settings_.runShare * double(last + 1 - k)) members = 0;
      for (std::size_t j = k; j <= last; ++j)
        if ((zones[j] >> z & 1u) && members >= bestRun[j])
          bestZone[j] = std::int8_t(members == bestRun[j] ? -2 : z), bestRun[j] = members;
      k = last + 1;
    }
  for (std::size_t k = 0; k < n; ++k) {
    const std::uint32_t i = byRecord_[k];
    if (i < settled_ || bestZone[k] < 0 || bestRun[k] < std::uint32_t(settings_.runMinEchoes))
      continue;
    const std::int64_t shot = recordOf(i) - bestZone[k];
    oneWay_[i] = oneWayTimeFrom(oneWay_[i], shots_.time[emitter_[i]], shots_.time[shot]);
    emitter_[i] = std::uint32_t(shot), result_.zone[i] = std::uint8_t(bestZone[k]);
    straddles_[i] = straddlesLines(i);
  }
}

}  // namespace FullWaveform::surface_fit
