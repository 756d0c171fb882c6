// Block scoring and transition detection on waves with chosen travel times.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "support/StoreFixture.hpp"
#include "zones/BlockScoring.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

// Every wave recorded at shot time 0.0, so its zone-0 travel time is exactly offset / 2.
std::vector<WavePtr> wavesWithLengths(const std::vector<double>& lengths) {
  std::vector<WavePtr> waves;
  for (double l : lengths) waves.push_back(makeWave({0.0, 2.0 * l}));
  waves.push_back(makeWave({0.0, 1e-7}));  // the last wave never takes part
  return waves;
}

std::vector<std::uint32_t> firstN(std::uint32_t n) {
  std::vector<std::uint32_t> b(n);
  for (std::uint32_t k = 0; k < n; ++k) b[k] = k;
  return b;
}

const ShotFragment kShots{{0.0, 1.0e-6, 2.0e-6, 3.0e-6}};

}  // namespace

TEST(BlockScoring, MeanSquaredStepOfValidEntries) {
  StoreFixture s(kShots);
  auto waves = wavesWithLengths({1.0e-6, 5.0e-7, 1.2e-6, 1.1e-6});
  waves[1]->amplitude = 1.0f;  // below minAmplitude: no candidate
  ASSERT_TRUE(s.setWaves(waves));
  ZoneScore score = scoreMTAZones(firstN(4), 0, 1, s.fb(), std::vector<std::int32_t>(4, 0));
  EXPECT_EQ(score.zone, 0);
  EXPECT_NEAR(score.score, 2.5e-14, 1e-26);
  CandidateRows rows;
  fillCandidateRows(firstN(4), 1, s.fb(), rows);
  EXPECT_EQ(rows.at(1, 0, 0), NO_LENGTH);
}

TEST(BlockScoring, TiesGoToTheLowerZoneAndEmptyRangesGiveNoZone) {
  // Dyadic times keep every travel time exact: with even shot spacing all zones tie.
  const double step = std::ldexp(1.0, -20);
  StoreFixture s({{0.0, step, 2 * step, 3 * step}});
  std::vector<WavePtr> waves;
  for (int k = 0; k < 4; ++k)
    waves.push_back(makeWave({3 * step, std::ldexp(1.0, -21) + k * std::ldexp(1.0, -24)}));
  ASSERT_TRUE(s.setWaves(waves));
  ZoneScore score = scoreMTAZones(firstN(3), 0, 4, s.fb(), std::vector<std::int32_t>(3, 0));
  EXPECT_EQ(score.zone, 0);
  EXPECT_GT(score.score, 0.0);
  EXPECT_LT(score.ratio, 0.98);  // a tie does not make the first zone uncertain
  ZoneScore later = scoreMTAZones(firstN(3), 2, 4, s.fb(), std::vector<std::int32_t>(3, 0));
  EXPECT_EQ(later.zone, 2);
  EXPECT_EQ(later.score, score.score);

  ZoneScore none = scoreMTAZones(firstN(3), 2, 2, s.fb(), std::vector<std::int32_t>(3, 0));
  EXPECT_EQ(none.zone, -1);
  EXPECT_EQ(scoreMTAZones({}, 0, 4, s.fb(), {}).zone, -1);
}

TEST(BlockScoring, FewerThanTwoValidWavesScoreZero) {
  StoreFixture s(kShots);
  ASSERT_TRUE(s.setWaves(wavesWithLengths({1.0e-6, 1.1e-6, 1.2e-6})));
  const std::vector<std::uint32_t> buffer{0, 0xFFFFFFFFu, 3};
  BlockResult r = evaluateBlockMTA(buffer, 0, s.fb(), 1, 3);
  EXPECT_EQ(r.zone, 1);
  EXPECT_EQ(r.ratio, 0.0);
  // The unknown entry and the fragment's last wave get no zone.
  EXPECT_EQ(r.zones[1], -1);
  EXPECT_EQ(r.zones[2], -1);
}

TEST(BlockScoring, TransitionShiftsTheEntriesBelowTheGap) {
  StoreFixture s(kShots);
  ASSERT_TRUE(s.setWaves(wavesWithLengths({3.0e-7, 1.0e-8, 3.1e-7, 2.0e-8})));
  auto shift = mtaTransition(firstN(4), 0, s.fb(), 0, 3);
  EXPECT_EQ(shift, (std::vector<std::int32_t>{0, -1, 0, -1}));
}

TEST(BlockScoring, GapOfExactlyAFifthZoneIsNoTransition) {
  StoreFixture s(kShots);
  const double fifth = 0.2 * s.fb().scannerDevice.getMTALengthAsTime();
  ASSERT_TRUE(s.setWaves(wavesWithLengths({0.0, fifth})));
  EXPECT_EQ(mtaTransition(firstN(2), 0, s.fb(), 0, 3), (std::vector<std::int32_t>{0, 0}));
  ASSERT_TRUE(s.setWaves(wavesWithLengths({0.0, std::nextafter(fifth, 1.0)})));
  EXPECT_EQ(mtaTransition(firstN(2), 0, s.fb(), 0, 3), (std::vector<std::int32_t>{-1, 0}));
}

