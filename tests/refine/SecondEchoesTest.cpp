// Second echoes on hand-made scans: a line-wise scanner 500 m above the ground, one ground
// echo per shot with its true zone, then a bird placed by a wrong zone a few metres above
// the ground along the beam of a shot that has its own ground echo there; and the pairs a
// surface really returns (a steep face split by the footprint, one echo reported twice).
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "refine/SurfaceFit.hpp"
#include "support/LineScan.hpp"

namespace FullWaveform {
namespace {

using Scan = quillo::test::LineScan;
using Surface = Scan::Surface;
constexpr int kLines = Scan::kLines, kPerLine = Scan::kPerLine;

const Surface kFlat = [](double, double) { return 0.0; };

RefineSettings withoutSecondEchoes() {
  RefineSettings s;
  s.secondEchoMax = 0.0;
  return s;
}

TEST(SecondEchoes, ABirdOnTheGroundOfTheShotItNamesIsNoise) {
  // Given to a shot several zones earlier, a bird lands 2 m above the ground along that
  // shot's beam, on ground rising along the track: it fits the lines ahead, where the ground
  // is as high, and its shot has its own echo below it.
  const Surface rising = [](double, double y) { return y; };
  for (const int s : {400, 750, 1100}) {
    Scan scan(rising);
    const std::uint32_t shot = Scan::shotAt(5, s);
    const std::size_t bird = scan.add(shot, scan.groundRange[shot] - 2.0);
    const std::size_t ground = shot;
    const RefineResult off = refineEchoZones(scan.shots, scan.echoes, withoutSecondEchoes());
    ASSERT_EQ(off.markedNoise, 0u) << "the bird must fit the surface for the case to matter";
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
    EXPECT_EQ(r.flag[bird], kMarkedNoise);
    EXPECT_EQ(r.zone[bird], scan.echoes[bird].zone);
    EXPECT_EQ(r.flag[ground], kUntouched);
    EXPECT_EQ(r.markedNoise, 1u);
    EXPECT_EQ(r.moved, 0u);
  }
}

TEST(SecondEchoes, TwoEchoesASurfaceReturnsStay) {
  // A steep face whose every shot returns from two parts of its footprint, 3 m apart along
  // the beam; and every echo of a stretch reported twice (a waveform and an online record).
  const Surface face = [](double x, double) {
    return x > 20.0 && x < 60.0 ? 1.5 * (x - 20.0) : 0.0;
  };
  Scan steep(face);
  for (int l = 0; l < kLines; ++l)
    for (int s = 0; s < kPerLine; ++s) {
      const std::uint32_t shot = Scan::shotAt(l, s);
      const double x = steep.groundRange[shot] * steep.shots.direction[shot].x;
      if (x > 21.0 && x < 59.0) steep.add(shot, steep.groundRange[shot] + 3.0);
    }
  ASSERT_GT(steep.echoes.size(), std::size_t(kLines * kPerLine + 100));
  EXPECT_EQ(refineEchoZones(steep.shots, steep.echoes).markedNoise, 0u);

  // Shrubs: most shots of a patch return from a twig 1.5 m to 6 m above the ground, at
  // random, and from the ground below; a line's twigs spread over metres along the beam and
  // bear each other out. A few at the patch's edges, whose line holds few twigs beside them,
  // are not: that costs less than one twig in 200 (one in 70 where any twig outside the
  // line's echoes counted), none where the whole spread is allowed.
  Scan shrubs(kFlat);
  std::uint64_t seed = 1;
  std::size_t twigs = 0;
  for (std::uint32_t shot = Scan::shotAt(2, 500); shot < Scan::shotAt(9, 1000); ++shot) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    const double u = double(seed >> 11) / 9007199254740992.0;
    if (shot % kPerLine >= 500 && shot % kPerLine < 1000 && u < 0.8)
      shrubs.add(shot, shrubs.groundRange[shot] - 1.5 - 5.625 * u), ++twigs;
  }
  EXPECT_LT(refineEchoZones(shrubs.shots, shrubs.echoes).markedNoise, twigs / 200);
  RefineSettings wholeSpread;
  wholeSpread.secondEchoSpread = 1.0;
  EXPECT_EQ(refineEchoZones(shrubs.shots, shrubs.echoes, wholeSpread).markedNoise, 0u);

  Scan twice(kFlat);
  for (std::uint32_t shot = Scan::shotAt(3, 600); shot < Scan::shotAt(8, 900); ++shot)
    twice.add(shot, twice.groundRange[shot] + 0.05);
  EXPECT_EQ(refineEchoZones(twice.shots, twice.echoes).markedNoise, 0u);
}

}  // namespace
}  // namespace FullWaveform
