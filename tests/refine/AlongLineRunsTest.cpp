// Along-line runs on hand-made scans with pulse-position jitter: every line's far end given
// wrong zones (no right neighbour in the lines either side), against cliffs, walls and
// vegetation that the rule must leave as they are.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>

#include "output/PointGeometry.hpp"
#include "refine/SurfaceFit.hpp"
#include "support/RefineEchoes.hpp"

namespace FullWaveform {
namespace {

constexpr double kLight = 299792458.0;
constexpr double kInterval = 1.0e-6;
constexpr double kAltitude = 500.0;
constexpr int kGapShots = 100;  // the last shots of each line, turning back: no echoes

using Surface = std::function<double(double x)>;  // height across the track

using quillo::test::jitterOf;

// `lines` lines of `perLine` shots sweeping from -0.2 to 0.8 rad across the track (the far
// end at about 720 m of range, zone 4), 3 % jitter; echoes with their true zones.
struct JitteredScan {
  ShotTable shots;
  RefineEchoes echoes;
  std::vector<std::uint8_t> trueZone;
  int perLine;

  JitteredScan(const Surface& surface, int lines, int perLine, int echoesPerShot = 1)
      : perLine(perLine) {
    shots.lightSpeed = kLight;
    for (int l = 0; l < lines; ++l)
      for (int s = 0; s < perLine; ++s) {
        const std::uint64_t k = shots.time.size();
        const double angle = -0.2 + 1.0 * s / (perLine - 1);
        shots.time.push_back(kInterval * (double(k) + 0.03 * jitterOf(k)));
        shots.origin.push_back({0.0, 0.5 * (l + double(s) / perLine), kAltitude});
        shots.direction.push_back({std::sin(angle), 0.0, -std::cos(angle)});
      }
    for (std::uint32_t k = 0; k < shots.time.size(); ++k) {
      if (int(k) % perLine >= perLine - kGapShots) continue;  // the scan gap: no echoes
      const double angle = -0.2 + 1.0 * (k % std::uint32_t(perLine)) / (perLine - 1);
      const double ground = rangeTo(surface, angle);
      for (int e = 0; e < echoesPerShot; ++e)  // the others in a canopy up to 15 m above
        addEcho(k, ground - (e == 0 ? 0.0 : 15.0 * (0.5 + 0.5 * jitterOf(k * 7 + e))));
    }
  }

  // Metre steps to the surface, then halving to a millimetre.
  static double rangeTo(const Surface& surface, double angle) {
    const auto above = [&](double t) {
      return kAltitude - t * std::cos(angle) > surface(t * std::sin(angle));
    };
    double lo = 0.0;
    while (above(lo + 1.0)) lo += 1.0;
    for (double step = 0.5; step > 1e-3; step *= 0.5)
      if (above(lo + step)) lo += step;
    return lo;
  }

  // The echo recorded after the last shot fired before it arrived.
  void addEcho(std::uint32_t shot, double range) {
    const double arrival = shots.time[shot] + 2.0 * range / kLight;
    std::uint32_t record = shot;
    while (record + 1 < shots.time.size() && shots.time[record + 1] <= arrival) ++record;
    if (record + 1 == shots.time.size()) return;  // recorded after the last shot: not scanned
    echoes.push_back({shot, range / kLight, std::uint8_t(record - shot), false});
    trueZone.push_back(std::uint8_t(record - shot));
  }

  void assignZone(std::size_t i, int zone) { quillo::test::assignEchoZone(echoes[i], shots, zone); }

  // Every line's echoes from shot `from` on `off` zones off (alternating with zone 0, as the
  // block method leaves them where the true zone is beyond its reach).
  std::size_t spoilLineEnds(int from, int off) {
    std::size_t spoiled = 0;
    for (std::size_t i = 0; i < echoes.size(); ++i) {
      const int s = int(echoes[i].emitter) % perLine;
      if (s < from || trueZone[i] + off < 0) continue;
      assignZone(i, s % 7 == 0 ? 0 : trueZone[i] + off);
      ++spoiled;
    }
    return spoiled;
  }