TEST(BlockScoring, ChosenZoneMapsBackThroughTheShift) {
  // Shots 1 us apart with the spacing varying: only the true zone is smooth.
  ShotFragment shots;
  double t = 0.0;
  for (int k = 0; k < 40; ++k, t += 1.0e-6 * (1.0 + 0.03 * std::sin(k * 1.7)))
    shots.times.push_back(t);
  StoreFixture s(shots);
  std::vector<WavePtr> waves;
  // True emission 2 shots before the recording shot, travel time about 1.2 us.
  for (int k = 4; k < 30; ++k) {
    const double emitted = shots.times[k - 2];
    const double arrival = emitted + 2 * (1.2e-6 + 1e-9 * k);
    waves.push_back(makeWave({shots.times[k], arrival - shots.times[k]}));
  }
  ASSERT_TRUE(s.setWaves(waves));
  BlockResult r = evaluateBlockMTA(firstN(std::uint32_t(waves.size())), 0, s.fb(), 0, 5);
  EXPECT_EQ(r.zone, 2);
  EXPECT_LT(r.ratio, 0.98);
  EXPECT_EQ(r.zones[0], 2);
  EXPECT_EQ(r.zones.back(), -1);
}

TEST(BlockScoring, ABlockAcrossAZoneChangeIsScoredWithTheShift) {
  // Jittered shots 1 us apart and ground slowly moving away: the first echoes arrive one shot
  // after their emission, the later ones two. Scored as they are, both zones show the jump;
  // with the later echoes moved one zone up the whole block is smooth.
  ShotFragment shots;
  for (int k = 0; k < 40; ++k) shots.times.push_back(k * 1.0e-6 + 0.03e-6 * std::sin(k * 1.7));
  StoreFixture s(shots);
  std::vector<WavePtr> waves;
  std::vector<int> trueZones;
  for (int e = 2; e < 29; ++e) {
    const double arrival = shots.times[e] + 2 * (0.9e-6 + (e - 2) * 0.008e-6);
    int r = e;
    while (shots.times[r + 1] <= arrival) ++r;
    waves.push_back(makeWave({shots.times[r], arrival - shots.times[r]}));
    trueZones.push_back(r - e);
  }
  ASSERT_EQ(trueZones.front(), 1);
  ASSERT_EQ(trueZones[trueZones.size() - 2], 2);
  ASSERT_TRUE(s.setWaves(waves));
  BlockResult r = evaluateBlockMTA(firstN(std::uint32_t(waves.size())), 0, s.fb(), 0, 5);
  EXPECT_EQ(r.zone, 1);
  EXPECT_LT(r.ratio, 0.98);
  trueZones.back() = -1;  // the fragment's last wave takes no part
  EXPECT_EQ(r.zones, trueZones);

  // The zone stage reads rows walked once per fragment, wider than this block needs, in a
  // workspace that scored another block before: the same result, unknown entries included.
  BlockWorkspace workspace;
  fillWaveRows(s.fb(), 9, workspace.waveRows);
  std::vector<std::uint32_t> buffer = firstN(std::uint32_t(waves.size()));
  evaluateBlock({3, 2, 1}, s.fb(), 0, 8, workspace);
  const BlockResult& fromRows = evaluateBlock(buffer, s.fb(), 0, 5, workspace);
  EXPECT_EQ(fromRows.zone, r.zone);
  EXPECT_EQ(fromRows.ratio, r.ratio);
  EXPECT_EQ(fromRows.zones, r.zones);
  buffer.push_back(0xFFFFFFFFu);
  EXPECT_EQ(evaluateBlock(buffer, s.fb(), 0, 5, workspace).zones.back(), -1);
}

namespace {

// The shift as found by sorting every valid travel time and taking the last jump.
std::vector<std::int32_t> shiftBySorting(const std::vector<double>& lengths, double threshold) {
  std::vector<double> sorted;
  for (double v : lengths)
    if (v != NO_LENGTH && !std::isnan(v)) sorted.push_back(v);
  std::sort(sorted.begin(), sorted.end());
  TransitionTest test{threshold};
  for (std::size_t p = 1; p < sorted.size(); ++p) test(sorted[p - 1], sorted[p], std::int32_t(p));
  std::vector<std::int32_t> shift(lengths.size(), 0);
  if (test.transition < 0) return shift;
  for (std::size_t k = 0; k < lengths.size(); ++k)
    if (lengths[k] < sorted[std::size_t(test.transition)]) shift[k] = -1;
  return shift;
}

}  // namespace

