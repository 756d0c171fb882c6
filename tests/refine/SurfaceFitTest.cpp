// The zone refinement on hand-made scans: a line-wise scanner 500 m above a surface, echoes
// placed with their true zones, then some given wrong zones the way the block method goes
// wrong (whole blocks in a few consecutive lines), and off-surface echoes added.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>

#include "output/PointGeometry.hpp"
#include "refine/ParallelChunks.hpp"
#include "refine/SurfaceFit.hpp"
#include "support/RefineEchoes.hpp"

namespace FullWaveform {
namespace {

constexpr double kLight = 299792458.0;
constexpr double kInterval = 1.0e-6;  // s between shots: a zone is about 150 m of range
constexpr double kAltitude = 500.0;
constexpr double kZoneRange = kLight * kInterval * 0.5;

using Surface = std::function<double(double x, double y)>;

// A scan of `lines` lines of `perLine` shots each, sweeping +-0.4 rad across the track while
// flying 0.5 m per line, over `surface`; one echo per shot with its true zone.
struct Scan {
  ShotTable shots;
  RefineEchoes echoes;
  std::vector<std::uint8_t> trueZone;
  int perLine;

  Scan(const Surface& surface, int lines, int perLine) : perLine(perLine) {
    shots.lightSpeed = kLight;
    for (int l = 0; l < lines; ++l)
      for (int s = 0; s < perLine; ++s) {
        const double angle = -0.4 + 0.8 * s / (perLine - 1);
        const double y = 0.5 * (l + double(s) / perLine);
        shots.time.push_back(kInterval * double(shots.time.size()));
        shots.origin.push_back({0.0, y, kAltitude});
        shots.direction.push_back({std::sin(angle), 0.0, -std::cos(angle)});
        addEcho(std::uint32_t(shots.time.size() - 1), rangeTo(surface, angle, y));
      }
  }

  static double rangeTo(const Surface& surface, double angle, double y) {
    double t = 0.0;
    while (kAltitude - t * std::cos(angle) > surface(t * std::sin(angle), y)) t += 0.05;
    return t;
  }

  // An echo at `range` from shot `shot`, recorded after a later shot: its zone is the count.
  std::size_t addEcho(std::uint32_t shot, double range) {
    const auto zone = std::uint8_t(std::floor(2.0 * range / kLight / kInterval));
    echoes.push_back({shot, range / kLight, zone, false});
    trueZone.push_back(zone);
    return echoes.size() - 1;
  }

  // Gives echo i the zone `zone`, as the block method would: same arrival, other emitter.
  void assignZone(std::size_t i, int zone) { quillo::test::assignEchoZone(echoes[i], shots, zone); }

  // Gives a block of `width` shots in lines [first, first + count) the zone `off` too high.
  void spoilBlock(int first, int count, int fromShot, int width, int off = 1) {
    for (int l = first; l < first + count; ++l)
      for (int s = fromShot; s < fromShot + width; ++s) {
        const std::size_t i = std::size_t(l * perLine + s);
        assignZone(i, trueZone[i] + off);
      }
  }

