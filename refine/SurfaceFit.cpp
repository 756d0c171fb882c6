// Surface-continuity refinement on arrays. Reads the shot table and the echoes; writes new
// zones and flags. Scan lines are found as the module finds them (a jump of the scan angle),
// over the whole table, so the neighbours of a fragment's first lines are the previous
// fragment's last lines and the lines after them.
#include "refine/SurfaceFit.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "classify/NoiseClassification.hpp"
#include "output/PointGeometry.hpp"
#include "refine/LargeArrays.hpp"
#include "refine/ScanLines.hpp"

namespace FullWaveform {

namespace {

using Gemwold::PhysicalSpace::point;

constexpr int kMinLinesToJudge = 3;  // fewer lines with echoes nearby: too little to judge
constexpr int kStraddleShots = 2;    // shots either side of a line change: no neighbour
constexpr int kBlockReach = 1;       // a wrong block: its own line and at most one each side
constexpr int kSurfaceBeyond = 2;    // lines each side of a wrong block that must fit the move
constexpr int kFarthestBin = 10;     // bins searched each side where the near ones hold none

template <class A>
double squared(const A& a, const A& b) {
  const double dx = a.x - b.x, dy = a.y - b.y, dz = a.z - b.z;
  return dx * dx + dy * dy + dz * dz;
}

// A neighbour as the fit test reads it: its position, range, scan angle and emitting shot;
// stored by cell so that a line's adjacent bins are contiguous.
struct Neighbour {
  point position;
  double reach;
  float angle;
  std::uint32_t echo, emitter;
};

// The neighbours of each cell, placed with their current zones.
struct Placement {
  LargeVector<std::uint32_t> start, fill;  // cell c holds members[start[c], start[c+1])
  LargeVector<Neighbour> members;
  // One line's neighbours while it is sorted again: those that stay and those that join.
  std::vector<Neighbour> line, joining;
};

// Cells in line order, a cell's neighbours in scan-angle order.
bool byCellAndAngle(const Neighbour& a, const Neighbour& b, const ShotCells& cells) {
  const std::int32_t binA = cells.bin[a.emitter], binB = cells.bin[b.emitter];
  if (binA != binB) return binA < binB;
  return a.angle != b.angle ? a.angle < b.angle : a.echo < b.echo;
}

struct Fit {
  int lines = 0, fitting = 0;
  // Which lines hold echoes, and which fit: bit k - 1 for the line k before, 16 + k - 1 after.
  std::uint32_t lineMask = 0, fitMask = 0;
};

std::uint32_t lineBit(int side, int k) {
  return 1u << ((side < 0 ? 0 : 16) + k - 1);
}

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

class Refiner {
 public:
  Refiner(const ShotTable& t, const RefineEchoes& e, const RefineSettings& s)
      : shots_(t), echoes_(e), settings_(s), cells_(t, s.binDegrees) {
    result_.zone.resize(e.size());
    result_.flag.assign(e.size(), kUntouched);
    emitter_.resize(e.size());
    oneWay_.resize(e.size());
    for (std::size_t i = 0; i < e.size(); ++i) {
      result_.zone[i] = e[i].zone, emitter_[i] = e[i].emitter, oneWay_[i] = e[i].oneWayTime;
      maxZone_ = std::max<int>(maxZone_, e[i].zone);
    }
    maxZone_ = std::min(maxZone_ + 1, 254);
    // Echoes already noise, or that name no shot of the table, take no part.
    active_.resize(e.size());
    for (std::size_t i = 0; i < e.size(); ++i)
      active_[i] = !e[i].noise && e[i].emitter < t.time.size() && std::isfinite(e[i].oneWayTime);
    moving_echoes_.assign(e.size(), 0);
    off_.assign(e.size(), false), unfitWhenJudged_.assign(e.size(), false);
    judgedAt_.assign(e.size(), 0), changedAt_.assign(cells_.cellCount(), 0);
    straddles_.resize(e.size());
    for (std::size_t i = 0; i < e.size(); ++i) straddles_[i] = straddlesLines(i);
    // Filled in shot order, a cell is in scan-angle order already wherever the angle sweeps
    // steadily (moves shift an echo by a shot or two); sorting then mostly only checks.
    LargeVector<std::uint32_t> first(t.time.size() + 1, 0);
    for (std::uint32_t i = 0; i < e.size(); ++i)
      if (active(i)) ++first[e[i].emitter + 1];
    for (std::size_t k = 1; k < first.size(); ++k) first[k] += first[k - 1];
    byShot_.resize(e.size());
    for (std::uint32_t i = 0; i < e.size(); ++i)
      if (active(i)) byShot_[first[e[i].emitter]++] = i;
    byShot_.resize(first.back());
  }

