// Chance fits: reads the neighbours placed in their cells and one candidate placement of an
// echo whose current zone is off; tells whether the few lines the current zone fits are
// chance. Rough surfaces (canopy) put echoes at random heights: an echo in a wrong zone
// lands among another zone's canopy and fits a line of it now and then, while its true zone
// fits most lines, but not all (the canopy is as rough there). Such a place is not contested
// when the candidate's place holds many times the echoes near the current one.
#include <algorithm>

#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

bool Refiner::fitsByChance(std::size_t i, const Candidate& c, int nowFitting) const {
  if (settings_.chanceSupport <= 0.0) return false;
  // A single line is chance with fewer times the echoes near the candidate than several.
  const double ratio = nowFitting == 1 && settings_.singleChanceSupport > 0.0
                           ? settings_.singleChanceSupport
                           : settings_.chanceSupport;
  const int here = supportOf(i, emitter_[i], positionOf(i));
  return double(supportOf(i, c.emitter, c.position)) >= ratio * double(std::max(here, 1));
}

}  // namespace FullWaveform::surface_fit
