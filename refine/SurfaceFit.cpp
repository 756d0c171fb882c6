// Surface-continuity refinement on arrays: the fit test and the judgement of one echo. Reads
// the neighbours placed in their cells and the echo's candidate zones; gives a verdict (stay,
// move, off, fits nothing). Scan lines are found as the module finds them (a jump of the scan
// angle), over the whole table, so the neighbours of a fragment's first lines are the
// previous fragment's last lines and the lines after them.
#include "refine/SurfaceFit.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "classify/NoiseClassification.hpp"
#include "output/PointGeometry.hpp"
#include "refine/LargeArrays.hpp"
#include "refine/Refiner.hpp"

namespace FullWaveform {

namespace surface_fit {

namespace {

// Whether the lines the current zone fits are the echo's own block (the lines next to its
// own, on each side up to the first that does not fit) and every line beyond them fits the
// candidate: a wrong block with the surface around it, not a place two surfaces contest.
bool wrongBlock(const Fit& now, const Fit& candidate, int reach) {
  for (int side : {-1, 1}) {
    bool inBlock = true;
    int surfaceBeyond = 0;
    for (int k = 1; k <= reach; ++k) {
      const std::uint32_t bit = lineBit(side, k);
      inBlock = inBlock && ((now.fitMask & bit) || !(now.lineMask & bit));
      if (inBlock && k > kBlockReach && (now.fitMask & bit)) return false;  // a wide block
      if (!inBlock && (candidate.lineMask & bit) && !(candidate.fitMask & bit)) return false;
      surfaceBeyond += !inBlock && (candidate.fitMask & bit);
    }
    if (surfaceBeyond < kSurfaceBeyond) return false;
  }
  return true;
}
// Per thread and line (modulo), the neighbour that fitted the last fit test there.
constexpr std::size_t kFitHints = 16;
thread_local std::uint32_t lastFit[kFitHints];

// The first of [first, end) (in angle order) at `angle` or beyond. Without branches: which
// half holds it is a coin toss the processor cannot learn.
const Neighbour* firstFromAngle(const Neighbour* first, const Neighbour* end, float angle) {
  std::size_t n = std::size_t(end - first);
  if (n == 0) return first;
  while (n > 1) {
    const std::size_t half = n / 2;
    first = first[half].angle < angle ? first + half : first;
    n -= half;
  }
  return first + (first->angle < angle);
}
// The same within one bin of [binLo, binLo + binWidth) (radians), whose neighbours sweep
// its angles about evenly: a guess from the angle and a short walk, instead of a search
// whose every step waits on a load.
const Neighbour* firstFromAngleInBin(const Neighbour* first, const Neighbour* end, float angle,
                                     double binLo, double binWidth) {
  const auto n = std::size_t(end - first);
  const double share = (double(angle) - binLo) / binWidth;
  const Neighbour* at = first + (share > 0.0 ? std::min(n, std::size_t(share * double(n))) : 0);
  while (at != first && at[-1].angle >= angle) --at;
  while (at != end && at->angle < angle) ++at;
  return at;
}

}  // namespace

// Whether an echo of cells [cellLo, cellHi] (one line's adjacent bins, in angle order) lies
// near the query. The echoes nearest the query's scan angle are tried first: on a surface the
// first few decide. `own`: the query's own bin in that line; `hint`: the neighbour that fitted
// the last query in that line, which mostly fits this one.
bool Refiner::anyNear(std::size_t cellLo, std::size_t cellHi, std::size_t own, const FitQuery& q,
                      std::uint32_t& hint, bool& hasEchoes) const {
  const Neighbour* members = placed_.members.data();
  const Neighbour* first = members + placed_.start[cellLo];
  const Neighbour* end = members + placed_.start[cellHi + 1];
  // The echoes of a line are judged one after the other: tried first, the hint spares the
  // search (any neighbour of the cells that fits gives the same answer).
  if (hint >= placed_.start[cellLo] && hint < placed_.start[cellHi + 1]) {
    const Neighbour& m = members[hint];
    if (m.echo != q.self && !(moving_ && (*moving_)[m.echo])) {
      const double gap = squared(m.position, q.p);
      if (gap < settings_.fitTolerance * settings_.fitTolerance ||
          nearBeyondFlat(m, gap, q.origin, q.direction))
        return hasEchoes = true;
    }
  }
  // Whether an echo is near does not depend on where the search starts: within the query's
  // own bin, the nearest angle is guessed from where the angle lies in the bin.
  const Neighbour* up =
      own >= cellLo && own <= cellHi
          ? firstFromAngleInBin(members + placed_.start[own], members + placed_.start[own + 1],
                                q.angle, q.binLo, q.binWidth)
          : firstFromAngle(first, end, q.angle);
  const Neighbour* down = up;
  // Worked out once a neighbour failed the exact test: on a surface the first neighbour
  // beyond the flat tolerance is mostly within the sloped one, and the search ends there.
  double far = -1.0;
  bool failed = false;
  const double flat = settings_.fitTolerance * settings_.fitTolerance;
  const auto fits = [&](const Neighbour& m) {
    if (m.echo == q.self || (moving_ && (*moving_)[m.echo])) return false;
    hasEchoes = true;
    const double gap = squared(m.position, q.p);
    if (gap < flat) return true;
    if (failed) {
      if (far < 0.0) far = farGap(cellLo, cellHi, q.origin, q.direction);
      if (gap >= far) return false;
    }
    if (nearBeyondFlat(m, gap, q.origin, q.direction)) return true;
    failed = true;
    return false;
  };
  while (up != end || down != first) {
    if (up != end && fits(*up++)) return hint = std::uint32_t(up - 1 - members), true;
    if (down != first && fits(*--down)) return hint = std::uint32_t(down - members), true;
  }
  return false;
}

// Whether the line holds an echo near the query among its echoes of the same scan angle (the
// bin and its two neighbours, or a few more where those hold none: the ends of a line).
bool Refiner::lineFits(std::uint32_t line, const FitQuery& q, bool& hasEchoes) const {
  const std::size_t row = std::size_t(line) * std::size_t(cells_.binCount);
  const std::int32_t last = cells_.binCount - 1, at = q.at;
  const std::size_t own = row + std::size_t(at);
  std::uint32_t& hint = q.lastFit[line % kFitHints];
  const auto cell = [&](std::int32_t b) { return row + std::size_t(std::clamp(b, 0, last)); };
  if (anyNear(cell(at - 1), cell(at + 1), own, q, hint, hasEchoes)) return true;
  if (hasEchoes) return false;
  // Farther bins, each side of those searched already.
  for (const auto& [inner, outer] : {std::pair{2, 4}, std::pair{5, kFarthestBin}}) {
    if (at - inner >= 0 && anyNear(cell(at - outer), cell(at - inner), own, q, hint, hasEchoes))
      return true;
    if (at + inner <= last && anyNear(cell(at + inner), cell(at + outer), own, q, hint, hasEchoes))
      return true;
    if (hasEchoes) return false;
  }
  return false;
}

// Whether a candidate with `fit` so far and `remaining` lines to search can no longer move
// the echo nor tell it from noise: even if every remaining line fitted.
bool Refiner::hopeless(const Fit& fit, int remaining, const Hope& hope) {
  if (hope.needAny && fit.fitting == 0) return false;
  const int most = fit.fitting + remaining, lines = fit.lines + remaining;
  return most < hope.fitting || most < hope.share * lines - 1e-9 || lines < kMinLinesToJudge;
}

// How many of the neighbouring lines hold echoes near `p` and how many hold echoes at all;
// stops once `enough` lines fit, or once the candidate is hopeless.
Fit Refiner::fitOf(std::size_t self, std::uint32_t emitter, const point& p, int enough,
                   const Hope* hope) const {
  Fit fit;
  int remaining = 2 * settings_.neighbourLines;
  const std::int64_t line = cells_.line[emitter];
  const std::int32_t bin = cells_.bin[emitter];
  // What every line's search reads of the query, read once.
  const double binWidth = settings_.binDegrees * std::numbers::pi / 180.0;
  const FitQuery q{self,
                   p,
                   shots_.origin[emitter],
                   shots_.direction[emitter],
                   float(cells_.angle[emitter]),
                   bin - cells_.firstBin,
                   double(bin) * binWidth,
                   binWidth,
                   lastFit};
  const auto lineCount = std::int64_t(cells_.lineOrigin.size());
  for (int k = 1; k <= settings_.neighbourLines; ++k)
    for (int side : {-1, 1}) {
      if (hope && hopeless(fit, remaining, *hope)) return fit;
      --remaining;
      const std::int64_t other = line + side * k;
      if (other < 0 || other >= lineCount) continue;
      if (squared(cells_.lineOrigin[std::size_t(other)], cells_.lineOrigin[std::size_t(line)]) >
          settings_.farLineDistance * settings_.farLineDistance)
        continue;  // another flight line
      bool hasEchoes = false;
      const bool fits = lineFits(std::uint32_t(other), q, hasEchoes);
      fit.fitting += fits, fit.lines += hasEchoes;
      fit.fitMask |= fits ? lineBit(side, k) : 0u;
      fit.lineMask |= hasEchoes ? lineBit(side, k) : 0u;
      if (fit.fitting >= enough) return fit;
    }
  return fit;
}

// The zones an echo of zone `z` may move to: `zoneReach` either side; from zone 0, which the
// run also gives echoes it could not resolve, every zone.
std::pair<int, int> Refiner::candidateZones(int z) const {
  if (z == 0 && settings_.zeroReachesAll) return {0, maxZone_};
  return {std::max(0, z - settings_.zoneReach), std::min(maxZone_, z + settings_.zoneReach)};
}

// Lines to count before a zone fitting `share` of them is known to fit more.
int Refiner::linesBeyond(double share) const {
  // floor() without the library call: asked for at every judgement.
  const double lines = share * 2 * settings_.neighbourLines + 1e-9;
  const int whole = int(lines);
  return (double(whole) > lines ? whole - 1 : whole) + 1;
}

Refiner::Verdict Refiner::judge(std::size_t i) const {
  Verdict v;
  const std::uint32_t e = emitter_[i];
  const int z = result_.zone[i];
  // Stop counting once more lines fit than an off zone may: the current zone is on a surface.
  const Fit now = fitOf(i, e, positionOf(i), linesBeyond(settings_.offShare));
  if (now.lines < kMinLinesToJudge) return v;
  if (now.fitting > settings_.offShare * now.lines + 1e-9) {
    // Every line so far fits: a surface, not a cluster beside one (the common case, kept cheap).
    if (now.fitting == now.lines) return v;
    // Counted far enough for both tests below (the block-edge test needs two failing lines).
    const Fit all = fitOf(i, e, positionOf(i),
                          std::max(linesBeyond(settings_.outnumberedShare),
                                   2 * settings_.neighbourLines - kSurfaceBeyond + 1));
    if (settings_.outnumberedShare > 0.0) v = outnumbered(i, all);
    return v.zone >= 0 ? v : blockEdge(i, all);
  }
  v.off = true;
  int bestFitting = -1;
  bool anyFits = now.fitting > 0;
  Candidate c;
  const auto [lowest, highest] = candidateZones(z);
  for (int candidate = lowest; candidate <= highest; ++candidate) {
    if (candidate == z || !placeAsZone(i, candidate, c)) continue;
    const Hope hope{std::max(now.fitting + settings_.moveMargin, bestFitting + 1),
                    settings_.onShare, !anyFits};
    const Fit f = fitOf(i, c.emitter, c.position, 2 * settings_.neighbourLines + 1, &hope);
    anyFits = anyFits || f.fitting > 0;
    const bool clearlyOn = f.lines >= kMinLinesToJudge &&
                           f.fitting >= settings_.onShare * f.lines - 1e-9 &&
                           f.fitting >= now.fitting + settings_.moveMargin &&
                           (now.fitting == 0 || f.lines - f.fitting <= settings_.contestedMiss ||
                            wrongBlock(now, f, settings_.neighbourLines) ||
                            fitsByChance(i, c, now.fitting) || atBlockEdge(i, now, f, c));
    if (clearlyOn && f.fitting > bestFitting)
      bestFitting = f.fitting, v.zone = candidate, v.emitter = c.emitter, v.oneWay = c.oneWay;
  }
  v.unfit = !anyFits;
  return v.zone < 0 && now.fitting == 0 && anyFits ? sparseCanopy(i, v) : v;
}

// A zone that fits some lines, where another candidate fits every line holding echoes, and
// clearly more of them, with several times the echoes near it: a small wrong cluster of a
// few lines propping itself up beside the surface. Where the cluster is as dense as the
// surface (a wrong run of many blocks) the place is contested and the echo stays.
Refiner::Verdict Refiner::outnumbered(std::size_t i, const Fit& now) const {
  Verdict v;
  if (now.lines < kMinLinesToJudge || now.fitting > settings_.outnumberedShare * now.lines + 1e-9)
    return v;
  const int z = result_.zone[i];
  int bestFitting = -1;
  Candidate c, best;
  const auto [lowest, highest] = candidateZones(z);
  for (int candidate = lowest; candidate <= highest; ++candidate) {
    if (candidate == z || !placeAsZone(i, candidate, c)) continue;
    const Hope everyLine{std::max(now.fitting + settings_.moveMargin, bestFitting + 1), 1.0, false};
    const Fit f = fitOf(i, c.emitter, c.position, 2 * settings_.neighbourLines + 1, &everyLine);
    if (f.lines >= now.lines && f.fitting == f.lines &&
        f.fitting >= now.fitting + settings_.moveMargin && f.fitting > bestFitting)
      bestFitting = f.fitting, v.zone = candidate, best = c;
  }
  if (v.zone < 0 ||
      double(supportOf(i, best.emitter, best.position)) <
          settings_.outnumberedSupport * double(supportOf(i, emitter_[i], positionOf(i))))
    return {};
  v.emitter = best.emitter, v.oneWay = best.oneWay;
  return v;
}

// How many echoes of the neighbouring lines, at the same scan angle (the bin and its two
// neighbours), lie near `p`.
int Refiner::supportOf(std::size_t self, std::uint32_t emitter, const point& p) const {
  const std::int64_t line = cells_.line[emitter];
  const std::int32_t last = cells_.binCount - 1, at = cells_.bin[emitter] - cells_.firstBin;
  const auto lineCount = std::int64_t(cells_.lineOrigin.size());
  const auto cellStart = [&](std::int64_t l, std::int32_t b) {
    return placed_.members.data() +
           placed_.start[std::size_t(l) * std::size_t(cells_.binCount) + std::size_t(b)];
  };
  int count = 0;
  for (int k = 1; k <= settings_.neighbourLines; ++k)
    for (int side : {-1, 1}) {
      const std::int64_t other = line + side * k;
      if (other < 0 || other >= lineCount) continue;
      const Neighbour* end = cellStart(other, std::min(at + 1, last) + 1);
      for (const Neighbour* m = cellStart(other, std::max(at - 1, 0)); m != end; ++m)
        count += m->echo != self && !(moving_ && (*moving_)[m->echo]) &&
                 near(*m, p, shots_.origin[emitter], shots_.direction[emitter]);
    }
  return count;
}

// Whether neither the current zone nor any candidate fits a single line (the current zone
// judged off, on enough lines): judge()'s `unfit`, without ranking the candidates.
bool Refiner::fitsNothing(std::size_t i) const {
  const std::uint32_t e = emitter_[i];
  const int z = result_.zone[i];
  const Fit now = fitOf(i, e, positionOf(i), 1);
  if (now.fitting > 0 || now.lines < kMinLinesToJudge) return false;
  Candidate c;
  const auto [lowest, highest] = candidateZones(z);
  for (int candidate = lowest; candidate <= highest; ++candidate)
    if (candidate != z && placeAsZone(i, candidate, c) &&
        fitOf(i, c.emitter, c.position, 1).fitting > 0)
      return false;
  return true;
}

bool Refiner::placeAsZone(std::size_t i, int zone, Candidate& out) const {
  const std::uint32_t e = emitter_[i];
  const std::int64_t other = std::int64_t(e) + result_.zone[i] - zone;
  if (other < 0 || other >= std::int64_t(shots_.time.size())) return false;
  out.emitter = std::uint32_t(other);
  out.oneWay = oneWayTimeFrom(oneWay_[i], shots_.time[e], shots_.time[out.emitter]);
  if (!(out.oneWay > kNearRangeLimit)) return false;  // the run takes echoes this near for noise
  out.position = placeEcho(out.oneWay, shots_.direction[out.emitter], shots_.origin[out.emitter],
                           shots_.lightSpeed)
                     .position;
  return true;
}

}  // namespace surface_fit

RefineScratch::RefineScratch() : arrays_(std::make_unique<surface_fit::WorkArrays>()) {}
RefineScratch::~RefineScratch() = default;

RefineResult refineEchoZones(const ShotTable& shots, const RefineEchoes& echoes,
                             const RefineSettings& settings, std::size_t settled,
                             RefineScratch* scratch) {
  if (shots.time.empty() || echoes.empty()) {
    RefineResult r;
    for (const auto& e : echoes) r.zone.push_back(e.zone);
    r.flag.assign(echoes.size(), kUntouched);
    return r;
  }
  if (scratch) return refineBlock(shots, echoes, settings, {settled}, *scratch);
  RefineScratch own;
  return refineBlock(shots, echoes, settings, {settled}, own);
}

RefineResult refineBlock(const ShotTable& shots, const RefineEchoes& echoes,
                         const RefineSettings& settings, const BlockBounds& bounds,
                         RefineScratch& scratch) {
  if (shots.time.empty() || echoes.empty()) return refineEchoZones(shots, echoes, settings);
  return surface_fit::Refiner(shots, echoes, settings, bounds, scratch.arrays()).run();
}

}  // namespace FullWaveform
