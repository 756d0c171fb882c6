// The refinement over a moving window on hand-made scans (a line-wise scanner 500 m above
// flat ground, 300 shots a line, wrong blocks the way the block method leaves them), cut into
// fragments and fed in fragment order as a run finishes them.
#include <gtest/gtest.h>

#include <cmath>

#include "output/PointGeometry.hpp"
#include "refine/RefineWindow.hpp"
#include "support/RefineEchoes.hpp"

namespace FullWaveform {
namespace {

constexpr double kLight = 299792458.0;
constexpr double kInterval = 1.0e-6;
constexpr double kAltitude = 500.0;
constexpr int kPerLine = 300;

struct Scan {
  ShotTable shots;
  RefineEchoes echoes;
  std::vector<std::uint8_t> trueZone;

  explicit Scan(int lines) {
    shots.lightSpeed = kLight;
    for (int l = 0; l < lines; ++l)
      for (int s = 0; s < kPerLine; ++s) {
        const double angle = -0.4 + 0.8 * s / (kPerLine - 1), y = 0.5 * (l + double(s) / kPerLine);
        shots.time.push_back(kInterval * double(shots.time.size()));
        shots.origin.push_back({0.0, y, kAltitude});
        shots.direction.push_back({std::sin(angle), 0.0, -std::cos(angle)});
        const double range = kAltitude / std::cos(angle);
        const auto zone = std::uint8_t(std::floor(2.0 * range / kLight / kInterval));
        echoes.push_back({std::uint32_t(shots.time.size() - 1), range / kLight, zone, false});
        trueZone.push_back(zone);
      }
  }
  // A block of `width` shots in lines [first, first + count) one zone too high.
  void spoilBlock(int first, int count, int fromShot, int width) {
    for (int l = first; l < first + count; ++l)
      for (int s = fromShot; s < fromShot + width; ++s) {
        RefineEcho& e = echoes[std::size_t(l * kPerLine + s)];
        const auto to = e.emitter - 1;
        e.oneWayTime = oneWayTimeFrom(e.oneWayTime, shots.time[e.emitter], shots.time[to]);
        e.emitter = to, ++e.zone;
      }
  }
  std::size_t wrong(const std::vector<std::uint8_t>& zone) const {
    std::size_t n = 0;
    for (std::size_t i = 0; i < zone.size(); ++i) n += zone[i] != trueZone[i];
    return n;
  }
};

// Feeds the scan to a window in fragments of `shotsPer` shots (an echo belongs to the fragment
// of its recording shot), refining what is ready after each; gathers the results per echo.
struct Windowed {
  RefineResult result;
  std::vector<std::size_t> handedAfter;  // fragments handed over after each one was added
  std::size_t mostHeld = 0;

