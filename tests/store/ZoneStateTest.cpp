// Zone state, the zone setter and the travel-time queries, on hand-made waves.
#include <gtest/gtest.h>

#include <cmath>

#include "store/FatBoy.hpp"
#include "support/InputBundles.hpp"
#include "support/Waves.hpp"
#include "zones/ZoneInit.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

// Shots at 1 us spacing (t = 10 + k * 1e-6), one fragment per entry of `counts`.
std::vector<ShotFragment> shotFragments(std::vector<int> counts) {
  std::vector<ShotFragment> frags;
  int k = 0;
  for (int n : counts) {
    ShotFragment f;
    for (int i = 0; i < n; ++i, ++k) f.times.push_back(10.0 + k * 1.0e-6);
    frags.push_back(f);
  }
  return frags;
}

double shotTime(int k) {
  return 10.0 + k * 1.0e-6;
}

class ZoneState : public ::testing::Test {
 protected:
  void load(std::vector<int> counts, std::uint32_t frag = 0) {
    bundle = makeShotsBundle(shotFragments(counts));
    fb = std::make_unique<FatBoy<unsigned short>>(bundle, input);
    ASSERT_TRUE((*fb)());
    ASSERT_TRUE(fb->ini(frag));
  }
  // Waves recorded at the given global shot numbers, echo 3.2 us after the recording shot.
  void waves(std::vector<int> shots, double offset = 3.2e-6) {
    fb->wavePoints.clear();
    for (int k : shots) fb->wavePoints.push_back(makeWave({shotTime(k), offset}));
  }
  Tessal::BundlePtr bundle;
  Input input;
  std::unique_ptr<FatBoy<unsigned short>> fb;
};

}  // namespace

TEST_F(ZoneState, IniMTARefusesSmallFragments) {
  load({10});
  waves({1, 2});
  EXPECT_FALSE(fb->iniMTA());
  EXPECT_TRUE(fb->shotTimeIndex.empty());

  load({2});
  waves({0, 1, 1});
  EXPECT_FALSE(fb->iniMTA());  // only two distinct shot times in the run so far
}

TEST_F(ZoneState, IniMTASetsZeroZonesRecordingShotsAndFallbacks) {
  load({10});
  waves({4, 5, 6});
  fb->wavePoints.push_back(makeWave({99.0, 1e-6}));  // matches no shot
  ASSERT_TRUE(fb->iniMTA());
  EXPECT_EQ(fb->nWaves, 4u);
  EXPECT_EQ(fb->nShots, 10u);
  EXPECT_EQ(fb->mta, (std::vector<std::int32_t>{0, 0, 0, 0}));
  EXPECT_EQ(fb->shotIndex, (std::vector<std::uint32_t>{4, 5, 6, 3}));
  EXPECT_DOUBLE_EQ(fb->maxTravelTime, 9 * 0.5e-6);
  EXPECT_NEAR(fb->getLength(0, 3.2e-6), 1.6e-6, 1e-12);
}

TEST_F(ZoneState, EqualShotTimesKeepTheLaterIndexAndEveryWave) {
  bundle = makeShotsBundle({{{1.0, 2.0, 2.0, 3.0, 4.0}}});
  fb = std::make_unique<FatBoy<unsigned short>>(bundle, input);
  ASSERT_TRUE(fb->ini(0));
  fb->wavePoints = {makeWave({2.0}), makeWave({1.0}), makeWave({3.0}), makeWave({4.0})};
  ASSERT_TRUE(fb->iniMTA());
  EXPECT_EQ(fb->shotTimeIndex.size(), 4u);
  EXPECT_EQ(fb->shotTimeIndex.find(2.0)->second, 2u);
  EXPECT_EQ(fb->shotIndex[0], 2u);
  // The waves recorded at and after the repeated time go on to zone resolution.
  for (const auto& wave : fb->wavePoints) EXPECT_TRUE(wave);
  fb->setMTA(3, 2, 0.0);
  EXPECT_EQ(fb->mta[3], 2);
  EXPECT_EQ(fb->shotIndex[3], 2u);  // one shot short: the repeated time holds one entry
}

TEST_F(ZoneState, SetMTAWalksBackAndTracksCertainty) {
  load({10});
  waves({2, 5, 6});
  ASSERT_TRUE(fb->iniMTA());
  fb->setMTA(1, 2, 0.9799);
  EXPECT_EQ(fb->mta[1], 2);
  EXPECT_EQ(fb->shotIndex[1], 3u);
  EXPECT_TRUE(fb->isCertainMTA(1));
  EXPECT_NEAR(fb->getLength(1, 3.2e-6), (3.2e-6 + 2e-6) * 0.5, 1e-12);

  fb->setMTA(0, 3, 0.98);  // only two shots before shot 2
  EXPECT_EQ(fb->mta[0], -1);
  EXPECT_EQ(fb->shotIndex[0], 2u);
  EXPECT_FALSE(fb->isCertainMTA(0));
  EXPECT_EQ(fb->getLength(0, 0.0), NO_LENGTH);

  fb->setMTA(2, 1, std::nan(""));
  EXPECT_EQ(fb->mta[2], 1);
  EXPECT_FALSE(fb->isCertainMTA(2));
  fb->setMTA(2, -5, 0.99);
  EXPECT_EQ(fb->mta[2], -5);
  EXPECT_EQ(fb->shotIndex[2], 5u);
}

