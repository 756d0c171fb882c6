// Fixed zones, quantiles, the repair of uncertain zones, the neighbour tables, the dominant
// zone range, the line-wise blocks and the histogram text.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "support/StoreFixture.hpp"
#include "zones/ResolveMTA.hpp"
#include "zones/ZoneAssignment.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

ShotFragment evenShots(int n, double spacing = 1.0e-6) {
  ShotFragment f;
  for (int k = 0; k < n; ++k) f.times.push_back(10.0 + k * spacing);
  return f;
}

}  // namespace

TEST(FixedZone, WavesThatCannotWalkBackLoseTheirZone) {
  auto shots = evenShots(10);
  StoreFixture s(shots);
  s.input.MTA = 2;
  std::vector<WavePtr> waves;
  for (int k : {1, 2, 5, 9}) waves.push_back(makeWave({shots.times[k], 0.4e-6}));
  ASSERT_TRUE(s.setWaves(waves));
  EXPECT_EQ(setFixedMTA(s.fb()), "");
  EXPECT_EQ(s.fb().mta, (std::vector<std::int32_t>{-1, 2, 2, 2}));
  EXPECT_EQ(s.fb().shotIndex[2], 3u);
  EXPECT_EQ(s.fb().shotIndex[0], 0u);  // the last walk that succeeded (zone 1) stays
  EXPECT_TRUE(s.fb().isCertainMTA(0));

  s.input.MTA = 0;
  ASSERT_TRUE(s.setWaves({makeWave({shots.times[3], 0.4e-6}), makeWave({shots.times[4], 9.2e-6}),
                          makeWave({shots.times[5], 0.4e-6})}));
  setFixedMTA(s.fb());
  EXPECT_EQ(s.fb().mta, (std::vector<std::int32_t>{0, -1, 0}));  // 4.6 us > 9 zone lengths
}

TEST(Quantile, SelectsBySortedPosition) {
  std::vector<double> ten;
  for (int k = 10; k >= 1; --k) ten.push_back(k);
  EXPECT_EQ(quantile(0.9, ten), 10.0);
  EXPECT_EQ(quantile(0.1, ten), 2.0);
  EXPECT_EQ(quantile(0.0, ten), 1.0);
  EXPECT_EQ(quantile(1.0, ten), 10.0);
  EXPECT_EQ(quantile(0.9, {5, NO_LENGTH, 1, std::nan(""), 3, 4, 2}), 5.0);  // position 4 of 5
  EXPECT_EQ(quantile(0.5, {NO_LENGTH, std::nan("")}), NO_LENGTH);
}

TEST(Repair, PicksTheCandidateNearestTheMedian) {
  auto shots = evenShots(40);
  StoreFixture s(shots);
  std::vector<WavePtr> waves;
  // Certain waves: zone 0 travel times 0.30 .. 0.39 us.
  for (int k = 10; k < 20; ++k)
    waves.push_back(makeWave({shots.times[k], 2 * (0.30e-6 + (k - 10) * 1e-8)}));
  // An uncertain wave whose zone-1 candidate (0.1 + 0.5 = 0.6 us) is far, zone 0 (0.1 us)
  // outside the window [0.2, 0.49] us, so no candidate qualifies.
  waves.push_back(makeWave({shots.times[25], 0.2e-6}));
  // An uncertain wave whose zone-0 candidate 0.36 us lies in the window.
  waves.push_back(makeWave({shots.times[26], 0.72e-6}));
  waves.push_back(makeWave({shots.times[30], 0.5e-6}));
  ASSERT_TRUE(s.setWaves(waves));
  for (unsigned i : {10u, 11u}) s.fb().setMTA(i, 3, 0.99);
  EXPECT_EQ(repairUncertainMTA(s.fb()), "");
  EXPECT_EQ(s.fb().getMTA(10), -1);
  EXPECT_EQ(s.fb().getMTA(11), 0);
  EXPECT_FALSE(s.fb().isCertainMTA(11));  // repaired waves stay uncertain
}

