// The zone refinement after the module on small simulated scenes (the cliff, buildings and
// forest of the base scene, dust), scored echo by echo before and after; and through the
// command line, where --refine adds the "Refined" field that the report and score count.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "sim/Scenes.hpp"
#include "support/Command.hpp"
#include "support/SceneRun.hpp"
#include "support/TempDir.hpp"

using namespace quillo::sim;

TEST(RefinedScenes, FixWrongZonesFlagOffSurfaceEchoesAndBreakNothing) {
  quillo::test::TempDir dir;
  for (const Scene& scene : zoneScenes(SceneSize::Small)) {
    if (scene.name.rfind("hills", 0) != 0 && scene.name.rfind("dust", 0) != 0) continue;
    const auto result = quillo::test::runScene(scene.config, dir.path().string(), true);
    const ZoneScoreReport &before = result.score, &after = result.refinedScore;
    ASSERT_EQ(result.refinement.error, "") << scene.name;
    EXPECT_EQ(after.points, before.points) << scene.name;  // nothing released
    EXPECT_EQ(result.broken, 0u) << scene.name;
    EXPECT_GT(result.fixed, 0u) << scene.name;
    EXPECT_LT(after.notNoiseWrong, before.notNoiseWrong / 4) << scene.name;
    EXPECT_GE(after.offSurfaceMarkedShare(), 0.9) << scene.name;
    EXPECT_EQ(after.refinedMoved, result.refinement.moved) << scene.name;
    EXPECT_LT(after.rangeErrorP95, 0.5) << scene.name;  // moved points placed at their echo
  }
}

TEST(RefinedScenes, RunRefineWritesTheFlagThatReportAndScoreCount) {
  quillo::test::TempDir dir;
  const std::string in = (dir.path() / "tiny_210315_093000.kq").string();
  const std::string out = dir.path().string();
  ASSERT_EQ(quillo::test::runQuillo("simulate --preset tiny --shots 30000 " + in).exitCode, 0);
  const auto run = quillo::test::runQuillo("run " + in + " --refine --quiet --out-dir " + out +
                                           " --report " + out + "/run.json");
  ASSERT_EQ(run.exitCode, 0) << run.output;
  EXPECT_NE(run.output.find("refinement moved"), std::string::npos) << run.output;
  std::ifstream report(out + "/run.json");
  const auto json = nlohmann::json::parse(report);
  const auto& refinement = json["runs"][0]["refinement"];
  EXPECT_GT(refinement["moved"].get<long>(), 0);
  EXPECT_TRUE(json["runs"][0]["seconds_per_stage"].contains("refine"));
  const auto score = quillo::test::runQuillo("score " + out + "/tiny_210315_093000_0.kq " + out +
                                             "/tiny_210315_093000_1.kq --truth " + in);
  ASSERT_EQ(score.exitCode, 0) << score.output;
  EXPECT_NE(score.output.find("refined: " + std::to_string(refinement["moved"].get<long>()) +
                              " points moved"),
            std::string::npos)
      << score.output;
  const auto plain = quillo::test::runQuillo("run " + in + " --no-refine --quiet --out-dir " + out +
                                             " --report " + out + "/plain.json");
  ASSERT_EQ(plain.exitCode, 0) << plain.output;
  std::ifstream plainReport(out + "/plain.json");
  EXPECT_FALSE(nlohmann::json::parse(plainReport)["runs"][0].contains("refinement"));
}
