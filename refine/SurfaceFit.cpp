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

namespace FullWaveform {

namespace {

using Gemwold::PhysicalSpace::point;

constexpr double kLineJump = std::numbers::pi / 4;
constexpr double kFlightJump = 5.0;  // m between two shots' origins
constexpr int kMinLinesToJudge = 3;  // fewer lines with echoes nearby: too little to judge
constexpr int kZoneReach = 2;        // candidates: the current zone and this many either side

template <class A>
double squared(const A& a, const A& b) {
  const double dx = a.x - b.x, dy = a.y - b.y, dz = a.z - b.z;
  return dx * dx + dy * dy + dz * dz;
}

// Scan line and angle bin of every shot.
struct ShotCells {
  std::vector<std::uint32_t> line;
  std::vector<std::int32_t> bin;
  std::vector<point> lineOrigin;  // origin of each line's first shot
  std::int32_t firstBin = 0, binCount = 1;

  ShotCells(const ShotTable& t, double binDegrees) : line(t.time.size()), bin(t.time.size()) {
    double previous = 0.0;
    std::uint32_t current = 0;
    std::int32_t lo = 0, hi = 0;
    for (std::size_t s = 0; s < t.time.size(); ++s) {
      const auto& d = t.direction[s];
      // A radial scanner's turn is the azimuth around the cone's axis (the frame's z).
      double a = t.radial ? std::atan2(d.y, d.x) : std::atan2(d.x, d.z);
      if (!std::isfinite(a)) a = previous;
      if (a <= 0.0) a += 2 * std::numbers::pi;
      // A new line where the angle jumps back, or where the aircraft jumps (another flight line).
      if (s > 0 && (std::abs(a - previous) > kLineJump ||
                    squared(t.origin[s], t.origin[s - 1]) > kFlightJump * kFlightJump))
        ++current;
      if (current == lineOrigin.size()) lineOrigin.push_back(t.origin[s]);
      previous = a;
      line[s] = current;
      bin[s] = std::int32_t(std::floor(a * 180.0 / std::numbers::pi / binDegrees));
      lo = s ? std::min(lo, bin[s]) : bin[s], hi = s ? std::max(hi, bin[s]) : bin[s];
    }
    firstBin = lo - 1, binCount = hi - lo + 3;  // a spare bin each side for the +-1 search
  }
  std::size_t cellOf(std::uint32_t shot) const {
    return std::size_t(line[shot]) * std::size_t(binCount) + std::size_t(bin[shot] - firstBin);
  }
  std::size_t cellCount() const { return lineOrigin.size() * std::size_t(binCount); }
};

// Where each echo lies under its current zone, and the echoes of each cell.
struct Placement {
  std::vector<point> position;
  std::vector<std::uint32_t> start, members;  // cell c holds members[start[c], start[c+1])
};

struct Fit {
  int lines = 0, fitting = 0;
};

class Refiner {
 public:
  Refiner(const ShotTable& t, const std::vector<RefineEcho>& e, const RefineSettings& s)
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
    straddles_.resize(e.size());
    for (std::size_t i = 0; i < e.size(); ++i) straddles_[i] = straddlesLines(i);
  }

  RefineResult run();

 private:
  bool active(std::size_t i) const { return !echoes_[i].noise; }
  // An echo placed within two shots of a line change (as first placed) may belong to the
  // other line, and such echoes go wrong together, line after line, into a ghost strip that
  // fits itself: they are judged, but are no neighbours.
  bool straddlesLines(std::size_t i) const {
    const std::int64_t e = emitter_[i], last = std::int64_t(shots_.time.size()) - 1;
    const auto shot = [&](std::int64_t k) {
      return std::size_t(std::clamp<std::int64_t>(k, 0, last));
    };
    return cells_.line[shot(e - kZoneReach)] != cells_.line[shot(e + kZoneReach)];
  }
  bool isNeighbour(std::size_t i) const { return active(i) && !straddles_[i]; }
  void place();
  Fit fitOf(std::size_t self, std::uint32_t emitter, const point& p, int enough) const;
  bool lineFits(std::uint32_t line, std::int32_t bin, std::size_t self, std::uint32_t emitter,
                const point& p, bool& hasEchoes) const;
  struct Verdict {
    int zone = -1;       // the zone to move to; -1: stay
    bool off = false;    // the current zone fits too few lines
    bool unfit = false;  // no candidate fits any line
    std::uint32_t emitter = 0;
    double oneWay = 0.0;
  };
  Verdict judge(std::size_t i) const;
  bool nearChange(std::size_t i, const std::vector<bool>& changedCell) const;

