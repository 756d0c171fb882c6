#include "app/RunJob.hpp"

#include <chrono>
#include <filesystem>
#include <memory>
#include <regex>
#include <utility>

#include "app/CliError.hpp"
#include "app/HugePageHeap.hpp"
#include "app/LoadKq.hpp"
#include "app/MapPositions.hpp"
#include "app/ParallelRun.hpp"
#include "app/Progress.hpp"
#include "app/RefinedSaving.hpp"
#include "app/StreamedOutput.hpp"
#include "app/WaveCounts.hpp"
#include "refine/ZoneRefinement.hpp"
#include "run/Verification.hpp"
#include "tessal/Schema.hpp"
#include "vorlap/Console.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

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

std::unique_ptr<StreamedOutput> makeOutput(const fs::path& path, const std::string& outDir,
                                           const std::string& inputPath, const Transform& toMap) {
  if (path.empty()) return nullptr;
  const fs::path target = outDir.empty() ? path : fs::path(outDir) / path.filename();
  std::error_code ec;
  // Segmented data keeps the input's name: beside the input it would replace it.
  if (fs::weakly_canonical(target, ec) == fs::weakly_canonical(inputPath, ec))
    throw CliError(kUsage, inputPath +
                               ": the output would replace the input (segmented data "
                               "keeps its name); give --out-dir");
  return std::make_unique<StreamedOutput>(target, toMap);
}

// The module visits fragment numbers 0 to count - 1: with a gap, the fragments above the
// count are never reached. Say so before the run, naming what is lost.
void warnAboutFragmentGaps(const Tessal::BundlePtr& input, const std::string& inputPath) {
  double t = 0.0;
  auto slice = (*input.get())(t);
  auto shots = slice ? (*slice)(schema::kShotsGrid) : Vorlap::StrongPtr<Tessal::Grid>();
  auto positions = shots ? (*shots)(schema::kPositions, "") : Vorlap::StrongPtr<Tessal::Field>();
  if (!positions) return;
  const auto ids = positions->getFragmentIDCollection();
  const std::string prefix = schema::kFragmentPrefix;
  std::string missing, unreached;
  for (std::size_t f = 0; f < ids->size(); ++f) {
    const std::string expected = schema::fragmentName(static_cast<std::uint32_t>(f));
    if (!ids->findFragmentIDByName(expected)) missing += (missing.empty() ? "" : ", ") + expected;
    const std::string& name = ids->at(f)->getName();
    const auto number = name.rfind(prefix, 0) == 0 ? name.substr(prefix.size()) : "";
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos ||
        number.size() > 9 || std::stoul(number) >= ids->size())
      unreached += (unreached.empty() ? "" : ", ") + name;
  }
  if (!missing.empty())
    Vorlap::Console() << inputPath << ": grid \"Shots\" has no " << missing
                      << "; these fragments are skipped as broken and " << unreached
                      << " will not be processed";
}

void checkOutDir(const std::string& outDir) {
  if (outDir.empty()) return;
  std::error_code ec;
  if (!fs::is_directory(outDir, ec)) throw CliError(kOutput, outDir + ": no such folder");
}

// Moves the outputs' mapping and saving time, spent inside stage `from`, to their own stages.
void creditStreamingTime(const std::vector<StreamedOutput*>& outputs, const std::string& from,
                         RunSummary& summary) {
  for (StreamedOutput* o : outputs) {
    summary.secondsPerStage[from] -= o->mapSeconds + o->saveSeconds;
    summary.secondsPerStage["map"] += std::exchange(o->mapSeconds, 0.0);
    summary.secondsPerStage["save"] += std::exchange(o->saveSeconds, 0.0);
  }
}

// The refinement over a moving window, run as the module finishes fragments: each refined
// fragment moves from the module's grid to the saved one and is written with the next report.
// With several threads the refined fragments are saved on a thread of their own
// (RefinedSaving), one pass per report as one thread writes them, while this one refines on.
class RunRefinement {
 public:
  // The run covers fragments [first, end).
  RunRefinement(Tessal::BundlePtr& input, const std::vector<StreamedOutput*>& outputs,
                std::uint32_t first, std::uint32_t end, unsigned threads)
      : outputs_(outputs), end_(end) {
    std::vector<Vorlap::StrongPtr<Tessal::Grid>> grids;
    for (StreamedOutput* o : outputs) o->holdForRefinement(), grids.push_back(o->moduleGrid());
    FullWaveform::RefineSettings settings;
    settings.threads = threads;  // judges the echoes on the run's threads; same result
    refinement_ = std::make_unique<FullWaveform::WindowedRefinement>(input, grids, first, settings);
    if (threads > 1) saving_ = std::make_unique<RefinedSaving>(outputs);
  }
  // Whether the refined fragments are written here (the run's progress then leaves the
  // outputs alone).
  bool savesItself() const { return saving_ != nullptr; }
  void advance(std::uint32_t finishedBelow, bool last = false) {
    const auto start = std::chrono::steady_clock::now();
    const std::vector<std::string> names = refinement_->advance(finishedBelow, last);
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (saving_) return saving_->add(RefinedSaving::takeFragments(outputs_, names));
    for (const std::string& name : names)
      for (StreamedOutput* o : outputs_) o->moveFragment(name);
  }
  // Refines the last fragments.
  void refineLast() { advance(end_, true); }
  // Gives the saved grids the run's attributes; with its own saving, once every refined
  // fragment is written.
  void finish(RunSummary& summary) {
    if (saving_) saving_->finish();
    for (StreamedOutput* o : outputs_) o->takeRunAttributes();
    const FullWaveform::RefinementSummary& r = refinement_->summary();
    summary.result = r.error;
    summary.refined = r.error.empty();
    summary.refineMoved = r.moved;
    summary.refineMarkedNoise = r.markedNoise;
  }
  double seconds = 0;