TEST(Repair, NineWavesOrNoCertainWaveChangeNothing) {
  auto shots = evenShots(40);
  StoreFixture s(shots);
  std::vector<WavePtr> waves;
  for (int k = 10; k < 19; ++k) waves.push_back(makeWave({shots.times[k], 0.6e-6}));
  ASSERT_TRUE(s.setWaves(waves));
  s.fb().setMTA(0, 2, 0.99);
  repairUncertainMTA(s.fb());
  EXPECT_EQ(s.fb().getMTA(0), 2);

  waves.push_back(makeWave({shots.times[30], 0.6e-6}));
  ASSERT_TRUE(s.setWaves(waves));
  for (unsigned i = 0; i < 10; ++i) s.fb().setMTA(i, 1, 0.99);
  repairUncertainMTA(s.fb());
  for (unsigned i = 0; i < 10; ++i) EXPECT_EQ(s.fb().getMTA(i), 1);
}

TEST(Repair, EquallyNearCandidatesGoToTheLowerZone) {
  // Dyadic times make the tie exact: the median 3u lies between candidates 2u and 4u.
  const double u = std::ldexp(1.0, -23);
  ShotFragment shots;
  for (int k = 0; k < 60; ++k) shots.times.push_back(1.0 + k * 4 * u);
  StoreFixture s(shots, 0.5e6);
  std::vector<WavePtr> waves;
  for (int k = 10; k < 30; ++k) waves.push_back(makeWave({shots.times[k], 6 * u}));
  waves.push_back(makeWave({shots.times[40], 4 * u}));
  ASSERT_TRUE(s.setWaves(waves));
  s.fb().setMTA(20, 1, 0.99);
  repairUncertainMTA(s.fb());
  EXPECT_EQ(s.fb().getMTA(20), 0);
}

TEST(Neighbours, SameBinWavesOfEarlierLinesAreLinked) {
  auto dir = [](double degrees) {
    const double a = degrees * std::numbers::pi / 180;
    return Gemwold::PhysicalSpace::vector{std::sin(a), 0.0, std::cos(a)};
  };
  ShotFragment shots;
  for (int k = 0; k < 50; ++k) {
    shots.times.push_back(1.0 + k * 1e-6);
    double angle = k < 20 ? 20.0 : 60.0;
    if (k == 10 || k == 11 || (k >= 40 && k <= 42)) angle = 45.5;
    if (k == 20) angle = 80.0;  // the jump ends the first line here
    shots.directions.push_back(dir(angle));
  }
  StoreFixture s(shots);
  std::vector<WavePtr> waves;
  for (double t : shots.times) waves.push_back(makeWave({t, 0.4e-6}));
  ASSERT_TRUE(s.setWaves(waves));
  buildTransitionTables(s.fb());
  const auto& t0 = s.fb().transitionTables[0];
  EXPECT_EQ(t0[40], 10u);
  EXPECT_EQ(t0[41], 11u);
  EXPECT_EQ(t0[42], 10u);
  EXPECT_EQ(t0[30], 30u);  // no wave of the first line in that bin
  EXPECT_EQ(s.fb().transitionTables[1][40], 40u);
}

TEST(Neighbours, ScanAnglesOfBeamsToTheLeftAreNotNegative) {
  // Angles run over [0, 2 pi): a beam along -x is at 270 degrees, not -90.
  EXPECT_NEAR(scanAngle({-1, 0, 0}), 1.5 * std::numbers::pi, 1e-12);
}

TEST(DominantZone, RangeAroundTheMostFrequentZone) {
  auto range = [](std::array<std::uint32_t, 8> h) {
    auto r = zoneRangeAround(h);
    return std::make_pair(r.minZone, r.maxZone);
  };
  EXPECT_EQ(range({0, 0, 4, 0, 4, 0, 0, 0}), std::make_pair(0u, 5u));
  EXPECT_EQ(range({0, 0, 0, 0, 0, 0, 3, 0}), std::make_pair(4u, 8u));
  EXPECT_EQ(range({0, 0, 0, 0, 0, 0, 0, 3}), std::make_pair(5u, 8u));
  EXPECT_EQ(range({}), std::make_pair(0u, 3u));
}

