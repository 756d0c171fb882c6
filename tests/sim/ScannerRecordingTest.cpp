// What the simulator records as a scanner would: directions in the scanner's frame for any
// heading with the transform that puts positions back on the map, the receiver's blind
// window, scan lines with and without shots between them, and dust off any surface.
#include <gtest/gtest.h>

#include <cmath>

#include "sim/FragmentSimulation.hpp"
#include "sim/Scenes.hpp"
#include "sim/SurveyBundle.hpp"
#include "waveform/ScannerDevice.hpp"

using namespace quillo::sim;

namespace {

SurveyConfig smallSurvey() {
  SurveyConfig c = zoneScenes(SceneSize::Small).front().config;
  c.shots = 20000, c.fragmentShots = 10000;
  return c;
}

Gemwold::PhysicalSpace::point toMap(const ScannerToMap& m, const Gemwold::PhysicalSpace::point& p) {
  return {m[0] * p.x + m[1] * p.y + m[2] * p.z + m[3], m[4] * p.x + m[5] * p.y + m[6] * p.z + m[7],
          m[8] * p.x + m[9] * p.y + m[10] * p.z + m[11]};
}

// On the surface, or on a wall: between the heights a step either side.
bool onSurface(const Survey& s, const Gemwold::PhysicalSpace::point& p) {
  double low = s.terrainHeight(p.x, p.y), high = low;
  if (std::fabs(p.z - low) < 0.01) return true;
  for (double dx : {-0.3, 0.3})
    for (double dy : {-0.3, 0.3}) {
      low = std::min(low, s.terrainHeight(p.x + dx, p.y + dy));
      high = std::max(high, s.terrainHeight(p.x + dx, p.y + dy));
    }
  return low - 0.01 <= p.z && p.z <= high + 0.01;
}

double scanAngle(const Gemwold::PhysicalSpace::vector& d) {
  return std::atan2(d.x, d.z);
}

}  // namespace

TEST(ScannerFrame, ScanAnglesSweepAndPositionsLandOnTheSurfaceForAnyHeading) {
  SurveyConfig c = smallSurvey();
  c.dustShare = 0.0;
  const FragmentData north = simulateFragment(Survey(c), 0);
  for (double heading : {37.0, 90.0, 270.0}) {
    c.heading = heading;
    const Survey s(c);
    const FragmentData d = simulateFragment(s, 0);
    // The beam sweeps across track in the scanner's frame whatever the heading.
    double low = 10, high = -10;
    for (std::size_t k = 0; k < d.direction.size(); ++k) {
      ASSERT_NEAR(d.direction[k].y, 0.0, 1e-9) << heading;
      ASSERT_NEAR(scanAngle(d.direction[k]), scanAngle(north.direction[k]), 1e-9) << heading;
      low = std::min(low, scanAngle(d.direction[k])),
      high = std::max(high, scanAngle(d.direction[k]));
    }
    EXPECT_GT(high - low, 1.5 * c.maxScanAngle) << heading;
    // Each echo's position, taken to the map, lies on the scene's surface.
    std::size_t onGround = 0, off = 0;
    for (std::size_t i = 0; i < d.echoEmitter.size(); ++i) {
      if (d.echoTarget[i] != std::uint8_t(Target::Ground)) continue;
      const std::size_t k = d.echoEmitter[i];
      const auto o = d.origin[k];
      const auto v = d.direction[k];
      const double r = d.echoRange[i];
      const auto p = toMap(s.scannerToMap(), {o.x + v.x * r, o.y + v.y * r, o.z + v.z * r});
      ++onGround;
      off += !onSurface(s, p);
    }
    EXPECT_GT(onGround, 1000u);
    EXPECT_EQ(off, 0u) << heading;
  }
}