  std::size_t wrong(const RefineResult& r) const {
    std::size_t n = 0;
    for (std::size_t i = 0; i < trueZone.size(); ++i) n += r.zone[i] != trueZone[i];
    return n;
  }
};

const Surface kFlat = [](double) { return 0.0; };
// A cliff 60 m high, and a wall 40 m high, crossed by every line.
const Surface kCliff = [](double x) { return x > 150.0 ? 60.0 : 0.0; };
const Surface kWall = [](double x) { return x > 300.0 && x < 303.0 ? 40.0 : 0.0; };

RefineSettings withoutRuns() {
  RefineSettings s;
  s.runMinEchoes = 0;
  return s;
}

TEST(AlongLineRuns, WrongRunsAtEveryLineEndMoveBack) {
  // The same far end wrong in every line: the lines either side form the same ghost, so the
  // surface test alone cannot move them.
  for (int off : {-3, -2, 1}) {
    JitteredScan scan(kFlat, 12, 3000);
    const std::size_t spoiled = scan.spoilLineEnds(2500, off);
    ASSERT_GT(spoiled, 11u * 300u);
    EXPECT_GT(scan.wrong(refineEchoZones(scan.shots, scan.echoes, withoutRuns())), spoiled / 2);
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
    EXPECT_EQ(scan.wrong(r), 0u) << off;
    EXPECT_EQ(r.markedNoise, 0u);
  }
}

// Keeps the echoes of the shots `keep` accepts (by emitting shot).
void keepEchoes(JitteredScan& scan, const std::function<bool(std::uint32_t)>& keep) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < scan.echoes.size(); ++i)
    if (keep(scan.echoes[i].emitter))
      scan.echoes[kept] = scan.echoes[i], scan.trueZone[kept++] = scan.trueZone[i];
  scan.echoes.resize(kept), scan.trueZone.resize(kept);
}

TEST(AlongLineRuns, RunsReachOnlyTheEchoesWithinTheirShots) {
  // Every third shot without an echo: the echoes along a line step by one or two recording
  // shots, and each echo's reach along its line holds fewer of them; the runs still form.
  JitteredScan gappy(kFlat, 12, 3000);
  keepEchoes(gappy, [](std::uint32_t shot) { return shot % 3 != 0; });
  const std::size_t spoiled = gappy.spoilLineEnds(2500, -2);
  ASSERT_GT(spoiled, 11u * 200u);
  EXPECT_GT(gappy.wrong(refineEchoZones(gappy.shots, gappy.echoes, withoutRuns())), spoiled / 2);
  EXPECT_EQ(gappy.wrong(refineEchoZones(gappy.shots, gappy.echoes)), 0u);
  // An echo every fourth shot: each has only the two beside it within its reach, too few
  // to continue, though they follow each other closely enough to make a run.
  JitteredScan sparse(kFlat, 12, 3000);
  keepEchoes(sparse, [](std::uint32_t shot) { return shot % 4 == 0; });
  sparse.spoilLineEnds(2500, -2);
  const RefineResult without = refineEchoZones(sparse.shots, sparse.echoes, withoutRuns());
  EXPECT_EQ(refineEchoZones(sparse.shots, sparse.echoes).zone, without.zone);
}

TEST(AlongLineRuns, RealDiscontinuitiesStayAsTheyAre) {
  // Cliffs and walls along the line, and a canopy of three echoes a shot (some continue each
  // other by chance in any zone): right zones, nothing moves.
  for (const Surface& surface : {kFlat, kCliff, kWall})
    for (int perShot : {1, 3}) {
      JitteredScan scan(surface, 12, 3000, perShot);
      const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
      EXPECT_EQ(r.moved, 0u) << perShot;
      EXPECT_EQ(scan.wrong(r), 0u);
    }
}

