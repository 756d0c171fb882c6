#include "support/SceneRun.hpp"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <stdexcept>

#include "run/Quillo.hpp"
#include "sim/SurveyBundle.hpp"

namespace quillo::test {

namespace {

double since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double cpuSince(std::clock_t start) {
  return double(std::clock() - start) / CLOCKS_PER_SEC;
}

void refineAndScore(Tessal::BundlePtr& bundle,
                    const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& grids,
                    const std::vector<std::vector<quillo::sim::ScoredPoint>>& before,
                    quillo::sim::ZoneScorer& scorer, SceneResult& result) {
  const auto start = std::chrono::steady_clock::now();
  const std::clock_t cpu = std::clock();
  result.refinement = FullWaveform::refineZones(bundle, grids);
  result.refineCpuSeconds = cpuSince(cpu);
  result.refineSeconds = since(start);
  result.refined = true;
  for (std::size_t i = 0; i < grids.size(); ++i) {
    const auto after = quillo::sim::pointsOf(grids[i], "refined output");
    for (std::size_t p = 0; p < after.size(); ++p) {
      const bool wasRight = scorer.isCorrect(before[i][p]), isRight = scorer.isCorrect(after[p]);
      result.broken += wasRight && !isRight;
      result.fixed += !wasRight && isRight;
    }
    scorer.add(after);
  }
  result.refinedScore = scorer.finish();
}

}  // namespace

SceneResult runScene(const quillo::sim::SurveyConfig& config, const std::string& folder,
                     bool refine, const AfterRun& afterRun) {
  SceneResult result;
  const std::string input = (std::filesystem::path(folder) / "scene_210315_093000.kq").string();
  auto start = std::chrono::steady_clock::now();
  if (const auto error = quillo::sim::writeSurvey(config, input); !error.empty())
    throw std::runtime_error(error);
  result.simulateSeconds = since(start);
  auto bundle = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({input}), bundle);
  if (!ok) throw std::runtime_error(input + ": cannot be read back");
  FullWaveform::Input in;
  in.inputFileName = input;
  std::vector<Tessal::BundlePtr> outputs(2);
  std::vector<Vorlap::StrongPtr<Tessal::Grid>> grids;
  for (auto& out : outputs) grids.push_back((*out.create())[0.0]->makeGrid("FWF"));
  start = std::chrono::steady_clock::now();
  const std::clock_t cpu = std::clock();
  result.runError = FullWaveform::Quillo<unsigned short>(bundle, grids[0], grids[1], in);
  result.runCpuSeconds = cpuSince(cpu);
  result.runSeconds = since(start);
  const quillo::sim::SurveyTruth truth = quillo::sim::truthOf(bundle, input);
  quillo::sim::ZoneScorer scorer(truth);
  std::vector<std::vector<quillo::sim::ScoredPoint>> points;
  for (std::size_t i = 0; i < grids.size(); ++i) {
    points.push_back(quillo::sim::pointsOf(grids[i], input));
    result.pointsPerOutput[i] = points.back().size();
    scorer.add(points.back());
  }
  result.score = scorer.finish();
  if (afterRun) afterRun(bundle, grids, scorer);
  if (refine) {
    quillo::sim::ZoneScorer again(truth);
    refineAndScore(bundle, grids, points, again, result);
  }
  return result;
}

}  // namespace quillo::test