TEST(ScannerFrame, TransformTurnsTheFirstLinesTrackOntoTheScannerAxes) {
  SurveyConfig c = smallSurvey();
  c.heading = 90.0;  // flying east: across track is -y on the map
  const Survey s(c);
  const auto m = s.scannerToMap();
  EXPECT_NEAR(m[0], 0.0, 1e-12);   // scanner x ...
  EXPECT_NEAR(m[4], -1.0, 1e-12);  // ... is map -y
  EXPECT_NEAR(m[1], 1.0, 1e-12);   // scanner y (along track) is map +x
  const auto back = s.toScanner(Gemwold::PhysicalSpace::vector{0.0, -1.0, 0.0});
  EXPECT_NEAR(back.x, 1.0, 1e-12);
  // The file carries it where `quillo run` reads it for the map positions.
  auto bundle = surveyBundle(c);
  auto shots = (*(*bundle.create())[0.0])("Shots");
  auto stored = Vorlap::dynamicPtrCast<Vorlap::Chunk<double>>(
      shots->attributes().getAttribute(FullWaveform::ScannerAttribute::ScannerToMap));
  ASSERT_TRUE(stored);
  ASSERT_EQ(stored->size(), 12u);
  for (std::size_t i = 0; i < 12; ++i) EXPECT_EQ((*stored)[i], m[i]) << i;
}

TEST(ReceiverBlindWindow, EchoesArrivingWhileAPulseLeavesAreNotRecorded) {
  SurveyConfig c = smallSurvey();
  const Survey s(c);
  const FragmentData d = simulateFragment(s, 1);
  std::size_t blind = 0;
  for (std::size_t i = 0; i < d.echoEmitter.size(); ++i) {
    const std::uint64_t recorder = std::uint64_t(d.echoEmitter[i]) + d.echoZone[i];
    const double after =
        s.shotTime(d.echoEmitter[i]) + 2.0 * d.echoRange[i] / c.lightSpeed - s.shotTime(recorder);
    ASSERT_GE(after, 0.0);
    ASSERT_EQ(d.echoRecorded[i] == 0, after < c.blindWindow) << i;
    blind += d.echoRecorded[i] == 0;
  }
  EXPECT_GT(blind, 0u);
  for (double start : d.sblTime) ASSERT_GE(start, c.blindWindow);  // no row starts blind
  // The blind echoes are in no online record either.
  std::size_t recorded = 0;
  for (auto r : d.echoRecorded) recorded += r;
  EXPECT_LT(d.oppTime.size(), recorded);
  c.blindWindow = 0.0;
  const FragmentData seeing = simulateFragment(Survey(c), 1);
  for (auto r : seeing.echoRecorded) ASSERT_EQ(r, 1);
}

TEST(ScanGap, ShotsBetweenLinesHaveNoEchoesOrAreNotFired) {
  SurveyConfig c = smallSurvey();
  const Survey firing(c);
  ASSERT_GT(firing.scanGapSlots(), 0u);
  const std::uint64_t period = firing.scanPeriodSlots(), gap = firing.scanGapSlots();
  for (std::uint64_t k = period - gap; k < period; ++k) {
    EXPECT_FALSE(firing.shot(k).inView) << k;
    EXPECT_TRUE(firing.returns(k).empty()) << k;
  }
  EXPECT_TRUE(firing.shot(period).inView);
  c.shotsBetweenLines = false;
  const Survey silent(c);
  const double nominal = 1.0 / c.pulseRate;
  // Shot period - gap is the first of the next scan line: a gap of `gap` slots before it.
  const std::uint64_t first = period - gap;
  EXPECT_NEAR(silent.shotTime(first) - silent.shotTime(first - 1), double(gap + 1) * nominal,
              0.1 * nominal);
  for (std::uint64_t k = 0; k < 3 * period; ++k) ASSERT_TRUE(silent.shot(k).inView) << k;
  // The sweep starts again at the start of the field of view.
  EXPECT_NEAR(scanAngle(silent.shot(first).direction), scanAngle(silent.shot(0).direction), 0.01);
}

TEST(Dust, IsolatedEchoesLieBetweenTheAircraftAndTheSurface) {
  SurveyConfig c = smallSurvey();
  c.dustShare = 0.05;
  const Survey s(c);
  std::size_t dust = 0;
  for (std::uint64_t k = 0; k < 4000; ++k) {
    const auto echoes = s.returns(k);
    for (std::size_t i = 0; i < echoes.size(); ++i) {
      if (i > 0) {
        ASSERT_LE(echoes[i - 1].range, echoes[i].range);  // nearest first
      }
      if (echoes[i].target != Target::Dust) continue;
      ++dust;
      EXPECT_GE(echoes[i].range, 50.0);
      EXPECT_LT(echoes[i].range, (c.altitude + 100.0) / std::cos(c.maxScanAngle));
    }
  }
  EXPECT_GT(dust, 100u);
  EXPECT_LT(dust, 300u);
}
