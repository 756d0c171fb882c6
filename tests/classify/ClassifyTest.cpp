// Noise classification limits, duplicate online echoes, and the output split rules.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "classify/NoiseClassification.hpp"
#include "classify/OutputSplit.hpp"
#include "support/InputBundles.hpp"
#include "support/StoreFixture.hpp"
#include "vorlap/Console.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

// Waves at shot 0.0 whose zone-0 travel time is exactly offset / 2.
bool setLengths(StoreFixture& s, const std::vector<double>& lengths) {
  std::vector<WavePtr> waves;
  for (double l : lengths) waves.push_back(makeWave({0.0, 2 * l}));
  return s.setWaves(waves);
}

}  // namespace

TEST(NoiseClassification, TravelTimeLimits) {
  StoreFixture s({{0.0, 1e-6, 2e-6, 3e-6}});
  const double maxTravel = 9 * 0.5e-6;
  ASSERT_TRUE(setLengths(
      s, {maxTravel, std::nextafter(maxTravel, 1.0), 4.0e-07, kNearRangeLimit, 0.0, 1e-6}));
  s.fb().mta[5] = -1;
  classifyNoise(s.fb());
  auto& w = s.fb().wavePoints;
  EXPECT_TRUE(w[0]);            // exactly the largest travel time: kept
  EXPECT_TRUE(w[1].isEmpty());  // just above: dropped
  EXPECT_EQ(w[2]->echoes[0].classification, Quorvane::DrelmClass::noise);
  EXPECT_NE(w[3]->echoes[0].classification, Quorvane::DrelmClass::noise);
  EXPECT_EQ(w[4]->echoes[0].classification, Quorvane::DrelmClass::noise);  // 0 is near range
  EXPECT_TRUE(w[5].isEmpty());                                             // no zone
}

// Classification decides by travel time alone: a NaN travel time is neither dropped nor
// marked, and a shot that points nowhere does not cost its waves their place.
TEST(NoiseClassification, KeepsNaNTravelTimesAndWavesOfUnusableBeams) {
  const double nan = std::nan("");
  StoreFixture s({{0.0, 1e-6, 2e-6, 3e-6}, {{0, 0, 0}, {nan, 0, -1}, {0, 0, -1}, {0, 0, -1}}});
  ASSERT_TRUE(s.setWaves({makeWave({0.0, nan}), makeWave({1e-6, 2e-6}), makeWave({2e-6, 2e-6})}));
  classifyNoise(s.fb());
  auto& w = s.fb().wavePoints;
  ASSERT_TRUE(w[0]);
  EXPECT_NE(w[0]->echoes[0].classification, Quorvane::DrelmClass::noise);
  EXPECT_TRUE(w[1]);  // its shot's direction is not finite
  EXPECT_TRUE(w[2]);
}

TEST(NoiseClassification, DuplicateOnlineEchoesNeedBothSources) {
  auto bundle = makeShotsBundle({{{0.0, 1e-6, 2e-6, 3e-6}}});
  addWaveformFragment(bundle, 0, {{0.0}});
  addOnlineFragment(bundle, 0, {{0.0}, {}, {}, {}});
  Input input;
  FatBoy<unsigned short> fb(bundle, input);
  ASSERT_TRUE(fb.ini(0));
  const double tol = kCoincidenceTolerance;
  auto full = makeWave({0.0, 1e-6, 100.f, 1, false, 100, {1e-6, 1.5e-6}});
  // Online echo times are two-way: a one-way difference d is 2d here.
  auto dup = makeWave({0.0, 1e-6, 100.f, 1, true, 0, {1e-6 + 2 * 0.9 * tol, 1.5e-6}});
  auto kept = makeWave({0.0, 1e-6, 100.f, 1, true, 0, {1e-6 + 2 * 1.001 * tol}});
  auto other = makeWave({1e-6, 1e-6, 100.f, 1, true, 0, {1e-6}});
  fb.wavePoints = {full, dup, kept, other};
  ASSERT_TRUE(fb.iniMTA());
  classifyNoise(fb);
  EXPECT_TRUE(fb.wavePoints[1].isEmpty());  // every echo coincided
  ASSERT_TRUE(fb.wavePoints[2]);
  EXPECT_EQ(fb.wavePoints[2]->size(), 1u);
  EXPECT_EQ(fb.wavePoints[3]->size(), 1u);  // its shot has no waveform wave

  Input withoutOnline;
  withoutOnline.skipOnline = true;
  FatBoy<unsigned short> single(bundle, withoutOnline);
  ASSERT_TRUE(single.ini(0));
  auto dup2 = makeWave({0.0, 1e-6, 100.f, 1, true, 0, {1e-6}});
  single.wavePoints = {makeWave({0.0, 1e-6}), dup2, makeWave({2e-6, 1e-6})};
  ASSERT_TRUE(single.iniMTA());
  classifyNoise(single);
  EXPECT_TRUE(single.wavePoints[1]);
}

