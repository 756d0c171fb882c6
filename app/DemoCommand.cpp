#include "app/DemoCommand.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "app/CliError.hpp"
#include "app/LasWriter.hpp"
#include "app/LoadKq.hpp"
#include "app/Quicklook.hpp"
#include "app/RunJob.hpp"
#include "app/RunOptions.hpp"
#include "app/SurveyCommands.hpp"
#include "sim/Scoring.hpp"
#include "sim/SurveyBundle.hpp"

namespace quillo::cli {

namespace fs = std::filesystem;

namespace {

struct DemoReport {
  std::uint64_t shots = 0, waves = 0, points = 0;
  double zoneAccuracy = 0.0, notNoiseWrong = 0.0;
  bool refined = false;
  std::uint64_t refineMoved = 0, refineMarkedNoise = 0;
  std::vector<std::pair<std::string, double>> seconds;     // stage, in the order they ran
  std::vector<std::pair<std::string, std::string>> files;  // what, path
};

class Stopwatch {
 public:
  double lap() {
    const auto now = std::chrono::steady_clock::now();
    const double s = std::chrono::duration<double>(now - start_).count();
    start_ = now;
    return s;
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

std::string simulateInto(const std::string& dir, const std::string& preset, DemoReport& report) {
  sim::SurveyConfig config;
  if (!sim::presetConfig(preset, config)) throw CliError(kUsage, "--preset: tiny, demo or large");
  config.coordinateSystem = proceduralSceneCoordinateSystem();
  const std::string input = (fs::path(dir) / ("survey_" + config.date + ".kq")).string();
  Stopwatch clock;
  simulateSurvey(config, input, false);
  report.seconds.emplace_back("simulate", clock.lap());
  report.shots = config.shots;
  report.files.emplace_back("input", input);
  return input;
}

std::vector<std::string> runInto(const std::string& dir, const std::string& input, bool refine,
                                 DemoReport& report) {
  RunSettings settings;
  settings.outDir = dir;
  settings.refine = refine;
  settings.threads = usableCores();  // as `quillo run`
  const RunSummary run = runOne(input, settings);
  if (!run.result.empty()) throw CliError(kFailure, "the run failed: " + run.result);
  report.refined = run.refined;
  report.refineMoved = run.refineMoved;
  report.refineMarkedNoise = run.refineMarkedNoise;
  for (const char* stage : {"load", "run", "refine", "map", "save", "verify"}) {
    auto it = run.secondsPerStage.find(stage);
    if (it != run.secondsPerStage.end()) report.seconds.emplace_back(stage, it->second);
  }
  report.waves = run.waves;
  std::vector<std::string> outputs;
  for (const auto& o : run.outputs) {
    report.points += o.points;
    report.files.emplace_back("result (" + std::to_string(o.points) + " points)", o.path);
    if (o.points > 0) outputs.push_back(o.path);
  }
  return outputs;
}

void exportAndDraw(const std::vector<std::string>& outputs, DemoReport& report) {
  double exportSeconds = 0.0, drawSeconds = 0.0;
  for (const auto& result : outputs) {
    Stopwatch clock;
    const Tessal::BundlePtr bundle = loadKqFile(result);
    const std::string las = fs::path(result).replace_extension(".las").string();
    exportLas(bundle, result, las, LasExportOptions{});
    exportSeconds += clock.lap();
    const std::string png = fs::path(result).replace_extension(".png").string();
    writeQuicklook(bundle, result, png, QuicklookOptions{});
    drawSeconds += clock.lap();
    report.files.emplace_back("LAS", las);
    report.files.emplace_back("quick-look", png);
  }
  report.seconds.emplace_back("export", exportSeconds);
  report.seconds.emplace_back("quick-look", drawSeconds);
}

void printReport(const std::string& preset, const DemoReport& r) {
  std::printf("quillo demo (%s preset)\n", preset.c_str());
  std::printf("  shots          %llu\n", (unsigned long long)r.shots);
  std::printf("  waves          %llu\n", (unsigned long long)r.waves);
  std::printf("  points         %llu\n", (unsigned long long)r.points);
  std::printf("  zone accuracy  %.3f %%\n", 100.0 * r.zoneAccuracy);
  std::printf("  wrong zone     %.3f %% of the points not classified as noise\n",
              100.0 * r.notNoiseWrong);
  if (r.refined)
    std::printf("  refinement     %llu points moved, %llu classified as noise\n",
                (unsigned long long)r.refineMoved, (unsigned long long)r.refineMarkedNoise);
  std::printf("  time (s)      ");
  for (const auto& [stage, s] : r.seconds) std::printf(" %s %.1f", stage.c_str(), s);
  std::printf("\n  wrote\n");
  for (const auto& [what, path] : r.files)
    std::printf("    %-28s %s\n", what.c_str(), path.c_str());
}

}  // namespace

void addDemoCommand(CLI::App& app) {
  auto dir = std::make_shared<std::string>("demo-out");
  auto preset = std::make_shared<std::string>("demo");
  CLI::App* c = app.add_subcommand(
      "demo", "Simulate a survey, resolve its zones, score them, export LAS and draw quick-looks");
  c->add_option("--dir", *dir, "Work folder")->capture_default_str();
  c->add_option("--preset", *preset, "Survey preset: tiny, demo or large")->capture_default_str();
  auto module = std::make_shared<ModuleOptions>();
  addRefineOption(*c, *module);
  c->callback([dir, preset, module] {
    std::error_code ec;
    fs::create_directories(*dir, ec);
    if (ec) throw CliError(kOutput, *dir + ": cannot create the folder");
    DemoReport report;
    const std::string input = simulateInto(*dir, *preset, report);
    const std::vector<std::string> outputs = runInto(*dir, input, module->refine, report);
    Stopwatch clock;
    const sim::ZoneScoreReport score = sim::scoreOutputs(outputs, input);
    report.zoneAccuracy = score.zoneAccuracy();
    report.notNoiseWrong = score.notNoiseWrongShare();
    report.seconds.emplace_back("score", clock.lap());
    exportAndDraw(outputs, report);
    printReport(*preset, report);
  });
}

}  // namespace quillo::cli
