// Line-end fans: reads the echoes recorded after a scan line's last shot, with their
// one-way times and current zones, and the shots' times and scan lines; writes new zones,
// emitters and one-way times of echoes the surface test left off (after its iterations,
// before the noise test), and the cells they leave and join. Where
// the scanner emits no shots while it turns, the echoes of a line's last few shots all
// arrive after its last shot: one recording shot holds the ground of several shots, each in
// its own zone (k for the shot k before the last). The module leaves them in one zone, the
// along-line runs (which give every echo along the line the same zone) cannot place them,
// and the surface test finds nothing to hold them to: the line ends beside them are as
// wrong. Placed each at its own shot they continue each other along the line to a few
// centimetres; a shot off, the pulse-position jitter puts them metres away.
#include <algorithm>
#include <cmath>

#include "classify/NoiseClassification.hpp"
#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

namespace {

// A surface along the line: the footprints of successive shots are centimetres apart, so the
// range changes by less than this per shot (a line through echoes of other zones, metres).
constexpr double kFanSlope = 2.0;  // m per shot

// Whether `s` lies within `tolerance` of the straight line through `a` and `b` (over shots).
bool onLine(const FanSample& s, const FanSample& a, const FanSample& b, double tolerance) {
  const double at = double(s.shot - a.shot) / double(b.shot - a.shot);
  return std::abs(s.range - (a.range + (b.range - a.range) * at)) < tolerance;
}

// The most samples, `self` included, of distinct echoes at distinct shots that lie on one
// straight line through `self` (only samples within `reach` shots of it count).
int longestLine(const FanSample& self, const std::vector<FanSample>& samples, std::int64_t reach,
                double tolerance) {
  const auto usable = [&](const FanSample& s) {
    return s.echo != self.echo && s.shot != self.shot && std::abs(s.shot - self.shot) <= reach;
  };
  int best = 1;
  for (std::size_t a = 0; a < samples.size(); ++a) {
    if (!usable(samples[a])) continue;
    for (std::size_t b = a + 1; b < samples.size(); ++b) {
      const FanSample &p = samples[a], &q = samples[b];
      if (!usable(q) || p.shot == q.shot || p.echo == q.echo ||
          std::abs(q.range - p.range) > kFanSlope * double(std::abs(q.shot - p.shot)) ||
          !onLine(self, p, q, tolerance))
        continue;
      int count = 3;
      std::int64_t used[8] = {self.shot, p.shot, q.shot};
      for (const FanSample& c : samples) {
        if (count == 8) break;
        if (!usable(c) || c.echo == p.echo || c.echo == q.echo ||
            std::find(used, used + count, c.shot) != used + count || !onLine(c, p, q, tolerance))
          continue;
        used[count++] = c.shot;
      }
      best = std::max(best, count);
    }
  }
  return best;
}

}  // namespace

// Whether echo i's current zone fits more than an off zone may of enough lines to judge.
bool Refiner::onSurface(std::uint32_t i) const {
  const Fit now = fitOf(i, emitter_[i], positionOf(i), linesBeyond(settings_.offShare));
  return now.lines >= kMinLinesToJudge && now.fitting > settings_.offShare * now.lines + 1e-9;
}

// Echo i placed at `shot` (same arrival), or false where that is nearer than the run accepts.
bool Refiner::fanSample(std::uint32_t i, std::int64_t shot, double& range) const {
  const double oneWay = oneWayTimeFrom(oneWay_[i], shots_.time[emitter_[i]], shots_.time[shot]);
  range = oneWay * shots_.lightSpeed;
  return oneWay > kNearRangeLimit;
}