  Windowed(const Scan& scan, std::size_t shotsPer, const WindowSettings& settings) {
    const std::size_t count = (scan.shots.time.size() + shotsPer - 1) / shotsPer;
    std::vector<std::vector<std::size_t>> members(count);
    for (std::size_t i = 0; i < scan.echoes.size(); ++i) {
      const RefineEcho& e = scan.echoes[i];
      members[std::min(count - 1, (e.emitter + e.zone) / shotsPer)].push_back(i);
      result.zone.push_back(e.zone);
    }
    result.flag.assign(scan.echoes.size(), kUntouched);
    RefineWindow window(kLight, false, {}, settings);
    const auto apply = [&](const RefinedBlock& b) {
      for (const auto& f : b.fragments)
        for (std::size_t j = 0; j < f.echo.size(); ++j)
          if (f.echo[j] >= 0) {
            result.zone[members[f.key][j]] = b.result.zone[std::size_t(f.echo[j])];
            result.flag[members[f.key][j]] = b.result.flag[std::size_t(f.echo[j])];
          }
    };
    for (std::size_t f = 0; f < count; ++f) {
      const std::size_t hi = std::min(scan.shots.time.size(), (f + 1) * shotsPer);
      window.add(f, quillo::test::shotSlice(scan.shots, f * shotsPer, hi),
                 quillo::test::windowEchoes(scan.shots, scan.echoes, members[f]));
      mostHeld = std::max(mostHeld, window.held());
      handedAfter.push_back(window.refineReady(false, apply));
    }
    handedAfter.push_back(window.refineReady(true, apply));
  }
};

// Wrong blocks all along: at fragment starts, across fragment ends, two lines wide.
Scan spoiledScan(int lines) {
  Scan scan(lines);
  for (int l = 1; l + 2 < lines; l += 5) scan.spoilBlock(l, l % 2 ? 1 : 2, 60 + 7 * l % 150, 60);
  return scan;
}

TEST(RefineWindow, AWindowCoveringEverythingRefinesAsTheWholeStrip) {
  const Scan scan = spoiledScan(24);
  const RefineResult whole = refineEchoZones(scan.shots, scan.echoes);
  ASSERT_GT(whole.moved, 200u);
  ASSERT_LT(scan.wrong(whole.zone), whole.moved);
  // One block of everything; and blocks of single fragments whose context reaches every line.
  for (const WindowSettings settings : {WindowSettings{8, 0}, WindowSettings{30, 1}}) {
    const Windowed w(scan, 2 * kPerLine, settings);
    EXPECT_EQ(w.result.zone, whole.zone) << settings.blockLines;
    EXPECT_EQ(w.result.flag, whole.flag) << settings.blockLines;
  }
}

TEST(RefineWindow, TheDefaultWindowRefinesAsTheWholeStripAndHoldsAFewFragments) {
  const Scan scan = spoiledScan(200);
  const RefineResult whole = refineEchoZones(scan.shots, scan.echoes);
  for (const std::size_t shotsPer : {std::size_t(1000), std::size_t(7 * kPerLine)}) {
    const Windowed w(scan, shotsPer, {});
    EXPECT_EQ(w.result.zone, whole.zone) << shotsPer;
    EXPECT_EQ(w.result.flag, whole.flag) << shotsPer;
    // A block (30 lines or more) and the context each side (12 lines), in whole fragments.
    const std::size_t perFragment = shotsPer / kPerLine + 1;
    EXPECT_LE(w.mostHeld, (30 + 2 * 12 + 1) / perFragment + 4) << shotsPer;
  }
}

// A block's first verdicts on its context lines serve the next block, whose echoes they are,
// where no cell they read changed; elsewhere the echoes are judged again.
TEST(RefineWindow, ABlockTakesTheFirstVerdictsOfTheBlockBeforeWhereNothingTheyReadChanged) {
  const Scan scan = spoiledScan(24);
  const std::size_t line10 = 10 * kPerLine;  // one echo a shot, in shot order
  FirstVerdicts found;
  RefineScratch scratch;
  refineBlock(scan.shots, scan.echoes, {}, {0, line10, nullptr, nullptr, nullptr, &found}, scratch);
  std::size_t known = 0, moving = 0;
  for (std::size_t i = 0; i < found.state.size(); ++i) {
    ASSERT_TRUE(i >= line10 || found.state[i] == 0) << i;  // only context echoes
    known += found.state[i] != 0, moving += found.moveTo[i] != FirstVerdicts::kStays;
  }
  ASSERT_EQ(known, scan.echoes.size() - line10);
  ASSERT_GT(moving, 100u);
  // The next block: lines [10, 24), the lines before it settled as they were.
  const BlockBounds next{line10};
  const RefineResult fresh = refineBlock(scan.shots, scan.echoes, {}, next, scratch);
  const auto withGiven = [&](const FirstVerdicts& given) {
    BlockBounds b = next;
    b.givenVerdicts = &given;
    const RefineResult r = refineBlock(scan.shots, scan.echoes, {}, b, scratch);
    return std::pair{r.zone, r.flag};
  };
  EXPECT_EQ(withGiven(found), std::pair(fresh.zone, fresh.flag));
  // Taken where they hold: wrong verdicts give another result ...
  FirstVerdicts wrong = found;
  for (std::uint8_t& zone : wrong.moveTo) zone = FirstVerdicts::kStays;
  EXPECT_NE(withGiven(wrong).first, fresh.zone);
  // ... but not for echoes judged in another zone, nor where a cell they read changed.
  FirstVerdicts otherZone = wrong;
  for (std::uint8_t& zone : otherZone.zone) ++zone;
  EXPECT_EQ(withGiven(otherZone), std::pair(fresh.zone, fresh.flag));
  FirstVerdicts otherCells = wrong;
  for (std::uint64_t& digest : otherCells.digest) ++digest;
  EXPECT_EQ(withGiven(otherCells), std::pair(fresh.zone, fresh.flag));
}

TEST(RefineWindow, AFragmentWaitsForTheLinesAfterItAndIsFixedByThem) {
  // One line per fragment; the strip's first line is wrong: its neighbours all lie in the
  // fragments after it.
  Scan scan(16);
  scan.spoilBlock(0, 1, 100, 60);
  const Windowed w(scan, kPerLine, WindowSettings{6, 1});
  EXPECT_EQ(scan.wrong(w.result.zone), 0u);
  // Nothing is handed over before line 0 + 6 + 1 has started, then a fragment per fragment.
  for (std::size_t f = 0; f < 7; ++f) EXPECT_EQ(w.handedAfter[f], 0u) << f;
  for (std::size_t f = 7; f < 16; ++f) EXPECT_EQ(w.handedAfter[f], 1u) << f;
  EXPECT_EQ(w.handedAfter.back(), 7u);  // the last fragments, once the strip has ended
  EXPECT_LE(w.mostHeld, 6u + 1u + 7u);
}

TEST(RefineWindow, FragmentsOutOfTimeOrderAreRefinedOnTheirShotsInTimeOrder) {
  const Scan scan = spoiledScan(24);
  const RefineResult whole = refineEchoZones(scan.shots, scan.echoes);
  const std::size_t per = 2 * kPerLine, count = scan.shots.time.size() / per;
  std::vector<std::vector<std::size_t>> members(count);
  for (std::size_t i = 0; i < scan.echoes.size(); ++i)
    members[std::min(count - 1, (scan.echoes[i].emitter + scan.echoes[i].zone) / per)].push_back(i);
  RefineResult got{std::vector<std::uint8_t>(scan.echoes.size()), {}};
  RefineWindow window(kLight, false, {}, WindowSettings{8, 0});
  const auto apply = [&](const RefinedBlock& b) {
    for (const auto& f : b.fragments)
      for (std::size_t j = 0; j < f.echo.size(); ++j)
        if (f.echo[j] >= 0) got.zone[members[f.key][j]] = b.result.zone[std::size_t(f.echo[j])];
  };
  // The second fragment first: the window refines a copy of its shots put in time order.
  for (const std::size_t f : {std::size_t(1), std::size_t(0)})
    window.add(f, quillo::test::shotSlice(scan.shots, f * per, (f + 1) * per),
               quillo::test::windowEchoes(scan.shots, scan.echoes, members[f]));
  for (std::size_t f = 2; f < count; ++f)
    window.add(f, quillo::test::shotSlice(scan.shots, f * per, (f + 1) * per),
               quillo::test::windowEchoes(scan.shots, scan.echoes, members[f]));
  EXPECT_EQ(window.refineReady(true, apply), count);
  EXPECT_EQ(got.zone, whole.zone);
}

TEST(RefineWindow, FragmentsWithoutShotsOrEchoesPassThrough) {
  RefineWindow window(kLight, false);
  std::size_t handed = 0;
  const auto count = [&](const RefinedBlock& b) {
    for (const auto& f : b.fragments) {
      EXPECT_EQ(f.key, handed++);
      for (const std::int32_t at : f.echo) EXPECT_EQ(at, -1);  // its shot is nowhere
    }
  };
  window.add(0, {}, {});
  window.add(1, {}, {{1.0, 1e-6, 0, false}});
  EXPECT_EQ(window.refineReady(false, count), 0u);
  EXPECT_EQ(window.refineReady(true, count), 2u);
  EXPECT_EQ(window.held(), 2u);
}

}  // namespace
}  // namespace FullWaveform