namespace {

ShotFragment shotsWithDirections(const std::vector<Gemwold::PhysicalSpace::vector>& dirs) {
  ShotFragment f;
  for (std::size_t k = 0; k < dirs.size(); ++k) f.times.push_back(1.0 + k * 1e-6);
  f.directions = dirs;
  return f;
}

Gemwold::PhysicalSpace::vector atAngle(double radians) {
  return {std::sin(radians), 0.0, std::cos(radians)};
}

}  // namespace

TEST(OutputSplit, SegmentsGoToOneSide) {
  StoreFixture s(shotsWithDirections({atAngle(0.1), atAngle(0.2), atAngle(2.0)}));
  std::vector<WavePtr> waves;
  for (int k = 0; k < 3; ++k) waves.push_back(makeWave({1.0 + k * 1e-6, 1e-6}));
  ASSERT_TRUE(s.setWaves(waves));
  s.fb().wavePoints[1].reset();
  s.input.RDB_SEGMENT = 0;
  auto lists = splitWaves(s.fb());
  EXPECT_EQ(lists.first, (std::vector<std::uint32_t>{0, 2}));
  EXPECT_TRUE(lists.second.empty());
  s.input.RDB_SEGMENT = 3;
  lists = splitWaves(s.fb());
  EXPECT_TRUE(lists.first.empty());
  EXPECT_EQ(lists.second.size(), 2u);
}

TEST(OutputSplit, LineWiseAlternatesLines) {
  StoreFixture s(shotsWithDirections({atAngle(0.1), atAngle(0.2), atAngle(2.0), atAngle(2.1)}));
  std::vector<WavePtr> waves;
  for (int k = 0; k < 4; ++k) waves.push_back(makeWave({1.0 + k * 1e-6, 1e-6}));
  ASSERT_TRUE(s.setWaves(waves));
  s.input.RDB_SEGMENT = -1;
  auto lists = splitWaves(s.fb());
  EXPECT_EQ(lists.first, (std::vector<std::uint32_t>{2}));
  EXPECT_EQ(lists.second, (std::vector<std::uint32_t>{0, 1, 3}));
}

TEST(OutputSplit, RadialBySideAndUnknownPatternsReport) {
  StoreFixture s(shotsWithDirections({{0, -0.5, 1}, {0, 0.0, 1}, {0, 0.5, 1}}));
  std::vector<WavePtr> waves;
  for (int k = 0; k < 3; ++k) waves.push_back(makeWave({1.0 + k * 1e-6, 1e-6}));
  ASSERT_TRUE(s.setWaves(waves));
  s.input.RDB_SEGMENT = -1;
  s.fb().scannerDevice.extraAttributes.pattern = ScannerDevice::ScanPattern::Radial;
  auto lists = splitWaves(s.fb());
  EXPECT_EQ(lists.first, (std::vector<std::uint32_t>{0}));
  EXPECT_EQ(lists.second, (std::vector<std::uint32_t>{1, 2}));

  s.fb().scannerDevice.extraAttributes.pattern = ScannerDevice::ScanPattern::Unknown;
  Vorlap::ConsoleCapture capture;
  lists = splitWaves(s.fb());
  EXPECT_EQ(capture.messages(), std::vector<std::string>(3, "Not implemented"));
  EXPECT_EQ(lists.second.size(), 3u);
}