TEST(Histogram, TextByteForByte) {
  auto shots = evenShots(10);
  StoreFixture s(shots);
  std::vector<WavePtr> waves;
  for (int k = 2; k < 6; ++k) waves.push_back(makeWave({shots.times[k], 0.4e-6}));
  ASSERT_TRUE(s.setWaves(waves));
  s.fb().mta = {0, 0, 1, -1};
  s.fb().scannerDevice.lightSpeed = 3.0e8;  // 3e8 m/s x 0.5 us = 150 m per zone
  std::string expected = "\n";
  expected += "\t\t\tMTA 0(   0.0- 150.0). Count [%]: 66.66666666666667,  as num: 2\n";
  expected += "\t\t\tMTA 1( 150.0- 300.0). Count [%]: 33.333333333333336,  as num: 1\n";
  expected += "\t\t\tMTA 2( 300.0- 450.0). Count [%]: 0,  as num: 0\n";
  expected += "\t\t\tMTA 3( 450.0- 600.0). Count [%]: 0,  as num: 0\n";
  expected += "\t\t\tMTA 4( 600.0- 750.0). Count [%]: 0,  as num: 0\n";
  expected += "\t\t\tMTA 5( 750.0- 900.0). Count [%]: 0,  as num: 0\n";
  expected += "\t\t\tMTA 6( 900.0-1050.0). Count [%]: 0,  as num: 0\n";
  expected += "\t\t\tMTA 7(1050.0-1200.0). Count [%]: 0,  as num: 0\n";
  EXPECT_EQ(s.fb().printHist(), expected);
  EXPECT_EQ(s.fb().zoneHist, (std::vector<std::uint32_t>{2, 1, 0, 0, 0, 0, 0, 0}));

  s.fb().mta = {-1, 8, -1, -1};
  const std::string allNaN = s.fb().printHist();
  EXPECT_NE(allNaN.find("nan,  as num: 0"), std::string::npos);
}

// Shots with a +-3 % jitter and flat ground 2.4 us away (zone 2): a block that runs gives its
// waves zone 2, a wave no block covers keeps the initial zone 0. Twelve waves, blocks of four,
// and the scan line breaks at wave `breakAt`.
namespace {

std::vector<int> zonesWithBreakAt(std::uint32_t breakAt, bool lineWise) {
  ShotFragment shots;
  for (int k = 0; k < 16; ++k) shots.times.push_back(10.0 + k * 1e-6 + 0.03e-6 * std::sin(k * 2.7));
  const double travel = 2.4e-6;
  std::vector<WavePtr> waves;
  std::vector<std::size_t> recorder;
  for (std::size_t e = 0; e < 12; ++e) {
    const double arrival = shots.times[e] + travel;
    std::size_t r = e;
    while (r + 1 < shots.times.size() && shots.times[r + 1] <= arrival) ++r;
    waves.push_back(makeWave({shots.times[r], arrival - shots.times[r]}));
    recorder.push_back(r);
  }
  for (std::size_t k = 0; k < shots.times.size(); ++k)
    shots.directions.push_back(k < recorder[breakAt]
                                   ? Gemwold::PhysicalSpace::vector{0.5, 0, -0.866}
                                   : Gemwold::PhysicalSpace::vector{-0.5, 0, -0.866});
  StoreFixture s(shots);
  s.fb().scannerDevice.blockSize = 4;
  s.fb().scannerDevice.extraAttributes.pattern =
      lineWise ? ScannerDevice::ScanPattern::LineWise : ScannerDevice::ScanPattern::Radial;
  EXPECT_TRUE(s.setWaves(waves));
  resolveMTA(s.fb());
  std::vector<int> zones;
  for (std::uint32_t w = 0; w < 12; ++w) zones.push_back(s.fb().getMTA(w));
  return zones;
}

}  // namespace

TEST(LineWiseBlocks, ABreakInTheLastBlockLeavesTheRestWithoutABlock) {
  // The break at wave 9 makes the last block [5, 9); the pending block from 9 never runs.
  EXPECT_EQ(zonesWithBreakAt(9, true), (std::vector<int>{2, 2, 2, 2, 2, 2, 2, 2, 2, 0, 0, 0}));
  // Without line awareness the last block [8, 12) zones all but the fragment's last wave.
  EXPECT_EQ(zonesWithBreakAt(9, false), (std::vector<int>{2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 0}));
}

TEST(LineWiseBlocks, ABreakMakesAnExtraBlockAfterIt) {
  // Break at 6 in block 1: block [2, 6), then the extra block [6, 10) takes the last block
  // number, so the normal last block is not run and waves 10 and 11 get no block.
  EXPECT_EQ(zonesWithBreakAt(6, true), (std::vector<int>{2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 0, 0}));
  // Break at 2 in block 0: [2 - 4, 2) wraps round (unsigned) and holds no wave; the extra
  // block [2, 6) is followed by the normal block 1 [4, 8) and the last block, cut at the
  // fragment's last wave to [7, 11).
  EXPECT_EQ(zonesWithBreakAt(2, true), (std::vector<int>{0, 0, 2, 2, 2, 2, 2, 2, 2, 2, 2, 0}));
}
