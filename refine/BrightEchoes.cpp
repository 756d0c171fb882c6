// Bright echoes: the noise test by amplitude. Reads every echo's channel and amplitude, its
// current placement and the neighbours placed in their cells (the final neighbourhood);
// writes more noise verdicts. A bird 40 m to 100 m from the aircraft returns tens to hundreds
// of times the ground's amplitude; given a wrong zone it can land on the ground and fit every
// neighbouring line. The echoes of one surface at one place, recorded in the same channel,
// match within a small factor (reflectivity, incidence): an echo many times brighter than
// all but a few of the echoes of its channel placed near it, and of those of its own scan
// line at the same scan angle, is no echo of that surface (a few: another bird or dust). Raw
// amplitudes are compared, never range-corrected ones: a wrong zone gives a wrong range, but echoes
// placed at one spot share theirs. Channels are compared apart (each has its own gain).
#include <algorithm>
#include <cmath>

#include "refine/ParallelChunks.hpp"
#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

namespace {
// Fewer echoes of its channel beside it in its own line: cannot tell.
constexpr int kMinInLine = 3;
// Of four echoes around it, at most this many may be within the ratio of it: more, and it is
// one of a bright surface (a roof); fewer, and they are other birds or dust.
constexpr int kBrightOutOfFour = 1;
// Channels whose faintest echo per cell is kept (the scanners' two; others are read in full).
constexpr std::size_t kPrefiltered = 2;
}  // namespace

// Echoes of one channel seen around an echo, and how many of them were bright enough to lie
// on one surface with it.
struct AmplitudeTally {
  int seen = 0, bright = 0;
  bool outshone() const { return bright * 4 <= kBrightOutOfFour * seen; }
};

// Adds to `tally` the echoes of another shot than `emitter` in the cells [lo, hi] of one
// line, recorded in `channel` and, with `p`, near `p`; bright: above `limit`.
void Refiner::tallyAmplitudes(std::size_t cellLo, std::size_t cellHi, std::uint8_t channel,
                              std::uint32_t emitter, const point* p, double limit,
                              AmplitudeTally& tally) const {
  const Neighbour* members = placed_.members.data();
  const Tone* tones = placed_.tones.data();
  for (std::size_t k = placed_.start[cellLo], end = placed_.start[cellHi + 1]; k < end; ++k) {
    const Tone& other = tones[k];
    if (other.channel != channel || !(other.amplitude > 0.0f) || members[k].emitter == emitter)
      continue;
    if (p && !near(members[k], *p, shots_.origin[emitter], shots_.direction[emitter])) continue;
    ++tally.seen, tally.bright += other.amplitude > limit;
  }
}

// Each neighbour's channel and amplitude beside it, for the final neighbourhood: one pass of
// scattered loads instead of one for every time a test reads the neighbour.
void Refiner::toneMembers() {
  const std::size_t n = placed_.members.size();
  placed_.tones.resize(n);
  for (std::size_t k = 0; k < n; ++k) {
    const RefineEcho& e = echoes_[placed_.members[k].echo];
    placed_.tones[k] = {e.amplitude > 0.0f ? e.amplitude : 0.0f, e.channel};
  }
}

// The faintest amplitude of each cell's neighbours, in channels 0 and 1 (infinite: none): an
// echo outshines its line only where its column holds an echo fainter than it by the ratio.
void Refiner::faintestPerCell(LargeVector<float>& faintest) const {
  const std::size_t cells = placed_.start.size() - 1;
  faintest.assign(kPrefiltered * cells, INFINITY);
  for (std::size_t c = 0; c < cells; ++c)
    for (std::uint32_t k = placed_.start[c]; k < placed_.start[c + 1]; ++k) {
      const Tone& e = placed_.tones[k];
      if (e.channel < kPrefiltered && e.amplitude > 0.0f) {
        float& f = faintest[kPrefiltered * c + e.channel];
        f = std::min(f, e.amplitude);
      }
    }
}

