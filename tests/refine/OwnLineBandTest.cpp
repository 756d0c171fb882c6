// The own line's band on hand-made scans: a line-wise scanner 500 m above flat ground, one
// ground echo per shot with its true zone. Dust in the air that fits one neighbouring line by
// chance, where another dust echo far along the beam in its own line stretches the line's
// spread over it; and a copse, whose crowns spread their line's echoes over metres and which
// the band must leave to the whole spread.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "refine/SurfaceFit.hpp"
#include "support/LineScan.hpp"

namespace FullWaveform {
namespace {

// Echoes added `above` m before the ground along their shot's beam.
struct Scan : quillo::test::LineScan {
  std::size_t add(std::uint32_t shot, double above) {
    return LineScan::add(shot, groundRange[shot] - above);
  }
};

RefineSettings withoutBand() {
  RefineSettings s;
  s.ownLineBand = 0.0;
  return s;
}

TEST(OwnLineBand, DustAmongItsLinesStretchedSpreadIsNoise) {
  for (const int s : {300, 750, 1200}) {
    Scan scan;
    // 20 m above the ground; dust of the next line lies beside it, and dust 60 m above the
    // ground two shots on stretches its own line's echoes over it.
    const std::size_t dust = scan.add(Scan::shotAt(5, s), 20.0);
    const std::size_t beside = scan.add(Scan::shotAt(6, s), 20.0);
    const std::size_t high = scan.add(Scan::shotAt(5, s + 2), 60.0);
    const RefineResult old = refineEchoZones(scan.shots, scan.echoes, withoutBand());
    ASSERT_EQ(old.flag[dust], kUntouched)
        << "the whole spread must bear it out for the case to matter";
    const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
    EXPECT_EQ(r.flag[dust], kMarkedNoise) << s;
    EXPECT_EQ(r.zone[dust], scan.echoes[dust].zone);
    EXPECT_EQ(r.flag[beside], kMarkedNoise);
    EXPECT_EQ(r.flag[high], kMarkedNoise);
    EXPECT_EQ(r.markedNoise, 3u) << "no ground echo is noise";
    EXPECT_EQ(r.moved, 0u);
  }
}

TEST(OwnLineBand, ACopseKeepsTheWholeSpread) {
  // A copse six lines long: half its shots return from a crown 8 m to 18 m above the ground
  // as well. A crown's own line spreads its echoes over the crowns' height, more than a tenth
  // of them there: the whole spread bears it out as before. Only at the copse's edges, where
  // its line's echoes at the scan angle may be nine tenths ground, can a crown be taken for
  // dust.
  Scan scan;
  std::uint64_t seed = 7;
  std::vector<std::size_t> crowns, ends;
  for (int line = 3; line <= 8; ++line)
    for (int s = 600; s < 900; ++s) {
      seed = seed * 6364136223846793005ull + 1442695040888963407ull;
      const double u = double(seed >> 11) / 9007199254740992.0;
      if (u >= 0.5) continue;
      const std::size_t crown = scan.add(Scan::shotAt(line, s), 8.0 + 20.0 * u);
      (s < 610 || s >= 890 || line == 3 || line == 8 ? ends : crowns).push_back(crown);
    }
  const RefineResult old = refineEchoZones(scan.shots, scan.echoes, withoutBand());
  const RefineResult r = refineEchoZones(scan.shots, scan.echoes);
  for (const std::size_t c : crowns) EXPECT_EQ(r.flag[c], old.flag[c]) << "crown echo " << c;
  std::size_t more = 0;
  for (const std::size_t c : ends) more += r.flag[c] != old.flag[c];
  EXPECT_LE(more, ends.size() / 2);
  EXPECT_EQ(r.zone, old.zone);
}

}  // namespace
}  // namespace FullWaveform