 private:
  std::vector<StreamedOutput*> outputs_;
  std::uint32_t end_;
  std::unique_ptr<FullWaveform::WindowedRefinement> refinement_;
  std::unique_ptr<RefinedSaving> saving_;
};

}  // namespace

bool nameCarriesDate(const std::string& path) {
  static const std::regex pattern(schema::kFileDatePattern);
  const std::string stem = fs::path(path).stem().string();
  return std::regex_search(stem, pattern);
}

std::string moduleFileName(const std::string& inputPath, const std::string& date) {
  if (nameCarriesDate(inputPath) || date.empty()) return inputPath;
  const fs::path p(inputPath);
  return (p.parent_path() / (p.stem().string() + "_" + date + p.extension().string())).string();
}

RunSummary runOne(const std::string& inputPath, const RunSettings& settings,
                  Tessal::BundlePtr loaded) {
  RunSummary summary;
  summary.input = inputPath;
  if (!nameCarriesDate(inputPath) && settings.date.empty())
    throw CliError(kUsage, inputPath +
                               ": the file name carries no acquisition date (name_YYMMDD_HHMMSS); "
                               "give it with --date YYMMDD_HHMMSS");
  checkOutDir(settings.outDir);
  StageClock clock(summary);
  Tessal::BundlePtr bundle = loaded.isEmpty() ? loadKqFile(inputPath) : std::move(loaded);
  clock.lap("load");
  warnAboutFragmentGaps(bundle, inputPath);
  FullWaveform::Input input = settings.input;
  input.inputFileName = moduleFileName(inputPath, settings.date);
  if (!settings.segmentGiven) input.setIsDataFrom_RDBX_File(bundle);
  const Transform toMap = scannerToMap(bundle);
  auto [firstPath, secondPath] = input.getOutFileName(fs::path(inputPath));
  std::unique_ptr<StreamedOutput> first = makeOutput(firstPath, settings.outDir, inputPath, toMap);
  std::unique_ptr<StreamedOutput> second =
      makeOutput(secondPath, settings.outDir, inputPath, toMap);
  std::vector<StreamedOutput*> outputs;
  for (StreamedOutput* o : {first.get(), second.get()})
    if (o) outputs.push_back(o), o->setSaveThreads(settings.threads);
  auto bar =
      Vorlap::makeStrong<ProgressBar>(fs::path(inputPath).filename().string(), settings.quiet);
  WaveCounts waves = countWaves(bundle);
  summary.waves = waves.total;
  bar->setWaveCounts(std::move(waves));
  std::unique_ptr<RunRefinement> refinement;
  if (settings.refine) {
    stopHugePagesForHeap();  // the window's memory costs more on huge pages (HugePageHeap.hpp)
    refinement = std::make_unique<RunRefinement>(
        bundle, outputs, std::uint32_t(std::max<std::int32_t>(input.fragBegin, 0)), input.fragEnd,
        settings.threads);
  }
  const bool savedByRefinement = refinement && refinement->savesItself();
  auto sink = Vorlap::makeStrong<StreamingProgress>(
      bar, savedByRefinement ? std::vector<StreamedOutput*>() : outputs, settings.threads < 2);
  if (refinement) sink->setBeforeWrite([&](unsigned current) { refinement->advance(current); });
  input.progress = Vorlap::WeakPtr<Vorlap::ProgressSink>(sink);
  input.dropInputsAfterFragment = !settings.refine;
  if (settings.verbose) Vorlap::Console() << input.speak();
  summary.result = runModule({inputPath,
                              bundle,
                              {first.get(), second.get()},
                              input,
                              settings.threads,
                              settings.verbose,
                              !settings.refine});
  if (summary.result.empty()) bar->complete();
  bar->finish();
  clock.lap("run");
  if (!summary.result.empty()) return summary;  // the outputs' temporary files go with them
  if (!savedByRefinement) creditStreamingTime(outputs, "run", summary);
  if (refinement) {
    summary.secondsPerStage["run"] -= refinement->seconds;
    summary.secondsPerStage["refine"] += std::exchange(refinement->seconds, 0.0);
    refinement->refineLast();
    clock.lap("refine");
    refinement->finish(summary);
    if (savedByRefinement) {
      // Saved beside the other stages: only the wait for the last writes adds to the run.
      clock.lap("save");
      for (StreamedOutput* o : outputs) o->mapSeconds = o->saveSeconds = 0.0;
    }
  }
  if (!summary.result.empty()) return summary;
  for (StreamedOutput* o : outputs) summary.outputs.push_back(o->finish());
  clock.lap("verify");
  creditStreamingTime(outputs, "verify", summary);
  return summary;
}

}  // namespace quillo::cli