// The echoes recorded after the line's last shot `last`, each at every shot of the line it
// may come from, and the echoes recorded before it at their current shots (`fan` gets the
// former).
void Refiner::fanSamples(std::int64_t last, std::vector<std::uint32_t>& fan,
                         std::vector<FanSample>& samples) const {
  const std::int64_t reach = settings_.runShotReach, first = last - maxZone_ - reach;
  const auto from = std::lower_bound(
      byShot_.begin(), byShot_.end(), first - maxZone_,
      [&](std::uint32_t i, std::int64_t shot) { return std::int64_t(echoes_[i].emitter) < shot; });
  const std::uint32_t line = cells_.line[std::size_t(last)];
  samples.clear(), fan.clear();
  for (auto it = from; it != byShot_.end() && std::int64_t(echoes_[*it].emitter) <= last; ++it) {
    const std::uint32_t i = *it;
    const std::int64_t record = recordOf(i);
    if (record < first || record > last) continue;
    double range = 0.0;
    if (record < last) {
      if (cells_.line[emitter_[i]] == line && fanSample(i, emitter_[i], range))
        samples.push_back({emitter_[i], range, i});
      continue;
    }
    fan.push_back(i);
    for (std::int64_t shot = last; shot >= std::max<std::int64_t>(0, last - maxZone_); --shot)
      if (cells_.line[std::size_t(shot)] == line && fanSample(i, shot, range))
        samples.push_back({shot, range, i});
  }
}

// The zone (the shot `last` - zone) at which echo i lies on the longest straight line of the
// fan's samples, where that is longer than at its current shot and than `lineEndEchoes` - 1,
// and no other zone's is as long (a whole fan a shot off may line up by chance); else -1.
// `current` gets the length at its current shot.
int Refiner::fanZone(std::uint32_t i, std::int64_t last, const std::vector<FanSample>& samples,
                     int& current) const {
  const std::int64_t now = emitter_[i], reach = settings_.runShotReach;
  const double tolerance = settings_.runTolerance;
  double range = 0.0;
  current = fanSample(i, now, range) ? longestLine({now, range, i}, samples, reach, tolerance) : 0;
  int best = std::max(settings_.lineEndEchoes - 1, current), bestZone = -1;
  bool tie = false;
  for (int zone = 0; zone <= maxZone_ && zone <= last; ++zone) {
    const std::int64_t shot = last - zone;
    if (shot == now || cells_.line[std::size_t(shot)] != cells_.line[std::size_t(last)] ||
        !fanSample(i, shot, range))
      continue;
    const int length = longestLine({shot, range, i}, samples, reach, tolerance);
    tie = length == best ? bestZone >= 0 || tie : length > best ? false : tie;
    if (length > best) best = length, bestZone = zone;
  }
  return tie ? -1 : bestZone;
}

// Moves each echo recorded after a line's last shot (before the next line's first) whose zone
// is not on a surface to the shot where it continues the longest straight line of the fan
// (fanZone). An echo on such a line, moved or not, is borne out by its own line: no noise.
// Judged after the surface test's moves: with the ground at the line ends right first, the
// canopy there would find too few echoes of its own to move.
void Refiner::placeLineEnds(std::uint16_t stamp) {
  std::vector<std::pair<std::uint32_t, Verdict>> moves;
  onLineEnd_.assign(echoes_.size(), 0);
  std::vector<std::uint32_t> fan;
  std::vector<FanSample> samples;
  const std::int64_t shots = std::int64_t(shots_.time.size());
  const int needed = settings_.lineEndEchoes;
  const std::int64_t lastLine = lastLineReadForNoise();
  for (std::int64_t last = 0; last + 1 < shots; ++last) {
    if (cells_.line[std::size_t(last)] == cells_.line[std::size_t(last + 1)]) continue;
    if (std::int64_t(cells_.line[std::size_t(last)]) > lastLine) break;
    fanSamples(last, fan, samples);
    for (const std::uint32_t i : fan) {
      if (i < settled_ || onSurface(i)) continue;
      int current = 0;
      const int bestZone = fanZone(i, last, samples, current);
      if (bestZone < 0) {
        onLineEnd_[i] = current >= needed;
        continue;
      }
      onLineEnd_[i] = 1;
      Verdict v;
      v.zone = bestZone, v.emitter = std::uint32_t(last - bestZone);
      v.oneWay = oneWayTimeFrom(oneWay_[i], shots_.time[emitter_[i]], shots_.time[v.emitter]);
      moves.emplace_back(i, v);
    }
  }
  std::vector<std::uint32_t> changedCells;
  if (!moves.empty()) applyMoves(moves, stamp, changedCells);
}

}  // namespace FullWaveform::surface_fit