// Clusters a zone apart with scatter, values on a grid (neighbours exactly the threshold
// apart are no jump), duplicates, far outliers, infinities and entries without a travel
// time: the same shift as sorting.
TEST(BlockScoring, TransitionWithoutSortingEqualsSorting) {
  std::mt19937_64 random(11);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int trial = 0; trial < 4000; ++trial) {
    // Half the trials on a grid of 1/64 with a threshold of 1/4: exact differences.
    const bool grid = trial % 2 == 0;
    const double threshold = grid ? 0.25 : 0.2 * 6.67e-6, base = grid ? 8.0 : 3e-5;
    const std::size_t n = 1 + random() % 60;
    const double scatter = threshold * std::vector<double>{0.0, 0.5, 1.0, 2.5}[trial / 2 % 4];
    std::vector<double> lengths;
    for (std::size_t k = 0; k < n; ++k) {
      double v = base + double(random() % 3) * 5.0 * threshold + scatter * unit(random);
      if (grid) v = std::floor(v * 64.0) / 64.0;
      switch (random() % 40) {
        case 0:
          v = NO_LENGTH;
          break;
        case 1:
          v = std::nan("");
          break;
        case 2:
          v = (trial % 7 == 0) ? INFINITY : 1e3;
          break;  // a far outlier
        case 3:
          v = lengths.empty() ? v : lengths.back() + threshold;
          break;
        case 4:
          v = lengths.empty() ? v : lengths.back();
          break;
      }
      lengths.push_back(v);
    }
    CandidateRows rows{lengths, 1};
    std::vector<double> work;
    std::vector<std::int32_t> shift;
    transitionShift(rows, n, threshold, work, shift);
    ASSERT_EQ(shift, shiftBySorting(lengths, threshold)) << "trial " << trial;
  }
}

namespace {

// The definition through CandidateRows::at: per zone, the mean squared step between
// successive valid entries; the lowest score wins, ties to the lower zone.
ZoneScore scoreByDefinition(const CandidateRows& rows, std::size_t count, std::uint32_t minZone,
                            std::uint32_t maxZone, const std::vector<std::int32_t>& shift) {
  ZoneScore s;
  double best = 1.0e9;
  for (std::uint32_t z = minZone; count > 0 && z < maxZone; ++z) {
    double sum = 0.0, previous = 0.0;
    std::size_t n = 0;
    bool have = false;
    for (std::size_t k = 0; k < count; ++k) {
      const double v = rows.at(k, shift.empty() ? 0 : shift[k], z);
      if (v == NO_LENGTH || std::isnan(v)) continue;
      if (have) sum += (v - previous) * (v - previous), ++n;
      previous = v, have = true;
    }
    const double score = n ? sum / double(n) : 0.0;
    if (best > score) s.zone = std::int32_t(z), s.ratio = score / best, best = score;
  }
  s.score = best;
  return s;
}

}  // namespace

// Rows with gaps, NaN, infinities and shifted entries, scored over random zone ranges and
// fewer rows than the buffer holds: zone, ratio and score bit for bit as defined.
TEST(BlockScoring, ScoresAreTheDefinitionsBitForBit) {
  std::mt19937_64 random(5);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int trial = 0; trial < 3000; ++trial) {
    const std::uint32_t maxZone = 1 + std::uint32_t(random() % 9);
    const std::uint32_t minZone = std::uint32_t(random() % (maxZone + 1));
    const std::size_t rowsHeld = random() % 40, count = rowsHeld ? random() % (rowsHeld + 1) : 0;
    CandidateRows rows;
    rows.columns = maxZone + 1;
    for (std::size_t i = 0; i < rowsHeld * rows.columns; ++i) {
      double v = 3e-5 + 6.67e-6 * double(i % rows.columns) + 1e-7 * unit(random);
      const auto pick = random() % 12;
      if (pick < 2) v = NO_LENGTH;
      if (pick == 2 && trial % 5 == 0) v = std::nan("");
      if (pick == 3 && trial % 7 == 0) v = INFINITY;
      rows.values.push_back(v);
    }
    std::vector<std::int32_t> shift;
    for (std::size_t k = 0; trial % 2 && k < rowsHeld; ++k)
      shift.push_back(-std::int32_t(random() % 2));
    const ZoneScore expected = scoreByDefinition(rows, count, minZone, maxZone, shift);
    const ZoneScore got = scoreZones(rows, count, minZone, maxZone, shift);
    ASSERT_EQ(got.zone, expected.zone) << "trial " << trial;
    ASSERT_EQ(std::memcmp(&got.score, &expected.score, sizeof(double)), 0) << "trial " << trial;
    ASSERT_EQ(std::memcmp(&got.ratio, &expected.ratio, sizeof(double)), 0) << "trial " << trial;
  }
}
