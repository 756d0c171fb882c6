#include "support/SceneRun.hpp"

#include <chrono>
#include <filesystem>
#include <stdexcept>

#include "run/Quillo.hpp"
#include "sim/SurveyBundle.hpp"

namespace quillo::test {

namespace {

double since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

SceneResult runScene(const quillo::sim::SurveyConfig& config, const std::string& folder) {
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
  result.runError = FullWaveform::Quillo<unsigned short>(bundle, grids[0], grids[1], in);
  result.runSeconds = since(start);
  quillo::sim::ZoneScorer scorer(quillo::sim::truthOf(bundle, input));
  for (std::size_t i = 0; i < grids.size(); ++i) {
    const auto points = quillo::sim::pointsOf(grids[i], input);
    result.pointsPerOutput[i] = points.size();
    scorer.add(points);
  }
  result.score = scorer.finish();
  return result;
}

}  // namespace quillo::test
