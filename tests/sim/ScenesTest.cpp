// Every scene of the zone benchmark at a small size, end to end through the module and scored
// echo by echo: each runs, the line-wise split sees the scan lines (points in both outputs),
// its points trace back to their echoes, and most get the true zone. The figures to reach are
// the benchmark's; these bounds catch a scene the module cannot read at all.
#include <gtest/gtest.h>

#include "sim/Scenes.hpp"
#include "support/SceneRun.hpp"
#include "support/TempDir.hpp"

using namespace quillo::sim;

TEST(Scenes, EachSmallSceneRunsAndTracesToItsEchoes) {
  quillo::test::TempDir dir;
  for (const Scene& scene : zoneScenes(SceneSize::Small)) {
    const auto result = quillo::test::runScene(scene.config, dir.path().string());
    const ZoneScoreReport& r = result.score;
    std::printf("%-38s %s", scene.name.c_str(), reportAsText(r).substr(0, 60).c_str());
    std::printf(" | outputs %zu, %zu\n", result.pointsPerOutput[0], result.pointsPerOutput[1]);
    EXPECT_EQ(result.runError, "") << scene.name;
    EXPECT_GT(r.points, 10000u) << scene.name;
    EXPECT_LT(r.untraceable, r.points / 100) << scene.name;
    EXPECT_GT(r.zoneAccuracy(), 0.85) << scene.name;
    EXPECT_LE(r.correct, r.lenientCorrect) << scene.name;  // strict never counts more
    EXPECT_GT(r.reachedShare(), 0.8) << scene.name;
    for (std::size_t points : result.pointsPerOutput) EXPECT_GT(points, r.points / 4) << scene.name;
  }
}