TEST_F(ZoneState, CandidateWalkStopsAtTheFirstShot) {
  load({10});
  waves({2, 5, 9});
  ASSERT_TRUE(fb->iniMTA());
  std::vector<double> out(8, NO_LENGTH);
  fb->getLengthAccordingMTA(0, 0, 8, fb->maxTravelTime, out.data(), 8.6);
  EXPECT_NEAR(out[0], 1.6e-6, 1e-12);
  EXPECT_NEAR(out[1], 2.1e-6, 1e-12);
  EXPECT_NEAR(out[2], 2.6e-6, 1e-12);
  EXPECT_EQ(out[3], NO_LENGTH);  // exactly three candidates: shots 2, 1, 0

  std::vector<double> shifted(2, -1.0);
  fb->getLengthAccordingMTA(2, +1, 2, 1.0, shifted.data(), 0.0);  // shot 9 is the last
  EXPECT_EQ(shifted[0], -1.0);
  fb->getLengthAccordingMTA(2, -1, 2, 1.0, shifted.data(), 0.0);
  EXPECT_NEAR(shifted[0], (3.2e-6 + 1e-6) * 0.5, 1e-12);
}

TEST_F(ZoneState, CandidateLimitsAreInclusive) {
  load({10});
  waves({5, 6, 7});
  ASSERT_TRUE(fb->iniMTA());
  double out[2] = {0, 0};
  fb->getLengthAccordingMTA(0, 0, 1, 1.0, out, 100.0);
  const double exact = out[0];
  fb->getLengthAccordingMTA(0, 0, 2, exact, out, 100.0);
  EXPECT_EQ(out[0], exact);      // equal to maxLength: kept
  EXPECT_EQ(out[1], NO_LENGTH);  // above it
  fb->getLengthAccordingMTA(0, 0, 1, 1.0, out, 100.5);
  EXPECT_EQ(out[0], NO_LENGTH);  // amplitude below the threshold
  fb->wavePoints[0]->amplitudeExempt = true;
  fb->noteWaveChanged(0);
  fb->getLengthAccordingMTA(0, 0, 1, 1.0, out, 1.0e9);
  EXPECT_NEAR(out[0], 1.6e-6, 1e-12);
  double untouched = -2.0;
  fb->wavePoints[1]->waveTime = shotTime(6) + 1e-15;
  fb->noteWaveChanged(1);
  fb->getLengthAccordingMTA(1, 0, 1, 1.0, &untouched, 0.0);
  EXPECT_EQ(untouched, -2.0);
}

TEST_F(ZoneState, WalksIntoThePreviousFragmentKeepTrueShotData) {
  load({10, 10});
  waves({2, 3, 4});
  ASSERT_TRUE(fb->iniMTA());
  ASSERT_TRUE(fb->ini(1));
  waves({10, 11, 12});
  ASSERT_TRUE(fb->iniMTA());
  EXPECT_EQ(fb->shotTimeIndex.size(), 20u);
  fb->setMTA(0, 3, 0.0);  // emitted by global shot 7, local index 7 of fragment 0
  EXPECT_EQ(fb->mta[0], 3);
  EXPECT_DOUBLE_EQ(fb->getShotTime(0), shotTime(7));
  EXPECT_DOUBLE_EQ(fb->getBeamCoords(0).z, 507.0);
  EXPECT_NEAR(fb->getLength(0, 3.2e-6), (3.2e-6 + 3e-6) * 0.5, 1e-12);
}

TEST_F(ZoneState, OutOfRangeQueriesAreNeutral) {
  load({10});
  waves({2, 5, 6});
  ASSERT_TRUE(fb->iniMTA());
  fb->shotIndex[1] = 10;
  EXPECT_EQ(fb->getShotTime(1), 0.0);
  EXPECT_EQ(fb->getDir(1).z, 0.0);
  EXPECT_EQ(fb->getLength(1, 0.0), NO_LENGTH);
  EXPECT_EQ(fb->getShotTime(1000), 0.0);
  EXPECT_EQ(fb->getLength(1000, 0.0), NO_LENGTH);
}

// Read from the waves themselves, and from the zone inputs iniMTA copies.
TEST_F(ZoneState, NearRangeWavesAreReleased) {
  load({10});
  const double limit = 6.673156177586246e-09;
  for (const bool afterIniMTA : {false, true}) {
    SCOPED_TRACE(afterIniMTA ? "after iniMTA" : "before iniMTA");
    fb->wavePoints = {makeWave({shotTime(1), limit}), makeWave({shotTime(2), -limit}),
                      makeWave({shotTime(3), limit * 0.999}),
                      makeWave({shotTime(4), std::nan("")})};
    auto empty = makeWave({shotTime(5), 1e-6});
    empty->echoes.clear();
    fb->wavePoints.push_back(empty);
    if (afterIniMTA) {
      ASSERT_TRUE(fb->iniMTA());
    }
    EXPECT_EQ(removeNearRangeWaves(*fb), "");
    EXPECT_TRUE(fb->wavePoints[0] && fb->wavePoints[1] && fb->wavePoints[3]);
    EXPECT_TRUE(fb->wavePoints[2].isEmpty());
    EXPECT_TRUE(fb->wavePoints[4].isEmpty());
  }
}
