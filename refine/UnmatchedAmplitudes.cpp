// Unmatched amplitudes: the noise test for dust that a wrong zone puts among a surface's
// echoes. Reads every echo's channel and amplitude, its current placement and the neighbours
// placed in their cells (the final neighbourhood); writes more noise verdicts. Dust given a
// zone too far can land among tree crowns, fit every neighbouring line and lie among its own
// line's crowns, and it returns about as much as they do: not the tens of times of a bird.
// But where one surface's echoes at one place, in one channel, return alike, dust's strength
// is its own (its reflectivity and its true range, a zone or more nearer). An echo is noise
// where its own scan line at its scan angle holds echoes of its channel, almost none of them
// (in that line and the neighbouring ones) within the settings' ratio of its amplitude either
// way, and where the echoes placed near it return alike and it lies far outside their
// spread; in both channels where it was recorded in both. Where a surface's amplitudes vary
// (a rough canopy, two kinds of trees, a roof's edge), their spread is wide or some match
// it, and it stays.
#include <algorithm>
#include <cmath>
#include <vector>

#include "refine/ParallelChunks.hpp"
#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

namespace {
// Fewer echoes of its channel beside it in its own line, or placed near it: cannot tell.
constexpr int kMinInLine = 5;
constexpr int kMinNear = 4;
// Echoes of its own line, or placed near it, within the ratio that bear it out: other dust
// or birds match it now and then, a surface's echoes (a second surface at the place: a roof's
// edge, a field's) by the dozen.
constexpr int kMatchesInLine = 3;
// Of four echoes placed near it, fewer than this many may match it.
constexpr int kMatchedOutOfFour = 1;
// The share of the echoes around it that must lie within the ratio, either way, of one
// amplitude: one surface that returns alike.
constexpr double kAlikeShare = 0.75;
// How far outside the echoes around it (in median deviations of their logarithm from its
// median) an echo must lie: a rough canopy's few neighbours can look alike by chance.
constexpr double kSpreads = 8.0;
// Echoes either side in recording order where its other channel's record is sought, and how
// near along the beam (m) that record lies: one arrival reported twice (a faint echo's peak
// in the low-gain channel lies a few centimetres off the high-gain one's).
constexpr std::size_t kTwinReach = 8;
constexpr double kSameArrival = 1.0;
// Channels whose typical amplitude per cell is kept (the scanners' two), and the echoes of a
// channel a cell must hold for it.
constexpr std::size_t kTypicalChannels = 2;
constexpr std::size_t kMinTypical = 3;
// Pairs recorded in both channels that tell which channel has the lower gain.
constexpr std::size_t kGainPairs = 101;

// Whether most of `amplitudes` lie within `ratio` either way of one amplitude.
bool returnAlike(std::vector<float>& amplitudes, float ratio) {
  std::sort(amplitudes.begin(), amplitudes.end());
  std::size_t most = 0;
  for (std::size_t a = 0, b = 0; a < amplitudes.size(); ++a) {
    while (b < amplitudes.size() && amplitudes[b] <= amplitudes[a] * ratio * ratio) ++b;
    most = std::max(most, b - a);
  }
  return !amplitudes.empty() && double(most) >= kAlikeShare * double(amplitudes.size());
}

// Whether `amplitude` lies farther from the median of `amplitudes` (by ratio) than kSpreads
// times their median deviation from it.
bool beyondSpread(const std::vector<float>& amplitudes, float amplitude) {
  std::vector<double> logs(amplitudes.size());
  std::transform(amplitudes.begin(), amplitudes.end(), logs.begin(),
                 [](float a) { return std::log(double(a)); });
  const auto middle = logs.begin() + std::ptrdiff_t(logs.size() / 2);
  std::nth_element(logs.begin(), middle, logs.end());
  const double median = *middle;
  for (double& l : logs) l = std::abs(l - median);
  std::nth_element(logs.begin(), middle, logs.end());
  return std::abs(std::log(double(amplitude)) - median) > kSpreads * *middle;
}
}  // namespace

// Echoes of one channel seen around an echo, how many of them match its amplitude, and
// (where asked for) their amplitudes.
struct MatchTally {
  int seen = 0, matched = 0;
  std::vector<float>* amplitudes = nullptr;
};