  std::size_t wrong(const RefineResult& r) const {
    std::size_t n = 0;
    for (std::size_t i = 0; i < trueZone.size(); ++i) n += r.zone[i] != trueZone[i];
    return n;
  }
};

const Surface kFlat = [](double, double) { return 0.0; };

TEST(SurfaceFit, CorrectScansStayAsTheyAre) {
  // Flat ground, a 60 m cliff along the track, and a plateau exactly one zone of range high
  // starting at line 6: there a naive smoothness rule would pull the first plateau line down
  // to the ground of the lines before it, one zone further along the beam.
  const Surface cliff = [](double x, double) { return x > 30.0 ? 60.0 : 0.0; };
  const Surface plateau = [](double, double y) { return y >= 3.0 ? kZoneRange : 0.0; };
  for (const Surface& surface : {kFlat, cliff, plateau}) {
    Scan scan(surface, 14, 300);
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
    EXPECT_EQ(r.moved, 0u);
    EXPECT_EQ(r.markedNoise, 0u);
    EXPECT_EQ(scan.wrong(r), 0u);
  }
}

TEST(SurfaceFit, SlopesTheLinesApartAllowForFit) {
  // Ground rising along the track, and a ridge across it: neighbours of the lines farther
  // off lie beyond the fixed tolerance and fit only with what their shots' distance (origins
  // half a metre per line apart, scan angles a bin or two apart) allows; echoes whose cells'
  // shots spread more are no exception.
  const Surface rising = [](double, double y) { return 0.75 * y; };
  const Surface ridge = [](double x, double y) { return 0.7 * y - 0.05 * std::abs(x); };
  for (const Surface& surface : {rising, ridge}) {
    Scan scan(surface, 14, 300);
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
    EXPECT_EQ(r.moved, 0u);
    EXPECT_EQ(r.markedNoise, 0u);
  }
}

TEST(SurfaceFit, WrongBlocksMoveToTheSurface) {
  // Consecutive lines with the same block wrong, as at a fragment's start, on flat ground and
  // across a cliff face: one line alone, and two lines that fit each other.
  const Surface cliff = [](double x, double) { return x > 30.0 ? 60.0 : 0.0; };
  for (const Surface& surface : {kFlat, cliff})
    for (int lines : {1, 2}) {
      Scan scan(surface, 14, 300);
      scan.spoilBlock(5, lines, 180, 60);
      ASSERT_EQ(scan.wrong({std::vector<std::uint8_t>(scan.trueZone.size(), 0)}),
                scan.echoes.size());
      const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
      EXPECT_EQ(scan.wrong(r), 0u) << lines;
      EXPECT_EQ(r.moved, 60u * std::size_t(lines));
      EXPECT_EQ(r.markedNoise, 0u);
      EXPECT_EQ(r.flag[5 * 300 + 200], kMovedZone);
    }
}

TEST(SurfaceFit, BlocksUpToThreeZonesOffMoveBack) {
  // The block method also puts whole blocks two or three zones off (at 500 m, three zones too
  // near is 50 m from the scanner); candidates reach that far, and not further, except from
  // zone 0.
  for (int off : {-3, -2, 2, 3}) {
    Scan scan(kFlat, 14, 300);
    scan.spoilBlock(5, 2, 180, 60, off);
    EXPECT_EQ(scan.wrong(refineEchoZones(scan.shots, scan.echoes)), 0u) << off;
  }
  Scan scan(kFlat, 14, 300);
  scan.spoilBlock(5, 2, 180, 60, -2);
  RefineSettings nearOnly;
  nearOnly.zoneReach = 1;
  EXPECT_EQ(scan.wrong(refineEchoZones(scan.shots, scan.echoes, nearOnly)), 120u);
  // Zone 0 is also what unresolved echoes keep: from there every zone is a candidate.
  Scan unresolved(kFlat, 14, 300);
  unresolved.spoilBlock(5, 2, 180, 60, -3);
  EXPECT_EQ(unresolved.wrong(refineEchoZones(unresolved.shots, unresolved.echoes, nearOnly)), 0u);
  nearOnly.zeroReachesAll = false;
  EXPECT_EQ(unresolved.wrong(refineEchoZones(unresolved.shots, unresolved.echoes, nearOnly)), 120u);
}

TEST(SurfaceFit, ARightLineAmongWrongOnesStays) {
  // Lines 4 to 6 and 8 to 10 carry the same wrong block, line 7 between them is right: most
  // lines around line 7 agree on the wrong surface, but the right lines 3 and 11 agree with
  // line 7, so the place is contested and line 7 must not follow the majority. Nor is its
  // fit chance: the wrong zone has about as many echoes near it as the right one.
  Scan scan(kFlat, 15, 300);
  scan.spoilBlock(4, 3, 180, 60);
  scan.spoilBlock(8, 3, 180, 60);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  for (int s = 180; s < 240; ++s)
    EXPECT_EQ(r.zone[std::size_t(7 * 300 + s)], scan.trueZone[7 * 300]);
  EXPECT_LE(scan.wrong(r), 360u);  // never more wrong than before
}

TEST(SurfaceFit, AWideWrongRunIsLeftToItsOwnSurface) {
  // Five lines with the same block wrong fit each other: the lines at its middle see a
  // surface on both sides of their zone and are not moved against it.
  Scan scan(kFlat, 16, 300);
  scan.spoilBlock(5, 5, 180, 60);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_LE(scan.wrong(r), 300u);
  for (std::size_t i = 0; i < scan.trueZone.size(); ++i) {
    if (scan.echoes[i].zone == scan.trueZone[i]) {
      EXPECT_EQ(r.zone[i], scan.trueZone[i]) << i;
    }
  }
}

TEST(SurfaceFit, AWideBlockAmongTheSurfaceIsEatenFromItsEdges) {
  // Every second echo of a block six lines wide three zones too near (water the block method
  // half got wrong): the wrong ones fit each other across the block and are not off, and at
  // the edges their true zone has too few times the echoes near it to outnumber them. But
  // beyond the edge line and the next, the lines fit the true zone and not the wrong one:
  // the edges move, then the lines they uncover.
  const auto spoilHalf = [](Scan& scan) {
    for (int l = 5; l < 11; ++l)
      for (int s = 180; s < 240; s += 2) {
        const auto i = std::size_t(l * 300 + s);
        scan.assignZone(i, scan.trueZone[i] - 3);
      }
  };
  Scan scan(kFlat, 16, 300);
  spoilHalf(scan);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(scan.wrong(r), 0u);
  EXPECT_EQ(r.moved, 180u);
  EXPECT_EQ(r.markedNoise, 0u);
  RefineSettings noEdges;
  noEdges.edgeSupport = 0.0;
  EXPECT_GT(scan.wrong(refineEchoZones(scan.shots, scan.echoes, noEdges)), 0u);
}

TEST(SurfaceFit, ASmallClusterBesideTheSurfaceGivesWay) {
  // One shot wrong in four lines running: each wrong echo fits the other three lines, too many
  // to count as off, while its true zone fits every line with far more echoes near it.
  const auto spoilCluster = [](Scan& scan) {
    for (int l = 4; l < 8; ++l) {
      const auto i = std::size_t(l * 300 + 150);
      scan.assignZone(i, scan.trueZone[i] + 1);
    }
  };
  Scan scan(kFlat, 12, 300);
  spoilCluster(scan);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(scan.wrong(r), 0u);
  EXPECT_EQ(r.moved, 4u);
  RefineSettings fitsEnough;
  fitsEnough.outnumberedShare = 0.0;
  fitsEnough.edgeSupport = 0.0;  // its edge lines have the surface on one side too
  EXPECT_EQ(scan.wrong(refineEchoZones(scan.shots, scan.echoes, fitsEnough)), 4u);
}

// A wrong echo in line 6, one zone too far, over lines 2 and 3 rising over a mound (which its
// true zone then misses), and echoes of another zone's canopy in line 9 at the wrong place,
// at the shots `from` to `to` beside its scan angle; the canopy's echoes come first (settled).
struct ChanceFit {
  Scan scan{[](double x, double y) { return y >= 1.0 && y < 2.0 && std::abs(x) < 5.0 ? 5.0 : 0.0; },
            14, 300};
  std::size_t wrong = 6 * 300 + 150;  // its index once the canopy's echoes are put first
  RefineEcho w{};