  RefineResult run();

 private:
  bool active(std::size_t i) const { return active_[i]; }
  // An echo placed within two shots of a line change (as first placed) may belong to the
  // other line, and such echoes go wrong together, line after line, into a ghost strip that
  // fits itself: they are judged, but are no neighbours.
  bool straddlesLines(std::size_t i) const {
    const std::int64_t e = emitter_[i], last = std::int64_t(shots_.time.size()) - 1;
    const auto shot = [&](std::int64_t k) {
      return std::size_t(std::clamp<std::int64_t>(k, 0, last));
    };
    return cells_.line[shot(e - kStraddleShots)] != cells_.line[shot(e + kStraddleShots)];
  }
  bool isNeighbour(std::size_t i) const { return active(i) && !straddles_[i]; }
  point positionOf(std::size_t i) const {
    const std::uint32_t e = emitter_[i];
    return placeEcho(oneWay_[i], shots_.direction[e], shots_.origin[e], shots_.lightSpeed).position;
  }
  Neighbour neighbourOf(std::uint32_t i) const {
    const std::uint32_t e = emitter_[i];
    const point at = positionOf(i);
    return {at, std::sqrt(squared(at, shots_.origin[e])), float(cells_.angle[e]), i, e};
  }
  struct CellMove {
    std::uint32_t echo, from, to;  // a neighbour and the cells it leaves and joins
  };
  void fillCells();
  void updateCells(std::vector<CellMove>& moved);
  bool unchangedSinceJudged(std::size_t i) const;
  void markNoise();
  void sortLine(std::size_t line);
  bool fitsNothing(std::size_t i) const;
  int linesBeyond(double share) const;
  std::pair<int, int> candidateZones(int z) const;
  int supportOf(std::size_t self, std::uint32_t emitter, const point& p) const;
  // Echo i placed at the emitting shot `zone` would give (same arrival); false when that shot
  // is not in the table or the echo would be nearer than the run accepts.
  struct Candidate {
    std::uint32_t emitter = 0;
    double oneWay = 0.0;
    point position{};
  };
  bool placeAsZone(std::size_t i, int zone, Candidate& out) const;
  // What a candidate must still reach to matter: fitting lines and their share, and whether
  // any fit at all is still to be found (for the noise test).
  struct Hope {
    int fitting = 0;
    double share = 0.0;
    bool needAny = false;
  };
  Fit fitOf(std::size_t self, std::uint32_t emitter, const point& p, int enough,
            const Hope* hope = nullptr) const;
  static bool hopeless(const Fit& fit, int remaining, const Hope& hope);
  bool lineFits(std::uint32_t line, std::int32_t bin, std::size_t self, std::uint32_t emitter,
                const point& p, bool& hasEchoes) const;
  bool near(const Neighbour& m, const point& p, const point& origin,
            const Gemwold::PhysicalSpace::vector& direction) const;
  bool anyNear(std::size_t cellLo, std::size_t cellHi, std::size_t self, std::uint32_t emitter,
               const point& p, bool& hasEchoes) const;
  struct Verdict {
    int zone = -1;       // the zone to move to; -1: stay
    bool off = false;    // the current zone fits too few lines
    bool unfit = false;  // no candidate fits any line
    std::uint32_t emitter = 0;
    double oneWay = 0.0;
  };
  Verdict outnumbered(std::size_t i, const Fit& now) const;
  Verdict judge(std::size_t i) const;
  void keepSupportedMoves(std::vector<std::pair<std::uint32_t, Verdict>>& moves);
  void applyMoves(const std::vector<std::pair<std::uint32_t, Verdict>>& moves, std::uint16_t stamp,
                  std::vector<std::uint32_t>& changedCells);
  void markNearChanges(const std::vector<std::uint32_t>& changedCells,
                       std::vector<std::uint8_t>& near) const;

