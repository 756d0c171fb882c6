// Unmatched amplitudes on hand-made scans: a line-wise scanner 500 m above flat ground under
// a forest. Seven shots in ten return from a crown 8 m to 18 m above the ground, five of them
// from the ground too, the rest from the ground only; every echo recorded in the high-gain
// channel 0 and, at an eighth of that, in the low-gain channel 1. Dust that a wrong zone puts
// among the crowns fits every neighbouring line; what tells it is its amplitude, where the
// crowns return alike. Left alone: dust as bright as the crowns, a rough canopy, two kinds
// of trees, a roof in every line, and an echo recorded in the high-gain channel only (an
// online record, whose amplitude is on the low-gain scale).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "refine/SurfaceFit.hpp"
#include "support/LineScan.hpp"
#include "support/RefineEchoes.hpp"

namespace FullWaveform {
namespace {

using quillo::test::jitterOf;
constexpr float kCrown = 550.0f, kGround = 350.0f;  // in the high-gain channel
constexpr float kGain = 8.0f;                       // high-gain per low-gain amplitude

// A value in [0, 1) per shot and purpose.
double uniform(std::uint32_t shot, std::uint64_t purpose) {
  return 0.5 * (jitterOf(std::uint64_t(shot) * 16 + purpose) + 1.0);
}

struct Forest : quillo::test::LineScan {
  // `spread`: the crowns' amplitudes vary by up to this factor either way (a few per cent:
  // one kind of tree; more: a rough canopy of many).
  explicit Forest(double spread = 1.05) {
    const std::size_t ground = echoes.size();
    for (std::uint32_t shot = 0; shot < ground; ++shot) {
      const double u = uniform(shot, 1);
      const float scale = float(std::pow(spread, 2.0 * uniform(shot, 2) - 1.0));
      if (u < 0.7) addBoth(shot, groundRange[shot] - 8.0 - 10.0 * uniform(shot, 3), kCrown * scale);
      if (u < 0.5 || u >= 0.7) addBoth(shot, groundRange[shot], kGround);
    }
    // The scan's own echo per shot has no amplitude: it tells nothing, and is dropped.
    echoes.erase(echoes.begin(), echoes.begin() + std::ptrdiff_t(ground));
  }
  // One arrival recorded in both channels; the high-gain record's index.
  std::size_t addBoth(std::uint32_t shot, double range, float amplitude) {
    const std::size_t high = add(shot, range, 0, amplitude);
    add(shot, range, 1, amplitude / kGain);
    return high;
  }
};

RefineSettings without() {
  RefineSettings s;
  s.matchRatio = 0.0;
  return s;
}

TEST(UnmatchedAmplitudes, DustAmongTheCrownsIsNoiseInBothChannels) {
  for (const float times : {2.5f, 0.3f}) {
    Forest forest;
    const std::uint32_t shot = Forest::shotAt(6, 750);
    const std::size_t dust = forest.addBoth(shot, forest.groundRange[shot] - 12.0, times * kCrown);
    const RefineResult old = refineEchoZones(forest.shots, forest.echoes, without());
    ASSERT_EQ(old.flag[dust], kUntouched) << "the dust must fit the crowns for the case to matter";
    const RefineResult r = refineEchoZones(forest.shots, forest.echoes);
    EXPECT_EQ(r.flag[dust], kMarkedNoise) << times;
    EXPECT_EQ(r.flag[dust + 1], kMarkedNoise) << "its low-gain record too";
    EXPECT_EQ(r.zone[dust], forest.echoes[dust].zone);
    EXPECT_EQ(r.markedNoise, old.markedNoise + 2) << "no crown or ground echo is noise";
    // In the low-gain channel alone (the high-gain one clipped), it is told by that channel.
    forest.echoes.erase(forest.echoes.begin() + std::ptrdiff_t(dust));
    EXPECT_EQ(refineEchoZones(forest.shots, forest.echoes).flag[dust], kMarkedNoise) << times;
  }
}

TEST(UnmatchedAmplitudes, WhatMatchesItsSurfaceOrCannotBeReadStays) {
  const std::uint32_t shot = Forest::shotAt(6, 750);
  // Dust as bright as the crowns.
  Forest alike;
  alike.addBoth(shot, alike.groundRange[shot] - 12.0, 1.1f * kCrown);
  EXPECT_EQ(refineEchoZones(alike.shots, alike.echoes).markedNoise,
            refineEchoZones(alike.shots, alike.echoes, without()).markedNoise);
  // A rough canopy, its crowns' amplitudes three times apart either way: dust there matches
  // some of them, and a crown's few neighbours look alike only by chance: fewer than one
  // crown in a thousand becomes noise.
  Forest rough(3.0);
  rough.addBoth(shot, rough.groundRange[shot] - 12.0, 2.5f * kCrown);
  const RefineResult before = refineEchoZones(rough.shots, rough.echoes, without());
  const RefineResult after = refineEchoZones(rough.shots, rough.echoes);
  EXPECT_EQ(after.flag.back(), before.flag.back());
  EXPECT_LT(after.markedNoise - before.markedNoise, rough.echoes.size() / 1000);
  // Two kinds of trees, one in seven crowns of the brighter kind: most of those have a few of
  // their kind at their scan angle in the lines around; where by chance they have not, they
  // are taken for dust, fewer than one in 25.
  Forest mixed;
  std::size_t brighter = 0;
  for (RefineEcho& e : mixed.echoes)
    if (e.oneWayTime * Forest::kLight < mixed.groundRange[e.emitter] - 1.0 &&
        uniform(e.emitter, 4) < 0.15)
      e.amplitude *= 2.2f, ++brighter;
  EXPECT_LT(refineEchoZones(mixed.shots, mixed.echoes).markedNoise -
                refineEchoZones(mixed.shots, mixed.echoes, without()).markedNoise,
            brighter / 25);
  // A bright roof a few shots wide in every line: its own neighbours match it.
  Forest roof;
  for (int line = 0; line < Forest::kLines; ++line)
    for (int s = 740; s < 744; ++s) {
      const std::uint32_t k = Forest::shotAt(line, s);
      roof.addBoth(k, roof.groundRange[k] - 15.0, 4.0f * kCrown);
    }
  EXPECT_EQ(refineEchoZones(roof.shots, roof.echoes).markedNoise,
            refineEchoZones(roof.shots, roof.echoes, without()).markedNoise);
  // An echo recorded in the high-gain channel only, on the low-gain scale.
  Forest online;
  const std::size_t lone = online.add(shot, online.groundRange[shot] - 12.0, 0, kCrown / kGain);
  EXPECT_EQ(refineEchoZones(online.shots, online.echoes).flag[lone], kUntouched);
}

}  // namespace
}  // namespace FullWaveform