  ChanceFit(int from, int to) {
    scan.assignZone(wrong, scan.trueZone[wrong] + 1);
    w = scan.echoes[wrong];
    const auto at = placeEcho(w.oneWayTime, scan.shots.direction[w.emitter],
                              scan.shots.origin[w.emitter], kLight)
                        .position;
    for (int shot = from; shot <= to; ++shot) {
      const std::uint32_t nine = 9 * 300 + w.emitter % 300 + std::uint32_t(shot);
      const auto& o = scan.shots.origin[nine];
      scan.addEcho(nine, std::hypot(at.x - o.x, at.y - o.y, at.z - o.z));
      EXPECT_EQ(scan.trueZone.back(), w.zone);
    }
    const auto added = std::ptrdiff_t(to - from + 1);
    std::rotate(scan.echoes.begin(), scan.echoes.end() - added, scan.echoes.end());
    std::rotate(scan.trueZone.begin(), scan.trueZone.end() - added, scan.trueZone.end());
    wrong += std::size_t(added);
  }
  std::size_t settled() const { return wrong - (6 * 300 + 150); }
};

TEST(SurfaceFit, AnOffZoneThatFitsALineByChanceGivesWay) {
  // Line 9 holds one echo at the wrong place: the true zone fits six lines of eight, the
  // wrong one one, with far fewer echoes near it.
  ChanceFit c(0, 0);
  const RefineResult r = refineEchoZones(c.scan.shots, c.scan.echoes, {}, c.settled());
  EXPECT_EQ(r.zone[c.wrong], c.scan.trueZone[c.wrong]);
  EXPECT_EQ(r.flag[c.wrong], kMovedZone);
  EXPECT_EQ(r.moved, 1u);
  // Without it the place counts as contested.
  RefineSettings contested;
  contested.chanceSupport = 0.0;
  EXPECT_EQ(refineEchoZones(c.scan.shots, c.scan.echoes, contested, c.settled()).zone[c.wrong],
            c.w.zone);
}

TEST(SurfaceFit, ASingleLineFitsByChanceWithFewerEchoesThanSeveral) {
  // Line 9 holds three echoes beside the wrong place, at the shots before and after: its
  // true zone has about six times the echoes near it, fewer than several fitting lines would
  // need, enough for a single one.
  ChanceFit c(-1, 1);
  const RefineResult r = refineEchoZones(c.scan.shots, c.scan.echoes, {}, c.settled());
  EXPECT_EQ(r.zone[c.wrong], c.scan.trueZone[c.wrong]);
  EXPECT_EQ(r.moved, 1u);
  RefineSettings asSeveral;
  asSeveral.singleChanceSupport = 0.0;
  EXPECT_EQ(refineEchoZones(c.scan.shots, c.scan.echoes, asSeveral, c.settled()).zone[c.wrong],
            c.w.zone);
}

TEST(SurfaceFit, AnEchoThatFitsNoLineMovesWhereAFewLinesBearItOut) {
  // A wrong echo in line 6 lies below the ground and fits no line; its true zone fits only
  // lines 2, 7 and 10 of eight (the others rise 5 m over two mounds, as a rough canopy
  // would): not half, but where nothing else fits, with many times the echoes near it.
  const Surface mounds = [](double x, double y) {
    return std::abs(x) < 5.0 && ((y >= 1.5 && y < 3.0) || (y >= 4.0 && y < 5.0)) ? 5.0 : 0.0;
  };
  Scan scan(mounds, 14, 300);
  const std::size_t wrong = 6 * 300 + 150;
  scan.assignZone(wrong, scan.trueZone[wrong] + 1);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(scan.wrong(r), 0u);
  EXPECT_EQ(r.moved, 1u);
  RefineSettings withoutSparse;
  withoutSparse.sparseLines = 0;
  EXPECT_EQ(scan.wrong(refineEchoZones(scan.shots, scan.echoes, withoutSparse)), 1u);
}

TEST(SurfaceFit, LastEchoesOfALineGoBackToTheirOwnLine) {
  // Echoes of a line's last shots are recorded after the next line's first shots; given to
  // the next line's first shot they land at the far side of the swath, line after line.
  Scan scan(kFlat, 12, 300);
  int spoiled = 0;
  for (int l = 0; l < 11; ++l)
    for (int s = 290; s < 300; ++s) {
      const auto i = std::size_t(l * 300 + s);
      const int recorder = l * 300 + s + scan.trueZone[i], nextLine = (l + 1) * 300;
      if (recorder - nextLine > 0) scan.assignZone(i, recorder - nextLine), ++spoiled;
    }
  ASSERT_GT(spoiled, 11);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(scan.wrong(r), 0u);
  EXPECT_EQ(r.moved, std::size_t(spoiled));
}

TEST(SurfaceFit, BirdsAreNoiseAndKeepTheirZone) {
  Scan scan(kFlat, 10, 300);
  const std::size_t bird = scan.addEcho(5 * 300 + 150, 60.0);
  const std::size_t dust = scan.addEcho(6 * 300 + 40, 250.0);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(r.flag[bird], kMarkedNoise);
  EXPECT_EQ(r.flag[dust], kMarkedNoise);
  EXPECT_EQ(r.zone[bird], 0);
  EXPECT_EQ(r.markedNoise, 2u);
  EXPECT_EQ(r.moved, 0u);
}

TEST(SurfaceFit, AFlockBehindTheGroundEchoesOfTheSameAngleIsFound) {
  // A bird among a flock in the lines either side, three shots on from its scan angle: the
  // echoes of those lines nearest its angle are ground, 200 m below, and the flock lies
  // behind them in the cells. Found, the bird is on a surface; a flock 4 m farther is not.
  for (const double flockRange : {300.0, 304.0}) {
    Scan scan(kFlat, 12, 1500);
    const std::size_t bird = scan.addEcho(6 * 1500 + 750, 300.0);
    for (const int line : {4, 5, 7, 8}) scan.addEcho(std::uint32_t(line * 1500 + 753), flockRange);
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
    EXPECT_EQ(r.flag[bird], flockRange == 300.0 ? kUntouched : kMarkedNoise) << flockRange;
    EXPECT_EQ(r.zone[bird], scan.trueZone[bird]);
  }
}

TEST(SurfaceFit, BirdsThatFitEachOtherByChanceAreNoise) {
  // Two birds two lines apart at the same scan angle and range fit each other's line: their
  // zone fits one line of eight, but nothing of their own lines lies near them.
  Scan scan(kFlat, 12, 1500);
  const std::size_t first = scan.addEcho(5 * 1500 + 750, 60.0);
  const std::size_t second = scan.addEcho(7 * 1500 + 750, 60.2);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(r.flag[first], kMarkedNoise);
  EXPECT_EQ(r.flag[second], kMarkedNoise);
  EXPECT_EQ(r.markedNoise, 2u);
  EXPECT_EQ(scan.wrong(r), 0u);
  RefineSettings oneLineEnough;
  oneLineEnough.loneLines = 0;
  EXPECT_EQ(refineEchoZones(scan.shots, scan.echoes, oneLineEnough).markedNoise, 0u);
}

TEST(SurfaceFit, ARoofThatOnlyOneNeighbouringLineReachesStays) {
  // A block 20 m high that lines 5 and 6 alone cross (the aircraft moves on while a line
  // sweeps, hence the along-track offset): a roof echo fits one neighbouring line of eight,
  // but the roof continues along its own line.
  const Surface block = [](double x, double y) {
    const double line = 2.0 * y - (std::atan(x / 480.0) + 0.4) / 0.8;
    return x > 30.0 && line > 4.5 && line < 6.5 ? 20.0 : 0.0;
  };
  Scan scan(block, 12, 1500);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(r.markedNoise, 0u);
  EXPECT_EQ(scan.wrong(r), 0u);
}

TEST(SurfaceFit, EchoesAlreadyNoiseOrWithTooFewNeighboursAreLeftAlone) {
  Scan scan(kFlat, 2, 300);  // two lines: too few to judge any echo
  scan.spoilBlock(0, 1, 100, 20);
  scan.echoes[0].noise = true;
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(r.moved, 0u);
  EXPECT_EQ(r.markedNoise, 0u);
  EXPECT_EQ(refineEchoZones(ShotTable{}, {}).zone.size(), 0u);
}

TEST(SurfaceFit, EchoesNamingNoShotOfTheTableAreLeftAlone) {
  Scan scan(kFlat, 8, 300);
  const std::size_t stray = scan.echoes.size();
  scan.echoes.push_back({std::uint32_t(scan.shots.time.size() + 5), 500.0 / kLight, 0, false});
  scan.echoes.push_back({3, std::nan(""), 0, false});
  scan.trueZone.resize(scan.echoes.size(), 0);
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_EQ(r.flag[stray], kUntouched);
  EXPECT_EQ(r.flag[stray + 1], kUntouched);
  EXPECT_EQ(r.moved, 0u);
}

TEST(SurfaceFit, SettledEchoesAreNeighboursButNeverJudged) {
  Scan scan(kFlat, 14, 300);
  scan.spoilBlock(1, 1, 100, 30);  // among the settled lines: stays as given
  scan.spoilBlock(8, 1, 100, 30);
  const std::size_t settled = 4 * 300;
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes, {}, settled);
  for (std::size_t i = 0; i < settled; ++i) {
    ASSERT_EQ(r.zone[i], scan.echoes[i].zone) << i;
    ASSERT_EQ(r.flag[i], kUntouched) << i;
  }
  EXPECT_EQ(r.moved, 30u);
  EXPECT_EQ(scan.wrong(r), 30u);  // only the settled block
  EXPECT_EQ(r.judged, scan.echoes.size() - settled);
}

TEST(SurfaceFit, TheResultIsTheSameOnAnyNumberOfThreads) {
  // Enough echoes for several chunks, with wrong blocks and birds in each.
  Scan scan(kFlat, 60, 300);
  for (int first = 4; first < 56; first += 9) scan.spoilBlock(first, 2, 40 + 3 * first, 25);
  for (int l = 6; l < 60; l += 11) scan.addEcho(std::uint32_t(l * 300 + 150), 60.0);
  const RefineResult one = refineEchoZones(scan.shots, scan.echoes);
  EXPECT_GT(one.moved, 200u);
  EXPECT_GE(one.markedNoise, 4u);
  for (unsigned threads : {2u, 3u}) {
    RefineSettings settings;
    settings.threads = threads;
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes, settings);
    EXPECT_EQ(r.zone, one.zone) << threads;
    EXPECT_EQ(r.flag, one.flag) << threads;
    EXPECT_EQ(r.judged, one.judged) << threads;
  }
}

