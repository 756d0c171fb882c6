// Zone resolution on every scene of sim/Scenes (full size by default), scored echo by echo:
// per scene the strict share of points with the true zone, the lenient figure beside it, the
// wrong share among points not classified as noise, the wrong points by target, birds and dust
// classified as noise, real echoes reached, untraceable points, and the run's time; then the
// same after the zone refinement, with the points it moved, broke and fixed and its time.
//   bench_zones [--small] [--shots N] [--no-refine] [NAME-PART]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "sim/Scenes.hpp"
#include "support/SceneRun.hpp"
#include "support/TempDir.hpp"

using namespace quillo::sim;

namespace {

struct Options {
  SceneSize size = SceneSize::Full;
  std::uint64_t shots = 0;  // 0: the scene's own
  std::string only;         // run the scenes whose name holds this
  bool refine = true;
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--small"))
      o.size = SceneSize::Small;
    else if (!std::strcmp(argv[i], "--no-refine"))
      o.refine = false;
    else if (!std::strcmp(argv[i], "--shots") && i + 1 < argc)
      o.shots = std::strtoull(argv[++i], nullptr, 10);
    else
      o.only = argv[i];
  }
  return o;
}

void printScores(const char* label, const ZoneScoreReport& r, std::uint64_t untraceable,
                 double seconds) {
  std::printf("%-38s %9llu  %8.3f %%  %8.3f %%  %8.4f %%  %6.1f %%  %8.3f %%  %7llu  %6.2f s\n",
              label, (unsigned long long)r.points, 100.0 * r.zoneAccuracy(),
              100.0 * r.lenientAccuracy(), 100.0 * r.notNoiseWrongShare(),
              100.0 * r.offSurfaceMarkedShare(), 100.0 * r.reachedShare(),
              (unsigned long long)untraceable, seconds);
}

void printTargets(const ZoneScoreReport& r) {
  std::printf("%-38s wrong by target:", "");
  for (int t = 0; t < kTargetCount; ++t)
    std::printf(" %s %llu", targetName(Target(t)),
                (unsigned long long)r.wrongByTarget[std::size_t(t)]);
  std::printf("\n");
}

void printScene(const Scene& scene, const quillo::test::SceneResult& result) {
  printScores(scene.name.c_str(), result.score, result.score.untraceable, result.runSeconds);
  printTargets(result.score);
  if (!result.runError.empty()) std::printf("%-38s run: %s\n", "", result.runError.c_str());
  if (result.refined) {
    const ZoneScoreReport& r = result.refinedScore;
    printScores("  refined", r, r.untraceable, result.refineSeconds);
    printTargets(r);
    const auto correct = result.score.correct;
    std::printf(
        "%-38s moved %llu, fixed %llu, broken %llu (%.2f per 100,000 correct), "
        "classified noise %llu (birds/dust %llu); time %.1f %% of the run (processor time %.1f s "
        "/ %.1f s, %.1f %%)%s%s\n",
        "", (unsigned long long)result.refinement.moved, (unsigned long long)result.fixed,
        (unsigned long long)result.broken,
        correct ? 1e5 * double(result.broken) / double(correct) : 0.0,
        (unsigned long long)result.refinement.markedNoise,
        (unsigned long long)r.refinedNoiseOffSurface,
        100.0 * result.refineSeconds / result.runSeconds, result.refineCpuSeconds,
        result.runCpuSeconds, 100.0 * result.refineCpuSeconds / result.runCpuSeconds,
        result.refinement.error.empty() ? "" : "; ", result.refinement.error.c_str());
  }
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  quillo::test::TempDir dir;
  std::printf("%-38s %9s  %10s  %10s  %10s  %8s  %10s  %7s  %8s\n", "scene", "points", "strict",
              "lenient", "wrong/!7", "off-srf 7", "reached", "untrace", "run");
  for (Scene& scene : zoneScenes(o.size)) {
    if (!o.only.empty() && scene.name.find(o.only) == std::string::npos) continue;
    if (o.shots) scene.config.shots = o.shots;
    printScene(scene, quillo::test::runScene(scene.config, dir.path().string(), o.refine));
  }
  std::printf(
      "strict: points with their own echo's zone; lenient: with any echo of the emitting shot "
      "in that zone;\nrefined: the same after the zone refinement (its own time in the last "
      "column);\nwrong/!7: wrong zone among points not classified as noise; off-srf 7: "
      "bird and dust points classified as noise;\nreached: recorded real echoes with a correct "
      "point; run: the module's entry function, one core\n");
  return 0;
}