// Adds to `tally` the echoes of another shot than `emitter` in the cells [lo, hi] of one
// line, recorded in `channel` (and, with `p`, placed near `p`); matched: within [low, high].
// Stops once `enough` match.
void Refiner::tallyMatches(std::size_t cellLo, std::size_t cellHi, std::uint8_t channel,
                           std::uint32_t emitter, const point* p, float low, float high, int enough,
                           MatchTally& tally) const {
  const Neighbour* members = placed_.members.data();
  const Tone* tones = placed_.tones.data();
  for (std::size_t k = placed_.start[cellLo], end = placed_.start[cellHi + 1];
       k < end && tally.matched < enough; ++k) {
    const Tone& other = tones[k];
    if (other.channel != channel || !(other.amplitude > 0.0f) || members[k].emitter == emitter)
      continue;
    if (p && !near(members[k], *p, shots_.origin[emitter], shots_.direction[emitter])) continue;
    ++tally.seen, tally.matched += other.amplitude >= low && other.amplitude <= high;
    if (tally.amplitudes) tally.amplitudes->push_back(other.amplitude);
  }
}

// The median amplitude of each cell's neighbours in channels 0 and 1 (0: fewer than
// kMinTypical): an echo within the ratio of its own line's typical amplitude at its scan
// angle matches that surface, and the search for its matches is spared.
void Refiner::typicalPerCell(LargeVector<float>& typical) const {
  const std::size_t cells = placed_.start.size() - 1;
  typical.assign(kTypicalChannels * cells, 0.0f);
  std::vector<float> amplitudes[kTypicalChannels];
  for (std::size_t c = 0; c < cells; ++c) {
    for (auto& a : amplitudes) a.clear();
    for (std::uint32_t k = placed_.start[c]; k < placed_.start[c + 1]; ++k) {
      const Tone& e = placed_.tones[k];
      if (e.channel < kTypicalChannels && e.amplitude > 0.0f)
        amplitudes[e.channel].push_back(e.amplitude);
    }
    for (std::size_t ch = 0; ch < kTypicalChannels; ++ch) {
      std::vector<float>& a = amplitudes[ch];
      if (a.size() < kMinTypical) continue;
      const auto middle = a.begin() + std::ptrdiff_t(a.size() / 2);
      std::nth_element(a.begin(), middle, a.end());
      typical[kTypicalChannels * c + ch] = *middle;
    }
  }
}

// Whether echo i's amplitude matches almost none of the echoes of its channel at its scan
// angle (the bin and its two neighbours) in its own line and the neighbouring ones, nor of
// those placed near it, which return alike.
bool Refiner::unmatched(std::size_t i, const LargeVector<float>& typical) const {
  const float amplitude = echoes_[i].amplitude;
  const std::uint8_t channel = echoes_[i].channel;
  if (!(amplitude > 0.0f)) return false;
  const auto ratio = float(settings_.matchRatio);
  const float low = amplitude / ratio, high = amplitude * ratio;
  const std::uint32_t e = emitter_[i];
  const std::int32_t last = cells_.binCount - 1, at = cells_.bin[e] - cells_.firstBin;
  const auto row = [&](std::int64_t line) { return std::size_t(line) * std::size_t(last + 1); };
  const std::size_t lo = std::size_t(std::max(at - 1, 0)), hi = std::size_t(std::min(at + 1, last));
  const std::int64_t line = cells_.line[e];
  if (channel < kTypicalChannels)
    for (std::size_t c = row(line) + lo; c <= row(line) + hi; ++c) {
      const float t = typical[kTypicalChannels * c + channel];
      if (t >= low && t <= high) return false;
    }
  // Its own line first: no placement test, and a surface's echo finds its matches at once.
  MatchTally own;
  tallyMatches(row(line) + lo, row(line) + hi, channel, e, nullptr, low, high, kMatchesInLine, own);
  if (own.seen < kMinInLine || own.matched >= kMatchesInLine) return false;
  // Then the neighbouring lines at its scan angle: a second kind of surface at the place (a
  // few trees of another kind, a roof's edge) has its matches there.
  const auto lines = std::int64_t(cells_.lineOrigin.size());
  const double far = settings_.farLineDistance * settings_.farLineDistance;
  const auto eachLine = [&](auto&& tally) {
    for (std::int64_t l = std::max<std::int64_t>(0, line - settings_.neighbourLines);
         l <= std::min(lines - 1, line + settings_.neighbourLines); ++l)
      if (squared(cells_.lineOrigin[std::size_t(l)], cells_.lineOrigin[std::size_t(line)]) <= far)
        tally(row(l) + lo, row(l) + hi);
  };
  // Its own line is tallied in full already: only the sum of matches is asked.
  MatchTally wide = own;
  eachLine([&](std::size_t from, std::size_t to) {
    if (from != row(line) + lo)
      tallyMatches(from, to, channel, e, nullptr, low, high, kMatchesInLine, wide);
  });
  if (wide.matched >= kMatchesInLine) return false;
  const point p = positionOf(i);
  std::vector<float> amplitudes;
  MatchTally around{0, 0, &amplitudes};
  eachLine([&](std::size_t from, std::size_t to) {
    tallyMatches(from, to, channel, e, &p, low, high, 1 << 30, around);
  });
  if (around.seen >= kMinNear)
    return around.matched * 4 < kMatchedOutOfFour * around.seen &&
           beyondSpread(amplitudes, amplitude) && returnAlike(amplitudes, ratio);
  // Hardly anything of its channel near it: its own line, matching none, tells alone.
  if (own.matched > 0 || around.matched > 0) return false;
  amplitudes.clear();
  MatchTally all{0, 0, &amplitudes};
  tallyMatches(row(line) + lo, row(line) + hi, channel, e, nullptr, low, high, 1 << 30, all);
  return returnAlike(amplitudes, ratio);
}