// Whether echo i outshines, by the settings' ratio, the echoes of its channel in its own scan
// line at its scan angle (the bin and its two neighbours), and those placed near it in its
// own line and the neighbouring lines of its flight line: all but a few of them. Where its
// line holds none of its channel there, those of the other channel at the channels' ratio
// `gainRatio` (channel 0 per channel 1; 0: unknown) serve.
bool Refiner::outshines(std::size_t i, const LargeVector<float>& faintest, double gainRatio) const {
  const float amplitude = echoes_[i].amplitude;
  std::uint8_t channel = echoes_[i].channel;
  if (!(amplitude > 0.0f)) return false;
  const std::uint32_t e = emitter_[i];
  double limit = double(amplitude) / settings_.brightRatio;
  const std::int32_t last = cells_.binCount - 1, at = cells_.bin[e] - cells_.firstBin;
  const auto row = [&](std::int64_t line) { return std::size_t(line) * std::size_t(last + 1); };
  const std::size_t lo = std::size_t(std::max(at - 1, 0)), hi = std::size_t(std::min(at + 1, last));
  const std::int64_t line = cells_.line[e];
  if (channel < kPrefiltered) {
    const auto faintestOf = [&](std::uint8_t ch) {
      float f = INFINITY;
      for (std::size_t c = row(line) + lo; c <= row(line) + hi; ++c)
        f = std::min(f, faintest[kPrefiltered * c + ch]);
      return f;
    };
    float f = faintestOf(channel);
    // Faint water recorded in the high-gain channel only, under a bird recorded in the
    // low-gain one only: its line holds nothing of its channel but itself to compare with.
    if (gainRatio > 0.0 && f >= amplitude && !(f <= limit)) {
      AmplitudeTally others;
      tallyAmplitudes(row(line) + lo, row(line) + hi, channel, e, nullptr, INFINITY, others);
      if (others.seen > 0) return false;
      limit = channel == 1 ? limit * gainRatio : limit / gainRatio;
      channel = std::uint8_t(1 - channel);
      f = faintestOf(channel);
    }
    if (!(f <= limit)) return false;
  }
  // Its own line first: no placement test, and it tells almost every echo left.
  AmplitudeTally own;
  tallyAmplitudes(row(line) + lo, row(line) + hi, channel, e, nullptr, limit, own);
  if (own.seen < kMinInLine || !own.outshone()) return false;
  const point p = positionOf(i);
  AmplitudeTally around;
  const auto lines = std::int64_t(cells_.lineOrigin.size());
  const double far = settings_.farLineDistance * settings_.farLineDistance;
  for (std::int64_t l = std::max<std::int64_t>(0, line - settings_.neighbourLines);
       l <= std::min(lines - 1, line + settings_.neighbourLines); ++l)
    if (squared(cells_.lineOrigin[std::size_t(l)], cells_.lineOrigin[std::size_t(line)]) <= far)
      tallyAmplitudes(row(l) + lo, row(l) + hi, channel, e, &p, limit, around);
  return around.outshone();
}

// Marks in `noise` the echoes (judged, not noise yet, on no line-end fan) that outshine the
// echoes around them. Each verdict is its own: any thread count gives the same.
void Refiner::markBrightEchoes(std::vector<std::uint8_t>& noise) const {
  const std::size_t n = echoes_.size();
  LargeVector<float> faintest;
  faintestPerCell(faintest);
  const double gainRatio = settings_.acrossChannels ? channelGainRatio() : 0.0;
  std::vector<std::uint8_t> bright(n, 0);
  forEachChunk(n, chunkCount(n), settings_.threads,
               [&](std::size_t, std::size_t lo, std::size_t hi) {
                 for (std::size_t i = std::max(lo, settled_); i < hi; ++i)
                   if (active(i) && !noise[i] && (onLineEnd_.empty() || !onLineEnd_[i]))
                     bright[i] = outshines(i, faintest, gainRatio);
               });
  for (std::size_t i = 0; i < n; ++i) noise[i] |= bright[i];
}

}  // namespace FullWaveform::surface_fit
