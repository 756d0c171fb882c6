#include "app/RunJob.hpp"

#include <chrono>
#include <filesystem>
#include <regex>

#include "app/CliError.hpp"
#include "app/LoadKq.hpp"
#include "app/MapPositions.hpp"
#include "app/OutputStats.hpp"
#include "app/Progress.hpp"
#include "app/WaveCounts.hpp"
#include "run/Quillo.hpp"
#include "run/Verification.hpp"
#include "vorlap/Console.hpp"

namespace quillo::cli {

namespace fs = std::filesystem;

namespace {

class StageClock {
 public:
  explicit StageClock(RunSummary& s) : summary_(s), start_(std::chrono::steady_clock::now()) {}
  void lap(const std::string& stage) {
    const auto now = std::chrono::steady_clock::now();
    summary_.secondsPerStage[stage] += std::chrono::duration<double>(now - start_).count();
    start_ = now;
  }

 private:
  RunSummary& summary_;
  std::chrono::steady_clock::time_point start_;
};

struct OutputTarget {
  fs::path path;
  Tessal::BundlePtr bundle;
  Vorlap::StrongPtr<Tessal::Grid> grid;
};

OutputTarget makeTarget(const fs::path& path, const std::string& outDir) {
  OutputTarget t;
  if (path.empty()) return t;
  t.path = outDir.empty() ? path : fs::path(outDir) / path.filename();
  t.bundle = Tessal::BundlePtr::make();
  t.grid = (*t.bundle.create())[0.0]->makeGrid("FWF");
  return t;
}

void checkOutDir(const std::string& outDir) {
  if (outDir.empty()) return;
  std::error_code ec;
  if (!fs::is_directory(outDir, ec)) throw CliError(kOutput, outDir + ": no such folder");
}

void finishOutput(OutputTarget& t, const Transform& toMap, RunSummary& summary, StageClock& clock) {
  addMapPositions(*t.grid, toMap);
  t.grid->attributes().setAttribute("BrastowSuccessful?", Vorlap::makeChunk<std::string>({"yes"}));
  clock.lap("map");
  const std::string error = Tessal::Bundle::save(t.bundle, t.path.string());
  if (!error.empty()) throw CliError(kOutput, error);
  clock.lap("save");
  OutputSummary out = summarizeOutput(*t.grid);
  out.path = t.path.string();
  out.verification = FullWaveform::successfullyConverted(out.path, true);
  clock.lap("verify");
  summary.outputs.push_back(out);
}

}  // namespace

bool nameCarriesDate(const std::string& path) {
  static const std::regex pattern("[a-zA-Z]*([0-9]{2})([0-9]{2})([0-9]{2})_[0-9]{6}.*");
  const std::string stem = fs::path(path).stem().string();
  return std::regex_search(stem, pattern);
}

std::string moduleFileName(const std::string& inputPath, const std::string& date) {
  if (nameCarriesDate(inputPath) || date.empty()) return inputPath;
  const fs::path p(inputPath);
  return (p.parent_path() / (p.stem().string() + "_" + date + p.extension().string())).string();
}

RunSummary runOne(const std::string& inputPath, const RunSettings& settings) {
  RunSummary summary;
  summary.input = inputPath;
  if (!nameCarriesDate(inputPath) && settings.date.empty())
    throw CliError(kUsage, inputPath +
                               ": the file name carries no acquisition date (name_YYMMDD_HHMMSS); "
                               "give it with --date YYMMDD_HHMMSS");
  checkOutDir(settings.outDir);
  StageClock clock(summary);
  Tessal::BundlePtr bundle = loadKqFile(inputPath);
  clock.lap("load");
  FullWaveform::Input input = settings.input;
  input.inputFileName = moduleFileName(inputPath, settings.date);
  if (!settings.segmentGiven) input.setIsDataFrom_RDBX_File(bundle);
  const Transform toMap = scannerToMap(bundle);
  auto [firstPath, secondPath] = input.getOutFileName(fs::path(inputPath));
  OutputTarget first = makeTarget(firstPath, settings.outDir);
  OutputTarget second = makeTarget(secondPath, settings.outDir);
  auto bar =
      Vorlap::makeStrong<ProgressBar>(fs::path(inputPath).filename().string(), settings.quiet);
  WaveCounts waves = countWaves(bundle);
  summary.waves = waves.total;
  bar->setWaveCounts(std::move(waves));
  input.progress = Vorlap::WeakPtr<Vorlap::ProgressSink>(bar);
  if (settings.verbose) Vorlap::Console() << input.speak();
  summary.result = FullWaveform::Quillo<unsigned short>(bundle, first.grid, second.grid, input);
  if (summary.result.empty()) bar->complete();
  bar->finish();
  clock.lap("run");
  if (!summary.result.empty()) return summary;
  for (OutputTarget* t : {&first, &second})
    if (t->grid) finishOutput(*t, toMap, summary, clock);
  return summary;
}

}  // namespace quillo::cli
