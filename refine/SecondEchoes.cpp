// Second echoes: the noise test for birds and dust that a wrong zone puts on the ground. Reads
// every echo's current emitting shot and one-way time, the noise verdicts so far and the
// neighbours placed in their cells; writes more noise verdicts. A bird near the aircraft
// given to a shot several zones earlier, or dust given a zone too far, can land a few metres
// off the ground and fit the neighbouring lines, whose tolerance grows with the gap between
// the footprints. But the shot it now names has its own echo there, from the ground, and one
// pulse does not return from the same surface twice: of two echoes of one emitting shot a
// few metres apart along the beam, the one the shots beside it in its own scan line bear out
// is the surface, and the other is noise where nothing of that line lies near it nor, by
// more than half their spread, around it along the beam (canopy spreads its line's echoes
// over metres). Where both are borne out (a steep face or a roof's edge, split by the
// footprint) nothing is told.
#include <algorithm>
#include <cmath>

#include "refine/ParallelChunks.hpp"
#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

// Whether an echo of another shot of the emitter's own scan line, at the same scan angle
// (the bin and its two neighbours), lies near `p`; -1 where the line cannot tell (the shots
// next to a line's end may be the next line's ghosts).
int Refiner::ownLineNear(std::size_t self, std::uint32_t emitter, const point& p) const {
  const std::int64_t last = std::int64_t(shots_.time.size()) - 1;
  const std::int64_t before = std::max<std::int64_t>(0, std::int64_t(emitter) - kStraddleShots);
  const std::int64_t after = std::min<std::int64_t>(last, std::int64_t(emitter) + kStraddleShots);
  if (cells_.line[std::size_t(before)] != cells_.line[std::size_t(after)]) return -1;
  const std::size_t row = std::size_t(cells_.line[emitter]) * std::size_t(cells_.binCount);
  const std::int32_t lastBin = cells_.binCount - 1, at = cells_.bin[emitter] - cells_.firstBin;
  const Neighbour* m =
      placed_.members.data() + placed_.start[row + std::size_t(std::max(at - 1, 0))];
  const Neighbour* end =
      placed_.members.data() + placed_.start[row + std::size_t(std::min(at + 1, lastBin)) + 1];
  for (; m != end; ++m)
    if (m->echo != self && m->emitter != emitter &&
        near(*m, p, shots_.origin[emitter], shots_.direction[emitter]))
      return 1;
  return 0;
}

// Whether another of the echoes [from, to) of echo i's emitting shot (i among them) outdoes
// it: it lies within the settings' gap along the beam and its own scan line bears it out,
// where nothing of that line bears out echo i.
bool Refiner::outdone(std::size_t i, const std::uint32_t* from, const std::uint32_t* to) const {
  const std::uint32_t e = emitter_[i];
  bool asked = false;
  for (; from != to; ++from) {
    const double gap = std::abs(oneWay_[*from] - oneWay_[i]) * shots_.lightSpeed;
    if (*from == i || gap < settings_.secondEchoMin || gap > settings_.secondEchoMax) continue;
    if (!asked && ownLineBearsOut(i, e, positionOf(i), settings_.secondEchoSpread)) return false;
    asked = true;
    if (ownLineNear(*from, e, positionOf(*from)) == 1) return true;
  }
  return false;
}

// Marks in `noise` the echoes (judged, not noise yet) that another echo of their emitting
// shot outdoes. Told from the verdicts given before: any thread count gives the same.
void Refiner::markSecondEchoes(std::vector<std::uint8_t>& noise) const {
  const std::size_t n = echoes_.size();
  // The candidates by emitting shot: counted, then placed (end[e] ends as e's end).
  LargeVector<std::uint32_t> end(shots_.time.size() + 1, 0), byEmitter;
  const auto candidate = [&](std::size_t i) { return active(i) && !noise[i]; };
  for (std::size_t i = 0; i < n; ++i)
    if (candidate(i)) ++end[emitter_[i] + 1];
  for (std::size_t k = 1; k < end.size(); ++k) end[k] += end[k - 1];
  byEmitter.resize(end.back());
  for (std::uint32_t i = 0; i < n; ++i)
    if (candidate(i)) byEmitter[end[emitter_[i]]++] = i;
  std::vector<std::uint8_t> second(n, 0);
  forEachChunk(n, chunkCount(n), settings_.threads,
               [&](std::size_t, std::size_t lo, std::size_t hi) {
                 for (std::size_t i = std::max(lo, settled_); i < hi; ++i) {
                   // Not a candidate: its emitter may name no shot of the table.
                   if (!candidate(i)) continue;
                   const std::uint32_t e = emitter_[i];
                   const std::uint32_t from = e == 0 ? 0 : end[e - 1];
                   if (end[e] - from > 1)
                     second[i] = outdone(i, byEmitter.data() + from, byEmitter.data() + end[e]);
                 }
               });
  for (std::size_t i = 0; i < n; ++i) noise[i] |= second[i];
}

}  // namespace FullWaveform::surface_fit
