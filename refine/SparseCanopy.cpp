// Sparse canopy: reads the neighbours placed in their cells and the candidate placements of
// an echo whose current zone fits no line at all; gives a move. A canopy whose lines hold
// few echoes at each scan angle (a radial scanner's) is too rough for its true zone to fit
// half the lines, but a canopy echo in a wrong zone lands in the empty air between two
// crowns and fits none: a candidate that fits several lines, with many times the echoes near
// it, is then the surface.
#include <algorithm>

#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

Refiner::Verdict Refiner::sparseCanopy(std::size_t i, Verdict v) const {
  if (settings_.sparseLines <= 0) return v;
  const Verdict stay = v;
  const int z = result_.zone[i];
  int bestFitting = settings_.sparseLines - 1;
  bool tie = false;
  Candidate c, best;
  const auto [lowest, highest] = candidateZones(z);
  for (int candidate = lowest; candidate <= highest; ++candidate) {
    if (candidate == z || !placeAsZone(i, candidate, c)) continue;
    const Hope hope{bestFitting, 0.0, false};
    const Fit f = fitOf(i, c.emitter, c.position, 2 * settings_.neighbourLines + 1, &hope);
    // A surface around the echo: lines on both sides of it fit, not a cluster beside it.
    if (!(f.fitMask & 0xffffu) || !(f.fitMask >> 16)) continue;
    if (f.fitting == bestFitting && v.zone >= 0) tie = true;
    if (f.fitting <= bestFitting) continue;
    bestFitting = f.fitting, v.zone = candidate, best = c, tie = false;
  }
  if (v.zone < 0 || tie ||
      double(supportOf(i, best.emitter, best.position)) <
          settings_.sparseSupport * double(std::max(supportOf(i, emitter_[i], positionOf(i)), 1)))
    return stay;
  v.emitter = best.emitter, v.oneWay = best.oneWay;
  return v;
}

}  // namespace FullWaveform::surface_fit
