// Line-end fans on hand-made scans whose scanner emits no shots while it turns: the echoes
// of each line's last shots all arrive after its last shot, each in its own zone. The block
// method leaves them in zone 0 and classifies the ground before them as noise; the rule
// must place them, and leave right line ends, canopies and walls as they are.
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
constexpr double kTurn = 2.0e-3;  // s without shots between two lines
constexpr int kNoisyEnd = 40;     // shots before the fan whose echoes the module made noise

using Surface = std::function<double(double x)>;  // height across the track

using quillo::test::jitterOf;

// `lines` lines of `perLine` shots sweeping from -0.2 to 0.8 rad (the far end at about 720 m,
// four shot intervals of flight), 3 % jitter, a turn without shots after each line.
struct TurningScan {
  ShotTable shots;
  RefineEchoes echoes;
  std::vector<std::uint8_t> trueZone;
  int perLine;

  TurningScan(const Surface& surface, int lines, int perLine, int echoesPerShot = 1)
      : perLine(perLine) {
    shots.lightSpeed = kLight;
    for (int l = 0; l < lines; ++l)
      for (int s = 0; s < perLine; ++s) {
        const std::uint64_t k = shots.time.size();
        shots.time.push_back(kTurn * l + kInterval * (double(k) + 0.03 * jitterOf(k)));
        shots.origin.push_back({0.0, 0.5 * (l + double(s) / perLine), kAltitude});
        shots.direction.push_back({std::sin(angleOf(s)), 0.0, -std::cos(angleOf(s))});
      }
    for (std::uint32_t k = 0; k < shots.time.size(); ++k) {
      const double angle = angleOf(int(k) % perLine);
      const auto above = [&](double t) {
        return kAltitude - t * std::cos(angle) > surface(t * std::sin(angle));
      };
      double range = 0.0;  // metre steps to the surface, then halving to a millimetre
      while (above(range + 1.0)) range += 1.0;
      for (double step = 0.5; step > 1e-3; step *= 0.5)
        if (above(range + step)) range += step;
      for (int e = 0; e < echoesPerShot; ++e)  // the others in a canopy up to 15 m above
        addEcho(k, range - (e == 0 ? 0.0 : 15.0 * (0.5 + 0.5 * jitterOf(k * 7 + e))));
    }
  }

  double angleOf(int s) const { return -0.2 + 1.0 * s / (perLine - 1); }

  // The echo recorded after the last shot fired before it arrived.
  void addEcho(std::uint32_t shot, double range) {
    const double arrival = shots.time[shot] + 2.0 * range / kLight;
    std::uint32_t record = shot;
    while (record + 1 < shots.time.size() && shots.time[record + 1] <= arrival) ++record;
    if (record + 1 == shots.time.size()) return;
    echoes.push_back({shot, range / kLight, std::uint8_t(record - shot), false});
    trueZone.push_back(std::uint8_t(record - shot));
  }

  bool recordedAtLineEnd(std::size_t i) const {
    return (echoes[i].emitter + echoes[i].zone) % std::uint32_t(perLine) ==
           std::uint32_t(perLine - 1);
  }

  // As the block method leaves such ends: the fan in zone 0, the ground before it noise.
  std::size_t spoilLineEnds() {
    std::size_t spoiled = 0;
    for (std::size_t i = 0; i < echoes.size(); ++i) {
      const int s = int(echoes[i].emitter) % perLine;
      if (recordedAtLineEnd(i)) {
        spoiled += trueZone[i] != 0;
        quillo::test::assignEchoZone(echoes[i], shots, 0);
      } else if (s >= perLine - kNoisyEnd) {
        echoes[i].noise = true;
      }
    }
    return spoiled;
  }

  std::size_t wrong(const RefineResult& r) const {
    std::size_t n = 0;
    for (std::size_t i = 0; i < trueZone.size(); ++i)
      n += !echoes[i].noise && !(r.flag[i] & kMarkedNoise) && r.zone[i] != trueZone[i];
    return n;
  }
};

const Surface kFlat = [](double) { return 0.0; };
const Surface kSlope = [](double x) { return 0.2 * x; };
// A wall 40 m high that every line's end crosses.
const Surface kWall = [](double x) { return x > 540.0 && x < 545.0 ? 40.0 : 0.0; };

RefineSettings withoutFans() {
  RefineSettings s;
  s.lineEndEchoes = 0;
  return s;
}

TEST(LineEnds, TheLastShotsOfEveryLineGetTheirOwnZones) {
  // Every line end the same way wrong, its neighbours noise: the surface test has nothing
  // to hold the fan to, and without the rule keeps it wrong or makes it noise.
  for (const Surface& surface : {kFlat, kSlope}) {
    TurningScan scan(surface, 12, 1500);
    const std::size_t spoiled = scan.spoilLineEnds();
    ASSERT_GE(spoiled, 11u * 3u);  // the last line has no shot after it
    const RefineResult before = refineEchoZones(scan.shots, scan.echoes, withoutFans());
    EXPECT_GE(scan.wrong(before) + before.markedNoise, spoiled);
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
    EXPECT_EQ(scan.wrong(r), 0u);
    EXPECT_EQ(r.markedNoise, 0u);
  }
}

TEST(LineEnds, RightEndsCanopiesAndWallsStay) {
  // Right zones at every line end, over flat ground, a wall and a canopy of three echoes a
  // shot: nothing moves. Settled echoes are never moved.
  for (const Surface& surface : {kFlat, kWall})
    for (int perShot : {1, 3}) {
      TurningScan scan(surface, 12, 1500, perShot);
      const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
      EXPECT_EQ(r.moved, 0u) << perShot;
      EXPECT_EQ(scan.wrong(r), 0u);
    }
  TurningScan settled(kFlat, 12, 1500);
  const std::size_t spoiled = settled.spoilLineEnds();
  const RefineResult r = refineEchoZones(settled.shots, settled.echoes, {}, settled.echoes.size());
  EXPECT_EQ(settled.wrong(r), spoiled);
}

}  // namespace
}  // namespace FullWaveform
