// Throughput of every per-fragment stage of a run on one core, and the peak memory, on a
// .kq input (default: the demo preset, simulated into a temporary file first).
//   bench_pipeline [INPUT.kq]
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>

#include "classify/NoiseClassification.hpp"
#include "classify/OutputSplit.hpp"
#include "output/PointCloud.hpp"
#include "sim/SurveyBundle.hpp"
#include "store/WaveExtraction.hpp"
#include "tessal/Schema.hpp"
#include "zones/ResolveMTA.hpp"
#include "zones/ZoneAssignment.hpp"
#include "zones/ZoneInit.hpp"

using namespace FullWaveform;
using Clock = std::chrono::steady_clock;

namespace {

double peakMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024.0;
}

class Stages {
 public:
  void lap(const std::string& stage) {
    const auto now = Clock::now();
    seconds_[stage] += std::chrono::duration<double>(now - start_).count();
    start_ = now;
  }
  void restart() { start_ = Clock::now(); }
  const std::map<std::string, double>& seconds() const { return seconds_; }

 private:
  Clock::time_point start_ = Clock::now();
  std::map<std::string, double> seconds_;
};

}  // namespace

int main(int argc, char** argv) {
  std::string input = argc > 1 ? argv[1] : "";
  if (input.empty()) {
    input = (std::filesystem::temp_directory_path() / "bench_pipeline_210315_093000.kq").string();
    quillo::sim::SurveyConfig config;
    quillo::sim::presetConfig("demo", config);
    const auto start = Clock::now();
    if (const auto error = quillo::sim::writeSurvey(config, input); !error.empty())
      return std::puts(error.c_str()), 1;
    const double s = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("simulated %llu shots in %.1f s (%.0f shots/s), %.1f MB per million shots\n",
                (unsigned long long)config.shots, s, config.shots / s,
                std::filesystem::file_size(input) / 1e6 / (config.shots / 1e6));
  }
  auto bundle = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({input}), bundle);
  if (!ok) return std::puts("cannot load the input"), 1;
  Input in;
  in.inputFileName = input;
  FatBoy<unsigned short> fb(bundle, in);
  if (!fb()) return std::puts("not a usable input"), 1;
  Stages stages;
  std::uint64_t waves = 0, points = 0;
  std::uint32_t ids = 0;
  for (std::uint32_t f = 0; f < fb.nFragments; ++f) {
    stages.restart();
    if (!fb.ini(f)) continue;
    stages.lap("1 ini");
    iniWavePoints(fb);
    stages.lap("2 iniWavePoints");
    if (!fb.iniMTA()) continue;
    removeNearRangeWaves(fb);
    stages.lap("3 iniMTA");
    resolveMTA(fb);
    repairUncertainMTA(fb);
    stages.lap("4 resolve+repair");
    classifyNoise(fb);
    auto lists = splitWaves(fb);
    stages.lap("5 classify+split");
    // Fresh grids per fragment: memory shows what the module needs, not the outputs' size.
    for (auto* list : {&lists.first, &lists.second}) {
      auto grid = Vorlap::makeStrong<Tessal::Grid>(Tessal::schema::kResultGrid);
      makePointCloud(fb, *list, grid, ids, in);
    }
    stages.lap("6 makePointCloud");
    waves += fb.nWaves;
    points = ids;
  }
  std::printf("%llu waves, %llu points in %u fragments; peak memory %.0f MB\n",
              (unsigned long long)waves, (unsigned long long)points, fb.nFragments,
              peakMegabytes());
  double total = 0.0;
  for (const auto& [stage, s] : stages.seconds()) {
    total += s;
    std::printf("  %-20s %7.2f s  %8.2f M waves/s\n", stage.c_str(), s, waves / s / 1e6);
  }
  std::printf("  %-20s %7.2f s  %8.2f M waves/s, %.2f M points/s\n", "all stages", total,
              waves / total / 1e6, points / total / 1e6);
  return 0;
}
