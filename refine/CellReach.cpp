// Bounds per cell of the fit test's tolerance. Reads the neighbours placed in each cell and
// their shots; writes per cell the spread of the shots' origins and directions and the
// farthest range. A query far from a neighbour beyond the largest tolerance any of the
// cells' neighbours could be given (most candidates of a wrong zone) needs no exact test.
#include <algorithm>
#include <cmath>
#include <limits>

#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

// Bounds the cells [cellLo, cellHi) as they are placed now.
void Refiner::boundCells(std::size_t cellLo, std::size_t cellHi) {
  placed_.reach.resize(cells_.cellCount());
  for (std::size_t c = cellLo; c < cellHi; ++c) {
    const Neighbour* m = placed_.members.data() + placed_.start[c];
    const Neighbour* end = placed_.members.data() + placed_.start[c + 1];
    CellReach r;
    if (m != end) r.origin = shots_.origin[m->emitter], r.direction = shots_.direction[m->emitter];
    // The root of the largest square: the largest root (roots keep the order), one root a cell.
    for (; m != end; ++m) {
      r.originRadius = std::max(r.originRadius, squared(shots_.origin[m->emitter], r.origin));
      r.directionRadius =
          std::max(r.directionRadius, squared(shots_.direction[m->emitter], r.direction));
      r.reach = std::max(r.reach, m->reach);
    }
    r.originRadius = std::sqrt(r.originRadius), r.directionRadius = std::sqrt(r.directionRadius);
    placed_.reach[c] = r;
  }
}

// The squared gap from which no neighbour of cells [cellLo, cellHi] lies near a query from
// `origin` along `direction`: the tolerance grows with the distance of the two shots'
// origins and the range times the gap of their directions, each at most the cell's centre's
// plus its radius. A little more, for rounding; infinite where the settings make the
// tolerance no growing one.
double Refiner::farGap(std::size_t cellLo, std::size_t cellHi, const point& origin,
                       const Gemwold::PhysicalSpace::vector& direction) const {
  constexpr double kNothingFar = std::numeric_limits<double>::infinity();
  if (!(settings_.fitTolerance >= 0.0 && settings_.fitPerMetre >= 0.0)) return kNothingFar;
  double apart = 0.0;
  for (std::size_t c = cellLo; c <= cellHi; ++c) {
    if (placed_.start[c] == placed_.start[c + 1]) continue;
    const CellReach& r = placed_.reach[c];
    const double most = std::sqrt(squared(r.origin, origin)) + r.originRadius +
                        r.reach * (std::sqrt(squared(r.direction, direction)) + r.directionRadius);
    if (std::isnan(most)) return kNothingFar;
    apart = std::max(apart, most);
  }
  const double tolerance = (settings_.fitTolerance + settings_.fitPerMetre * apart) * 1.0001 + 1e-6;
  return tolerance * tolerance;
}

}  // namespace FullWaveform::surface_fit
