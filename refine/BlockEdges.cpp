// Block edges: reads the neighbours placed in their cells and an echo's candidate placements;
// gives a move. A wrong block many lines wide (the first lines of a flight line, a patch of
// water the block method put a zone or three too near) fits itself across the lines, so its
// echoes are not off, or fit a line or two, and the place counts as contested. But at the
// block's edge the surface lies on one side: there, beyond the echo's own line and the next,
// every line holding echoes fits a candidate and none the current zone. The edge moves, and
// the iterations eat the block from its edges inward. A right echo beside a wrong block has
// its own surface on the other side, which the candidate does not fit.
#include <algorithm>

#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

namespace {

// Whether, on `side`, past the lines the current zone fits next to the echo (at most
// kBlockReach), at least kSurfaceBeyond lines fit the candidate and every line holding
// echoes fits it and not the current zone.
bool surfaceOnSide(const Fit& now, const Fit& candidate, int side, int reach) {
  bool inBlock = true;
  int beyond = 0;
  for (int k = 1; k <= reach; ++k) {
    const std::uint32_t bit = lineBit(side, k);
    inBlock = inBlock && k <= kBlockReach && ((now.fitMask & bit) || !(now.lineMask & bit));
    if (inBlock) continue;
    if (now.fitMask & bit) return false;
    if ((candidate.lineMask & bit) && !(candidate.fitMask & bit)) return false;
    beyond += (candidate.fitMask & bit) != 0;
  }
  return beyond >= kSurfaceBeyond;
}

// Whether `side` may hold the surface beyond the echo's block, as far as the current zone
// tells: past the lines it fits next to the echo, at least kSurfaceBeyond lines hold echoes
// and none fits it. Most rough places fail here, before any candidate is placed.
bool edgeOnSide(const Fit& now, int side, int reach) {
  bool inBlock = true;
  int failing = 0;
  for (int k = 1; k <= reach; ++k) {
    const std::uint32_t bit = lineBit(side, k);
    inBlock = inBlock && k <= kBlockReach && ((now.fitMask & bit) || !(now.lineMask & bit));
    if (inBlock) continue;
    if (now.fitMask & bit) return false;
    failing += (now.lineMask & bit) != 0;
  }
  return failing >= kSurfaceBeyond;
}

}  // namespace

bool Refiner::atBlockEdge(std::size_t i, const Fit& now, const Fit& candidate,
                          const Candidate& c) const {
  if (settings_.edgeSupport <= 0.0) return false;
  const int reach = settings_.neighbourLines;
  if (!surfaceOnSide(now, candidate, -1, reach) && !surfaceOnSide(now, candidate, 1, reach))
    return false;
  return double(supportOf(i, c.emitter, c.position)) >=
         settings_.edgeSupport * double(std::max(supportOf(i, emitter_[i], positionOf(i)), 1));
}

// An echo whose current zone is not off, at a wrong block's edge: the best candidate clearly
// on (as judge() asks of an off echo's) with the surface on one side. `now`: the current
// zone's fit, counted over every line or until at most one line is left failing it.
Refiner::Verdict Refiner::blockEdge(std::size_t i, const Fit& now) const {
  Verdict v;
  if (settings_.edgeSupport <= 0.0) return v;
  const int reach = settings_.neighbourLines;
  if (!edgeOnSide(now, -1, reach) && !edgeOnSide(now, 1, reach)) return v;
  int bestFitting = -1;
  Candidate c;
  const auto [lowest, highest] = candidateZones(result_.zone[i]);
  for (int candidate = lowest; candidate <= highest; ++candidate) {
    if (candidate == result_.zone[i] || !placeAsZone(i, candidate, c)) continue;
    const Hope hope{std::max(now.fitting + settings_.moveMargin, bestFitting + 1),
                    settings_.onShare, false};
    const Fit f = fitOf(i, c.emitter, c.position, 2 * settings_.neighbourLines + 1, &hope);
    if (f.lines >= kMinLinesToJudge && f.fitting >= settings_.onShare * f.lines - 1e-9 &&
        f.fitting >= now.fitting + settings_.moveMargin && f.fitting > bestFitting &&
        atBlockEdge(i, now, f, c))
      bestFitting = f.fitting, v.zone = candidate, v.emitter = c.emitter, v.oneWay = c.oneWay;
  }
  return v;
}

}  // namespace FullWaveform::surface_fit
