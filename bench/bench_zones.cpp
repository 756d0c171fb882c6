// Zone resolution on every scene of sim/Scenes (full size by default), scored echo by echo:
// per scene the strict share of points with the true zone, the lenient figure beside it, the
// wrong share among points not classified as noise, the wrong points by target, birds and dust
// classified as noise, real echoes reached, untraceable points, and the run's time.
//   bench_zones [--small] [--shots N] [NAME-PART]
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
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--small"))
      o.size = SceneSize::Small;
    else if (!std::strcmp(argv[i], "--shots") && i + 1 < argc)
      o.shots = std::strtoull(argv[++i], nullptr, 10);
    else
      o.only = argv[i];
  }
  return o;
}

void printScene(const Scene& scene, const quillo::test::SceneResult& result) {
  const ZoneScoreReport& r = result.score;
  std::printf("%-38s %9llu  %8.3f %%  %8.3f %%  %8.4f %%  %6.1f %%  %8.3f %%  %7llu  %6.1f s\n",
              scene.name.c_str(), (unsigned long long)r.points, 100.0 * r.zoneAccuracy(),
              100.0 * r.lenientAccuracy(), 100.0 * r.notNoiseWrongShare(),
              100.0 * r.offSurfaceMarkedShare(), 100.0 * r.reachedShare(),
              (unsigned long long)r.untraceable, result.runSeconds);
  std::printf("%-38s wrong by target:", "");
  for (int t = 0; t < kTargetCount; ++t)
    std::printf(" %s %llu", targetName(Target(t)),
                (unsigned long long)r.wrongByTarget[std::size_t(t)]);
  std::printf("%s\n", result.runError.empty() ? "" : ("; run: " + result.runError).c_str());
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
    printScene(scene, quillo::test::runScene(scene.config, dir.path().string()));
  }
  std::printf(
      "strict: points with their own echo's zone; lenient: with any echo of the emitting shot "
      "in that zone;\nwrong/!7: wrong zone among points not classified as noise; off-srf 7: "
      "bird and dust points classified as noise;\nreached: recorded real echoes with a correct "
      "point; run: the module's entry function, one core\n");
  return 0;
}