TEST(AlongLineRuns, ShortRunsAndSettledEchoesStay) {
  // Without the surface test: long runs move back by this rule alone, a run shorter than it
  // asks for stays, and settled echoes are never moved.
  RefineSettings runsOnly;
  runsOnly.iterations = 0;
  JitteredScan longRuns(kFlat, 12, 3000);
  const std::size_t spoiled = longRuns.spoilLineEnds(2500, -2);
  EXPECT_LT(longRuns.wrong(refineEchoZones(longRuns.shots, longRuns.echoes, runsOnly)),
            spoiled / 100);
  JitteredScan shortRuns(kFlat, 12, 3000);
  const std::size_t few = shortRuns.spoilLineEnds(2893, -2);
  const RefineResult r = refineEchoZones(shortRuns.shots, shortRuns.echoes, runsOnly);
  EXPECT_EQ(shortRuns.wrong(r), few);
  EXPECT_EQ(r.moved, 0u);
  JitteredScan settled(kFlat, 12, 3000);
  const std::size_t all = settled.spoilLineEnds(2500, -2);
  EXPECT_EQ(settled.wrong(
                refineEchoZones(settled.shots, settled.echoes, runsOnly, settled.echoes.size())),
            all);
}

TEST(AlongLineRuns, ARunOfJustEnoughEchoesMovesOneFewerStays) {
  // Each line's last echoes wrong: as many as a run asks for move back, one fewer stay (the
  // rough echoes too few to make a run are not even tried in other zones).
  RefineSettings runsOnly;
  runsOnly.iterations = 0;
  const int lastEcho = 3000 - kGapShots;
  for (int count : {runsOnly.runMinEchoes, runsOnly.runMinEchoes - 1}) {
    JitteredScan scan(kFlat, 12, 3000);
    const std::size_t spoiled = scan.spoilLineEnds(lastEcho - count, -2);
    ASSERT_EQ(spoiled, 12u * std::size_t(count));
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes, runsOnly);
    EXPECT_EQ(scan.wrong(r), count < runsOnly.runMinEchoes ? spoiled : 0u) << count;
  }
}

TEST(AlongLineRuns, SettledEchoesStillCountInTheRunsOfTheNext) {
  // A window's block starts mid-run: the last seven echoes of a line's wrong end are to be
  // judged, the rest of that line and the lines before are settled. Seven are too few for a
  // run on their own; with the settled echoes of their line they move as over the whole strip.
  RefineSettings runsOnly;
  runsOnly.iterations = 0;
  JitteredScan scan(kFlat, 12, 3000);
  scan.spoilLineEnds(2500, -2);
  std::size_t settled = 0;
  while (scan.echoes[settled].emitter < 5 * 3000 + 2893) ++settled;
  const RefineResult whole = refineEchoZones(scan.shots, scan.echoes, runsOnly);
  const RefineResult block = refineEchoZones(scan.shots, scan.echoes, runsOnly, settled);
  std::size_t moved = 0;
  for (std::size_t i = settled; i < scan.echoes.size(); ++i) {
    ASSERT_EQ(block.zone[i], whole.zone[i]) << i;
    moved += scan.echoes[i].emitter < 6 * 3000 && block.zone[i] != scan.echoes[i].zone;
  }
  EXPECT_GE(moved, 5u);  // of the seven (one in seven is left at zone 0, a candidate too)
}