TEST(SurfaceFit, SharedScratchGivesEachRefinementItsOwnResult) {
  // A window's blocks share one scratch: arrays left by a larger scan (more lines, more
  // echoes, other bins) must not leak into a smaller one, nor the smaller into the next,
  // whether the arrays grow (with room to spare, their contents kept) or shrink.
  const Surface cliff = [](double x, double) { return x > 30.0 ? 60.0 : 0.0; };
  Scan large(cliff, 16, 300), small(kFlat, 10, 200);
  large.spoilBlock(5, 2, 180, 60);
  large.spoilBlock(0, 16, 280, 20, 2);  // a run along every line's end
  small.spoilBlock(3, 1, 40, 30);
  small.addEcho(900, 420.0);  // a bird: noise
  RefineScratch scratch;
  for (Scan* scan : {&small, &large, &small, &large, &small})
    for (std::size_t settled : {std::size_t(0), std::size_t(300)}) {
      const RefineResult fresh = refineEchoZones(scan->shots, scan->echoes, {}, settled);
      const RefineResult shared = refineEchoZones(scan->shots, scan->echoes, {}, settled, &scratch);
      EXPECT_EQ(shared.zone, fresh.zone) << scan->perLine << " " << settled;
      EXPECT_EQ(shared.flag, fresh.flag) << scan->perLine << " " << settled;
      EXPECT_GT(fresh.moved, 0u);
    }
}

TEST(SurfaceFit, ChunksCoverEveryIndexOnceOnAnyNumberOfThreads) {
  for (std::size_t n : {0u, 1u, 7u, 10000u})
    for (unsigned threads : {1u, 2u, 5u}) {
      std::vector<std::atomic<int>> seen(n);
      forEachChunk(n, chunkCount(n, 1000), threads,
                   [&](std::size_t, std::size_t lo, std::size_t hi) {
                     for (std::size_t i = lo; i < hi; ++i) ++seen[i];
                   });
      for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(seen[i].load(), 1) << n << " " << threads;
    }
  EXPECT_EQ(chunkCount(0), 1u);
  EXPECT_EQ(chunkCount(1000000, 1000, 64), 64u);
}

}  // namespace
}  // namespace FullWaveform
