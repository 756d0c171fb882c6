// Lone echoes: the noise test for echoes that fit a neighbouring line or two by chance. Reads
// the neighbours placed in their cells (the final neighbourhood) and the echo's candidate
// zones; tells whether no placement of the echo is borne out by a surface. Birds and dust are
// single echoes of single shots: placed in a wrong zone they can lie near a point of another
// line (another bird, or the ground a metre or two away), but never near the echoes of the
// shots beside them in their own scan line. A surface continues along the scan line: a wall
// that only one neighbouring line reaches has echoes of the shots next to it on the wall too.
#include <algorithm>
#include <cmath>

#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

namespace {
constexpr int kMinOwnLineEchoes = 3;  // fewer echoes beside it in its own line: cannot tell
constexpr int kBandEchoes = 128;      // more at one scan angle (a canopy): the whole spread
}  // namespace

// Whether the emitter's own scan line, at the same scan angle (the bin and its two
// neighbours), bears out a placement at `p`: it holds an echo of a shot beside its own near
// it, or `p` lies among its echoes along the beam, or no farther outside them than
// `spreadShare` times their spread (canopy, a roof's edge: a rough surface where a point may
// be alone; with `band`, of one surface's echoes with birds and dust among them, the band
// they fill: refine/OwnLineBand.cpp), or it holds too few echoes to tell. Echoes of the same shot
// are left out: a wave split into peaks gives several echoes of one target. At a line's end the
// line's last echoes may be the ghosts of the next line's shots: no telling.
bool Refiner::ownLineBearsOut(std::size_t self, std::uint32_t emitter, const point& p,
                              double spreadShare, double band) const {
  const std::int64_t last = std::int64_t(shots_.time.size()) - 1;
  const std::int64_t before = std::max<std::int64_t>(0, std::int64_t(emitter) - kStraddleShots);
  const std::int64_t after = std::min<std::int64_t>(last, std::int64_t(emitter) + kStraddleShots);
  if (cells_.line[std::size_t(before)] != cells_.line[std::size_t(after)]) return true;
  const std::size_t row = std::size_t(cells_.line[emitter]) * std::size_t(cells_.binCount);
  const std::int32_t at = cells_.bin[emitter] - cells_.firstBin;
  const Neighbour* m = placed_.members.data() + placed_.start[row + std::size_t(at - 1)];
  const Neighbour* end = placed_.members.data() + placed_.start[row + std::size_t(at + 2)];
  const point& origin = shots_.origin[emitter];
  const auto& d = shots_.direction[emitter];
  const double length = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
  const std::int64_t nearShots = settings_.ownLineNearShots;
  double along[kBandEchoes];
  AlongSpan all{INFINITY, -INFINITY};
  int count = 0;
  for (; m != end; ++m) {
    if (m->echo == self || m->emitter == emitter) continue;
    // Beside its own shot a surface continues within the flat tolerance; a few shots farther,
    // the slope allowance takes in dust a few metres off the ground.
    if ((nearShots <= 0 ||
         std::abs(std::int64_t(m->emitter) - std::int64_t(emitter)) <= nearShots) &&
        near(*m, p, origin, d))
      return true;
    const double a = ((m->position.x - origin.x) * d.x + (m->position.y - origin.y) * d.y +
                      (m->position.z - origin.z) * d.z) /
                     length;
    all.lo = std::min(all.lo, a), all.hi = std::max(all.hi, a);
    if (count < kBandEchoes) along[count] = a;
    ++count;
  }
  if (count < kMinOwnLineEchoes) return true;
  const AlongSpan span = band > 0.0 && count <= kBandEchoes ? surfaceBand(along, count, band) : all;
  const double reach = std::sqrt(squared(p, origin));
  return std::max(span.lo - reach, reach - span.hi) <= spreadShare * (span.hi - span.lo);
}

// Whether a placement fits too few lines to be a surface and nothing of its own line is near.
bool Refiner::byChance(std::size_t self, std::uint32_t emitter, const point& p) const {
  const int enough = settings_.loneLines;
  const Fit fit = fitOf(self, emitter, p, enough);
  return fit.fitting < enough &&
         (fit.fitting == 0 || !ownLineBearsOut(self, emitter, p, 1.0, settings_.ownLineBand));
}

// Whether an echo whose current zone is off fits what it fits by chance only, under every
// candidate zone: then it is noise, as one that fits nothing.
bool Refiner::lone(std::size_t i) const {
  if (settings_.loneLines <= 0 || !byChance(i, emitter_[i], positionOf(i))) return false;
  Candidate c;
  const auto [lowest, highest] = candidateZones(result_.zone[i]);
  for (int candidate = lowest; candidate <= highest; ++candidate)
    if (candidate != result_.zone[i] && placeAsZone(i, candidate, c) &&
        !byChance(i, c.emitter, c.position))
      return false;
  return true;
}

}  // namespace FullWaveform::surface_fit