// The echo recorded in the other channel at the same arrival from the same shot (active or
// not), else -1. The echoes come in recording order: a row of each channel, one after the
// other.
std::int64_t Refiner::otherChannelOf(std::size_t i) const {
  const RefineEcho& a = echoes_[i];
  const double sameArrival = kSameArrival / shots_.lightSpeed;
  for (std::size_t j = i >= kTwinReach ? i - kTwinReach : 0;
       j < std::min(echoes_.size(), i + kTwinReach + 1); ++j) {
    const RefineEcho& b = echoes_[j];
    if (j != i && b.emitter == a.emitter && b.channel != a.channel &&
        std::abs(b.oneWayTime - a.oneWayTime) <= sameArrival)
      return std::int64_t(j);
  }
  return -1;
}

// Marks in `noise` the echoes (judged, not noise yet, on no line-end fan) whose amplitude
// matches nothing around them in every channel that recorded them. Of an echo recorded in one
// channel only, just the low-gain channel's record is read: a high-gain one may be the online
// detector's record, whose amplitude is on the low-gain scale. Each verdict is its own: any
// thread count gives the same.
void Refiner::markUnmatchedEchoes(std::vector<std::uint8_t>& noise) const {
  const std::size_t n = echoes_.size();
  std::vector<std::uint8_t> odd(n, 0);
  LargeVector<float> typical;
  typicalPerCell(typical);
  forEachChunk(n, chunkCount(n), settings_.threads,
               [&](std::size_t, std::size_t lo, std::size_t hi) {
                 for (std::size_t i = std::max(lo, settled_); i < hi; ++i)
                   if (active(i) && !noise[i] && (onLineEnd_.empty() || !onLineEnd_[i]))
                     odd[i] = unmatched(i, typical);
               });
  // Channel 0's gain per channel 1's (0: unknown; no echo alone in its channel is read). Only
  // which one is the lower is asked: a few pairs tell.
  const double gainRatio = channelGainRatio(kGainPairs);
  const int lowGain = gainRatio > 1.0 ? 1 : gainRatio > 0.0 ? 0 : -1;
  std::vector<std::uint8_t> told(n, 0);
  for (std::size_t i = 0; i < n; ++i) {
    if (!odd[i]) continue;
    const std::int64_t twin = otherChannelOf(i);
    told[i] = twin >= 0 ? odd[std::size_t(twin)] || noise[std::size_t(twin)]
                        : echoes_[i].channel == lowGain;
  }
  for (std::size_t i = 0; i < n; ++i) noise[i] |= told[i];
}

}  // namespace FullWaveform::surface_fit