// What a block found along the lines of its context echoes serves the next block, whose
// echoes they are, where they read the same echoes; elsewhere it is worked out again.
TEST(AlongLineRuns, ABlockTakesTheAlongLineFindingsOfTheBlockBeforeWhereTheyHold) {
  RefineSettings runsOnly;
  runsOnly.iterations = 0;
  JitteredScan scan(kFlat, 12, 3000);
  scan.spoilLineEnds(2500, -2);
  const auto firstOfLine = [&](int line) {
    std::size_t i = 0;
    while (i < scan.echoes.size() && scan.echoes[i].emitter < std::uint32_t(line * 3000)) ++i;
    return i;
  };
  // Lines [0, 4) the first block, [4, 12) its context; the next block from line 4 on, with
  // the lines before it settled (as given: the findings read none of them).
  AlongLineMemo found;
  RefineScratch scratch;
  refineBlock(scan.shots, scan.echoes, runsOnly, {0, firstOfLine(4), nullptr, &found}, scratch);
  std::size_t zonesKnown = 0;
  for (std::size_t i = 0; i < found.state.size(); ++i) {
    ASSERT_TRUE(i >= firstOfLine(4) || found.state[i] == 0) << i;  // only context echoes
    zonesKnown += (found.state[i] & AlongLineMemo::kZonesKnown) != 0;
  }
  ASSERT_GT(zonesKnown, 1000u);
  const BlockBounds next{firstOfLine(4), SIZE_MAX, nullptr, nullptr};
  const RefineResult fresh = refineBlock(scan.shots, scan.echoes, runsOnly, next, scratch);
  const auto withGiven = [&](const AlongLineMemo& given) {
    BlockBounds b = next;
    b.given = &given;
    return refineBlock(scan.shots, scan.echoes, runsOnly, b, scratch);
  };
  EXPECT_EQ(withGiven(found).zone, fresh.zone);
  // Taken where they hold: wrong findings give another result ...
  AlongLineMemo wrong = found;
  for (std::uint32_t& zones : wrong.zones) zones = 0;
  EXPECT_NE(withGiven(wrong).zone, fresh.zone);
  // ... but not where the echoes around differ in number, nor from a window of other zones.
  for (std::uint16_t& span : wrong.span) ++span;
  EXPECT_EQ(withGiven(wrong).zone, fresh.zone);
  wrong = found;
  for (std::uint32_t& zones : wrong.zones) zones = 0;
  wrong.zoneLimit = found.zoneLimit + 1;
  EXPECT_EQ(withGiven(wrong).zone, fresh.zone);
}

// Fed through a window of small blocks (each echo the context of several blocks before its
// own), the runs move what they move over the whole strip.
TEST(AlongLineRuns, AWindowOfSmallBlocksMovesTheRunsAsTheWholeStrip) {
  JitteredScan scan(kFlat, 30, 1500);
  const std::size_t spoiled = scan.spoilLineEnds(1200, -2);
  const RefineResult whole = refineEchoZones(scan.shots, scan.echoes);
  ASSERT_LT(scan.wrong(whole), spoiled / 10);
  const std::size_t per = 1500, count = scan.shots.time.size() / per;
  std::vector<std::vector<std::size_t>> members(count);
  for (std::size_t i = 0; i < scan.echoes.size(); ++i)
    members[std::min(count - 1, (scan.echoes[i].emitter + scan.echoes[i].zone) / per)].push_back(i);
  std::vector<std::uint8_t> zone(scan.echoes.size()), flag(scan.echoes.size());
  RefineWindow window(kLight, false, {}, WindowSettings{12, 2, 6});
  const auto apply = [&](const RefinedBlock& b) {
    for (const auto& f : b.fragments)
      for (std::size_t j = 0; j < f.echo.size(); ++j) {
        if (f.echo[j] < 0) continue;
        const auto k = std::size_t(f.echo[j]);
        zone[members[f.key][j]] = b.result.zone[k], flag[members[f.key][j]] = b.result.flag[k];
      }
  };
  for (std::size_t f = 0; f < count; ++f) {
    window.add(f, quillo::test::shotSlice(scan.shots, f * per, (f + 1) * per),
               quillo::test::windowEchoes(scan.shots, scan.echoes, members[f]));
    window.refineReady(false, apply);
  }
  window.refineReady(true, apply);
  EXPECT_EQ(zone, whole.zone);
  EXPECT_EQ(flag, whole.flag);
}

}  // namespace
}  // namespace FullWaveform