  const ShotTable& shots_;
  const RefineEchoes& echoes_;
  RefineSettings settings_;
  ShotCells cells_;
  Placement placed_;
  LargeVector<std::uint32_t> emitter_;
  LargeVector<double> oneWay_;
  int maxZone_ = 0;
  std::vector<bool> active_, straddles_;
  LargeVector<std::uint32_t> byShot_;        // echoes by first emitting shot
  std::vector<std::uint8_t> moving_echoes_;  // echoes about to move, marked for a while
  std::vector<std::uint32_t> movingList_;
  // While set, the echoes marked here count as no neighbours (they are about to move).
  const std::vector<std::uint8_t>* moving_ = nullptr;
  std::vector<CellMove> cellMoves_;
  // Per echo its last verdict (off; no zone fits) and when it was given (iteration + 1); per
  // cell the last iteration + 1 that changed it.
  std::vector<bool> off_, unfitWhenJudged_;
  std::vector<std::uint16_t> judgedAt_, changedAt_;
  RefineResult result_;
};

// Sorts the neighbours into their cells, each in scan-angle order.
void Refiner::fillCells() {
  const std::size_t n = echoes_.size();
  placed_.start.assign(cells_.cellCount() + 1, 0);
  for (std::size_t i = 0; i < n; ++i)
    if (isNeighbour(i)) ++placed_.start[cells_.cellOf(emitter_[i]) + 1];
  for (std::size_t c = 1; c < placed_.start.size(); ++c) placed_.start[c] += placed_.start[c - 1];
  placed_.members.resize(placed_.start.back());
  placed_.fill.assign(placed_.start.begin(), placed_.start.end() - 1);
  for (const std::uint32_t i : byShot_)
    if (isNeighbour(i))
      placed_.members[placed_.fill[cells_.cellOf(emitter_[i])]++] = neighbourOf(i);
  const auto byAngle = [](const Neighbour& a, const Neighbour& b) {
    return a.angle != b.angle ? a.angle < b.angle : a.echo < b.echo;
  };
  for (std::size_t c = 0; c + 1 < placed_.start.size(); ++c) {
    const auto first = placed_.members.begin() + placed_.start[c];
    const auto last = placed_.members.begin() + placed_.start[c + 1];
    if (!std::is_sorted(first, last, byAngle)) std::sort(first, last, byAngle);
  }
}

// Brings the cells up to date after the moves (emitters already changed): only the lines a
// neighbour left or joined are sorted again. A neighbour that moved across a line's end
// changes two lines' counts: then every line is filled again.
void Refiner::updateCells(std::vector<CellMove>& moved) {
  const auto bins = std::uint32_t(cells_.binCount);
  for (const CellMove& m : moved)
    if (m.from / bins != m.to / bins) return fillCells();
  std::sort(moved.begin(), moved.end(),
            [](const CellMove& a, const CellMove& b) { return a.to < b.to; });
  for (const CellMove& m : moved) moving_echoes_[m.echo] = 1;
  for (std::size_t k = 0; k < moved.size();) {
    const std::uint32_t line = moved[k].to / bins;
    placed_.line.clear(), placed_.joining.clear();
    const Neighbour* first = placed_.members.data() + placed_.start[line * bins];
    const Neighbour* last = placed_.members.data() + placed_.start[(line + 1) * bins];
    for (const Neighbour* m = first; m != last; ++m)
      if (!moving_echoes_[m->echo]) placed_.line.push_back(*m);
    for (; k < moved.size() && moved[k].to / bins == line; ++k)
      placed_.joining.push_back(neighbourOf(moved[k].echo));
    sortLine(line);
  }
  for (const CellMove& m : moved) moving_echoes_[m.echo] = 0;
}

// Writes back one line's neighbours in cell and angle order (those that stay, in order
// already, merged with those that join; as many as the line held), and where its cells start.
void Refiner::sortLine(std::size_t line) {
  const auto bins = std::size_t(cells_.binCount);
  const auto order = [&](const Neighbour& a, const Neighbour& b) {
    return byCellAndAngle(a, b, cells_);
  };
  std::sort(placed_.joining.begin(), placed_.joining.end(), order);
  std::uint32_t at = placed_.start[line * bins];
  const auto out = placed_.members.begin() + at;
  std::merge(placed_.line.begin(), placed_.line.end(), placed_.joining.begin(),
             placed_.joining.end(), out, order);
  const auto end = out + std::ptrdiff_t(placed_.line.size() + placed_.joining.size());
  auto m = out;
  for (std::size_t b = 0; b < bins; ++b) {
    placed_.start[line * bins + b] = at;
    for (; m != end && std::size_t(cells_.bin[m->emitter] - cells_.firstBin) == b; ++m) ++at;
  }
}

// Whether `m` lies near `p`, seen from the shot at `origin` looking along `direction`.
bool Refiner::near(const Neighbour& m, const point& p, const point& origin,
                   const Gemwold::PhysicalSpace::vector& direction) const {
  const double gap = squared(m.position, p);
  if (gap < settings_.fitTolerance * settings_.fitTolerance) return true;  // however far apart
  // Surfaces slope: allow more height the farther apart the two footprints are.
  const double apart = std::sqrt(squared(shots_.origin[m.emitter], origin)) +
                       m.reach * std::sqrt(squared(shots_.direction[m.emitter], direction));
  const double tolerance = settings_.fitTolerance + settings_.fitPerMetre * apart;
  return gap < tolerance * tolerance;
}

// Whether an echo of cells [cellLo, cellHi] (one line's adjacent bins, in angle order) lies
// near `p`. The echoes nearest the query's scan angle are tried first: on a surface the
// first few decide.
bool Refiner::anyNear(std::size_t cellLo, std::size_t cellHi, std::size_t self,
                      std::uint32_t emitter, const point& p, bool& hasEchoes) const {
  const point& origin = shots_.origin[emitter];
  const auto& direction = shots_.direction[emitter];
  const Neighbour* first = placed_.members.data() + placed_.start[cellLo];
  const Neighbour* end = placed_.members.data() + placed_.start[cellHi + 1];
  const auto a = float(cells_.angle[emitter]);
  const Neighbour* up =
      std::partition_point(first, end, [a](const Neighbour& m) { return m.angle < a; });
  const Neighbour* down = up;
  while (up != end || down != first) {
    for (const Neighbour* m : {up != end ? up++ : nullptr, down != first ? --down : nullptr}) {
      if (!m || m->echo == self || (moving_ && (*moving_)[m->echo])) continue;
      hasEchoes = true;
      if (near(*m, p, origin, direction)) return true;
    }
  }
  return false;
}

// Whether the line holds an echo near `p` among its echoes of the same scan angle (the
// bin and its two neighbours, or a few more where those hold none: the ends of a line).
bool Refiner::lineFits(std::uint32_t line, std::int32_t bin, std::size_t self,
                       std::uint32_t emitter, const point& p, bool& hasEchoes) const {
  const std::size_t row = std::size_t(line) * std::size_t(cells_.binCount);
  const std::int32_t last = cells_.binCount - 1, at = bin - cells_.firstBin;
  const auto cell = [&](std::int32_t b) { return row + std::size_t(std::clamp(b, 0, last)); };
  if (anyNear(cell(at - 1), cell(at + 1), self, emitter, p, hasEchoes)) return true;
  if (hasEchoes) return false;
  // Farther bins, each side of those searched already.
  for (const auto& [inner, outer] : {std::pair{2, 4}, std::pair{5, kFarthestBin}}) {
    if (at - inner >= 0 && anyNear(cell(at - outer), cell(at - inner), self, emitter, p, hasEchoes))
      return true;
    if (at + inner <= last &&
        anyNear(cell(at + inner), cell(at + outer), self, emitter, p, hasEchoes))
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
      const bool fits = lineFits(std::uint32_t(other), bin, self, emitter, p, hasEchoes);
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
  return int(std::floor(share * 2 * settings_.neighbourLines + 1e-9)) + 1;
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
    if (now.fitting == now.lines || settings_.outnumberedShare <= 0.0) return v;
    return outnumbered(i, fitOf(i, e, positionOf(i), linesBeyond(settings_.outnumberedShare)));
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
                            wrongBlock(now, f, settings_.neighbourLines));
    if (clearlyOn && f.fitting > bestFitting)
      bestFitting = f.fitting, v.zone = candidate, v.emitter = c.emitter, v.oneWay = c.oneWay;
  }
  v.unfit = !anyFits;
  return v;
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

// Marks every cell within reach of a changed one (the searched lines, the bin and its
// neighbours): the echoes there see a changed neighbourhood.
void Refiner::markNearChanges(const std::vector<std::uint32_t>& changedCells,
                              std::vector<std::uint8_t>& near) const {
  const std::int64_t reach = settings_.neighbourLines;
  const std::int64_t lines = std::int64_t(cells_.lineOrigin.size());
  const std::int32_t bins = cells_.binCount;
  std::fill(near.begin(), near.end(), 0);
  for (const std::uint32_t c : changedCells) {
    const std::int64_t line = c / std::uint32_t(bins);
    const std::int32_t bin = std::int32_t(c % std::uint32_t(bins));
    for (std::int64_t l = std::max<std::int64_t>(0, line - reach);
         l <= std::min(line + reach, lines - 1); ++l)
      for (std::int32_t b = std::max(bin - 1, 0); b <= std::min(bin + 1, bins - 1); ++b)
        near[std::size_t(l) * std::size_t(bins) + std::size_t(b)] = 1;
  }
}

// Drops the moves that rest on neighbours moving in the same iteration: judged together, a
// right echo among wrong ones would follow them while they leave (the two swap). A dropped
// echo is judged again next iteration, against the moved neighbours.
void Refiner::keepSupportedMoves(std::vector<std::pair<std::uint32_t, Verdict>>& moves) {
  movingList_.clear();
  for (const auto& move : moves) moving_echoes_[move.first] = 1, movingList_.push_back(move.first);
  moving_ = &moving_echoes_;
  std::size_t kept = 0;
  for (const auto& [i, v] : moves) {
    const Verdict again = judge(i);
    if (again.zone >= 0) moves[kept++] = {i, again};
  }
  moving_ = nullptr;
  for (const std::uint32_t i : movingList_) moving_echoes_[i] = 0;
  moves.resize(kept);
}

// Moves the echoes (their cells brought up to date) and marks the cells they left and joined.
void Refiner::applyMoves(const std::vector<std::pair<std::uint32_t, Verdict>>& moves,
                         std::uint16_t stamp, std::vector<std::uint32_t>& changedCells) {
  changedCells.clear(), cellMoves_.clear();
  for (const auto& [i, v] : moves) {
    const auto from = std::uint32_t(cells_.cellOf(emitter_[i]));
    const auto to = std::uint32_t(cells_.cellOf(v.emitter));
    changedCells.push_back(from), changedCells.push_back(to);
    changedAt_[from] = changedAt_[to] = stamp;
    if (isNeighbour(i)) cellMoves_.push_back({i, from, to});
    result_.zone[i] = std::uint8_t(v.zone), emitter_[i] = v.emitter, oneWay_[i] = v.oneWay;
  }
  updateCells(cellMoves_);
}

// Whether no cell the echo's judgement reads (the lines and bins searched around its own and
// its candidates' emitting shots) changed since it was judged: its verdict then still holds.
bool Refiner::unchangedSinceJudged(std::size_t i) const {
  const std::int64_t e = emitter_[i], last = std::int64_t(shots_.time.size()) - 1;
  std::int64_t lineLo = cells_.line[e], lineHi = lineLo;
  std::int32_t binLo = cells_.bin[e], binHi = binLo;
  const int z = result_.zone[i];
  const auto [lowest, highest] = candidateZones(z);
  for (std::int64_t k = std::max<std::int64_t>(0, e + z - highest);
       k <= std::min(last, e + z - lowest); ++k) {
    lineLo = std::min<std::int64_t>(lineLo, cells_.line[k]);
    lineHi = std::max<std::int64_t>(lineHi, cells_.line[k]);
    binLo = std::min(binLo, cells_.bin[k]), binHi = std::max(binHi, cells_.bin[k]);
  }
  const std::int64_t lines = std::int64_t(cells_.lineOrigin.size());
  const std::int32_t bins = cells_.binCount;
  const std::int32_t b0 = std::max(0, binLo - cells_.firstBin - kFarthestBin);
  const std::int32_t b1 = std::min(bins - 1, binHi - cells_.firstBin + kFarthestBin);
  for (std::int64_t l = std::max<std::int64_t>(0, lineLo - settings_.neighbourLines);
       l <= std::min(lines - 1, lineHi + settings_.neighbourLines); ++l)
    for (std::int32_t b = b0; b <= b1; ++b)
      if (changedAt_[std::size_t(l) * std::size_t(bins) + std::size_t(b)] >= judgedAt_[i])
        return false;
  return true;
}

// Noise is told against the final neighbourhood, where the ghosts have moved away; an echo
// whose surroundings did not change since its last judgement keeps that verdict.
void Refiner::markNoise() {
  for (std::size_t i = 0; i < echoes_.size(); ++i) {
    const bool moved = result_.zone[i] != echoes_[i].zone;
    const bool unfit =
        off_[i] && active(i) && (unchangedSinceJudged(i) ? unfitWhenJudged_[i] : fitsNothing(i));
    result_.flag[i] = std::uint8_t((moved ? kMovedZone : 0) | (unfit ? kMarkedNoise : 0));
    result_.moved += moved;
    result_.markedNoise += unfit;
  }
}

RefineResult Refiner::run() {
  const std::size_t n = echoes_.size();
  std::vector<bool> judgeNow(n, true);
  std::vector<std::pair<std::uint32_t, Verdict>> moves;
  std::vector<std::uint32_t> changedCells;
  std::vector<std::uint8_t> nearChange(cells_.cellCount(), 0);
  fillCells();
  for (int iteration = 0; iteration < settings_.iterations; ++iteration) {
    const auto stamp = std::uint16_t(iteration + 1);
    moves.clear();
    for (std::size_t i = 0; i < n; ++i) {
      if (!judgeNow[i] || !active(i)) continue;
      result_.judged += iteration == 0;
      const Verdict v = judge(i);
      off_[i] = v.off, unfitWhenJudged_[i] = v.unfit, judgedAt_[i] = stamp;
      if (v.zone >= 0) moves.emplace_back(std::uint32_t(i), v);
    }
    keepSupportedMoves(moves);
    if (moves.empty()) break;
    applyMoves(moves, stamp, changedCells);
    // Only echoes near a move see a changed neighbourhood.
    markNearChanges(changedCells, nearChange);
    for (std::size_t i = 0; i < n; ++i)
      judgeNow[i] = active(i) && nearChange[cells_.cellOf(emitter_[i])];
  }
  markNoise();
  return result_;
}

}  // namespace

RefineResult refineEchoZones(const ShotTable& shots, const RefineEchoes& echoes,
                             const RefineSettings& settings) {
  if (shots.time.empty() || echoes.empty()) {
    RefineResult r;
    for (const auto& e : echoes) r.zone.push_back(e.zone);
    r.flag.assign(echoes.size(), kUntouched);
    return r;
  }
  return Refiner(shots, echoes, settings).run();
}

}  // namespace FullWaveform