  const ShotTable& shots_;
  const std::vector<RefineEcho>& echoes_;
  RefineSettings settings_;
  ShotCells cells_;
  Placement placed_;
  std::vector<std::uint32_t> emitter_;
  std::vector<double> oneWay_;
  int maxZone_ = 0;
  std::vector<bool> straddles_;
  RefineResult result_;
};

void Refiner::place() {
  const std::size_t n = echoes_.size();
  placed_.position.resize(n);
  placed_.start.assign(cells_.cellCount() + 1, 0);
  for (std::size_t i = 0; i < n; ++i) {
    if (!active(i)) continue;
    const std::uint32_t e = emitter_[i];
    placed_.position[i] =
        placeEcho(oneWay_[i], shots_.direction[e], shots_.origin[e], shots_.lightSpeed).position;
    if (isNeighbour(i)) ++placed_.start[cells_.cellOf(e) + 1];
  }
  for (std::size_t c = 1; c < placed_.start.size(); ++c) placed_.start[c] += placed_.start[c - 1];
  placed_.members.resize(placed_.start.back());
  std::vector<std::uint32_t> fill(placed_.start.begin(), placed_.start.end() - 1);
  for (std::size_t i = 0; i < n; ++i)
    if (isNeighbour(i)) placed_.members[fill[cells_.cellOf(emitter_[i])]++] = std::uint32_t(i);
}

// Whether the line holds an echo near `p` among its echoes of the same scan angle (the
// bin and its two neighbours, or a few more where those hold none: the ends of a line).
bool Refiner::lineFits(std::uint32_t line, std::int32_t bin, std::size_t self,
                       std::uint32_t emitter, const point& p, bool& hasEchoes) const {
  const point& origin = shots_.origin[emitter];
  const auto& direction = shots_.direction[emitter];
  for (std::int32_t width : {1, 4, 10}) {
    const std::int32_t lo = std::max(bin - width, cells_.firstBin);
    const std::int32_t hi = std::min(bin + width, cells_.firstBin + cells_.binCount - 1);
    for (std::int32_t b = lo; b <= hi; ++b) {
      if (width > 1 && b >= bin - 1 && b <= bin + 1) continue;  // searched already
      const std::size_t c =
          std::size_t(line) * std::size_t(cells_.binCount) + std::size_t(b - cells_.firstBin);
      for (std::uint32_t k = placed_.start[c]; k < placed_.start[c + 1]; ++k) {
        const std::uint32_t j = placed_.members[k];
        if (j == self) continue;
        hasEchoes = true;
        const std::uint32_t o = emitter_[j];
        // Surfaces slope: allow more height the farther apart the two footprints are.
        const double reach = std::sqrt(squared(placed_.position[j], shots_.origin[o]));
        const double apart = std::sqrt(squared(shots_.origin[o], origin)) +
                             reach * std::sqrt(squared(shots_.direction[o], direction));
        const double tolerance = settings_.fitTolerance + settings_.fitPerMetre * apart;
        if (squared(placed_.position[j], p) < tolerance * tolerance) return true;
      }
    }
    if (hasEchoes) return false;
  }
  return false;
}

// How many of the neighbouring lines hold echoes near `p` and how many hold echoes at all;
// stops once `enough` lines fit.
Fit Refiner::fitOf(std::size_t self, std::uint32_t emitter, const point& p, int enough) const {
  Fit fit;
  const std::int64_t line = cells_.line[emitter];
  const std::int32_t bin = cells_.bin[emitter];
  const auto lineCount = std::int64_t(cells_.lineOrigin.size());
  for (int k = 1; k <= settings_.neighbourLines; ++k)
    for (int side : {-1, 1}) {
      const std::int64_t other = line + side * k;
      if (other < 0 || other >= lineCount) continue;
      if (squared(cells_.lineOrigin[std::size_t(other)], cells_.lineOrigin[std::size_t(line)]) >
          settings_.farLineDistance * settings_.farLineDistance)
        continue;  // another flight line
      bool hasEchoes = false;
      fit.fitting += lineFits(std::uint32_t(other), bin, self, emitter, p, hasEchoes);
      fit.lines += hasEchoes;
      if (fit.fitting >= enough) return fit;
    }
  return fit;
}

Refiner::Verdict Refiner::judge(std::size_t i) const {
  Verdict v;
  const std::uint32_t e = emitter_[i];
  const int z = result_.zone[i];
  // Stop counting once a third of the searched lines fit: the current zone is then on a surface.
  const int enough = (2 * settings_.neighbourLines) / 3 + 1;
  const Fit now = fitOf(i, e, placed_.position[i], enough);
  if (now.lines < kMinLinesToJudge || 3 * now.fitting > now.lines) return v;
  v.off = true;
  int bestFitting = -1;
  bool anyFits = now.fitting > 0;
  for (int candidate = std::max(0, z - kZoneReach); candidate <= std::min(maxZone_, z + kZoneReach);
       ++candidate) {
    const std::int64_t other = std::int64_t(e) + z - candidate;
    if (candidate == z || other < 0 || other >= std::int64_t(shots_.time.size())) continue;
    const auto o = std::uint32_t(other);
    const double d = oneWayTimeFrom(oneWay_[i], shots_.time[e], shots_.time[o]);
    if (!(d > kNearRangeLimit)) continue;  // the run takes echoes this near for noise
    const point p = placeEcho(d, shots_.direction[o], shots_.origin[o], shots_.lightSpeed).position;
    const Fit f = fitOf(i, o, p, 2 * settings_.neighbourLines + 1);
    anyFits = anyFits || f.fitting > 0;
    const bool clearlyOn =
        f.lines >= kMinLinesToJudge && 2 * f.fitting >= f.lines && f.fitting >= now.fitting + 2;
    if (clearlyOn && f.fitting > bestFitting)
      bestFitting = f.fitting, v.zone = candidate, v.emitter = o, v.oneWay = d;
  }
  v.unfit = !anyFits;
  return v;
}

// Whether a cell within reach of the echo's own (same bin and its neighbours, the searched
// lines) gained or lost an echo.
bool Refiner::nearChange(std::size_t i, const std::vector<bool>& changedCell) const {
  const std::uint32_t e = emitter_[i];
  const std::int64_t line = cells_.line[e], reach = settings_.neighbourLines;
  const std::int64_t lines = std::int64_t(cells_.lineOrigin.size());
  const std::int32_t bin = cells_.bin[e] - cells_.firstBin;
  for (std::int64_t l = std::max<std::int64_t>(0, line - reach);
       l <= std::min(line + reach, lines - 1); ++l)
    for (std::int32_t b = std::max(bin - 1, 0); b <= std::min(bin + 1, cells_.binCount - 1); ++b)
      if (changedCell[std::size_t(l) * std::size_t(cells_.binCount) + std::size_t(b)]) return true;
  return false;
}

RefineResult Refiner::run() {
  const std::size_t n = echoes_.size();
  std::vector<bool> off(n, false), judgeNow(n, true);
  std::vector<Verdict> verdicts(n);
  for (int iteration = 0; iteration < settings_.iterations; ++iteration) {
    place();
    for (std::size_t i = 0; i < n; ++i) {
      verdicts[i] = Verdict();
      if (!judgeNow[i] || !active(i)) continue;
      result_.judged += iteration == 0;
      verdicts[i] = judge(i);
      off[i] = verdicts[i].off;
    }
    std::vector<bool> changedCell(cells_.cellCount(), false);
    bool moved = false;
    for (std::size_t i = 0; i < n; ++i) {
      const Verdict& v = verdicts[i];
      if (v.zone < 0) continue;
      changedCell[cells_.cellOf(emitter_[i])] = changedCell[cells_.cellOf(v.emitter)] = true;
      result_.zone[i] = std::uint8_t(v.zone), emitter_[i] = v.emitter, oneWay_[i] = v.oneWay;
      moved = true;
    }
    if (!moved) break;
    // Only echoes near a move see a changed neighbourhood.
    for (std::size_t i = 0; i < n; ++i) judgeNow[i] = active(i) && nearChange(i, changedCell);
  }
  // Noise is told against the final neighbourhood, where the ghosts have moved away.
  place();
  std::vector<bool> unfit(n, false);
  for (std::size_t i = 0; i < n; ++i) unfit[i] = off[i] && active(i) && judge(i).unfit;
  for (std::size_t i = 0; i < n; ++i) {
    const bool moved = result_.zone[i] != echoes_[i].zone;
    result_.flag[i] =
        std::uint8_t((moved ? kMovedZone : 0) | (unfit[i] && active(i) ? kMarkedNoise : 0));
    result_.moved += moved;
    result_.markedNoise += (result_.flag[i] & kMarkedNoise) != 0;
  }
  return result_;
}

}  // namespace

RefineResult refineEchoZones(const ShotTable& shots, const std::vector<RefineEcho>& echoes,
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
